#include "model/ztidentity.h"

#include "model/ztmodelsupport.h"
#include "runtime/exception.h"
#include "runtime/format.h"
#include "runtime/kvc.h"
#include "runtime/logging.h"

#include <QBuffer>
#include <QImage>
#include <span>

ZT_DEFINE_CLASS(ZTAbstractIdentity)
ZT_DEFINE_CLASS(ZTAbstractNickCandidate)
ZT_DEFINE_CLASS(ZTAbstractSelfIdentity)

namespace {

const QString &emptyString()
{
    static const QString empty = QStringLiteral(""); // not null: present in dictionaries
    return empty;
}

QString nickWithAnyMask(const QString &nick)
{
    return zt::format(u"%@%@", nick, QStringLiteral("!*@*"));
}

//! The elements of an array value without a copy; none for anything else.
std::span<const QVariant> elementsOf(const QVariant &value)
{
    if (value.typeId() != QMetaType::QVariantList)
        return {};
    const auto *list = static_cast<const QVariantList *>(value.constData());
    return {list->constData(), size_t(list->size())};
}

//! The integer that a text starts with, as a C conversion reads it: leading
//! spaces, an optional sign, then digits up to the first other character.
qint64 leadingInteger(QStringView text)
{
    qsizetype i = 0;
    while (i < text.size() && text[i].isSpace())
        ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == u'-' || text[i] == u'+'))
        negative = text[i++] == u'-';
    qint64 value = 0;
    for (; i < text.size() && text[i] >= u'0' && text[i] <= u'9' && value < (qint64(1) << 40); ++i)
        value = value * 10 + (text[i].unicode() - u'0');
    return negative ? -value : value;
}

} // namespace

// ---- ZTAbstractIdentity ----

void ZTAbstractIdentity::init()
{
    super::init();
    setUsername(emptyString());
    setHostname(emptyString());
    setRealname(emptyString());
    setAwayMessage(emptyString());
    setPrivileges(QVariantList());
    setStatus(StatusAvailable);
}

void ZTAbstractIdentity::setNickname(const QString &nickname)
{
    if (!m_nickname.isEmpty() && m_nickname != nickname)
        zt::model::noteNicknameChange();
    setAndNotify(m_nickname, nickname, QStringLiteral("nickname"));
}

QString ZTAbstractIdentity::awayMessage() const
{
    return m_status == StatusAway ? m_awayMessage : emptyString();
}

ZTAbstractIdentity::StatusImageCache &ZTAbstractIdentity::statusImageCache() const
{
    if (!m_statusImage)
        m_statusImage = std::make_unique<StatusImageCache>();
    return *m_statusImage;
}

QVariant ZTAbstractIdentity::statusImage() const
{
    StatusImageCache &cache = statusImageCache();
    if (m_status != cache.lastStatus || !cache.image.isValid()) {
        cache.lastStatus = m_status;
        cache.image = zt::model::transformedValue(QString::fromLatin1(zt::model::StatusImageTransformerName),
                                                  QVariant(qint64(m_status)));
    }
    return cache.image;
}

void ZTAbstractIdentity::setStatusImage(const QVariant &image)
{
    setAndNotify(statusImageCache().image, image, QStringLiteral("statusImage"));
}

bool ZTAbstractIdentity::hasPrivilege(qint16 code) const
{
    for (const QVariant &p : elementsOf(m_privileges))
        if (zt::toInt64(p) == code)
            return true;
    return false;
}

qint16 ZTAbstractIdentity::highestPrivilege() const
{
    qint16 highest = 0;
    for (const QVariant &p : elementsOf(m_privileges))
        highest = std::max<qint16>(highest, qint16(zt::toInt64(p)));
    return highest;
}

QString ZTAbstractIdentity::prefixablePrivileges() const
{
    QString out;
    if (isChannelOwner())
        out += u'~';
    if (isSpecial())
        out += u'!';
    if (isChannelAdmin())
        out += u'&';
    if (isChannelOp())
        out += u'@';
    if (isChannelHalfop())
        out += u'%';
    if (isVoice())
        out += u'+';
    return out;
}

QString ZTAbstractIdentity::readablePrivileges() const
{
    QStringList texts;
    if (isServerOp())
        texts.append(zt::model::localizedString("SERVER_OP"));
    if (isChannelOwner())
        texts.append(zt::model::localizedString("CHANNEL_OWNER"));
    if (isChannelAdmin() || isSpecial())
        texts.append(zt::model::localizedString("CHANNEL_ADMIN"));
    if (isChannelOp())
        texts.append(zt::model::localizedString("CHANNEL_OP"));
    if (isChannelHalfop())
        texts.append(zt::model::localizedString("HALP_OP")); // the key is spelled so in the tables
    if (isVoice())
        texts.append(zt::model::localizedString("VOICED_USER"));
    if (texts.isEmpty())
        return zt::model::localizedString("REGULAR_USER");
    return texts.join(QStringLiteral(", "));
}

QString ZTAbstractIdentity::userhost() const
{
    if (m_username.isEmpty() || m_hostname.isEmpty())
        return emptyString();
    return zt::format(u"%@@%@", m_username, m_hostname);
}

QString ZTAbstractIdentity::userAtHost() const
{
    if (m_username.isEmpty())
        return m_hostname;
    if (m_hostname.isEmpty())
        return m_username;
    return zt::format(u"%@@%@", m_username, m_hostname);
}

QString ZTAbstractIdentity::nuh() const
{
    const QString nick = nickname();
    if (m_hostname.isEmpty() || m_username.isEmpty())
        return nickWithAnyMask(nick);
    return zt::format(u"%@!%@@%@", nick, m_username, m_hostname);
}

QString ZTAbstractIdentity::banMask() const
{
    if (m_hostname.isEmpty())
        return nickWithAnyMask(nickname());
    return zt::format(u"*!*@%@", m_hostname);
}

QString ZTAbstractIdentity::mask() const
{
    if (m_hostname.isEmpty() || m_username.isEmpty())
        return nickWithAnyMask(nickname());
    QStringList labels = m_hostname.split(u'.');
    if (labels.size() < 2)
        return zt::format(u"*!%@@%@", m_username, m_hostname);
    // A numeric address ends in a number: hide its last part; a name hides its first.
    if (leadingInteger(labels.last()) != 0)
        labels.last() = QStringLiteral("*");
    else
        labels.first() = QStringLiteral("*");
    return zt::format(u"*!%@@%@", m_username, labels.join(u'.'));
}

QVariantMap ZTAbstractIdentity::dictionary() const
{
    QVariantMap d = super::dictionary();
    if (!m_nickname.isNull()) // a self identity never stores one
        d.insert(QStringLiteral("nickname"), m_nickname);
    return d;
}

void ZTAbstractIdentity::encodeWithCoder(zt::KeyedArchiver &coder) const
{
    super::encodeWithCoder(coder);
    if (!isKindOfClass(ZTAbstractSelfIdentity::staticClassInfo()))
        coder.encodeObject(zt::toValue(m_nickname), QStringLiteral("nickname"));
    coder.encodeObject(zt::toValue(m_username), QStringLiteral("username"));
    coder.encodeObject(zt::toValue(m_realname), QStringLiteral("realname"));
}

void ZTAbstractIdentity::initWithCoder(zt::KeyedUnarchiver &coder)
{
    super::initWithCoder(coder);
    if (!isKindOfClass(ZTAbstractSelfIdentity::staticClassInfo()))
        setNickname(zt::fromValue<QString>(coder.decodeObjectForKey(QStringLiteral("nickname"))));
    setUsername(zt::fromValue<QString>(coder.decodeObjectForKey(QStringLiteral("username"))));
    setRealname(zt::fromValue<QString>(coder.decodeObjectForKey(QStringLiteral("realname"))));
}

// nilify() runs while the object leaves (invalidate, teardown): fields are
// cleared without announcements, so nothing of a leaving object crosses to
// the other process.
void ZTAbstractIdentity::nilify()
{
    m_hostname = QString();
    m_awayMessage = QString();
    m_privileges = QVariant();
}

bool ZTAbstractIdentity::shouldPropagateValueChangesForKey(const QString &key) const
{
    // Both follow the status on each side: the away text reaches the mirror
    // with the dictionary form, the image is a local cache.
    if (key == u"statusImage" || key == u"awayMessage")
        return false;
    return super::shouldPropagateValueChangesForKey(key);
}

// ---- ZTAbstractNickCandidate ----

bool ZTAbstractNickCandidate::isEqual(const zt::Object *other) const
{
    const auto *candidate = dynamic_cast<const ZTAbstractNickCandidate *>(other);
    return candidate && candidate->isKindOfClass(classInfo()) && candidate->m_nickname == m_nickname &&
           candidate->m_nickserv == m_nickserv;
}

void ZTAbstractNickCandidate::encodeWithCoder(zt::KeyedArchiver &coder) const
{
    super::encodeWithCoder(coder);
    coder.encodeObject(zt::toValue(m_nickname), QStringLiteral("nickname"));
    coder.encodeObject(zt::toValue(m_nickserv), QStringLiteral("nickserv"));
}

void ZTAbstractNickCandidate::initWithCoder(zt::KeyedUnarchiver &coder)
{
    super::initWithCoder(coder);
    setNickname(zt::fromValue<QString>(coder.decodeObjectForKey(QStringLiteral("nickname"))));
    setNickserv(zt::fromValue<QString>(coder.decodeObjectForKey(QStringLiteral("nickserv"))));
}

void ZTAbstractNickCandidate::dealloc()
{
    m_nickname = QString();
    m_nickserv = QString();
    super::dealloc();
}

// ---- ZTAbstractSelfIdentity ----

namespace {

QByteArray drawDefaultAvatar()
{
    // A grey square with a darker head-and-shoulders silhouette.
    constexpr int side = 128;
    QImage image(side, side, QImage::Format_ARGB32);
    const QRgb background = qRgb(0xc8, 0xc8, 0xc8);
    const QRgb figure = qRgb(0x8c, 0x8c, 0x8c);
    for (int y = 0; y < side; ++y) {
        auto *line = reinterpret_cast<QRgb *>(image.scanLine(y));
        for (int x = 0; x < side; ++x) {
            const double hx = x - 64.0, hy = y - 46.0;                    // head, radius 24
            const double sx = (x - 64.0) / 46.0, sy = (y - 128.0) / 42.0; // shoulders
            const bool inFigure = hx * hx + hy * hy <= 24.0 * 24.0 || sx * sx + sy * sy <= 1.0;
            line[x] = inFigure ? figure : background;
        }
    }
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return zt::KeyedArchiver::archivedDataWithRootObject(png);
}

} // namespace

QByteArray ZTAbstractSelfIdentity::defaultAvatarData()
{
    static const QByteArray data = drawDefaultAvatar();
    return data;
}

void ZTAbstractSelfIdentity::init()
{
    super::init();
    m_candidatesNil = false;
    setCandidates({});
    setAvatarData(defaultAvatarData());
    // The self-observation of "candidates" has an empty callback: every
    // change announces itself already, so no registration is made.
    m_isObserving = true;
}

QString ZTAbstractSelfIdentity::nickname() const
{
    zt::log(ztModel, u"SelfIdentity can't get nickname");
    return {};
}

void ZTAbstractSelfIdentity::setNickname(const QString &)
{
    zt::log(ztModel, u"SelfIdentity can't set nickname");
}

QString ZTAbstractSelfIdentity::printableDescription() const
{
    QVariantList nicknames;
    nicknames.reserve(m_candidates.size());
    for (const auto &candidate : m_candidates)
        nicknames.append(zt::toValue(candidate->nickname()));
    return zt::format(u"%@ (%@), nicknames: %@", username(), realname(), QVariant(nicknames));
}

bool ZTAbstractSelfIdentity::isEqual(const zt::Object *other) const
{
    const auto *identity = dynamic_cast<const ZTAbstractSelfIdentity *>(other);
    if (!identity || !identity->isKindOfClass(classInfo()))
        return false;
    if (identity->username() != username() || identity->realname() != realname() ||
        identity->m_candidates.size() != m_candidates.size())
        return false;
    for (qsizetype i = 0; i < m_candidates.size(); ++i)
        if (!m_candidates[i]->isEqual(identity->m_candidates[i].get()))
            return false;
    return true;
}

QVariant ZTAbstractSelfIdentity::newCandidate()
{
    return QVariantMap();
}

void ZTAbstractSelfIdentity::addCandidate(ZTAbstractNickCandidate *candidate)
{
    mutableCandidates().addObject(zt::objectValue(candidate));
}

void ZTAbstractSelfIdentity::removeCandidates(const QList<zt::Ref<ZTAbstractNickCandidate>> &candidates)
{
    zt::IndexSet doomed;
    for (qsizetype i = 0; i < m_candidates.size(); ++i)
        if (candidates.contains(m_candidates[i]))
            doomed.add(quint64(i));
    if (!doomed.isEmpty())
        mutableCandidates().removeObjectsAtIndexes(doomed);
}

void ZTAbstractSelfIdentity::removeCandidate(ZTAbstractNickCandidate *candidate)
{
    removeCandidates({zt::Ref<ZTAbstractNickCandidate>(candidate)});
}

void ZTAbstractSelfIdentity::insertCandidatesAtLocations(
    const QList<zt::Ref<ZTAbstractNickCandidate>> &candidates, const zt::IndexSet &locations)
{
    mutableCandidates().insertObjectsAtIndexes(zt::detail::objectValues(candidates), locations);
}

void ZTAbstractSelfIdentity::removeCandidatesAtLocations(const zt::IndexSet &locations)
{
    mutableCandidates().removeObjectsAtIndexes(locations);
}

std::optional<QList<zt::Ref<ZTAbstractNickCandidate>>>
ZTAbstractSelfIdentity::replacementObjectsForCandidateDictionaries(const QVariantList &)
{
    zt::Exception::raise(
        QStringLiteral("Abstract method"),
        zt::format(u"Implement -replacementObjectsForCandidateDictionaries: in %@", className()));
}

QVariantMap ZTAbstractSelfIdentity::dictionary() const
{
    QVariantMap d = super::dictionary();
    if (!m_candidatesNil)
        d.insert(QStringLiteral("candidateDictionaries"), candidateDictionaries());
    return d;
}

QString ZTAbstractSelfIdentity::replacementKeyForWiring(const QString &key) const
{
    if (key == u"candidates")
        return QStringLiteral("candidateDictionaries");
    return super::replacementKeyForWiring(key);
}

void ZTAbstractSelfIdentity::encodeWithCoder(zt::KeyedArchiver &coder) const
{
    super::encodeWithCoder(coder);
    coder.encodeObject(m_avatarData.isNull() ? QVariant() : QVariant(m_avatarData),
                       QStringLiteral("avatarData"));
    coder.encodeObject(zt::toValue(m_candidates), QStringLiteral("candidates"));
    coder.encodeBool(m_isDefault, QStringLiteral("isDefault"));
}

void ZTAbstractSelfIdentity::initWithCoder(zt::KeyedUnarchiver &coder)
{
    super::initWithCoder(coder);
    const QVariant avatar = coder.decodeObjectForKey(QStringLiteral("avatarData"));
    if (avatar.isValid() && !zt::isNullMarker(avatar))
        setAvatarData(avatar.toByteArray());
    if (coder.containsValueForKey(QStringLiteral("candidates")))
        setCandidates(zt::fromValue<QList<zt::Ref<ZTAbstractNickCandidate>>>(
            coder.decodeObjectForKey(QStringLiteral("candidates"))));
    setIsDefault(coder.decodeBoolForKey(QStringLiteral("isDefault")));
}

void ZTAbstractSelfIdentity::nilify()
{
    m_isObserving = false;
    // The identity owns its candidates: they leave the directory with it.
    const QList<zt::Ref<ZTAbstractNickCandidate>> candidates = std::exchange(m_candidates, {});
    m_candidatesNil = true;
    for (const auto &candidate : candidates)
        candidate->invalidate();
    m_avatarData = QByteArray();
}

void ZTAbstractSelfIdentity::willChangeValueForKey(const QString &key)
{
    if (key == u"candidates")
        m_candidatesBefore = m_candidates;
    super::willChangeValueForKey(key);
}

void ZTAbstractSelfIdentity::didChangeValueForKey(const QString &key)
{
    super::didChangeValueForKey(key);
    if (key == u"candidates")
        invalidateDepartedCandidates();
}

void ZTAbstractSelfIdentity::willChangeValuesAtIndexesForKey(zt::KeyValueChange kind,
                                                             const zt::IndexSet &indexes, const QString &key)
{
    if (key == u"candidates" && kind != zt::KeyValueChange::Insertion)
        m_candidatesBefore = m_candidates;
    super::willChangeValuesAtIndexesForKey(kind, indexes, key);
}

void ZTAbstractSelfIdentity::didChangeValuesAtIndexesForKey(zt::KeyValueChange kind,
                                                            const zt::IndexSet &indexes, const QString &key)
{
    super::didChangeValuesAtIndexesForKey(kind, indexes, key);
    if (key == u"candidates")
        invalidateDepartedCandidates();
}

void ZTAbstractSelfIdentity::invalidateDepartedCandidates()
{
    const QList<zt::Ref<ZTAbstractNickCandidate>> before = std::exchange(m_candidatesBefore, {});
    for (const auto &candidate : before)
        if (!m_candidates.contains(candidate))
            candidate->invalidate();
}
