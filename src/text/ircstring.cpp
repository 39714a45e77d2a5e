#include "text/ircstring.h"

#include "runtime/exception.h"
#include "runtime/format.h"

#include <QByteArray>

#include <cerrno>
#include <pwd.h>
#include <unistd.h>
#include <vector>

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

QString escapedString(QStringView text)
{
    // One pass with the same result as the four replacements in sequence: no
    // replacement creates or removes a character that a later one looks for.
    QString result;
    result.reserve(text.size() + text.size() / 8 + 8);
    const qsizetype size = text.size();
    for (qsizetype i = 0; i < size; ++i) {
        const QChar c = text[i];
        switch (c.unicode()) {
        case u'&':
            result.append(u"&amp;");
            break;
        case u' ':
            if (i + 1 < size && text[i + 1] == u' ') {
                result.append(u" &nbsp;");
                ++i;
            } else {
                result.append(c);
            }
            break;
        case u'<':
            result.append(u"&lt;");
            break;
        case u'>':
            result.append(u"&gt;");
            break;
        default:
            result.append(c);
        }
    }
    return result;
}

QString javascriptString(QStringView text)
{
    QString result;
    result.reserve(text.size() + 8);
    for (const QChar c : text) {
        switch (c.unicode()) {
        case u'"':
            result.append(u"\\\"");
            break;
        case u'\'':
            result.append(u"\\'");
            break;
        case u'\r':
        case u'\n':
            break;
        default:
            result.append(c);
        }
    }
    return result;
}

} // namespace irc
