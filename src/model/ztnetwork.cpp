#include "model/ztnetwork.h"

#include "core/ztdirectory.h"
#include "runtime/logging.h"

ZT_DEFINE_CLASS(ZTAbstractServer)
ZT_DEFINE_CLASS(ZTAbstractNetwork)
ZT_DEFINE_CLASS(ZTAbstractNetworkDirectory)

namespace {
// The defaults are empty strings, not nil: they take part in the dictionary.
QString emptyString()
{
    return QStringLiteral("");
}

template<typename T> QVariant listValue(const QList<zt::Ref<T>> &list)
{
    return zt::detail::objectValues(list);
}
} // namespace

// ---- server ----

void ZTAbstractServer::init()
{
    super::init();
    setAddress(emptyString());
    setPassword(emptyString());
    setPort(0);
    setSecure(false);
    setTrust(false);
}

void ZTAbstractServer::nilify()
{
    m_network.reset(); // breaks the server <-> network cycle
    super::nilify();
}

quint64 ZTAbstractServer::port() const
{
    if (m_port != 0)
        return m_port;
    return m_secure ? 6697 : 6667;
}

QString ZTAbstractServer::networkUUID() const
{
    return m_network ? m_network->networkUUID() : QString();
}

void ZTAbstractServer::setNetworkUUID(const QString &uuid)
{
    setNetwork(zt::dynamicCast<ZTAbstractNetwork>(ZTDirectory::sharedInstance()->objectWithID(uuid)));
}

bool ZTAbstractServer::isEqual(const ZTAbstractServer *other) const
{
    return other && other->isKindOfClass(classInfo()) &&
           m_address.compare(other->m_address, Qt::CaseInsensitive) == 0 && m_password == other->m_password &&
           port() == other->port() && m_secure == other->m_secure;
}

quint64 ZTAbstractServer::hash() const
{
    return ::qHash(*this);
}

size_t qHash(const ZTAbstractServer &server, size_t start)
{
    return qHashMulti(start, server.address().toCaseFolded(), server.password(), server.port(),
                      server.secure());
}

QString ZTAbstractServer::replacementKeyForWiring(const QString &key) const
{
    if (key == u"network")
        return QStringLiteral("networkUUID");
    return super::replacementKeyForWiring(key);
}

// ---- network ----

void ZTAbstractNetwork::init()
{
    super::init();
    setServers({});
    setName(emptyString());
    setAuthService(0);
    setIsCustom(false);
}

void ZTAbstractNetwork::nilify()
{
    m_servers.clear(); // the servers stay registered; their owner invalidates them
    super::nilify();
}

QVariantMap ZTAbstractNetwork::dictionary() const
{
    QVariantMap d = super::dictionary();
    d.insert(QStringLiteral("serverDictionaries"), serverDictionaries());
    return d;
}

QString ZTAbstractNetwork::replacementKeyForWiring(const QString &key) const
{
    if (key == u"servers")
        return QStringLiteral("serverDictionaries");
    return super::replacementKeyForWiring(key);
}

zt::Ref<ZTAbstractNetwork> ZTAbstractNetwork::networkWithName(const zt::ClassInfo *cls, const QString &name)
{
    if (!cls)
        return {};
    auto network = zt::dynamicCast<ZTAbstractNetwork>(cls->createInstance());
    if (!network)
        return {};
    network->init();
    network->setName(name);
    return network;
}

void ZTAbstractNetwork::addServer(const zt::Ref<ZTAbstractServer> &server)
{
    mutableServers().addObject(zt::objectValue(server.get()));
}

void ZTAbstractNetwork::removeServer(const zt::Ref<ZTAbstractServer> &server)
{
    zt::IndexSet indexes;
    for (qsizetype i = 0; i < m_servers.size(); ++i)
        if (m_servers[i]->isEqual(server.get()))
            indexes.add(quint64(i));
    if (indexes.isEmpty()) {
        zt::log(ztModel, u"[%@] Remove server %@: not in the network", this, server);
        return;
    }
    mutableServers().removeObjectsAtIndexes(indexes);
}

void ZTAbstractNetwork::insertServersAtLocations(const QList<zt::Ref<ZTAbstractServer>> &servers,
                                                 const zt::IndexSet &indexes)
{
    mutableServers().insertObjectsAtIndexes(zt::detail::objectValues(servers), indexes);
}

void ZTAbstractNetwork::removeServersAtLocations(const zt::IndexSet &indexes)
{
    mutableServers().removeObjectsAtIndexes(indexes);
}

qint64 ZTAbstractNetwork::indexOfServerWithAddressAndPort(const QString &address, quint64 port) const
{
    for (qsizetype i = 0; i < m_servers.size(); ++i)
        if (m_servers[i]->address().compare(address, Qt::CaseInsensitive) == 0 &&
            m_servers[i]->port() == port)
            return i;
    return NotFound;
}

QVariant ZTAbstractNetwork::newServer()
{
    return QVariantMap();
}

void ZTAbstractNetwork::updateFromDictionary(const QVariantMap &dictionary)
{
    zt::log(ztModel, u"Update %@ from dictionary %@", this, QVariant(dictionary));
    for (auto it = dictionary.cbegin(); it != dictionary.cend(); ++it)
        setValueForKey(it.value(), it.key());
}

std::optional<QList<zt::Ref<ZTAbstractServer>>>
ZTAbstractNetwork::replacementObjectsForServerDictionaries(const QVariantList &)
{
    return std::nullopt;
}

void ZTAbstractNetwork::encodeWithCoder(zt::KeyedArchiver &coder) const
{
    super::encodeWithCoder(coder);
    coder.encodeObject(zt::toValue(m_name), QStringLiteral("name"));
    coder.encodeObject(listValue(m_servers), QStringLiteral("servers"));
    coder.encodeInt64(m_authService, QStringLiteral("authService"));
    coder.encodeBool(m_isCustom, QStringLiteral("isCustom"));
}

void ZTAbstractNetwork::initWithCoder(zt::KeyedUnarchiver &coder)
{
    super::initWithCoder(coder);
    setName(zt::fromValue<QString>(coder.decodeObjectForKey(QStringLiteral("name"))));
    QList<zt::Ref<ZTAbstractServer>> servers;
    for (const QVariant &element : coder.decodeObjectForKey(QStringLiteral("servers")).toList())
        if (auto server = zt::fromValue<zt::Ref<ZTAbstractServer>>(element))
            servers.append(server); // anything else in the array is not a server: skipped
    setServers(servers);
    setAuthService(qint32(coder.decodeInt64ForKey(QStringLiteral("authService"))));
    setIsCustom(coder.decodeBoolForKey(QStringLiteral("isCustom")));
}

// ---- network directory ----

void ZTAbstractNetworkDirectory::init()
{
    super::init();
    setNetworkDictionaries({}); // converts nothing in the abstract class
}

void ZTAbstractNetworkDirectory::nilify()
{
    m_networks.clear();
    super::nilify();
}

QString ZTAbstractNetworkDirectory::staticUUID() const
{
    return QStringLiteral("NetworkDirectory");
}

QString ZTAbstractNetworkDirectory::replacementKeyForWiring(const QString &key) const
{
    if (key == u"networks")
        return QStringLiteral("networkDictionaries");
    return super::replacementKeyForWiring(key);
}

QVariantList ZTAbstractNetworkDirectory::networkDictionaries() const
{
    return zt::detail::dictionariesOf(m_networks);
}

void ZTAbstractNetworkDirectory::setNetworkDictionaries(const QVariantList &dictionaries)
{
    if (auto networks = replacementObjectsForNetworkDictionaries(dictionaries))
        setNetworks(*networks);
}

void ZTAbstractNetworkDirectory::insertNetworkDictionariesAtIndexes(const QVariantList &dictionaries,
                                                                    const zt::IndexSet &indexes)
{
    insertNetworksAtLocations(
        replacementObjectsForNetworkDictionaries(dictionaries).value_or(QList<zt::Ref<ZTAbstractNetwork>>()),
        indexes);
}

void ZTAbstractNetworkDirectory::removeNetworkDictionariesAtIndexes(const zt::IndexSet &indexes)
{
    removeNetworksAtLocations(indexes);
}

void ZTAbstractNetworkDirectory::addNetwork(const zt::Ref<ZTAbstractNetwork> &network)
{
    mutableNetworks().addObject(zt::objectValue(network.get()));
    saveData();
}

void ZTAbstractNetworkDirectory::removeNetwork(const zt::Ref<ZTAbstractNetwork> &network)
{
    zt::IndexSet indexes;
    for (qsizetype i = 0; i < m_networks.size(); ++i)
        if (m_networks[i] == network)
            indexes.add(quint64(i));
    if (indexes.isEmpty()) {
        zt::log(ztModel, u"[%@] Remove network %@: not in the directory", this, network);
        return;
    }
    mutableNetworks().removeObjectsAtIndexes(indexes);
}

void ZTAbstractNetworkDirectory::removeNetworks(const QList<zt::Ref<ZTAbstractNetwork>> &networks)
{
    for (const zt::Ref<ZTAbstractNetwork> &network : networks)
        removeNetwork(network);
}

void ZTAbstractNetworkDirectory::insertNetworksAtLocations(const QList<zt::Ref<ZTAbstractNetwork>> &networks,
                                                           const zt::IndexSet &indexes)
{
    zt::log(ztModel, u"[%@] Insert networks %@ at locations %@", this, listValue(networks),
            QVariant::fromValue(indexes));
    mutableNetworks().insertObjectsAtIndexes(zt::detail::objectValues(networks), indexes);
}

void ZTAbstractNetworkDirectory::removeNetworksAtLocations(const zt::IndexSet &indexes)
{
    zt::log(ztModel, u"[%@] Remove networks at locations %@", this, QVariant::fromValue(indexes));
    mutableNetworks().removeObjectsAtIndexes(indexes);
}

void ZTAbstractNetworkDirectory::saveData() {}

std::optional<QList<zt::Ref<ZTAbstractNetwork>>>
ZTAbstractNetworkDirectory::replacementObjectsForNetworkDictionaries(const QVariantList &)
{
    return std::nullopt;
}
