// Steps of the chat family: the controllers, a connection and all it holds,
// and the removal of a channel and of the connection. A connection's mirror
// is made from its UUID alone, so the agent fills it after adding it.

#include "controller_classes.h"
#include "model_scenario.h"

using namespace Qt::StringLiterals;

namespace {

ZTAbstractConnection *connection(ScenarioContext &ctx)
{
    return ctx.get<ZTAbstractConnectionController>(u"connections"_s)->connections().value(0).get();
}

ZTAbstractChannel *channel(ScenarioContext &ctx, const QString &name)
{
    return connection(ctx)->channelWithName(name).get();
}

zt::Ref<ZTAbstractChannel> newChannel(const QString &name, bool isChannel, bool isQuery = false)
{
    auto c = made<AgentChannel>();
    setKeys(c.get(), {u"name"_s, name, u"isChannel"_s, isChannel, u"isQuery"_s, isQuery, u"isConsole"_s,
                      !isChannel && !isQuery});
    return c;
}

zt::Ref<ZTAbstractPerson> newPerson(ScenarioContext &ctx, const QString &nick, ZTAbstractChannel *in)
{
    auto p = zt::make<AgentPerson>();
    p->initWithNickname(nick);
    setKeys(p->identity().get(), {u"username"_s, u"~"_s + nick, u"hostname"_s, nick + u".users.example"_s});
    p->setChannel(in);
    p->setConnection(connection(ctx));
    return p;
}

zt::Ref<ZTAbstractSelfIdentity> selfIdentity(const QString &username)
{
    auto identity = made<AgentSelfIdentity>();
    setKeys(identity.get(), {u"username"_s, username, u"realname"_s, username.toUpper()});
    return identity;
}

} // namespace

QList<ScenarioStep> chatSteps()
{
    return {
        {u"controllers with identities; a connection with server, identities, settings, proxy, transfers"_s,
         [](ScenarioContext &ctx) {
             ctx.adopt(u"connections"_s, made<AgentConnectionController>());
             auto identities = made<AgentIdentityController>();
             ctx.adopt(u"identities"_s, identities);
             auto people = made<AgentPersonListController>();
             ctx.adopt(u"people"_s, people);
             identities->addIdentity(selfIdentity(u"zin"_s));
             identities->insertIdentitiesAtLocations({selfIdentity(u"taro"_s)}, zt::IndexSet(0));
             identities->identities()[1]->setRealname(u"Zin T."_s);
             auto pseudo = zt::make<AgentPseudoPerson>();
             pseudo->initWithContentOnNetwork(u"zin*"_s, ctx.directory->networks().value(0).get());
             people->addPseudoPerson(pseudo);
             auto c = made<AgentConnection>();
             ctx.get<ZTAbstractConnectionController>(u"connections"_s)->addConnection(c);
             auto server = made<AgentServer>();
             setKeys(server.get(), {u"address"_s, u"irc.example.net"_s, u"secure"_s, true});
             c->setServer(server);
             c->setCurrentIdentity(selfIdentity(u"zin"_s));
             c->setNextIdentity(selfIdentity(u"zin2"_s));
             c->setAdvancedSettings(made<AgentAdvancedSettings>());
             c->advancedSettings()->setAutoJoin(true);
             c->setProxy(made<AgentProxy>());
             c->proxy()->setProxyAddress(u"socks.local"_s);
             setKeys(c, {u"nickname"_s, u"zin"_s, u"modes"_s, u"+iw"_s, u"status"_s, 1});
             for (const QString &file : {u"notes.txt"_s, u"talk.ogg"_s}) {
                 auto transfer = made<AgentTransfer>();
                 transfer->setAttributes({{u"file"_s, file}, {u"size"_s, qint64(2048)}});
                 c->addTransfer(transfer);
             }
         }},
        {u"connection: console, channels and a query; people join, bans added"_s,
         [](ScenarioContext &ctx) {
             ZTAbstractConnection *connection = ::connection(ctx);
             connection->setConsole(newChannel(u"Example"_s, false));
             connection->addChannels({newChannel(u"#zintaro"_s, true), newChannel(u"#qt"_s, true)});
             connection->insertChannelsAtLocations({newChannel(u"alice"_s, false, true)}, zt::IndexSet(1));
             ZTAbstractChannel *c = connection->channels()[0].get();
             c->setAdvancedSettings(made<AgentAdvancedSettings>());
             c->addPerson(newPerson(ctx, u"alice"_s, c));
             c->mutableUsers().addObjects(
                 zt::detail::objectValues(QList{newPerson(ctx, u"bob"_s, c), newPerson(ctx, u"carol"_s, c)}));
             c->users()[1]->identity()->setPrivileges(QVariantList{qint16(3)});
             for (const QString &mask : {u"*!*@spam.example"_s, u"troll!*@*"_s, u"*!*@flood.example"_s})
                 c->mutableBanlist().addObject(zt::objectValue(
                     ZTAbstractBan::banWithMaskBannerDate<AgentBan>(mask, u"zin"_s, 1700000000.5).get()));
         }},
        {u"channel and connection: nick change, away, a person leaves, topic, modes, parts, counters"_s,
         [](ScenarioContext &ctx) {
             ZTAbstractChannel *c = channel(ctx, u"#zintaro"_s);
             c->personWithName(u"bob"_s)->identity()->setNickname(u"bobby"_s);
             // The status crosses; the away text stays with the agent.
             c->personWithName(u"alice"_s)->identity()->setStatus(ZTAbstractIdentity::StatusAway);
             c->removePerson(c->personWithName(u"carol"_s));
             c->setAttributes({{u"topic"_s, u"Zintaro Core"_s}, {u"modes"_s, u"+nt"_s}});
             channel(ctx, u"#qt"_s)->setAttributes({{u"topic"_s, u"Qt 6"_s}});
             c->advancedSettings()->setMuteSounds(true);
             ZTAbstractConnection *connection = ::connection(ctx);
             connection->server()->setPort(6698);
             connection->currentIdentity()->setRealname(u"Zin Taro"_s);
             connection->nextIdentity()->setUsername(u"zin_"_s);
             for (ZTAbstractChannel *counted : {c, channel(ctx, u"#qt"_s)}) {
                 counted->setUnreadLines(counted->name().size());
                 counted->setUnreadHighlights(1);
             }
             connection->setUnreadLines(4);
         }},
        {u"counters: the agent resets one channel, the client the other"_s,
         [](ScenarioContext &ctx) {
             channel(ctx, u"#zintaro"_s)->resetLineCount();
             ctx.tellClient("agentAsksClientToPerform:onObjectWithID:",
                            {u"resetLineCount"_s, channel(ctx, u"#qt"_s)->description()});
         },
         [](ScenarioContext &ctx) {
             return channel(ctx, u"#qt"_s)->unreadLines() + channel(ctx, u"#qt"_s)->unreadHighlights() == 0;
         }},
        {u"stars added and removed, a ban removed, transfer attributes, a transfer removed"_s,
         [](ScenarioContext &ctx) {
             ZTAbstractChannel *c = channel(ctx, u"#zintaro"_s);
             c->echo(u"hello"_s);
             c->echo(u"world"_s);
             const auto messageID = [c](qsizetype line) {
                 return c->content()[line].toMap().value(u"msgID"_s).toString();
             };
             c->addStarOccurenceWithUUID(messageID(0));
             c->addStarOccurenceWithUUID(messageID(1));
             c->removeStarOccurenceWithUUID(messageID(0));
             zt::Ref<ZTAbstractBan> ban = c->banlist()[1];
             c->mutableBanlist().removeObjectAtIndex(1);
             ban->invalidate();
             ZTAbstractConnection *connection = ::connection(ctx);
             connection->transfers()[1]->setAttributes(
                 {{u"file"_s, u"talk.ogg"_s}, {u"received"_s, qint64(512)}});
             connection->transfers()[1]->accept();
             zt::Ref<ZTAbstractTransfer> transfer = connection->transfers()[0];
             connection->removeTransfer(transfer);
             transfer->invalidate();
         }},
        {u"connection: a channel removed"_s,
         [](ScenarioContext &ctx) { connection(ctx)->removeChannel(channel(ctx, u"#zintaro"_s)); }},
        {u"controller: the connection removed"_s,
         [](ScenarioContext &ctx) {
             ctx.get<ZTAbstractConnectionController>(u"connections"_s)->removeConnection(connection(ctx));
         }},
    };
}
