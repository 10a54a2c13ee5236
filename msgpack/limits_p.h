// How much Qt's containers hold: they keep their own bookkeeping within the range of an int, too. Asked for
// more, they throw.
#pragma once

#include <QtGlobal>

namespace MsgPackPrivate
{

constexpr quint32 maxByteArraySize = 0x7fffffff - 64;
constexpr quint32 maxStringSize = maxByteArraySize / 2; // also of the UTF-8 that one is made from

} // namespace MsgPackPrivate
