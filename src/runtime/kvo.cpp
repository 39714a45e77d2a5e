#include "runtime/exception.h"
#include "runtime/format.h"
#include "runtime/kvc.h"
#include "runtime/logging.h"
#include "runtime/observation_p.h"
#include "runtime/variant_inplace_p.h"

#include <QVarLengthArray>
#include <algorithm>

namespace zt {

namespace {

// A value as a change record carries it: nil becomes the null marker.
QVariant recordValue(QVariant v)
{
    return v.isValid() ? v : nullValue();
}

QVariant readKey(Object *object, const QString &key)
{
    try {
        return object->valueForKey(key);
    } catch (const Exception &) {
        return {}; // an announced key without a getter reads as nil
    }
}

// readKey() into a nil `out`, as a change record carries it. The getter's
// result is built where it stays, not moved there.
void readRecordInto(QVariant &out, Object *object, const QString &key)
{
    Q_ASSERT(!out.isValid());
    try {
        new (&out) QVariant(object->valueForKey(key));
    } catch (const Exception &) {
        new (&out) QVariant(); // whatever the getter left there is gone
    }
    if (!out.isValid())
        new (&out) QVariant(nullValue());
}

QVariant readPath(Object *object, const QString &path)
{
    try {
        return object->valueForKeyPath(path);
    } catch (const Exception &) {
        return {};
    }
}

QVariant elementsAt(Object *object, const QString &key, const IndexSet &indexes)
{
    // A key read at indexes ("countOfKey", "keyAtIndexes:") costs the
    // elements changed, not the whole list.
    const KeyAccessors &accessors = object->classInfo().accessorsForKey(key);
    if (accessors.countOf && accessors.atIndexes) {
        try {
            const qint64 count = accessors.countOf->call(object, nullptr).toLongLong();
            if (indexes.isEmpty() || indexes.last() < quint64(count)) {
                const QVariant at = QVariant::fromValue(indexes);
                QVariantList out = accessors.atIndexes->call(object, &at).toList();
                for (QVariant &v : out)
                    v = recordValue(std::move(v));
                return out;
            }
        } catch (const Exception &) {
            // read the whole list below
        }
    }
    const QVariantList list = readKey(object, key).toList();
    QVariantList out;
    out.reserve(qsizetype(indexes.count()));
    for (quint64 i : indexes)
        out.append(i < quint64(list.size()) ? recordValue(list[qsizetype(i)]) : nullValue());
    return out;
}

void deliver(const std::shared_ptr<Observance> &obs, const KVOChange &change)
{
    if (obs->observer)
        obs->observer->observeValueForKeyPath(obs->keyPath, obs->observed, change, obs->context);
}

} // namespace

Observance::~Observance()
{
    if (root)
        ObservationInfo::detach(root.get());
}

ObservationInfo &ObservationInfo::of(Object *object)
{
    if (!object->m_observation)
        object->m_observation = std::make_unique<ObservationInfo>();
    return *object->m_observation;
}

std::shared_ptr<Trigger> ObservationInfo::attach(const std::shared_ptr<Observance> &obs, Trigger *parent,
                                                 Object *object, const QString &path, bool viaDependency,
                                                 bool dependencyEdge)
{
    auto t = std::make_shared<Trigger>();
    const qsizetype dot = path.indexOf(u'.');
    t->observance = obs;
    t->parent = parent;
    t->object = object;
    t->key = dot < 0 ? path : path.left(dot);
    t->rest = dot < 0 ? QString() : path.mid(dot + 1);
    t->viaDependency = viaDependency;
    t->dependencyEdge = dependencyEdge;
    t->direct = !viaDependency && t->rest.isEmpty();
    t->wantsWill = obs->options & (ObservingOption::Old | ObservingOption::Prior);
    if (!object)
        return t;
    of(object).triggers[t->key].push_back(t);
    for (const QString &dep : object->classInfo().accessorsForKey(t->key).affectingKeyPaths) {
        if (dep == t->key)
            continue;
        t->dependents.push_back(attach(obs, t.get(), object, dep, true, true));
    }
    if (!t->rest.isEmpty())
        t->child = attach(obs, t.get(), objectFrom(readKey(object, t->key)), t->rest, viaDependency, false);
    return t;
}

void ObservationInfo::detach(Trigger *t)
{
    if (!t || t->dead)
        return;
    t->dead = true;
    if (t->object && t->object->m_observation) {
        auto &table = t->object->m_observation->triggers;
        auto it = table.find(t->key);
        if (it != table.end()) {
            std::erase_if(it->second, [t](const std::shared_ptr<Trigger> &p) { return p.get() == t; });
            if (it->second.empty())
                table.erase(it);
        }
    }
    detach(t->child.get());
    for (auto &d : t->dependents)
        detach(d.get());
}

void ObservationInfo::reattachChild(Trigger *t)
{
    if (t->rest.isEmpty() || t->dead)
        return;
    auto obs = t->observance.lock();
    if (!obs)
        return;
    detach(t->child.get());
    t->child = attach(obs, t, t->object ? objectFrom(readKey(t->object, t->key)) : nullptr, t->rest,
                      t->viaDependency, false);
}

void ObservationInfo::will(Object *self, const QString &key, KeyValueChange kind, const IndexSet *indexes)
{
    auto it = triggers.find(key);
    if (it == triggers.end())
        return;
    // Most observers want neither the old value nor a prior notification:
    // then there is nothing to do before the change.
    if (std::none_of(it->second.begin(), it->second.end(), [](const auto &t) { return t->wantsWill; }))
        return;
    // A key rarely has more than a few triggers: snapshot them without a heap allocation.
    const QVarLengthArray<std::shared_ptr<Trigger>, 4> snapshot(it->second.begin(), it->second.end());
    for (const auto &t : snapshot) {
        if (t->dead)
            continue;
        auto obs = t->observance.lock();
        if (!obs)
            continue;
        const bool wantOld = obs->options.testFlag(ObservingOption::Old);
        const bool prior = obs->options.testFlag(ObservingOption::Prior);
        if (!wantOld && !prior)
            continue;
        // An observance's options never change: did() takes an old value
        // exactly when this pushed one.
        QVariant *old = nullptr;
        if (wantOld) {
            old = &t->pendingOld.emplace_back();
            if (!t->direct)
                new (old) QVariant(recordValue(readPath(obs->observed, obs->keyPath)));
            else if (kind == KeyValueChange::Setting)
                readRecordInto(*old, self, key);
            else if (kind != KeyValueChange::Insertion && indexes)
                new (old) QVariant(elementsAt(self, key, *indexes));
        }
        if (prior) {
            KVOChange change;
            change.kind = t->direct ? kind : KeyValueChange::Setting;
            change.isPrior = true;
            if (old)
                detail::copyInto(change.oldValue, *old);
            if (t->direct && indexes) {
                change.indexes = *indexes;
                change.hasIndexes = true;
            }
            deliver(obs, change);
        }
    }
}

void ObservationInfo::did(Object *self, const QString &key, KeyValueChange kind, const IndexSet *indexes)
{
    auto it = triggers.find(key);
    if (it == triggers.end())
        return;
    // A key rarely has more than a few triggers: snapshot them without a heap allocation.
    const QVarLengthArray<std::shared_ptr<Trigger>, 4> snapshot(it->second.begin(), it->second.end());
    for (const auto &t : snapshot) {
        if (t->dead)
            continue;
        auto obs = t->observance.lock();
        if (!obs) {
            if (!t->pendingOld.empty())
                t->pendingOld.pop_back();
            continue;
        }
        KVOChange change;
        if (!t->pendingOld.empty()) {
            change.oldValue.swap(t->pendingOld.back());
            t->pendingOld.pop_back();
        }
        // The value under this key may be another object now: follow it. Up
        // the tree, a key that depends on this one may have changed too.
        reattachChild(t.get());
        for (Trigger *p = t.get(); p->parent; p = p->parent)
            if (p->dependencyEdge)
                reattachChild(p->parent);
        if (t->dead)
            continue;

        const bool wantNew = obs->options.testFlag(ObservingOption::New);
        if (t->direct) {
            change.kind = kind;
            if (indexes) {
                change.indexes = *indexes;
                change.hasIndexes = true;
            }
            if (wantNew) {
                if (kind == KeyValueChange::Setting)
                    readRecordInto(change.newValue, self, key);
                else if (kind != KeyValueChange::Removal && indexes)
                    new (&change.newValue) QVariant(elementsAt(self, key, *indexes));
            }
        } else if (wantNew) {
            new (&change.newValue) QVariant(recordValue(readPath(obs->observed, obs->keyPath)));
        }
        deliver(obs, change);
    }
}

void ObservationInfo::objectDestroyed(Object *self)
{
    // Triggers of other objects' observances that watch this object.
    const auto tables = std::move(triggers);
    triggers.clear();
    for (const auto &[key, list] : tables)
        for (const auto &t : list)
            t->object = nullptr;
    if (!observances.empty()) {
        zt::log(ztRuntime,
                u"An instance %p of class %@ was deallocated while key value observers were still registered "
                u"with it.",
                static_cast<const void *>(self), self->className());
        auto dropped = std::move(observances);
        observances.clear();
    }
}

// ---- Object's observation interface ----

void Object::addObserver(Object *observer, const QString &keyPath, ObservingOptions options, void *context)
{
    auto obs = std::make_shared<Observance>();
    obs->observed = this;
    obs->observer = observer;
    obs->keyPath = keyPath;
    obs->options = options;
    obs->context = context;
    obs->root = ObservationInfo::attach(obs, nullptr, this, keyPath, false, false);
    ObservationInfo::of(this).observances.push_back(obs);
    if (options.testFlag(ObservingOption::Initial)) {
        KVOChange change;
        if (options.testFlag(ObservingOption::New))
            change.newValue = recordValue(readPath(this, keyPath));
        deliver(obs, change);
    }
}

namespace {
[[noreturn]] void notRegistered(const Object *observed, const Object *observer, const QString &keyPath)
{
    Exception::raise(
        QString::fromUtf16(exceptions::RangeError),
        format(u"Cannot remove an observer <%@ %p> for the key path \"%@\" from <%@ %p> because it "
               u"is not registered as an observer.",
               observer ? observer->className() : QStringLiteral("nil"), static_cast<const void *>(observer),
               keyPath, observed->className(), static_cast<const void *>(observed)));
}
} // namespace

void Object::removeObserver(Object *observer, const QString &keyPath)
{
    if (m_observation) {
        auto &list = m_observation->observances;
        for (auto it = list.rbegin(); it != list.rend(); ++it) {
            if ((*it)->observer == observer && (*it)->keyPath == keyPath) {
                auto keep = *it; // detach after erase, so re-entrant removals see a consistent list
                list.erase(std::next(it).base());
                keep->observer = nullptr;
                return;
            }
        }
    }
    notRegistered(this, observer, keyPath);
}

void Object::removeObserver(Object *observer, const QString &keyPath, void *context)
{
    if (m_observation) {
        auto &list = m_observation->observances;
        for (auto it = list.rbegin(); it != list.rend(); ++it) {
            if ((*it)->observer == observer && (*it)->keyPath == keyPath && (*it)->context == context) {
                auto keep = *it;
                list.erase(std::next(it).base());
                keep->observer = nullptr;
                return;
            }
        }
    }
    notRegistered(this, observer, keyPath);
}

void Object::observeValueForKeyPath(const QString &keyPath, Object *object, const KVOChange &, void *)
{
    Exception::raise(
        QString::fromUtf16(exceptions::InternalInconsistency),
        format(u"<%@: %p>: An -observeValueForKeyPath:ofObject:change:context: message was received "
               u"but not handled.\nKey path: %@\nObserved object: %@",
               className(), static_cast<const void *>(this), keyPath, object));
}

void Object::willChangeValueForKey(const QString &key)
{
    if (m_observation)
        m_observation->will(this, key, KeyValueChange::Setting, nullptr);
}

void Object::didChangeValueForKey(const QString &key)
{
    if (m_observation)
        m_observation->did(this, key, KeyValueChange::Setting, nullptr);
}

void Object::willChangeValuesAtIndexesForKey(KeyValueChange kind, const IndexSet &indexes, const QString &key)
{
    if (m_observation)
        m_observation->will(this, key, kind, &indexes);
}

void Object::didChangeValuesAtIndexesForKey(KeyValueChange kind, const IndexSet &indexes, const QString &key)
{
    if (m_observation)
        m_observation->did(this, key, kind, &indexes);
}

bool Object::hasObservers() const
{
    return m_observation && !m_observation->observances.empty();
}

} // namespace zt
