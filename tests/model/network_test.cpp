// Servers, networks and the network directory: equality and its hash, the
// effective port, look-ups, archives (also old ones without the newer keys),
// the directory's saving and logging, removal of unknown objects, teardown.

#include "model_fixture.h"
#include "support/log_capture.h"

namespace {

class NetworkTest : public ModelTest
{
protected:
    zt::Ref<ZTAbstractServer> server(const QString &address, const QString &password = {}, quint64 port = 0,
                                     bool secure = false, bool trust = false)
    {
        auto s = make<AgentServer>();
        s->setAddress(address);
        if (!password.isNull())
            s->setPassword(password);
        s->setPort(port);
        s->setSecure(secure);
        s->setTrust(trust);
        return s;
    }
    zt::Ref<ZTAbstractNetwork> network(const QString &name)
    {
        return keep(ZTAbstractNetwork::networkWithName<AgentNetwork>(name));
    }
};

} // namespace

TEST_F(NetworkTest, ServerEqualityHashAndEffectivePort)
{
    struct Row
    {
        const char *name;
        zt::Ref<ZTAbstractServer> a, b;
        bool equal;
    } rows[] = {
        {"address ignores case", server(u"irc.Example.org"_s), server(u"IRC.example.ORG"_s), true},
        {"trust takes no part", server(u"a"_s, {}, 0, false, true), server(u"a"_s), true},
        {"password is exact", server(u"a"_s, u"pw"_s), server(u"a"_s, u"PW"_s), false},
        {"default port equals explicit", server(u"a"_s), server(u"a"_s, {}, 6667), true},
        {"secure default port", server(u"a"_s, {}, 0, true), server(u"a"_s, {}, 6697, true), true},
        {"secure differs", server(u"a"_s, {}, 7000, true), server(u"a"_s, {}, 7000, false), false},
        {"port differs", server(u"a"_s, {}, 6668), server(u"a"_s), false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.a->isEqual(row.b.get()), row.equal);
        EXPECT_EQ(row.b->isEqual(row.a.get()), row.equal);
        EXPECT_TRUE(!row.equal || row.a->hash() == row.b->hash()); // equal objects hash alike
    }
    // The other object must be of the receiver's class or a subclass.
    auto base = make<ZTAbstractServer>();
    EXPECT_TRUE(base->isEqual(server(u""_s).get()));
    EXPECT_FALSE(server(u""_s)->isEqual(base.get()));

    // The port 0 stands for the default of the connection's kind, and is
    // never stored in its place.
    for (const auto &[stored, secure, effective] :
         {std::tuple{0, false, 6667}, {0, true, 6697}, {7000, true, 7000}, {7000, false, 7000}}) {
        auto s = server(u"a"_s, {}, stored, secure);
        EXPECT_EQ(s->port(), quint64(effective));
        EXPECT_EQ(s->storedPort(), quint64(stored));
        EXPECT_TRUE(zt::valuesEqual(s->dictionary().value(u"port"_s), QVariant(quint64(effective))));
    }
}

TEST_F(NetworkTest, ServerLookUpsAndRemovals)
{
    auto libera = network(u"Libera"_s);
    auto s = server(u"A"_s), second = server(u"a"_s), other = server(u"b"_s);
    EXPECT_EQ(ZTAbstractNetwork::networkWithName<ZTAbstractNetwork>(u"x"_s), nullptr); // no network class
    s->setNetworkUUID(u"unknown"_s);
    EXPECT_EQ(s->network(), nullptr);
    s->setNetworkUUID(libera->description());
    EXPECT_EQ(s->network().get(), libera.get());

    // Look-up by address (any case) and effective port; removal of every
    // equal server, and of an unknown one: a no-op with a log line.
    libera->setServers({other, s, second});
    EXPECT_EQ(libera->indexOfServerWithAddressAndPort(u"a"_s, 6667), 1);
    EXPECT_EQ(libera->indexOfServerWithAddressAndPort(u"a"_s, 6697), ZTAbstractNetwork::NotFound);
    zttest::LogCapture log;
    libera->removeServer(server(u"a"_s));
    EXPECT_EQ(libera->servers(), QList<zt::Ref<ZTAbstractServer>>{other});
    libera->removeServer(s);
    EXPECT_EQ(log.lines().size(), 1);
    EXPECT_EQ(libera->servers().size(), 1);
}

// Only additions save; insertions and removals log; invalidating the
// directory ends its networks and their servers.
TEST_F(NetworkTest, DirectorySavingLoggingAndTeardown)
{
    auto directory = make<AgentNetworkDirectory>();
    auto a = network(u"a"_s), b = network(u"b"_s);
    auto s = server(u"s"_s);
    s->setNetwork(a); // a reference cycle that invalidation breaks
    a->addServer(s);
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

    directory->addNetwork(a);
    invalidateNetworkDirectory(directory.get());
    for (const ZTAbstractIPC *object : QList<const ZTAbstractIPC *>{directory.get(), a.get(), s.get()})
        EXPECT_FALSE(object->inDirectory()) << qPrintable(object->description());
}

TEST_F(NetworkTest, ArchivesIncludingOldOnesWithoutNewerKeys)
{
    for (const auto &[dropped, custom, auth] :
         {std::tuple{QStringList(), true, 3}, {QStringList{u"isCustom"_s, u"authService"_s}, false, 0}}) {
        auto libera = ZTAbstractNetwork::networkWithName<AgentNetwork>(u"Libera"_s);
        libera->setAuthService(3);
        libera->setIsCustom(true);
        const QString uuid = libera->description();
        auto decoded = roundTrip<ZTAbstractNetwork>(libera.get(), dropped);
        ASSERT_TRUE(decoded);
        EXPECT_EQ(decoded->description(), uuid);
        EXPECT_EQ(decoded->name(), u"Libera"_s);
        EXPECT_EQ(decoded->isCustom(), custom);
        EXPECT_EQ(decoded->authService(), auth);
    }
}
