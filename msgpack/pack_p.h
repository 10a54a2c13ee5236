// The packing routines, for MsgPack::pack and MsgPackStream.
//
// Each routine writes one item at the position `p` and returns the position after it. With `wr` false it
// writes nothing and only counts. A value is therefore packed in two passes: one from position 0 that finds
// its size, and one that fills an array of exactly that size, without checking for its end.
#pragma once

#include "msgpack/linelimit.h"
#include "msgpack/msgpack.h"

#include <QHash>
#include <QReadWriteLock>
#include <QStringList>
#include <QVarLengthArray>

#include <atomic>

namespace MsgPackPrivate
{

// A place in the output: a count of bytes from 0 in the sizing pass, an address in the writing pass. A number
// and not a pointer, because arithmetic is not allowed on a pointer to nothing.
using position_t = quintptr;

struct packer_t {
    pack_user_f packer; // may be null: the type can't be packed then
    qint8 type;         // written as the type byte of the extension
};

extern QHash<int, packer_t> user_packers;   // by metatype id; entries are only ever added
extern QReadWriteLock packers_lock;         // guards user_packers; never held while a packer runs
extern std::atomic<bool> compatibilityMode; // read once per item: both passes must find the same

// What became of a user value in the sizing pass.
struct user_payload_t {
    bool packed; // false if there is no packer for it
    qint8 type;
    QByteArray bytes;
};

// What one call of MsgPack::pack carries through its two passes.
struct pack_context {
    // The user values in the order in which both passes meet them: the sizing pass appends, the writing pass
    // takes from the front. It consults nothing else, so that the passes agree even when another thread
    // registers a packer in between. Few messages hold so many of them that this needs an allocation.
    QVarLengthArray<user_payload_t, 8> payloads;
    int taken = 0;                             // how many of them the writing pass has taken
    const bool compatible = compatibilityMode; // for both passes, whatever packers and other threads do
    int nesting = 0;                           // containers around the current value
    bool tooDeep = false; // a container lies deeper than MsgPack::maxNesting and was not packed
    LineLimit unpackable{QtWarningMsg, "MsgPack::pack can't pack type: N"};
};

position_t pack(const QVariant &v, position_t p, bool wr, pack_context &context);

position_t pack_nil(position_t p, bool wr);
position_t pack_bool(const QVariant &v, position_t p, bool wr);

position_t pack_int(qint32 i, position_t p, bool wr);
position_t pack_uint(quint32 i, position_t p, bool wr);
position_t pack_longlong(qint64 i, position_t p, bool wr);
position_t pack_ulonglong(quint64 i, position_t p, bool wr);

position_t pack_float(float f, position_t p, bool wr);
position_t pack_double(double d, position_t p, bool wr);

// `compatible` chooses the headers of compatibility mode. Whoever makes both passes has to state it.
position_t pack_string(const QString &string, position_t p, bool wr, bool compatible = compatibilityMode);
position_t pack_string_header(quint32 length, position_t p, bool wr, bool compatible = compatibilityMode);
position_t pack_string_raw(const char *bytes, quint32 length, position_t p, bool wr,
                           bool compatible = compatibilityMode);
position_t pack_bin_header(quint32 length, position_t p, bool wr, bool compatible = compatibilityMode);
position_t pack_bin(const QByteArray &bytes, position_t p, bool wr, bool compatible = compatibilityMode);

position_t pack_arraylen(quint32 count, position_t p, bool wr);
position_t pack_array(const QVariantList &list, position_t p, bool wr, pack_context &context);
position_t pack_stringlist(const QStringList &list, position_t p, bool wr,
                           bool compatible = compatibilityMode);
position_t pack_map(const QVariantMap &map, position_t p, bool wr, pack_context &context);

// The header of an extension value, its type byte included: all of it but the payload of `length` bytes.
position_t pack_ext_header(quint32 length, qint8 type, position_t p, bool wr);
position_t pack_user(const QVariant &v, position_t p, bool wr, pack_context &context);

bool register_packer(int metatype, qint8 type, pack_user_f packer);
qint8 msgpack_type(int metatype);

} // namespace MsgPackPrivate

Q_DECLARE_TYPEINFO(MsgPackPrivate::user_payload_t, Q_MOVABLE_TYPE);
