#pragma once
// Running the `openssl` command as an oracle, in a scratch folder.

#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace zttest {

struct Tool
{
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

inline Tool runTool(const QString &program, const QStringList &args, const QByteArray &input = {},
                    const QString &dir = {})
{
    QProcess p;
    if (!dir.isEmpty())
        p.setWorkingDirectory(dir);
    p.start(program, args);
    Tool t;
    if (!p.waitForStarted(10000))
        return t;
    p.write(input);
    p.closeWriteChannel();
    p.waitForFinished(60000);
    t.exitCode = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    t.out = p.readAllStandardOutput();
    t.err = p.readAllStandardError();
    return t;
}

//! `openssl args…` with stdin; fails the test unless it exits with 0.
inline QByteArray openssl(const QStringList &args, const QByteArray &input = {}, const QString &dir = {})
{
    const Tool t = runTool(QStringLiteral("openssl"), args, input, dir);
    EXPECT_EQ(t.exitCode, 0) << args.join(u' ').toStdString() << ": " << t.err.toStdString();
    return t.out;
}

inline QStringList legacy()
{
    return {QStringLiteral("-provider"), QStringLiteral("legacy"), QStringLiteral("-provider"),
            QStringLiteral("default")};
}

} // namespace zttest
