// Our reader and writer against independent implementations: Python's plistlib
// (both directions, and byte for byte) and libplist's plistutil.

#include "plist_test_support.h"

#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <random>

using namespace zt;
using plisttest::nested;
using plisttest::sameValue;
using plisttest::tokens;
using plisttest::utcDate;

namespace {

// Random property lists of every kind, reproducible from the starting state. Only values
// that read back exactly are made: unsigned integers only above INT64_MAX,
// dates on whole milliseconds in years 1 to 9999 (the range of Python's
// datetime), no NaN and no zero (plistlib shares 0.0 and -0.0 as one object).
class Generator
{
public:
    explicit Generator(quint64 start) : m_rng(start) {}

    QVariant value(int depth)
    {
        if (depth <= 0 || chance(40))
            return scalar();
        const qsizetype n = qsizetype(chance(5) ? below(40) : below(6));
        if (chance(50)) {
            QVariantList list; // some elements repeat an earlier one
            for (qsizetype i = 0; i < n; ++i)
                list.append(chance(20) && !list.isEmpty() ? list[qsizetype(below(quint64(list.size())))]
                                                          : value(depth - 1));
            return list;
        }
        QVariantMap map;
        for (qsizetype i = 0; i < n; ++i)
            map.insert(chance(30) ? QStringLiteral("key%1").arg(below(5)) : string(), value(depth - 1));
        return map;
    }

private:
    quint64 below(quint64 n) { return n ? m_rng() % n : 0; }
    bool chance(int percent) { return below(100) < quint64(percent); }

    QString string()
    {
        static const char16_t pools[][8] = {
            {u'a', u'Z', u'0', u' ', u'_', u'~', u'\t', u'#'},
            {0xE9, 0xFC, 0xDF, 0xA9, u'a', 0xFF, 0x80, u'b'},
            {0x263A, 0x4E2D, 0x0416, 0x05D0, 0x20AC, 0xFFFD, 0xE000, 0xFB01},
        };
        const qsizetype length = qsizetype(chance(10) ? below(300) : below(20));
        const int pool = int(below(4)); // 3: astral plane characters as surrogate pairs
        QString s;
        for (qsizetype i = 0; i < length; ++i) {
            const char32_t astral = char32_t(0x10000 + below(0xFFFFF));
            s += pool == 3 ? QString::fromUcs4(&astral, 1) : QString(QChar(pools[pool][below(8)]));
        }
        return s;
    }

    QVariant scalar()
    {
        constexpr qint64 first = Q_INT64_C(-62135596800000); // 0001-01-01
        constexpr qint64 last = Q_INT64_C(253402300799999);  // 9999-12-31
        switch (below(9)) {
        case 0:
            return chance(50);
        case 1:
            return qulonglong((1ULL << 63) + below(1ULL << 63));
        case 2:
            return qlonglong(m_rng()) >> below(64);
        case 3:
            return qlonglong(below(1000));
        case 4: {
            double d;
            do
                d = std::bit_cast<double>(quint64(m_rng()));
            while (std::isnan(d) || d == 0.0);
            return chance(50) ? d : double(qint64(below(2000)) - 1000) / 8.0 + 0.125;
        }
        case 5: {
            QByteArray data(qsizetype(chance(10) ? below(400) : below(40)), Qt::Uninitialized);
            for (char &c : data)
                c = char(m_rng());
            return data;
        }
        case 6: {
            const qint64 ms = chance(50)
                                  ? first + qint64(below(quint64(last - first)))
                                  : Q_INT64_C(978307200000) + qint64(below(4000000000000)) - 2000000000000;
            return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC);
        }
        case 7:
            return QVariant::fromValue(Uid{m_rng() >> below(64)});
        default:
            return string();
        }
    }

    std::mt19937_64 m_rng;
};

struct Row
{
    QString name;
    QVariant value;
};

const QList<Row> &rows()
{
    static const QList<Row> table = [] {
        QList<Row> t;
        const auto add = [&t](const char *n, const QVariant &v) { t.append({QString::fromLatin1(n), v}); };
        add("integer_edges", QVariantList{0, 255, 256, 65535, 65536, qlonglong(0xFFFFFFFF),
                                          qlonglong(1) << 32, std::numeric_limits<qlonglong>::max(), -1, -256,
                                          std::numeric_limits<qlonglong>::min()});
        add("unsigned_above_int64",
            QVariantList{qulonglong(1) << 63, std::numeric_limits<qulonglong>::max()});
        add("booleans", QVariantList{true, false, true, 1, 0});
        add("reals", QVariantList{0.0, 1.5, -2.25, 1e308, 5e-324, std::numeric_limits<double>::infinity(),
                                  -std::numeric_limits<double>::infinity(), 0.1});
        add("nan", std::numeric_limits<double>::quiet_NaN());
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

        // Among these are empty arrays, dictionaries, strings and data, scalars
        // at the top, and strings of Latin-1, other BMP and astral characters.
        Generator gen(20011001);
        for (int i = 0; i < 300; ++i)
            t.append({QStringLiteral("random_%1").arg(i, 3, 10, QChar(u'0')), gen.value(4)});
        return t;
    }();
    return table;
}

// Runs a command to completion; its output, or a failed assertion.
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

class PlistOracle : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_dir.isValid()); }

    bool save(const Row &row, const char *suffix, const QByteArray &bytes) const
    {
        QFile f(m_dir.filePath(row.name + QLatin1StringView(suffix)));
        return f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size();
    }
    QByteArray load(const Row &row, const char *suffix) const
    {
        QFile f(m_dir.filePath(row.name + QLatin1StringView(suffix)));
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }
    // Every row's file of `suffix` read back as exactly the row's value.
    void expectEveryRowReads(const char *suffix) const
    {
        for (const Row &row : rows()) {
            SCOPED_TRACE(row.name.toStdString());
            Error error;
            const std::optional<QVariant> read = plist::readBinary(load(row, suffix), &error);
            ASSERT_TRUE(read.has_value()) << error.localizedDescription().toStdString();
            EXPECT_TRUE(sameValue(*read, row.value));
        }
    }

    QTemporaryDir m_dir;
};

// Since our bytes equal plistlib's, plistlib reads ours as well.
TEST_F(PlistOracle, WeReadEverythingPlistlibWritesAndWriteTheSameBytes)
{
    for (const Row &row : rows())
        ASSERT_TRUE(save(row, ".dump", tokens(row.value).join('\n')));
    const QString python = QFile::exists(QStringLiteral("/usr/bin/python3"))
                               ? QStringLiteral("/usr/bin/python3")
                               : QStringLiteral("python3");
    ASSERT_TRUE(run(python, {QStringLiteral(ZT_TEST_SOURCE_DIR "/runtime/plist_oracle.py"), m_dir.path()}));
    expectEveryRowReads(".py.bplist");
    for (const Row &row : rows()) {
        SCOPED_TRACE(row.name.toStdString());
        // Same object order, widths and sharing as plistlib (and CF) choose.
        EXPECT_EQ(plist::writeBinary(row.value).toHex().toStdString(),
                  load(row, ".py.bplist").toHex().toStdString());
    }
}

TEST_F(PlistOracle, LibplistReadsAndRewritesWhatWeWrite)
{
    const QString plistutil = QStandardPaths::findExecutable(QStringLiteral("plistutil"));
    if (plistutil.isEmpty())
        GTEST_SKIP() << "plistutil (libplist-utils) is not installed";
    for (const Row &row : rows())
        ASSERT_TRUE(save(row, ".bplist", plist::writeBinary(row.value)));
    // One shell for all files: plistutil converts each back to binary.
    QByteArray failures;
    ASSERT_TRUE(run(QStringLiteral("/bin/sh"),
                    {QStringLiteral("-c"),
                     QStringLiteral("for f in \"$1\"/*.bplist; do \"$2\" -i \"$f\" -o \"$f.peer\" -f bin "
                                    ">/dev/null 2>&1 || echo \"$f\"; done"),
                     QStringLiteral("sh"), m_dir.path(), plistutil},
                    &failures));
    EXPECT_TRUE(failures.isEmpty()) << failures.toStdString();
    expectEveryRowReads(".bplist.peer");
}

} // namespace
