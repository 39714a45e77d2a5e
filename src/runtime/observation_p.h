#pragma once
// Private: the bookkeeping behind key-value observation.
//
// One addObserver() call makes one Observance, owned by the observed object.
// An Observance watches its key path through a tree of Triggers: a Trigger
// watches one key of one object and is filed in that object's table under the
// key. For a path "a.b" the root trigger watches "a" and owns a child that
// watches "b" on the current value of "a" (re-attached whenever "a" changes).
// A key's declared dependencies ("displayNickname" affected by
// "identity.nickname") become dependent triggers below the key's trigger.
//
// Only the leaf trigger of the observance's own path is "direct": it passes
// the real change kind and indexes on. Every other trigger reports a setting
// of the whole path, with values read along the path.
//
// Tables hold shared_ptr<Trigger>, and notification walks a snapshot, so an
// observer may remove registrations (its own or others') while being told of
// a change: removed triggers are marked dead and skipped.

#include "runtime/fastpath_p.h"
#include "runtime/object.h"

#include <unordered_map>
#include <vector>

namespace zt {

struct Trigger;

struct Observance
{
    Object *observed = nullptr;
    Object *observer = nullptr;
    QString keyPath;
    ObservingOptions options;
    void *context = nullptr;
    std::shared_ptr<Trigger> root;
    ~Observance();
};

struct Trigger
{
    std::weak_ptr<Observance> observance;
    Trigger *parent = nullptr;
    Object *object = nullptr; // cleared when that object goes away
    QString key;
    QString rest;                // path still to follow on the value of `key`
    bool direct = false;         // leaf of the observance's own path
    bool viaDependency = false;  // reached through a declared dependency
    bool dependencyEdge = false; // watches a key that `parent`'s key depends on
    bool dead = false;
    bool wantsWill = false; // its observance asked for the old value or a prior notification
    std::shared_ptr<Trigger> child;
    std::vector<std::shared_ptr<Trigger>> dependents;
    std::vector<QVariant> pendingOld; // old values between will and did (only if asked for)
};

class ObservationInfo
{
public:
    static ObservationInfo &of(Object *object);

    std::vector<std::shared_ptr<Observance>> observances;
    std::unordered_map<QString, std::vector<std::shared_ptr<Trigger>>, fastpath::StringHash> triggers;

    static std::shared_ptr<Trigger> attach(const std::shared_ptr<Observance> &obs, Trigger *parent,
                                           Object *object, const QString &path, bool viaDependency,
                                           bool dependencyEdge);
    static void detach(Trigger *t);
    static void reattachChild(Trigger *t);

    void will(Object *self, const QString &key, KeyValueChange kind, const IndexSet *indexes);
    void did(Object *self, const QString &key, KeyValueChange kind, const IndexSet *indexes);
    //! The object is going away: forget the triggers that watch it and the
    //! registrations still made on it.
    void objectDestroyed(Object *self);
};

} // namespace zt
