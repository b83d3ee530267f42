// Cost of one frame through contact matching and the dispatcher with one contact, at path
// lengths 1, 100 and 500 (a held drag), posting to a sink that discards. The cost must not grow
// with the length of the path.
#include <benchmark/benchmark.h>

#include <chrono>

#include "CTouchPointContainer.h"
#include "ContactMatching.h"
#include "EventSink.h"
#include "MtDevLog.h"

namespace {

constexpr int64_t kFrameUnits = 10000;  // 10 ms between frames, in stamp units

struct Rig {
    CDiscardEventSink sink;
    CTouchPointContainer container{sink};
    CContactTracker tracker{container};
    _HARDWARE_SDK_POINT point{};
    int64_t stamp = 4'000'000;
    TLogSink previousLog;

    Rig() {
        previousLog = TSetLogSink([](TLogChannel, std::string_view) {});
        container.SetScreenBoard(1920.0f, 1080.0f);
        point.id = 1;
        point.x = 10000;
        point.y = 10000;
    }
    ~Rig() { TSetLogSink(std::move(previousLog)); }

    void Frame(uint8_t status) {
        point.status = status;
        point.x = point.x == 10000 ? 10010 : 10000;  // a small drag back and forth
        stamp += kFrameUnits;
        tracker.DealFrame(&point, stamp);
    }

    // A touch already down and pressed, its path holding `samples` samples.
    void HoldWithPath(size_t samples) {
        CTouchPointInfo* contact = tracker.Tracked()[0];
        contact->Remove();
        for (size_t i = 0; i < samples; ++i) {
            stamp += kFrameUnits;
            contact->Update(10000.0f, 10000.0f, stamp);
        }
    }
};

// Path length 1: every frame is a new touch (the only frame at which a contact with one sample
// is dealt with); the previous contact is dropped and freed.
void BM_FramePath1(benchmark::State& state) {
    Rig rig;
    rig.Frame(0);
    rig.Frame(0);
    for (auto _ : state) rig.Frame(0);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FramePath1);

// Path lengths 100 and 500: a continuing contact dragging; the frame's update brings the path
// to the given length. The path is rebuilt outside the timed region.
void BM_FrameHeldDrag(benchmark::State& state) {
    const size_t length = static_cast<size_t>(state.range(0));
    Rig rig;
    rig.Frame(0);
    rig.Frame(1);  // pressed: every later frame drags
    for (auto _ : state) {
        if (length < CTouchPointInfo::kMaxPathSamples ||
            rig.tracker.Tracked()[0]->PathSize() < CTouchPointInfo::kMaxPathSamples) {
            rig.HoldWithPath(length - 1);
        }
        const auto start = std::chrono::steady_clock::now();
        rig.Frame(1);
        const auto stop = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(stop - start).count());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FrameHeldDrag)->Arg(100)->Arg(500)->UseManualTime();

// The held drag at 500 samples timed by the framework (no per-frame set-up needed: the path
// stays full), to show the manual timing's own overhead.
void BM_FrameHeldDrag500Auto(benchmark::State& state) {
    Rig rig;
    rig.Frame(0);
    rig.Frame(1);
    rig.HoldWithPath(499);
    for (auto _ : state) rig.Frame(1);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FrameHeldDrag500Auto);

}  // namespace
