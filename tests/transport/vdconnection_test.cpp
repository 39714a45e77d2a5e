// VDConnection: two connections in one process over a real loopback socket
// pair (or one connection and a raw socket that writes and reads frames by
// hand). The write gate and its queue, return handlers, faults in incoming
// messages, the body-length limit, and the remote proxy's signature look-up.

#include "support/linked_pair.h" // first: its printers must precede GoogleTest

#include "runtime/process.h"
#include "support/test_model.h"
#include "transport/vdconnection_p.h"

#include <QTcpServer>

using namespace vdtest;
using namespace Qt::StringLiterals;

namespace {

using namespace zttest;

// A released listener stops listening at once; a released connected
// connection closes once its writes are out, and the peer hears of it.
TEST(VDConnectionDelegate, ReleasedConnectionsCloseTheirSockets)
{
    LinkedPair link;
    ASSERT_TRUE(link.connect());
    const quint16 port = link.listener->socket()->localPort();
    zt::Ref<AsyncSocket> listening(link.listener->socket());
    link.listener->setDelegate(nullptr);
    link.listener.reset();
    EXPECT_TRUE(listening->isDisconnected());
    listening.reset();
    QTcpServer rebind;
    EXPECT_TRUE(rebind.listen(QHostAddress::LocalHost, port)) << rebind.errorString().toStdString();

    link.client()->proxyForRemoteObject()->perform("note:", {u"last words"_s});
    zt::Ref<AsyncSocket> client(link.client()->socket());
    link.client()->setDelegate(nullptr);
    link.clients.clear();
    ASSERT_TRUE(waitUntil([&] { return link.events.contains(u"did server0"_s); }));
    EXPECT_EQ(link.serverRoot()->calls, QStringList{u"note: s\"last words\""_s});
    EXPECT_TRUE(client->isDisconnected());
}

struct GateRow
{
    const char *name;
    const char *steps;    // start, stop, open, close, registerClient, or a note's text
    const char *received; // the notes and handshakes the peer ran, before the closing handshake
    qsizetype queued;     // left in the queue at the end
    bool allowWriting, queuing;
};

// The steps run on a fresh connection; then the handshake call
// handshakeFromAgent:"end", which always passes the gate, marks the end of
// the stream: whatever was written before it has arrived when it does.
const GateRow gateRows[] = {
    {"fresh_connection_drops_calls", "a b", "", 0, false, false},
    {"registerClient_passes_the_closed_gate", "a registerClient", "registerClient", 0, false, false},
    {"handshake_overtakes_the_queue", "start a registerClient stop", "registerClient a", 0, true, false},
    {"started_twice_stopped_twice_flushes_once", "start a start b stop stop", "a b", 0, true, false},
    {"stop_without_start_leaves_the_gate_closed", "stop a", "", 0, false, false},
    {"closing_the_gate_drops_again", "open a close b", "a", 0, false, false},
    {"start_closes_an_open_gate", "open start a", "", 1, false, true},
    {"opening_while_queuing_lets_later_calls_overtake", "start a open b stop", "b a", 0, true, false},
    {"queue_after_stop_starts_empty", "start a stop start b", "a", 1, false, true}};

TEST(VDConnectionGate, WritesHoldsOrDropsEachCall)
{
    for (const GateRow &row : gateRows) {
        SCOPED_TRACE(row.name);
        LinkedPair link;
        ASSERT_TRUE(link.connect(false));
        VDConnection *c = link.client();
        VDConnectionRemoteProxy *remote = c->proxyForRemoteObject();
        for (const QString &step : sockettest::words(row.steps)) {
            if (step == u"start")
                c->startQueueing();
            else if (step == u"stop")
                c->stopQueueing();
            else if (step == u"open" || step == u"close")
                c->setAllowWriting(step == u"open");
            else if (step == u"registerClient")
                remote->perform("registerClient");
            else
                remote->perform("note:", {step});
        }
        EXPECT_EQ(c->queue().size(), row.queued);
        EXPECT_EQ(c->allowWriting(), row.allowWriting);
        EXPECT_EQ(c->isQueuing(), row.queuing);

        remote->perform("handshakeFromAgent:", {u"end"_s});
        ASSERT_TRUE(waitForCall(link.serverRoot(), u"handshakeFromAgent: s\"end\""_s));
        QStringList expected;
        for (const QString &r : sockettest::words(row.received))
            expected.append(r == u"registerClient" ? r : u"note: s\"%1\""_s.arg(r));
        expected.append(u"handshakeFromAgent: s\"end\""_s);
        EXPECT_EQ(link.serverRoot()->calls, expected);
    }
}

TEST(VDConnectionHandlers, AnObjectResultComesBackToTheHandlerOnce)
{
    const QVariantMap dictionary{{u"nick"_s, u"zin"_s}, {u"modes"_s, QVariantList{1, true, u"o"_s}}};
    const std::tuple<const char *, zt::Selector, QVariantList, QVariant> rows[] = {
        {"dictionary", "echo:", {dictionary}, dictionary},
        {"null marker arrives as nil", "echo:", {zt::nullValue()}, QVariant()},
        {"8-byte integer result travels as an object", "sum:with:", {40, 2}, qint64(42)}};
    LinkedPair link;
    ASSERT_TRUE(link.connect());
    VDConnection *c = link.client();
    for (const auto &[name, selector, arguments, result] : rows) {
        SCOPED_TRACE(name);
        const QVariant r = c->proxyForRemoteObject()->perform(selector, arguments);
        VDReturnHandler *handler = handlerIn(r);
        ASSERT_NE(handler, nullptr) << zt::describe(r).toStdString();
        EXPECT_EQ(c->pendingReturnHandlerCount(), 1);
        QVariantList results;
        handler->returnedValue([&](const QVariant &v) { results.append(v); });
        ASSERT_TRUE(waitUntil([&] { return !results.isEmpty(); }));
        EXPECT_EQ(results.size(), 1);
        EXPECT_TRUE(zt::valuesEqual(results.front(), result)) << render(results.front()).toStdString();
        EXPECT_EQ(c->pendingReturnHandlerCount(), 0);
    }
}

// Calls whose result is not 8 bytes wide get no handler, and the receiver
// answers them with nothing: the only replies the caller sees are the
// echoes'. A handler without a callback is removed by its reply all the same.
TEST(VDConnectionHandlers, CallsWithoutAnObjectResultGetNoHandlerAndNoReply)
{
    LinkedPair link;
    ASSERT_TRUE(link.connect());
    VDConnection *c = link.client();
    VDConnectionRemoteProxy *remote = c->proxyForRemoteObject();
    zttest::LogCapture log;
    QLoggingCategory::setFilterRules(u"zt.transport.ipc.info=true"_s);
    EXPECT_FALSE(remote->perform("note:", {u"x"_s}).isValid());
    EXPECT_EQ(handlerIn(remote->perform("lengthOf:", {u"four"_s})), nullptr);
    EXPECT_EQ(c->pendingReturnHandlerCount(), 0);
    EXPECT_NE(handlerIn(remote->perform("echo:", {u"unheard"_s})), nullptr);
    QVariantList results;
    handlerIn(remote->perform("echo:", {u"last"_s}))->returnedValue([&](const QVariant &v) {
        results.append(v);
    });
    EXPECT_EQ(c->pendingReturnHandlerCount(), 2);
    const bool arrived = waitUntil([&] { return !results.isEmpty(); });
    QLoggingCategory::setFilterRules({});
    ASSERT_TRUE(arrived);
    EXPECT_EQ(c->pendingReturnHandlerCount(), 0);
    // The two ends log in one process; each end's lines keep their order.
    EXPECT_EQ(log.lines().filter(QRegularExpression(u"^Received call:"_s)),
              (QStringList{u"Received call: note:"_s, u"Received call: lengthOf:"_s,
                           u"Received call: echo:"_s, u"Received call: echo:"_s}));
    EXPECT_EQ(log.lines().filter(QRegularExpression(u"^Received callback:"_s)),
              (QStringList{u"Received callback: value=unheard"_s, u"Received callback: value=last"_s}));
}

QByteArray noteFrame(const char *text)
{
    return frame(body("note:", {}, {zt::plist::writeBinary(QString::fromLatin1(text))}));
}

// Each faulty message is followed by a good one; all are written in one
// burst. Every fault is logged and skipped, and the connection reads on.
TEST(VDConnectionReceive, AFaultyMessageIsLoggedAndSkipped)
{
    const QByteArray good = zt::plist::writeBinary(u"x"_s);
    const QString range =
        u"NSRangeException: *** -[NSData getBytes:range:]: range {%1} exceeds data length %2"_s;
    const auto note = [](const QByteArray &payload) { return frame(body("note:", {}, {payload})); };
    const struct
    {
        const char *name;
        QByteArray frame;
        QString logged;          // pointers masked as 0x?
        QString ran = QString(); // what the root ran for it, before the row's own note
    } rows[] = {{"empty body", frame(""), range.arg(u"0, 8"_s).arg(0)},
                {"body shorter than its last record", frame(body("note:", "", {good}).chopped(1)),
                 range.arg(u"37, 43"_s).arg(79)},
                {"wrong argument count", frame(body("note:", "", {good, good})),
                 u"Wrong number of arguments: Got 2 arguments, expected 3"_s},
                {"unparsable payload runs with nil", note(hex("0102")),
                 u"Could not deserialize <0102> (note:)"_s, u"note: nil"_s},
                {"a long unparsable payload is logged by its first 64 bytes and its length",
                 note(QByteArray(100000, '\1')),
                 u"Could not deserialize %1 (first 64 of 100000 bytes) (note:)"_s.arg(
                     zt::describe(QByteArray(64, '\1'))),
                 u"note: nil"_s},
                {"unknown selector", frame(body("nope:", "", {good})), u""_s},
                {"refused selector", frame(body("refuse:", "", {good})),
                 u"Warning: local object server-root-0 does not respond to selector refuse:"_s},
                {"argument type that cannot travel",
                 frame(body("takeReal:", "", {zt::plist::writeBinary(1.5)})),
                 u"Unknown argument format: Argument 0x? with type d of selector takeReal: is not allowed"_s},
                {"result that cannot travel back", frame(body("gadget", "H", {})),
                 u"Unknown object type: Argument server-root-0 (class TestRoot) of selector "
                 u"vd_returnedValue:withHandlerID: is not allowed"_s,
                 u"gadget"_s}};
    LinkedPair link;
    ASSERT_TRUE(link.connectRaw());
    QByteArray burst;
    QStringList expectedLog, expectedRuns;
    for (const auto &row : rows) {
        burst += row.frame + noteFrame(row.name);
        if (!row.logged.isEmpty())
            expectedLog.append(row.logged);
        if (!row.ran.isEmpty())
            expectedRuns.append(row.ran);
        expectedRuns.append(u"note: "_s + render(QString::fromLatin1(row.name)));
    }
    zttest::LogCapture log;
    link.write(burst);
    ASSERT_TRUE(waitUntil([&] { return link.serverRoot()->calls.size() == expectedRuns.size(); }));
    EXPECT_EQ(link.serverRoot()->calls, expectedRuns);
    EXPECT_EQ(maskPointers(log.lines().join(u'\n')).split(u'\n'), expectedLog);
    EXPECT_FALSE(link.events.contains(u"did server0"_s));
    EXPECT_TRUE(link.server()->socket()->isConnected());
}

// Also a message whose call runs out of memory: the connection closes
// rather than stop reading. Rows: the limit (0: the default), the bytes, and
// the line logged as it closes (empty: the message is read).
TEST(VDConnectionReceive, ABodyOverTheLimitClosesTheConnectionUnread)
{
    const QByteArray note = noteFrame("fits");
    const quint64 length = quint64(note.size() - 8);
    const QString closing = u"Message of %1 bytes exceeds the limit of %2 bytes; closing the connection"_s;
    const std::tuple<const char *, quint64, QByteArray, QString> rows[] = {
        {"exactly the limit", length, note, u""_s},
        {"one byte over", length - 1, note, closing.arg(length).arg(length - 1)},
        {"2^63 under the default", 0, word(quint64(1) << 63),
         closing.arg(u"9223372036854775808"_s).arg(67108864)},
        {"out of memory in a call", 0, frame(body("exhaust", "", {})) + note,
         u"Out of memory while reading a message; closing the connection"_s}};
    for (const auto &[name, limit, bytes, logged] : rows) {
        SCOPED_TRACE(name);
        LinkedPair link;
        ASSERT_TRUE(link.connectRaw());
        if (limit)
            link.server()->setMaximumMessageLength(limit);
        zttest::LogCapture log;
        link.write(bytes);
        if (logged.isEmpty()) {
            ASSERT_TRUE(waitForCall(link.serverRoot(), u"note: s\"fits\""_s));
            EXPECT_FALSE(link.events.contains(u"did server0"_s));
        } else {
            ASSERT_TRUE(waitUntil([&] { return link.rawEvents.disconnects > 0; }));
            EXPECT_EQ(link.events.count(u"did server0"_s), 1);
            EXPECT_EQ(log.lines(), QStringList{logged});
            EXPECT_TRUE(link.serverRoot()->calls.isEmpty());
        }
    }
}

// The test entry point splits a stream as the socket's two reads do (faults
// inside a whole message are the table above's).
TEST(VDConnectionReceive, TheTestEntryPointReadsFramesAsTheSocketDoes)
{
    auto root = zt::make<TestRoot>(u"root"_s);
    auto c = VDConnection::createWithDelegate(nullptr);
    c->setLocalObject(root.get());
    c->setMaximumMessageLength(200);
    vd::DecodeLimits shallow;
    shallow.plist.maxDepth = 2;
    c->setDecodeLimits(shallow);
    const QVariant level3 = QVariantList{1};
    const QVariant level2 = QVariantList{level3};
    const QByteArray deep = zt::plist::writeBinary(QVariantList{level2}); // three levels
    const QString a = u"note: s\"a\""_s;
    const std::tuple<const char *, QByteArray, QString, QString> rows[] = {
        {"an incomplete body ends the stream", noteFrame("a") + noteFrame("b").chopped(1), a, u""_s},
        {"a payload deeper than the decode limits runs with nil", frame(body("note:", "", {deep})),
         u"note: nil"_s, u"Could not deserialize %1 (note:)"_s.arg(zt::describe(deep))},
        {"an incomplete length ends the stream", noteFrame("a") + QByteArray(7, '\0'), a, u""_s},
        {"a length over the limit ends the stream", word(201) + noteFrame("a"), u""_s,
         u"Message of 201 bytes exceeds the limit of 200 bytes; closing the connection"_s}};
    for (const auto &[name, bytes, ran, logged] : rows) {
        SCOPED_TRACE(name);
        root->calls.clear();
        zttest::LogCapture log;
        VDConnectionTestAccess::receive(c.get(), bytes);
        EXPECT_EQ(root->calls, ran.isEmpty() ? QStringList() : QStringList{ran});
        EXPECT_EQ(log.lines(), logged.isEmpty() ? QStringList() : QStringList{logged});
    }
}

class VDConnectionRemoteProxyTest : public testing::Test
{
protected:
    void SetUp() override
    {
        // A client process: it sends forwarded calls under "toAgent".
        zt::process::setApplicationIdentifier(u"com.zintaro.Zintaro2"_s);
        ZTIPCProxy::resetCachedProcessRole();
        thing = ZTAbstractIPC::createCounterpartWithUUID<HeldNode>(u"THING-1"_s);
    }
    void TearDown() override
    {
        thing->invalidate();
        zt::process::setApplicationIdentifier(QString());
        ZTIPCProxy::resetCachedProcessRole();
    }
    zt::Ref<ZTAbstractIPC> thing;
};

// A selector without a signature fails as unrecognised when it is sent.
TEST_F(VDConnectionRemoteProxyTest, FindsSignaturesInTheProtocolOrThroughTheDirectory)
{
    const struct
    {
        const char *name;
        zt::Selector selector;
        QByteArray types = {}; // empty: no signature, which is logged last
        QString logged = {};   // logged before it
    } rows[] = {{"remote protocol", "echo:", "@@:@"},
                {"reply method", vd::ReturnedValueSelector, "v@:@@"},
                {"forwarded, taken from the superclass", "toAgent_HeldNode_THING-1_renameTo:times:", "v@:@q"},
                {"forwarded, a method that is not an action", "toAgent_HeldNode_THING-1_invalidate", "",
                 u"*** Refused forwarded call invalidate (not an action of HeldNode)"_s},
                {"forwarded, only the object's own class has it", "toAgent_HeldNode_THING-1_ownOnly:", "",
                 u"ERROR THING-1 responds to ownOnly:, but couldn't find the method signature"_s},
                {"forwarded, the object does not respond", "toAgent_HeldNode_THING-1_fly:", "",
                 u"ERROR THING-1 does not respond to fly:"_s},
                {"forwarded, unknown UUID", "toAgent_HeldNode_NOBODY_count", "",
                 u"ERROR Counterpart for toAgent_HeldNode_NOBODY_count is not registered"_s},
                {"the other direction's prefix", "toClient_HeldNode_THING-1_count"},
                {"three parts", "toAgent_THING-1_count"},
                {"five parts", "toAgent_HeldNode_THING-1_count_x"},
                {"unknown plain selector", "fly:"}};
    auto connection = VDConnection::createWithDelegate(nullptr);
    connection->setModelBridge(&ZTRootObject::modelBridge());
    connection->setProtocolForRemoteObject(&rootProtocol());
    VDConnectionRemoteProxy &proxy = *connection->proxyForRemoteObject();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        zttest::LogCapture log;
        const zt::MethodSignature signature = proxy.methodSignatureForSelector(row.selector);
        EXPECT_EQ(signature.isValid() ? signature.types() : QByteArray(), row.types);
        QStringList logged = row.logged.isEmpty() ? QStringList() : QStringList{row.logged};
        if (row.types.isEmpty())
            logged << u"ERROR No method signature for "_s + QLatin1String(row.selector);
        EXPECT_EQ(log.lines(), logged);
        EXPECT_EQ(proxy.acceptsSelector(row.selector), !row.types.isEmpty());
        if (row.types.isEmpty()) {
            const auto [name, reason] = raised([&] { proxy.perform(row.selector, {1}); });
            EXPECT_EQ(name, u"NSInvalidArgumentException"_s);
            EXPECT_TRUE(reason.contains(u"unrecognized selector"_s)) << reason.toStdString();
        }
    }
}

// Answers are remembered per selector, but never past a change of protocol,
// and a forwarded call is looked up in the directory each time.
TEST_F(VDConnectionRemoteProxyTest, RememberedSignaturesFollowTheProtocolAndTheDirectory)
{
    const zt::Selector echo = "echo:";
    const zt::Selector forwarded = "toAgent_HeldNode_THING-1_renameTo:times:";
    const zt::Protocol other(u"Other"_s, {{"echo:", "v@:q"}});
    auto connection = VDConnection::createWithDelegate(nullptr);
    connection->setModelBridge(&ZTRootObject::modelBridge());
    VDConnectionRemoteProxy &proxy = *connection->proxyForRemoteObject();
    proxy.setProtocolForRemoteObject(&rootProtocol());
    EXPECT_EQ(proxy.methodSignatureForSelector(echo).types(), "@@:@");
    EXPECT_EQ(proxy.methodSignatureForSelector(echo).types(), "@@:@");
    proxy.setProtocolForRemoteObject(&other);
    EXPECT_EQ(proxy.methodSignatureForSelector(echo).types(), "v@:q");
    proxy.setProtocolForRemoteObject(nullptr);
    {
        zttest::LogCapture log;
        EXPECT_FALSE(proxy.methodSignatureForSelector(echo).isValid());
    }

    EXPECT_TRUE(proxy.methodSignatureForSelector(forwarded).isValid());
    LinkedPair link; // and the call travels under its full selector
    ASSERT_TRUE(link.connect());
    EXPECT_FALSE(link.client()->proxyForRemoteObject()->perform(forwarded, {u"x"_s, 3}).isValid());
    ASSERT_TRUE(waitUntil([&] { return !link.serverRoot()->calls.isEmpty(); }));
    EXPECT_EQ(link.serverRoot()->calls, QStringList{QLatin1String(forwarded) + u" s\"x\" i:3"_s});
    thing->invalidate();
    zttest::LogCapture log;
    EXPECT_FALSE(proxy.methodSignatureForSelector(forwarded).isValid());
    EXPECT_EQ(log.lines().value(0),
              u"ERROR Counterpart for "_s + QLatin1String(forwarded) + u" is not registered"_s);
}

} // namespace
