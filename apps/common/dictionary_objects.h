#pragma once
// Building model objects from their dictionary forms, shared by the agent's
// and the client's concrete classes.
//
// The object is looked up by the UUID under "description" first (the
// directory, whatever class holds it); a client makes the counterpart with
// that UUID, an agent a new object with a fresh UUID (a client cannot
// invent objects, so the agent only meets dictionaries of objects it has).
// Every other entry is then set by key-value coding. Entries that are not
// dictionaries, lack a UUID or name an object of another kind are skipped.

#include "core/ztabstractipc.h"
#include "core/ztdirectory.h"

#include <optional>

namespace zt::apps {

template<typename Concrete, typename Abstract = Concrete>
zt::Ref<Abstract> objectFromDictionary(const QVariantMap &dictionary)
{
    const QString uuid = dictionary.value(QStringLiteral("description")).toString();
    if (uuid.isEmpty() || uuid.contains(u'_'))
        return {};
    zt::Ref<ZTAbstractIPC> object = ZTDirectory::sharedInstance()->objectWithID(uuid);
    if (!object) {
        if (ZTIPCProxy::isAgent()) {
            object = zt::make<Concrete>();
            object->init();
        } else {
            object = ZTAbstractIPC::createCounterpartWithUUID<Concrete>(uuid);
        }
    }
    auto typed = zt::dynamicCast<Abstract>(object);
    if (!typed)
        return {};
    ZTAbstractIPC::ApplyingOtherProcess applying(typed.get());
    for (auto it = dictionary.cbegin(); it != dictionary.cend(); ++it)
        if (it.key() != u"description")
            typed->setValueForKey(it.value(), it.key());
    return typed;
}

template<typename Concrete, typename Abstract>
std::optional<QList<zt::Ref<Abstract>>> objectsFromDictionaries(const QVariantList &dictionaries)
{
    QList<zt::Ref<Abstract>> out;
    out.reserve(dictionaries.size());
    for (const QVariant &d : dictionaries)
        if (auto object = objectFromDictionary<Concrete, Abstract>(d.toMap()))
            out.append(object);
    return out;
}

} // namespace zt::apps
