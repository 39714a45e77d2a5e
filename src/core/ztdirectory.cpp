#include "core/ztdirectory.h"

#include "core/ztabstractipc.h"
#include "runtime/exception.h"
#include "runtime/fastpath_p.h"

struct ZTDirectory::LastHit : zt::fastpath::AddressKeyedCache<QString, ZTAbstractIPC *, 1>
{
};

ZT_DEFINE_CLASS_WITH_MEMBERS(ZTDirectory)

void ZTDirectory::registerMembers(zt::ClassBuilder<ZTDirectory> &b)
{
    b.method("objectWithID:", &ZTDirectory::objectWithID);
    b.method("personWithID:", &ZTDirectory::personWithID);
    b.method("channelWithID:", &ZTDirectory::channelWithID);
    b.method("connectionWithID:", &ZTDirectory::connectionWithID);
    b.method("registerObject:", &ZTDirectory::registerObject);
    b.method("unregisterObject:", &ZTDirectory::unregisterObject);
    b.method("unregisterObjectWithID:", &ZTDirectory::unregisterObjectWithID);
}

ZTDirectory::ZTDirectory() : m_lastHit(std::make_unique<LastHit>()) {}

ZTDirectory::~ZTDirectory() = default;

ZTDirectory *ZTDirectory::sharedInstance()
{
    static ZTDirectory *const instance = QKSharedObject::sharedInstance<ZTDirectory>();
    return instance;
}

zt::Ref<ZTAbstractIPC> ZTDirectory::objectWithID(const QString &uuid) const
{
    if (uuid.isEmpty())
        return {};
    QMutexLocker locker(&m_lock);
    ZTAbstractIPC *object = nullptr;
    if (ZTAbstractIPC *const *hit = m_lastHit->find(uuid)) {
        object = *hit;
    } else {
        auto it = m_objects.constFind(zt::PackedUUID(uuid));
        if (it == m_objects.cend())
            return {};
        object = *it;
        m_lastHit->store(uuid, object);
    }
    // The entry is a plain pointer: the object may already be on its way out
    // on another thread (its last reference gone, its teardown about to take
    // the entry out). Such an object is answered as absent.
    return zt::Ref<ZTAbstractIPC>::tryRetain(object);
}

void ZTDirectory::forgetLastHit()
{
    m_lastHit->clear();
}

void ZTDirectory::registerObject(ZTAbstractIPC *object)
{
    ZT_ASSERT(object, QStringLiteral("Directory can't register a null object"));
    const zt::PackedUUID &uuid = object->m_uuid;
    ZT_ASSERT(!uuid.isNull(), QStringLiteral("Directory can't register a null-description object"));
    QMutexLocker locker(&m_lock);
    const qsizetype before = m_objects.size();
    ZTAbstractIPC *&entry = m_objects[uuid]; // one look-up: inserts a null entry if there is none
    if (m_objects.size() == before)
        return; // the first registration wins
    entry = object;
    if (object->isRetainedByDirectory())
        m_held.insert(uuid, zt::Ref<ZTAbstractIPC>(object));
}

void ZTDirectory::unregisterObject(ZTAbstractIPC *object)
{
    ZT_ASSERT(object, QStringLiteral("Directory can't unregister a null object"));
    removeEntry(object->registeredPacked());
}

void ZTDirectory::unregisterObjectWithID(const QString &uuid)
{
    removeEntry(zt::PackedUUID(uuid));
}

void ZTDirectory::removeEntry(const zt::PackedUUID &uuid)
{
    ZT_ASSERT(!uuid.isNull(), QStringLiteral("Directory can't unregister a null-description object"));
    zt::Ref<ZTAbstractIPC> held;
    {
        QMutexLocker locker(&m_lock);
        if (m_objects.remove(uuid) && !m_held.isEmpty())
            held = m_held.take(uuid);
        forgetLastHit();
    }
    // `held` is dropped here, outside the lock: it may free the object.
}

void ZTDirectory::removeEntryIfHolding(const zt::PackedUUID &uuid, const ZTAbstractIPC *object)
{
    QMutexLocker locker(&m_lock);
    auto it = m_objects.find(uuid);
    if (it == m_objects.end() || *it != object)
        return;
    m_objects.erase(it);
    // An object being torn down was never held: the hold would have kept it
    // alive.
    forgetLastHit();
}

namespace {
QMutex agentLock;
zt::Ref<zt::Object> &agentRef()
{
    static zt::Ref<zt::Object> agent;
    return agent;
}
} // namespace

void ZTCoreBridge::setAgent(zt::Object *agent)
{
    zt::Ref<zt::Object> previous;
    {
        QMutexLocker locker(&agentLock);
        if (agentRef().get() == agent)
            return;
        previous = std::exchange(agentRef(), zt::Ref<zt::Object>(agent));
    }
}

zt::Object *ZTCoreBridge::agent()
{
    QMutexLocker locker(&agentLock);
    return agentRef().get();
}
