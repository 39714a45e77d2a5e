// Shared by the identity and person tests: playing the agent or the client,
// making objects as each process does, and archive round trips.
#pragma once

#include "core/ztabstractipc.h"
#include "core/ztipcproxy.h"
#include "runtime/exception.h"
#include "runtime/keyedarchive.h"
#include "runtime/process.h"

#include <gtest/gtest.h>

namespace personfamily {

inline QString qs(const char *text)
{
    return QString::fromUtf8(text);
}

inline void playRole(bool agent)
{
    zt::process::setApplicationIdentifier(agent ? QStringLiteral("com.zintaro.Zintaro2Agent")
                                                : QStringLiteral("com.zintaro.Zintaro2"));
    ZTIPCProxy::resetCachedProcessRole();
}

class RoleTest : public testing::Test
{
protected:
    void SetUp() override { playRole(true); }
    void TearDown() override
    {
        zt::process::setApplicationIdentifier(QString());
        ZTIPCProxy::resetCachedProcessRole();
    }
};

template<typename T> zt::Ref<T> agentObject()
{
    auto object = zt::make<T>();
    object->init();
    return object;
}

//! The object an archive of `object` decodes to; `object` is invalidated
//! in between, so that the decoded one can take its UUID.
template<typename T> zt::Ref<T> roundTrip(ZTAbstractIPC *object)
{
    const QByteArray data = zt::KeyedArchiver::archivedDataWithRootObject(zt::objectValue(object));
    object->invalidate();
    const auto back = zt::KeyedUnarchiver::unarchiveObjectWithData(data);
    return back ? zt::Ref<T>(dynamic_cast<T *>(zt::objectFrom(*back))) : zt::Ref<T>();
}

//! The name of the exception `f` raises, empty when it raises none.
template<typename F> QString raisedName(F &&f)
{
    try {
        f();
    } catch (const zt::Exception &e) {
        return e.name();
    }
    return {};
}
} // namespace personfamily
