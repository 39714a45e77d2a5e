#include "security/vxcrypto.h"

#include "runtime/exception.h"
#include "runtime/logging.h"
#include "security/cryptocontext_p.h"

#include <openssl/bio.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/kdf.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <climits>
#include <cstring>

using namespace zt::security;

ZT_DEFINE_CLASS_WITH_MEMBERS(VXCrypto)

void VXCrypto::registerMembers(zt::ClassBuilder<VXCrypto> &b)
{
    b.method("setClearTextWithData:", &VXCrypto::setClearTextWithData);
    b.method("setClearTextWithString:", &VXCrypto::setClearTextWithString);
    b.method("setCipherText:", &VXCrypto::setCipherText);
    b.method("clearTextAsData", &VXCrypto::clearTextAsData);
    b.method("clearTextAsString", &VXCrypto::clearTextAsString);
    b.method("cipherTextAsData", &VXCrypto::cipherTextAsData);
    b.method("cipherTextAsString", &VXCrypto::cipherTextAsString);
    b.method("encrypt:", &VXCrypto::encrypt);
    b.method("decrypt:", &VXCrypto::decrypt);
    b.method("encrypt", &VXCrypto::encryptDefault);
    b.method("decrypt", &VXCrypto::decryptDefault);
    b.method("digest:", &VXCrypto::digest);
    b.method("sign", &VXCrypto::sign);
    b.method("verify", &VXCrypto::verify);
}

struct VXCrypto::KeyedCipher
{
    QString name;
    bool encrypting = false;
    CipherCtxPtr ctx;
    unsigned char iv[EVP_MAX_IV_LENGTH] = {};
};

namespace {

const unsigned char *bytes(const QByteArray &b)
{
    return reinterpret_cast<const unsigned char *>(b.constData());
}

unsigned char *bytes(QByteArray &b)
{
    return reinterpret_cast<unsigned char *>(b.data());
}

QByteArray readBio(BIO *bio)
{
    char *data = nullptr;
    const long len = BIO_get_mem_data(bio, &data);
    return len > 0 ? QByteArray(data, len) : QByteArray();
}

} // namespace

VXCrypto::VXCrypto()
{
    // The private library context is created on first use and lives until the
    // process ends; nothing is torn down per object.
    cryptoContext();
}

VXCrypto::~VXCrypto() = default;

zt::Ref<VXCrypto> VXCrypto::createWithSymmetricKey(const QByteArray &key)
{
    auto c = zt::make<VXCrypto>();
    c->initWithSymmetricKey(key);
    return c;
}

zt::Ref<VXCrypto> VXCrypto::createWithPublicKey(const QByteArray &publicKeyPem)
{
    auto c = zt::make<VXCrypto>();
    c->initWithPublicKey(publicKeyPem);
    return c;
}

zt::Ref<VXCrypto> VXCrypto::createWithPrivateKey(const QByteArray &privateKeyPem)
{
    auto c = zt::make<VXCrypto>();
    c->initWithPrivateKey(privateKeyPem);
    return c;
}

zt::Ref<VXCrypto> VXCrypto::createWithPublicKeyPrivateKey(const QByteArray &publicKeyPem,
                                                          const QByteArray &privateKeyPem)
{
    auto c = zt::make<VXCrypto>();
    c->initWithPublicKeyPrivateKey(publicKeyPem, privateKeyPem);
    return c;
}

void VXCrypto::initWithSymmetricKey(const QByteArray &key)
{
    m_keyed.reset();
    m_symmetricKey = key;
    m_isSymmetric = true;
}

void VXCrypto::initWithPublicKey(const QByteArray &publicKeyPem)
{
    initWithPublicKeyPrivateKey(publicKeyPem, {});
}

void VXCrypto::initWithPrivateKey(const QByteArray &privateKeyPem)
{
    initWithPublicKeyPrivateKey({}, privateKeyPem);
}

void VXCrypto::initWithPublicKeyPrivateKey(const QByteArray &publicKeyPem, const QByteArray &privateKeyPem)
{
    m_publicKey = publicKeyPem;
    m_privateKey = privateKeyPem;
    m_isSymmetric = false;
}

QByteArray VXCrypto::encrypt(const QString &cipherName)
{
    QByteArray out = m_isSymmetric ? symmetric(cipherName, true) : asymmetric(true);
    if (!out.isNull())
        m_cipherText = out;
    return out;
}

QByteArray VXCrypto::decrypt(const QString &cipherName)
{
    QByteArray out = m_isSymmetric ? symmetric(cipherName, false) : asymmetric(false);
    if (!out.isNull())
        m_clearText = out;
    return out;
}

QByteArray VXCrypto::symmetric(const QString &cipherName, bool encrypting)
{
    const QString name = cipherName.isEmpty() ? QStringLiteral("BF-CBC") : cipherName;
    const QByteArray &input = encrypting ? m_clearText : m_cipherText;
    const unsigned char *salt = nullptr;
    qsizetype offset = 0;
    if (!encrypting && input.size() > 16 && input.startsWith("Salted__")) {
        salt = bytes(input) + 8;
        offset = 16;
    }
    const qsizetype inputLength = input.size() - offset;
    if (m_symmetricKey.size() > INT_MAX || inputLength > INT_MAX - 2 * EVP_MAX_BLOCK_LENGTH) {
        zt::log(ztSecurity, u"cipher: input too long");
        return {};
    }

    CipherCtxPtr salted;
    EVP_CIPHER_CTX *ctx = nullptr;
    if (!salt && m_keyed && m_keyed->name == name && m_keyed->encrypting == encrypting) {
        // Same key, cipher and direction: only the IV (and the chaining state) restarts.
        ctx = m_keyed->ctx.get();
        if (EVP_CipherInit_ex2(ctx, nullptr, nullptr, m_keyed->iv, encrypting ? 1 : 0, nullptr) != 1) {
            logCryptoFailure("cipher");
            return {};
        }
    } else {
        const CipherPtr cipher = fetchCipher(name);
        const MdPtr md5 = fetchDigest(QStringLiteral("MD5"));
        if (!cipher || !md5) {
            logCryptoFailure("cipher");
            return {};
        }
        CipherCtxPtr fresh(EVP_CIPHER_CTX_new());
        if (!fresh)
            zt::assertionFailure(QStringLiteral("Out of memory"));
        unsigned char key[EVP_MAX_KEY_LENGTH];
        unsigned char iv[EVP_MAX_IV_LENGTH] = {};
        // The stored form: older libcrypto releases were told a 32-byte key
        // length after the key was installed here, which left that key in use,
        // so the effective key has the cipher's default length (16 bytes for
        // Blowfish). libcrypto 3 discards an installed key when its length
        // changes afterwards, so the length is left alone: the key in use is
        // the same one, and the output stays what stored and exchanged data hold.
        const bool ok =
            EVP_BytesToKey(cipher.get(), md5.get(), salt, bytes(m_symmetricKey), int(m_symmetricKey.size()),
                           1, key, iv) > 0 &&
            EVP_CipherInit_ex2(fresh.get(), cipher.get(), key, iv, encrypting ? 1 : 0, nullptr) == 1;
        OPENSSL_cleanse(key, sizeof key);
        if (!ok) {
            logCryptoFailure("cipher");
            return {};
        }
        ctx = fresh.get();
        if (salt) {
            salted = std::move(fresh);
        } else {
            m_keyed = std::make_unique<KeyedCipher>();
            m_keyed->name = name;
            m_keyed->encrypting = encrypting;
            m_keyed->ctx = std::move(fresh);
            memcpy(m_keyed->iv, iv, sizeof iv);
        }
    }

    QByteArray out(inputLength + EVP_CIPHER_CTX_get_block_size(ctx), Qt::Uninitialized);
    int written = 0;
    int last = 0;
    const bool ok =
        EVP_CipherUpdate(ctx, bytes(out), &written, bytes(input) + offset, int(inputLength)) == 1 &&
        EVP_CipherFinal_ex(ctx, bytes(out) + written, &last) == 1;
    if (!ok) {
        logCryptoFailure(encrypting ? "encrypt" : "decrypt");
        return {};
    }
    out.truncate(written + last);
    return out;
}

QByteArray VXCrypto::asymmetric(bool encrypting)
{
    const PkeyPtr key = readRsaKey(encrypting ? m_publicKey : m_privateKey, !encrypting);
    if (!key)
        return {};
    const PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(cryptoContext(), key.get(), nullptr));
    const QByteArray &input = encrypting ? m_clearText : m_cipherText;
    size_t length = 0;
    auto run = [&](unsigned char *out, size_t *outLength) {
        return encrypting ? EVP_PKEY_encrypt(ctx.get(), out, outLength, bytes(input), size_t(input.size()))
                          : EVP_PKEY_decrypt(ctx.get(), out, outLength, bytes(input), size_t(input.size()));
    };
    bool ok = ctx &&
              (encrypting ? EVP_PKEY_encrypt_init(ctx.get()) : EVP_PKEY_decrypt_init(ctx.get())) == 1 &&
              EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) == 1 && run(nullptr, &length) == 1;
    QByteArray out;
    if (ok) {
        out.resize(qsizetype(length));
        ok = run(bytes(out), &length) == 1;
    }
    if (!ok) {
        logCryptoFailure(encrypting ? "RSA encrypt" : "RSA decrypt");
        return {};
    }
    out.truncate(qsizetype(length));
    return out;
}

QByteArray VXCrypto::sign()
{
    const PkeyPtr key = readRsaKey(m_privateKey, true);
    if (!key)
        return {};
    const PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(cryptoContext(), key.get(), nullptr));
    size_t length = 0;
    bool ok = ctx && EVP_PKEY_sign_init(ctx.get()) == 1 &&
              EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) == 1 &&
              EVP_PKEY_sign(ctx.get(), nullptr, &length, bytes(m_clearText), size_t(m_clearText.size())) == 1;
    QByteArray out;
    if (ok) {
        out.resize(qsizetype(length));
        ok = EVP_PKEY_sign(ctx.get(), bytes(out), &length, bytes(m_clearText), size_t(m_clearText.size())) ==
             1;
    }
    if (!ok) {
        logCryptoFailure("RSA sign");
        return {};
    }
    out.truncate(qsizetype(length));
    m_cipherText = out;
    return out;
}

QByteArray VXCrypto::verifyRecover() const
{
    const PkeyPtr key = readRsaKey(m_publicKey, false);
    if (!key)
        return {};
    const PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(cryptoContext(), key.get(), nullptr));
    QByteArray out(EVP_PKEY_get_size(key.get()), Qt::Uninitialized);
    size_t length = size_t(out.size());
    const bool ok = ctx && EVP_PKEY_verify_recover_init(ctx.get()) == 1 &&
                    EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) == 1 &&
                    EVP_PKEY_verify_recover(ctx.get(), bytes(out), &length, bytes(m_cipherText),
                                            size_t(m_cipherText.size())) == 1;
    if (!ok) {
        logCryptoFailure("RSA verify");
        return {};
    }
    out.truncate(qsizetype(length));
    return out;
}

bool VXCrypto::verify() const
{
    const QByteArray recovered = verifyRecover();
    return !recovered.isNull() && recovered == m_clearText;
}

QByteArray VXCrypto::digest(const QString &digestName) const
{
    const MdPtr md = fetchDigest(digestName.isEmpty() ? QStringLiteral("MD5") : digestName);
    if (!md) {
        logCryptoFailure("digest");
        return {};
    }
    return digestBytes(md.get(), m_clearText);
}

QByteArray VXCrypto::getKeyDataWithLength(int length)
{
    if (length < 0)
        return {};
    QByteArray out(length, Qt::Uninitialized);
    if (RAND_bytes_ex(cryptoContext(), bytes(out), size_t(length), 0) != 1) {
        logCryptoFailure("random bytes");
        return {};
    }
    return out;
}

QByteArray VXCrypto::getKeyDataWithLengthFromPasswordWithSaltWithIterations(int length,
                                                                            const QString &password,
                                                                            const QString &salt,
                                                                            int iterations)
{
    if (length < 1 || iterations < 1)
        return {};
    QByteArray pass = password.toUtf8();
    QByteArray saltBytes = salt.toUtf8();
    EVP_KDF *kdf = EVP_KDF_fetch(cryptoContext(), "PBKDF2", nullptr);
    EVP_KDF_CTX *ctx = kdf ? EVP_KDF_CTX_new(kdf) : nullptr;
    EVP_KDF_free(kdf);
    unsigned int iter = unsigned(iterations);
    int noLowerBounds = 1;
    char digestName[] = "SHA1";
    const OSSL_PARAM params[] = {
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_PASSWORD, pass.data(), size_t(pass.size())),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, saltBytes.data(), size_t(saltBytes.size())),
        OSSL_PARAM_construct_uint(OSSL_KDF_PARAM_ITER, &iter),
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digestName, 0),
        // Short salts and small counts are the caller's choice (RFC 6070 uses both).
        OSSL_PARAM_construct_int(OSSL_KDF_PARAM_PKCS5, &noLowerBounds),
        OSSL_PARAM_construct_end(),
    };
    QByteArray out(length, Qt::Uninitialized);
    const bool ok = ctx && EVP_KDF_derive(ctx, bytes(out), size_t(length), params) == 1;
    EVP_KDF_CTX_free(ctx);
    OPENSSL_cleanse(pass.data(), size_t(pass.size()));
    if (!ok) {
        logCryptoFailure("PBKDF2");
        return {};
    }
    return out;
}

QByteArray VXCrypto::getKeyDataWithLengthFromPasswordWithSalt(int length, const QString &password,
                                                              const QString &salt)
{
    return getKeyDataWithLengthFromPasswordWithSaltWithIterations(length, password, salt, 1000);
}

QByteArray VXCrypto::getSHA1ForData(const QByteArray &data)
{
    const MdPtr md = fetchDigest(QStringLiteral("SHA1"));
    return digestBytes(md.get(), data);
}

QByteArray VXCrypto::getMD5ForData(const QByteArray &data)
{
    const MdPtr md = fetchDigest(QStringLiteral("MD5"));
    return digestBytes(md.get(), data);
}

QByteArray VXCrypto::generateRSAPrivateKeyWithLength(int bits)
{
    if (bits < 512 || bits > 16384)
        return {};
    const PkeyPtr key(EVP_PKEY_Q_keygen(cryptoContext(), nullptr, "RSA", size_t(bits)));
    BIO *bio = BIO_new(BIO_s_mem());
    QByteArray out;
    if (key && bio && PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1)
        out = readBio(bio);
    BIO_free(bio);
    if (out.isEmpty())
        logCryptoFailure("RSA key generation");
    return out;
}

QByteArray VXCrypto::generateRSAPublicKeyFromPrivateKey(const QByteArray &privateKeyPem)
{
    const PkeyPtr key = readRsaKey(privateKeyPem, true);
    if (!key)
        return {};
    BIO *bio = BIO_new(BIO_s_mem());
    QByteArray out;
    if (bio && PEM_write_bio_PUBKEY(bio, key.get()) == 1)
        out = readBio(bio);
    BIO_free(bio);
    if (out.isEmpty())
        logCryptoFailure("RSA public key");
    return out;
}
