// Substitution: templates with numbered, named and braced back-references,
// case modifiers and escaped characters.
//
// A template is read once per call, against the pattern (whose group count
// and names decide how "$12" or "$name2" are shortened), into a list of
// pieces; each match then only assembles them. A template error is raised
// when the first match needs the template, so a subject without matches
// comes back unchanged whatever the template holds.

#include "rules/koregex.h"

#include "rules/koregex_p.h"
#include "runtime/exception.h"
#include "runtime/format.h"

#include <climits>
#include <optional>
#include <vector>

using namespace zt;
using namespace zt::koregex;

namespace {

// Groups: 1 an opening brace, 2 a number or "&", 3 a name, 4 a case-modifier
// letter, 5 any other character after a backslash. A "$" right after a
// backslash is no back-reference.
const KORegex &templateSyntax()
{
    static const Ref<KORegex> syntax = KORegex::regexWithPattern(
        QString::fromUtf16(uR"((?<!\\)\$(\{)?(?:(\d+|&)|(\w+))(?(1)\})|\\(?:([ULEul])|([^ULEul])))"));
    return *syntax;
}

struct Piece
{
    enum class Kind
    {
        Text,
        Group,
        Named,
        CaseModifier,
    };
    Kind kind = Kind::Text;
    QString text;
    int group = 0;
    QVarLengthArray<int, 4> groups; // Named: every group of that name, first that took part wins
    char16_t modifier = 0;
};

struct CompiledTemplate
{
    std::vector<Piece> pieces;
    std::optional<Exception> failure;
    int modifiers = 0;
};

struct CaseModifier
{
    qsizetype position;
    char16_t letter;
};

// The value of a run of decimal digits, saturated at INT_MAX.
int decimalValue(QByteArrayView digits)
{
    qint64 value = 0;
    for (char c : digits) {
        value = value * 10 + (c - '0');
        if (value > INT_MAX)
            return INT_MAX;
    }
    return int(value);
}

Exception invalidArgumentException(const QString &reason)
{
    return Exception(QString::fromUtf16(exceptions::InvalidArgument), reason);
}

class TemplateReader
{
public:
    TemplateReader(const KORegex &regex, const QString &templ)
        : m_regex(regex), m_text(std::make_shared<const SubjectText>(templ))
    {}

    CompiledTemplate read()
    {
        MatchCursor cursor(templateSyntax(), m_text, 0, m_text->size(), false);
        qsizetype literalStart = 0;
        while (cursor.next()) {
            const int *ov = cursor.ovector();
            appendText(m_text->view(literalStart, ov[0]));
            const std::optional<qsizetype> end = readOccurrence(ov);
            if (!end)
                return std::move(m_out);
            literalStart = *end;
        }
        appendText(m_text->view(literalStart, m_text->size()));
        return std::move(m_out);
    }

private:
    // Adds the piece for one occurrence; answers where the literal text after
    // it starts (the occurrence may have been shortened), or nothing after a
    // failure.
    std::optional<qsizetype> readOccurrence(const int *ov)
    {
        const char *data = m_text->data();
        const qsizetype start = ov[0];
        qsizetype end = ov[1];
        const bool braced = ov[2] >= 0;
        if (ov[4] >= 0) {
            QByteArrayView digits(data + ov[4], ov[5] - ov[4]);
            int number = digits == "&" ? 0 : decimalValue(digits);
            if (braced && number >= m_regex.groupCount()) {
                m_out.failure = Exception(QString::fromUtf16(exceptions::RangeError),
                                          format(u"index %d out of bounds", number));
                return {};
            }
            while (number >= m_regex.groupCount()) {
                if (end - start < 3) {
                    m_out.failure =
                        invalidArgumentException(format(u"no such backreference %d in pattern", number));
                    return {};
                }
                digits.chop(1);
                number = decimalValue(digits);
                --end;
            }
            Piece piece;
            piece.kind = Piece::Kind::Group;
            piece.group = number;
            m_out.pieces.push_back(std::move(piece));
        } else if (ov[6] >= 0) {
            QString name = m_text->text(ov[6], ov[7]);
            QVarLengthArray<int, 4> groups = groupNumbersForName(m_regex, name);
            while (groups.isEmpty()) {
                if (braced || end - start < 3) {
                    m_out.failure =
                        invalidArgumentException(format(u"no backreference named %@ in pattern", name));
                    return {};
                }
                name.chop(1);
                groups = groupNumbersForName(m_regex, name);
                --end;
            }
            Piece piece;
            piece.kind = Piece::Kind::Named;
            piece.groups = std::move(groups);
            m_out.pieces.push_back(std::move(piece));
        } else if (ov[8] >= 0) {
            Piece piece;
            piece.kind = Piece::Kind::CaseModifier;
            piece.modifier = char16_t(data[ov[8]]);
            m_out.pieces.push_back(std::move(piece));
            ++m_out.modifiers;
        } else if (ov[10] >= 0) {
            appendText(m_text->view(ov[10], ov[11]));
        } else {
            m_out.failure = Exception(
                QString::fromUtf16(exceptions::InternalInconsistency),
                format(u"%@ isn't a backref, case modifier, or literal escape!", m_text->text(start, end)));
            return {};
        }
        return end;
    }

    void appendText(QStringView text)
    {
        if (text.isEmpty())
            return;
        if (!m_out.pieces.empty() && m_out.pieces.back().kind == Piece::Kind::Text) {
            m_out.pieces.back().text += text;
            return;
        }
        Piece piece;
        piece.text = text.toString();
        m_out.pieces.push_back(std::move(piece));
    }

    const KORegex &m_regex;
    std::shared_ptr<const SubjectText> m_text;
    CompiledTemplate m_out;
};

// Applies the recorded modifiers in order: "u"/"l" change the one character
// at their position, "U"/"L" everything up to the position of the next later
// "E" (or the end), "E" does nothing by itself. Where spans overlap the later
// modifier wins. Mapping is Unicode's full case mapping, which may change the
// length ("ß" upper-cases to "SS"), so spans are resolved first and the text
// is mapped run by run.
QString applyCaseModifiers(const QString &text, const QVarLengthArray<CaseModifier, 8> &modifiers)
{
    enum : char
    {
        Keep,
        Upper,
        Lower
    };
    const qsizetype size = text.size();
    QVarLengthArray<char, 256> action(size);
    std::fill(action.begin(), action.end(), Keep);

    QVarLengthArray<qsizetype, 8> spanEnd(modifiers.size());
    qsizetype nextEnd = size;
    for (qsizetype i = modifiers.size() - 1; i >= 0; --i) {
        spanEnd[i] = nextEnd;
        if (modifiers[i].letter == u'E')
            nextEnd = modifiers[i].position;
    }

    for (qsizetype i = 0; i < modifiers.size(); ++i) {
        const CaseModifier &m = modifiers[i];
        qsizetype from = m.position;
        qsizetype to = 0;
        switch (m.letter) {
        case u'u':
        case u'l':
            if (from >= size)
                continue;
            to = from + 1;
            if (text[from].isHighSurrogate() && to < size && text[to].isLowSurrogate())
                ++to;
            break;
        case u'U':
        case u'L':
            to = spanEnd[i];
            break;
        default:
            continue;
        }
        const char value = (m.letter == u'u' || m.letter == u'U') ? Upper : Lower;
        for (qsizetype k = from; k < to; ++k)
            action[k] = value;
    }

    QString out;
    out.reserve(size);
    for (qsizetype run = 0; run < size;) {
        qsizetype end = run + 1;
        while (end < size && action[end] == action[run])
            ++end;
        const QStringView piece = QStringView(text).mid(run, end - run);
        switch (action[run]) {
        case Upper:
            out += piece.toString().toUpper();
            break;
        case Lower:
            out += piece.toString().toLower();
            break;
        default:
            out += piece;
            break;
        }
        run = end;
    }
    return out;
}

void buildReplacement(const CompiledTemplate &compiled, ForwardIndex &subject, const int *ov,
                      QString &replacement, QVarLengthArray<CaseModifier, 8> &modifiers)
{
    replacement.clear();
    modifiers.clear();
    const auto appendGroup = [&](int group) {
        if (ov[2 * group] >= 0)
            replacement += subject.view(ov[2 * group], ov[2 * group + 1]);
    };
    for (const Piece &piece : compiled.pieces) {
        switch (piece.kind) {
        case Piece::Kind::Text:
            replacement += piece.text;
            break;
        case Piece::Kind::Group:
            appendGroup(piece.group);
            break;
        case Piece::Kind::Named: {
            int chosen = piece.groups.first();
            for (int group : piece.groups) {
                if (ov[2 * group] >= 0) {
                    chosen = group;
                    break;
                }
            }
            appendGroup(chosen);
            break;
        }
        case Piece::Kind::CaseModifier:
            modifiers.append({replacement.size(), piece.modifier});
            break;
        }
    }
    if (!modifiers.isEmpty())
        replacement = applyCaseModifiers(replacement, modifiers);
}

} // namespace

QString KORegex::replaceWithString(const QString &templ, const QString &string, int limit) const
{
    ZT_ASSERT(m_regex, QStringLiteral("KORegex used without a compiled pattern"));
    auto subject = std::make_shared<const SubjectText>(string);
    MatchCursor cursor(*this, subject, 0, subject->size(), false);
    ForwardIndex index(*subject);

    std::optional<CompiledTemplate> compiled;
    QString result;
    QString replacement;
    QVarLengthArray<CaseModifier, 8> modifiers;
    qsizetype previousEnd = 0;
    int handled = 0;
    for (; (limit < 1 || handled < limit) && cursor.next(); ++handled) {
        if (!compiled) {
            compiled = TemplateReader(*this, templ).read();
            if (compiled->failure)
                throw *compiled->failure;
            try {
                modifiers.reserve(compiled->modifiers);
            } catch (const std::bad_alloc &) {
                assertionFailure(
                    format(u"couldn't allocate memory for %d case modifiers", compiled->modifiers));
            }
            result.reserve(string.size());
        }
        const int *ov = cursor.ovector();
        result += index.view(previousEnd, ov[0]);
        buildReplacement(*compiled, index, ov, replacement, modifiers);
        result += replacement;
        previousEnd = ov[1];
    }
    if (handled == 0)
        return string;
    result += index.view(previousEnd, subject->size());
    return result;
}
