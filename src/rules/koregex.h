#pragma once
// KORegex: a compiled regular expression over PCRE (the classic 8-bit API),
// always in UTF-8 mode, answering in the string's UTF-16 indices.
//
// Patterns are immutable once compiled and may be shared between threads;
// highlights and pseudo-person rules keep them as Ref<KORegex>.
//
// Positions reported by matches (KORegexMatch::rangeAtIndex) count one per
// UTF-8 sequence start in the subject: a character outside the Basic
// Multilingual Plane counts as one position although the string holds it as
// two code units, so ranges after such a character are short by one for each
// of them. Callers rely on that count as it stands. Ranges passed in
// (findInString with a range) are plain UTF-16 indices. Substitution and
// splitting cut the subject at its true positions.

#include "runtime/object.h"
#include "zt_export.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <limits>
#include <optional>

//! A location and a length in a string; the platform's range value.
struct KORange
{
    qsizetype location = 0;
    qsizetype length = 0;

    qsizetype end() const { return location + length; }
    friend bool operator==(const KORange &, const KORange &) = default;
};

//! The location of a range that designates nothing (a group that took no
//! part in a match).
inline constexpr qsizetype KONotFound = std::numeric_limits<qsizetype>::max();

//! "{location, length}", the platform's brace form of a range.
ZT_EXPORT QString KOStringFromRange(const KORange &range);

class KORegexMatch;
class KORegexMatchEnumerator;

class ZT_EXPORT KORegex : public zt::Object
{
    ZT_OBJECT(KORegex, zt::Object)

public:
    //! Bits of the option word of initWithPattern / regexWithPattern.
    enum Option : int
    {
        CaseInsensitive = 1, //!< letters match either case
        DotAll = 2,          //!< "." also matches line ends
        Extended = 4,        //!< white space and #-comments in the pattern are ignored
        Ungreedy = 8,        //!< quantifiers are lazy unless followed by "?"
        Multiline = 16,      //!< "^" and "$" match at every line
    };

    KORegex();
    ~KORegex() override;

    //! A compiled pattern, or null when the pattern does not compile (the
    //! compiler's message is not reported).
    static zt::Ref<KORegex> regexWithPattern(const QString &pattern, int options = 0);
    //! The patterns that compile, case-insensitively, in order; empty strings
    //! and patterns that do not compile are left out. Never fails.
    static QList<zt::Ref<KORegex>> regexWithPatterns(const QStringList &patterns);

    //! Two-phase construction. False when compilation fails; the object is
    //! then unusable and the caller drops it.
    bool initWithPattern(const QString &pattern, int options = 0);
    //! initWithPattern("").
    virtual bool init();

    //! @sel pattern
    QString pattern() const { return m_pattern; }
    //! Capture groups plus one (group 0 is the whole match).
    //! @sel groupCount
    int groupCount() const { return m_groupCount; }
    //! The compiled pattern (a `pcre *`); owned by this object.
    void *regex() const { return m_regex; }
    //! Same as regex().
    void *pcre() const { return m_regex; }
    //! The study data passed to every search (a `pcre_extra *`): the JIT
    //! compilation made at initialisation, or null. Owned by this object.
    void *extra() const { return m_extra; }
    //! Replaces the study data, taking ownership (released with
    //! pcre_free_study). Null makes searches run on the interpreter without
    //! study data. Not for patterns already shared between threads.
    void setExtra(void *extra);

    //! The first match within `range` (UTF-16 indices; the whole string when
    //! absent), or null. "$" does not match at the end of a range that ends
    //! before the string does; the text before the range stays visible to
    //! look-behind. Raises NSRangeException "range {l, n} out of bounds" when
    //! the range passes the end of the string.
    zt::Ref<KORegexMatch> findInString(const QString &string, std::optional<KORange> range = {}) const;
    //! Every match, in order (see KORegexMatchEnumerator).
    QList<zt::Ref<KORegexMatch>> findAllInString(const QString &string,
                                                 std::optional<KORange> range = {}) const;
    //! A lazy sequence of the matches.
    zt::Ref<KORegexMatchEnumerator> findEnumeratorInString(const QString &string,
                                                           std::optional<KORange> range = {}) const;

    //! The string with its first `limit` matches (every match when `limit` is
    //! 0 or negative) replaced by the template. In the template, "$n", "${n}"
    //! and "$&" insert numbered groups, "$name" and "${name}" named ones;
    //! "\u" and "\l" change the case of the next character, "\U" and "\L" of
    //! everything up to "\E"; a backslash before any other character inserts
    //! that character. Without braces, a number or name that the pattern lacks
    //! is shortened from its end ("$12" with one group is group 1 then "2").
    //! Raises NSInvalidArgumentException "no such backreference %d in
    //! pattern" or "no backreference named %@ in pattern", or
    //! NSRangeException "index %d out of bounds" for a braced number; a
    //! template is only checked once a match needs it.
    //! @sel replaceWithString:inString:limit:
    QString replaceWithString(const QString &templ, const QString &string, int limit = 0) const;

    //! The text between matches, each followed by the text of every group
    //! (from 1) that took part; then the rest of the string, even when empty.
    //! At most `limit` matches are used when `limit` is 1 or more.
    //! @sel splitString:limit:
    QStringList splitString(const QString &string, int limit = 0) const;

    //! "<KORegex: 0x…>[pattern: …]".
    QString description() const override;

private:
    // Single-argument forms for the selector table.
    //! @sel findInString:
    zt::Ref<KORegexMatch> findInStringSelector(const QString &string) const;
    //! @sel findAllInString:
    QList<zt::Ref<KORegexMatch>> findAllInStringSelector(const QString &string) const;
    //! @sel replaceWithString:inString:
    QString replaceSelector(const QString &templ, const QString &string) const;
    //! @sel splitString:
    QStringList splitSelector(const QString &string) const;
    void releaseCompiled();

    QString m_pattern;
    void *m_regex = nullptr;
    void *m_extra = nullptr;
    int m_groupCount = 0;
};
