#include "msgpack/geometry.h"

#include "msgpack/msgpackstream.h"
#include "msgpack/qt_types_p.h"

#include <QPoint>
#include <QRect>
#include <QSize>

using namespace MsgPackPrivate;

namespace
{

// A byte alone for the default, or `count` integers of any format: 1 to 9 bytes.
template <int count>
bool s_isLength(quint32 length)
{
    return length == 1 || (length >= count && length <= 9 * count);
}

template <int count, class T>
MsgPackStream &s_read(MsgPackStream &stream, QVariant (*unpack)(const QByteArray &), T &value)
{
    QByteArray payload;
    if (!read_payload(stream, s_isLength<count>, payload)) {
        return stream;
    }
    int numbers[count];
    if (payload.size() == 1 || unpack_numbers(payload, numbers, count)) {
        value = unpack(payload).template value<T>();
    } else {
        stream.setStatus(MsgPackStream::ReadCorruptData);
    }
    return stream;
}

} // namespace

MsgPackStream &operator<<(MsgPackStream &stream, const QPoint &point)
{
    write_payload(stream, QMetaType::QPoint, pack_qpoint(point));
    return stream;
}

MsgPackStream &operator<<(MsgPackStream &stream, const QSize &size)
{
    write_payload(stream, QMetaType::QSize, pack_qsize(size));
    return stream;
}

MsgPackStream &operator<<(MsgPackStream &stream, const QRect &rect)
{
    write_payload(stream, QMetaType::QRect, pack_qrect(rect));
    return stream;
}

MsgPackStream &operator>>(MsgPackStream &stream, QPoint &point)
{
    return s_read<2>(stream, unpack_qpoint, point);
}

MsgPackStream &operator>>(MsgPackStream &stream, QSize &size)
{
    return s_read<2>(stream, unpack_qsize, size);
}

MsgPackStream &operator>>(MsgPackStream &stream, QRect &rect)
{
    return s_read<4>(stream, unpack_qrect, rect);
}
