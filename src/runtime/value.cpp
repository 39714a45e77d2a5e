#include "runtime/value.h"

#include "runtime/dictionary.h"
#include "runtime/object.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace zt {

namespace {

using detail::typeIdOf;

// The ids of the runtime's own value types, registered once.
struct RuntimeTypeIds
{
    int objectRef = qMetaTypeId<ObjectRef>();
    int nullMarker = qMetaTypeId<NullMarker>();
    int indexSet = qMetaTypeId<IndexSet>();
    int uid = qMetaTypeId<Uid>();
    int dictionary = qMetaTypeId<Dictionary>();
};
const RuntimeTypeIds &runtimeTypeIds()
{
    static const RuntimeTypeIds ids;
    return ids;
}

template<typename T> const T &storedAs(const QVariant &value)
{
    return *static_cast<const T *>(value.constData());
}

} // namespace

ValueKind kindOf(const QVariant &value)
{
    const int id = typeIdOf(value);
    switch (id) {
    case QMetaType::UnknownType:
        return ValueKind::Nil;
    case QMetaType::QString:
        return ValueKind::String;
    case QMetaType::Bool:
        return ValueKind::Bool;
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::Short:
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
        return ValueKind::Signed;
    case QMetaType::UChar:
    case QMetaType::UShort:
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::ULongLong:
        return ValueKind::Unsigned;
    case QMetaType::Float:
    case QMetaType::Double:
        return ValueKind::Real;
    case QMetaType::QByteArray:
        return ValueKind::Data;
    case QMetaType::QDateTime:
        return ValueKind::Date;
    case QMetaType::QVariantList:
    case QMetaType::QStringList:
        return ValueKind::Array;
    case QMetaType::QVariantMap:
        return ValueKind::Dictionary;
    default:
        break;
    }
    const RuntimeTypeIds &ids = runtimeTypeIds();
    if (id == ids.objectRef)
        return storedAs<ObjectRef>(value) ? ValueKind::Object : ValueKind::Nil;
    if (id == ids.nullMarker)
        return ValueKind::Null;
    if (id == ids.indexSet)
        return ValueKind::IndexSet;
    if (id == ids.uid)
        return ValueKind::Uid;
    if (id == ids.dictionary)
        return ValueKind::Dictionary;
    return ValueKind::Other;
}

qint64 toInt64(const QVariant &value)
{
    switch (typeIdOf(value)) {
    case QMetaType::LongLong:
        return storedAs<qlonglong>(value);
    case QMetaType::Float:
    case QMetaType::Double: {
        const double d = value.toDouble();
        if (!std::isfinite(d))
            return 0;
        return d <= -9.2233720368547758e18  ? std::numeric_limits<qint64>::min()
               : d >= 9.2233720368547758e18 ? std::numeric_limits<qint64>::max()
                                            : qint64(d);
    }
    default:
        return value.toLongLong();
    }
}

quint64 toUInt64(const QVariant &value)
{
    switch (kindOf(value)) {
    case ValueKind::Real: {
        const double d = value.toDouble();
        if (!std::isfinite(d) || d <= 0)
            return d < 0 && d > -9.2233720368547758e18 ? quint64(qint64(d)) : 0;
        return d >= 1.8446744073709552e19 ? std::numeric_limits<quint64>::max() : quint64(d);
    }
    case ValueKind::Signed:
        return quint64(value.toLongLong());
    default:
        return value.toULongLong();
    }
}

QVariant nullValue()
{
    return QVariant::fromValue(NullMarker{});
}

bool isNullMarker(const QVariant &value)
{
    const int id = typeIdOf(value);
    return id >= QMetaType::User && id == runtimeTypeIds().nullMarker;
}

bool isNilOrNull(const QVariant &value)
{
    const int id = typeIdOf(value);
    if (id == QMetaType::UnknownType)
        return true;
    if (id < QMetaType::User)
        return false;
    const RuntimeTypeIds &ids = runtimeTypeIds();
    return id == ids.nullMarker || (id == ids.objectRef && !storedAs<ObjectRef>(value));
}

Object *objectFrom(const QVariant &value)
{
    const int id = typeIdOf(value);
    if (id < QMetaType::User || id != runtimeTypeIds().objectRef)
        return nullptr;
    return storedAs<ObjectRef>(value).get();
}

QVariant objectValue(Object *object)
{
    if (!object)
        return {};
    return QVariant::fromValue(ObjectRef(object));
}

QString valueClassName(const QVariant &value)
{
    switch (kindOf(value)) {
    case ValueKind::Nil:
        return QStringLiteral("nil");
    case ValueKind::Null:
        return QStringLiteral("NSNull");
    case ValueKind::String:
        return QStringLiteral("NSString");
    case ValueKind::Bool:
    case ValueKind::Signed:
    case ValueKind::Unsigned:
    case ValueKind::Real:
        return QStringLiteral("NSNumber");
    case ValueKind::Data:
        return QStringLiteral("NSData");
    case ValueKind::Date:
        return QStringLiteral("NSDate");
    case ValueKind::Array:
        return QStringLiteral("NSArray");
    case ValueKind::Dictionary:
        return QStringLiteral("NSDictionary");
    case ValueKind::IndexSet:
        return QStringLiteral("NSIndexSet");
    case ValueKind::Object:
        return objectFrom(value)->className();
    case ValueKind::Uid:
        return QStringLiteral("CFKeyedArchiverUID");
    case ValueKind::Other:
        break;
    }
    return QString::fromLatin1(value.metaType().name());
}

namespace {

QString indent(int level)
{
    return QString(level * 4, u' ');
}

// Strings inside collections are quoted when they are not plain words, the
// way the platform prints property lists.
QString describeNested(const QVariant &value, int level);

QString quotedIfNeeded(const QString &s)
{
    bool plain = !s.isEmpty();
    for (QChar c : s) {
        if (!(c.isLetterOrNumber() || c == u'_' || c == u'.' || c == u'$' || c == u'/' || c == u':')) {
            plain = false;
            break;
        }
    }
    if (plain)
        return s;
    QString out = QStringLiteral("\"");
    for (QChar c : s) {
        if (c == u'"' || c == u'\\')
            out += u'\\';
        out += c;
    }
    return out + u'"';
}

QString describeNested(const QVariant &value, int level)
{
    switch (kindOf(value)) {
    case ValueKind::String:
        return quotedIfNeeded(value.toString());
    case ValueKind::Array: {
        const QVariantList list = value.toList();
        if (list.isEmpty())
            return QStringLiteral("(\n%1)").arg(indent(level));
        QString s = QStringLiteral("(\n");
        for (qsizetype i = 0; i < list.size(); ++i) {
            s += indent(level + 1) + describeNested(list[i], level + 1);
            s += (i + 1 < list.size()) ? QStringLiteral(",\n") : QStringLiteral("\n");
        }
        return s + indent(level) + u')';
    }
    case ValueKind::Dictionary: {
        QString s = QStringLiteral("{\n");
        forEachEntry(value, [&](const QString &key, const QVariant &entry) {
            s += indent(level + 1) + quotedIfNeeded(key) + QStringLiteral(" = ") +
                 describeNested(entry, level + 1) + QStringLiteral(";\n");
        });
        return s + indent(level) + u'}';
    }
    default:
        return describe(value);
    }
}

} // namespace

QString describe(const QVariant &value)
{
    switch (kindOf(value)) {
    case ValueKind::Nil:
        return QStringLiteral("(null)");
    case ValueKind::Null:
        return QStringLiteral("<null>");
    case ValueKind::String:
        return value.toString();
    case ValueKind::Bool:
        return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    case ValueKind::Signed:
        return QString::number(value.toLongLong());
    case ValueKind::Unsigned:
        return QString::number(value.toULongLong());
    case ValueKind::Real: {
        const double d = value.toDouble();
        if (std::isfinite(d) && d == std::floor(d) && std::fabs(d) < 1e15)
            return QString::number(qint64(d));
        return QString::number(d, 'g', 17);
    }
    case ValueKind::Data: {
        const QByteArray hex = value.toByteArray().toHex();
        QString s = QStringLiteral("<");
        for (qsizetype i = 0; i < hex.size(); i += 8) {
            if (i)
                s += u' ';
            s += QString::fromLatin1(hex.mid(i, 8));
        }
        return s + u'>';
    }
    case ValueKind::Date:
        return value.toDateTime().toUTC().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss +0000"));
    case ValueKind::Array:
    case ValueKind::Dictionary:
        return describeNested(value, 0);
    case ValueKind::IndexSet: {
        const IndexSet set = value.value<IndexSet>();
        return QStringLiteral("[number of indexes: %1 (in %2 ranges), indexes: %3]")
            .arg(set.count())
            .arg(set.ranges().size())
            .arg(set.description());
    }
    case ValueKind::Object:
        return objectFrom(value)->description();
    case ValueKind::Uid:
        return QStringLiteral("<CFKeyedArchiverUID>{value = %1}").arg(value.value<Uid>().value);
    case ValueKind::Other:
        break;
    }
    return value.toString();
}

bool valuesEqual(const QVariant &a, const QVariant &b)
{
    const ValueKind ka = kindOf(a);
    const ValueKind kb = kindOf(b);
    if (ka != kb) {
        // Signed and unsigned integers of equal value are the same number.
        if ((ka == ValueKind::Signed && kb == ValueKind::Unsigned) ||
            (ka == ValueKind::Unsigned && kb == ValueKind::Signed)) {
            const QVariant &s = ka == ValueKind::Signed ? a : b;
            const QVariant &u = ka == ValueKind::Signed ? b : a;
            return s.toLongLong() >= 0 && quint64(s.toLongLong()) == u.toULongLong();
        }
        return false;
    }
    switch (ka) {
    case ValueKind::Nil:
    case ValueKind::Null:
        return true;
    case ValueKind::Signed:
        return a.toLongLong() == b.toLongLong();
    case ValueKind::Unsigned:
        return a.toULongLong() == b.toULongLong();
    case ValueKind::Real:
        return a.toDouble() == b.toDouble();
    case ValueKind::Bool:
        return a.toBool() == b.toBool();
    case ValueKind::Array: {
        const QVariantList la = a.toList(), lb = b.toList();
        if (la.size() != lb.size())
            return false;
        for (qsizetype i = 0; i < la.size(); ++i)
            if (!valuesEqual(la[i], lb[i]))
                return false;
        return true;
    }
    case ValueKind::Dictionary: {
        const Dictionary da = dictionaryFrom(a), db = dictionaryFrom(b);
        return std::equal(da.begin(), da.end(), db.begin(), db.end(), [](const auto &x, const auto &y) {
            return x.key == y.key && valuesEqual(x.value, y.value);
        });
    }
    case ValueKind::IndexSet:
        return a.value<IndexSet>() == b.value<IndexSet>();
    case ValueKind::Object:
        return objectFrom(a) == objectFrom(b);
    case ValueKind::Uid:
        return a.value<Uid>() == b.value<Uid>();
    default:
        return a == b;
    }
}

} // namespace zt
