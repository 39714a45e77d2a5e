#pragma once
// IRC colour and style codes. Text from IRC carries in-line control code
// units for styles; these functions turn it into an HTML fragment for the
// message view or into plain text with every control sequence removed.
//
//   0x02 bold       toggles bold
//   0x03 colour     ends any open colour, then starts one when digits follow:
//                   "\x03" fg[fg] ["," [bg[bg]]], at most two digits each
//   0x0F reset      ends every open style
//   0x16 reverse    toggles reverse video (white on black)
//   0x1A italic     toggles italic (0x1D is ordinary text)
//   0x1F underline  toggles underline
//
// Each style that turns on opens a <span> with in-line CSS; each that turns
// off emits a plain "</span>", whichever span was opened last. The output is
// therefore not always properly nested (bold, colour, bold closes the colour
// element): the message view's style sheets are written for exactly this
// output, so it must not be "fixed". Styles still on at the end are closed.
//
// No HTML escaping happens here: escape first (irc::escapedString) when the
// HTML form is wanted. All positions are UTF-16 code units.

#include "zt_export.h"

#include <QString>
#include <QStringView>

namespace irc {

//! The one converter: the HTML form when `html` is true, the plain form
//! (every control code, colour number and consumed comma dropped) otherwise.
//! A colour number that ends the text is complete: "a\x034" is "a" in an
//! opened and closed red span.
ZT_EXPORT QString parseColorCodes(QStringView text, bool html);

//! Same; a text without any control code is returned as is (shared, no copy).
ZT_EXPORT QString parseColorCodes(const QString &text, bool html);

//! parseColorCodes(text, true).
ZT_EXPORT QString coloredString(QStringView text);
ZT_EXPORT QString coloredString(const QString &text);

//! parseColorCodes(text, false).
ZT_EXPORT QString strippedString(QStringView text);
ZT_EXPORT QString strippedString(const QString &text);

//! The CSS colour keyword for an IRC colour number: 0 white, 1 black, 2 navy,
//! 3 green, 4 red, 5 brown, 6 purple, 7 orange, 8 yellow, 9 lime, 10 teal,
//! 11 aqua, 12 blue, 13 fuchsia, 14 gray, 15 silver. Negative numbers give
//! "black"; 16 and above wrap modulo 16 (16 is "white", 99 is "green").
ZT_EXPORT QString getColor(int number);

//! True when `index` is inside the text and the low byte of the code unit
//! there, as a signed byte, is an ASCII digit. Only the low byte counts, so
//! U+0131 (low byte 0x31) reads as the digit 1; the colour parser depends on
//! this exact test.
ZT_EXPORT bool isNumericAtIndex(QStringView text, qsizetype index);

//! The digit's value under the same low-byte rule; 0 for a non-digit or an
//! index outside the text.
ZT_EXPORT int intAtIndex(QStringView text, qsizetype index);

} // namespace irc
