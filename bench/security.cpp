// Passphrase ciphers beside `openssl speed` in the same run, PBKDF2, and a
// SASL PLAIN login against the local inspircd with atheme.
//
// Ciphers: 64 KiB buffers through VXCrypto (Blowfish-CBC, the default
// cipher) and the AES-128 passphrase buffer (bytes_per_second, which Google
// Benchmark prints in binary units: 1M = 1,048,576 bytes). The Openssl* rows
// run `openssl speed [-decrypt] -evp <cipher> -bytes 65536 -seconds 1` once
// per repetition and report its figure as the counter "MB/s" in decimal
// megabytes, so every repetition of ours has a peer measured moments apart
// on the same loaded machine. Both divide by CPU time.
//
// Login: 100 logins, each from CAP REQ to the 903 numeric on a fresh
// connection; counters give the median and the 90th percentile in µs. Most
// of it is the server checking the password (atheme's PBKDF2 between the last
// AUTHENTICATE and 900); CAP REQ to "AUTHENTICATE +" took 2.6 ms in a probe. Needs
// ZT_SASL_IRC_PORT, ZT_SASL_ACCOUNT and ZT_SASL_PASSWORD (scripts/services.sh)
// and skips without them.

#include "irc_sasl.h"
#include "security/dataencryption.h"
#include "security/vxcrypto.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <algorithm>
#include <benchmark/benchmark.h>
#include <vector>

namespace {

constexpr qsizetype BufferBytes = 64 * 1024;

QByteArray buffer()
{
    QByteArray b(BufferBytes, Qt::Uninitialized);
    for (qsizetype i = 0; i < b.size(); ++i)
        b[i] = char(i * 31 + 7);
    return b;
}

void BM_BlowfishEncrypt(benchmark::State &state)
{
    auto c = VXCrypto::createWithSymmetricKey("a passphrase");
    c->setClearTextWithData(buffer());
    for (auto _ : state)
        benchmark::DoNotOptimize(c->encrypt());
    state.SetBytesProcessed(state.iterations() * BufferBytes);
}

void BM_BlowfishDecrypt(benchmark::State &state)
{
    auto c = VXCrypto::createWithSymmetricKey("a passphrase");
    c->setClearTextWithData(buffer());
    c->encrypt();
    for (auto _ : state)
        benchmark::DoNotOptimize(c->decrypt());
    state.SetBytesProcessed(state.iterations() * BufferBytes);
}

void BM_AesBufferEncrypt(benchmark::State &state)
{
    const QByteArray plain = buffer();
    const QString pass = QStringLiteral("a passphrase");
    for (auto _ : state)
        benchmark::DoNotOptimize(vx::encryptWithSymmetricKey(plain, pass));
    state.SetBytesProcessed(state.iterations() * BufferBytes);
}

void BM_AesBufferDecrypt(benchmark::State &state)
{
    const QString pass = QStringLiteral("a passphrase");
    const QByteArray cipher = vx::encryptWithSymmetricKey(buffer(), pass);
    for (auto _ : state)
        benchmark::DoNotOptimize(vx::decryptWithSymmetricKey(cipher, pass));
    state.SetBytesProcessed(state.iterations() * BufferBytes);
}

// `openssl speed` for one cipher: its last line reads "<cipher> <n>k" in
// thousands of bytes per second (per second of user CPU time, as ours are).
void opensslSpeed(benchmark::State &state, const char *cipher, bool decrypt)
{
    double mbPerSecond = 0;
    for (auto _ : state) {
        QStringList args{QStringLiteral("speed")};
        if (decrypt)
            args << QStringLiteral("-decrypt");
        args << QStringLiteral("-evp") << QString::fromLatin1(cipher) << QStringLiteral("-bytes")
             << QStringLiteral("65536") << QStringLiteral("-seconds") << QStringLiteral("1")
             << QStringLiteral("-provider") << QStringLiteral("legacy") << QStringLiteral("-provider")
             << QStringLiteral("default");
        QProcess p;
        p.start(QStringLiteral("openssl"), args);
        p.waitForFinished(60000);
        const QList<QByteArray> lines = p.readAllStandardOutput().trimmed().split('\n');
        const QList<QByteArray> fields = lines.constLast().simplified().split(' ');
        mbPerSecond = fields.value(1).chopped(1).toDouble() / 1000.0;
    }
    if (mbPerSecond <= 0)
        state.SkipWithError("openssl speed gave no figure");
    state.counters["MB/s"] = mbPerSecond;
}

void BM_OpensslSpeedBlowfish(benchmark::State &state)
{
    opensslSpeed(state, "bf-cbc", false);
}

void BM_OpensslSpeedBlowfishDecrypt(benchmark::State &state)
{
    opensslSpeed(state, "bf-cbc", true);
}

void BM_OpensslSpeedAes128(benchmark::State &state)
{
    opensslSpeed(state, "aes-128-cbc", false);
}

void BM_OpensslSpeedAes128Decrypt(benchmark::State &state)
{
    opensslSpeed(state, "aes-128-cbc", true);
}

void BM_Pbkdf2Sha1_1000(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(VXCrypto::getKeyDataWithLengthFromPasswordWithSalt(
            20, QStringLiteral("password"), QStringLiteral("salt")));
    state.SetItemsProcessed(state.iterations());
}

void BM_PlainLogin(benchmark::State &state)
{
    const QString port = qEnvironmentVariable("ZT_SASL_IRC_PORT");
    const QString account = qEnvironmentVariable("ZT_SASL_ACCOUNT");
    const QString password = qEnvironmentVariable("ZT_SASL_PASSWORD");
    if (port.isEmpty() || account.isEmpty()) {
        state.SkipWithError("no IRC services (ZT_SASL_IRC_PORT is set by scripts/services.sh)");
        return;
    }
    std::vector<double> micros;
    int n = 0;
    for (auto _ : state) {
        for (int i = 0; i < 100; ++i) {
            zttest::IrcSasl irc;
            if (!irc.connectAndListCaps(
                    QStringLiteral("127.0.0.1"), port.toUShort(),
                    QStringLiteral("zb%1x%2").arg(QCoreApplication::applicationPid()).arg(++n))) {
                state.SkipWithError("cannot connect");
                return;
            }
            auto conn = SaslConn::createWithServiceServerLocalIpRemoteIpFlags(
                QStringLiteral("irc"), QStringLiteral("irc.test.local"), {}, {}, 0);
            conn->setAuthName(account);
            conn->setPassword(password);
            QElapsedTimer t;
            t.start();
            const int numeric = irc.authenticate(*conn, QStringLiteral("PLAIN"));
            micros.push_back(double(t.nsecsElapsed()) / 1000.0);
            if (numeric != 903) {
                state.SkipWithError("login failed");
                return;
            }
        }
    }
    std::sort(micros.begin(), micros.end());
    state.counters["median_us"] = micros[micros.size() / 2];
    state.counters["p90_us"] = micros[micros.size() * 9 / 10];
    state.counters["logins"] = double(micros.size());
}

} // namespace

BENCHMARK(BM_OpensslSpeedBlowfish)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BlowfishEncrypt)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OpensslSpeedBlowfishDecrypt)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BlowfishDecrypt)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OpensslSpeedAes128)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AesBufferEncrypt)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OpensslSpeedAes128Decrypt)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AesBufferDecrypt)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Pbkdf2Sha1_1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PlainLogin)->Iterations(1)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
