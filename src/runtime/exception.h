#pragma once
// Named exceptions: the system reports programming errors and refused
// operations by raising an exception that carries a name and a reason, both
// texts of the system's own. Assertions raise the internal-inconsistency
// exception with the assertion's text as reason.

#include "zt_export.h"

#include <QString>
#include <QVariantMap>
#include <exception>

namespace zt {

class ZT_EXPORT Exception : public std::exception
{
public:
    Exception(QString name, QString reason, QVariantMap userInfo = {});

    const QString &name() const noexcept { return m_name; }
    const QString &reason() const noexcept { return m_reason; }
    const QVariantMap &userInfo() const noexcept { return m_userInfo; }

    //! "name: reason", UTF-8.
    const char *what() const noexcept override;

    [[noreturn]] static void raise(QString name, QString reason, QVariantMap userInfo = {});

private:
    QString m_name;
    QString m_reason;
    QVariantMap m_userInfo;
    QByteArray m_what;
};

//! Names the platform uses for its own exceptions.
namespace exceptions {
inline constexpr char16_t InternalInconsistency[] = u"NSInternalInconsistencyException";
inline constexpr char16_t InvalidArgument[] = u"NSInvalidArgumentException";
inline constexpr char16_t UndefinedKey[] = u"NSUndefinedKeyException";
inline constexpr char16_t RangeError[] = u"NSRangeException";
inline constexpr char16_t Generic[] = u"NSGenericException";
} // namespace exceptions

//! Raises the internal-inconsistency exception with the given text; used for
//! the system's assertion failures, past which the operation does not go on.
[[noreturn]] ZT_EXPORT void assertionFailure(const QString &text);

//! Raises NSInvalidArgumentException with the given reason.
[[noreturn]] ZT_EXPORT void invalidArgument(const QString &reason);

} // namespace zt

//! ZT_ASSERT(condition, text): raise the internal-inconsistency exception with
//! `text` (a QString expression, evaluated only on failure) unless condition holds.
#define ZT_ASSERT(condition, text)                                                                           \
    do {                                                                                                     \
        if (!(condition)) [[unlikely]]                                                                       \
            ::zt::assertionFailure(text);                                                                    \
    } while (false)
