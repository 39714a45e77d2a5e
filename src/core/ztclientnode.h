#pragma once
// ZTClientNode: a client's end of the mirroring link. It connects to the
// agent's host, registers, makes the mirror of the agent's root object from
// the initial state ("handshakeFromAgent:": the counterpart with that UUID,
// of the class the application names, every other entry set by key-value
// coding), opens its write gate and from then on applies the agent's change
// messages and forwarded calls.
//
// The node is the client's application delegate: forwarded calls and, when
// a mirror directs, its changes go to the agent, led by clientID().
//
// Events (on the event loop of the thread that connected):
//   nodeDidBecomeReady  the mirror of the agent's root holds the handshake's
//                       state; the pieces of long lists that follow it (see
//                       ZTAgentHost) arrive as insertions, before any later
//                       change
//   nodeDidDisconnect   the link is gone (also when connecting failed)

#include "core/ztapplication.h"
#include "core/ztrootobject.h"
#include "transport/vdmessage.h"

class ZTClientNode;

class ZT_EXPORT ZTClientNodeDelegate
{
public:
    virtual ~ZTClientNodeDelegate();
    virtual void nodeDidBecomeReady(ZTClientNode *node, ZTAbstractIPC *mirror);
    virtual void nodeDidDisconnect(ZTClientNode *node);
};

class ZT_EXPORT ZTClientNode : public zt::Object,
                               public ZTApplicationDelegate,
                               private ZTRootOwner,
                               private VDSocketDelegate
{
    ZT_OBJECT(ZTClientNode, zt::Object)
public:
    //! A node whose mirror of the agent's root is of class `mirrorClass`.
    static zt::Ref<ZTClientNode> create(const zt::ClassInfo &mirrorClass,
                                        ZTClientNodeDelegate *delegate = nullptr);
    template<typename T> static zt::Ref<ZTClientNode> create(ZTClientNodeDelegate *delegate = nullptr)
    {
        return create(T::staticClassInfo(), delegate);
    }

    void setRootClass(const zt::ClassInfo &cls) { m_rootClass = &cls; }
    //! What the agent's root offers (default ZTRootObject::agentRootProtocol()). Not owned.
    void setAgentProtocol(const zt::Protocol *protocol) { m_agentProtocol = protocol; }
    void setClientID(const QVariant &id) { m_clientID = id; }
    //! What one message from the agent may make this process build (the
    //! handshake of a large model is one message); applied on connecting.
    void setDecodeLimits(const vd::DecodeLimits &limits) { m_decodeLimits = limits; }

    //! Connects, registers once connected, and becomes the application delegate.
    bool connectToHost(const QString &host, quint16 port, zt::Error *error = nullptr);
    bool isReady() const { return m_mirror != nullptr; }
    //! The mirror of the agent's root; null until ready. Kept after a
    //! disconnect; invalidated when the node goes (the objects it holds are
    //! the application's to invalidate).
    ZTAbstractIPC *mirror() const { return m_mirror.get(); }
    template<typename T> T *mirror() const { return dynamic_cast<T *>(m_mirror.get()); }
    VDConnection *connection() const { return m_connection.get(); }
    ZTRootObject *root() const { return m_root.get(); }
    //! Drops the link (the mirror stays); no events are sent.
    void close();

    // ZTApplicationDelegate
    zt::Object *counterpart() const override;
    QVariant clientID() const override { return m_clientID; }
    void sendForwardedInvocation(zt::Invocation &invocation, const ZTAbstractIPC *object,
                                 const zt::Selector &selector) override;

protected:
    void dealloc() override;

private:
    ZTClientNode() = default;
    void rootDidReceiveHandshake(ZTRootObject *root, const QVariantMap &state) override;
    void onSocketDidConnectToHostPort(VDConnection *connection, const QString &host, quint16 port) override;
    void onSocketDidDisconnect(VDConnection *connection) override;

    const zt::ClassInfo *m_mirrorClass = nullptr;
    ZTClientNodeDelegate *m_delegate = nullptr;
    const zt::ClassInfo *m_rootClass = &ZTRootObject::staticClassInfo();
    const zt::Protocol *m_agentProtocol = &ZTRootObject::agentRootProtocol();
    vd::DecodeLimits m_decodeLimits;
    QVariant m_clientID;
    zt::Ref<VDConnection> m_connection;
    zt::Ref<ZTRootObject> m_root;
    zt::Ref<ZTAbstractIPC> m_mirror;
};
