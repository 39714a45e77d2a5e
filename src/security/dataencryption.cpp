#include "security/dataencryption.h"

#include "runtime/exception.h"
#include "runtime/logging.h"
#include "security/cryptocontext_p.h"
#include "security/vxcrypto.h"

#include <QtEndian>
#include <climits>

using namespace zt::security;

namespace vx {

namespace {

constexpr qsizetype IvLength = 16;
constexpr qsizetype BlockLength = 16;

// Encrypts or decrypts whole blocks with AES-128-CBC and no cipher padding.
QByteArray aes128Cbc(const QByteArray &key, const char *iv, const char *data, qsizetype length,
                     bool encrypting)
{
    static const CipherPtr aes = fetchCipher(QStringLiteral("AES-128-CBC"));
    const CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    if (!ctx)
        zt::assertionFailure(QStringLiteral("Out of memory"));
    QByteArray out(length, Qt::Uninitialized);
    int written = 0;
    int last = 0;
    const bool ok =
        aes && length <= INT_MAX &&
        EVP_CipherInit_ex2(ctx.get(), aes.get(), reinterpret_cast<const unsigned char *>(key.constData()),
                           reinterpret_cast<const unsigned char *>(iv), encrypting ? 1 : 0, nullptr) == 1 &&
        EVP_CIPHER_CTX_set_padding(ctx.get(), 0) == 1 &&
        EVP_CipherUpdate(ctx.get(), reinterpret_cast<unsigned char *>(out.data()), &written,
                         reinterpret_cast<const unsigned char *>(data), int(length)) == 1 &&
        EVP_CipherFinal_ex(ctx.get(), reinterpret_cast<unsigned char *>(out.data()) + written, &last) == 1;
    if (!ok) {
        logCryptoFailure("AES");
        return {};
    }
    return out;
}

QByteArray passphraseKey(const QString &passphrase)
{
    return VXCrypto::getSHA1ForData(passphrase.toUtf8()).left(16);
}

// The padded block's length for L plain bytes.
qsizetype paddedLength(qsizetype plainLength)
{
    return plainLength + 32 - plainLength % BlockLength;
}

} // namespace

QByteArray encryptWithSymmetricKey(const QByteArray &data, const QString &passphrase)
{
    if (data.size() > qsizetype(INT_MAX) - 64) {
        zt::log(ztSecurity, u"AES: input too long");
        return {};
    }
    const QByteArray iv = VXCrypto::getKeyDataWithLength(int(IvLength));
    const QByteArray key = passphraseKey(passphrase);
    if (iv.size() != IvLength || key.size() != 16)
        return {};
    const qsizetype padded = paddedLength(data.size());
    QByteArray block(padded, '\0');
    memcpy(block.data(), data.constData(), size_t(data.size()));
    qToLittleEndian(quint32(data.size()), block.data() + padded - 4);
    const QByteArray cipher = aes128Cbc(key, iv.constData(), block.constData(), padded, true);
    if (cipher.isNull())
        return {};
    return iv + cipher;
}

QByteArray decryptWithSymmetricKey(const QByteArray &data, const QString &passphrase)
{
    const qsizetype padded = data.size() - IvLength;
    if (padded < 2 * BlockLength || padded % BlockLength != 0)
        return {};
    const QByteArray key = passphraseKey(passphrase);
    if (key.size() != 16)
        return {};
    const QByteArray block = aes128Cbc(key, data.constData(), data.constData() + IvLength, padded, false);
    if (block.isNull())
        return {};
    const quint32 plainLength = qFromLittleEndian<quint32>(block.constData() + padded - 4);
    if (plainLength > quint32(padded) || paddedLength(qsizetype(plainLength)) != padded)
        return {};
    for (qsizetype i = qsizetype(plainLength); i < padded - 4; ++i) {
        if (block[i] != '\0')
            return {};
    }
    return block.left(qsizetype(plainLength));
}

QByteArray symmetricallyWithKey(const QByteArray &data, bool encrypting, const QString &passphrase)
{
    return encrypting ? encryptWithSymmetricKey(data, passphrase) : decryptWithSymmetricKey(data, passphrase);
}

QByteArray encryptWithPrivateKey(const QByteArray &data, const QByteArray &privateKeyPem)
{
    auto crypto = VXCrypto::createWithPrivateKey(privateKeyPem);
    crypto->setClearTextWithData(data);
    return crypto->sign();
}

QByteArray decryptWithPublicKey(const QByteArray &data, const QByteArray &publicKeyPem)
{
    auto crypto = VXCrypto::createWithPublicKey(publicKeyPem);
    crypto->setCipherText(data);
    return crypto->verifyRecover();
}

QByteArray md5Hash(const QByteArray &data)
{
    return VXCrypto::getMD5ForData(data);
}

QByteArray sha1Hash(const QByteArray &data)
{
    return VXCrypto::getSHA1ForData(data);
}

QString stringHash(const QString &string)
{
    return QString::fromLatin1(md5Hash(string.toUtf8()).toHex());
}

} // namespace vx
