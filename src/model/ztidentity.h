#pragma once
// Identities: who someone is on IRC, and the user's own identities.
//
// ZTAbstractIdentity holds a nickname, user name, host name, real name, the
// presence status with its away message and the channel privileges held.
// Every person owns one. ZTAbstractSelfIdentity is one of the user's own
// identities: no single nickname but an ordered list of nick candidates
// (ZTAbstractNickCandidate, a nickname with an optional services password),
// a user picture and a default flag.
//
// Codes. Status: 7 available (the default), 6 away. Privileges: 1 voice,
// 2 half-op, 3 op, 4 admin, 5 special, 6 owner, 7 server operator.
//
// Keys that only observers see: "statusImage" (a cache), "awayMessage" (its
// value follows the status) and the read-only keys computed from privileges
// and names. Their changes never cross to the other process; the away text
// reaches a mirror with the dictionary form, as the getter's value.

#include "core/ztabstractipc.h"
#include "runtime/members.h"

#include <optional>

class ZTAbstractNickCandidate;

class ZT_EXPORT ZTAbstractIdentity : public ZTAbstractIPC
{
    ZT_OBJECT(ZTAbstractIdentity, ZTAbstractIPC)
public:
    enum : qint16
    {
        StatusAway = 6,
        StatusAvailable = 7,
    };
    enum Privilege : qint16
    {
        Voice = 1,
        HalfOp = 2,
        ChannelOp = 3,
        ChannelAdmin = 4,
        Special = 5,
        ChannelOwner = 6,
        ServerOp = 7,
    };

    //! Virtual: a self identity refuses both (it has candidates instead).
    virtual QString nickname() const { return m_nickname; }
    virtual void setNickname(const QString &nickname);
    ZT_KEY(nickname, setNickname)
    ZT_PROPERTY(QString, username, setUsername, zt::InDictionary::WhenNotNil)
    ZT_PROPERTY(QString, hostname, setHostname, zt::InDictionary::WhenNotNil)
    ZT_PROPERTY(QString, realname, setRealname, zt::InDictionary::WhenNotNil)
    //! The picture of the status, made by the application's status-to-image
    //! transformer and cached per status; filling the cache announces nothing.
    QVariant statusImage() const;
    void setStatusImage(const QVariant &image);
    ZT_KEY(statusImage, setStatusImage)
    //! The stored message while the status is away (6), else the empty string.
    ZT_PROPERTY_GET(QString, awayMessage, setAwayMessage, zt::InDictionary::WhenNotNil)
    //! An array of privilege codes (numbers), or nil after nilify().
    ZT_PROPERTY(QVariant, privileges, setPrivileges, zt::InDictionary::WhenNotNil)
    ZT_PROPERTY(qint16, status, setStatus, zt::InDictionary::Always)

    bool hasPrivilege(qint16 code) const;
    bool isServerOp() const { return hasPrivilege(ServerOp); }
    ZT_READONLY_KEY(isServerOp)
    bool isChannelOwner() const { return hasPrivilege(ChannelOwner); }
    ZT_READONLY_KEY(isChannelOwner)
    bool isSpecial() const { return hasPrivilege(Special); }
    ZT_READONLY_KEY(isSpecial)
    bool isChannelAdmin() const { return hasPrivilege(ChannelAdmin); }
    ZT_READONLY_KEY(isChannelAdmin)
    bool isChannelOp() const { return hasPrivilege(ChannelOp); }
    ZT_READONLY_KEY(isChannelOp)
    bool isChannelHalfop() const { return hasPrivilege(HalfOp); }
    ZT_READONLY_KEY(isChannelHalfop)
    bool isVoice() const { return hasPrivilege(Voice); }
    ZT_READONLY_KEY(isVoice)

    //! The largest privilege code held, 0 for none.
    qint16 highestPrivilege() const;
    ZT_READONLY_KEY(highestPrivilege)
    //! "~", "!", "&", "@", "%", "+" in that order, one per privilege held.
    QString prefixablePrivileges() const;
    ZT_READONLY_KEY(prefixablePrivileges)
    //! The localized privilege texts joined with ", " ("REGULAR_USER" alone for none).
    QString readablePrivileges() const;
    ZT_READONLY_KEY(readablePrivileges)
    //! "user@host" when both are set, else empty.
    QString userhost() const;
    ZT_READONLY_KEY(userhost)
    //! A display form: "user@host", or whichever of the two is set.
    QString userAtHost() const;
    ZT_READONLY_KEY(userAtHost)
    //! "nick!user@host", or "nick!*@*" unless both user and host are set.
    QString nuh() const;
    ZT_READONLY_KEY(nuh)
    //! "*!*@host", or "nick!*@*" without a host.
    QString banMask() const;
    ZT_READONLY_KEY(banMask)
    //! A wildcard mask for ignore and ban lists: "*!user@*.example.org",
    //! "*!user@10.0.0.*", "*!user@host" for a one-label host, "nick!*@*"
    //! when user or host is missing.
    QString mask() const;
    ZT_READONLY_KEY(mask)

    ZT_DEPENDENCY("awayMessage", "status")
    ZT_DEPENDENCY("statusImage", "status")
    ZT_DEPENDENCY("readablePrivileges", "privileges")
    ZT_DEPENDENCY("highestPrivilege", "privileges")
    ZT_DEPENDENCY("prefixablePrivileges", "privileges")
    ZT_DEPENDENCY("userAtHost", "hostname", "username")

    void init() override;
    //! Adds "nickname" (never set on a self identity) to the declared keys.
    QVariantMap dictionary() const override;
    //! "nickname" (not for a self identity), "username", "realname".
    void encodeWithCoder(zt::KeyedArchiver &coder) const override;
    void initWithCoder(zt::KeyedUnarchiver &coder) override;
    //! Clears host name, away message and privileges only; nickname, user
    //! name and real name stay, and the base class's nilify is not run.
    void nilify() override;
    //! NO for "statusImage" and "awayMessage".
    bool shouldPropagateValueChangesForKey(const QString &key) const override;

protected:
    QString m_nickname;

private:
    // The cached picture of the status, made when first asked for: most
    // identities (a channel's thousands of people) are never drawn.
    struct StatusImageCache
    {
        QVariant image;
        qint16 lastStatus = 0; // the status the image was made for
    };
    StatusImageCache &statusImageCache() const;
    mutable std::unique_ptr<StatusImageCache> m_statusImage;
};

class ZT_EXPORT ZTAbstractNickCandidate : public ZTAbstractIPC
{
    ZT_OBJECT(ZTAbstractNickCandidate, ZTAbstractIPC)
public:
    ZT_PROPERTY(QString, nickname, setNickname, zt::InDictionary::WhenNotNil)
    //! The password that identifies the nick with services.
    ZT_PROPERTY(QString, nickserv, setNickserv, zt::InDictionary::WhenNotNil)

    //! Same class (or a subclass) with equal nickname and password.
    bool isEqual(const zt::Object *other) const;
    ZT_METHOD("isEqual:", isEqual)

    //! Both sides always send their changes.
    bool enableInterProcessKVO() const override { return true; }
    void encodeWithCoder(zt::KeyedArchiver &coder) const override;
    void initWithCoder(zt::KeyedUnarchiver &coder) override;

protected:
    void dealloc() override;
};

class ZT_EXPORT ZTAbstractSelfIdentity : public ZTAbstractIdentity
{
    ZT_OBJECT(ZTAbstractSelfIdentity, ZTAbstractIdentity)
public:
    //! A keyed archive of a picture (see defaultAvatarData()).
    ZT_PROPERTY(QByteArray, avatarData, setAvatarData, zt::InDictionary::WhenNotNil)
    ZT_WIRED_TO_MANY(ZTAbstractNickCandidate, candidates, Candidates, candidateDictionaries,
                     CandidateDictionaries)
    ZT_PROPERTY(bool, isDefault, setIsDefault)

    //! Refused: logs "SelfIdentity can't get nickname" and answers nil.
    QString nickname() const override;
    //! Refused: logs "SelfIdentity can't set nickname".
    void setNickname(const QString &nickname) override;

    //! "user (real name), nicknames: (…)".
    QString printableDescription() const;
    ZT_READONLY_KEY(printableDescription)
    //! Same class (or a subclass), equal user name, real name and candidates.
    bool isEqual(const zt::Object *other) const;
    ZT_METHOD("isEqual:", isEqual)
    //! An empty dictionary here; concrete classes answer a new candidate.
    virtual QVariant newCandidate();
    ZT_METHOD("newCandidate", newCandidate)

    //! Ordered to-many operations on "candidates", each announced.
    void addCandidate(ZTAbstractNickCandidate *candidate);
    ZT_METHOD("addCandidate:", addCandidate)
    //! Removes every occurrence of each.
    void removeCandidates(const QList<zt::Ref<ZTAbstractNickCandidate>> &candidates);
    ZT_METHOD("removeCandidates:", removeCandidates)
    void removeCandidate(ZTAbstractNickCandidate *candidate);
    ZT_METHOD("removeCandidate:", removeCandidate)
    void insertCandidatesAtLocations(const QList<zt::Ref<ZTAbstractNickCandidate>> &candidates,
                                     const zt::IndexSet &locations);
    ZT_METHOD("insertCandidates:atLocations:", insertCandidatesAtLocations)
    void removeCandidatesAtLocations(const zt::IndexSet &locations);
    ZT_METHOD("removeCandidatesAtLocations:", removeCandidatesAtLocations)

    //! Raises "Abstract method" ("Implement
    //! -replacementObjectsForCandidateDictionaries: in <class>").
    virtual std::optional<QList<zt::Ref<ZTAbstractNickCandidate>>>
    replacementObjectsForCandidateDictionaries(const QVariantList &dictionaries);

    //! The library's generic user picture: a 128×128 PNG (grey silhouette),
    //! keyed-archived as data. Made once per process.
    static QByteArray defaultAvatarData();

    void init() override;
    QVariantMap dictionary() const override;
    QString replacementKeyForWiring(const QString &key) const override;
    //! "avatarData", "candidates", "isDefault". Old archives without
    //! "candidates" or with a nil "avatarData" keep the defaults of init().
    void encodeWithCoder(zt::KeyedArchiver &coder) const override;
    void initWithCoder(zt::KeyedUnarchiver &coder) override;
    //! Invalidates and drops the candidates (this identity owns them) and
    //! drops the picture; the identity's and base class's nilify do not run.
    void nilify() override;

    // A candidate that leaves "candidates" (by any mutation) is invalidated:
    // the identity owns its candidates.
    void willChangeValueForKey(const QString &key) override;
    void didChangeValueForKey(const QString &key) override;
    void willChangeValuesAtIndexesForKey(zt::KeyValueChange kind, const zt::IndexSet &indexes,
                                         const QString &key) override;
    void didChangeValuesAtIndexesForKey(zt::KeyValueChange kind, const zt::IndexSet &indexes,
                                        const QString &key) override;

private:
    void invalidateDepartedCandidates();

    QList<zt::Ref<ZTAbstractNickCandidate>> m_candidatesBefore; // during a change of "candidates"
    bool m_isObserving = false;
    bool m_candidatesNil = false;
};
