// Stream operators of the time types.
//
// They write and read extension values whose payloads are those of "msgpack/qt_types_p.h", of the extension
// type that is registered for packing the type (MsgPack::registerType); with none, writing sets WriteFailed
// and writes nothing. Reading takes any extension type. It sets ReadCorruptData and leaves the target as it
// was when the next item is no extension value or its payload has a length that the type never has.
#pragma once

class MsgPackStream;
class QDate;
class QDateTime;
class QTime;

MsgPackStream &operator<<(MsgPackStream &stream, const QTime &time);
MsgPackStream &operator<<(MsgPackStream &stream, const QDate &date);
MsgPackStream &operator<<(MsgPackStream &stream, const QDateTime &dateTime);

MsgPackStream &operator>>(MsgPackStream &stream, QTime &time);
MsgPackStream &operator>>(MsgPackStream &stream, QDate &date);
MsgPackStream &operator>>(MsgPackStream &stream, QDateTime &dateTime);
