#include "identity_classes.h"

ZT_DEFINE_CLASS(AgentIdentity)
ZT_DEFINE_CLASS(ClientIdentity)
ZT_DEFINE_CLASS(AgentNickCandidate)
ZT_DEFINE_CLASS(ClientNickCandidate)
ZT_DEFINE_CLASS(AgentSelfIdentity)
ZT_DEFINE_CLASS(ClientSelfIdentity)

namespace peopleapps {

void applyDictionary(ZTAbstractIPC *object, const QVariant &dictionary, QStringView skip)
{
    zt::forEachEntry(dictionary, [object, skip](const QString &key, const QVariant &value) {
        if (key != u"description" && key != skip)
            object->setValueForKey(value, key);
    });
}

} // namespace peopleapps

QVariant AgentSelfIdentity::newCandidate()
{
    return zt::objectValue(peopleapps::newObject<AgentNickCandidate>().get());
}

std::optional<QList<zt::Ref<ZTAbstractNickCandidate>>>
AgentSelfIdentity::replacementObjectsForCandidateDictionaries(const QVariantList &dictionaries)
{
    return peopleapps::candidatesFromDictionaries<AgentNickCandidate>(dictionaries);
}

QVariant ClientSelfIdentity::newCandidate()
{
    return zt::objectValue(peopleapps::newObject<ClientNickCandidate>().get());
}

std::optional<QList<zt::Ref<ZTAbstractNickCandidate>>>
ClientSelfIdentity::replacementObjectsForCandidateDictionaries(const QVariantList &dictionaries)
{
    return peopleapps::candidatesFromDictionaries<ClientNickCandidate>(dictionaries);
}
