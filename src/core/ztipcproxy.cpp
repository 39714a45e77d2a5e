#include "core/ztipcproxy.h"

#include "core/ztabstractipc.h"
#include "core/ztapplication.h"
#include "core/ztforwardedselector.h"
#include "runtime/dictionary.h"
#include "runtime/exception.h"
#include "runtime/format.h"
#include "runtime/invocation.h"
#include "runtime/logging.h"
#include "runtime/process.h"

#include <algorithm>
#include <array>
#include <atomic>

ZT_DEFINE_CLASS_WITH_MEMBERS(ZTIPCProxy)

void ZTIPCProxy::registerMembers(zt::ClassBuilder<ZTIPCProxy> &b)
{
    b.method("agentDidChangeValueForKey:", &ZTIPCProxy::agentDidChangeValueForKey);
    b.method("agentDidChange:valuesAtIndexes:forKey:", &ZTIPCProxy::agentDidChangeValuesAtIndexesForKey);
    b.method("clientDidChangeValueForKey:", &ZTIPCProxy::clientDidChangeValueForKey);
    b.method("clientDidChange:valuesAtIndexes:forKey:", &ZTIPCProxy::clientDidChangeValuesAtIndexesForKey);
    b.property("parent", &ZTIPCProxy::parent, &ZTIPCProxy::setParent);
}

namespace {
// -1 not yet asked, 0 client, 1 agent.
std::atomic<int> cachedRole{-1};

const zt::Selector AgentChange = "agentDidChangeValue:forKey:objectID:";
const zt::Selector AgentInsert = "agentDidInsertValues:atIndexes:forKey:objectID:";
const zt::Selector AgentRemove = "agentDidRemoveValuesAtIndexes:forKey:objectID:";
const zt::Selector AgentReplace = "agentDidReplaceValuesAtIndexes:withValues:forKey:objectID:";
const zt::Selector ClientChange = "client:didChangeValue:forKey:objectID:";
const zt::Selector ClientInsert = "client:didInsertValues:atIndexes:forKey:objectID:";
const zt::Selector ClientRemove = "client:didRemoveValuesAtIndexes:forKey:objectID:";
const zt::Selector ClientReplace = "client:didReplaceValuesAtIndexes:withValues:forKey:objectID:";

zt::Object *remoteRoot()
{
    ZTApplicationDelegate *delegate = ZTApplication::delegate();
    return delegate ? delegate->counterpart() : nullptr;
}
} // namespace

bool ZTIPCProxy::isAgent()
{
    int role = cachedRole.load(std::memory_order_relaxed);
    if (role < 0) {
        role = zt::process::applicationIdentifier().endsWith(QStringLiteral("Agent")) ? 1 : 0;
        cachedRole.store(role, std::memory_order_relaxed);
    }
    return role == 1;
}

void ZTIPCProxy::resetCachedProcessRole()
{
    cachedRole.store(-1);
}

QString ZTIPCProxy::prefix()
{
    return isAgent() ? QStringLiteral("toClient") : QStringLiteral("toAgent");
}

QString ZTIPCProxy::autoprefix()
{
    return isAgent() ? QStringLiteral("toAgent") : QStringLiteral("toClient");
}

const zt::Protocol &ZTIPCProxy::agentChangeProtocol()
{
    static const zt::Protocol protocol(QStringLiteral("ZTAgentChangeMessages"),
                                       {{AgentChange.constData(), "v@:@@@"},
                                        {AgentInsert.constData(), "v@:@@@@"},
                                        {AgentRemove.constData(), "v@:@@@"},
                                        {AgentReplace.constData(), "v@:@@@@"}});
    return protocol;
}

const zt::Protocol &ZTIPCProxy::clientChangeProtocol()
{
    static const zt::Protocol protocol(QStringLiteral("ZTClientChangeMessages"),
                                       {{ClientChange.constData(), "v@:@@@@"},
                                        {ClientInsert.constData(), "v@:@@@@@"},
                                        {ClientRemove.constData(), "v@:@@@@"},
                                        {ClientReplace.constData(), "v@:@@@@@"}});
    return protocol;
}

bool ZTIPCProxy::canWireValue(const QVariant &value)
{
    switch (zt::kindOf(value)) {
    case zt::ValueKind::Array:
        return canWireValues(value.toList());
    case zt::ValueKind::Dictionary:
        // Enumerating a dictionary yields its keys: only they are checked,
        // and a dictionary's keys are strings, which always wire.
        return true;
    case zt::ValueKind::Nil:
    case zt::ValueKind::Null:
    case zt::ValueKind::String:
    case zt::ValueKind::Data:
    case zt::ValueKind::IndexSet:
    case zt::ValueKind::Date:
    case zt::ValueKind::Bool:
    case zt::ValueKind::Signed:
    case zt::ValueKind::Unsigned:
    case zt::ValueKind::Real:
        return true;
    default:
        return false;
    }
}

bool ZTIPCProxy::canWireValues(const QVariantList &values)
{
    for (const QVariant &v : values)
        if (!canWireValue(v))
            return false;
    return true;
}

void ZTIPCProxy::agentDidChangeValueForKey(const QString &key)
{
    changeValueForKey(key, true);
}

void ZTIPCProxy::agentDidChangeValuesAtIndexesForKey(quint64 kind, const zt::IndexSet &indexes,
                                                     const QString &key)
{
    changeValuesAtIndexes(kind, indexes, key, true);
}

void ZTIPCProxy::clientDidChangeValueForKey(const QString &key)
{
    changeValueForKey(key, false);
}

void ZTIPCProxy::clientDidChangeValuesAtIndexesForKey(quint64 kind, const zt::IndexSet &indexes,
                                                      const QString &key)
{
    changeValuesAtIndexes(kind, indexes, key, false);
}

const QString &ZTIPCProxy::parentUUID()
{
    if (m_parentUUID.isNull())
        m_parentUUID = m_parent->description();
    return m_parentUUID;
}

void ZTIPCProxy::changeValueForKey(const QString &key, bool agent)
{
    if (!m_parent)
        return;
    QVariant value = m_parent->valueForKey(key);
    if (!canWireValue(value)) {
        zt::log(ztCore, u"*** Ignored remote KVO because class %@ is unsupported (key %@ in %@)",
                zt::valueClassName(value), key, m_parent->className());
        return;
    }
    send(AgentChange, ClientChange, agent, {value, key, parentUUID()});
}

void ZTIPCProxy::changeValuesAtIndexes(quint64 kind, const zt::IndexSet &indexes, const QString &key,
                                       bool agent)
{
    if (!m_parent)
        return;
    auto beyondBounds = [](quint64 i, qint64 count) {
        zt::Exception::raise(QString::fromUtf16(zt::exceptions::RangeError),
                             zt::format(u"*** -[NSArray objectsAtIndexes:]: index %lu in index set beyond "
                                        u"bounds [0 .. %ld]",
                                        i, count - 1));
    };
    auto valuesAtIndexes = [&]() {
        // A class that reads elements at indexes ("countOfKey" and
        // "keyAtIndexes:") makes only the values that cross: a wired list
        // builds one dictionary per element, and a batch inserted into a
        // long list must not cost the whole list.
        const zt::KeyAccessors &accessors = m_parent->classInfo().accessorsForKey(key);
        if (accessors.countOf && accessors.atIndexes) {
            const qint64 count = accessors.countOf->call(m_parent, nullptr).toLongLong();
            if (!indexes.isEmpty() && indexes.last() >= quint64(count))
                beyondBounds(indexes.last(), count);
            const QVariant indexValue = QVariant::fromValue(indexes);
            return accessors.atIndexes->call(m_parent, &indexValue).toList();
        }
        const QVariantList all = m_parent->valueForKey(key).toList();
        QVariantList picked;
        picked.reserve(qsizetype(indexes.count()));
        for (quint64 i : indexes) {
            if (i >= quint64(all.size()))
                beyondBounds(i, all.size());
            picked.append(all[qsizetype(i)]);
        }
        return picked;
    };
    auto unsupported = [&](const QVariantList &values) {
        QVariantList classNames;
        classNames.reserve(values.size());
        for (const QVariant &v : values)
            classNames.append(zt::valueClassName(v));
        zt::log(ztCore, u"*** Ignored remote KVO because %@ is unsupported (key %@ in %@)",
                QVariant(classNames), key, m_parent->className());
    };
    const QVariant indexValue = QVariant::fromValue(indexes);
    switch (kind) {
    case quint64(zt::KeyValueChange::Setting):
        changeValueForKey(key, agent);
        return;
    case quint64(zt::KeyValueChange::Insertion): {
        const QVariantList values = valuesAtIndexes();
        if (!canWireValues(values))
            return unsupported(values);
        send(AgentInsert, ClientInsert, agent, {values, indexValue, key, parentUUID()});
        return;
    }
    case quint64(zt::KeyValueChange::Removal):
        send(AgentRemove, ClientRemove, agent, {indexValue, key, parentUUID()});
        return;
    case quint64(zt::KeyValueChange::Replacement): {
        const QVariantList values = valuesAtIndexes();
        if (!canWireValues(values))
            return unsupported(values);
        send(AgentReplace, ClientReplace, agent, {indexValue, values, key, parentUUID()});
        return;
    }
    default:
        zt::log(ztCore, u"*** Ignored remote KVO because %lu is an unsupported mutation type in %@:%@", kind,
                m_parent->className(), key);
    }
}

void ZTIPCProxy::send(const zt::Selector &agentSelector, const zt::Selector &clientSelector, bool agent,
                      std::initializer_list<QVariant> arguments)
{
    zt::Object *root = remoteRoot();
    if (!root)
        return; // no connection: the change is lost
    if (agent) {
        root->perform(agentSelector, std::span<const QVariant>(arguments.begin(), arguments.size()));
        return;
    }
    // The client's ID leads; at most five arguments follow it.
    std::array<QVariant, 6> withID;
    Q_ASSERT(arguments.size() < withID.size());
    withID[0] = ZTApplication::delegate()->clientID();
    std::copy(arguments.begin(), arguments.end(), withID.begin() + 1);
    root->perform(clientSelector, std::span<const QVariant>(withID.data(), arguments.size() + 1));
}

zt::MethodSignature ZTIPCProxy::methodSignatureForSelector(const zt::Selector &selector) const
{
    if (const zt::MethodEntry *own = classInfo().instanceMethod(selector))
        return own->signature;
    return m_parent ? m_parent->methodSignatureForSelector(selector) : zt::MethodSignature();
}

const zt::MethodEntry *ZTIPCProxy::forwardedAction(const ZTAbstractIPC *object, const zt::Selector &selector)
{
    const zt::MethodEntry *method = object->classInfo().instanceMethod(selector);
    if (!method) {
        zt::log(ztTransport, u"ERROR %@ does not respond to %@", object, QString::fromLatin1(selector));
        return nullptr;
    }
    if (!method->action) {
        zt::log(ztTransport, u"*** Refused forwarded call %@ (not an action of %@)",
                QString::fromLatin1(selector), object->className());
        return nullptr;
    }
    return method;
}

zt::MethodSignature ZTIPCProxy::forwardedSignature(const ZTAbstractIPC *object, const zt::Selector &selector)
{
    const zt::MethodEntry *action = forwardedAction(object, selector);
    if (!action)
        return {};
    // The signature the abstract class declares: both processes agree on it,
    // whatever their concrete classes make of the method.
    const zt::ClassInfo *super = object->classInfo().superclass();
    if (const zt::MethodEntry *method = super ? super->instanceMethod(selector) : nullptr)
        return method->signature;
    zt::log(ztTransport, u"ERROR %@ responds to %@, but couldn't find the method signature", object,
            QString::fromLatin1(selector));
    return {};
}

void ZTIPCProxy::sendForwarded(zt::Invocation &invocation, const ZTAbstractIPC *object,
                               const zt::Selector &selector,
                               const std::function<void(zt::Invocation &)> &send)
{
    const zt::MethodSignature signature = forwardedSignature(object, selector);
    if (!signature.isValid()) {
        zt::log(ztTransport, u"ERROR No method signature for %@", QString::fromLatin1(invocation.selector()));
        object->doesNotRecognizeSelector(invocation.selector());
    }
    if (signature == invocation.methodSignature())
        return send(invocation);
    zt::Invocation reshaped = invocation.reshaped(signature);
    send(reshaped);
    invocation.setReturnValue(reshaped.returnValue());
}

void ZTIPCProxy::forwardInvocation(zt::Invocation &invocation)
{
    if (!m_parent)
        return;
    const zt::Selector selector = invocation.selector();
    invocation.setSelector(
        ZTForwardedSelector::format(prefix(), m_parent->className(), parentUUID(), selector));
    if (ZTApplicationDelegate *delegate = ZTApplication::delegate())
        delegate->sendForwardedInvocation(invocation, m_parent, selector);
    // else no connection: the call is lost
}
