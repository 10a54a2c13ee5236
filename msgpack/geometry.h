// Stream operators of points, sizes and rectangles. They work like those of "msgpack/time.h"; a payload with
// too few numbers, or with one that is not a 32-bit signed integer, is corrupt as well.
#pragma once

class MsgPackStream;
class QPoint;
class QRect;
class QSize;

MsgPackStream &operator<<(MsgPackStream &stream, const QPoint &point);
MsgPackStream &operator<<(MsgPackStream &stream, const QSize &size);
MsgPackStream &operator<<(MsgPackStream &stream, const QRect &rect);

MsgPackStream &operator>>(MsgPackStream &stream, QPoint &point);
MsgPackStream &operator>>(MsgPackStream &stream, QSize &size);
MsgPackStream &operator>>(MsgPackStream &stream, QRect &rect);
