// Joining a large channel, two processes over loopback: the agent process
// (bench/peers/zintaro/model_agent_main.cpp) parses the NAMES reply, 40
// names a line, into people with identities and privileges and inserts each
// line's people into the channel's "users" with one insertion; this process
// is the client and mirrors the agent's connection.
//
// BM_Zintaro_Join          live: the client is connected when the join
//                          starts. agent_ms: first NAMES line to the agent's
//                          model complete; Time (client_ms): first line to
//                          the client's mirror complete.
// BM_Zintaro_LateJoin      the agent holds the channel already; Time: from
//                          connecting (registerClient) to the mirror complete.
// BM_Zintaro_WholeModel    100 channels of 100 people and 1,000 lines each,
//                          from connecting to the mirror complete.
// BM_QtRemoteObjects_*     the same join with Qt Remote Objects: a list model
//                          of the five fields of a person, remoted by a host
//                          process (bench/peers/qtro/qtro_model_host.cpp) and
//                          mirrored in full by a QAbstractItemModelReplica
//                          whose cache holds every row.
//
// Counters: rss_growth_mib (VmRSS) and heap_growth_mib (bytes in use by
// malloc) of this process from before connecting to the mirror complete.
// Every benchmark runs once per repetition (Iterations(1)); use
// --benchmark_repetitions=3 and read every repetition.

#include "bench_support.h"
#include "core/ztclientnode.h"
#include "model_root.h"
#include "runtime/process.h"

#include <QElapsedTimer>
#include <QFile>

#ifdef ZT_HAVE_QT_REMOTE_OBJECTS
#include <QAbstractItemModelReplica>
#include <QRemoteObjectNode>
#include <QUrl>
#endif

#include <benchmark/benchmark.h>

#include <ctime>
#include <malloc.h>

namespace {

constexpr int kTimeoutMs = 120000;
// Qt Remote Objects gets less: its live join grows with the square of the rows.
constexpr int kPeerTimeoutMs = 60000;

qint64 monotonicNs()
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return qint64(t.tv_sec) * 1000000000 + t.tv_nsec;
}

double rssMiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toDouble() / 1024.0;
    return 0;
}

double heapMiB()
{
    const struct mallinfo2 info = mallinfo2();
    return double(info.uordblks + info.hblkhd) / (1024.0 * 1024.0);
}

struct Memory
{
    double rss = rssMiB();
    double heap = heapMiB();
    void report(benchmark::State &state) const
    {
        state.counters["rss_growth_mib"] = rssMiB() - rss;
        state.counters["heap_growth_mib"] = heapMiB() - heap;
    }
};

void skip(benchmark::State &state, const QString &why)
{
    state.SkipWithError(why.toUtf8().constData());
}

// A helper process told what to do by lines on its stdin; its answers are
// read without blocking this process's event loop.
struct Helper
{
    ztbench::PeerProcess process;
    explicit Helper(const QString &program) : process(program) {}

    void tell(const QByteArray &line) { process.process().write(line + '\n'); }
    // The next answer, waited for on the event loop; empty on time-out.
    QByteArray answer()
    {
        QProcess &p = process.process();
        if (!ztbench::waitUntil([&] { return p.canReadLine() || p.state() != QProcess::Running; },
                                kTimeoutMs) ||
            !p.canReadLine())
            return {};
        return p.readLine().trimmed();
    }
};

// ---- Zintaro ----

struct ZintaroModelLink
{
    Helper agent{QStringLiteral(ZT_MODEL_AGENT_PEER)};
    ZTClientNodeDelegate events;
    zt::Ref<ZTClientNode> node;
    QString error;

    bool start()
    {
        zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.BenchModel"));
        ZTIPCProxy::resetCachedProcessRole();
        if (!agent.process.start(kTimeoutMs)) {
            error = agent.process.errorString();
            return false;
        }
        return true;
    }
    bool connect()
    {
        node = ZTClientNode::create<BenchModelRoot>(&events);
        // The initial state of a 100,000-person channel is one message of
        // several million values.
        node->setDecodeLimits(vd::DecodeLimits{zt::plist::ReadLimits{64, qsizetype(1) << 24}});
        if (!node->connectToHost(QStringLiteral("127.0.0.1"), agent.process.port()) ||
            !ztbench::waitUntil([&] { return node->isReady(); }, kTimeoutMs)) {
            error = QStringLiteral("no handshake from the agent");
            return false;
        }
        return true;
    }
    BenchModelRoot *root() const { return node ? node->mirror<BenchModelRoot>() : nullptr; }
    void disconnect()
    {
        if (!node)
            return;
        if (BenchModelRoot *mirror = root()) {
            for (const auto &channel : mirror->channels())
                channel->invalidate(); // and its people
            mirror->invalidate();
        }
        node->close();
        node.reset();
    }
    // The agent's model emptied, on both sides when connected.
    bool reset()
    {
        agent.tell("RESET");
        if (agent.answer() != "RESET")
            return false;
        return !node || ztbench::waitUntil([&] { return root()->channels().isEmpty(); }, kTimeoutMs);
    }
    ~ZintaroModelLink() { disconnect(); }
};

// The last channel of the mirror holds `people` users.
bool lastChannelHolds(BenchModelRoot *root, qsizetype people)
{
    if (!root)
        return false;
    const auto channels = root->channels();
    return !channels.isEmpty() && channels.last()->countOfUsers() == people;
}

// "JOINED <first ns> <complete ns>" into its two times; false otherwise.
bool parseJoined(const QByteArray &line, qint64 &first, qint64 &complete)
{
    const QList<QByteArray> words = line.split(' ');
    if (words.size() != 3 || words[0] != "JOINED")
        return false;
    first = words[1].toLongLong();
    complete = words[2].toLongLong();
    return true;
}

void BM_Zintaro_Join(benchmark::State &state)
{
    const int people = int(state.range(0));
    ZintaroModelLink link;
    if (!link.start())
        return skip(state, link.error);
    for (auto _ : state) {
        link.disconnect();
        if (!link.reset())
            return skip(state, QStringLiteral("the agent did not reset"));
        const Memory memory;
        if (!link.connect())
            return skip(state, link.error);
        qint64 clientDone = -1;
        link.agent.tell("JOIN " + QByteArray::number(people));
        if (!ztbench::waitUntil(
                [&] {
                    if (clientDone < 0 && lastChannelHolds(link.root(), people))
                        clientDone = monotonicNs();
                    return clientDone >= 0;
                },
                kTimeoutMs))
            return skip(state, QStringLiteral("the mirror did not complete"));
        qint64 first = 0, agentDone = 0;
        if (!parseJoined(link.agent.answer(), first, agentDone))
            return skip(state, QStringLiteral("the agent did not report the join"));
        memory.report(state);
        state.SetIterationTime(double(clientDone - first) / 1e9);
        state.counters["agent_ms"] = double(agentDone - first) / 1e6;
        state.counters["client_ms"] = double(clientDone - first) / 1e6;
    }
}
BENCHMARK(BM_Zintaro_Join)
    ->ArgName("people")
    ->Arg(50000)
    ->Arg(100000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_Zintaro_LateJoin(benchmark::State &state)
{
    const int people = int(state.range(0));
    ZintaroModelLink link;
    if (!link.start())
        return skip(state, link.error);
    for (auto _ : state) {
        link.disconnect();
        qint64 first = 0, agentDone = 0;
        link.agent.tell("RESET");
        link.agent.tell("JOIN " + QByteArray::number(people));
        if (link.agent.answer() != "RESET" || !parseJoined(link.agent.answer(), first, agentDone))
            return skip(state, QStringLiteral("the agent did not join"));
        const Memory memory;
        const qint64 start = monotonicNs();
        if (!link.connect())
            return skip(state, link.error);
        if (!ztbench::waitUntil([&] { return lastChannelHolds(link.root(), people); }, kTimeoutMs)) {
            const auto channels = link.root()->channels();
            return skip(state, QStringLiteral("the mirror did not complete (%1 channels, %2 people)")
                                   .arg(channels.size())
                                   .arg(channels.isEmpty() ? -1 : channels.last()->countOfUsers()));
        }
        const qint64 done = monotonicNs();
        memory.report(state);
        state.SetIterationTime(double(done - start) / 1e9);
        state.counters["agent_ms"] = double(agentDone - first) / 1e6;
    }
}
BENCHMARK(BM_Zintaro_LateJoin)
    ->ArgName("people")
    ->Arg(50000)
    ->Arg(100000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_Zintaro_WholeModel(benchmark::State &state)
{
    constexpr int channels = 100, people = 100, lines = 1000;
    ZintaroModelLink link;
    if (!link.start())
        return skip(state, link.error);
    link.agent.tell(QByteArrayLiteral("BUILD %1 %2 %3")
                        .replace("%1", QByteArray::number(channels))
                        .replace("%2", QByteArray::number(people))
                        .replace("%3", QByteArray::number(lines)));
    if (link.agent.answer() != "BUILT")
        return skip(state, QStringLiteral("the agent did not build the model"));
    auto complete = [&] {
        BenchModelRoot *mirror = link.root();
        if (!mirror || mirror->channels().size() != channels)
            return false;
        for (const auto &channel : mirror->channels())
            if (channel->countOfUsers() != people || channel->content().size() != lines)
                return false;
        return true;
    };
    for (auto _ : state) {
        link.disconnect();
        const Memory memory;
        const qint64 start = monotonicNs();
        if (!link.connect())
            return skip(state, link.error);
        if (!ztbench::waitUntil(complete, kTimeoutMs))
            return skip(state, QStringLiteral("the mirror did not complete"));
        const qint64 done = monotonicNs();
        memory.report(state);
        state.SetIterationTime(double(done - start) / 1e9);
    }
}
BENCHMARK(BM_Zintaro_WholeModel)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// ---- Qt Remote Objects ----

#ifdef ZT_HAVE_QT_REMOTE_OBJECTS

constexpr int kNickname = Qt::UserRole + 1;
constexpr int kPrivileges = Qt::UserRole + 5;
const QList<int> kRoles{Qt::UserRole + 1, Qt::UserRole + 2, Qt::UserRole + 3, Qt::UserRole + 4,
                        Qt::UserRole + 5};

struct QtroModelLink
{
    Helper host{QStringLiteral(ZT_QTRO_MODEL_PEER)};
    std::unique_ptr<QRemoteObjectNode> node;
    std::unique_ptr<QAbstractItemModelReplica> replica;
    QString error;
    int cursor = 0;    // every row before it has its data
    int requested = 0; // rows before it were asked for

    bool start()
    {
        if (!host.process.start(kTimeoutMs)) {
            error = host.process.errorString();
            return false;
        }
        return true;
    }
    bool connect(int rows, QtRemoteObjects::InitialAction action)
    {
        node = std::make_unique<QRemoteObjectNode>();
        if (!node->connectToNode(QUrl(QStringLiteral("tcp://127.0.0.1:%1").arg(host.process.port())))) {
            error = QStringLiteral("the node does not connect");
            return false;
        }
        replica.reset(node->acquireModel(QStringLiteral("People"), action, kRoles));
        replica->setRootCacheSize(size_t(rows) + 1);
        cursor = requested = 0;
        // A replica of an empty model is never reported initialised: the
        // live join starts without waiting.
        if (action == QtRemoteObjects::PrefetchData &&
            !ztbench::waitUntil([&] { return replica->isInitialized(); }, kTimeoutMs)) {
            error = QStringLiteral("the replica is not initialised");
            return false;
        }
        return true;
    }
    void disconnect()
    {
        replica.reset();
        node.reset();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    // Every one of `rows` rows is in with its data; rows without data are
    // asked for as a view showing them would, each once.
    bool complete(int rows)
    {
        if (replica->rowCount() != rows)
            return false;
        while (cursor < rows) {
            const QModelIndex index = replica->index(cursor, 0);
            if (!replica->hasData(index, kNickname) || !replica->hasData(index, kPrivileges))
                break;
            ++cursor;
        }
        for (; requested < rows && requested < cursor + 1000; ++requested)
            replica->data(replica->index(requested, 0), kNickname);
        return cursor == rows;
    }
    ~QtroModelLink() { disconnect(); }
};

void BM_QtRemoteObjects_Join(benchmark::State &state)
{
    const int rows = int(state.range(0));
    QtroModelLink link;
    if (!link.start())
        return skip(state, link.error);
    for (auto _ : state) {
        link.disconnect();
        link.host.tell("CLEAR");
        if (link.host.answer() != "CLEARED")
            return skip(state, QStringLiteral("the host did not clear"));
        const Memory memory;
        if (!link.connect(rows, QtRemoteObjects::FetchRootSize))
            return skip(state, link.error);
        qint64 clientDone = -1;
        link.host.tell("LIVE " + QByteArray::number(rows));
        if (!ztbench::waitUntil(
                [&] {
                    if (clientDone < 0 && link.complete(rows))
                        clientDone = monotonicNs();
                    return clientDone >= 0;
                },
                kPeerTimeoutMs))
            return skip(state, QStringLiteral("the replica did not complete (%1 rows, %2 with data)")
                                   .arg(link.replica->rowCount())
                                   .arg(link.cursor));
        const QList<QByteArray> done = link.host.answer().split(' ');
        if (done.size() != 3 || done[0] != "DONE")
            return skip(state, QStringLiteral("the host did not report the rows"));
        const qint64 first = done[1].toLongLong();
        memory.report(state);
        state.SetIterationTime(double(clientDone - first) / 1e9);
        state.counters["agent_ms"] = double(done[2].toLongLong() - first) / 1e6;
        state.counters["client_ms"] = double(clientDone - first) / 1e6;
    }
}
// One repetition whatever the command line asks: it takes a minute or more.
BENCHMARK(BM_QtRemoteObjects_Join)
    ->ArgName("people")
    ->Arg(50000)
    ->Repetitions(1)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_QtRemoteObjects_LateJoin(benchmark::State &state)
{
    const int rows = int(state.range(0));
    QtroModelLink link;
    if (!link.start())
        return skip(state, link.error);
    link.host.tell("FILL " + QByteArray::number(rows));
    if (link.host.answer() != "FILLED")
        return skip(state, QStringLiteral("the host did not fill its model"));
    for (auto _ : state) {
        link.disconnect();
        const Memory memory;
        const qint64 start = monotonicNs();
        if (!link.connect(rows, QtRemoteObjects::PrefetchData))
            return skip(state, link.error);
        if (!ztbench::waitUntil([&] { return link.complete(rows); }, kTimeoutMs))
            return skip(state, QStringLiteral("the replica did not complete"));
        const qint64 done = monotonicNs();
        memory.report(state);
        state.SetIterationTime(double(done - start) / 1e9);
    }
}
BENCHMARK(BM_QtRemoteObjects_LateJoin)
    ->ArgName("people")
    ->Arg(50000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

#endif // ZT_HAVE_QT_REMOTE_OBJECTS

} // namespace

int main(int argc, char **argv)
{
    // The helpers this process starts inherit the environment, the peer's
    // included: every process of the benchmark runs with the same heap.
    zt::process::restartWithTunedHeap(argv);
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    ztbench::pinProcess(0, ztbench::pinnedCpu(true));
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
