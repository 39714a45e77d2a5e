#pragma once
// VXCrypto: a thin object layer over libcrypto for passphrase encryption with
// a named cipher (Blowfish-CBC by default), RSA with PEM keys, digests by
// name, random key material and password-based key derivation.
//
// Symmetric wrappers (initWithSymmetricKey) encrypt `clearText` into
// `cipherText` in this exact, stored and exchanged form:
//   key and IV = EVP_BytesToKey(cipher, MD5, no salt, passphrase, 1 round),
//   the key at the cipher's default length (16 bytes for Blowfish: a key
//   length set only after the key is installed never took effect);
//   standard block padding; the output is the bare cipher text, no
//   "Salted__" header.
// Decryption also accepts a "Salted__" header followed by an 8-byte salt (what
// `openssl enc` writes by default), and then derives key and IV with that salt.
// `openssl enc -bf-cbc -nosalt -md md5 -pass pass:<key>` reads and writes the
// unsalted form.
//
// Asymmetric wrappers use RSA with PKCS #1 v1.5 padding: encrypt with the
// public key, decrypt with the private key; sign with the private key and
// verify with the public key (the raw "private encrypt" operation, no digest:
// `openssl pkeyutl -sign` without -digest, read back with -verifyrecover).
//
// Every libcrypto failure is logged on zt.security with libcrypto's error text
// and answered with a null buffer (or false). All algorithms come from a
// private library context; nothing here changes the process's default one.

#include "runtime/object.h"
#include "zt_export.h"

#include <QByteArray>
#include <QString>
#include <memory>

class ZT_EXPORT VXCrypto : public zt::Object
{
    ZT_OBJECT(VXCrypto, zt::Object)

public:
    VXCrypto();
    ~VXCrypto() override;

    static zt::Ref<VXCrypto> createWithSymmetricKey(const QByteArray &key);
    static zt::Ref<VXCrypto> createWithPublicKey(const QByteArray &publicKeyPem);
    static zt::Ref<VXCrypto> createWithPrivateKey(const QByteArray &privateKeyPem);
    static zt::Ref<VXCrypto> createWithPublicKeyPrivateKey(const QByteArray &publicKeyPem,
                                                           const QByteArray &privateKeyPem);

    void initWithSymmetricKey(const QByteArray &key);
    void initWithPublicKey(const QByteArray &publicKeyPem);
    void initWithPrivateKey(const QByteArray &privateKeyPem);
    void initWithPublicKeyPrivateKey(const QByteArray &publicKeyPem, const QByteArray &privateKeyPem);

    bool isSymmetric() const { return m_isSymmetric; }
    QByteArray symmetricKey() const { return m_symmetricKey; }
    QByteArray publicKey() const { return m_publicKey; }
    QByteArray privateKey() const { return m_privateKey; }

    //! @sel setClearTextWithData:
    void setClearTextWithData(const QByteArray &data) { m_clearText = data; }
    //! Stores the string's UTF-8 bytes.
    //! @sel setClearTextWithString:
    void setClearTextWithString(const QString &string) { m_clearText = string.toUtf8(); }
    //! @sel setCipherText:
    void setCipherText(const QByteArray &data) { m_cipherText = data; }
    //! @sel clearTextAsData
    QByteArray clearTextAsData() const { return m_clearText; }
    //! The clear text read as UTF-8.
    //! @sel clearTextAsString
    QString clearTextAsString() const { return QString::fromUtf8(m_clearText); }
    //! @sel cipherTextAsData
    QByteArray cipherTextAsData() const { return m_cipherText; }
    //! @sel cipherTextAsString
    QString cipherTextAsString() const { return QString::fromUtf8(m_cipherText); }

    //! Encrypts `clearText` into `cipherText` and answers it, or null on
    //! failure (an unknown cipher name, a bad key). An empty name means
    //! Blowfish-CBC for a symmetric wrapper; an asymmetric one ignores the name.
    //! @sel encrypt:
    QByteArray encrypt(const QString &cipherName = {});
    //! Decrypts `cipherText` into `clearText` and answers it, or null.
    //! @sel decrypt:
    QByteArray decrypt(const QString &cipherName = {});
    //! The digest of `clearText` by libcrypto's digest of that name ("MD5"
    //! when empty); null for an unknown name.
    //! @sel digest:
    QByteArray digest(const QString &digestName = {}) const;
    //! RSA private-key operation with PKCS #1 v1.5 signature padding over the
    //! clear text (at most the modulus size less 11 bytes) into `cipherText`.
    //! @sel sign
    QByteArray sign();
    //! True when `cipherText` opens with the public key to exactly `clearText`.
    //! @sel verify
    bool verify() const;
    //! The bytes that `cipherText` opens to with the public key, or null.
    QByteArray verifyRecover() const;

    //! `length` random bytes from libcrypto's generator; null when length < 0.
    static QByteArray getKeyDataWithLength(int length);
    //! PBKDF2 with HMAC-SHA1 over the UTF-8 bytes of password and salt; null
    //! when length or iterations are below 1.
    static QByteArray getKeyDataWithLengthFromPasswordWithSaltWithIterations(int length,
                                                                             const QString &password,
                                                                             const QString &salt,
                                                                             int iterations);
    //! The same with 1000 iterations.
    static QByteArray getKeyDataWithLengthFromPasswordWithSalt(int length, const QString &password,
                                                               const QString &salt);
    static QByteArray getSHA1ForData(const QByteArray &data);
    static QByteArray getMD5ForData(const QByteArray &data);
    //! A new RSA key (public exponent 65537) as PKCS #8 PEM ("BEGIN PRIVATE
    //! KEY"); null for a length outside 512 to 16384 bits.
    static QByteArray generateRSAPrivateKeyWithLength(int bits);
    //! The public half of a PEM private key as SubjectPublicKeyInfo PEM
    //! ("BEGIN PUBLIC KEY"); null when the key does not read.
    static QByteArray generateRSAPublicKeyFromPrivateKey(const QByteArray &privateKeyPem);

private:
    //! @sel encrypt
    QByteArray encryptDefault() { return encrypt(); }
    //! @sel decrypt
    QByteArray decryptDefault() { return decrypt(); }
    QByteArray symmetric(const QString &cipherName, bool encrypting);
    QByteArray asymmetric(bool encrypting);

    QByteArray m_symmetricKey;
    QByteArray m_publicKey;
    QByteArray m_privateKey;
    QByteArray m_clearText;
    QByteArray m_cipherText;
    bool m_isSymmetric = false;
    // The keyed context of the last unsalted symmetric operation: Blowfish's
    // key schedule costs as much as encrypting 4 KiB, so repeated operations
    // with the same cipher and direction only reset the IV.
    struct KeyedCipher;
    std::unique_ptr<KeyedCipher> m_keyed;
};
