#pragma once
// Small classes that exercise the runtime the way model classes do.

#include "runtime/exception.h"
#include "runtime/invocation.h"
#include "runtime/keyedarchive.h"
#include "runtime/kvc.h"
#include "runtime/object.h"
#include "support/raised.h"

#include <functional>
#include <gtest/gtest.h>

// A node with announced properties, an ordered to-many list with indexed
// accessors, one with no getter, a list with only a setter, and a derived key.
class Sample : public zt::Object, public zt::Coding
{
    ZT_OBJECT(Sample, zt::Object)
public:
    QString name() const { return m_name; }
    void setName(const QString &v) { setAndNotify(m_name, v, QStringLiteral("name")); }
    qint64 count() const { return m_count; }
    void setCount(qint64 v) { setAndNotify(m_count, v, QStringLiteral("count")); }
    bool isEnabled() const { return m_enabled; }
    void setEnabled(bool v) { setAndNotify(m_enabled, v, QStringLiteral("enabled")); }
    zt::Ref<Sample> child() const { return m_child; }
    void setChild(zt::Ref<Sample> v) { setAndNotify(m_child, std::move(v), QStringLiteral("child")); }
    //! Depends on "name" and "child.name".
    QString title() const { return m_name + u'/' + (m_child ? m_child->name() : QString()); }

    // "items": indexed accessors, no announcements of their own.
    QVariantList items() const { return m_items; }
    quint64 countOfItems() const { return quint64(m_items.size()); }
    QVariant objectInItemsAtIndex(quint64 i) const { return m_items.value(qsizetype(i)); }
    void insertItemsAtIndexes(const QVariantList &values, const zt::IndexSet &indexes)
    {
        qsizetype k = 0;
        for (quint64 i : indexes)
            m_items.insert(qsizetype(i), values[k++]);
    }
    void removeItemsAtIndexes(const zt::IndexSet &indexes)
    {
        for (auto r = indexes.ranges().rbegin(); r != indexes.ranges().rend(); ++r)
            m_items.remove(qsizetype(r->location), qsizetype(r->length));
    }

    // "numbers": no getter, only countOfNumbers and objectInNumbersAtIndex:.
    quint64 countOfNumbers() const { return 3; }
    qint64 objectInNumbersAtIndex(quint64 i) const { return qint64(i * 10); }

    // "tags": only a getter and a setter.
    QVariantList tags() const { return m_tags; }
    void setTags(const QVariantList &v) { setAndNotify(m_tags, v, QStringLiteral("tags")); }

    qint64 add(qint64 a, qint64 b) { return a + b; }
    bool flip(bool v) { return !v; }
    void record(const QString &text, qint16 small, quint32 u32, double d)
    {
        calls.append({text, small, u32, d});
    }

    void encodeWithCoder(zt::KeyedArchiver &c) const override
    {
        c.encodeObject(m_name, QStringLiteral("name"));
        c.encodeInt64(m_count, QStringLiteral("count"));
        c.encodeBool(m_enabled, QStringLiteral("enabled"));
        c.encodeObject(zt::objectValue(m_child.get()), QStringLiteral("child"));
        c.encodeObject(m_items, QStringLiteral("items"));
    }
    void initWithCoder(zt::KeyedUnarchiver &c) override
    {
        m_name = c.decodeObjectForKey(QStringLiteral("name")).toString();
        m_count = c.decodeInt64ForKey(QStringLiteral("count"));
        m_enabled = c.decodeBoolForKey(QStringLiteral("enabled"));
        m_child = zt::fromValue<zt::Ref<Sample>>(c.decodeObjectForKey(QStringLiteral("child")));
        m_items = c.decodeObjectForKey(QStringLiteral("items")).toList();
    }

    QList<QVariantList> calls;

private:
    QString m_name;
    qint64 m_count = 0;
    bool m_enabled = false;
    zt::Ref<Sample> m_child;
    QVariantList m_items;
    QVariantList m_tags;
};

// Records every notification it receives.
class Recorder : public zt::Object
{
    ZT_OBJECT(Recorder, zt::Object)
public:
    struct Note
    {
        QString keyPath;
        zt::KVOChange change;
        void *context;
    };
    void observeValueForKeyPath(const QString &keyPath, zt::Object *, const zt::KVOChange &change,
                                void *context) override
    {
        notes.append({keyPath, change, context});
        if (onNote)
            onNote();
    }
    QList<Note> notes;
    std::function<void()> onNote;
};

//! The name of the exception `f` raises (and its reason in *reason), or an
//! empty string when it raises none.
inline QString raisedName(const std::function<void()> &f, QString *reason = nullptr)
{
    const auto [name, why] = zttest::raised(f);
    if (reason)
        *reason = why;
    return name;
}
