// Connections: the server and its dictionary, look-ups, departure and teardown.
#include "model_fixture.h"
#include "support/log_capture.h"

// The abstract connection stores a received server dictionary and answers
// its server's; its other dictionary setters only log; the applications'
// connection takes the server the dictionary names.
TEST_F(ModelTest, AbstractDictionarySetters)
{
    auto connection = make<ZTAbstractConnection>();
    auto server = make<AgentServer>(), other = make<AgentServer>();
    connection->setServer(server);
    EXPECT_EQ(connection->serverDictionary().toMap(), server->dictionary());
    connection->setServerDictionary(other->dictionary());
    EXPECT_EQ(connection->server().get(), server.get());
    EXPECT_EQ(connection->storedServerDictionary().toMap(), other->dictionary());
    connection->setServer({});
    EXPECT_FALSE(connection->serverDictionary().isValid());
    auto agent = make<AgentConnection>();
    agent->setServerDictionary(other->dictionary());
    EXPECT_EQ(agent->server().get(), other.get());

    for (const char *setter :
         {"setCurrentIdentityDictionary:", "setNextIdentityDictionary:", "setAdvancedSettingsDictionary:",
          "setProxyDictionary:", "setConsoleDictionary:"}) {
        zttest::LogCapture log;
        connection->perform(zt::Selector(setter), {QVariantMap{{u"description"_s, u"X"_s}}});
        EXPECT_EQ(log.lines(), QStringList{u"Abstract method: %1"_s.arg(QLatin1String(setter))});
    }
    EXPECT_FALSE(connection->currentIdentity());
    connection->setChannelDictionaries({QVariantMap()}); // conversion is nil: nothing changes
    EXPECT_TRUE(connection->channels().isEmpty());
}

TEST_F(ModelTest, LookUps)
{
    auto connection = make<AgentConnection>();
    auto console = channel(u"Freenode"_s, connection.get());
    console->setIsConsole(true);
    auto hash = channel(u"#Zt"_s, connection.get()), query = channel(u"ann"_s, connection.get());
    query->setIsQuery(true);
    connection->addChannels({console, hash, query});
    EXPECT_EQ(connection->channelWithName(u"#ZT"_s).get(), hash.get());
    EXPECT_EQ(connection->channelWithName(u"freenode"_s).get(), console.get());
    EXPECT_EQ(connection->queryWithName(u"ANN"_s).get(), query.get());
    EXPECT_FALSE(connection->queryWithName(u"freenode"_s));
    EXPECT_FALSE(connection->channelWithName(u"#other"_s));

    // People by name across channels; a query's party is its namesake.
    auto inHash = person(u"Ann"_s), inQuery = person(u"ann"_s);
    hash->addPerson(inHash);
    query->addPerson(inQuery);
    EXPECT_EQ(connection->personsWithName(u"ANN"_s), (QList<zt::Ref<ZTAbstractPerson>>{inHash, inQuery}));
    EXPECT_EQ(query->party().get(), inQuery.get());
    EXPECT_FALSE(hash->party()); // not a query

    // Transfers: removal takes the first occurrence, an unknown one nothing.
    auto a = make<AgentTransfer>(), b = make<AgentTransfer>();
    connection->addTransfer(a);
    connection->addTransfer(b);
    connection->addTransfer(a);
    connection->removeTransfer(make<AgentTransfer>());
    connection->removeTransfer(a);
    EXPECT_EQ(connection->transfers(), (QList<zt::Ref<ZTAbstractTransfer>>{b, a}));
}

// A channel that leaves "channels" by any change leaves the directory and
// loses its connection.
TEST_F(ModelTest, ChannelsThatLeaveAreInvalidated)
{
    using Channels = QList<zt::Ref<ZTAbstractChannel>>;
    const struct
    {
        const char *name;
        std::function<void(ZTAbstractConnection &, const Channels &)> change;
        const char *registered; // '+' for each channel still registered
    } rows[] = {
        {"at locations",
         [](auto &c, auto &) {
             c.removeChannelsAtLocations(zt::IndexSet{0, 2});
         },
         "-+-"},
        {"in an array",
         [](auto &c, auto &ch) {
             c.removeChannelsInArray({ch[2], ch[0]});
         },
         "-+-"},
        {"setChannels keeping one", [](auto &c, auto &ch) { c.setChannels({ch[2]}); }, "--+"},
        {"removeAllChannels", [](auto &c, auto &) { c.removeAllChannels(); }, "---"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        auto connection = make<AgentConnection>();
        const Channels channels{channel(u"#a"_s, connection.get()), channel(u"#b"_s, connection.get()),
                                channel(u"#c"_s, connection.get())};
        connection->addChannels(channels);
        row.change(*connection, channels);
        for (qsizetype i = 0; i < channels.size(); ++i) {
            const bool registered = row.registered[i] == '+';
            EXPECT_EQ(channels[i]->inDirectory(), registered) << "channel " << i;
            EXPECT_EQ(channels[i]->connection() != nullptr, registered) << "channel " << i;
        }
    }
}

// Teardown: a connection's server and identities leave the directory with
// it, unless a network lists the server or the identity controller the
// identity.
TEST_F(ModelTest, TeardownSparesWhatOthersList)
{
    auto shared = ZTAbstractNetwork::networkWithName<AgentNetwork>(u"N"_s);
    auto listed = make<AgentServer>();
    listed->setNetwork(shared);
    shared->addServer(listed);
    auto identities = make<AgentIdentityController>();
    identities->addIdentity(make<AgentSelfIdentity>());
    auto sharing = make<AgentConnection>(), owning = make<AgentConnection>();
    sharing->setServer(listed);
    sharing->setCurrentIdentity(identities->identities()[0]);
    auto own = make<AgentServer>();
    owning->setServer(own);
    owning->setNextIdentity(make<AgentSelfIdentity>());
    const zt::Ref<ZTAbstractIdentity> ownIdentity = owning->nextIdentity();
    sharing->invalidate();
    owning->invalidate();
    EXPECT_FALSE(own->inDirectory());
    EXPECT_FALSE(ownIdentity->inDirectory());
    EXPECT_TRUE(listed->inDirectory());
    EXPECT_TRUE(identities->identities()[0]->inDirectory());
    invalidateNetworkTree(shared.get());
}
