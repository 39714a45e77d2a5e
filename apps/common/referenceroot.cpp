#include "referenceroot.h"

#include "core/ztdirectory.h"
#include "runtime/invocation.h"
#include "runtime/kvc.h"

ZT_DEFINE_CLASS(ReferenceRoot)

void ReferenceRoot::registerMembers(zt::ClassBuilder<ReferenceRoot> &b)
{
    b.method("agentDidChangeValue:forKey:objectID:", &ReferenceRoot::agentDidChangeValueForKeyObjectID);
    b.method("agentDidInsertValues:atIndexes:forKey:objectID:",
             &ReferenceRoot::agentDidInsertValuesAtIndexesForKeyObjectID);
    b.method("agentDidRemoveValuesAtIndexes:forKey:objectID:",
             &ReferenceRoot::agentDidRemoveValuesAtIndexesForKeyObjectID);
    b.method("agentDidReplaceValuesAtIndexes:withValues:forKey:objectID:",
             &ReferenceRoot::agentDidReplaceValuesAtIndexesWithValuesForKeyObjectID);
    b.method("client:didChangeValue:forKey:objectID:", &ReferenceRoot::clientDidChangeValueForKeyObjectID);
    b.method("client:didInsertValues:atIndexes:forKey:objectID:",
             &ReferenceRoot::clientDidInsertValuesAtIndexesForKeyObjectID);
    b.method("client:didRemoveValuesAtIndexes:forKey:objectID:",
             &ReferenceRoot::clientDidRemoveValuesAtIndexesForKeyObjectID);
    b.method("client:didReplaceValuesAtIndexes:withValues:forKey:objectID:",
             &ReferenceRoot::clientDidReplaceValuesAtIndexesWithValuesForKeyObjectID);
}

ReferenceRoot::~ReferenceRoot()
{
    if (ZTApplication::delegate() == this)
        ZTApplication::setDelegate(nullptr);
}

void ReferenceRoot::setConnection(zt::Ref<VDConnection> connection, const zt::Protocol *remoteProtocol)
{
    if (m_connection)
        m_connection->setLocalObject(nullptr);
    m_connection = std::move(connection);
    if (m_connection) {
        m_connection->setLocalObject(this);
        m_connection->setProtocolForRemoteObject(remoteProtocol);
    }
    ZTApplication::setDelegate(this);
}

zt::Object *ReferenceRoot::counterpart() const
{
    return m_connection ? m_connection->proxyForRemoteObject() : nullptr;
}

const zt::Protocol &ReferenceRoot::agentRootProtocol()
{
    static const zt::Protocol protocol = [] {
        zt::Protocol p(QStringLiteral("ZTAgentRoot"));
        const zt::Protocol &changes = ZTIPCProxy::clientChangeProtocol();
        for (const zt::Selector &sel : changes.selectors())
            p.addMethod(sel, changes.methodSignature(sel));
        p.addMethod("registerClient", zt::MethodSignature::fromTypes("v@:"));
        return p;
    }();
    return protocol;
}

const zt::Protocol &ReferenceRoot::clientRootProtocol()
{
    static const zt::Protocol protocol = [] {
        zt::Protocol p(QStringLiteral("ZTClientRoot"));
        const zt::Protocol &changes = ZTIPCProxy::agentChangeProtocol();
        for (const zt::Selector &sel : changes.selectors())
            p.addMethod(sel, changes.methodSignature(sel));
        p.addMethod("handshakeFromAgent:", zt::MethodSignature::fromTypes("v@:@"));
        return p;
    }();
    return protocol;
}

void ReferenceRoot::apply(const QString &objectID, const std::function<void(ZTAbstractIPC *)> &change)
{
    if (zt::Ref<ZTAbstractIPC> object = ZTDirectory::sharedInstance()->objectWithID(objectID))
        change(object.get());
}

void ReferenceRoot::agentDidChangeValueForKeyObjectID(const QVariant &value, const QString &key,
                                                      const QString &objectID)
{
    apply(objectID, [&](ZTAbstractIPC *o) { o->setValueForKey(value, key); });
}

void ReferenceRoot::agentDidInsertValuesAtIndexesForKeyObjectID(const QVariantList &values,
                                                                const zt::IndexSet &indexes,
                                                                const QString &key, const QString &objectID)
{
    apply(objectID,
          [&](ZTAbstractIPC *o) { o->mutableArrayValueForKey(key).insertObjectsAtIndexes(values, indexes); });
}

void ReferenceRoot::agentDidRemoveValuesAtIndexesForKeyObjectID(const zt::IndexSet &indexes,
                                                                const QString &key, const QString &objectID)
{
    apply(objectID,
          [&](ZTAbstractIPC *o) { o->mutableArrayValueForKey(key).removeObjectsAtIndexes(indexes); });
}

void ReferenceRoot::agentDidReplaceValuesAtIndexesWithValuesForKeyObjectID(const zt::IndexSet &indexes,
                                                                           const QVariantList &values,
                                                                           const QString &key,
                                                                           const QString &objectID)
{
    apply(objectID, [&](ZTAbstractIPC *o) {
        zt::MutableArrayProxy list = o->mutableArrayValueForKey(key);
        list.removeObjectsAtIndexes(indexes);
        list.insertObjectsAtIndexes(values, indexes);
    });
}

void ReferenceRoot::clientDidChangeValueForKeyObjectID(const QVariant &, const QVariant &value,
                                                       const QString &key, const QString &objectID)
{
    agentDidChangeValueForKeyObjectID(value, key, objectID);
}

void ReferenceRoot::clientDidInsertValuesAtIndexesForKeyObjectID(const QVariant &, const QVariantList &values,
                                                                 const zt::IndexSet &indexes,
                                                                 const QString &key, const QString &objectID)
{
    agentDidInsertValuesAtIndexesForKeyObjectID(values, indexes, key, objectID);
}

void ReferenceRoot::clientDidRemoveValuesAtIndexesForKeyObjectID(const QVariant &,
                                                                 const zt::IndexSet &indexes,
                                                                 const QString &key, const QString &objectID)
{
    agentDidRemoveValuesAtIndexesForKeyObjectID(indexes, key, objectID);
}

void ReferenceRoot::clientDidReplaceValuesAtIndexesWithValuesForKeyObjectID(const QVariant &,
                                                                            const zt::IndexSet &indexes,
                                                                            const QVariantList &values,
                                                                            const QString &key,
                                                                            const QString &objectID)
{
    agentDidReplaceValuesAtIndexesWithValuesForKeyObjectID(indexes, values, key, objectID);
}

ReferenceRoot::ForwardedName ReferenceRoot::splitForwarded(const zt::Selector &selector, bool agentRole)
{
    ForwardedName name;
    name.selector = selector;
    name.agentRole = agentRole;
    const QByteArray prefix = agentRole ? QByteArrayLiteral("toAgent_") : QByteArrayLiteral("toClient_");
    if (!selector.startsWith(prefix))
        return name;
    const QList<QByteArray> parts = selector.split('_');
    if (parts.size() != 4)
        return name;
    name.forwarded = true;
    name.objectID = QString::fromLatin1(parts[2]);
    name.real = parts[3];
    return name;
}

zt::Ref<ZTAbstractIPC> ReferenceRoot::forwardedTarget(const zt::Selector &selector, zt::Selector *real) const
{
    // The prefix this process answers to: "toAgent" in the agent.
    const bool agentRole = ZTIPCProxy::isAgent();
    ForwardedName *slot = nullptr;
    if (const_cast<zt::Selector &>(selector).data_ptr().d_ptr()) // no detach: only reads
        slot = &m_forwardedNames[(quintptr(selector.constData()) >> 4) % m_forwardedNames.size()];
    ForwardedName parsed;
    const ForwardedName *name = slot;
    if (!slot || slot->selector.constData() != selector.constData() ||
        slot->selector.size() != selector.size() || slot->agentRole != agentRole) {
        parsed = splitForwarded(selector, agentRole);
        if (slot)
            *slot = std::move(parsed);
        else
            name = &parsed;
    }
    if (!name->forwarded)
        return {};
    if (real)
        *real = name->real;
    return ZTDirectory::sharedInstance()->objectWithID(name->objectID);
}

bool ReferenceRoot::acceptsSelector(const zt::Selector &selector) const
{
    return methodSignatureForSelector(selector).isValid();
}

zt::MethodSignature ReferenceRoot::methodSignatureForSelector(const zt::Selector &selector) const
{
    if (const zt::MethodEntry *own = classInfo().instanceMethod(selector))
        return own->signature;
    zt::Selector real;
    if (zt::Ref<ZTAbstractIPC> target = forwardedTarget(selector, &real))
        return target->methodSignatureForSelector(real);
    return {};
}

void ReferenceRoot::forwardInvocation(zt::Invocation &invocation)
{
    zt::Selector real;
    zt::Ref<ZTAbstractIPC> target = forwardedTarget(invocation.selector(), &real);
    if (!target) {
        Object::forwardInvocation(invocation);
        return;
    }
    const auto count = size_t(invocation.methodSignature().numberOfArguments() - 2);
    invocation.setReturnValue(
        target->perform(real, std::span<const QVariant>(invocation.argumentData(), count)));
}
