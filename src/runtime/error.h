#pragma once
// An error value: a domain, a code and a user-info dictionary, for library
// calls that report failure through a false or null result plus an error.

#include "zt_export.h"

#include <QString>
#include <QVariantMap>

namespace zt {

struct ZT_EXPORT Error
{
    //! The user-info key under which the readable description is kept.
    static const QString LocalizedDescriptionKey; // "NSLocalizedDescription"

    QString domain;
    qint64 code = 0;
    QVariantMap userInfo;

    Error() = default;
    Error(QString domain, qint64 code, QVariantMap userInfo = {});
    Error(QString domain, qint64 code, const QString &localizedDescription);

    bool isNull() const { return domain.isEmpty() && code == 0; }
    //! The description from user info, else "The operation couldn't be completed. (domain error code.)".
    QString localizedDescription() const;

    friend bool operator==(const Error &, const Error &) = default;
};

} // namespace zt
