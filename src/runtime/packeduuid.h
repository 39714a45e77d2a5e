#pragma once
// An object's UUID as it is kept in memory. UUID text, 8-4-4-4-12 hex digits
// in one case, is held as its 128 bits: 32 bytes inline instead of a 96-byte
// string on the heap, which for a channel of 50,000 people and their
// identities is over 9 MiB. Any other text (a fixed singleton name, a
// peer's odd choice) is kept as it is. The text comes back exactly as it
// went in, and equal texts give equal values.

#include "zt_export.h"

#include <QString>

#include <variant>

namespace zt {

class ZT_EXPORT PackedUUID
{
public:
    PackedUUID() = default;
    //! Keeps a null text null and an empty one empty.
    explicit PackedUUID(const QString &text);

    //! Upper-case text of these bits, most significant digit first.
    static PackedUUID fromBits(quint64 high, quint64 low);

    QString toString() const;
    bool isNull() const;
    bool isEmpty() const;
    //! Whether the text is held as bits (for tests and size checks).
    bool isPacked() const { return m_value.index() != 0; }

    friend bool operator==(const PackedUUID &a, const PackedUUID &b) { return a.m_value == b.m_value; }
    friend bool operator!=(const PackedUUID &a, const PackedUUID &b) { return !(a == b); }
    friend ZT_EXPORT size_t qHash(const PackedUUID &uuid, size_t salt) noexcept;

private:
    struct Bits
    {
        quint64 high = 0, low = 0;
        friend bool operator==(const Bits &, const Bits &) = default;
    };
    struct Upper : Bits
    {
    };
    struct Lower : Bits
    {
    };
    bool pack(QStringView text);
    const Bits &bits() const; // of a packed value
    std::variant<QString, Upper, Lower> m_value;
};

} // namespace zt
