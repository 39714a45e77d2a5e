#pragma once
// Object: the root of every runtime object.
//
// Life cycle: objects are reference counted (Ref<T>); a new object starts with
// one reference that its creator adopts (zt::make<T>() or Ref<T>::adopt). When
// the last reference goes, the virtual dealloc() runs first (so an override
// in a subclass still dispatches), then the object is deleted. Subclasses
// override dealloc(), do their teardown and end with the parent's dealloc().
//
// Every object has class metadata (ClassInfo): its name as it travels on the
// wire, its superclass, its selector table and its key dependencies. Methods
// reachable by selector (key-value coding accessors, remote calls) are found
// there; methods that a class does not have go to forwardInvocation().
//
// Key-value coding and observation follow the platform's rules; see kvc.h for
// the accessor search order and kvo.h for change records. Observation is
// synchronous, on the thread that announces the change, without locks.

#include "runtime/classinfo.h"
#include "runtime/kvo.h"
#include "runtime/signature.h"
#include "runtime/value.h"
#include "zt_export.h"

#include <QString>
#include <atomic>
#include <memory>
#include <optional>
#include <span>

namespace zt {

class Invocation;
class MutableArrayProxy;
class ObservationInfo;

class ZT_EXPORT Object
{
public:
    Object();
    Object(const Object &) = delete;
    Object &operator=(const Object &) = delete;
    virtual ~Object();

    // ---- reference counting ----
    void retain() const noexcept { m_refs.fetch_add(1, std::memory_order_relaxed); }
    void release() const noexcept;
    //! Takes a reference unless the count has reached zero, that is unless the
    //! object is already being released or torn down by another thread. For
    //! tables that hold plain pointers to objects they do not own: a table
    //! found the object under its lock, but only a successful try-retain
    //! makes it safe to use.
    bool tryRetain() const noexcept
    {
        int count = m_refs.load(std::memory_order_relaxed);
        do {
            if (count <= 0)
                return false;
        } while (!m_refs.compare_exchange_weak(count, count + 1, std::memory_order_relaxed));
        return true;
    }

    // ---- class metadata ----
    static const ClassInfo &staticClassInfo();
    virtual const ClassInfo &classInfo() const { return staticClassInfo(); }
    //! @sel className
    QString className() const { return classInfo().name(); }
    bool isKindOfClass(const ClassInfo &cls) const { return classInfo().isSubclassOf(cls); }

    //! The object's textual description, printed by "%@". "<Class: 0x…>" by default.
    virtual QString description() const;

    // ---- selectors and invocations ----
    //! The signature of a selector this object answers, from its class table.
    virtual MethodSignature methodSignatureForSelector(const Selector &selector) const;
    virtual bool respondsToSelector(const Selector &selector) const;
    //! Receives every invocation whose selector the class table lacks. The
    //! default raises NSInvalidArgumentException ("unrecognized selector").
    virtual void forwardInvocation(Invocation &invocation);
    [[noreturn]] void doesNotRecognizeSelector(const Selector &selector) const;
    //! Sends a message: looks up the signature (methodSignatureForSelector),
    //! coerces the arguments to its codes, invokes, and returns the result.
    QVariant perform(const Selector &selector, const QVariantList &arguments = {});
    //! perform() with the arguments wherever the caller keeps them (no list).
    QVariant perform(const Selector &selector, std::span<const QVariant> arguments);

    // ---- key-value coding (kvc.cpp) ----
    virtual QVariant valueForKey(const QString &key) const;
    virtual void setValueForKey(const QVariant &value, const QString &key);
    QVariant valueForKeyPath(const QString &keyPath) const;
    void setValueForKeyPath(const QVariant &value, const QString &keyPath);
    //! Raises NSUndefinedKeyException.
    virtual QVariant valueForUndefinedKey(const QString &key) const;
    //! Raises NSUndefinedKeyException.
    virtual void setValueForUndefinedKey(const QVariant &value, const QString &key);
    //! A scalar key set to nil; raises NSInvalidArgumentException.
    virtual void setNilValueForKey(const QString &key);
    //! The ordered to-many view of a key (see kvc.h).
    MutableArrayProxy mutableArrayValueForKey(const QString &key);

    // ---- key-value observation (kvo.cpp) ----
    void addObserver(Object *observer, const QString &keyPath, ObservingOptions options = {},
                     void *context = nullptr);
    //! Removes the most recent matching registration; a duplicate registration
    //! needs a removal of its own. Unknown registrations raise NSRangeException.
    void removeObserver(Object *observer, const QString &keyPath);
    void removeObserver(Object *observer, const QString &keyPath, void *context);
    //! Receives change notifications. The default raises: an object that
    //! registers as observer must handle them.
    virtual void observeValueForKeyPath(const QString &keyPath, Object *object, const KVOChange &change,
                                        void *context);

    //! Announce a change of a single-valued key.
    virtual void willChangeValueForKey(const QString &key);
    virtual void didChangeValueForKey(const QString &key);
    //! Announce an ordered to-many change (insertion, removal, replacement).
    virtual void willChangeValuesAtIndexesForKey(KeyValueChange kind, const IndexSet &indexes,
                                                 const QString &key);
    virtual void didChangeValuesAtIndexesForKey(KeyValueChange kind, const IndexSet &indexes,
                                                const QString &key);

    //! True while any observation is registered on this object.
    bool hasObservers() const;

protected:
    //! Teardown hook: runs once, when the last reference goes, before deletion.
    virtual void dealloc();

    //! Setter helper: announces the change of `key` around the assignment.
    template<typename Field, typename Value>
    void setAndNotify(Field &field, Value &&value, const QString &key)
    {
        willChangeValueForKey(key);
        field = std::forward<Value>(value);
        didChangeValueForKey(key);
    }

private:
    friend class ObservationInfo;
    friend struct ObjectTestAccess; // defined by the tests only
    mutable std::atomic<int> m_refs{1};
    std::unique_ptr<ObservationInfo> m_observation;
};

} // namespace zt
