#include "runtime/exception.h"

namespace zt {

Exception::Exception(QString name, QString reason, QVariantMap userInfo)
    : m_name(std::move(name)), m_reason(std::move(reason)), m_userInfo(std::move(userInfo)),
      m_what((m_name + QStringLiteral(": ") + m_reason).toUtf8())
{}

const char *Exception::what() const noexcept
{
    return m_what.constData();
}

void Exception::raise(QString name, QString reason, QVariantMap userInfo)
{
    throw Exception(std::move(name), std::move(reason), std::move(userInfo));
}

void assertionFailure(const QString &text)
{
    throw Exception(QString::fromUtf16(exceptions::InternalInconsistency), text);
}

void invalidArgument(const QString &reason)
{
    throw Exception(QString::fromUtf16(exceptions::InvalidArgument), reason);
}

} // namespace zt
