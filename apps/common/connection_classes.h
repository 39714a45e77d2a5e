#pragma once
// The agent's and the client's connections, for tests and the demo.
//
// The agent's connection has no protocol engine: it records the lines the
// user typed (processOutgoingLine) and the raw lines written (writeString) in
// order; connect makes the next identity the current one. The client's connection forwards every protocol
// action to its mirror in the agent.
//
// Both build channels, the console, identities, transfers, settings, the
// proxy and the server from dictionary forms
// (the object with the dictionary's UUID when one is registered, else a new
// one) and answer personsWithName from their channels.

#include "channel_classes.h"
#include "model/ztconnection.h"
#include "network_classes.h"

namespace chatapps {

//! The person objects named `name` (ignoring case) in the connection's
//! channels, one per channel at most, in channel order.
QList<zt::Ref<ZTAbstractPerson>> personsWithName(const ZTAbstractConnection &connection, const QString &name);

} // namespace chatapps

class AgentConnection : public ZTAbstractConnection
{
    ZT_OBJECT(AgentConnection, ZTAbstractConnection)
public:
    //! Lines handed to processOutgoingLine, oldest first.
    const QStringList &outgoingLines() const { return m_outgoingLines; }
    //! Lines handed to writeString, oldest first.
    const QStringList &writtenStrings() const { return m_writtenStrings; }

    std::optional<QList<zt::Ref<ZTAbstractChannel>>>
    replacementObjectsForChannelDictionaries(const QVariantList &dictionaries) override;
    std::optional<QVariantList>
    replacementObjectsForHighlightDictionaries(const QVariantList &dictionaries) override;
    void setConsoleDictionary(const QVariant &dictionary) override;
    void setCurrentIdentityDictionary(const QVariant &dictionary) override;
    void setNextIdentityDictionary(const QVariant &dictionary) override;
    void setAdvancedSettingsDictionary(const QVariant &dictionary) override;
    void setProxyDictionary(const QVariant &dictionary) override;
    //! Stores the dictionary and takes the server it describes.
    void setServerDictionary(const QVariant &dictionary) override;
    std::optional<QList<zt::Ref<ZTAbstractTransfer>>>
    replacementObjectsForTransferDictionaries(const QVariantList &dictionaries) override;
    QList<zt::Ref<ZTAbstractPerson>> personsWithName(const QString &name) const override;

    void processOutgoingLine(const QString &line) override;
    void writeString(const QString &line) override;
    //! The next identity becomes the current one.
    void connect() override;
    //! "QUIT".
    void quit() override;
    void disconnectWithReason(const QString &reason) override;

private:
    QStringList m_outgoingLines;
    QStringList m_writtenStrings;
};

class ClientConnection : public ZTAbstractConnection
{
    ZT_OBJECT(ClientConnection, ZTAbstractConnection)
public:
    //! Also ends the mirrors of transfers that leave the list: the agent
    //! removes a transfer for good.
    void init() override;
    std::optional<QList<zt::Ref<ZTAbstractChannel>>>
    replacementObjectsForChannelDictionaries(const QVariantList &dictionaries) override;
    std::optional<QVariantList>
    replacementObjectsForHighlightDictionaries(const QVariantList &dictionaries) override;
    void setConsoleDictionary(const QVariant &dictionary) override;
    void setCurrentIdentityDictionary(const QVariant &dictionary) override;
    void setNextIdentityDictionary(const QVariant &dictionary) override;
    void setAdvancedSettingsDictionary(const QVariant &dictionary) override;
    void setProxyDictionary(const QVariant &dictionary) override;
    //! Stores the dictionary and takes the server it describes.
    void setServerDictionary(const QVariant &dictionary) override;
    std::optional<QList<zt::Ref<ZTAbstractTransfer>>>
    replacementObjectsForTransferDictionaries(const QVariantList &dictionaries) override;
    QList<zt::Ref<ZTAbstractPerson>> personsWithName(const QString &name) const override;

    // Forwarded to the agent.
    void connect() override;
    void quit() override;
    void disconnectWithReason(const QString &reason) override;
    void switchToAvailable() override;
    void switchToAway() override;
    void switchToOffline() override;
    void processOutgoingLine(const QString &line) override;
    void writeString(const QString &line) override;
    void fetchConnectionList() override;
    void didUpdateList(const QVariantList &list) override;
    void rehashNetworkIfPossible() override;
};
