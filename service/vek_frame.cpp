#include "service/vek_frame.h"

#include <array>

namespace
{

constexpr unsigned polynomial = 0x07; // x^8 + x^2 + x + 1

constexpr std::uint8_t s_remainder(unsigned byte)
{
    for (int bit = 0; bit < 8; ++bit) {
        byte = byte & 0x80 ? (byte << 1) ^ polynomial : byte << 1;
    }
    return static_cast<std::uint8_t>(byte);
}

constexpr std::array<std::uint8_t, 256> s_makeTable()
{
    std::array<std::uint8_t, 256> table{};
    for (unsigned i = 0; i < table.size(); ++i) {
        table[i] = s_remainder(i);
    }
    return table;
}

constexpr std::array<std::uint8_t, 256> crcTable = s_makeTable();

static_assert(crcTable[1] == 0x07 && crcTable[2] == 0x0E && crcTable[255] == 0xF3);

} // namespace

std::uint8_t vek_crc8(const void *bytes, unsigned count)
{
    const auto *at = static_cast<const std::uint8_t *>(bytes);
    std::uint8_t crc = 0;
    for (unsigned i = 0; i < count; ++i) {
        crc = crcTable[crc ^ at[i]];
    }
    return crc;
}

void vek_frame_set_valid(vek_frame_t *frame)
{
    frame->crc = vek_crc8(frame, VEK_FRAME_COVERED_SIZE);
}

bool vek_frame_is_valid(const void *frame)
{
    const auto *bytes = static_cast<const std::uint8_t *>(frame);
    return bytes[VEK_FRAME_COVERED_SIZE] == vek_crc8(bytes, VEK_FRAME_COVERED_SIZE);
}
