#include "text/attributedstring.h"

#include "runtime/exception.h"
#include "runtime/format.h"

#include <QDebug>

namespace zt {

void TextAttributes::merge(const TextAttributes &other)
{
    if (other.font)
        font = other.font;
    if (other.foregroundColor)
        foregroundColor = other.foregroundColor;
    if (other.paragraphStyle)
        paragraphStyle = other.paragraphStyle;
}

AttributedString::AttributedString(QString text, const TextAttributes &attributes) : m_text(std::move(text))
{
    if (!m_text.isEmpty())
        m_spans.append(Span{m_text.size(), attributes});
}

QList<AttributeRun> AttributedString::runs() const
{
    QList<AttributeRun> result;
    result.reserve(m_spans.size());
    qsizetype start = 0;
    for (const Span &span : m_spans) {
        result.append(AttributeRun{start, span.length, span.attributes});
        start += span.length;
    }
    return result;
}

TextAttributes AttributedString::attributesAt(qsizetype index, AttributeRun *effective) const
{
    if (index < 0 || index >= m_text.size()) {
        Exception::raise(QString::fromUtf16(exceptions::RangeError),
                         format(u"Index %d out of bounds; string length %d", index, m_text.size()));
    }
    qsizetype start = 0;
    for (const Span &span : m_spans) {
        if (index < start + span.length) {
            if (effective)
                *effective = AttributeRun{start, span.length, span.attributes};
            return span.attributes;
        }
        start += span.length;
    }
    Q_UNREACHABLE();
}

void AttributedString::checkRange(qsizetype start, qsizetype length) const
{
    if (start < 0 || length < 0 || start > m_text.size() || length > m_text.size() - start) {
        Exception::raise(
            QString::fromUtf16(exceptions::RangeError),
            format(u"Range {%d, %d} out of bounds; string length %d", start, length, m_text.size()));
    }
}

// Makes a span begin at `position` (splitting the one that covers it) and
// answers that span's index; the span count when `position` is the end.
qsizetype AttributedString::splitAt(qsizetype position)
{
    qsizetype start = 0;
    for (qsizetype i = 0; i < m_spans.size(); ++i) {
        if (position == start)
            return i;
        const qsizetype length = m_spans[i].length;
        if (position < start + length) {
            Span tail{start + length - position, m_spans[i].attributes};
            m_spans[i].length = position - start;
            m_spans.insert(i + 1, std::move(tail));
            return i + 1;
        }
        start += length;
    }
    return m_spans.size();
}

template<typename Change> void AttributedString::modify(qsizetype start, qsizetype length, Change change)
{
    checkRange(start, length);
    if (length == 0)
        return;
    const qsizetype first = splitAt(start);
    const qsizetype last = splitAt(start + length);
    for (qsizetype i = first; i < last; ++i)
        change(m_spans[i].attributes);
    coalesce();
}

void AttributedString::coalesce()
{
    qsizetype out = 0;
    for (qsizetype i = 0; i < m_spans.size(); ++i) {
        if (m_spans[i].length == 0)
            continue;
        if (out > 0 && m_spans[out - 1].attributes == m_spans[i].attributes) {
            m_spans[out - 1].length += m_spans[i].length;
            continue;
        }
        if (out != i)
            m_spans[out] = std::move(m_spans[i]);
        ++out;
    }
    m_spans.resize(out);
}

void AttributedString::setAttributes(const TextAttributes &attributes, qsizetype start, qsizetype length)
{
    modify(start, length, [&](TextAttributes &target) { target = attributes; });
}

void AttributedString::addAttributes(const TextAttributes &attributes, qsizetype start, qsizetype length)
{
    modify(start, length, [&](TextAttributes &target) { target.merge(attributes); });
}

void AttributedString::setFont(const QFont &font, qsizetype start, qsizetype length)
{
    modify(start, length, [&](TextAttributes &target) { target.font = font; });
}

void AttributedString::setForegroundColor(const QColor &color, qsizetype start, qsizetype length)
{
    modify(start, length, [&](TextAttributes &target) { target.foregroundColor = color; });
}

void AttributedString::setParagraphStyle(const ParagraphStyle &style, qsizetype start, qsizetype length)
{
    modify(start, length, [&](TextAttributes &target) { target.paragraphStyle = style; });
}

void AttributedString::append(const AttributedString &other)
{
    m_text.append(other.m_text);
    m_spans.append(other.m_spans);
    coalesce();
}

void AttributedString::append(const QString &text, const TextAttributes &attributes)
{
    append(AttributedString(text, attributes));
}

AttributedString AttributedString::mid(qsizetype start, qsizetype length) const
{
    checkRange(start, length);
    AttributedString result;
    result.m_text = m_text.mid(start, length);
    const qsizetype end = start + length;
    qsizetype spanStart = 0;
    for (const Span &span : m_spans) {
        const qsizetype spanEnd = spanStart + span.length;
        const qsizetype from = std::max(spanStart, start);
        const qsizetype to = std::min(spanEnd, end);
        if (from < to)
            result.m_spans.append(Span{to - from, span.attributes});
        spanStart = spanEnd;
    }
    return result;
}

namespace {

const char *lineBreakName(LineBreakMode mode)
{
    switch (mode) {
    case LineBreakMode::WordWrap:
        return "word-wrap";
    case LineBreakMode::CharWrap:
        return "char-wrap";
    case LineBreakMode::Clip:
        return "clip";
    case LineBreakMode::TruncateHead:
        return "truncate-head";
    case LineBreakMode::TruncateTail:
        return "truncate-tail";
    case LineBreakMode::TruncateMiddle:
        return "truncate-middle";
    }
    return "?";
}

} // namespace

QDebug operator<<(QDebug debug, const ParagraphStyle &style)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << "ParagraphStyle(" << style.alignment << ", " << lineBreakName(style.lineBreakMode)
                    << ')';
    return debug;
}

QDebug operator<<(QDebug debug, const TextAttributes &attributes)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << '{';
    const char *separator = "";
    if (attributes.font) {
        debug << "font " << attributes.font->family() << ' ' << attributes.font->pointSizeF() << "pt";
        separator = ", ";
    }
    if (attributes.foregroundColor) {
        debug << separator << "color " << attributes.foregroundColor->name(QColor::HexArgb);
        separator = ", ";
    }
    if (attributes.paragraphStyle)
        debug << separator << *attributes.paragraphStyle;
    debug << '}';
    return debug;
}

QDebug operator<<(QDebug debug, const AttributedString &string)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << "AttributedString(";
    for (const AttributeRun &run : string.runs())
        debug << string.string().mid(run.start, run.length) << ' ' << run.attributes << ' ';
    debug << ')';
    return debug;
}

} // namespace zt
