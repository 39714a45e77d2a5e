#pragma once
// ZTAbstractIPC: the base of every model object that exists in both processes.
//
// Each object has a UUID (answered as `description`, so printing an object
// prints its UUID; held packed, see zt::PackedUUID), enters the process's
// ZTDirectory under it, and owns at most one ZTIPCProxy, its `counterpart`,
// standing for the mirror with the same UUID in the other process. Every
// did-change announcement of a propagated key is handed to the counterpart
// while this side is the directing one (enableInterProcessKVO), so the
// change is repeated on the mirror.
//
// UUIDs: the agent invents them in init(); the client receives them through
// createCounterpartWithUUID / initWithUUID; per-process singletons answer a
// fixed staticUUID(); decoded objects take the archived one.
//
// Construction is two-phase: make the object with zt::make<T>(), then call
// exactly one of init(), initWithUUID(), initWithDictionary() or (through the
// unarchiver) initWithCoder(). Owners end an object's life with invalidate().

#include "core/vdkvo.h"
#include "core/ztipcproxy.h"
#include "runtime/keyedarchive.h"
#include "runtime/packeduuid.h"

class ZT_EXPORT ZTAbstractIPC : public zt::Object, public zt::Coding
{
    ZT_OBJECT(ZTAbstractIPC, zt::Object)
public:
    // ---- process-wide switches ----
    //! While off, objects that receive a UUID stay out of the directory.
    //! @sel disableRegistration
    static void disableRegistration();
    //! @sel enableRegistration
    static void enableRegistration();
    static bool isRegistrationEnabled();
    //! While on, decoded objects get a fresh UUID instead of the stored one.
    //! @sel setRecreateDescriptions:
    static void setRecreateDescriptions(bool recreate);

    //! The object registered under `uuid`, whatever its class, or a new object
    //! of class `cls` made with initWithUUID. Asserts "Cannot create a
    //! counterpart with null UUID" for an empty UUID.
    //! @sel createCounterpartWithUUID:
    static zt::Ref<ZTAbstractIPC> createCounterpartWithUUID(const zt::ClassInfo &cls, const QString &uuid);
    template<typename T> static zt::Ref<ZTAbstractIPC> createCounterpartWithUUID(const QString &uuid)
    {
        return createCounterpartWithUUID(T::staticClassInfo(), uuid);
    }

    // ---- initialisers ----
    //! Runs init(), then sets every entry of the dictionary by key-value
    //! coding, in the dictionary's order. An entry "description" overwrites
    //! the UUID text without moving the directory entry.
    //! @sel initWithDictionary:
    void initWithDictionary(const QVariantMap &dictionary);
    //! Client only ("Agent cannot call initWithUUID:").
    //! @sel initWithUUID:
    void initWithUUID(const QString &uuid);
    //! The designated initialiser; subclasses set their defaults after
    //! calling the parent's init().
    //! @sel init
    virtual void init();

    // ---- archiving ----
    //! @sel encodeWithCoder:
    void encodeWithCoder(zt::KeyedArchiver &coder) const override;
    //! @sel initWithCoder:
    void initWithCoder(zt::KeyedUnarchiver &coder) override;

    // ---- life cycle ----
    //! Ends observations, leaves the directory and drops links to other model
    //! objects. Only while registered; a second call does nothing.
    //! @sel invalidate
    void invalidate();
    //! Drops links to other model objects; runs from invalidate() and again
    //! at teardown, so it must tolerate a second call.
    //! @sel nilify
    virtual void nilify();
    //! Sets the UUID and registers the object. Raises "AssignUUID
    //! Inconsistency" for an object already in the directory.
    //! @sel assignUUID:
    void assignUUID(const QString &uuid);

    // ---- mirroring ----
    //! The proxy for the mirror, made on first use while the object is
    //! registered; null for an object outside the directory.
    //! @sel counterpart
    ZTIPCProxy *counterpart();
    //! @sel setCounterpart:
    void setCounterpart(ZTIPCProxy *counterpart);
    //! The dictionary form: { "description": UUID } plus each class's keys.
    //! @sel dictionary
    virtual QVariantMap dictionary() const;
    //! The key under which a key's value crosses the process boundary.
    //! @sel replacementKeyForWiring:
    virtual QString replacementKeyForWiring(const QString &key) const;
    //! Makes this side the one that sends changes (the mirror stops sending).
    //! @sel startDirectingKVOCommunication
    void startDirectingKVOCommunication();
    //! @sel stopDirectingKVOCommunication
    void stopDirectingKVOCommunication();
    //! The fixed UUID of a per-process singleton class; null otherwise.
    //! @sel staticUUID
    virtual QString staticUUID() const;
    //! YES for every key but "representation".
    //! @sel shouldPropagateValueChangesForKey:
    virtual bool shouldPropagateValueChangesForKey(const QString &key) const;
    //! Whether the directory holds objects of this class while registered.
    virtual bool isRetainedByDirectory() const { return false; }

    void didChangeValueForKey(const QString &key) override;
    void didChangeValuesAtIndexesForKey(zt::KeyValueChange kind, const zt::IndexSet &indexes,
                                        const QString &key) override;

    // ---- accessors ----
    //! The UUID.
    //! @sel description
    QString description() const override { return m_uuid.toString(); }
    //! @sel setDescription:
    void setDescription(const QString &description);
    //! @sel enableInterProcessKVO
    virtual bool enableInterProcessKVO() const { return m_enableInterProcessKVO; }
    //! @sel setEnableInterProcessKVO:
    void setEnableInterProcessKVO(bool enable);
    //! @sel observers
    QList<zt::Ref<VDKVO>> observers() const { return m_observers ? *m_observers : QList<zt::Ref<VDKVO>>(); }
    //! @sel setObservers:
    void setObservers(const QList<zt::Ref<VDKVO>> &observers);
    //! Keeps a token alive for as long as the object observes.
    void addObservationToken(zt::Ref<VDKVO> token);

    //! True while a change from the other process, or the entries of a
    //! dictionary form, are being applied to this object (see
    //! ApplyingOtherProcess). A class whose changes cross in both directions
    //! answers NO to enableInterProcessKVO meanwhile, so that nothing echoes
    //! back; a change the application makes, by a setter or by key-value
    //! coding, still crosses.
    bool isApplyingOtherProcessChange() const { return m_applyingOtherProcess > 0; }
    //! Marks `object` as applying the other process's state for its lifetime.
    class ApplyingOtherProcess
    {
    public:
        explicit ApplyingOtherProcess(ZTAbstractIPC *object) : m_object(object)
        {
            ++m_object->m_applyingOtherProcess;
        }
        ~ApplyingOtherProcess() { --m_object->m_applyingOtherProcess; }
        ApplyingOtherProcess(const ApplyingOtherProcess &) = delete;
        ApplyingOtherProcess &operator=(const ApplyingOtherProcess &) = delete;

    private:
        ZTAbstractIPC *m_object;
    };

    bool inDirectory() const { return m_inDirectory; }
    //! False for an object whose UUID this process invented and whose
    //! dictionary or archive form has not been made yet: no other process can
    //! hold its mirror, so its changes are not sent. Making either form
    //! publishes it for good.
    bool isPublished() const { return m_published; }
    //! The UUID the object entered the directory with; null if it never did.
    QString registeredUUID() const { return m_wasRegistered ? registeredPacked().toString() : QString(); }

protected:
    void dealloc() override;

private:
    [[noreturn]] void uuidInconsistency(const QString &expected) const;
    void assignPacked(zt::PackedUUID uuid);
    //! The counterpart when a change of `key` is to cross to the other process.
    ZTIPCProxy *propagatingProxy(const QString &key);

    friend class ZTDirectory;

    std::unique_ptr<QList<zt::Ref<VDKVO>>> m_observers; // null until the first token
    zt::Ref<ZTIPCProxy> m_counterpart;
    //! The UUID the directory holds the object under: its own unless it was
    //! renamed by setDescription while registered.
    const zt::PackedUUID &registeredPacked() const
    {
        return m_registeredElsewhere ? *m_registeredElsewhere : m_uuid;
    }

    // Every person and identity carries these: keep them small.
    zt::PackedUUID m_uuid;
    std::unique_ptr<zt::PackedUUID> m_registeredElsewhere; // only after a rename
    qint16 m_applyingOtherProcess = 0;
    bool m_wasRegistered = false;
    bool m_inDirectory = false;
    bool m_awakeFromCoder = false;
    mutable bool m_published = true;
    bool m_enableInterProcessKVO = false;
};
