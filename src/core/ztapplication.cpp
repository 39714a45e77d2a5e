#include "core/ztapplication.h"

#include "runtime/invocation.h"

#include <atomic>

namespace {
std::atomic<ZTApplicationDelegate *> sharedDelegate{nullptr};
}

ZTApplicationDelegate::~ZTApplicationDelegate()
{
    ZTApplicationDelegate *self = this;
    sharedDelegate.compare_exchange_strong(self, nullptr);
}

void ZTApplicationDelegate::sendForwardedInvocation(zt::Invocation &invocation, const ZTAbstractIPC *,
                                                    const zt::Selector &)
{
    if (zt::Object *root = counterpart())
        invocation.invokeWithTarget(root);
}

void ZTApplication::setDelegate(ZTApplicationDelegate *delegate)
{
    sharedDelegate.store(delegate);
}

ZTApplicationDelegate *ZTApplication::delegate()
{
    return sharedDelegate.load(std::memory_order_acquire);
}
