#pragma once
// Method signatures: a return type code plus one type code per argument
// position. Positions 0 and 1 are the receiver ("@") and the selector (":");
// the first real argument is position 2. Codes are single platform letters:
//   v void   c bool/signed char   C unsigned char   s int16   S uint16
//   i int32  I uint32   q int64   Q uint64   f float   d double   @ object
// A qualified code (for example "r@", const object) is kept whole and so
// matches no plain code.

#include "runtime/value.h"
#include "zt_export.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <type_traits>

namespace zt {

class Object;

using Selector = QByteArray;

//! The number of arguments a selector takes: its count of ':'.
ZT_EXPORT int selectorArgumentCount(const Selector &selector);

template<typename T> constexpr const char *typeCode()
{
    using D = std::remove_cvref_t<T>;
    if constexpr (std::is_void_v<D>)
        return "v";
    else if constexpr (std::is_same_v<D, bool> || std::is_same_v<D, signed char> || std::is_same_v<D, char>)
        return "c";
    else if constexpr (std::is_same_v<D, unsigned char>)
        return "C";
    else if constexpr (std::is_integral_v<D> && sizeof(D) == 2)
        return std::is_signed_v<D> ? "s" : "S";
    else if constexpr (std::is_integral_v<D> && sizeof(D) == 4)
        return std::is_signed_v<D> ? "i" : "I";
    else if constexpr (std::is_integral_v<D> && sizeof(D) == 8)
        return std::is_signed_v<D> ? "q" : "Q";
    else if constexpr (std::is_same_v<D, float>)
        return "f";
    else if constexpr (std::is_same_v<D, double>)
        return "d";
    else
        return "@";
}

class ZT_EXPORT MethodSignature
{
public:
    MethodSignature() = default;
    //! From a return code and the codes of the real arguments (positions 2…).
    MethodSignature(QByteArray returnType, QList<QByteArray> argumentTypes);
    //! From a type string in the platform's form, e.g. "v@:@@" or "@@:q";
    //! digits (frame offsets) are skipped. Returns an invalid signature when
    //! the string does not start with a return type, "@" and ":".
    static MethodSignature fromTypes(const QByteArray &types);

    template<typename R, typename... Args> static MethodSignature of()
    {
        return MethodSignature(typeCode<R>(), {QByteArray(typeCode<Args>())...});
    }

    bool isValid() const { return !m_return.isEmpty(); }
    //! All positions, the hidden receiver and selector included.
    qsizetype numberOfArguments() const { return m_arguments.size() + 2; }
    //! The code at a position; "@" at 0 and ":" at 1.
    QByteArray argumentTypeAt(qsizetype index) const;
    //! The code at a position when it is one letter, else '\0' (qualified
    //! codes, positions past the end): no copy of the code is made.
    char argumentCodeAt(qsizetype index) const
    {
        if (index == 0)
            return '@';
        if (index == 1)
            return ':';
        if (index < 2 || index - 2 >= m_arguments.size())
            return '\0';
        const QByteArray &code = m_arguments.at(index - 2);
        return code.size() == 1 ? code.front() : '\0';
    }
    const QByteArray &methodReturnType() const { return m_return; }
    //! Width in bytes of the return value (0 for void; 8 for objects).
    qsizetype methodReturnLength() const;
    //! "v@:@q" form.
    QByteArray types() const;

    friend bool operator==(const MethodSignature &, const MethodSignature &) = default;

private:
    QByteArray m_return;
    QList<QByteArray> m_arguments; // positions 2…
};

//! The width in bytes of a value of a type code (0 for void or unknown).
ZT_EXPORT qsizetype typeCodeWidth(const QByteArray &code);

//! Converts a value to the kind a type code holds ("c" a boolean, "i" a 32-bit
//! signed integer …); "@" values pass unchanged.
ZT_EXPORT QVariant coerceToTypeCode(const QVariant &value, const QByteArray &code);
//! coerceToTypeCode() for a one-letter code.
ZT_EXPORT QVariant coerceToTypeCode(const QVariant &value, char code);
//! Whether coerceToTypeCode() answers `value` itself for a one-letter code:
//! then a caller can use the value where it stands.
ZT_EXPORT bool isCoercedToTypeCode(const QVariant &value, char code);
//! coerceToTypeCode() applied to `value` where it stands; a value that is
//! already what the code makes of it is left untouched.
ZT_EXPORT void coerceToTypeCodeInPlace(QVariant &value, const QByteArray &code);

//! A named list of method descriptions (selector -> signature) that a remote
//! object offers. Protocols are plain values, usually defined once as statics.
class ZT_EXPORT Protocol
{
public:
    Protocol() = default;
    explicit Protocol(QString name) : m_name(std::move(name)) {}
    Protocol(QString name, std::initializer_list<std::pair<const char *, const char *>> requiredMethods);

    const QString &name() const { return m_name; }
    void addMethod(const Selector &selector, MethodSignature signature, bool required = true);
    //! The signature of a method description, or an invalid one.
    MethodSignature methodSignature(const Selector &selector, bool required = true) const;
    QList<Selector> selectors(bool required = true) const;

private:
    QString m_name;
    QHash<Selector, MethodSignature> m_required;
    QHash<Selector, MethodSignature> m_optional;
};

} // namespace zt
