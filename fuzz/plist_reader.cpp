// Arbitrary bytes into the property-list reader. Whatever it accepts must
// write, and read back as the same value: same kinds, same real bit
// patterns, same instants.

#include "runtime/plist.h"
#include "runtime/value.h"

#include <QByteArrayView>
#include <cstdlib>
#include <cstring>

namespace {

bool same(const QVariant &a, const QVariant &b)
{
    const zt::ValueKind kind = zt::kindOf(a);
    if (kind != zt::kindOf(b))
        return false;
    switch (kind) {
    case zt::ValueKind::Real: {
        const double x = a.toDouble(), y = b.toDouble();
        return std::memcmp(&x, &y, sizeof x) == 0;
    }
    case zt::ValueKind::Date:
        return a.toDateTime().toMSecsSinceEpoch() == b.toDateTime().toMSecsSinceEpoch();
    case zt::ValueKind::Array: {
        const QVariantList x = a.toList(), y = b.toList();
        if (x.size() != y.size())
            return false;
        for (qsizetype i = 0; i < x.size(); ++i)
            if (!same(x[i], y[i]))
                return false;
        return true;
    }
    case zt::ValueKind::Dictionary: {
        const QVariantMap x = a.toMap(), y = b.toMap();
        if (x.size() != y.size())
            return false;
        for (auto i = x.cbegin(), j = y.cbegin(); i != x.cend(); ++i, ++j)
            if (i.key() != j.key() || !same(i.value(), j.value()))
                return false;
        return true;
    }
    default:
        return zt::valuesEqual(a, b);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // A shared subtree may be referenced many times; bound the expanded
    // result so that writing it back stays small.
    zt::plist::ReadLimits limits;
    limits.maxObjects = 1 << 16;
    zt::Error error;
    const auto value = zt::plist::readBinary(QByteArrayView(data, qsizetype(size)), &error, limits);
    if (!value) {
        if (error.code != zt::plist::ReadCorruptErrorCode || error.localizedDescription().isEmpty())
            std::abort();
        return 0;
    }
    // The null marker reads but cannot be written.
    if (!zt::plist::isPropertyList(*value))
        return 0;
    const QByteArray bytes = zt::plist::writeBinary(*value, &error);
    if (bytes.isEmpty())
        std::abort();
    const auto again = zt::plist::readBinary(bytes, &error, limits);
    if (!again || !same(*value, *again))
        std::abort();
    return 0;
}
