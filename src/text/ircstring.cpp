#include "text/ircstring.h"

#include "runtime/exception.h"
#include "runtime/format.h"

#include <QByteArray>
#include <QtAlgorithms>

#include <cerrno>
#include <pwd.h>
#include <unistd.h>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace irc {

namespace {

constexpr qsizetype ClassicNickLength = 9;

bool isPrivilegeMark(char16_t c)
{
    switch (c) {
    case u'*':
    case u'@':
    case u'+':
    case u'&':
    case u'%':
    case u'!':
    case u'~':
    case u' ':
        return true;
    default:
        return false;
    }
}

bool startsWithAny(QStringView text, QStringView marks)
{
    return !text.isEmpty() && marks.contains(text.front());
}

QString lookUpLoginName()
{
    const uid_t uid = getuid();
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    if (size <= 0)
        size = 16384;
    std::vector<char> buffer(static_cast<size_t>(size));
    passwd entry{};
    passwd *found = nullptr;
    // ERANGE: the entry is larger than the suggested size; grow a few times.
    for (int attempt = 0; attempt < 4; ++attempt) {
        const int rc = getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
        if (rc != ERANGE)
            break;
        buffer.resize(buffer.size() * 4);
    }
    if (found && found->pw_name && *found->pw_name)
        return QString::fromLocal8Bit(found->pw_name);
    for (const char *variable : {"USER", "LOGNAME"}) {
        const QByteArray value = qgetenv(variable);
        if (!value.isEmpty())
            return QString::fromLocal8Bit(value);
    }
    // No passwd entry and no environment (a bare container): the numeric id
    // is still a valid, stable nickname fallback.
    return QString::number(uid);
}

} // namespace

QString stringByRemovingPrivileges(QStringView nick)
{
    qsizetype begin = 0;
    qsizetype end = nick.size();
    while (begin < end && isPrivilegeMark(nick[begin].unicode()))
        ++begin;
    while (end > begin && isPrivilegeMark(nick[end - 1].unicode()))
        --end;
    return nick.sliced(begin, end - begin).toString();
}

void removeUnderscores(QString &nick)
{
    qsizetype length = nick.size();
    while (length > 1 && nick.at(length - 1) == u'_')
        --length;
    nick.truncate(length);
}

QString loginName()
{
    static const QString name = lookUpLoginName();
    return name;
}

QString alternativeNick(QStringView nick, QStringView fallback)
{
    if (nick.size() < 2)
        return fallback.toString();

    if (nick.size() >= ClassicNickLength)
        return nick.first(nick.size() - 1).toString();

    QString next = nick.toString();
    if (nick.endsWith(u'_')) {
        // "nick-_" → "nick--": the underscores go and one more dash comes.
        // (A nick ending in '_' cannot end in '-' as well, so the dash is
        // always the character to add.)
        removeUnderscores(next);
        if (next.size() < 2)
            return fallback.toString();
        next.append(u'-');
        return next;
    }
    next.append(u'_');
    return next;
}

QString alternativeNick(QStringView nick)
{
    return alternativeNick(nick, loginName());
}

QString mnemonic(QStringView text)
{
    const qsizetype space = text.indexOf(u' ');
    return (space < 0 ? text : text.first(space)).toString().toLower();
}

bool isLocal(QStringView host)
{
    return host == u"127.0.0.1" || host.compare(u"localhost", Qt::CaseInsensitive) == 0;
}

bool isRestrictedChannelName(QStringView name)
{
    return startsWithAny(name, u"#!&~");
}

bool isChannelName(QStringView name)
{
    return startsWithAny(name, u"#!&~+");
}

bool isStatusedChannelName(QStringView name)
{
    return name.size() >= 2 && startsWithAny(name, u"@+%") && isRestrictedChannelName(name.sliced(1));
}

QString channelName(QStringView name)
{
    if (name.isEmpty() || isChannelName(name))
        return name.toString();
    QString result;
    result.reserve(name.size() + 1);
    result.append(u'#');
    result.append(name);
    return result;
}

QString channelNameAsLink(QStringView name)
{
    QString channel = channelName(name);
    if (channel.size() < 2 || channel.indexOf(u'#', 1) < 0)
        return channel;
    QString result;
    result.reserve(channel.size() + 8);
    result.append(channel.front());
    for (qsizetype i = 1; i < channel.size(); ++i) {
        if (channel.at(i) == u'#')
            result.append(u"%23");
        else
            result.append(channel.at(i));
    }
    return result;
}

bool isCommand(QStringView line)
{
    return line.startsWith(u'/');
}

QString formattedCommand(QStringView line)
{
    const qsizetype space = line.indexOf(u' ');
    QStringView word = space < 0 ? line : line.first(space);
    if (isCommand(line))
        word = word.sliced(1);
    QString result = word.toString().toUpper();
    if (space >= 0)
        result.append(line.sliced(space));
    return result;
}

QString maskToNick(QStringView mask)
{
    if (isChannelName(mask))
        return mask.toString();
    const qsizetype bang = mask.indexOf(u'!');
    return (bang < 0 ? mask : mask.first(bang)).toString();
}

QString maskToUser(QStringView mask)
{
    const qsizetype at = mask.indexOf(u'@');
    if (at < 0)
        return QString();
    const qsizetype start = (isChannelName(mask) ? mask.size() : [&] {
        const qsizetype bang = mask.indexOf(u'!');
        return bang < 0 ? mask.size() : bang;
    }()) + 1;
    if (start > at) {
        zt::Exception::raise(QString::fromUtf16(zt::exceptions::RangeError),
                             zt::format(u"maskToUser: Range {%d, %d} out of bounds; string length %d", start,
                                        at - start, mask.size()));
    }
    return mask.sliced(start, at - start).toString();
}

QString maskToHost(QStringView mask)
{
    const qsizetype at = mask.indexOf(u'@');
    return at < 0 ? QString() : mask.sliced(at + 1).toString();
}

namespace {

// The HTML replacement for the text at `i`, or a null view; `consumed` says
// how many code units it replaces.
inline QStringView htmlReplacement(const QChar *s, qsizetype size, qsizetype i, qsizetype &consumed)
{
    consumed = 1;
    switch (s[i].unicode()) {
    case u'&':
        return u"&amp;";
    case u'<':
        return u"&lt;";
    case u'>':
        return u"&gt;";
    case u' ':
        if (i + 1 < size && s[i + 1] == u' ') {
            consumed = 2;
            return u" &nbsp;";
        }
        return {};
    default:
        return {};
    }
}

// Index of the first code unit that escaping replaces, or `size`. Most
// chat lines have none, so this scan decides the cost of escaping them.
qsizetype firstHtmlReplacement(const QChar *s, qsizetype size)
{
    qsizetype i = 0;
#if defined(__SSE2__)
    // Eight units at a time: '&', '<', '>', or a space followed by a space
    // (the second load is the same text one unit further on).
    const __m128i amp = _mm_set1_epi16(u'&');
    const __m128i lt = _mm_set1_epi16(u'<');
    const __m128i gt = _mm_set1_epi16(u'>');
    const __m128i space = _mm_set1_epi16(u' ');
    for (; i + 9 <= size; i += 8) {
        const __m128i here = _mm_loadu_si128(reinterpret_cast<const __m128i *>(s + i));
        const __m128i next = _mm_loadu_si128(reinterpret_cast<const __m128i *>(s + i + 1));
        const __m128i hit = _mm_or_si128(
            _mm_or_si128(_mm_cmpeq_epi16(here, amp), _mm_cmpeq_epi16(here, lt)),
            _mm_or_si128(_mm_cmpeq_epi16(here, gt),
                         _mm_and_si128(_mm_cmpeq_epi16(here, space), _mm_cmpeq_epi16(next, space))));
        const int mask = _mm_movemask_epi8(hit);
        if (mask != 0)
            return i + qCountTrailingZeroBits(quint32(mask)) / 2;
    }
#endif
    constexpr quint64 candidates = (1ull << '&') | (1ull << '<') | (1ull << '>') | (1ull << ' ');
    for (; i < size; ++i) {
        const char16_t c = s[i].unicode();
        if (c < 64 && ((candidates >> c) & 1u) && (c != u' ' || (i + 1 < size && s[i + 1] == u' ')))
            return i;
    }
    return size;
}

// One pass with the same result as the four replacements in sequence: no
// replacement creates or removes a character that a later one looks for.
// Text between replacements is copied as whole runs.
QString escapeFrom(const QChar *s, qsizetype size, qsizetype first)
{
    QString result;
    result.reserve(size + size / 16 + 16);
    qsizetype run = 0;
    for (qsizetype i = first; i < size; ++i) {
        if (s[i].unicode() > u'>') // above every character that is replaced
            continue;
        qsizetype consumed;
        const QStringView replacement = htmlReplacement(s, size, i, consumed);
        if (replacement.isNull())
            continue;
        result.append(QStringView(s + run, i - run));
        result.append(replacement);
        i += consumed - 1;
        run = i + 1;
    }
    result.append(QStringView(s + run, size - run));
    return result;
}

} // namespace

QString escapedString(QStringView text)
{
    const qsizetype first = firstHtmlReplacement(text.data(), text.size());
    if (first == text.size())
        return text.toString();
    return escapeFrom(text.data(), text.size(), first);
}

QString escapedString(const QString &text)
{
    const qsizetype first = firstHtmlReplacement(text.constData(), text.size());
    if (first == text.size())
        return text;
    return escapeFrom(text.constData(), text.size(), first);
}

QString javascriptString(QStringView text)
{
    const QChar *s = text.data();
    const qsizetype size = text.size();
    QString result;
    result.reserve(size + 8);
    qsizetype run = 0;
    for (qsizetype i = 0; i < size; ++i) {
        const char16_t c = s[i].unicode();
        if (c > u'\'') // above every character that is replaced or removed
            continue;
        QStringView replacement;
        switch (c) {
        case u'"':
            replacement = u"\\\"";
            break;
        case u'\'':
            replacement = u"\\'";
            break;
        case u'\r':
        case u'\n':
            replacement = u"";
            break;
        default:
            continue;
        }
        result.append(QStringView(s + run, i - run));
        result.append(replacement);
        run = i + 1;
    }
    result.append(QStringView(s + run, size - run));
    return result;
}

} // namespace irc
