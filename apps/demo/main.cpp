// Demo: an agent process and a client process on loopback, mirroring the
// chat model.
//
// `zt-demo` is the client: it starts `zt-demo --agent`, connects to it, and
// prints what its mirror of the agent's connection controller does as the
// changes arrive. The agent brings a connection online (server, identity,
// console), joins two channels with a few people, sets a topic; a person
// goes away, another changes nick, a third leaves, and the unread counter of
// a channel grows. Then the client types a line and marks the channel read
// (both forwarded calls), and the agent answers by closing the other channel,
// whose mirror leaves the client's directory.
// `zt-demo --port <n>` connects to an agent already listening on port n
// instead of starting one (the end-to-end test does).

#include "controller_classes.h"
#include "core/vdkvo.h"
#include "core/ztagenthost.h"
#include "core/ztclientnode.h"
#include "runtime/kvc.h"
#include "runtime/process.h"

#include <QCoreApplication>
#include <QProcess>
#include <QTextStream>
#include <QTimer>

namespace {

QTextStream out(stdout);

const QString TopicKey = QStringLiteral("topic");

const zt::Protocol &demoClientRootProtocol()
{
    static const zt::Protocol protocol = [] {
        zt::Protocol p = ZTRootObject::clientRootProtocol();
        p.addMethod("agentFinished", zt::MethodSignature::fromTypes("v@:"));
        return p;
    }();
    return protocol;
}

// ---- the agent ----

zt::Ref<AgentChannel> makeChannel(ZTAbstractConnection *connection, const QString &name, bool console = false)
{
    auto channel = zt::make<AgentChannel>();
    channel->init();
    channel->setName(name);
    channel->setIsConsole(console);
    channel->setIsChannel(!console);
    channel->setConnection(connection);
    return channel;
}

//! A person in the channel with the given privilege codes, ready to be added.
zt::Ref<AgentPerson> makePerson(ZTAbstractChannel *channel, const QString &nick, QVariantList privileges = {})
{
    auto person = zt::make<AgentPerson>();
    person->initWithNicknameOnChannel(nick, channel);
    person->identity()->setUsername(nick);
    person->identity()->setHostname(nick + QStringLiteral(".example.org"));
    if (!privileges.isEmpty())
        person->identity()->setPrivileges(privileges);
    return person;
}

zt::Ref<AgentSelfIdentity> makeSelfIdentity()
{
    auto identity = zt::make<AgentSelfIdentity>();
    identity->init();
    identity->setUsername(QStringLiteral("zintaro"));
    identity->setRealname(QStringLiteral("Zin Taro"));
    for (const char *nick : {"zin", "zin_"}) {
        auto candidate = zt::make<AgentNickCandidate>();
        candidate->init();
        candidate->setNickname(QString::fromLatin1(nick));
        identity->addCandidate(candidate.get());
    }
    return identity;
}

// Serves every client that connects; the script runs once, when the first
// client has registered, and its changes reach every registered client.
class Agent : public ZTAgentHostDelegate
{
public:
    zt::Ref<AgentConnectionController> controller;

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
    zt::Ref<AgentConnection> connection;
    zt::Ref<AgentChannel> zintaro, qt;

    ZTAbstractIdentity *identityOf(const QString &nick) const
    {
        zt::Ref<ZTAbstractPerson> person = zintaro->personWithName(nick);
        return person ? person->identity().get() : nullptr;
    }

    // The client marks #zintaro read: the agent shows what the client typed
    // and closes #qt.
    void watchReading()
    {
        zintaro->addObservationToken(zt::observeKeyPathOptionsHandler(
            zintaro.get(), QStringLiteral("unreadLines"), zt::ObservingOption::New,
            [this](zt::Object *, const zt::KVOChange &c) {
                if (c.newValue.toULongLong() != 0 || !qt)
                    return;
                for (const QString &line : connection->outgoingLines())
                    out << "[agent] the client asks the connection to send: " << line << Qt::endl;
                out << "[agent] the client read #zintaro; leaving #qt" << Qt::endl;
                QTimer::singleShot(150, [this] { connection->removeChannel(std::exchange(qt, {})); });
            }));
    }

    void runScript(ZTAgentHost *host)
    {
        zt::Ref<ZTAgentHost> clients(host);
        const std::vector<std::function<void()>> steps = {
            [this] {
                connection = zt::make<AgentConnection>();
                connection->init();
                controller->addConnection(connection);
            },
            [this] {
                auto server = zt::make<AgentServer>();
                server->init();
                server->setAddress(QStringLiteral("irc.libera.chat"));
                server->setSecure(true);
                server->setPort(6697);
                connection->setServer(server);
                connection->setNextIdentity(makeSelfIdentity());
                connection->connect(); // the next identity becomes the current one
            },
            [this] {
                connection->setNickname(QStringLiteral("zin"));
                connection->setStatus(0);
                connection->setConsole(
                    makeChannel(connection.get(), QStringLiteral("irc.libera.chat"), true));
            },
            [this] {
                zintaro = makeChannel(connection.get(), QStringLiteral("#zintaro"));
                connection->addChannel(zintaro);
                watchReading();
            },
            [this] {
                zintaro->addPerson(makePerson(zintaro.get(), QStringLiteral("alice"),
                                              {qint16(ZTAbstractIdentity::ChannelOp)}));
                zintaro->addPerson(
                    makePerson(zintaro.get(), QStringLiteral("bob"), {qint16(ZTAbstractIdentity::Voice)}));
                zintaro->addPerson(makePerson(zintaro.get(), QStringLiteral("carol")));
            },
            [this] {
                qt = makeChannel(connection.get(), QStringLiteral("#qt"));
                qt->setAttributes({{TopicKey, QStringLiteral("Qt 6")}});
                qt->addPerson(makePerson(
                    qt.get(), QStringLiteral("dave"),
                    {qint16(ZTAbstractIdentity::ChannelOwner), qint16(ZTAbstractIdentity::ChannelOp)}));
                connection->addChannel(qt);
            },
            [this] {
                zintaro->setAttributes(
                    {{TopicKey, QStringLiteral("Split-process IRC, correct to the last byte")}});
            },
            [this] {
                ZTAbstractIdentity *alice = identityOf(QStringLiteral("alice"));
                alice->setAwayMessage(QStringLiteral("lunch"));
                alice->setStatus(ZTAbstractIdentity::StatusAway);
            },
            [this] { identityOf(QStringLiteral("bob"))->setNickname(QStringLiteral("bobby")); },
            [this] { zintaro->removePerson(zintaro->personWithName(QStringLiteral("carol"))); },
            [this] {
                zintaro->setUnreadLines(2);
                zintaro->setUnreadLines(5);
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
    agent.controller = zt::make<AgentConnectionController>();
    agent.controller->init();
    zt::Ref<ZTAgentHost> host = ZTAgentHost::create(agent.controller.get(), &agent);
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
    agent.controller->invalidate(); // with everything it holds
    return rc;
}

// ---- the client ----

ZTClientNode *node = nullptr;

//! The text of a privilege list, "(@)", or empty without privileges.
QString privilegeSuffix(const ZTAbstractIdentity &identity)
{
    const QString prefixes = identity.prefixablePrivileges();
    return prefixes.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(prefixes);
}

//! Prints what the client's mirror does, as it does it: every object the
//! mirror gains is observed until it is invalidated.
class Mirror : public ZTClientNodeDelegate
{
public:
    void nodeDidBecomeReady(ZTClientNode *, ZTAbstractIPC *mirror) override
    {
        controller =
            zt::Ref<ZTAbstractConnectionController>(dynamic_cast<ZTAbstractConnectionController *>(mirror));
        out << "[client] mirroring the connection controller " << controller->description() << Qt::endl;
        watch(controller.get(), "connections", [this](auto *, const zt::KVOChange &c) {
            if (c.kind == zt::KeyValueChange::Insertion)
                for (const QVariant &v : c.newValue.toList())
                    watchConnection(zt::fromValue<zt::Ref<ZTAbstractConnection>>(v));
        });
    }
    void nodeDidDisconnect(ZTClientNode *) override { QCoreApplication::exit(1); }

    zt::Ref<ZTAbstractConnectionController> controller;

private:
    // Channel names and nicknames as last seen: an object that leaves is
    // invalidated, which forgets them, before or after its removal is seen.
    QHash<const zt::Object *, QString> names;

    using Handler = std::function<void(ZTAbstractIPC *, const zt::KVOChange &)>;
    static void watch(ZTAbstractIPC *object, const char *key, Handler handler)
    {
        object->addObservationToken(zt::observeKeyPathOptionsHandler(
            object, QString::fromLatin1(key), zt::ObservingOption::New | zt::ObservingOption::Old,
            [object, handler](zt::Object *, const zt::KVOChange &c) { handler(object, c); }));
    }

    void watchConnection(const zt::Ref<ZTAbstractConnection> &connection)
    {
        if (!connection)
            return;
        out << "[client] a new connection (status " << connection->status() << ")" << Qt::endl;
        ZTAbstractConnection *c = connection.get();
        watch(c, "server", [c](auto *, const zt::KVOChange &) {
            if (const auto server = c->server())
                out << "[client] server " << server->address() << ":" << server->port()
                    << (server->secure() ? " (TLS)" : "") << Qt::endl;
        });
        watch(c, "currentIdentity", [c](auto *, const zt::KVOChange &) {
            const auto identity = c->currentIdentity();
            if (!identity)
                return;
            QStringList nicknames;
            for (const auto &candidate : identity->candidates())
                nicknames.append(candidate->nickname());
            out << "[client] identity " << identity->username() << " (" << identity->realname()
                << "), nicknames " << nicknames.join(QStringLiteral(", ")) << Qt::endl;
        });
        watch(c, "nickname", [c](auto *, const zt::KVOChange &) {
            out << "[client] nickname " << c->nickname() << Qt::endl;
        });
        watch(c, "status", [](auto *, const zt::KVOChange &change) {
            out << "[client] connection status " << zt::describe(change.oldValue) << " -> "
                << zt::describe(change.newValue) << Qt::endl;
        });
        watch(c, "console", [c](auto *, const zt::KVOChange &) {
            if (const auto console = c->console())
                out << "[client] console " << console->name() << Qt::endl;
        });
        watch(c, "channels", [this](auto *, const zt::KVOChange &change) {
            if (change.kind == zt::KeyValueChange::Insertion)
                for (const QVariant &v : change.newValue.toList())
                    watchChannel(zt::fromValue<zt::Ref<ZTAbstractChannel>>(v));
            if (change.kind == zt::KeyValueChange::Removal)
                for (const QVariant &v : change.oldValue.toList())
                    channelLeft(zt::fromValue<zt::Ref<ZTAbstractChannel>>(v));
        });
    }

    void watchChannel(const zt::Ref<ZTAbstractChannel> &channel)
    {
        if (!channel)
            return;
        ZTAbstractChannel *ch = channel.get();
        names.insert(ch, ch->name());
        const QString topic = ch->attributes().value(TopicKey).toString();
        out << "[client] joined " << ch->name()
            << (topic.isEmpty() ? QString() : QStringLiteral(" (topic: %1)").arg(topic)) << Qt::endl;
        for (const auto &person : ch->users())
            watchPerson(person, ch);
        // A topic is shown when it is set, not when it is cleared.
        watch(ch, "attributes", [ch](auto *, const zt::KVOChange &c) {
            const QString topic = c.newValue.toMap().value(TopicKey).toString();
            if (!topic.isEmpty() && topic != c.oldValue.toMap().value(TopicKey).toString())
                out << "[client] " << ch->name() << " topic: " << topic << Qt::endl;
        });
        watch(ch, "users", [this, ch](auto *, const zt::KVOChange &c) {
            if (c.kind == zt::KeyValueChange::Insertion)
                for (const QVariant &v : c.newValue.toList())
                    watchPerson(zt::fromValue<zt::Ref<ZTAbstractPerson>>(v), ch);
            if (c.kind == zt::KeyValueChange::Removal)
                for (const QVariant &v : c.oldValue.toList())
                    out << "[client] " << names.value(zt::objectFrom(v)) << " left " << names.value(ch)
                        << Qt::endl;
        });
        watch(ch, "unreadLines", [ch](auto *, const zt::KVOChange &c) {
            if (c.oldValue != c.newValue)
                out << "[client] " << ch->name() << " unread lines: " << c.newValue.toULongLong() << Qt::endl;
        });
    }

    void watchPerson(const zt::Ref<ZTAbstractPerson> &person, ZTAbstractChannel *channel)
    {
        if (!person || !person->identity())
            return;
        ZTAbstractIdentity *identity = person->identity().get();
        names.insert(person.get(), identity->nickname());
        out << "[client] " << identity->nickname() << " joined " << channel->name()
            << privilegeSuffix(*identity) << Qt::endl;
        watch(identity, "nickname", [this, p = person.get()](auto *, const zt::KVOChange &c) {
            names.insert(p, c.newValue.toString());
            out << "[client] " << c.oldValue.toString() << " is now known as " << c.newValue.toString()
                << Qt::endl;
        });
        // The status crosses; the away text stays with the agent.
        watch(identity, "status", [identity](auto *, const zt::KVOChange &c) {
            if (c.oldValue != c.newValue && c.newValue.toInt() == ZTAbstractIdentity::StatusAway)
                out << "[client] " << identity->nickname() << " is away" << Qt::endl;
        });
    }

    void channelLeft(const zt::Ref<ZTAbstractChannel> &channel)
    {
        if (!channel)
            return;
        const QString name = names.value(channel.get());
        out << "[client] left " << name << Qt::endl;
        // The connection invalidates a channel that leaves it: once this
        // change is over, the mirror is out of the directory.
        QTimer::singleShot(0, [channel, name] {
            out << "[client] " << name << "'s mirror "
                << (channel->inDirectory() ? "is still in the directory" : "left the directory") << Qt::endl;
            QTimer::singleShot(100, [] { QCoreApplication::quit(); });
        });
    }
};

class ClientRoot : public ZTRootObject
{
    ZT_OBJECT(ClientRoot, ZTRootObject)
public:
    void agentFinished();
};

void ClientRoot::agentFinished()
{
    auto *controller = node->mirror<ZTAbstractConnectionController>();
    const auto connection = controller ? controller->connections().value(0) : nullptr;
    const auto channel = connection ? connection->channelWithName(QStringLiteral("#zintaro")) : nullptr;
    if (!channel) {
        out << "[client] the agent is done, but #zintaro is not mirrored" << Qt::endl;
        QCoreApplication::exit(3);
        return;
    }
    out << "[client] the agent is done; typing a line and reading #zintaro" << Qt::endl;
    connection->processOutgoingLine(QStringLiteral("/me waves from the client")); // forwarded
    channel->resetLineCount(); // here, then forwarded to the agent's channel
}

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

    // A singleton with a fixed UUID: made with init() before the node looks
    // for the mirror of the agent's root under that UUID.
    auto controller = zt::make<ClientConnectionController>();
    controller->init();
    Mirror events;
    zt::Ref<ZTClientNode> client = ZTClientNode::create<ClientConnectionController>(&events);
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
    controller->invalidate(); // with everything it holds
    client->close();          // the agent sees its last client go and quits
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
    zt::process::restartWithTunedHeap(argv);
    QCoreApplication app(argc, argv);
    if (app.arguments().contains(QStringLiteral("--agent")))
        return runAgent(app);
    out << "Zintaro Core demo: an agent and a client process mirroring the chat model over loopback.\n"
        << Qt::endl;
    const qsizetype at = app.arguments().indexOf(QStringLiteral("--port"));
    return runClient(app, at > 0 ? quint16(app.arguments().value(at + 1).toUInt()) : 0);
}
