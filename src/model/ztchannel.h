#pragma once
// ZTAbstractChannel: one conversation of a connection: an IRC channel, a
// private query with one person, or the connection's console.
//
// The channel holds the people present ("users"), the ban list, the lines
// shown (current "content" and past "history"), highlight and star
// occurrences, per-channel highlight words and auto-executed commands, unread
// counters and its advanced settings. Joining, parting, echoing and the other
// protocol actions are empty here; the agent's subclass performs them and the
// client's forwards them to the agent.
//
// A line is a dictionary whose keys belong to the protocol engine; the channel
// reads three of them: "msgID" (the line's UUID), "msgStarred" and
// "msgEmbedded" (booleans).
//
// Ownership: the channel owns its people, bans and advanced settings; its
// `connection` is a back reference that the connection clears when the
// channel leaves it. People that leave "users" (by any change of the list)
// are invalidated; so are the people, bans and settings still held when the
// channel itself is invalidated or torn down (which sends nothing to the
// mirror).
//
// Wiring: object-valued keys cross the process boundary as dictionary forms:
// "users" as "userDictionaries", "banlist" as "banlistDictionaries",
// "advancedSettings" as "advancedSettingsDictionary" and "highlights" as
// "highlightDictionaries". The receiving side's concrete class rebuilds the
// objects (replacementObjectsForUserDictionaries and the like).
//
// Accessors of keys whose values belong to other model families are defined
// out of line, so that this header needs only their declarations.

#include "core/ztabstractipc.h"
#include "runtime/members.h"

#include <vector>

class ZTAbstractConnection;
class ZTAbstractPerson;
class ZTAbstractBan;
class ZTAbstractAdvancedSettings;

class ZT_EXPORT ZTAbstractChannel : public ZTAbstractIPC
{
    ZT_OBJECT(ZTAbstractChannel, ZTAbstractIPC)
public:
    ZTAbstractChannel();
    ~ZTAbstractChannel() override;

    // ---- advanced settings ----
    zt::Ref<ZTAbstractAdvancedSettings> advancedSettings() const;
    void setAdvancedSettings(const zt::Ref<ZTAbstractAdvancedSettings> &settings);
    ZT_KEY(advancedSettings, setAdvancedSettings)
    //! The advanced settings' dictionary; nil without settings.
    QVariant advancedSettingsDictionary() const;
    //! Rebuilding the settings is the concrete class's: here it only logs
    //! "Abstract method: setAdvancedSettingsDictionary:".
    virtual void setAdvancedSettingsDictionary(const QVariant &dictionary);
    ZT_KEY(advancedSettingsDictionary, setAdvancedSettingsDictionary)

    //! The owning connection (not owned).
    ZT_WEAK(ZTAbstractConnection, connection, setConnection)

    // ---- people ("users", ordered to-many) ----
    // Written out rather than declared with the to-many macros: every change
    // keeps the index of people by nickname.
    QList<zt::Ref<ZTAbstractPerson>> users() const;
    void setUsers(const QList<zt::Ref<ZTAbstractPerson>> &users);
    void insertUsersAtIndexes(const QList<zt::Ref<ZTAbstractPerson>> &users, const zt::IndexSet &indexes);
    void removeUsersAtIndexes(const zt::IndexSet &indexes);
    void replaceUsersAtIndexesWithUsers(const zt::IndexSet &indexes,
                                        const QList<zt::Ref<ZTAbstractPerson>> &users);
    zt::MutableArrayProxy mutableUsers() { return mutableArrayValueForKey(QStringLiteral("users")); }
    qsizetype countOfUsers() const { return m_users.size(); }
    ZT_METHOD("countOfUsers", countOfUsers)
    //! The users at the indexes (raises NSRangeException past the end).
    QVariantList usersAtIndexes(const zt::IndexSet &indexes) const;
    ZT_METHOD("usersAtIndexes:", usersAtIndexes)
    ZT_KEY(users, setUsers)
    ZT_METHOD("insertUsers:atIndexes:", insertUsersAtIndexes)
    ZT_METHOD("removeUsersAtIndexes:", removeUsersAtIndexes)
    ZT_METHOD("replaceUsersAtIndexes:withUsers:", replaceUsersAtIndexesWithUsers)
    //! Every user's dictionary, in order (the wired form of "users").
    QVariantList userDictionaries() const;
    //! Converts with replacementObjectsForUserDictionaries; nil leaves the
    //! list alone.
    void setUserDictionaries(const QVariantList &dictionaries);
    void insertUserDictionariesAtIndexes(const QVariantList &dictionaries, const zt::IndexSet &indexes);
    void removeUserDictionariesAtIndexes(const zt::IndexSet &indexes);
    ZT_KEY(userDictionaries, setUserDictionaries)
    qsizetype countOfUserDictionaries() const { return m_users.size(); }
    ZT_METHOD("countOfUserDictionaries", countOfUserDictionaries)
    //! The dictionaries of the users at the indexes only.
    QVariantList userDictionariesAtIndexes(const zt::IndexSet &indexes) const;
    ZT_METHOD("userDictionariesAtIndexes:", userDictionariesAtIndexes)
    ZT_METHOD("insertUserDictionaries:atIndexes:", insertUserDictionariesAtIndexes)
    ZT_METHOD("removeUserDictionariesAtIndexes:", removeUserDictionariesAtIndexes)
    //! Abstract: nil. The concrete class makes (or finds by UUID) its people.
    virtual std::optional<QList<zt::Ref<ZTAbstractPerson>>>
    replacementObjectsForUserDictionaries(const QVariantList &dictionaries);

    // ---- highlight words, auto-executed commands, occurrences ----
    //! Highlight entries: model objects (their dictionary form is wired) or
    //! plain values.
    ZT_PROPERTY(QVariantList, highlights, setHighlights)
    ZT_PROPERTY(QVariantList, autoexec, setAutoexec)
    //! Lines that raised a highlight.
    ZT_PROPERTY(QVariantList, highlightOccurences, setHighlightOccurences)
    //! Copies of the lines the user starred.
    ZT_PROPERTY(QVariantList, starOccurences, setStarOccurences)

    ZT_PROPERTY(QString, name, setName, zt::InDictionary::WhenNotNil)
    ZT_PROPERTY(QString, password, setPassword, zt::InDictionary::WhenNotNil)

    //! The wired form of "highlights": each entry's dictionary, or the entry
    //! itself when it is a plain value.
    QVariantList highlightDictionaries() const;
    //! Stores the received form (the dictionary form carries it when set)
    //! and rebuilds "highlights" through replacementObjectsForHighlightDictionaries.
    void setHighlightDictionaries(const QVariantList &dictionaries);
    ZT_KEY(highlightDictionaries, setHighlightDictionaries)
    //! Abstract: nil (the list stays as it is).
    virtual std::optional<QVariantList>
    replacementObjectsForHighlightDictionaries(const QVariantList &dictionaries);
    ZT_PROPERTY(QVariant, autoexecDictionaries, setAutoexecDictionaries, zt::InDictionary::WhenNotNil)

    //! Free-form channel state kept by the engine (topic, modes …).
    ZT_PROPERTY(QVariantMap, attributes, setAttributes, zt::InDictionary::Always)
    //! Past content: lines kept from earlier runs.
    ZT_PROPERTY(QVariantList, history, setHistory)
    //! Current lines.
    ZT_PROPERTY(QVariantList, content, setContent)

    // ---- bans ("banlist", ordered to-many) ----
    ZT_TO_MANY_OUT_OF_LINE(ZTAbstractBan, banlist, Banlist)
    //! Every ban's dictionary, in order.
    QVariantList banlistDictionaries() const;
    //! Does nothing here; the concrete class rebuilds its bans.
    virtual void setBanlistDictionaries(const QVariantList &dictionaries);
    ZT_KEY(banlistDictionaries, setBanlistDictionaries)

    // ---- counters and flags ----
    ZT_PROPERTY(quint64, unreadLines, setUnreadLines)
    ZT_PROPERTY(quint64, unreadHighlights, setUnreadHighlights)
    ZT_PROPERTY(bool, focusAfterAdd, setFocusAfterAdd, zt::InDictionary::Always)
    //! A query carried over a direct (peer-to-peer) chat.
    ZT_PROPERTY(bool, isDirect, setIsDirect)
    //! Swallow the next topic reply (set by quietlyAskTopic).
    ZT_PROPERTY(bool, hideTopicReply, setHideTopicReply)
    ZT_PROPERTY(bool, joinCompleted, setJoinCompleted)
    ZT_PROPERTY(quint64, index, setIndex)
    //! The stored encoding if not 0, else the connection's (0 inherits).
    ZT_PROPERTY_GET(quint64, encoding, setEncoding, zt::InDictionary::Always)
    ZT_PROPERTY(qint16, status, setStatus, zt::InDictionary::Always)
    ZT_PROPERTY(bool, isConsole, setIsConsole, zt::InDictionary::Always)
    ZT_PROPERTY(bool, isChannel, setIsChannel, zt::InDictionary::Always)
    ZT_PROPERTY(bool, isQuery, setIsQuery, zt::InDictionary::Always)
    ZT_PROPERTY(bool, isClear, setIsClear)
    ZT_PROPERTY(bool, didValidateNames, setDidValidateNames, zt::InDictionary::Always)

    //! For a query, the person named like the channel; nil otherwise.
    zt::Ref<ZTAbstractPerson> party() const;
    ZT_READONLY_KEY(party)
    //! 1 here; concrete classes rank consoles, channels and queries.
    virtual int importance() const { return 1; }
    ZT_READONLY_KEY(importance)
    //! NO (the connection answers YES).
    bool isConnection() const { return false; }
    ZT_READONLY_KEY(isConnection)

    // ---- object life ----
    void init() override;
    //! Tears down without sending anything (see ZTAbstractConnection::nilify).
    void nilify() override;
    QVariantMap dictionary() const override;
    QString replacementKeyForWiring(const QString &key) const override;
    //! Every key but "connection" propagates (as the base class decides),
    //! none while nilify() runs.
    bool shouldPropagateValueChangesForKey(const QString &key) const override;

    // ---- protocol actions, performed by the agent's subclass ----
    virtual void join() {}
    ZT_ACTION("join", join)
    virtual void part() {}
    ZT_ACTION("part", part)
    virtual void cycle() {}
    ZT_ACTION("cycle", cycle)
    virtual void clear() {}
    ZT_ACTION("clear", clear)
    virtual void startDCCChat() {}
    ZT_ACTION("startDCCChat", startDCCChat)
    virtual void endDCCChat() {}
    ZT_ACTION("endDCCChat", endDCCChat)
    virtual void mark() {}
    ZT_ACTION("mark", mark)
    virtual void echo(const QString &line) { Q_UNUSED(line); }
    ZT_ACTION("echo:", echo)
    virtual void didAddLines(const QVariantList &lines) { Q_UNUSED(lines); }
    ZT_ACTION("didAddLines:", didAddLines)

    // ---- outgoing commands ----
    //! "TOPIC <name>" through the connection's processOutgoingLine.
    void askTopic();
    ZT_METHOD("askTopic", askTopic)
    //! Sets hideTopicReply, then askTopic.
    void quietlyAskTopic();
    ZT_METHOD("quietlyAskTopic", quietlyAskTopic)
    //! "MODE <name>" written raw through the connection's writeString.
    void askMode();
    ZT_METHOD("askMode", askMode)
    //! "MODE <name> +b", raw.
    void askBans();
    ZT_METHOD("askBans", askBans)
    //! "MODE <name> +e", raw.
    void askExceptions();
    ZT_METHOD("askExceptions", askExceptions)
    //! "WHO <name>", raw.
    void askWho();
    ZT_METHOD("askWho", askWho)

    // ---- people ----
    //! Appends through the announcing view of "users".
    void addPerson(const zt::Ref<ZTAbstractPerson> &person);
    ZT_METHOD("addPerson:", addPerson)
    //! Removes every occurrence through the announcing view.
    void removePerson(const zt::Ref<ZTAbstractPerson> &person);
    ZT_METHOD("removePerson:", removePerson)
    void resetUsers();
    ZT_METHOD("resetUsers", resetUsers)
    //! The first user whose identity's nickname equals `name` ignoring case.
    //! Answered from an index by case-folded nickname, kept as people are
    //! appended and rebuilt after any other change of "users" or any
    //! rename (zt::model::nicknameGeneration()).
    zt::Ref<ZTAbstractPerson> personWithName(const QString &name) const;
    ZT_METHOD("personWithName:", personWithName)

    // ---- state, lines and stars ----
    //! Forgets the channel's presence (attributes, names, users, bans);
    //! lines and counters stay.
    void clearActivity();
    ZT_METHOD("clearActivity", clearActivity)
    //! Empties history and content, resets the counters, then clear.
    void clearLines();
    ZT_METHOD("clearLines", clearLines)
    //! Zeroes both counters and tells the counterpart to do the same; does
    //! nothing when both are 0 already, which ends the exchange.
    void resetLineCount();
    ZT_ACTION("resetLineCount", resetLineCount)
    //! The last line with this "msgID", current content winning over history.
    QVariant messageWithUUID(const QString &uuid) const;
    ZT_METHOD("messageWithUUID:", messageWithUUID)
    //! The last star occurrence with this "msgID".
    QVariant starredMessageWithUUID(const QString &uuid) const;
    ZT_METHOD("starredMessageWithUUID:", starredMessageWithUUID)
    void addHighlightOccurence(const QVariantMap &line);
    ZT_METHOD("addHighlightOccurence:", addHighlightOccurence)
    //! Appends a starred copy of the line (a bare {"msgStarred": YES} when
    //! no line has the UUID); the stored line is not marked.
    void addStarOccurenceWithUUID(const QString &uuid);
    ZT_METHOD("addStarOccurenceWithUUID:", addStarOccurenceWithUUID)
    void removeStarOccurenceWithUUID(const QString &uuid);
    ZT_METHOD("removeStarOccurenceWithUUID:", removeStarOccurenceWithUUID)
    //! {"content": content, "pastcontent": history}, after clearing
    //! "msgEmbedded" on every current line.
    QVariantMap linesDictionary();
    ZT_METHOD("linesDictionary", linesDictionary)

protected:
    void dealloc() override;

private:
    static void invalidatePeople(const QList<zt::Ref<ZTAbstractPerson>> &people);

    //! Adds the users from `first` on to a valid index; the first user of
    //! a nickname stays its entry.
    void indexUsersFrom(qsizetype first) const;

    zt::Ref<ZTAbstractAdvancedSettings> m_advancedSettings;
    QList<zt::Ref<ZTAbstractPerson>> m_users;
    // Case-folded nickname → first user of it. Valid while it covers
    // exactly m_users and no identity was renamed since it was made. Open
    // addressing over (hash, user) slots, at most half full: a probe
    // compares hashes, and reads a user only when its hash matches, to
    // check the user's nickname. No key is stored, so indexing a user
    // allocates nothing.
    struct UserIndexSlot
    {
        size_t hash = 0;
        ZTAbstractPerson *person = nullptr; // null: free
    };
    //! The slot of the user indexed under `name`, or the free slot that
    //! ends its probe. `disagrees` is set when a slot of the same hash holds
    //! a user named otherwise now.
    size_t userIndexSlot(QStringView name, size_t hash, bool *disagrees) const;
    void resizeUserIndex(size_t slots) const;
    mutable std::vector<UserIndexSlot> m_userIndex; // a power of two of them, or none
    mutable qsizetype m_userIndexCount = 0;
    mutable bool m_userIndexValid = false;
    mutable quint64 m_userIndexGeneration = 0;
    QVariant m_highlightDictionaries;
    bool m_tearingDown = false;
};
