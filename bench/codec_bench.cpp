// How fast values are packed and unpacked: "codec/pack/CASE/CODEC" and "codec/unpack/CASE/CODEC".
//
// The cases are those of "bench/codec_cases.h". Beside this codec ("vorbel") each is done by
//   floor       packing: a walk over the value. Unpacking: building the value from prepared parts.
//   cbor        Qt's own codec of the same kind, by way of QCborValue, from and to QVariant. It has no
//               extension values; typed arrays travel as byte arrays.
//   msgpackcxx  msgpack-cxx, described in "bench/codec_msgpackcxx.h". It does not touch QVariant.
//
// Unpacking includes destroying the result. Every codec unpacks its own encoding of the value.
#include "bench/codec_cases.h"
#include "bench/codec_msgpackcxx.h"
#include "msgpack/msgpack.h"

#include <QCborValue>

#include <benchmark/benchmark.h>

#include <functional>

namespace
{

// The value with every typed array as the byte array of its elements.
QVariant s_withoutTypedArrays(const QVariant &value)
{
    if (value.userType() != QMetaType::QVariantMap) {
        return value.userType() < QMetaType::User ? value : QVariant(QByteArray(4000, 'x'));
    }
    QVariantMap map = value.toMap();
    for (QVariant &member : map) {
        member = s_withoutTypedArrays(member);
    }
    return map;
}

void s_register(const std::string &name, const std::function<void()> &work)
{
    benchmark::RegisterBenchmark(name.c_str(), [work](benchmark::State &state) {
        for (auto _ : state) {
            work();
        }
    });
}

void s_registerPack(const CodecCase &input)
{
    const std::string prefix = "codec/pack/" + input.name + "/";
    const QVariant value = input.value;
    const QVariant plain = s_withoutTypedArrays(value);
    const StandardValue standard = toStandardValue(value);

    s_register(prefix + "vorbel", [=] { benchmark::DoNotOptimize(MsgPack::pack(value)); });
    s_register(prefix + "floor", [=] { benchmark::DoNotOptimize(walk(value)); });
    s_register(prefix + "cbor", [=] { benchmark::DoNotOptimize(QCborValue::fromVariant(plain).toCbor()); });
    s_register(prefix + "msgpackcxx", [=] { benchmark::DoNotOptimize(packWithMsgpackCxx(standard)); });
}

void s_registerUnpack(const CodecCase &input)
{
    const std::string prefix = "codec/unpack/" + input.name + "/";
    const QByteArray packed = MsgPack::pack(input.value);
    const QByteArray cbor = QCborValue::fromVariant(s_withoutTypedArrays(input.value)).toCbor();
    const Blueprint blueprint(input.value);

    s_register(prefix + "vorbel", [=] { benchmark::DoNotOptimize(MsgPack::unpack(packed)); });
    s_register(prefix + "floor", [=] { benchmark::DoNotOptimize(blueprint.build()); });
    s_register(prefix + "cbor", [=] { benchmark::DoNotOptimize(QCborValue::fromCbor(cbor).toVariant()); });
    s_register(prefix + "msgpackcxx", [=] {
        benchmark::DoNotOptimize(
            unpackWithMsgpackCxx(packed.constData(), static_cast<size_t>(packed.size())));
    });
}

} // namespace

int main(int argc, char **argv)
{
    for (const CodecCase &input : codecCases()) {
        s_registerPack(input);
        s_registerUnpack(input);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
