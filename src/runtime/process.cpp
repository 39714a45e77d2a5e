#include "runtime/process.h"

#include <QMutex>
#include <QUuid>

namespace zt::process {

namespace {
QMutex identifierLock;
QString &identifier()
{
    static QString id;
    return id;
}
} // namespace

QString applicationIdentifier()
{
    QMutexLocker locker(&identifierLock);
    return identifier();
}

void setApplicationIdentifier(const QString &id)
{
    QMutexLocker locker(&identifierLock);
    identifier() = id;
}

QString globallyUniqueString()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
}

} // namespace zt::process
