#pragma once
// The library's speed machinery, in one place: byte hashes, caches keyed by
// the address of a string's characters, direct-mapped tables of recent short
// byte strings, interned keys, class serials and per-thread storage. Code
// elsewhere uses these rather than growing its own variant; the rules that
// make them correct are written here once (and in docs/architecture.md).
//
// Invariants
//  1. A cache slot pins the characters of the string it is keyed by: it keeps
//     a copy that holds a reference to them, so they cannot be freed while
//     the slot holds them, and no other text can appear at that address.
//     Equal address and equal length therefore mean equal text. Only strings
//     that own their characters (ownsCharacters) enter such a cache: a literal
//     or a fromRawData() string points at memory whose owner may free it and
//     put other text there.
//  2. Class serials (newSerial) are never reused, unlike the address of a
//     ClassInfo: a per-thread cache may tell classes apart by serial without
//     ever being told that a class went away.
//  3. Interned keys are immortal: their characters are never freed, so an
//     interned QString copies and destroys without touching a reference
//     count. Only keys the library knows are interned (class metadata,
//     accessors that resolved, keys the library names itself); text that
//     arrives from another process is looked up, never added.
//  4. Per-thread data lives in perThread<T>(). With ZT_STATIC_TLS (the CMake
//     option of that name, on by default) it uses the initial-exec model: the
//     data sits in the static TLS block, reached without calling
//     __tls_get_addr. That needs the library to be loaded when the process
//     starts (linked by the executable or one of its libraries). A build that
//     is loaded later with dlopen (a plugin, a language binding) must turn
//     the option off, or the load can fail with "cannot allocate memory in
//     static TLS block".

#include "zt_export.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QString>
#include <QStringView>
#include <array>
#include <cstring>
#include <type_traits>

#if defined(ZT_STATIC_TLS)
#define ZT_TLS_MODEL __attribute__((tls_model("initial-exec")))
#else
#define ZT_TLS_MODEL
#endif

namespace zt::fastpath {

// ---- byte hashes ----

inline quint64 load64(const void *p) noexcept
{
    quint64 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline quint32 load32(const void *p) noexcept
{
    quint32 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

//! A strong 64-bit finaliser (every input bit reaches every output bit).
constexpr quint64 mix(quint64 h) noexcept
{
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    h *= 0xc4ceb9fe1a85ec53ULL;
    h ^= h >> 33;
    return h;
}

inline quint64 mixWord(quint64 h, quint64 w) noexcept
{
    h = (h ^ w) * 0xbf58476d1ce4e5b9ull;
    return h ^ (h >> 31);
}

//! A fixed (unkeyed) hash of `n` bytes, several times cheaper than qHash() on
//! the short names it is used for. It reads eight bytes at a time, the last
//! word overlapping the one before, and shorter runs with overlapping loads,
//! so no byte loop and no stack copy. Not randomised: use it only for tables
//! that are bounded, per call, or whose hits are checked byte for byte.
inline quint64 hashBytes(const void *data, size_t n, quint64 start = 0) noexcept
{
    const char *p = static_cast<const char *>(data);
    quint64 h = (0x9e3779b97f4a7c15ull ^ start) ^ n;
    if (n >= 8) {
        const char *last = p + n - 8;
        for (; p < last; p += 8)
            h = mixWord(h, load64(p));
        h = mixWord(h, load64(last));
    } else if (n >= 4) {
        h = mixWord(h, load32(p) | quint64(load32(p + n - 4)) << 32);
    } else if (n > 0) {
        h = mixWord(h, quint64(uchar(p[0])) | quint64(uchar(p[n / 2])) << 8 | quint64(uchar(p[n - 1])) << 16);
    }
    return h * 0x94d049bb133111ebull;
}

//! Equality of two runs of `n` bytes, inline: words, the last one overlapping.
inline bool equalBytes(const void *x, const void *y, size_t n) noexcept
{
    const char *a = static_cast<const char *>(x);
    const char *b = static_cast<const char *>(y);
    if (n >= 8) {
        for (size_t i = 0; i + 8 < n; i += 8)
            if (load64(a + i) != load64(b + i))
                return false;
        return load64(a + n - 8) == load64(b + n - 8);
    }
    if (n >= 4)
        return load32(a) == load32(b) && load32(a + n - 4) == load32(b + n - 4);
    for (size_t i = 0; i < n; ++i)
        if (a[i] != b[i])
            return false;
    return true;
}

//! The characters of a string as bytes (UTF-16, host order).
inline QByteArrayView bytesOf(const QString &s) noexcept
{
    return QByteArrayView(reinterpret_cast<const char *>(s.constData()), s.size() * qsizetype(sizeof(QChar)));
}

inline quint64 hashString(const QString &s) noexcept
{
    const QByteArrayView b = bytesOf(s);
    return hashBytes(b.data(), size_t(b.size()));
}

//! For std::unordered_map and the like, over QString keys.
struct StringHash
{
    size_t operator()(const QString &key) const noexcept { return size_t(hashString(key)); }
};

// ---- owning characters ----

//! Whether a string holds a reference to its characters (invariant 1). Reads
//! only: never detaches.
inline bool ownsCharacters(const QString &s) noexcept
{
    return s.data_ptr().isMutable();
}
inline bool ownsCharacters(const QByteArray &b) noexcept
{
    return const_cast<QByteArray &>(b).data_ptr().isMutable(); // data_ptr() itself does not detach
}

// ---- caches keyed by address ----

//! N slots from a string (QString or QByteArray, a Selector) to a Value,
//! matched by the address and length of the string's characters, plus a tag
//! the caller chooses (a class serial, a role) that must match too. A slot
//! pins the characters it is keyed by (invariant 1); a string that does not
//! own its characters is never stored and so never found. Not thread-safe:
//! keep one per thread (perThread) or guard it with the owner's lock.
template<typename Key, typename Value, size_t N> class AddressKeyedCache
{
    static_assert(N > 0 && (N & (N - 1)) == 0, "a power of two");

public:
    //! The value stored for `key` and `tag`, or null (not cached).
    const Value *find(const Key &key, quint64 tag = 0) const noexcept
    {
        const Slot &s = m_slots[indexFor(key.constData(), tag)];
        if (s.address != key.constData() || s.size != key.size() || s.tag != tag)
            return nullptr;
        return &s.value;
    }

    //! Remembers `value` for `key` and `tag`, replacing the slot's entry. A
    //! key that does not own its characters is not remembered.
    void store(const Key &key, Value value, quint64 tag = 0)
    {
        if (!ownsCharacters(key))
            return;
        Slot &s = m_slots[indexFor(key.constData(), tag)];
        s.address = nullptr; // matches nothing until filled in
        Key pinned(key);
        s.key.swap(pinned); // what the slot held goes with `pinned`
        s.value = std::move(value);
        s.size = s.key.size();
        s.tag = tag;
        s.address = s.key.constData();
    }

    //! Forgets every entry.
    void clear()
    {
        for (Slot &s : m_slots)
            s = Slot();
    }

private:
    struct Slot
    {
        const void *address = nullptr; // constData() of a string is never null
        qsizetype size = 0;
        quint64 tag = 0;
        Key key;
        Value value{};
    };
    static size_t indexFor(const void *data, quint64 tag) noexcept
    {
        if constexpr (N == 1)
            return 0;
        return size_t((quintptr(data) >> 4) ^ tag) & (N - 1);
    }
    std::array<Slot, N> m_slots;
};

// ---- direct-mapped tables of recent byte strings ----

//! Slots of recently met short byte strings (a serialised key, an encoded
//! selector) and what was made from them. A look-up is one hash of the bytes
//! and one compare; a store replaces whatever the slot held. Keys of at most
//! InlineBytes are kept inside the slot (no allocation), longer ones in a
//! QByteArray; keys longer than MaxKeyBytes are not cached at all (fits()).
//! An empty slot matches nothing, not even no bytes. Not thread-safe: keep
//! one per thread (perThread).
template<typename Value, size_t Slots, qsizetype MaxKeyBytes, qsizetype InlineBytes = 48>
class DirectMappedTable
{
    static_assert((Slots & (Slots - 1)) == 0, "a power of two");

public:
    static constexpr bool fits(qsizetype n) noexcept { return n <= MaxKeyBytes; }

    //! The value stored for `bytes`, or null. Remembers the slot for store().
    const Value *find(QByteArrayView bytes) noexcept
    {
        m_hash = hashBytes(bytes.data(), size_t(bytes.size()));
        const Slot &slot = m_slots[m_hash & (Slots - 1)];
        if (slot.length == bytes.size() && slot.hash == m_hash &&
            equalBytes(slot.key.data(), bytes.data(), size_t(bytes.size())))
            return &slot.value;
        return nullptr;
    }

    //! Stores `value` for `bytes`, which must be what the last find() was
    //! asked for and fit().
    Value &store(QByteArrayView bytes, Value value)
    {
        Q_ASSERT(fits(bytes.size()));
        Slot &slot = m_slots[m_hash & (Slots - 1)];
        slot.length = -1; // in case an assignment below throws
        slot.key.assign(bytes);
        slot.value = std::move(value);
        slot.hash = m_hash;
        slot.length = bytes.size();
        return slot.value;
    }

private:
    struct InlineKey
    {
        char bytes[InlineBytes];
        const char *data() const noexcept { return bytes; }
        void assign(QByteArrayView b) noexcept
        {
            if (!b.isEmpty()) // an empty view may have no data at all
                std::memcpy(bytes, b.data(), size_t(b.size()));
        }
    };
    struct HeapKey
    {
        QByteArray bytes;
        const char *data() const noexcept { return bytes.constData(); }
        void assign(QByteArrayView b) { bytes = b.toByteArray(); }
    };
    struct Slot
    {
        qsizetype length = -1; // -1: empty
        quint64 hash = 0;
        std::conditional_t<(MaxKeyBytes <= InlineBytes), InlineKey, HeapKey> key;
        Value value{};
    };
    std::array<Slot, Slots> m_slots;
    quint64 m_hash = 0;
};

// ---- interned keys ----

//! The longest key the pool holds, in characters.
constexpr qsizetype MaxInternedKeyLength = 40;

//! Interns a key the library knows (invariant 3): answers a QString over
//! immortal characters. Keys that are not ASCII, longer than
//! MaxInternedKeyLength, or past the pool's bound are answered as given.
ZT_EXPORT QString internKey(const QString &key);

//! The interned key for `n` Latin-1 bytes at `chars`, or a null QString when
//! no such key was interned. Never adds: safe on text from another process.
ZT_EXPORT QString findInternedKey(const char *chars, qsizetype n);

// ---- class serials ----

//! A number no other call answers in this process (invariant 2); never 0.
ZT_EXPORT quint64 newSerial() noexcept;

// ---- per-thread storage ----

//! The calling thread's T, made on first use and destroyed when the thread
//! ends. Each T names one object per thread, so give every use a type of its
//! own. A caller that needs the object several times asks once and keeps the
//! reference: the compiler cannot merge thread-local accesses across calls,
//! and with the default TLS model each access is a call.
template<typename T> T &perThread()
{
    static thread_local T value ZT_TLS_MODEL;
    return value;
}

} // namespace zt::fastpath
