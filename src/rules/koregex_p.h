#pragma once
// Internals of the regular-expression layer: the UTF-8 form of a subject, the
// conversions between its byte offsets and the string's indices, and the
// cursor that walks through successive matches.
//
// Index conventions. QString indices are UTF-16 code units. PCRE works on
// the UTF-8 bytes. The positions reported in match ranges are "characters"
// counted the way the system has always counted them: one per byte that
// starts a UTF-8 sequence, so a character outside the Basic Multilingual
// Plane counts once although the string holds it as two code units. Cutting
// the subject (group text, substitution, splitting) uses true UTF-16 indices,
// so the text itself is never damaged by that count.

#include "rules/koregex.h"
#include "rules/koregex_utf8_p.h"

#include <QString>
#include <QVarLengthArray>
#include <atomic>
#include <limits>
#include <memory>
#include <mutex>
#include <vector>

namespace zt::koregex {

//! Encodes UTF-16 as UTF-8 into `out`, which must hold
//! encoders::capacityFor(in.size()) bytes, and answers the number of bytes
//! written (at most 3 * in.size()). An unpaired surrogate becomes
//! U+FFFD (three bytes, one code unit, like the unit it replaces), so the
//! output is always valid UTF-8 and byte and code-unit positions stay in step.
//! Uses the fastest variant of koregex_utf8_p.h that the processor runs.
qsizetype encodeUtf8(QStringView in, char *out);

//! The UTF-8 length of in[0, index). An index that splits a surrogate pair
//! counts the whole pair when `roundUp`, and none of it otherwise.
qsizetype utf8Offset(QStringView in, qsizetype index, bool roundUp);

//! The byte length of the UTF-8 sequence that starts with `lead`.
inline int sequenceLength(uchar lead)
{
    return lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

inline bool isContinuation(uchar byte)
{
    return (byte & 0xC0) == 0x80;
}

//! A subject string with its UTF-8 form; immutable once built, shared by the
//! matches of one search and safe to read from several threads. For an ASCII
//! subject, offsets and indices coincide and conversions cost nothing.
class SubjectText
{
public:
    //! Encodes `string`.
    explicit SubjectText(QString string);
    //! Copies the already encoded bytes of `string`.
    SubjectText(QString string, const char *utf8, qsizetype size);

    const QString &string() const { return m_string; }
    bool isAscii() const { return m_ascii; }
    const char *data() const { return m_bytes.constData(); }
    qsizetype size() const { return m_size; }

    //! The system's character position of a byte offset: the number of bytes
    //! before it that start a UTF-8 sequence.
    qsizetype characterIndex(qsizetype byte) const;
    //! The UTF-16 index of a byte offset; an offset inside a sequence counts
    //! the whole character.
    qsizetype utf16Index(qsizetype byte) const;
    //! The byte offset of a UTF-16 index (see utf8Offset()).
    qsizetype byteOffset(qsizetype index, bool roundUp) const;
    //! The subject's text between two byte offsets (empty when they are
    //! reversed), a view into string().
    QStringView view(qsizetype startByte, qsizetype endByte) const;
    //! The same as a string; never null.
    QString text(qsizetype startByte, qsizetype endByte) const;

private:
    struct Position
    {
        qsizetype characters = 0;
        qsizetype units = 0;
    };
    // Counts before every multiple of BlockSize bytes, so that a conversion
    // scans at most one block: long subjects convert in constant time.
    // Searchable subjects are shorter than 2 GB, so 32 bits hold a count.
    struct Checkpoint
    {
        qint32 characters = 0;
        qint32 units = 0;
    };
    static constexpr qsizetype BlockSize = 64;
    // Shorter subjects are counted from their start, without a table.
    static constexpr qsizetype DirectCountLimit = 1024;
    const Checkpoint *checkpoints() const;
    Position countTo(qsizetype byte) const;

    QString m_string;
    QByteArray m_bytes;
    qsizetype m_size = 0;
    bool m_ascii = false;
    // Built on first need; readers on other threads see the table once the
    // pointer is set.
    mutable std::mutex m_checkpointsLock;
    mutable std::atomic<const Checkpoint *> m_checkpointsReady{nullptr};
    mutable std::vector<Checkpoint> m_checkpoints;
};

//! UTF-16 indices of byte offsets for a caller that walks through a subject
//! from start to end (substitution, splitting): moving forward only counts
//! the bytes in between, so the whole walk is linear; a step back or a long
//! jump is looked up like any other offset. Not shared between threads.
class ForwardIndex
{
public:
    explicit ForwardIndex(const SubjectText &subject) : m_subject(subject) {}

    qsizetype utf16Index(qsizetype byte);
    //! The subject's text between two byte offsets (empty when reversed).
    QStringView view(qsizetype startByte, qsizetype endByte);

private:
    const SubjectText &m_subject;
    qsizetype m_byte = 0;
    qsizetype m_units = 0;
};

//! Runs PCRE on behalf of a pattern, passing its study data, and answers
//! pcre_exec's result. JIT code is entered directly, on a JIT stack of the
//! calling thread: the arguments are always valid here (UTF-8 made by
//! encodeUtf8(), offsets on character boundaries, only PCRE_NO_UTF8_CHECK
//! and PCRE_NOTEOL), so pcre_exec's checks would only repeat themselves. An
//! interpreted search is bounded so that it cannot overflow the thread's
//! stack.
int execute(const KORegex &regex, const char *subject, int length, int start, int options, int *ovector,
            int ovectorSize);

//! Walks through the successive matches of a pattern in a byte range of a
//! subject: after a match the search resumes at its end, one character later
//! when it was empty, and an empty match at the very end of the range is not
//! reported. Matches that \K or \C leave at odd offsets cannot stall it: the
//! search always moves forward to a character boundary.
class MatchCursor
{
public:
    MatchCursor(const KORegex &regex, std::shared_ptr<const SubjectText> subject, qsizetype startByte,
                qsizetype endByte, bool notEndOfLine);

    //! Finds the next match; its offsets are in ovector() (groupCount * 3
    //! integers, groups that took no part set to -1).
    bool next();
    const int *ovector() const { return m_ovector.constData(); }
    const std::shared_ptr<const SubjectText> &subject() const { return m_subject; }
    //! The byte offset where the next search starts.
    qsizetype position() const { return m_position; }
    qsizetype endByte() const { return m_end; }

private:
    const KORegex &m_regex;
    std::shared_ptr<const SubjectText> m_subject;
    QVarLengthArray<int, 30> m_ovector;
    qsizetype m_position;
    qsizetype m_end;
    int m_options;
    bool m_done = false;
};

//! Raises NSRangeException "range {l, n} out of bounds" unless the range
//! lies within a string of `length` code units.
void checkRange(const KORange &range, qsizetype length);

//! Raises when a subject's UTF-8 form is longer than PCRE can search.
[[noreturn]] void raiseUnsearchableLength(qsizetype bytes);
inline void checkSearchableLength(qsizetype bytes)
{
    if (bytes > std::numeric_limits<int>::max()) [[unlikely]]
        raiseUnsearchableLength(bytes);
}

//! The byte offsets of a range checked by checkRange(), in a string whose
//! UTF-8 form has `utf8Size` bytes. A range boundary inside a surrogate pair
//! moves to a character boundary inside the range.
struct ByteRange
{
    qsizetype start = 0;
    qsizetype end = 0;
    bool notEndOfLine = false;
};
ByteRange byteRange(QStringView string, qsizetype utf8Size, const KORange &range);

//! Sizes `vector` to `items` integers; raises "couldn't allocate match
//! vector for %d items" when they cannot be reserved.
void reserveLargeMatchVector(QVarLengthArray<int, 30> &vector, int items);
inline void reserveMatchVector(QVarLengthArray<int, 30> &vector, int items)
{
    if (items <= vector.capacity()) [[likely]]
        vector.resize(items);
    else
        reserveLargeMatchVector(vector, items);
}

//! The group numbers that carry `name` in the pattern (several with (?J)),
//! in table order; empty when the pattern has no such group.
QVarLengthArray<int, 4> groupNumbersForName(const KORegex &regex, const QString &name);

} // namespace zt::koregex
