#include "model/ztsettings.h"

#include "runtime/keyedarchive.h"

#include <QDateTime>
#include <QSettings>
#include <cmath>

ZT_DEFINE_CLASS(ZTAbstractAdvancedSettings)
ZT_DEFINE_CLASS(ZTAbstractProxy)
ZT_DEFINE_CLASS(ZTAbstractBan)
ZT_DEFINE_CLASS(ZTAbstractTransfer)

// ---- advanced settings ----

namespace {
// Archive keys and the order decoding applies them in.
const char BlowfishKeyKey[] = "Blowfish key";
struct FlagKey
{
    const char *archiveKey;
    bool (ZTAbstractAdvancedSettings::*get)() const;
    void (ZTAbstractAdvancedSettings::*set)(bool);
};
const FlagKey flagKeys[] = {
    {"Blowfish enabled", &ZTAbstractAdvancedSettings::blowfishEnabled,
     &ZTAbstractAdvancedSettings::setBlowfishEnabled},
    {"Auto join", &ZTAbstractAdvancedSettings::autoJoin, &ZTAbstractAdvancedSettings::setAutoJoin},
    {"Auto rejoin", &ZTAbstractAdvancedSettings::autoRejoin, &ZTAbstractAdvancedSettings::setAutoRejoin},
    {"Show counts", &ZTAbstractAdvancedSettings::showCounts, &ZTAbstractAdvancedSettings::setShowCounts},
    {"Exclude from log", &ZTAbstractAdvancedSettings::excludeFromLog,
     &ZTAbstractAdvancedSettings::setExcludeFromLog},
    {"Mute sounds", &ZTAbstractAdvancedSettings::muteSounds, &ZTAbstractAdvancedSettings::setMuteSounds},
};
} // namespace

bool ZTAbstractAdvancedSettings::autoAutoJoinDefault()
{
    return QSettings().value(QStringLiteral("autoAutoJoin"), false).toBool();
}

void ZTAbstractAdvancedSettings::init()
{
    super::init();
    setAutoJoin(autoAutoJoinDefault());
    setAutoRejoin(false);
    setBlowfishEnabled(false);
    setShowCounts(true);
    setExcludeFromLog(false);
    setMuteSounds(false);
    setBlowfishKey(QStringLiteral(""));
}

void ZTAbstractAdvancedSettings::nilify()
{
    // Not through the setter: these settings send from both sides, and
    // ending this object's life must not clear the key of its mirror.
    m_blowfishKey = QString();
}

QVariantMap ZTAbstractAdvancedSettings::dictionary() const
{
    QVariantMap d = super::dictionary();
    d.insert(QStringLiteral("blowfishKey"), m_blowfishKey.isNull() ? QStringLiteral("") : m_blowfishKey);
    return d;
}

void ZTAbstractAdvancedSettings::encodeWithCoder(zt::KeyedArchiver &coder) const
{
    super::encodeWithCoder(coder);
    coder.encodeObject(zt::toValue(m_blowfishKey), QString::fromLatin1(BlowfishKeyKey));
    for (const FlagKey &flag : flagKeys)
        coder.encodeObject(QVariant((this->*flag.get)()), QString::fromLatin1(flag.archiveKey));
}

void ZTAbstractAdvancedSettings::initWithCoder(zt::KeyedUnarchiver &coder)
{
    super::initWithCoder(coder);
    setBlowfishKey(zt::fromValue<QString>(coder.decodeObjectForKey(QString::fromLatin1(BlowfishKeyKey))));
    for (const FlagKey &flag : flagKeys)
        (this->*flag.set)(coder.decodeObjectForKey(QString::fromLatin1(flag.archiveKey)).toBool());
}

// ---- ban ----

void ZTAbstractBan::init()
{
    super::init();
    setMask(QStringLiteral(""));
    setBanner(QStringLiteral(""));
    setDateSeconds(double(QDateTime::currentMSecsSinceEpoch()) / 1000.0);
}

QDateTime ZTAbstractBan::date() const
{
    if (!m_dateSeconds)
        return {};
    return QDateTime::fromMSecsSinceEpoch(std::llround(*m_dateSeconds * 1000.0), Qt::UTC);
}

void ZTAbstractBan::setDate(const QDateTime &date)
{
    setDateSeconds(date.isValid() ? std::optional<double>(double(date.toMSecsSinceEpoch()) / 1000.0)
                                  : std::nullopt);
}

void ZTAbstractBan::setDateSeconds(std::optional<double> seconds)
{
    setAndNotify(m_dateSeconds, seconds, QStringLiteral("date"));
}

QVariantMap ZTAbstractBan::dictionary() const
{
    QVariantMap d = super::dictionary();
    if (m_dateSeconds)
        d.insert(QStringLiteral("date"), *m_dateSeconds);
    return d;
}

void ZTAbstractBan::setValueForKey(const QVariant &value, const QString &key)
{
    if (key == u"date") {
        const zt::ValueKind kind = zt::kindOf(value);
        if (kind == zt::ValueKind::Real || kind == zt::ValueKind::Signed || kind == zt::ValueKind::Unsigned)
            return setDateSeconds(value.toDouble());
        if (kind != zt::ValueKind::Date)
            return setDateSeconds(std::nullopt);
    }
    super::setValueForKey(value, key);
}

// ---- transfer ----

bool ZTAbstractTransfer::shouldPropagateValueChangesForKey(const QString &key) const
{
    return key == u"attributes";
}
