#pragma once
// Encryption and hashing of byte buffers, as free functions over QByteArray.
//
// Passphrase buffer format (encryptWithSymmetricKey / decryptWithSymmetricKey):
//
//   offset 0   16 bytes  IV, fresh random bytes for every encryption
//   offset 16  P bytes   AES-128-CBC, no cipher padding, of the padded block
//
// The padded block holds the L plain bytes, then zero bytes, then L as a
// 32-bit little-endian word in its last four bytes; P = L + 32 - (L mod 16),
// so 17 to 32 bytes longer than L and a multiple of 16. The AES key is the
// first 16 bytes of SHA-1 over the passphrase's UTF-8 bytes.
//
// Decryption accepts a block only when all of these hold: the buffer is the
// IV plus a non-zero multiple of 16 bytes; the trailing length word L gives
// exactly this P by the formula above; and every byte between the plain text
// and the length word is zero. A wrong passphrase turns the last block into
// random bytes, which pass the length test with a chance of 16 in 2^32 and
// the 13 or more zero bytes with at most 2^-104, so a wrong passphrase is
// answered with null rather than with garbage.

#include "zt_export.h"

#include <QByteArray>
#include <QString>

namespace vx {

//! The passphrase buffer above; null only when libcrypto fails.
ZT_EXPORT QByteArray encryptWithSymmetricKey(const QByteArray &data, const QString &passphrase);
//! The plain bytes, or null when the buffer fails the acceptance test.
ZT_EXPORT QByteArray decryptWithSymmetricKey(const QByteArray &data, const QString &passphrase);
//! Both directions in one call, `encrypting` choosing.
ZT_EXPORT QByteArray symmetricallyWithKey(const QByteArray &data, bool encrypting, const QString &passphrase);

//! RSA with PKCS #1 v1.5 signature padding: the private-key operation over
//! the data (VXCrypto::sign), and its reverse with the public key, which
//! answers the recovered bytes. Null on failure.
ZT_EXPORT QByteArray encryptWithPrivateKey(const QByteArray &data, const QByteArray &privateKeyPem);
ZT_EXPORT QByteArray decryptWithPublicKey(const QByteArray &data, const QByteArray &publicKeyPem);

//! Raw digests (16 and 20 bytes).
ZT_EXPORT QByteArray md5Hash(const QByteArray &data);
ZT_EXPORT QByteArray sha1Hash(const QByteArray &data);
//! Lower-case hexadecimal MD5 of the string's UTF-8 bytes.
ZT_EXPORT QString stringHash(const QString &string);

} // namespace vx
