// Cost of the TUIO output per polled frame, everything but the system call that sends: copying
// the contacts, the output's own calibration, tracking the cursors and writing the bundle. The
// contacts move on every frame, so every frame sends a `set` for each; a second case has them
// resting (nothing to send on most frames).
#include "TuioOutput.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

namespace {

// Counts the bytes it is given instead of sending them.
class CNullSocket final : public ITuioSocket {
public:
    bool Send(std::span<const uint8_t> bytes, std::string*) override {
        benchmark::DoNotOptimize(bytes.data());
        return true;
    }
    bool Loopback() const override { return true; }
};

void Frames(benchmark::State& state, int contacts, bool moving) {
    // One calibration area over the whole frame, as a frame ships.
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    DefaultDevConfig('c', 0, config.get());
    DefaultDevCalConfig('c', 0, config.get());
    config->flags |= DEV_FLAG_AREAS_ENABLED;
    const _CS_CONFIG geometry{8191, 8191, 32767, 32767};

    std::atomic<int32_t> sessions{0};
    CTuioOutput output(
        TTuioSettings{}, sessions,
        [](const TTuioTarget&, std::string*) { return std::make_unique<CNullSocket>(); }, "bench");
    TContactSource source;
    source.device = 1;
    source.config = config.get();
    source.geometry = &geometry;
    output.OnFrameReady(source);

    TContactFrame frame;
    frame.device = 1;
    for (int i = 0; i < contacts; ++i) {
        TContact c;
        c.id = static_cast<uint8_t>(i + 1);
        c.status = kContactMoving;
        c.rawX = static_cast<uint16_t>(3000 + 3000 * i);
        c.rawY = 16000;
        frame.contacts.push_back(c);
    }

    int64_t micros = 0;
    for (auto _ : state) {
        micros += 5000;  // 200 frames a second
        frame.timeStamp = micros / 1'000'000 * 4'000'000 + micros % 1'000'000;
        if (moving) {
            for (auto& c : frame.contacts) c.rawY = static_cast<uint16_t>(8000 + (micros / 5000) % 16000);
        }
        output.OnContacts(frame);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_TuioMoving(benchmark::State& state) {
    Frames(state, static_cast<int>(state.range(0)), true);
}
void BM_TuioResting(benchmark::State& state) {
    Frames(state, static_cast<int>(state.range(0)), false);
}

}  // namespace

BENCHMARK(BM_TuioMoving)->Arg(1)->Arg(9);
BENCHMARK(BM_TuioResting)->Arg(1)->Arg(9);
