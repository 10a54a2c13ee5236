#include "msgpack/time.h"

#include "msgpack/msgpackstream.h"
#include "msgpack/qt_types_p.h"

#include <QDateTime>

using namespace MsgPackPrivate;

MsgPackStream &operator<<(MsgPackStream &stream, const QTime &time)
{
    write_payload(stream, QMetaType::QTime, pack_qtime(time));
    return stream;
}

MsgPackStream &operator<<(MsgPackStream &stream, const QDate &date)
{
    write_payload(stream, QMetaType::QDate, pack_qdate(date));
    return stream;
}

MsgPackStream &operator<<(MsgPackStream &stream, const QDateTime &dateTime)
{
    write_payload(stream, QMetaType::QDateTime, pack_qdatetime(dateTime));
    return stream;
}

MsgPackStream &operator>>(MsgPackStream &stream, QTime &time)
{
    QByteArray payload;
    if (read_payload(
            stream, [](quint32 n) { return n == 1 || n == 2 || n == 4; }, payload)) {
        time = unpack_qtime(payload).toTime();
    }
    return stream;
}

MsgPackStream &operator>>(MsgPackStream &stream, QDate &date)
{
    QByteArray payload;
    if (read_payload(
            stream, [](quint32 n) { return n == 1 || n == 3; }, payload)) {
        date = unpack_qdate(payload).toDate();
    }
    return stream;
}

MsgPackStream &operator>>(MsgPackStream &stream, QDateTime &dateTime)
{
    QByteArray payload;
    if (read_payload(
            stream, [](quint32 n) { return n == 1 || n == 5 || n == 7; }, payload)) {
        dateTime = unpack_qdatetime(payload).toDateTime();
    }
    return stream;
}
