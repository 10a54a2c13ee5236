// The VEK frame record: one CAN message of the VEK protocol as it travels over the serial adapter.
//
// Plain C style: a packed record whose memory image is its wire image, and free functions over it. The
// module keeps no state, allocates nothing and may be used from any thread.
//
//   offset  size  field
//   0       2     header  little-endian: bits 0-5 mac, 6-10 cmd, 11-14 dlc, 15 rtr
//   2       8     data    only the first dlc bytes are meaningful, all eight are covered by crc
//   10      1     crc     CRC-8 of bytes 0 to 9
//
// The low 11 bits of the header are the CAN identifier: mac + 64 * cmd.
#pragma once

#include <QtEndian>

#include <cstdint>

#pragma pack(push, 1)
typedef struct vek_frame {
    std::uint16_t header; // little-endian: see vek_frame_header() and vek_frame_set_header()
    std::uint8_t data[8];
    std::uint8_t crc;
} vek_frame_t;
#pragma pack(pop)

static_assert(sizeof(vek_frame_t) == 11, "the record is its own wire image");

constexpr int VEK_FRAME_SIZE = 11;
constexpr int VEK_FRAME_DATA_SIZE = 8;
constexpr int VEK_FRAME_COVERED_SIZE = 10; // bytes under the checksum: header and all of data

// CRC-8 of `count` bytes: polynomial 0x07, most significant bit first, initial value 0, no reflection, no
// final XOR (catalogued as CRC-8/SMBUS; check value over "123456789" is 0xF4). 0 for an empty range, for
// which `bytes` is not used.
std::uint8_t vek_crc8(const void *bytes, unsigned count);

// Stores the checksum of the frame's first ten bytes in its crc. Unused data bytes are covered too, whatever
// dlc says.
void vek_frame_set_valid(vek_frame_t *frame);

// True exactly when the eleventh byte is the checksum of the first ten. Takes a vek_frame_t or any eleven
// readable bytes, at any alignment. A dlc of 9 to 15 passes: the checksum says nothing about the length.
bool vek_frame_is_valid(const void *frame);

// The fields of a header in the machine's byte order.
constexpr std::uint16_t vek_header_mac(std::uint16_t header)
{
    return header & 0x3F;
}
constexpr std::uint16_t vek_header_cmd(std::uint16_t header)
{
    return (header >> 6) & 0x1F;
}
constexpr std::uint16_t vek_header_dlc(std::uint16_t header)
{
    return (header >> 11) & 0x0F;
}
constexpr std::uint16_t vek_header_rtr(std::uint16_t header)
{
    return (header >> 15) & 0x01;
}
constexpr std::uint16_t vek_header_can_id(std::uint16_t header)
{
    return header & 0x7FF;
}

// How many bytes of data are payload: a record holds eight, whatever its dlc says.
constexpr int vek_payload_size(std::uint16_t header)
{
    return vek_header_dlc(header) < VEK_FRAME_DATA_SIZE ? vek_header_dlc(header) : VEK_FRAME_DATA_SIZE;
}

// A header from its fields; bits that do not fit a field are dropped, rtr is 0.
constexpr std::uint16_t vek_header_make(unsigned mac, unsigned cmd, unsigned dlc)
{
    return static_cast<std::uint16_t>((mac & 0x3F) | (cmd & 0x1F) << 6 | (dlc & 0x0F) << 11);
}

// A frame's header in the machine's byte order.
inline std::uint16_t vek_frame_header(const vek_frame_t &frame)
{
    return qFromLittleEndian(frame.header);
}

inline void vek_frame_set_header(vek_frame_t *frame, std::uint16_t header)
{
    frame->header = qToLittleEndian(header);
}
