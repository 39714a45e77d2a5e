#include "runtime/plist.h"
#include "runtime/dictionary.h"

#include "runtime/plist_p.h"
#include "runtime/value.h"

#include <cmath>

namespace zt::plist {

namespace detail {

std::optional<double> dateToSeconds(const QDateTime &date)
{
    if (!date.isValid())
        return std::nullopt;
    const qint64 ms = date.toMSecsSinceEpoch() - format::ReferenceDateMSecs;
    const double seconds = double(ms) / 1000.0;
    if (!(std::fabs(seconds) <= MaxDateSeconds))
        return std::nullopt;
    return seconds;
}

std::optional<QDateTime> secondsToDate(double seconds)
{
    // Also false for NaN.
    if (!(std::fabs(seconds) <= MaxDateSeconds))
        return std::nullopt;
    const qint64 ms = std::llround(seconds * 1000.0) + format::ReferenceDateMSecs;
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC);
}

} // namespace detail

namespace {

bool isPropertyListAt(const QVariant &value, int depth)
{
    switch (kindOf(value)) {
    case ValueKind::String:
    case ValueKind::Bool:
    case ValueKind::Signed:
    case ValueKind::Unsigned:
    case ValueKind::Real:
    case ValueKind::Data:
    case ValueKind::Uid:
        return true;
    case ValueKind::Date:
        return detail::dateToSeconds(*static_cast<const QDateTime *>(value.constData())).has_value();
    case ValueKind::Array:
        if (depth >= MaxWriteDepth)
            return false;
        if (value.typeId() == QMetaType::QStringList)
            return true;
        for (const QVariant &element : *static_cast<const QVariantList *>(value.constData()))
            if (!isPropertyListAt(element, depth + 1))
                return false;
        return true;
    case ValueKind::Dictionary:
        if (depth >= MaxWriteDepth)
            return false;
        {
            bool valid = true;
            forEachEntry(value, [&](const QString &, const QVariant &element) {
                valid = valid && isPropertyListAt(element, depth + 1);
            });
            return valid;
        }
    case ValueKind::Nil:
    case ValueKind::Null:
    case ValueKind::IndexSet:
    case ValueKind::Object:
    case ValueKind::Other:
        break;
    }
    return false;
}

} // namespace

bool isPropertyList(const QVariant &value)
{
    return isPropertyListAt(value, 0);
}

} // namespace zt::plist
