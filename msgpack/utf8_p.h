// UTF-8 to and from QString without a byte array in between. The results are those of QString::toUtf8() and
// QString::fromUtf8(), byte for byte and character for character.
#pragma once

#include <QString>

namespace MsgPackPrivate
{

// The number of bytes that `string` takes: up to three times its length.
quint32 utf8_length(const QString &string);

// Writes the bytes of `string` at `bytes`, all utf8_length() of them. A surrogate without its counterpart
// becomes a question mark.
void utf8_write(const QString &string, quint8 *bytes);

// The same for a string of nothing but ASCII, a byte for each character. Any other makes it return false,
// with some of these bytes written or none.
bool utf8_write_ascii(const QString &string, quint8 *bytes);

// The string of the `length` bytes at `bytes`, at most maxStringSize.
QString utf8_read(const quint8 *bytes, int length);

} // namespace MsgPackPrivate
