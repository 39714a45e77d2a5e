#pragma once
// Just enough IRC to drive a SaslConn against a server: registration with
// CAP LS 302, CAP REQ :sasl, the AUTHENTICATE exchange (Base64 in chunks of
// 400) and the numerics 903 (success) and 902/904 to 908 (failure). Blocking
// calls with a timeout; test and benchmark code only.

#include "security/baseconversion.h"
#include "security/saslconn.h"

#include <QSslSocket>

namespace zttest {

class IrcSasl
{
public:
    //! Connects (TLS with the client certificate when `certFile` is given),
    //! registers as `nick` and reads the server's capabilities to their end.
    bool connectAndListCaps(const QString &host, quint16 port, const QString &nick,
                            const QString &certFile = {})
    {
        if (!certFile.isEmpty()) {
            m_socket.setLocalCertificate(certFile);
            m_socket.setPrivateKey(certFile);
            m_socket.setPeerVerifyMode(QSslSocket::VerifyNone);
            m_socket.connectToHostEncrypted(host, port);
        } else {
            m_socket.connectToHost(host, port);
        }
        if (!(certFile.isEmpty() ? m_socket.waitForConnected(10000) : m_socket.waitForEncrypted(10000)))
            return false;
        m_socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
        send("CAP LS 302\r\nNICK " + nick.toUtf8() + "\r\nUSER " + nick.toUtf8() + " 0 * :zt\r\n");
        for (QList<QByteArray> m; !(m = readMessage()).isEmpty();)
            if (m.value(0) == "CAP" && m.value(2) == "LS" && m.value(3) != "*")
                return true;
        return false;
    }

    //! Runs the exchange from CAP REQ to the final numeric, which it answers
    //! (0 when the connection or the conversation broke down).
    int authenticate(SaslConn &conn, const QString &offered)
    {
        send("CAP REQ :sasl\r\n");
        for (QList<QByteArray> m; (m = readMessage()).value(0) != "CAP" || m.value(2) != "ACK";)
            if (m.isEmpty())
                return 0;
        QByteArray out;
        if (conn.startWithMechanismsClientOut(offered, &out) == SaslConn::Failed)
            return 0;
        send("AUTHENTICATE " + conn.mechanism().toUtf8() + "\r\n");
        bool initial = true;
        QByteArray challenge;
        for (QList<QByteArray> m; !(m = readMessage()).isEmpty();) {
            const int numeric = m.value(0).toInt();
            if (numeric == 903 || numeric == 902 || (numeric >= 904 && numeric <= 908))
                return numeric;
            if (m.value(0) != "AUTHENTICATE")
                continue;
            if (m.value(1) != "+")
                challenge += m.value(1);
            if (m.value(1).size() == 400)
                continue;
            const QByteArray data = vx::dataWithBase64String(QString::fromLatin1(challenge));
            challenge.clear();
            if (!initial && conn.continueWithServerDataClientOut(data, &out) == SaslConn::Failed)
                return 0;
            initial = false;
            const QByteArray b64 = vx::base64String(out).toLatin1();
            for (qsizetype i = 0; i < b64.size(); i += 400)
                send("AUTHENTICATE " + b64.mid(i, 400) + "\r\n");
            if (b64.size() % 400 == 0)
                send("AUTHENTICATE +\r\n");
        }
        return 0;
    }

    ~IrcSasl()
    {
        send("QUIT\r\n");
        m_socket.waitForBytesWritten(1000);
    }

private:
    void send(const QByteArray &line)
    {
        m_socket.write(line);
        m_socket.flush();
    }

    // The next message as command and parameters (the prefix dropped, the
    // trailing parameter whole); empty on timeout or a closed connection.
    QList<QByteArray> readMessage()
    {
        while (!m_socket.canReadLine())
            if (!m_socket.waitForReadyRead(10000))
                return {};
        QByteArray line = m_socket.readLine().trimmed();
        if (line.startsWith(':'))
            line = line.mid(line.indexOf(' ') + 1);
        const qsizetype colon = line.indexOf(" :");
        QList<QByteArray> parts = line.left(colon < 0 ? line.size() : colon).split(' ');
        if (colon >= 0)
            parts.append(line.mid(colon + 2));
        if (parts.value(0) == "PING") {
            send("PONG :" + parts.value(1) + "\r\n");
            return readMessage();
        }
        return parts;
    }

    QSslSocket m_socket;
};

} // namespace zttest
