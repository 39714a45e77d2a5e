#pragma once
// ZTIPCProxy: the local stand-in for the mirror of one model object in the
// other process. Its parent (the model object that owns it) hands it every
// propagated change; the proxy reads the current value, checks that it can
// cross the process boundary, and sends one of eight change messages to the
// remote root. Any other message is forwarded under the selector
// "<prefix>_<class>_<UUID>_<selector>" to the remote root, which passes it to
// the mirror object with that UUID.
//
// The proxy answers the root object's own operations (description, className)
// itself; everything else that its class does not define is forwarded.

#include "runtime/object.h"

#include <functional>
#include <optional>

class ZTAbstractIPC;

class ZT_EXPORT ZTIPCProxy : public zt::Object
{
    ZT_OBJECT(ZTIPCProxy, zt::Object)
public:
    //! True in the agent: the application identifier ends with "Agent".
    //! Computed on first call and kept for the life of the process.
    //! @sel isAgent
    static bool isAgent();
    //! Forgets the cached answer of isAgent (for tests that play both roles).
    static void resetCachedProcessRole();
    //! The prefix of messages this process sends: "toClient" in the agent, "toAgent" in the client.
    //! @sel prefix
    static QString prefix();
    //! The prefix of messages this process receives: "toAgent" in the agent, "toClient" in the client.
    //! @sel autoprefix
    static QString autoprefix();

    //! The change messages a root object receives from the agent (four
    //! selectors) and from clients (four more, each led by the client ID).
    static const zt::Protocol &agentChangeProtocol();
    static const zt::Protocol &clientChangeProtocol();

    //! @sel canWireValue:
    static bool canWireValue(const QVariant &value);
    //! @sel canWireValues:
    static bool canWireValues(const QVariantList &values);

    //! @sel agentDidChangeValueForKey:
    void agentDidChangeValueForKey(const QString &key);
    //! @sel agentDidChange:valuesAtIndexes:forKey:
    void agentDidChangeValuesAtIndexesForKey(quint64 kind, const zt::IndexSet &indexes, const QString &key);
    //! @sel clientDidChangeValueForKey:
    void clientDidChangeValueForKey(const QString &key);
    //! @sel clientDidChange:valuesAtIndexes:forKey:
    void clientDidChangeValuesAtIndexesForKey(quint64 kind, const zt::IndexSet &indexes, const QString &key);

    //! The method a forwarded call of `selector` on `object` runs: one its
    //! class declares as an action (ZT_ACTION). Null, after logging "ERROR %@
    //! does not respond to %@" or "*** Refused forwarded call %@ (not an
    //! action of %@)", for anything else.
    static const zt::MethodEntry *forwardedAction(const ZTAbstractIPC *object, const zt::Selector &selector);
    //! The signature a forwarded call of `selector` on `object` travels with:
    //! that of the action in the superclass of the object's class (or further
    //! up). Invalid, after logging as forwardedAction() does or "ERROR %@
    //! responds to %@, but couldn't find the method signature", otherwise.
    static zt::MethodSignature forwardedSignature(const ZTAbstractIPC *object, const zt::Selector &selector);

    //! The parent's signature: a call is forwarded only if the model class declares it.
    zt::MethodSignature methodSignatureForSelector(const zt::Selector &selector) const override;
    //! Renames the call "<prefix>_<class>_<UUID>_<selector>" and hands it,
    //! with the parent it names, to the application delegate's
    //! sendForwardedInvocation: a host or node writes it straight to its
    //! connections, with no look-up of the parent by its name.
    void forwardInvocation(zt::Invocation &invocation) override;
    //! The send path of a forwarded call on `object`: gives `invocation` (already
    //! renamed) the forwarded signature of `selector` and passes it to `send`;
    //! the caller keeps the result. Without a forwarded signature, logs "ERROR
    //! No method signature for %@" and raises NSInvalidArgumentException.
    static void sendForwarded(zt::Invocation &invocation, const ZTAbstractIPC *object,
                              const zt::Selector &selector,
                              const std::function<void(zt::Invocation &)> &send);

    //! @sel parent
    ZTAbstractIPC *parent() const { return m_parent; }
    //! Not retained: the parent owns the proxy.
    //! @sel setParent:
    void setParent(ZTAbstractIPC *parent)
    {
        m_parent = parent;
        m_parentUUID = QString();
    }
    //! Drops the parent's UUID text kept for messages; the parent calls it
    //! when its UUID changes.
    void forgetParentUUID() { m_parentUUID = QString(); }

private:
    //! The parent's UUID text, made once: every message names its object.
    const QString &parentUUID();
    void changeValueForKey(const QString &key, bool agent);
    void changeValuesAtIndexes(quint64 kind, const zt::IndexSet &indexes, const QString &key, bool agent);
    //! Sends to the remote root; the client's messages lead with its client ID.
    void send(const zt::Selector &agentSelector, const zt::Selector &clientSelector, bool agent,
              std::initializer_list<QVariant> arguments);

    ZTAbstractIPC *m_parent = nullptr;
    QString m_parentUUID;
};
