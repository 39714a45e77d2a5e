// The two processes of the model scenario, one program:
//   zt-e2e-model --agent   prints "LISTENING <port>"; once a client has
//                          registered, runs every step of every family and
//                          sends the client after each one the dictionary
//                          forms of all objects ("agentCompletedStep:snapshot:"),
//                          at the end the number of steps ("agentFinished:");
//                          exits when its last client leaves.
//   zt-e2e-model <port>    mirrors the agent's model and after each step
//                          compares every object the agent lists with its
//                          own mirror, printing "STEP <name>: OK" or
//                          "STEP <name>: MISMATCH" and a "  <difference>"
//                          line each; "DONE <steps>" at the end.

#include "core/ztagenthost.h"
#include "core/ztclientnode.h"
#include "core/ztdirectory.h"
#include "model_diff.h"
#include "model_scenario.h"
#include "network_classes.h"
#include "runtime/exception.h"
#include "runtime/process.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QTextStream>
#include <QTimer>

namespace {

QTextStream out(stdout);

struct Agent : ZTAgentHostDelegate
{
    ScenarioContext ctx;
    bool ran = false;
    QList<ScenarioStep> steps;
    ZTAgentHost *host = nullptr;

    void hostDidRegisterClient(ZTAgentHost *h, VDConnection *) override
    {
        if (std::exchange(ran, true))
            return;
        host = h;
        ctx.tellClient = [h](const char *selector, const QVariantList &arguments) {
            h->counterpart()->perform(selector, arguments);
        };
        for (const ScenarioFamily &family : scenarioFamilies())
            steps += family.steps();
        runFrom(0);
    }
    void runFrom(qsizetype index)
    {
        if (index == steps.size()) {
            host->counterpart()->perform("agentFinished:", {qint64(steps.size())});
            return;
        }
        try {
            steps[index].run(ctx);
        } catch (const zt::Exception &e) {
            QTextStream(stderr) << steps[index].name << ": " << e.name() << ": " << e.reason() << Qt::endl;
        }
        finish(index, QDeadlineTimer(5000));
    }
    // A step with `until` waits for it on the event loop (the client acts
    // back), for at most five seconds.
    void finish(qsizetype index, QDeadlineTimer deadline)
    {
        const ScenarioStep &step = steps[index];
        if (step.until && !step.until(ctx)) {
            if (!deadline.hasExpired()) {
                QTimer::singleShot(5, [this, index, deadline] { finish(index, deadline); });
                return;
            }
            QTextStream(stderr) << step.name << ": timed out" << Qt::endl;
        }
        host->counterpart()->perform("agentCompletedStep:snapshot:", {step.name, ctx.snapshot()});
        runFrom(index + 1);
    }
    void hostDidLoseClient(ZTAgentHost *host, VDConnection *) override
    {
        if (host->clients().isEmpty())
            QCoreApplication::quit();
    }
};

struct Events : ZTClientNodeDelegate
{
    void nodeDidDisconnect(ZTClientNode *) override { QCoreApplication::exit(3); }
};

int runAgent(QCoreApplication &app)
{
    zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.ModelScenarioAgent"));
    Agent agent;
    // The network directory first: its fixed UUID is shared.
    auto directory = zt::make<AgentNetworkDirectory>();
    directory->init();
    auto root = zt::make<ScenarioRoot>();
    root->init();
    agent.ctx.root = root.get();
    agent.ctx.directory = directory.get();
    zt::Ref<ZTAgentHost> host = ZTAgentHost::create(root.get(), &agent);
    host->setClientProtocol(&scenarioClientProtocol());
    if (!host->listen(QStringLiteral("127.0.0.1"), 0))
        return 1;
    out << "LISTENING " << host->port() << Qt::endl;
    const int rc = app.exec();
    AsyncSocket::setIsTerminating(true);
    host->close();
    for (const auto &object : agent.ctx.tracked)
        object->invalidate();
    root->invalidateAll();
    invalidateNetworkDirectory(directory.get());
    return rc;
}

int runClient(QCoreApplication &app, quint16 port)
{
    zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.ModelScenario"));
    auto directory = zt::make<ClientNetworkDirectory>(); // first: its fixed UUID is shared
    directory->init();
    Events events;
    zt::Ref<ZTClientNode> node = ZTClientNode::create<ScenarioRoot>(&events);
    node->setRootClass(ScenarioClientRoot::staticClassInfo());
    if (!node->connectToHost(QStringLiteral("127.0.0.1"), port))
        return 1;
    QTimer::singleShot(30000, &app, [] { QCoreApplication::exit(4); });
    const int rc = app.exec();
    AsyncSocket::setIsTerminating(true);
    if (auto *root = node->mirror<ScenarioRoot>())
        root->invalidateAll();
    node->close();
    invalidateNetworkDirectory(directory.get());
    return rc;
}

} // namespace

void ScenarioClientRoot::agentCompletedStepSnapshot(const QString &step, const QVariantMap &snapshot)
{
    QStringList differences;
    for (auto it = snapshot.cbegin(); it != snapshot.cend(); ++it) {
        if (it.key() == QLatin1String(GoneEntry)) {
            for (const QVariant &uuid : it.value().toList())
                if (ZTDirectory::sharedInstance()->objectWithID(uuid.toString()))
                    differences.append(uuid.toString() + QStringLiteral(": still in the directory"));
            continue;
        }
        zt::Ref<ZTAbstractIPC> mirror = ZTDirectory::sharedInstance()->objectWithID(it.key());
        if (!mirror)
            differences.append(it.key() + QStringLiteral(": no mirror"));
        else
            differences += zt::apps::describeDifferences(it.value(), comparedForm(mirror.get()), it.key());
    }
    out << "STEP " << step << (differences.isEmpty() ? ": OK" : ": MISMATCH") << '\n';
    for (const QString &d : differences)
        out << "  " << d << '\n';
    out.flush();
}

void ScenarioClientRoot::agentAsksClientToPerformOnObjectWithID(const QString &selector, const QString &uuid)
{
    if (zt::Ref<ZTAbstractIPC> mirror = ZTDirectory::sharedInstance()->objectWithID(uuid))
        mirror->perform(zt::Selector(selector.toLatin1()));
}

void ScenarioClientRoot::agentFinished(qint64 steps)
{
    out << "DONE " << steps << Qt::endl;
    QCoreApplication::quit();
}

ZT_DEFINE_CLASS(ScenarioClientRoot)

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2)
        return 64;
    const QByteArray arg(argv[1]);
    return arg == "--agent" ? runAgent(app) : runClient(app, quint16(arg.toUInt()));
}
