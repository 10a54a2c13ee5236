#include "vorbel/wellformed_p.h"

#include "msgpack/formats_p.h"
#include "vorbel/arrays_p.h"
#include "vorbel/wire.h"

#include <QVarLengthArray>
#include <QtEndian>

#include <array>

using namespace MsgPackPrivate;

namespace Vorbel
{

namespace
{

enum class Kind : quint8 { Invalid, Plain, Text, Bytes, Extension, Array, Map };

// How an item goes on behind its first byte: a big-endian number of `lengthWidth` bytes, which is the length
// of its content or the count of its elements, or the fixed length of its content. An extension's type comes
// in between.
struct Layout {
    Kind kind;
    quint8 lengthWidth;
    quint8 length;
};

// By first byte, from Nil to Map32.
constexpr std::array<Layout, 32> layouts = {{
    {Kind::Plain, 0, 0},      {Kind::Invalid, 0, 0},   {Kind::Plain, 0, 0},     {Kind::Plain, 0, 0},
    {Kind::Bytes, 1, 0},      {Kind::Bytes, 2, 0},     {Kind::Bytes, 4, 0},     {Kind::Extension, 1, 0},
    {Kind::Extension, 2, 0},  {Kind::Extension, 4, 0}, {Kind::Plain, 0, 4},     {Kind::Plain, 0, 8},
    {Kind::Plain, 0, 1},      {Kind::Plain, 0, 2},     {Kind::Plain, 0, 4},     {Kind::Plain, 0, 8},
    {Kind::Plain, 0, 1},      {Kind::Plain, 0, 2},     {Kind::Plain, 0, 4},     {Kind::Plain, 0, 8},
    {Kind::Extension, 0, 1},  {Kind::Extension, 0, 2}, {Kind::Extension, 0, 4}, {Kind::Extension, 0, 8},
    {Kind::Extension, 0, 16}, {Kind::Text, 1, 0},      {Kind::Text, 2, 0},      {Kind::Text, 4, 0},
    {Kind::Array, 2, 0},      {Kind::Array, 4, 0},     {Kind::Map, 2, 0},       {Kind::Map, 4, 0},
}};

Layout s_layout(quint8 first)
{
    if (first < Fixmap || first >= NegativeFixint) {
        return {Kind::Plain, 0, 0};
    }
    if (first < Fixarray) {
        return {Kind::Map, 0, quint8(first - Fixmap)};
    }
    if (first < Fixstr) {
        return {Kind::Array, 0, quint8(first - Fixarray)};
    }
    if (first < Nil) {
        return {Kind::Text, 0, quint8(first - Fixstr)};
    }
    return layouts.at(first - Nil);
}

// Goes along the items of a message.
class Scan
{
public:
    explicit Scan(const QByteArray &message)
        : m_at(reinterpret_cast<const quint8 *>(message.constData())), m_end(m_at + message.size())
    {
    }

    QString malformation()
    {
        QString found;
        m_left.append({1, false});
        while (found.isNull() && !m_left.isEmpty()) {
            if (m_left.last().items == 0) {
                m_left.removeLast();
            } else {
                found = passItem();
            }
        }
        return found.isNull() && m_at != m_end ? QStringLiteral("more than one value") : found;
    }

private:
    // What has not been passed yet of a container; names and values of a map take turns.
    struct Left {
        quint64 items;
        bool isMap;
    };

    QString passItem()
    {
        Left &left = m_left.last();
        const bool isName = left.isMap && left.items % 2 == 0;
        --left.items;
        if (m_at == m_end) {
            return endsTooEarly();
        }
        if (++m_passed > valuesMax) {
            return QStringLiteral("more than %1 values").arg(valuesMax);
        }
        const Layout layout = s_layout(*m_at++);
        return isName && layout.kind != Kind::Text ? QStringLiteral("a name that is no text")
                                                   : passContent(layout);
    }

    QString passContent(const Layout &layout)
    {
        quint64 length = layout.length;
        if (layout.lengthWidth > 0 && !takeNumber(length, layout.lengthWidth)) {
            return endsTooEarly();
        }
        switch (layout.kind) {
        case Kind::Invalid:
            return QStringLiteral("a byte that begins no value");
        case Kind::Array:
            return enter({length, false});
        case Kind::Map:
            return enter({2 * length, true});
        case Kind::Extension:
            return passExtension(length);
        default:
            return pass(length);
        }
    }

    QString passExtension(quint64 length)
    {
        if (m_at == m_end) {
            return endsTooEarly();
        }
        const auto type = static_cast<qint8>(*m_at++);
        const int width = elementWidth(type);
        if (width == 0) {
            return QStringLiteral("an extension of the unknown type %1").arg(type);
        }
        return length % static_cast<quint64>(width) == 0
                   ? pass(length)
                   : QStringLiteral("an array that ends within an element");
    }

    QString enter(Left left)
    {
        m_left.append(left);
        return m_left.size() > nestingLimit + 1 ? QStringLiteral("nested more than %1 deep").arg(nestingLimit)
                                                : QString();
    }

    QString pass(quint64 length)
    {
        if (static_cast<quint64>(m_end - m_at) < length) {
            return endsTooEarly();
        }
        m_at += length;
        return QString();
    }

    bool takeNumber(quint64 &number, int width)
    {
        if (m_end - m_at < width) {
            return false;
        }
        number = width == 1   ? *m_at
                 : width == 2 ? qFromBigEndian<quint16>(m_at)
                              : qFromBigEndian<quint32>(m_at);
        m_at += width;
        return true;
    }

    static QString endsTooEarly() { return QStringLiteral("it ends within a value"); }

    const quint8 *m_at;
    const quint8 *m_end;
    int m_passed = 0;
    QVarLengthArray<Left, 16> m_left; // of the containers around m_at, the message as a whole being the first
};

} // namespace

QString malformation(const QByteArray &message)
{
    return message.isEmpty() ? QStringLiteral("it is empty") : Scan(message).malformation();
}

} // namespace Vorbel
