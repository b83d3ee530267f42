// Cost of the pointer's events per polled frame on their way to the input device: translation
// and the system calls. The device is /dev/null here (no uinput on a build machine), so what is
// measured is the system calls' own cost, not the input core's behind them. "PerEvdevEvent" is
// the way the sink wrote before (one write per evdev event); "PerFrame" is the sink as it is
// (a frame's events in one write).
#include "UinputEventSink.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/input.h>
#include <unistd.h>

#include <vector>

namespace {

TDisplayGeometry Screen() {
    TDisplayGeometry g;
    g.main = {0, 0, 1920, 1080};
    g.desktopWidth = 1920;
    g.desktopHeight = 1080;
    return g;
}

// 0: a drag frame (one event); 1: a click frame (moved, down, up).
std::vector<TInputEvent> FrameEvents(int64_t kind) {
    const auto mouse = [](TInputEventType type) {
        return TInputEvent::Mouse(type, 640, 480, EVENT_FLAG_SECONDARY_FN, 1);
    };
    if (kind == 0) return {mouse(TInputEventType::LeftMouseDragged)};
    return {mouse(TInputEventType::MouseMoved), mouse(TInputEventType::LeftMouseDown),
            mouse(TInputEventType::LeftMouseUp)};
}

void PerEvdevEvent(benchmark::State& state) {
    const int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    CEvdevTranslator translator(Screen(), TKeyProfile::Literal);
    const std::vector<TInputEvent> frame = FrameEvents(state.range(0));
    for (auto _ : state) {
        for (const TInputEvent& e : frame) {
            for (const TEvdevEvent& ev : translator.Translate(e)) {
                input_event one{};
                one.type = ev.type;
                one.code = ev.code;
                one.value = ev.value;
                benchmark::DoNotOptimize(write(fd, &one, sizeof one));
            }
        }
    }
    close(fd);
}
BENCHMARK(PerEvdevEvent)->Arg(0)->Arg(1);

void PerFrame(benchmark::State& state) {
    auto sink = CUinputEventSink::Adopt(open("/dev/null", O_WRONLY | O_CLOEXEC),
                                                Screen(), TKeyProfile::Literal);
    const std::vector<TInputEvent> frame = FrameEvents(state.range(0));
    for (auto _ : state) {
        TEventFrame batch(sink.get());
        for (const TInputEvent& e : frame) sink->Post(e);
    }
}
BENCHMARK(PerFrame)->Arg(0)->Arg(1);

}  // namespace
