#pragma once
// One linked pair of connections in one process, over a real loopback
// socket: a listening VDConnection and what connected to it. Each end's local
// object is a TestRoot, a receiving root (ZTRootObject) that records every
// call it runs as "selector" followed by the rendered arguments; or, with
// connectRaw(), one end is a raw socket that writes bytes by hand and reads
// the stream back as frames (length word, then body). The delegate events
// are recorded with the connection they name.

#include "transport/vd_support.h" // first: its printers must precede GoogleTest

#include "core/ztdirectory.h"
#include "core/ztforwardedselector.h"
#include "core/ztrootobject.h"
#include "transport/asyncsocket_support.h"
#include "transport/vdconnection.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

// The recording root. Forwarded model calls ("to…_<class>_<UUID>_<selector>")
// take the signature of the named object's method whatever the prefix, since
// both ends live in one process, and are recorded whole.
class TestRoot : public ZTRootObject
{
    ZT_OBJECT(TestRoot, ZTRootObject)
public:
    explicit TestRoot(QString name) : m_name(std::move(name)) {}
    QString description() const override { return m_name; }
    QStringList calls;

    void registerClient() { record("registerClient"); }
    void handshakeFromAgent(const QVariant &v) { record("handshakeFromAgent:", {v}); }
    void note(const QVariant &v) { record("note:", {v}); }
    QVariant echo(const QVariant &v) { return record("echo:", {v}), v; }
    //! An 8-byte result that is not an object: it travels back as one.
    qint64 sumWith(qint64 a, qint64 b) { return record("sum:with:", {a, b}), a + b; }
    //! A 4-byte result: the caller gets no handler, the receiver sends no reply.
    qint32 lengthOf(const QString &s) { return record("lengthOf:", {s}), qint32(s.size()); }
    void takeReal(double d) { record("takeReal:", {d}); }
    //! Answers the root itself, which cannot travel back.
    QVariant gadget() { return record("gadget"), zt::objectValue(this); }
    //! Refused by acceptsSelector:.
    void refuse(const QVariant &v) { record("refuse:", {v}); }
    bool acceptsSelector(const zt::Selector &selector) const override
    {
        return selector != "refuse:" && ZTRootObject::acceptsSelector(selector);
    }
    [[noreturn]] void exhaust() { throw std::bad_alloc(); }

    zt::MethodSignature methodSignatureForSelector(const zt::Selector &selector) const override
    {
        const zt::MethodSignature own = Object::methodSignatureForSelector(selector);
        const std::optional<ZTForwardedSelector> parts = ZTForwardedSelector::parse(selector);
        if (own.isValid() || !parts)
            return own;
        const auto object = ZTDirectory::sharedInstance()->objectWithID(QString::fromLatin1(parts->objectID));
        return object ? object->methodSignatureForSelector(parts->selector) : zt::MethodSignature();
    }
    void forwardInvocation(zt::Invocation &invocation) override
    {
        record(invocation.selector(), invocation.arguments());
    }

private:
    void record(const zt::Selector &selector, const QVariantList &arguments = {})
    {
        QString line = QString::fromLatin1(selector);
        for (const QVariant &a : arguments)
            line += u' ' + vdtest::render(a);
        calls.append(line);
    }
    QString m_name;
};

namespace zttest {

using sockettest::waitUntil;

// What the other side's root offers: every method of TestRoot.
inline const zt::Protocol &rootProtocol()
{
    static const zt::Protocol protocol = [] {
        zt::Protocol p(u"TestRootMethods"_s);
        const zt::ClassInfo &cls = TestRoot::staticClassInfo();
        for (const zt::Selector &s : cls.ownSelectors())
            p.addMethod(s, cls.ownInstanceMethod(s)->signature);
        return p;
    }();
    return protocol;
}

inline VDReturnHandler *handlerIn(const QVariant &result)
{
    return dynamic_cast<VDReturnHandler *>(zt::objectFrom(result));
}

//! Waits until `root` has run a call whose line is `line`.
inline bool waitForCall(TestRoot *root, const QString &line)
{
    return waitUntil([&] { return root->calls.contains(line); });
}

class LinkedPair : public VDSocketDelegate
{
public:
    zt::Ref<VDConnection> listener;
    std::vector<zt::Ref<VDConnection>> clients, accepted;
    std::vector<zt::Ref<TestRoot>> clientRoots, serverRoots;
    QStringList events;
    zt::Ref<AsyncSocket> raw;
    sockettest::Recorder rawEvents;

    VDConnection *client(size_t i = 0) const { return clients.at(i).get(); }
    VDConnection *server(size_t i = 0) const { return accepted.at(i).get(); }
    TestRoot *serverRoot(size_t i = 0) const { return serverRoots.at(i).get(); }

    //! Connects one more client; with `openGates`, both ends may write at once.
    bool connect(bool openGates = true) { return join(openGates, false); }
    //! Connects the raw socket; server() is then the connection under test.
    bool connectRaw(bool openGate = true) { return join(openGate, true); }
    void write(const QByteArray &bytes) { raw->writeDataWithTimeoutTag(bytes, -1, 0); }

    void onSocketDidConnectToHostPort(VDConnection *connection, const QString &host, quint16 port) override
    {
        events.append(u"connect %1 %2:%3"_s.arg(name(connection), host).arg(port));
    }
    void onSocketWillDisconnectWithError(VDConnection *connection, const zt::Error &error) override
    {
        events.append(u"will %1 %2"_s.arg(name(connection), error.isNull() ? u"closed"_s : error.domain));
    }
    void onSocketDidDisconnect(VDConnection *connection) override
    {
        events.append(u"did %1"_s.arg(name(connection)));
    }
    void onSocketDidAcceptNewSocket(VDConnection *from, VDConnection *connection) override
    {
        EXPECT_EQ(connection->delegate(), nullptr) << "an accepted connection starts without a delegate";
        events.append(u"accept %1"_s.arg(name(from)));
        auto root = zt::make<TestRoot>(u"server-root-%1"_s.arg(accepted.size()));
        connection->setDelegate(this);
        root->attach(nullptr, connection);
        connection->setProtocolForRemoteObject(&rootProtocol());
        accepted.emplace_back(connection);
        serverRoots.push_back(root);
    }

    QString name(VDConnection *c) const
    {
        if (c == listener.get())
            return u"listener"_s;
        for (size_t i = 0; i < clients.size(); ++i)
            if (c == clients[i].get())
                return u"client%1"_s.arg(i);
        for (size_t i = 0; i < accepted.size(); ++i)
            if (c == accepted[i].get())
                return u"server%1"_s.arg(i);
        return u"?"_s;
    }

    // A released connection asks its socket to close once its writes are
    // done, and the socket keeps itself alive until the loop has served that.
    ~LinkedPair() override
    {
        rawEvents.quiet();
        if (raw) {
            raw->setDelegate(nullptr);
            raw->disconnect();
        }
        std::vector<zt::Ref<AsyncSocket>> sockets;
        for (auto *list : {&clients, &accepted})
            for (const auto &c : *list)
                sockets.emplace_back(c->socket()), c->setDelegate(nullptr);
        if (listener)
            sockets.emplace_back(listener->socket()), listener->setDelegate(nullptr);
        clients.clear();
        accepted.clear();
        listener.reset();
        waitUntil(
            [&] {
                return std::all_of(sockets.begin(), sockets.end(),
                                   [](auto &s) { return s->isDisconnected(); });
            },
            5000);
        sockets.clear();
        sockettest::flushDeferredDeletes();
    }

private:
    bool join(bool openGates, bool rawPeer)
    {
        zt::Error error;
        if (!listener) {
            listener = VDConnection::createWithDelegate(this);
            if (!listener->socket()->acceptOnInterfacePortError(u"127.0.0.1"_s, 0, &error)) {
                ADD_FAILURE() << "listen: " << error.localizedDescription().toStdString();
                return false;
            }
        }
        const size_t n = accepted.size();
        AsyncSocket *socket = nullptr;
        if (rawPeer) {
            rawEvents.onRead = [](AsyncSocket *sock, const QByteArray &data, long tag) {
                const qsizetype length = tag == 0 ? qsizetype(qFromBigEndian<quint64>(data.constData())) : 8;
                sock->readDataToLengthWithTimeoutTag(length, -1, tag == 0 ? 1 : 0);
            };
            raw = AsyncSocket::createWithDelegate(&rawEvents);
            raw->readDataToLengthWithTimeoutTag(8, -1, 0);
            socket = raw.get();
        } else {
            clients.push_back(VDConnection::createWithDelegate(this));
            clientRoots.push_back(zt::make<TestRoot>(u"client-root-%1"_s.arg(n)));
            clientRoots.back()->attach(nullptr, clients.back().get());
            clients.back()->setProtocolForRemoteObject(&rootProtocol());
            socket = clients.back()->socket();
        }
        if (!socket->connectToHostOnPortError(u"127.0.0.1"_s, listener->socket()->localPort(), &error)) {
            ADD_FAILURE() << "connect: " << error.localizedDescription().toStdString();
            return false;
        }
        if (!waitUntil([&] {
                return accepted.size() > n && socket->isConnected() && accepted[n]->socket()->isConnected();
            }))
            return false;
        if (!rawPeer)
            clients.back()->setAllowWriting(openGates);
        accepted[n]->setAllowWriting(openGates);
        return true;
    }
};

} // namespace zttest
