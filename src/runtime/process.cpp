#include "runtime/process.h"

#include "runtime/fastpath_p.h"

#include <QMutex>
#include <QRandomGenerator>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <unistd.h>

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

PackedUUID globallyUniqueUUID()
{
    // A random (version 4) UUID. Each thread draws from its own generator,
    // started once from the process-wide one (itself fed from the system's
    // entropy): no lock and no system call, which matters because every
    // remote call that awaits a result takes one.
    QRandomGenerator64 &generator = fastpath::perThread<UniqueStringGenerator>().generator;
    quint64 high = generator.generate(), low = generator.generate();
    high = (high & ~quint64(0xF000)) | 0x4000;                    // version 4
    low = (low & ~(quint64(0xC0) << 56)) | (quint64(0x80) << 56); // RFC 4122 variant
    return PackedUUID::fromBits(high, low);
}

QString globallyUniqueString()
{
    return globallyUniqueUUID().toString();
}

void restartWithHugePageHeap(char **argv)
{
    static constexpr char Tunable[] = "glibc.malloc.hugetlb";
    const char *found = std::getenv("GLIBC_TUNABLES");
    if (found && std::strstr(found, Tunable))
        return; // settled already: by the user, or by the restart
    const std::optional<std::string> current = found ? std::optional<std::string>(found) : std::nullopt;
    std::string tunables = current && !current->empty() ? *current + ':' : std::string();
    tunables += Tunable;
    tunables += "=1";
    if (::setenv("GLIBC_TUNABLES", tunables.c_str(), 1) != 0)
        return;
    // Through the executable's own path: exec names the process after the
    // file it is given, and "/proc/self/exe" would rename it "exe".
    char path[4096];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (length > 0) {
        path[length] = '\0';
        ::execv(path, argv);
    }
    // The restart failed (no /proc, say): go on as we are, without the
    // tunable in the environment of the processes we start.
    if (current)
        ::setenv("GLIBC_TUNABLES", current->c_str(), 1);
    else
        ::unsetenv("GLIBC_TUNABLES");
}

} // namespace zt::process
