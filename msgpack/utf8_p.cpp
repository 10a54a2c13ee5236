#include "msgpack/utf8_p.h"

#include <cstring>

namespace
{

constexpr quint64 aboveAsciiUnits = 0xff80ff80ff80ff80;
constexpr quint64 aboveAsciiBytes = 0x8080808080808080;

// What follows goes over the text eight bytes at a time, and over the last eight of them even if it has been
// over some of these before: that is shorter than to do the rest singly. Only texts of less than eight bytes
// are done singly.

template <class Word, class Unit>
Word s_load(const Unit *units)
{
    Word word;
    std::memcpy(&word, units, sizeof word);
    return word;
}

// Whether `length` units, characters or bytes, have none of the bits of `aboveAscii` set.
template <class Unit>
bool s_isAscii(const Unit *units, int length, quint64 aboveAscii)
{
    constexpr int perWord = sizeof(quint64) / sizeof(Unit);
    if (length < perWord) {
        uint all = 0;
        for (int i = 0; i < length; ++i) {
            all |= units[i];
        }
        return all < 0x80;
    }
    for (int i = 0; i < length - perWord; i += perWord) {
        if (s_load<quint64>(units + i) & aboveAscii) {
            return false;
        }
    }
    return !(s_load<quint64>(units + length - perWord) & aboveAscii);
}

// Writes four units as bytes, in either byte order. False if they are not all ASCII.
bool s_narrowFour(const ushort *units, quint8 *bytes)
{
    quint64 word = s_load<quint64>(units);
    if (word & aboveAsciiUnits) {
        return false;
    }
    word = (word | word >> 8) & 0x0000ffff0000ffff;
    const auto narrow = static_cast<quint32>(word | word >> 16);
    std::memcpy(bytes, &narrow, sizeof narrow);
    return true;
}

bool s_narrowFew(const ushort *units, int length, quint8 *bytes)
{
    uint all = 0;
    for (int i = 0; i < length; ++i) {
        all |= units[i];
        bytes[i] = static_cast<quint8>(units[i]);
    }
    return all < 0x80;
}

// The code point that begins at `*unit`, which then points behind it; a question mark, as toUtf8() has it,
// for half a surrogate pair.
uint s_takeCodePoint(const ushort *&unit, const ushort *end)
{
    const ushort first = *unit++;
    if (!QChar::isSurrogate(first)) {
        return first;
    }
    if (!QChar::isHighSurrogate(first) || unit == end || !QChar::isLowSurrogate(*unit)) {
        return '?';
    }
    return QChar::surrogateToUcs4(first, *unit++);
}

constexpr uint s_bytesOf(uint codePoint)
{
    return codePoint < 0x80 ? 1 : codePoint < 0x800 ? 2 : codePoint < 0x10000 ? 3 : 4;
}

// The byte of `codePoint` whose lowest bit is bit `shift`, which is not its first one.
constexpr quint8 s_continuation(uint codePoint, int shift)
{
    return static_cast<quint8>(0x80 | (codePoint >> shift & 0x3f));
}

quint8 *s_writeCodePoint(uint codePoint, quint8 *at)
{
    constexpr quint8 lead[] = {0, 0, 0xc0, 0xe0, 0xf0};
    const uint count = s_bytesOf(codePoint);
    int shift = static_cast<int>(count - 1) * 6;
    *at++ = static_cast<quint8>(lead[count] | codePoint >> shift);
    while (shift > 0) {
        shift -= 6;
        *at++ = s_continuation(codePoint, shift);
    }
    return at;
}

const ushort *s_units(const QString &string)
{
    return reinterpret_cast<const ushort *>(string.constData());
}

} // namespace

quint32 MsgPackPrivate::utf8_length(const QString &string)
{
    const ushort *unit = s_units(string);
    const ushort *end = unit + string.size();
    if (s_isAscii(unit, string.size(), aboveAsciiUnits)) {
        return static_cast<quint32>(string.size());
    }
    quint32 length = 0;
    while (unit != end) {
        length += s_bytesOf(s_takeCodePoint(unit, end));
    }
    return length;
}

void MsgPackPrivate::utf8_write(const QString &string, quint8 *bytes)
{
    const ushort *unit = s_units(string);
    const ushort *end = unit + string.size();
    while (unit != end) {
        bytes = s_writeCodePoint(s_takeCodePoint(unit, end), bytes);
    }
}

bool MsgPackPrivate::utf8_write_ascii(const QString &string, quint8 *bytes)
{
    const ushort *units = s_units(string);
    const int length = string.size();
    if (length < 4) {
        return s_narrowFew(units, length, bytes);
    }
    for (int i = 0; i < length - 4; i += 4) {
        if (!s_narrowFour(units + i, bytes + i)) {
            return false;
        }
    }
    return s_narrowFour(units + length - 4, bytes + length - 4);
}

QString MsgPackPrivate::utf8_read(const quint8 *bytes, int length)
{
    const auto *text = reinterpret_cast<const char *>(bytes);
    return s_isAscii(bytes, length, aboveAsciiBytes) ? QString::fromLatin1(text, length)
                                                     : QString::fromUtf8(text, length);
}
