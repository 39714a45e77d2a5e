#pragma once
// Values. A value is a QVariant holding one of:
//   invalid QVariant      nil (no value)
//   NullMarker            the null marker, a value that stands for "nothing" inside collections
//   QString               string
//   bool                  boolean number
//   qint64 (and smaller)  signed integer number
//   quint64 (and smaller) unsigned integer number
//   double / float        real number
//   QByteArray            data
//   QDateTime (UTC)       date
//   QVariantList          array
//   QVariantMap           dictionary (string keys)
//   Dictionary            dictionary too: the immutable form decoded values
//                         come in (runtime/dictionary.h)
//   IndexSet              index set
//   ObjectRef             an object (owning reference)
//   Uid                   a property-list UID (only inside keyed archives)
// Nil, the null marker and an absent entry are three different states. Numbers
// keep their kind: the wire and property-list formats depend on it.

#include "runtime/indexset.h"
#include "runtime/ref.h"
#include "zt_export.h"

#include <QDateTime>
#include <QStringList>
#include <QVariant>
#include <type_traits>

namespace zt {

class Object;
using ObjectRef = Ref<Object>;

struct NullMarker
{
    friend bool operator==(NullMarker, NullMarker) { return true; }
};

//! A property-list UID: an object reference inside a keyed archive.
struct Uid
{
    quint64 value = 0;
    friend bool operator==(Uid, Uid) = default;
};

enum class ValueKind
{
    Nil,
    Null,
    String,
    Bool,
    Signed,
    Unsigned,
    Real,
    Data,
    Date,
    Array,
    Dictionary,
    IndexSet,
    Object,
    Uid,
    Other,
};

namespace detail {
//! The value's type id (QMetaType::UnknownType for nil). QVariant::typeId()
//! goes through the out-of-line metaType(); every built-in type and every
//! registered custom type keeps its id in its interface, read here inline.
inline int typeIdOf(const QVariant &value)
{
    const QtPrivate::QMetaTypeInterface *iface = value.data_ptr().typeInterface();
    if (!iface)
        return QMetaType::UnknownType;
    if (const int id = iface->typeId.loadRelaxed())
        return id;
    return value.typeId(); // registers the type
}
} // namespace detail

ZT_EXPORT ValueKind kindOf(const QVariant &value);

//! The null marker as a value.
ZT_EXPORT QVariant nullValue();
ZT_EXPORT bool isNullMarker(const QVariant &value);
//! Nil or the null marker.
ZT_EXPORT bool isNilOrNull(const QVariant &value);

//! The object held by a value, or null.
ZT_EXPORT Object *objectFrom(const QVariant &value);
ZT_EXPORT QVariant objectValue(Object *object); //!< nil for a null object

//! The name of the value's class as the platform would print it ("NSString",
//! "NSNumber", a model object's class name …); "nil" for no value.
ZT_EXPORT QString valueClassName(const QVariant &value);

//! The platform's textual description of a value ("%@").
ZT_EXPORT QString describe(const QVariant &value);

//! Strict equality: kinds must agree (1 and 1.0 differ, true and 1 differ).
ZT_EXPORT bool valuesEqual(const QVariant &a, const QVariant &b);

//! Integer readings of a value as a C conversion makes them: reals are
//! truncated toward zero (QVariant's own conversion rounds).
ZT_EXPORT qint64 toInt64(const QVariant &value);
ZT_EXPORT quint64 toUInt64(const QVariant &value);

// ---- C++ <-> value conversions used by the selector and accessor tables ----

template<typename T> struct IsRef : std::false_type
{
};
template<typename T> struct IsRef<Ref<T>> : std::true_type
{
    using Pointee = T;
};
template<typename T> struct IsList : std::false_type
{
};
template<typename T> struct IsList<QList<T>> : std::true_type
{
    using Element = T;
};

template<typename T> QVariant toValue(const T &v);

template<typename T> T fromValue(const QVariant &v)
{
    using D = std::decay_t<T>;
    if constexpr (std::is_same_v<D, QVariant>) {
        return v;
    } else if constexpr (std::is_same_v<D, bool>) {
        return v.toBool();
    } else if constexpr (std::is_integral_v<D> && std::is_signed_v<D>) {
        return D(toInt64(v));
    } else if constexpr (std::is_integral_v<D>) {
        return D(toUInt64(v));
    } else if constexpr (std::is_floating_point_v<D>) {
        return D(v.toDouble());
    } else if constexpr (std::is_same_v<D, QString>) {
        return isNullMarker(v) ? QString() : v.toString();
    } else if constexpr (std::is_same_v<D, QStringList>) {
        QStringList out;
        for (const QVariant &e : v.toList())
            out.append(e.toString());
        return out;
    } else if constexpr (std::is_same_v<D, QVariantList>) {
        return v.toList();
    } else if constexpr (std::is_same_v<D, QVariantMap>) {
        return v.toMap();
    } else if constexpr (IsRef<D>::value) {
        return D(dynamic_cast<typename IsRef<D>::Pointee *>(objectFrom(v)));
    } else if constexpr (std::is_pointer_v<D> && std::is_base_of_v<Object, std::remove_pointer_t<D>>) {
        return dynamic_cast<D>(objectFrom(v));
    } else if constexpr (IsList<D>::value) {
        D out;
        const QVariantList list = v.toList();
        out.reserve(list.size());
        for (const QVariant &e : list)
            out.append(fromValue<typename IsList<D>::Element>(e));
        return out;
    } else {
        return v.value<D>();
    }
}

template<typename T> QVariant toValue(const T &v)
{
    using D = std::decay_t<T>;
    if constexpr (std::is_same_v<D, QVariant>) {
        return v;
    } else if constexpr (std::is_same_v<D, bool>) {
        return QVariant(v);
    } else if constexpr (std::is_integral_v<D> && std::is_signed_v<D>) {
        return QVariant(qint64(v));
    } else if constexpr (std::is_integral_v<D>) {
        return QVariant(quint64(v));
    } else if constexpr (std::is_floating_point_v<D>) {
        return QVariant(double(v));
    } else if constexpr (std::is_same_v<D, QString>) {
        return v.isNull() ? QVariant() : QVariant(v);
    } else if constexpr (IsRef<D>::value) {
        return objectValue(v.get());
    } else if constexpr (std::is_pointer_v<D> && std::is_base_of_v<Object, std::remove_pointer_t<D>>) {
        return objectValue(const_cast<std::remove_const_t<std::remove_pointer_t<D>> *>(v));
    } else if constexpr (std::is_same_v<D, QStringList>) {
        QVariantList out;
        out.reserve(v.size());
        for (const QString &s : v)
            out.append(s);
        return out;
    } else if constexpr (IsList<D>::value && !std::is_same_v<D, QVariantList>) {
        QVariantList out;
        out.reserve(v.size());
        for (const auto &e : v)
            out.append(toValue(e));
        return out;
    } else {
        return QVariant::fromValue(v);
    }
}

} // namespace zt

Q_DECLARE_METATYPE(zt::NullMarker)
Q_DECLARE_METATYPE(zt::Uid)
Q_DECLARE_METATYPE(zt::ObjectRef)
