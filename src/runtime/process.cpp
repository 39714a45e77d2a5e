#include "runtime/process.h"

#include "runtime/fastpath_p.h"

#include <QMutex>
#include <QRandomGenerator>
#include <QUuid>

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
