// Cuts the adapter's byte stream into frame records.
#pragma once

#include "service/vek_frame.h"

#include <cstring>

// Calls deliver(const vek_frame_t &) for every valid record in `size` bytes, in order, and returns how many
// bytes are finished with; the rest, fewer than VEK_FRAME_SIZE bytes, may be the start of a record and has to
// be offered again with what follows it.
//
// The stream carries no frame marks. Where eleven bytes fail their checksum, one byte is dropped and the
// eleven bytes from the next one are tried, so that every offset is tested as a start: the scan is back in
// step at the first record after any garbage.
template <typename Deliver>
int scanRecords(const char *bytes, int size, Deliver deliver)
{
    int at = 0;
    while (size - at >= VEK_FRAME_SIZE) {
        if (!vek_frame_is_valid(bytes + at)) {
            at += 1;
            continue;
        }
        vek_frame_t frame;
        std::memcpy(&frame, bytes + at, sizeof frame);
        deliver(frame);
        at += VEK_FRAME_SIZE;
    }
    return at;
}
