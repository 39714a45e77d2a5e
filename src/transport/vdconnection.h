#pragma once
// VDConnection joins one local root object (the target of incoming calls) to
// one remote peer over one AsyncSocket.
//
// Outgoing calls are made on the connection's remote proxy: a message sent to
// it becomes an invocation, is encoded as one message and written. Calls never
// wait; a call whose method returns an object answers a VDReturnHandler at
// once, whose callback receives the result when the reply arrives.
//
// The write gate: a new connection writes only the handshake calls
// ("registerClient", "handshakeFromAgent:") and drops everything else until
// its owner opens the gate (setAllowWriting) or starts queuing, in which case
// messages are kept and written in order by stopQueueing().
//
// Incoming: an 8-byte length read (tag 0, no timeout), then the body (tag 1,
// 60 s); the body is decoded against the local object's signatures and run,
// and only then is the next length read issued, so messages are dispatched
// strictly in order. A fault in one message (a short body, a wrong argument
// count, an unknown selector or argument type) is logged with the exception's
// name and reason and the message is skipped; the connection goes on. A body
// longer than maximumMessageLength() is not read: the connection logs it and
// closes.
//
// Everything runs on the event loop of the socket's thread; nothing is locked.

#include "runtime/object.h"
#include "transport/asyncsocket.h"
#include "transport/vdmessage.h"
#include "transport/vdmodelbridge.h"

#include <QHash>
#include <QLoggingCategory>
#include <QMutex>
#include <array>
#include <functional>
#include <memory>

class VDConnection;
class VDConnectionRemoteProxy;

//! The connection's diagnostic logging, off by default: each socket event and
//! each completed read ("zt.transport.socket"), each received call and
//! callback ("zt.transport.ipc"). Turn them on with the logging rules, e.g.
//! QT_LOGGING_RULES="zt.transport.socket.info=true". Categories, unlike plain
//! booleans, may be switched while socket threads read them.
ZT_EXPORT const QLoggingCategory &VDSocketLogging();
ZT_EXPORT const QLoggingCategory &VDIPCLogging();

class VDConnectionTestAccess;

//! The connection's events, all optional; the first argument is always the
//! connection, never the raw socket.
class ZT_EXPORT VDSocketDelegate
{
public:
    virtual ~VDSocketDelegate();
    //! @sel onSocket:didConnectToHost:port:
    virtual void onSocketDidConnectToHostPort(VDConnection *connection, const QString &host, quint16 port);
    //! @sel onSocket:willDisconnectWithError:
    virtual void onSocketWillDisconnectWithError(VDConnection *connection, const zt::Error &error);
    //! @sel onSocketDidDisconnect:
    virtual void onSocketDidDisconnect(VDConnection *connection);
    //! A listening connection accepted a peer: `newConnection` wraps the new
    //! socket, has no delegate, and lives only while someone keeps a
    //! reference to it (the delegate must).
    //! @sel onSocket:didAcceptNewSocket:
    virtual void onSocketDidAcceptNewSocket(VDConnection *listener, VDConnection *newConnection);
};

//! A local object that says which selectors the other process may call. Roots
//! that adopt it are asked directly; others are asked "acceptsSelector:" by
//! selector, or else whether they respond to the selector at all.
class ZT_EXPORT VDAcceptingObject
{
public:
    virtual ~VDAcceptingObject();
    //! @sel acceptsSelector:
    virtual bool acceptsSelector(const zt::Selector &selector) const = 0;
};

//! Receives the result of one remote call.
class ZT_EXPORT VDReturnHandler : public zt::Object
{
    ZT_OBJECT(VDReturnHandler, zt::Object)
public:
    using Block = std::function<void(const QVariant &result)>;
    //! Stores the callback (same as setReturnHandlerBlock), so that a call and
    //! its continuation can be written as one expression.
    //! @sel returnedValue:
    void returnedValue(Block block) { setReturnHandlerBlock(std::move(block)); }
    Block returnHandlerBlock() const;
    void setReturnHandlerBlock(Block block);

private:
    mutable QMutex m_lock;
    Block m_block;
};

class ZT_EXPORT VDConnection : public zt::Object, private AsyncSocketDelegate
{
    ZT_OBJECT(VDConnection, zt::Object)
public:
    //! @sel initWithDelegate:
    static zt::Ref<VDConnection> createWithDelegate(VDSocketDelegate *delegate);
    //! Takes ownership of `socket` (a new unconnected one when null), becomes
    //! its delegate and issues the first length read.
    //! @sel initWithInnerSocket:delegate:
    static zt::Ref<VDConnection> createWithInnerSocketDelegate(zt::Ref<AsyncSocket> socket,
                                                               VDSocketDelegate *delegate);

    //! @sel proxyForRemoteObject
    VDConnectionRemoteProxy *proxyForRemoteObject() const { return m_remoteProxy.get(); }
    //! The methods the remote root offers. Not owned.
    //! @sel setProtocolForRemoteObject:
    void setProtocolForRemoteObject(const zt::Protocol *protocol);
    //! The target of incoming calls. Not owned.
    //! @sel setLocalObject:
    void setLocalObject(zt::Object *object);
    zt::Object *localObject() const { return m_localObject; }

    //! @sel startQueueing
    void startQueueing();
    //! @sel stopQueueing
    void stopQueueing();
    //! One write of a whole message (tag 0, 60 seconds).
    //! @sel sendDataToRemoteObject:
    void sendDataToRemoteObject(const QByteArray &message);
    //! The send path of the remote proxy.
    //! @sel _sendInvocationToRemoteObject:
    void sendInvocationToRemoteObject(zt::Invocation &invocation);

    //! @sel socket
    AsyncSocket *socket() const { return m_socket.get(); }
    VDSocketDelegate *delegate() const { return m_delegate; }
    //! Not owned.
    void setDelegate(VDSocketDelegate *delegate) { m_delegate = delegate; }
    //! @sel allowWriting
    bool allowWriting() const { return m_allowWriting; }
    //! Sets the gate directly; leaves queuing alone.
    //! @sel setAllowWriting:
    void setAllowWriting(bool allow) { m_allowWriting = allow; }
    bool isQueuing() const { return m_isQueuing; }
    QList<QByteArray> queue() const { return m_queue; }
    //! Calls awaiting their result.
    qsizetype pendingReturnHandlerCount() const { return m_returnHandlers.size(); }

    //! Bodies longer than this close the connection (default 64 MiB).
    quint64 maximumMessageLength() const { return m_maximumMessageLength; }
    void setMaximumMessageLength(quint64 bytes) { m_maximumMessageLength = bytes; }
    //! Bounds on what one incoming argument may make the reader build.
    void setDecodeLimits(const vd::DecodeLimits &limits) { m_decodeLimits = limits; }

    //! The model's answers: signatures of forwarded model calls and the
    //! wiring check of object arguments. Not owned; null (the default) means
    //! no forwarded calls and no wiring check before the property-list one.
    void setModelBridge(const VDModelBridge *bridge) { m_bridge = bridge; }
    const VDModelBridge *modelBridge() const { return m_bridge; }

protected:
    void dealloc() override;

private:
    friend class VDConnectionRemoteProxy;
    friend class VDConnectionTestAccess;
    VDConnection() = default;
    void initWithInnerSocketDelegate(zt::Ref<AsyncSocket> socket, VDSocketDelegate *delegate);
    void issueLengthRead();
    //! Logs a body length over the limit.
    bool bodyLengthAllowed(quint64 length) const;
    //! Decodes and runs one body; a fault is logged and the body skipped.
    void receiveBody(const QByteArray &body);
    void dispatchBody(const QByteArray &body);
    void receiveReply(const zt::Invocation &invocation);
    bool localObjectAccepts(const zt::Selector &selector) const;

    // AsyncSocketDelegate
    void onSocketWillDisconnectWithError(AsyncSocket *sock, const zt::Error &error) override;
    void onSocketDidDisconnect(AsyncSocket *sock) override;
    void onSocketDidAcceptNewSocket(AsyncSocket *sock, AsyncSocket *newSocket) override;
    void onSocketDidConnectToHostPort(AsyncSocket *sock, const QString &host, quint16 port) override;
    void onSocketDidReadDataWithTag(AsyncSocket *sock, const QByteArray &data, long tag) override;
    void onSocketDidWriteDataWithTag(AsyncSocket *sock, long tag) override;

    zt::Ref<AsyncSocket> m_socket;
    VDSocketDelegate *m_delegate = nullptr;
    QHash<QString, zt::Ref<VDReturnHandler>> m_returnHandlers;
    zt::Object *m_localObject = nullptr;
    const VDAcceptingObject *m_acceptor = nullptr; // m_localObject, when it adopts the interface
    zt::Ref<VDConnectionRemoteProxy> m_remoteProxy;
    bool m_allowWriting = false;
    bool m_isQueuing = false;
    QList<QByteArray> m_queue;
    quint64 m_maximumMessageLength = quint64(64) << 20;
    vd::DecodeLimits m_decodeLimits;
    const VDModelBridge *m_bridge = nullptr;
};

//! The object on which outgoing calls are made. Every message it does not
//! define is looked up (the remote protocol; for forwarded model calls, the
//! connection's model bridge) and handed to the connection's send path.
class ZT_EXPORT VDConnectionRemoteProxy : public zt::Object
{
    ZT_OBJECT(VDConnectionRemoteProxy, zt::Object)
public:
    //! @sel initWithTarget:
    explicit VDConnectionRemoteProxy(VDConnection *target = nullptr);
    ~VDConnectionRemoteProxy() override;
    //! @sel setProtocolForRemoteObject:
    void setProtocolForRemoteObject(const zt::Protocol *protocol);
    //! @sel acceptsSelector:
    bool acceptsSelector(const zt::Selector &selector) const;
    zt::MethodSignature methodSignatureForSelector(const zt::Selector &selector) const override;
    void forwardInvocation(zt::Invocation &invocation) override;
    VDConnection *target() const { return m_target; }

private:
    friend class VDConnection;
    VDConnection *m_target = nullptr; // the owning connection
    const zt::Protocol *m_remoteProtocol = nullptr;
    // Signatures found in the class or the protocols, by the identity of the
    // selector's characters (runtime/fastpath_p.h). Forwarded model calls are
    // not cached: their answer depends on the directory.
    struct SignatureCache;
    std::unique_ptr<SignatureCache> m_signatureCache;
};
