// Directory look-ups racing with the release of the objects they find.

#include "core/ztabstractipc.h"
#include "core/ztdirectory.h"

#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <thread>

namespace {

// Leaves the directory from its teardown, after an optional pause: the window
// in which its count is zero but the directory still names it.
class DyingNode : public ZTAbstractIPC
{
    ZT_OBJECT(DyingNode, ZTAbstractIPC)
public:
    std::function<void()> onTeardown;

protected:
    void dealloc() override
    {
        if (onTeardown)
            onTeardown();
        invalidate();
        super::dealloc();
    }
};

} // namespace

ZT_DEFINE_CLASS(DyingNode)

TEST(DirectoryThreads, AnObjectBeingTornDownIsAnsweredAsAbsent)
{
    ZTDirectory *directory = ZTDirectory::sharedInstance();
    const QString uuid = QStringLiteral("DYING-NODE");
    auto node = zt::make<DyingNode>();
    node->assignUUID(uuid);
    ASSERT_EQ(directory->objectWithID(uuid).get(), node.get());
    std::promise<void> started, resume;
    node->onTeardown = [&] {
        started.set_value();
        resume.get_future().wait();
    };
    std::thread releaser([n = node.leak()] { n->release(); });
    started.get_future().wait();
    EXPECT_EQ(directory->objectWithID(uuid), nullptr);
    resume.set_value();
    releaser.join();
    EXPECT_EQ(directory->objectWithID(uuid), nullptr);
}

TEST(DirectoryThreads, LookUpsRacingWithReleaseNeverReachAFreedObject)
{
    ZTDirectory *directory = ZTDirectory::sharedInstance();
    const QString uuid = QStringLiteral("RACING-NODE");
    std::atomic<bool> done{false};
    std::atomic<int> found{0};
    std::thread looker([&] {
        const QString id = uuid; // one string, so the last-hit slot is used too
        while (!done.load()) {
            if (zt::Ref<ZTAbstractIPC> o = directory->objectWithID(id)) {
                EXPECT_EQ(o->description(), id);
                found.fetch_add(1);
            }
        }
    });
    for (int i = 0; i < 2000; ++i) {
        auto node = zt::make<DyingNode>();
        node->assignUUID(uuid);
    }
    done = true;
    looker.join();
    EXPECT_EQ(directory->objectWithID(uuid), nullptr);
    RecordProperty("found", found.load());
}
