#include "model_diff.h"

#include "runtime/format.h"

namespace zt::apps {

namespace {
QString join(const QString &path, const QString &key)
{
    return path.isEmpty() ? key : path + u'.' + key;
}

bool isInteger(ValueKind kind)
{
    return kind == ValueKind::Signed || kind == ValueKind::Unsigned;
}

bool integersEqual(const QVariant &a, const QVariant &b)
{
    const bool aNegative = kindOf(a) == ValueKind::Signed && toInt64(a) < 0;
    const bool bNegative = kindOf(b) == ValueKind::Signed && toInt64(b) < 0;
    return aNegative == bNegative && toUInt64(a) == toUInt64(b);
}
} // namespace

QStringList describeDifferences(const QVariant &expected, const QVariant &actual, const QString &path)
{
    const ValueKind kind = kindOf(expected);
    const QString where = path.isEmpty() ? QStringLiteral("(root)") : path;
    if (isInteger(kind) && isInteger(kindOf(actual))) {
        if (integersEqual(expected, actual))
            return {};
        return {zt::format(u"%@: expected %@, found %@", where, expected, actual)};
    }
    if (kind != kindOf(actual))
        return {zt::format(u"%@: expected %@ %@, found %@ %@", where, valueClassName(expected), expected,
                           valueClassName(actual), actual)};
    QStringList out;
    if (kind == ValueKind::Dictionary) {
        const QVariantMap e = expected.toMap(), a = actual.toMap();
        for (auto it = e.cbegin(); it != e.cend(); ++it) {
            if (!a.contains(it.key()))
                out.append(zt::format(u"%@: missing", join(path, it.key())));
            else
                out += describeDifferences(it.value(), a.value(it.key()), join(path, it.key()));
        }
        for (auto it = a.cbegin(); it != a.cend(); ++it)
            if (!e.contains(it.key()))
                out.append(zt::format(u"%@: unexpected %@", join(path, it.key()), it.value()));
    } else if (kind == ValueKind::Array) {
        const QVariantList e = expected.toList(), a = actual.toList();
        if (e.size() != a.size())
            out.append(zt::format(u"%@: expected %d elements, found %d", where, e.size(), a.size()));
        for (qsizetype i = 0; i < qMin(e.size(), a.size()); ++i)
            out += describeDifferences(e[i], a[i], join(path, QString::number(i)));
    } else if (!valuesEqual(expected, actual)) {
        out.append(zt::format(u"%@: expected %@, found %@", where, expected, actual));
    }
    return out;
}

} // namespace zt::apps
