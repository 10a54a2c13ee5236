// What the serial link costs before the converter: checksums, and cutting the byte stream into records.
//
// The floors load every byte of the same stream once and add it up, one by one.
#include "bench/suite.h"
#include "service/recordscanner.h"

#include <QByteArray>

#include <numeric>
#include <random>

namespace
{

constexpr int recordCount = 100;

QByteArray s_records()
{
    QByteArray stream;
    for (int i = 0; i < recordCount; ++i) {
        vek_frame_t frame{};
        vek_frame_set_header(&frame, vek_header_make(static_cast<unsigned>(i), 2, 8));
        std::iota(std::begin(frame.data), std::end(frame.data), static_cast<std::uint8_t>(i * 7));
        vek_frame_set_valid(&frame);
        stream.append(reinterpret_cast<const char *>(&frame), sizeof frame);
    }
    return stream;
}

// As many bytes, at none of which a record begins.
QByteArray s_garbage()
{
    std::minstd_rand random(1); // NOLINT: the same bytes every time
    QByteArray stream;
    while (stream.size() < recordCount * VEK_FRAME_SIZE) {
        stream.append(static_cast<char>(random() >> 8));
        if (stream.size() >= VEK_FRAME_SIZE && vek_frame_is_valid(stream.constEnd() - VEK_FRAME_SIZE)) {
            stream[stream.size() - 1] = static_cast<char>(~stream.back());
        }
    }
    return stream;
}

void s_scan(benchmark::State &state, const QByteArray &stream, int itemSize)
{
    for (auto _ : state) {
        unsigned sum = 0;
        const int done = scanRecords(stream.constData(), stream.size(),
                                     [&sum](const vek_frame_t &frame) { sum += vek_frame_header(frame); });
        benchmark::DoNotOptimize(sum);
        benchmark::DoNotOptimize(done);
    }
    state.SetItemsProcessed(state.iterations() * stream.size() / itemSize);
}

void s_lookAtEachByte(benchmark::State &state, const QByteArray &stream, int itemSize)
{
    for (auto _ : state) {
        unsigned sum = 0;
        for (const char byte : stream) {
            sum += static_cast<std::uint8_t>(byte);
            asm volatile("" : "+r"(sum)); // one byte at a time, not a vector of them
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * stream.size() / itemSize);
}

void s_crc(benchmark::State &state, const QByteArray &record)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(vek_crc8(record.constData(), VEK_FRAME_COVERED_SIZE));
    }
}

} // namespace

int main(int argc, char **argv)
{
    Suite suite(argc, argv);
    const QByteArray record = s_records().left(VEK_FRAME_SIZE);
    const QByteArray covered = record.left(VEK_FRAME_COVERED_SIZE);
    suite.add("link/scan_good", s_scan, s_records(), VEK_FRAME_SIZE);
    suite.add("link/scan_good/floor", s_lookAtEachByte, s_records(), VEK_FRAME_SIZE);
    suite.add("link/scan_garbage", s_scan, s_garbage(), 1);
    suite.add("link/scan_garbage/floor", s_lookAtEachByte, s_garbage(), 1);
    suite.add("frame/crc", s_crc, record);
    suite.add("frame/crc/floor", s_lookAtEachByte, covered, VEK_FRAME_COVERED_SIZE);
    return suite.run();
}
