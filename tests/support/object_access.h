#pragma once
// What tests may see of an object beyond its public interface.

#include "runtime/object.h"

namespace zt {

struct ObjectTestAccess
{
    static int retainCount(const Object &object) { return object.m_refs.load(std::memory_order_relaxed); }
};

} // namespace zt
