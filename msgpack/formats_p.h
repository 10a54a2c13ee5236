// The first bytes of the MessagePack formats. The fix formats carry a small number in their low bits.
#pragma once

#include <QtGlobal>

namespace MsgPackPrivate
{

enum FirstByte : quint8 {
    PositiveFixint = 0x00, // to 0x7f
    Fixmap = 0x80,         // to 0x8f
    Fixarray = 0x90,       // to 0x9f
    Fixstr = 0xa0,         // to 0xbf
    Nil = 0xc0,
    NeverUsed = 0xc1,
    False = 0xc2,
    True = 0xc3,
    Bin8 = 0xc4,
    Bin16 = 0xc5,
    Bin32 = 0xc6,
    Ext8 = 0xc7,
    Ext16 = 0xc8,
    Ext32 = 0xc9,
    Float32 = 0xca,
    Float64 = 0xcb,
    Uint8 = 0xcc,
    Uint16 = 0xcd,
    Uint32 = 0xce,
    Uint64 = 0xcf,
    Int8 = 0xd0,
    Int16 = 0xd1,
    Int32 = 0xd2,
    Int64 = 0xd3,
    Fixext1 = 0xd4,
    Fixext2 = 0xd5,
    Fixext4 = 0xd6,
    Fixext8 = 0xd7,
    Fixext16 = 0xd8,
    Str8 = 0xd9,
    Str16 = 0xda,
    Str32 = 0xdb,
    Array16 = 0xdc,
    Array32 = 0xdd,
    Map16 = 0xde,
    Map32 = 0xdf,
    NegativeFixint = 0xe0, // to 0xff
};

constexpr bool isFixstr(quint8 first)
{
    return first >= Fixstr && first < Nil;
}

constexpr bool isExtension(quint8 first)
{
    return (first >= Ext8 && first <= Ext32) || (first >= Fixext1 && first <= Fixext16);
}

} // namespace MsgPackPrivate
