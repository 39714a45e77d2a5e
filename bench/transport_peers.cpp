// The yardsticks for the agent-to-client link, run in the same program and
// the same run as its own benchmarks:
//
// - Qt Remote Objects: a host node in a helper process (peer_qtro_host)
//   remotes an object with an integer property and an echo slot; this
//   process holds a dynamic replica. Property changes: the host sets the
//   property 200,000 times, each value one more than the last, and the
//   replica counts the change notifications until the last value is in.
//   Round trips: 10,000 sequential calls of echo(int), each waited for on
//   the event loop before the next is made.
// - Raw loopback frames: a writer process (peer_frame_writer) sends frames of
//   an 8-byte big-endian length and a body back to back; this process reads
//   with plain system calls into a large buffer, checks each length and skips
//   the body. Nothing can carry length-prefixed messages faster over this
//   link, so it is the ceiling the change stream is compared with.
//
// Every benchmark runs once per process start (Iterations(1)): use
// --benchmark_repetitions=3 for several runs. Times are manual times of the
// measured part only; helper start-up and connection set-up are not counted.

#include "bench_support.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QScopeGuard>

#ifdef ZT_HAVE_QT_REMOTE_OBJECTS
#include <QRemoteObjectDynamicReplica>
#include <QRemoteObjectNode>
#include <QRemoteObjectPendingCall>
#include <QUrl>
#endif

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kStartTimeoutMs = 30000;
constexpr int kRunTimeoutMs = 120000;

void skip(benchmark::State &state, const QString &why)
{
    state.SkipWithError(why.toStdString().c_str());
}

#ifdef ZT_HAVE_QT_REMOTE_OBJECTS

constexpr int kPropertyChanges = 200000;
// Changes made before the measured ones, untimed.
constexpr int kWarmUpChanges = 20000;
constexpr int kRoundTrips = 10000;
// Calls made and thrown away before the timed round trips: the first calls
// pay for lazy set-up on both sides.
constexpr int kWarmUpRoundTrips = 200;

// Counts the replica's change notifications and takes the time at which the
// awaited last value arrives, inside the notification itself.
class ChangeCounter : public QObject
{
    Q_OBJECT
public:
    void expect(int lastValue)
    {
        m_last = lastValue;
        m_seen = 0;
        m_doneNs = -1;
        m_clock.start();
    }
    bool done() const { return m_doneNs >= 0; }
    qint64 seen() const { return m_seen; }
    double seconds() const { return double(m_doneNs) / 1e9; }

public Q_SLOTS:
    void valueChanged(int value)
    {
        ++m_seen;
        if (value == m_last)
            m_doneNs = m_clock.nsecsElapsed();
    }

private:
    QElapsedTimer m_clock;
    int m_last = 0;
    qint64 m_seen = 0;
    qint64 m_doneNs = -1;
};

// The host process, a node connected to it and the dynamic replica of its
// "Counter". The replica goes before the node, and both before the process.
struct QtroLink
{
    ztbench::PeerProcess host{QStringLiteral(ZT_QTRO_PEER)};
    std::unique_ptr<QRemoteObjectNode> node = std::make_unique<QRemoteObjectNode>();
    std::unique_ptr<QRemoteObjectDynamicReplica> replica;
    QString error;

    bool hostRunning() { return host.process().state() == QProcess::Running; }

    ~QtroLink()
    {
        replica.reset();
        node.reset();
        // Deletions the node deferred run now, not in a later benchmark's
        // event loop.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    bool open()
    {
        if (!host.start(kStartTimeoutMs)) {
            error = host.errorString();
            return false;
        }
        if (!node->connectToNode(QUrl(QStringLiteral("tcp://127.0.0.1:%1").arg(host.port())))) {
            error = QStringLiteral("the node does not connect to port %1").arg(host.port());
            return false;
        }
        replica.reset(node->acquireDynamic(QStringLiteral("Counter")));
        if (!replica || !replica->waitForSource(kStartTimeoutMs)) {
            error = QStringLiteral("the replica of Counter is not initialised");
            return false;
        }
        return true;
    }
};

// The host's CPU time so far, by a remote call; a negative answer when the
// call fails.
double hostCpuSeconds(QRemoteObjectDynamicReplica *replica)
{
    QRemoteObjectPendingCall call;
    if (!QMetaObject::invokeMethod(replica, "cpuSeconds", Qt::DirectConnection,
                                   Q_RETURN_ARG(QRemoteObjectPendingCall, call)) ||
        !call.waitForFinished(kRunTimeoutMs) || call.error() != QRemoteObjectPendingCall::NoError)
        return -1;
    return call.returnValue().toDouble();
}

void BM_QtRemoteObjects_PropertyChanges(benchmark::State &state)
{
    const int batch = int(state.range(0));
    QtroLink link;
    if (!link.open())
        return skip(state, link.error);
    ChangeCounter counter;
    if (!QObject::connect(link.replica.get(), SIGNAL(valueChanged(int)), &counter, SLOT(valueChanged(int))))
        return skip(state, QStringLiteral("the replica has no valueChanged(int)"));

    // One untimed round first, in slices of the same size: both processes
    // pay their first-use costs (heap growth, look-up tables) outside the
    // measurement.
    counter.expect(link.replica->property("value").toInt() + kWarmUpChanges);
    QMetaObject::invokeMethod(link.replica.get(), "produceChanges", Q_ARG(int, kWarmUpChanges),
                              Q_ARG(int, qMin(batch, kWarmUpChanges)));
    if (!ztbench::waitUntil([&] { return counter.done() || !link.hostRunning(); }, kRunTimeoutMs) ||
        !counter.done())
        return skip(state, QStringLiteral("the warm-up changes did not arrive"));

    double seconds = 0, hostCpu = 0, replicaCpu = 0;
    qint64 changes = 0;
    for (auto _ : state) {
        const int first = link.replica->property("value").toInt();
        const double hostCpuBefore = hostCpuSeconds(link.replica.get());
        const double replicaCpuBefore = ztbench::processCpuSeconds();
        counter.expect(first + kPropertyChanges);
        QMetaObject::invokeMethod(link.replica.get(), "produceChanges", Q_ARG(int, kPropertyChanges),
                                  Q_ARG(int, batch));
        if (!ztbench::waitUntil([&] { return counter.done() || !link.hostRunning(); }, kRunTimeoutMs) ||
            !counter.done())
            return skip(state,
                        QStringLiteral("the last change did not arrive (%1 seen)").arg(counter.seen()));
        if (counter.seen() != kPropertyChanges)
            return skip(
                state,
                QStringLiteral("%1 notifications for %2 changes").arg(counter.seen()).arg(kPropertyChanges));
        replicaCpu += ztbench::processCpuSeconds() - replicaCpuBefore;
        const double hostCpuAfter = hostCpuSeconds(link.replica.get());
        if (hostCpuBefore < 0 || hostCpuAfter < 0)
            return skip(state, QStringLiteral("the host does not tell its CPU time"));
        hostCpu += hostCpuAfter - hostCpuBefore;
        state.SetIterationTime(counter.seconds());
        seconds += counter.seconds();
        changes += kPropertyChanges;
    }
    state.SetItemsProcessed(changes);
    state.counters["changes_per_second"] = double(changes) / seconds;
    // Where the time goes: CPU time of each side over the bursts, against
    // their wall time (the "Time" column).
    state.counters["host_cpu_ms"] = hostCpu * 1e3;
    state.counters["replica_cpu_ms"] = replicaCpu * 1e3;
}
BENCHMARK(BM_QtRemoteObjects_PropertyChanges)
    ->ArgName("batch")
    ->Arg(1000)
    ->Arg(kPropertyChanges)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_QtRemoteObjects_RoundTrip(benchmark::State &state)
{
    QtroLink link;
    if (!link.open())
        return skip(state, link.error);

    std::vector<double> latenciesUs;
    latenciesUs.reserve(kRoundTrips);
    QElapsedTimer clock;
    clock.start();
    for (auto _ : state) {
        latenciesUs.clear();
        double measured = 0;
        for (int i = 0; i < kWarmUpRoundTrips + kRoundTrips; ++i) {
            QRemoteObjectPendingCall call;
            const qint64 sent = clock.nsecsElapsed();
            if (!QMetaObject::invokeMethod(link.replica.get(), "echo", Qt::DirectConnection,
                                           Q_RETURN_ARG(QRemoteObjectPendingCall, call), Q_ARG(int, i)))
                return skip(state, QStringLiteral("echo(int) cannot be invoked on the replica"));
            QRemoteObjectPendingCallWatcher watcher(call);
            qint64 answered = -1;
            QObject::connect(&watcher, &QRemoteObjectPendingCallWatcher::finished,
                             [&] { answered = clock.nsecsElapsed(); });
            if (!ztbench::waitUntil([&] { return answered >= 0 || !link.hostRunning(); }, kRunTimeoutMs) ||
                answered < 0)
                return skip(state, QStringLiteral("call %1 was not answered").arg(i));
            if (call.error() != QRemoteObjectPendingCall::NoError || call.returnValue().toInt() != i)
                return skip(state, QStringLiteral("call %1 was answered wrongly").arg(i));
            if (i >= kWarmUpRoundTrips) {
                latenciesUs.push_back(double(answered - sent) / 1e3);
                measured += double(answered - sent) / 1e9;
            }
        }
        state.SetIterationTime(measured);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kRoundTrips);
    state.counters["rtt_median_us"] = ztbench::percentile(latenciesUs, 50);
    state.counters["rtt_p99_us"] = ztbench::percentile(latenciesUs, 99);
}
BENCHMARK(BM_QtRemoteObjects_RoundTrip)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

#endif // ZT_HAVE_QT_REMOTE_OBJECTS

// Reads length-prefixed frames from a byte stream without copying them: the
// 8-byte big-endian length (which may be split across reads), then the body
// is skipped. Every length must equal the one expected.
class FrameCounter
{
public:
    explicit FrameCounter(std::uint64_t bodyBytes) : m_body(bodyBytes) {}

    std::uint64_t frames() const { return m_frames; }
    bool malformed() const { return m_malformed; }

    void feed(const unsigned char *p, std::size_t n)
    {
        while (n > 0) {
            if (m_skip > 0) {
                const std::size_t s = std::size_t(std::min<std::uint64_t>(m_skip, n));
                p += s;
                n -= s;
                m_skip -= s;
                if (m_skip == 0)
                    ++m_frames;
                continue;
            }
            std::uint64_t length;
            if (m_headerFill == 0 && n >= 8) {
                length = load(p);
                p += 8;
                n -= 8;
            } else {
                while (m_headerFill < 8 && n > 0) {
                    m_header[m_headerFill++] = *p++;
                    --n;
                }
                if (m_headerFill < 8)
                    return;
                m_headerFill = 0;
                length = load(m_header);
            }
            if (length != m_body)
                m_malformed = true;
            if (length == 0)
                ++m_frames;
            m_skip = length;
        }
    }

private:
    static std::uint64_t load(const unsigned char *p)
    {
        std::uint64_t v = 0;
        for (int i = 0; i < 8; ++i)
            v = v << 8 | p[i];
        return v;
    }

    std::uint64_t m_body;
    std::uint64_t m_frames = 0;
    std::uint64_t m_skip = 0;
    unsigned char m_header[8];
    int m_headerFill = 0;
    bool m_malformed = false;
};

int connectToLoopback(quint16 port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

void BM_RawLoopback_Frames(benchmark::State &state)
{
    const auto frameBytes = std::uint64_t(state.range(0));
    const auto frames = std::uint64_t(state.range(1));
    ztbench::PeerProcess writer(QStringLiteral(ZT_FRAME_PEER),
                                {QString::number(frames), QString::number(frameBytes)});
    if (!writer.start(kStartTimeoutMs))
        return skip(state, writer.errorString());
    const int fd = connectToLoopback(writer.port());
    if (fd < 0)
        return skip(state, QStringLiteral("cannot connect to the frame writer"));
    const auto closeSocket = qScopeGuard([fd] { close(fd); });

    std::vector<unsigned char> buffer(1 << 20);
    double seconds = 0;
    std::uint64_t total = 0;
    for (auto _ : state) {
        FrameCounter counter(frameBytes - 8);
        QElapsedTimer clock;
        const char start = 1;
        clock.start();
        if (send(fd, &start, 1, MSG_NOSIGNAL) != 1)
            return skip(state, QStringLiteral("cannot signal the frame writer"));
        while (counter.frames() < frames) {
            const ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return skip(state, QStringLiteral("the stream ended after %1 frames").arg(counter.frames()));
            counter.feed(buffer.data(), std::size_t(n));
        }
        const double elapsed = double(clock.nsecsElapsed()) / 1e9;
        if (counter.malformed() || counter.frames() != frames)
            return skip(state, QStringLiteral("the frames arrived damaged"));
        state.SetIterationTime(elapsed);
        seconds += elapsed;
        total += frames;
    }
    state.SetItemsProcessed(int64_t(total));
    state.SetBytesProcessed(int64_t(total * frameBytes));
    state.counters["frames_per_second"] = double(total) / seconds;
}
// Frame sizes count the whole frame, length field included: 200 bytes, and
// about the sizes of a small and of a larger change message.
BENCHMARK(BM_RawLoopback_Frames)
    ->ArgNames({"frame_bytes", "frames"})
    ->Args({150, 4000000})
    ->Args({200, 4000000})
    ->Args({400, 4000000})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

#ifdef ZT_HAVE_QT_REMOTE_OBJECTS
#include "transport_peers.moc"
#endif
