#include "runtime/error.h"

namespace zt {

const QString Error::LocalizedDescriptionKey = QStringLiteral("NSLocalizedDescription");

Error::Error(QString domain, qint64 code, QVariantMap userInfo)
    : domain(std::move(domain)), code(code), userInfo(std::move(userInfo))
{}

Error::Error(QString domain, qint64 code, const QString &localizedDescription)
    : domain(std::move(domain)), code(code), userInfo{{LocalizedDescriptionKey, localizedDescription}}
{}

QString Error::localizedDescription() const
{
    const QString text = userInfo.value(LocalizedDescriptionKey).toString();
    if (!text.isEmpty())
        return text;
    return QStringLiteral("The operation couldn\u2019t be completed. (%1 error %2.)").arg(domain).arg(code);
}

} // namespace zt
