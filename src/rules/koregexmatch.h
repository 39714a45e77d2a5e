#pragma once
// KORegexMatch: one match of a KORegex in a string; KORegexMatchEnumerator:
// the lazy sequence of successive matches.
//
// A match keeps the pattern, the subject and PCRE's offset vector (byte
// offsets into the subject's UTF-8 form). Ranges are converted on request,
// in the positions described in koregex.h; group text is cut from the
// subject at its true UTF-16 positions.

#include "rules/koregex.h"

#include <QVarLengthArray>
#include <memory>

namespace zt::koregex {
class SubjectText;
class MatchCursor;
} // namespace zt::koregex

class ZT_EXPORT KORegexMatch : public zt::Object
{
    ZT_OBJECT(KORegexMatch, zt::Object)

public:
    //! Copies an offset vector of regex->groupCount() * 3 integers, found in
    //! `string`. `subject` is its UTF-8 form, or null when the string is ASCII.
    KORegexMatch(zt::Ref<KORegex> regex, QString string,
                 std::shared_ptr<const zt::koregex::SubjectText> subject, const int *matchv);
    ~KORegexMatch() override;

    //! @sel regex
    zt::Ref<KORegex> regex() const { return m_regex; }
    //! The subject the match was found in.
    //! @sel string
    QString string() const { return m_string; }
    //! The number of groups, group 0 included (the pattern's groupCount).
    //! @sel count
    int count() const { return m_count; }
    //! PCRE's offset vector: start and end byte of each group (-1 for a group
    //! that took no part), then PCRE's work space.
    const int *matchv() const { return m_matchv.constData(); }

    //! The group's range, or {KONotFound, 0} when it took no part. Raises
    //! NSRangeException "index %d out of bounds" unless 0 <= index < count().
    KORange rangeAtIndex(int index) const;
    //! The group's text, or a null string when it took no part.
    //! @sel groupAtIndex:
    QString groupAtIndex(int index) const;
    KORange range() const { return rangeAtIndex(0); }
    //! @sel group
    QString group() const { return groupAtIndex(0); }
    //! The range of the named group; with several groups of that name (?J),
    //! the first that took part. Raises NSInvalidArgumentException "no group
    //! named %@" for a name the pattern lacks.
    KORange rangeNamed(const QString &name) const;
    //! @sel groupNamed:
    QString groupNamed(const QString &name) const;

    //! "<KORegexMatch: 0x…> {\n", a line "\t<index> {l, n} <text>\n" per
    //! group, then "}".
    QString description() const override;

private:
    void checkIndex(int index) const;
    int groupNumberForName(const QString &name) const;

    zt::Ref<KORegex> m_regex;
    QString m_string;
    std::shared_ptr<const zt::koregex::SubjectText> m_subject; // null: ASCII, offsets are indices
    QVarLengthArray<int, 15> m_matchv; // five groups without an allocation of their own
    int m_count = 0;
};

//! The matches of a pattern in a range of a string, found one at a time.
//! After a match the search resumes at its end, one character later when the
//! match was empty, so an empty match never repeats; an empty match at the
//! very end of the range is not reported. The subject is converted once, so
//! walking through a long string is linear in its length.
class ZT_EXPORT KORegexMatchEnumerator : public zt::Object
{
    ZT_OBJECT(KORegexMatchEnumerator, zt::Object)

public:
    //! Raises NSRangeException "range {l, n} out of bounds" when the range
    //! passes the end of the string.
    KORegexMatchEnumerator(zt::Ref<KORegex> regex, const QString &string, KORange range);
    ~KORegexMatchEnumerator() override;

    //! The next match, or null when there is none.
    //! @sel nextObject
    zt::Ref<KORegexMatch> nextObject();
    //! The remaining matches, in order.
    //! @sel allObjects
    QList<zt::Ref<KORegexMatch>> allObjects();

    //! @sel regex
    zt::Ref<KORegex> regex() const { return m_regex; }
    //! @sel string
    QString string() const;
    //! The part of the string still to search, in UTF-16 indices.
    KORange range() const;
    //! Location plus length of the range given at creation.
    qsizetype end() const { return m_end; }

private:
    zt::Ref<KORegex> m_regex;
    std::unique_ptr<zt::koregex::MatchCursor> m_cursor;
    qsizetype m_end = 0;
    bool m_finished = false;
};
