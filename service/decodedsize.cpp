#include "service/decodedsize.h"

#include "msgpack/formats_p.h"

#include <QtEndian>

#include <array>

using namespace MsgPackPrivate;

namespace
{

// What decoded MessagePack is made of, in bytes. An item does not tell whether it stands in a list or in a
// map: the record of a map's entry, and the text that a number becomes as a key, are counted with the map.
constexpr qint64 perItem = 48;      // an element of a list with its variant
constexpr qint64 perContainer = 96; // the records of a list or map and of its first entry
constexpr qint64 perText = 48;      // the record of a text or byte array
constexpr qint64 perCharacter = 2;

// What a parsed schema is made of: the document's own record of everything, its copy in variants, and
// attributes.
constexpr qint64 perJsonByte = 4; // of the whole text: texts are held three times for a while
constexpr qint64 perJsonValue = 64;
constexpr qint64 perJsonContainer = 112;
constexpr qint64 perJsonText = 64;
constexpr qint64 perJsonName = 176; // beside the text that it is

enum class Content : quint8 { None, Elements, Text, Bytes };

// How an item goes on behind its first byte: a big-endian number of `lengthWidth` bytes, then `extra` bytes,
// then as many bytes of payload as the number says if the content is text or bytes.
struct Layout {
    quint8 lengthWidth;
    quint8 extra;
    Content content;
};

constexpr Layout s_plain(quint8 size)
{
    return {0, size, Content::None};
}

// By first byte, from Nil to Map32.
constexpr std::array<Layout, 32> layouts = {{
    s_plain(0),
    s_plain(0),
    s_plain(0),
    s_plain(0),
    {1, 0, Content::Bytes},
    {2, 0, Content::Bytes},
    {4, 0, Content::Bytes},
    {1, 1, Content::Bytes},
    {2, 1, Content::Bytes},
    {4, 1, Content::Bytes},
    s_plain(4),
    s_plain(8),
    s_plain(1),
    s_plain(2),
    s_plain(4),
    s_plain(8),
    s_plain(1),
    s_plain(2),
    s_plain(4),
    s_plain(8),
    s_plain(1 + 1),
    s_plain(1 + 2),
    s_plain(1 + 4),
    s_plain(1 + 8),
    s_plain(1 + 16),
    {1, 0, Content::Text},
    {2, 0, Content::Text},
    {4, 0, Content::Text},
    {2, 0, Content::Elements},
    {4, 0, Content::Elements},
    {2, 0, Content::Elements},
    {4, 0, Content::Elements},
}};

struct Item {
    qint64
        onTheWire; // bytes from its first one to the next item's; a container's elements are items themselves
    qint64 inMemory;
};

Item s_container()
{
    return {1, perItem + perContainer};
}

Item s_text(qint64 header, qint64 length)
{
    return {header + length, perItem + perText + perCharacter * length};
}

quint32 s_number(const quint8 *p, int width)
{
    switch (width) {
    case 1:
        return *p;
    case 2:
        return qFromBigEndian<quint16>(p);
    default:
        return qFromBigEndian<quint32>(p);
    }
}

// An item of which nothing but its layout is known; `left` bytes are there from its first one on.
Item s_itemWithHeader(const quint8 *p, qint64 left)
{
    const Layout layout = layouts.at(*p - Nil);
    const qint64 header = 1 + layout.lengthWidth + layout.extra;
    if (header > left) {
        return {header, 0};
    }
    switch (layout.content) {
    case Content::None:
        return {header, perItem};
    case Content::Elements:
        return {header, perItem + perContainer};
    case Content::Text:
    case Content::Bytes:
        break;
    }
    const qint64 length = s_number(p + 1, layout.lengthWidth);
    return length > left - header ? Item{left, 0} : s_text(header, length);
}

Item s_item(const quint8 *p, qint64 left)
{
    if (*p < Fixmap || *p >= NegativeFixint) {
        return {1, perItem};
    }
    if (*p < Fixstr) {
        return s_container();
    }
    return *p < Nil ? s_text(1, *p - Fixstr) : s_itemWithHeader(p, left);
}

} // namespace

// Containers need no stack here: what they hold stands behind them, item after item. What a message announces
// and does not hold is not counted: decoding takes nothing for it.
qint64 unpackedSize(const QByteArray &message)
{
    const auto *p = reinterpret_cast<const quint8 *>(message.constData());
    qint64 left = message.size();
    qint64 size = 0;
    while (left > 0) {
        const Item item = s_item(p, left);
        size += item.inMemory;
        p += item.onTheWire;
        left -= item.onTheWire;
    }
    return size;
}

// Outside of texts, a bracket opens a container, a colon ends a name, and each value has a comma or a bracket
// before it.
qint64 parsedSize(const QByteArray &text)
{
    qint64 size = perJsonByte * text.size();
    bool isInText = false;
    bool isEscaped = false;
    for (const char character : text) {
        if (isInText) {
            isInText = isEscaped || character != '"';
            isEscaped = !isEscaped && character == '\\';
            continue;
        }
        switch (character) {
        case '"':
            isInText = true;
            size += perJsonText;
            break;
        case '{':
        case '[':
            size += perJsonContainer + perJsonValue;
            break;
        case ',':
            size += perJsonValue;
            break;
        case ':':
            size += perJsonName;
            break;
        default:
            break;
        }
    }
    return size;
}
