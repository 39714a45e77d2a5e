// Unique strings name return handlers: random version-4 UUIDs in the
// canonical upper-case form, different every time and from every thread.

#include "runtime/process.h"

#include <QThread>
#include <QUuid>
#include <gtest/gtest.h>
#include <set>

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
    std::unique_ptr<QThread> thread(QThread::create([&] {
        for (int i = 0; i < 2000; ++i)
            fromThread.append(zt::process::globallyUniqueString());
    }));
    thread->start();
    thread->wait();
    for (const QString &s : fromThread)
        check(s);
}

} // namespace
