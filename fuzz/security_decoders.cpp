// The security folder's decoders over arbitrary input. The first byte picks
// the decoder; the rest is its input.
//
// Besides not crashing: a text that Base64 or Base32 accepts is the one
// canonical text of its bytes (re-encoding gives it back, white space and
// padding aside); the passphrase buffer decrypts what it encrypted; any
// cipher text is answered with null or bytes, never a read past the input.

#include "security/baseconversion.h"
#include "security/dataencryption.h"
#include "security/vxcrypto.h"

#include <cstdint>
#include <cstdlib>

namespace {

void check(bool ok)
{
    if (!ok)
        abort();
}

QString canonical(QString text, bool upper)
{
    text.remove(u' ').remove(u'\t').remove(u'\r').remove(u'\n').remove(u'\f').remove(u'\v').remove(u'=');
    return upper ? text.toUpper() : text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray input(reinterpret_cast<const char *>(data) + 1, qsizetype(size - 1));
    const QString text = QString::fromLatin1(input);
    switch (data[0] % 6) {
    case 0: {
        const QByteArray decoded = vx::dataWithBase64String(text);
        if (!decoded.isNull())
            check(canonical(vx::base64String(decoded), false) == canonical(text, false));
        break;
    }
    case 1: {
        const QByteArray decoded = vx::dataWithBase32String(text);
        if (!decoded.isNull())
            check(vx::base32String(decoded) == canonical(text, true));
        break;
    }
    case 2:
        vx::decryptWithSymmetricKey(input, QStringLiteral("passphrase"));
        break;
    case 3:
        check(vx::decryptWithSymmetricKey(vx::encryptWithSymmetricKey(input, QStringLiteral("pass")),
                                          QStringLiteral("pass")) == input);
        break;
    case 4: {
        auto c = VXCrypto::createWithSymmetricKey("passphrase");
        c->setCipherText(input);
        c->decrypt();
        break;
    }
    case 5: {
        auto c = VXCrypto::createWithPrivateKey(input);
        c->setCipherText(QByteArray(64, 'x'));
        c->decrypt();
        break;
    }
    }
    return 0;
}
