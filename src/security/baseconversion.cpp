#include "security/baseconversion.h"

#include <algorithm>
#include <array>

namespace vx {

namespace {

constexpr char Base32Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";

using Table = std::array<signed char, 128>;

constexpr Table base64Table()
{
    Table t{};
    t.fill(-1);
    const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (int i = 0; i < 64; ++i)
        t[size_t(alphabet[i])] = static_cast<signed char>(i);
    return t;
}

constexpr Table base32Table()
{
    Table t{};
    t.fill(-1);
    for (int i = 0; i < 32; ++i) {
        t[size_t(Base32Alphabet[i])] = static_cast<signed char>(i);
        if (Base32Alphabet[i] >= 'A' && Base32Alphabet[i] <= 'Z')
            t[size_t(Base32Alphabet[i] - 'A' + 'a')] = static_cast<signed char>(i);
    }
    return t;
}

constexpr Table Base64Values = base64Table();
constexpr Table Base32Values = base32Table();

bool isSpace(char16_t c)
{
    return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n' || c == u'\f' || c == u'\v';
}

// Decodes `bits` bits per character in groups of `group` characters; `valid`
// tells which character counts modulo the group a whole number of bytes can
// produce. See baseconversion.h for what is refused.
QByteArray decode(QStringView text, const Table &values, int bits, int group,
                  std::initializer_list<int> valid)
{
    QByteArray out;
    out.reserve(text.size() * bits / 8 + 1);
    quint32 acc = 0;
    int pending = 0;
    qsizetype chars = 0;
    qsizetype padding = 0;
    for (const QChar qc : text) {
        const char16_t c = qc.unicode();
        if (isSpace(c))
            continue;
        if (c == u'=') {
            ++padding;
            continue;
        }
        if (padding || c >= 128 || values[c] < 0)
            return {};
        acc = (acc << bits) | quint32(values[c]);
        pending += bits;
        ++chars;
        if (pending >= 8) {
            pending -= 8;
            out.append(char(acc >> pending));
            acc &= (1u << pending) - 1;
        }
    }
    const int rest = int(chars % group);
    if (std::find(valid.begin(), valid.end(), rest) == valid.end())
        return {};
    if (padding && (rest == 0 || (chars + padding) % group != 0))
        return {};
    if (acc != 0)
        return {};
    return out;
}

} // namespace

QString base64String(const QByteArray &data)
{
    return QString::fromLatin1(data.toBase64());
}

QByteArray dataWithBase64String(QStringView text)
{
    return decode(text, Base64Values, 6, 4, {0, 2, 3});
}

QString base32String(const QByteArray &data)
{
    QString out;
    out.reserve((data.size() * 8 + 4) / 5);
    quint32 acc = 0;
    int pending = 0;
    for (const char byte : data) {
        acc = (acc << 8) | quint8(byte);
        pending += 8;
        while (pending >= 5) {
            pending -= 5;
            out.append(QLatin1Char(Base32Alphabet[(acc >> pending) & 31]));
        }
        acc &= (1u << pending) - 1;
    }
    if (pending)
        out.append(QLatin1Char(Base32Alphabet[(acc << (5 - pending)) & 31]));
    return out;
}

QByteArray dataWithBase32String(QStringView text)
{
    return decode(text, Base32Values, 5, 8, {0, 2, 4, 5, 7});
}

QString hexval(const QByteArray &data)
{
    return QString::fromLatin1(data.toHex());
}

} // namespace vx
