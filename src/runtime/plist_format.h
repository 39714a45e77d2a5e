#pragma once
// Layout of a binary property list, shared by the reader and the writer.
//
//   "bplist00"                     8-byte header
//   objects                        each starts with a marker byte: high nibble
//                                  the type, low nibble a size or count
//   offset table                   one big-endian offset per object, each
//                                  offsetIntSize bytes wide, in object order
//   trailer (32 bytes)             6 unused bytes (the sixth is a sort version,
//                                  written 0), offsetIntSize, objectRefSize,
//                                  then three big-endian 64-bit words: object
//                                  count, top object index, offset-table offset
//
// Markers (n = low nibble):
//   0x00 null  0x08 false  0x09 true  0x0F fill (padding, never an object)
//   0x1n integer of 2^n bytes: 1, 2 and 4 bytes unsigned, 8 bytes signed,
//        16 bytes a signed 128-bit value (written only above INT64_MAX)
//   0x2n real of 2^n bytes (float32 or float64)
//   0x33 date: float64 seconds since 2001-01-01T00:00:00Z
//   0x4n data of n bytes      0x5n ASCII string of n bytes
//   0x6n string of n UTF-16BE code units
//   0x8n UID of n+1 bytes     0xAn array of n object references
//   0xDn dictionary: n key references, then n value references
// A count of 15 or more is written as n = 0xF followed by an integer object.
// Object references are objectRefSize-byte big-endian indexes into the offset
// table.

#include <QtEndian>
#include <QtGlobal>
#include <cstring>

namespace zt::plist::format {

inline constexpr char Magic[8] = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
inline constexpr qsizetype MagicSize = 8;
inline constexpr qsizetype TrailerSize = 32;

enum Marker : quint8
{
    Null = 0x00,
    False = 0x08,
    True = 0x09,
    Fill = 0x0F,
    Int = 0x10,
    Real = 0x20,
    Date = 0x33,
    Data = 0x40,
    AsciiString = 0x50,
    Utf16String = 0x60,
    Uid = 0x80,
    Array = 0xA0,
    OrderedSet = 0xB0,
    Set = 0xC0,
    Dict = 0xD0,
};

//! Low nibble that announces a following integer count.
inline constexpr quint8 ExtendedCount = 0x0F;

//! Seconds from the Unix epoch to 2001-01-01T00:00:00Z, in milliseconds.
inline constexpr qint64 ReferenceDateMSecs = Q_INT64_C(978307200000);

//! Width (1, 2, 4 or 8 bytes) the writer uses for an unsigned quantity.
inline constexpr int byteWidth(quint64 v)
{
    return v < 0x100ULL ? 1 : v < 0x10000ULL ? 2 : v < 0x100000000ULL ? 4 : 8;
}

//! log2 of a width of 1, 2, 4 or 8 bytes, the low nibble of an integer marker.
inline constexpr quint8 widthLog2(int width)
{
    return width == 1 ? 0 : width == 2 ? 1 : width == 4 ? 2 : 3;
}

inline quint64 readBigEndian(const uchar *p, int width)
{
    switch (width) {
    case 1:
        return p[0];
    case 2:
        return qFromBigEndian<quint16>(p);
    case 4:
        return qFromBigEndian<quint32>(p);
    case 8:
        return qFromBigEndian<quint64>(p);
    default: {
        quint64 v = 0;
        for (int i = 0; i < width; ++i)
            v = (v << 8) | p[i];
        return v;
    }
    }
}

inline void writeBigEndian(uchar *p, quint64 v, int width)
{
    for (int i = width - 1; i >= 0; --i) {
        p[i] = uchar(v);
        v >>= 8;
    }
}

inline double bitsToDouble(quint64 bits)
{
    double d;
    std::memcpy(&d, &bits, sizeof d);
    return d;
}

inline quint64 doubleToBits(double d)
{
    quint64 bits;
    std::memcpy(&bits, &d, sizeof bits);
    return bits;
}

} // namespace zt::plist::format
