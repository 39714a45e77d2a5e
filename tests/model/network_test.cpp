// Servers, networks and the network directory: equality and its hash, the
// effective port, defaults and dictionary forms, archives (also old ones
// without the newer keys), the directory's saving and logging, removal of
// unknown objects, teardown.

#include "model_test_support.h"
#include "network_classes.h"
#include "runtime/keyedarchive.h"
#include "support/log_capture.h"

namespace {

zt::Ref<ZTAbstractServer> makeServer(const QString &address, const QString &password = {}, quint64 port = 0,
                                     bool secure = false, bool trust = false)
{
    auto s = agentObject<AgentServer>();
    s->setAddress(address);
    if (!password.isNull())
        s->setPassword(password);
    s->setPort(port);
    s->setSecure(secure);
    s->setTrust(trust);
    return s;
}

class NetworkTest : public ModelTest
{
};

} // namespace

TEST_F(NetworkTest, ServerEqualityAndHash)
{
    struct Row
    {
        const char *name;
        zt::Ref<ZTAbstractServer> a, b;
        bool equal;
    } rows[] = {
        {"address ignores case", makeServer(u"irc.Example.org"_s), makeServer(u"IRC.example.ORG"_s), true},
        {"trust takes no part", makeServer(u"a"_s, {}, 0, false, true), makeServer(u"a"_s), true},
        {"password is exact", makeServer(u"a"_s, u"pw"_s), makeServer(u"a"_s, u"PW"_s), false},
        {"default port equals explicit", makeServer(u"a"_s), makeServer(u"a"_s, {}, 6667), true},
        {"secure default port", makeServer(u"a"_s, {}, 0, true), makeServer(u"a"_s, {}, 6697, true), true},
        {"secure differs", makeServer(u"a"_s, {}, 7000, true), makeServer(u"a"_s, {}, 7000, false), false},
        {"port differs", makeServer(u"a"_s, {}, 6668), makeServer(u"a"_s), false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.a->isEqual(row.b.get()), row.equal);
        EXPECT_EQ(row.b->isEqual(row.a.get()), row.equal);
        if (row.equal) {
            EXPECT_EQ(row.a->hash(), row.b->hash());
        }
    }
    // The other object must be of the receiver's class or a subclass.
    auto base = agentObject<ZTAbstractServer>();
    auto client = makeServer(u""_s);
    EXPECT_TRUE(base->isEqual(client.get()));
    EXPECT_FALSE(client->isEqual(base.get()));
}

TEST_F(NetworkTest, EffectivePortIsComputedNeverStored)
{
    const struct
    {
        quint64 stored;
        bool secure;
        quint64 effective;
    } rows[] = {{0, false, 6667}, {0, true, 6697}, {7000, true, 7000}, {7000, false, 7000}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.effective);
        auto s = makeServer(u"a"_s, {}, row.stored, row.secure);
        EXPECT_EQ(s->port(), row.effective);
        EXPECT_EQ(s->storedPort(), row.stored);
        EXPECT_TRUE(zt::valuesEqual(s->dictionary().value(u"port"_s), QVariant(row.effective)));
    }
}

TEST_F(NetworkTest, DefaultsAndDictionaryForms)
{
    auto network = ZTAbstractNetwork::networkWithName<AgentNetwork>(u"Libera"_s);
    auto server = agentObject<AgentServer>();
    expectDictionary(server.get(), {{u"port"_s, quint64(6667)},
                                    {u"secure"_s, false},
                                    {u"trust"_s, false},
                                    {u"address"_s, u""_s},
                                    {u"password"_s, u""_s}});
    server->setNetwork(network);
    network->addServer(server);
    expectDictionary(network.get(), {{u"name"_s, u"Libera"_s},
                                     {u"serverDictionaries"_s, QVariantList{server->dictionary()}},
                                     {u"authService"_s, qint64(0)},
                                     {u"isCustom"_s, false}});
    EXPECT_EQ(server->dictionary().value(u"networkUUID"_s), network->description());
    EXPECT_EQ(ZTAbstractNetwork::networkWithName<ZTAbstractNetwork>(u"x"_s), nullptr); // no network class

    const std::pair<ZTAbstractIPC *, std::pair<const char *, const char *>> wiring[] = {
        {server.get(), {"network", "networkUUID"}},
        {network.get(), {"servers", "serverDictionaries"}},
        {network.get(), {"name", "name"}},
    };
    for (const auto &[object, keys] : wiring)
        EXPECT_EQ(object->replacementKeyForWiring(QString::fromLatin1(keys.first)),
                  QString::fromLatin1(keys.second));

    server->setNetworkUUID(u"unknown"_s);
    EXPECT_EQ(server->network(), nullptr);
    server->setNetworkUUID(network->description());
    EXPECT_EQ(server->network(), network);
    invalidateNetworkTree(network.get());
}

TEST_F(NetworkTest, ServerLookUpAndRemoval)
{
    auto network = ZTAbstractNetwork::networkWithName<AgentNetwork>(u"n"_s);
    EXPECT_EQ(network->indexOfServerWithAddressAndPort(u"a"_s, 6667), ZTAbstractNetwork::NotFound);
    auto first = makeServer(u"A"_s), second = makeServer(u"a"_s), other = makeServer(u"b"_s);
    network->setServers({other, first, second});
    EXPECT_EQ(network->indexOfServerWithAddressAndPort(u"a"_s, 6667), 1);
    EXPECT_EQ(network->indexOfServerWithAddressAndPort(u"a"_s, 6697), ZTAbstractNetwork::NotFound);

    zttest::LogCapture log;
    network->removeServer(makeServer(u"a"_s)); // every equal one
    EXPECT_EQ(network->servers(), QList<zt::Ref<ZTAbstractServer>>{other});
    network->removeServer(first);
    EXPECT_EQ(log.lines().size(), 1); // the unknown one: no-op with a log line
    EXPECT_EQ(network->servers().size(), 1);
    for (const auto &s : {first, second, other})
        s->invalidate();
    network->invalidate();
}

TEST_F(NetworkTest, DirectorySavesOnAddOnlyAndLogs)
{
    auto directory = agentObject<AgentNetworkDirectory>();
    EXPECT_EQ(directory->description(), u"NetworkDirectory"_s);
    auto a = ZTAbstractNetwork::networkWithName<AgentNetwork>(u"a"_s);
    auto b = ZTAbstractNetwork::networkWithName<AgentNetwork>(u"b"_s);
    zttest::LogCapture log;
    directory->addNetwork(a);
    directory->insertNetworksAtLocations({b}, zt::IndexSet(0));
    EXPECT_EQ(directory->saveCount(), 1);
    EXPECT_TRUE(log.lines().value(0).startsWith(u"[NetworkDirectory] Insert networks ("_s))
        << qPrintable(log.lines().value(0));
    directory->removeNetworksAtLocations(zt::IndexSet(0));
    directory->removeNetwork(a);
    directory->removeNetwork(a); // unknown now: no-op with a log line
    EXPECT_EQ(log.lines().size(), 3);
    EXPECT_TRUE(log.lines().value(1).startsWith(u"[NetworkDirectory] Remove networks at locations "_s));
    EXPECT_EQ(directory->saveCount(), 1);
    EXPECT_TRUE(directory->networks().isEmpty());
    a->invalidate();
    b->invalidate();
    directory->invalidate();
}

TEST_F(NetworkTest, ArchivesIncludingOldOnesWithoutNewerKeys)
{
    auto network = ZTAbstractNetwork::networkWithName<AgentNetwork>(u"Libera"_s);
    network->setAuthService(3);
    network->setIsCustom(true);
    const QByteArray data = zt::KeyedArchiver::archivedDataWithRootObject(zt::objectValue(network.get()));
    // An old archive: the same without "isCustom" and "authService".
    const QByteArray old = archiveWithout(data, {u"isCustom"_s, u"authService"_s});
    const QString uuid = network->description();
    network->invalidate();

    for (const auto &[archive, custom, auth] : {std::tuple{data, true, 3}, std::tuple{old, false, 0}}) {
        auto decoded =
            zt::fromValue<zt::Ref<ZTAbstractNetwork>>(*zt::KeyedUnarchiver::unarchiveObjectWithData(archive));
        ASSERT_TRUE(decoded);
        EXPECT_EQ(decoded->description(), uuid);
        EXPECT_EQ(decoded->name(), u"Libera"_s);
        EXPECT_EQ(decoded->isCustom(), custom);
        EXPECT_EQ(decoded->authService(), auth);
        decoded->invalidate();
    }
}

TEST_F(NetworkTest, TeardownLeavesNothingInTheDirectory)
{
    auto directory = agentObject<AgentNetworkDirectory>();
    QStringList uuids{directory->description()};
    for (const QString &name : {u"a"_s, u"b"_s}) {
        auto network = ZTAbstractNetwork::networkWithName<AgentNetwork>(name);
        for (int i = 0; i < 2; ++i) {
            auto s = makeServer(name + QString::number(i));
            s->setNetwork(network); // a reference cycle that invalidation breaks
            network->addServer(s);
            uuids << s->description();
        }
        directory->addNetwork(network);
        uuids << network->description();
    }
    invalidateNetworkDirectory(directory.get());
    for (const QString &uuid : uuids)
        EXPECT_EQ(ZTDirectory::sharedInstance()->objectWithID(uuid), nullptr) << qPrintable(uuid);
}
