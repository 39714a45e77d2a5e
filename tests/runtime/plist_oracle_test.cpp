// Our reader and writer against independent implementations: Python's plistlib
// (both directions, and byte for byte) and libplist's plistutil.

#include "plist_test_support.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace zt;
using plisttest::canonicalDump;
using plisttest::sameValue;

namespace {

struct Row
{
    QString name;
    QVariant value;
};

QVariant nested(int levels, const QVariant &innermost)
{
    QVariant v = innermost;
    for (int i = 0; i < levels; ++i)
        v = QVariantList{v};
    return v;
}

QVariant utcDate(qint64 ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC);
}

const QList<Row> &rows()
{
    static const QList<Row> table = [] {
        QList<Row> t;
        const auto add = [&t](const char *name, const QVariant &v) {
            t.append({QString::fromLatin1(name), v});
        };
        add("empty_array", QVariantList{});
        add("empty_dictionary", QVariantMap{});
        add("empty_string", QStringLiteral(""));
        add("empty_data", QByteArray(""));
        add("integer_edges", QVariantList{0, 255, 256, 65535, 65536, qlonglong(0xFFFFFFFF),
                                          qlonglong(1) << 32, std::numeric_limits<qlonglong>::max(), -1, -256,
                                          std::numeric_limits<qlonglong>::min()});
        add("unsigned_above_int64",
            QVariantList{qulonglong(1) << 63, std::numeric_limits<qulonglong>::max()});
        add("top_level_integer", qlonglong(-42));
        add("top_level_string", QStringLiteral("lonely"));
        add("booleans", QVariantList{true, false, true, 1, 0});
        add("reals", QVariantList{0.0, 1.5, -2.25, 1e308, 5e-324, std::numeric_limits<double>::infinity(),
                                  -std::numeric_limits<double>::infinity(), 0.1});
        add("nan", std::numeric_limits<double>::quiet_NaN());
        add("latin1_string", QStringLiteral("caf\u00e9 \u00fcber"));
        add("bmp_string", QStringLiteral("\u4e2d\u6587 \u20ac \u263a"));
        add("astral_string", QString::fromUtf8("\xf0\x9f\x98\x80 and \xf0\x9d\x84\x9e"));
        add("long_ascii_string", QString(300, u'x'));
        add("long_utf16_string", QString(70000, QChar(0x263A)));
        add("dates", QVariantList{utcDate(978307200000), utcDate(0), utcDate(-62135596800000),
                                  utcDate(253402300799999), utcDate(978307200001), utcDate(-1)});
        add("data", QVariantList{QByteArray("\x00\xff\x10", 3), QByteArray(15, 'a'), QByteArray(256, 'b')});
        add("uids", QVariantList{QVariant::fromValue(Uid{0}), QVariant::fromValue(Uid{255}),
                                 QVariant::fromValue(Uid{256}), QVariant::fromValue(Uid{quint64(1) << 32}),
                                 QVariant::fromValue(Uid{std::numeric_limits<quint64>::max()})});
        add("shared_scalars", QVariantList{QStringLiteral("same"), QStringLiteral("same"), 7, 7, 2.5, 2.5,
                                           QByteArray("d"), QByteArray("d"), utcDate(5), utcDate(5)});
        add("dictionary_keys_as_values", QVariantMap{{QStringLiteral("a"), QStringLiteral("b")},
                                                     {QStringLiteral("b"), QStringLiteral("a")}});
        add("unicode_keys", QVariantMap{{QString::fromUtf8("\xf0\x9f\x98\x80"), 1},
                                        {QString(QChar(0xE000)), 2},
                                        {QStringLiteral("\u00e9"), 3},
                                        {QStringLiteral("z"), 4}});
        add("deep_nesting", nested(300, QStringLiteral("bottom")));
        QVariantList many;
        for (int i = 0; i < 1000; ++i)
            many.append(i * 1000);
        add("two_byte_references", many);
        QVariantList lots;
        for (int i = 0; i < 70000; ++i)
            lots.append(qlonglong(i) * 7919);
        add("four_byte_references", lots);

        plisttest::Generator gen(20011001);
        for (int i = 0; i < 300; ++i)
            t.append({QStringLiteral("random_%1").arg(i, 3, 10, QChar(u'0')), gen.value(4)});
        return t;
    }();
    return table;
}

QString python()
{
    return QFile::exists(QStringLiteral("/usr/bin/python3")) ? QStringLiteral("/usr/bin/python3")
                                                             : QStringLiteral("python3");
}

// Runs a command to completion; stdout, or a failed assertion.
testing::AssertionResult run(const QString &program, const QStringList &args, QByteArray *output = nullptr)
{
    QProcess p;
    p.start(program, args);
    if (!p.waitForFinished(-1) || p.exitStatus() != QProcess::NormalExit || p.exitCode() != 0)
        return testing::AssertionFailure()
               << program.toStdString() << " failed: " << p.errorString().toStdString() << "\n"
               << p.readAllStandardError().toStdString();
    if (output)
        *output = p.readAllStandardOutput();
    return testing::AssertionSuccess();
}

testing::AssertionResult runOracle(const char *mode, const QString &dir, QByteArray *output = nullptr)
{
    return run(
        python(),
        {QStringLiteral(ZT_TEST_SOURCE_DIR "/runtime/plist_oracle.py"), QString::fromLatin1(mode), dir},
        output);
}

// "== name" headers followed by that file's dump lines.
QMap<QString, QByteArray> splitDumps(const QByteArray &output)
{
    QMap<QString, QByteArray> out;
    QString current;
    QList<QByteArray> lines;
    const auto flush = [&] {
        if (!current.isEmpty())
            out.insert(current, lines.join('\n'));
        lines.clear();
    };
    for (const QByteArray &line : output.split('\n')) {
        if (line.startsWith("== ")) {
            flush();
            current = QString::fromUtf8(line.mid(3));
        } else if (!line.isEmpty()) {
            lines.append(line);
        }
    }
    flush();
    return out;
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size();
}

QByteArray readFile(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

class PlistOracle : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_dir.isValid()); }
    QString path(const QString &name, const char *suffix) const
    {
        return m_dir.filePath(name + QLatin1StringView(suffix));
    }
    QTemporaryDir m_dir;
};

TEST_F(PlistOracle, PlistlibReadsEverythingWeWrite)
{
    for (const Row &row : rows()) {
        Error error;
        const QByteArray bytes = plist::writeBinary(row.value, &error);
        ASSERT_FALSE(bytes.isEmpty())
            << row.name.toStdString() << ": " << error.localizedDescription().toStdString();
        ASSERT_TRUE(writeFile(path(row.name, ".bplist"), bytes));
    }
    QByteArray output;
    ASSERT_TRUE(runOracle("read", m_dir.path(), &output));
    const QMap<QString, QByteArray> dumps = splitDumps(output);
    for (const Row &row : rows()) {
        SCOPED_TRACE(row.name.toStdString());
        EXPECT_EQ(dumps.value(row.name).toStdString(), canonicalDump(row.value).toStdString());
    }
}

TEST_F(PlistOracle, WeReadEverythingPlistlibWritesAndWriteTheSameBytes)
{
    for (const Row &row : rows())
        ASSERT_TRUE(writeFile(path(row.name, ".dump"), canonicalDump(row.value)));
    ASSERT_TRUE(runOracle("write", m_dir.path()));
    for (const Row &row : rows()) {
        SCOPED_TRACE(row.name.toStdString());
        const QByteArray theirs = readFile(path(row.name, ".py.bplist"));
        ASSERT_FALSE(theirs.isEmpty());
        Error error;
        const std::optional<QVariant> read = plist::readBinary(theirs, &error);
        ASSERT_TRUE(read.has_value()) << error.localizedDescription().toStdString();
        EXPECT_TRUE(sameValue(*read, row.value));
        // Same object order, widths and sharing as plistlib (and CF) choose.
        EXPECT_EQ(plist::writeBinary(row.value).toHex().toStdString(), theirs.toHex().toStdString());
    }
}

TEST_F(PlistOracle, LibplistReadsAndRewritesWhatWeWrite)
{
    const QString plistutil = QStandardPaths::findExecutable(QStringLiteral("plistutil"));
    if (plistutil.isEmpty())
        GTEST_SKIP() << "plistutil (libplist-utils) is not installed";
    for (const Row &row : rows())
        ASSERT_TRUE(writeFile(path(row.name, ".bplist"), plist::writeBinary(row.value)));
    // One shell for all files: plistutil converts each back to binary.
    QByteArray failures;
    ASSERT_TRUE(run(QStringLiteral("/bin/sh"),
                    {QStringLiteral("-c"),
                     QStringLiteral("for f in \"$1\"/*.bplist; do \"$2\" -i \"$f\" -o \"$f.peer\" -f bin "
                                    ">/dev/null 2>&1 || echo \"$f\"; done"),
                     QStringLiteral("sh"), m_dir.path(), plistutil},
                    &failures));
    EXPECT_TRUE(failures.isEmpty()) << failures.toStdString();
    for (const Row &row : rows()) {
        SCOPED_TRACE(row.name.toStdString());
        Error error;
        const std::optional<QVariant> read =
            plist::readBinary(readFile(path(row.name, ".bplist.peer")), &error);
        ASSERT_TRUE(read.has_value()) << error.localizedDescription().toStdString();
        EXPECT_TRUE(sameValue(*read, row.value));
    }
}

} // namespace
