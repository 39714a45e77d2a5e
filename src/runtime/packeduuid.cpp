#include "runtime/packeduuid.h"

#include <QHashFunctions>

#include <array>

namespace zt {

namespace {

constexpr qsizetype TextLength = 36;

// Where the 32 digits stand in the text; the dashes take the other places.
constexpr std::array<quint8, 32> DigitPlaces = [] {
    std::array<quint8, 32> places{};
    int n = 0;
    for (int i = 0; i < TextLength; ++i)
        if (i != 8 && i != 13 && i != 18 && i != 23)
            places[n++] = quint8(i);
    return places;
}();

// Per ASCII character: the digit's value in the low four bits, UpperLetter or
// LowerLetter for a letter, NotDigit for anything else.
enum : quint8
{
    UpperLetter = 0x10,
    LowerLetter = 0x20,
    NotDigit = 0x80
};
constexpr std::array<quint8, 128> DigitTable = [] {
    std::array<quint8, 128> table{};
    for (auto &entry : table)
        entry = NotDigit;
    for (int c = '0'; c <= '9'; ++c)
        table[c] = quint8(c - '0');
    for (int c = 'A'; c <= 'F'; ++c)
        table[c] = quint8(c - 'A' + 10) | UpperLetter;
    for (int c = 'a'; c <= 'f'; ++c)
        table[c] = quint8(c - 'a' + 10) | LowerLetter;
    return table;
}();

// The bits of UUID text and whether its letters are lower case; false for
// any other text. Text without letters counts as upper case: it prints the
// same either way.
bool parse(QStringView text, quint64 &high, quint64 &low, bool &lower)
{
    if (text.size() != TextLength)
        return false;
    const char16_t *c = text.utf16();
    if (c[8] != u'-' || c[13] != u'-' || c[18] != u'-' || c[23] != u'-')
        return false;
    quint8 seen = 0;
    quint64 words[2] = {0, 0};
    for (int n = 0; n < 32; ++n) {
        const char16_t ch = c[DigitPlaces[n]];
        const quint8 digit = ch < 128 ? DigitTable[ch] : quint8(NotDigit);
        seen |= digit;
        words[n >> 4] = (words[n >> 4] << 4) | (digit & 0x0F);
    }
    if ((seen & NotDigit) || (seen & (UpperLetter | LowerLetter)) == (UpperLetter | LowerLetter))
        return false;
    high = words[0];
    low = words[1];
    lower = seen & LowerLetter;
    return true;
}

} // namespace

PackedUUID::PackedUUID(const QString &text)
{
    if (!pack(text))
        m_value = text; // shares the characters
}

bool PackedUUID::pack(QStringView text)
{
    quint64 high, low;
    bool lower;
    if (!parse(text, high, low, lower))
        return false;
    if (lower)
        m_value = Lower{{high, low}};
    else
        m_value = Upper{{high, low}};
    return true;
}

const PackedUUID::Bits &PackedUUID::bits() const
{
    if (const Lower *lower = std::get_if<Lower>(&m_value))
        return *lower;
    return std::get<Upper>(m_value);
}

PackedUUID PackedUUID::fromBits(quint64 high, quint64 low)
{
    PackedUUID uuid;
    uuid.m_value = Upper{{high, low}};
    return uuid;
}

QString PackedUUID::toString() const
{
    if (const QString *text = std::get_if<QString>(&m_value))
        return *text;
    const Bits &packed = bits();
    const char16_t *digits =
        std::holds_alternative<Lower>(m_value) ? u"0123456789abcdef" : u"0123456789ABCDEF";
    QString out(TextLength, Qt::Uninitialized);
    char16_t *p = reinterpret_cast<char16_t *>(out.data());
    p[8] = p[13] = p[18] = p[23] = u'-';
    for (int n = 0; n < 16; ++n) {
        p[DigitPlaces[n]] = digits[(packed.high >> (60 - 4 * n)) & 0xF];
        p[DigitPlaces[n + 16]] = digits[(packed.low >> (60 - 4 * n)) & 0xF];
    }
    return out;
}

bool PackedUUID::isNull() const
{
    const QString *text = std::get_if<QString>(&m_value);
    return text && text->isNull();
}

bool PackedUUID::isEmpty() const
{
    const QString *text = std::get_if<QString>(&m_value);
    return text && text->isEmpty();
}

size_t qHash(const PackedUUID &uuid, size_t salt) noexcept
{
    if (const QString *text = std::get_if<QString>(&uuid.m_value))
        return qHash(*text, salt);
    const PackedUUID::Bits &bits = uuid.bits();
    // Keyed by the table's random salt: a peer that picks its UUIDs cannot
    // aim them at one bucket.
    return qHashMulti(salt, bits.high, bits.low, uuid.m_value.index());
}

} // namespace zt
