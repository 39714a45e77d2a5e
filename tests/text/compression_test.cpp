// zlib and gzip compression: Python's zlib and gzip modules as an independent
// reader and writer of every input, and damaged or mislabelled input.

#include "text/compression.h"

#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <random>

using namespace compression;

namespace {

const auto hex = [](const char *digits) { return QByteArray::fromHex(digits); };
const auto describe = [](const QByteArray &bytes) {
    return bytes.isNull() ? "(null)" : bytes.toHex().toStdString();
};

QByteArray chatText(qsizetype size)
{
    static const char *lines[] = {"<alice> did anyone see the build break?\n",
                                  "<bob> yes, fixed in the last commit\n", "* carol waves at everyone\n",
                                  "<dave> naïve café résumé — ünïcødé 😀\n"};
    QByteArray out;
    for (int i = 0; out.size() < size; ++i)
        out += lines[(i * 7) % 4];
    out.truncate(size);
    return out;
}

QByteArray randomBytes(qsizetype size)
{
    std::mt19937 random(424242);
    QByteArray out(size, Qt::Uninitialized);
    for (char &c : out)
        c = char(random());
    return out;
}

struct Input
{
    const char *name;
    QByteArray data;
};

std::vector<Input> inputs()
{
    QByteArray binary;
    for (int i = 0; i < 4096; ++i)
        binary += char(i & 0xFF);
    return {
        {"OneByte", QByteArray("x")},    {"ChatLine", QByteArray("PRIVMSG #zintaro :hello there\r\n")},
        {"ChatLog", chatText(200000)},   {"Zeros", QByteArray(4 * 1024 * 1024, '\0')},
        {"Random", randomBytes(100000)}, {"Binary", binary},
    };
}

TEST(CompressionRoundTrip, EmptyInputIsAnsweredAsItIs)
{
    const QByteArray null;
    const QByteArray empty("");
    for (auto *operation : {&zlibInflate, &gzipInflate, &zlibDeflate, &gzipDeflate}) {
        EXPECT_TRUE(operation(null).isNull());
        const QByteArray result = operation(empty);
        EXPECT_FALSE(result.isNull());
        EXPECT_EQ(result.constData(), empty.constData());
    }
}

// Reads what we wrote, writes what we must read: for every name, raw_<name>
// holds the data, ours_zlib_<name> and ours_gzip_<name> our output; the
// script fails on a mismatch and writes py_zlib_<name> and py_gzip_<name>.
const char *oracleScript = R"PY(
import gzip, os, sys, zlib
os.chdir(sys.argv[1])
for name in sys.argv[2:]:
    raw = open('raw_' + name, 'rb').read()
    for kind, decompress in (('zlib', zlib.decompress), ('gzip', gzip.decompress)):
        if decompress(open('ours_%s_%s' % (kind, name), 'rb').read()) != raw:
            sys.exit(kind + ' mismatch: ' + name)
    open('py_zlib_' + name, 'wb').write(zlib.compress(raw, 9))
    open('py_gzip_' + name, 'wb').write(gzip.compress(raw, compresslevel=1, mtime=1700000000))
)PY";

TEST(CompressionAgainstPython, BothDirectionsAgree)
{
    const QString python = QStandardPaths::findExecutable(QStringLiteral("python3"));
    if (python.isEmpty())
        GTEST_SKIP() << "python3 is not installed";
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    const auto path = [&](const char *prefix, const char *name) {
        return folder.filePath(QString::fromLatin1(prefix) + QString::fromLatin1(name));
    };
    QStringList arguments{QStringLiteral("-c"), QString::fromUtf8(oracleScript), folder.path()};
    for (const Input &input : inputs()) {
        for (const auto &[prefix, data] : {std::pair{"raw_", input.data},
                                           {"ours_zlib_", zlibDeflate(input.data)},
                                           {"ours_gzip_", gzipDeflate(input.data)}}) {
            QFile file(path(prefix, input.name));
            ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(data) == data.size());
        }
        arguments << QString::fromLatin1(input.name);
    }

    QProcess process;
    process.start(python, arguments);
    ASSERT_TRUE(process.waitForFinished(120000));
    ASSERT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
    for (const Input &input : inputs()) {
        SCOPED_TRACE(input.name);
        QFile zlibFile(path("py_zlib_", input.name)), gzipFile(path("py_gzip_", input.name));
        ASSERT_TRUE(zlibFile.open(QIODevice::ReadOnly) && gzipFile.open(QIODevice::ReadOnly));
        const QByteArray theirZlib = zlibFile.readAll();
        EXPECT_TRUE(zlibInflate(theirZlib) == input.data);
        EXPECT_TRUE(gzipInflate(gzipFile.readAll()) == input.data);
        EXPECT_TRUE(gzipInflate(theirZlib) == input.data);
    }
}

const QByteArray hello = QByteArray("hello");
const QByteArray helloZlib = hex("789ccb48cdc9c90700062c0215");

QByteArray flipped(QByteArray bytes, qsizetype at)
{
    bytes[at] = char(bytes[at] ^ 0x55);
    return bytes;
}

TEST(CompressionDamaged, Inflates)
{
    const struct
    {
        const char *name;
        QByteArray input;
        QByteArray (*operation)(const QByteArray &);
        QByteArray expected; // null: the operation fails
    } rows[] = {
        {"ZlibMissingChecksum", helloZlib.chopped(4), &zlibInflate, {}},
        {"ZlibHeaderOnly", hex("789c"), &zlibInflate, {}},
        {"ZlibHalf", zlibDeflate(chatText(5000)).left(40), &zlibInflate, {}},
        {"ZlibWrongChecksum", flipped(helloZlib, helloZlib.size() - 1), &zlibInflate, {}},
        {"ZlibDamagedData", flipped(zlibDeflate(chatText(5000)), 30), &zlibInflate, {}},
        {"ZlibBadHeader", flipped(helloZlib, 1), &zlibInflate, {}},
        {"ZlibTrailingBytesIgnored", helloZlib + "junk", &zlibInflate, hello},
        {"ZlibEmptyStream", hex("789c030000000001"), &zlibInflate, QByteArray("")},
        {"ZlibPresetDictionary", hex("78bb1a0b045dcb403015c06c003b200691"), &zlibInflate, {}},
        {"ZlibRawDeflate", hex("cb48cdc9c90700"), &zlibInflate, {}},
        {"GzipRawDeflate", hex("cb48cdc9c90700"), &gzipInflate, {}},
        {"GzipMissingTrailer", gzipDeflate(hello).chopped(8), &gzipInflate, {}},
        {"GzipWrongLength", flipped(gzipDeflate(hello), gzipDeflate(hello).size() - 2), &gzipInflate, {}},
        {"GzipHeaderOnly", gzipDeflate(hello).left(10), &gzipInflate, {}},
        {"GzipEmptyMember", hex("1f8b080000000000020303000000000000000000"), &gzipInflate, QByteArray("")},
        {"GzipFirstMemberOnly", gzipDeflate("first") + gzipDeflate("second"), &gzipInflate,
         QByteArray("first")},
        {"GzipToZlibReader", gzipDeflate(hello), &zlibInflate, {}},
        {"PlainTextZlib", QByteArray("hello world"), &zlibInflate, {}},
        {"PlainTextGzip", QByteArray("hello world"), &gzipInflate, {}},
        {"SingleByte", QByteArray("x"), &gzipInflate, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(describe(row.operation(row.input)), describe(row.expected));
    }
}

} // namespace
