#include "security/dataencryption.h"

#include "runtime/exception.h"
#include "runtime/logging.h"
#include "security/cryptocontext_p.h"
#include "security/vxcrypto.h"

#include <QtEndian>
#include <climits>
#include <openssl/rand.h>

using namespace zt::security;

namespace vx {

namespace {

constexpr qsizetype IvLength = 16;
constexpr qsizetype BlockLength = 16;

const EVP_CIPHER *aes128Cbc()
{
    static const CipherPtr aes = fetchCipher(QStringLiteral("AES-128-CBC"));
    return aes.get();
}

// A context for whole blocks of AES-128-CBC without cipher padding.
CipherCtxPtr aesContext(const QByteArray &key, const char *iv, bool encrypting)
{
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    if (!ctx)
        zt::assertionFailure(QStringLiteral("Out of memory"));
    if (!aes128Cbc() || key.size() != 16 ||
        EVP_CipherInit_ex2(ctx.get(), aes128Cbc(), reinterpret_cast<const unsigned char *>(key.constData()),
                           reinterpret_cast<const unsigned char *>(iv), encrypting ? 1 : 0, nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1) {
        logCryptoFailure("AES");
        return {};
    }
    return ctx;
}

bool update(EVP_CIPHER_CTX *ctx, char *out, const char *in, qsizetype length)
{
    int written = 0;
    return EVP_CipherUpdate(ctx, reinterpret_cast<unsigned char *>(out), &written,
                            reinterpret_cast<const unsigned char *>(in), int(length)) == 1 &&
           written == length;
}

QByteArray passphraseKey(const QString &passphrase)
{
    static const MdPtr sha1 = fetchDigest(QStringLiteral("SHA1"));
    return digestBytes(sha1.get(), passphrase.toUtf8()).left(16);
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
    // The whole blocks of plain text go to the cipher straight from the
    // input; the padded block's last 32 bytes (the partial block, the zeros
    // and the length word) are put together on the stack.
    const qsizetype whole = data.size() - data.size() % BlockLength;
    char tail[32] = {};
    memcpy(tail, data.constData() + whole, size_t(data.size() - whole));
    qToLittleEndian(quint32(data.size()), tail + sizeof tail - 4);
    QByteArray out(IvLength + paddedLength(data.size()), Qt::Uninitialized);
    if (RAND_bytes_ex(cryptoContext(), reinterpret_cast<unsigned char *>(out.data()), IvLength, 0) != 1) {
        logCryptoFailure("random bytes");
        return {};
    }
    const CipherCtxPtr ctx = aesContext(passphraseKey(passphrase), out.constData(), true);
    if (!ctx || !update(ctx.get(), out.data() + IvLength, data.constData(), whole) ||
        !update(ctx.get(), out.data() + IvLength + whole, tail, sizeof tail)) {
        logCryptoFailure("AES");
        return {};
    }
    return out;
}

QByteArray decryptWithSymmetricKey(const QByteArray &data, const QString &passphrase)
{
    const qsizetype padded = data.size() - IvLength;
    if (padded < 2 * BlockLength || padded % BlockLength != 0 || padded > INT_MAX)
        return {};
    const CipherCtxPtr ctx = aesContext(passphraseKey(passphrase), data.constData(), false);
    QByteArray block(padded, Qt::Uninitialized);
    if (!ctx || !update(ctx.get(), block.data(), data.constData() + IvLength, padded)) {
        logCryptoFailure("AES");
        return {};
    }
    const quint32 plainLength = qFromLittleEndian<quint32>(block.constData() + padded - 4);
    if (plainLength > quint32(padded) || paddedLength(qsizetype(plainLength)) != padded)
        return {};
    for (qsizetype i = qsizetype(plainLength); i < padded - 4; ++i) {
        if (block[i] != '\0')
            return {};
    }
    block.truncate(qsizetype(plainLength));
    return block;
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
