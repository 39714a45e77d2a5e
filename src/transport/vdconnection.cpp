#include "transport/vdconnection.h"

#include "runtime/exception.h"
#include "runtime/fastpath_p.h"
#include "runtime/format.h"
#include "runtime/logging.h"
#include "runtime/process.h"

#include "transport/vdconnection_p.h"

#include <QtEndian>
#include <cstring>

// Info lines (what zt::log writes) are off until a logging rule turns them on.
Q_LOGGING_CATEGORY(VDSocketLogging, "zt.transport.socket", QtWarningMsg)
Q_LOGGING_CATEGORY(VDIPCLogging, "zt.transport.ipc", QtWarningMsg)

namespace {
constexpr long LengthTag = 0;
constexpr long BodyTag = 1;
constexpr double BodyTimeout = 60.0;
constexpr double WriteTimeout = 60.0;
constexpr qint64 SendBufferSize = qint64(4) << 20;

bool isHandshake(const zt::Selector &selector)
{
    return selector == "registerClient" || selector == "handshakeFromAgent:";
}
} // namespace

// ---- delegate defaults ----

VDSocketDelegate::~VDSocketDelegate() = default;
void VDSocketDelegate::onSocketDidConnectToHostPort(VDConnection *, const QString &, quint16) {}
void VDSocketDelegate::onSocketWillDisconnectWithError(VDConnection *, const zt::Error &) {}
void VDSocketDelegate::onSocketDidDisconnect(VDConnection *) {}
void VDSocketDelegate::onSocketDidAcceptNewSocket(VDConnection *, VDConnection *) {}

VDAcceptingObject::~VDAcceptingObject() = default;

// ---- VDReturnHandler ----

ZT_DEFINE_CLASS(VDReturnHandler)

VDReturnHandler::Block VDReturnHandler::returnHandlerBlock() const
{
    QMutexLocker locker(&m_lock);
    return m_block;
}

void VDReturnHandler::setReturnHandlerBlock(Block block)
{
    QMutexLocker locker(&m_lock);
    m_block = std::move(block);
}

// ---- VDConnection ----

ZT_DEFINE_CLASS_WITH_MEMBERS(VDConnection)

void VDConnection::registerMembers(zt::ClassBuilder<VDConnection> &b)
{
    b.method("startQueueing", &VDConnection::startQueueing);
    b.method("stopQueueing", &VDConnection::stopQueueing);
    b.method("sendDataToRemoteObject:", &VDConnection::sendDataToRemoteObject);
    b.property("allowWriting", &VDConnection::allowWriting, &VDConnection::setAllowWriting);
}

zt::Ref<VDConnection> VDConnection::createWithDelegate(VDSocketDelegate *delegate)
{
    return createWithInnerSocketDelegate(nullptr, delegate);
}

zt::Ref<VDConnection> VDConnection::createWithInnerSocketDelegate(zt::Ref<AsyncSocket> socket,
                                                                  VDSocketDelegate *delegate)
{
    auto connection = zt::Ref<VDConnection>::adopt(new VDConnection);
    connection->initWithInnerSocketDelegate(std::move(socket), delegate);
    return connection;
}

void VDConnection::initWithInnerSocketDelegate(zt::Ref<AsyncSocket> socket, VDSocketDelegate *delegate)
{
    m_remoteProxy = zt::make<VDConnectionRemoteProxy>(this);
    m_delegate = delegate;
    m_socket = socket ? std::move(socket) : AsyncSocket::create();
    m_socket->setDelegate(this);
    m_socket->enableReadAhead(); // never switches to TLS; a frame costs a copy, not a stream call
    // A model changes in bursts between turns of the event loop (a thousand
    // changes is a few hundred kilobytes): room in the kernel for a whole
    // burst lets it leave at once instead of waiting in the write queue.
    m_socket->setSendBufferSize(SendBufferSize);
    issueLengthRead();
}

void VDConnection::dealloc()
{
    m_queue.clear();
    m_delegate = nullptr;
    m_returnHandlers.clear();
    if (m_socket) {
        m_socket->disconnectAfterWriting(); // a listener closes at once
        m_socket->setDelegate(nullptr);
        m_socket.reset();
    }
    if (m_remoteProxy) {
        m_remoteProxy->m_target = nullptr;
        m_remoteProxy.reset();
    }
    super::dealloc();
}

void VDConnection::setProtocolForRemoteObject(const zt::Protocol *protocol)
{
    m_remoteProxy->setProtocolForRemoteObject(protocol);
}

void VDConnection::startQueueing()
{
    if (m_isQueuing)
        return;
    m_isQueuing = true;
    m_allowWriting = false;
}

void VDConnection::stopQueueing()
{
    if (!m_isQueuing)
        return;
    m_isQueuing = false;
    m_allowWriting = true;
    const QList<QByteArray> queued = std::exchange(m_queue, {});
    for (const QByteArray &message : queued)
        sendDataToRemoteObject(message);
}

void VDConnection::sendDataToRemoteObject(const QByteArray &message)
{
    if (m_socket)
        m_socket->writeDataWithTimeoutTag(message, WriteTimeout, LengthTag);
}

void VDConnection::sendInvocationToRemoteObject(zt::Invocation &invocation)
{
    const bool allow = m_allowWriting;
    QString handlerID;
    if (invocation.methodSignature().methodReturnLength() == 8) {
        handlerID = zt::process::globallyUniqueString();
        auto handler = zt::make<VDReturnHandler>();
        m_returnHandlers.insert(handlerID, handler);
        invocation.setReturnValue(zt::objectValue(handler.get()));
    }
    const QByteArray message = vd::dataFromInvocation(invocation, handlerID, m_bridge);
    if (allow || isHandshake(invocation.selector()))
        sendDataToRemoteObject(message);
    else if (m_isQueuing)
        m_queue.append(message);
    // else: the gate is closed and nothing is kept
}

void VDConnection::issueLengthRead()
{
    if (m_socket)
        m_socket->readDataToLengthWithTimeoutTag(8, -1.0, LengthTag);
}

void VDConnection::setLocalObject(zt::Object *object)
{
    m_localObject = object;
    m_acceptor = dynamic_cast<const VDAcceptingObject *>(object);
}

bool VDConnection::localObjectAccepts(const zt::Selector &selector) const
{
    if (!m_localObject)
        return false;
    if (m_acceptor)
        return m_acceptor->acceptsSelector(selector);
    if (m_localObject->respondsToSelector("acceptsSelector:"))
        return m_localObject->perform("acceptsSelector:", {QString::fromLatin1(selector)}).toBool();
    return m_localObject->respondsToSelector(selector);
}

void VDConnection::receiveReply(const zt::Invocation &invocation)
{
    const qsizetype n = invocation.methodSignature().numberOfArguments();
    const QVariant result = invocation.argumentAtIndex(n - 2);
    const QString handlerID = invocation.argumentAtIndex(n - 1).toString();
    zt::log(VDIPCLogging, u"Received callback: value=%@", result);
    zt::Ref<VDReturnHandler> handler = m_returnHandlers.take(handlerID);
    if (handler) {
        if (const VDReturnHandler::Block block = handler->returnHandlerBlock())
            block(result);
    }
}

void VDConnection::dispatchBody(const QByteArray &body)
{
    QString handlerID;
    std::optional<zt::Invocation> invocation =
        vd::invocationFromData(body, m_localObject, &handlerID, m_decodeLimits);
    if (!invocation)
        return;
    if (vd::isReturnedValueSelector(invocation->selector())) {
        receiveReply(*invocation);
        return;
    }
    if (!localObjectAccepts(invocation->selector())) {
        zt::log(ztTransport, u"Warning: local object %@ does not respond to selector %@", m_localObject,
                QString::fromLatin1(invocation->selector()));
        return;
    }
    if (VDIPCLogging().isInfoEnabled())
        zt::log(VDIPCLogging, u"Received call: %@", QString::fromLatin1(invocation->selector()));
    invocation->invoke();
    // One selector string for every reply, so the proxy remembers its signature.
    static const zt::Selector reply(vd::ReturnedValueSelector);
    if (invocation->methodSignature().methodReturnLength() == 8 && m_remoteProxy)
        m_remoteProxy->perform(reply, {invocation->returnValue(), handlerID});
}

// ---- socket events ----

bool VDConnection::bodyLengthAllowed(quint64 length) const
{
    if (length <= m_maximumMessageLength)
        return true;
    zt::log(ztTransport, u"Message of %lu bytes exceeds the limit of %lu bytes; closing the connection",
            length, m_maximumMessageLength);
    return false;
}

void VDConnection::receiveBody(const QByteArray &body)
{
    try {
        dispatchBody(body);
    } catch (const std::bad_alloc &) {
        throw; // the connection cannot go on consistently: its reader closes it
    } catch (const zt::Exception &e) {
        zt::log(ztTransport, u"%@: %@", e.name(), e.reason());
    } catch (const std::exception &e) {
        zt::log(ztTransport, u"Exception while dispatching a message: %s", e.what());
    }
}

void VDConnectionTestAccess::receive(VDConnection *connection, const QByteArray &bytes)
{
    zt::Ref<VDConnection> keepAlive(connection);
    qsizetype position = 0;
    while (bytes.size() - position >= 8) {
        const quint64 length = qFromBigEndian<quint64>(bytes.constData() + position);
        position += 8;
        if (!connection->bodyLengthAllowed(length) || length > quint64(bytes.size() - position))
            return;
        try {
            connection->receiveBody(bytes.mid(position, qsizetype(length)));
        } catch (const std::bad_alloc &) {
            zt::log(ztTransport, u"Out of memory while reading a message; closing the connection");
            return;
        }
        position += qsizetype(length);
    }
}

void VDConnection::onSocketDidReadDataWithTag(AsyncSocket *, const QByteArray &data, long tag)
{
    zt::Ref<VDConnection> keepAlive(this); // a delegate or a call may drop the last reference
    if (VDSocketLogging().isInfoEnabled()) {
        zt::log(VDSocketLogging, u"%@", QStringLiteral("onSocket:didReadData:withTag:"));
        zt::log(VDSocketLogging, u"%@ [tag=%ld]", data, qint64(tag));
    }
    try {
        if (tag == LengthTag) {
            quint64 be = 0;
            if (data.size() == 8)
                std::memcpy(&be, data.constData(), 8);
            const quint64 length = qFromBigEndian(be);
            if (!bodyLengthAllowed(length)) {
                m_socket->disconnect();
                return;
            }
            m_socket->readDataToLengthWithTimeoutTag(qsizetype(length), BodyTimeout, BodyTag);
            return;
        }
        if (tag != BodyTag)
            return;
        receiveBody(data);
        issueLengthRead();
    } catch (const std::bad_alloc &) {
        // No read would be queued again: without closing, the connection would hang.
        zt::log(ztTransport, u"Out of memory while reading a message; closing the connection");
        if (m_socket)
            m_socket->disconnect();
    }
}

void VDConnection::onSocketDidWriteDataWithTag(AsyncSocket *, long)
{
    zt::log(VDSocketLogging, u"%@", QStringLiteral("onSocket:didWriteDataWithTag:"));
}

void VDConnection::onSocketDidConnectToHostPort(AsyncSocket *, const QString &host, quint16 port)
{
    zt::log(VDSocketLogging, u"%@", QStringLiteral("onSocket:didConnectToHost:port:"));
    if (m_delegate)
        m_delegate->onSocketDidConnectToHostPort(this, host, port);
}

void VDConnection::onSocketWillDisconnectWithError(AsyncSocket *, const zt::Error &error)
{
    zt::log(VDSocketLogging, u"%@", QStringLiteral("onSocket:willDisconnectWithError:"));
    if (m_delegate)
        m_delegate->onSocketWillDisconnectWithError(this, error);
}

void VDConnection::onSocketDidDisconnect(AsyncSocket *)
{
    zt::log(VDSocketLogging, u"%@", QStringLiteral("onSocketDidDisconnect:"));
    if (m_delegate)
        m_delegate->onSocketDidDisconnect(this);
}

void VDConnection::onSocketDidAcceptNewSocket(AsyncSocket *, AsyncSocket *newSocket)
{
    zt::log(VDSocketLogging, u"%@", QStringLiteral("onSocket:didAcceptNewSocket:"));
    zt::Ref<VDConnection> accepted = createWithInnerSocketDelegate(zt::Ref<AsyncSocket>(newSocket), nullptr);
    if (m_delegate)
        m_delegate->onSocketDidAcceptNewSocket(this, accepted.get());
}

// ---- VDConnectionRemoteProxy ----

ZT_DEFINE_CLASS(VDConnectionRemoteProxy)

bool VDConnectionRemoteProxy::acceptsSelector(const zt::Selector &selector) const
{
    return methodSignatureForSelector(selector).isValid();
}

struct VDConnectionRemoteProxy::SignatureCache
    : zt::fastpath::AddressKeyedCache<zt::Selector, zt::MethodSignature, 8>
{
};

VDConnectionRemoteProxy::VDConnectionRemoteProxy(VDConnection *target)
    : m_target(target), m_signatureCache(std::make_unique<SignatureCache>())
{}

VDConnectionRemoteProxy::~VDConnectionRemoteProxy() = default;

void VDConnectionRemoteProxy::setProtocolForRemoteObject(const zt::Protocol *protocol)
{
    m_remoteProtocol = protocol;
    m_signatureCache->clear();
}

zt::MethodSignature VDConnectionRemoteProxy::methodSignatureForSelector(const zt::Selector &selector) const
{
    if (const zt::MethodSignature *cached = m_signatureCache->find(selector))
        return *cached;
    auto remember = [&](const zt::MethodSignature &signature) {
        m_signatureCache->store(selector, signature);
        return signature;
    };
    if (const zt::MethodEntry *own = classInfo().instanceMethod(selector))
        return remember(own->signature);
    const zt::Protocol *protocol =
        vd::isReturnedValueSelector(selector) ? &vd::VDInternalVDConnectionProtocol() : m_remoteProtocol;
    if (protocol) {
        const zt::MethodSignature s = protocol->methodSignature(selector);
        if (s.isValid())
            return remember(s);
    }
    if (m_target && m_target->m_bridge) {
        const zt::MethodSignature s = m_target->m_bridge->signatureForForwardedSelector(selector);
        if (s.isValid())
            return s;
    }
    const QString name = QString::fromLatin1(selector);
    zt::log(ztTransport, u"ERROR No method signature for %@", name);
    return {};
}

void VDConnectionRemoteProxy::forwardInvocation(zt::Invocation &invocation)
{
    // A message sent to the proxy itself was resolved here already. One
    // forwarded to it under a new name (a model object's counterpart renames
    // the selector) takes the signature that name resolves to here.
    if (invocation.target() == this) {
        if (m_target)
            m_target->sendInvocationToRemoteObject(invocation);
        return;
    }
    const zt::MethodSignature signature = methodSignatureForSelector(invocation.selector());
    if (!signature.isValid())
        doesNotRecognizeSelector(invocation.selector());
    if (!m_target)
        return;
    if (signature == invocation.methodSignature()) {
        m_target->sendInvocationToRemoteObject(invocation);
        return;
    }
    zt::Invocation reshaped = invocation.reshaped(signature);
    m_target->sendInvocationToRemoteObject(reshaped);
    invocation.setReturnValue(reshaped.returnValue());
}
