#include "core/ztagenthost.h"

#include "core/ztdirectory.h"
#include "runtime/fastpath_p.h"
#include "runtime/indexset.h"
#include "runtime/invocation.h"
#include "runtime/members.h"

#include <QTimer>

namespace {

// The agent's remote root: whatever it is sent goes to every registered client.
class ZTHostFanOut : public zt::Object
{
    ZT_OBJECT(ZTHostFanOut, zt::Object)
public:
    explicit ZTHostFanOut(ZTAgentHost *host = nullptr, const zt::Protocol *const *protocol = nullptr)
        : m_host(host), m_protocol(protocol)
    {}
    zt::MethodSignature methodSignatureForSelector(const zt::Selector &selector) const override
    {
        if (const zt::MethodEntry *own = classInfo().instanceMethod(selector))
            return own->signature;
        const zt::Protocol *protocol = m_protocol ? *m_protocol : nullptr;
        if (!protocol)
            return {};
        // Every change the agent sends asks this: remembered per selector,
        // and per protocol, since the host may be given another one.
        const quint64 tag = quint64(quintptr(protocol));
        if (const zt::MethodSignature *cached = m_signatures.find(selector, tag))
            return *cached;
        const zt::MethodSignature signature = protocol->methodSignature(selector);
        if (signature.isValid())
            m_signatures.store(selector, signature, tag);
        return signature;
    }
    void forwardInvocation(zt::Invocation &invocation) override
    {
        if (!methodSignatureForSelector(invocation.selector()).isValid())
            doesNotRecognizeSelector(invocation.selector());
        if (m_host)
            m_host->sendToClients(invocation);
    }
    ZTAgentHost *m_host = nullptr;
    const zt::Protocol *const *m_protocol = nullptr;
    mutable zt::fastpath::AddressKeyedCache<zt::Selector, zt::MethodSignature, 8> m_signatures;
};

// A connection released from inside its own socket's callback would free the
// socket under it: the last reference goes on the next turn of the event loop.
void releaseLater(zt::Ref<VDConnection> connection)
{
    QTimer::singleShot(0, [connection] {});
}

} // namespace

ZT_DEFINE_CLASS(ZTHostFanOut)

ZT_DEFINE_CLASS(ZTAgentHost)

ZTAgentHostDelegate::~ZTAgentHostDelegate() = default;
void ZTAgentHostDelegate::hostDidRegisterClient(ZTAgentHost *, VDConnection *) {}
void ZTAgentHostDelegate::hostDidLoseClient(ZTAgentHost *, VDConnection *) {}

zt::Ref<ZTAgentHost> ZTAgentHost::create(ZTAbstractIPC *root, ZTAgentHostDelegate *delegate)
{
    auto host = zt::Ref<ZTAgentHost>::adopt(new ZTAgentHost);
    host->m_root = root;
    host->m_delegate = delegate;
    host->m_fanOut = zt::make<ZTHostFanOut>(host.get(), &host->m_clientProtocol);
    return host;
}

bool ZTAgentHost::listen(const QString &interface, quint16 port, zt::Error *error)
{
    close();
    m_listener = VDConnection::createWithDelegate(this);
    if (!m_listener->socket()->acceptOnInterfacePortError(interface, port, error)) {
        m_listener.reset();
        return false;
    }
    ZTApplication::setDelegate(this);
    return true;
}

quint16 ZTAgentHost::port() const
{
    return m_listener ? m_listener->socket()->localPort() : 0;
}

QList<VDConnection *> ZTAgentHost::clients() const
{
    return m_clients;
}

void ZTAgentHost::close()
{
    const QList<Peer> peers = std::exchange(m_peers, {});
    m_clients.clear();
    for (const Peer &peer : peers) {
        peer.connection->setDelegate(nullptr);
        peer.connection->setLocalObject(nullptr);
        peer.connection->socket()->disconnect();
    }
    if (m_listener) {
        m_listener->setDelegate(nullptr);
        m_listener->socket()->disconnect();
        m_listener.reset();
    }
}

void ZTAgentHost::dealloc()
{
    close();
    if (auto *fanOut = static_cast<ZTHostFanOut *>(m_fanOut.get())) {
        fanOut->m_host = nullptr;
        fanOut->m_protocol = nullptr;
    }
    m_fanOut.reset();
    if (ZTApplication::delegate() == this)
        ZTApplication::setDelegate(nullptr);
    super::dealloc();
}

ZTAgentHost::Peer *ZTAgentHost::peerFor(const VDConnection *connection)
{
    for (Peer &peer : m_peers)
        if (peer.connection.get() == connection)
            return &peer;
    return nullptr;
}

void ZTAgentHost::onSocketDidAcceptNewSocket(VDConnection *, VDConnection *accepted)
{
    Peer peer;
    peer.connection = zt::Ref<VDConnection>(accepted);
    peer.root = zt::dynamicCast<ZTRootObject>(m_rootClass->createInstance());
    if (!peer.root)
        return; // not a root class: the peer is not served
    peer.root->attach(this, accepted);
    accepted->setProtocolForRemoteObject(m_clientProtocol);
    accepted->setDelegate(this);
    m_peers.append(std::move(peer));
}

namespace {

using zt::detail::ListRemainder;

// A list's elements after the first piece, which follow the handshake.
struct StateTail
{
    QString objectID;
    QString key;
    qsizetype from;
    ListRemainder rest;
};

// Takes a list's ListRemainder off its end, if it has one.
std::optional<ListRemainder> takeRemainder(QVariantList &list)
{
    if (list.isEmpty() || list.constLast().metaType() != QMetaType::fromType<ListRemainder>())
        return std::nullopt;
    ListRemainder rest = list.takeLast().value<ListRemainder>();
    return rest;
}

// Moves the tails of long lists out of a dictionary form made under a
// DictionaryListLimit, depth first: a list under a key that its object (one
// in the directory) inserts into by index keeps its first piece, the others
// are made whole. A tail is sent as it is made (a piece is not split again).
void takeTails(QVariant &value, qsizetype pieceSize, QList<StateTail> &tails)
{
    if (value.typeId() == QMetaType::QVariantList) {
        auto &list = *static_cast<QVariantList *>(value.data());
        if (auto rest = takeRemainder(list))
            list += rest->make(list.size(), rest->total - list.size());
        for (QVariant &element : list)
            takeTails(element, pieceSize, tails);
        return;
    }
    if (value.typeId() != QMetaType::QVariantMap)
        return;
    auto &map = *static_cast<QVariantMap *>(value.data());
    const auto id = map.constFind(QStringLiteral("description"));
    const zt::Ref<ZTAbstractIPC> object =
        id == map.cend() || id->typeId() != QMetaType::QString
            ? nullptr
            : ZTDirectory::sharedInstance()->objectWithID(*static_cast<const QString *>(id->constData()));
    for (auto it = map.begin(); it != map.end(); ++it) {
        if (it->typeId() != QMetaType::QVariantList) {
            takeTails(*it, pieceSize, tails);
            continue;
        }
        auto &list = *static_cast<QVariantList *>(it->data());
        std::optional<ListRemainder> rest = takeRemainder(list);
        // By index, one piece at a time: a key with no indexed insertion
        // would take each piece as a copy of the whole list.
        if (object && object->classInfo().accessorsForKey(it.key()).insertMany) {
            if (!rest && list.size() > pieceSize) { // made whole: split what is there
                const QVariantList made = list.mid(pieceSize);
                rest = ListRemainder{
                    [made, pieceSize](qsizetype from, qsizetype n) { return made.mid(from - pieceSize, n); },
                    list.size()};
                list.resize(pieceSize);
            }
            if (rest) {
                tails.append({object->description(), it.key(), list.size(), std::move(*rest)});
                rest.reset();
            }
        }
        if (rest)
            list += rest->make(list.size(), rest->total - list.size());
        takeTails(*it, pieceSize, tails);
    }
}

} // namespace

void ZTAgentHost::rootDidReceiveRegisterClient(ZTRootObject *root)
{
    Peer *peer = peerFor(root->connection());
    if (!peer || !m_root)
        return;
    VDConnection *connection = peer->connection.get();
    QVariant state;
    QList<StateTail> tails;
    if (m_pieceSize > 0) {
        {
            const zt::detail::DictionaryListLimit limit(m_pieceSize);
            state = m_root->dictionary();
        }
        takeTails(state, m_pieceSize, tails);
    } else {
        state = m_root->dictionary();
    }
    zt::Object *client = connection->proxyForRemoteObject();
    client->perform("handshakeFromAgent:", {state});
    state.clear();
    connection->setAllowWriting(true);
    // Each piece is made as it is sent: the client builds one while the
    // agent makes and encodes the next.
    for (StateTail &tail : tails) {
        for (qsizetype at = tail.from; at < tail.rest.total; at += m_pieceSize) {
            const qsizetype n = qMin(m_pieceSize, tail.rest.total - at);
            client->perform("agentDidInsertValues:atIndexes:forKey:objectID:",
                            {tail.rest.make(at, n),
                             QVariant::fromValue(zt::IndexSet::fromRange(quint64(at), quint64(n))), tail.key,
                             tail.objectID});
        }
        tail.rest = {}; // what it holds goes as it is sent
    }
    if (peer->registered)
        return; // registered again: the state was sent again, nothing else changes
    peer->registered = true;
    m_clients.append(connection);
    if (m_delegate)
        m_delegate->hostDidRegisterClient(this, connection);
}

void ZTAgentHost::onSocketDidDisconnect(VDConnection *connection)
{
    drop(connection);
}

void ZTAgentHost::drop(VDConnection *connection)
{
    Peer *peer = peerFor(connection);
    if (!peer)
        return;
    const Peer gone = *peer;
    m_peers.removeIf([connection](const Peer &p) { return p.connection.get() == connection; });
    m_clients.removeAll(connection);
    gone.connection->setDelegate(nullptr);
    gone.connection->setLocalObject(nullptr);
    releaseLater(gone.connection);
    if (gone.registered && m_delegate)
        m_delegate->hostDidLoseClient(this, connection);
}

zt::Object *ZTAgentHost::counterpart() const
{
    return m_fanOut.get();
}

void ZTAgentHost::sendToClients(zt::Invocation &invocation)
{
    if (m_clients.size() == 1) { // the usual case: no copy of the list
        const zt::Ref<VDConnection> only(m_clients.front());
        only->sendInvocationToRemoteObject(invocation);
        return;
    }
    // A send may end a connection (and its entry) before the loop is done.
    QList<zt::Ref<VDConnection>> clients;
    clients.reserve(m_clients.size());
    for (VDConnection *c : std::as_const(m_clients))
        clients.append(zt::Ref<VDConnection>(c));
    QVariant first;
    for (qsizetype i = 0; i < clients.size(); ++i) {
        clients[i]->sendInvocationToRemoteObject(invocation);
        if (i == 0)
            first = invocation.returnValue();
    }
    invocation.setReturnValue(first);
}

void ZTAgentHost::sendForwardedInvocation(zt::Invocation &invocation, const ZTAbstractIPC *object,
                                          const zt::Selector &selector)
{
    ZTIPCProxy::sendForwarded(invocation, object, selector, [this](zt::Invocation &i) { sendToClients(i); });
}
