#pragma once
// Formatting in the system's own conventions: the log lines and exception
// reasons of the system are written with printf-style directives plus "%@",
// which prints an object's description (a model object prints its UUID).
//
// Supported: %@ %d %i %u %ld %lu %lld %llu %lx %x %X %s %p %c %f %g %%, with an
// optional width and "-"/"0" flags for the numeric ones. A missing argument
// prints "(null)"; an unknown directive is copied through unchanged.

#include "zt_export.h"

#include <QString>
#include <QVariant>
#include <array>
#include <concepts>

namespace zt {

class Object;
template<typename T> class Ref;

class ZT_EXPORT FormatArg
{
public:
    enum class Kind
    {
        Variant,
        Pointer,
        Object
    };

    FormatArg(const QVariant &v) : m_value(v) {}
    FormatArg(const QString &s) : m_value(s) {}
    FormatArg(QStringView s) : m_value(s.toString()) {}
    FormatArg(const char16_t *s) : m_value(QString::fromUtf16(s)) {}
    FormatArg(const char *s) : m_value(QString::fromUtf8(s)) {} // text, for "%@" and "%s" alike
    FormatArg(const QByteArray &b) : m_value(b) {}
    FormatArg(bool b) : m_value(b) {}
    FormatArg(double d) : m_value(d) {}
    template<std::signed_integral T> FormatArg(T v) : m_value(qint64(v)) {}
    template<std::unsigned_integral T> FormatArg(T v) : m_value(quint64(v)) {}
    FormatArg(const void *p) : m_kind(Kind::Pointer), m_pointer(p) {}
    FormatArg(const Object *o) : m_kind(Kind::Object), m_pointer(o) {}
    template<typename T> FormatArg(const Ref<T> &r) : FormatArg(static_cast<const Object *>(r.get())) {}

    Kind kind() const { return m_kind; }
    const QVariant &value() const { return m_value; }
    const void *pointer() const { return m_pointer; }

private:
    Kind m_kind = Kind::Variant;
    QVariant m_value;
    const void *m_pointer = nullptr;
};

ZT_EXPORT QString formatArgs(QStringView format, const FormatArg *args, qsizetype count);

template<typename... Args> QString format(QStringView format, const Args &...args)
{
    const std::array<FormatArg, sizeof...(Args)> list{FormatArg(args)...};
    return formatArgs(format, list.data(), qsizetype(list.size()));
}

} // namespace zt
