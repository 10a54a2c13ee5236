// The extension payloads of seven Qt value types, for MsgPack::registerType and for the stream operators of
// "msgpack/time.h" and "msgpack/geometry.h". Multi-byte numbers are big-endian.
//
//   type       payload                                            the byte 0x00 alone stands for
//   QColor     red, green, blue, alpha: a byte each               an invalid colour
//   QTime      time field; with milliseconds unless they are 0    an invalid time
//   QDate      date field                                         an invalid date
//   QDateTime  date field, time field as in QTime; no time zone   an invalid date-time
//   QPoint     x, y as MessagePack integers                       (0, 0)
//   QSize      width, height as MessagePack integers              an invalid size: one that is negative
//   QRect      left, top, right, bottom as MessagePack integers   an invalid rectangle
//
//   time field  2 bytes: hour (4 bits), minute (6), second (6); then 2 bytes of milliseconds, if any
//   date field  3 bytes: bit 4 of the day (1 bit), year (15), month (4), bits 3 to 0 of the day (4)
//
// The hour keeps only its low four bits, so that 16:30 comes back as 00:30. The field has been this narrow in
// every version that wrote it; widening it would make all stored times unreadable.
//
// Packers take any variant: one that does not convert to the type packs as the byte 0x00. Unpackers take any
// payload: a single byte gives the type's default in the last column, and so does a payload that is shorter
// than the shortest form of the type or holds a number that is not a 32-bit signed integer; bytes after the
// payload are ignored. A default QRect is the null rectangle: (0, 0) to (-1, -1).
#pragma once

#include <QByteArray>
#include <QDate>
#include <QTime>
#include <QVariant>

class MsgPackStream;

namespace MsgPackPrivate
{

QByteArray pack_qtime(const QVariant &variant);
QByteArray pack_qdate(const QVariant &variant);
QByteArray pack_qdatetime(const QVariant &variant);
QByteArray pack_qpoint(const QVariant &variant);
QByteArray pack_qsize(const QVariant &variant);
QByteArray pack_qrect(const QVariant &variant);

QVariant unpack_qtime(const QByteArray &payload);
QVariant unpack_qdate(const QByteArray &payload);
QVariant unpack_qdatetime(const QByteArray &payload);
QVariant unpack_qpoint(const QByteArray &payload);
QVariant unpack_qsize(const QByteArray &payload);
QVariant unpack_qrect(const QByteArray &payload);

// These two need Qt Gui: they are in the library vorbel_msgpack_qttypes, with MsgPack::registerType.
QByteArray pack_qcolor(const QVariant &variant);
QVariant unpack_qcolor(const QByteArray &payload);

// The time field of a valid time at `p`: 4 bytes with milliseconds if they are not 0, else 2. Returns the
// number of bytes.
int pack_qtime_raw(const QTime &time, quint8 *p);
// The time of 2 bytes at `p`, or of 4 if they include milliseconds. Invalid if the fields are no time of day.
QTime unpack_qtime_raw(const quint8 *p, bool withMilliseconds);

// The date field of a valid date: 3 bytes at `p`.
void pack_qdate_raw(const QDate &date, quint8 *p);
// The date of the 3 bytes at `p`. Invalid if the fields are no date.
QDate unpack_qdate_raw(const quint8 *p);

// The `count` numbers that a point, size or rectangle payload begins with. False, with `numbers` partly
// written, if it runs short or one of them is no 32-bit signed integer in any of the integer formats.
bool unpack_numbers(const QByteArray &payload, int *numbers, int count);

// What the stream operators have in common. Writes `payload` as an extension value of the type registered for
// packing `metatype`; with none, writes nothing and sets WriteFailed.
void write_payload(MsgPackStream &stream, int metatype, const QByteArray &payload);
// Reads the payload of an extension value. False, with the stream's status set, if there is none or
// `isLength` rejects its length.
bool read_payload(MsgPackStream &stream, bool (*isLength)(quint32), QByteArray &payload);

} // namespace MsgPackPrivate
