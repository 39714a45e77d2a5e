#include "core/ztapplication.h"

#include <atomic>

namespace {
std::atomic<ZTApplicationDelegate *> sharedDelegate{nullptr};
}

ZTApplicationDelegate::~ZTApplicationDelegate()
{
    ZTApplicationDelegate *self = this;
    sharedDelegate.compare_exchange_strong(self, nullptr);
}

void ZTApplication::setDelegate(ZTApplicationDelegate *delegate)
{
    sharedDelegate.store(delegate);
}

ZTApplicationDelegate *ZTApplication::delegate()
{
    return sharedDelegate.load(std::memory_order_acquire);
}
