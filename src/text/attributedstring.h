#pragma once
// Styled text for list labels: a string plus attribute runs. Each run covers
// a range of UTF-16 code units and may set a font, a foreground colour and a
// paragraph style (alignment and line breaking, e.g. truncation at the tail).
// A value type; nothing here needs a display or a GUI application object.

#include "zt_export.h"

#include <QColor>
#include <QFont>
#include <QList>
#include <QString>

#include <optional>

class QDebug;

namespace zt {

enum class LineBreakMode
{
    WordWrap,
    CharWrap,
    Clip,
    TruncateHead,
    TruncateTail,
    TruncateMiddle
};

struct ZT_EXPORT ParagraphStyle
{
    Qt::Alignment alignment = Qt::AlignLeading;
    LineBreakMode lineBreakMode = LineBreakMode::WordWrap;

    //! The platform's default style: leading alignment, wrapping at words.
    static ParagraphStyle defaultStyle() { return {}; }

    friend bool operator==(const ParagraphStyle &, const ParagraphStyle &) = default;
};

//! One run's attributes; an unset member means "not styled" (the view's
//! default applies).
struct ZT_EXPORT TextAttributes
{
    std::optional<QFont> font;
    std::optional<QColor> foregroundColor;
    std::optional<ParagraphStyle> paragraphStyle;

    bool isEmpty() const { return !font && !foregroundColor && !paragraphStyle; }

    //! Sets every member that `other` sets, keeping the rest.
    void merge(const TextAttributes &other);

    friend bool operator==(const TextAttributes &, const TextAttributes &) = default;
};

struct ZT_EXPORT AttributeRun
{
    qsizetype start = 0;
    qsizetype length = 0;
    TextAttributes attributes;

    qsizetype end() const { return start + length; }
    friend bool operator==(const AttributeRun &, const AttributeRun &) = default;
};

//! Text with attribute runs. The runs always cover the whole text without gap
//! or overlap, and neighbouring runs with equal attributes are joined, so two
//! attributed strings compare equal exactly when they look the same. Ranges
//! outside the text raise "NSRangeException".
class ZT_EXPORT AttributedString
{
public:
    AttributedString() = default;
    explicit AttributedString(QString text, const TextAttributes &attributes = {});

    const QString &string() const { return m_text; }
    qsizetype length() const { return m_text.size(); }
    bool isEmpty() const { return m_text.isEmpty(); }

    //! The runs in text order; none for an empty string.
    QList<AttributeRun> runs() const;

    //! The attributes at `index`; `effective`, when given, receives the whole
    //! run they belong to (its start and length).
    TextAttributes attributesAt(qsizetype index, AttributeRun *effective = nullptr) const;

    //! Replaces the attributes over the range.
    void setAttributes(const TextAttributes &attributes, qsizetype start, qsizetype length);
    //! Merges the attributes into those already over the range.
    void addAttributes(const TextAttributes &attributes, qsizetype start, qsizetype length);

    void setFont(const QFont &font, qsizetype start, qsizetype length);
    void setForegroundColor(const QColor &color, qsizetype start, qsizetype length);
    void setParagraphStyle(const ParagraphStyle &style, qsizetype start, qsizetype length);

    void append(const AttributedString &other);
    void append(const QString &text, const TextAttributes &attributes = {});

    //! The part of the string in the range, with its attributes.
    AttributedString mid(qsizetype start, qsizetype length) const;

    friend bool operator==(const AttributedString &, const AttributedString &) = default;

private:
    struct Span
    {
        qsizetype length;
        TextAttributes attributes;
        friend bool operator==(const Span &, const Span &) = default;
    };

    void checkRange(qsizetype start, qsizetype length) const;
    qsizetype splitAt(qsizetype position);
    template<typename Change> void modify(qsizetype start, qsizetype length, Change change);
    void coalesce();

    QString m_text;
    QList<Span> m_spans;
};

ZT_EXPORT QDebug operator<<(QDebug debug, const ParagraphStyle &style);
ZT_EXPORT QDebug operator<<(QDebug debug, const TextAttributes &attributes);
ZT_EXPORT QDebug operator<<(QDebug debug, const AttributedString &string);

} // namespace zt
