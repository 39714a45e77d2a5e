// Qt Remote Objects host node for the transport benchmark. It remotes one
// plain QObject, "Counter", over tcp://127.0.0.1:<port>: an integer property
// "value" whose every change is a separate notification, a slot that starts
// a burst of changes, a slot that answers its argument for round trips, and
// one that answers the CPU time the host has used.
//
// Usage: peer_qtro_host. Prints "READY <port>" once the node listens; exits
// when stdin closes.

#include "peer_process.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QRemoteObjectHost>
#include <QSocketNotifier>
#include <QTcpServer>
#include <QUrl>

namespace {

class Counter : public QObject
{
    Q_OBJECT
    Q_PROPERTY(int value READ value WRITE setValue NOTIFY valueChanged)
public:
    int value() const { return m_value; }
    void setValue(int value)
    {
        if (value == m_value)
            return;
        m_value = value;
        Q_EMIT valueChanged(value);
    }

public Q_SLOTS:
    int echo(int x) { return x; }
    double cpuSeconds() const { return ztpeer::processCpuSeconds(); }

    // Sets "value" `count` times, each time one more than before, `batch`
    // changes per turn of the event loop so that the node's socket drains
    // while the burst goes on, the way a busy model produces changes.
    void produceChanges(int count, int batch)
    {
        m_remaining = count;
        m_batch = qMax(1, batch);
        produceBatch();
    }

Q_SIGNALS:
    void valueChanged(int value);

private:
    void produceBatch()
    {
        for (int k = 0; k < m_batch && m_remaining > 0; ++k, --m_remaining)
            setValue(m_value + 1);
        if (m_remaining > 0)
            QMetaObject::invokeMethod(this, &Counter::produceBatch, Qt::QueuedConnection);
    }

    int m_value = 0;
    int m_remaining = 0;
    int m_batch = 1;
};

// QRemoteObjectHost reports the URL it was given, not the port the kernel
// chose for port 0, so the port is found with a probe listener first. Closing
// a listener that never accepted leaves nothing behind, and a port taken in
// between makes setHostUrl fail: then try another.
quint16 listenOnFreePort(QRemoteObjectHost &host)
{
    for (int attempt = 0; attempt < 20; ++attempt) {
        QTcpServer probe;
        if (!probe.listen(QHostAddress::LocalHost, 0))
            continue;
        const quint16 port = probe.serverPort();
        probe.close();
        if (host.setHostUrl(QUrl(QStringLiteral("tcp://127.0.0.1:%1").arg(port))))
            return port;
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    ztpeer::bindToParentLifetime();
    QCoreApplication app(argc, argv);

    QRemoteObjectHost host;
    const quint16 port = listenOnFreePort(host);
    if (port == 0) {
        std::fprintf(stderr, "peer_qtro_host: no loopback port to listen on\n");
        return 1;
    }
    Counter counter;
    if (!host.enableRemoting(&counter, QStringLiteral("Counter"))) {
        std::fprintf(stderr, "peer_qtro_host: enableRemoting failed\n");
        return 1;
    }

    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &app, [&] {
        char buffer[256];
        if (read(STDIN_FILENO, buffer, sizeof buffer) <= 0)
            QCoreApplication::quit();
    });

    ztpeer::announceReady(port);
    return app.exec();
}

#include "qtro_host.moc"
