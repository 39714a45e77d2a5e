#include "runtime/process.h"

#include "runtime/fastpath_p.h"

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

struct UniqueStringGenerator
{
    QRandomGenerator64 generator = [] {
        quint32 start[8]; // the generator's whole starting state, not one word of it
        QRandomGenerator::global()->fillRange(start);
        return QRandomGenerator64(start);
    }();
};
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
    // A random (version 4) UUID in upper case, 8-4-4-4-12. Each thread draws
    // from its own generator, started once from the process-wide one (itself
    // fed from the system's entropy): no lock and no system call, which
    // matters because every remote call that awaits a result takes one.
    QRandomGenerator64 &generator = fastpath::perThread<UniqueStringGenerator>().generator;
    quint64 words[2] = {generator.generate(), generator.generate()};
    auto *bytes = reinterpret_cast<uchar *>(words);
    bytes[6] = uchar((bytes[6] & 0x0F) | 0x40); // version 4
    bytes[8] = uchar((bytes[8] & 0x3F) | 0x80); // RFC 4122 variant
    static constexpr char16_t hex[] = u"0123456789ABCDEF";
    QString out(36, Qt::Uninitialized);
    char16_t *p = reinterpret_cast<char16_t *>(out.data());
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            *p++ = u'-';
        *p++ = hex[bytes[i] >> 4];
        *p++ = hex[bytes[i] & 0x0F];
    }
    return out;
}

} // namespace zt::process
