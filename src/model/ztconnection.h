#pragma once
// ZTAbstractConnection: one configured IRC connection.
//
// It ties together the server in use, the identity presented now and the one
// for the next connect, the channels (queries and the console included), the
// file transfers, the proxy and the advanced settings, and the state the
// engine reports (nickname, user modes, status, unread counters, the server's
// channel list). Every protocol action (connect, quit, processOutgoingLine,
// writeString …) is empty here: the agent's subclass performs it and the
// client's forwards it to the agent.
//
// Ownership: the connection owns its channels, transfers, server (unless a
// network lists it), identities (unless the identity controller lists them),
// proxy, settings and console. A channel that
// leaves "channels" is invalidated and loses its back reference;
// invalidating (or tearing down) the connection invalidates everything it
// still owns, and sends nothing to the mirror meanwhile.
//
// Dictionary form: the base one ({"description": UUID}); the state reaches
// the mirror as property changes. Wiring: "server" → "serverDictionary",
// "currentIdentity" → "currentIdentityDictionary", "nextIdentity" →
// "nextIdentityDictionary", "channels" → "channelDictionaries", "transfers" →
// "transferDictionaries", "advancedSettings" → "advancedSettingsDictionary",
// "proxy" → "proxyDictionary", and for the two object-valued keys that have
// no form of their own: "console" → "consoleDictionary", "highlights" →
// "highlightDictionaries".
//
// Accessors of keys whose values belong to other model families are defined
// out of line, so that this header needs only their declarations.

#include "model/ztchannel.h"

class ZTAbstractServer;
class ZTAbstractSelfIdentity;
class ZTAbstractTransfer;
class ZTAbstractProxy;

class ZT_EXPORT ZTAbstractConnection : public ZTAbstractIPC
{
    ZT_OBJECT(ZTAbstractConnection, ZTAbstractIPC)
public:
    ZTAbstractConnection();
    ~ZTAbstractConnection() override;

    // ---- channels (ordered to-many; wired as "channelDictionaries") ----
    ZT_WIRED_TO_MANY(ZTAbstractChannel, channels, Channels, channelDictionaries, ChannelDictionaries)
    //! Abstract: nil. The concrete class makes (or finds by UUID) its channels.
    virtual std::optional<QList<zt::Ref<ZTAbstractChannel>>>
    replacementObjectsForChannelDictionaries(const QVariantList &dictionaries);

    // ---- transfers (ordered to-many; wired as "transferDictionaries") ----
    ZT_WIRED_TO_MANY_OUT_OF_LINE(ZTAbstractTransfer, transfers, Transfers, transferDictionaries,
                                 TransferDictionaries)
    //! Abstract: nil.
    virtual std::optional<QList<zt::Ref<ZTAbstractTransfer>>>
    replacementObjectsForTransferDictionaries(const QVariantList &dictionaries);

    // ---- single related objects and their wired forms ----
    zt::Ref<ZTAbstractAdvancedSettings> advancedSettings() const;
    void setAdvancedSettings(const zt::Ref<ZTAbstractAdvancedSettings> &settings);
    ZT_KEY(advancedSettings, setAdvancedSettings)
    QVariant advancedSettingsDictionary() const;
    //! Abstract: logs "Abstract method: setAdvancedSettingsDictionary:".
    virtual void setAdvancedSettingsDictionary(const QVariant &dictionary);
    ZT_KEY(advancedSettingsDictionary, setAdvancedSettingsDictionary)

    zt::Ref<ZTAbstractSelfIdentity> currentIdentity() const;
    void setCurrentIdentity(const zt::Ref<ZTAbstractSelfIdentity> &identity);
    ZT_KEY(currentIdentity, setCurrentIdentity)
    QVariant currentIdentityDictionary() const;
    //! Abstract: logs "Abstract method: setCurrentIdentityDictionary:".
    virtual void setCurrentIdentityDictionary(const QVariant &dictionary);
    ZT_KEY(currentIdentityDictionary, setCurrentIdentityDictionary)

    zt::Ref<ZTAbstractSelfIdentity> nextIdentity() const;
    void setNextIdentity(const zt::Ref<ZTAbstractSelfIdentity> &identity);
    ZT_KEY(nextIdentity, setNextIdentity)
    QVariant nextIdentityDictionary() const;
    //! Abstract: logs "Abstract method: setNextIdentityDictionary:".
    virtual void setNextIdentityDictionary(const QVariant &dictionary);
    ZT_KEY(nextIdentityDictionary, setNextIdentityDictionary)

    zt::Ref<ZTAbstractServer> server() const;
    void setServer(const zt::Ref<ZTAbstractServer> &server);
    ZT_KEY(server, setServer)
    //! The current server's dictionary (nil without a server); the stored
    //! value is not consulted.
    QVariant serverDictionary() const;
    //! Only stores the dictionary (storedServerDictionary); builds no server.
    virtual void setServerDictionary(const QVariant &dictionary);
    ZT_KEY(serverDictionary, setServerDictionary)
    QVariant storedServerDictionary() const { return m_serverDictionary; }

    zt::Ref<ZTAbstractProxy> proxy() const;
    void setProxy(const zt::Ref<ZTAbstractProxy> &proxy);
    ZT_KEY(proxy, setProxy)
    QVariant proxyDictionary() const;
    //! Abstract: logs "Abstract method: setProxyDictionary:".
    virtual void setProxyDictionary(const QVariant &dictionary);
    ZT_KEY(proxyDictionary, setProxyDictionary)

    //! The console channel of this connection.
    ZT_PROPERTY(zt::Ref<ZTAbstractChannel>, console, setConsole)
    //! The console's dictionary; nil without a console.
    QVariant consoleDictionary() const;
    //! Abstract: logs "Abstract method: setConsoleDictionary:".
    virtual void setConsoleDictionary(const QVariant &dictionary);
    ZT_KEY(consoleDictionary, setConsoleDictionary)

    //! Highlight entries: model objects (their dictionary form is wired) or
    //! plain values.
    ZT_PROPERTY(QVariantList, highlights, setHighlights)
    //! Commands run after connecting.
    ZT_PROPERTY(QVariantList, autoexec, setAutoexec)
    //! The server's channel list as last fetched.
    ZT_PROPERTY(QVariantList, channelList, setChannelList)
    //! The wired form of "highlights": each entry's dictionary, or the entry
    //! itself when it is a plain value.
    QVariantList highlightDictionaries() const;
    //! Stores the received form and rebuilds "highlights" through
    //! replacementObjectsForHighlightDictionaries.
    void setHighlightDictionaries(const QVariantList &dictionaries);
    ZT_KEY(highlightDictionaries, setHighlightDictionaries)
    QVariant storedHighlightDictionaries() const { return m_highlightDictionaries; }
    //! Abstract: nil (the list stays as it is).
    virtual std::optional<QVariantList>
    replacementObjectsForHighlightDictionaries(const QVariantList &dictionaries);
    ZT_PROPERTY(QVariant, autoexecDictionaries, setAutoexecDictionaries)
    //! Free-form connection state kept by the engine.
    ZT_PROPERTY(QVariantMap, attributes, setAttributes)

    // ---- state ----
    //! The nickname held on the server ("" before any).
    ZT_PROPERTY(QString, nickname, setNickname)
    //! The user modes set; nil before any.
    ZT_PROPERTY(QString, modes, setModes)
    ZT_PROPERTY(qint32, disconnectReason, setDisconnectReason)
    //! Text encoding; channels with encoding 0 inherit it.
    ZT_PROPERTY(quint64, encoding, setEncoding)
    //! 3 until the connection first connects.
    ZT_PROPERTY(qint16, status, setStatus)
    ZT_PROPERTY(bool, focusAfterAdd, setFocusAfterAdd)
    ZT_PROPERTY(bool, expanded, setExpanded)
    ZT_PROPERTY(quint64, index, setIndex)
    //! Seconds before joining channels after connecting.
    ZT_PROPERTY(double, joinDelay, setJoinDelay)
    ZT_PROPERTY(quint64, unreadLines, setUnreadLines)
    ZT_PROPERTY(quint64, unreadHighlights, setUnreadHighlights)
    ZT_PROPERTY(bool, listing, setListing)
    ZT_PROPERTY(QString, preferredNetworkUUID, setPreferredNetworkUUID)
    ZT_PROPERTY(QString, preferredAddress, setPreferredAddress)
    ZT_PROPERTY(quint64, preferredPort, setPreferredPort)

    //! The connection's own UUID.
    QString connectionUUID() const { return description(); }
    ZT_READONLY_KEY(connectionUUID)
    bool isConnection() const { return true; }
    ZT_READONLY_KEY(isConnection)
    bool isGroup() const { return false; }
    ZT_READONLY_KEY(isGroup)
    bool isConsole() const { return false; }
    ZT_READONLY_KEY(isConsole)
    bool isChannel() const { return false; }
    ZT_READONLY_KEY(isChannel)

    // ---- object life ----
    void init() override;
    //! Tears down without sending anything: the mirror is torn down by its
    //! own owner, and a change sent now would drop its parts uninvalidated.
    void nilify() override;
    //! The base class's rule, except while nilify() runs.
    bool shouldPropagateValueChangesForKey(const QString &key) const override;
    QString replacementKeyForWiring(const QString &key) const override;

    // ---- channel and transfer bookkeeping (all through the announcing views) ----
    void addChannel(const zt::Ref<ZTAbstractChannel> &channel);
    ZT_METHOD("addChannel:", addChannel)
    void addChannels(const QList<zt::Ref<ZTAbstractChannel>> &channels);
    ZT_METHOD("addChannels:", addChannels)
    //! Removes every occurrence.
    void removeChannel(const zt::Ref<ZTAbstractChannel> &channel);
    ZT_METHOD("removeChannel:", removeChannel)
    void removeChannelsInArray(const QList<zt::Ref<ZTAbstractChannel>> &channels);
    ZT_METHOD("removeChannelsInArray:", removeChannelsInArray)
    void removeAllChannels();
    ZT_METHOD("removeAllChannels", removeAllChannels)
    void insertChannelsAtLocations(const QList<zt::Ref<ZTAbstractChannel>> &channels,
                                   const zt::IndexSet &indexes);
    ZT_METHOD("insertChannels:atLocations:", insertChannelsAtLocations)
    void removeChannelsAtLocations(const zt::IndexSet &indexes);
    ZT_METHOD("removeChannelsAtLocations:", removeChannelsAtLocations)
    void addTransfer(const zt::Ref<ZTAbstractTransfer> &transfer);
    ZT_METHOD("addTransfer:", addTransfer)
    //! Removes the first occurrence; an unknown transfer changes nothing.
    void removeTransfer(const zt::Ref<ZTAbstractTransfer> &transfer);
    ZT_METHOD("removeTransfer:", removeTransfer)
    void insertTransfersAtLocations(const QList<zt::Ref<ZTAbstractTransfer>> &transfers,
                                    const zt::IndexSet &indexes);
    ZT_METHOD("insertTransfers:atLocations:", insertTransfersAtLocations)
    void removeTransfersAtLocations(const zt::IndexSet &indexes);
    ZT_METHOD("removeTransfersAtLocations:", removeTransfersAtLocations)

    // ---- look-ups ----
    //! The first channel (queries and the console included) named `name`,
    //! ignoring case.
    zt::Ref<ZTAbstractChannel> channelWithName(const QString &name) const;
    ZT_METHOD("channelWithName:", channelWithName)
    //! The first query named `name`, ignoring case.
    zt::Ref<ZTAbstractChannel> queryWithName(const QString &name) const;
    ZT_METHOD("queryWithName:", queryWithName)
    //! The person objects with this nickname on this connection, one per
    //! channel. Abstract: empty; the concrete classes answer it.
    virtual QList<zt::Ref<ZTAbstractPerson>> personsWithName(const QString &name) const;
    ZT_METHOD("personsWithName:", personsWithName)

    // ---- protocol actions, performed by the agent's subclass ----
    virtual void connect() {}
    ZT_ACTION("connect", connect)
    virtual void quit() {}
    ZT_ACTION("quit", quit)
    virtual void disconnectWithReason(const QString &reason) { Q_UNUSED(reason); }
    ZT_ACTION("disconnectWithReason:", disconnectWithReason)
    virtual void switchToAvailable() {}
    ZT_ACTION("switchToAvailable", switchToAvailable)
    virtual void switchToAway() {}
    ZT_ACTION("switchToAway", switchToAway)
    virtual void switchToOffline() {}
    ZT_ACTION("switchToOffline", switchToOffline)
    //! A line as the user typed it (command or text).
    virtual void processOutgoingLine(const QString &line) { Q_UNUSED(line); }
    ZT_ACTION("processOutgoingLine:", processOutgoingLine)
    //! A raw protocol line, sent without outgoing-line processing.
    virtual void writeString(const QString &line) { Q_UNUSED(line); }
    ZT_ACTION("writeString:", writeString)
    virtual void fetchConnectionList() {}
    ZT_ACTION("fetchConnectionList", fetchConnectionList)
    virtual void didUpdateList(const QVariantList &list) { Q_UNUSED(list); }
    ZT_ACTION("didUpdateList:", didUpdateList)
    virtual void rehashNetworkIfPossible() {}
    ZT_ACTION("rehashNetworkIfPossible", rehashNetworkIfPossible)

protected:
    void dealloc() override;

private:
    //! Invalidates the channels and clears their back reference.
    static void invalidateChannels(const QList<zt::Ref<ZTAbstractChannel>> &channels);

    zt::Ref<ZTAbstractAdvancedSettings> m_advancedSettings;
    zt::Ref<ZTAbstractSelfIdentity> m_currentIdentity;
    zt::Ref<ZTAbstractSelfIdentity> m_nextIdentity;
    zt::Ref<ZTAbstractServer> m_server;
    QVariant m_serverDictionary;
    zt::Ref<ZTAbstractProxy> m_proxy;
    QVariant m_highlightDictionaries;
    bool m_tearingDown = false;
};
