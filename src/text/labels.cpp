#include "text/labels.h"

#include <QFontDatabase>
#include <QGuiApplication>

namespace irc {

namespace {

const zt::TextAttributes &labelAttributes()
{
    static const zt::TextAttributes attributes{std::nullopt, QColor(Qt::black), tailingParagraphStyle()};
    return attributes;
}

QColor selectedSubtextColor()
{
    return QColor::fromRgbF(0.8f, 0.8f, 0.8f, 1.0f);
}

zt::AttributedString withSubtext(zt::AttributedString result, qsizetype styledLength,
                                 const zt::AttributedString &separator, QStringView subtext,
                                 const QColor &color)
{
    result.addAttributes({systemFont(LabelFontSize), std::nullopt, tailingParagraphStyle()}, 0, styledLength);
    result.append(separator);
    zt::AttributedString small = attributedString(subtext);
    small.addAttributes({systemFont(SubtextFontSize), color, std::nullopt}, 0, small.length());
    result.append(small);
    return result;
}

} // namespace

QFont systemFont(qreal pointSize)
{
    QFont font = qobject_cast<QGuiApplication *>(QCoreApplication::instance())
                     ? QFontDatabase::systemFont(QFontDatabase::GeneralFont)
                     : QFont();
    font.setPointSizeF(pointSize);
    return font;
}

QColor grayColor()
{
    return QColor::fromRgbF(0.5f, 0.5f, 0.5f, 1.0f);
}

const zt::ParagraphStyle &tailingParagraphStyle()
{
    static const zt::ParagraphStyle style = [] {
        zt::ParagraphStyle s = zt::ParagraphStyle::defaultStyle();
        s.lineBreakMode = zt::LineBreakMode::TruncateTail;
        return s;
    }();
    return style;
}

const zt::AttributedString &newline()
{
    static const zt::AttributedString line = attributedString(u"\n");
    return line;
}

zt::AttributedString attributedString(QStringView text)
{
    return zt::AttributedString(text.toString(), labelAttributes());
}

zt::AttributedString attributedStringWithColor(QStringView text, std::optional<QColor> color)
{
    return attributedStringWithColor(attributedString(text), std::move(color));
}

zt::AttributedString attributedStringWithColor(const zt::AttributedString &string,
                                               std::optional<QColor> color)
{
    zt::AttributedString result = string;
    result.addAttributes({std::nullopt, std::move(color), tailingParagraphStyle()}, 0, result.length());
    return result;
}

zt::AttributedString attributedStringByAddingSubtext(const zt::AttributedString &string, QStringView subtext,
                                                     const QColor &color)
{
    qsizetype firstLine = string.string().indexOf(u'\n');
    if (firstLine < 0)
        firstLine = string.length();
    return withSubtext(string, firstLine, newline(), subtext, color);
}

zt::AttributedString attributedStringByAddingAcctext(const zt::AttributedString &string, QStringView acctext,
                                                     const QColor &color)
{
    static const zt::AttributedString space = attributedString(u" ");
    return withSubtext(string, string.length(), space, acctext, color);
}

zt::AttributedString defaultAttributedDescriptionWithBigAndSmall(QStringView big, QStringView small)
{
    return attributedStringByAddingSubtext(attributedString(big), small);
}

std::optional<zt::AttributedString> selectedAttributedString(const zt::AttributedString &string)
{
    const QList<QStringView> lines = QStringView(string.string()).split(u'\n');
    if (lines.size() > 3)
        return std::nullopt;
    zt::AttributedString result = attributedStringWithColor(lines.front(), QColor(Qt::white));
    for (qsizetype i = 1; i < lines.size(); ++i)
        result = attributedStringByAddingSubtext(result, lines[i], selectedSubtextColor());
    return result;
}

} // namespace irc
