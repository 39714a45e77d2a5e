#include "model/ztchannel.h"

#include "model/ztconnection.h"
#include "model/ztidentity.h"
#include "model/ztmodelsupport.h"
#include "model/ztperson.h"
#include "model/ztsettings.h"
#include "runtime/dictionary.h"
#include "runtime/logging.h"

#include <QSet>

#include <bit>

ZT_DEFINE_CLASS(ZTAbstractChannel)

namespace {

const QString UsersKey = QStringLiteral("users");
const QString MsgID = QStringLiteral("msgID");
const QString MsgStarred = QStringLiteral("msgStarred");
const QString MsgEmbedded = QStringLiteral("msgEmbedded");

//! The index of the last line whose "msgID" equals `uuid`, or -1.
qsizetype lastLineWithID(const QVariantList &lines, const QString &uuid)
{
    for (qsizetype i = lines.size() - 1; i >= 0; --i) {
        const QVariant id = zt::entryValue(lines[i], MsgID);
        if (id.typeId() == QMetaType::QString && id.toString() == uuid)
            return i;
    }
    return -1;
}

} // namespace

ZTAbstractChannel::ZTAbstractChannel() = default;
ZTAbstractChannel::~ZTAbstractChannel() = default;

// ---- related objects ----

zt::Ref<ZTAbstractAdvancedSettings> ZTAbstractChannel::advancedSettings() const
{
    return m_advancedSettings;
}

void ZTAbstractChannel::setAdvancedSettings(const zt::Ref<ZTAbstractAdvancedSettings> &settings)
{
    setAndNotify(m_advancedSettings, settings, QStringLiteral("advancedSettings"));
}

QVariant ZTAbstractChannel::advancedSettingsDictionary() const
{
    return m_advancedSettings ? QVariant(m_advancedSettings->dictionary()) : QVariant();
}

void ZTAbstractChannel::setAdvancedSettingsDictionary(const QVariant &)
{
    zt::log(ztModel, u"Abstract method: %@", QStringLiteral("setAdvancedSettingsDictionary:"));
}

// ---- users ----

QList<zt::Ref<ZTAbstractPerson>> ZTAbstractChannel::users() const
{
    return m_users;
}

void ZTAbstractChannel::setUsers(const QList<zt::Ref<ZTAbstractPerson>> &users)
{
    m_userIndexValid = false;
    setAndNotify(m_users, users, UsersKey);
}

void ZTAbstractChannel::insertUsersAtIndexes(const QList<zt::Ref<ZTAbstractPerson>> &users,
                                             const zt::IndexSet &indexes)
{
    const qsizetype before = m_users.size();
    zt::detail::insertAtIndexes(this, "insertUsers:atIndexes:", m_users, users, indexes);
    if (!indexes.isEmpty() && indexes.first() == quint64(before))
        indexUsersFrom(before); // appended: the index grows
    else
        m_userIndexValid = false;
}

void ZTAbstractChannel::removeUsersAtIndexes(const zt::IndexSet &indexes)
{
    m_userIndexValid = false;
    zt::detail::removeAtIndexes(this, "removeUsersAtIndexes:", m_users, indexes);
}

void ZTAbstractChannel::replaceUsersAtIndexesWithUsers(const zt::IndexSet &indexes,
                                                       const QList<zt::Ref<ZTAbstractPerson>> &users)
{
    m_userIndexValid = false;
    zt::detail::replaceAtIndexes(this, "replaceUsersAtIndexes:withUsers:", m_users, indexes, users);
}

QVariantList ZTAbstractChannel::usersAtIndexes(const zt::IndexSet &indexes) const
{
    return zt::detail::valuesAtIndexes(this, "usersAtIndexes:", m_users, indexes,
                                       [](const auto &person) { return zt::objectValue(person.get()); });
}

QVariantList ZTAbstractChannel::userDictionaries() const
{
    return zt::detail::dictionariesOf(m_users);
}

QVariantList ZTAbstractChannel::userDictionariesAtIndexes(const zt::IndexSet &indexes) const
{
    return zt::detail::valuesAtIndexes(this, "userDictionariesAtIndexes:", m_users, indexes,
                                       [](const auto &person) { return QVariant(person->dictionary()); });
}

void ZTAbstractChannel::setUserDictionaries(const QVariantList &dictionaries)
{
    if (auto users = replacementObjectsForUserDictionaries(dictionaries))
        setUsers(*users);
}

void ZTAbstractChannel::insertUserDictionariesAtIndexes(const QVariantList &dictionaries,
                                                        const zt::IndexSet &indexes)
{
    const auto users = replacementObjectsForUserDictionaries(dictionaries);
    mutableUsers().insertObjectsAtIndexes(users ? zt::detail::objectValues(*users) : QVariantList(), indexes);
}

void ZTAbstractChannel::removeUserDictionariesAtIndexes(const zt::IndexSet &indexes)
{
    mutableUsers().removeObjectsAtIndexes(indexes);
}

std::optional<QList<zt::Ref<ZTAbstractPerson>>>
ZTAbstractChannel::replacementObjectsForUserDictionaries(const QVariantList &)
{
    return std::nullopt;
}

// ---- highlights ----

QVariantList ZTAbstractChannel::highlightDictionaries() const
{
    return zt::model::dictionariesOfEntries(m_highlights);
}

void ZTAbstractChannel::setHighlightDictionaries(const QVariantList &dictionaries)
{
    m_highlightDictionaries = dictionaries;
    if (auto entries = replacementObjectsForHighlightDictionaries(dictionaries))
        setHighlights(*entries);
}

std::optional<QVariantList>
ZTAbstractChannel::replacementObjectsForHighlightDictionaries(const QVariantList &)
{
    return std::nullopt;
}

// ---- bans ----

ZT_DEFINE_TO_MANY(ZTAbstractChannel, ZTAbstractBan, banlist, Banlist)

QVariantList ZTAbstractChannel::banlistDictionaries() const
{
    return zt::detail::dictionariesOf(m_banlist);
}

void ZTAbstractChannel::setBanlistDictionaries(const QVariantList &) {}

// ---- derived values ----

quint64 ZTAbstractChannel::encoding() const
{
    if (m_encoding != 0 || !m_connection)
        return m_encoding;
    return m_connection->encoding();
}

zt::Ref<ZTAbstractPerson> ZTAbstractChannel::party() const
{
    return m_isQuery ? personWithName(m_name) : zt::Ref<ZTAbstractPerson>();
}

// ---- object life ----

void ZTAbstractChannel::init()
{
    super::init();
    setUsers({});
    setBanlist({});
    setName(QStringLiteral(""));
    setPassword(QStringLiteral(""));
    setAttributes({});
    setStatus(0);
    setHighlights({});
    setAutoexec({});
    setHighlightOccurences({});
    setStarOccurences({});
    setHistory({});
    setContent({});
    setDidValidateNames(false);
    // The departure rule. The handler reads the list as it is now rather
    // than the change record's new value, so the observation asks only for
    // old values: an insertion then costs the list no copy at all.
    addObservationToken(VDKVO::observeAtKeyPathOptionsHandler(
        this, UsersKey, zt::ObservingOption::Old, [this](zt::Object *, const zt::KVOChange &change) {
            invalidatePeople(zt::model::departedObjects(change, m_users));
        }));
}

void ZTAbstractChannel::invalidatePeople(const QList<zt::Ref<ZTAbstractPerson>> &people)
{
    for (const auto &person : people)
        if (person)
            person->invalidate();
}

void ZTAbstractChannel::nilify()
{
    m_tearingDown = true;
    setAttributes({});
    // The departure observation has ended by now (invalidate empties the
    // observer set first; teardown too): the people still present are
    // invalidated here.
    const QList<zt::Ref<ZTAbstractPerson>> present = m_users;
    setUsers({});
    invalidatePeople(present);
    setHighlightOccurences({});
    setStarOccurences({});
    setHighlights({});
    setAutoexec({});
    setHistory({});
    setContent({});
    // The bans and the settings are the channel's own.
    QList<zt::Ref<ZTAbstractIPC>> owned(m_banlist.cbegin(), m_banlist.cend());
    if (m_advancedSettings)
        owned.append(m_advancedSettings);
    setBanlist({});
    setName(QString());
    setPassword(QString());
    setAdvancedSettings({});
    for (const auto &object : owned)
        object->invalidate();
    super::nilify();
}

void ZTAbstractChannel::dealloc()
{
    Q_ASSERT_X(!inDirectory(), "ZTAbstractChannel", "a channel must be invalidated before it is freed");
    super::dealloc();
}

QVariantMap ZTAbstractChannel::dictionary() const
{
    QVariantMap d = super::dictionary();
    d.insert(QStringLiteral("unreadLines"), qint64(qint32(m_unreadLines)));
    d.insert(QStringLiteral("unreadHighlights"), qint64(qint32(m_unreadHighlights)));
    d.insert(QStringLiteral("importance"), qint64(qint32(importance())));
    d.insert(QStringLiteral("index"), qint64(qint32(m_index)));
    if (!m_highlightDictionaries.isNull())
        d.insert(QStringLiteral("highlightDictionaries"), m_highlightDictionaries);
    d.insert(QStringLiteral("userDictionaries"), userDictionaries());
    d.insert(QStringLiteral("linesDictionary"), const_cast<ZTAbstractChannel *>(this)->linesDictionary());
    d.insert(QStringLiteral("banlistDictionaries"), banlistDictionaries());
    d.insert(QStringLiteral("highlights"), highlightDictionaries());
    if (m_advancedSettings)
        d.insert(QStringLiteral("advancedSettings"), m_advancedSettings->dictionary());
    return d;
}

QString ZTAbstractChannel::replacementKeyForWiring(const QString &key) const
{
    if (key == UsersKey)
        return QStringLiteral("userDictionaries");
    if (key == QLatin1String("banlist"))
        return QStringLiteral("banlistDictionaries");
    if (key == QLatin1String("advancedSettings"))
        return QStringLiteral("advancedSettingsDictionary");
    if (key == QLatin1String("highlights"))
        return QStringLiteral("highlightDictionaries");
    return super::replacementKeyForWiring(key);
}

bool ZTAbstractChannel::shouldPropagateValueChangesForKey(const QString &key) const
{
    return !m_tearingDown && super::shouldPropagateValueChangesForKey(key) &&
           key != QLatin1String("connection");
}

// ---- outgoing commands ----

void ZTAbstractChannel::askTopic()
{
    if (m_connection)
        m_connection->processOutgoingLine(QStringLiteral("TOPIC %1").arg(m_name));
}

void ZTAbstractChannel::quietlyAskTopic()
{
    setHideTopicReply(true);
    askTopic();
}

void ZTAbstractChannel::askMode()
{
    if (m_connection)
        m_connection->writeString(QStringLiteral("MODE ") + m_name);
}

void ZTAbstractChannel::askBans()
{
    if (m_connection)
        m_connection->writeString(QStringLiteral("MODE %1 +b").arg(m_name));
}

void ZTAbstractChannel::askExceptions()
{
    if (m_connection)
        m_connection->writeString(QStringLiteral("MODE %1 +e").arg(m_name));
}

void ZTAbstractChannel::askWho()
{
    if (m_connection)
        m_connection->writeString(QStringLiteral("WHO ") + m_name);
}

// ---- people ----

void ZTAbstractChannel::addPerson(const zt::Ref<ZTAbstractPerson> &person)
{
    if (person)
        mutableUsers().addObject(zt::objectValue(person.get()));
}

void ZTAbstractChannel::removePerson(const zt::Ref<ZTAbstractPerson> &person)
{
    zt::IndexSet found;
    for (qsizetype i = 0; i < m_users.size(); ++i)
        if (m_users[i].get() == person.get())
            found.add(quint64(i));
    if (!found.isEmpty())
        mutableUsers().removeObjectsAtIndexes(found);
}

void ZTAbstractChannel::resetUsers()
{
    mutableUsers().removeAllObjects();
}

namespace {

// The hash of a nickname's case-folded form, with the process's random hash
// salt (nicknames come from the network). ASCII, nearly every nickname, is
// folded on the stack.
size_t foldedNicknameHash(QStringView nickname)
{
    char16_t folded[64];
    if (nickname.size() <= qsizetype(std::size(folded))) {
        qsizetype n = 0;
        for (const QChar c : nickname) {
            const char16_t u = c.unicode();
            if (u >= 0x80) {
                n = -1;
                break;
            }
            folded[n++] = u >= u'A' && u <= u'Z' ? char16_t(u + (u'a' - u'A')) : u;
        }
        if (n >= 0)
            return qHash(QStringView(folded, n), QHashSeed::globalSeed());
    }
    return qHash(nickname.toString().toCaseFolded(), QHashSeed::globalSeed());
}

bool isNamed(const ZTAbstractPerson *person, QStringView name)
{
    const auto identity = person->identity();
    return identity && identity->nickname().compare(name, Qt::CaseInsensitive) == 0;
}

} // namespace

size_t ZTAbstractChannel::userIndexSlot(QStringView name, size_t hash, bool *disagrees) const
{
    const size_t mask = m_userIndex.size() - 1;
    for (size_t at = hash & mask;; at = (at + 1) & mask) {
        const UserIndexSlot &slot = m_userIndex[at];
        if (!slot.person)
            return at;
        if (slot.hash == hash) {
            if (isNamed(slot.person, name))
                return at;
            if (disagrees)
                *disagrees = true;
        }
    }
}

void ZTAbstractChannel::resizeUserIndex(size_t slots) const
{
    std::vector<UserIndexSlot> old(slots);
    old.swap(m_userIndex);
    const size_t mask = slots - 1;
    for (const UserIndexSlot &slot : old) {
        if (!slot.person)
            continue;
        size_t at = slot.hash & mask;
        while (m_userIndex[at].person)
            at = (at + 1) & mask;
        m_userIndex[at] = slot;
    }
}

void ZTAbstractChannel::indexUsersFrom(qsizetype first) const
{
    if (!m_userIndexValid)
        return;
    for (qsizetype i = first; i < m_users.size(); ++i) {
        const auto identity = m_users[i]->identity();
        if (!identity)
            continue;
        if (size_t(m_userIndexCount + 1) * 2 > m_userIndex.size())
            resizeUserIndex(std::max<size_t>(16, m_userIndex.size() * 2));
        const QString nickname = identity->nickname();
        const size_t hash = foldedNicknameHash(nickname);
        UserIndexSlot &slot = m_userIndex[userIndexSlot(nickname, hash, nullptr)];
        if (slot.person)
            continue; // the first user of a nickname keeps it
        slot = UserIndexSlot{hash, m_users[i].get()};
        ++m_userIndexCount;
    }
}

zt::Ref<ZTAbstractPerson> ZTAbstractChannel::personWithName(const QString &name) const
{
    const quint64 generation = zt::model::nicknameGeneration();
    if (!m_userIndexValid || m_userIndexGeneration != generation) {
        m_userIndex.clear();
        m_userIndexCount = 0;
        resizeUserIndex(std::bit_ceil(std::max<size_t>(16, size_t(m_users.size()) * 2 + 2)));
        m_userIndexValid = true;
        m_userIndexGeneration = generation;
        indexUsersFrom(0);
    }
    bool disagrees = false;
    if (ZTAbstractPerson *found =
            m_userIndex[userIndexSlot(name, foldedNicknameHash(name), &disagrees)].person)
        return zt::Ref<ZTAbstractPerson>(found);
    if (!disagrees)
        return {};
    // The index disagrees with the people (changed without a rename being
    // noted): read the list itself.
    for (const auto &person : m_users)
        if (isNamed(person.get(), name))
            return person;
    return {};
}

// ---- state, lines and stars ----

void ZTAbstractChannel::clearActivity()
{
    setAttributes({});
    setDidValidateNames(false);
    resetUsers();
    setBanlist({});
}

void ZTAbstractChannel::clearLines()
{
    setHistory({});
    setContent({});
    resetLineCount();
    clear();
}

void ZTAbstractChannel::resetLineCount()
{
    if (m_unreadLines == 0 && m_unreadHighlights == 0)
        return;
    setUnreadLines(0);
    setUnreadHighlights(0);
    if (ZTIPCProxy *mirror = counterpart())
        mirror->perform(zt::Selector("resetLineCount"));
}

QVariant ZTAbstractChannel::messageWithUUID(const QString &uuid) const
{
    const qsizetype inContent = lastLineWithID(m_content, uuid);
    if (inContent >= 0)
        return m_content[inContent];
    const qsizetype inHistory = lastLineWithID(m_history, uuid);
    return inHistory >= 0 ? m_history[inHistory] : QVariant();
}

QVariant ZTAbstractChannel::starredMessageWithUUID(const QString &uuid) const
{
    const qsizetype at = lastLineWithID(m_starOccurences, uuid);
    return at >= 0 ? m_starOccurences[at] : QVariant();
}

void ZTAbstractChannel::addHighlightOccurence(const QVariantMap &line)
{
    mutableArrayValueForKey(QStringLiteral("highlightOccurences")).addObject(line);
}

void ZTAbstractChannel::addStarOccurenceWithUUID(const QString &uuid)
{
    QVariantMap star = messageWithUUID(uuid).toMap();
    star.insert(MsgStarred, true);
    mutableArrayValueForKey(QStringLiteral("starOccurences")).addObject(star);
}

void ZTAbstractChannel::removeStarOccurenceWithUUID(const QString &uuid)
{
    const qsizetype at = lastLineWithID(m_starOccurences, uuid);
    if (at < 0)
        return;
    // The removed copy would be marked unstarred; it is a value here, so
    // nothing else sees that mark.
    mutableArrayValueForKey(QStringLiteral("starOccurences")).removeObjectAtIndex(at);
}

QVariantMap ZTAbstractChannel::linesDictionary()
{
    for (QVariant &line : m_content) {
        if (zt::kindOf(line) != zt::ValueKind::Dictionary)
            continue;
        QVariantMap map = line.toMap();
        map.insert(MsgEmbedded, false);
        line = map;
    }
    return {{QStringLiteral("content"), m_content}, {QStringLiteral("pastcontent"), m_history}};
}
