#pragma once
// An immutable dictionary with string keys: what the property-list reader
// produces. The entries live in one block, sorted by key in QString order (the
// order a QVariantMap iterates in), and the block is shared between copies, so
// decoding a dictionary costs one allocation instead of one per entry.
//
// A value holding a Dictionary is a dictionary like one holding a
// QVariantMap: kindOf() answers ValueKind::Dictionary for both, valuesEqual()
// and describe() treat them alike, and QVariant::toMap() converts.

#include "zt_export.h"

#include <QMetaType>
#include <QString>
#include <QVariant>

namespace zt {

class ZT_EXPORT Dictionary
{
public:
    struct Entry
    {
        QString key;
        QVariant value;
    };

    Dictionary() noexcept = default;
    explicit Dictionary(const QVariantMap &map);
    Dictionary(const Dictionary &other) noexcept;
    Dictionary(Dictionary &&other) noexcept : d(std::exchange(other.d, nullptr)) {}
    Dictionary &operator=(const Dictionary &other) noexcept;
    Dictionary &operator=(Dictionary &&other) noexcept
    {
        std::swap(d, other.d);
        return *this;
    }
    ~Dictionary();

    qsizetype size() const noexcept;
    bool isEmpty() const noexcept { return size() == 0; }
    const Entry *begin() const noexcept;
    const Entry *end() const noexcept { return begin() + size(); }

    //! The value for `key`, or null when there is none.
    const QVariant *find(QStringView key) const noexcept;
    bool contains(QStringView key) const noexcept { return find(key) != nullptr; }
    //! The value for `key`, or nil.
    QVariant value(QStringView key) const;

    QVariantMap toMap() const;

    //! Same keys, and values equal by QVariant's own comparison.
    friend ZT_EXPORT bool operator==(const Dictionary &a, const Dictionary &b) noexcept;

private:
    friend struct DictionaryBuilder;
    struct Data;
    Data *d = nullptr;
};

} // namespace zt

Q_DECLARE_TYPEINFO(zt::Dictionary, Q_RELOCATABLE_TYPE);
Q_DECLARE_METATYPE(zt::Dictionary)

namespace zt {

//! A dictionary value (a QVariantMap or a Dictionary) as a Dictionary, which
//! for a Dictionary is a shared copy. Other values answer an empty one.
ZT_EXPORT Dictionary dictionaryFrom(const QVariant &value);

//! Calls `f(key, value)` for each entry of a dictionary value (a QVariantMap or
//! a Dictionary) in key order; other values have no entries.
template<typename F> void forEachEntry(const QVariant &dictionary, F &&f)
{
    if (dictionary.metaType() == QMetaType::fromType<Dictionary>()) {
        for (const Dictionary::Entry &e : *static_cast<const Dictionary *>(dictionary.constData()))
            f(e.key, e.value);
    } else if (dictionary.typeId() == QMetaType::QVariantMap) {
        const QVariantMap &map = *static_cast<const QVariantMap *>(dictionary.constData());
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            f(it.key(), it.value());
    }
}

//! The number of entries of a dictionary value; 0 for other values.
ZT_EXPORT qsizetype entryCount(const QVariant &dictionary);

//! The value for `key` in a dictionary value, or nil.
ZT_EXPORT QVariant entryValue(const QVariant &dictionary, const QString &key);

} // namespace zt
