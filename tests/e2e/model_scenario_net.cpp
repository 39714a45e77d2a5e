// Steps of the network and settings families: the directory, its networks
// and servers (every kind of to-many change), advanced settings, a proxy,
// bans and a transfer.

#include "dictionary_objects.h"
#include "model_scenario.h"
#include "network_classes.h"
#include "settings_classes.h"

using namespace Qt::StringLiterals;

namespace {

zt::Ref<ZTAbstractServer> server(ZTAbstractNetwork *network, const QString &address, quint64 port = 0)
{
    auto s = zt::make<AgentServer>();
    s->init();
    s->setAddress(address);
    s->setPort(port);
    s->setNetwork(network);
    return s;
}

zt::Ref<ZTAbstractNetwork> network(const QString &name, const QStringList &addresses)
{
    auto n = ZTAbstractNetwork::networkWithName<AgentNetwork>(name);
    for (const QString &address : addresses)
        n->addServer(server(n.get(), address));
    return n;
}

template<typename T> T *adopted(ScenarioContext &ctx, qsizetype index)
{
    return dynamic_cast<T *>(ctx.root->objects().value(index).get());
}

void removeAdopted(ScenarioContext &ctx, qsizetype index)
{
    zt::Ref<ZTAbstractIPC> object = ctx.root->objects().value(index);
    ctx.root->mutableObjects().removeObjectAtIndex(index);
    object->invalidate();
}

} // namespace

QList<ScenarioStep> networkSteps()
{
    return {
        {QStringLiteral("directory: add networks"),
         [](ScenarioContext &ctx) {
             ctx.directory->addNetwork(
                 network(QStringLiteral("Libera"), {u"irc.libera.chat"_s, u"eu.libera.chat"_s}));
             ctx.directory->addNetwork(network(QStringLiteral("OFTC"), {u"irc.oftc.net"_s}));
         }},
        {QStringLiteral("server: every key"),
         [](ScenarioContext &ctx) {
             ZTAbstractServer *s = ctx.directory->networks()[0]->servers()[1].get();
             s->setAddress(QStringLiteral("EU.Libera.Chat"));
             s->setSecure(true); // the effective port follows
             s->setTrust(true);
             s->setPassword(QStringLiteral("Secret"));
             s->setPort(7000);
         }},
        {QStringLiteral("network: insert a server at the front"),
         [](ScenarioContext &ctx) {
             ZTAbstractNetwork *n = ctx.directory->networks()[0].get();
             n->insertServersAtLocations({server(n, QStringLiteral("us.libera.chat"), 6665)},
                                         zt::IndexSet(0));
         }},
        {QStringLiteral("network: remove a server by equality"),
         [](ScenarioContext &ctx) {
             ZTAbstractNetwork *n = ctx.directory->networks()[0].get();
             zt::Ref<ZTAbstractServer> gone = n->servers()[1];
             n->removeServer(server(n, QStringLiteral("IRC.LIBERA.CHAT")));
             gone->invalidate();
         }},
        {QStringLiteral("network: replace a server"),
         [](ScenarioContext &ctx) {
             ZTAbstractNetwork *n = ctx.directory->networks()[0].get();
             zt::Ref<ZTAbstractServer> gone = n->servers()[0];
             n->mutableServers().replaceObjectAtIndex(0,
                                                      zt::objectValue(server(n, u"ca.libera.chat"_s).get()));
             gone->invalidate();
         }},
        {QStringLiteral("network: name, auth service, custom"),
         [](ScenarioContext &ctx) {
             ZTAbstractNetwork *n = ctx.directory->networks()[1].get();
             n->setName(QStringLiteral("OFTC (custom)"));
             n->setAuthService(2);
             n->setIsCustom(true);
         }},
        {QStringLiteral("directory: replace a network"),
         [](ScenarioContext &ctx) {
             zt::Ref<ZTAbstractNetwork> gone = ctx.directory->networks()[1];
             auto fresh = network(QStringLiteral("EFnet"), {u"irc.efnet.org"_s, u"efnet.port80.se"_s});
             ctx.directory->mutableNetworks().replaceObjectAtIndex(1, zt::objectValue(fresh.get()));
             invalidateNetworkTree(gone.get());
         }},
        {QStringLiteral("directory: add then remove a network"),
         [](ScenarioContext &ctx) {
             auto extra = network(QStringLiteral("Rizon"), {u"irc.rizon.net"_s});
             ctx.directory->addNetwork(extra);
             ctx.directory->addNetwork(network(QStringLiteral("QuakeNet"), {}));
             ctx.directory->removeNetwork(extra);
             invalidateNetworkTree(extra.get());
         }},
        {QStringLiteral("settings: advanced settings, proxy, bans, transfer"),
         [](ScenarioContext &ctx) {
             auto settings = zt::make<AgentAdvancedSettings>();
             settings->init();
             ctx.adopt(settings);
             auto proxy = zt::make<AgentProxy>();
             proxy->init();
             proxy->setProxyAddress(QStringLiteral("proxy.local"));
             ctx.adopt(proxy);
             // A date finer than a millisecond survives the dictionary.
             ctx.adopt(ZTAbstractBan::banWithMaskBannerDate<AgentBan>(u"*!*@spam.example"_s, u"op"_s,
                                                                      1700000000.123456));
             ctx.adopt(ZTAbstractBan::banWithMaskBannerDate<AgentBan>(u"troll!*@*"_s, u"op"_s, 1.5));
             auto transfer = zt::make<AgentTransfer>();
             transfer->init();
             transfer->setAttributes({{QStringLiteral("file"), QStringLiteral("notes.txt")},
                                      {QStringLiteral("size"), qint64(1024)}});
             ctx.adopt(transfer);
         }},
        {QStringLiteral("settings: change every key"),
         [](ScenarioContext &ctx) {
             auto *settings = adopted<ZTAbstractAdvancedSettings>(ctx, 0);
             settings->setShowCounts(false);
             settings->setExcludeFromLog(true);
             settings->setMuteSounds(true);
             settings->setBlowfishEnabled(true);
             settings->setAutoJoin(true);
             settings->setAutoRejoin(true);
             settings->setBlowfishKey(QStringLiteral("fish"));
             auto *proxy = adopted<ZTAbstractProxy>(ctx, 1);
             proxy->setProxyPassword(QStringLiteral("pw"));
             proxy->setProxyUsername(QStringLiteral("me"));
             proxy->setEnabled(true);
             proxy->setSystemwide(true);
             proxy->setProxyType(2);
             proxy->setProxyPort(1080);
             auto *ban = adopted<ZTAbstractBan>(ctx, 2);
             ban->setMask(QStringLiteral("*!*@ham.example"));
             ban->setBanner(QStringLiteral("chanserv"));
             ban->setDate(QDateTime::fromMSecsSinceEpoch(1600000000250, Qt::UTC));
             adopted<ZTAbstractTransfer>(ctx, 4)->accept();
         }},
        {QStringLiteral("settings: nil key, removed ban"),
         [](ScenarioContext &ctx) {
             adopted<ZTAbstractAdvancedSettings>(ctx, 0)->setBlowfishKey(QString()); // sent as ""
             adopted<ZTAbstractProxy>(ctx, 1)->setProxyAddress(QString());
             removeAdopted(ctx, 3);
         }},
    };
}

void networkBuilders(ClientBuilders &builders)
{
    using zt::apps::objectFromDictionary;
    builders.insert(QStringLiteral("AgentAdvancedSettings"),
                    objectFromDictionary<ClientAdvancedSettings, ZTAbstractIPC>);
    builders.insert(QStringLiteral("AgentProxy"), objectFromDictionary<ClientProxy, ZTAbstractIPC>);
    builders.insert(QStringLiteral("AgentBan"), objectFromDictionary<ClientBan, ZTAbstractIPC>);
    builders.insert(QStringLiteral("AgentTransfer"), objectFromDictionary<ClientTransfer, ZTAbstractIPC>);
}
