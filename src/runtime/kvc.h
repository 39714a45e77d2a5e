#pragma once
// Key-value coding.
//
// valueForKey: finds, in the class chain, the first of getKey, key, isKey,
// _key; else, with countOfKey plus objectInKeyAtIndex: or keyAtIndexes:, it
// answers the array those make; else valueForUndefinedKey: raises
// NSUndefinedKeyException.
// setValueForKey: finds setKey: or _setKey:; nil for a scalar argument goes
// to setNilValueForKey:; else setValueForUndefinedKey: raises.
// Key paths split at "."; arrays answer element-wise (nil elements become the
// null marker) and understand "@count"; dictionaries answer their entry.

#include "runtime/object.h"

namespace zt {

//! valueForKey: on any value (object, array, dictionary, nil).
ZT_EXPORT QVariant valueForKey(const QVariant &receiver, const QString &key);
ZT_EXPORT QVariant valueForKeyPath(const QVariant &receiver, const QString &keyPath);

//! The ordered to-many view of one key of one object. Every mutation is
//! announced to observers as an insertion (2), removal (3) or replacement (4)
//! with the affected indexes, and goes through the indexed accessors:
//!   insertKey:atIndexes: or insertObject:inKeyAtIndex:
//!   removeKeyAtIndexes: or removeObjectFromKeyAtIndex:
//!   replaceKeyAtIndexes:withKey: or replaceObjectInKeyAtIndex:withObject:
//!   (else a removal and an insertion, announced as one replacement).
//! A key without indexed mutators but with a setter is mutated by reading the
//! whole array, changing it and setting it back; that announces a setting.
class ZT_EXPORT MutableArrayProxy
{
public:
    MutableArrayProxy(Object *target, QString key);

    qsizetype count() const;
    QVariant objectAtIndex(qsizetype index) const;
    QVariantList array() const;

    void insertObjectsAtIndexes(const QVariantList &objects, const IndexSet &indexes);
    void insertObjectAtIndex(const QVariant &object, qsizetype index);
    void addObject(const QVariant &object);
    void addObjects(const QVariantList &objects);
    void removeObjectsAtIndexes(const IndexSet &indexes);
    void removeObjectAtIndex(qsizetype index);
    void removeLastObject();
    void removeAllObjects();
    void replaceObjectsAtIndexes(const IndexSet &indexes, const QVariantList &objects);
    void replaceObjectAtIndex(qsizetype index, const QVariant &object);

private:
    bool hasIndexedMutators() const;
    void mutateThroughSetter(const std::function<void(QVariantList &)> &change);
    void checkIndexes(const IndexSet &indexes, qsizetype limit, const char *method) const;

    Ref<Object> m_target;
    QString m_key;
    const KeyAccessors *m_accessors;
};

} // namespace zt
