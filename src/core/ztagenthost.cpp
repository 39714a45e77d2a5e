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

// A list's ListRemainder, if it ends with one.
const ListRemainder *remainderOf(const QVariantList &list)
{
    if (list.isEmpty() || list.constLast().metaType() != QMetaType::fromType<ListRemainder>())
        return nullptr;
    return static_cast<const ListRemainder *>(list.constLast().constData());
}

std::optional<QVariant> withTails(const QVariant &value, qsizetype pieceSize, QList<StateTail> &tails);

// The list with its tail taken (when `owner` inserts into `key` by index) or
// its remainder made, and its elements' tails taken; nullopt when nothing
// changes. A list the owner inserts into, made whole and longer than a
// piece, is split the same way.
std::optional<QVariantList> listWithTails(const QVariantList &list, qsizetype pieceSize,
                                          QList<StateTail> &tails, const ZTAbstractIPC *owner,
                                          const QString &key)
{
    std::optional<QVariantList> out;
    const ListRemainder *remainder = remainderOf(list);
    const qsizetype made = remainder ? list.size() - 1 : list.size();
    // By index, one piece at a time: a key with no indexed insertion would
    // take each piece as a copy of the whole list.
    if ((remainder || made > pieceSize) && owner && owner->classInfo().accessorsForKey(key).insertMany) {
        const qsizetype kept = qMin(made, pieceSize);
        ListRemainder rest = remainder
                                 ? *remainder
                                 : ListRemainder{[after = list.mid(kept), kept](qsizetype from, qsizetype n) {
                                                     return after.mid(from - kept, n);
                                                 },
                                                 made};
        tails.append({owner->description(), key, kept, std::move(rest)});
        out = list.first(kept);
    } else if (remainder) {
        out = list.first(made) + remainder->make(made, remainder->total - made);
    }
    const QVariantList &elements = out ? *out : list;
    for (qsizetype i = 0; i < elements.size(); ++i) {
        if (std::optional<QVariant> changed = withTails(elements[i], pieceSize, tails)) {
            if (!out)
                out = list;
            (*out)[i] = std::move(*changed);
        }
    }
    return out;
}

// Takes the tails of long lists out of a dictionary form made under a
// DictionaryListLimit, depth first, reading it only: a container is copied
// (one level) only on the way to a change, so the lines and other shared
// values of a large model are neither copied nor detached. Answers the
// changed value, or nullopt when nothing under it changes.
std::optional<QVariant> withTails(const QVariant &value, qsizetype pieceSize, QList<StateTail> &tails)
{
    if (value.typeId() == QMetaType::QVariantList) {
        auto list = listWithTails(*static_cast<const QVariantList *>(value.constData()), pieceSize, tails,
                                  nullptr, {});
        return list ? std::optional<QVariant>(std::move(*list)) : std::nullopt;
    }
    if (value.typeId() != QMetaType::QVariantMap)
        return std::nullopt;
    const auto &map = *static_cast<const QVariantMap *>(value.constData());
    std::optional<QVariantMap> out;
    std::optional<zt::Ref<ZTAbstractIPC>> owner; // looked up when a list may be split
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        std::optional<QVariant> changed;
        if (it->typeId() == QMetaType::QVariantList) {
            const auto &list = *static_cast<const QVariantList *>(it->constData());
            if (!owner && (list.size() > pieceSize || remainderOf(list))) {
                const QVariant id = map.value(QStringLiteral("description"));
                owner = id.typeId() == QMetaType::QString
                            ? ZTDirectory::sharedInstance()->objectWithID(id.toString())
                            : zt::Ref<ZTAbstractIPC>();
            }
            if (auto changedList =
                    listWithTails(list, pieceSize, tails, owner ? owner->get() : nullptr, it.key()))
                changed = QVariant(std::move(*changedList));
        } else {
            changed = withTails(*it, pieceSize, tails);
        }
        if (changed) {
            if (!out)
                out = map;
            out->insert(it.key(), std::move(*changed));
        }
    }
    return out ? std::optional<QVariant>(std::move(*out)) : std::nullopt;
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
        if (std::optional<QVariant> changed = withTails(state, m_pieceSize, tails))
            state = std::move(*changed);
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
