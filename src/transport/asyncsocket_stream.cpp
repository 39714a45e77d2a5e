// The socket's stream: the switch to TLS and the graceful end of a plain
// stream.

#include "transport/asyncsocket.h"
#include "transport/asyncsocket_stream_p.h"

#include <QCoreApplication>
#include <QSslConfiguration>
#include <QSslKey>
#include <QTimer>
#include <sys/socket.h>

namespace {

bool boolSetting(const QVariantMap &settings, const char16_t *key, bool fallback)
{
    const auto it = settings.constFind(QString::fromUtf16(key));
    return it == settings.constEnd() ? fallback : it->toBool();
}

} // namespace

void AsyncSocketStream::startTLS(const QVariantMap &settings, bool accepted)
{
    using namespace AsyncSocketTLS;
    const bool server = boolSetting(settings, IsServer, accepted);

    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    const QVariant base = settings.value(QString::fromUtf16(Configuration));
    if (base.canConvert<QSslConfiguration>())
        config = base.value<QSslConfiguration>();
    const QByteArray chain = settings.value(QString::fromUtf16(Certificates)).toByteArray();
    if (!chain.isEmpty()) {
        const QList<QSslCertificate> certs = QSslCertificate::fromData(chain, QSsl::Pem);
        if (!certs.isEmpty()) {
            config.setLocalCertificateChain(certs);
        }
    }
    const QByteArray key = settings.value(QString::fromUtf16(PrivateKey)).toByteArray();
    if (!key.isEmpty()) {
        const QByteArray passphrase = settings.value(QString::fromUtf16(PrivateKeyPassphrase)).toByteArray();
        QSslKey parsed(key, QSsl::Rsa, QSsl::Pem, QSsl::PrivateKey, passphrase);
        if (parsed.isNull())
            parsed = QSslKey(key, QSsl::Ec, QSsl::Pem, QSsl::PrivateKey, passphrase);
        config.setPrivateKey(parsed);
    }
    const QByteArray roots = settings.value(QString::fromUtf16(CACertificates)).toByteArray();
    if (!roots.isEmpty())
        config.addCaCertificates(QSslCertificate::fromData(roots, QSsl::Pem));
    const bool validates = boolSetting(settings, ValidatesCertificateChain, !server);
    config.setPeerVerifyMode(validates ? QSslSocket::VerifyPeer : QSslSocket::VerifyNone);
    setSslConfiguration(config);

    const auto peerName = settings.constFind(QString::fromUtf16(PeerName));
    if (server) {
        startServerEncryption();
    } else {
        if (peerName != settings.constEnd()) {
            const QString name = peerName->toString();
            // An empty name turns the host-name check off but keeps the chain check.
            if (name.isEmpty() && validates)
                ignoreSslErrors({QSslError(QSslError::HostNameMismatch)});
            setPeerVerifyName(name);
        }
        startClientEncryption();
    }
}

// A descriptor closed with unread bytes (or closed before the peer's last
// bytes arrive) makes the kernel reset the connection, and a reset makes the
// peer drop whatever it had not read. So the write side is shut once the
// stream has handed everything to the kernel (the peer reads it all, then
// the end), what the peer still sends is read and dropped, and the
// descriptor is closed when the peer closes too, or after a grace period.
// The stream lives on its own meanwhile.
void AsyncSocketStream::lingerAndClose()
{
    constexpr int GraceMs = 5000;
    // Owned by the application object where it can be, so that a process
    // leaving within the grace period still frees it.
    QObject *app = QCoreApplication::instance();
    setParent(app && app->thread() == thread() ? app : nullptr);
    auto finish = [this] {
        abort();
        deleteLater();
    };
    auto shutWriteWhenFlushed = [this] {
        if (bytesToWrite() == 0 && socketDescriptor() >= 0)
            ::shutdown(int(socketDescriptor()), SHUT_WR);
    };
    connect(this, &QIODevice::readyRead, this, [this] { readAll(); });
    connect(this, &QIODevice::bytesWritten, this, shutWriteWhenFlushed);
    connect(this, &QAbstractSocket::disconnected, this, finish);
    connect(this, &QAbstractSocket::errorOccurred, this, finish);
    QTimer::singleShot(GraceMs, this, finish);
    readAll();
    flush();
    shutWriteWhenFlushed();
}
