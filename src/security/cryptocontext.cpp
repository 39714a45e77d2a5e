#include "security/cryptocontext_p.h"

#include "runtime/logging.h"

#include <openssl/decoder.h>
#include <openssl/err.h>
#include <openssl/provider.h>

namespace zt::security {

namespace {

struct Context
{
    OSSL_LIB_CTX *ctx = nullptr;
    OSSL_PROVIDER *legacy = nullptr;
    OSSL_PROVIDER *defaults = nullptr;

    Context()
    {
        ctx = OSSL_LIB_CTX_new();
        if (!ctx)
            return;
        defaults = OSSL_PROVIDER_load(ctx, "default");
        // Without the legacy provider Blowfish is missing but everything else
        // still works; the fetch of "BF-CBC" then reports the failure.
        legacy = OSSL_PROVIDER_load(ctx, "legacy");
        ERR_clear_error();
    }
    ~Context()
    {
        if (legacy)
            OSSL_PROVIDER_unload(legacy);
        if (defaults)
            OSSL_PROVIDER_unload(defaults);
        OSSL_LIB_CTX_free(ctx);
    }
};

} // namespace

OSSL_LIB_CTX *cryptoContext()
{
    static Context context;
    return context.ctx;
}

QString takeCryptoErrors(const char *fallback)
{
    QString text;
    char buffer[256];
    while (unsigned long e = ERR_get_error()) {
        ERR_error_string_n(e, buffer, sizeof buffer);
        if (!text.isEmpty())
            text += u"; ";
        text += QString::fromUtf8(buffer);
    }
    return text.isEmpty() ? QString::fromUtf8(fallback) : text;
}

void logCryptoFailure(const char *what)
{
    zt::log(ztSecurity, u"%s: %@", what, takeCryptoErrors("no error text"));
}

CipherPtr fetchCipher(const QString &name)
{
    return CipherPtr(EVP_CIPHER_fetch(cryptoContext(), name.toUtf8().constData(), nullptr));
}

MdPtr fetchDigest(const QString &name)
{
    return MdPtr(EVP_MD_fetch(cryptoContext(), name.toUtf8().constData(), nullptr));
}

QByteArray digestBytes(const EVP_MD *md, const QByteArray &data)
{
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (!md || !EVP_Digest(data.constData(), size_t(data.size()), out, &len, md, nullptr)) {
        logCryptoFailure("digest");
        return {};
    }
    return QByteArray(reinterpret_cast<const char *>(out), len);
}

PkeyPtr readRsaKey(const QByteArray &pem, bool privateKey)
{
    EVP_PKEY *key = nullptr;
    const int selection = privateKey ? OSSL_KEYMGMT_SELECT_KEYPAIR : OSSL_KEYMGMT_SELECT_PUBLIC_KEY;
    OSSL_DECODER_CTX *dctx =
        OSSL_DECODER_CTX_new_for_pkey(&key, "PEM", nullptr, "RSA", selection, cryptoContext(), nullptr);
    if (!dctx) {
        logCryptoFailure("RSA key");
        return {};
    }
    // An empty passphrase: an encrypted key fails instead of asking a terminal.
    OSSL_DECODER_CTX_set_passphrase(dctx, reinterpret_cast<const unsigned char *>(""), 0);
    const auto *bytes = reinterpret_cast<const unsigned char *>(pem.constData());
    size_t left = size_t(pem.size());
    const bool ok = OSSL_DECODER_from_data(dctx, &bytes, &left) == 1 && key;
    OSSL_DECODER_CTX_free(dctx);
    PkeyPtr result(key);
    if (!ok) {
        logCryptoFailure("RSA key");
        return {};
    }
    return result;
}

} // namespace zt::security
