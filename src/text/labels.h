#pragma once
// Attributed labels for the lists of connections, channels and persons: a
// big first line with smaller, dimmer lines below it ("subtext"), or a big
// text followed on the same line by a small one ("acctext"). Every label
// truncates at the tail instead of wrapping.
//
// Fonts are the GUI's general system font when a QGuiApplication exists and
// Qt's default font otherwise, so labels can be built in any process.

#include "text/attributedstring.h"
#include "zt_export.h"

#include <QColor>
#include <QFont>
#include <QStringView>

#include <optional>

namespace irc {

//! Point sizes of the label's main text and of its subtext.
inline constexpr qreal LabelFontSize = 13;
inline constexpr qreal SubtextFontSize = 11;

//! The system font at the given size.
ZT_EXPORT QFont systemFont(qreal pointSize);

//! The default dim colour of subtext: a neutral grey of white level 0.5.
ZT_EXPORT QColor grayColor();

//! The default paragraph style with tail truncation; built once.
ZT_EXPORT const zt::ParagraphStyle &tailingParagraphStyle();

//! "\n" as made by attributedString(); built once.
ZT_EXPORT const zt::AttributedString &newline();

//! The text with the tail-truncating style and a black foreground over its
//! whole length (one attribute set, shared by every call).
ZT_EXPORT zt::AttributedString attributedString(QStringView text);

//! attributedString(text) passed through the attributed-string overload below.
ZT_EXPORT zt::AttributedString attributedStringWithColor(QStringView text, std::optional<QColor> color);

//! A copy with the tail-truncating style over the whole length, and the
//! foreground colour too when one is given.
ZT_EXPORT zt::AttributedString attributedStringWithColor(const zt::AttributedString &string,
                                                         std::optional<QColor> color);

//! The string's first line (up to the first line feed) in the 13-point system
//! font with the tail-truncating style, later lines as they were; then
//! newline(); then `subtext` as attributedString() in the 11-point system font
//! and `color`.
ZT_EXPORT zt::AttributedString attributedStringByAddingSubtext(const zt::AttributedString &string,
                                                               QStringView subtext,
                                                               const QColor &color = grayColor());

//! Like attributedStringByAddingSubtext(), but the 13-point font and the style
//! cover the whole string and the two parts are joined by one space.
ZT_EXPORT zt::AttributedString attributedStringByAddingAcctext(const zt::AttributedString &string,
                                                               QStringView acctext,
                                                               const QColor &color = grayColor());

//! `big` as attributedString() with `small` added as subtext in grey.
ZT_EXPORT zt::AttributedString defaultAttributedDescriptionWithBigAndSmall(QStringView big,
                                                                           QStringView small);

//! The label's look on a selected row. The plain text is split at line feeds:
//! one line gives it in white; two or three lines give the first in white
//! and each further line added as subtext in a light grey (white level 0.8).
//! More than three lines give no result.
ZT_EXPORT std::optional<zt::AttributedString> selectedAttributedString(const zt::AttributedString &string);

} // namespace irc
