#pragma once
// The three per-process roots of the chat model. Each is a singleton with a
// fixed staticUUID(), so the agent's and the client's instances are
// counterparts from the start; make them with plain init() in both
// processes.
//
//   ZTAbstractConnectionController  "ConnectionController"  all connections
//   ZTAbstractIdentityController    "IdentityController"    the user's self identities
//   ZTAbstractPersonListController  "NetworkDirectory"      the pseudo-persons
//
// The person list controller shares its UUID with the network directory:
// whichever of the two registers first in a process is the one found under
// it (the directory keeps the first registration).
//
// Wiring: "connections" → "connectionDictionaries", "identities" →
// "identityDictionaries", "pseudoPersons" → "pseudoPersonDictionaries". The
// concrete controllers rebuild the objects from the dictionaries.

#include "model/ztconnection.h"

class ZTAbstractSelfIdentity;
class ZTAbstractPseudoPerson;
class ZTAbstractNetwork;

class ZT_EXPORT ZTAbstractConnectionController : public ZTAbstractIPC
{
    ZT_OBJECT(ZTAbstractConnectionController, ZTAbstractIPC)
public:
    ZTAbstractConnectionController();
    ~ZTAbstractConnectionController() override;

    ZT_WIRED_TO_MANY(ZTAbstractConnection, connections, Connections, connectionDictionaries,
                     ConnectionDictionaries)
    //! Abstract: nil (so setConnectionDictionaries changes nothing here).
    virtual std::optional<QList<zt::Ref<ZTAbstractConnection>>>
    replacementObjectsForConnectionDictionaries(const QVariantList &dictionaries);

    //! Appends through the announcing view of "connections".
    void addConnection(const zt::Ref<ZTAbstractConnection> &connection);
    ZT_METHOD("addConnection:", addConnection)
    //! Removes every element of the array (each occurrence).
    void removeConnections(const QList<zt::Ref<ZTAbstractConnection>> &connections);
    ZT_METHOD("removeConnections:", removeConnections)
    void removeConnection(const zt::Ref<ZTAbstractConnection> &connection);
    ZT_METHOD("removeConnection:", removeConnection)

    //! Every connection's channels, in connection order, then every
    //! connection's console, in connection order.
    QList<zt::Ref<ZTAbstractChannel>> allChannels() const;
    ZT_READONLY_KEY(allChannels)
    //! The channels of allChannels() named `name`, ignoring case. Without a
    //! name, logs "Bad key given (value: %@)." and answers nil.
    std::optional<QList<zt::Ref<ZTAbstractChannel>>> allChannelsForName(const QString &name) const;
    QVariant allChannelsForNameValue(const QString &name) const;
    ZT_METHOD("allChannelsForName:", allChannelsForNameValue)

    void init() override;
    void nilify() override;
    QString staticUUID() const override;
    //! Only "connections" propagates.
    bool shouldPropagateValueChangesForKey(const QString &key) const override;
    QString replacementKeyForWiring(const QString &key) const override;

protected:
    void dealloc() override;

private:
    static void invalidateConnections(const QList<zt::Ref<ZTAbstractConnection>> &connections);
};

class ZT_EXPORT ZTAbstractIdentityController : public ZTAbstractIPC
{
    ZT_OBJECT(ZTAbstractIdentityController, ZTAbstractIPC)
public:
    ZTAbstractIdentityController();
    ~ZTAbstractIdentityController() override;

    ZT_WIRED_TO_MANY_OUT_OF_LINE(ZTAbstractSelfIdentity, identities, Identities, identityDictionaries,
                                 IdentityDictionaries)
    //! Abstract: raises "Abstract method" ("Implement
    //! -replacementObjectsForIdentityDictionaries: in <class>").
    virtual std::optional<QList<zt::Ref<ZTAbstractSelfIdentity>>>
    replacementObjectsForIdentityDictionaries(const QVariantList &dictionaries);

    void addIdentity(const zt::Ref<ZTAbstractSelfIdentity> &identity);
    ZT_METHOD("addIdentity:", addIdentity)
    //! Removes every element of the array; the identities stay valid.
    void removeIdentities(const QList<zt::Ref<ZTAbstractSelfIdentity>> &identities);
    ZT_METHOD("removeIdentities:", removeIdentities)
    void removeIdentity(const zt::Ref<ZTAbstractSelfIdentity> &identity);
    ZT_METHOD("removeIdentity:", removeIdentity)
    void insertIdentitiesAtLocations(const QList<zt::Ref<ZTAbstractSelfIdentity>> &identities,
                                     const zt::IndexSet &indexes);
    ZT_METHOD("insertIdentities:atLocations:", insertIdentitiesAtLocations)
    void removeIdentitiesAtLocations(const zt::IndexSet &indexes);
    ZT_METHOD("removeIdentitiesAtLocations:", removeIdentitiesAtLocations)

    void init() override;
    //! Invalidates the identities still held: they end with the controller
    //! (its removals leave them valid).
    void nilify() override;
    QString staticUUID() const override;
    //! Only "identities" propagates.
    bool shouldPropagateValueChangesForKey(const QString &key) const override;
    QString replacementKeyForWiring(const QString &key) const override;

protected:
    void dealloc() override;
};

class ZT_EXPORT ZTAbstractPersonListController : public ZTAbstractIPC
{
    ZT_OBJECT(ZTAbstractPersonListController, ZTAbstractIPC)
public:
    ZTAbstractPersonListController();
    ~ZTAbstractPersonListController() override;

    //! A nil conversion leaves the list unchanged.
    ZT_WIRED_TO_MANY_OUT_OF_LINE(ZTAbstractPseudoPerson, pseudoPersons, PseudoPersons,
                                 pseudoPersonDictionaries, PseudoPersonDictionaries)
    //! Abstract: nil.
    virtual std::optional<QList<zt::Ref<ZTAbstractPseudoPerson>>>
    replacementObjectsForPseudoPersonDictionaries(const QVariantList &dictionaries);

    void addPseudoPerson(const zt::Ref<ZTAbstractPseudoPerson> &pseudoPerson);
    ZT_METHOD("addPseudoPerson:", addPseudoPerson)
    //! Removes every occurrence.
    void removePseudoPerson(const zt::Ref<ZTAbstractPseudoPerson> &pseudoPerson);
    ZT_METHOD("removePseudoPerson:", removePseudoPerson)
    void removePseudoPersons(const QList<zt::Ref<ZTAbstractPseudoPerson>> &pseudoPersons);
    ZT_METHOD("removePseudoPersons:", removePseudoPersons)
    void insertPseudoPersonsAtLocations(const QList<zt::Ref<ZTAbstractPseudoPerson>> &pseudoPersons,
                                        const zt::IndexSet &indexes);
    ZT_METHOD("insertPseudoPersons:atLocations:", insertPseudoPersonsAtLocations)
    void removePseudoPersonsAtLocations(const zt::IndexSet &indexes);
    ZT_METHOD("removePseudoPersonsAtLocations:", removePseudoPersonsAtLocations)

    // ---- look-ups ----
    //! Every pseudo-person, in order, that matches the person.
    QList<zt::Ref<ZTAbstractPseudoPerson>> matchesForPerson(const zt::Ref<ZTAbstractPerson> &person) const;
    ZT_METHOD("matchesForPerson:", matchesForPerson)
    //! Those whose real person's nickname equals `name`, ignoring case.
    QList<zt::Ref<ZTAbstractPseudoPerson>> pseudoPersonsWithName(const QString &name) const;
    ZT_METHOD("pseudoPersonsWithName:", pseudoPersonsWithName)
    //! Those of pseudoPersonsWithName whose real person is on the network.
    QList<zt::Ref<ZTAbstractPseudoPerson>>
    pseudoPersonsWithNameOnNetwork(const QString &name, const zt::Ref<ZTAbstractNetwork> &network) const;
    ZT_METHOD("pseudoPersonsWithName:onNetwork:", pseudoPersonsWithNameOnNetwork)
    //! Every pseudo-person's real person, in order; the null marker for one
    //! without a real person.
    QVariantList realPersons() const;
    ZT_READONLY_KEY(realPersons)
    //! The real persons whose nickname equals `name`, ignoring case.
    QList<zt::Ref<ZTAbstractPerson>> realPersonsWithName(const QString &name) const;
    ZT_METHOD("realPersonsWithName:", realPersonsWithName)
    //! Those of realPersonsWithName on the network.
    QList<zt::Ref<ZTAbstractPerson>>
    personsWithNameOnNetwork(const QString &name, const zt::Ref<ZTAbstractNetwork> &network) const;
    ZT_METHOD("personsWithName:onNetwork:", personsWithNameOnNetwork)
    //! Looks the network up in the directory, then addPersonWithMask:onNetwork:.
    zt::Ref<ZTAbstractPseudoPerson> addPersonWithMaskOnNetworkWithUUID(const QString &mask,
                                                                       const QString &uuid);
    ZT_METHOD("addPersonWithMask:onNetworkWithUUID:", addPersonWithMaskOnNetworkWithUUID)
    //! Abstract: nil.
    virtual zt::Ref<ZTAbstractPseudoPerson>
    addPersonWithMaskOnNetwork(const QString &mask, const zt::Ref<ZTAbstractNetwork> &network);
    ZT_METHOD("addPersonWithMask:onNetwork:", addPersonWithMaskOnNetwork)
    //! The ignore-rule controller; nil here. Whatever object the concrete
    //! class answers is sent "emptyRuleCache" whenever the list changes.
    virtual zt::Ref<zt::Object> ruleController() const;
    ZT_READONLY_KEY(ruleController)

    void init() override;
    //! Invalidates the pseudo-persons still held.
    void nilify() override;
    QString staticUUID() const override;
    //! The base class's rule, unless another object holds this controller's
    //! UUID in the directory: one that lost the UUID to the network
    //! directory would address the directory's mirror, so it keeps its
    //! changes local.
    bool shouldPropagateValueChangesForKey(const QString &key) const override;
    QString replacementKeyForWiring(const QString &key) const override;

protected:
    void dealloc() override;
};
