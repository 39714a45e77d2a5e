#pragma once
// Shared by the model tests: the process role and small makers.

#include "core/ztabstractipc.h"
#include "core/ztdirectory.h"
#include "core/ztipcproxy.h"
#include "model_diff.h"
#include "runtime/plist.h"
#include "runtime/process.h"

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

inline void playRole(bool agent)
{
    zt::process::setApplicationIdentifier(agent ? u"com.zintaro.ModelTestAgent"_s
                                                : u"com.zintaro.ModelTest"_s);
    ZTIPCProxy::resetCachedProcessRole();
}

class ModelTest : public testing::Test
{
protected:
    void SetUp() override { playRole(true); }
    void TearDown() override { playRole(true); }
};

template<typename T> zt::Ref<T> agentObject()
{
    auto object = zt::make<T>();
    object->init();
    return object;
}

//! The dictionary form is exactly "description" plus `expected`.
inline void expectDictionary(const ZTAbstractIPC *object, QVariantMap expected)
{
    expected.insert(u"description"_s, object->description());
    const QStringList differences = zt::apps::describeDifferences(expected, object->dictionary());
    EXPECT_TRUE(differences.isEmpty()) << qPrintable(differences.join(u'\n'));
}

//! The keyed archive `data` as an older version wrote it: without `keys`.
inline QByteArray archiveWithout(const QByteArray &data, const QStringList &keys)
{
    QVariantMap plist = zt::plist::readBinary(data)->toMap();
    QVariantList objects = plist.value(u"$objects"_s).toList();
    for (QVariant &o : objects)
        if (o.metaType() != QMetaType::fromType<QString>() && zt::kindOf(o) == zt::ValueKind::Dictionary) {
            QVariantMap m = o.toMap();
            for (const QString &key : keys)
                m.remove(key);
            o = m;
        }
    plist.insert(u"$objects"_s, objects);
    return zt::plist::writeBinary(plist);
}
