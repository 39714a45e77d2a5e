// The model controllers: removals, wiring, look-ups
// across connections and the departure rule.
#include "model_fixture.h"
#include "support/raised.h"

// The identity controller's removals keep the identity; the abstract class
// cannot convert dictionaries.
TEST_F(ModelTest, IdentityControllerRemovals)
{
    auto identities = make<AgentIdentityController>();
    auto identity = make<AgentSelfIdentity>();
    identities->addIdentity(identity);
    identities->removeIdentity(identity);
    EXPECT_TRUE(identities->identities().isEmpty());
    EXPECT_TRUE(identity->inDirectory());
    auto abstract = zt::make<ZTAbstractIdentityController>();
    ZTAbstractIPC::disableRegistration();
    abstract->init();
    ZTAbstractIPC::enableRegistration();
    EXPECT_EQ(
        zttest::raised([&] { abstract->setIdentityDictionaries({}); }),
        std::make_pair(
            u"Abstract method"_s,
            u"Implement -replacementObjectsForIdentityDictionaries: in ZTAbstractIdentityController"_s));
}

TEST_F(ModelTest, AllChannelsListsChannelsThenConsoles)
{
    auto controller = make<AgentConnectionController>();
    auto first = make<AgentConnection>(), second = make<AgentConnection>();
    auto a = channel(u"#a"_s, first.get()), b = channel(u"#B"_s, first.get());
    auto c = channel(u"#b"_s, second.get());
    auto console1 = channel(u"one"_s, first.get()), console2 = channel(u"two"_s, second.get());
    first->addChannels({a, b});
    second->addChannel(c);
    first->setConsole(console1);
    second->setConsole(console2);
    controller->addConnection(first);
    controller->addConnection(second);
    EXPECT_EQ(controller->allChannels(), (QList<zt::Ref<ZTAbstractChannel>>{a, b, c, console1, console2}));
    EXPECT_EQ(controller->allChannelsForName(u"#b"_s), (QList<zt::Ref<ZTAbstractChannel>>{b, c}));
    EXPECT_FALSE(controller->allChannelsForName(QString()));
    controller->removeConnection(first);
    EXPECT_EQ(controller->allChannels(), (QList<zt::Ref<ZTAbstractChannel>>{c, console2}));
}

// Counts the "emptyRuleCache" calls the person list controller makes.
class RuleCacheCounter : public zt::Object
{
    ZT_OBJECT(RuleCacheCounter, zt::Object)
public:
    void emptyRuleCache() { ++emptied; }
    ZT_METHOD("emptyRuleCache", emptyRuleCache)
    int emptied = 0;
};
ZT_DEFINE_CLASS(RuleCacheCounter)

class CountingPersonList : public AgentPersonListController
{
    ZT_OBJECT(CountingPersonList, AgentPersonListController)
public:
    zt::Ref<zt::Object> ruleController() const override { return counter; }
    zt::Ref<RuleCacheCounter> counter = zt::make<RuleCacheCounter>();
};
ZT_DEFINE_CLASS(CountingPersonList)

TEST_F(ModelTest, PersonListLookUps)
{
    // Two connections on two networks, a person "Ann"/"ann" on each.
    QList<zt::Ref<ZTAbstractPerson>> people;
    QList<zt::Ref<AgentNetwork>> networks;
    for (int i = 0; i < 2; ++i) {
        auto network = make<AgentNetwork>();
        auto server = make<AgentServer>();
        server->setNetwork(network);
        auto connection = make<AgentConnection>();
        connection->setServer(server);
        auto p = person(i ? u"ann"_s : u"Ann"_s);
        p->setConnection(connection.get());
        people.append(p);
        networks.append(network);
    }
    auto list = zt::make<CountingPersonList>();
    ZTAbstractIPC::disableRegistration(); // the network directory's UUID may be taken
    list->init();
    ZTAbstractIPC::enableRegistration();
    EXPECT_EQ(list->replacementKeyForWiring(u"pseudoPersons"_s), u"pseudoPersonDictionaries"_s);
    QList<zt::Ref<ZTAbstractPseudoPerson>> pseudo;
    for (int i = 0; i < 3; ++i) {
        auto p = make<AgentPseudoPerson>();
        if (i < 2)
            p->setRealPerson(people[i]);
        pseudo.append(p);
        list->addPseudoPerson(p);
    }
    EXPECT_EQ(list->counter->emptied, 3);
    const QVariantList real = list->realPersons();
    ASSERT_EQ(real.size(), 3);
    EXPECT_TRUE(zt::isNullMarker(real[2]));
    EXPECT_EQ(list->realPersonsWithName(u"ANN"_s), people);
    EXPECT_EQ(list->personsWithNameOnNetwork(u"ann"_s, networks[1]),
              (QList<zt::Ref<ZTAbstractPerson>>{people[1]}));
    EXPECT_EQ(list->pseudoPersonsWithName(u"aNN"_s), pseudo.mid(0, 2));
    EXPECT_EQ(list->pseudoPersonsWithNameOnNetwork(u"ann"_s, networks[0]), pseudo.mid(0, 1));
    list->removePseudoPerson(pseudo[2]);
    EXPECT_EQ(list->counter->emptied, 4);
    EXPECT_TRUE(pseudo[2]->inDirectory()); // the person list does not invalidate
}
