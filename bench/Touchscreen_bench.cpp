// Cost of the touchscreen output per polled frame, without the write to uinput: the slot
// machine and the building of the frame's report. Every contact moves on every frame (the
// busiest steady state); the touch cycle also starts and ends every touch each other frame.
#include "TouchscreenSlots.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

TContactFrame Frame(int contacts) {
    TContactFrame frame;
    for (int i = 0; i < contacts; ++i) {
        TContact c;
        c.id = static_cast<uint8_t>(i + 1);
        c.status = kContactMoving;
        c.x = 2000 + 3000 * i;
        c.y = 16000;
        c.hasSize = true;
        c.width = 400;
        c.height = 300;
        frame.contacts.push_back(c);
    }
    return frame;
}

void Moving(benchmark::State& state) {
    const int contacts = static_cast<int>(state.range(0));
    CTouchscreenSlots slots;
    TContactFrame frame = Frame(contacts);
    std::vector<TEvdevEvent> events;
    events.reserve(256);
    int32_t step = 1;
    for (auto _ : state) {
        for (TContact& c : frame.contacts) {
            c.x += step;
            c.y -= step;
        }
        step = -step;
        events.clear();
        slots.Update(frame, &events);
        benchmark::DoNotOptimize(events.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());  // frames
}

void TouchCycle(benchmark::State& state) {
    const int contacts = static_cast<int>(state.range(0));
    CTouchscreenSlots slots;
    const TContactFrame down = Frame(contacts);
    const TContactFrame none;
    std::vector<TEvdevEvent> events;
    events.reserve(256);
    bool touching = false;
    for (auto _ : state) {
        events.clear();
        slots.Update(touching ? none : down, &events);
        touching = !touching;
        benchmark::DoNotOptimize(events.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(Moving)->Name("BM_TouchscreenMoving")->Arg(1)->Arg(9);
BENCHMARK(TouchCycle)->Name("BM_TouchscreenDownUp")->Arg(1)->Arg(9);
