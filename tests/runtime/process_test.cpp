// Unique strings name return handlers: random version-4 UUIDs in the
// canonical upper-case form, different every time and from every thread.

#include "runtime/packeduuid.h"
#include "runtime/process.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QProcess>
#include <QUuid>
#include <gtest/gtest.h>
#include <set>
#include <thread>

namespace {

TEST(GloballyUniqueString, IsAnUpperCaseVersion4UuidNeverRepeatedInAnyThread)
{
    std::set<QString> seen;
    auto check = [&](const QString &s) {
        SCOPED_TRACE(s.toStdString());
        const QUuid uuid = QUuid::fromString(s);
        EXPECT_EQ(uuid.version(), QUuid::Random);
        EXPECT_EQ(uuid.variant(), QUuid::DCE);
        EXPECT_EQ(uuid.toString(QUuid::WithoutBraces).toUpper(), s); // 36 characters, upper case
        EXPECT_TRUE(seen.insert(s).second) << "repeated";
    };
    for (int i = 0; i < 2000; ++i)
        check(zt::process::globallyUniqueString());
    // Another thread has its own generator: still no repeats.
    QStringList fromThread;
    std::thread([&] {
        for (int i = 0; i < 2000; ++i)
            fromThread.append(zt::process::globallyUniqueString());
    }).join();
    for (const QString &s : fromThread)
        check(s);
}

// The test executable is its own probe (tests/test_main.cpp): it prints its
// process ID on each start, then its tunables and name once past the restart.
TEST(TunedHeapRestart, RestartsOnceInPlaceKeepingOtherTunablesAndExplicitChoices)
{
    const QString executable = QCoreApplication::applicationFilePath();
    const std::pair<const char *, const char *> rows[] = {
        {nullptr, "glibc.malloc.hugetlb=1:glibc.malloc.tcache_count=1000"},
        {"glibc.malloc.check=0",
         "glibc.malloc.check=0:glibc.malloc.hugetlb=1:glibc.malloc.tcache_count=1000"},
        // explicit choices stand
        {"glibc.malloc.hugetlb=0", "glibc.malloc.hugetlb=0:glibc.malloc.tcache_count=1000"},
        {"glibc.malloc.tcache_count=7:glibc.malloc.hugetlb=0",
         "glibc.malloc.tcache_count=7:glibc.malloc.hugetlb=0"},
    };
    for (const auto &[given, expected] : rows) {
        SCOPED_TRACE(given ? given : "unset");
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("ZT_PROBE_HEAP_RESTART"), QStringLiteral("1"));
        environment.remove(QStringLiteral("GLIBC_TUNABLES"));
        if (given)
            environment.insert(QStringLiteral("GLIBC_TUNABLES"), QString::fromLatin1(given));
        QProcess probe;
        probe.setProcessEnvironment(environment);
        probe.start(executable, {});
        ASSERT_TRUE(probe.waitForStarted());
        const QString pid = QStringLiteral("pid %1").arg(probe.processId());
        ASSERT_TRUE(probe.waitForFinished());
        QStringList lines{pid};
        if (qstrcmp(given, expected) != 0)
            lines << pid; // restarted: the same process again
        lines << QString::fromLatin1(expected) + u' ' + QFileInfo(executable).fileName().left(15);
        EXPECT_EQ(QString::fromLatin1(probe.readAllStandardOutput()).split(u'\n', Qt::SkipEmptyParts), lines);
    }
}

// UUIDs are kept packed: whatever text goes in comes back exactly, and two
// values are equal (and hash alike) exactly when their texts are.
TEST(PackedUUID, GivesBackTheTextItWasMadeFrom)
{
    const QString upper = zt::process::globallyUniqueString();
    struct Row
    {
        const char *name;
        QString text;
        bool packed;
    } rows[] = {
        {"upper case", upper, true},
        {"lower case", upper.toLower(), true},
        {"digits only", QStringLiteral("01234567-8901-2345-6789-012345678901"), true},
        {"mixed case", QStringLiteral("ABCDEF01-2345-6789-abcd-ef0123456789"), false},
        {"braces", u'{' + upper + u'}', false},
        {"dash misplaced", upper.left(7) + QStringLiteral("-0") + upper.mid(9), false},
        {"not hex", upper.left(35) + u'G', false},
        {"empty", QStringLiteral(""), false},
        {"null", QString(), false},
    };
    QSet<zt::PackedUUID> all;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        const zt::PackedUUID uuid(row.text);
        EXPECT_EQ(uuid.isPacked(), row.packed);
        EXPECT_EQ(uuid.toString(), row.text);
        EXPECT_EQ(uuid.toString().isNull(), row.text.isNull());
        EXPECT_EQ(uuid.isNull(), row.text.isNull());
        EXPECT_EQ(uuid.isEmpty(), row.text.isEmpty());
        EXPECT_EQ(qHash(zt::PackedUUID(row.text), 7), qHash(uuid, 7));
        all.insert(uuid);
    }
    EXPECT_EQ(all.size(), qsizetype(std::size(rows)) - 1); // only "empty" equals "null"
}

} // namespace
