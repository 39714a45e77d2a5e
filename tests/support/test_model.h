#pragma once
// The test model: Sample exercises the runtime the way model classes do;
// TestNode (with TestSingleton and HeldNode) is a mirrored model class for
// the core and the connection tests.

#include "core/ztabstractipc.h"
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

// A mirrored node: scalar and string properties, an ordered list of child
// nodes that crosses the boundary as their dictionaries, a local-only key.
class TestNode : public ZTAbstractIPC
{
    ZT_OBJECT(TestNode, ZTAbstractIPC)
public:
    QString name() const { return m_name; }
    void setName(const QString &v) { setAndNotify(m_name, v, QStringLiteral("name")); }
    qint64 count() const { return m_count; }
    void setCount(qint64 v) { setAndNotify(m_count, v, QStringLiteral("count")); }
    QString representation() const { return m_representation; }
    void setRepresentation(const QString &v)
    {
        setAndNotify(m_representation, v, QStringLiteral("representation"));
    }
    //! A model object: cannot be wired.
    zt::Ref<TestNode> buddy() const { return m_buddy; }
    void setBuddy(zt::Ref<TestNode> v) { setAndNotify(m_buddy, std::move(v), QStringLiteral("buddy")); }

    QList<zt::Ref<TestNode>> children() const { return m_children; }
    void insertChildrenAtIndexes(const QList<zt::Ref<TestNode>> &nodes, const zt::IndexSet &indexes)
    {
        qsizetype k = 0;
        for (quint64 i : indexes)
            m_children.insert(qsizetype(i), nodes[k++]);
    }
    void removeChildrenAtIndexes(const zt::IndexSet &indexes)
    {
        for (auto r = indexes.ranges().rbegin(); r != indexes.ranges().rend(); ++r)
            m_children.remove(qsizetype(r->location), qsizetype(r->length));
    }
    void replaceChildrenAtIndexesWithChildren(const zt::IndexSet &indexes,
                                              const QList<zt::Ref<TestNode>> &nodes)
    {
        qsizetype k = 0;
        for (quint64 i : indexes)
            m_children[qsizetype(i)] = nodes[k++];
    }
    QVariantList childDictionaries() const
    {
        QVariantList out;
        for (const auto &c : m_children)
            out.append(c->dictionary());
        return out;
    }

    //! A forwardable action.
    void renameTo(const QString &name, qint64 times) { setName(name.repeated(int(times))); }

    QString replacementKeyForWiring(const QString &key) const override
    {
        // "buddy" stays unmapped: its value, a model object, cannot be wired.
        return key == u"children" ? QStringLiteral("childDictionaries") : super::replacementKeyForWiring(key);
    }
    QVariantMap dictionary() const override
    {
        QVariantMap d = super::dictionary();
        d.insert(QStringLiteral("name"), m_name);
        return d;
    }
    void encodeWithCoder(zt::KeyedArchiver &coder) const override
    {
        super::encodeWithCoder(coder);
        coder.encodeObject(m_name, QStringLiteral("name"));
    }
    void initWithCoder(zt::KeyedUnarchiver &coder) override
    {
        super::initWithCoder(coder);
        m_name = coder.decodeObjectForKey(QStringLiteral("name")).toString();
    }
    void nilify() override
    {
        ++nilified;
        m_buddy.reset();
    }
    int nilified = 0;

private:
    QString m_name;
    qint64 m_count = 0;
    QString m_representation;
    zt::Ref<TestNode> m_buddy;
    QList<zt::Ref<TestNode>> m_children;
};

// A per-process singleton with a fixed UUID.
class TestSingleton : public ZTAbstractIPC
{
    ZT_OBJECT(TestSingleton, ZTAbstractIPC)
public:
    QString staticUUID() const override { return QStringLiteral("TEST-SINGLETON-UUID"); }
};

// A node the directory keeps alive while it is registered (as it does servers).
// Also registers the superclass's "renameTo:times:" with a narrower count and
// a method of its own: a forwarded call's signature comes from the superclass.
class HeldNode : public TestNode
{
    ZT_OBJECT(HeldNode, TestNode)
public:
    bool isRetainedByDirectory() const override { return true; }
    void renameShortTo(const QString &, qint32) {}
    void ownOnly(const QVariant &) {}
};
