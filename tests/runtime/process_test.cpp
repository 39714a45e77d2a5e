// Unique strings name return handlers: random version-4 UUIDs in the
// canonical upper-case form, different every time and from every thread.

#include "runtime/process.h"

#include <QSet>
#include <QThread>
#include <QUuid>
#include <gtest/gtest.h>

namespace {

TEST(GloballyUniqueString, IsAnUpperCaseVersion4UuidNeverRepeatedInAnyThread)
{
    QSet<QString> seen;
    auto check = [&](const QString &s) {
        ASSERT_EQ(s.size(), 36) << s.toStdString();
        const QUuid uuid = QUuid::fromString(s);
        ASSERT_FALSE(uuid.isNull()) << s.toStdString();
        EXPECT_EQ(uuid.version(), QUuid::Random) << s.toStdString();
        EXPECT_EQ(uuid.variant(), QUuid::DCE) << s.toStdString();
        EXPECT_EQ(uuid.toString(QUuid::WithoutBraces).toUpper(), s);
        EXPECT_FALSE(seen.contains(s)) << s.toStdString();
        seen.insert(s);
    };
    for (int i = 0; i < 2000; ++i)
        check(zt::process::globallyUniqueString());
    // Another thread has its own generator: still no repeats.
    QStringList fromThread;
    QThread *thread = QThread::create([&] {
        for (int i = 0; i < 2000; ++i)
            fromThread.append(zt::process::globallyUniqueString());
    });
    thread->start();
    thread->wait();
    delete thread;
    for (const QString &s : fromThread)
        check(s);
}

} // namespace
