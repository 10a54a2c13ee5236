#include "msgpack/utf8_p.h"

#include <cstring>

namespace
{

constexpr quint64 aboveAsciiUnits = 0xff80ff80ff80ff80;
constexpr quint64 aboveAsciiBytes = 0x8080808080808080;

// Both tests take eight bytes at a time, and the last eight once more rather than the rest singly.
bool s_isAscii(const ushort *units, int length)
{
    quint64 four;
    if (length < 4) {
        uint all = 0;
        for (int i = 0; i < length; ++i) {
            all |= units[i];
        }
        return all < 0x80;
    }
    for (int i = 0; i < length - 4; i += 4) {
        std::memcpy(&four, units + i, sizeof four);
        if (four & aboveAsciiUnits) {
            return false;
        }
    }
    std::memcpy(&four, units + length - 4, sizeof four);
    return !(four & aboveAsciiUnits);
}

bool s_isAscii(const quint8 *bytes, int length)
{
    quint64 eight;
    if (length < 8) {
        uint all = 0;
        for (int i = 0; i < length; ++i) {
            all |= bytes[i];
        }
        return all < 0x80;
    }
    for (int i = 0; i < length - 8; i += 8) {
        std::memcpy(&eight, bytes + i, sizeof eight);
        if (eight & aboveAsciiBytes) {
            return false;
        }
    }
    std::memcpy(&eight, bytes + length - 8, sizeof eight);
    return !(eight & aboveAsciiBytes);
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

} // namespace

quint32 MsgPackPrivate::utf8_length(const QString &string)
{
    const ushort *unit = string.utf16();
    const ushort *end = unit + string.size();
    if (s_isAscii(unit, string.size())) {
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
    const ushort *unit = string.utf16();
    const ushort *end = unit + string.size();
    if (s_isAscii(unit, string.size())) {
        std::copy(unit, end, bytes);
        return;
    }
    while (unit != end) {
        bytes = s_writeCodePoint(s_takeCodePoint(unit, end), bytes);
    }
}

QString MsgPackPrivate::utf8_read(const quint8 *bytes, int length)
{
    const auto *text = reinterpret_cast<const char *>(bytes);
    return s_isAscii(bytes, length) ? QString::fromLatin1(text, length) : QString::fromUtf8(text, length);
}
