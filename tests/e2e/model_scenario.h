#pragma once
// The two-process model scenario: the agent builds the chat model step by
// step; the client mirrors it and, after every step, compares the dictionary
// form of every object with the agent's.
//
// Adding a model family (one file per family, model_scenario_<family>.cpp):
//   1. write `QList<ScenarioStep> <family>Steps()`: each step changes the
//      agent's model through the model's own operations (setters, ordered
//      to-many mutations); top-level objects go in with ctx.adopt(),
//      objects they hold with ctx.track() (ctx.forget() when a step removes
//      and invalidates one), so that the snapshot after the step names them;
//   2. write `void <family>Builders(ClientBuilders &)`: for every agent class
//      that ctx.adopt() receives, how the client builds its mirror from the
//      dictionary form (zt::apps::objectFromDictionary<ClientClass, ZTAbstractIPC>);
//   3. add `{<family>Steps, <family>Builders}` to scenarioFamilies() in
//      model_scenario.cpp (a third entry names the keys compared beyond the
//      dictionary form, for objects whose form is only their UUID).
// A step that removes objects lists their UUIDs with ctx.gone(); the client
// checks that none of them is left in its directory. A step with `until`
// waits for it (the other process acting back) before the snapshot.
// Objects held by other model objects (servers of a network, networks of
// the directory) mirror through their owner's wired keys and need no
// builder here.

#include "core/ztabstractipc.h"
#include "core/ztrootobject.h"
#include "runtime/members.h"

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
    //! The client's mirrors for the entries (nothing in the agent).
    QList<zt::Ref<ZTAbstractIPC>> objectsForEntries(const QVariantList &entries) const;
    //! The objects, each after the ones it holds, leave the directory.
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

using ClientBuilders = QHash<QString, std::function<zt::Ref<ZTAbstractIPC>(const QVariantMap &)>>;
//! The client's builders by agent class name.
ClientBuilders &clientBuilders();

struct ScenarioContext
{
    ScenarioRoot *root = nullptr;
    AgentNetworkDirectory *directory = nullptr;
    QList<zt::Ref<ZTAbstractIPC>> tracked;
    //! Sends a scenario message to the client's root.
    std::function<void(const char *selector, const QVariantList &arguments)> tellClient;

    void adopt(const zt::Ref<ZTAbstractIPC> &object);
    void track(const zt::Ref<ZTAbstractIPC> &object) { tracked.append(object); }
    void forget(const ZTAbstractIPC *object);
    //! UUIDs that must have left both directories.
    QStringList goneUUIDs;
    void gone(const QStringList &uuids) { goneUUIDs += uuids; }
    //! Every object's dictionary form by UUID: the directory, its networks
    //! and their servers, and everything adopted or tracked.
    QVariantMap snapshot() const;
};

struct ScenarioStep
{
    QString name;
    std::function<void(ScenarioContext &)> run;
    std::function<bool(ScenarioContext &)> until = {};
};

struct ScenarioFamily
{
    QList<ScenarioStep> (*steps)();
    void (*builders)(ClientBuilders &);
    QStringList (*comparedKeys)(const ZTAbstractIPC *) = nullptr;
};

//! The dictionary form plus the keys the families compare beyond it (a nil
//! value as "<nil>"): what the agent sends and what the client checks.
QVariantMap comparedForm(const ZTAbstractIPC *object);
//! The snapshot entry listing the UUIDs that must be gone.
inline constexpr char GoneEntry[] = "@gone";

const QList<ScenarioFamily> &scenarioFamilies();
QList<ScenarioStep> networkSteps();
void networkBuilders(ClientBuilders &builders);
QList<ScenarioStep> peopleSteps();
void peopleBuilders(ClientBuilders &builders);
QList<ScenarioStep> chatSteps();
void chatBuilders(ClientBuilders &builders);
QStringList chatComparedKeys(const ZTAbstractIPC *object);

//! The client root's scenario messages, added to the core's client protocol.
const zt::Protocol &scenarioClientProtocol();
