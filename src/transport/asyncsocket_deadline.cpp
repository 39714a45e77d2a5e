// The timeout of the current read or write.

#include "transport/asyncsocket_deadline_p.h"

#include <chrono>
#include <limits>

namespace {

qint64 secondsToNs(double seconds)
{
    constexpr double limit = double(std::numeric_limits<qint64>::max() / 4);
    return qint64(qMin(seconds * 1e9, limit));
}

} // namespace

qint64 AsyncSocketDeadline::now()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void AsyncSocketDeadline::start(double timeoutSeconds)
{
    m_started = true;
    if (timeoutSeconds < 0) {
        m_deadline = -1;
        return;
    }
    m_start = now();
    m_deadline = m_start + secondsToNs(timeoutSeconds);
}

void AsyncSocketDeadline::arm(QObject *receiver)
{
    if (!m_started || m_deadline < 0)
        return;
    if (m_timer.isActive() && m_armedFor >= 0 && m_armedFor <= m_deadline)
        return;
    const qint64 remainingMs = qMax<qint64>(0, (m_deadline - now() + 999'999) / 1'000'000);
    m_timer.start(int(qMin<qint64>(remainingMs, std::numeric_limits<int>::max())), Qt::PreciseTimer,
                  receiver);
    m_armedFor = m_deadline;
}

void AsyncSocketDeadline::extend(double seconds, QObject *receiver)
{
    m_deadline = now() + secondsToNs(seconds);
    arm(receiver);
}
