#pragma once
// Small, stateless operations on IRC nicknames, channel names, host masks and
// typed input lines. Every function is a pure function of its first argument;
// lengths, indices and comparisons are on UTF-16 code units and exact
// (case-sensitive) unless a function says otherwise.

#include "zt_export.h"

#include <QString>
#include <QStringView>

namespace irc {

// --- Nicks and privileges ---------------------------------------------------

//! The text with every leading and trailing privilege mark removed: the set
//! is "*@+&%!~" plus the space character. Marks inside the name stay, so
//! "@ni@ck " gives "ni@ck".
ZT_EXPORT QString stringByRemovingPrivileges(QStringView nick);

//! Removes trailing '_' one at a time while the string ends with '_' and is
//! longer than one code unit; a string of underscores keeps exactly one.
ZT_EXPORT void removeUnderscores(QString &nick);

//! The login name of the user running the process: the password database's
//! entry for the real user id, else $USER, else $LOGNAME, else the numeric
//! user id (never empty). Looked up once per process.
ZT_EXPORT QString loginName();

//! The next nickname to try after the server refused `nick`:
//!   "nick" → "nick_" → "nick-" → "nick-_" → "nick--" → …
//! one character longer every second step until nine code units (the classic
//! IRC nick length); a nick of nine or more loses its last character, so the
//! sequence ends alternating between an eight- and a nine-unit form. A nick
//! shorter than two units, or one that shrinks below two after dropping its
//! trailing underscores, gives `fallback`.
ZT_EXPORT QString alternativeNick(QStringView nick, QStringView fallback);

//! Same, falling back to loginName().
ZT_EXPORT QString alternativeNick(QStringView nick);

//! The first space-separated word, lower-cased: the whole text when it has no
//! space, an empty string when it starts with one.
ZT_EXPORT QString mnemonic(QStringView text);

//! True for "127.0.0.1" exactly and for "localhost" in any letter case.
ZT_EXPORT bool isLocal(QStringView host);

// --- Channel names ----------------------------------------------------------

//! Begins with '#', '!', '&' or '~'.
ZT_EXPORT bool isRestrictedChannelName(QStringView name);

//! A restricted channel name, or one that begins with '+'.
ZT_EXPORT bool isChannelName(QStringView name);

//! A channel addressed to a status group, such as "@#chan" (only the channel's
//! operators): one of '@', '+', '%' followed by a restricted channel name.
//! "@+chan" and a bare "@" are not.
ZT_EXPORT bool isStatusedChannelName(QStringView name);

//! Empty for empty text, the text itself when it already is a channel name,
//! otherwise the text behind a '#'.
ZT_EXPORT QString channelName(QStringView name);

//! channelName() in the form used inside a link target: every '#' after the
//! first code unit becomes "%23" ("#a#b" → "#a%23b").
ZT_EXPORT QString channelNameAsLink(QStringView name);

// --- Input lines ------------------------------------------------------------

//! Begins with '/'.
ZT_EXPORT bool isCommand(QStringView line);

//! The line with its first space-separated word upper-cased, without its
//! leading '/' when the line is a command; the rest of the line, spacing
//! included, is untouched ("/msg nick hi" → "MSG nick hi").
ZT_EXPORT QString formattedCommand(QStringView line);

// --- Host masks (nick!user@host) --------------------------------------------

//! A channel name unchanged; otherwise the part before the first '!', or the
//! whole text when there is none.
ZT_EXPORT QString maskToNick(QStringView mask);

//! Empty when the text holds no '@'; otherwise the part between the end of
//! maskToNick() plus one (just after the '!') and the first '@'.
//! Callers pass full masks only: when no '!' comes before the first '@' (or
//! the text is a channel name holding an '@') the range is inverted and the
//! call raises "NSRangeException".
ZT_EXPORT QString maskToUser(QStringView mask);

//! The part after the first '@', or an empty string when there is none.
ZT_EXPORT QString maskToHost(QStringView mask);

// --- Escaping ---------------------------------------------------------------

//! The text made safe for an HTML page. The result equals these replacements
//! done one after the other over the whole text: "&" → "&amp;", each pair of
//! spaces (left to right, not overlapping) → " &nbsp;", "<" → "&lt;",
//! ">" → "&gt;". Quotes are left alone.
ZT_EXPORT QString escapedString(QStringView text);
//! Same; text with nothing to replace is returned as is (shared, no copy).
ZT_EXPORT QString escapedString(const QString &text);

//! The text fit to stand inside a quoted script literal: '"' → '\"',
//! '\'' → "\'", carriage returns and line feeds removed. Backslashes already
//! in the text are deliberately not doubled; callers rely on that output.
ZT_EXPORT QString javascriptString(QStringView text);

} // namespace irc
