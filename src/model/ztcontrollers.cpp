#include "model/ztcontrollers.h"

#include "core/ztdirectory.h"
#include "model/ztidentity.h"
#include "model/ztmodelsupport.h"
#include "model/ztnetwork.h"
#include "model/ztperson.h"
#include "runtime/exception.h"
#include "runtime/logging.h"

#include <QSet>

ZT_DEFINE_CLASS(ZTAbstractConnectionController)
ZT_DEFINE_CLASS(ZTAbstractIdentityController)
ZT_DEFINE_CLASS(ZTAbstractPersonListController)

namespace {

const QString ConnectionsKey = QStringLiteral("connections");
const QString IdentitiesKey = QStringLiteral("identities");
const QString PseudoPersonsKey = QStringLiteral("pseudoPersons");

bool sameNameIgnoringCase(const QVariant &value, const QString &name)
{
    return value.typeId() == QMetaType::QString && value.toString().compare(name, Qt::CaseInsensitive) == 0;
}

//! The UUID of the network a person is on (its connection's server's
//! network); null when there is none.
QString networkUUIDOf(const ZTAbstractPerson *person)
{
    const zt::Ref<ZTAbstractNetwork> network = person ? person->network() : zt::Ref<ZTAbstractNetwork>();
    return network ? network->description() : QString();
}

} // namespace

// ==== connection controller ====

ZTAbstractConnectionController::ZTAbstractConnectionController() = default;
ZTAbstractConnectionController::~ZTAbstractConnectionController() = default;

std::optional<QList<zt::Ref<ZTAbstractConnection>>>
ZTAbstractConnectionController::replacementObjectsForConnectionDictionaries(const QVariantList &)
{
    return std::nullopt;
}

void ZTAbstractConnectionController::addConnection(const zt::Ref<ZTAbstractConnection> &connection)
{
    if (connection)
        mutableConnections().addObject(zt::objectValue(connection.get()));
}

void ZTAbstractConnectionController::removeConnections(
    const QList<zt::Ref<ZTAbstractConnection>> &connections)
{
    const zt::IndexSet found = zt::model::indexesOfAny(m_connections, connections);
    if (!found.isEmpty())
        mutableConnections().removeObjectsAtIndexes(found);
}

void ZTAbstractConnectionController::removeConnection(const zt::Ref<ZTAbstractConnection> &connection)
{
    removeConnections({connection});
}

QList<zt::Ref<ZTAbstractChannel>> ZTAbstractConnectionController::allChannels() const
{
    QList<zt::Ref<ZTAbstractChannel>> all;
    for (const auto &connection : m_connections)
        all.append(connection->channels());
    for (const auto &connection : m_connections)
        if (zt::Ref<ZTAbstractChannel> console = connection->console())
            all.append(console);
    return all;
}

std::optional<QList<zt::Ref<ZTAbstractChannel>>>
ZTAbstractConnectionController::allChannelsForName(const QString &name) const
{
    if (name.isNull()) {
        zt::log(ztModel, u"Bad key given (value: %@).", QVariant());
        return std::nullopt;
    }
    QList<zt::Ref<ZTAbstractChannel>> found;
    for (const auto &channel : allChannels())
        if (channel->name().compare(name, Qt::CaseInsensitive) == 0)
            found.append(channel);
    return found;
}

QVariant ZTAbstractConnectionController::allChannelsForNameValue(const QString &name) const
{
    const auto found = allChannelsForName(name);
    return found ? zt::toValue(*found) : QVariant();
}

void ZTAbstractConnectionController::init()
{
    super::init();
    setConnections({});
    // The departure rule, as for a connection's channels: it reads the list
    // as it is now, so it asks only for old values.
    addObservationToken(VDKVO::observeAtKeyPathOptionsHandler(
        this, ConnectionsKey, zt::ObservingOption::Old, [this](zt::Object *, const zt::KVOChange &change) {
            invalidateConnections(zt::model::departedObjects(change, m_connections));
        }));
}

void ZTAbstractConnectionController::invalidateConnections(
    const QList<zt::Ref<ZTAbstractConnection>> &connections)
{
    for (const auto &connection : connections)
        if (connection)
            connection->invalidate();
}

void ZTAbstractConnectionController::nilify()
{
    // The departure observation has ended by now: the connections still
    // held are invalidated here.
    const QList<zt::Ref<ZTAbstractConnection>> held = m_connections;
    setConnections({});
    invalidateConnections(held);
    super::nilify();
}

void ZTAbstractConnectionController::dealloc()
{
    Q_ASSERT_X(!inDirectory(), "ZTAbstractConnectionController",
               "a controller must be invalidated before it is freed");
    super::dealloc();
}

QString ZTAbstractConnectionController::staticUUID() const
{
    return QStringLiteral("ConnectionController");
}

bool ZTAbstractConnectionController::shouldPropagateValueChangesForKey(const QString &key) const
{
    return key == ConnectionsKey;
}

QString ZTAbstractConnectionController::replacementKeyForWiring(const QString &key) const
{
    return key == ConnectionsKey ? QStringLiteral("connectionDictionaries")
                                 : super::replacementKeyForWiring(key);
}

// ==== identity controller ====

ZTAbstractIdentityController::ZTAbstractIdentityController() = default;
ZTAbstractIdentityController::~ZTAbstractIdentityController() = default;

ZT_DEFINE_WIRED_TO_MANY(ZTAbstractIdentityController, ZTAbstractSelfIdentity, identities, Identities,
                        identityDictionaries, IdentityDictionaries)

std::optional<QList<zt::Ref<ZTAbstractSelfIdentity>>>
ZTAbstractIdentityController::replacementObjectsForIdentityDictionaries(const QVariantList &)
{
    zt::Exception::raise(
        QStringLiteral("Abstract method"),
        QStringLiteral("Implement -replacementObjectsForIdentityDictionaries: in %1").arg(className()));
}

void ZTAbstractIdentityController::addIdentity(const zt::Ref<ZTAbstractSelfIdentity> &identity)
{
    if (identity)
        mutableIdentities().addObject(zt::objectValue(identity.get()));
}

void ZTAbstractIdentityController::removeIdentities(const QList<zt::Ref<ZTAbstractSelfIdentity>> &identities)
{
    const zt::IndexSet found = zt::model::indexesOfAny(m_identities, identities);
    if (!found.isEmpty())
        mutableIdentities().removeObjectsAtIndexes(found);
}

void ZTAbstractIdentityController::removeIdentity(const zt::Ref<ZTAbstractSelfIdentity> &identity)
{
    removeIdentities({identity});
}

void ZTAbstractIdentityController::insertIdentitiesAtLocations(
    const QList<zt::Ref<ZTAbstractSelfIdentity>> &identities, const zt::IndexSet &indexes)
{
    mutableIdentities().insertObjectsAtIndexes(zt::detail::objectValues(identities), indexes);
}

void ZTAbstractIdentityController::removeIdentitiesAtLocations(const zt::IndexSet &indexes)
{
    mutableIdentities().removeObjectsAtIndexes(indexes);
}

void ZTAbstractIdentityController::init()
{
    super::init();
    setIdentities({});
}

void ZTAbstractIdentityController::nilify()
{
    // Without announcing: the mirror's list ends with the mirror.
    const QList<zt::Ref<ZTAbstractSelfIdentity>> held = std::exchange(m_identities, {});
    for (const auto &identity : held)
        identity->invalidate();
    super::nilify();
}

void ZTAbstractIdentityController::dealloc()
{
    Q_ASSERT_X(!inDirectory(), "ZTAbstractIdentityController",
               "a controller must be invalidated before it is freed");
    m_identities.clear();
    super::dealloc();
}

QString ZTAbstractIdentityController::staticUUID() const
{
    return QStringLiteral("IdentityController");
}

bool ZTAbstractIdentityController::shouldPropagateValueChangesForKey(const QString &key) const
{
    return key == IdentitiesKey;
}

QString ZTAbstractIdentityController::replacementKeyForWiring(const QString &key) const
{
    return key == IdentitiesKey ? QStringLiteral("identityDictionaries")
                                : super::replacementKeyForWiring(key);
}

// ==== person list controller ====

ZTAbstractPersonListController::ZTAbstractPersonListController() = default;
ZTAbstractPersonListController::~ZTAbstractPersonListController() = default;

ZT_DEFINE_WIRED_TO_MANY(ZTAbstractPersonListController, ZTAbstractPseudoPerson, pseudoPersons, PseudoPersons,
                        pseudoPersonDictionaries, PseudoPersonDictionaries)

std::optional<QList<zt::Ref<ZTAbstractPseudoPerson>>>
ZTAbstractPersonListController::replacementObjectsForPseudoPersonDictionaries(const QVariantList &)
{
    return std::nullopt;
}

void ZTAbstractPersonListController::addPseudoPerson(const zt::Ref<ZTAbstractPseudoPerson> &pseudoPerson)
{
    if (pseudoPerson)
        mutablePseudoPersons().addObject(zt::objectValue(pseudoPerson.get()));
}

void ZTAbstractPersonListController::removePseudoPerson(const zt::Ref<ZTAbstractPseudoPerson> &pseudoPerson)
{
    removePseudoPersons({pseudoPerson});
}

void ZTAbstractPersonListController::removePseudoPersons(
    const QList<zt::Ref<ZTAbstractPseudoPerson>> &pseudoPersons)
{
    const zt::IndexSet found = zt::model::indexesOfAny(m_pseudoPersons, pseudoPersons);
    if (!found.isEmpty())
        mutablePseudoPersons().removeObjectsAtIndexes(found);
}

void ZTAbstractPersonListController::insertPseudoPersonsAtLocations(
    const QList<zt::Ref<ZTAbstractPseudoPerson>> &pseudoPersons, const zt::IndexSet &indexes)
{
    mutablePseudoPersons().insertObjectsAtIndexes(zt::detail::objectValues(pseudoPersons), indexes);
}

void ZTAbstractPersonListController::removePseudoPersonsAtLocations(const zt::IndexSet &indexes)
{
    mutablePseudoPersons().removeObjectsAtIndexes(indexes);
}

QList<zt::Ref<ZTAbstractPseudoPerson>>
ZTAbstractPersonListController::matchesForPerson(const zt::Ref<ZTAbstractPerson> &person) const
{
    QList<zt::Ref<ZTAbstractPseudoPerson>> found;
    const QVariantList arguments{zt::objectValue(person.get())};
    for (const auto &pseudoPerson : m_pseudoPersons)
        if (pseudoPerson->perform(zt::Selector("matchesPerson:"), arguments).toBool())
            found.append(pseudoPerson);
    return found;
}

QList<zt::Ref<ZTAbstractPseudoPerson>>
ZTAbstractPersonListController::pseudoPersonsWithName(const QString &name) const
{
    QList<zt::Ref<ZTAbstractPseudoPerson>> found;
    for (const auto &pseudoPerson : m_pseudoPersons)
        if (sameNameIgnoringCase(
                pseudoPerson->valueForKeyPath(QStringLiteral("realPerson.identity.nickname")), name))
            found.append(pseudoPerson);
    return found;
}

QList<zt::Ref<ZTAbstractPseudoPerson>> ZTAbstractPersonListController::pseudoPersonsWithNameOnNetwork(
    const QString &name, const zt::Ref<ZTAbstractNetwork> &network) const
{
    const QString uuid = network ? network->description() : QString();
    QList<zt::Ref<ZTAbstractPseudoPerson>> found;
    for (const auto &pseudoPerson : pseudoPersonsWithName(name)) {
        if (networkUUIDOf(pseudoPerson->realPerson().get()) == uuid)
            found.append(pseudoPerson);
    }
    return found;
}

QVariantList ZTAbstractPersonListController::realPersons() const
{
    QVariantList all;
    all.reserve(m_pseudoPersons.size());
    for (const auto &pseudoPerson : m_pseudoPersons) {
        const QVariant person = pseudoPerson->valueForKey(QStringLiteral("realPerson"));
        all.append(zt::isNilOrNull(person) ? zt::nullValue() : person);
    }
    return all;
}

QList<zt::Ref<ZTAbstractPerson>>
ZTAbstractPersonListController::realPersonsWithName(const QString &name) const
{
    QList<zt::Ref<ZTAbstractPerson>> found;
    for (const QVariant &value : realPersons()) {
        auto *person = dynamic_cast<ZTAbstractPerson *>(zt::objectFrom(value));
        if (person &&
            sameNameIgnoringCase(person->valueForKeyPath(QStringLiteral("identity.nickname")), name))
            found.append(zt::Ref<ZTAbstractPerson>(person));
    }
    return found;
}

QList<zt::Ref<ZTAbstractPerson>>
ZTAbstractPersonListController::personsWithNameOnNetwork(const QString &name,
                                                         const zt::Ref<ZTAbstractNetwork> &network) const
{
    const QString uuid = network ? network->description() : QString();
    QList<zt::Ref<ZTAbstractPerson>> found;
    for (const auto &person : realPersonsWithName(name))
        if (networkUUIDOf(person.get()) == uuid)
            found.append(person);
    return found;
}

zt::Ref<ZTAbstractPseudoPerson>
ZTAbstractPersonListController::addPersonWithMaskOnNetworkWithUUID(const QString &mask, const QString &uuid)
{
    const auto network =
        zt::dynamicCast<ZTAbstractNetwork>(ZTDirectory::sharedInstance()->objectWithID(uuid));
    return addPersonWithMaskOnNetwork(mask, network);
}

zt::Ref<ZTAbstractPseudoPerson>
ZTAbstractPersonListController::addPersonWithMaskOnNetwork(const QString &,
                                                           const zt::Ref<ZTAbstractNetwork> &)
{
    return {};
}

zt::Ref<zt::Object> ZTAbstractPersonListController::ruleController() const
{
    return {};
}

void ZTAbstractPersonListController::init()
{
    super::init();
    setPseudoPersons({});
    // Cached ignore-rule results depend on the pseudo-persons.
    addObservationToken(VDKVO::observeAtKeyPathOptionsHandler(
        this, PseudoPersonsKey, {}, [this](zt::Object *, const zt::KVOChange &) {
            if (const zt::Ref<zt::Object> rules = ruleController())
                rules->perform(zt::Selector("emptyRuleCache"));
        }));
}

void ZTAbstractPersonListController::nilify()
{
    // Without announcing: the mirror's list ends with the mirror.
    const QList<zt::Ref<ZTAbstractPseudoPerson>> held = std::exchange(m_pseudoPersons, {});
    for (const auto &pseudoPerson : held)
        pseudoPerson->invalidate();
    super::nilify();
}

void ZTAbstractPersonListController::dealloc()
{
    Q_ASSERT_X(!inDirectory(), "ZTAbstractPersonListController",
               "a controller must be invalidated before it is freed");
    m_pseudoPersons.clear();
    super::dealloc();
}

QString ZTAbstractPersonListController::staticUUID() const
{
    return QStringLiteral("NetworkDirectory");
}

bool ZTAbstractPersonListController::shouldPropagateValueChangesForKey(const QString &key) const
{
    const bool lostItsUUID =
        inDirectory() && ZTDirectory::sharedInstance()->objectWithID(description()).get() != this;
    return !lostItsUUID && super::shouldPropagateValueChangesForKey(key);
}

QString ZTAbstractPersonListController::replacementKeyForWiring(const QString &key) const
{
    return key == PseudoPersonsKey ? QStringLiteral("pseudoPersonDictionaries")
                                   : super::replacementKeyForWiring(key);
}
