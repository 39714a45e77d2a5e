#pragma once
// ZTRootObject: the receiving half of the mirroring protocol, the local object
// of a connection in either process (ZTIPCProxy is the sending half).
//
// - The eight change messages look the object ID up in the directory (unknown
//   IDs are ignored) and apply the change by key-value coding under the wired
//   key: a setting through the key's setter, an insertion or a removal
//   through its ordered to-many view, a replacement as a removal followed by
//   an insertion at the same indexes. The receiving object is not the
//   directing side of its pair, so it does not send the change back.
// - A selector "<autoprefix>_<class>_<UUID>_<selector>" names a model object
//   and its method: it is parsed once (ZTForwardedSelector), the object found
//   once per message, and the call runs on it. A result travels back through
//   the connection like any other.
// - The handshake calls ("registerClient" in the agent, "handshakeFromAgent:"
//   in a client) go to the root's owner, the ZTAgentHost or ZTClientNode.
//
// One root serves one connection. Applications that offer more root methods
// subclass it, register them, and name the subclass to their host or node
// (setRootClass); the other side lists them in its remote protocol.

#include "core/ztabstractipc.h"
#include "transport/vdconnection.h"

#include <memory>

class ZTRootObject;

//! The owner of a root: told of the handshake calls that reach it.
class ZT_EXPORT ZTRootOwner
{
public:
    virtual ~ZTRootOwner();
    //! A client asked to be registered (agent side).
    virtual void rootDidReceiveRegisterClient(ZTRootObject *root);
    //! The agent answered with its initial state (client side).
    virtual void rootDidReceiveHandshake(ZTRootObject *root, const QVariantMap &state);
};

class ZT_EXPORT ZTRootObject : public zt::Object, public VDAcceptingObject
{
    ZT_OBJECT(ZTRootObject, zt::Object)
public:
    ZTRootObject();
    ~ZTRootObject() override;
    //! The core's answers to a connection: forwarded-call signatures (looked
    //! up in the directory) and the wiring check (ZTIPCProxy::canWireValue).
    static const VDModelBridge &modelBridge();
    //! What a client may send to the agent's root: the four client change
    //! messages and "registerClient".
    static const zt::Protocol &agentRootProtocol();
    //! What the agent may send to a client's root: the four agent change
    //! messages and "handshakeFromAgent:".
    static const zt::Protocol &clientRootProtocol();

    //! Serves `connection` (neither is owned): becomes its local object and
    //! gives it the model bridge.
    void attach(ZTRootOwner *owner, VDConnection *connection);
    VDConnection *connection() const { return m_connection; }
    ZTRootOwner *owner() const { return m_owner; }

    // Changes from the agent.
    //! @sel agentDidChangeValue:forKey:objectID:
    void agentDidChangeValueForKeyObjectID(const QVariant &value, const QString &key,
                                           const QString &objectID);
    //! @sel agentDidInsertValues:atIndexes:forKey:objectID:
    void agentDidInsertValuesAtIndexesForKeyObjectID(const QVariantList &values, const zt::IndexSet &indexes,
                                                     const QString &key, const QString &objectID);
    //! @sel agentDidRemoveValuesAtIndexes:forKey:objectID:
    void agentDidRemoveValuesAtIndexesForKeyObjectID(const zt::IndexSet &indexes, const QString &key,
                                                     const QString &objectID);
    //! @sel agentDidReplaceValuesAtIndexes:withValues:forKey:objectID:
    void agentDidReplaceValuesAtIndexesWithValuesForKeyObjectID(const zt::IndexSet &indexes,
                                                                const QVariantList &values,
                                                                const QString &key, const QString &objectID);
    // Changes from a client; the client ID is not needed to apply them.
    //! @sel client:didChangeValue:forKey:objectID:
    void clientDidChangeValueForKeyObjectID(const QVariant &client, const QVariant &value, const QString &key,
                                            const QString &objectID);
    //! @sel client:didInsertValues:atIndexes:forKey:objectID:
    void clientDidInsertValuesAtIndexesForKeyObjectID(const QVariant &client, const QVariantList &values,
                                                      const zt::IndexSet &indexes, const QString &key,
                                                      const QString &objectID);
    //! @sel client:didRemoveValuesAtIndexes:forKey:objectID:
    void clientDidRemoveValuesAtIndexesForKeyObjectID(const QVariant &client, const zt::IndexSet &indexes,
                                                      const QString &key, const QString &objectID);
    //! @sel client:didReplaceValuesAtIndexes:withValues:forKey:objectID:
    void clientDidReplaceValuesAtIndexesWithValuesForKeyObjectID(const QVariant &client,
                                                                 const zt::IndexSet &indexes,
                                                                 const QVariantList &values,
                                                                 const QString &key, const QString &objectID);
    //! @sel registerClient
    void registerClient();
    //! @sel handshakeFromAgent:
    void handshakeFromAgent(const QVariantMap &state);

    //! Whether a selector may be called remotely: the root's own methods and
    //! forwarded calls to registered objects that have the method.
    //! @sel acceptsSelector:
    bool acceptsSelector(const zt::Selector &selector) const override;
    zt::MethodSignature methodSignatureForSelector(const zt::Selector &selector) const override;
    void forwardInvocation(zt::Invocation &invocation) override;

private:
    //! The object a forwarded selector names and the real selector; null when
    //! the selector is not one this process receives or the object is unknown.
    zt::Ref<ZTAbstractIPC> forwardedTarget(const zt::Selector &selector, zt::Selector *real) const;
    void apply(const QString &objectID, const std::function<void(ZTAbstractIPC *)> &change);

    // Selectors split into the object ID and the real selector, kept by the
    // identity of the selector's characters (runtime/fastpath_p.h): the
    // decoder hands a repeated selector over as one string.
    struct ForwardedName;
    struct ForwardedNames;
    std::unique_ptr<ForwardedNames> m_forwardedNames;
    // The object the message being dispatched names: the signature look-up,
    // the acceptance check and the call each need it, and find it here.
    // Dropped once the call has run.
    mutable zt::Selector m_resolvedSelector;
    mutable zt::Ref<ZTAbstractIPC> m_resolved;

    ZTRootOwner *m_owner = nullptr;
    VDConnection *m_connection = nullptr;
};
