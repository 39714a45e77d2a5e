#include "person_classes.h"

#include "channel_classes.h"

ZT_DEFINE_CLASS(AgentPerson)
ZT_DEFINE_CLASS(ClientPerson)
ZT_DEFINE_CLASS(AgentPseudoPerson)
ZT_DEFINE_CLASS(ClientPseudoPerson)

namespace {

//! The identity for a received identity dictionary: the current one updated
//! when the UUIDs agree, else the one the dictionary describes (the current
//! one, owned by the person, is then invalidated).
template<typename IdentityClass> void adoptIdentity(ZTAbstractPerson *person, const QVariant &dictionary)
{
    if (!zt::isNilOrNull(dictionary) && zt::kindOf(dictionary) != zt::ValueKind::Dictionary)
        return;
    const zt::Ref<ZTAbstractIdentity> current = person->identity();
    const QString uuid = zt::entryValue(dictionary, QStringLiteral("description")).toString();
    if (current && (uuid.isEmpty() || uuid == current->description())) {
        peopleapps::applyDictionary(current.get(), dictionary);
        return;
    }
    zt::Ref<IdentityClass> identity = peopleapps::objectFromDictionary<IdentityClass>(dictionary);
    if (!identity)
        return;
    person->setIdentity(identity);
    if (current)
        current->invalidate();
}

} // namespace

QString AgentPerson::displayNickname() const
{
    const zt::Ref<ZTAbstractIdentity> id = identity();
    return id ? id->nickname() : QString();
}

void AgentPerson::init()
{
    super::init();
    setIdentity(peopleapps::newObject<AgentIdentity>());
}

void AgentPerson::setIdentityDictionary(const QVariant &dictionary)
{
    adoptIdentity<AgentIdentity>(this, dictionary);
}

zt::Ref<ClientPerson> ClientPerson::personWithDictionary(const QVariant &dictionary)
{
    const QString uuid = zt::entryValue(dictionary, QStringLiteral("description")).toString();
    if (uuid.isEmpty())
        return {};
    zt::Ref<ClientPerson> person =
        zt::dynamicCast<ClientPerson>(ZTDirectory::sharedInstance()->objectWithID(uuid));
    QStringView applied;
    if (!person) {
        person = zt::make<ClientPerson>();
        person->m_initialIdentity = zt::entryValue(dictionary, QStringLiteral("identityDictionary"));
        person->initWithUUID(uuid);
        person->m_initialIdentity = QVariant();
        applied = u"identityDictionary"; // init() built the identity from it
    }
    peopleapps::applyDictionary(person.get(), dictionary, applied);
    return person;
}

QString ClientPerson::displayNickname() const
{
    const zt::Ref<ZTAbstractIdentity> id = identity();
    return id ? id->nickname() : QString();
}

void ClientPerson::init()
{
    super::init();
    zt::Ref<ClientIdentity> made;
    if (zt::kindOf(m_initialIdentity) == zt::ValueKind::Dictionary)
        made = peopleapps::objectFromDictionary<ClientIdentity>(m_initialIdentity);
    setIdentity(made ? made : peopleapps::newObject<ClientIdentity>());
}

void ClientPerson::setIdentityDictionary(const QVariant &dictionary)
{
    adoptIdentity<ClientIdentity>(this, dictionary);
}

void ClientPerson::sendFileAtPath(const QString &path)
{
    chatapps::forwardToCounterpart(this, "sendFileAtPath:", {path});
}

void ClientPerson::scheduleAuthCheckPrioritizing(bool prioritize)
{
    chatapps::forwardToCounterpart(this, "scheduleAuthCheckPrioritizing:", {prioritize});
}

void ClientPerson::resetWhois()
{
    chatapps::forwardToCounterpart(this, "resetWhois");
}

void ClientPerson::addToFilters()
{
    chatapps::forwardToCounterpart(this, "addToFilters");
}

void ClientPerson::removeFromFilters()
{
    chatapps::forwardToCounterpart(this, "removeFromFilters");
}

void ClientPerson::addToFriends()
{
    chatapps::forwardToCounterpart(this, "addToFriends");
}

void ClientPerson::removeFromFriends()
{
    chatapps::forwardToCounterpart(this, "removeFromFriends");
}

void ClientPseudoPerson::setRealPersonDictionary(const QVariant &dictionary)
{
    zt::Ref<ZTAbstractPerson> person;
    if (zt::kindOf(dictionary) == zt::ValueKind::Dictionary) {
        const QString uuid = zt::entryValue(dictionary, QStringLiteral("description")).toString();
        const zt::Ref<ZTAbstractIPC> known = ZTDirectory::sharedInstance()->objectWithID(uuid);
        if (known)
            person = zt::dynamicCast<ZTAbstractPerson>(known); // another kind of object: none
        else if (!uuid.isEmpty())
            person = ClientPerson::personWithDictionary(dictionary);
    }
    if (person != realPerson())
        setRealPerson(person);
}

void ClientPseudoPerson::addToFriends()
{
    chatapps::forwardToCounterpart(this, "addToFriends");
}

void ClientPseudoPerson::removeFromFriends()
{
    chatapps::forwardToCounterpart(this, "removeFromFriends");
}

void ClientPseudoPerson::addToFilters()
{
    chatapps::forwardToCounterpart(this, "addToFilters");
}

void ClientPseudoPerson::removeFromFilters()
{
    chatapps::forwardToCounterpart(this, "removeFromFilters");
}
