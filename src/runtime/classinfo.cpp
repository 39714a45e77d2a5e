#include "runtime/classinfo.h"

#include "runtime/fastpath_p.h"
#include "runtime/object.h"

#include <QMutex>
#include <atomic>
#include <cstring>
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

using fastpath::equalBytes;
using fastpath::hashBytes;

inline const char *bytesOf(const QString &s)
{
    return reinterpret_cast<const char *>(s.constData());
}

inline size_t byteSizeOf(const QString &s)
{
    return size_t(s.size()) * sizeof(QChar);
}

// Callers mostly pass the same string object again and again (a selector
// decoded once and looked up three times, a key the decoder hands out for
// every message): each thread remembers its last look-ups by the address of
// the name's characters and the class's serial (fastpath_p.h).
struct MethodCache : fastpath::AddressKeyedCache<Selector, const MethodEntry *, 8>
{
};
struct AccessorCache : fastpath::AddressKeyedCache<QString, const KeyAccessors *, 8>
{
};

// Answered for keys that resolve to nothing: no accessor, no dependency.
const KeyAccessors &noAccessors()
{
    static const KeyAccessors none;
    return none;
}

} // namespace

// ---- accessors by key ----
// A lock-free open-addressing table of records that only grows: readers load
// the published table and probe it; a writer (under the lock) either fills an
// empty slot of that table in place or publishes a larger copy. Records and
// superseded tables stay until the class goes away, so a reader never sees
// freed memory. Keys that resolve to nothing are not recorded, so a peer that
// sends made-up keys cannot grow the table.
struct ClassInfo::KeyCache
{
    struct Record
    {
        size_t hash;
        QString key; // interned, or a copy that owns its characters
        KeyAccessors accessors;
    };
    struct Table
    {
        explicit Table(size_t capacity) : mask(capacity - 1), slots(new std::atomic<const Record *>[capacity])
        {
            for (size_t i = 0; i < capacity; ++i)
                slots[i].store(nullptr, std::memory_order_relaxed);
        }
        size_t mask;
        std::unique_ptr<std::atomic<const Record *>[]> slots;
    };

    std::atomic<const Table *> table{nullptr};
    std::mutex lock; // writers
    std::vector<std::unique_ptr<Table>> tables;
    std::vector<std::unique_ptr<Record>> records;

    static const Record *probe(const Table *t, const QString &key, size_t hash)
    {
        const char *bytes = bytesOf(key);
        const size_t n = byteSizeOf(key);
        for (size_t i = hash & t->mask;; i = (i + 1) & t->mask) {
            const Record *r = t->slots[i].load(std::memory_order_acquire);
            if (!r)
                return nullptr;
            if (r->hash == hash && byteSizeOf(r->key) == n && equalBytes(bytesOf(r->key), bytes, n))
                return r;
        }
    }

    static void place(Table &t, const Record *r)
    {
        size_t i = r->hash & t.mask;
        while (t.slots[i].load(std::memory_order_relaxed))
            i = (i + 1) & t.mask;
        t.slots[i].store(r, std::memory_order_release);
    }

    // Under the lock.
    void insert(std::unique_ptr<Record> record)
    {
        const Table *current = table.load(std::memory_order_relaxed);
        const size_t needed = (records.size() + 1) * 2;
        if (!current || current->mask + 1 < needed) {
            size_t capacity = 8;
            while (capacity < needed)
                capacity *= 2;
            auto grown = std::make_unique<Table>(capacity);
            for (const auto &r : records)
                place(*grown, r.get());
            place(*grown, record.get());
            table.store(grown.get(), std::memory_order_release);
            tables.push_back(std::move(grown));
        } else {
            place(*const_cast<Table *>(current), record.get());
        }
        records.push_back(std::move(record));
    }
};

namespace detail {
void checkSelectorArity(const char *className, const char *selector, size_t arity)
{
    if (size_t(selectorArgumentCount(QByteArray(selector))) != arity)
        qFatal("%s: selector \"%s\" does not match a method of %zu arguments", className, selector, arity);
}
} // namespace detail

size_t ClassInfo::SelectorHash::operator()(const Selector &s) const noexcept
{
    return hashBytes(s.constData(), size_t(s.size()));
}

ClassInfo::ClassInfo(const char *name, const ClassInfo *superclass, Factory factory, Registrar registrar)
    : m_name(QString::fromLatin1(name)), m_superclass(superclass), m_factory(factory),
      m_serial(fastpath::newSerial()), m_keys(std::make_unique<KeyCache>())
{
    if (registrar)
        registrar(*this);
    internKnownKeys();
    // Own methods override inherited ones of the same selector.
    std::unordered_map<Selector, const MethodEntry *, SelectorHash> all;
    for (const ClassInfo *c = this; c; c = c->m_superclass)
        for (const auto &[sel, entry] : c->m_methods)
            all.try_emplace(sel, &entry);
    size_t capacity = 8;
    while (capacity < all.size() * 2)
        capacity *= 2;
    m_methodTable.resize(capacity);
    for (const auto &[sel, entry] : all) {
        const size_t hash = hashBytes(sel.constData(), size_t(sel.size()));
        size_t i = hash & (capacity - 1);
        while (m_methodTable[i].entry)
            i = (i + 1) & (capacity - 1);
        m_methodTable[i] = MethodSlot{hash, entry};
    }
    if (m_superclass)
        m_dictionaryEntries = m_superclass->m_dictionaryEntries;
    for (const DictionaryEntry &entry : m_ownDictionaryKeys) {
        fastpath::internKey(entry.key);
        m_dictionaryEntries.push_back(entry);
    }
    m_ownDictionaryKeys.clear();
    // The getter of a key is its own selector; a subclass that overrides an
    // inherited getter is asked through its own.
    for (DictionaryEntry &entry : m_dictionaryEntries) {
        const QByteArray getter = entry.key.toLatin1();
        entry.getter = findMethod(getter.constData(), getter.size());
    }
    QMutexLocker locker(&registry().lock);
    registry().classes.insert(m_name, this);
}
ClassInfo::~ClassInfo()
{
    QMutexLocker locker(&registry().lock);
    registry().classes.remove(m_name);
}

void ClassInfo::internKnownKeys() const
{
    for (const auto &[sel, entry] : m_methods) {
        const qsizetype colon = sel.indexOf(':');
        if (colon < 0) {
            fastpath::internKey(QString::fromLatin1(sel));
        } else if (colon == sel.size() - 1 && sel.startsWith("set") && sel.size() > 4) {
            QString key = QString::fromLatin1(sel.mid(3, sel.size() - 4));
            key[0] = key[0].toLower();
            fastpath::internKey(key);
        }
    }
    for (auto it = m_dependencies.cbegin(); it != m_dependencies.cend(); ++it) {
        fastpath::internKey(it.key());
        for (const QString &path : it.value())
            for (const QString &part : path.split(u'.'))
                fastpath::internKey(part);
    }
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

const MethodEntry *ClassInfo::findMethod(const char *name, qsizetype size) const
{
    const size_t hash = hashBytes(name, size_t(size));
    const size_t mask = m_methodTable.size() - 1;
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
        const MethodSlot &slot = m_methodTable[i];
        if (!slot.entry)
            return nullptr;
        if (slot.hash == hash && slot.entry->selector.size() == size &&
            equalBytes(slot.entry->selector.constData(), name, size_t(size)))
            return slot.entry;
    }
}

const MethodEntry *ClassInfo::instanceMethod(const Selector &selector) const
{
    if (const MethodEntry *const *entry = fastpath::perThread<MethodCache>().find(selector, m_serial))
        return *entry;
    return lookUpAndRemember(selector);
}

const MethodEntry *ClassInfo::lookUpAndRemember(const Selector &selector) const
{
    const MethodEntry *entry = findMethod(selector.constData(), selector.size());
    fastpath::perThread<MethodCache>().store(selector, entry, m_serial);
    return entry;
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
    if (const KeyAccessors *const *found = fastpath::perThread<AccessorCache>().find(key, m_serial))
        return **found;
    return lookUpAndRemember(key);
}

const KeyAccessors &ClassInfo::lookUpAndRemember(const QString &key) const
{
    auto &cache = fastpath::perThread<AccessorCache>();
    const size_t hash = hashBytes(bytesOf(key), byteSizeOf(key));
    if (const KeyCache::Table *t = m_keys->table.load(std::memory_order_acquire))
        if (const KeyCache::Record *r = KeyCache::probe(t, key, hash)) {
            cache.store(key, &r->accessors, m_serial);
            return r->accessors;
        }
    const KeyAccessors &resolved = resolveAccessors(key, hash);
    cache.store(key, &resolved, m_serial);
    return resolved;
}

const KeyAccessors &ClassInfo::resolveAccessors(const QString &key, size_t hash) const
{
    std::lock_guard lock(m_keys->lock);
    if (const KeyCache::Table *t = m_keys->table.load(std::memory_order_relaxed))
        if (const KeyCache::Record *r = KeyCache::probe(t, key, hash))
            return r->accessors;

    KeyAccessors acc;
    const QByteArray k = key.toLatin1();
    const QByteArray K = capitalized(key);
    auto find = [this](const QByteArray &sel, int arity) -> const MethodEntry * {
        const MethodEntry *e = findMethod(sel.constData(), sel.size());
        return e && e->signature.numberOfArguments() - 2 == arity ? e : nullptr;
    };
    for (const QByteArray &sel : {"get" + K, k, "is" + K, "_" + k})
        if ((acc.getter = find(sel, 0)))
            break;
    for (const QByteArray &sel : {"set" + K + ':', "_set" + K + ':'})
        if ((acc.setter = find(sel, 1)))
            break;
    acc.countOf = find("countOf" + K, 0);
    acc.objectAt = find("objectIn" + K + "AtIndex:", 1);
    acc.atIndexes = find(k + "AtIndexes:", 1);
    acc.insertMany = find("insert" + K + ":atIndexes:", 2);
    acc.insertOne = find("insertObject:in" + K + "AtIndex:", 2);
    acc.removeMany = find("remove" + K + "AtIndexes:", 1);
    acc.removeOne = find("removeObjectFrom" + K + "AtIndex:", 1);
    acc.replaceMany = find("replace" + K + "AtIndexes:with" + K + ':', 2);
    acc.replaceOne = find("replaceObjectIn" + K + "AtIndex:withObject:", 2);
    acc.affectingKeyPaths = keyPathsForValuesAffectingValueForKey(key);
    if (acc.setter) {
        const QByteArray code = acc.setter->signature.argumentTypeAt(2);
        acc.setterCode = code.size() == 1 ? code[0] : 0;
    }

    const bool resolvesNothing = !acc.getter && !acc.setter && !acc.countOf && !acc.objectAt &&
                                 !acc.atIndexes && !acc.insertMany && !acc.insertOne && !acc.removeMany &&
                                 !acc.removeOne && !acc.replaceMany && !acc.replaceOne &&
                                 acc.affectingKeyPaths.isEmpty();
    if (resolvesNothing)
        return noAccessors();
    auto record = std::unique_ptr<KeyCache::Record>(new KeyCache::Record{
        hash, fastpath::internKey(QString(key.constData(), key.size())), std::move(acc)});
    const KeyCache::Record *r = record.get();
    m_keys->insert(std::move(record));
    return r->accessors;
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

void ClassInfo::addDictionaryKey(const QString &key, InDictionary presence)
{
    m_ownDictionaryKeys.push_back(DictionaryEntry{key, nullptr, presence});
}

void ClassInfo::addDependency(const QString &key, const QStringList &keyPaths)
{
    QStringList &list = m_dependencies[key];
    for (const QString &p : keyPaths)
        if (!list.contains(p))
            list.append(p);
}

} // namespace zt
