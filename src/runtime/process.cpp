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

void restartWithTunedHeap(char **argv)
{
    static constexpr std::pair<const char *, const char *> Tunables[] = {
        {"glibc.malloc.hugetlb", "1"}, {"glibc.malloc.tcache_count", "1000"}};
    const char *found = std::getenv("GLIBC_TUNABLES");
    const std::optional<std::string> current = found ? std::optional<std::string>(found) : std::nullopt;
    // Each tunable the environment leaves unset is added; after the restart
    // none is, so the process restarts once at most.
    std::string tunables = current.value_or(std::string());
    for (const auto &[name, value] : Tunables) {
        if (found && std::strstr(found, name))
            continue; // settled already: by the user, or by the restart
        if (!tunables.empty())
            tunables += ':';
        tunables += std::string(name) + '=' + value;
    }
    if (current && tunables == *current)
        return;
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
    // tunables in the environment of the processes we start.
    if (current)
        ::setenv("GLIBC_TUNABLES", current->c_str(), 1);
    else
        ::unsetenv("GLIBC_TUNABLES");
}

} // namespace zt::process
