// The agent side of the Zintaro link benchmark: listens on loopback, prints
// "READY <port>", hands a registering client its counter, and serves the
// client's forwarded calls. Leaves when its stdin closes or its client goes.

#include "bench_model.h"
#include "runtime/process.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTextStream>
#include <unistd.h>

namespace {

class Agent : public ZTAgentHostDelegate
{
public:
    void hostDidLoseClient(ZTAgentHost *host, VDConnection *) override
    {
        if (host->clients().isEmpty())
            QCoreApplication::quit();
    }
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.BenchAgent"));
    auto counter = zt::make<AgentCounter>();
    counter->init();
    Agent agent;
    zt::Ref<ZTAgentHost> host = ZTAgentHost::create(counter.get(), &agent);
    if (!host->listen(QStringLiteral("127.0.0.1"), 0))
        return 1;
    QSocketNotifier stdinWatch(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&stdinWatch, &QSocketNotifier::activated, [&] {
        char buffer[64];
        if (::read(STDIN_FILENO, buffer, sizeof buffer) <= 0)
            QCoreApplication::quit();
    });
    QTextStream(stdout) << "READY " << host->port() << Qt::endl;
    const int rc = app.exec();
    AsyncSocket::setIsTerminating(true);
    host->close();
    counter->invalidate();
    return rc;
}
