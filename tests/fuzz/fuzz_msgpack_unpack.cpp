// Any bytes to values, and those to bytes again.
#include "msgpack/msgpack.h"
#include "tests/fuzz/fuzzing.h"
#include "tests/fuzz/qttypes.h"

using Fuzzing::require;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    Fuzzing::silenceLog();
    Fuzzing::registerQtTypes();
    MsgPack::registerUnpacker(1, [](const QByteArray &payload) { return QVariant(payload); });
    MsgPack::registerUnpacker(2, [](const QByteArray &) { return QVariant(); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const Fuzzing::LineBound bound;
    const QVariant value = MsgPack::unpack(Fuzzing::bytes(data, size));

    // Whatever comes out of unpack can be packed, and comes back. From then on nothing changes: the formats
    // are the shortest, the texts well-formed, the keys texts and in order. Only a byte order mark is taken
    // off the head of a text each time that it is decoded.
    const QByteArray packed = MsgPack::pack(value);
    require(!packed.isEmpty(), "a value that was unpacked can't be packed");
    const QVariant back = MsgPack::unpack(packed);
    require(back.isValid() == value.isValid(), "a value does not come back");
    require(packed.contains("\xEF\xBB\xBF") || MsgPack::pack(back) == packed, "packing is not stable");
    return 0;
}
