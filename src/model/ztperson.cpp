#include "model/ztperson.h"

#include "core/ztdirectory.h"
#include "model/ztchannel.h"
#include "model/ztconnection.h"
#include "model/ztmodelsupport.h"
#include "model/ztnetwork.h"
#include "rules/koregex.h"
#include "rules/koregexmatch.h"
#include "runtime/kvc.h"

#include <QMutex>

ZT_DEFINE_CLASS(ZTAbstractPerson)
ZT_DEFINE_CLASS(ZTAbstractPseudoPerson)

namespace {

template<typename T> T *rawPointer(T *p)
{
    return p;
}
template<typename T> T *rawPointer(const zt::Ref<T> &p)
{
    return p.get();
}

// The parties of queries. A query's party stays valid for as long as the
// process runs, whatever happens to the query: this list is the one owner
// that keeps it, taking a reference when a person becomes a query party and
// never giving it back. It is reachable from a static pointer and never
// destroyed, so nothing is torn down during exit.
struct QueryParties
{
    QMutex lock;
    QList<zt::Ref<ZTAbstractPerson>> people;
};
QueryParties &queryParties()
{
    static QueryParties *const parties = new QueryParties;
    return *parties;
}

} // namespace

// ---- ZTAbstractPerson ----

void ZTAbstractPerson::setIsQueryParty(bool isQueryParty)
{
    if (isQueryParty && !m_isQueryParty) {
        QueryParties &parties = queryParties();
        QMutexLocker locker(&parties.lock);
        parties.people.append(zt::Ref<ZTAbstractPerson>(this));
    }
    setAndNotify(m_isQueryParty, isQueryParty, QStringLiteral("isQueryParty"));
}

QVariant ZTAbstractPerson::identityDictionary() const
{
    return m_identity ? QVariant(m_identity->dictionary()) : QVariant();
}

void ZTAbstractPerson::setIdentityDictionary(const QVariant &) {}

QString ZTAbstractPerson::connectionUUID() const
{
    return m_connection ? m_connection->description() : QString();
}

void ZTAbstractPerson::setConnectionUUID(const QString &uuid)
{
    const zt::Ref<ZTAbstractIPC> found = ZTDirectory::sharedInstance()->connectionWithID(uuid);
    setConnection(dynamic_cast<ZTAbstractConnection *>(found.get()));
}

zt::Ref<ZTAbstractNetwork> ZTAbstractPerson::network() const
{
    if (!m_connection)
        return {};
    const auto server = m_connection->server();
    if (!server)
        return {};
    return zt::Ref<ZTAbstractNetwork>(rawPointer(server->network()));
}

QString ZTAbstractPerson::mask() const
{
    return m_identity ? m_identity->mask() : QString();
}

QString ZTAbstractPerson::banMask() const
{
    return m_identity ? m_identity->banMask() : QString();
}

QString ZTAbstractPerson::nuh() const
{
    return m_identity ? m_identity->nuh() : QString();
}

QString ZTAbstractPerson::userhost() const
{
    return m_identity ? m_identity->userhost() : QString();
}

bool ZTAbstractPerson::isMe() const
{
    if (!m_connection || !m_identity)
        return false;
    return m_connection->nickname().compare(m_identity->nickname(), Qt::CaseInsensitive) == 0;
}

QString ZTAbstractPerson::statusString() const
{
    if (!m_identity)
        return {};
    if (m_identity->status() == ZTAbstractIdentity::StatusAvailable)
        return zt::model::localizedString("AVAILABLE");
    const QString message = m_identity->awayMessage();
    return message.isEmpty() ? zt::model::localizedString("AWAY") : message;
}

void ZTAbstractPerson::initWithNickname(const QString &nickname)
{
    init();
    if (m_identity)
        m_identity->setNickname(nickname);
}

void ZTAbstractPerson::initWithNicknameOnConnection(const QString &nickname, ZTAbstractConnection *connection)
{
    initWithNickname(nickname);
    setOnline(true);
    setConnection(connection);
    induceProperties();
    if (zt::Object *agent = ZTCoreBridge::agent()) {
        const zt::Selector appeared("processPersonDidAppear:");
        if (agent->respondsToSelector(appeared))
            agent->perform(appeared, {zt::objectValue(this)});
    }
}

void ZTAbstractPerson::willChangeValueForKey(const QString &key)
{
    if (m_identity && key == u"identity")
        zt::model::noteNicknameChange();
    super::willChangeValueForKey(key);
}

void ZTAbstractPerson::initWithNicknameOnChannel(const QString &nickname, ZTAbstractChannel *channel)
{
    initWithNicknameOnConnection(nickname, channel ? rawPointer(channel->connection()) : nullptr);
    setChannel(channel);
    setIsQueryParty(channel && channel->isQuery());
}

void ZTAbstractPerson::induceProperties()
{
    if (!m_connection || !m_identity)
        return;
    const QString nick = m_identity->nickname();
    for (const auto &entry : m_connection->personsWithName(nick)) {
        ZTAbstractPerson *other = entry.get();
        if (!other || other == this || !other->m_identity)
            continue;
        const ZTAbstractIdentity &theirs = *other->m_identity;
        if (m_identity->username().isEmpty() && !theirs.username().isEmpty()) {
            m_identity->setHostname(theirs.hostname());
            m_identity->setUsername(theirs.username());
        }
        if (!m_authenticated && other->m_authenticated)
            setAuthenticated(true);
    }
    // Exactly the connection's nick (isMe ignores case; this does not).
    if (nick == m_connection->nickname()) {
        const auto self = m_connection->currentIdentity();
        if (self)
            m_identity->setStatus(self->status());
    }
}

void ZTAbstractPerson::sendFileAtPath(const QString &) {}
void ZTAbstractPerson::scheduleAuthCheckPrioritizing(bool) {}
void ZTAbstractPerson::resetWhois() {}
void ZTAbstractPerson::addToFilters() {}
void ZTAbstractPerson::removeFromFilters() {}
void ZTAbstractPerson::addToFriends() {}
void ZTAbstractPerson::removeFromFriends() {}

void ZTAbstractPerson::nilify()
{
    // Without announcements (see ZTAbstractIdentity::nilify). The person owns
    // its identity, which leaves the directory with it.
    m_connection = nullptr;
    m_channel = nullptr;
    if (zt::Ref<ZTAbstractIdentity> identity = std::exchange(m_identity, {}))
        identity->invalidate();
}

QString ZTAbstractPerson::replacementKeyForWiring(const QString &key) const
{
    if (key == u"identity")
        return QStringLiteral("identityDictionary");
    return super::replacementKeyForWiring(key);
}

bool ZTAbstractPerson::shouldPropagateValueChangesForKey(const QString &key) const
{
    if (key == u"displayNickname" || key == u"statusString" || key == u"channel" || key == u"connection")
        return false;
    return super::shouldPropagateValueChangesForKey(key);
}

// ---- ZTAbstractPseudoPerson ----

void ZTAbstractPseudoPerson::init()
{
    super::init();
    // Compilation follows "content" from the start (the initial option). The
    // plain self-observations of "content" and the permissions have empty
    // callbacks and are not registered: every change announces itself.
    addObservationToken(
        zt::observeKeyPathOptionsHandler(this, QStringLiteral("content"), zt::ObservingOption::Initial,
                                         [this](zt::Object *, const zt::KVOChange &) { compileContent(); }));
}

QString ZTAbstractPseudoPerson::patternForContent(const QString &content)
{
    QString pattern = content;
    pattern.replace(u'.', QStringLiteral("\\."));
    pattern.replace(u'*', QStringLiteral(".*"));
    return pattern;
}

void ZTAbstractPseudoPerson::compileContent()
{
    if (m_content.isEmpty())
        return; // the previous pattern stays
    const QString pattern = patternForContent(m_content);
    if (!pattern.isEmpty())
        setRegex(KORegex::regexWithPattern(pattern, KORegex::CaseInsensitive));
}

zt::Ref<ZTAbstractIPC> ZTAbstractPseudoPerson::network() const
{
    return ZTDirectory::sharedInstance()->objectWithID(m_networkUUID);
}

QString ZTAbstractPseudoPerson::networkName() const
{
    const zt::Ref<ZTAbstractIPC> found = network();
    return found ? zt::fromValue<QString>(found->valueForKey(QStringLiteral("name"))) : QString();
}

QVariant ZTAbstractPseudoPerson::realPersonDictionary() const
{
    return m_realPerson ? QVariant(m_realPerson->dictionary()) : QVariant();
}

void ZTAbstractPseudoPerson::setRealPersonDictionary(const QVariant &) {}

QVariant ZTAbstractPseudoPerson::addressBookProperty() const
{
    return {};
}

void ZTAbstractPseudoPerson::initWithContentOnNetwork(const QString &content, ZTAbstractNetwork *network)
{
    init();
    setContent(content);
    setNetworkUUID(network ? network->networkUUID() : QString());
}

void ZTAbstractPseudoPerson::assignRealPersonFromPerson(ZTAbstractPerson *person)
{
    setRealPerson(zt::Ref<ZTAbstractPerson>(person));
}

void ZTAbstractPseudoPerson::unassignRealPerson()
{
    setRealPerson({});
}

bool ZTAbstractPseudoPerson::matchesPerson(ZTAbstractPerson *person) const
{
    if (!person || !m_regex)
        return false;
    const zt::Ref<ZTAbstractNetwork> network = person->network();
    if (!network || network->description() != m_networkUUID)
        return false;
    return bool(m_regex->findInString(person->nuh()));
}

void ZTAbstractPseudoPerson::addToFriends() {}
void ZTAbstractPseudoPerson::removeFromFriends() {}
void ZTAbstractPseudoPerson::addToFilters() {}
void ZTAbstractPseudoPerson::removeFromFilters() {}

QString ZTAbstractPseudoPerson::replacementKeyForWiring(const QString &key) const
{
    if (key == u"realPerson")
        return QStringLiteral("realPersonDictionary");
    return super::replacementKeyForWiring(key);
}

bool ZTAbstractPseudoPerson::shouldPropagateValueChangesForKey(const QString &key) const
{
    return key != u"regex" && super::shouldPropagateValueChangesForKey(key);
}

void ZTAbstractPseudoPerson::encodeWithCoder(zt::KeyedArchiver &coder) const
{
    super::encodeWithCoder(coder);
    coder.encodeObject(zt::toValue(m_content), QStringLiteral("content"));
    coder.encodeObject(zt::toValue(m_networkUUID), QStringLiteral("networkUUID"));
    coder.encodeObject(zt::toValue(m_addressBookID), QStringLiteral("addressBookID"));
}

void ZTAbstractPseudoPerson::initWithCoder(zt::KeyedUnarchiver &coder)
{
    super::initWithCoder(coder);
    setNetworkUUID(zt::fromValue<QString>(coder.decodeObjectForKey(QStringLiteral("networkUUID"))));
    setContent(zt::fromValue<QString>(coder.decodeObjectForKey(QStringLiteral("content"))));
    setAddressBookID(zt::fromValue<QString>(coder.decodeObjectForKey(QStringLiteral("addressBookID"))));
}

void ZTAbstractPseudoPerson::dealloc()
{
    m_regex.reset();
    m_addressBookID = QString();
    m_content = QString();
    m_networkUUID = QString();
    m_realPerson.reset();
    super::dealloc();
}
