#include "model_scenario.h"

#include "core/ztdirectory.h"
#include "core/ztrootobject.h"
#include "network_classes.h"

#include <QTextStream>

ZT_DEFINE_CLASS(ScenarioRoot)

const QList<ScenarioFamily> &scenarioFamilies()
{
    static const QList<ScenarioFamily> families = {
        {networkSteps, networkBuilders},
        {peopleSteps, peopleBuilders},
        {chatSteps, chatBuilders, chatComparedKeys},
    };
    return families;
}

ClientBuilders &clientBuilders()
{
    static ClientBuilders builders = [] {
        ClientBuilders b;
        for (const ScenarioFamily &family : scenarioFamilies())
            family.builders(b);
        return b;
    }();
    return builders;
}

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

// ---- root ----

QVariantList ScenarioRoot::objectDictionaries() const
{
    QVariantList out;
    for (const zt::Ref<ZTAbstractIPC> &object : m_objects)
        out.append(QVariantMap{{QStringLiteral("class"), object->className()},
                               {QStringLiteral("dictionary"), object->dictionary()}});
    return out;
}

QList<zt::Ref<ZTAbstractIPC>> ScenarioRoot::objectsForEntries(const QVariantList &entries) const
{
    QList<zt::Ref<ZTAbstractIPC>> out;
    for (const QVariant &entry : entries) {
        const QVariantMap e = entry.toMap();
        const auto builder = clientBuilders().value(e.value(QStringLiteral("class")).toString());
        if (auto object = builder ? builder(e.value(QStringLiteral("dictionary")).toMap()) : nullptr)
            out.append(object);
    }
    return out;
}

void ScenarioRoot::setObjectDictionaries(const QVariantList &entries)
{
    setObjects(objectsForEntries(entries));
}

void ScenarioRoot::insertObjectDictionariesAtIndexes(const QVariantList &entries, const zt::IndexSet &indexes)
{
    mutableObjects().insertObjectsAtIndexes(zt::detail::objectValues(objectsForEntries(entries)), indexes);
}

void ScenarioRoot::removeObjectDictionariesAtIndexes(const zt::IndexSet &indexes)
{
    QList<zt::Ref<ZTAbstractIPC>> removed;
    for (quint64 i : indexes)
        if (i < quint64(m_objects.size()))
            removed.append(m_objects[qsizetype(i)]);
    mutableObjects().removeObjectsAtIndexes(indexes);
    for (const auto &object : removed)
        object->invalidate(); // the client's root owns its mirrors
}

QVariantMap ScenarioRoot::dictionary() const
{
    QVariantMap d = super::dictionary();
    d.insert(QStringLiteral("objectDictionaries"), objectDictionaries());
    return d;
}

QString ScenarioRoot::replacementKeyForWiring(const QString &key) const
{
    return key == u"objects" ? QStringLiteral("objectDictionaries") : super::replacementKeyForWiring(key);
}

void ScenarioRoot::invalidateAll()
{
    for (const zt::Ref<ZTAbstractIPC> &object : m_objects)
        object->invalidate();
    invalidate();
}

// ---- context ----

void ScenarioContext::adopt(const zt::Ref<ZTAbstractIPC> &object)
{
    root->mutableObjects().addObject(zt::objectValue(object.get()));
}

void ScenarioContext::forget(const ZTAbstractIPC *object)
{
    tracked.removeIf([object](const zt::Ref<ZTAbstractIPC> &o) { return o.get() == object; });
}

QVariantMap comparedForm(const ZTAbstractIPC *object)
{
    QVariantMap form = object->dictionary();
    for (const ScenarioFamily &family : scenarioFamilies()) {
        if (!family.comparedKeys)
            continue;
        for (const QString &key : family.comparedKeys(object)) {
            const QVariant value = const_cast<ZTAbstractIPC *>(object)->valueForKey(key);
            form.insert(key, value.isValid() ? value : QVariant(QStringLiteral("<nil>")));
        }
    }
    return form;
}

QVariantMap ScenarioContext::snapshot() const
{
    QVariantMap out;
    // Only the object the directory holds mirrors by UUID (the person list
    // controller loses "NetworkDirectory" to the network directory).
    auto add = [&out](const ZTAbstractIPC *object) {
        if (ZTDirectory::sharedInstance()->objectWithID(object->description()).get() == object)
            out.insert(object->description(), comparedForm(object));
    };
    add(directory);
    for (const auto &network : directory->networks()) {
        add(network.get());
        for (const auto &server : network->servers())
            add(server.get());
    }
    for (const auto &object : root->objects())
        add(object.get());
    for (const auto &object : tracked)
        add(object.get());
    for (const QString &uuid : goneUUIDs)
        if (ZTDirectory::sharedInstance()->objectWithID(uuid))
            QTextStream(stderr) << uuid << ": still in the agent's directory" << Qt::endl;
    out.insert(QString::fromLatin1(GoneEntry), goneUUIDs);
    return out;
}
