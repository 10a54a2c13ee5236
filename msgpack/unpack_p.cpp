#include "msgpack/unpack_p.h"

#include "msgpack/formats_p.h"
#include "msgpack/limits_p.h"
#include "msgpack/utf8_p.h"

#include <QDebug>
#include <QtEndian>

#include <cstring>

namespace MsgPackPrivate
{
QHash<qint8, unpack_user_f> user_unpackers;
QReadWriteLock unpackers_lock;
} // namespace MsgPackPrivate

using namespace MsgPackPrivate;

// For what needs local objects, apart from the functions that call each other for every level of nesting.
// Their frames stay small without it, in any kind of build: the stack has to suffice for MsgPack::maxNesting
// of them.
#define OUT_OF_LINE Q_NEVER_INLINE

namespace
{

const QVariant invalid; // one for all: making it anew was a tenth of the time of unpacking a list of numbers

// Whether `length` bytes at `p` lie within the input and, being part of one value, within what Qt can hold.
bool s_has(const quint8 *p, quint32 length, const unpack_context &context)
{
    return length <= maxByteArraySize && context.end - p >= static_cast<qptrdiff>(length) - 1;
}

// The number of type T behind the first byte at `p`.
template <class T>
T s_number(const quint8 *p)
{
    return qFromBigEndian<T>(p + 1);
}

template <class T>
bool s_hasNumber(const quint8 *p, const unpack_context &context)
{
    return s_has(p, 1 + sizeof(T), context);
}

// Makes `v` an empty T and gives access to it, to be filled in place.
template <class T>
OUT_OF_LINE T &s_become(QVariant &v)
{
    v = QVariant(T());
    return *static_cast<T *>(v.data());
}

const quint8 *s_unpackNil(QVariant &v, const quint8 *p, unpack_context &)
{
    v = QVariant();
    return p + 1;
}

template <bool value>
const quint8 *s_unpackBool(QVariant &v, const quint8 *p, unpack_context &)
{
    v = QVariant(value);
    return p + 1;
}

// A number that is the first byte itself.
template <class Wire, class Value>
OUT_OF_LINE const quint8 *s_unpackFixint(QVariant &v, const quint8 *p)
{
    v = QVariant(static_cast<Value>(static_cast<Wire>(*p)));
    return p + 1;
}

// A number of type Wire in the input, kept as a Value.
template <class Wire, class Value>
const quint8 *s_unpackInteger(QVariant &v, const quint8 *p, unpack_context &context)
{
    if (!s_hasNumber<Wire>(p, context)) {
        return nullptr;
    }
    v = QVariant(static_cast<Value>(s_number<Wire>(p)));
    return p + 1 + sizeof(Wire);
}

template <class Bits, class Real>
const quint8 *s_unpackReal(QVariant &v, const quint8 *p, unpack_context &context)
{
    if (!s_hasNumber<Bits>(p, context)) {
        return nullptr;
    }
    const Bits bits = s_number<Bits>(p);
    Real real;
    static_assert(sizeof bits == sizeof real, "IEEE 754 numbers as they are");
    std::memcpy(&real, &bits, sizeof real);
    v = QVariant(real);
    return p + 1 + sizeof(Bits);
}

const quint8 *s_readString(QString &string, const quint8 *p, quint32 length, const unpack_context &context)
{
    if (length > maxStringSize || !s_has(p, length, context)) {
        return nullptr;
    }
    string = utf8_read(p, static_cast<int>(length));
    return p + length;
}

const quint8 *s_unpackString(QVariant &v, const quint8 *p, quint32 length, unpack_context &context)
{
    return s_readString(s_become<QString>(v), p, length, context);
}

const quint8 *s_unpackBytes(QVariant &v, const quint8 *p, quint32 length, unpack_context &context)
{
    if (!s_has(p, length, context)) {
        return nullptr;
    }
    v = QVariant(QByteArray(reinterpret_cast<const char *>(p), static_cast<int>(length)));
    return p + length;
}

// The formats that begin with a length or count of type Length, which `contents` goes on from.
template <class Length, const quint8 *contents(QVariant &, const quint8 *, quint32, unpack_context &)>
const quint8 *s_unpackCounted(QVariant &v, const quint8 *p, unpack_context &context)
{
    if (!s_hasNumber<Length>(p, context)) {
        return nullptr;
    }
    return contents(v, p + 1 + sizeof(Length), s_number<Length>(p), context);
}

// The type byte at `p` and the payload of `length` bytes behind it.
const quint8 *s_unpackTypeAndPayload(QVariant &v, const quint8 *p, quint32 length, unpack_context &context)
{
    if (!s_has(p, 1, context)) {
        return nullptr;
    }
    return unpack_ext(v, p + 1, static_cast<qint8>(*p), length, context);
}

template <quint32 length>
const quint8 *s_unpackFixext(QVariant &v, const quint8 *p, unpack_context &context)
{
    return s_unpackTypeAndPayload(v, p + 1, length, context);
}

// Returns true, with a warning, if no further container may lie within those around the current value.
bool s_refuseNesting(const unpack_context &context)
{
    if (context.nesting < MsgPack::maxNesting) {
        return false;
    }
    qWarning() << "MsgPack::unpack() can't unpack more than" << MsgPack::maxNesting
               << "nested arrays and maps";
    return true;
}

// Whether there is at least a byte for each of `count` elements, but no list holds so many. An array that
// runs short is found out by decoding it, and leaves no line.
bool s_isTooLong(const quint8 *p, quint32 count, const unpack_context &context)
{
    return count > maxListSize && context.end - p >= static_cast<qptrdiff>(count) - 1;
}

// Counts what the current value takes over from its target, and returns true, with a warning, if that is too
// much. The copies share their memory, but whoever walks over them pays for each: a hundred bytes that double
// what they hold thirty times would keep the process busy for ever.
bool s_refuseRepetition(unpack_context &context)
{
    context.repeated += context.held;
    if (context.repeated <= context.maxRepeated) {
        return false;
    }
    qWarning() << "MsgPack::unpack() can't repeat more than" << context.maxRepeated
               << "bytes in place of unknown extensions";
    return true;
}

void s_warnOfUnknown(qint8 type, unpack_context &context)
{
    if (context.unknownTypes.takeLine()) {
        qWarning() << "MsgPack::unpack() unpacker for type" << int(type) << "doesn't exist";
    }
}

// What the target of the value at `p` has to hold before that is decoded, given the target of the value
// before it in the same container. An extension that nobody decodes leaves its target as it is, so that the
// value before it shows up again: to clients, this is the sign of an extension that the service does not
// understand.
const QVariant &s_contentFor(const quint8 *p, const QVariant *previous)
{
    return isExtension(*p) && previous ? *previous : invalid;
}

// The target for the value at `p`, as the last element of `list`.
OUT_OF_LINE QVariant &s_newElement(QVariantList &list, const quint8 *p)
{
    list.append(s_contentFor(p, list.isEmpty() ? nullptr : &list.constLast()));
    return list.last();
}

// The entry for `key`, with the target for the value at `p`. `previous` is the entry before it, or none.
//
// A key that an extension nobody decodes stands for is, in one piece of memory, that of `previous`. It must
// not be looked for: three bytes could have keys of any length compared. Most senders write ascending keys,
// so the end is where to look first.
OUT_OF_LINE QVariantMap::iterator s_entryFor(const QString &key, QVariantMap &map, const quint8 *p,
                                             QVariantMap::iterator previous)
{
    if (previous == QVariantMap::iterator()) {
        return map.insert(map.cend(), key, invalid);
    }
    if (previous.key().isSharedWith(key)) {
        return previous;
    }
    return map.insert(map.cend(), key, s_contentFor(p, &*previous));
}

// Decodes one value into its target; inlined, to spare each level of nesting a frame. `size` is the size of
// the value before it in the same container, and the new one's afterwards.
Q_ALWAYS_INLINE const quint8 *s_unpackNext(QVariant &v, quint64 &size, const quint8 *p,
                                           unpack_context &context)
{
    const quint64 repeatedBefore = context.repeated;
    context.held = size;
    context.isKept = false;
    const quint8 *next = unpack_type(v, p, context);
    const bool isTheOneBefore = isExtension(*p) && context.isKept;
    if (next && !isTheOneBefore) {
        size = static_cast<quint64>(next - p) + (context.repeated - repeatedBefore);
    }
    return next;
}

OUT_OF_LINE const quint8 *s_unpackConvertedKey(QString &key, const quint8 *p, unpack_context &context)
{
    QVariant v(key);
    context.held = 0; // a repeated key makes no further entry
    p = unpack_type(v, p, context);
    key = v.toString();
    return p;
}

// Decodes the key of a map entry. `key` is that of the entry before it, and stays for an extension that
// nobody decodes.
const quint8 *s_unpackKey(QString &key, const quint8 *p, unpack_context &context)
{
    if (p > context.end) {
        return nullptr;
    }
    return isFixstr(*p) ? s_readString(key, p + 1, *p & 0x1f, context)
                        : s_unpackConvertedKey(key, p, context);
}

} // namespace

const unpacker_t MsgPackPrivate::unpackers[32] = {
    s_unpackNil, // nil
    s_unpackNil, // never used
    s_unpackBool<false>,
    s_unpackBool<true>,
    s_unpackCounted<quint8, s_unpackBytes>,
    s_unpackCounted<quint16, s_unpackBytes>,
    s_unpackCounted<quint32, s_unpackBytes>,
    s_unpackCounted<quint8, s_unpackTypeAndPayload>,
    s_unpackCounted<quint16, s_unpackTypeAndPayload>,
    s_unpackCounted<quint32, s_unpackTypeAndPayload>,
    s_unpackReal<quint32, float>,
    s_unpackReal<quint64, double>,
    s_unpackInteger<quint8, uint>,
    s_unpackInteger<quint16, uint>,
    s_unpackInteger<quint32, uint>,
    s_unpackInteger<quint64, qulonglong>,
    s_unpackInteger<qint8, int>,
    s_unpackInteger<qint16, int>,
    s_unpackInteger<qint32, int>,
    s_unpackInteger<qint64, qlonglong>,
    s_unpackFixext<1>,
    s_unpackFixext<2>,
    s_unpackFixext<4>,
    s_unpackFixext<8>,
    s_unpackFixext<16>,
    s_unpackCounted<quint8, s_unpackString>,
    s_unpackCounted<quint16, s_unpackString>,
    s_unpackCounted<quint32, s_unpackString>,
    s_unpackCounted<quint16, unpack_array_len>,
    s_unpackCounted<quint32, unpack_array_len>,
    s_unpackCounted<quint16, unpack_map_len>,
    s_unpackCounted<quint32, unpack_map_len>,
};

QVariant MsgPackPrivate::unpack(const quint8 *first, const quint8 *last)
{
    if (first > last) {
        return QVariantList();
    }
    const quint64 inputSize = static_cast<quint64>(last - first) + 1;
    unpack_context context{last, inputSize + MsgPack::maxRepeatedBeyondInput};
    QVariant v;
    quint64 size = 0;
    const quint8 *p = s_unpackNext(v, size, first, context);
    if (p == last + 1) {
        return v;
    }
    QVariantList list{v};
    while (p && p <= last) {
        p = s_unpackNext(s_newElement(list, p), size, p, context);
    }
    return p ? QVariant(list) : QVariant();
}

const quint8 *MsgPackPrivate::unpack_type(QVariant &v, const quint8 *p, unpack_context &context)
{
    const quint8 first = *p;
    if (first < Fixmap) {
        return s_unpackFixint<quint8, uint>(v, p);
    }
    if (first >= NegativeFixint) {
        return s_unpackFixint<qint8, int>(v, p);
    }
    if (first < Fixarray) {
        return unpack_map_len(v, p + 1, first & 0x0f, context);
    }
    if (first < Fixstr) {
        return unpack_array_len(v, p + 1, first & 0x0f, context);
    }
    if (first < Nil) {
        return s_unpackString(v, p + 1, first & 0x1f, context);
    }
    return unpackers[first - Nil](v, p, context);
}

const quint8 *MsgPackPrivate::unpack_array_len(QVariant &v, const quint8 *p, quint32 count,
                                               unpack_context &context)
{
    if (s_refuseNesting(context)) {
        return nullptr;
    }
    if (s_isTooLong(p, count, context)) {
        qWarning() << "MsgPack::unpack() can't unpack more than" << maxListSize << "elements of an array";
        return nullptr;
    }
    ++context.nesting;
    auto &list = s_become<QVariantList>(v);
    quint64 size = 0;
    for (; p && count > 0; --count) {
        if (p > context.end) {
            return nullptr;
        }
        p = s_unpackNext(s_newElement(list, p), size, p, context);
    }
    --context.nesting;
    return p;
}

const quint8 *MsgPackPrivate::unpack_map_len(QVariant &v, const quint8 *p, quint32 count,
                                             unpack_context &context)
{
    if (s_refuseNesting(context)) {
        return nullptr;
    }
    ++context.nesting;
    auto &map = s_become<QVariantMap>(v);
    QString key;
    QVariantMap::iterator entry;
    quint64 size = 0;
    for (; p && count > 0; --count) {
        p = s_unpackKey(key, p, context);
        if (!p || p > context.end) {
            return nullptr;
        }
        entry = s_entryFor(key, map, p, entry);
        p = s_unpackNext(*entry, size, p, context);
    }
    --context.nesting;
    return p;
}

const quint8 *MsgPackPrivate::unpack_ext(QVariant &v, const quint8 *p, qint8 type, quint32 length,
                                         unpack_context &context)
{
    if (!s_has(p, length, context)) {
        return nullptr;
    }
    QReadLocker locker(&unpackers_lock);
    const auto unpacker = user_unpackers.constFind(type);
    if (unpacker != user_unpackers.constEnd()) {
        v = (*unpacker)(QByteArray(reinterpret_cast<const char *>(p), static_cast<int>(length)));
    } else {
        locker.unlock(); // whoever handles the message may use the codec
        s_warnOfUnknown(type, context);
        context.isKept = true;
        if (s_refuseRepetition(context)) {
            return nullptr;
        }
    }
    return p + length;
}

bool MsgPackPrivate::register_unpacker(qint8 type, unpack_user_f unpacker)
{
    if (!unpacker) {
        qWarning() << "MsgPack::unpacker for type" << int(type) << "is invalid";
        return false;
    }
    QWriteLocker locker(&unpackers_lock);
    if (!user_unpackers.contains(type)) {
        user_unpackers.insert(type, unpacker);
        return true;
    }
    locker.unlock(); // whoever handles the message may use the codec
    qWarning() << "MsgPack::unpacker for type" << int(type) << "already exists";
    return false;
}
