// Packs or unpacks one of the codec's cases a given number of times, to have its instructions counted:
//
//   codec_instructions pack|unpack CASE COUNT
//
// What one takes is the difference of two runs under callgrind, divided by the difference of their counts.
#include "bench/codec_cases.h"
#include "msgpack/msgpack.h"

#include <cstdio>
#include <cstdlib>

namespace
{

bool s_run(const std::string &direction, const QVariant &value, int count)
{
    const QByteArray packed = MsgPack::pack(value);
    for (int i = 0; i < count; ++i) {
        const bool done =
            direction == "pack" ? !MsgPack::pack(value).isEmpty() : MsgPack::unpack(packed).isValid();
        if (!done) {
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 4) {
        for (const CodecCase &input : codecCases()) {
            if (input.name == argv[2]) {
                return s_run(argv[1], input.value, std::atoi(argv[3])) ? 0 : 1;
            }
        }
    }
    std::fputs("usage: codec_instructions pack|unpack CASE COUNT\n", stderr);
    return 2;
}
