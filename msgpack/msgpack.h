// MessagePack encoding and decoding of Qt variant values: the codec's public functions.
//
// The format names below are those of the MessagePack specification. All functions may be called from any
// thread; further conditions are stated where they apply. Nothing here throws: trouble is logged as a warning
// and answered with a neutral result.
//
// Value to bytes (pack): the smallest format of the value's family; multi-byte numbers are big-endian.
//
//   value held by the variant      bytes
//   invalid, Nullptr               nil
//   Bool                           false, true
//   Int, UInt                      >= 0: positive fixint, uint 8, 16, 32
//                                  < 0: negative fixint, int 8, 16, 32
//   LongLong                       as above where 32 bits hold it, unsigned or signed; else int 64, so that
//                                  a positive value above 4294967295 is an int 64, never a uint 64
//   ULongLong                      as UInt where 32 bits hold it, else uint 64
//   Float, Double                  float 32, float 64; no narrowing and no integers
//   QString                        fixstr, str 8, 16, 32 with the bytes of toUtf8()
//   QByteArray                     bin 8, 16, 32
//   QVariantList, QStringList      fixarray, array 16, 32
//   QVariantMap                    fixmap, map 16, 32; keys as str, in ascending order
//   a type with a packer           fixext 1, 2, 4, 8, 16, else ext 8, 16, 32
//   anything else                  nothing, see pack()
//
// Bytes to value (unpack): the type follows the format, not the number, so an Int of 5 comes back as a UInt.
// Whoever reads the values converts them by value.
//
//   bytes                          value
//   nil, 0xc1                      invalid
//   false, true                    Bool
//   positive fixint, uint 8 to 32  UInt
//   negative fixint, int 8 to 32   Int
//   uint 64, int 64                ULongLong, LongLong
//   float 32, float 64             Float, Double
//   fixstr, str 8 to 32            QString by fromUtf8(), malformed bytes replaced
//   bin 8 to 32                    QByteArray
//   array                          QVariantList
//   map                            QVariantMap; a key of any type becomes its QVariant::toString(), the last
//                                  of several equal keys wins
//   fixext, ext                    what the unpacker of its type number returns; with none, see unpack()
#pragma once

#include <QByteArray>
#include <QMetaType>
#include <QString>
#include <QVariant>

namespace MsgPackPrivate
{
// Makes the payload of an extension value, without header and type byte, from a variant of the metatype that
// the function was registered for. Whatever it returns is sent. It may be the variant's own memory
// (QByteArray::fromRawData): it is released before the variant is.
using pack_user_f = QByteArray (*)(const QVariant &);
// Makes a value from the payload of an extension value. Must cope with any bytes of any length.
using unpack_user_f = QVariant (*)(const QByteArray &);
} // namespace MsgPackPrivate

namespace MsgPack
{

// How many levels of arrays and maps may be nested, in either direction. Every level costs stack: the
// codec's own recursion, then that of Qt when it prints or destroys the value. At this depth all of them
// stay well within the 8 MiB that a main thread has by default, sanitizer builds included; values nested
// about three times as deep overflow it in Qt's debug output, from input of one byte a level.
constexpr int maxNesting = 10000;

// How much unpack() may repeat in place of extensions that it does not know, beyond the size of its input;
// in bytes as they would be on the wire. Without a bound, a few bytes could stand for a value that takes for
// ever to walk over; with it, walking over a value costs no more than twice its message and this.
constexpr quint64 maxRepeatedBeyondInput = 64 * 1024;

// The encoded bytes of `variant`.
//
// A value whose type has no row in the table above and no packer (or a null one) is left out with the warning
// "MsgPack::pack can't pack type: N", once per value, N being its metatype id. At the top level the result is
// then empty; within a container the header still counts the value, and a map still holds its key: a receiver
// finds fewer items than announced. Clients in the field know these bytes, so nothing is put in its place.
//
// The result is also empty, with a warning, for a value nested deeper than maxNesting, for one that would
// take more bytes than a QByteArray holds, and when memory runs out.
//
// Packers run once per value and with no lock held, so that they may call pack() themselves.
QByteArray pack(const QVariant &variant);

// The value that `data` holds. Several values in a row come back as a QVariantList of them, and no bytes at
// all as an empty one.
//
// Invalid when a value claims bytes past the end of `data`, or more than Qt can hold: nearly 2^31 in a byte
// array or an extension, nearly 2^30 in a text. Decoding stops there, nothing past the end is read, and
// memory is taken only for what was there. Also invalid, with a warning, when nested deeper than maxNesting,
// when it repeats more than the size of `data` and maxRepeatedBeyondInput together, when an array has more
// elements than a QVariantList holds, nearly 2^28, and when memory runs out.
//
// An extension whose type number has no unpacker is skipped with the warning "MsgPack::unpack() unpacker for
// type N doesn't exist" and stands for the value before it in the same array or map (the same goes for the
// key of a map entry, and for the values of `data` as a whole); as the first one it is an invalid variant.
// Clients rely on this too.
//
// The registry of unpackers is locked for reading while an unpacker runs: it must not register unpackers, and
// must not unpack extension values while another thread may be registering.
QVariant unpack(const QByteArray &data);

// From now on values of the metatype id `metatype` are packed as extension values of type `msgpackType` with
// the payload that `packer` returns. False, with the warning "MsgPack::packer for qtype N already exist", if
// the metatype has a packer already, which then stays. A null packer is accepted and makes the type one that
// can't be packed. Registrations are permanent. The types of the table above keep their formats.
bool registerPacker(int metatype, qint8 msgpackType, MsgPackPrivate::pack_user_f packer);

// From now on extension values of type `msgpackType` are what `unpacker` returns for their payload. False if
// the type has an unpacker already, which then stays ("MsgPack::unpacker for type N already exists"), and if
// `unpacker` is null ("MsgPack::unpacker for type N is invalid").
bool registerUnpacker(qint8 msgpackType, MsgPackPrivate::unpack_user_f unpacker);

// Registers the ready-made packer and unpacker of a Qt value type: QColor, QTime, QDate, QDateTime, QPoint,
// QSize or QRect; their payloads are described in "msgpack/qt_types_p.h". 128 to 255 are the type numbers
// -128 to -1. True for each of these types, even if something was registered before and stays; false, with
// two warnings, for any other type.
//
// The only function that needs Qt Gui: it is in the library vorbel_msgpack_qttypes.
bool registerType(QMetaType::Type metatype, quint8 msgpackType);

// The extension type that values of the metatype id `metatype` are packed as; -1 when it has no packer, which
// is also what a packer registered for -1 gives.
qint8 msgpackType(int metatype);

// Packs for receivers of the older format that knows no bin and no str 8: byte arrays take str headers, and
// strings of 32 to 255 bytes take str 16. A byte array of up to 255 bytes takes str 8 all the same, as those
// receivers expect. Off by default. It applies to the whole process; what is being packed at the time, by a
// packer or on another thread, keeps the mode that it began with.
void setCompatibilityModeEnabled(bool enabled);

// "0.1.0"
QString version();

} // namespace MsgPack
