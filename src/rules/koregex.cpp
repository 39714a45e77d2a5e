#include "rules/koregex.h"

#include "rules/koregex_p.h"
#include "rules/koregexmatch.h"
#include "runtime/exception.h"
#include "runtime/fastpath_p.h"
#include "runtime/format.h"

#include <algorithm>
#include <memory>
#include <pcre.h>
#include <pthread.h>

using namespace zt;
using namespace zt::koregex;

ZT_DEFINE_CLASS_WITH_MEMBERS(KORegex)

namespace {

// Where findInString() keeps a subject's UTF-8 form for the length of one
// search. Most chat lines fit on the stack. A longer subject uses a buffer of
// the calling thread, kept between searches so that searching long subjects
// allocates nothing either: it grows by doubling up to KeptThreadBufferBytes,
// and one that had to grow past that for an exceptionally long subject is
// released when the search ends instead of staying with the thread.
constexpr qsizetype StackSubjectBytes = 1024 + encoders::StoreSlack;
constexpr qsizetype FirstThreadBufferBytes = 4096;
constexpr qsizetype KeptThreadBufferBytes = 1024 * 1024;

struct ThreadSubjectBuffer
{
    std::unique_ptr<char[]> bytes;
    qsizetype capacity = 0;
    // Set while a search uses the buffer. Nothing starts another search on
    // the thread meanwhile unless a process-wide PCRE callout does; such a
    // search gets bytes of its own.
    bool inUse = false;
};

class SubjectBytes
{
public:
    //! Room for `size` bytes.
    explicit SubjectBytes(qsizetype size)
    {
        if (size > StackSubjectBytes) [[unlikely]]
            useThreadBuffer(size);
    }
    ~SubjectBytes()
    {
        if (m_thread) [[unlikely]]
            releaseThreadBuffer();
    }
    SubjectBytes(const SubjectBytes &) = delete;
    SubjectBytes &operator=(const SubjectBytes &) = delete;

    char *data() { return m_data; }

private:
    void useThreadBuffer(qsizetype size);
    void releaseThreadBuffer();

    char m_stack[StackSubjectBytes];
    char *m_data = m_stack;
    ThreadSubjectBuffer *m_thread = nullptr;
    std::unique_ptr<char[]> m_own;
};

void SubjectBytes::useThreadBuffer(qsizetype size)
{
    ThreadSubjectBuffer &buffer = fastpath::perThread<ThreadSubjectBuffer>();
    if (buffer.inUse) {
        m_own.reset(new char[size_t(size)]);
        m_data = m_own.get();
        return;
    }
    if (buffer.capacity < size) {
        const qsizetype grown = std::max(
            size, std::min(std::max(2 * buffer.capacity, FirstThreadBufferBytes), KeptThreadBufferBytes));
        // The old bytes go first: they need not survive, and both at once
        // would double the peak.
        buffer.bytes.reset();
        buffer.capacity = 0;
        buffer.bytes.reset(new char[size_t(grown)]);
        buffer.capacity = grown;
    }
    buffer.inUse = true;
    m_thread = &buffer;
    m_data = buffer.bytes.get();
}

void SubjectBytes::releaseThreadBuffer()
{
    m_thread->inUse = false;
    if (m_thread->capacity > KeptThreadBufferBytes) {
        m_thread->bytes.reset();
        m_thread->capacity = 0;
    }
}

} // namespace

void KORegex::registerMembers(ClassBuilder<KORegex> &b)
{
    b.method("pattern", &KORegex::pattern);
    b.method("groupCount", &KORegex::groupCount);
    b.method("findInString:", &KORegex::findInStringSelector);
    b.method("findAllInString:", &KORegex::findAllInStringSelector);
    b.method("replaceWithString:inString:", &KORegex::replaceSelector);
    b.method("replaceWithString:inString:limit:", &KORegex::replaceWithString);
    b.method("splitString:", &KORegex::splitSelector);
    b.method("splitString:limit:", &KORegex::splitString);
}

QString KOStringFromRange(const KORange &range)
{
    return QStringLiteral("{%1, %2}").arg(range.location).arg(range.length);
}

KORegex::KORegex() = default;

KORegex::~KORegex()
{
    releaseCompiled();
}

void KORegex::releaseCompiled()
{
    if (m_extra)
        pcre_free_study(static_cast<pcre_extra *>(m_extra));
    if (m_regex)
        pcre_free(m_regex);
    m_extra = nullptr;
    m_regex = nullptr;
    m_groupCount = 0;
}

Ref<KORegex> KORegex::regexWithPattern(const QString &pattern, int options)
{
    auto regex = make<KORegex>();
    if (!regex->initWithPattern(pattern, options))
        return {};
    return regex;
}

QList<Ref<KORegex>> KORegex::regexWithPatterns(const QStringList &patterns)
{
    QList<Ref<KORegex>> out;
    out.reserve(patterns.size());
    for (const QString &pattern : patterns) {
        if (pattern.isEmpty())
            continue;
        if (Ref<KORegex> regex = regexWithPattern(pattern, CaseInsensitive))
            out.append(std::move(regex));
    }
    return out;
}

bool KORegex::init()
{
    return initWithPattern(QStringLiteral(""));
}

bool KORegex::initWithPattern(const QString &pattern, int options)
{
    releaseCompiled();
    m_pattern = pattern;

    int flags = PCRE_UTF8;
    if (options & CaseInsensitive)
        flags |= PCRE_CASELESS;
    if (options & DotAll)
        flags |= PCRE_DOTALL;
    if (options & Extended)
        flags |= PCRE_EXTENDED;
    if (options & Ungreedy)
        flags |= PCRE_UNGREEDY;
    if (options & Multiline)
        flags |= PCRE_MULTILINE;

    // The compiler reads a C string: a pattern ends at its first U+0000.
    QVarLengthArray<char, 256> utf8(encoders::capacityFor(pattern.size()) + 1);
    utf8[encodeUtf8(pattern, utf8.data())] = '\0';

    const char *error = nullptr;
    int errorOffset = 0;
    ::pcre *compiled = pcre_compile(utf8.constData(), flags, &error, &errorOffset, nullptr);
    if (!compiled)
        return false;
    int captures = 0;
    if (pcre_fullinfo(compiled, nullptr, PCRE_INFO_CAPTURECOUNT, &captures) != 0) {
        pcre_free(compiled);
        return false;
    }
    m_regex = compiled;
    m_groupCount = captures + 1;
    // JIT compilation; without it (or when it fails) searches use the
    // interpreter, with the same results.
    const char *studyError = nullptr;
    m_extra = pcre_study(compiled, PCRE_STUDY_JIT_COMPILE, &studyError);
    return true;
}

void KORegex::setExtra(void *extra)
{
    if (extra == m_extra)
        return;
    if (m_extra)
        pcre_free_study(static_cast<pcre_extra *>(m_extra));
    m_extra = extra;
}

QString KORegex::description() const
{
    return format(u"%@[pattern: %@]", Object::description(), m_pattern);
}

Ref<KORegexMatch> KORegex::findInString(const QString &string, std::optional<KORange> range) const
{
    ZT_ASSERT(m_regex, QStringLiteral("KORegex used without a compiled pattern"));
    const qsizetype length = string.size();
    if (range)
        checkRange(*range, length);

    QVarLengthArray<int, 30> ovector;
    reserveMatchVector(ovector, m_groupCount * 3);

    // A miss, the common case, allocates nothing.
    SubjectBytes bytesOfSubject(encoders::capacityFor(length));
    char *const utf8 = bytesOfSubject.data();
    const qsizetype size = encodeUtf8(string, utf8);
    checkSearchableLength(size);
    const bool ascii = size == length;
    const ByteRange bytes = range ? byteRange(string, size, *range) : ByteRange{0, size, false};

    const int options = PCRE_NO_UTF8_CHECK | (bytes.notEndOfLine ? PCRE_NOTEOL : 0);
    const int rc =
        execute(*this, utf8, int(bytes.end), int(bytes.start), options, ovector.data(), int(ovector.size()));
    if (rc == PCRE_ERROR_NOMATCH)
        return {};
    if (rc < 1)
        assertionFailure(format(u"unexpected error pcre_exec(): %d", rc));
    for (int i = 2 * rc; i < 2 * m_groupCount; ++i)
        ovector[i] = -1;

    std::shared_ptr<const SubjectText> subject;
    if (!ascii)
        subject = std::make_shared<const SubjectText>(string, utf8, size);
    return make<KORegexMatch>(Ref<KORegex>(const_cast<KORegex *>(this)), string, std::move(subject),
                              ovector.constData());
}

QList<Ref<KORegexMatch>> KORegex::findAllInString(const QString &string, std::optional<KORange> range) const
{
    return findEnumeratorInString(string, range)->allObjects();
}

Ref<KORegexMatchEnumerator> KORegex::findEnumeratorInString(const QString &string,
                                                            std::optional<KORange> range) const
{
    ZT_ASSERT(m_regex, QStringLiteral("KORegex used without a compiled pattern"));
    return make<KORegexMatchEnumerator>(Ref<KORegex>(const_cast<KORegex *>(this)), string,
                                        range.value_or(KORange{0, string.size()}));
}

QStringList KORegex::splitString(const QString &string, int limit) const
{
    ZT_ASSERT(m_regex, QStringLiteral("KORegex used without a compiled pattern"));
    auto subject = std::make_shared<const SubjectText>(string);
    MatchCursor cursor(*this, subject, 0, subject->size(), false);
    ForwardIndex index(*subject);
    const auto text = [&](qsizetype startByte, qsizetype endByte) {
        const QStringView view = index.view(startByte, endByte);
        return view.isEmpty() ? QStringLiteral("") : view.toString();
    };
    QStringList pieces;
    qsizetype previousEnd = 0;
    for (int handled = 0; (limit < 1 || handled < limit) && cursor.next(); ++handled) {
        const int *ov = cursor.ovector();
        pieces.append(text(previousEnd, ov[0]));
        for (int group = 1; group < m_groupCount; ++group) {
            if (ov[2 * group] >= 0)
                pieces.append(text(ov[2 * group], ov[2 * group + 1]));
        }
        previousEnd = ov[1];
    }
    pieces.append(text(previousEnd, subject->size()));
    return pieces;
}

Ref<KORegexMatch> KORegex::findInStringSelector(const QString &string) const
{
    return findInString(string);
}

QList<Ref<KORegexMatch>> KORegex::findAllInStringSelector(const QString &string) const
{
    return findAllInString(string);
}

QString KORegex::replaceSelector(const QString &templ, const QString &string) const
{
    return replaceWithString(templ, string);
}

QStringList KORegex::splitSelector(const QString &string) const
{
    return splitString(string);
}

namespace zt::koregex {

namespace {

// JIT code needs a stack of its own; each thread gets one on its first
// search. Address space for the largest is reserved up front, pages are only
// used as a search grows into them: deep backtracking over a long subject
// still completes, far beyond the 32 KB that pcre_exec would lend it.
constexpr int JitStackStart = 32 * 1024;
constexpr int JitStackLimit = 16 * 1024 * 1024;

// Each thread's JIT stack, made at its first JIT search; null when there was
// no memory for one.
struct ThreadJitStack
{
    pcre_jit_stack *stack = pcre_jit_stack_alloc(JitStackStart, JitStackLimit);
    ~ThreadJitStack()
    {
        if (stack)
            pcre_jit_stack_free(stack);
    }
};

// The lowest address of the calling thread's stack, or null when unknown.
struct ThreadStackLow
{
    const char *address = [] {
        pthread_attr_t attributes;
        void *low = nullptr;
        size_t size = 0;
        if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
            pthread_attr_getstack(&attributes, &low, &size);
            pthread_attr_destroy(&attributes);
        }
        return static_cast<const char *>(low);
    }();
};

// The interpreter recurses on the machine stack, one frame per nested
// backtracking point; unbounded, a long subject overflows the stack and the
// process dies. The limit leaves half of the stack that remains to the frames
// PCRE reports, so an exhausted search ends with an error instead.
unsigned long interpreterRecursionLimit()
{
    static const bool recursesOnStack = [] {
        int onStack = 0;
        pcre_config(PCRE_CONFIG_STACKRECURSE, &onStack);
        return onStack != 0;
    }();
    if (!recursesOnStack)
        return 10000000;
    static const long frameSize =
        std::max(64, -pcre_exec(nullptr, nullptr, nullptr, -999, -999, 0, nullptr, 0));
    const char *const stackLow = fastpath::perThread<ThreadStackLow>().address;
    if (!stackLow)
        return 1000;
    const long left = long(static_cast<const char *>(__builtin_frame_address(0)) - stackLow) - 128 * 1024;
    return left > 2 * frameSize ? (unsigned long)(left / (2 * frameSize)) : 1;
}

// The interpreter, out of line so that the JIT path keeps a small frame.
[[gnu::noinline]] int executeInterpreted(const ::pcre *compiled, const pcre_extra *extra, const char *subject,
                                         int length, int start, int options, int *ovector, int ovectorSize)
{
    pcre_extra bounded = extra ? *extra : pcre_extra{};
    bounded.flags &= ~PCRE_EXTRA_EXECUTABLE_JIT;
    if (!(bounded.flags & PCRE_EXTRA_MATCH_LIMIT_RECURSION)) {
        bounded.flags |= PCRE_EXTRA_MATCH_LIMIT_RECURSION;
        bounded.match_limit_recursion = interpreterRecursionLimit();
    }
    return pcre_exec(compiled, &bounded, subject, length, start, options, ovector, ovectorSize);
}

} // namespace

int execute(const KORegex &regex, const char *subject, int length, int start, int options, int *ovector,
            int ovectorSize)
{
    const auto *compiled = static_cast<const ::pcre *>(regex.regex());
    const auto *extra = static_cast<const pcre_extra *>(regex.extra());
    if (extra && (extra->flags & PCRE_EXTRA_EXECUTABLE_JIT)) [[likely]] {
        if (pcre_jit_stack *stack = fastpath::perThread<ThreadJitStack>().stack) [[likely]] {
            const int rc =
                pcre_jit_exec(compiled, extra, subject, length, start, options, ovector, ovectorSize, stack);
            if (rc != PCRE_ERROR_JIT_BADOPTION) [[likely]]
                return rc;
        }
    }
    // No JIT code, JIT code for another matching mode, or no memory for a
    // JIT stack.
    return executeInterpreted(compiled, extra, subject, length, start, options, ovector, ovectorSize);
}

void reserveLargeMatchVector(QVarLengthArray<int, 30> &vector, int items)
{
    try {
        vector.resize(items);
    } catch (const std::bad_alloc &) {
        assertionFailure(format(u"couldn't allocate match vector for %d items", items));
    }
}

QVarLengthArray<int, 4> groupNumbersForName(const KORegex &regex, const QString &name)
{
    QVarLengthArray<int, 4> numbers;
    QVarLengthArray<char, 64> utf8(encoders::capacityFor(name.size()) + 1);
    utf8[encodeUtf8(name, utf8.data())] = '\0';
    char *first = nullptr;
    char *last = nullptr;
    const int entrySize = pcre_get_stringtable_entries(static_cast<const ::pcre *>(regex.regex()),
                                                       utf8.constData(), &first, &last);
    if (entrySize <= 0 || !first)
        return numbers;
    for (const char *entry = first; entry <= last; entry += entrySize)
        numbers.append((uchar(entry[0]) << 8) | uchar(entry[1]));
    return numbers;
}

MatchCursor::MatchCursor(const KORegex &regex, std::shared_ptr<const SubjectText> subject,
                         qsizetype startByte, qsizetype endByte, bool notEndOfLine)
    : m_regex(regex), m_subject(std::move(subject)), m_position(startByte), m_end(endByte),
      m_options(PCRE_NO_UTF8_CHECK | (notEndOfLine ? PCRE_NOTEOL : 0))
{
    checkSearchableLength(m_subject->size());
    reserveMatchVector(m_ovector, regex.groupCount() * 3);
}

bool MatchCursor::next()
{
    if (m_done)
        return false;
    const char *data = m_subject->data();
    const int rc = execute(m_regex, data, int(m_end), int(m_position), m_options, m_ovector.data(),
                           int(m_ovector.size()));
    if (rc == PCRE_ERROR_NOMATCH) {
        m_done = true;
        return false;
    }
    if (rc < 1)
        assertionFailure(format(u"unexpected error pcre_exec(): %d", rc));
    for (int i = 2 * rc; i < 2 * m_regex.groupCount(); ++i)
        m_ovector[i] = -1;

    // Resume at the match's end, one character further after an empty match.
    const auto oneCharacterAfter = [&](qsizetype at) {
        return at < m_end ? at + sequenceLength(uchar(data[at])) : m_end + 1;
    };
    qsizetype next = m_ovector[1];
    if (m_ovector[1] == m_ovector[0])
        next = oneCharacterAfter(next);
    // A match that \K leaves ending before the search start must not stall
    // the walk.
    if (next <= m_position)
        next = oneCharacterAfter(m_position);
    // \C can end a match inside a character; searches start on boundaries.
    while (next < m_end && isContinuation(uchar(data[next])))
        ++next;
    if (next > m_end) {
        // An empty match at the very end of the range is not reported.
        m_done = true;
        return false;
    }
    m_position = next;
    return true;
}

} // namespace zt::koregex
