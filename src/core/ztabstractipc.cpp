#include "core/ztabstractipc.h"

#include "core/ztdirectory.h"
#include "runtime/exception.h"
#include "runtime/format.h"
#include "runtime/logging.h"
#include "runtime/process.h"

#include <atomic>

ZT_DEFINE_CLASS_WITH_MEMBERS(ZTAbstractIPC)

void ZTAbstractIPC::registerMembers(zt::ClassBuilder<ZTAbstractIPC> &b)
{
    b.method("init", &ZTAbstractIPC::init);
    b.method("initWithDictionary:", &ZTAbstractIPC::initWithDictionary);
    b.method("initWithUUID:", &ZTAbstractIPC::initWithUUID);
    b.method("invalidate", &ZTAbstractIPC::invalidate);
    b.method("nilify", &ZTAbstractIPC::nilify);
    b.method("assignUUID:", &ZTAbstractIPC::assignUUID);
    b.method("counterpart", &ZTAbstractIPC::counterpart);
    b.method("setCounterpart:", &ZTAbstractIPC::setCounterpart);
    b.method("dictionary", &ZTAbstractIPC::dictionary);
    b.method("replacementKeyForWiring:", &ZTAbstractIPC::replacementKeyForWiring);
    b.method("startDirectingKVOCommunication", &ZTAbstractIPC::startDirectingKVOCommunication);
    b.method("stopDirectingKVOCommunication", &ZTAbstractIPC::stopDirectingKVOCommunication);
    b.method("staticUUID", &ZTAbstractIPC::staticUUID);
    b.method("shouldPropagateValueChangesForKey:", &ZTAbstractIPC::shouldPropagateValueChangesForKey);
    b.property("description", &ZTAbstractIPC::description, &ZTAbstractIPC::setDescription);
    b.property("enableInterProcessKVO", &ZTAbstractIPC::enableInterProcessKVO,
               &ZTAbstractIPC::setEnableInterProcessKVO);
    b.property("observers", &ZTAbstractIPC::observers, &ZTAbstractIPC::setObservers);
}

namespace {
std::atomic<bool> registrationEnabled{true};
std::atomic<bool> recreateDescriptions{false};
} // namespace

void ZTAbstractIPC::disableRegistration()
{
    registrationEnabled = false;
}

void ZTAbstractIPC::enableRegistration()
{
    registrationEnabled = true;
}

bool ZTAbstractIPC::isRegistrationEnabled()
{
    return registrationEnabled;
}

void ZTAbstractIPC::setRecreateDescriptions(bool recreate)
{
    recreateDescriptions = recreate;
}

zt::Ref<ZTAbstractIPC> ZTAbstractIPC::createCounterpartWithUUID(const zt::ClassInfo &cls, const QString &uuid)
{
    ZT_ASSERT(!uuid.isEmpty(), QStringLiteral("Cannot create a counterpart with null UUID"));
    if (zt::Ref<ZTAbstractIPC> existing = ZTDirectory::sharedInstance()->objectWithID(uuid))
        return existing;
    auto object = zt::dynamicCast<ZTAbstractIPC>(cls.createInstance());
    ZT_ASSERT(object, zt::format(u"Class %@ cannot make counterparts", cls.name()));
    object->initWithUUID(uuid);
    return object;
}

// ---- initialisers ----

void ZTAbstractIPC::initWithDictionary(const QVariantMap &dictionary)
{
    init();
    m_published = true; // the form may come from the other process
    ApplyingOtherProcess applying(this);
    for (auto it = dictionary.cbegin(); it != dictionary.cend(); ++it)
        setValueForKey(it.value(), it.key());
}

void ZTAbstractIPC::uuidInconsistency(const QString &expected) const
{
    zt::assertionFailure(zt::format(u"AssignUUID Inconsistency: description not set (%@, %@, %d)",
                                    description(), expected, int(m_inDirectory)));
}

void ZTAbstractIPC::initWithUUID(const QString &uuid)
{
    ZT_ASSERT(!ZTIPCProxy::isAgent(), QStringLiteral("Agent cannot call initWithUUID:"));
    const QString fixed = staticUUID();
    const QString use = fixed.isNull() ? uuid : fixed;
    const zt::PackedUUID packed(use);
    assignPacked(packed);
    if (m_uuid != packed)
        uuidInconsistency(use);
    init();
    if (m_uuid != packed)
        uuidInconsistency(use);
}

void ZTAbstractIPC::init()
{
    m_observers.reset();
    m_enableInterProcessKVO = ZTIPCProxy::isAgent();
    const QString fixed = staticUUID();
    if (!fixed.isNull()) {
        assignUUID(fixed);
    } else if (m_awakeFromCoder) {
        // the coder assigned it
    } else if (ZTIPCProxy::isAgent()) {
        assignPacked(zt::process::globallyUniqueUUID());
        m_published = false; // nobody else can know this UUID yet
    } else {
        ZT_ASSERT(!m_uuid.isEmpty(), QStringLiteral("Counterpart should have a description set"));
    }
}

// ---- archiving ----

void ZTAbstractIPC::encodeWithCoder(zt::KeyedArchiver &coder) const
{
    m_published = true;
    coder.encodeObject(description(), QStringLiteral("UUID"));
}

void ZTAbstractIPC::initWithCoder(zt::KeyedUnarchiver &coder)
{
    const bool recreate = recreateDescriptions;
    QString uuid = coder.decodeObjectForKey(QStringLiteral("UUID")).toString();
    if (uuid.isEmpty() || recreate)
        uuid = coder.decodeObjectForKey(QStringLiteral("description")).toString();
    if (uuid.isEmpty() || recreate)
        uuid = zt::process::globallyUniqueString();
    assignUUID(uuid);
    m_awakeFromCoder = true;
    init();
    m_awakeFromCoder = false;
}

// ---- life cycle ----

void ZTAbstractIPC::invalidate()
{
    if (!m_inDirectory)
        return;
    zt::Ref<ZTAbstractIPC> keepAlive(this); // the directory may hold the last reference
    m_observers.reset();                    // ends the observations; the member is null while they run
    ZTDirectory::sharedInstance()->unregisterObject(this);
    nilify();
    m_inDirectory = false;
}

void ZTAbstractIPC::nilify() {}

void ZTAbstractIPC::assignUUID(const QString &uuid)
{
    zt::PackedUUID packed(uuid);
    assignPacked(packed);
    if (m_uuid != packed)
        uuidInconsistency(uuid);
}

void ZTAbstractIPC::assignPacked(zt::PackedUUID uuid)
{
    if (m_inDirectory)
        zt::Exception::raise(QStringLiteral("AssignUUID Inconsistency"),
                             zt::format(u"Cannot assign UUID to %@ which is already in directory", this));
    m_uuid = std::move(uuid);
    if (m_counterpart)
        m_counterpart->forgetParentUUID();
    if (registrationEnabled) {
        m_inDirectory = true;
        m_wasRegistered = true;
        m_registeredElsewhere.reset();
        ZTDirectory::sharedInstance()->registerObject(this);
    }
}

void ZTAbstractIPC::dealloc()
{
    if (m_inDirectory) {
        zt::log(ztCore, u"*** %@ %@ was torn down while still in the directory; its owner must invalidate it",
                className(), registeredUUID());
        ZTDirectory::sharedInstance()->removeEntryIfHolding(registeredPacked(), this);
        m_inDirectory = false;
    }
    m_observers.reset(); // ends the observations; the member is null while they run
    m_uuid = zt::PackedUUID();
    if (m_counterpart) {
        m_counterpart->setParent(nullptr);
        m_counterpart.reset();
    }
    nilify();
    super::dealloc();
}

// ---- mirroring ----

ZTIPCProxy *ZTAbstractIPC::counterpart()
{
    if (!m_counterpart && m_inDirectory) {
        ZT_ASSERT(!m_uuid.isEmpty(), QStringLiteral("Cannot create counterpart for volatile object"));
        m_counterpart = zt::make<ZTIPCProxy>();
        m_counterpart->setParent(this);
    }
    return m_counterpart.get();
}

void ZTAbstractIPC::setCounterpart(ZTIPCProxy *counterpart)
{
    m_counterpart = counterpart;
}

QVariantMap ZTAbstractIPC::dictionary() const
{
    m_published = true;
    QVariantMap d;
    d.insert(QStringLiteral("description"), description());
    auto *self = const_cast<ZTAbstractIPC *>(this);
    for (const zt::DictionaryEntry &entry : classInfo().dictionaryEntries()) {
        QVariant value = entry.getter->call(self, nullptr);
        if (!value.isValid())
            continue; // a dictionary cannot hold nil
        d.insert(entry.key, std::move(value));
    }
    return d;
}

QString ZTAbstractIPC::replacementKeyForWiring(const QString &key) const
{
    return key;
}

void ZTAbstractIPC::startDirectingKVOCommunication()
{
    if (m_enableInterProcessKVO)
        return;
    m_enableInterProcessKVO = true;
    if (ZTIPCProxy *proxy = counterpart())
        proxy->perform("setEnableInterProcessKVO:", {false});
}

void ZTAbstractIPC::stopDirectingKVOCommunication()
{
    if (!m_enableInterProcessKVO)
        return;
    m_enableInterProcessKVO = false;
    if (ZTIPCProxy *proxy = counterpart())
        proxy->perform("setEnableInterProcessKVO:", {true});
}

QString ZTAbstractIPC::staticUUID() const
{
    return {};
}

bool ZTAbstractIPC::shouldPropagateValueChangesForKey(const QString &key) const
{
    return key != u"representation";
}

ZTIPCProxy *ZTAbstractIPC::propagatingProxy(const QString &key)
{
    if (!m_published || !enableInterProcessKVO() || !shouldPropagateValueChangesForKey(key))
        return nullptr;
    return counterpart();
}

void ZTAbstractIPC::didChangeValueForKey(const QString &key)
{
    super::didChangeValueForKey(key); // local observers first
    ZTIPCProxy *proxy = propagatingProxy(key);
    if (!proxy)
        return;
    const QString wired = replacementKeyForWiring(key);
    if (ZTIPCProxy::isAgent())
        proxy->agentDidChangeValueForKey(wired);
    else
        proxy->clientDidChangeValueForKey(wired);
}

void ZTAbstractIPC::didChangeValuesAtIndexesForKey(zt::KeyValueChange kind, const zt::IndexSet &indexes,
                                                   const QString &key)
{
    super::didChangeValuesAtIndexesForKey(kind, indexes, key);
    ZTIPCProxy *proxy = propagatingProxy(key);
    if (!proxy)
        return;
    const QString wired = replacementKeyForWiring(key);
    if (ZTIPCProxy::isAgent())
        proxy->agentDidChangeValuesAtIndexesForKey(quint64(kind), indexes, wired);
    else
        proxy->clientDidChangeValuesAtIndexesForKey(quint64(kind), indexes, wired);
}

// ---- accessors ----
// The identity and the mirroring switches are not model state: their setters
// do not announce, so they are never mirrored back and forth.

void ZTAbstractIPC::setDescription(const QString &description)
{
    zt::PackedUUID renamed(description);
    if (m_wasRegistered && !m_registeredElsewhere && renamed != m_uuid)
        m_registeredElsewhere = std::make_unique<zt::PackedUUID>(std::move(m_uuid));
    m_uuid = std::move(renamed);
    if (m_counterpart)
        m_counterpart->forgetParentUUID();
}

void ZTAbstractIPC::setEnableInterProcessKVO(bool enable)
{
    m_enableInterProcessKVO = enable;
}

void ZTAbstractIPC::setObservers(const QList<zt::Ref<VDKVO>> &observers)
{
    auto previous = std::exchange(m_observers, std::make_unique<QList<zt::Ref<VDKVO>>>(observers));
}

void ZTAbstractIPC::addObservationToken(zt::Ref<VDKVO> token)
{
    if (!m_observers)
        m_observers = std::make_unique<QList<zt::Ref<VDKVO>>>();
    m_observers->append(std::move(token));
}
