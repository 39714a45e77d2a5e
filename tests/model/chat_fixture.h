#pragma once
// Plays the agent or the client for one test and records what the model
// sends to the other process: change messages (selector and arguments) and
// forwarded calls (the call's own selector).

#include "controller_classes.h"
#include "core/ztapplication.h"
#include "runtime/invocation.h"
#include "runtime/process.h"

#include <gtest/gtest.h>

namespace chattest {

struct Sent
{
    QByteArray selector;
    QVariantList arguments;
};

class RecordingRoot : public zt::Object
{
public:
    zt::MethodSignature methodSignatureForSelector(const zt::Selector &sel) const override
    {
        zt::MethodSignature s = ZTIPCProxy::agentChangeProtocol().methodSignature(sel);
        if (!s.isValid())
            s = ZTIPCProxy::clientChangeProtocol().methodSignature(sel);
        return s.isValid() ? s : Object::methodSignatureForSelector(sel);
    }
    void forwardInvocation(zt::Invocation &invocation) override
    {
        sent.append({invocation.selector(), invocation.arguments()});
    }
    QList<Sent> sent;
};

class RecordingDelegate : public ZTApplicationDelegate
{
public:
    zt::Object *counterpart() const override { return root.get(); }
    void sendForwardedInvocation(zt::Invocation &, const ZTAbstractIPC *,
                                 const zt::Selector &selector) override
    {
        forwarded.append(selector);
    }
    zt::Ref<RecordingRoot> root = zt::make<RecordingRoot>();
    QList<QByteArray> forwarded;
};

class ChatTest : public testing::Test
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
        for (const auto &object : made)
            object->invalidate();
        made.clear();
        ZTApplication::setDelegate(nullptr);
        zt::process::setApplicationIdentifier(QString());
        ZTIPCProxy::resetCachedProcessRole();
    }
    //! A new object of class T made with init (agent) or a fresh UUID
    //! (client), invalidated when the test ends.
    template<typename T> zt::Ref<T> make()
    {
        zt::Ref<T> object = zt::make<T>();
        if (ZTIPCProxy::isAgent())
            object->init();
        else
            object->initWithUUID(zt::process::globallyUniqueString());
        made.append(object);
        return object;
    }
    //! A person named `nick` in `channel`.
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

    RecordingDelegate delegate;
    QList<zt::Ref<ZTAbstractIPC>> made;
};

} // namespace chattest
