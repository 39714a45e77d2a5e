#pragma once
// Model-like classes and a recording remote root for the mirroring core.

#include "core/ztabstractipc.h"
#include "core/ztapplication.h"
#include "core/ztdirectory.h"
#include "runtime/exception.h"
#include "runtime/invocation.h"
#include "runtime/kvc.h"
#include "runtime/process.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

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
        if (key == u"children")
            return QStringLiteral("childDictionaries");
        if (key == u"buddy")
            return key; // deliberately not mapped: its value cannot be wired
        return super::replacementKeyForWiring(key);
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
class HeldNode : public TestNode
{
    ZT_OBJECT(HeldNode, TestNode)
public:
    bool isRetainedByDirectory() const override { return true; }
};

// The other process's root object, as far as the proxy can tell: it accepts
// the eight change messages and any forwarded call, and records them.
class RecordingRoot : public zt::Object
{
    ZT_OBJECT(RecordingRoot, zt::Object)
public:
    struct Call
    {
        QByteArray selector;
        QVariantList arguments;
    };
    zt::MethodSignature methodSignatureForSelector(const zt::Selector &sel) const override
    {
        zt::MethodSignature s = ZTIPCProxy::agentChangeProtocol().methodSignature(sel);
        if (!s.isValid())
            s = ZTIPCProxy::clientChangeProtocol().methodSignature(sel);
        return s.isValid() ? s : Object::methodSignatureForSelector(sel);
    }
    void forwardInvocation(zt::Invocation &invocation) override
    {
        calls.append({invocation.selector(), invocation.arguments()});
    }
    QList<Call> calls;
};

class TestDelegate : public ZTApplicationDelegate
{
public:
    zt::Object *counterpart() const override { return root.get(); }
    QVariant clientID() const override { return QStringLiteral("client-7"); }
    zt::Ref<RecordingRoot> root = zt::make<RecordingRoot>();
};

// Plays the agent or the client for the length of one test.
class CoreTest : public testing::Test
{
protected:
    void playRole(bool agent)
    {
        zt::process::setApplicationIdentifier(agent ? QStringLiteral("com.zintaro.Zintaro2Agent")
                                                    : QStringLiteral("com.zintaro.Zintaro2"));
        ZTIPCProxy::resetCachedProcessRole();
    }
    void SetUp() override
    {
        playRole(true);
        ZTApplication::setDelegate(&delegate);
    }
    void TearDown() override
    {
        ZTApplication::setDelegate(nullptr);
        ZTAbstractIPC::enableRegistration();
        ZTAbstractIPC::setRecreateDescriptions(false);
        zt::process::setApplicationIdentifier(QString());
        ZTIPCProxy::resetCachedProcessRole();
    }
    template<typename T = TestNode> zt::Ref<T> agentObject()
    {
        auto o = zt::make<T>();
        o->init();
        return o;
    }
    QList<RecordingRoot::Call> &calls() { return delegate.root->calls; }

    TestDelegate delegate;
};

//! The name and reason of what `f` raises; empty if nothing.
inline std::pair<QString, QString> raised(const std::function<void()> &f)
{
    try {
        f();
    } catch (const zt::Exception &e) {
        return {e.name(), e.reason()};
    }
    return {};
}
