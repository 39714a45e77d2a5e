#pragma once
// The two-process model scenario: the agent builds the chat model step by
// step; the client mirrors it and, after every step, compares the dictionary
// form of every object with the agent's. Each family's steps live in
// model_scenario_<family>.cpp; a class the agent adopts at the top level
// needs a client builder in model_main.cpp. The snapshot finds every
// object through the dictionary forms, so steps name nothing but the
// top-level objects, and an object that left every form must have left both
// directories.

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

template<typename T> zt::Ref<T> made()
{
    auto object = zt::make<T>();
    object->init();
    return object;
}

QList<ScenarioStep> networkSteps();
QList<ScenarioStep> peopleSteps();
QList<ScenarioStep> chatSteps();
