// Blowfish and the AES buffer format against the `openssl enc` command.
#include "security_support.h"

#include "security/dataencryption.h"
#include "security/vxcrypto.h"

#include <QtEndian>

using namespace zttest;
using namespace Qt::StringLiterals;

namespace {

const QString Pass = QStringLiteral("päss wörd");

QStringList encArgs(const QString &cipher, bool decrypt, bool salt)
{
    QStringList a{QStringLiteral("enc"),
                  decrypt ? QStringLiteral("-d") : QStringLiteral("-e"),
                  u'-' + cipher,
                  QStringLiteral("-md"),
                  QStringLiteral("md5"),
                  QStringLiteral("-pass"),
                  QStringLiteral("pass:") + Pass};
    if (!salt)
        a << QStringLiteral("-nosalt");
    return a + legacy();
}

QByteArray plainOfLength(qsizetype n)
{
    QByteArray b(n, Qt::Uninitialized);
    for (qsizetype i = 0; i < n; ++i)
        b[i] = char(i * 7 + 3);
    return b;
}

} // namespace

TEST(Cipher, PassphraseCiphersMatchOpensslEnc)
{
    for (const QString &cipher :
         {QStringLiteral("bf-cbc"), QStringLiteral("aes-128-cbc"), QStringLiteral("aes-256-cbc")}) {
        for (const qsizetype n : {0, 1, 8, 9, 1000}) {
            SCOPED_TRACE(cipher.toStdString() + " " + std::to_string(n));
            const QByteArray plain = plainOfLength(n);
            auto ours = VXCrypto::createWithSymmetricKey(Pass.toUtf8());
            ours->setClearTextWithData(plain);
            // The default cipher is Blowfish-CBC.
            const QByteArray cipherText = ours->encrypt(cipher == u"bf-cbc" ? QString() : cipher);
            EXPECT_EQ(openssl(encArgs(cipher, true, false), cipherText), plain);
            for (const bool salt : {false, true}) {
                auto back = VXCrypto::createWithSymmetricKey(Pass.toUtf8());
                back->setCipherText(openssl(encArgs(cipher, false, salt), plain));
                EXPECT_EQ(back->decrypt(cipher), plain) << "salt " << salt;
            }
        }
    }
}

TEST(Cipher, AesBufferMatchesOpensslEnc)
{
    const QString key = QString::fromLatin1(VXCrypto::getSHA1ForData(Pass.toUtf8()).left(16).toHex());
    for (const qsizetype n : {0, 5, 15, 16, 17, 1000}) {
        SCOPED_TRACE(n);
        const QByteArray plain = plainOfLength(n);
        const QByteArray ours = vx::encryptWithSymmetricKey(plain, Pass);
        const qsizetype padded = n + 32 - n % 16;
        ASSERT_EQ(ours.size(), 16 + padded);
        EXPECT_NE(vx::encryptWithSymmetricKey(plain, Pass).left(16), ours.left(16)) << "fresh IV";
        const QStringList args{QStringLiteral("enc"),
                               QStringLiteral("-aes-128-cbc"),
                               QStringLiteral("-nopad"),
                               QStringLiteral("-K"),
                               key,
                               QStringLiteral("-iv"),
                               QString::fromLatin1(ours.left(16).toHex())};
        QByteArray block = plain + QByteArray(padded - n, '\0');
        qToLittleEndian(quint32(n), block.data() + padded - 4);
        EXPECT_EQ(openssl(QStringList(args) << QStringLiteral("-d"), ours.mid(16)), block);
        const QByteArray theirs = ours.left(16) + openssl(QStringList(args) << QStringLiteral("-e"), block);
        EXPECT_EQ(vx::decryptWithSymmetricKey(theirs, Pass), plain);
    }
}
