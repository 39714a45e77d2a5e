// People and pseudo-people: induction from the connection, status texts,
// pattern rules, the pseudo-person's forms and query parties.
#include "model_fixture.h"
#include "runtime/kvc.h"

namespace {

// Counts teardowns, to see which people are freed.
class CountedPerson : public AgentPerson
{
    ZT_OBJECT(CountedPerson, AgentPerson)
public:
    static inline int deallocs = 0;
    void dealloc() override
    {
        ++deallocs;
        super::dealloc();
    }
};
ZT_DEFINE_CLASS(CountedPerson)

// A connection "Me" on a network, with two channels.
class PersonTest : public ModelTest
{
protected:
    void SetUp() override
    {
        ModelTest::SetUp();
        network = make<AgentNetwork>();
        auto server = make<AgentServer>();
        server->setNetwork(network);
        connection = make<AgentConnection>();
        connection->setServer(server);
        connection->setNickname(u"Me"_s);
        connection->setCurrentIdentity(make<AgentSelfIdentity>());
        connection->currentIdentity()->setStatus(6);
        connection->addChannels({channel(u"#a"_s, connection.get()), channel(u"#b"_s, connection.get())});
    }
    template<typename P = AgentPerson> zt::Ref<P> join(const QString &nick, int channel = 0)
    {
        auto person = zt::make<P>();
        person->initWithNicknameOnChannel(nick, connection->channels().at(channel).get());
        connection->channels().at(channel)->addPerson(person);
        return person;
    }
    zt::Ref<AgentNetwork> network;
    zt::Ref<AgentConnection> connection;
};

TEST_F(PersonTest, InductionFromTheConnection)
{
    auto first = join(u"bob"_s);
    first->identity()->setUsername(u"u"_s);
    first->identity()->setHostname(u"h"_s);
    first->setAuthenticated(true);
    auto second = join(u"BOB"_s, 1);
    EXPECT_EQ(second->nuh(), u"BOB!u@h"_s);
    EXPECT_TRUE(second->authenticated());

    auto me = join(u"Me"_s, 1), meInOtherCase = join(u"me"_s);
    EXPECT_TRUE(me->isMe());
    EXPECT_TRUE(meInOtherCase->isMe());
    EXPECT_EQ(me->identity()->status(), 6);            // copied from the current identity
    EXPECT_EQ(meInOtherCase->identity()->status(), 7); // the copy compares exactly
}

TEST_F(PersonTest, StatusString)
{
    struct Row
    {
        int status;
        const char *message, *expected;
    } rows[] = {{7, "gone", "AVAILABLE"}, {6, "", "AWAY"}, {6, "gone", "gone"}};
    auto person = join(u"bob"_s);
    int notified = 0;
    auto token = zt::observeKeyPathOptionsHandler(person.get(), u"statusString"_s, {},
                                                  [&](zt::Object *, const zt::KVOChange &) { ++notified; });
    for (const Row &r : rows) {
        SCOPED_TRACE(r.expected);
        person->identity()->setStatus(qint16(r.status));
        person->identity()->setAwayMessage(qs(r.message));
        EXPECT_EQ(person->statusString(), qs(r.expected));
    }
    EXPECT_GE(notified, 4);
    for (const char *key : {"statusString", "displayNickname"})
        EXPECT_FALSE(person->shouldPropagateValueChangesForKey(QString::fromLatin1(key))) << key;
}

TEST_F(PersonTest, PseudoPersonPatterns)
{
    struct Row
    {
        const char *name, *content, *user, *host;
        bool sameNetwork, matches;
    } rows[] = {
        {"star is not anchored", "bob*", "u", "h", true, true},
        {"letters ignore case", "BOB", "u", "h", true, true},
        {"dot is literal", "b.b", "u", "h", true, false},
        {"mask", "*!*@host.org", "u", "host.org", true, true},
        {"dot in a mask", "*!*@host.org", "u", "hostXorg", true, false},
        {"other network", "bob", "u", "h", false, false},
    };
    auto person = join(u"xbobby"_s);
    auto other = make<AgentNetwork>();
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        person->identity()->setUsername(qs(r.user));
        person->identity()->setHostname(qs(r.host));
        auto rule = keep(zt::make<AgentPseudoPerson>());
        rule->initWithContentOnNetwork(qs(r.content), r.sameNetwork ? network.get() : other.get());
        EXPECT_EQ(rule->matchesPerson(person.get()), r.matches);
    }

    auto rule = make<AgentPseudoPerson>();
    EXPECT_FALSE(rule->regex());
    rule->setContent(u"bob"_s);
    const zt::Ref<KORegex> compiled = rule->regex();
    ASSERT_TRUE(compiled);
    rule->setContent(QString());
    EXPECT_EQ(rule->regex(), compiled); // clearing the content keeps the pattern
}

TEST_F(PersonTest, PseudoPersonArchive)
{
    auto rule = keep(zt::make<AgentPseudoPerson>());
    rule->initWithContentOnNetwork(u"bob*"_s, network.get());
    rule->setAddressBookID(u"card"_s);
    auto back = roundTrip<AgentPseudoPerson>(rule.get());
    ASSERT_TRUE(back);
    EXPECT_EQ(back->content(), u"bob*"_s);
    EXPECT_EQ(back->networkUUID(), network->description());
    EXPECT_EQ(back->addressBookID(), u"card"_s);
    EXPECT_TRUE(back->regex()); // compiled again from the decoded content
}

TEST_F(PersonTest, QueryPartiesLiveForTheProcess)
{
    connection->channels().at(1)->setIsQuery(true);
    const int before = CountedPerson::deallocs;
    {
        auto plain = join<CountedPerson>(u"a"_s);
        auto party = join<CountedPerson>(u"b"_s, 1);
        EXPECT_TRUE(party->isQueryParty());
        connection->channels().at(0)->removePerson(plain);
        connection->channels().at(1)->removePerson(party);
    }
    EXPECT_EQ(CountedPerson::deallocs, before + 1);
}

} // namespace
