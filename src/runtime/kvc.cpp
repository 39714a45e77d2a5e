#include "runtime/kvc.h"
#include "runtime/members.h"

#include "runtime/dictionary.h"
#include "runtime/exception.h"
#include "runtime/format.h"

namespace zt {

namespace {

QString undefinedKeyReason(const Object *o, const char *method, const QString &key)
{
    return format(u"[<%@ %p> %s]: this class is not key value coding-compliant for the key %@.",
                  o->className(), static_cast<const void *>(o), method, key);
}

} // namespace

// ---- Object's key-value coding ----

QVariant Object::valueForKey(const QString &key) const
{
    const KeyAccessors &acc = classInfo().accessorsForKey(key);
    Object *self = const_cast<Object *>(this);
    if (acc.getter)
        return acc.getter->call(self, nullptr);
    if (acc.countOf && (acc.objectAt || acc.atIndexes)) {
        const qint64 n = acc.countOf->call(self, nullptr).toLongLong();
        if (acc.atIndexes) {
            const QVariant all = QVariant::fromValue(IndexSet::fromRange(0, quint64(std::max<qint64>(0, n))));
            return acc.atIndexes->call(self, &all);
        }
        QVariantList out;
        out.reserve(n);
        for (qint64 i = 0; i < n; ++i) {
            const QVariant index{quint64(i)};
            out.append(acc.objectAt->call(self, &index));
        }
        return out;
    }
    return valueForUndefinedKey(key);
}

void Object::setValueForKey(const QVariant &value, const QString &key)
{
    const KeyAccessors &acc = classInfo().accessorsForKey(key);
    if (!acc.setter) {
        setValueForUndefinedKey(value, key);
        return;
    }
    // Only an object argument takes nil; a qualified code ("r@") counts as a scalar.
    const char code = acc.setterCode;
    if (code != '@' && isNilOrNull(value)) {
        setNilValueForKey(key);
        return;
    }
    if (code == 0 || isCoercedToTypeCode(value, code)) {
        acc.setter->call(this, &value);
        return;
    }
    const QVariant arg = coerceToTypeCode(value, code);
    acc.setter->call(this, &arg);
}

QVariant Object::valueForKeyPath(const QString &keyPath) const
{
    const qsizetype dot = keyPath.indexOf(u'.');
    if (dot < 0)
        return valueForKey(keyPath);
    return zt::valueForKeyPath(valueForKey(keyPath.left(dot)), keyPath.mid(dot + 1));
}

void Object::setValueForKeyPath(const QVariant &value, const QString &keyPath)
{
    const qsizetype dot = keyPath.indexOf(u'.');
    if (dot < 0) {
        setValueForKey(value, keyPath);
        return;
    }
    if (Object *next = objectFrom(valueForKey(keyPath.left(dot))))
        next->setValueForKeyPath(value, keyPath.mid(dot + 1));
}

QVariant Object::valueForUndefinedKey(const QString &key) const
{
    Exception::raise(QString::fromUtf16(exceptions::UndefinedKey),
                     undefinedKeyReason(this, "valueForUndefinedKey:", key));
}

void Object::setValueForUndefinedKey(const QVariant &, const QString &key)
{
    Exception::raise(QString::fromUtf16(exceptions::UndefinedKey),
                     undefinedKeyReason(this, "setValue:forUndefinedKey:", key));
}

void Object::setNilValueForKey(const QString &key)
{
    invalidArgument(format(u"[<%@ %p> setNilValueForKey]: could not set nil as the value for the key %@.",
                           className(), static_cast<const void *>(this), key));
}

MutableArrayProxy Object::mutableArrayValueForKey(const QString &key)
{
    return MutableArrayProxy(this, key);
}

// ---- values ----

QVariant valueForKey(const QVariant &receiver, const QString &key)
{
    switch (kindOf(receiver)) {
    case ValueKind::Nil:
        return {};
    case ValueKind::Object:
        return objectFrom(receiver)->valueForKey(key);
    case ValueKind::Dictionary:
        return entryValue(receiver, key);
    case ValueKind::Array: {
        const QVariantList list = receiver.toList();
        if (key == u"@count")
            return QVariant(quint64(list.size()));
        QVariantList out;
        out.reserve(list.size());
        for (const QVariant &e : list) {
            QVariant v = valueForKey(e, key);
            out.append(v.isValid() ? v : nullValue());
        }
        return out;
    }
    default:
        break;
    }
    Exception::raise(
        QString::fromUtf16(exceptions::UndefinedKey),
        format(u"[<%@ %p> valueForUndefinedKey:]: this class is not key value coding-compliant for "
               u"the key %@.",
               valueClassName(receiver), receiver.constData(), key));
}

QVariant valueForKeyPath(const QVariant &receiver, const QString &keyPath)
{
    const qsizetype dot = keyPath.indexOf(u'.');
    if (dot < 0)
        return valueForKey(receiver, keyPath);
    return valueForKeyPath(valueForKey(receiver, keyPath.left(dot)), keyPath.mid(dot + 1));
}

// ---- the ordered to-many view ----

MutableArrayProxy::MutableArrayProxy(Object *target, QString key)
    : m_target(target), m_key(std::move(key)), m_accessors(&target->classInfo().accessorsForKey(m_key))
{}

qsizetype MutableArrayProxy::count() const
{
    if (m_accessors->countOf)
        return qsizetype(m_accessors->countOf->call(m_target.get(), nullptr).toLongLong());
    return array().size();
}

QVariant MutableArrayProxy::objectAtIndex(qsizetype index) const
{
    if (m_accessors->objectAt && index >= 0 && index < count()) {
        const QVariant i{quint64(index)};
        return m_accessors->objectAt->call(m_target.get(), &i);
    }
    const QVariantList list = array();
    if (index < 0 || index >= list.size())
        Exception::raise(QString::fromUtf16(exceptions::RangeError),
                         format(u"*** -[NSKeyValueArray objectAtIndex:]: index %ld beyond bounds [0 .. %ld]",
                                qint64(index), qint64(list.size()) - 1));
    return list[index];
}

QVariantList MutableArrayProxy::array() const
{
    return m_target->valueForKey(m_key).toList();
}

bool MutableArrayProxy::hasIndexedMutators() const
{
    const KeyAccessors &a = *m_accessors;
    return (a.insertMany || a.insertOne) && (a.removeMany || a.removeOne);
}

void MutableArrayProxy::checkIndexes(const IndexSet &indexes, qsizetype limit, const char *method) const
{
    if (!indexes.isEmpty() && indexes.last() >= quint64(limit))
        Exception::raise(QString::fromUtf16(exceptions::RangeError),
                         format(u"*** -[NSKeyValueArray %s]: index %lu beyond bounds [0 .. %ld]", method,
                                indexes.last(), qint64(limit) - 1));
}

void MutableArrayProxy::mutateThroughSetter(const std::function<void(QVariantList &)> &change)
{
    if (!m_accessors->setter)
        Exception::raise(QString::fromUtf16(exceptions::UndefinedKey),
                         undefinedKeyReason(m_target.get(), "mutableArrayValueForKey:", m_key));
    QVariantList list = array();
    change(list);
    m_target->setValueForKey(list, m_key);
}

void MutableArrayProxy::insertObjectsAtIndexes(const QVariantList &objects, const IndexSet &indexes)
{
    if (quint64(objects.size()) != indexes.count())
        invalidArgument(
            format(u"*** -[NSKeyValueArray insertObjects:atIndexes:]: count of array (%lu) differs "
                   u"from count of index set (%lu)",
                   quint64(objects.size()), indexes.count()));
    if (objects.isEmpty())
        return;
    checkIndexes(indexes, count() + objects.size(), "insertObjects:atIndexes:");
    if (!hasIndexedMutators()) {
        mutateThroughSetter([&](QVariantList &list) {
            qsizetype k = 0;
            for (quint64 i : indexes)
                list.insert(qsizetype(i), objects[k++]);
        });
        return;
    }
    m_target->willChangeValuesAtIndexesForKey(KeyValueChange::Insertion, indexes, m_key);
    if (m_accessors->insertMany) {
        const QVariant args[2] = {objects, QVariant::fromValue(indexes)};
        m_accessors->insertMany->call(m_target.get(), args);
    } else {
        qsizetype k = 0;
        for (quint64 i : indexes) {
            const QVariant args[2] = {objects[k++], QVariant(i)};
            m_accessors->insertOne->call(m_target.get(), args);
        }
    }
    m_target->didChangeValuesAtIndexesForKey(KeyValueChange::Insertion, indexes, m_key);
}

void MutableArrayProxy::insertObjectAtIndex(const QVariant &object, qsizetype index)
{
    insertObjectsAtIndexes({object}, IndexSet(quint64(index)));
}

void MutableArrayProxy::addObject(const QVariant &object)
{
    insertObjectAtIndex(object, count());
}

void MutableArrayProxy::addObjects(const QVariantList &objects)
{
    insertObjectsAtIndexes(objects, IndexSet::fromRange(quint64(count()), quint64(objects.size())));
}

void MutableArrayProxy::removeObjectsAtIndexes(const IndexSet &indexes)
{
    if (indexes.isEmpty())
        return;
    checkIndexes(indexes, count(), "removeObjectsAtIndexes:");
    if (!hasIndexedMutators()) {
        mutateThroughSetter([&](QVariantList &list) {
            for (auto r = indexes.ranges().rbegin(); r != indexes.ranges().rend(); ++r)
                list.remove(qsizetype(r->location), qsizetype(r->length));
        });
        return;
    }
    m_target->willChangeValuesAtIndexesForKey(KeyValueChange::Removal, indexes, m_key);
    if (m_accessors->removeMany) {
        const QVariant arg = QVariant::fromValue(indexes);
        m_accessors->removeMany->call(m_target.get(), &arg);
    } else {
        const QList<quint64> list = indexes.toList();
        for (auto it = list.crbegin(); it != list.crend(); ++it) {
            const QVariant arg(*it);
            m_accessors->removeOne->call(m_target.get(), &arg);
        }
    }
    m_target->didChangeValuesAtIndexesForKey(KeyValueChange::Removal, indexes, m_key);
}

void MutableArrayProxy::removeObjectAtIndex(qsizetype index)
{
    removeObjectsAtIndexes(IndexSet(quint64(index)));
}

void MutableArrayProxy::removeLastObject()
{
    const qsizetype n = count();
    if (n > 0)
        removeObjectAtIndex(n - 1);
}

void MutableArrayProxy::removeAllObjects()
{
    const qsizetype n = count();
    if (n > 0)
        removeObjectsAtIndexes(IndexSet::fromRange(0, quint64(n)));
}

void MutableArrayProxy::replaceObjectsAtIndexes(const IndexSet &indexes, const QVariantList &objects)
{
    if (quint64(objects.size()) != indexes.count())
        invalidArgument(format(u"*** -[NSKeyValueArray replaceObjectsAtIndexes:withObjects:]: count of array "
                               u"(%lu) differs from count of index set (%lu)",
                               quint64(objects.size()), indexes.count()));
    if (objects.isEmpty())
        return;
    checkIndexes(indexes, count(), "replaceObjectsAtIndexes:withObjects:");
    if (!hasIndexedMutators()) {
        mutateThroughSetter([&](QVariantList &list) {
            qsizetype k = 0;
            for (quint64 i : indexes)
                list[qsizetype(i)] = objects[k++];
        });
        return;
    }
    const KeyAccessors &a = *m_accessors;
    m_target->willChangeValuesAtIndexesForKey(KeyValueChange::Replacement, indexes, m_key);
    if (a.replaceMany) {
        const QVariant args[2] = {QVariant::fromValue(indexes), objects};
        a.replaceMany->call(m_target.get(), args);
    } else if (a.replaceOne) {
        qsizetype k = 0;
        for (quint64 i : indexes) {
            const QVariant args[2] = {QVariant(i), objects[k++]};
            a.replaceOne->call(m_target.get(), args);
        }
    } else {
        const QVariant idx = QVariant::fromValue(indexes);
        if (a.removeMany) {
            a.removeMany->call(m_target.get(), &idx);
        } else {
            const QList<quint64> list = indexes.toList();
            for (auto it = list.crbegin(); it != list.crend(); ++it) {
                const QVariant arg(*it);
                a.removeOne->call(m_target.get(), &arg);
            }
        }
        if (a.insertMany) {
            const QVariant args[2] = {objects, idx};
            a.insertMany->call(m_target.get(), args);
        } else {
            qsizetype k = 0;
            for (quint64 i : indexes) {
                const QVariant args[2] = {objects[k++], QVariant(i)};
                a.insertOne->call(m_target.get(), args);
            }
        }
    }
    m_target->didChangeValuesAtIndexesForKey(KeyValueChange::Replacement, indexes, m_key);
}

void MutableArrayProxy::replaceObjectAtIndex(qsizetype index, const QVariant &object)
{
    replaceObjectsAtIndexes(IndexSet(quint64(index)), {object});
}

} // namespace zt

namespace zt {

void raiseIndexBeyondBounds(const Object *object, const char *selector, quint64 index, qsizetype count)
{
    Exception::raise(QString::fromUtf16(exceptions::RangeError),
                     format(u"*** -[%@ %s]: index %lu beyond bounds [0 .. %ld]", object->className(),
                            selector, index, qint64(count) - 1));
}

void raiseBadObjects(const Object *object, const char *selector, qsizetype objects, quint64 indexes)
{
    invalidArgument(format(u"*** -[%@ %s]: %lu objects (none nil) for %lu indexes required",
                           object->className(), selector, quint64(objects), indexes));
}

namespace detail {

namespace {
thread_local qsizetype t_dictionaryListLimit = 0;
} // namespace

DictionaryListLimit::DictionaryListLimit(qsizetype limit) : m_previous(t_dictionaryListLimit)
{
    t_dictionaryListLimit = qMax<qsizetype>(limit, 0);
}

DictionaryListLimit::~DictionaryListLimit()
{
    t_dictionaryListLimit = m_previous;
}

qsizetype DictionaryListLimit::current()
{
    return t_dictionaryListLimit;
}

} // namespace detail

} // namespace zt
