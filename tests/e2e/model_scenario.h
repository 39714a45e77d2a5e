#pragma once
// The two-process model scenario: the agent builds the chat model step by
// step; the client mirrors it and, after every step, compares the dictionary
// form of every object with the agent's. Each family's steps live in
// model_scenario_<family>.cpp; a class the agent adopts at the top level
// needs a client builder in model_scenario.cpp. The snapshot finds every
// object through the dictionary forms, so steps name nothing but the
// top-level objects, and an object that left every form must have left both
// directories.

#include "core/ztabstractipc.h"
#include "core/ztrootobject.h"
#include "runtime/members.h"

#include <QSet>
#include <functional>

class AgentNetworkDirectory;

//! The root both processes mirror: the top-level objects of the scenario,
//! wired as {"class": agent class name, "dictionary": dictionary form}.
class ScenarioRoot : public ZTAbstractIPC
{
    ZT_OBJECT(ScenarioRoot, ZTAbstractIPC)
public:
    ZT_TO_MANY(ZTAbstractIPC, objects, Objects)
    ZT_KEY(objectDictionaries, setObjectDictionaries)
    ZT_METHOD("insertObjectDictionaries:atIndexes:", insertObjectDictionariesAtIndexes)
    ZT_METHOD("removeObjectDictionariesAtIndexes:", removeObjectDictionariesAtIndexes)

    QVariantList objectDictionaries() const;
    void setObjectDictionaries(const QVariantList &entries);
    void insertObjectDictionariesAtIndexes(const QVariantList &entries, const zt::IndexSet &indexes);
    void removeObjectDictionariesAtIndexes(const zt::IndexSet &indexes);
    QVariantMap dictionary() const override;
    QString replacementKeyForWiring(const QString &key) const override;
    void invalidateAll();
};

//! The client's root: compares each step's snapshot with its mirrors.
class ScenarioClientRoot : public ZTRootObject
{
    ZT_OBJECT(ScenarioClientRoot, ZTRootObject)
public:
    void agentCompletedStepSnapshot(const QString &step, const QVariantMap &snapshot);
    ZT_METHOD("agentCompletedStep:snapshot:", agentCompletedStepSnapshot)
    void agentFinished(qint64 steps);
    ZT_METHOD("agentFinished:", agentFinished)
    //! The client's own action on its mirror (a reset of counters read here).
    void agentAsksClientToPerformOnObjectWithID(const QString &selector, const QString &uuid);
    ZT_METHOD("agentAsksClientToPerform:onObjectWithID:", agentAsksClientToPerformOnObjectWithID)
};

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

//! The dictionary form plus, for objects whose form is only their UUID, the
//! keys they hold (a nil value as "<nil>"): what is compared.
QVariantMap comparedForm(const ZTAbstractIPC *object);
inline constexpr char GoneEntry[] = "@gone";
//! The client root's scenario messages, added to the core's client protocol.
const zt::Protocol &scenarioClientProtocol();
