// Channels: dictionary form and encoding, outgoing commands, people and
// their departure, line counts, stars and line look-ups.
#include "model_fixture.h"

TEST_F(ModelTest, DictionaryFormsCountersAndEncoding)
{
    auto connection = make<AgentConnection>();
    expectDictionary(connection.get(), {}); // its state travels as property changes
    auto channel = make<AgentChannel>();
    // Every key of a fresh channel, grouped by its default.
    QVariantMap expected{{u"encoding"_s, quint64(0)},
                         {u"attributes"_s, QVariantMap()},
                         {u"linesDictionary"_s,
                          QVariantMap{{u"content"_s, QVariantList()}, {u"pastcontent"_s, QVariantList()}}}};
    const auto fill = [&](const QStringList &keys, const QVariant &value) {
        for (const QString &key : keys)
            expected.insert(key, value);
    };
    fill({u"name"_s, u"password"_s}, u""_s);
    fill({u"isConsole"_s, u"isChannel"_s, u"isQuery"_s, u"didValidateNames"_s, u"focusAfterAdd"_s}, false);
    fill({u"status"_s, u"unreadLines"_s, u"unreadHighlights"_s, u"importance"_s, u"index"_s}, qint64(0));
    fill({u"userDictionaries"_s, u"banlistDictionaries"_s, u"highlights"_s}, QVariantList());
    expectDictionary(channel.get(), expected);

    // Counters go out truncated to 32 bits; the encoding is the
    // connection's until the channel sets its own.
    channel->setConnection(connection.get());
    channel->setUnreadLines((quint64(1) << 32) + 5);
    connection->setEncoding(4);
    EXPECT_EQ(channel->dictionary().value(u"unreadLines"_s).toLongLong(), 5);
    EXPECT_EQ(channel->dictionary().value(u"encoding"_s).toULongLong(), 4u);
    channel->setEncoding(30);
    connection->setEncoding(5);
    EXPECT_EQ(channel->encoding(), 30u);
    channel->setEncoding(0);
    EXPECT_EQ(channel->encoding(), 5u);
}

TEST_F(ModelTest, OutgoingCommands)
{
    const struct
    {
        const char *name;
        void (ZTAbstractChannel::*ask)();
        bool typed; // through processOutgoingLine, else written raw
        QString line;
    } rows[] = {
        {"askTopic", &ZTAbstractChannel::askTopic, true, u"TOPIC #Zt"_s},
        {"quietlyAskTopic", &ZTAbstractChannel::quietlyAskTopic, true, u"TOPIC #Zt"_s},
        {"askMode", &ZTAbstractChannel::askMode, false, u"MODE #Zt"_s},
        {"askBans", &ZTAbstractChannel::askBans, false, u"MODE #Zt +b"_s},
        {"askExceptions", &ZTAbstractChannel::askExceptions, false, u"MODE #Zt +e"_s},
        {"askWho", &ZTAbstractChannel::askWho, false, u"WHO #Zt"_s},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        auto connection = make<AgentConnection>();
        auto channel = this->channel(u"#Zt"_s, connection.get());
        (channel.get()->*row.ask)();
        EXPECT_EQ(connection->outgoingLines(), row.typed ? QStringList{row.line} : QStringList());
        EXPECT_EQ(connection->writtenStrings(), row.typed ? QStringList() : QStringList{row.line});
        EXPECT_EQ(channel->hideTopicReply(), row.ask == &ZTAbstractChannel::quietlyAskTopic);
    }
}

// A person that leaves "users" by any change leaves the directory.
TEST_F(ModelTest, PeopleThatLeaveAreInvalidated)
{
    using People = QList<zt::Ref<ZTAbstractPerson>>;
    const struct
    {
        const char *name;
        std::function<void(ZTAbstractChannel &, const People &)> change;
        QList<bool> stillRegistered;
    } rows[] = {
        {"replace the list keeping two",
         [](auto &c, const auto &p) {
             c.setUsers({p[2], p[0]});
         },
         {true, false, true}},
        {"remove at indexes",
         [](auto &c, const auto &) {
             c.mutableUsers().removeObjectsAtIndexes(zt::IndexSet{0, 2});
         },
         {false, true, false}},
        {"replace at an index",
         [](auto &c, const auto &) {
             auto other = zt::make<AgentPerson>();
             other->init();
             c.mutableUsers().replaceObjectAtIndex(1, zt::objectValue(other.get()));
             c.removePerson(other); // it leaves the directory again
         },
         {true, false, true}},
        {"resetUsers", [](auto &c, const auto &) { c.resetUsers(); }, {false, false, false}},
        {"clearActivity", [](auto &c, const auto &) { c.clearActivity(); }, {false, false, false}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        auto channel = make<AgentChannel>();
        const People people{person(u"a"_s), person(u"b"_s), person(u"c"_s)};
        for (const auto &p : people)
            channel->addPerson(p);
        row.change(*channel, people);
        for (qsizetype i = 0; i < people.size(); ++i)
            EXPECT_EQ(people[i]->inDirectory(), row.stillRegistered[i]) << "person " << i;
    }
}

TEST_F(ModelTest, ResetLineCountEndsTheExchange)
{
    const struct
    {
        const char *name;
        bool agent;
        quint64 lines, highlights;
        int sends;
    } rows[] = {
        {"agent, both zero", true, 0, 0, 0},
        {"agent, highlights", true, 0, 2, 1},
        {"client, both set", false, 7, 1, 1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        playRole(row.agent);
        delegate.forwarded.clear();
        auto channel = make<ClientChannel>();
        channel->setUnreadLines(row.lines);
        channel->setUnreadHighlights(row.highlights);
        channel->resetLineCount();
        EXPECT_EQ(channel->unreadLines(), 0u);
        EXPECT_EQ(channel->unreadHighlights(), 0u);
        EXPECT_EQ(delegate.forwarded.count("resetLineCount"), row.sends);
    }
}

TEST_F(ModelTest, LinesAndStars)
{
    const auto line = [](const QString &id, const QString &text) {
        return QVariantMap{{u"msgID"_s, id}, {u"text"_s, text}};
    };
    auto channel = make<AgentChannel>();
    channel->setHistory({line(u"u1"_s, u"old"_s), line(u"u2"_s, u"h"_s)});
    channel->setContent({line(u"u1"_s, u"new"_s)});
    EXPECT_EQ(channel->messageWithUUID(u"u1"_s).toMap().value(u"text"_s), u"new"_s);
    EXPECT_EQ(channel->messageWithUUID(u"u2"_s).toMap().value(u"text"_s), u"h"_s);
    EXPECT_FALSE(channel->messageWithUUID(u"u3"_s).isValid());

    channel->addStarOccurenceWithUUID(u"u1"_s);
    channel->addStarOccurenceWithUUID(u"nope"_s);
    const QVariantList stars = channel->starOccurences();
    ASSERT_EQ(stars.size(), 2);
    EXPECT_EQ(stars[0].toMap().value(u"text"_s), u"new"_s);
    EXPECT_EQ(stars[0].toMap().value(u"msgStarred"_s), true);
    EXPECT_EQ(stars[1].toMap(), (QVariantMap{{u"msgStarred"_s, true}}));
    EXPECT_FALSE(channel->content()[0].toMap().contains(u"msgStarred"_s)); // the line itself stays
    EXPECT_TRUE(channel->starredMessageWithUUID(u"u1"_s).isValid());
    channel->removeStarOccurenceWithUUID(u"unknown"_s);
    channel->removeStarOccurenceWithUUID(u"u1"_s);
    EXPECT_EQ(channel->starOccurences().size(), 1);

    const QVariantMap lines = channel->linesDictionary();
    EXPECT_EQ(lines.value(u"content"_s).toList()[0].toMap().value(u"msgEmbedded"_s), false);
    EXPECT_EQ(lines.value(u"pastcontent"_s).toList().size(), 2);

    channel->setUnreadLines(4);
    channel->clearLines();
    EXPECT_TRUE(channel->content().isEmpty());
    EXPECT_TRUE(channel->history().isEmpty());
    EXPECT_EQ(channel->unreadLines(), 0u);
}
