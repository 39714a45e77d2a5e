#include "bench_model.h"

#include <QTimer>
#include <sys/resource.h>

ZT_DEFINE_CLASS_WITH_MEMBERS(BenchCounter)
void BenchCounter::registerMembers(zt::ClassBuilder<BenchCounter> &b)
{
    b.property("value", &BenchCounter::value, &BenchCounter::setValue);
    b.action("produceChanges:batch:", &BenchCounter::produceChangesBatch);
    b.action("echo:", &BenchCounter::echo);
    b.action("cpuSeconds", &BenchCounter::cpuSeconds);
}
ZT_DEFINE_CLASS(AgentCounter)
ZT_DEFINE_CLASS(ClientCounter)

void BenchCounter::produceChangesBatch(qint64 count, qint64 batch)
{
    if (count <= 0)
        return;
    const qint64 n = std::min(count, std::max<qint64>(1, batch));
    for (qint64 i = 0; i < n; ++i)
        setValue(m_value + 1);
    if (count > n) {
        zt::Ref<BenchCounter> self(this);
        QTimer::singleShot(0, [self, count, n, batch] { self->produceChangesBatch(count - n, batch); });
    }
}

QVariant BenchCounter::cpuSeconds() const
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

QVariantMap BenchCounter::dictionary() const
{
    QVariantMap d = super::dictionary();
    d.insert(QStringLiteral("value"), m_value);
    return d;
}
