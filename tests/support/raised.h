#pragma once
// What a call raises, for tests that check exception names and reasons.

#include "runtime/exception.h"

#include <QString>
#include <functional>
#include <utility>

namespace zttest {

//! The name and reason of the zt::Exception `f` raises; empty if nothing.
inline std::pair<QString, QString> raised(const std::function<void()> &f)
{
    try {
        f();
    } catch (const zt::Exception &e) {
        return {e.name(), e.reason()};
    }
    return {};
}

} // namespace zttest
