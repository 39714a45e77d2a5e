#include "model_scenario.h"

#include "channel_classes.h"
#include "connection_classes.h"
#include "controller_classes.h"
#include "core/ztdirectory.h"
#include "dictionary_objects.h"
#include "network_classes.h"
#include "person_classes.h"
#include "settings_classes.h"

#include <QTextStream>

using namespace Qt::StringLiterals;

ZT_DEFINE_CLASS(ScenarioRoot)

const zt::Protocol &scenarioClientProtocol()
{
    static const zt::Protocol protocol = [] {
        zt::Protocol p = ZTRootObject::clientRootProtocol();
        p.addMethod("agentCompletedStep:snapshot:", zt::MethodSignature::fromTypes("v@:@@"));
        p.addMethod("agentFinished:", zt::MethodSignature::fromTypes("v@:@"));
        p.addMethod("agentAsksClientToPerform:onObjectWithID:", zt::MethodSignature::fromTypes("v@:@@"));
        return p;
    }();
    return protocol;
}

namespace {

template<typename C> zt::Ref<ZTAbstractIPC> fromDictionary(const QVariantMap &dictionary)
{
    return zt::apps::objectFromDictionary<C, ZTAbstractIPC>(dictionary);
}

// Controllers have a fixed UUID: the client makes them with plain init()
// unless one of the class is registered already (the person list
// controller never is: the network directory holds its UUID).
template<typename C> zt::Ref<ZTAbstractIPC> singleton(const QVariantMap &dictionary)
{
    const QString uuid = dictionary.value(u"description"_s).toString();
    if (auto existing = zt::dynamicCast<C>(ZTDirectory::sharedInstance()->objectWithID(uuid)))
        return existing;
    return made<C>();
}

// The client's mirror of a top-level object, by the agent's class name.
zt::Ref<ZTAbstractIPC> mirrorOf(const QVariantMap &entry)
{
    using Builder = zt::Ref<ZTAbstractIPC> (*)(const QVariantMap &);
    static const QHash<QString, Builder> builders = {
        {u"AgentAdvancedSettings"_s, fromDictionary<ClientAdvancedSettings>},
        {u"AgentProxy"_s, fromDictionary<ClientProxy>},
        {u"AgentBan"_s, fromDictionary<ClientBan>},
        {u"AgentTransfer"_s, fromDictionary<ClientTransfer>},
        {u"AgentSelfIdentity"_s, fromDictionary<ClientSelfIdentity>},
        {u"AgentPseudoPerson"_s, fromDictionary<ClientPseudoPerson>},
        {u"AgentPerson"_s,
         [](const QVariantMap &d) -> zt::Ref<ZTAbstractIPC> {
             return ClientPerson::personWithDictionary(d);
         }},
        {u"AgentConnectionController"_s, singleton<ClientConnectionController>},
        {u"AgentIdentityController"_s, singleton<ClientIdentityController>},
        {u"AgentPersonListController"_s, singleton<ClientPersonListController>},
    };
    const Builder builder = builders.value(entry.value(u"class"_s).toString());
    return builder ? builder(entry.value(u"dictionary"_s).toMap()) : nullptr;
}

QList<zt::Ref<ZTAbstractIPC>> mirrorsOf(const QVariantList &entries)
{
    QList<zt::Ref<ZTAbstractIPC>> out;
    for (const QVariant &entry : entries)
        if (auto object = mirrorOf(entry.toMap()))
            out.append(object);
    return out;
}

QStringList comparedKeys(const ZTAbstractIPC *object)
{
    static const QStringList connectionKeys =
        u"nickname modes status unreadLines unreadHighlights attributes serverDictionary "
        u"currentIdentityDictionary nextIdentityDictionary advancedSettingsDictionary proxyDictionary "
        u"consoleDictionary channelDictionaries transferDictionaries"_s.split(u' ');
    if (dynamic_cast<const ZTAbstractConnection *>(object))
        return connectionKeys;
    if (dynamic_cast<const ZTAbstractChannel *>(object))
        return {u"starOccurences"_s};
    if (dynamic_cast<const ZTAbstractConnectionController *>(object))
        return {u"connectionDictionaries"_s};
    if (dynamic_cast<const ZTAbstractIdentityController *>(object))
        return {u"identityDictionaries"_s};
    if (dynamic_cast<const ZTAbstractNetworkDirectory *>(object))
        return {u"networkDictionaries"_s};
    return {};
}

} // namespace

QVariantList ScenarioRoot::objectDictionaries() const
{
    QVariantList out;
    for (const zt::Ref<ZTAbstractIPC> &object : m_objects)
        out.append(QVariantMap{{u"class"_s, object->className()}, {u"dictionary"_s, object->dictionary()}});
    return out;
}

void ScenarioRoot::setObjectDictionaries(const QVariantList &entries)
{
    setObjects(mirrorsOf(entries));
}

void ScenarioRoot::insertObjectDictionariesAtIndexes(const QVariantList &entries, const zt::IndexSet &indexes)
{
    mutableObjects().insertObjectsAtIndexes(zt::detail::objectValues(mirrorsOf(entries)), indexes);
}

void ScenarioRoot::removeObjectDictionariesAtIndexes(const zt::IndexSet &indexes)
{
    QList<zt::Ref<ZTAbstractIPC>> removed;
    for (quint64 i : indexes)
        removed.append(m_objects.value(qsizetype(i)));
    mutableObjects().removeObjectsAtIndexes(indexes);
    for (const auto &object : removed)
        if (object)
            object->invalidate(); // the client's root owns its mirrors
}

QVariantMap ScenarioRoot::dictionary() const
{
    QVariantMap d = super::dictionary();
    d.insert(u"objectDictionaries"_s, objectDictionaries());
    return d;
}

QString ScenarioRoot::replacementKeyForWiring(const QString &key) const
{
    return key == u"objects" ? u"objectDictionaries"_s : super::replacementKeyForWiring(key);
}

void ScenarioRoot::invalidateAll()
{
    for (const zt::Ref<ZTAbstractIPC> &object : m_objects)
        object->invalidate();
    invalidate();
}

void ScenarioContext::adopt(const QString &name, const zt::Ref<ZTAbstractIPC> &object)
{
    adopted.insert(name, object);
    root->mutableObjects().addObject(zt::objectValue(object.get()));
}

void ScenarioContext::drop(const QString &name)
{
    zt::Ref<ZTAbstractIPC> object = adopted.take(name);
    root->mutableObjects().removeObjectAtIndex(root->objects().indexOf(object));
    object->invalidate();
}

QVariantMap comparedForm(const ZTAbstractIPC *object)
{
    QVariantMap form = object->dictionary();
    for (const QString &key : comparedKeys(object)) {
        const QVariant value = const_cast<ZTAbstractIPC *>(object)->valueForKey(key);
        form.insert(key, value.isValid() ? value : QVariant(u"<nil>"_s));
    }
    return form;
}

QVariantMap ScenarioContext::snapshot()
{
    QVariantMap out;
    ZTDirectory *directory = ZTDirectory::sharedInstance();
    // Every dictionary with a UUID the directory holds names an object: its
    // compared form goes in, and is searched in turn.
    std::function<void(const QVariant &)> visit = [&](const QVariant &value) {
        if (value.typeId() == QMetaType::QVariantList) {
            for (const QVariant &v : value.toList())
                visit(v);
        } else if (value.typeId() == QMetaType::QVariantMap) {
            const QVariantMap map = value.toMap();
            const QString uuid = map.value(u"description"_s).toString();
            if (zt::Ref<ZTAbstractIPC> object =
                    out.contains(uuid) ? nullptr : directory->objectWithID(uuid)) {
                out.insert(uuid, comparedForm(object.get()));
                visit(out.value(uuid));
            }
            for (const QVariant &v : map)
                visit(v);
        }
    };
    visit(this->directory->dictionary());
    visit(root->objectDictionaries());
    QStringList gone;
    for (const QString &uuid : std::as_const(seen)) {
        if (out.contains(uuid))
            continue;
        gone.append(uuid);
        if (directory->objectWithID(uuid))
            QTextStream(stderr) << uuid << ": still in the agent's directory" << Qt::endl;
    }
    for (auto it = out.cbegin(); it != out.cend(); ++it)
        seen.insert(it.key());
    out.insert(QString::fromLatin1(GoneEntry), gone);
    return out;
}
