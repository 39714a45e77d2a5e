// Demo: an agent process and a client process on loopback.
//
// `zt-demo` is the client: it starts `zt-demo --agent`, connects to it, and
// prints what its mirror of the agent's model does as the changes arrive. The
// agent brings a connection online, joins and leaves channels and changes a
// topic; then the client sends the agent an action and a call that returns a
// value.

#include "core/vdkvo.h"
#include "demo_model.h"
#include "runtime/kvc.h"
#include "runtime/process.h"

#include <QCoreApplication>
#include <QProcess>
#include <QTextStream>
#include <QTimer>

namespace {

QTextStream out(stdout);

// ---- the agent ----

class AgentRoot : public ReferenceRoot
{
    ZT_OBJECT(AgentRoot, ReferenceRoot)
public:
    zt::Ref<AgentConnection> model;

    void registerClient()
    {
        VDConnectionRemoteProxy *client = connection()->proxyForRemoteObject();
        client->perform("handshakeFromAgent:", {model->dictionary()});
        connection()->setAllowWriting(true);
        runScript(client);
    }

private:
    zt::Ref<AgentChannel> channel(const QString &name, const QString &topic)
    {
        auto c = zt::make<AgentChannel>();
        c->init();
        c->setName(name);
        c->setTopic(topic);
        return c;
    }
    void runScript(VDConnectionRemoteProxy *client)
    {
        auto channels = std::make_shared<zt::MutableArrayProxy>(
            model->mutableArrayValueForKey(QStringLiteral("channels")));
        const std::vector<std::function<void()>> steps = {
            [this] { model->setStatus(0); },
            [this, channels] {
                channels->addObject(zt::objectValue(channel(QStringLiteral("#zintaro"), QString()).get()));
            },
            [this, channels] {
                channels->addObject(
                    zt::objectValue(channel(QStringLiteral("#qt"), QStringLiteral("Qt 6")).get()));
            },
            [this] {
                model->channels().first()->setTopic(
                    QStringLiteral("Split-process IRC, correct to the last byte"));
            },
            [this, channels] {
                auto qt = model->channels().last();
                channels->removeObjectAtIndex(1);
                qt->invalidate();
            },
            [client] { client->perform("agentFinished"); },
        };
        for (size_t i = 0; i < steps.size(); ++i)
            QTimer::singleShot(int(150 * (i + 1)), steps[i]);
    }
};

class Listener : public VDSocketDelegate
{
public:
    AgentRoot *root = nullptr;
    void onSocketDidAcceptNewSocket(VDConnection *, VDConnection *accepted) override
    {
        accepted->setDelegate(this);
        root->setConnection(accepted, &demoClientRootProtocol());
    }
    void onSocketDidDisconnect(VDConnection *) override { QCoreApplication::quit(); }
};

int runAgent(QCoreApplication &app)
{
    zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.Zintaro2Agent"));
    auto root = zt::make<AgentRoot>();
    root->model = zt::make<AgentConnection>();
    root->model->init();
    root->model->onOutgoingLine = [](const QString &line) {
        out << "[agent] the client asks the connection to send: " << line << Qt::endl;
    };
    Listener listener;
    listener.root = root.get();
    zt::Ref<VDConnection> listening = VDConnection::createWithDelegate(&listener);
    zt::Error error;
    if (!listening->socket()->acceptOnInterfacePortError(QStringLiteral("127.0.0.1"), 0, &error)) {
        out << "[agent] cannot listen: " << error.localizedDescription() << Qt::endl;
        return 1;
    }
    out << "LISTENING " << listening->socket()->localPort() << Qt::endl;
    const int rc = app.exec();
    AsyncSocket::setIsTerminating(true); // the event loop is over: close at once
    root->model->invalidateTree();
    root->setConnection(nullptr, nullptr);
    listening->socket()->disconnect();
    return rc;
}

// ---- the client ----

class ClientRoot : public ReferenceRoot
{
    ZT_OBJECT(ClientRoot, ReferenceRoot)
public:
    zt::Ref<DemoConnection> model;

    void handshakeFromAgent(const QVariantMap &dictionary)
    {
        model = zt::dynamicCast<DemoConnection>(ZTAbstractIPC::createCounterpartWithUUID<ClientConnection>(
            dictionary.value(QStringLiteral("description")).toString()));
        model->setStatus(dictionary.value(QStringLiteral("status")).toLongLong());
        out << "[client] mirroring connection " << model->description() << " (status " << model->status()
            << ")" << Qt::endl;
        watch();
        connection()->setAllowWriting(true);
    }

    void agentFinished()
    {
        out << "[client] the agent is done; calling it back" << Qt::endl;
        model->counterpart()->perform("processOutgoingLine:", {QStringLiteral("/me waves from the client")});
        auto handler = zt::dynamicCast<VDReturnHandler>(
            zt::Ref<zt::Object>(zt::objectFrom(model->counterpart()->perform("channelList"))));
        handler->returnedValue([](const QVariant &value) {
            out << "[client] the agent's connection is in: " << value.toString() << Qt::endl;
            QTimer::singleShot(100, [] { QCoreApplication::quit(); });
        });
    }

private:
    void watch()
    {
        const auto options = zt::ObservingOption::New | zt::ObservingOption::Old;
        model->addObservationToken(zt::observeKeyPathOptionsHandler(
            model.get(), QStringLiteral("status"), options, [](zt::Object *, const zt::KVOChange &c) {
                out << "[client] status " << zt::describe(c.oldValue) << " -> " << zt::describe(c.newValue)
                    << Qt::endl;
            }));
        model->addObservationToken(zt::observeKeyPathOptionsHandler(
            model.get(), QStringLiteral("channels"), options, [this](zt::Object *, const zt::KVOChange &c) {
                const char *what = c.kind == zt::KeyValueChange::Insertion ? "joined" : "left";
                out << "[client] channels " << what << " at " << c.indexes.description() << ": now ["
                    << model->channelList() << "]" << Qt::endl;
                if (c.kind == zt::KeyValueChange::Insertion)
                    for (const QVariant &v : c.newValue.toList())
                        watchChannel(zt::fromValue<zt::Ref<DemoChannel>>(v));
            }));
    }
    void watchChannel(const zt::Ref<DemoChannel> &channel)
    {
        out << "[client]   " << channel->name() << " topic: \"" << channel->topic() << "\"" << Qt::endl;
        channel->addObservationToken(zt::observeKeyPathOptionsHandler(
            channel.get(), QStringLiteral("topic"), zt::ObservingOption::New,
            [](zt::Object *o, const zt::KVOChange &c) {
                out << "[client] " << static_cast<DemoChannel *>(o)->name() << " topic -> \""
                    << c.newValue.toString() << "\"" << Qt::endl;
            }));
    }
};

class Events : public VDSocketDelegate
{
public:
    void onSocketDidConnectToHostPort(VDConnection *connection, const QString &host, quint16 port) override
    {
        out << "[client] connected to the agent at " << host << ':' << port << Qt::endl;
        connection->proxyForRemoteObject()->perform("registerClient");
    }
    void onSocketDidDisconnect(VDConnection *) override { QCoreApplication::exit(1); }
};

int runClient(QCoreApplication &app)
{
    zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.Zintaro2"));
    QProcess agent;
    agent.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    agent.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--agent")});
    if (!agent.waitForStarted(10000) || !agent.waitForReadyRead(10000)) {
        out << "cannot start the agent" << Qt::endl;
        return 1;
    }
    const QByteArray ready = agent.readLine().trimmed();
    const quint16 port = quint16(ready.mid(10).toUInt());
    out << "[client] started the agent (pid " << agent.processId() << "), listening on port " << port
        << Qt::endl;
    QObject::connect(&agent, &QProcess::readyReadStandardOutput,
                     [&agent] { out << QString::fromUtf8(agent.readAllStandardOutput()) << Qt::flush; });

    auto root = zt::make<ClientRoot>();
    root->setClientID(QStringLiteral("demo-client"));
    Events events;
    root->setConnection(VDConnection::createWithDelegate(&events), &ReferenceRoot::agentRootProtocol());
    zt::Error error;
    if (!root->connection()->socket()->connectToHostOnPortError(QStringLiteral("127.0.0.1"), port, &error)) {
        out << "cannot connect: " << error.localizedDescription() << Qt::endl;
        return 1;
    }
    QTimer::singleShot(20000, &app, [] { QCoreApplication::exit(2); });
    const int rc = app.exec();
    AsyncSocket::setIsTerminating(true);
    if (root->model)
        root->model->invalidateTree();
    root->connection()->setDelegate(nullptr);
    root->connection()->socket()->disconnect(); // the agent sees it and quits
    root->setConnection(nullptr, nullptr);
    agent.waitForFinished(5000);
    out << QString::fromUtf8(agent.readAllStandardOutput()) << "[client] done" << Qt::endl;
    return rc;
}

} // namespace

ZT_DEFINE_CLASS(AgentRoot)
void AgentRoot::registerMembers(zt::ClassBuilder<AgentRoot> &b)
{
    b.method("registerClient", &AgentRoot::registerClient);
}
ZT_DEFINE_CLASS(ClientRoot)
void ClientRoot::registerMembers(zt::ClassBuilder<ClientRoot> &b)
{
    b.method("handshakeFromAgent:", &ClientRoot::handshakeFromAgent);
    b.method("agentFinished", &ClientRoot::agentFinished);
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (app.arguments().contains(QStringLiteral("--agent")))
        return runAgent(app);
    out << "Zintaro Core demo: an agent and a client process mirroring a chat model over loopback.\n"
        << Qt::endl;
    return runClient(app);
}
