#include "msgpack/unpack_p.h"

#include "msgpack/formats_p.h"
#include "msgpack/utf8_p.h"

#include <QDebug>
#include <QtEndian>

#include <cstring>
#include <limits>

namespace MsgPackPrivate
{
QHash<qint8, unpack_user_f> user_unpackers;
QReadWriteLock unpackers_lock;
} // namespace MsgPackPrivate

using namespace MsgPackPrivate;

namespace
{

// Whether `length` bytes at `p` lie within the input and, being part of one value, within what Qt can hold.
bool s_has(const quint8 *p, quint32 length, const unpack_context &context)
{
    return length <= std::numeric_limits<int>::max() && context.end - p >= static_cast<qptrdiff>(length) - 1;
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

const quint8 *s_unpackString(QVariant &v, const quint8 *p, quint32 length, unpack_context &context)
{
    if (!s_has(p, length, context)) {
        return nullptr;
    }
    v = QVariant(utf8_read(p, static_cast<int>(length)));
    return p + length;
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

bool s_isFull(const unpack_context &context)
{
    if (context.nesting < MsgPack::maxNesting) {
        return false;
    }
    qWarning() << "MsgPack::unpack() can't unpack more than" << MsgPack::maxNesting
               << "nested arrays and maps";
    return true;
}

// Counts what the current value takes over from its target. The copies share their memory, but whoever walks
// over them pays for each: a hundred bytes that double what they hold thirty times would keep the process
// busy for ever.
bool s_repeatsTooMuch(unpack_context &context)
{
    context.repeated += context.held;
    if (context.repeated <= MsgPack::maxRepeated) {
        return false;
    }
    qWarning() << "MsgPack::unpack() can't repeat more than" << MsgPack::maxRepeated
               << "bytes in place of unknown extensions";
    return true;
}

// Decodes one value into `v`, which holds the value before it in the same container. `size` is that value's
// size before, and the new one's afterwards.
const quint8 *s_unpackNext(QVariant &v, quint64 &size, const quint8 *p, unpack_context &context)
{
    const quint64 repeatedBefore = context.repeated;
    context.held = size;
    const quint8 *next = unpack_type(v, p, context);
    if (next) {
        size = static_cast<quint64>(next - p) + (context.repeated - repeatedBefore);
    }
    return next;
}

// Decodes one value into a new element of `list`. An extension that nobody decodes leaves its target as it
// is, and the target of each element is what held the element before it: so that is what the new one starts
// as. Clients know the repeated value as the sign of an extension that the service does not understand.
const quint8 *s_unpackElement(QVariantList &list, quint64 &size, const quint8 *p, unpack_context &context)
{
    if (p > context.end) {
        return nullptr;
    }
    list.append(isExtension(*p) && !list.isEmpty() ? list.constLast() : QVariant());
    return s_unpackNext(list.last(), size, p, context);
}

// Decodes the key of a map entry. `key` is the key of the entry before it, for the same reason.
const quint8 *s_unpackKey(QString &key, const quint8 *p, unpack_context &context)
{
    if (p > context.end) {
        return nullptr;
    }
    QVariant v(key);
    context.held = 0; // a repeated key makes no further entry
    p = unpack_type(v, p, context);
    key = v.toString();
    return p;
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
    unpack_context context{last};
    const quint8 *p = first;
    QVariantList list;
    quint64 size = 0;
    while (p && p <= last) {
        p = s_unpackElement(list, size, p, context);
    }
    if (!p) {
        return QVariant();
    }
    return list.size() == 1 ? list.constFirst() : QVariant(list);
}

const quint8 *MsgPackPrivate::unpack_type(QVariant &v, const quint8 *p, unpack_context &context)
{
    const quint8 first = *p;
    if (first < Fixmap) {
        v = QVariant(static_cast<uint>(first));
        return p + 1;
    }
    if (first >= NegativeFixint) {
        v = QVariant(static_cast<int>(static_cast<qint8>(first)));
        return p + 1;
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
    if (s_isFull(context)) {
        return nullptr;
    }
    ++context.nesting;
    QVariantList list;
    quint64 size = 0;
    for (; p && count > 0; --count) {
        p = s_unpackElement(list, size, p, context);
    }
    v = QVariant(list);
    --context.nesting;
    return p;
}

const quint8 *MsgPackPrivate::unpack_map_len(QVariant &v, const quint8 *p, quint32 count,
                                             unpack_context &context)
{
    if (s_isFull(context)) {
        return nullptr;
    }
    ++context.nesting;
    QVariantMap map;
    QString key;
    QVariant value;
    quint64 size = 0;
    for (; count > 0; --count) {
        p = s_unpackKey(key, p, context);
        if (!p || p > context.end) {
            return nullptr;
        }
        p = s_unpackNext(value, size, p, context);
        if (!p) {
            return nullptr;
        }
        map.insert(map.cend(), key, value); // most senders write ascending keys
    }
    v = QVariant(map);
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
        qWarning() << "MsgPack::unpack() unpacker for type" << int(type) << "doesn't exist";
        if (s_repeatsTooMuch(context)) {
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
