// Replacing a variant in place when the copy of the new value throws.

#include "runtime/variant_inplace_p.h"

#include <gtest/gtest.h>
#include <stdexcept>

namespace {

int destroyed = 0;
bool copiesThrow = false;

struct Counted
{
    int value = 0;
    ~Counted() { ++destroyed; }
};

struct CopyMayThrow
{
    CopyMayThrow() = default;
    CopyMayThrow(const CopyMayThrow &)
    {
        if (copiesThrow)
            throw std::runtime_error("no memory");
    }
    CopyMayThrow(CopyMayThrow &&) noexcept = default;
    CopyMayThrow &operator=(const CopyMayThrow &) = default;
};

} // namespace

Q_DECLARE_TYPEINFO(Counted, Q_RELOCATABLE_TYPE);
Q_DECLARE_TYPEINFO(CopyMayThrow, Q_RELOCATABLE_TYPE);

TEST(VariantInPlace, AThrowingCopyLeavesTheTargetNilAndDestroyedOnce)
{
    const QVariant source = QVariant::fromValue(CopyMayThrow());
    {
        QVariant target = QVariant::fromValue(Counted());
        destroyed = 0;
        copiesThrow = true;
        EXPECT_THROW(zt::detail::replaceWith(target, source), std::runtime_error);
        copiesThrow = false;
        EXPECT_FALSE(target.isValid());
    }
    EXPECT_EQ(destroyed, 1);
}
