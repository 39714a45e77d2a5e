// The agent of the end-to-end test: listens on loopback, waits for a client
// to register, hands it the root node, then changes the model step by step.
// It prints "LISTENING <port>" when ready and exits when the client leaves.

#include "e2e_model.h"
#include "runtime/kvc.h"
#include "runtime/process.h"

#include <QCoreApplication>
#include <QTextStream>

namespace {

class AgentRoot : public ReferenceRoot
{
    ZT_OBJECT(AgentRoot, ReferenceRoot)
public:
    zt::Ref<E2EAgentNode> model;

    void registerClient();

private:
    zt::Ref<E2EAgentNode> child(const QString &name, qint64 count)
    {
        auto c = zt::make<E2EAgentNode>();
        c->init();
        c->setName(name);
        c->setCount(count);
        return c;
    }
};

class Listener : public VDSocketDelegate
{
public:
    AgentRoot *root = nullptr;
    void onSocketDidAcceptNewSocket(VDConnection *, VDConnection *accepted) override
    {
        accepted->setDelegate(this);
        root->setConnection(accepted, &e2eClientRootProtocol());
    }
    void onSocketDidDisconnect(VDConnection *) override { QCoreApplication::quit(); }
};

} // namespace

ZT_DEFINE_CLASS(AgentRoot)
void AgentRoot::registerMembers(zt::ClassBuilder<AgentRoot> &b)
{
    b.method("registerClient", &AgentRoot::registerClient);
}

void AgentRoot::registerClient()
{
    VDConnectionRemoteProxy *client = connection()->proxyForRemoteObject();
    client->perform("handshakeFromAgent:", {model->dictionary()});
    connection()->setAllowWriting(true);

    // The script: every kind of change, in order.
    model->setName(QStringLiteral("mirror"));
    for (qint64 i = 1; i <= 100; ++i)
        model->setCount(i);
    zt::MutableArrayProxy children = model->mutableArrayValueForKey(QStringLiteral("children"));
    children.addObjects({zt::objectValue(child(QStringLiteral("a"), 1).get()),
                         zt::objectValue(child(QStringLiteral("b"), 2).get()),
                         zt::objectValue(child(QStringLiteral("c"), 3).get())});
    auto b = zt::dynamicCast<E2ENode>(zt::Ref<zt::Object>(zt::objectFrom(children.objectAtIndex(1))));
    children.removeObjectAtIndex(1);
    b->invalidate();
    children.replaceObjectAtIndex(0, zt::objectValue(child(QStringLiteral("d"), 4).get()));
    children.insertObjectAtIndex(zt::objectValue(child(QStringLiteral("e"), 5).get()), 1);
    client->perform("agentFinished:", {describeTree(model.get())});
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.E2EAgent"));

    auto root = zt::make<AgentRoot>();
    root->model = zt::make<E2EAgentNode>();
    root->model->init();
    root->model->setName(QStringLiteral("start"));

    Listener listener;
    listener.root = root.get();
    zt::Ref<VDConnection> listening = VDConnection::createWithDelegate(&listener);
    zt::Error error;
    if (!listening->socket()->acceptOnInterfacePortError(QStringLiteral("127.0.0.1"), 0, &error)) {
        QTextStream(stderr) << "cannot listen: " << error.localizedDescription() << '\n';
        return 1;
    }
    QTextStream(stdout) << "LISTENING " << listening->socket()->localPort() << Qt::endl;
    const int rc = app.exec();
    // The event loop is over: sockets close at once instead of draining.
    AsyncSocket::setIsTerminating(true);
    root->model->invalidateTree();
    root->setConnection(nullptr, nullptr);
    listening->socket()->disconnect();
    return rc;
}
