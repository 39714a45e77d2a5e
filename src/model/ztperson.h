#pragma once
// People: ZTAbstractPerson is a user seen on a connection (in a channel, or
// the other party of a query); who they are lives in their identity.
// ZTAbstractPseudoPerson is a stored rule about people who need not be
// online: a nick or nick!user@host pattern ("*" a wildcard) on one network,
// with three-valued permissions (nil: not set, true, false) and, while
// someone matching is online, the matched person.
//
// Ownership: a person owns its identity and invalidates it when it leaves;
// channel and connection are back references (the channel owns its people).
// A person that becomes the party of a query is held for the life of the
// process (see setIsQueryParty).
//
// Keys that only observers see, never the other process: "displayNickname",
// "statusString" (derived), "channel" and "connection" (back references the
// mirror finds through its own owner and "connectionUUID"), and a
// pseudo-person's "regex" (each side compiles its own from "content").

#include "core/ztabstractipc.h"
#include "model/ztidentity.h"
#include "rules/koregex.h"
#include "runtime/members.h"

class ZTAbstractChannel;
class ZTAbstractConnection;
class ZTAbstractNetwork;

class ZT_EXPORT ZTAbstractPerson : public ZTAbstractIPC
{
    ZT_OBJECT(ZTAbstractPerson, ZTAbstractIPC)
public:
    ZT_WEAK(ZTAbstractChannel, channel, setChannel)
    ZT_WEAK(ZTAbstractConnection, connection, setConnection)
    //! Made by the concrete class's init().
    ZT_PROPERTY(zt::Ref<ZTAbstractIdentity>, identity, setIdentity)
    //! Known to be logged in to services.
    ZT_PROPERTY(bool, authenticated, setAuthenticated, zt::InDictionary::Always)
    ZT_PROPERTY(bool, secure, setSecure)
    ZT_PROPERTY(bool, ircopStatus, setIrcopStatus)
    ZT_PROPERTY(bool, online, setOnline)
    bool isQueryParty() const { return m_isQueryParty; }
    //! Turning it on hands the person to the process-wide list of query
    //! parties, which keeps it alive for the rest of the process.
    void setIsQueryParty(bool isQueryParty);
    ZT_KEY(isQueryParty, setIsQueryParty)

    //! The identity's dictionary form, nil without an identity.
    QVariant identityDictionary() const;
    //! Empty here; concrete classes apply a received identity.
    virtual void setIdentityDictionary(const QVariant &dictionary);
    ZT_KEY(identityDictionary, setIdentityDictionary, zt::InDictionary::WhenNotNil)
    //! The connection's UUID, nil without a connection.
    QString connectionUUID() const;
    //! Looks the connection up in the directory (null when unknown).
    void setConnectionUUID(const QString &uuid);
    ZT_KEY(connectionUUID, setConnectionUUID, zt::InDictionary::WhenNotNil)

    //! The connection's server's network.
    zt::Ref<ZTAbstractNetwork> network() const;
    QString mask() const;
    ZT_READONLY_KEY(mask)
    QString banMask() const;
    ZT_READONLY_KEY(banMask)
    QString nuh() const;
    ZT_READONLY_KEY(nuh)
    QString userhost() const;
    ZT_READONLY_KEY(userhost)
    //! The connection's nickname equals the identity's, ignoring case.
    bool isMe() const;
    ZT_READONLY_KEY(isMe)
    //! Localized "AVAILABLE" when available, else the away message or "AWAY".
    QString statusString() const;
    ZT_READONLY_KEY(statusString)
    ZT_DEPENDENCY("displayNickname", "identity.nickname")
    ZT_DEPENDENCY("statusString", "identity.awayMessage", "identity.status")

    //! init(), then the identity's nickname.
    void initWithNickname(const QString &nickname);
    //! Online on the connection; induces properties from the connection's
    //! other person objects of that nick and announces the person to the
    //! agent application ("processPersonDidAppear:").
    void initWithNicknameOnConnection(const QString &nickname, ZTAbstractConnection *connection);
    //! On the channel's connection, in the channel; a query party when the
    //! channel is a query.
    void initWithNicknameOnChannel(const QString &nickname, ZTAbstractChannel *channel);
    //! Copies host, user name and authentication from the connection's other
    //! person objects of the same nick, and the connection's own status when
    //! the nick is the connection's (compared exactly).
    void induceProperties();

    // Requests the client sends to the agent; empty here.
    virtual void sendFileAtPath(const QString &path);
    ZT_ACTION("sendFileAtPath:", sendFileAtPath)
    virtual void scheduleAuthCheckPrioritizing(bool prioritize);
    ZT_ACTION("scheduleAuthCheckPrioritizing:", scheduleAuthCheckPrioritizing)
    virtual void resetWhois();
    ZT_ACTION("resetWhois", resetWhois)
    virtual void addToFilters();
    ZT_ACTION("addToFilters", addToFilters)
    virtual void removeFromFilters();
    ZT_ACTION("removeFromFilters", removeFromFilters)
    virtual void addToFriends();
    ZT_ACTION("addToFriends", addToFriends)
    virtual void removeFromFriends();
    ZT_ACTION("removeFromFriends", removeFromFriends)

    //! Invalidates and drops the identity, drops channel and connection; the
    //! base class's nilify does not run.
    void nilify() override;
    QString replacementKeyForWiring(const QString &key) const override;
    bool shouldPropagateValueChangesForKey(const QString &key) const override;
    //! Taking another identity counts as a rename (zt::model::noteNicknameChange).
    void willChangeValueForKey(const QString &key) override;

private:
    bool m_isQueryParty = false;
};

class ZT_EXPORT ZTAbstractPseudoPerson : public ZTAbstractIPC
{
    ZT_OBJECT(ZTAbstractPseudoPerson, ZTAbstractIPC)
public:
    //! A nick or a nick!user@host mask; "*" is a wildcard.
    ZT_PROPERTY(QString, content, setContent, zt::InDictionary::WhenNotNil)
    ZT_PROPERTY(QString, addressBookID, setAddressBookID, zt::InDictionary::WhenNotNil)
    // Permissions: nil (not set) or a boolean number.
    ZT_PROPERTY(QVariant, publicAllowed, setPublicAllowed)
    ZT_PROPERTY(QVariant, privateAllowed, setPrivateAllowed)
    ZT_PROPERTY(QVariant, otherAllowed, setOtherAllowed)
    ZT_PROPERTY(QVariant, highlightsAllowed, setHighlightsAllowed)
    ZT_PROPERTY(QVariant, embeddingAllowed, setEmbeddingAllowed)
    ZT_PROPERTY(QVariant, ctcpAllowed, setCtcpAllowed)
    ZT_PROPERTY(QVariant, dccAllowed, setDccAllowed)
    ZT_PROPERTY(QVariant, jpqAllowed, setJpqAllowed)
    //! The online person currently matched.
    ZT_PROPERTY(zt::Ref<ZTAbstractPerson>, realPerson, setRealPerson)
    ZT_PROPERTY(QString, networkUUID, setNetworkUUID, zt::InDictionary::WhenNotNil)
    //! Compiled from "content"; kept when "content" is cleared.
    ZT_PROPERTY(zt::Ref<KORegex>, regex, setRegex)

    //! The directory's object under networkUUID.
    zt::Ref<ZTAbstractIPC> network() const;
    QString networkName() const;
    ZT_READONLY_KEY(networkName)
    QVariant realPersonDictionary() const;
    //! Does nothing here; the client's class finds the person it mirrors.
    virtual void setRealPersonDictionary(const QVariant &dictionary);
    ZT_KEY(realPersonDictionary, setRealPersonDictionary, zt::InDictionary::WhenNotNil)
    //! Nil here.
    virtual QVariant addressBookProperty() const;
    ZT_READONLY_KEY(addressBookProperty)

    void initWithContentOnNetwork(const QString &content, ZTAbstractNetwork *network);
    void assignRealPersonFromPerson(ZTAbstractPerson *person);
    ZT_METHOD("assignRealPersonFromPerson:", assignRealPersonFromPerson)
    void unassignRealPerson();
    ZT_METHOD("unassignRealPerson", unassignRealPerson)
    //! Same network (UUIDs compared exactly) and the pattern is found
    //! anywhere in the person's nick!user@host.
    bool matchesPerson(ZTAbstractPerson *person) const;
    ZT_METHOD("matchesPerson:", matchesPerson)

    virtual void addToFriends();
    ZT_ACTION("addToFriends", addToFriends)
    virtual void removeFromFriends();
    ZT_ACTION("removeFromFriends", removeFromFriends)
    virtual void addToFilters();
    ZT_ACTION("addToFilters", addToFilters)
    virtual void removeFromFilters();
    ZT_ACTION("removeFromFilters", removeFromFilters)

    //! Compiles "content" into "regex" now and after every change of it.
    void init() override;
    //! Both sides always send their changes.
    bool enableInterProcessKVO() const override { return true; }
    QString replacementKeyForWiring(const QString &key) const override;
    bool shouldPropagateValueChangesForKey(const QString &key) const override;
    //! "content", "networkUUID", "addressBookID".
    void encodeWithCoder(zt::KeyedArchiver &coder) const override;
    void initWithCoder(zt::KeyedUnarchiver &coder) override;

    //! "content" as a pattern: "." literal, "*" any run, not anchored.
    static QString patternForContent(const QString &content);

protected:
    void dealloc() override;

private:
    void compileContent();
};
