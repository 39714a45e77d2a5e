#include "runtime/classinfo.h"

#include "runtime/object.h"

#include <QMutex>
#include <mutex>

namespace zt {

namespace {
struct Registry
{
    QMutex lock;
    QHash<QString, const ClassInfo *> classes;
};
Registry &registry()
{
    static Registry r;
    return r;
}

QByteArray capitalized(const QString &key)
{
    QByteArray k = key.toLatin1();
    if (!k.isEmpty())
        k[0] = char(std::toupper(uchar(k[0])));
    return k;
}
} // namespace

namespace detail {
void checkSelectorArity(const char *className, const char *selector, size_t arity)
{
    if (size_t(selectorArgumentCount(QByteArray(selector))) != arity)
        qFatal("%s: selector \"%s\" does not match a method of %zu arguments", className, selector, arity);
}
} // namespace detail

ClassInfo::ClassInfo(const char *name, const ClassInfo *superclass, Factory factory, Registrar registrar)
    : m_name(QString::fromLatin1(name)), m_superclass(superclass), m_factory(factory)
{
    if (registrar)
        registrar(*this);
    if (m_superclass)
        m_allMethods = m_superclass->m_allMethods;
    for (const auto &[sel, entry] : m_methods)
        m_allMethods.insert_or_assign(sel, &entry);
    QMutexLocker locker(&registry().lock);
    registry().classes.insert(m_name, this);
}

ClassInfo::~ClassInfo()
{
    QMutexLocker locker(&registry().lock);
    registry().classes.remove(m_name);
}

bool ClassInfo::isSubclassOf(const ClassInfo &other) const
{
    for (const ClassInfo *c = this; c; c = c->m_superclass)
        if (c == &other)
            return true;
    return false;
}

const MethodEntry *ClassInfo::ownInstanceMethod(const Selector &selector) const
{
    auto it = m_methods.find(selector);
    return it == m_methods.end() ? nullptr : &it->second;
}

const MethodEntry *ClassInfo::instanceMethod(const Selector &selector) const
{
    auto it = m_allMethods.find(selector);
    return it == m_allMethods.end() ? nullptr : it->second;
}

QList<Selector> ClassInfo::ownSelectors() const
{
    QList<Selector> out;
    for (const auto &[sel, entry] : m_methods)
        out.append(sel);
    return out;
}

QStringList ClassInfo::keyPathsForValuesAffectingValueForKey(const QString &key) const
{
    QStringList out;
    for (const ClassInfo *c = this; c; c = c->m_superclass)
        for (const QString &path : c->m_dependencies.value(key))
            if (!out.contains(path))
                out.append(path);
    return out;
}

const KeyAccessors &ClassInfo::accessorsForKey(const QString &key) const
{
    {
        std::shared_lock lock(m_cacheLock);
        auto it = m_cache.find(key);
        if (it != m_cache.end())
            return *it->second;
    }
    auto acc = std::make_unique<KeyAccessors>();
    const QByteArray k = key.toLatin1();
    const QByteArray K = capitalized(key);
    auto find = [this](const QByteArray &sel, int arity) -> const MethodEntry * {
        const MethodEntry *e = instanceMethod(sel);
        return e && e->signature.numberOfArguments() - 2 == arity ? e : nullptr;
    };
    for (const QByteArray &sel : {"get" + K, k, "is" + K, "_" + k})
        if ((acc->getter = find(sel, 0)))
            break;
    for (const QByteArray &sel : {"set" + K + ':', "_set" + K + ':'})
        if ((acc->setter = find(sel, 1)))
            break;
    acc->countOf = find("countOf" + K, 0);
    acc->objectAt = find("objectIn" + K + "AtIndex:", 1);
    acc->atIndexes = find(k + "AtIndexes:", 1);
    acc->insertMany = find("insert" + K + ":atIndexes:", 2);
    acc->insertOne = find("insertObject:in" + K + "AtIndex:", 2);
    acc->removeMany = find("remove" + K + "AtIndexes:", 1);
    acc->removeOne = find("removeObjectFrom" + K + "AtIndex:", 1);
    acc->replaceMany = find("replace" + K + "AtIndexes:with" + K + ':', 2);
    acc->replaceOne = find("replaceObjectIn" + K + "AtIndex:withObject:", 2);
    acc->affectingKeyPaths = keyPathsForValuesAffectingValueForKey(key);

    std::unique_lock lock(m_cacheLock);
    auto [it, inserted] = m_cache.try_emplace(key, std::move(acc));
    return *it->second;
}

Ref<Object> ClassInfo::createInstance() const
{
    return m_factory ? Ref<Object>::adopt(m_factory()) : Ref<Object>();
}

const ClassInfo *ClassInfo::named(const QString &name)
{
    QMutexLocker locker(&registry().lock);
    return registry().classes.value(name);
}

void ClassInfo::addMethod(MethodEntry entry)
{
    Selector sel = entry.selector;
    m_methods.insert_or_assign(std::move(sel), std::move(entry));
}

void ClassInfo::addDependency(const QString &key, const QStringList &keyPaths)
{
    QStringList &list = m_dependencies[key];
    for (const QString &p : keyPaths)
        if (!list.contains(p))
            list.append(p);
}

} // namespace zt
