#include "core/ztclientnode.h"

#include "runtime/exception.h"
#include "runtime/invocation.h"
#include "runtime/logging.h"

#include <QTimer>

ZT_DEFINE_CLASS(ZTClientNode)

ZTClientNodeDelegate::~ZTClientNodeDelegate() = default;
void ZTClientNodeDelegate::nodeDidBecomeReady(ZTClientNode *, ZTAbstractIPC *) {}
void ZTClientNodeDelegate::nodeDidDisconnect(ZTClientNode *) {}

zt::Ref<ZTClientNode> ZTClientNode::create(const zt::ClassInfo &mirrorClass, ZTClientNodeDelegate *delegate)
{
    auto node = zt::Ref<ZTClientNode>::adopt(new ZTClientNode);
    node->m_mirrorClass = &mirrorClass;
    node->m_delegate = delegate;
    return node;
}

bool ZTClientNode::connectToHost(const QString &host, quint16 port, zt::Error *error)
{
    close();
    m_root = zt::dynamicCast<ZTRootObject>(m_rootClass->createInstance());
    if (!m_root)
        return false;
    m_connection = VDConnection::createWithDelegate(this);
    m_root->attach(this, m_connection.get());
    m_connection->setProtocolForRemoteObject(m_agentProtocol);
    m_connection->setDecodeLimits(m_decodeLimits);
    ZTApplication::setDelegate(this);
    if (m_connection->socket()->connectToHostOnPortError(host, port, error))
        return true;
    close();
    return false;
}

void ZTClientNode::close()
{
    if (m_connection) {
        m_connection->setDelegate(nullptr);
        m_connection->setLocalObject(nullptr);
        m_connection->socket()->disconnect();
        m_connection.reset();
    }
    m_root.reset();
}

void ZTClientNode::dealloc()
{
    close();
    if (m_mirror)
        m_mirror->invalidate(); // the node made it: it leaves the directory with the node
    m_mirror.reset();
    if (ZTApplication::delegate() == this)
        ZTApplication::setDelegate(nullptr);
    super::dealloc();
}

void ZTClientNode::onSocketDidConnectToHostPort(VDConnection *connection, const QString &, quint16)
{
    connection->proxyForRemoteObject()->perform("registerClient");
}

void ZTClientNode::rootDidReceiveHandshake(ZTRootObject *, const QVariantMap &state)
{
    const QString uuid = state.value(QStringLiteral("description")).toString();
    if (uuid.isEmpty())
        return;
    zt::Ref<ZTAbstractIPC> mirror = ZTAbstractIPC::createCounterpartWithUUID(*m_mirrorClass, uuid);
    ZTAbstractIPC::ApplyingOtherProcess applying(mirror.get());
    for (auto it = state.cbegin(); it != state.cend(); ++it) {
        if (it.key() == u"description")
            continue;
        try {
            mirror->setValueForKey(it.value(), it.key());
        } catch (const zt::Exception &e) {
            zt::log(ztCore, u"%@: %@", e.name(), e.reason());
        }
    }
    m_mirror = mirror;
    m_connection->setAllowWriting(true);
    if (m_delegate)
        m_delegate->nodeDidBecomeReady(this, m_mirror.get());
}

void ZTClientNode::onSocketDidDisconnect(VDConnection *connection)
{
    if (connection != m_connection.get())
        return;
    // Released on the next turn: this is the connection's own callback.
    zt::Ref<VDConnection> gone = std::exchange(m_connection, {});
    gone->setDelegate(nullptr);
    gone->setLocalObject(nullptr);
    QTimer::singleShot(0, [gone] {});
    m_root.reset();
    if (m_delegate)
        m_delegate->nodeDidDisconnect(this);
}

zt::Object *ZTClientNode::counterpart() const
{
    return m_connection ? m_connection->proxyForRemoteObject() : nullptr;
}

void ZTClientNode::sendForwardedInvocation(zt::Invocation &invocation, const ZTAbstractIPC *object,
                                           const zt::Selector &selector)
{
    if (!m_connection)
        return;
    ZTIPCProxy::sendForwarded(invocation, object, selector,
                              [this](zt::Invocation &i) { m_connection->sendInvocationToRemoteObject(i); });
}
