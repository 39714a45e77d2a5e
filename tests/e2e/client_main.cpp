// The client of the end-to-end test: connects to the agent's port, registers,
// mirrors the model it is handed, and when the agent says it has finished,
// prints what it mirrors, calls the agent back (an action and a call that
// returns a value), and prints the outcome:
//   MIRROR <tree as the client sees it>
//   EXPECTED <tree as the agent described it>
//   SUMMARY <value returned by the agent>
//   FINAL <tree after the action's change came back>

#include "e2e_model.h"
#include "runtime/process.h"

#include <QCoreApplication>
#include <QTextStream>
#include <QTimer>

namespace {

QTextStream out(stdout);

class ClientRoot : public ReferenceRoot
{
    ZT_OBJECT(ClientRoot, ReferenceRoot)
public:
    zt::Ref<E2ENode> model;

    void handshakeFromAgent(const QVariantMap &dictionary)
    {
        model = zt::dynamicCast<E2ENode>(ZTAbstractIPC::createCounterpartWithUUID<E2EClientNode>(
            dictionary.value(QStringLiteral("description")).toString()));
        model->setName(dictionary.value(QStringLiteral("name")).toString());
        connection()->setAllowWriting(true);
    }

    void agentFinished(const QString &agentView)
    {
        out << "MIRROR " << describeTree(model.get()) << '\n' << "EXPECTED " << agentView << Qt::endl;
        // A forwarded action, then a call whose result comes back.
        model->counterpart()->perform("renameTo:", {QStringLiteral("renamed")});
        const QVariant handler = model->counterpart()->perform("summary");
        auto returned = zt::dynamicCast<VDReturnHandler>(zt::Ref<zt::Object>(zt::objectFrom(handler)));
        if (!returned) {
            out << "NO HANDLER" << Qt::endl;
            QCoreApplication::exit(2);
            return;
        }
        returned->returnedValue([this](const QVariant &value) {
            out << "SUMMARY " << value.toString() << '\n'
                << "FINAL " << describeTree(model.get()) << Qt::endl;
            QCoreApplication::quit();
        });
    }
};

class Events : public VDSocketDelegate
{
public:
    ClientRoot *root = nullptr;
    void onSocketDidConnectToHostPort(VDConnection *connection, const QString &, quint16) override
    {
        connection->proxyForRemoteObject()->perform("registerClient");
    }
    void onSocketDidDisconnect(VDConnection *) override { QCoreApplication::exit(3); }
};

} // namespace

ZT_DEFINE_CLASS(ClientRoot)
void ClientRoot::registerMembers(zt::ClassBuilder<ClientRoot> &b)
{
    b.method("handshakeFromAgent:", &ClientRoot::handshakeFromAgent);
    b.method("agentFinished:", &ClientRoot::agentFinished);
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.E2EClient"));
    if (argc < 2)
        return 64;
    auto root = zt::make<ClientRoot>();
    root->setClientID(QStringLiteral("e2e-client"));
    Events events;
    events.root = root.get();
    root->setConnection(VDConnection::createWithDelegate(&events), &e2eAgentRootProtocol());
    zt::Error error;
    if (!root->connection()->socket()->connectToHostOnPortError(
            QStringLiteral("127.0.0.1"), quint16(QByteArray(argv[1]).toUInt()), &error)) {
        QTextStream(stderr) << "cannot connect: " << error.localizedDescription() << '\n';
        return 1;
    }
    QTimer::singleShot(30000, &app, [] { QCoreApplication::exit(4); });
    const int rc = app.exec();
    AsyncSocket::setIsTerminating(true);
    if (root->model)
        root->model->invalidateTree();
    root->connection()->setDelegate(nullptr);
    root->connection()->socket()->disconnect();
    root->setConnection(nullptr, nullptr);
    return rc;
}
