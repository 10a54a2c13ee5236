// How much Qt's containers hold: they keep all of their memory, their own bookkeeping included, within the
// range of an int, and throw when asked for more. Maps need no bound: they count their entries in an int, and
// an input has fewer bytes than that.
#pragma once

#include <QtGlobal>

namespace MsgPackPrivate
{

constexpr quint32 maxByteArraySize = 0x7fffffff - 64;
constexpr quint32 maxListSize = maxByteArraySize / sizeof(void *);
constexpr quint32 maxStringSize = maxByteArraySize / 2; // also of the UTF-8 that a string is made from

} // namespace MsgPackPrivate
