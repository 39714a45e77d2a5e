#pragma once
// ReferenceRoot: the root object of an application process, as the mirroring
// core requires of it.
//
// - The eight change messages look up the object ID in the directory (unknown
//   IDs are ignored) and apply the change by key-value coding under the wired
//   key: a setting through the key's setter, an insertion or a removal
//   through its ordered to-many view, a replacement as a removal followed by
//   an insertion at the same indexes. The receiving object is not the
//   directing side of its pair, so it does not send the change back.
// - A selector "<autoprefix>_<class>_<UUID>_<selector>" is split into exactly
//   four parts and the call goes to the object with that UUID.
// - It is the process's application delegate: its counterpart is the remote
//   proxy of the current connection.
//
// Applications subclass it for their handshake and their own root methods.

#include "core/ztabstractipc.h"
#include "core/ztapplication.h"
#include "transport/vdconnection.h"

#include <array>

class ReferenceRoot : public zt::Object, public ZTApplicationDelegate, public VDAcceptingObject
{
    ZT_OBJECT(ReferenceRoot, zt::Object)
public:
    ~ReferenceRoot() override;

    //! The connection calls go through; kept (owned) by the root.
    VDConnection *connection() const { return m_connection.get(); }
    //! Adopts the connection: makes this root its local object, sets the
    //! remote protocol and becomes the process's application delegate.
    void setConnection(zt::Ref<VDConnection> connection, const zt::Protocol *remoteProtocol);

    // ZTApplicationDelegate
    zt::Object *counterpart() const override;
    QVariant clientID() const override { return m_clientID; }
    void setClientID(const QVariant &id) { m_clientID = id; }

    // Changes from the agent.
    void agentDidChangeValueForKeyObjectID(const QVariant &value, const QString &key,
                                           const QString &objectID);
    void agentDidInsertValuesAtIndexesForKeyObjectID(const QVariantList &values, const zt::IndexSet &indexes,
                                                     const QString &key, const QString &objectID);
    void agentDidRemoveValuesAtIndexesForKeyObjectID(const zt::IndexSet &indexes, const QString &key,
                                                     const QString &objectID);
    void agentDidReplaceValuesAtIndexesWithValuesForKeyObjectID(const zt::IndexSet &indexes,
                                                                const QVariantList &values,
                                                                const QString &key, const QString &objectID);
    // Changes from a client.
    void clientDidChangeValueForKeyObjectID(const QVariant &client, const QVariant &value, const QString &key,
                                            const QString &objectID);
    void clientDidInsertValuesAtIndexesForKeyObjectID(const QVariant &client, const QVariantList &values,
                                                      const zt::IndexSet &indexes, const QString &key,
                                                      const QString &objectID);
    void clientDidRemoveValuesAtIndexesForKeyObjectID(const QVariant &client, const zt::IndexSet &indexes,
                                                      const QString &key, const QString &objectID);
    void clientDidReplaceValuesAtIndexesWithValuesForKeyObjectID(const QVariant &client,
                                                                 const zt::IndexSet &indexes,
                                                                 const QVariantList &values,
                                                                 const QString &key, const QString &objectID);

    //! Whether a selector may be called remotely.
    bool acceptsSelector(const zt::Selector &selector) const override;
    zt::MethodSignature methodSignatureForSelector(const zt::Selector &selector) const override;
    void forwardInvocation(zt::Invocation &invocation) override;

    //! Messages the agent's and a client's roots understand from the other side.
    static const zt::Protocol &agentRootProtocol();  //!< what a client may send to the agent's root
    static const zt::Protocol &clientRootProtocol(); //!< what the agent may send to a client's root

protected:
    //! The object a forwarded selector names, and the real selector; null when
    //! the selector is not a forwarded one for this process or the object is unknown.
    zt::Ref<ZTAbstractIPC> forwardedTarget(const zt::Selector &selector, zt::Selector *real) const;

private:
    void apply(const QString &objectID, const std::function<void(ZTAbstractIPC *)> &change);

    // A selector split into the object ID and the real selector, kept by the
    // identity of the selector's characters: the decoder hands a repeated
    // selector over as one string, and a slot keeps the characters alive.
    struct ForwardedName
    {
        zt::Selector selector;
        bool agentRole = false; // the process role it was split for
        bool forwarded = false;
        QString objectID;
        zt::Selector real;
    };
    static ForwardedName splitForwarded(const zt::Selector &selector, bool agentRole);
    mutable std::array<ForwardedName, 16> m_forwardedNames;

    zt::Ref<VDConnection> m_connection;
    QVariant m_clientID;
};
