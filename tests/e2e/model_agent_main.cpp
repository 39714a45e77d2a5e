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
#include <QTextStream>

namespace {

struct Agent : ZTAgentHostDelegate
{
    ScenarioContext ctx;
    bool ran = false;

    void hostDidRegisterClient(ZTAgentHost *host, VDConnection *) override
    {
        if (std::exchange(ran, true))
            return;
        qint64 count = 0;
        for (const ScenarioFamily &family : scenarioFamilies()) {
            for (const ScenarioStep &step : family.steps()) {
                try {
                    step.run(ctx);
                } catch (const zt::Exception &e) {
                    QTextStream(stderr) << step.name << ": " << e.name() << ": " << e.reason() << Qt::endl;
                }
                host->counterpart()->perform("agentCompletedStep:snapshot:", {step.name, ctx.snapshot()});
                ++count;
            }
        }
        host->counterpart()->perform("agentFinished:", {count});
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
