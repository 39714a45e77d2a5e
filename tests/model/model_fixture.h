#pragma once
// The model tests' fixture: plays the agent (or the client) for one test,
// records the calls the model forwards to the other process, and
// invalidates the objects a test made when it ends.

#include "controller_classes.h"
#include "core/ztapplication.h"
#include "model_diff.h"
#include "runtime/keyedarchive.h"
#include "runtime/plist.h"

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

class ModelTest : public testing::Test
{
protected:
    //! Stands for the link to the other process: records the forwarded calls.
    class RecordingDelegate : public ZTApplicationDelegate
    {
    public:
        zt::Object *counterpart() const override { return nullptr; }
        void sendForwardedInvocation(zt::Invocation &, const ZTAbstractIPC *,
                                     const zt::Selector &selector) override
        {
            forwarded.append(selector);
        }
        QList<QByteArray> forwarded;
    };

    void SetUp() override
    {
        playRole(true);
        ZTApplication::setDelegate(&delegate);
    }
    void TearDown() override
    {
        for (const auto &object : made)
            object->invalidate();
        made.clear();
        ZTApplication::setDelegate(nullptr);
        zt::process::setApplicationIdentifier(QString());
        ZTIPCProxy::resetCachedProcessRole();
    }
    //! A table's UTF-8 text as a string.
    static QString qs(const char *text) { return QString::fromUtf8(text); }
    static void playRole(bool agent)
    {
        zt::process::setApplicationIdentifier(agent ? u"com.zintaro.Zintaro2Agent"_s
                                                    : u"com.zintaro.Zintaro2"_s);
        ZTIPCProxy::resetCachedProcessRole();
    }
    //! `object`, invalidated when the test ends.
    template<typename T> zt::Ref<T> keep(zt::Ref<T> object)
    {
        if (object)
            made.append(object);
        return object;
    }
    //! A new object of class T made with init (agent) or under a fresh UUID
    //! (client), invalidated when the test ends.
    template<typename T> zt::Ref<T> make()
    {
        zt::Ref<T> object = zt::make<T>();
        if (ZTIPCProxy::isAgent())
            object->init();
        else
            object->initWithUUID(zt::process::globallyUniqueString());
        return keep(object);
    }
    zt::Ref<ZTAbstractPerson> person(const QString &nick)
    {
        auto p = make<AgentPerson>();
        p->identity()->setNickname(nick);
        return p;
    }
    zt::Ref<AgentChannel> channel(const QString &name, AgentConnection *connection = nullptr)
    {
        auto c = make<AgentChannel>();
        c->setName(name);
        c->setConnection(connection);
        return c;
    }
    //! The object an archive of `object` decodes to; `object` is invalidated
    //! in between, so that the decoded one can take its UUID.
    template<typename T> zt::Ref<T> roundTrip(ZTAbstractIPC *object, const QStringList &dropKeys = {})
    {
        QByteArray data = zt::KeyedArchiver::archivedDataWithRootObject(zt::objectValue(object));
        if (!dropKeys.isEmpty())
            data = archiveWithout(data, dropKeys);
        object->invalidate();
        const auto back = zt::KeyedUnarchiver::unarchiveObjectWithData(data);
        return keep(back ? zt::Ref<T>(dynamic_cast<T *>(zt::objectFrom(*back))) : zt::Ref<T>());
    }
    //! The keyed archive `data` as an older version wrote it: without `keys`.
    static QByteArray archiveWithout(const QByteArray &data, const QStringList &keys)
    {
        QVariantMap plist = zt::plist::readBinary(data)->toMap();
        QVariantList objects = plist.value(u"$objects"_s).toList();
        for (QVariant &o : objects)
            if (o.metaType() != QMetaType::fromType<QString>() &&
                zt::kindOf(o) == zt::ValueKind::Dictionary) {
                QVariantMap m = o.toMap();
                for (const QString &key : keys)
                    m.remove(key);
                o = m;
            }
        plist.insert(u"$objects"_s, objects);
        return zt::plist::writeBinary(plist);
    }
    //! The dictionary form is exactly "description" plus `expected`.
    static void expectDictionary(const ZTAbstractIPC *object, QVariantMap expected)
    {
        expected.insert(u"description"_s, object->description());
        const QStringList differences = zt::apps::describeDifferences(expected, object->dictionary());
        EXPECT_TRUE(differences.isEmpty()) << qPrintable(differences.join(u'\n'));
    }

    RecordingDelegate delegate;
    QList<zt::Ref<ZTAbstractIPC>> made;
};
