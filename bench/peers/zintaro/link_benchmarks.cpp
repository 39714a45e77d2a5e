// The agent-to-client link of Zintaro Core between two processes, measured in
// bench_transport_peers beside Qt Remote Objects and raw frames: property
// changes applied per second on the client, and the round trip of a call that
// returns a value. The benchmark process is the client; it starts the agent
// (agent_main.cpp) and reaches its counter through forwarded calls.

#include "bench_model.h"
#include "bench_support.h"
#include "core/vdkvo.h"
#include "runtime/process.h"

#include <QElapsedTimer>
#include <benchmark/benchmark.h>

namespace {

constexpr int kPropertyChanges = 200000;
// Changes made before the measured ones, untimed.
constexpr int kWarmUpChanges = 20000;
constexpr int kRoundTrips = 10000;
constexpr int kWarmUpRoundTrips = 200;
constexpr int kTimeoutMs = 120000;

class BenchClientRoot : public ZTClientNodeDelegate
{
public:
    zt::Ref<BenchCounter> counter;
    // Counting applied changes: the moment the expected value lands.
    qint64 target = -1;
    qint64 seen = 0;
    qint64 doneAt = -1;
    QElapsedTimer clock;

    void nodeDidBecomeReady(ZTClientNode *, ZTAbstractIPC *mirror) override
    {
        counter = zt::Ref<BenchCounter>(dynamic_cast<BenchCounter *>(mirror));
        // A client mirror observes what it shows; the handler counts.
        counter->addObservationToken(
            zt::observeKeyPathOptionsHandler(counter.get(), QStringLiteral("value"), zt::ObservingOption::New,
                                             [this](zt::Object *, const zt::KVOChange &change) {
                                                 ++seen;
                                                 if (change.newValue.toLongLong() == target)
                                                     doneAt = clock.nsecsElapsed();
                                             }));
    }
};

struct ZintaroLink
{
    ztbench::PeerProcess agent{QStringLiteral(ZT_ZINTARO_PEER)};
    std::unique_ptr<BenchClientRoot> root = std::make_unique<BenchClientRoot>();
    zt::Ref<ZTClientNode> node = ZTClientNode::create<ClientCounter>(root.get());
    QString error;

    bool open()
    {
        zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.Bench"));
        ZTIPCProxy::resetCachedProcessRole();
        if (!agent.start(kTimeoutMs)) {
            error = agent.errorString();
            return false;
        }
        root->clock.start();
        if (!node->connectToHost(QStringLiteral("127.0.0.1"), agent.port()) ||
            !ztbench::waitUntil([&] { return bool(root->counter); }, kTimeoutMs)) {
            error = QStringLiteral("no handshake from the agent");
            return false;
        }
        return true;
    }
    ~ZintaroLink()
    {
        if (root->counter)
            root->counter->invalidate();
        node->close();
        agent.stop();
    }
};

void skip(benchmark::State &state, const QString &why)
{
    state.SkipWithError(why.toUtf8().constData());
}

// The agent's CPU time so far, asked through a forwarded call; negative when
// no answer comes.
double agentCpuSeconds(BenchClientRoot &root)
{
    double seconds = -1;
    const QVariant handler = root.counter->counterpart()->perform("cpuSeconds");
    auto returned = zt::dynamicCast<VDReturnHandler>(zt::Ref<zt::Object>(zt::objectFrom(handler)));
    if (!returned)
        return -1;
    returned->returnedValue([&](const QVariant &value) { seconds = value.toDouble(); });
    if (!ztbench::waitUntil([&] { return seconds >= 0; }, kTimeoutMs))
        return -1;
    return seconds;
}

void BM_Zintaro_PropertyChanges(benchmark::State &state)
{
    const qint64 batch = state.range(0);
    ZintaroLink link;
    if (!link.open())
        return skip(state, link.error);
    BenchClientRoot &root = *link.root;
    // One untimed round first, in slices of the same size: both processes
    // pay their first-use costs (heap growth, look-up tables) outside the
    // measurement.
    root.doneAt = -1;
    root.target = root.counter->value() + kWarmUpChanges;
    root.counter->counterpart()->perform("produceChanges:batch:",
                                         {qint64(kWarmUpChanges), qMin<qint64>(batch, kWarmUpChanges)});
    if (!ztbench::waitUntil([&] { return root.doneAt >= 0; }, kTimeoutMs))
        return skip(state, QStringLiteral("the warm-up changes did not arrive"));

    double seconds = 0, clientCpu = 0, agentCpu = 0;
    qint64 changes = 0;
    for (auto _ : state) {
        const double agentCpuBefore = agentCpuSeconds(root);
        root.seen = 0;
        root.doneAt = -1;
        root.target = root.counter->value() + kPropertyChanges;
        const double cpuBefore = ztbench::processCpuSeconds();
        const qint64 start = root.clock.nsecsElapsed();
        root.counter->counterpart()->perform("produceChanges:batch:", {qint64(kPropertyChanges), batch});
        if (!ztbench::waitUntil([&] { return root.doneAt >= 0; }, kTimeoutMs))
            return skip(state, QStringLiteral("the last change did not arrive (%1 seen)").arg(root.seen));
        if (root.seen != kPropertyChanges)
            return skip(
                state, QStringLiteral("%1 changes applied for %2 sent").arg(root.seen).arg(kPropertyChanges));
        clientCpu += ztbench::processCpuSeconds() - cpuBefore;
        const double agentCpuAfter = agentCpuSeconds(root);
        if (agentCpuBefore < 0 || agentCpuAfter < 0)
            return skip(state, QStringLiteral("the agent does not tell its CPU time"));
        agentCpu += agentCpuAfter - agentCpuBefore;
        const double s = double(root.doneAt - start) / 1e9;
        state.SetIterationTime(s);
        seconds += s;
        changes += kPropertyChanges;
    }
    state.SetItemsProcessed(changes);
    state.counters["changes_per_second"] = double(changes) / seconds;
    state.counters["client_cpu_ms"] = clientCpu * 1e3;
    state.counters["agent_cpu_ms"] = agentCpu * 1e3;
}
BENCHMARK(BM_Zintaro_PropertyChanges)
    ->ArgName("batch")
    ->Arg(1000)
    ->Arg(kPropertyChanges)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_Zintaro_RoundTrip(benchmark::State &state)
{
    ZintaroLink link;
    if (!link.open())
        return skip(state, link.error);
    BenchClientRoot &root = *link.root;
    std::vector<double> latenciesUs;
    latenciesUs.reserve(kRoundTrips);
    for (auto _ : state) {
        latenciesUs.clear();
        double measured = 0;
        for (int i = 0; i < kWarmUpRoundTrips + kRoundTrips; ++i) {
            qint64 answered = -1;
            QVariant answer;
            const qint64 sent = root.clock.nsecsElapsed();
            const QVariant handler = root.counter->counterpart()->perform("echo:", {qint64(i)});
            auto returned = zt::dynamicCast<VDReturnHandler>(zt::Ref<zt::Object>(zt::objectFrom(handler)));
            if (!returned)
                return skip(state, QStringLiteral("echo: yielded no handler"));
            returned->returnedValue([&](const QVariant &value) {
                answered = root.clock.nsecsElapsed();
                answer = value;
            });
            if (!ztbench::waitUntil([&] { return answered >= 0; }, kTimeoutMs))
                return skip(state, QStringLiteral("call %1 was not answered").arg(i));
            if (answer.toLongLong() != i)
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
BENCHMARK(BM_Zintaro_RoundTrip)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace
