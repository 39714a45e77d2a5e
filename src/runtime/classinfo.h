#pragma once
// Class metadata: one ClassInfo per class, made once and kept for the life of
// the process. It holds the class's name (as it travels on the wire: no "::",
// no "_"), its superclass, its selector table, its key dependencies, the keys
// of its dictionary form and which of its methods the other process may call.
//
// A class declares itself with ZT_OBJECT(Class, Super) in its body and
// ZT_DEFINE_CLASS(Class) in its source file. Its members reachable by
// selector are declared next to their C++ declarations (members.h):
//     ZT_PROPERTY(QString, name, setName, zt::InDictionary::WhenNotNil)
//     ZT_ACTION("resetLineCount", resetLineCount)
//     ZT_DEPENDENCY("statusString", "identity.status")
// A class may instead (or as well) list members in one function; it then uses
// ZT_DEFINE_CLASS_WITH_MEMBERS(Class) and defines
//     void Class::registerMembers(zt::ClassBuilder<Class> &b)
//     {
//         b.method("setName:", &Class::setName);
//         b.property("name", &Class::name, &Class::setName);  // "name" and "setName:"
//     }
// Type codes of the signature are derived from the member-function type.

#include "runtime/signature.h"
#include "runtime/value.h"
#include "zt_export.h"

#include <QHash>
#include <QStringList>
#include <functional>
#include <memory>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

namespace zt {

class Object;
class ClassInfo;
template<typename C> class ClassBuilder;

//! Whether, and when, a key takes part in an object's dictionary form.
enum class InDictionary
{
    No,
    Always,
    WhenNotNil, //!< left out while the getter answers nil
};

//! One entry of a selector table.
struct ZT_EXPORT MethodEntry
{
    Selector selector;
    MethodSignature signature;
    //! Calls the method on `self` (an instance of the registering class or a
    //! subclass) with one value per real argument; answers the result as a
    //! value (nil for void).
    std::function<QVariant(Object *self, const QVariant *arguments)> call;
    //! The other process may call it as a forwarded call (an action of the
    //! class). Nothing else of an object is reachable from there.
    bool action = false;
};

//! One key of the dictionary form and the getter that answers it.
struct DictionaryEntry
{
    QString key;
    const MethodEntry *getter = nullptr;
    InDictionary presence = InDictionary::Always;
};

//! The accessors that key-value coding found for one key of one class.
struct KeyAccessors
{
    const MethodEntry *getter = nullptr;      // getKey, key, isKey, _key
    const MethodEntry *setter = nullptr;      // setKey:, _setKey:
    const MethodEntry *countOf = nullptr;     // countOfKey
    const MethodEntry *objectAt = nullptr;    // objectInKeyAtIndex:
    const MethodEntry *atIndexes = nullptr;   // keyAtIndexes:
    const MethodEntry *insertMany = nullptr;  // insertKey:atIndexes:
    const MethodEntry *insertOne = nullptr;   // insertObject:inKeyAtIndex:
    const MethodEntry *removeMany = nullptr;  // removeKeyAtIndexes:
    const MethodEntry *removeOne = nullptr;   // removeObjectFromKeyAtIndex:
    const MethodEntry *replaceMany = nullptr; // replaceKeyAtIndexes:withKey:
    const MethodEntry *replaceOne = nullptr;  // replaceObjectInKeyAtIndex:withObject:
    QStringList affectingKeyPaths;            // dependencies, the whole class chain
    //! The setter's argument code when it is a single letter ('q', '@' …),
    //! else 0: key-value coding converts a value to it before the call.
    char setterCode = 0;
};

class ZT_EXPORT ClassInfo
{
public:
    using Factory = Object *(*)();
    using Registrar = void (*)(ClassInfo &);

    ClassInfo(const char *name, const ClassInfo *superclass, Factory factory, Registrar registrar);
    ClassInfo(const ClassInfo &) = delete;
    ~ClassInfo();

    const QString &name() const { return m_name; }
    const ClassInfo *superclass() const { return m_superclass; }
    bool isSubclassOf(const ClassInfo &other) const;

    //! The method for a selector in this class or its superclasses.
    const MethodEntry *instanceMethod(const Selector &selector) const;
    //! The method for a selector in this class's own table only.
    const MethodEntry *ownInstanceMethod(const Selector &selector) const;
    QList<Selector> ownSelectors() const;

    //! Key paths whose changes also change `key` (own and inherited declarations).
    QStringList keyPathsForValuesAffectingValueForKey(const QString &key) const;
    //! Accessors found for a key, resolved once and cached.
    const KeyAccessors &accessorsForKey(const QString &key) const;

    //! A new instance made with the class's plain constructor, or null for an
    //! abstract class.
    Ref<Object> createInstance() const;
    //! The keys of the dictionary form, inherited ones first, each with the
    //! getter that this class (or the nearest superclass) answers it with.
    const std::vector<DictionaryEntry> &dictionaryEntries() const { return m_dictionaryEntries; }
    //! The class registered under a name, or null.
    static const ClassInfo *named(const QString &name);

    // Registration (ClassBuilder, while the class is being made).
    void addMethod(MethodEntry entry);
    void addDependency(const QString &key, const QStringList &keyPaths);
    void addDictionaryKey(const QString &key, InDictionary presence);

    template<typename C> static Factory factoryFor()
    {
        if constexpr (!std::is_abstract_v<C> && std::is_default_constructible_v<C>)
            return []() -> Object * { return new C; };
        else
            return nullptr;
    }

private:
    struct MethodSlot
    {
        size_t hash = 0;
        const MethodEntry *entry = nullptr;
    };
    struct KeyCache;
    struct SelectorHash
    {
        size_t operator()(const Selector &s) const noexcept;
    };

    const MethodEntry *findMethod(const char *name, qsizetype size) const;
    // The look-ups past the per-thread caches, kept out of line so that a
    // hit stays cheap.
    [[gnu::noinline]] const MethodEntry *lookUpAndRemember(const Selector &selector) const;
    [[gnu::noinline]] const KeyAccessors &lookUpAndRemember(const QString &key) const;
    const KeyAccessors &resolveAccessors(const QString &key, size_t hash) const;
    //! Interns the keys this class names (getters, setters, dependencies),
    //! so that decoded dictionaries share their characters.
    void internKnownKeys() const;

    QString m_name;
    const ClassInfo *m_superclass;
    Factory m_factory;
    //! Never reused by another class, unlike the object's address: per-thread
    //! look-up caches tell classes apart by it.
    quint64 m_serial;
    std::unordered_map<Selector, MethodEntry, SelectorHash> m_methods;
    //! Own and inherited methods, an open-addressing table made once the
    //! class has registered its members and never changed after: look-ups
    //! read it without a lock.
    std::vector<MethodSlot> m_methodTable;
    QHash<QString, QStringList> m_dependencies;
    //! Own keys of the dictionary form while the class registers its members.
    std::vector<DictionaryEntry> m_ownDictionaryKeys;
    std::vector<DictionaryEntry> m_dictionaryEntries;
    //! Accessors found so far, by key (classinfo.cpp).
    std::unique_ptr<KeyCache> m_keys;
};

namespace detail {

template<typename F> struct MemberTraits;
template<typename R, typename K, typename... A> struct MemberTraits<R (K::*)(A...)>
{
    using Return = R;
    using Class = K;
    using Self = K;
    static constexpr size_t arity = sizeof...(A);
};
template<typename R, typename K, typename... A> struct MemberTraits<R (K::*)(A...) const>
{
    using Return = R;
    using Class = K;
    using Self = const K;
    static constexpr size_t arity = sizeof...(A);
};

template<typename R, typename Self, typename Fn, typename... A, size_t... I>
QVariant invokeMember(Fn fn, Self *self, const QVariant *args, std::index_sequence<I...>)
{
    if constexpr (std::is_void_v<R>) {
        (self->*fn)(fromValue<std::decay_t<A>>(args[I])...);
        return {};
    } else {
        return toValue((self->*fn)(fromValue<std::decay_t<A>>(args[I])...));
    }
}

template<typename R, typename K, typename... A> MethodSignature signatureOf(R (K::*)(A...))
{
    return MethodSignature::of<R, A...>();
}
template<typename R, typename K, typename... A> MethodSignature signatureOf(R (K::*)(A...) const)
{
    return MethodSignature::of<R, A...>();
}

template<typename R, typename K, typename... A> auto thunkOf(R (K::*fn)(A...))
{
    return [fn](Object *self, const QVariant *args) {
        return invokeMember<R, K, decltype(fn), A...>(fn, static_cast<K *>(self), args,
                                                      std::index_sequence_for<A...>{});
    };
}
template<typename R, typename K, typename... A> auto thunkOf(R (K::*fn)(A...) const)
{
    return [fn](Object *self, const QVariant *args) {
        return invokeMember<R, const K, decltype(fn), A...>(fn, static_cast<const K *>(self), args,
                                                            std::index_sequence_for<A...>{});
    };
}

ZT_EXPORT void checkSelectorArity(const char *className, const char *selector, size_t arity);

} // namespace detail

template<typename C> class ClassBuilder
{
public:
    explicit ClassBuilder(ClassInfo &info) : m_info(info) {}

    //! Registers a member function under its exact selector string.
    template<typename F> ClassBuilder &method(const char *selector, F fn)
    {
        static_assert(std::is_base_of_v<typename detail::MemberTraits<F>::Class, C>,
                      "the method must belong to the class or one of its bases");
        detail::checkSelectorArity(m_info.name().toLatin1().constData(), selector,
                                   detail::MemberTraits<F>::arity);
        m_info.addMethod(MethodEntry{Selector(selector), detail::signatureOf(fn), detail::thunkOf(fn)});
        return *this;
    }

    //! Registers a method that the other process may call (a forwarded call).
    template<typename F> ClassBuilder &action(const char *selector, F fn)
    {
        method(selector, fn);
        MethodEntry entry = *m_info.ownInstanceMethod(Selector(selector));
        entry.action = true;
        m_info.addMethod(std::move(entry));
        return *this;
    }

    //! Registers "key" and "setKey:" for a read-write property, and its place
    //! in the dictionary form.
    template<typename G, typename S>
    ClassBuilder &property(const char *key, G getter, S setter, InDictionary presence = InDictionary::No)
    {
        getterKey(key, getter, presence);
        QByteArray set = QByteArray(key);
        set[0] = char(std::toupper(uchar(set[0])));
        set = "set" + set + ':';
        return method(set.constData(), setter);
    }

    //! Registers the getter of a key and its place in the dictionary form.
    template<typename G>
    ClassBuilder &getterKey(const char *key, G getter, InDictionary presence = InDictionary::No)
    {
        method(key, getter);
        if (presence != InDictionary::No)
            m_info.addDictionaryKey(QString::fromLatin1(key), presence);
        return *this;
    }

    //! Declares that observers of `key` are also told of changes at `keyPaths`.
    ClassBuilder &dependency(const char *key, const QStringList &keyPaths)
    {
        m_info.addDependency(QString::fromLatin1(key), keyPaths);
        return *this;
    }
    ClassBuilder &dependency(const char *key, std::initializer_list<const char *> keyPaths)
    {
        QStringList paths;
        for (const char *path : keyPaths)
            paths.append(QString::fromLatin1(path));
        return dependency(key, paths);
    }

private:
    ClassInfo &m_info;
};

} // namespace zt

namespace zt::detail {
//! Members declared in a class body are found by the line they are declared
//! on, counted from the class's ZT_OBJECT line.
template<int N> struct Slot
{
};
inline constexpr int kSlotLines = 1024;
template<typename C, size_t... I> void registerSlots(ClassBuilder<C> &b, std::index_sequence<I...>)
{
    [[maybe_unused]] const int unused[] = {(C::zt_member(Slot<int(I)>{}, b), 0)...};
}
template<typename C> void registerDeclaredMembers(ClassBuilder<C> &b)
{
    registerSlots<C>(b, std::make_index_sequence<kSlotLines>{});
}
} // namespace zt::detail

//! In the body of a class derived (directly or not) from zt::Object.
#define ZT_OBJECT(Class, Super)                                                                              \
public:                                                                                                      \
    using super = Super;                                                                                     \
    using zt_self = Class;                                                                                   \
    static const ::zt::ClassInfo &staticClassInfo();                                                         \
    const ::zt::ClassInfo &classInfo() const override                                                        \
    {                                                                                                        \
        return staticClassInfo();                                                                            \
    }                                                                                                        \
    [[maybe_unused]] static constexpr int zt_first_line = __LINE__;                                          \
    template<int N, typename B> static void zt_member(::zt::detail::Slot<N>, B &) {}                         \
                                                                                                             \
private:                                                                                                     \
    static void registerMembers(::zt::ClassBuilder<Class> &builder);                                         \
                                                                                                             \
public:

//! Opens a member declared in a class body: the registration that runs when
//! the class's metadata is made (a template, so that it is compiled only
//! where the class is defined and may name types the header only declares).
//! Used by the member macros of members.h.
#define ZT_DECLARED_MEMBER(builder)                                                                          \
    template<typename B> static void zt_member(::zt::detail::Slot<__LINE__ - zt_first_line>, B &builder)

#define ZT_DEFINE_CLASS_IMPL(Class, ...)                                                                     \
    const ::zt::ClassInfo &Class::staticClassInfo()                                                          \
    {                                                                                                        \
        static const ::zt::ClassInfo info(#Class, &super::staticClassInfo(),                                 \
                                          ::zt::ClassInfo::factoryFor<Class>(), [](::zt::ClassInfo &i) {     \
                                              ::zt::ClassBuilder<Class> b(i);                                \
                                              ::zt::detail::registerDeclaredMembers<Class>(b);               \
                                              __VA_ARGS__                                                    \
                                          });                                                                \
        return info;                                                                                         \
    }                                                                                                        \
    [[maybe_unused]] static const ::zt::ClassInfo &zt_classinfo_##Class = Class::staticClassInfo();

//! In the class's source file, at namespace scope: makes the class's metadata
//! from the members declared in its body.
#define ZT_DEFINE_CLASS(Class) ZT_DEFINE_CLASS_IMPL(Class, )
//! The same, for a class that also lists members in registerMembers().
#define ZT_DEFINE_CLASS_WITH_MEMBERS(Class) ZT_DEFINE_CLASS_IMPL(Class, registerMembers(b);)
