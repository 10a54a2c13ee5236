// The unpacking routines behind MsgPack::unpack.
//
// Each routine decodes one item at the position `p`, which must lie within the input, stores it in `v` and
// returns the position after it; null when the item claims bytes past the end of the input, is nested too
// deeply or repeats too much. What `v` holds then does not matter: the result of the whole input is invalid.
#pragma once

#include "msgpack/linelimit.h"
#include "msgpack/msgpack.h"

#include <QHash>
#include <QReadWriteLock>

namespace MsgPackPrivate
{

extern QHash<qint8, unpack_user_f> user_unpackers; // by extension type; entries are only ever added
extern QReadWriteLock unpackers_lock;              // guards user_unpackers, held while an unpacker runs

// The input of one call, how deeply nested the call is, and how much it has repeated of the input. Sizes are
// in bytes, as if everything were on the wire as often as it is in the value.
struct unpack_context {
    const quint8 *end;    // the last byte
    quint64 maxRepeated;  // what `repeated` must not exceed
    int nesting = 0;      // containers around the current value
    quint64 held = 0;     // size of what the target of the current value still holds from before
    bool isKept = false;  // whether the extension just met left its target as it was
    quint64 repeated = 0; // size of all that was taken over from a target, for extensions nobody decodes
    LineLimit unknownTypes{QtWarningMsg, "MsgPack::unpack() unpacker for type N doesn't exist"};
};

using unpacker_t = const quint8 *(*)(QVariant &v, const quint8 *p, unpack_context &context);

extern const unpacker_t unpackers[32]; // by first byte, from 0xc0 to 0xdf

// All values from the byte at `first` to the byte at `last`; none if `last` lies before `first`.
QVariant unpack(const quint8 *first, const quint8 *last);

const quint8 *unpack_type(QVariant &v, const quint8 *p, unpack_context &context);

// `p` is the position of the first element or key; it may already lie past the input.
const quint8 *unpack_array_len(QVariant &v, const quint8 *p, quint32 count, unpack_context &context);
const quint8 *unpack_map_len(QVariant &v, const quint8 *p, quint32 count, unpack_context &context);

// `p` is the position of the payload. Leaves `v` as it is when no unpacker is registered for `type`.
const quint8 *unpack_ext(QVariant &v, const quint8 *p, qint8 type, quint32 length, unpack_context &context);

bool register_unpacker(qint8 type, unpack_user_f unpacker);

} // namespace MsgPackPrivate
