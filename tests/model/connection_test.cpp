// Connections: the server and its dictionary, look-ups, bookkeeping and teardown.
#include "model_fixture.h"
#include "network_classes.h"
#include "settings_classes.h"
#include "support/log_capture.h"

using ChatTest = ModelTest;

TEST_F(ChatTest, ServerDictionaryIsReadFromTheServer)
{
    auto connection = zt::make<ZTAbstractConnection>();
    connection->init();
    made.append(connection);
    auto server = make<AgentServer>();
    auto other = make<AgentServer>();
    connection->setServer(server);
    EXPECT_EQ(connection->serverDictionary().toMap(), server->dictionary());
    connection->setServerDictionary(other->dictionary()); // stored, no server built
    EXPECT_EQ(connection->server().get(), server.get());
    EXPECT_EQ(connection->storedServerDictionary().toMap(), other->dictionary());
    connection->setServer({});
    EXPECT_FALSE(connection->serverDictionary().isValid());

    // The applications' connection takes the server the dictionary names.
    auto agent = make<AgentConnection>();
    agent->setServerDictionary(other->dictionary());
    EXPECT_EQ(agent->server().get(), other.get());
}

TEST_F(ChatTest, AbstractDictionarySettersOnlyLog)
{
    auto connection = zt::make<ZTAbstractConnection>();
    connection->init();
    made.append(connection);
    const char *setters[] = {
        "setCurrentIdentityDictionary:", "setNextIdentityDictionary:", "setAdvancedSettingsDictionary:",
        "setProxyDictionary:", "setConsoleDictionary:"};
    for (const char *setter : setters) {
        zttest::LogCapture log;
        connection->perform(zt::Selector(setter),
                            {QVariantMap{{QStringLiteral("description"), QStringLiteral("X")}}});
        EXPECT_EQ(log.lines(), QStringList{QStringLiteral("Abstract method: %1").arg(QLatin1String(setter))});
    }
    EXPECT_FALSE(connection->currentIdentity());
    connection->setChannelDictionaries({QVariantMap()}); // conversion is nil: nothing changes
    EXPECT_TRUE(connection->channels().isEmpty());
}

TEST_F(ChatTest, ChannelLookUps)
{
    auto connection = make<AgentConnection>();
    auto console = channel(QStringLiteral("Freenode"), connection.get());
    console->setIsConsole(true);
    auto hash = channel(QStringLiteral("#Zt"), connection.get());
    auto query = channel(QStringLiteral("#zt"), connection.get());
    query->setIsQuery(true);
    connection->addChannels({console, hash, query});
    EXPECT_EQ(connection->channelWithName(QStringLiteral("#ZT")).get(), hash.get());
    EXPECT_EQ(connection->channelWithName(QStringLiteral("freenode")).get(), console.get());
    EXPECT_EQ(connection->queryWithName(QStringLiteral("#ZT")).get(), query.get());
    EXPECT_FALSE(connection->queryWithName(QStringLiteral("freenode")));
    EXPECT_FALSE(connection->channelWithName(QStringLiteral("#other")));
}

TEST_F(ChatTest, ChannelsThatLeaveAreInvalidated)
{
    struct Row
    {
        const char *name;
        std::function<void(ZTAbstractConnection &, const QList<zt::Ref<ZTAbstractChannel>> &)> change;
        QList<bool> stillRegistered;
    };
    const Row rows[] = {
        {"removeChannelsAtLocations",
         [](auto &c, const auto &) {
             c.removeChannelsAtLocations(zt::IndexSet{0, 2});
         },
         {false, true, false}},
        {"removeChannel", [](auto &c, const auto &ch) { c.removeChannel(ch[1]); }, {true, false, true}},
        {"removeChannelsInArray",
         [](auto &c, const auto &ch) {
             c.removeChannelsInArray({ch[2], ch[0]});
         },
         {false, true, false}},
        {"setChannels keeping one",
         [](auto &c, const auto &ch) { c.setChannels({ch[2]}); },
         {false, false, true}},
        {"removeAllChannels", [](auto &c, const auto &) { c.removeAllChannels(); }, {false, false, false}},
        {"the connection is invalidated",
         [](auto &c, const auto &) { c.invalidate(); },
         {false, false, false}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        auto connection = make<AgentConnection>();
        const QList<zt::Ref<ZTAbstractChannel>> channels{channel(QStringLiteral("#a"), connection.get()),
                                                         channel(QStringLiteral("#b"), connection.get()),
                                                         channel(QStringLiteral("#c"), connection.get())};
        auto someone = person(QStringLiteral("x"));
        channels[1]->addPerson(someone);
        connection->addChannels(channels);
        row.change(*connection, channels);
        for (qsizetype i = 0; i < channels.size(); ++i) {
            EXPECT_EQ(channels[i]->inDirectory(), row.stillRegistered[i]) << "channel " << i;
            EXPECT_EQ(channels[i]->connection() != nullptr, row.stillRegistered[i]) << "channel " << i;
        }
        EXPECT_EQ(someone->inDirectory(), row.stillRegistered[1]); // a channel's people go with it
    }
}

TEST_F(ChatTest, TransfersAndPersonsWithName)
{
    auto connection = make<AgentConnection>();
    auto a = make<AgentTransfer>();
    auto b = make<AgentTransfer>();
    connection->addTransfer(a);
    connection->addTransfer(b);
    connection->addTransfer(a);
    connection->removeTransfer(make<AgentTransfer>()); // unknown: nothing
    connection->removeTransfer(a);                     // the first occurrence only
    EXPECT_EQ(connection->transfers(), (QList<zt::Ref<ZTAbstractTransfer>>{b, a}));

    auto first = channel(QStringLiteral("#a"), connection.get());
    auto second = channel(QStringLiteral("#b"), connection.get());
    connection->addChannels({first, second});
    auto inFirst = person(QStringLiteral("Ann"));
    auto inSecond = person(QStringLiteral("ann"));
    first->addPerson(inFirst);
    second->addPerson(inSecond);
    EXPECT_EQ(connection->personsWithName(QStringLiteral("ANN")),
              (QList<zt::Ref<ZTAbstractPerson>>{inFirst, inSecond}));
}

// Teardown: what a connection or a channel owns leaves the directory with
// it; a server that a network lists stays the network's.
TEST_F(ChatTest, OwnedObjectsEndWithTheirOwner)
{
    auto connection = make<AgentConnection>();
    auto shared = ZTAbstractNetwork::networkWithName<AgentNetwork>(QStringLiteral("N"));
    auto listed = zt::make<AgentServer>();
    listed->init();
    listed->setNetwork(shared);
    shared->addServer(listed);
    auto other = make<AgentConnection>();
    other->setServer(listed);
    auto identities = make<AgentIdentityController>(); // the user's own identities stay its
    identities->addIdentity(make<AgentSelfIdentity>());
    other->setCurrentIdentity(identities->identities()[0]);
    auto own = zt::make<AgentServer>();
    own->init();
    connection->setServer(own);
    connection->setCurrentIdentity(make<AgentSelfIdentity>());
    connection->setNextIdentity(make<AgentSelfIdentity>());
    connection->setProxy(make<AgentProxy>());
    connection->setAdvancedSettings(make<AgentAdvancedSettings>());
    connection->addTransfer(make<AgentTransfer>());
    auto room = channel(QStringLiteral("#a"), connection.get());
    connection->addChannel(room);
    room->setAdvancedSettings(make<AgentAdvancedSettings>());
    room->mutableBanlist().addObject(zt::objectValue(make<AgentBan>().get()));
    const QList<std::pair<const char *, zt::Ref<ZTAbstractIPC>>> owned = {
        {"server", own},
        {"current identity", connection->currentIdentity()},
        {"next identity", connection->nextIdentity()},
        {"proxy", connection->proxy()},
        {"settings", connection->advancedSettings()},
        {"transfer", connection->transfers()[0]},
        {"channel settings", room->advancedSettings()},
        {"ban", room->banlist()[0]},
    };
    connection->invalidate();
    other->invalidate();
    for (const auto &[name, object] : owned)
        EXPECT_FALSE(object->inDirectory()) << name;
    EXPECT_TRUE(listed->inDirectory());
    EXPECT_TRUE(identities->identities()[0]->inDirectory());
    invalidateNetworkTree(shared.get());
}
