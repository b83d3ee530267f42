// Cost of decoding one frame report: the first step of every polled frame.
#include "MtDevFrame.h"

#include <benchmark/benchmark.h>

#include <array>
#include <vector>

namespace {

std::vector<uint8_t> Payload(bool extended, int contacts) {
    std::vector<uint8_t> p = {extended ? FRAME_TAG_EXTENDED : FRAME_TAG_COMPACT,
                              static_cast<uint8_t>(contacts)};
    auto put16 = [&p](int v) {
        p.push_back(static_cast<uint8_t>(v & 0xFF));
        p.push_back(static_cast<uint8_t>((v >> 8) & 0xFF));
    };
    put16(extended ? 1920 : 16384);
    put16(extended ? 1080 : 16384);
    if (extended) {
        put16(32767);
        put16(32767);
    }
    for (int i = 1; i <= contacts; ++i) {
        p.push_back(static_cast<uint8_t>(i));
        p.push_back(1);
        put16(1000 * i);
        put16(900 * i);
        if (extended) {
            put16(40 + i);
            put16(30 + i);
        }
    }
    p.resize(FRAME_PAYLOAD_BYTES, 0);
    return p;
}

void DecodeFrame(benchmark::State& state, bool extended, int contacts) {
    const auto payload = Payload(extended, contacts);
    alignas(_HARDWARE_SDK_POINT) static std::array<uint8_t, FRAME_POINT_BUFFER_BYTES> storage;
    _HARDWARE_FRAME_SDK frame{};
    frame.pointBufferBytes = FRAME_POINT_BUFFER_BYTES;
    frame.pointBuffer = storage.data();
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            DecodeFrameBuffer(payload.data(), static_cast<int>(payload.size()), &frame));
        benchmark::DoNotOptimize(frame.points);
        benchmark::ClobberMemory();
    }
}

void BM_DecodeCompact9(benchmark::State& state) { DecodeFrame(state, false, 9); }
void BM_DecodeExtended5(benchmark::State& state) { DecodeFrame(state, true, 5); }

}  // namespace

BENCHMARK(BM_DecodeCompact9);
BENCHMARK(BM_DecodeExtended5);
