#include "rules/koregexmatch.h"

#include "rules/koregex_p.h"
#include "runtime/exception.h"
#include "runtime/format.h"

using namespace zt;
using namespace zt::koregex;

ZT_DEFINE_CLASS_WITH_MEMBERS(KORegexMatch)
ZT_DEFINE_CLASS_WITH_MEMBERS(KORegexMatchEnumerator)

void KORegexMatch::registerMembers(ClassBuilder<KORegexMatch> &b)
{
    b.method("regex", &KORegexMatch::regex);
    b.method("string", &KORegexMatch::string);
    b.method("count", &KORegexMatch::count);
    b.method("group", &KORegexMatch::group);
    b.method("groupAtIndex:", &KORegexMatch::groupAtIndex);
    b.method("groupNamed:", &KORegexMatch::groupNamed);
}

void KORegexMatchEnumerator::registerMembers(ClassBuilder<KORegexMatchEnumerator> &b)
{
    b.method("regex", &KORegexMatchEnumerator::regex);
    b.method("string", &KORegexMatchEnumerator::string);
    b.method("nextObject", &KORegexMatchEnumerator::nextObject);
    b.method("allObjects", &KORegexMatchEnumerator::allObjects);
}

// ---- KORegexMatch ----

KORegexMatch::KORegexMatch(Ref<KORegex> regex, QString string, std::shared_ptr<const SubjectText> subject,
                           const int *matchv)
    : m_regex(std::move(regex)), m_string(std::move(string)), m_subject(std::move(subject)),
      m_count(m_regex->groupCount())
{
    m_matchv.append(matchv, 3 * m_count);
}

KORegexMatch::~KORegexMatch() = default;

void KORegexMatch::checkIndex(int index) const
{
    if (index < 0 || index >= m_count)
        Exception::raise(QString::fromUtf16(exceptions::RangeError),
                         format(u"index %d out of bounds", index));
}

KORange KORegexMatch::rangeAtIndex(int index) const
{
    checkIndex(index);
    const int start = m_matchv[2 * index];
    const int end = m_matchv[2 * index + 1];
    if (start < 0)
        return {KONotFound, 0};
    if (!m_subject)
        return {start, std::max(0, end - start)};
    const qsizetype from = m_subject->characterIndex(start);
    return {from, std::max<qsizetype>(0, m_subject->characterIndex(end) - from)};
}

QString KORegexMatch::groupAtIndex(int index) const
{
    checkIndex(index);
    const int start = m_matchv[2 * index];
    const int end = m_matchv[2 * index + 1];
    if (start < 0)
        return {};
    if (m_subject)
        return m_subject->text(start, end);
    if (end <= start)
        return QStringLiteral("");
    return m_string.mid(start, end - start);
}

int KORegexMatch::groupNumberForName(const QString &name) const
{
    const auto numbers = groupNumbersForName(*m_regex, name);
    if (numbers.isEmpty())
        invalidArgument(format(u"no group named %@", name));
    for (int number : numbers) {
        if (number < m_count && m_matchv[2 * number] >= 0)
            return number;
    }
    return numbers.first();
}

KORange KORegexMatch::rangeNamed(const QString &name) const
{
    return rangeAtIndex(groupNumberForName(name));
}

QString KORegexMatch::groupNamed(const QString &name) const
{
    return groupAtIndex(groupNumberForName(name));
}

QString KORegexMatch::description() const
{
    QString text = format(u"%@ {\n", Object::description());
    for (int i = 0; i < m_count; ++i) {
        const QString group = groupAtIndex(i);
        text += format(u"\t%d %@ %@\n", i, KOStringFromRange(rangeAtIndex(i)),
                       group.isNull() ? QVariant() : QVariant(group));
    }
    return text + u'}';
}

// ---- KORegexMatchEnumerator ----

KORegexMatchEnumerator::KORegexMatchEnumerator(Ref<KORegex> regex, const QString &string, KORange range)
    : m_regex(std::move(regex))
{
    checkRange(range, string.size());
    m_end = range.end();
    auto subject = std::make_shared<const SubjectText>(string);
    const ByteRange bytes = byteRange(subject->string(), subject->size(), range);
    m_cursor = std::make_unique<MatchCursor>(*m_regex, std::move(subject), bytes.start, bytes.end,
                                             bytes.notEndOfLine);
}

KORegexMatchEnumerator::~KORegexMatchEnumerator() = default;

QString KORegexMatchEnumerator::string() const
{
    return m_cursor->subject()->string();
}

KORange KORegexMatchEnumerator::range() const
{
    if (m_finished)
        return {m_end, 0};
    const qsizetype location = m_cursor->subject()->utf16Index(m_cursor->position());
    return {location, std::max<qsizetype>(0, m_end - location)};
}

Ref<KORegexMatch> KORegexMatchEnumerator::nextObject()
{
    if (m_finished)
        return {};
    if (!m_cursor->next()) {
        m_finished = true;
        return {};
    }
    const auto &subject = m_cursor->subject();
    return make<KORegexMatch>(m_regex, subject->string(),
                              subject->isAscii() ? std::shared_ptr<const SubjectText>() : subject,
                              m_cursor->ovector());
}

QList<Ref<KORegexMatch>> KORegexMatchEnumerator::allObjects()
{
    QList<Ref<KORegexMatch>> matches;
    while (Ref<KORegexMatch> match = nextObject())
        matches.append(std::move(match));
    return matches;
}
