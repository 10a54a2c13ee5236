#include "msgpack/pack_p.h"

#include "msgpack/formats_p.h"
#include "msgpack/utf8_p.h"

#include <QDebug>
#include <QtEndian>

#include <cstring>
#include <limits>

namespace MsgPackPrivate
{
QHash<int, packer_t> user_packers;
QReadWriteLock packers_lock;
std::atomic<bool> compatibilityMode{false};
} // namespace MsgPackPrivate

using namespace MsgPackPrivate;

namespace
{

quint8 *s_address(position_t p)
{
    return reinterpret_cast<quint8 *>(p); // NOLINT(performance-no-int-to-ptr): what a position is
}

position_t s_putByte(quint8 byte, position_t p, bool wr)
{
    if (wr) {
        *s_address(p) = byte;
    }
    return p + 1;
}

// A format whose first byte is followed by a number of the width of T.
template <class T>
position_t s_putNumber(FirstByte first, T number, position_t p, bool wr)
{
    if (wr) {
        *s_address(p) = first;
        qToBigEndian(number, s_address(p) + 1);
    }
    return p + 1 + sizeof(T);
}

position_t s_putBytes(const char *bytes, quint32 length, position_t p, bool wr)
{
    if (wr && length > 0) {
        std::memcpy(s_address(p), bytes, length);
    }
    return p + length;
}

constexpr bool s_fits8(quint32 number)
{
    return number <= std::numeric_limits<quint8>::max();
}

constexpr bool s_fits16(quint32 number)
{
    return number <= std::numeric_limits<quint16>::max();
}

// The narrowest of three formats that differ in the width of their number.
position_t s_putNarrowest(FirstByte first8, FirstByte first16, FirstByte first32, quint32 number,
                          position_t p, bool wr)
{
    if (s_fits8(number)) {
        return s_putNumber(first8, static_cast<quint8>(number), p, wr);
    }
    if (s_fits16(number)) {
        return s_putNumber(first16, static_cast<quint16>(number), p, wr);
    }
    return s_putNumber(first32, number, p, wr);
}

// Arrays and maps of more than 15 elements have no format with an 8-bit count.
position_t s_putCount(FirstByte fix, FirstByte first16, FirstByte first32, quint32 count, position_t p,
                      bool wr)
{
    if (count <= 15) {
        return s_putByte(static_cast<quint8>(fix + count), p, wr);
    }
    if (s_fits16(count)) {
        return s_putNumber(first16, static_cast<quint16>(count), p, wr);
    }
    return s_putNumber(first32, count, p, wr);
}

template <class Bits, class Real>
Bits s_bits(Real real)
{
    static_assert(sizeof(Bits) == sizeof(Real), "IEEE 754 numbers as they are");
    Bits bits;
    std::memcpy(&bits, &real, sizeof bits);
    return bits;
}

// Reads the variant's record, as the switch of pack() does, and not through constData() and userType(): these
// calls were over a quarter of all instructions of packing a list of numbers.
template <class T>
const T &s_held(const QVariant &v)
{
    const QVariant::DataPtr &d = v.data_ptr();
    return *static_cast<const T *>(d.is_shared ? d.data.shared->ptr : &d.data.ptr);
}

// Returns true if no further container may lie within those around the current value, and records that for
// the whole call.
bool s_refuseNesting(pack_context &context)
{
    if (context.nesting < MsgPack::maxNesting) {
        return false;
    }
    context.tooDeep = true;
    return true;
}

packer_t s_findPacker(int metatype)
{
    const QReadLocker locker(&packers_lock);
    const auto found = user_packers.constFind(metatype);
    return found == user_packers.constEnd() ? packer_t{nullptr, -1} : *found;
}

void s_warnOfUnpackable(int metatype, pack_context &context)
{
    if (context.unpackable.takeLine()) {
        qWarning() << "MsgPack::pack can't pack type:" << metatype;
    }
}

user_payload_t s_makePayload(const QVariant &v, pack_context &context)
{
    const packer_t entry = s_findPacker(v.userType());
    if (!entry.packer) {
        s_warnOfUnpackable(v.userType(), context);
        return {false, 0, QByteArray()};
    }
    return {true, entry.type, entry.packer(v)};
}

// What became of a user value: in the sizing pass this finds it out, in the writing pass it is on record.
const user_payload_t &s_nextPayload(const QVariant &v, bool wr, pack_context &context)
{
    if (wr) {
        return context.payloads.at(context.taken++);
    }
    context.payloads.append(s_makePayload(v, context));
    return context.payloads.last();
}

} // namespace

position_t MsgPackPrivate::pack(const QVariant &v, position_t p, bool wr, pack_context &context)
{
    // The values are looked at where they are: toMap() and its like hand out copies.
    switch (v.data_ptr().type) {
    case QMetaType::UnknownType:
    case QMetaType::Nullptr:
        return pack_nil(p, wr);
    case QMetaType::Int:
        return pack_int(s_held<int>(v), p, wr);
    case QMetaType::UInt:
        return pack_uint(s_held<uint>(v), p, wr);
    case QMetaType::Bool:
        return s_putByte(s_held<bool>(v) ? True : False, p, wr);
    case QMetaType::QString:
        return pack_string(s_held<QString>(v), p, wr, context.compatible);
    case QMetaType::QVariantList:
        return pack_array(s_held<QVariantList>(v), p, wr, context);
    case QMetaType::QStringList:
        return pack_stringlist(s_held<QStringList>(v), p, wr, context.compatible);
    case QMetaType::LongLong:
        return pack_longlong(s_held<qlonglong>(v), p, wr);
    case QMetaType::ULongLong:
        return pack_ulonglong(s_held<qulonglong>(v), p, wr);
    case QMetaType::Double:
        return pack_double(s_held<double>(v), p, wr);
    case QMetaType::Float:
        return pack_float(s_held<float>(v), p, wr);
    case QMetaType::QByteArray:
        return pack_bin(s_held<QByteArray>(v), p, wr, context.compatible);
    case QMetaType::QVariantMap:
        return pack_map(s_held<QVariantMap>(v), p, wr, context);
    default:
        return pack_user(v, p, wr, context);
    }
}

position_t MsgPackPrivate::pack_nil(position_t p, bool wr)
{
    return s_putByte(Nil, p, wr);
}

position_t MsgPackPrivate::pack_bool(const QVariant &v, position_t p, bool wr)
{
    return s_putByte(v.toBool() ? True : False, p, wr);
}

position_t MsgPackPrivate::pack_int(qint32 i, position_t p, bool wr)
{
    if (i >= 0) {
        return pack_uint(static_cast<quint32>(i), p, wr);
    }
    if (i >= -32) {
        return s_putByte(static_cast<quint8>(i), p, wr);
    }
    if (i >= std::numeric_limits<qint8>::min()) {
        return s_putNumber(Int8, static_cast<qint8>(i), p, wr);
    }
    if (i >= std::numeric_limits<qint16>::min()) {
        return s_putNumber(Int16, static_cast<qint16>(i), p, wr);
    }
    return s_putNumber(Int32, i, p, wr);
}

position_t MsgPackPrivate::pack_uint(quint32 i, position_t p, bool wr)
{
    if (i <= 127) {
        return s_putByte(static_cast<quint8>(i), p, wr);
    }
    return s_putNarrowest(Uint8, Uint16, Uint32, i, p, wr);
}

// A positive number that needs 64 bits goes out as a signed one: receivers have always got it so.
position_t MsgPackPrivate::pack_longlong(qint64 i, position_t p, bool wr)
{
    if (i >= 0 && i <= std::numeric_limits<quint32>::max()) {
        return pack_uint(static_cast<quint32>(i), p, wr);
    }
    if (i < 0 && i >= std::numeric_limits<qint32>::min()) {
        return pack_int(static_cast<qint32>(i), p, wr);
    }
    return s_putNumber(Int64, i, p, wr);
}

position_t MsgPackPrivate::pack_ulonglong(quint64 i, position_t p, bool wr)
{
    if (i <= std::numeric_limits<quint32>::max()) {
        return pack_uint(static_cast<quint32>(i), p, wr);
    }
    return s_putNumber(Uint64, i, p, wr);
}

position_t MsgPackPrivate::pack_float(float f, position_t p, bool wr)
{
    return s_putNumber(Float32, s_bits<quint32>(f), p, wr);
}

position_t MsgPackPrivate::pack_double(double d, position_t p, bool wr)
{
    return s_putNumber(Float64, s_bits<quint64>(d), p, wr);
}

position_t MsgPackPrivate::pack_string(const QString &string, position_t p, bool wr, bool compatible)
{
    if (wr) {
        // Nearly all strings are ASCII: taken for it, a string is read once here, not twice. Others take no
        // less space, so that what this leaves behind is written over.
        const auto size = static_cast<quint32>(string.size());
        const position_t body = pack_string_header(size, p, true, compatible);
        if (utf8_write_ascii(string, s_address(body))) {
            return body + size;
        }
    }
    const quint32 length = utf8_length(string);
    p = pack_string_header(length, p, wr, compatible);
    if (wr) {
        utf8_write(string, s_address(p));
    }
    return p + length;
}

position_t MsgPackPrivate::pack_string_header(quint32 length, position_t p, bool wr, bool compatible)
{
    if (length <= 31) {
        return s_putByte(static_cast<quint8>(Fixstr + length), p, wr);
    }
    if (s_fits8(length) && compatible) {
        return s_putNumber(Str16, static_cast<quint16>(length), p, wr);
    }
    return s_putNarrowest(Str8, Str16, Str32, length, p, wr);
}

position_t MsgPackPrivate::pack_string_raw(const char *bytes, quint32 length, position_t p, bool wr,
                                           bool compatible)
{
    p = pack_string_header(length, p, wr, compatible);
    return s_putBytes(bytes, length, p, wr);
}

// Unlike for strings, compatibility mode keeps the 8-bit length: receivers of byte arrays expect it there.
position_t MsgPackPrivate::pack_bin_header(quint32 length, position_t p, bool wr, bool compatible)
{
    if (compatible) {
        return s_putNarrowest(Str8, Str16, Str32, length, p, wr);
    }
    return s_putNarrowest(Bin8, Bin16, Bin32, length, p, wr);
}

position_t MsgPackPrivate::pack_bin(const QByteArray &bytes, position_t p, bool wr, bool compatible)
{
    const auto length = static_cast<quint32>(bytes.size());
    p = pack_bin_header(length, p, wr, compatible);
    return s_putBytes(bytes.constData(), length, p, wr);
}

position_t MsgPackPrivate::pack_arraylen(quint32 count, position_t p, bool wr)
{
    return s_putCount(Fixarray, Array16, Array32, count, p, wr);
}

position_t MsgPackPrivate::pack_array(const QVariantList &list, position_t p, bool wr, pack_context &context)
{
    if (s_refuseNesting(context)) {
        return p;
    }
    ++context.nesting;
    p = pack_arraylen(static_cast<quint32>(list.size()), p, wr);
    for (const QVariant &element : list) {
        p = pack(element, p, wr, context);
    }
    --context.nesting;
    return p;
}

position_t MsgPackPrivate::pack_stringlist(const QStringList &list, position_t p, bool wr, bool compatible)
{
    p = pack_arraylen(static_cast<quint32>(list.size()), p, wr);
    for (const QString &string : list) {
        p = pack_string(string, p, wr, compatible);
    }
    return p;
}

position_t MsgPackPrivate::pack_map(const QVariantMap &map, position_t p, bool wr, pack_context &context)
{
    if (s_refuseNesting(context)) {
        return p;
    }
    ++context.nesting;
    p = s_putCount(Fixmap, Map16, Map32, static_cast<quint32>(map.size()), p, wr);
    for (auto entry = map.cbegin(); entry != map.cend(); ++entry) {
        p = pack_string(entry.key(), p, wr, context.compatible);
        p = pack(entry.value(), p, wr, context);
    }
    --context.nesting;
    return p;
}

position_t MsgPackPrivate::pack_ext_header(quint32 length, qint8 type, position_t p, bool wr)
{
    switch (length) {
    case 1:
        p = s_putByte(Fixext1, p, wr);
        break;
    case 2:
        p = s_putByte(Fixext2, p, wr);
        break;
    case 4:
        p = s_putByte(Fixext4, p, wr);
        break;
    case 8:
        p = s_putByte(Fixext8, p, wr);
        break;
    case 16:
        p = s_putByte(Fixext16, p, wr);
        break;
    default:
        p = s_putNarrowest(Ext8, Ext16, Ext32, length, p, wr);
    }
    return s_putByte(static_cast<quint8>(type), p, wr);
}

position_t MsgPackPrivate::pack_user(const QVariant &v, position_t p, bool wr, pack_context &context)
{
    const user_payload_t &payload = s_nextPayload(v, wr, context);
    if (!payload.packed) {
        return p;
    }
    const auto length = static_cast<quint32>(payload.bytes.size());
    p = pack_ext_header(length, payload.type, p, wr);
    return s_putBytes(payload.bytes.constData(), length, p, wr);
}

bool MsgPackPrivate::register_packer(int metatype, qint8 type, pack_user_f packer)
{
    QWriteLocker locker(&packers_lock);
    if (!user_packers.contains(metatype)) {
        user_packers.insert(metatype, packer_t{packer, type});
        return true;
    }
    locker.unlock(); // whoever handles the message may use the codec
    qWarning() << "MsgPack::packer for qtype" << metatype << "already exist";
    return false;
}

qint8 MsgPackPrivate::msgpack_type(int metatype)
{
    return s_findPacker(metatype).type;
}
