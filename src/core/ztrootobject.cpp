#include "core/ztrootobject.h"

#include "core/ztdirectory.h"
#include "core/ztforwardedselector.h"
#include "runtime/fastpath_p.h"
#include "runtime/invocation.h"
#include "runtime/kvc.h"
#include "runtime/logging.h"

ZT_DEFINE_CLASS_WITH_MEMBERS(ZTRootObject)

struct ZTRootObject::ForwardedName
{
    bool forwarded = false; // whether the selector names a model object at all
    QString objectID;
    zt::Selector real;
};

// Tagged with the process role a selector was split for.
struct ZTRootObject::ForwardedNames : zt::fastpath::AddressKeyedCache<zt::Selector, ForwardedName, 16>
{
};

ZTRootObject::ZTRootObject() : m_forwardedNames(std::make_unique<ForwardedNames>()) {}
ZTRootObject::~ZTRootObject() = default;

void ZTRootObject::registerMembers(zt::ClassBuilder<ZTRootObject> &b)
{
    b.method("agentDidChangeValue:forKey:objectID:", &ZTRootObject::agentDidChangeValueForKeyObjectID);
    b.method("agentDidInsertValues:atIndexes:forKey:objectID:",
             &ZTRootObject::agentDidInsertValuesAtIndexesForKeyObjectID);
    b.method("agentDidRemoveValuesAtIndexes:forKey:objectID:",
             &ZTRootObject::agentDidRemoveValuesAtIndexesForKeyObjectID);
    b.method("agentDidReplaceValuesAtIndexes:withValues:forKey:objectID:",
             &ZTRootObject::agentDidReplaceValuesAtIndexesWithValuesForKeyObjectID);
    b.method("client:didChangeValue:forKey:objectID:", &ZTRootObject::clientDidChangeValueForKeyObjectID);
    b.method("client:didInsertValues:atIndexes:forKey:objectID:",
             &ZTRootObject::clientDidInsertValuesAtIndexesForKeyObjectID);
    b.method("client:didRemoveValuesAtIndexes:forKey:objectID:",
             &ZTRootObject::clientDidRemoveValuesAtIndexesForKeyObjectID);
    b.method("client:didReplaceValuesAtIndexes:withValues:forKey:objectID:",
             &ZTRootObject::clientDidReplaceValuesAtIndexesWithValuesForKeyObjectID);
    b.method("registerClient", &ZTRootObject::registerClient);
    b.method("handshakeFromAgent:", &ZTRootObject::handshakeFromAgent);
}

ZTRootOwner::~ZTRootOwner() = default;
void ZTRootOwner::rootDidReceiveRegisterClient(ZTRootObject *) {}
void ZTRootOwner::rootDidReceiveHandshake(ZTRootObject *, const QVariantMap &) {}

namespace {

// The core's side of every connection: forwarded calls this process sends
// resolve through the directory; object arguments pass the wiring check.
class CoreBridge final : public VDModelBridge
{
public:
    zt::MethodSignature signatureForForwardedSelector(const zt::Selector &selector) const override
    {
        const std::optional<ZTForwardedSelector> parts =
            ZTForwardedSelector::parse(selector, ZTIPCProxy::prefix().toLatin1());
        if (!parts)
            return {};
        zt::Ref<ZTAbstractIPC> object =
            ZTDirectory::sharedInstance()->objectWithID(QString::fromLatin1(parts->objectID));
        if (!object) {
            zt::log(ztTransport, u"ERROR Counterpart for %@ is not registered",
                    QString::fromLatin1(selector));
            return {};
        }
        return ZTIPCProxy::forwardedSignature(object.get(), parts->selector);
    }
    bool canWireValue(const QVariant &value) const override { return ZTIPCProxy::canWireValue(value); }
};

zt::Protocol rootProtocol(const QString &name, const zt::Protocol &changes, const zt::Selector &handshake,
                          const char *handshakeTypes)
{
    zt::Protocol p(name);
    for (const zt::Selector &sel : changes.selectors())
        p.addMethod(sel, changes.methodSignature(sel));
    p.addMethod(handshake, zt::MethodSignature::fromTypes(handshakeTypes));
    return p;
}

} // namespace

const VDModelBridge &ZTRootObject::modelBridge()
{
    static const CoreBridge bridge;
    return bridge;
}

const zt::Protocol &ZTRootObject::agentRootProtocol()
{
    static const zt::Protocol protocol = rootProtocol(
        QStringLiteral("ZTAgentRoot"), ZTIPCProxy::clientChangeProtocol(), "registerClient", "v@:");
    return protocol;
}

const zt::Protocol &ZTRootObject::clientRootProtocol()
{
    static const zt::Protocol protocol = rootProtocol(
        QStringLiteral("ZTClientRoot"), ZTIPCProxy::agentChangeProtocol(), "handshakeFromAgent:", "v@:@");
    return protocol;
}

void ZTRootObject::attach(ZTRootOwner *owner, VDConnection *connection)
{
    m_owner = owner;
    m_connection = connection;
    if (connection) {
        connection->setLocalObject(this);
        connection->setModelBridge(&modelBridge());
    }
}

void ZTRootObject::registerClient()
{
    if (m_owner)
        m_owner->rootDidReceiveRegisterClient(this);
}

void ZTRootObject::handshakeFromAgent(const QVariantMap &state)
{
    if (m_owner)
        m_owner->rootDidReceiveHandshake(this, state);
}

void ZTRootObject::apply(const QString &objectID, const std::function<void(ZTAbstractIPC *)> &change)
{
    if (zt::Ref<ZTAbstractIPC> object = ZTDirectory::sharedInstance()->objectWithID(objectID)) {
        ZTAbstractIPC::ApplyingOtherProcess applying(object.get());
        change(object.get());
    }
}

void ZTRootObject::agentDidChangeValueForKeyObjectID(const QVariant &value, const QString &key,
                                                     const QString &objectID)
{
    apply(objectID, [&](ZTAbstractIPC *o) { o->setValueForKey(value, key); });
}

void ZTRootObject::agentDidInsertValuesAtIndexesForKeyObjectID(const QVariantList &values,
                                                               const zt::IndexSet &indexes,
                                                               const QString &key, const QString &objectID)
{
    apply(objectID,
          [&](ZTAbstractIPC *o) { o->mutableArrayValueForKey(key).insertObjectsAtIndexes(values, indexes); });
}

void ZTRootObject::agentDidRemoveValuesAtIndexesForKeyObjectID(const zt::IndexSet &indexes,
                                                               const QString &key, const QString &objectID)
{
    apply(objectID,
          [&](ZTAbstractIPC *o) { o->mutableArrayValueForKey(key).removeObjectsAtIndexes(indexes); });
}

void ZTRootObject::agentDidReplaceValuesAtIndexesWithValuesForKeyObjectID(const zt::IndexSet &indexes,
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

void ZTRootObject::clientDidChangeValueForKeyObjectID(const QVariant &, const QVariant &value,
                                                      const QString &key, const QString &objectID)
{
    agentDidChangeValueForKeyObjectID(value, key, objectID);
}

void ZTRootObject::clientDidInsertValuesAtIndexesForKeyObjectID(const QVariant &, const QVariantList &values,
                                                                const zt::IndexSet &indexes,
                                                                const QString &key, const QString &objectID)
{
    agentDidInsertValuesAtIndexesForKeyObjectID(values, indexes, key, objectID);
}

void ZTRootObject::clientDidRemoveValuesAtIndexesForKeyObjectID(const QVariant &, const zt::IndexSet &indexes,
                                                                const QString &key, const QString &objectID)
{
    agentDidRemoveValuesAtIndexesForKeyObjectID(indexes, key, objectID);
}

void ZTRootObject::clientDidReplaceValuesAtIndexesWithValuesForKeyObjectID(const QVariant &,
                                                                           const zt::IndexSet &indexes,
                                                                           const QVariantList &values,
                                                                           const QString &key,
                                                                           const QString &objectID)
{
    agentDidReplaceValuesAtIndexesWithValuesForKeyObjectID(indexes, values, key, objectID);
}

zt::Ref<ZTAbstractIPC> ZTRootObject::forwardedTarget(const zt::Selector &selector, zt::Selector *real) const
{
    // The prefix this process answers to: "toAgent" in the agent.
    const bool agentRole = ZTIPCProxy::isAgent();
    const quint64 role = agentRole ? 1 : 0; // a slot answers for the role it was split in
    const ForwardedName *name = m_forwardedNames->find(selector, role);
    ForwardedName parsed;
    if (!name) {
        const QByteArray prefix = (ZTIPCProxy::autoprefix() + u'_').toLatin1();
        if (std::optional<ZTForwardedSelector> parts = ZTForwardedSelector::parse(selector, prefix)) {
            parsed.forwarded = true;
            parsed.objectID = QString::fromLatin1(parts->objectID);
            parsed.real = std::move(parts->selector);
        }
        m_forwardedNames->store(selector, parsed, role);
        name = &parsed;
    }
    if (!name->forwarded)
        return {};
    if (real)
        *real = name->real;
    const bool ownsCharacters = zt::fastpath::ownsCharacters(selector);
    const bool sameMessage = ownsCharacters && m_resolved &&
                             m_resolvedSelector.constData() == selector.constData() &&
                             m_resolvedSelector.size() == selector.size() && m_resolved->inDirectory();
    if (sameMessage)
        return m_resolved;
    m_resolved = ZTDirectory::sharedInstance()->objectWithID(name->objectID);
    m_resolvedSelector = ownsCharacters ? selector : zt::Selector();
    return m_resolved;
}

bool ZTRootObject::acceptsSelector(const zt::Selector &selector) const
{
    return methodSignatureForSelector(selector).isValid();
}

zt::MethodSignature ZTRootObject::methodSignatureForSelector(const zt::Selector &selector) const
{
    if (const zt::MethodEntry *own = classInfo().instanceMethod(selector))
        return own->signature;
    zt::Selector real;
    if (zt::Ref<ZTAbstractIPC> target = forwardedTarget(selector, &real)) {
        if (const zt::MethodEntry *action = ZTIPCProxy::forwardedAction(target.get(), real))
            return action->signature;
    }
    return {};
}

void ZTRootObject::forwardInvocation(zt::Invocation &invocation)
{
    zt::Selector real;
    zt::Ref<ZTAbstractIPC> target = forwardedTarget(invocation.selector(), &real);
    m_resolved.reset();
    m_resolvedSelector.clear();
    if (!target) {
        Object::forwardInvocation(invocation);
        return;
    }
    const zt::MethodEntry *action = ZTIPCProxy::forwardedAction(target.get(), real);
    if (!action)
        return;
    // The arguments were decoded against this action's own signature.
    invocation.setReturnValue(action->call(target.get(), invocation.argumentData()));
}
