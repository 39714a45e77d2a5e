// Channels: defaults and dictionary form, outgoing commands, people and
// their departure, line counts, stars and line look-ups.
#include "model_fixture.h"
#include "runtime/keyedarchive.h"

using ChatTest = ModelTest;

namespace {

QVariantMap line(const QString &id, const QString &text)
{
    return {{QStringLiteral("msgID"), id}, {QStringLiteral("text"), text}};
}

} // namespace

TEST_F(ChatTest, CountersGoOutTruncatedTo32Bits)
{
    auto channel = make<AgentChannel>();
    channel->setUnreadLines((quint64(1) << 32) + 5);
    EXPECT_EQ(channel->dictionary().value(QStringLiteral("unreadLines")).toLongLong(), 5);
}

TEST_F(ChatTest, EncodingFollowsTheConnectionUntilSet)
{
    auto connection = make<AgentConnection>();
    auto channel = this->channel(QStringLiteral("#a"), connection.get());
    connection->setEncoding(4);
    EXPECT_EQ(channel->encoding(), 4u);
    EXPECT_EQ(channel->dictionary().value(QStringLiteral("encoding")).toULongLong(), 4u);
    channel->setEncoding(30);
    connection->setEncoding(5);
    EXPECT_EQ(channel->encoding(), 30u);
    channel->setEncoding(0);
    EXPECT_EQ(channel->encoding(), 5u);
}

TEST_F(ChatTest, OutgoingCommands)
{
    struct Row
    {
        const char *name;
        void (ZTAbstractChannel::*ask)();
        bool typed; // through processOutgoingLine, else written raw
        QString line;
    };
    const Row rows[] = {
        {"askTopic", &ZTAbstractChannel::askTopic, true, QStringLiteral("TOPIC #Zt")},
        {"quietlyAskTopic", &ZTAbstractChannel::quietlyAskTopic, true, QStringLiteral("TOPIC #Zt")},
        {"askMode", &ZTAbstractChannel::askMode, false, QStringLiteral("MODE #Zt")},
        {"askBans", &ZTAbstractChannel::askBans, false, QStringLiteral("MODE #Zt +b")},
        {"askExceptions", &ZTAbstractChannel::askExceptions, false, QStringLiteral("MODE #Zt +e")},
        {"askWho", &ZTAbstractChannel::askWho, false, QStringLiteral("WHO #Zt")},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        auto connection = make<AgentConnection>();
        auto channel = this->channel(QStringLiteral("#Zt"), connection.get());
        (channel.get()->*row.ask)();
        EXPECT_EQ(connection->outgoingLines(), row.typed ? QStringList{row.line} : QStringList());
        EXPECT_EQ(connection->writtenStrings(), row.typed ? QStringList() : QStringList{row.line});
        EXPECT_EQ(channel->hideTopicReply(), row.ask == &ZTAbstractChannel::quietlyAskTopic);
    }
}

TEST_F(ChatTest, PeopleThatLeaveAreInvalidated)
{
    struct Row
    {
        const char *name;
        std::function<void(ZTAbstractChannel &, const QList<zt::Ref<ZTAbstractPerson>> &)> change;
        QList<bool> stillRegistered;
    };
    const Row rows[] = {
        {"replace the list keeping two",
         [](auto &c, const auto &p) {
             c.setUsers({p[2], p[0]});
         },
         {true, false, true}},
        {"removePerson", [](auto &c, const auto &p) { c.removePerson(p[1]); }, {true, false, true}},
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
        {"the channel is invalidated", [](auto &c, const auto &) { c.invalidate(); }, {false, false, false}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        auto channel = make<AgentChannel>();
        const QList<zt::Ref<ZTAbstractPerson>> people{
            person(QStringLiteral("a")), person(QStringLiteral("b")), person(QStringLiteral("c"))};
        for (const auto &p : people)
            channel->addPerson(p);
        row.change(*channel, people);
        for (qsizetype i = 0; i < people.size(); ++i)
            EXPECT_EQ(people[i]->inDirectory(), row.stillRegistered[i]) << "person " << i;
    }
}

TEST_F(ChatTest, PersonLookUps)
{
    auto channel = this->channel(QStringLiteral("Bob"));
    auto first = person(QStringLiteral("BOB"));
    channel->addPerson(person(QStringLiteral("alice")));
    channel->addPerson(first);
    channel->addPerson(person(QStringLiteral("bob")));
    EXPECT_EQ(channel->personWithName(QStringLiteral("bOb")).get(), first.get());
    EXPECT_FALSE(channel->personWithName(QStringLiteral("carol")));
    EXPECT_FALSE(channel->party()); // not a query
    channel->setIsQuery(true);
    EXPECT_EQ(channel->party().get(), first.get());
}

TEST_F(ChatTest, ResetLineCountEndsTheExchange)
{
    struct Row
    {
        const char *name;
        bool agent;
        quint64 lines, highlights;
        int sends;
    };
    const Row rows[] = {
        {"agent, both zero", true, 0, 0, 0},  {"agent, lines", true, 3, 0, 1},
        {"agent, highlights", true, 0, 2, 1}, {"client, both zero", false, 0, 0, 0},
        {"client, both set", false, 7, 1, 1},
    };
    for (const Row &row : rows) {
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

TEST_F(ChatTest, LinesAndStars)
{
    auto channel = make<AgentChannel>();
    channel->setHistory(
        {line(QStringLiteral("u1"), QStringLiteral("old")), line(QStringLiteral("u2"), QStringLiteral("h"))});
    channel->setContent({line(QStringLiteral("u1"), QStringLiteral("new"))});
    EXPECT_EQ(channel->messageWithUUID(QStringLiteral("u1")).toMap().value(QStringLiteral("text")),
              QStringLiteral("new"));
    EXPECT_EQ(channel->messageWithUUID(QStringLiteral("u2")).toMap().value(QStringLiteral("text")),
              QStringLiteral("h"));
    EXPECT_FALSE(channel->messageWithUUID(QStringLiteral("u3")).isValid());

    channel->addStarOccurenceWithUUID(QStringLiteral("u1"));
    channel->addStarOccurenceWithUUID(QStringLiteral("nope"));
    const QVariantList stars = channel->starOccurences();
    ASSERT_EQ(stars.size(), 2);
    EXPECT_EQ(stars[0].toMap().value(QStringLiteral("text")), QStringLiteral("new"));
    EXPECT_EQ(stars[0].toMap().value(QStringLiteral("msgStarred")), true);
    EXPECT_EQ(stars[1].toMap(), (QVariantMap{{QStringLiteral("msgStarred"), true}}));
    EXPECT_FALSE(
        channel->content()[0].toMap().contains(QStringLiteral("msgStarred"))); // the line itself stays
    EXPECT_TRUE(channel->starredMessageWithUUID(QStringLiteral("u1")).isValid());
    channel->removeStarOccurenceWithUUID(QStringLiteral("unknown"));
    channel->removeStarOccurenceWithUUID(QStringLiteral("u1"));
    EXPECT_EQ(channel->starOccurences().size(), 1);

    const QVariantMap lines = channel->linesDictionary();
    EXPECT_EQ(lines.value(QStringLiteral("content")).toList()[0].toMap().value(QStringLiteral("msgEmbedded")),
              false);
    EXPECT_EQ(lines.value(QStringLiteral("pastcontent")).toList().size(), 2);

    channel->setUnreadLines(4);
    channel->clearLines();
    EXPECT_TRUE(channel->content().isEmpty());
    EXPECT_TRUE(channel->history().isEmpty());
    EXPECT_EQ(channel->unreadLines(), 0u);
}

TEST_F(ChatTest, ChannelArchiveKeepsItsUUID)
{
    auto channel = make<AgentChannel>();
    const QByteArray archive = zt::KeyedArchiver::archivedDataWithRootObject(zt::objectValue(channel.get()));
    ZTAbstractIPC::disableRegistration();
    const auto value = zt::KeyedUnarchiver::unarchiveObjectWithData(archive);
    ZTAbstractIPC::enableRegistration();
    ASSERT_TRUE(value);
    auto *decoded = dynamic_cast<AgentChannel *>(zt::objectFrom(*value));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->description(), channel->description());
    EXPECT_EQ(decoded->status(), 0); // init ran
}
