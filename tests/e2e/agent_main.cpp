// The agent of the end-to-end test: serves every peer on loopback, hands each
// client that registers the root node, and when the first one has, changes
// the model step by step (every change reaches every registered client). It
// prints "LISTENING <port>" when ready and exits when its last client leaves.

#include "e2e_model.h"
#include "runtime/kvc.h"
#include "runtime/process.h"

#include <QCoreApplication>
#include <QTextStream>

namespace {

class Agent : public ZTAgentHostDelegate
{
public:
    zt::Ref<E2EAgentNode> model;
    bool scripted = false;

    void hostDidRegisterClient(ZTAgentHost *host, VDConnection *) override
    {
        if (!std::exchange(scripted, true))
            runScript(host);
    }
    void hostDidLoseClient(ZTAgentHost *host, VDConnection *) override
    {
        if (host->clients().isEmpty())
            QCoreApplication::quit();
    }

private:
    zt::Ref<E2EAgentNode> child(const QString &name, qint64 count)
    {
        auto c = zt::make<E2EAgentNode>();
        c->init();
        c->setName(name);
        c->setCount(count);
        return c;
    }
    // Every kind of change, in order.
    void runScript(ZTAgentHost *host)
    {
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
        host->counterpart()->perform("agentFinished:", {describeTree(model.get())});
    }
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.E2EAgent"));

    Agent agent;
    agent.model = zt::make<E2EAgentNode>();
    agent.model->init();
    agent.model->setName(QStringLiteral("start"));

    zt::Ref<ZTAgentHost> host = ZTAgentHost::create(agent.model.get(), &agent);
    host->setClientProtocol(&e2eClientRootProtocol());
    zt::Error error;
    if (!host->listen(QStringLiteral("127.0.0.1"), 0, &error)) {
        QTextStream(stderr) << "cannot listen: " << error.localizedDescription() << '\n';
        return 1;
    }
    QTextStream(stdout) << "LISTENING " << host->port() << Qt::endl;
    const int rc = app.exec();
    // The event loop is over: sockets close at once instead of draining.
    AsyncSocket::setIsTerminating(true);
    host->close();
    agent.model->invalidateTree();
    return rc;
}
