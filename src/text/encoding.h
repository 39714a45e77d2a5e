#pragma once
// Text encodings: the platform's numeric encoding identifiers, strict
// conversions between bytes and text, and the best-guess conversions that the
// IRC engine uses for every line it receives or sends.
//
// Identifiers are the platform's string-encoding numbers, so that settings
// stored by either process (a connection's or channel's "encoding") keep
// their meaning: the platform's own constants (ASCII 1, UTF-8 4, ISO Latin 1
// 5, …) and, for the other encodings, the CoreFoundation encoding number with
// the high bit set (ISO Latin 9 is 0x8000020F). 0 is no encoding; a
// connection uses it for "inherit".
//
// Conversions are strict: decoding fails on any byte sequence the encoding
// does not define, encoding fails on any character it cannot represent (no
// substitution, no best-fit mapping). Unicode forms reject unpaired
// surrogates both ways.

#include "zt_export.h"

#include <QByteArray>
#include <QList>
#include <QString>

namespace encoding {

using StringEncoding = quint64;

inline constexpr StringEncoding ASCIIStringEncoding = 1;
inline constexpr StringEncoding JapaneseEUCStringEncoding = 3;
inline constexpr StringEncoding UTF8StringEncoding = 4;
inline constexpr StringEncoding ISOLatin1StringEncoding = 5;
inline constexpr StringEncoding ShiftJISStringEncoding = 8;
inline constexpr StringEncoding ISOLatin2StringEncoding = 9;
//! UTF-16 with a byte-order mark (written in host order, read in either).
inline constexpr StringEncoding UnicodeStringEncoding = 10;
inline constexpr StringEncoding WindowsCP1251StringEncoding = 11;
inline constexpr StringEncoding WindowsCP1252StringEncoding = 12;
inline constexpr StringEncoding WindowsCP1253StringEncoding = 13;
inline constexpr StringEncoding WindowsCP1254StringEncoding = 14;
inline constexpr StringEncoding WindowsCP1250StringEncoding = 15;
inline constexpr StringEncoding ISO2022JPStringEncoding = 21;
inline constexpr StringEncoding MacOSRomanStringEncoding = 30;
inline constexpr StringEncoding UTF16BigEndianStringEncoding = 0x90000100;
inline constexpr StringEncoding UTF16LittleEndianStringEncoding = 0x94000100;
//! UTF-32 with a byte-order mark (written in host order, read in either).
inline constexpr StringEncoding UTF32StringEncoding = 0x8c000100;
inline constexpr StringEncoding UTF32BigEndianStringEncoding = 0x98000100;
inline constexpr StringEncoding UTF32LittleEndianStringEncoding = 0x9c000100;
inline constexpr StringEncoding ISOLatin9StringEncoding = 0x8000020F;
inline constexpr StringEncoding KOI8RStringEncoding = 0x80000A02;
inline constexpr StringEncoding GB18030StringEncoding = 0x80000632;
inline constexpr StringEncoding Big5StringEncoding = 0x80000A03;
inline constexpr StringEncoding EUCKRStringEncoding = 0x80000940;

//! One known encoding.
struct StringEncodingInfo
{
    StringEncoding encoding = 0;
    //! The name users see ("Western (ISO Latin 9)").
    QString name;
    //! The character-set name it is converted with ("ISO-8859-15"); the same
    //! name IRC servers announce and iconv accepts.
    QString charset;
};

//! Every encoding this machine can convert, in the order of the table: the
//! Unicode and Western encodings first, then by script.
ZT_EXPORT QList<StringEncodingInfo> availableStringEncodings();

//! True when the identifier is in the table and this machine converts it.
ZT_EXPORT bool isAvailableStringEncoding(StringEncoding encoding);

//! The user-visible name, or an empty string for an unknown identifier.
ZT_EXPORT QString localizedNameOfStringEncoding(StringEncoding encoding);

//! The identifier for a character-set name ("utf-8", "ISO-8859-15",
//! "koi8-r"; letter case and the separators '-' and '_' are ignored), or 0.
ZT_EXPORT StringEncoding stringEncodingForCharset(QStringView charset);

//! The bytes decoded strictly, or a null string when the bytes are not valid
//! in the encoding or the encoding is unknown. Empty bytes give an empty,
//! non-null string.
ZT_EXPORT QString stringWithData(const QByteArray &data, StringEncoding encoding);

//! The text encoded without loss, or a null buffer when some character has
//! no representation or the encoding is unknown. Empty text gives an empty,
//! non-null buffer.
ZT_EXPORT QByteArray dataUsingEncoding(const QString &text, StringEncoding encoding);

//! The bytes decoded with the first encoding that accepts them: `preferred`,
//! then UTF-8, then ISO 8859-1, then ISO 8859-15. Since ISO 8859-1 accepts
//! every byte, this only fails (logging ">>> Could not deserialize <bytes>"
//! and answering a null string) when nothing is tried; in practice never.
ZT_EXPORT QString bestGuessString(const QByteArray &data, StringEncoding preferred);

//! The text encoded, without loss, with the first encoding that yields bytes:
//! `preferred`, then ISO 8859-15, then ISO 8859-1, then UTF-8 (Latin first
//! and UTF-8 last, unlike decoding). Empty text gives an empty buffer. Text
//! that none can encode (an unpaired surrogate) is logged as ">>> Could not
//! serialize <text>" and gives a null buffer.
ZT_EXPORT QByteArray bestGuessData(const QString &text, StringEncoding preferred);

} // namespace encoding
