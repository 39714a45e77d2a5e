#pragma once
// Captures the log lines written while it lives (all categories), so a test
// can assert on the exact texts the library logs.

#include <QLoggingCategory>
#include <QMutex>
#include <QStringList>

namespace zttest {

class LogCapture
{
public:
    LogCapture() : m_previous(qInstallMessageHandler(&LogCapture::handler))
    {
        QMutexLocker l(&lock());
        current() = this;
    }
    ~LogCapture()
    {
        QMutexLocker l(&lock());
        current() = nullptr;
        qInstallMessageHandler(m_previous);
    }
    QStringList lines() const
    {
        QMutexLocker l(&lock());
        return m_lines;
    }
    bool contains(const QString &line) const { return lines().contains(line); }
    void clear()
    {
        QMutexLocker l(&lock());
        m_lines.clear();
    }

private:
    static QMutex &lock()
    {
        static QMutex m;
        return m;
    }
    static LogCapture *&current()
    {
        static LogCapture *c = nullptr;
        return c;
    }
    static void handler(QtMsgType, const QMessageLogContext &, const QString &message)
    {
        QMutexLocker l(&lock());
        if (current())
            current()->m_lines.append(message);
    }
    QtMessageHandler m_previous;
    QStringList m_lines;
};

} // namespace zttest
