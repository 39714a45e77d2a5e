// The two processes of the model scenario, one program:
//   zt-e2e-model --agent   prints "LISTENING <port>", runs the steps once a
//                          client has registered, sending a snapshot after
//                          each; exits when its last client leaves.
//   zt-e2e-model <port>    compares each snapshot with its mirrors, printing
//                          "STEP <name>: OK" or "STEP <name>: MISMATCH" and
//                          one "  <difference>" line each; "DONE <steps>".

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
    QList<ScenarioStep> steps = networkSteps() + peopleSteps() + chatSteps();

    void hostDidRegisterClient(ZTAgentHost *host, VDConnection *) override
    {
        if (ctx.tellClient)
            return;
        ctx.tellClient = [host](const char *selector, const QVariantList &arguments) {
            host->counterpart()->perform(selector, arguments);
        };
        run(0, QDeadlineTimer(5000));
    }
    // A step with `until` waits for it on the event loop for at most five
    // seconds, then the snapshot goes out and the next step runs.
    void run(qsizetype index, QDeadlineTimer deadline, bool started = false)
    {
        if (index == steps.size())
            return ctx.tellClient("agentFinished:", {qint64(steps.size())});
        const ScenarioStep &step = steps[index];
        try {
            if (!started)
                step.run(ctx);
        } catch (const zt::Exception &e) {
            QTextStream(stderr) << step.name << ": " << e.name() << ": " << e.reason() << Qt::endl;
        }
        if (step.until && !step.until(ctx)) {
            if (!deadline.hasExpired())
                return QTimer::singleShot(5, [this, index, deadline] { run(index, deadline, true); });
            QTextStream(stderr) << step.name << ": timed out" << Qt::endl;
        }
        ctx.tellClient("agentCompletedStep:snapshot:", {step.name, ctx.snapshot()});
        run(index + 1, QDeadlineTimer(5000));
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
