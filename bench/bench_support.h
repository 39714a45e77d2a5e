// Pieces shared by the benchmarks that measure a link between two
// processes: a helper process that announces its port, a bounded wait on the
// event loop, the process's CPU time, percentiles of latency samples.
//
// Helper protocol: the helper listens on a loopback port and prints
// "READY <port>" on stdout; it may print more lines later (results). Closing
// its stdin asks it to leave. A PeerProcess kills and reaps its helper when it
// goes away, on every path out of a benchmark.
#pragma once

#include <QByteArray>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>
#include <vector>

#include <sched.h>
#include <sys/resource.h>

namespace ztbench {

// ZT_BENCH_CPUS="A,B" (two CPU numbers): the benchmark process runs on CPU A
// and every helper on CPU B, for both links alike. Which of the two processes
// of a link share a core otherwise changes from run to run, and with it the
// rate (two processes that overlap go about twice as fast as two that take
// turns). Unset: the scheduler decides. Answers the CPU for the helper (or
// for the benchmark process with `self`), -1 when unset or malformed.
inline int pinnedCpu(bool self)
{
    const QList<QByteArray> cpus = qgetenv("ZT_BENCH_CPUS").split(',');
    bool ok = false;
    const int cpu = cpus.size() == 2 ? cpus[self ? 0 : 1].trimmed().toInt(&ok) : -1;
    return ok && cpu >= 0 && cpu < CPU_SETSIZE ? cpu : -1;
}

inline void pinProcess(pid_t pid, int cpu)
{
    if (cpu < 0)
        return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    sched_setaffinity(pid, sizeof set, &set);
}

class PeerProcess
{
public:
    explicit PeerProcess(QString program, QStringList arguments = {})
        : m_program(std::move(program)), m_arguments(std::move(arguments))
    {
        // The helper's complaints go straight to the benchmark's stderr.
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    }
    ~PeerProcess() { stop(); }
    PeerProcess(const PeerProcess &) = delete;
    PeerProcess &operator=(const PeerProcess &) = delete;

    // Starts the helper and waits for its "READY <port>" line. False, with
    // errorString() set, when it cannot start, ends, says something else or
    // stays silent for timeoutMs.
    bool start(int timeoutMs = 30000)
    {
        pinProcess(0, pinnedCpu(true));
        m_process.start(m_program, m_arguments);
        if (!m_process.waitForStarted(timeoutMs)) {
            m_error = QStringLiteral("cannot start %1: %2").arg(m_program, m_process.errorString());
            return false;
        }
        pinProcess(pid_t(m_process.processId()), pinnedCpu(false));
        const std::optional<QByteArray> line = readLine(timeoutMs);
        if (!line) {
            m_error = QStringLiteral("%1 did not announce a port").arg(m_program);
            return false;
        }
        bool ok = false;
        const QList<QByteArray> words = line->split(' ');
        if (words.size() == 2 && words[0] == "READY")
            m_port = words[1].toUShort(&ok);
        if (!ok || m_port == 0) {
            m_error = QStringLiteral("%1 said \"%2\" instead of READY <port>")
                          .arg(m_program, QString::fromUtf8(*line));
            return false;
        }
        return true;
    }

    quint16 port() const { return m_port; }
    const QString &errorString() const { return m_error; }
    QProcess &process() { return m_process; }

    // The next line the helper prints, without its line end; nothing when no
    // whole line arrives within timeoutMs or the helper has ended.
    std::optional<QByteArray> readLine(int timeoutMs)
    {
        const QDeadlineTimer deadline(timeoutMs);
        while (!m_process.canReadLine()) {
            if (m_process.state() != QProcess::Running || deadline.hasExpired() ||
                !m_process.waitForReadyRead(int(deadline.remainingTime())))
                return std::nullopt;
        }
        return m_process.readLine().trimmed();
    }

    // Closes the helper's stdin, gives it graceMs to leave, then kills it;
    // the process is reaped in every case. Answers whether it left by itself
    // with exit status 0.
    bool stop(int graceMs = 5000)
    {
        if (m_process.state() == QProcess::NotRunning)
            return m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
        m_process.closeWriteChannel();
        if (m_process.waitForFinished(graceMs))
            return m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
        m_process.kill();
        m_process.waitForFinished(-1);
        return false;
    }

private:
    QString m_program;
    QStringList m_arguments;
    QProcess m_process;
    QString m_error;
    quint16 m_port = 0;
};

// Runs the calling thread's event loop until done() answers true or
// timeoutMs pass; answers done(). The loop sleeps while nothing happens: a
// single-shot timer wakes it for the deadline. done() runs after each batch
// of events, so a caller that needs the exact moment of completion should
// take it inside the event handler that completes the work.
template<typename Done> bool waitUntil(Done done, int timeoutMs)
{
    QTimer deadline;
    deadline.setSingleShot(true);
    deadline.start(timeoutMs);
    while (!done()) {
        if (!deadline.isActive())
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

// CPU time, user and system, that this process has used so far, all threads.
inline double processCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// The p-th percentile (0 < p <= 100) of the samples by the nearest-rank
// rule: the smallest sample that at least p per cent of all samples do not
// exceed. Always one of the samples (so the median of an even count is the
// lower middle one); 0 for no samples.
inline double percentile(std::vector<double> samples, double p)
{
    if (samples.empty())
        return 0;
    const auto n = samples.size();
    const auto rank = std::clamp<std::size_t>(std::size_t(std::ceil(p / 100.0 * double(n))), 1, n);
    std::nth_element(samples.begin(), samples.begin() + std::ptrdiff_t(rank - 1), samples.end());
    return samples[rank - 1];
}

} // namespace ztbench
