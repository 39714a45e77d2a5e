// Steps of the people family: a self identity and its nick candidates,
// people with their identities, and pseudo-persons. The self identity, the
// people and the pseudo-persons are top-level objects of the scenario (no
// connection holds them yet); each person's identity is tracked.

#include "dictionary_objects.h"
#include "model_scenario.h"
#include "network_classes.h"
#include "person_classes.h"

using namespace Qt::StringLiterals;

namespace {

// Where the family's objects sit among the root's objects: after the ones
// the earlier families adopted.
struct PeopleIndexes
{
    qsizetype self = -1;
    qsizetype firstPerson = -1;
    qsizetype firstPseudo = -1;
};

PeopleIndexes &indexes()
{
    static PeopleIndexes i;
    return i;
}

template<typename T> T *adopted(ScenarioContext &ctx, qsizetype index)
{
    return dynamic_cast<T *>(ctx.root->objects().value(index).get());
}

ZTAbstractSelfIdentity *self(ScenarioContext &ctx)
{
    return adopted<ZTAbstractSelfIdentity>(ctx, indexes().self);
}

ZTAbstractPerson *person(ScenarioContext &ctx, qsizetype i)
{
    return adopted<ZTAbstractPerson>(ctx, indexes().firstPerson + i);
}

ZTAbstractPseudoPerson *pseudo(ScenarioContext &ctx, qsizetype i)
{
    return adopted<ZTAbstractPseudoPerson>(ctx, indexes().firstPseudo + i);
}

zt::Ref<ZTAbstractNickCandidate> candidate(const QString &nickname, const QString &nickserv = {})
{
    auto c = zt::make<AgentNickCandidate>();
    c->init();
    c->setNickname(nickname);
    if (!nickserv.isNull())
        c->setNickserv(nickserv);
    return c;
}

} // namespace

QList<ScenarioStep> peopleSteps()
{
    return {
        {QStringLiteral("self identity: create with candidates"),
         [](ScenarioContext &ctx) {
             auto identity = zt::make<AgentSelfIdentity>();
             identity->init();
             identity->setUsername(QStringLiteral("zin"));
             identity->setRealname(QStringLiteral("Zin Taro"));
             identity->setIsDefault(true);
             identity->addCandidate(candidate(u"zin"_s, u"hunter2"_s).get());
             identity->addCandidate(candidate(u"zin_"_s).get());
             indexes().self = ctx.root->objects().size();
             ctx.adopt(identity);
         }},
        {QStringLiteral("self identity: insert candidates"),
         [](ScenarioContext &ctx) {
             self(ctx)->insertCandidatesAtLocations({candidate(u"zt"_s), candidate(u"zin__"_s, u"pw"_s)},
                                                    zt::IndexSet{0, 3});
         }},
        {QStringLiteral("self identity: remove candidates"),
         [](ScenarioContext &ctx) {
             ZTAbstractSelfIdentity *identity = self(ctx);
             identity->removeCandidatesAtLocations(zt::IndexSet(1));
             // By equality: a new object with the same nickname and password.
             zt::Ref<ZTAbstractNickCandidate> probe = candidate(u"zin__"_s, u"pw"_s);
             identity->removeCandidate(probe.get());
             probe->invalidate();
         }},
        {QStringLiteral("self identity: replace a candidate"),
         [](ScenarioContext &ctx) {
             self(ctx)->mutableCandidates().replaceObjectAtIndex(
                 1, zt::objectValue(candidate(u"zintaro"_s, u"secret"_s).get()));
         }},
        {QStringLiteral("self identity: candidate's nickserv and nickname"),
         [](ScenarioContext &ctx) {
             ZTAbstractNickCandidate *c = self(ctx)->candidates()[1].get();
             c->setNickserv(QStringLiteral("changed"));
             self(ctx)->candidates()[0]->setNickname(QStringLiteral("ZT"));
             self(ctx)->setUsername(QStringLiteral("zintaro"));
         }},
        {QStringLiteral("people: create"),
         [](ScenarioContext &ctx) {
             indexes().firstPerson = ctx.root->objects().size();
             for (const QString &nick : {u"alice"_s, u"bob"_s}) {
                 auto p = zt::make<AgentPerson>();
                 p->initWithNickname(nick);
                 p->identity()->setUsername(nick.left(3));
                 p->identity()->setHostname(nick + u".example.org"_s);
                 p->setAuthenticated(nick == u"alice");
                 if (nick == u"bob") { // the away text crosses with the dictionary form only
                     p->identity()->setStatus(ZTAbstractIdentity::StatusAway);
                     p->identity()->setAwayMessage(QStringLiteral("lunch"));
                 }
                 ctx.adopt(p);
                 ctx.track(p->identity());
             }
         }},
        {QStringLiteral("people: nickname, username and hostname"),
         [](ScenarioContext &ctx) {
             ZTAbstractIdentity *id = person(ctx, 0)->identity().get();
             id->setNickname(QStringLiteral("alice|away"));
             id->setUsername(QStringLiteral("alice"));
             id->setHostname(QStringLiteral("10.0.0.7"));
             id->setRealname(QStringLiteral("Alice A."));
             person(ctx, 1)->setSecure(true);
         }},
        {QStringLiteral("people: back from away, then away again"),
         [](ScenarioContext &ctx) {
             person(ctx, 1)->identity()->setStatus(ZTAbstractIdentity::StatusAvailable);
             person(ctx, 0)->identity()->setStatus(ZTAbstractIdentity::StatusAway);
         }},
        {QStringLiteral("people: away again"),
         [](ScenarioContext &ctx) { person(ctx, 1)->identity()->setStatus(ZTAbstractIdentity::StatusAway); }},
        {QStringLiteral("people: privileges"),
         [](ScenarioContext &ctx) {
             person(ctx, 0)->identity()->setPrivileges(QVariantList{qint16(3), qint16(1)});
             person(ctx, 1)->identity()->setPrivileges(QVariantList{qint16(6)});
         }},
        {QStringLiteral("people: privileges dropped"),
         [](ScenarioContext &ctx) { person(ctx, 0)->identity()->setPrivileges(QVariantList{}); }},
        {QStringLiteral("pseudo-persons: create"),
         [](ScenarioContext &ctx) {
             indexes().firstPseudo = ctx.root->objects().size();
             ZTAbstractNetwork *libera = ctx.directory->networks().value(0).get();
             for (const QString &content : {u"alice*"_s, u"*!*@*.example.org"_s}) {
                 auto p = zt::make<AgentPseudoPerson>();
                 p->initWithContentOnNetwork(content, libera);
                 ctx.adopt(p);
             }
         }},
        {QStringLiteral("pseudo-persons: content and permissions"),
         [](ScenarioContext &ctx) {
             ZTAbstractPseudoPerson *p = pseudo(ctx, 0);
             p->setContent(QStringLiteral("alice|*"));
             p->setAddressBookID(QStringLiteral("ab-1"));
             p->setPublicAllowed(false);
             p->setPrivateAllowed(true);
             p->setHighlightsAllowed(false);
             p->setCtcpAllowed(true);
             p->setJpqAllowed(false);
             pseudo(ctx, 1)->setDccAllowed(true);
             pseudo(ctx, 1)->setDccAllowed(QVariant()); // back to not set
         }},
        {QStringLiteral("pseudo-persons: assign a real person"),
         [](ScenarioContext &ctx) { pseudo(ctx, 0)->assignRealPersonFromPerson(person(ctx, 0)); }},
        {QStringLiteral("pseudo-persons: unassign"),
         [](ScenarioContext &ctx) { pseudo(ctx, 0)->unassignRealPerson(); }},
    };
}

void peopleBuilders(ClientBuilders &builders)
{
    using zt::apps::objectFromDictionary;
    builders.insert(QStringLiteral("AgentSelfIdentity"),
                    objectFromDictionary<ClientSelfIdentity, ZTAbstractIPC>);
    builders.insert(QStringLiteral("AgentPerson"), [](const QVariantMap &d) -> zt::Ref<ZTAbstractIPC> {
        return ClientPerson::personWithDictionary(d);
    });
    builders.insert(QStringLiteral("AgentPseudoPerson"),
                    objectFromDictionary<ClientPseudoPerson, ZTAbstractIPC>);
}
