// The agent of the model scenario: prints "LISTENING <port>", and once a
// client has registered runs every step of every family, sending the
// client after each step the dictionary forms of all objects
// ("agentCompletedStep:snapshot:") and at the end the number of steps
// ("agentFinished:"). Exits when its last client leaves.

#include "core/ztagenthost.h"
#include "model_scenario.h"
#include "network_classes.h"
#include "runtime/exception.h"
#include "runtime/process.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QTextStream>
#include <QTimer>

namespace {

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
    // A step with `until` waits for it, polling the event loop (the client
    // acts back), for at most five seconds.
    void runFrom(qsizetype index)
    {
        if (index == steps.size()) {
            host->counterpart()->perform("agentFinished:", {qint64(steps.size())});
            return;
        }
        const ScenarioStep &step = steps[index];
        try {
            step.run(ctx);
        } catch (const zt::Exception &e) {
            QTextStream(stderr) << step.name << ": " << e.name() << ": " << e.reason() << Qt::endl;
        }
        finish(index, QDeadlineTimer(5000));
    }
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

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
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
    QTextStream(stdout) << "LISTENING " << host->port() << Qt::endl;
    const int rc = app.exec();
    AsyncSocket::setIsTerminating(true);
    host->close();
    for (const auto &object : agent.ctx.tracked)
        object->invalidate();
    root->invalidateAll();
    invalidateNetworkDirectory(directory.get());
    return rc;
}
