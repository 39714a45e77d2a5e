// The client of the model scenario: mirrors the agent's model and, after
// each step, compares the dictionary form of every object the agent lists
// with its own mirror's, printing
//   STEP <name>: OK            or
//   STEP <name>: MISMATCH      followed by one "  <difference>" line each
// and "DONE <steps>" at the end. Usage: zt-e2e-model-client <port>.

#include "core/ztclientnode.h"
#include "core/ztdirectory.h"
#include "model_diff.h"
#include "model_scenario.h"
#include "network_classes.h"
#include "runtime/process.h"

#include <QCoreApplication>
#include <QTextStream>
#include <QTimer>

namespace {

QTextStream out(stdout);

struct Events : ZTClientNodeDelegate
{
    void nodeDidDisconnect(ZTClientNode *) override { QCoreApplication::exit(3); }
};

} // namespace

class ScenarioClientRoot : public ZTRootObject
{
    ZT_OBJECT(ScenarioClientRoot, ZTRootObject)
public:
    void agentCompletedStepSnapshot(const QString &step, const QVariantMap &snapshot)
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
                differences +=
                    zt::apps::describeDifferences(it.value(), comparedForm(mirror.get()), it.key());
        }
        out << "STEP " << step << (differences.isEmpty() ? ": OK" : ": MISMATCH") << '\n';
        for (const QString &d : differences)
            out << "  " << d << '\n';
        out.flush();
    }
    //! The client's own action on its mirror (a reset of counters read here).
    void agentAsksClientToPerformOnObjectWithID(const QString &selector, const QString &uuid)
    {
        if (zt::Ref<ZTAbstractIPC> mirror = ZTDirectory::sharedInstance()->objectWithID(uuid))
            mirror->perform(zt::Selector(selector.toLatin1()));
    }
    void agentFinished(qint64 steps)
    {
        out << "DONE " << steps << Qt::endl;
        QCoreApplication::quit();
    }
};

ZT_DEFINE_CLASS_WITH_MEMBERS(ScenarioClientRoot)
void ScenarioClientRoot::registerMembers(zt::ClassBuilder<ScenarioClientRoot> &b)
{
    b.method("agentCompletedStep:snapshot:", &ScenarioClientRoot::agentCompletedStepSnapshot);
    b.method("agentFinished:", &ScenarioClientRoot::agentFinished);
    b.method("agentAsksClientToPerform:onObjectWithID:",
             &ScenarioClientRoot::agentAsksClientToPerformOnObjectWithID);
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.ModelScenario"));
    if (argc < 2)
        return 64;
    auto directory = zt::make<ClientNetworkDirectory>(); // first: its fixed UUID is shared
    directory->init();
    Events events;
    zt::Ref<ZTClientNode> node = ZTClientNode::create<ScenarioRoot>(&events);
    node->setRootClass(ScenarioClientRoot::staticClassInfo());
    if (!node->connectToHost(QStringLiteral("127.0.0.1"), quint16(QByteArray(argv[1]).toUInt())))
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
