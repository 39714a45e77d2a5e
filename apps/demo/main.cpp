// Demo: an agent process and a client process on loopback.
//
// `zt-demo` is the client: it starts `zt-demo --agent`, connects to it, and
// prints what its mirror of the agent's model does as the changes arrive. The
// agent brings a connection online, joins, replaces (the mirror sees a
// removal and an insertion) and leaves channels and changes a topic; then
// the client sends the agent an action and a call that returns a value.
// `zt-demo --port <n>` connects to an agent already listening on port n
// instead of starting one (the end-to-end test does).

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

// Serves every client that connects; the script runs once, when the first
// client has registered, and its changes reach every registered client.
class Agent : public ZTAgentHostDelegate
{
public:
    zt::Ref<AgentConnection> model;

    void hostDidRegisterClient(ZTAgentHost *host, VDConnection *) override
    {
        out << "[agent] a client registered (" << host->clients().size() << " now)" << Qt::endl;
        if (!std::exchange(scripted, true))
            runScript(host);
    }
    void hostDidLoseClient(ZTAgentHost *host, VDConnection *) override
    {
        if (host->clients().isEmpty())
            QCoreApplication::quit();
    }

private:
    bool scripted = false;
    zt::Ref<AgentChannel> channel(const QString &name, const QString &topic)
    {
        auto c = zt::make<AgentChannel>();
        c->init();
        c->setName(name);
        c->setTopic(topic);
        return c;
    }
    void runScript(ZTAgentHost *host)
    {
        auto channels = std::make_shared<zt::MutableArrayProxy>(
            model->mutableArrayValueForKey(QStringLiteral("channels")));
        zt::Ref<ZTAgentHost> clients(host);
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
                channels->replaceObjectAtIndex(
                    1, zt::objectValue(channel(QStringLiteral("#kde"), QStringLiteral("Plasma")).get()));
                qt->invalidate();
            },
            [this, channels] {
                auto kde = model->channels().last();
                channels->removeObjectAtIndex(1);
                kde->invalidate();
            },
            [clients] { clients->counterpart()->perform("agentFinished"); },
        };
        for (size_t i = 0; i < steps.size(); ++i)
            QTimer::singleShot(int(150 * (i + 1)), steps[i]);
    }
};

int runAgent(QCoreApplication &app)
{
    zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.Zintaro2Agent"));
    Agent agent;
    agent.model = zt::make<AgentConnection>();
    agent.model->init();
    agent.model->onOutgoingLine = [](const QString &line) {
        out << "[agent] the client asks the connection to send: " << line << Qt::endl;
    };
    zt::Ref<ZTAgentHost> host = ZTAgentHost::create(agent.model.get(), &agent);
    host->setClientProtocol(&demoClientRootProtocol());
    zt::Error error;
    if (!host->listen(QStringLiteral("127.0.0.1"), 0, &error)) {
        out << "[agent] cannot listen: " << error.localizedDescription() << Qt::endl;
        return 1;
    }
    out << "LISTENING " << host->port() << Qt::endl;
    const int rc = app.exec();
    AsyncSocket::setIsTerminating(true); // the event loop is over: close at once
    host->close();
    agent.model->invalidateTree();
    return rc;
}

// ---- the client ----

ZTClientNode *node = nullptr;

class ClientRoot : public ZTRootObject
{
    ZT_OBJECT(ClientRoot, ZTRootObject)
public:
    void agentFinished()
    {
        out << "[client] the agent is done; calling it back" << Qt::endl;
        DemoConnection *model = node->mirror<DemoConnection>();
        model->counterpart()->perform("processOutgoingLine:", {QStringLiteral("/me waves from the client")});
        auto handler = zt::dynamicCast<VDReturnHandler>(
            zt::Ref<zt::Object>(zt::objectFrom(model->counterpart()->perform("channelList"))));
        handler->returnedValue([](const QVariant &value) {
            out << "[client] the agent's connection is in: " << value.toString() << Qt::endl;
            QTimer::singleShot(100, [] { QCoreApplication::quit(); });
        });
    }
};

class Events : public ZTClientNodeDelegate
{
public:
    void nodeDidBecomeReady(ZTClientNode *, ZTAbstractIPC *mirror) override
    {
        model = zt::Ref<DemoConnection>(dynamic_cast<DemoConnection *>(mirror));
        out << "[client] mirroring connection " << model->description() << " (status " << model->status()
            << ")" << Qt::endl;
        watch();
    }
    void nodeDidDisconnect(ZTClientNode *) override { QCoreApplication::exit(1); }

    zt::Ref<DemoConnection> model;

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

// `port`: an agent already listening there (`zt-demo --agent` started by
// someone else); 0: the client starts its own.
int runClient(QCoreApplication &app, quint16 port)
{
    zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.Zintaro2"));
    QProcess agent;
    if (port == 0) {
        agent.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        agent.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--agent")});
        if (!agent.waitForStarted(10000) || !agent.waitForReadyRead(10000)) {
            out << "cannot start the agent" << Qt::endl;
            return 1;
        }
        const QByteArray ready = agent.readLine().trimmed();
        port = quint16(ready.mid(10).toUInt());
        out << "[client] started the agent (pid " << agent.processId() << "), listening on port " << port
            << Qt::endl;
        QObject::connect(&agent, &QProcess::readyReadStandardOutput,
                         [&agent] { out << QString::fromUtf8(agent.readAllStandardOutput()) << Qt::flush; });
    }

    Events events;
    zt::Ref<ZTClientNode> client = ZTClientNode::create<ClientConnection>(&events);
    node = client.get();
    client->setRootClass(ClientRoot::staticClassInfo());
    client->setClientID(QStringLiteral("demo-client"));
    zt::Error error;
    if (!client->connectToHost(QStringLiteral("127.0.0.1"), port, &error)) {
        out << "cannot connect: " << error.localizedDescription() << Qt::endl;
        return 1;
    }
    QTimer::singleShot(20000, &app, [] { QCoreApplication::exit(2); });
    const int rc = app.exec();
    AsyncSocket::setIsTerminating(true);
    if (events.model)
        events.model->invalidateTree();
    client->close(); // the agent sees its last client go and quits
    if (agent.state() != QProcess::NotRunning) {
        agent.waitForFinished(5000);
        out << QString::fromUtf8(agent.readAllStandardOutput());
    }
    out << "[client] done" << Qt::endl;
    return rc;
}

} // namespace

ZT_DEFINE_CLASS_WITH_MEMBERS(ClientRoot)
void ClientRoot::registerMembers(zt::ClassBuilder<ClientRoot> &b)
{
    b.method("agentFinished", &ClientRoot::agentFinished);
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (app.arguments().contains(QStringLiteral("--agent")))
        return runAgent(app);
    out << "Zintaro Core demo: an agent and a client process mirroring a chat model over loopback.\n"
        << Qt::endl;
    const qsizetype at = app.arguments().indexOf(QStringLiteral("--port"));
    return runClient(app, at > 0 ? quint16(app.arguments().value(at + 1).toUInt()) : 0);
}
