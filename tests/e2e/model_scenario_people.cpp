// Steps of the people family: a self identity and its nick candidates,
// people with their identities, and pseudo-persons, all top-level objects
// (no connection holds them).

#include "model_scenario.h"
#include "network_classes.h"
#include "person_classes.h"

using namespace Qt::StringLiterals;

namespace {

zt::Ref<ZTAbstractNickCandidate> candidate(const QString &nickname, const QString &nickserv = {})
{
    auto c = made<AgentNickCandidate>();
    setKeys(c.get(), {u"nickname"_s, nickname, u"nickserv"_s, nickserv});
    return c;
}

} // namespace

QList<ScenarioStep> peopleSteps()
{
    return {
        {u"people: a self identity with candidates inserted, people and pseudo-persons"_s,
         [](ScenarioContext &ctx) {
             auto self = made<AgentSelfIdentity>();
             setKeys(self, {u"username"_s, u"zin"_s, u"realname"_s, u"Zin Taro"_s, u"isDefault"_s, true});
             self->addCandidate(candidate(u"zin"_s, u"hunter2"_s).get());
             self->addCandidate(candidate(u"zin_"_s).get());
             ctx.adopt(u"self"_s, self);
             for (const QString &nick : {u"alice"_s, u"bob"_s}) {
                 auto p = zt::make<AgentPerson>();
                 p->initWithNickname(nick);
                 setKeys(p->identity().get(),
                         {u"username"_s, nick.left(3), u"hostname"_s, nick + u".example.org"_s});
                 p->setAuthenticated(nick == u"alice");
                 if (nick == u"bob") { // the away text crosses with the dictionary form only
                     p->identity()->setStatus(ZTAbstractIdentity::StatusAway);
                     p->identity()->setAwayMessage(u"lunch"_s);
                 }
                 ctx.adopt(nick, p);
             }
             for (const QString &content : {u"alice*"_s, u"*!*@*.example.org"_s}) {
                 auto p = zt::make<AgentPseudoPerson>();
                 p->initWithContentOnNetwork(content, ctx.directory->networks().value(0).get());
                 ctx.adopt(content, p);
             }
             self->insertCandidatesAtLocations({candidate(u"zt"_s), candidate(u"zin__"_s, u"pw"_s)},
                                               zt::IndexSet{0, 3});
         }},
        {u"people: candidates removed, replaced, changed; identity keys, away, privileges; pseudo-person keys"_s,
         [](ScenarioContext &ctx) {
             auto *self = ctx.get<ZTAbstractSelfIdentity>(u"self"_s);
             self->removeCandidatesAtLocations(zt::IndexSet(1));
             // By equality: a new object with the same nickname and password.
             zt::Ref<ZTAbstractNickCandidate> probe = candidate(u"zin__"_s, u"pw"_s);
             self->removeCandidate(probe.get());
             probe->invalidate();
             self->mutableCandidates().replaceObjectAtIndex(
                 1, zt::objectValue(candidate(u"zintaro"_s, u"secret"_s).get()));
             self->candidates()[1]->setNickserv(u"changed"_s);
             self->candidates()[0]->setNickname(u"ZT"_s);
             self->setUsername(u"zintaro"_s);
             setKeys(ctx.get<ZTAbstractPerson>(u"alice"_s)->identity().get(),
                     {u"nickname"_s, u"alice|away"_s, u"username"_s, u"alice"_s, u"hostname"_s, u"10.0.0.7"_s,
                      u"realname"_s, u"Alice A."_s, u"status"_s, ZTAbstractIdentity::StatusAway,
                      u"privileges"_s, QVariantList{qint16(3), qint16(1)}});
             auto *bob = ctx.get<ZTAbstractPerson>(u"bob"_s);
             bob->setSecure(true);
             setKeys(bob->identity().get(), {u"status"_s, ZTAbstractIdentity::StatusAvailable,
                                             u"privileges"_s, QVariantList{qint16(6)}});
             auto *pseudo = ctx.get<ZTAbstractPseudoPerson>(u"alice*"_s);
             setKeys(pseudo, {u"content"_s, u"alice|*"_s, u"addressBookID"_s, u"ab-1"_s, u"publicAllowed"_s,
                              false, u"privateAllowed"_s, true, u"highlightsAllowed"_s, false,
                              u"ctcpAllowed"_s, true, u"jpqAllowed"_s, false});
             pseudo->assignRealPersonFromPerson(ctx.get<ZTAbstractPerson>(u"alice"_s));
             ctx.get<ZTAbstractPseudoPerson>(u"*!*@*.example.org"_s)->setDccAllowed(true);
         }},
        {u"people: away again, privileges dropped, a permission unset, the real person unassigned"_s,
         [](ScenarioContext &ctx) {
             ctx.get<ZTAbstractPerson>(u"bob"_s)->identity()->setStatus(ZTAbstractIdentity::StatusAway);
             ctx.get<ZTAbstractPerson>(u"alice"_s)->identity()->setPrivileges(QVariantList{});
             ctx.get<ZTAbstractPseudoPerson>(u"*!*@*.example.org"_s)->setDccAllowed(QVariant());
             ctx.get<ZTAbstractPseudoPerson>(u"alice*"_s)->unassignRealPerson();
         }},
    };
}
