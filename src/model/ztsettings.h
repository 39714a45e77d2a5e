#pragma once
// Small mirrored value objects: advanced settings (per-connection and
// per-channel switches), the proxy a connection goes through, one entry of a
// channel's ban list, and a file transfer whose whole state is a dictionary.
//
// Advanced settings send their changes from both processes
// (enableInterProcessKVO always answers YES): the application's receiving
// side must not send back a change it is applying. A transfer propagates
// only "attributes".
//
// banWithMaskBannerDate<T>() makes a ban of class T (the receiving class).

#include "core/ztabstractipc.h"
#include "runtime/members.h"

#include <optional>

class ZT_EXPORT ZTAbstractAdvancedSettings : public ZTAbstractIPC
{
    ZT_OBJECT(ZTAbstractAdvancedSettings, ZTAbstractIPC)
public:
    ZT_PROPERTY(bool, showCounts, setShowCounts, zt::InDictionary::Always)
    ZT_PROPERTY(bool, excludeFromLog, setExcludeFromLog, zt::InDictionary::Always)
    ZT_PROPERTY(bool, muteSounds, setMuteSounds, zt::InDictionary::Always)
    ZT_PROPERTY(bool, blowfishEnabled, setBlowfishEnabled, zt::InDictionary::Always)
    //! Starts as the user default "autoAutoJoin" (NO when absent).
    ZT_PROPERTY(bool, autoJoin, setAutoJoin, zt::InDictionary::Always)
    ZT_PROPERTY(bool, autoRejoin, setAutoRejoin, zt::InDictionary::Always)
    ZT_PROPERTY(QString, blowfishKey, setBlowfishKey)

    //! The user default "autoAutoJoin", read through a default-constructed
    //! QSettings (organisation and application of QCoreApplication).
    static bool autoAutoJoinDefault();

    void init() override;
    //! Sets blowfishKey to nil and stops there (the base class's nilify is not run).
    void nilify() override;
    //! YES always: both processes send their changes.
    bool enableInterProcessKVO() const override { return true; }
    //! Adds "blowfishKey", the empty string for a nil key.
    QVariantMap dictionary() const override;
    //! Readable keys: "Blowfish key", "Blowfish enabled", "Auto join", "Auto
    //! rejoin", "Exclude from log", "Mute sounds", "Show counts"; flags are
    //! boolean number objects and a missing one decodes as NO.
    void encodeWithCoder(zt::KeyedArchiver &coder) const override;
    void initWithCoder(zt::KeyedUnarchiver &coder) override;
};

class ZT_EXPORT ZTAbstractProxy : public ZTAbstractIPC
{
    ZT_OBJECT(ZTAbstractProxy, ZTAbstractIPC)
public:
    ZT_PROPERTY(QString, proxyAddress, setProxyAddress, zt::InDictionary::WhenNotNil)
    ZT_PROPERTY(QString, proxyPassword, setProxyPassword, zt::InDictionary::WhenNotNil)
    ZT_PROPERTY(QString, proxyUsername, setProxyUsername, zt::InDictionary::WhenNotNil)
    ZT_PROPERTY(bool, enabled, setEnabled, zt::InDictionary::Always)
    //! Use the system's proxy settings instead of these.
    ZT_PROPERTY(bool, systemwide, setSystemwide, zt::InDictionary::Always)
    //! The kind of proxy; the codes belong to the protocol engine.
    ZT_PROPERTY(quint16, proxyType, setProxyType, zt::InDictionary::Always)
    ZT_PROPERTY(quint16, proxyPort, setProxyPort, zt::InDictionary::Always)
};

class ZT_EXPORT ZTAbstractBan : public ZTAbstractIPC
{
    ZT_OBJECT(ZTAbstractBan, ZTAbstractIPC)
public:
    ZT_PROPERTY(QString, mask, setMask, zt::InDictionary::WhenNotNil)
    //! Who set the ban.
    ZT_PROPERTY(QString, banner, setBanner, zt::InDictionary::WhenNotNil)
    //! When the ban was set. Held as seconds since 1970-01-01 00:00 UTC (a
    //! double, the dictionary form) so that fractions finer than the
    //! millisecond of QDateTime survive the dictionary.
    ZT_KEY(date, setDate)

    QDateTime date() const;
    void setDate(const QDateTime &date);
    std::optional<double> dateSeconds() const { return m_dateSeconds; }
    void setDateSeconds(std::optional<double> seconds);

    //! A new ban of class T made with init, with the given values (`date` in
    //! seconds since 1970).
    template<typename T>
    static zt::Ref<T> banWithMaskBannerDate(const QString &mask, const QString &banner, double date)
    {
        auto ban = zt::make<T>();
        ban->init();
        ban->setMask(mask);
        ban->setBanner(banner);
        ban->setDateSeconds(date);
        return ban;
    }

    void init() override;
    //! Adds "date" (seconds since 1970, double) while a date is set.
    QVariantMap dictionary() const override;
    //! Also accepts "date" as a number of seconds since 1970 (the dictionary form).
    void setValueForKey(const QVariant &value, const QString &key) override;

private:
    std::optional<double> m_dateSeconds;
};

class ZT_EXPORT ZTAbstractTransfer : public ZTAbstractIPC
{
    ZT_OBJECT(ZTAbstractTransfer, ZTAbstractIPC)
public:
    //! The whole state of the transfer, under the engine's keys.
    ZT_PROPERTY(QVariantMap, attributes, setAttributes, zt::InDictionary::Always)
    ZT_ACTION("accept", accept)
    ZT_ACTION("acceptByResumingIfPossible:", acceptByResumingIfPossible)
    ZT_ACTION("reject", reject)
    ZT_ACTION("cancel", cancel)
    ZT_ACTION("remove", remove)

    //! Empty here; the agent's transfer performs them.
    virtual void accept() {}
    virtual void acceptByResumingIfPossible(bool) {}
    virtual void reject() {}
    virtual void cancel() {}
    virtual void remove() {}

    //! YES for "attributes" and NO for every other key.
    bool shouldPropagateValueChangesForKey(const QString &key) const override;
};
