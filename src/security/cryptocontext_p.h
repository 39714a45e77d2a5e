#pragma once
// The library context every libcrypto call of this folder runs in.
//
// Blowfish lives in OpenSSL's legacy provider. Loading that provider into the
// process's default context would change what every other libcrypto user in
// the process sees (loading only "legacy" there even hides AES), so this
// folder keeps a private OSSL_LIB_CTX with the "legacy" and "default"
// providers and fetches every algorithm from it. The context is made on first
// use, thread-safely, and lives until the process ends.

#include <QByteArray>
#include <QString>
#include <memory>

#include <openssl/evp.h>

namespace zt::security {

//! The private context; null only when libcrypto could not create it.
OSSL_LIB_CTX *cryptoContext();

//! Takes the whole libcrypto error queue of this thread as one text ("; "
//! between entries) and clears it; `fallback` when the queue is empty.
QString takeCryptoErrors(const char *fallback);

//! Logs `what` with libcrypto's error text on ztSecurity and clears the queue.
void logCryptoFailure(const char *what);

struct CipherDeleter
{
    void operator()(EVP_CIPHER *c) const { EVP_CIPHER_free(c); }
};
struct CipherCtxDeleter
{
    void operator()(EVP_CIPHER_CTX *c) const { EVP_CIPHER_CTX_free(c); }
};
struct MdDeleter
{
    void operator()(EVP_MD *m) const { EVP_MD_free(m); }
};
struct PkeyDeleter
{
    void operator()(EVP_PKEY *k) const { EVP_PKEY_free(k); }
};
struct PkeyCtxDeleter
{
    void operator()(EVP_PKEY_CTX *c) const { EVP_PKEY_CTX_free(c); }
};
using CipherPtr = std::unique_ptr<EVP_CIPHER, CipherDeleter>;
using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxDeleter>;
using MdPtr = std::unique_ptr<EVP_MD, MdDeleter>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyDeleter>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxDeleter>;

//! A cipher or digest of the private context by name (case does not
//! matter); null, with libcrypto's error queue filled, when unknown.
CipherPtr fetchCipher(const QString &name);
MdPtr fetchDigest(const QString &name);

//! One-shot digest of `data` by a digest fetched from the private context;
//! null on failure (logged).
QByteArray digestBytes(const EVP_MD *md, const QByteArray &data);

//! An RSA key read from PEM text (PKCS #1 or PKCS #8 / SubjectPublicKeyInfo;
//! an encrypted private key is refused rather than prompting). `privateKey`
//! selects which half is required. Null on failure (logged).
PkeyPtr readRsaKey(const QByteArray &pem, bool privateKey);

} // namespace zt::security
