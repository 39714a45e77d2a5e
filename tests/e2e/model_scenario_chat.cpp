// Steps of the chat family: the three controllers, a connection with its
// server, identities, settings and proxy, its console, channels and a query,
// the people in a channel, bans, stars, counters and transfers, and the
// removal of a channel and of the connection. The controllers are top-level
// objects; the connection and its channels are tracked (their dictionary
// form is only part of what they hold, so chatComparedKeys names the rest).
// A connection's dictionary form is its UUID alone: its mirror is made
// empty, so the agent adds it to the controller before filling it.

#include "channel_classes.h"
#include "connection_classes.h"
#include "controller_classes.h"
#include "dictionary_objects.h"
#include "model_scenario.h"
#include "network_classes.h"
#include "person_classes.h"
#include "settings_classes.h"

using namespace Qt::StringLiterals;

namespace {

qsizetype controllerIndex = -1; // where the controllers sit among the root's objects

ZTAbstractConnectionController *controller(ScenarioContext &ctx)
{
    return dynamic_cast<ZTAbstractConnectionController *>(ctx.root->objects().value(controllerIndex).get());
}

ZTAbstractConnection *connection(ScenarioContext &ctx)
{
    return controller(ctx)->connections().value(0).get();
}

ZTAbstractChannel *channel(ScenarioContext &ctx, const QString &name)
{
    return connection(ctx)->channelWithName(name).get();
}

template<typename T> zt::Ref<T> made()
{
    auto object = zt::make<T>();
    object->init();
    return object;
}

zt::Ref<ZTAbstractChannel> newChannel(const QString &name, bool isChannel, bool isQuery = false)
{
    auto c = made<AgentChannel>();
    c->setName(name);
    c->setIsChannel(isChannel);
    c->setIsQuery(isQuery);
    c->setIsConsole(!isChannel && !isQuery);
    return c;
}

zt::Ref<ZTAbstractPerson> newPerson(ScenarioContext &ctx, const QString &nick, ZTAbstractChannel *in)
{
    auto p = zt::make<AgentPerson>();
    p->initWithNickname(nick);
    p->identity()->setUsername(u"~"_s + nick);
    p->identity()->setHostname(nick + u".users.example"_s);
    p->setChannel(in);
    p->setConnection(connection(ctx));
    return p;
}

zt::Ref<ZTAbstractSelfIdentity> selfIdentity(const QString &username)
{
    auto identity = made<AgentSelfIdentity>();
    identity->setUsername(username);
    identity->setRealname(username.toUpper());
    return identity;
}

QStringList uuidsOf(const QList<zt::Ref<ZTAbstractIPC>> &objects)
{
    QStringList out;
    for (const auto &object : objects)
        if (object)
            out.append(object->description());
    return out;
}

//! The channel, its people (with their identities), bans and settings.
QStringList ownedBy(const ZTAbstractChannel *c)
{
    QList<zt::Ref<ZTAbstractIPC>> owned{zt::Ref<ZTAbstractIPC>(const_cast<ZTAbstractChannel *>(c)),
                                        c->advancedSettings()};
    for (const auto &person : c->users())
        owned << person << person->identity();
    for (const auto &ban : c->banlist())
        owned.append(ban);
    return uuidsOf(owned);
}

QStringList ownedBy(const ZTAbstractConnection *c)
{
    QList<zt::Ref<ZTAbstractIPC>> owned{c->currentIdentity(), c->nextIdentity(), c->server(), c->proxy(),
                                        c->advancedSettings()};
    for (const auto &transfer : c->transfers())
        owned.append(transfer);
    QStringList out = uuidsOf(owned) << c->description();
    if (c->console())
        out += ownedBy(c->console().get());
    for (const auto &ch : c->channels())
        out += ownedBy(ch.get());
    return out;
}

bool countersCleared(ScenarioContext &ctx)
{
    const ZTAbstractChannel *c = channel(ctx, u"#qt"_s);
    return c->unreadLines() == 0 && c->unreadHighlights() == 0;
}

} // namespace

QList<ScenarioStep> chatSteps()
{
    return {
        {u"controllers: create"_s,
         [](ScenarioContext &ctx) {
             controllerIndex = ctx.root->objects().size();
             ctx.adopt(made<AgentConnectionController>());
             ctx.adopt(made<AgentIdentityController>());
             // Not registered (the directory holds "NetworkDirectory"): it
             // stays local, and the snapshot leaves it out.
             ctx.adopt(made<AgentPersonListController>());
         }},
        {u"identity controller: identities"_s,
         [](ScenarioContext &ctx) {
             auto *identities =
                 dynamic_cast<ZTAbstractIdentityController *>(ctx.root->objects()[controllerIndex + 1].get());
             identities->addIdentity(selfIdentity(u"zin"_s));
             identities->insertIdentitiesAtLocations({selfIdentity(u"taro"_s)}, zt::IndexSet(0));
             identities->identities()[1]->setRealname(u"Zin T."_s);
             auto *people = dynamic_cast<ZTAbstractPersonListController *>(
                 ctx.root->objects()[controllerIndex + 2].get());
             auto pseudo = zt::make<AgentPseudoPerson>();
             pseudo->initWithContentOnNetwork(u"zin*"_s, ctx.directory->networks().value(0).get());
             people->addPseudoPerson(pseudo);
         }},
        {u"connection: server, identities, settings, proxy"_s,
         [](ScenarioContext &ctx) {
             auto c = made<AgentConnection>();
             controller(ctx)->addConnection(c);
             ctx.track(c);
             auto server = made<AgentServer>();
             server->setAddress(u"irc.example.net"_s);
             server->setSecure(true);
             c->setServer(server);
             c->setCurrentIdentity(selfIdentity(u"zin"_s));
             c->setNextIdentity(selfIdentity(u"zin2"_s));
             c->setAdvancedSettings(made<AgentAdvancedSettings>());
             c->advancedSettings()->setAutoJoin(true);
             c->setProxy(made<AgentProxy>());
             c->proxy()->setProxyAddress(u"socks.local"_s);
             c->setNickname(u"zin"_s);
             c->setModes(u"+iw"_s);
             c->setStatus(1);
         }},
        {u"connection: console, channels and a query"_s,
         [](ScenarioContext &ctx) {
             ZTAbstractConnection *c = connection(ctx);
             c->setConsole(newChannel(u"Example"_s, false));
             c->addChannels({newChannel(u"#zintaro"_s, true), newChannel(u"#qt"_s, true)});
             c->insertChannelsAtLocations({newChannel(u"alice"_s, false, true)}, zt::IndexSet(1));
             for (const auto &ch : c->channels())
                 ctx.track(ch);
             c->channels()[0]->setAdvancedSettings(made<AgentAdvancedSettings>());
         }},
        {u"channel: people join"_s,
         [](ScenarioContext &ctx) {
             ZTAbstractChannel *c = channel(ctx, u"#zintaro"_s);
             c->addPerson(newPerson(ctx, u"alice"_s, c));
             c->mutableUsers().addObjects(
                 zt::detail::objectValues(QList{newPerson(ctx, u"bob"_s, c), newPerson(ctx, u"carol"_s, c)}));
             c->users()[1]->identity()->setPrivileges(QVariantList{qint16(3)});
         }},
        {u"channel: nick change and away"_s,
         [](ScenarioContext &ctx) {
             ZTAbstractChannel *c = channel(ctx, u"#zintaro"_s);
             c->personWithName(u"bob"_s)->identity()->setNickname(u"bobby"_s);
             // The status crosses; the away text stays with the agent.
             c->personWithName(u"alice"_s)->identity()->setStatus(ZTAbstractIdentity::StatusAway);
         }},
        {u"channel: a person leaves"_s,
         [](ScenarioContext &ctx) {
             ZTAbstractChannel *c = channel(ctx, u"#zintaro"_s);
             zt::Ref<ZTAbstractPerson> carol = c->personWithName(u"carol"_s);
             ctx.gone({carol->description(), carol->identity()->description()});
             c->removePerson(carol);
         }},
        {u"channel: topic and modes"_s,
         [](ScenarioContext &ctx) {
             channel(ctx, u"#zintaro"_s)
                 ->setAttributes({{u"topic"_s, u"Zintaro Core"_s}, {u"modes"_s, u"+nt"_s}});
             channel(ctx, u"#qt"_s)->setAttributes({{u"topic"_s, u"Qt 6"_s}});
         }},
        {u"counters: unread lines and highlights"_s,
         [](ScenarioContext &ctx) {
             for (ZTAbstractChannel *c : {channel(ctx, u"#zintaro"_s), channel(ctx, u"#qt"_s)}) {
                 c->setUnreadLines(c->name().size());
                 c->setUnreadHighlights(1);
             }
             connection(ctx)->setUnreadLines(4);
         }},
        {u"counters: the agent resets a channel"_s,
         [](ScenarioContext &ctx) { channel(ctx, u"#zintaro"_s)->resetLineCount(); }},
        {u"counters: the client resets a channel"_s,
         [](ScenarioContext &ctx) {
             ctx.tellClient("agentAsksClientToPerform:onObjectWithID:",
                            {u"resetLineCount"_s, channel(ctx, u"#qt"_s)->description()});
         },
         countersCleared},
        {u"stars: lines, a star added and one removed"_s,
         [](ScenarioContext &ctx) {
             ZTAbstractChannel *c = channel(ctx, u"#zintaro"_s);
             c->echo(u"hello"_s);
             c->echo(u"world"_s);
             const QString first = c->content()[0].toMap().value(u"msgID"_s).toString();
             c->addStarOccurenceWithUUID(first);
             c->addStarOccurenceWithUUID(c->content()[1].toMap().value(u"msgID"_s).toString());
             c->removeStarOccurenceWithUUID(first);
         }},
        {u"bans: added, then one removed"_s,
         [](ScenarioContext &ctx) {
             ZTAbstractChannel *c = channel(ctx, u"#zintaro"_s);
             for (const QString &mask : {u"*!*@spam.example"_s, u"troll!*@*"_s, u"*!*@flood.example"_s})
                 c->mutableBanlist().addObject(zt::objectValue(
                     ZTAbstractBan::banWithMaskBannerDate<AgentBan>(mask, u"zin"_s, 1700000000.5).get()));
             zt::Ref<ZTAbstractBan> gone = c->banlist()[1];
             c->mutableBanlist().removeObjectAtIndex(1);
             ctx.gone({gone->description()});
             gone->invalidate();
         }},
        {u"transfers: added, attributes, one removed"_s,
         [](ScenarioContext &ctx) {
             ZTAbstractConnection *c = connection(ctx);
             for (const QString &file : {u"notes.txt"_s, u"talk.ogg"_s}) {
                 auto t = made<AgentTransfer>();
                 t->setAttributes({{u"file"_s, file}, {u"size"_s, qint64(2048)}});
                 c->addTransfer(t);
             }
             c->transfers()[1]->setAttributes({{u"file"_s, u"talk.ogg"_s}, {u"received"_s, qint64(512)}});
             c->transfers()[1]->accept();
             zt::Ref<ZTAbstractTransfer> gone = c->transfers()[0];
             c->removeTransfer(gone);
             ctx.gone({gone->description()});
             gone->invalidate();
         }},
        {u"connection: a channel removed"_s,
         [](ScenarioContext &ctx) {
             zt::Ref<ZTAbstractChannel> c = channel(ctx, u"#zintaro"_s);
             ctx.gone(ownedBy(c.get()));
             ctx.forget(c.get());
             connection(ctx)->removeChannel(c);
         }},
        {u"controller: the connection removed"_s,
         [](ScenarioContext &ctx) {
             zt::Ref<ZTAbstractConnection> c = connection(ctx);
             ctx.gone(ownedBy(c.get()));
             ctx.forget(c.get());
             for (const auto &ch : c->channels())
                 ctx.forget(ch.get());
             controller(ctx)->removeConnection(c);
         }},
    };
}

// Controllers have a fixed UUID: the client makes them with plain init()
// unless one is registered already.
template<typename C> zt::Ref<ZTAbstractIPC> singleton(const QVariantMap &dictionary)
{
    if (auto existing =
            ZTDirectory::sharedInstance()->objectWithID(dictionary.value(u"description"_s).toString()))
        return existing;
    return made<C>();
}

void chatBuilders(ClientBuilders &builders)
{
    builders.insert(u"AgentConnectionController"_s, singleton<ClientConnectionController>);
    builders.insert(u"AgentIdentityController"_s, singleton<ClientIdentityController>);
    builders.insert(u"AgentPersonListController"_s, [](const QVariantMap &) -> zt::Ref<ZTAbstractIPC> {
        return made<ClientPersonListController>();
    });
}

QStringList chatComparedKeys(const ZTAbstractIPC *object)
{
    static const QStringList connectionKeys =
        u"nickname modes status unreadLines unreadHighlights attributes serverDictionary "
        u"currentIdentityDictionary nextIdentityDictionary advancedSettingsDictionary proxyDictionary "
        u"consoleDictionary channelDictionaries transferDictionaries"_s.split(u' ');
    if (dynamic_cast<const ZTAbstractConnection *>(object))
        return connectionKeys;
    if (dynamic_cast<const ZTAbstractChannel *>(object))
        return {u"starOccurences"_s};
    if (dynamic_cast<const ZTAbstractConnectionController *>(object))
        return {u"connectionDictionaries"_s};
    if (dynamic_cast<const ZTAbstractIdentityController *>(object))
        return {u"identityDictionaries"_s};
    return {};
}
