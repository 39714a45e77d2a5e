#include "runtime/dictionary.h"
#include "runtime/dictionary_p.h"

#include <algorithm>
#include <memory>
#include <new>

namespace zt {

// One block: this header, then `size` entries.
struct Dictionary::Data
{
    QAtomicInt ref;
    qsizetype size;

    Entry *entries() noexcept { return reinterpret_cast<Entry *>(this + 1); }

    static Data *allocate(qsizetype size)
    {
        void *block = ::operator new(sizeof(Data) + size_t(size) * sizeof(Entry));
        Data *d = new (block) Data{QAtomicInt(1), size};
        std::uninitialized_default_construct_n(d->entries(), size);
        return d;
    }

    static void release(Data *d) noexcept
    {
        if (d && !d->ref.deref()) {
            std::destroy_n(d->entries(), d->size);
            d->~Data();
            ::operator delete(d);
        }
    }
};

static_assert(sizeof(Dictionary::Entry) % alignof(Dictionary::Entry) == 0);
static_assert(alignof(Dictionary::Entry) <= alignof(std::max_align_t));

namespace {

const bool convertersRegistered = [] {
    QMetaType::registerConverter<Dictionary, QVariantMap>(&Dictionary::toMap);
    QMetaType::registerConverter<QVariantMap, Dictionary>(
        [](const QVariantMap &map) { return Dictionary(map); });
    return true;
}();

} // namespace

Dictionary::Dictionary(const QVariantMap &map)
{
    if (map.isEmpty())
        return;
    d = Data::allocate(map.size());
    Entry *e = d->entries();
    for (auto it = map.cbegin(); it != map.cend(); ++it, ++e) {
        e->key = it.key();
        e->value = it.value();
    }
}

Dictionary::Dictionary(const Dictionary &other) noexcept : d(other.d)
{
    if (d)
        d->ref.ref();
}

Dictionary &Dictionary::operator=(const Dictionary &other) noexcept
{
    Dictionary copy(other);
    std::swap(d, copy.d);
    return *this;
}

Dictionary::~Dictionary()
{
    Data::release(d);
}

qsizetype Dictionary::size() const noexcept
{
    return d ? d->size : 0;
}

const Dictionary::Entry *Dictionary::begin() const noexcept
{
    return d ? d->entries() : nullptr;
}

const QVariant *Dictionary::find(QStringView key) const noexcept
{
    const Entry *first = begin();
    const Entry *last = end();
    const Entry *it = std::lower_bound(first, last, key,
                                       [](const Entry &e, QStringView k) { return QStringView(e.key) < k; });
    return it != last && QStringView(it->key) == key ? &it->value : nullptr;
}

QVariant Dictionary::value(QStringView key) const
{
    const QVariant *v = find(key);
    return v ? *v : QVariant();
}

QVariantMap Dictionary::toMap() const
{
    std::map<QString, QVariant> entries;
    for (const Entry &e : *this)
        entries.emplace_hint(entries.end(), e.key, e.value);
    return QVariantMap(std::move(entries));
}

bool operator==(const Dictionary &a, const Dictionary &b) noexcept
{
    return a.d == b.d || std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto &x, const auto &y) {
               return x.key == y.key && x.value == y.value;
           });
}

Dictionary dictionaryFrom(const QVariant &value)
{
    if (value.metaType() == QMetaType::fromType<Dictionary>())
        return *static_cast<const Dictionary *>(value.constData());
    if (value.typeId() == QMetaType::QVariantMap)
        return Dictionary(*static_cast<const QVariantMap *>(value.constData()));
    return {};
}

qsizetype entryCount(const QVariant &dictionary)
{
    if (dictionary.metaType() == QMetaType::fromType<Dictionary>())
        return static_cast<const Dictionary *>(dictionary.constData())->size();
    if (dictionary.typeId() == QMetaType::QVariantMap)
        return static_cast<const QVariantMap *>(dictionary.constData())->size();
    return 0;
}

QVariant entryValue(const QVariant &dictionary, const QString &key)
{
    if (dictionary.metaType() == QMetaType::fromType<Dictionary>())
        return static_cast<const Dictionary *>(dictionary.constData())->value(key);
    if (dictionary.typeId() == QMetaType::QVariantMap)
        return static_cast<const QVariantMap *>(dictionary.constData())->value(key);
    return {};
}

Dictionary DictionaryBuilder::withSize(qsizetype size)
{
    Dictionary dict;
    if (size > 0)
        dict.d = Dictionary::Data::allocate(size);
    return dict;
}

Dictionary::Entry *DictionaryBuilder::entries(Dictionary &dict) noexcept
{
    return dict.d ? dict.d->entries() : nullptr;
}

} // namespace zt
