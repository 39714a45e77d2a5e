// An agent-side property change, from the setter's did-change announcement
// to the invocation handed to the remote root: the path every model change
// takes before the transport.

#include "core/ztabstractipc.h"
#include "core/ztapplication.h"
#include "runtime/invocation.h"
#include "runtime/kvc.h"
#include "runtime/process.h"

#include <benchmark/benchmark.h>

namespace {

class BenchNode : public ZTAbstractIPC
{
    ZT_OBJECT(BenchNode, ZTAbstractIPC)
public:
    qint64 count() const { return m_count; }
    void setCount(qint64 v) { setAndNotify(m_count, v, QStringLiteral("count")); }
    QString topic() const { return m_topic; }
    void setTopic(const QString &v) { setAndNotify(m_topic, v, QStringLiteral("topic")); }

private:
    qint64 m_count = 0;
    QString m_topic;
};

// Accepts the change messages and counts them, as a transport would take them.
class CountingRoot : public zt::Object
{
    ZT_OBJECT(CountingRoot, zt::Object)
public:
    zt::MethodSignature methodSignatureForSelector(const zt::Selector &sel) const override
    {
        return ZTIPCProxy::agentChangeProtocol().methodSignature(sel);
    }
    void forwardInvocation(zt::Invocation &inv) override
    {
        ++received;
        benchmark::DoNotOptimize(inv.argumentAtIndex(2));
    }
    qint64 received = 0;
};

class Delegate : public ZTApplicationDelegate
{
public:
    zt::Object *counterpart() const override { return root.get(); }
    zt::Ref<CountingRoot> root = zt::make<CountingRoot>();
};

// A node a client mirrors: an agent object sends changes only once its
// dictionary form has been made (it is published).
zt::Ref<BenchNode> publishedNode()
{
    auto node = zt::make<BenchNode>();
    node->init();
    node->dictionary();
    return node;
}

void agentRole()
{
    zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.Zintaro2Agent"));
    ZTIPCProxy::resetCachedProcessRole();
}

} // namespace

ZT_DEFINE_CLASS_WITH_MEMBERS(BenchNode)
void BenchNode::registerMembers(zt::ClassBuilder<BenchNode> &b)
{
    b.property("count", &BenchNode::count, &BenchNode::setCount);
    b.property("topic", &BenchNode::topic, &BenchNode::setTopic);
}
ZT_DEFINE_CLASS(CountingRoot)

static void BM_AgentIntegerChangeToRemoteRoot(benchmark::State &state)
{
    agentRole();
    Delegate delegate;
    ZTApplication::setDelegate(&delegate);
    auto node = publishedNode();
    // Model objects observe their own propagated keys (with an empty
    // callback); measure with that registration in place.
    node->addObservationToken(zt::observeKeyPathOptionsHandler(node.get(), QStringLiteral("count"), {},
                                                               [](zt::Object *, const auto &) {}));
    qint64 i = 0;
    for (auto _ : state)
        node->setCount(++i);
    if (delegate.root->received != i)
        state.SkipWithError("not every change reached the remote root");
    state.SetItemsProcessed(state.iterations());
    node->invalidate();
    ZTApplication::setDelegate(nullptr);
}
BENCHMARK(BM_AgentIntegerChangeToRemoteRoot);

static void BM_AgentStringChangeToRemoteRoot(benchmark::State &state)
{
    agentRole();
    Delegate delegate;
    ZTApplication::setDelegate(&delegate);
    auto node = publishedNode();
    const QString a = QStringLiteral("Split-process IRC, correct to the last byte");
    const QString b = QStringLiteral("Topic set by the agent");
    bool flip = false;
    for (auto _ : state)
        node->setTopic((flip = !flip) ? a : b);
    state.SetItemsProcessed(state.iterations());
    node->invalidate();
    ZTApplication::setDelegate(nullptr);
}
BENCHMARK(BM_AgentStringChangeToRemoteRoot);

static void BM_AgentRemovalToRemoteRoot(benchmark::State &state)
{
    agentRole();
    Delegate delegate;
    ZTApplication::setDelegate(&delegate);
    auto node = publishedNode();
    for (auto _ : state) {
        node->didChangeValuesAtIndexesForKey(zt::KeyValueChange::Removal, zt::IndexSet{0},
                                             QStringLiteral("x"));
    }
    state.SetItemsProcessed(state.iterations());
    node->invalidate();
    ZTApplication::setDelegate(nullptr);
}
BENCHMARK(BM_AgentRemovalToRemoteRoot);

BENCHMARK_MAIN();
