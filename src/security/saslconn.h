#pragma once
// SaslConn: one client-side SASL conversation of Cyrus SASL (libsasl2), as
// used to authenticate to IRC servers.
//
// Created for one service and server, started with the mechanisms the server
// offers, stepped with each server challenge until done; when the negotiated
// mechanism brings a security layer, encodeData/decodeData apply it. The
// credentials (realm, authName, user, password) answer the library's
// interaction prompts; a credential that is not set is answered with an
// empty text. Steps answer Failed, Done or Continue; after a failure
// lastError() describes the library's code (domain "SaslErrorDomain").
//
// Output bytes handed back by a step refer to the library's memory without a
// copy: they stay valid only until the next call on the same conversation,
// so callers send them at once.
//
// Not thread-safe: one conversation belongs to one thread. The library itself
// is initialised once per process, on first use, from any thread.

#include "runtime/error.h"
#include "runtime/object.h"
#include "zt_export.h"

#include <QAbstractSocket>
#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QString>

struct sasl_conn;
struct sasl_interact;

class ZT_EXPORT SaslConn : public zt::Object
{
    ZT_OBJECT(SaslConn, zt::Object)

public:
    //! The caller's flag bits; each maps to one of the library's security
    //! properties, which rule mechanisms out.
    enum Flag : unsigned
    {
        NoPlainText = 1,    //!< no mechanism open to passive attack (library 0x1)
        NoAnonymous = 2,    //!< no anonymous login (library 0x10)
        NoDictionary = 4,   //!< no mechanism open to passive dictionary attack (library 0x4)
        ForwardSecrecy = 8, //!< forward secrecy between sessions required (library 0x8)
    };
    //! The three-way result of start and step.
    enum Result : int
    {
        Failed = 0,
        Done = 1,
        Continue = 2,
    };
    //! Server data larger than this fails the step without reaching the
    //! library (no mechanism of this library sends challenges near it).
    static constexpr qsizetype MaxServerData = 64 * 1024;

    SaslConn();
    ~SaslConn() override;

    //! Addresses are "host;port" strings (empty: unknown). Null when the
    //! library refuses, after logging "sasl error: %d: %s".
    static zt::Ref<SaslConn> createWithServiceServerLocalIpRemoteIpFlags(const QString &service,
                                                                         const QString &server,
                                                                         const QString &localIp,
                                                                         const QString &remoteIp,
                                                                         unsigned flags);
    //! The addresses formed with "%@;%d" from a connected socket: anything
    //! with localHost()/localPort()/connectedHost()/connectedPort() (the
    //! transport's AsyncSocket) or a QAbstractSocket.
    template<typename Socket>
    static zt::Ref<SaslConn> createWithServiceServerSocketFlags(const QString &service, const QString &server,
                                                                const Socket &socket, unsigned flags)
    {
        if constexpr (std::is_base_of_v<QAbstractSocket, Socket>)
            return createWithServiceServerLocalIpRemoteIpFlags(
                service, server, addressString(socket.localAddress().toString(), socket.localPort()),
                addressString(socket.peerAddress().toString(), socket.peerPort()), flags);
        else
            return createWithServiceServerLocalIpRemoteIpFlags(
                service, server, addressString(socket.localHost(), socket.localPort()),
                addressString(socket.connectedHost(), socket.connectedPort()), flags);
    }

    //! Two-phase form of the factory; false (after logging) on failure.
    bool initWithServiceServerLocalIpRemoteIpFlags(const QString &service, const QString &server,
                                                   const QString &localIp, const QString &remoteIp,
                                                   unsigned flags);

    //! Starts with the server's mechanism list (comma or space separated).
    //! `clientOut`, when given, receives the first client message (null when
    //! the mechanism sends none first).
    Result startWithMechanismsClientOut(const QString &mechanisms, QByteArray *clientOut);
    //! One step with the server's (decoded) challenge; a null challenge is
    //! passed as empty data.
    Result continueWithServerDataClientOut(const QByteArray &serverData, QByteArray *clientOut);
    //! A step whose output is not wanted.
    Result finishWithServerData(const QByteArray &serverData);

    //! True when a security layer is in force, or when the library cannot
    //! tell.
    bool needsToEncodeData() const;
    //! The security layer applied to outgoing / incoming bytes; null on
    //! failure (the code stays in lastError()).
    QByteArray encodeData(const QByteArray &data);
    QByteArray decodeData(const QByteArray &data);

    //! Null when the last call succeeded; else domain "SaslErrorDomain", the
    //! library's code, and its error string in the user's languages.
    zt::Error lastError() const;
    //! The library's result code of the last call (0: success).
    int lastErrorCode() const { return m_lastError; }

    //! Tells the library about an authentication outside SASL (a TLS client
    //! certificate), which the EXTERNAL mechanism needs: the identity it
    //! established (the library offers EXTERNAL only when it is not empty)
    //! and its strength in bits. False when the
    //! library refuses.
    bool setExternalAuthentication(const QString &authId, unsigned strength);

    //! Keeps the string's UTF-8 bytes (no terminator) alive until the
    //! conversation no longer needs them, and answers them.
    QByteArray storeAuthComponent(const QString &string);
    //! Answers the library's prompts from the credentials. Raises the
    //! internal-inconsistency exception "Error: unknown callback code %x" for
    //! a prompt it does not know.
    void fillPrompts(sasl_interact *prompts);

    //! @sel mechanism
    QString mechanism() const { return m_mechanism; }
    //! @sel realm
    QString realm() const { return m_realm; }
    //! @sel setRealm:
    void setRealm(const QString &realm) { m_realm = realm; }
    //! @sel authName
    QString authName() const { return m_authName; }
    //! @sel setAuthName:
    void setAuthName(const QString &authName) { m_authName = authName; }
    //! @sel user
    QString user() const { return m_user; }
    //! @sel setUser:
    void setUser(const QString &user) { m_user = user; }
    //! @sel password
    QString password() const { return m_password; }
    //! @sel setPassword:
    void setPassword(const QString &password) { m_password = password; }
    const QList<QByteArray> &authComponents() const { return m_authComponents; }

    //! The library connection handle (a `sasl_conn_t *`), owned here.
    sasl_conn *conn() const { return m_conn; }

protected:
    void dealloc() override;

private:
    static QString addressString(const QString &host, quint16 port);
    Result finishCall(int code, const char *out, unsigned outLength, QByteArray *clientOut);
    void dispose();

    sasl_conn *m_conn = nullptr;
    QString m_mechanism;
    QString m_realm;
    QString m_authName;
    QString m_user;
    QString m_password;
    QList<QByteArray> m_authComponents;
    int m_lastError = 0;
};
