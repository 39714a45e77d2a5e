#pragma once
// The agent's and the client's model controllers, for tests and the demo.
// Each builds the objects of its list from dictionary forms (the object with
// the dictionary's UUID when one is registered, else a new one).

#include "connection_classes.h"
#include "model/ztcontrollers.h"

class AgentConnectionController : public ZTAbstractConnectionController
{
    ZT_OBJECT(AgentConnectionController, ZTAbstractConnectionController)
public:
    std::optional<QList<zt::Ref<ZTAbstractConnection>>>
    replacementObjectsForConnectionDictionaries(const QVariantList &dictionaries) override;
};

class ClientConnectionController : public ZTAbstractConnectionController
{
    ZT_OBJECT(ClientConnectionController, ZTAbstractConnectionController)
public:
    std::optional<QList<zt::Ref<ZTAbstractConnection>>>
    replacementObjectsForConnectionDictionaries(const QVariantList &dictionaries) override;
};

class AgentIdentityController : public ZTAbstractIdentityController
{
    ZT_OBJECT(AgentIdentityController, ZTAbstractIdentityController)
public:
    std::optional<QList<zt::Ref<ZTAbstractSelfIdentity>>>
    replacementObjectsForIdentityDictionaries(const QVariantList &dictionaries) override;
};

class ClientIdentityController : public ZTAbstractIdentityController
{
    ZT_OBJECT(ClientIdentityController, ZTAbstractIdentityController)
public:
    std::optional<QList<zt::Ref<ZTAbstractSelfIdentity>>>
    replacementObjectsForIdentityDictionaries(const QVariantList &dictionaries) override;
};

class AgentPersonListController : public ZTAbstractPersonListController
{
    ZT_OBJECT(AgentPersonListController, ZTAbstractPersonListController)
public:
    std::optional<QList<zt::Ref<ZTAbstractPseudoPerson>>>
    replacementObjectsForPseudoPersonDictionaries(const QVariantList &dictionaries) override;
    //! A new pseudo-person with the mask as its pattern, appended to the list.
    zt::Ref<ZTAbstractPseudoPerson>
    addPersonWithMaskOnNetwork(const QString &mask, const zt::Ref<ZTAbstractNetwork> &network) override;
};

class ClientPersonListController : public ZTAbstractPersonListController
{
    ZT_OBJECT(ClientPersonListController, ZTAbstractPersonListController)
public:
    std::optional<QList<zt::Ref<ZTAbstractPseudoPerson>>>
    replacementObjectsForPseudoPersonDictionaries(const QVariantList &dictionaries) override;
};
