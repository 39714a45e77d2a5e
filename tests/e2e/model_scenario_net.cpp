// Steps of the network and settings families: the directory, its networks
// and servers (every kind of to-many change), advanced settings, a proxy,
// bans and a transfer.

#include "model_scenario.h"
#include "network_classes.h"
#include "settings_classes.h"

using namespace Qt::StringLiterals;

namespace {

zt::Ref<ZTAbstractServer> server(ZTAbstractNetwork *network, const QString &address, quint64 port = 0)
{
    auto s = made<AgentServer>();
    setKeys(s.get(), {u"address"_s, address, u"port"_s, port});
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

} // namespace

QList<ScenarioStep> networkSteps()
{
    return {
        {u"networks, settings, a proxy, bans and a transfer created"_s,
         [](ScenarioContext &ctx) {
             ctx.directory->addNetwork(network(u"Libera"_s, {u"irc.libera.chat"_s, u"eu.libera.chat"_s}));
             ctx.directory->addNetwork(network(u"OFTC"_s, {u"irc.oftc.net"_s}));
             auto settings = made<AgentAdvancedSettings>();
             settings->setBlowfishKey(u"fish"_s);
             ctx.adopt(u"settings"_s, settings);
             auto proxy = made<AgentProxy>();
             proxy->setProxyAddress(u"proxy.local"_s);
             ctx.adopt(u"proxy"_s, proxy);
             // A date finer than a millisecond survives the dictionary.
             ctx.adopt(u"ban"_s, ZTAbstractBan::banWithMaskBannerDate<AgentBan>(u"*!*@spam.example"_s,
                                                                                u"op"_s, 1700000000.123456));
             ctx.adopt(u"ban2"_s,
                       ZTAbstractBan::banWithMaskBannerDate<AgentBan>(u"troll!*@*"_s, u"op"_s, 1.5));
             auto transfer = made<AgentTransfer>();
             transfer->setAttributes({{u"file"_s, u"notes.txt"_s}, {u"size"_s, qint64(1024)}});
             ctx.adopt(u"transfer"_s, transfer);
         }},
        {u"every key of a network, server, settings, proxy and ban; servers inserted, removed, replaced"_s,
         [](ScenarioContext &ctx) {
             ZTAbstractNetwork *oftc = ctx.directory->networks()[1].get();
             setKeys(oftc, {u"name"_s, u"OFTC (custom)"_s, u"authService"_s, 2, u"isCustom"_s, true});
             // The effective port follows the secure flag.
             setKeys(oftc->servers()[0].get(),
                     {u"address"_s, u"IRC.OFTC.net"_s, u"secure"_s, true, u"trust"_s, true, u"password"_s,
                      u"Secret"_s, u"port"_s, 7000});
             ZTAbstractNetwork *n = ctx.directory->networks()[0].get();
             n->insertServersAtLocations({server(n, u"us.libera.chat"_s, 6665)}, zt::IndexSet(0));
             zt::Ref<ZTAbstractServer> removed = n->servers()[1];
             n->removeServer(server(n, u"IRC.LIBERA.CHAT"_s));
             removed->invalidate();
             zt::Ref<ZTAbstractServer> replaced = n->servers()[1];
             n->mutableServers().replaceObjectAtIndex(1,
                                                      zt::objectValue(server(n, u"ca.libera.chat"_s).get()));
             replaced->invalidate();
             setKeys(ctx.get<ZTAbstractAdvancedSettings>(u"settings"_s),
                     {u"showCounts"_s, false, u"excludeFromLog"_s, true, u"muteSounds"_s, true,
                      u"blowfishEnabled"_s, true, u"autoJoin"_s, true, u"autoRejoin"_s, true,
                      u"blowfishKey"_s, QString()}); // a nil key is sent as ""
             setKeys(ctx.get<ZTAbstractProxy>(u"proxy"_s),
                     {u"proxyPassword"_s, u"pw"_s, u"proxyUsername"_s, u"me"_s, u"enabled"_s, true,
                      u"systemwide"_s, true, u"proxyType"_s, 2, u"proxyPort"_s, 1080, u"proxyAddress"_s,
                      QString()});
             setKeys(ctx.get<ZTAbstractBan>(u"ban"_s),
                     {u"mask"_s, u"*!*@ham.example"_s, u"banner"_s, u"chanserv"_s, u"date"_s,
                      QDateTime::fromMSecsSinceEpoch(1600000000250, Qt::UTC)});
             ctx.get<ZTAbstractTransfer>(u"transfer"_s)->accept();
             ctx.drop(u"ban2"_s);
         }},
        {u"directory: replace a network, add two, remove one"_s,
         [](ScenarioContext &ctx) {
             zt::Ref<ZTAbstractNetwork> replaced = ctx.directory->networks()[1];
             auto efnet = network(u"EFnet"_s, {u"irc.efnet.org"_s, u"efnet.port80.se"_s});
             ctx.directory->mutableNetworks().replaceObjectAtIndex(1, zt::objectValue(efnet.get()));
             invalidateNetworkTree(replaced.get());
             auto rizon = network(u"Rizon"_s, {u"irc.rizon.net"_s});
             ctx.directory->addNetwork(rizon);
             ctx.directory->addNetwork(network(u"QuakeNet"_s, {}));
             ctx.directory->removeNetwork(rizon);
             invalidateNetworkTree(rizon.get());
         }},
    };
}
