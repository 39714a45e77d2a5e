// The socket's error values and the socket-address extension of the data type.

#include "transport/asyncsocket_p.h"

#include <QCoreApplication>
#include <QtEndian>
#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>

namespace {

struct ErrorText
{
    AsyncSocketError code;
    const char *key;
    const char *text;
};

// Descriptions are looked up by key in the "AsyncSocket" translation context;
// without a translation the English text below is used.
constexpr ErrorText errorTexts[] = {
    {AsyncSocketCFSocketError, "AsyncSocketCFSocketError", "General CFSocket error"},
    {AsyncSocketCanceledError, "AsyncSocketCanceledError", "Connection canceled"},
    {AsyncSocketConnectTimeoutError, "AsyncSocketConnectTimeoutError",
     "Attempt to connect to host timed out"},
    {AsyncSocketReadMaxedOutError, "AsyncSocketReadMaxedOutError",
     "Read operation reached set maximum length"},
    {AsyncSocketReadTimeoutError, "AsyncSocketReadTimeoutError", "Read operation timed out"},
    {AsyncSocketWriteTimeoutError, "AsyncSocketWriteTimeoutError", "Write operation timed out"},
};

QString localized(const ErrorText &entry)
{
    const QString translated = QCoreApplication::translate("AsyncSocket", entry.key);
    if (translated != QLatin1StringView(entry.key))
        return translated;
    return QString::fromLatin1(entry.text);
}

const QString posixDomain = QStringLiteral("NSPOSIXErrorDomain");

} // namespace

zt::Error AsyncSocketPrivate::socketError(AsyncSocketError code, const QString &failureReason)
{
    QVariantMap info;
    for (const ErrorText &entry : errorTexts) {
        if (entry.code == code)
            info.insert(zt::Error::LocalizedDescriptionKey, localized(entry));
    }
    if (!failureReason.isEmpty())
        info.insert(QStringLiteral("NSLocalizedFailureReason"), failureReason);
    return zt::Error(QString::fromUtf16(AsyncSocketErrorDomain), code, info);
}

// Qt reports one error enumeration for every layer; each is given the domain
// of the layer it comes from. System-level failures keep their errno code in
// the POSIX domain; the others keep Qt's code.
zt::Error AsyncSocketPrivate::streamError(QAbstractSocket::SocketError error, const QString &text)
{
    using E = QAbstractSocket::SocketError;
    QString domain;
    qint64 code = error;
    switch (error) {
    case E::ConnectionRefusedError:
        domain = posixDomain, code = ECONNREFUSED;
        break;
    case E::RemoteHostClosedError:
        domain = posixDomain, code = ECONNRESET;
        break;
    case E::SocketAccessError:
        domain = posixDomain, code = EACCES;
        break;
    case E::SocketResourceError:
        domain = posixDomain, code = EMFILE;
        break;
    case E::SocketTimeoutError:
        domain = posixDomain, code = ETIMEDOUT;
        break;
    case E::DatagramTooLargeError:
        domain = posixDomain, code = EMSGSIZE;
        break;
    case E::NetworkError:
        domain = posixDomain, code = ENETDOWN;
        break;
    case E::AddressInUseError:
        domain = posixDomain, code = EADDRINUSE;
        break;
    case E::SocketAddressNotAvailableError:
        domain = posixDomain, code = EADDRNOTAVAIL;
        break;
    case E::UnsupportedSocketOperationError:
        domain = posixDomain, code = EOPNOTSUPP;
        break;
    case E::HostNotFoundError:
        domain = QStringLiteral("kCFStreamErrorDomainNetDB"), code = EAI_NONAME;
        break;
    case E::ProxyAuthenticationRequiredError:
    case E::ProxyConnectionRefusedError:
    case E::ProxyConnectionClosedError:
    case E::ProxyConnectionTimeoutError:
    case E::ProxyNotFoundError:
    case E::ProxyProtocolError:
        domain = QStringLiteral("kCFStreamErrorDomainSOCKS");
        break;
    case E::SslHandshakeFailedError:
    case E::SslInternalError:
    case E::SslInvalidUserDataError:
        domain = QStringLiteral("kCFStreamErrorDomainSSL");
        break;
    default:
        domain = QStringLiteral("CFStreamError (unlisted domain)");
        break;
    }
    QVariantMap info;
    if (!text.isEmpty())
        info.insert(zt::Error::LocalizedDescriptionKey, text);
    return zt::Error(domain, code, info);
}

namespace SockAddr {

sockaddr_storage sockAddrStruct(const QByteArray &data)
{
    sockaddr_storage result;
    std::memset(&result, 0, sizeof result);
    if (data.size() < qsizetype(sizeof(sockaddr))) {
        result.ss_family = AF_UNSPEC;
        return result;
    }
    std::memcpy(&result, data.constData(), size_t(qMin<qsizetype>(data.size(), sizeof result)));
    return result;
}

quint16 dataPort(const QByteArray &data)
{
    const sockaddr_storage address = sockAddrStruct(data);
    if (address.ss_family == AF_INET && data.size() >= qsizetype(sizeof(sockaddr_in)))
        return qFromBigEndian(reinterpret_cast<const sockaddr_in &>(address).sin_port);
    if (address.ss_family == AF_INET6 && data.size() >= qsizetype(sizeof(sockaddr_in6)))
        return qFromBigEndian(reinterpret_cast<const sockaddr_in6 &>(address).sin6_port);
    return 0;
}

QByteArray dataWithHostAddress(const QHostAddress &address, quint16 port)
{
    if (address.protocol() == QAbstractSocket::IPv4Protocol) {
        sockaddr_in sin;
        std::memset(&sin, 0, sizeof sin);
        sin.sin_family = AF_INET;
        sin.sin_port = qToBigEndian(port);
        sin.sin_addr.s_addr = qToBigEndian(address.toIPv4Address());
        return QByteArray(reinterpret_cast<const char *>(&sin), sizeof sin);
    }
    if (address.protocol() == QAbstractSocket::IPv6Protocol) {
        sockaddr_in6 sin6;
        std::memset(&sin6, 0, sizeof sin6);
        sin6.sin6_family = AF_INET6;
        sin6.sin6_port = qToBigEndian(port);
        const Q_IPV6ADDR ip = address.toIPv6Address();
        std::memcpy(&sin6.sin6_addr, ip.c, sizeof ip.c);
        const QString scope = address.scopeId();
        bool numeric = false;
        const uint index = scope.toUInt(&numeric);
        sin6.sin6_scope_id = numeric           ? index
                             : scope.isEmpty() ? 0
                                               : if_nametoindex(scope.toLatin1().constData());
        return QByteArray(reinterpret_cast<const char *>(&sin6), sizeof sin6);
    }
    return {};
}

QHostAddress hostAddress(const QByteArray &data)
{
    const sockaddr_storage address = sockAddrStruct(data);
    if ((address.ss_family == AF_INET && data.size() >= qsizetype(sizeof(sockaddr_in))) ||
        (address.ss_family == AF_INET6 && data.size() >= qsizetype(sizeof(sockaddr_in6))))
        return QHostAddress(reinterpret_cast<const sockaddr *>(&address));
    return {};
}

} // namespace SockAddr
