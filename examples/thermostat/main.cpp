// Two processes mirror one object with two properties, and the client makes
// one remote call: `zt-example-thermostat` starts itself with "--agent",
// connects, asks the agent's thermostat to raise its target, and exits once
// the mirror shows the new value.

#include "core/vdkvo.h"
#include "core/ztagenthost.h"
#include "core/ztclientnode.h"
#include "runtime/process.h"

#include <QCoreApplication>
#include <QProcess>
#include <QTimer>
#include <cstdio>

class Thermostat : public ZTAbstractIPC
{
    ZT_OBJECT(Thermostat, ZTAbstractIPC)
public:
    QString label() const { return m_label; }
    void setLabel(const QString &v) { setAndNotify(m_label, v, QStringLiteral("label")); }
    qint64 target() const { return m_target; }
    void setTarget(qint64 v) { setAndNotify(m_target, v, QStringLiteral("target")); }
    void raiseBy(qint64 degrees) { setTarget(m_target + degrees); } // the remote call
    QVariantMap dictionary() const override
    {
        QVariantMap d = super::dictionary();
        d.insert(QStringLiteral("label"), m_label);
        d.insert(QStringLiteral("target"), m_target);
        return d;
    }

private:
    QString m_label;
    qint64 m_target = 0;
};

// The client's class: forwarded calls are declared by the class above it.
class MirroredThermostat : public Thermostat
{
    ZT_OBJECT(MirroredThermostat, Thermostat)
};

ZT_DEFINE_CLASS_WITH_MEMBERS(Thermostat)
void Thermostat::registerMembers(zt::ClassBuilder<Thermostat> &b)
{
    b.property("label", &Thermostat::label, &Thermostat::setLabel);
    b.property("target", &Thermostat::target, &Thermostat::setTarget);
    b.action("raiseBy:", &Thermostat::raiseBy);
}
ZT_DEFINE_CLASS(MirroredThermostat)

struct Agent : ZTAgentHostDelegate
{
    void hostDidLoseClient(ZTAgentHost *host, VDConnection *) override
    {
        if (host->clients().isEmpty())
            QCoreApplication::quit();
    }
};

struct Client : ZTClientNodeDelegate
{
    void nodeDidBecomeReady(ZTClientNode *, ZTAbstractIPC *mirror) override
    {
        auto *t = static_cast<Thermostat *>(mirror);
        std::printf("%s is set to %lld\n", qPrintable(t->label()), t->target());
        t->addObservationToken(zt::observeKeyPathOptionsHandler(
            t, QStringLiteral("target"), zt::ObservingOption::New, [t](zt::Object *, const zt::KVOChange &) {
                std::printf("%s is now set to %lld\n", qPrintable(t->label()), t->target());
                QCoreApplication::exit(t->target() == 22 ? 0 : 1);
            }));
        t->counterpart()->perform("raiseBy:", {2});
    }
    void nodeDidDisconnect(ZTClientNode *) override { QCoreApplication::exit(1); }
};

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const bool agent = app.arguments().contains(QStringLiteral("--agent"));
    zt::process::setApplicationIdentifier(agent ? QStringLiteral("org.example.ThermostatAgent")
                                                : QStringLiteral("org.example.Thermostat"));
    if (agent) {
        auto thermostat = zt::make<Thermostat>();
        thermostat->init();
        thermostat->setLabel(QStringLiteral("hall"));
        thermostat->setTarget(20);
        Agent events;
        auto host = ZTAgentHost::create(thermostat.get(), &events);
        if (!host->listen(QStringLiteral("127.0.0.1"), 0))
            return 1;
        std::printf("%d\n", host->port());
        std::fflush(stdout);
        const int rc = app.exec();
        host->close();
        thermostat->invalidate();
        return rc;
    }
    QProcess agentProcess;
    agentProcess.start(app.applicationFilePath(), {QStringLiteral("--agent")});
    if (!agentProcess.waitForReadyRead(10000))
        return 1;
    Client events;
    auto node = ZTClientNode::create<MirroredThermostat>(&events);
    node->connectToHost(QStringLiteral("127.0.0.1"), quint16(agentProcess.readLine().trimmed().toUInt()));
    QTimer::singleShot(20000, [] { QCoreApplication::exit(2); });
    const int rc = app.exec();
    node->close();
    agentProcess.waitForFinished(10000);
    return rc;
}
