// The ciphers against the `openssl` command (enc, pkeyutl, and keys it makes);
// PBKDF2, Base64 and Base32 against the RFC 6070 and RFC 4648 vectors; the
// error value of every kind of bad input.
#include "security/baseconversion.h"
#include "security/dataencryption.h"
#include "security/vxcrypto.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QtEndian>
#include <functional>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

//! Runs `openssl` with the space-separated arguments; fails the test unless
//! it exits with 0. Answers its stdout.
QByteArray openssl(const QString &args, const QByteArray &input = {}, const QString &dir = {})
{
    QProcess p;
    p.setWorkingDirectory(dir);
    p.start(QStringLiteral("openssl"), args.split(u' '));
    p.write(input);
    p.closeWriteChannel();
    p.waitForFinished(60000);
    EXPECT_EQ(p.exitCode(), 0) << args.toStdString() << ": " << p.readAllStandardError().toStdString();
    return p.readAllStandardOutput();
}

const QString Pass = u"päss-wörd"_s;
constexpr auto pbkdf2 = &VXCrypto::getKeyDataWithLengthFromPasswordWithSaltWithIterations;

} // namespace

TEST(Cipher, PassphraseCiphersMatchOpensslEnc)
{
    for (const QString &cipher : {u"bf-cbc"_s, u"aes-128-cbc"_s, u"aes-256-cbc"_s}) {
        const QString enc =
            u"enc -%1 -md md5 -pass pass:%2 -provider legacy -provider default"_s.arg(cipher, Pass);
        for (const qsizetype n : {0, 1, 8, 9, 1000}) {
            SCOPED_TRACE(cipher.toStdString() + " " + std::to_string(n));
            const QByteArray plain(n, 'z');
            auto ours = VXCrypto::createWithSymmetricKey(Pass.toUtf8());
            ours->setClearTextWithData(plain);
            // The default cipher is Blowfish-CBC.
            const QString name = cipher == u"bf-cbc" ? QString() : cipher;
            const QByteArray first = ours->encrypt(name);
            EXPECT_EQ(openssl(enc + u" -d -nosalt"_s, first), plain);
            EXPECT_EQ(ours->encrypt(name), first) << "again, with the key schedule kept";
            for (const QString &salt : {u" -nosalt"_s, u" -salt"_s}) {
                auto back = VXCrypto::createWithSymmetricKey(Pass.toUtf8());
                back->setCipherText(openssl(enc + u" -e"_s + salt, plain));
                EXPECT_EQ(back->decrypt(cipher), plain) << salt.toStdString();
            }
        }
    }
}

TEST(Cipher, AesBufferMatchesOpensslEnc)
{
    const QString key = QString::fromLatin1(VXCrypto::getSHA1ForData(Pass.toUtf8()).left(16).toHex());
    for (const qsizetype n : {0, 5, 15, 16, 17, 1000}) {
        SCOPED_TRACE(n);
        const QByteArray plain(n, 'z');
        const QByteArray ours = vx::encryptWithSymmetricKey(plain, Pass);
        const qsizetype padded = n + 32 - n % 16;
        ASSERT_EQ(ours.size(), 16 + padded);
        EXPECT_NE(vx::encryptWithSymmetricKey(plain, Pass).left(16), ours.left(16)) << "fresh IV";
        const QString enc =
            u"enc -aes-128-cbc -nopad -K %1 -iv %2"_s.arg(key, QString::fromLatin1(ours.left(16).toHex()));
        QByteArray block = plain + QByteArray(padded - n, '\0');
        qToLittleEndian(quint32(n), block.data() + padded - 4);
        EXPECT_EQ(openssl(enc + u" -d"_s, ours.mid(16)), block);
        EXPECT_EQ(vx::decryptWithSymmetricKey(ours.left(16) + openssl(enc + u" -e"_s, block), Pass), plain);
    }
}

TEST(Rsa, InteroperatesWithOpenssl)
{
    QTemporaryDir dir;
    const QString d = dir.path() + u'/';
    auto pem = [&](const QString &name) {
        QFile f(d + name);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    };
    for (const QString &cmd :
         {u"genrsa -out pkcs8.pem 1024"_s, u"rsa -in pkcs8.pem -traditional -out pkcs1.pem"_s,
          u"rsa -in pkcs8.pem -pubout -out spki.pem"_s,
          u"rsa -in pkcs8.pem -RSAPublicKey_out -out pkcs1pub.pem"_s})
        openssl(cmd, {}, d);
    const QByteArray plain("attack at dawn");
    for (const QString &pub : {u"spki.pem"_s, u"pkcs1pub.pem"_s}) {
        SCOPED_TRACE(pub.toStdString());
        auto enc = VXCrypto::createWithPublicKey(pem(pub));
        enc->setClearTextWithData(plain);
        EXPECT_EQ(openssl(u"pkeyutl -inkey pkcs8.pem -decrypt"_s, enc->encrypt(), d), plain);
        const QByteArray signature = openssl(u"pkeyutl -inkey pkcs8.pem -sign"_s, plain, d);
        EXPECT_EQ(vx::decryptWithPublicKey(signature, pem(pub)), plain);
    }
    for (const QString &priv : {u"pkcs8.pem"_s, u"pkcs1.pem"_s}) {
        SCOPED_TRACE(priv.toStdString());
        auto dec = VXCrypto::createWithPrivateKey(pem(priv));
        dec->setCipherText(openssl(u"pkeyutl -pubin -inkey spki.pem -encrypt"_s, plain, d));
        EXPECT_EQ(dec->decrypt(), plain);
        const QByteArray signature = vx::encryptWithPrivateKey(plain, pem(priv));
        EXPECT_EQ(openssl(u"pkeyutl -pubin -inkey spki.pem -verifyrecover"_s, signature, d), plain);
    }
    // Our keys: openssl checks them and finds the same public half.
    const QByteArray ours = VXCrypto::generateRSAPrivateKeyWithLength(1024);
    EXPECT_TRUE(openssl(u"rsa -check -noout"_s, ours).contains("RSA key ok"));
    const QByteArray pub = VXCrypto::generateRSAPublicKeyFromPrivateKey(ours);
    EXPECT_EQ(pub, openssl(u"pkey -pubout"_s, ours));
    auto both = VXCrypto::createWithPublicKeyPrivateKey(pub, ours);
    both->setClearTextWithData(plain);
    EXPECT_FALSE(both->sign().isEmpty());
    EXPECT_TRUE(both->verify());
}

TEST(Digest, Pbkdf2AndDigestsMatchPublishedVectors)
{
    struct Row
    {
        QString password, salt;
        int iterations, length;
        const char *hex;
    } rows[] = {
        {u"password"_s, u"salt"_s, 1, 20, "0c60c80f961f0e71f3a9b524af6012062fe037a6"},
        {u"password"_s, u"salt"_s, 4096, 20, "4b007901b765489abead49d926f721d065a429c1"},
        {u"passwordPASSWORDpassword"_s, u"saltSALTsaltSALTsaltSALTsaltSALTsalt"_s, 4096, 25,
         "3d2eec4fe41c849b80c8d83662c0e44a8b291a964cf2f07038"},
        {QString::fromUtf8("pass\0word", 9), QString::fromUtf8("sa\0lt", 5), 4096, 16,
         "56fa6aa75548099dcc37d7f03425e0c3"},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.hex);
        EXPECT_EQ(vx::hexval(pbkdf2(r.length, r.password, r.salt, r.iterations)), QLatin1String(r.hex));
    }
    auto c = VXCrypto::createWithSymmetricKey({});
    c->setClearTextWithString(u"abc"_s);
    EXPECT_EQ(vx::hexval(c->digest()), u"900150983cd24fb0d6963f7d28e17f72"_s);
    EXPECT_EQ(vx::hexval(c->digest(u"SHA1"_s)), u"a9993e364706816aba3e25717850c26c9cd0d89d"_s);
}

TEST(BaseConversion, MatchesRfc4648Vectors)
{
    const char *rows[][3] = {{"", "", ""},
                             {"f", "Zg==", "MY======"},
                             {"fo", "Zm8=", "MZXQ===="},
                             {"foo", "Zm9v", "MZXW6==="},
                             {"foob", "Zm9vYg==", "MZXW6YQ="},
                             {"fooba", "Zm9vYmE=", "MZXW6YTB"},
                             {"foobar", "Zm9vYmFy", "MZXW6YTBOI======"}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r[0]);
        const QString b64 = QLatin1String(r[1]), b32 = QLatin1String(r[2]);
        EXPECT_EQ(vx::base64String(r[0]), b64);
        EXPECT_EQ(vx::base32String(r[0]), QString(b32).remove(u'='));
        for (const QString &text : {b64, QString(b64).remove(u'=')})
            EXPECT_EQ(vx::dataWithBase64String(text), r[0]) << text.toStdString();
        for (const QString &text : {b32, QString(b32).remove(u'='), b32.toLower()})
            EXPECT_EQ(vx::dataWithBase32String(text), r[0]) << text.toStdString();
    }
    EXPECT_FALSE(vx::dataWithBase64String(u"").isNull());
    EXPECT_FALSE(vx::dataWithBase32String(u"").isNull());
}

TEST(BadInput, GetsNullNeverACrash)
{
    auto bf = VXCrypto::createWithSymmetricKey("right");
    bf->setClearTextWithString(u"a message of some length"_s);
    const QByteArray bfCipher = bf->encrypt();
    const QByteArray aes = vx::encryptWithSymmetricKey("a message", u"right"_s);
    auto decryptBf = [](const QByteArray &key, const QByteArray &cipher, const QString &name = {}) {
        auto c = VXCrypto::createWithSymmetricKey(key);
        c->setCipherText(cipher);
        return c->decrypt(name);
    };
    auto rsa = [](const QByteArray &pem, const QByteArray &cipher) {
        auto c = VXCrypto::createWithPrivateKey(pem);
        c->setCipherText(cipher);
        return c->decrypt();
    };
    const QByteArray privateKey = VXCrypto::generateRSAPrivateKeyWithLength(1024);
    QByteArray damagedPem = privateKey;
    damagedPem[40] = damagedPem[40] == 'A' ? 'B' : 'A';
    const std::pair<const char *, std::function<QByteArray()>> rows[] = {
        {"blowfish truncated", [&] { return decryptBf("right", bfCipher.chopped(3)); }},
        {"blowfish wrong passphrase", [&] { return decryptBf("wrong", bfCipher); }},
        {"unknown cipher", [&] { return decryptBf("right", bfCipher, u"no-such-cipher"_s); }},
        {"aes wrong passphrase", [&] { return vx::decryptWithSymmetricKey(aes, u"wrong"_s); }},
        {"aes truncated", [&] { return vx::decryptWithSymmetricKey(aes.chopped(1), u"right"_s); }},
        {"aes tampered",
         [&] { return vx::decryptWithSymmetricKey(QByteArray(aes).replace(20, 1, "x"), u"right"_s); }},
        {"rsa malformed pem", [&] { return rsa(damagedPem, QByteArray(128, 'x')); }},
        {"rsa public key as private",
         [&] { return rsa(VXCrypto::generateRSAPublicKeyFromPrivateKey(privateKey), "x"); }},
        {"rsa garbage cipher text", [&] { return rsa(privateKey, QByteArray(128, 'x')); }},
        {"unknown digest", [&] { return bf->digest(u"no-such-digest"_s); }},
        {"pbkdf2 zero iterations", [&] { return pbkdf2(8, u"p"_s, u"s"_s, 0); }},
    };
    for (const auto &[name, run] : rows) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(run().isNull());
    }
    // Base64: a foreign character, an impossible length, short padding, stray bits, data after padding.
    for (const char16_t *text : {u"Zm9v!", u"Zm9vé", u"Zm9vY", u"Zg=", u"Zh==", u"Zg==Zg==", u"===="})
        EXPECT_TRUE(vx::dataWithBase64String(text).isNull()) << QString::fromUtf16(text).toStdString();
    for (const char16_t *text : {u"MY1", u"MZX", u"MY=", u"MZ", u"MY======MY"})
        EXPECT_TRUE(vx::dataWithBase32String(text).isNull()) << QString::fromUtf16(text).toStdString();
}
