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

class BenchAgentRoot : public ReferenceRoot
{
    ZT_OBJECT(BenchAgentRoot, ReferenceRoot)
public:
    zt::Ref<AgentCounter> counter;
    void registerClient()
    {
        connection()->proxyForRemoteObject()->perform("handshakeFromAgent:", {counter->dictionary()});
        connection()->setAllowWriting(true);
    }
};

class Listener : public VDSocketDelegate
{
public:
    BenchAgentRoot *root = nullptr;
    void onSocketDidAcceptNewSocket(VDConnection *, VDConnection *accepted) override
    {
        accepted->setDelegate(this);
        root->setConnection(accepted, &benchClientRootProtocol());
    }
    void onSocketDidDisconnect(VDConnection *) override { QCoreApplication::quit(); }
};

} // namespace

ZT_DEFINE_CLASS(BenchAgentRoot)
void BenchAgentRoot::registerMembers(zt::ClassBuilder<BenchAgentRoot> &b)
{
    b.method("registerClient", &BenchAgentRoot::registerClient);
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.BenchAgent"));
    auto root = zt::make<BenchAgentRoot>();
    root->counter = zt::make<AgentCounter>();
    root->counter->init();
    Listener listener;
    listener.root = root.get();
    zt::Ref<VDConnection> listening = VDConnection::createWithDelegate(&listener);
    if (!listening->socket()->acceptOnInterfacePortError(QStringLiteral("127.0.0.1"), 0))
        return 1;
    QSocketNotifier stdinWatch(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&stdinWatch, &QSocketNotifier::activated, [&] {
        char buffer[64];
        if (::read(STDIN_FILENO, buffer, sizeof buffer) <= 0)
            QCoreApplication::quit();
    });
    QTextStream(stdout) << "READY " << listening->socket()->localPort() << Qt::endl;
    const int rc = app.exec();
    AsyncSocket::setIsTerminating(true);
    root->counter->invalidate();
    root->setConnection(nullptr, nullptr);
    listening->socket()->disconnect();
    return rc;
}
