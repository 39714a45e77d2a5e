#pragma once
// The agent's and the client's identities, self identities and nick
// candidates, and how both processes build such objects from their
// dictionary forms.

#include "core/ztdirectory.h"
#include "core/ztipcproxy.h"
#include "model/ztidentity.h"
#include "runtime/dictionary.h"
#include "runtime/process.h"

namespace peopleapps {

//! Sets every entry of a dictionary form but "description" (and `skip`) on
//! `object`, by key-value coding, in key order.
void applyDictionary(ZTAbstractIPC *object, const QVariant &dictionary, QStringView skip = {});

//! A new object of class T: init in the agent, a fresh UUID in the client.
template<typename T> zt::Ref<T> newObject()
{
    zt::Ref<T> object = zt::make<T>();
    if (ZTIPCProxy::isAgent())
        object->init();
    else
        object->initWithUUID(zt::process::globallyUniqueString());
    return object;
}

//! The object of class T for a dictionary form: the one registered under its
//! "description" (the UUID) when there is one of that class, else a new one
//! (the client takes the UUID with initWithUUID; the agent, which cannot,
//! makes a new object with init and takes the UUID text as initWithDictionary
//! does; a dictionary without a UUID makes a new object). Then every other
//! entry is set on it.
template<typename T> zt::Ref<T> objectFromDictionary(const QVariant &dictionary)
{
    const QString uuid = zt::entryValue(dictionary, QStringLiteral("description")).toString();
    zt::Ref<T> object = zt::dynamicCast<T>(ZTDirectory::sharedInstance()->objectWithID(uuid));
    if (!object && uuid.isEmpty()) {
        object = newObject<T>();
    } else if (!object) {
        object = zt::make<T>();
        if (ZTIPCProxy::isAgent()) {
            object->init();
            object->setDescription(uuid);
        } else {
            object->initWithUUID(uuid);
        }
    }
    applyDictionary(object.get(), dictionary);
    return object;
}

//! Builds each candidate of a list of dictionary forms as class T.
template<typename T>
QList<zt::Ref<ZTAbstractNickCandidate>> candidatesFromDictionaries(const QVariantList &dictionaries)
{
    QList<zt::Ref<ZTAbstractNickCandidate>> out;
    out.reserve(dictionaries.size());
    for (const QVariant &d : dictionaries)
        if (zt::Ref<T> candidate = objectFromDictionary<T>(d))
            out.append(candidate);
    return out;
}

} // namespace peopleapps

class AgentIdentity : public ZTAbstractIdentity
{
    ZT_OBJECT(AgentIdentity, ZTAbstractIdentity)
};

class ClientIdentity : public ZTAbstractIdentity
{
    ZT_OBJECT(ClientIdentity, ZTAbstractIdentity)
};

class AgentNickCandidate : public ZTAbstractNickCandidate
{
    ZT_OBJECT(AgentNickCandidate, ZTAbstractNickCandidate)
};

class ClientNickCandidate : public ZTAbstractNickCandidate
{
    ZT_OBJECT(ClientNickCandidate, ZTAbstractNickCandidate)
};

class AgentSelfIdentity : public ZTAbstractSelfIdentity
{
    ZT_OBJECT(AgentSelfIdentity, ZTAbstractSelfIdentity)
public:
    QVariant newCandidate() override;
    std::optional<QList<zt::Ref<ZTAbstractNickCandidate>>>
    replacementObjectsForCandidateDictionaries(const QVariantList &dictionaries) override;
};

class ClientSelfIdentity : public ZTAbstractSelfIdentity
{
    ZT_OBJECT(ClientSelfIdentity, ZTAbstractSelfIdentity)
public:
    QVariant newCandidate() override;
    std::optional<QList<zt::Ref<ZTAbstractNickCandidate>>>
    replacementObjectsForCandidateDictionaries(const QVariantList &dictionaries) override;
};
