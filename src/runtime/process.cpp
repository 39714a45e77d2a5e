#include "runtime/process.h"

#include <QMutex>
#include <QRandomGenerator>
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
    // A random (version 4) UUID. The process-wide generator is seeded from the
    // system's entropy once; drawing from it costs no system call, which
    // matters because every remote call that awaits a result takes one.
    quint32 words[4];
    QRandomGenerator::global()->fillRange(words);
    auto *bytes = reinterpret_cast<uchar *>(words);
    bytes[6] = uchar((bytes[6] & 0x0F) | 0x40); // version 4
    bytes[8] = uchar((bytes[8] & 0x3F) | 0x80); // RFC 4122 variant
    return QUuid::fromRfc4122(QByteArrayView(bytes, 16)).toString(QUuid::WithoutBraces).toUpper();
}

} // namespace zt::process
