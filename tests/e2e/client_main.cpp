// The client of the end-to-end test: connects to the agent's port, mirrors
// the model it is handed, and when the agent says it has finished, prints
// what it mirrors, calls the agent back (an action and a call that returns a
// value), and prints the outcome:
//   MIRROR <tree as the client sees it>
//   EXPECTED <tree as the agent described it>
//   SUMMARY <value returned by the agent>
//   FINAL <tree after the action's change came back>
// With "--wait" it reads one line from its input before calling back.

#include "e2e_model.h"
#include "runtime/process.h"

#include <QCoreApplication>
#include <QTextStream>
#include <QTimer>
#include <cstdio>

namespace {

QTextStream out(stdout);
ZTClientNode *node = nullptr;
bool waitForInput = false;

void callBack()
{
    auto *model = node->mirror<E2ENode>();
    // A forwarded action, then a call whose result comes back.
    model->counterpart()->perform("renameTo:", {QStringLiteral("renamed")});
    const QVariant handler = model->counterpart()->perform("summary");
    auto returned = zt::dynamicCast<VDReturnHandler>(zt::Ref<zt::Object>(zt::objectFrom(handler)));
    if (!returned) {
        out << "NO HANDLER" << Qt::endl;
        QCoreApplication::exit(2);
        return;
    }
    returned->returnedValue([model](const QVariant &value) {
        out << "SUMMARY " << value.toString() << '\n' << "FINAL " << describeTree(model) << Qt::endl;
        QCoreApplication::quit();
    });
}

class ClientRoot : public ZTRootObject
{
    ZT_OBJECT(ClientRoot, ZTRootObject)
public:
    void agentFinished(const QString &agentView)
    {
        out << "MIRROR " << describeTree(node->mirror<E2ENode>()) << '\n'
            << "EXPECTED " << agentView << Qt::endl;
        if (waitForInput) {
            char line[16];
            if (!std::fgets(line, sizeof line, stdin))
                return QCoreApplication::exit(5);
        }
        callBack();
    }
};

class Events : public ZTClientNodeDelegate
{
public:
    void nodeDidDisconnect(ZTClientNode *) override { QCoreApplication::exit(3); }
};

} // namespace

ZT_DEFINE_CLASS_WITH_MEMBERS(ClientRoot)
void ClientRoot::registerMembers(zt::ClassBuilder<ClientRoot> &b)
{
    b.method("agentFinished:", &ClientRoot::agentFinished);
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.E2EClient"));
    if (argc < 2)
        return 64;
    waitForInput = argc > 2 && QByteArray(argv[2]) == "--wait";
    Events events;
    zt::Ref<ZTClientNode> client = ZTClientNode::create<E2EClientNode>(&events);
    node = client.get();
    client->setRootClass(ClientRoot::staticClassInfo());
    client->setClientID(QStringLiteral("e2e-client"));
    zt::Error error;
    if (!client->connectToHost(QStringLiteral("127.0.0.1"), quint16(QByteArray(argv[1]).toUInt()), &error)) {
        QTextStream(stderr) << "cannot connect: " << error.localizedDescription() << '\n';
        return 1;
    }
    QTimer::singleShot(30000, &app, [] { QCoreApplication::exit(4); });
    const int rc = app.exec();
    AsyncSocket::setIsTerminating(true);
    if (auto *model = client->mirror<E2ENode>())
        model->invalidateTree();
    client->close();
    return rc;
}
