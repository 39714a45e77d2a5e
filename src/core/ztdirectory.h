#pragma once
// ZTDirectory: the per-process table from UUID to live model object.
//
// The table does not own its objects, with one exception: objects whose
// class answers isRetainedByDirectory() (servers and networks) are held by the
// directory for as long as they are registered. Every other object must leave
// the directory (ZTAbstractIPC::invalidate) before it is freed; one torn down
// while registered removes its own entry and logs a warning, so the table
// never points at a freed object.
//
// Each table operation runs under the directory's lock. The first object
// registered under a UUID keeps the entry; later ones are silently not
// entered. A removal takes out whatever object is stored under the UUID and
// drops the directory's hold on that object, if it had one.

#include "core/qksharedobject.h"
#include "runtime/packeduuid.h"

#include <QHash>
#include <QMutex>
#include <memory>

class ZTAbstractIPC;

class ZT_EXPORT ZTDirectory : public QKSharedObject
{
    ZT_OBJECT(ZTDirectory, QKSharedObject)
public:
    //! @sel sharedInstance
    static ZTDirectory *sharedInstance();

    //! The object registered under `uuid`; null for an empty or unknown UUID.
    //! @sel objectWithID:
    zt::Ref<ZTAbstractIPC> objectWithID(const QString &uuid) const;
    //! Same as objectWithID; the names only say what the caller expects.
    //! @sel personWithID:
    zt::Ref<ZTAbstractIPC> personWithID(const QString &uuid) const { return objectWithID(uuid); }
    //! @sel channelWithID:
    zt::Ref<ZTAbstractIPC> channelWithID(const QString &uuid) const { return objectWithID(uuid); }
    //! @sel connectionWithID:
    zt::Ref<ZTAbstractIPC> connectionWithID(const QString &uuid) const { return objectWithID(uuid); }

    //! Enters the object under its description (its UUID) unless that UUID is
    //! taken. Asserts "Directory can't register a null object" and
    //! "Directory can't register a null-description object".
    //! @sel registerObject:
    void registerObject(ZTAbstractIPC *object);
    //! Removes the entry under the UUID the object was registered with.
    //! Asserts "Directory can't unregister a null object".
    //! @sel unregisterObject:
    void unregisterObject(ZTAbstractIPC *object);
    //! Removes the entry under `uuid`, whatever it holds. Asserts
    //! "Directory can't unregister a null-description object" for a null UUID.
    //! @sel unregisterObjectWithID:
    void unregisterObjectWithID(const QString &uuid);

    ZTDirectory();
    ~ZTDirectory() override;

private:
    friend class ZTAbstractIPC;
    //! Removes the entry under `uuid` only if it holds `object`; used when an
    //! object is torn down while still registered.
    void removeEntryIfHolding(const zt::PackedUUID &uuid, const ZTAbstractIPC *object);
    void removeEntry(const zt::PackedUUID &uuid);
    void forgetLastHit(); // under m_lock
    mutable QMutex m_lock;
    // A plain pointer per entry (a channel's people are most of them); the
    // few objects the directory retains are held in a table of their own.
    QHash<zt::PackedUUID, ZTAbstractIPC *> m_objects;
    QHash<zt::PackedUUID, zt::Ref<ZTAbstractIPC>> m_held;
    // The last object found, by the address of its ID's characters: decoded
    // messages name the same object with the same string over and over. Any
    // removal forgets it.
    struct LastHit;
    const std::unique_ptr<LastHit> m_lastHit;
};

//! ZTCoreBridge: the process-wide reference to the agent application object,
//! through which model code in the agent reports events. Null in the client.
class ZT_EXPORT ZTCoreBridge
{
public:
    //! @sel setAgent:
    static void setAgent(zt::Object *agent);
    //! @sel agent
    static zt::Object *agent();
};
