#include "controller_classes.h"

ZT_DEFINE_CLASS(AgentConnectionController)
ZT_DEFINE_CLASS(ClientConnectionController)
ZT_DEFINE_CLASS(AgentIdentityController)
ZT_DEFINE_CLASS(ClientIdentityController)
ZT_DEFINE_CLASS(AgentPersonListController)
ZT_DEFINE_CLASS(ClientPersonListController)

namespace {

//! Each dictionary as an object of class C, as the element type E; nil when
//! one of them has no UUID.
template<typename C, typename E> std::optional<QList<zt::Ref<E>>> objectsFor(const QVariantList &dictionaries)
{
    QList<zt::Ref<E>> out;
    out.reserve(dictionaries.size());
    for (const QVariant &dictionary : dictionaries) {
        zt::Ref<C> object = peopleapps::objectFromDictionary<C>(dictionary);
        if (!object)
            return std::nullopt;
        out.append(object);
    }
    return out;
}

} // namespace

std::optional<QList<zt::Ref<ZTAbstractConnection>>>
AgentConnectionController::replacementObjectsForConnectionDictionaries(const QVariantList &dictionaries)
{
    return objectsFor<AgentConnection, ZTAbstractConnection>(dictionaries);
}

std::optional<QList<zt::Ref<ZTAbstractConnection>>>
ClientConnectionController::replacementObjectsForConnectionDictionaries(const QVariantList &dictionaries)
{
    return objectsFor<ClientConnection, ZTAbstractConnection>(dictionaries);
}

std::optional<QList<zt::Ref<ZTAbstractSelfIdentity>>>
AgentIdentityController::replacementObjectsForIdentityDictionaries(const QVariantList &dictionaries)
{
    return objectsFor<AgentSelfIdentity, ZTAbstractSelfIdentity>(dictionaries);
}

std::optional<QList<zt::Ref<ZTAbstractSelfIdentity>>>
ClientIdentityController::replacementObjectsForIdentityDictionaries(const QVariantList &dictionaries)
{
    return objectsFor<ClientSelfIdentity, ZTAbstractSelfIdentity>(dictionaries);
}

std::optional<QList<zt::Ref<ZTAbstractPseudoPerson>>>
AgentPersonListController::replacementObjectsForPseudoPersonDictionaries(const QVariantList &dictionaries)
{
    return objectsFor<AgentPseudoPerson, ZTAbstractPseudoPerson>(dictionaries);
}

zt::Ref<ZTAbstractPseudoPerson>
AgentPersonListController::addPersonWithMaskOnNetwork(const QString &mask,
                                                      const zt::Ref<ZTAbstractNetwork> &network)
{
    if (!network)
        return {};
    auto pseudoPerson = zt::make<AgentPseudoPerson>();
    pseudoPerson->initWithContentOnNetwork(mask, network.get());
    addPseudoPerson(pseudoPerson);
    return pseudoPerson;
}

std::optional<QList<zt::Ref<ZTAbstractPseudoPerson>>>
ClientPersonListController::replacementObjectsForPseudoPersonDictionaries(const QVariantList &dictionaries)
{
    return objectsFor<ClientPseudoPerson, ZTAbstractPseudoPerson>(dictionaries);
}
