#include "runtime/packeduuid.h"

#include <QHashFunctions>

namespace zt {

namespace {

constexpr qsizetype TextLength = 36;

bool isDash(qsizetype i)
{
    return i == 8 || i == 13 || i == 18 || i == 23;
}

// The bits of UUID text and whether its letters are lower case; false for
// any other text. Text without letters counts as upper case: it prints the
// same either way.
bool parse(QStringView text, quint64 &high, quint64 &low, bool &lower)
{
    if (text.size() != TextLength)
        return false;
    bool sawUpper = false, sawLower = false;
    quint64 words[2] = {0, 0};
    int nibble = 0;
    for (qsizetype i = 0; i < TextLength; ++i) {
        const char16_t c = text[i].unicode();
        if (isDash(i)) {
            if (c != u'-')
                return false;
            continue;
        }
        unsigned value;
        if (c >= u'0' && c <= u'9') {
            value = c - u'0';
        } else if (c >= u'A' && c <= u'F') {
            value = c - u'A' + 10;
            sawUpper = true;
        } else if (c >= u'a' && c <= u'f') {
            value = c - u'a' + 10;
            sawLower = true;
        } else {
            return false;
        }
        quint64 &word = words[nibble / 16];
        word = (word << 4) | value;
        ++nibble;
    }
    if (sawUpper && sawLower)
        return false;
    high = words[0];
    low = words[1];
    lower = sawLower;
    return true;
}

} // namespace

PackedUUID::PackedUUID(QStringView text)
{
    if (!pack(text))
        m_value = text.toString();
}

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

QString PackedUUID::toString() const
{
    if (const QString *text = std::get_if<QString>(&m_value))
        return *text;
    const Bits &packed = bits();
    const char16_t *digits =
        std::holds_alternative<Lower>(m_value) ? u"0123456789abcdef" : u"0123456789ABCDEF";
    QString out(TextLength, Qt::Uninitialized);
    char16_t *p = reinterpret_cast<char16_t *>(out.data());
    int nibble = 0;
    for (qsizetype i = 0; i < TextLength; ++i) {
        if (isDash(i)) {
            p[i] = u'-';
            continue;
        }
        const quint64 word = nibble < 16 ? packed.high : packed.low;
        p[i] = digits[(word >> (60 - 4 * (nibble % 16))) & 0xF];
        ++nibble;
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

size_t qHash(const PackedUUID &uuid, size_t seed) noexcept
{
    if (const QString *text = std::get_if<QString>(&uuid.m_value))
        return qHash(*text, seed);
    const PackedUUID::Bits &bits = uuid.bits();
    // Keyed by the table's seed: a peer that picks its UUIDs cannot aim them
    // at one bucket.
    return qHashMulti(seed, bits.high, bits.low, uuid.m_value.index());
}

} // namespace zt
