#pragma once
// The model scenario: the agent runs each family's steps
// (model_scenario_<family>.cpp); after each, the client compares every object
// the snapshot reaches through the dictionary forms with its mirror, and
// checks that objects no form reaches any more left its directory. A class
// adopted at the top level needs a client builder in model_main.cpp.

#include "core/ztabstractipc.h"

#include <QSet>
#include <functional>

class AgentNetworkDirectory;
class ScenarioRoot;

struct ScenarioContext
{
    ScenarioRoot *root = nullptr;
    AgentNetworkDirectory *directory = nullptr;
    std::function<void(const char *selector, const QVariantList &arguments)> tellClient;
    QHash<QString, zt::Ref<ZTAbstractIPC>> adopted; // the top-level objects by name
    QSet<QString> seen;                             // every UUID a snapshot has listed

    void adopt(const QString &name, const zt::Ref<ZTAbstractIPC> &object);
    //! Takes the object out of the root and invalidates it.
    void drop(const QString &name);
    template<typename T> T *get(const QString &name) const
    {
        return dynamic_cast<T *>(adopted.value(name).get());
    }
    //! Every object reachable from the directory and the top-level objects,
    //! by UUID, plus under GoneEntry the UUIDs listed before and not now.
    QVariantMap snapshot();
};

struct ScenarioStep
{
    QString name;
    std::function<void(ScenarioContext &)> run;
    std::function<bool(ScenarioContext &)> until = {}; // waited for before the snapshot
};

//! Sets key, value, key, value, ... in turn through key-value coding.
inline void setKeys(zt::Object *object, const QVariantList &keysAndValues)
{
    for (qsizetype i = 0; i + 1 < keysAndValues.size(); i += 2)
        object->setValueForKey(keysAndValues[i + 1], keysAndValues[i].toString());
}

template<typename T> zt::Ref<T> made()
{
    auto object = zt::make<T>();
    object->init();
    return object;
}

QList<ScenarioStep> networkSteps();
QList<ScenarioStep> peopleSteps();
QList<ScenarioStep> chatSteps();
