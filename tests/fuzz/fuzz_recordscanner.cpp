// Arbitrary bytes in arbitrary pieces: the scanner must find what a search of the whole stream, one byte
// offset after the other, finds.
#include "service/recordscanner.h"

#include <cstdlib>
#include <vector>

namespace
{

using Bytes = std::vector<std::uint8_t>;

// The checksum bit by bit, without a table.
bool s_isRecord(const std::uint8_t *bytes)
{
    unsigned crc = 0;
    for (int i = 0; i < 10; ++i) {
        crc ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = crc & 0x80 ? ((crc << 1) ^ 0x07) & 0xFF : crc << 1;
        }
    }
    return crc == bytes[10];
}

std::vector<Bytes> s_search(const Bytes &stream)
{
    std::vector<Bytes> records;
    for (std::size_t at = 0; at + 11 <= stream.size();) {
        if (s_isRecord(&stream[at])) {
            records.emplace_back(&stream[at], &stream[at] + 11);
            at += 11;
        } else {
            at += 1;
        }
    }
    return records;
}

} // namespace

// The first byte of the input seeds the sizes of the pieces, the rest is the stream.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0) {
        return 0;
    }
    unsigned piece = data[0];
    const Bytes stream(data + 1, data + size);

    std::vector<Bytes> records;
    Bytes buffered;
    for (std::size_t at = 0; at < stream.size();) {
        const std::size_t length = std::min<std::size_t>(1 + piece % 40, stream.size() - at);
        piece = piece * 13 + 7;
        buffered.insert(buffered.end(), &stream[at], &stream[at] + length);
        at += length;
        // A copy of exactly this size, so that a read past the end is found.
        const Bytes exact(buffered);
        const int consumed =
            scanRecords(reinterpret_cast<const char *>(exact.data()), static_cast<int>(exact.size()),
                        [&records](const vek_frame_t &frame) {
                            const auto *bytes = reinterpret_cast<const std::uint8_t *>(&frame);
                            records.emplace_back(bytes, bytes + sizeof frame);
                        });
        buffered.erase(buffered.begin(), buffered.begin() + consumed);
    }
    if (records != s_search(stream)) {
        std::abort();
    }
    return 0;
}
