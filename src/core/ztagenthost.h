#pragma once
// ZTAgentHost: the agent's end of the mirroring link. It listens on a local
// port, serves every peer that connects, answers each "registerClient" with
// "handshakeFromAgent:" carrying the dictionary form of the model's root
// object (the initial state), then opens that client's write gate.
//
// A large initial state goes in pieces: a list in an object's dictionary
// form longer than initialStatePieceSize(), under a key the object inserts
// into by index, keeps its first piece in the handshake and the rest follows
// at once, right after it, as that client's own insertions
// ("agentDidInsertValues:atIndexes:forKey:objectID:") of a piece each. The
// client builds each piece while the agent encodes the next, and a client's
// model ends as it would from one message; it is complete once those
// insertions are applied, before any later change.
//
// Clients: any number. A peer is a client once it registered; until then
// nothing but the handshake is written to it. A peer that misbehaves (an
// oversized length, a dropped connection) loses its own connection only.
//
// Fan-out: the host is the agent's application delegate. Its counterpart
// sends every change message and every forwarded call to each registered
// client, in registration order. A call whose method returns an object
// answers the first client's VDReturnHandler; the other clients' results are
// dropped when they arrive.
//
// Events (all on the event loop of the thread that listens):
//   hostDidRegisterClient  a client registered and holds the initial state;
//                          changes made from now on reach it
//   hostDidLoseClient      a registered client went away (not told for
//                          peers that never registered)
// An accepted connection also reports that it connected; the host ignores
// that report, since registering is the client's move.

#include "core/ztapplication.h"
#include "core/ztrootobject.h"

class ZTAgentHost;

class ZT_EXPORT ZTAgentHostDelegate
{
public:
    virtual ~ZTAgentHostDelegate();
    virtual void hostDidRegisterClient(ZTAgentHost *host, VDConnection *client);
    virtual void hostDidLoseClient(ZTAgentHost *host, VDConnection *client);
};

class ZT_EXPORT ZTAgentHost : public zt::Object,
                              public ZTApplicationDelegate,
                              private ZTRootOwner,
                              private VDSocketDelegate
{
    ZT_OBJECT(ZTAgentHost, zt::Object)
public:
    //! A host for the model rooted at `root` (not owned; it must stay
    //! registered while the host serves). Neither argument is owned.
    static zt::Ref<ZTAgentHost> create(ZTAbstractIPC *root, ZTAgentHostDelegate *delegate = nullptr);

    //! The root class of every connection (ZTRootObject or a subclass).
    void setRootClass(const zt::ClassInfo &cls) { m_rootClass = &cls; }
    //! What the clients' roots offer (default ZTRootObject::clientRootProtocol()). Not owned.
    void setClientProtocol(const zt::Protocol *protocol) { m_clientProtocol = protocol; }
    //! The most elements of one list in one message of the initial state
    //! (default 512); 0 sends the state as one message.
    void setInitialStatePieceSize(qsizetype size) { m_pieceSize = qMax<qsizetype>(size, 0); }
    qsizetype initialStatePieceSize() const { return m_pieceSize; }

    //! Listens (port 0: any free port) and becomes the application delegate.
    bool listen(const QString &interface, quint16 port, zt::Error *error = nullptr);
    quint16 port() const;
    //! The registered clients, in registration order.
    QList<VDConnection *> clients() const;
    //! Stops listening and drops every peer; no events are sent.
    void close();

    // ZTApplicationDelegate
    zt::Object *counterpart() const override;
    void sendForwardedInvocation(zt::Invocation &invocation, const ZTAbstractIPC *object,
                                 const zt::Selector &selector) override;
    //! Sends one call to every registered client; the first client's result is kept.
    void sendToClients(zt::Invocation &invocation);

protected:
    void dealloc() override;

private:
    struct Peer
    {
        zt::Ref<VDConnection> connection;
        zt::Ref<ZTRootObject> root;
        bool registered = false;
    };
    ZTAgentHost() = default;
    Peer *peerFor(const VDConnection *connection);
    void drop(VDConnection *connection);

    void rootDidReceiveRegisterClient(ZTRootObject *root) override;
    void onSocketDidAcceptNewSocket(VDConnection *listener, VDConnection *accepted) override;
    void onSocketDidDisconnect(VDConnection *connection) override;

    ZTAbstractIPC *m_root = nullptr;
    ZTAgentHostDelegate *m_delegate = nullptr;
    const zt::ClassInfo *m_rootClass = &ZTRootObject::staticClassInfo();
    const zt::Protocol *m_clientProtocol = &ZTRootObject::clientRootProtocol();
    zt::Ref<VDConnection> m_listener;
    QList<Peer> m_peers;             // accepted, in order of acceptance
    QList<VDConnection *> m_clients; // registered, in order of registration
    zt::Ref<zt::Object> m_fanOut;
    qsizetype m_pieceSize = 512;
};
