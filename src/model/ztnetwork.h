#pragma once
// Networks, servers and the network directory.
//
// An IRC network is a named, ordered list of servers; the network directory
// is the process-wide list of known networks. All three are mirrored model
// objects. Object-valued keys cross the process boundary in their wired form:
//   server "network"            -> "networkUUID"
//   network "servers"           -> "serverDictionaries"
//   network directory "networks" -> "networkDictionaries"
// Turning dictionaries back into objects is each process's business: the
// concrete subclasses answer replacementObjectsForServerDictionaries /
// replacementObjectsForNetworkDictionaries (nullopt here, which leaves the
// list alone in the setters) and networkClass()/serverClass().
//
// Ownership: the ZTDirectory retains servers and networks while they are
// registered (isRetainedByDirectory), so whoever removes one for good must
// invalidate it. A server's `network` and a network's `servers` reference
// each other; nilify() (run by invalidate) drops both directions.
//
// Class operations: networkClass()/serverClass() are static functions that
// each concrete class hides with its own; networkWithName<T>() asks T's.

#include "core/ztabstractipc.h"
#include "runtime/members.h"

#include <limits>
#include <optional>

class ZTAbstractNetwork;

class ZT_EXPORT ZTAbstractServer : public ZTAbstractIPC
{
    ZT_OBJECT(ZTAbstractServer, ZTAbstractIPC)
public:
    //! The network that lists this server (a back reference the adder sets).
    ZT_PROPERTY(zt::Ref<ZTAbstractNetwork>, network, setNetwork)
    ZT_PROPERTY(QString, address, setAddress, zt::InDictionary::WhenNotNil)
    ZT_PROPERTY(QString, password, setPassword, zt::InDictionary::WhenNotNil)
    //! The effective port: the stored one, or 6697 (secure) / 6667 while 0 is stored.
    ZT_PROPERTY_GET(quint64, port, setPort, zt::InDictionary::Always)
    ZT_PROPERTY(bool, secure, setSecure, zt::InDictionary::Always)
    ZT_PROPERTY(bool, trust, setTrust, zt::InDictionary::Always)
    //! The network's UUID; setting it looks the UUID up in the directory
    //! (an unknown one leaves `network` null).
    ZT_KEY(networkUUID, setNetworkUUID, zt::InDictionary::WhenNotNil)

    QString networkUUID() const;
    void setNetworkUUID(const QString &uuid);
    //! The port as stored (0 while the default applies).
    quint64 storedPort() const { return m_port; }

    //! Same class (or a subclass of the receiver's), address equal ignoring
    //! case, password equal exactly, same effective port and `secure`.
    //! `trust` and `network` take no part.
    bool isEqual(const ZTAbstractServer *other) const;
    //! Consistent with isEqual: equal servers hash alike.
    quint64 hash() const;

    void init() override;
    void nilify() override;
    QString replacementKeyForWiring(const QString &key) const override;
    bool isRetainedByDirectory() const override { return true; }
};

//! For QHash/QSet of servers compared by the server rule.
ZT_EXPORT size_t qHash(const ZTAbstractServer &server, size_t start = 0);

class ZT_EXPORT ZTAbstractNetwork : public ZTAbstractIPC
{
    ZT_OBJECT(ZTAbstractNetwork, ZTAbstractIPC)
public:
    //! The servers in the user's order; wired as "serverDictionaries".
    ZT_WIRED_TO_MANY(ZTAbstractServer, servers, Servers, serverDictionaries, ServerDictionaries)
    ZT_PROPERTY(QString, name, setName, zt::InDictionary::WhenNotNil)
    //! The services-authentication scheme, interpreted by the protocol engine.
    ZT_PROPERTY(qint32, authService, setAuthService, zt::InDictionary::Always)
    //! Added by the user rather than shipped with the product.
    ZT_PROPERTY(bool, isCustom, setIsCustom, zt::InDictionary::Always)
    //! The network's own UUID.
    ZT_READONLY_KEY(networkUUID)
    ZT_METHOD("addServer:", addServer)
    ZT_METHOD("removeServer:", removeServer)
    ZT_METHOD("insertServers:atLocations:", insertServersAtLocations)
    ZT_METHOD("removeServersAtLocations:", removeServersAtLocations)
    ZT_METHOD("indexOfServerWithAddress:andPort:", indexOfServerWithAddressAndPort)
    ZT_METHOD("newServer", newServer)
    ZT_METHOD("updateFromDictionary:", updateFromDictionary)

    //! The not-found marker of indexOfServerWithAddressAndPort.
    static constexpr qint64 NotFound = std::numeric_limits<qint64>::max();

    QString networkUUID() const { return description(); }

    //! The concrete classes each process instantiates; null here.
    static const zt::ClassInfo *networkClass() { return nullptr; }
    static const zt::ClassInfo *serverClass() { return nullptr; }
    //! A new network of class `cls` (made with init) named `name`; null for a
    //! null class or one that is not a network.
    static zt::Ref<ZTAbstractNetwork> networkWithName(const zt::ClassInfo *cls, const QString &name);
    //! networkWithName with T::networkClass().
    template<typename T> static zt::Ref<ZTAbstractNetwork> networkWithName(const QString &name)
    {
        return networkWithName(T::networkClass(), name);
    }

    //! Appends through the "servers" mutation (announced as an insertion).
    void addServer(const zt::Ref<ZTAbstractServer> &server);
    //! Removes every server equal to `server` (server equality); a server
    //! the network does not list is a no-op with a log line.
    void removeServer(const zt::Ref<ZTAbstractServer> &server);
    void insertServersAtLocations(const QList<zt::Ref<ZTAbstractServer>> &servers,
                                  const zt::IndexSet &indexes);
    void removeServersAtLocations(const zt::IndexSet &indexes);
    //! The first server with that address (ignoring case) and effective
    //! port; NotFound when none has.
    qint64 indexOfServerWithAddressAndPort(const QString &address, quint64 port) const;
    //! An empty dictionary here; concrete networks answer a new server.
    virtual QVariant newServer();
    //! Logs "Update %@ from dictionary %@", then sets every entry by
    //! key-value coding in the dictionary's order.
    void updateFromDictionary(const QVariantMap &dictionary);

    //! Server objects for the dictionaries; nullopt here.
    virtual std::optional<QList<zt::Ref<ZTAbstractServer>>>
    replacementObjectsForServerDictionaries(const QVariantList &dictionaries);

    void init() override;
    void nilify() override;
    QVariantMap dictionary() const override;
    QString replacementKeyForWiring(const QString &key) const override;
    bool isRetainedByDirectory() const override { return true; }
    //! Keys "name", "servers", "authService" (32-bit), "isCustom"; a missing
    //! key decodes as nil, 0 or NO.
    void encodeWithCoder(zt::KeyedArchiver &coder) const override;
    void initWithCoder(zt::KeyedUnarchiver &coder) override;
};

//! The process-wide list of networks. Its fixed UUID "NetworkDirectory" is
//! shared with the person list controller: create the network directory
//! first in both processes (the first registration keeps the UUID).
class ZT_EXPORT ZTAbstractNetworkDirectory : public ZTAbstractIPC
{
    ZT_OBJECT(ZTAbstractNetworkDirectory, ZTAbstractIPC)
public:
    ZT_TO_MANY(ZTAbstractNetwork, networks, Networks)
    //! The wired form of "networks": each network's dictionary.
    ZT_KEY(networkDictionaries, setNetworkDictionaries)
    ZT_METHOD("insertNetworkDictionaries:atIndexes:", insertNetworkDictionariesAtIndexes)
    ZT_METHOD("removeNetworkDictionariesAtIndexes:", removeNetworkDictionariesAtIndexes)
    ZT_METHOD("addNetwork:", addNetwork)
    ZT_METHOD("removeNetwork:", removeNetwork)
    ZT_METHOD("removeNetworks:", removeNetworks)
    ZT_METHOD("insertNetworks:atLocations:", insertNetworksAtLocations)
    ZT_METHOD("removeNetworksAtLocations:", removeNetworksAtLocations)
    ZT_METHOD("saveData", saveData)

    QVariantList networkDictionaries() const;
    void setNetworkDictionaries(const QVariantList &dictionaries);
    void insertNetworkDictionariesAtIndexes(const QVariantList &dictionaries, const zt::IndexSet &indexes);
    void removeNetworkDictionariesAtIndexes(const zt::IndexSet &indexes);

    //! Appends through the "networks" mutation, then saves.
    void addNetwork(const zt::Ref<ZTAbstractNetwork> &network);
    //! Remove every occurrence; neither saves. An unknown network is a
    //! no-op with a log line.
    void removeNetwork(const zt::Ref<ZTAbstractNetwork> &network);
    void removeNetworks(const QList<zt::Ref<ZTAbstractNetwork>> &networks);
    //! Logs "[%@] Insert networks %@ at locations %@", then inserts.
    void insertNetworksAtLocations(const QList<zt::Ref<ZTAbstractNetwork>> &networks,
                                   const zt::IndexSet &indexes);
    //! Logs "[%@] Remove networks at locations %@", then removes.
    void removeNetworksAtLocations(const zt::IndexSet &indexes);
    //! Persists the list; nothing here (the agent's directory stores it).
    virtual void saveData();

    //! Network objects for the dictionaries; nullopt here.
    virtual std::optional<QList<zt::Ref<ZTAbstractNetwork>>>
    replacementObjectsForNetworkDictionaries(const QVariantList &dictionaries);

    void init() override;
    void nilify() override;
    QString staticUUID() const override;
    QString replacementKeyForWiring(const QString &key) const override;
};
