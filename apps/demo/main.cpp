// Demo: an agent-side chat model whose changes are printed as the exact
// messages its proxies hand to the remote root (the client's root object).
//
// Until the two processes are joined by a connection, the remote root here is
// a printer; the messages are the ones a client would receive.

#include "core/ztabstractipc.h"
#include "core/ztapplication.h"
#include "core/ztdirectory.h"
#include "runtime/format.h"
#include "runtime/invocation.h"
#include "runtime/kvc.h"
#include "runtime/plist.h"
#include "runtime/process.h"

#include <QCoreApplication>
#include <QTextStream>

namespace {

QTextStream out(stdout);

class DemoChannel : public ZTAbstractIPC
{
    ZT_OBJECT(DemoChannel, ZTAbstractIPC)
public:
    QString name() const { return m_name; }
    void setName(const QString &v) { setAndNotify(m_name, v, QStringLiteral("name")); }
    QString topic() const { return m_topic; }
    void setTopic(const QString &v) { setAndNotify(m_topic, v, QStringLiteral("topic")); }
    QVariantMap dictionary() const override
    {
        QVariantMap d = super::dictionary();
        d.insert(QStringLiteral("name"), m_name);
        d.insert(QStringLiteral("topic"), m_topic);
        return d;
    }

private:
    QString m_name, m_topic;
};

class DemoConnection : public ZTAbstractIPC
{
    ZT_OBJECT(DemoConnection, ZTAbstractIPC)
public:
    qint64 status() const { return m_status; }
    void setStatus(qint64 v) { setAndNotify(m_status, v, QStringLiteral("status")); }
    QList<zt::Ref<DemoChannel>> channels() const { return m_channels; }
    void insertChannelsAtIndexes(const QList<zt::Ref<DemoChannel>> &list, const zt::IndexSet &indexes)
    {
        qsizetype k = 0;
        for (quint64 i : indexes)
            m_channels.insert(qsizetype(i), list[k++]);
    }
    void removeChannelsAtIndexes(const zt::IndexSet &indexes)
    {
        for (auto r = indexes.ranges().rbegin(); r != indexes.ranges().rend(); ++r)
            m_channels.remove(qsizetype(r->location), qsizetype(r->length));
    }
    QVariantList channelDictionaries() const
    {
        QVariantList list;
        for (const auto &c : m_channels)
            list.append(c->dictionary());
        return list;
    }
    QString replacementKeyForWiring(const QString &key) const override
    {
        return key == u"channels" ? QStringLiteral("channelDictionaries")
                                  : super::replacementKeyForWiring(key);
    }
    void processOutgoingLine(const QString &) {}
    void nilify() override { m_channels.clear(); }

private:
    qint64 m_status = 3;
    QList<zt::Ref<DemoChannel>> m_channels;
};

// The client's root, as seen from the agent: prints what would be sent.
class PrintingRoot : public zt::Object
{
    ZT_OBJECT(PrintingRoot, zt::Object)
public:
    zt::MethodSignature methodSignatureForSelector(const zt::Selector &sel) const override
    {
        const zt::MethodSignature s = ZTIPCProxy::agentChangeProtocol().methodSignature(sel);
        return s.isValid() ? s : Object::methodSignatureForSelector(sel);
    }
    void forwardInvocation(zt::Invocation &inv) override
    {
        out << QString::fromLatin1(inv.selector()) << '\n';
        qsizetype bytes = 0;
        for (const QVariant &arg : inv.arguments()) {
            const QString text = zt::describe(arg).replace(u'\n', QStringLiteral("\n      "));
            out << "    " << zt::valueClassName(arg) << ": " << text << '\n';
            bytes += zt::plist::isPropertyList(arg) ? zt::plist::writeBinary(arg).size() : 16;
        }
        out << "    (" << bytes << " bytes of arguments on the wire)\n\n";
        out.flush();
    }
};

class Delegate : public ZTApplicationDelegate
{
public:
    zt::Object *counterpart() const override { return root.get(); }
    zt::Ref<PrintingRoot> root = zt::make<PrintingRoot>();
};

} // namespace

ZT_DEFINE_CLASS(DemoChannel)
void DemoChannel::registerMembers(zt::ClassBuilder<DemoChannel> &b)
{
    b.property("name", &DemoChannel::name, &DemoChannel::setName);
    b.property("topic", &DemoChannel::topic, &DemoChannel::setTopic);
}

ZT_DEFINE_CLASS(DemoConnection)
void DemoConnection::registerMembers(zt::ClassBuilder<DemoConnection> &b)
{
    b.property("status", &DemoConnection::status, &DemoConnection::setStatus);
    b.method("channels", &DemoConnection::channels);
    b.method("insertChannels:atIndexes:", &DemoConnection::insertChannelsAtIndexes);
    b.method("removeChannelsAtIndexes:", &DemoConnection::removeChannelsAtIndexes);
    b.method("channelDictionaries", &DemoConnection::channelDictionaries);
    b.method("processOutgoingLine:", &DemoConnection::processOutgoingLine);
}

ZT_DEFINE_CLASS(PrintingRoot)
void PrintingRoot::registerMembers(zt::ClassBuilder<PrintingRoot> &) {}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    zt::process::setApplicationIdentifier(QStringLiteral("com.zintaro.Zintaro2Agent"));
    Delegate delegate;
    ZTApplication::setDelegate(&delegate);

    out << "Zintaro Core demo: the agent's model changes, as the messages sent to the client.\n\n";

    auto connection = zt::make<DemoConnection>();
    connection->init();
    out << "== connection " << connection->description() << " goes online\n";
    connection->setStatus(0);

    auto channel = zt::make<DemoChannel>();
    channel->init();
    channel->setName(QStringLiteral("#zintaro"));
    out << "== the connection joins #zintaro\n";
    connection->mutableArrayValueForKey(QStringLiteral("channels")).addObject(zt::objectValue(channel.get()));

    out << "== the topic changes\n";
    channel->setTopic(QStringLiteral("Split-process IRC, correct to the last byte"));

    out << "== the agent asks the client's mirror of the connection to run an action\n";
    connection->counterpart()->perform("processOutgoingLine:", {QStringLiteral("/me waves")});

    out << "== the connection leaves #zintaro\n";
    connection->mutableArrayValueForKey(QStringLiteral("channels")).removeObjectAtIndex(0);
    channel->invalidate();
    connection->invalidate();
    out << "Objects left in the directory: " << ZTDirectory::sharedInstance()->count() << "\n";
    ZTApplication::setDelegate(nullptr);
    return 0;
}
