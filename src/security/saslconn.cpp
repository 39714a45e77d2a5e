#include "security/saslconn.h"

#include "runtime/exception.h"
#include "runtime/logging.h"

#include <QLocale>

#include <sasl/sasl.h>

#include <climits>
#include <cstdlib>

ZT_DEFINE_CLASS_WITH_MEMBERS(SaslConn)

void SaslConn::registerMembers(zt::ClassBuilder<SaslConn> &b)
{
    b.method("mechanism", &SaslConn::mechanism);
    b.property("realm", &SaslConn::realm, &SaslConn::setRealm);
    b.property("authName", &SaslConn::authName, &SaslConn::setAuthName);
    b.property("user", &SaslConn::user, &SaslConn::setUser);
    b.property("password", &SaslConn::password, &SaslConn::setPassword);
}

namespace {

// Every credential is asked for through interaction prompts: callbacks
// without a procedure. The library keeps a pointer to this list.
sasl_callback_t ClientCallbacks[] = {
    {SASL_CB_GETREALM, nullptr, nullptr}, {SASL_CB_USER, nullptr, nullptr},
    {SASL_CB_AUTHNAME, nullptr, nullptr}, {SASL_CB_PASS, nullptr, nullptr},
    {SASL_CB_LIST_END, nullptr, nullptr},
};

// The caller's flag bits and the security properties they stand for.
constexpr struct
{
    unsigned flag;
    unsigned property;
} FlagProperties[] = {
    {SaslConn::NoPlainText, SASL_SEC_NOPLAINTEXT},
    {SaslConn::NoAnonymous, SASL_SEC_NOANONYMOUS},
    {SaslConn::NoDictionary, SASL_SEC_NODICTIONARY},
    {SaslConn::ForwardSecrecy, SASL_SEC_FORWARD_SECRECY},
};

// Interaction rounds of one call before it is given up (each round answers
// every prompt the library asked for, so two are plenty).
constexpr int MaxInteractionRounds = 8;

// The client side of the library, initialised once per process; its
// shutdown runs at exit. Answers the initialisation's result code.
int clientLibrary()
{
    static const int result = [] {
        const int code = sasl_client_init(ClientCallbacks);
        if (code == SASL_OK)
            std::atexit([] { sasl_client_done(); });
        return code;
    }();
    return result;
}

QString errorString(int code, const char *languages)
{
    return QString::fromUtf8(sasl_errstring(code, languages, nullptr));
}

} // namespace

SaslConn::SaslConn() = default;

SaslConn::~SaslConn()
{
    dispose();
}

void SaslConn::dealloc()
{
    dispose();
    m_user.clear();
    m_password.clear();
    m_realm.clear();
    m_authName.clear();
    m_mechanism.clear();
    m_authComponents.clear();
    super::dealloc();
}

void SaslConn::dispose()
{
    if (m_conn)
        sasl_dispose(&m_conn);
    m_conn = nullptr;
}

QString SaslConn::addressString(const QString &host, quint16 port)
{
    return zt::format(u"%@;%d", host, int(port));
}

zt::Ref<SaslConn> SaslConn::createWithServiceServerLocalIpRemoteIpFlags(const QString &service,
                                                                        const QString &server,
                                                                        const QString &localIp,
                                                                        const QString &remoteIp,
                                                                        unsigned flags)
{
    auto conn = zt::make<SaslConn>();
    if (!conn->initWithServiceServerLocalIpRemoteIpFlags(service, server, localIp, remoteIp, flags))
        return {};
    return conn;
}

bool SaslConn::initWithServiceServerLocalIpRemoteIpFlags(const QString &service, const QString &server,
                                                         const QString &localIp, const QString &remoteIp,
                                                         unsigned flags)
{
    int code = clientLibrary();
    if (code == SASL_OK) {
        const QByteArray serviceBytes = service.toUtf8();
        const QByteArray serverBytes = server.toUtf8();
        const QByteArray local = localIp.toUtf8();
        const QByteArray remote = remoteIp.toUtf8();
        // The `flags` argument of sasl_client_new is about the protocol
        // (success data, proxies), not about security: the caller's bits go
        // into the security properties below.
        code = sasl_client_new(serviceBytes.constData(), serverBytes.constData(),
                               localIp.isEmpty() ? nullptr : local.constData(),
                               remoteIp.isEmpty() ? nullptr : remote.constData(), nullptr, 0, &m_conn);
    }
    if (code == SASL_OK) {
        sasl_security_properties_t properties{};
        properties.min_ssf = 0;
        properties.max_ssf = 256;
        properties.maxbufsize = 65536;
        for (const auto &fp : FlagProperties) {
            if (flags & fp.flag)
                properties.security_flags |= fp.property;
        }
        code = sasl_setprop(m_conn, SASL_SEC_PROPS, &properties);
    }
    m_lastError = code;
    if (code != SASL_OK) {
        zt::log(ztSecurity, u"sasl error: %d: %s", code, errorString(code, nullptr));
        dispose();
        return false;
    }
    return true;
}

bool SaslConn::setExternalAuthentication(const QString &authId, unsigned strength)
{
    if (!m_conn)
        return false;
    const QByteArray id = authId.toUtf8();
    const sasl_ssf_t ssf = strength;
    m_lastError = sasl_setprop(m_conn, SASL_SSF_EXTERNAL, &ssf);
    if (m_lastError == SASL_OK)
        m_lastError = sasl_setprop(m_conn, SASL_AUTH_EXTERNAL, id.constData());
    return m_lastError == SASL_OK;
}

SaslConn::Result SaslConn::startWithMechanismsClientOut(const QString &mechanisms, QByteArray *clientOut)
{
    m_lastError = SASL_OK;
    if (!m_conn)
        return finishCall(SASL_NOTINIT, nullptr, 0, clientOut);
    const QByteArray list = mechanisms.toUtf8();
    sasl_interact_t *prompts = nullptr;
    const char *out = nullptr;
    unsigned outLength = 0;
    const char *chosen = nullptr;
    int code = sasl_client_start(m_conn, list.constData(), &prompts, &out, &outLength, &chosen);
    for (int round = 0; code == SASL_INTERACT && round < MaxInteractionRounds; ++round) {
        fillPrompts(prompts);
        code = sasl_client_start(m_conn, list.constData(), &prompts, &out, &outLength, &chosen);
    }
    if ((code == SASL_OK || code == SASL_CONTINUE) && chosen)
        m_mechanism = QString::fromUtf8(chosen);
    return finishCall(code, out, outLength, clientOut);
}

SaslConn::Result SaslConn::continueWithServerDataClientOut(const QByteArray &serverData,
                                                           QByteArray *clientOut)
{
    m_lastError = SASL_OK;
    if (!m_conn)
        return finishCall(SASL_NOTINIT, nullptr, 0, clientOut);
    if (serverData.size() > MaxServerData) {
        sasl_seterror(m_conn, SASL_NOLOG, "server data of %lld bytes is too long",
                      qlonglong(serverData.size()));
        return finishCall(SASL_BUFOVER, nullptr, 0, clientOut);
    }
    // No server data is passed as an empty text of length 0.
    const char *in = serverData.isNull() ? "" : serverData.constData();
    const unsigned inLength = unsigned(serverData.size());
    sasl_interact_t *prompts = nullptr;
    const char *out = nullptr;
    unsigned outLength = 0;
    int code = sasl_client_step(m_conn, in, inLength, &prompts, &out, &outLength);
    for (int round = 0; code == SASL_INTERACT && round < MaxInteractionRounds; ++round) {
        fillPrompts(prompts);
        code = sasl_client_step(m_conn, in, inLength, &prompts, &out, &outLength);
    }
    return finishCall(code, out, outLength, clientOut);
}

SaslConn::Result SaslConn::finishWithServerData(const QByteArray &serverData)
{
    return continueWithServerDataClientOut(serverData, nullptr);
}

SaslConn::Result SaslConn::finishCall(int code, const char *out, unsigned outLength, QByteArray *clientOut)
{
    m_lastError = code;
    // The answers are needed only while the conversation goes on.
    if (code != SASL_CONTINUE)
        m_authComponents.clear();
    if (code == SASL_OK || code == SASL_CONTINUE) {
        if (clientOut)
            *clientOut = out ? QByteArray::fromRawData(out, qsizetype(outLength)) : QByteArray();
        return code == SASL_OK ? Done : Continue;
    }
    if (clientOut)
        *clientOut = QByteArray();
    const char *detail = m_conn ? sasl_errdetail(m_conn) : nullptr;
    zt::log(ztSecurity, u"sasl error: %d: %s: %s", code, errorString(code, "de"),
            QString::fromUtf8(detail ? detail : ""));
    return Failed;
}

bool SaslConn::needsToEncodeData() const
{
    const void *value = nullptr;
    if (!m_conn || sasl_getprop(m_conn, SASL_SSF, &value) != SASL_OK || !value)
        return true;
    return *static_cast<const sasl_ssf_t *>(value) != 0;
}

namespace {
// The security layer's encode and decode take and give the same shapes.
using LayerCall = int (*)(sasl_conn_t *, const char *, unsigned, const char **, unsigned *);

QByteArray throughLayer(sasl_conn_t *conn, LayerCall call, const QByteArray &data, int *error)
{
    const char *out = nullptr;
    unsigned outLength = 0;
    *error = !conn ? SASL_NOTINIT
             : data.size() > qsizetype(UINT_MAX)
                 ? SASL_BUFOVER
                 : call(conn, data.constData(), unsigned(data.size()), &out, &outLength);
    if (*error != SASL_OK)
        return {};
    return QByteArray(out ? out : "", qsizetype(outLength));
}
} // namespace

QByteArray SaslConn::encodeData(const QByteArray &data)
{
    return throughLayer(m_conn, sasl_encode, data, &m_lastError);
}

QByteArray SaslConn::decodeData(const QByteArray &data)
{
    return throughLayer(m_conn, sasl_decode, data, &m_lastError);
}

zt::Error SaslConn::lastError() const
{
    if (m_lastError == SASL_OK)
        return {};
    const QByteArray languages = QLocale::system().uiLanguages().join(u',').toUtf8();
    return zt::Error(QStringLiteral("SaslErrorDomain"), m_lastError,
                     errorString(m_lastError, languages.constData()));
}

QByteArray SaslConn::storeAuthComponent(const QString &string)
{
    m_authComponents.append(string.toUtf8());
    return m_authComponents.constLast();
}

void SaslConn::fillPrompts(sasl_interact *prompts)
{
    for (sasl_interact_t *p = prompts; p && p->id != SASL_CB_LIST_END; ++p) {
        const QString *value = nullptr;
        switch (p->id) {
        case SASL_CB_USER:
            value = &m_user;
            break;
        case SASL_CB_AUTHNAME:
            value = &m_authName;
            break;
        case SASL_CB_PASS:
            value = &m_password;
            break;
        case SASL_CB_GETREALM:
            value = &m_realm;
            break;
        default:
            zt::assertionFailure(zt::format(u"Error: unknown callback code %x", int(p->id)));
        }
        if (value->isEmpty()) {
            p->result = "";
            p->len = 0;
        } else {
            // The list keeps each buffer's bytes in place until it is cleared.
            const QByteArray stored = storeAuthComponent(*value);
            p->result = m_authComponents.constLast().constData();
            p->len = unsigned(stored.size());
        }
    }
}
