#pragma once
// Members declared once, in the class body.
//
// Each macro below declares one member of a class that uses ZT_OBJECT and
// ZT_DEFINE_CLASS: its C++ accessors, its selectors, its change announcement
// and its place in the dictionary form (InDictionary), all from one line.
// Put them in the public part of the class body, one per line (the line
// tells them apart; a class body may span kSlotLines lines).
//
//   ZT_PROPERTY(Type, key, setKey, presence?)
//       a stored value m_key, `Type key() const`, `void setKey(value)` that
//       announces "key"; selectors "key" and "setKey:".
//   ZT_PROPERTY_GET(Type, key, setKey, presence?)
//       the same, but the class defines `Type key() const` itself (a getter
//       that computes, such as an effective port), reading m_key.
//   ZT_WEAK(Type, key, setKey)
//       a non-owning `Type *` (the owner clears it; see ref.h).
//   ZT_KEY(key, setKey, presence?)  /  ZT_READONLY_KEY(key, presence?)
//       hand-written accessors registered under the key's selectors.
//   ZT_TO_MANY(Type, key, Key)
//       an ordered to-many key: `QList<Ref<Type>> key() const`, the indexed
//       accessors "insertKey:atIndexes:", "removeKeyAtIndexes:",
//       "replaceKeyAtIndexes:withKey:" (each checks its indexes and raises
//       NSRangeException or NSInvalidArgumentException as the platform's
//       arrays do, whoever calls it), "setKey:" and mutableKey(), the
//       announcing view that key-value coding and the class's own
//       operations use; "countOfKey" and "keyAtIndexes:" read a count and
//       a few elements without copying the whole list.
//   ZT_WIRED_TO_MANY(Type, key, Key, wired, Wired)
//       ZT_TO_MANY plus the wired form of the key: "wired" (each element's
//       dictionary), "setWired:", "insertWired:atIndexes:",
//       "removeWiredAtIndexes:", "countOfWired" and "wiredAtIndexes:" (the
//       dictionaries of those elements only), converted back through the class's
//       `std::optional<QList<Ref<Type>>> replacementObjectsForWired(const
//       QVariantList &)`; nil (nullopt) leaves the list alone in the setter.
//   ZT_TO_MANY_OUT_OF_LINE / ZT_WIRED_TO_MANY_OUT_OF_LINE (same arguments)
//       the same members when the header only declares Type: the accessors
//       are defined in the source file by ZT_DEFINE_TO_MANY(Class, ...) /
//       ZT_DEFINE_WIRED_TO_MANY(Class, ...).
//   ZT_METHOD("selector:", function)  /  ZT_ACTION("selector:", function)
//       a method reachable by selector; an action is one that the other
//       process may call (a forwarded call), nothing else is.
//   ZT_DEPENDENCY("key", "keyPath", ...)
//       observers of "key" are also told of changes at the key paths.

#include "runtime/indexset.h"
#include "runtime/kvc.h"
#include "runtime/ref.h"

#include <functional>
#include <optional>

namespace zt {

//! Raises NSRangeException for an index past the end of a to-many key.
[[noreturn]] ZT_EXPORT void raiseIndexBeyondBounds(const Object *object, const char *selector, quint64 index,
                                                   qsizetype count);
//! Raises NSInvalidArgumentException for objects and indexes that differ in
//! number, or a nil object.
[[noreturn]] ZT_EXPORT void raiseBadObjects(const Object *object, const char *selector, qsizetype objects,
                                            quint64 indexes);

namespace detail {

template<typename T> using ParamOf = std::conditional_t<std::is_scalar_v<T>, T, const T &>;

template<typename T>
void checkObjects(const Object *self, const char *selector, const QList<Ref<T>> &objects,
                  const IndexSet &indexes)
{
    if (quint64(objects.size()) != indexes.count())
        raiseBadObjects(self, selector, objects.size(), indexes.count());
    for (const Ref<T> &object : objects)
        if (!object)
            raiseBadObjects(self, selector, objects.size(), indexes.count());
}

template<typename T>
void insertAtIndexes(const Object *self, const char *selector, QList<Ref<T>> &list,
                     const QList<Ref<T>> &objects, const IndexSet &indexes)
{
    checkObjects(self, selector, objects, indexes);
    if (objects.isEmpty())
        return;
    // Ascending indexes below the final count are each within the list at
    // the moment their object goes in.
    if (indexes.last() >= quint64(list.size() + objects.size()))
        raiseIndexBeyondBounds(self, selector, indexes.last(), list.size() + objects.size());
    if (indexes.first() == quint64(list.size())) { // appending, the common case
        list.append(objects);
        return;
    }
    qsizetype k = 0;
    for (quint64 i : indexes)
        list.insert(qsizetype(i), objects[k++]);
}

template<typename T>
void removeAtIndexes(const Object *self, const char *selector, QList<Ref<T>> &list, const IndexSet &indexes)
{
    if (indexes.isEmpty())
        return;
    if (indexes.last() >= quint64(list.size()))
        raiseIndexBeyondBounds(self, selector, indexes.last(), list.size());
    const auto &ranges = indexes.ranges();
    for (auto r = ranges.rbegin(); r != ranges.rend(); ++r)
        list.remove(qsizetype(r->location), qsizetype(r->length));
}

template<typename T>
void replaceAtIndexes(const Object *self, const char *selector, QList<Ref<T>> &list, const IndexSet &indexes,
                      const QList<Ref<T>> &objects)
{
    checkObjects(self, selector, objects, indexes);
    if (objects.isEmpty())
        return;
    if (indexes.last() >= quint64(list.size()))
        raiseIndexBeyondBounds(self, selector, indexes.last(), list.size());
    qsizetype k = 0;
    for (quint64 i : indexes)
        list[qsizetype(i)] = objects[k++];
}

//! Key paths written as literals (ZT_DEPENDENCY), as the builder takes them.
inline QStringList keyPathList(std::initializer_list<const char *> keyPaths)
{
    QStringList out;
    out.reserve(qsizetype(keyPaths.size()));
    for (const char *path : keyPaths)
        out.append(QString::fromLatin1(path));
    return out;
}

//! The rest of a list of dictionaries that dictionariesOf() left unmade
//! under a DictionaryListLimit: `make(from, count)` makes those elements.
//! Not a property-list value: whoever sets the limit takes it out.
struct ListRemainder
{
    std::function<QVariantList(qsizetype from, qsizetype count)> make;
    qsizetype total = 0; // the whole list's length
};

//! While one is alive, dictionariesOf() on this thread makes only the first
//! `limit` dictionaries of a longer list and ends it with a ListRemainder
//! (the agent sends a large initial state in pieces, each made as it goes).
class ZT_EXPORT DictionaryListLimit
{
public:
    explicit DictionaryListLimit(qsizetype limit);
    ~DictionaryListLimit();
    DictionaryListLimit(const DictionaryListLimit &) = delete;
    DictionaryListLimit &operator=(const DictionaryListLimit &) = delete;
    //! This thread's limit; 0 when none.
    static qsizetype current();

private:
    qsizetype m_previous;
};

//! A wired list of `size` elements, `make(from, count)` making a run of
//! them: the whole list, or under a DictionaryListLimit its first piece and
//! a ListRemainder for the rest.
template<typename Make> QVariantList limitedList(qsizetype size, Make make)
{
    const qsizetype limit = DictionaryListLimit::current();
    if (limit <= 0 || size <= limit)
        return make(0, size);
    QVariantList out = make(0, limit);
    out.append(QVariant::fromValue(ListRemainder{std::move(make), size}));
    return out;
}

template<typename T> QVariantList dictionariesOf(const QList<Ref<T>> &list)
{
    return limitedList(list.size(), [list](qsizetype from, qsizetype count) {
        QVariantList out;
        out.reserve(count);
        for (qsizetype i = from; i < from + count; ++i)
            out.append(list[i]->dictionary());
        return out;
    });
}

//! The elements at `indexes`, each made by `value` (an object's value or its
//! dictionary); raises NSRangeException for an index past the end.
template<typename T, typename Value>
QVariantList valuesAtIndexes(const Object *self, const char *selector, const QList<Ref<T>> &list,
                             const IndexSet &indexes, Value value)
{
    if (!indexes.isEmpty() && indexes.last() >= quint64(list.size()))
        raiseIndexBeyondBounds(self, selector, indexes.last(), list.size());
    QVariantList out;
    out.reserve(qsizetype(indexes.count()));
    for (quint64 i : indexes)
        out.append(value(list[qsizetype(i)]));
    return out;
}

template<typename T> QVariantList objectValues(const QList<Ref<T>> &list)
{
    QVariantList out;
    out.reserve(list.size());
    for (const Ref<T> &object : list)
        out.append(objectValue(object.get()));
    return out;
}

} // namespace detail
} // namespace zt

#define ZT_PROPERTY_FIELD(Type, key)                                                                         \
private:                                                                                                     \
    Type m_##key{};                                                                                          \
                                                                                                             \
public:

// Without an initializer: a list of a type the header only declares may not
// be value-initialized where the class is defined.
#define ZT_LIST_FIELD(Type, key)                                                                             \
private:                                                                                                     \
    QList<::zt::Ref<Type>> m_##key;                                                                          \
                                                                                                             \
public:

#define ZT_PROPERTY_SETTER(Type, key, Setter)                                                                \
    void Setter(::zt::detail::ParamOf<Type> value)                                                           \
    {                                                                                                        \
        setAndNotify(m_##key, value, QStringLiteral(#key));                                                  \
    }

#define ZT_PROPERTY(Type, key, Setter, ...)                                                                  \
    Type key() const                                                                                         \
    {                                                                                                        \
        return m_##key;                                                                                      \
    }                                                                                                        \
    ZT_PROPERTY_SETTER(Type, key, Setter)                                                                    \
    ZT_KEY(key, Setter __VA_OPT__(, ) __VA_ARGS__)                                                           \
    ZT_PROPERTY_FIELD(Type, key)

#define ZT_PROPERTY_GET(Type, key, Setter, ...)                                                              \
    Type key() const;                                                                                        \
    ZT_PROPERTY_SETTER(Type, key, Setter)                                                                    \
    ZT_KEY(key, Setter __VA_OPT__(, ) __VA_ARGS__)                                                           \
    ZT_PROPERTY_FIELD(Type, key)

#define ZT_WEAK(Type, key, Setter)                                                                           \
    Type *key() const                                                                                        \
    {                                                                                                        \
        return m_##key;                                                                                      \
    }                                                                                                        \
    void Setter(Type *value)                                                                                 \
    {                                                                                                        \
        setAndNotify(m_##key, value, QStringLiteral(#key));                                                  \
    }                                                                                                        \
    ZT_KEY(key, Setter)                                                                                      \
                                                                                                             \
private:                                                                                                     \
    Type *m_##key = nullptr;                                                                                 \
                                                                                                             \
public:

#define ZT_KEY(key, Setter, ...)                                                                             \
    ZT_DECLARED_MEMBER(b)                                                                                    \
    {                                                                                                        \
        b.property(#key, &zt_self::key, &zt_self::Setter __VA_OPT__(, ) __VA_ARGS__);                        \
    }

#define ZT_READONLY_KEY(key, ...)                                                                            \
    ZT_DECLARED_MEMBER(b)                                                                                    \
    {                                                                                                        \
        b.getterKey(#key, &zt_self::key __VA_OPT__(, ) __VA_ARGS__);                                         \
    }

#define ZT_METHOD(selector, function)                                                                        \
    ZT_DECLARED_MEMBER(b)                                                                                    \
    {                                                                                                        \
        b.method(selector, &zt_self::function);                                                              \
    }

#define ZT_ACTION(selector, function)                                                                        \
    ZT_DECLARED_MEMBER(b)                                                                                    \
    {                                                                                                        \
        b.action(selector, &zt_self::function);                                                              \
    }

#define ZT_DEPENDENCY(key, ...)                                                                              \
    ZT_DECLARED_MEMBER(b)                                                                                    \
    {                                                                                                        \
        b.dependency(key, ::zt::detail::keyPathList({__VA_ARGS__}));                                         \
    }

// The accessor bodies; Scope is empty in the class body and `Class::` in a
// source file (the out-of-line forms below).
#define ZT_TO_MANY_BODIES(Scope, Type, key, Key)                                                             \
    QList<::zt::Ref<Type>> Scope key() const                                                                 \
    {                                                                                                        \
        return m_##key;                                                                                      \
    }                                                                                                        \
    void Scope insert##Key##AtIndexes(const QList<::zt::Ref<Type>> &objects, const ::zt::IndexSet &indexes)  \
    {                                                                                                        \
        ::zt::detail::insertAtIndexes(this, "insert" #Key ":atIndexes:", m_##key, objects, indexes);         \
    }                                                                                                        \
    void Scope remove##Key##AtIndexes(const ::zt::IndexSet &indexes)                                         \
    {                                                                                                        \
        ::zt::detail::removeAtIndexes(this, "remove" #Key "AtIndexes:", m_##key, indexes);                   \
    }                                                                                                        \
    void Scope replace##Key##AtIndexesWith##Key(const ::zt::IndexSet &indexes,                               \
                                                const QList<::zt::Ref<Type>> &objects)                       \
    {                                                                                                        \
        ::zt::detail::replaceAtIndexes(this, "replace" #Key "AtIndexes:with" #Key ":", m_##key, indexes,     \
                                       objects);                                                             \
    }                                                                                                        \
    void Scope set##Key(const QList<::zt::Ref<Type>> &objects)                                               \
    {                                                                                                        \
        setAndNotify(m_##key, objects, QStringLiteral(#key));                                                \
    }                                                                                                        \
    qsizetype Scope countOf##Key() const                                                                     \
    {                                                                                                        \
        return m_##key.size();                                                                               \
    }                                                                                                        \
    QVariantList Scope key##AtIndexes(const ::zt::IndexSet &indexes) const                                   \
    {                                                                                                        \
        return ::zt::detail::valuesAtIndexes(this, #key "AtIndexes:", m_##key, indexes,                      \
                                             [](const auto &o) { return ::zt::objectValue(o.get()); });      \
    }

#define ZT_WIRED_BODIES(Scope, Type, key, Key, wired, Wired)                                                 \
    QVariantList Scope wired() const                                                                         \
    {                                                                                                        \
        return ::zt::detail::dictionariesOf(m_##key);                                                        \
    }                                                                                                        \
    void Scope set##Wired(const QVariantList &dictionaries)                                                  \
    {                                                                                                        \
        if (std::optional<QList<::zt::Ref<Type>>> objects = replacementObjectsFor##Wired(dictionaries))      \
            set##Key(*objects);                                                                              \
    }                                                                                                        \
    void Scope insert##Wired##AtIndexes(const QVariantList &dictionaries, const ::zt::IndexSet &indexes)     \
    {                                                                                                        \
        const std::optional<QList<::zt::Ref<Type>>> objects = replacementObjectsFor##Wired(dictionaries);    \
        mutable##Key().insertObjectsAtIndexes(                                                               \
            objects ? ::zt::detail::objectValues(*objects) : QVariantList(), indexes);                       \
    }                                                                                                        \
    void Scope remove##Wired##AtIndexes(const ::zt::IndexSet &indexes)                                       \
    {                                                                                                        \
        mutable##Key().removeObjectsAtIndexes(indexes);                                                      \
    }                                                                                                        \
    qsizetype Scope countOf##Wired() const                                                                   \
    {                                                                                                        \
        return m_##key.size();                                                                               \
    }                                                                                                        \
    QVariantList Scope wired##AtIndexes(const ::zt::IndexSet &indexes) const                                 \
    {                                                                                                        \
        return ::zt::detail::valuesAtIndexes(this, #wired "AtIndexes:", m_##key, indexes,                    \
                                             [](const auto &o) { return QVariant(o->dictionary()); });       \
    }

#define ZT_TO_MANY_MUTABLE(key, Key)                                                                         \
    ::zt::MutableArrayProxy mutable##Key()                                                                   \
    {                                                                                                        \
        return mutableArrayValueForKey(QStringLiteral(#key));                                                \
    }

#define ZT_TO_MANY_ACCESSORS(Type, key, Key)                                                                 \
    ZT_TO_MANY_BODIES(, Type, key, Key)                                                                      \
    ZT_TO_MANY_MUTABLE(key, Key)

#define ZT_TO_MANY_DECLARATIONS(Type, key, Key)                                                              \
    QList<::zt::Ref<Type>> key() const;                                                                      \
    void insert##Key##AtIndexes(const QList<::zt::Ref<Type>> &objects, const ::zt::IndexSet &indexes);       \
    void remove##Key##AtIndexes(const ::zt::IndexSet &indexes);                                              \
    void replace##Key##AtIndexesWith##Key(const ::zt::IndexSet &indexes,                                     \
                                          const QList<::zt::Ref<Type>> &objects);                            \
    void set##Key(const QList<::zt::Ref<Type>> &objects);                                                    \
    qsizetype countOf##Key() const;                                                                          \
    QVariantList key##AtIndexes(const ::zt::IndexSet &indexes) const;                                        \
    ZT_TO_MANY_MUTABLE(key, Key)

#define ZT_TO_MANY_REGISTER(b, key, Key)                                                                     \
    b.property(#key, &zt_self::key, &zt_self::set##Key);                                                     \
    b.method("insert" #Key ":atIndexes:", &zt_self::insert##Key##AtIndexes);                                 \
    b.method("remove" #Key "AtIndexes:", &zt_self::remove##Key##AtIndexes);                                  \
    b.method("replace" #Key "AtIndexes:with" #Key ":", &zt_self::replace##Key##AtIndexesWith##Key);          \
    b.method("countOf" #Key, &zt_self::countOf##Key);                                                        \
    b.method(#key "AtIndexes:", &zt_self::key##AtIndexes);

#define ZT_TO_MANY(Type, key, Key)                                                                           \
    ZT_TO_MANY_ACCESSORS(Type, key, Key)                                                                     \
    ZT_DECLARED_MEMBER(b){ZT_TO_MANY_REGISTER(b, key, Key)} ZT_PROPERTY_FIELD(QList<::zt::Ref<Type>>, key)

#define ZT_WIRED_REGISTER(b, key, Key, wired, Wired)                                                         \
    ZT_TO_MANY_REGISTER(b, key, Key)                                                                         \
    b.property(#wired, &zt_self::wired, &zt_self::set##Wired);                                               \
    b.method("insert" #Wired ":atIndexes:", &zt_self::insert##Wired##AtIndexes);                             \
    b.method("remove" #Wired "AtIndexes:", &zt_self::remove##Wired##AtIndexes);                              \
    b.method("countOf" #Wired, &zt_self::countOf##Wired);                                                    \
    b.method(#wired "AtIndexes:", &zt_self::wired##AtIndexes);

#define ZT_WIRED_TO_MANY(Type, key, Key, wired, Wired)                                                       \
    ZT_TO_MANY_ACCESSORS(Type, key, Key)                                                                     \
    ZT_WIRED_BODIES(, Type, key, Key, wired, Wired)                                                          \
    ZT_DECLARED_MEMBER(b){ZT_WIRED_REGISTER(b, key, Key, wired, Wired)} ZT_PROPERTY_FIELD(                   \
        QList<::zt::Ref<Type>>, key)

// Out-of-line forms, for element classes that the header only declares: the
// class body has ZT_TO_MANY_OUT_OF_LINE / ZT_WIRED_TO_MANY_OUT_OF_LINE, the
// source file ZT_DEFINE_TO_MANY / ZT_DEFINE_WIRED_TO_MANY with the same
// arguments after the class name.
#define ZT_TO_MANY_OUT_OF_LINE(Type, key, Key)                                                               \
    ZT_TO_MANY_DECLARATIONS(Type, key, Key)                                                                  \
    ZT_DECLARED_MEMBER(b){ZT_TO_MANY_REGISTER(b, key, Key)} ZT_LIST_FIELD(Type, key)

#define ZT_WIRED_TO_MANY_OUT_OF_LINE(Type, key, Key, wired, Wired)                                           \
    ZT_TO_MANY_DECLARATIONS(Type, key, Key)                                                                  \
    QVariantList wired() const;                                                                              \
    void set##Wired(const QVariantList &dictionaries);                                                       \
    void insert##Wired##AtIndexes(const QVariantList &dictionaries, const ::zt::IndexSet &indexes);          \
    void remove##Wired##AtIndexes(const ::zt::IndexSet &indexes);                                            \
    qsizetype countOf##Wired() const;                                                                        \
    QVariantList wired##AtIndexes(const ::zt::IndexSet &indexes) const;                                      \
    ZT_DECLARED_MEMBER(b){ZT_WIRED_REGISTER(b, key, Key, wired, Wired)} ZT_LIST_FIELD(Type, key)

#define ZT_DEFINE_TO_MANY(Class, Type, key, Key) ZT_TO_MANY_BODIES(Class::, Type, key, Key)

#define ZT_DEFINE_WIRED_TO_MANY(Class, Type, key, Key, wired, Wired)                                         \
    ZT_TO_MANY_BODIES(Class::, Type, key, Key)                                                               \
    ZT_WIRED_BODIES(Class::, Type, key, Key, wired, Wired)
