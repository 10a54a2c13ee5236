#include "msgpack/qt_types_p.h"

#include "msgpack/msgpackstream.h"
#include "msgpack/pack_p.h"

#include <QDateTime>
#include <QPoint>
#include <QRect>
#include <QSize>
#include <QtEndian>

#include <initializer_list>

using namespace MsgPackPrivate;

namespace
{

constexpr int dateSize = 3;
constexpr int timeSize = 2;
constexpr int timeSizeWithMilliseconds = 4;

// The payload of a value that there is none for.
QByteArray s_nothing()
{
    return QByteArray(1, '\0');
}

const quint8 *s_bytes(const QByteArray &payload)
{
    return reinterpret_cast<const quint8 *>(payload.constData());
}

QByteArray s_payload(const quint8 *bytes, int size)
{
    return QByteArray(reinterpret_cast<const char *>(bytes), size);
}

QByteArray s_packNumbers(std::initializer_list<int> numbers)
{
    quint8 bytes[4 * 5];
    const auto first = reinterpret_cast<position_t>(bytes);
    position_t p = first;
    for (const int number : numbers) {
        p = pack_int(number, p, true);
    }
    return s_payload(bytes, static_cast<int>(p - first));
}

} // namespace

int MsgPackPrivate::pack_qtime_raw(const QTime &time, quint8 *p)
{
    p[0] = static_cast<quint8>(time.hour() << 4 | time.minute() >> 2);
    p[1] = static_cast<quint8>(time.minute() << 6 | time.second());
    if (time.msec() == 0) {
        return timeSize;
    }
    qToBigEndian(static_cast<quint16>(time.msec()), p + timeSize);
    return timeSizeWithMilliseconds;
}

QTime MsgPackPrivate::unpack_qtime_raw(const quint8 *p, bool withMilliseconds)
{
    const int minute = (p[0] << 2 | p[1] >> 6) & 0x3f;
    const int millisecond = withMilliseconds ? qFromBigEndian<quint16>(p + timeSize) : 0;
    return QTime(p[0] >> 4, minute, p[1] & 0x3f, millisecond);
}

// A year from 32768 on has bit 15 of its own there, and comes back as another date.
void MsgPackPrivate::pack_qdate_raw(const QDate &date, quint8 *p)
{
    const int highDayBit = date.day() >= 16 ? 0x8000 : 0;
    qToBigEndian(static_cast<quint16>(date.year() | highDayBit), p);
    p[2] = static_cast<quint8>(date.month() << 4 | (date.day() & 0x0f));
}

QDate MsgPackPrivate::unpack_qdate_raw(const quint8 *p)
{
    const int yearAndBit = qFromBigEndian<quint16>(p);
    const int day = (p[2] & 0x0f) + (yearAndBit & 0x8000 ? 16 : 0);
    return QDate(yearAndBit & 0x7fff, p[2] >> 4, day);
}

QByteArray MsgPackPrivate::pack_qtime(const QVariant &variant)
{
    const QTime time = variant.toTime();
    if (!time.isValid()) {
        return s_nothing();
    }
    quint8 bytes[timeSizeWithMilliseconds];
    return s_payload(bytes, pack_qtime_raw(time, bytes));
}

QVariant MsgPackPrivate::unpack_qtime(const QByteArray &payload)
{
    if (payload.size() < timeSize) {
        return QTime();
    }
    return unpack_qtime_raw(s_bytes(payload), payload.size() == timeSizeWithMilliseconds);
}

QByteArray MsgPackPrivate::pack_qdate(const QVariant &variant)
{
    const QDate date = variant.toDate();
    if (!date.isValid()) {
        return s_nothing();
    }
    quint8 bytes[dateSize];
    pack_qdate_raw(date, bytes);
    return s_payload(bytes, dateSize);
}

QVariant MsgPackPrivate::unpack_qdate(const QByteArray &payload)
{
    if (payload.size() < dateSize) {
        return QDate();
    }
    return unpack_qdate_raw(s_bytes(payload));
}

QByteArray MsgPackPrivate::pack_qdatetime(const QVariant &variant)
{
    const QDateTime dateTime = variant.toDateTime();
    if (!dateTime.isValid()) {
        return s_nothing();
    }
    quint8 bytes[dateSize + timeSizeWithMilliseconds];
    pack_qdate_raw(dateTime.date(), bytes);
    return s_payload(bytes, dateSize + pack_qtime_raw(dateTime.time(), bytes + dateSize));
}

QVariant MsgPackPrivate::unpack_qdatetime(const QByteArray &payload)
{
    if (payload.size() < dateSize + timeSize) {
        return QDateTime();
    }
    const bool withMilliseconds = payload.size() == dateSize + timeSizeWithMilliseconds;
    return QDateTime(unpack_qdate_raw(s_bytes(payload)),
                     unpack_qtime_raw(s_bytes(payload) + dateSize, withMilliseconds));
}

QByteArray MsgPackPrivate::pack_qpoint(const QVariant &variant)
{
    const QPoint point = variant.toPoint();
    return point.isNull() ? s_nothing() : s_packNumbers({point.x(), point.y()});
}

QVariant MsgPackPrivate::unpack_qpoint(const QByteArray &payload)
{
    int numbers[2];
    return unpack_numbers(payload, numbers, 2) ? QPoint(numbers[0], numbers[1]) : QPoint();
}

QByteArray MsgPackPrivate::pack_qsize(const QVariant &variant)
{
    const QSize size = variant.toSize();
    return size.isValid() ? s_packNumbers({size.width(), size.height()}) : s_nothing();
}

QVariant MsgPackPrivate::unpack_qsize(const QByteArray &payload)
{
    int numbers[2];
    return unpack_numbers(payload, numbers, 2) ? QSize(numbers[0], numbers[1]) : QSize();
}

QByteArray MsgPackPrivate::pack_qrect(const QVariant &variant)
{
    const QRect rect = variant.toRect();
    if (!rect.isValid()) {
        return s_nothing();
    }
    return s_packNumbers({rect.left(), rect.top(), rect.right(), rect.bottom()});
}

QVariant MsgPackPrivate::unpack_qrect(const QByteArray &payload)
{
    int numbers[4];
    if (!unpack_numbers(payload, numbers, 4)) {
        return QRect();
    }
    return QRect(QPoint(numbers[0], numbers[1]), QPoint(numbers[2], numbers[3]));
}

bool MsgPackPrivate::unpack_numbers(const QByteArray &payload, int *numbers, int count)
{
    MsgPackStream stream(payload);
    for (int i = 0; i < count; ++i) {
        stream >> numbers[i];
    }
    return stream.status() == MsgPackStream::Ok;
}

void MsgPackPrivate::write_payload(MsgPackStream &stream, int metatype, const QByteArray &payload)
{
    if (!stream.device() || stream.status() != MsgPackStream::Ok) {
        return;
    }
    const qint8 type = msgpack_type(metatype);
    if (type == -1) {
        stream.setStatus(MsgPackStream::WriteFailed);
        return;
    }
    stream.writeExtHeader(static_cast<quint32>(payload.size()), type);
    stream.writeBytes(payload.constData(), payload.size());
}

bool MsgPackPrivate::read_payload(MsgPackStream &stream, bool (*isLength)(quint32), QByteArray &payload)
{
    quint32 length;
    if (!stream.readExtHeader(length)) {
        return false;
    }
    if (!isLength(length)) {
        stream.setStatus(MsgPackStream::ReadCorruptData);
        return false;
    }
    payload.resize(static_cast<int>(length));
    return stream.readBytes(payload.data(), length);
}
