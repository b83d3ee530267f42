// Cost of one frame through contact matching and the dispatcher with one contact, at path
// lengths 1, 100 and 500 (a held drag), and with two and four contacts at path lengths 10 and
// 500 (a hand resting on the frame), posting to a sink that discards. The cost must not grow
// with the length of the path.
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <vector>

#include "CTouchPointContainer.h"
#include "ContactMatching.h"
#include "ContactPublisher.h"
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
        if (stream) {
            frame.points = &point;
            stream->Publish(frame, stamp);
        } else {
            tracker.DealFrame(&point, stamp);
        }
    }

    // The worker's road: the frame goes through the contact stream to the gestures alone.
    void ThroughStream() {
        gestures = std::make_unique<CGestureListener>(container);
        stream = std::make_unique<CContactPublisher>(
            1, std::vector<IContactListener*>{gestures.get()});
    }
    const CContactTracker& Tracker() const { return gestures ? gestures->Tracker() : tracker; }
    std::unique_ptr<CGestureListener> gestures;
    std::unique_ptr<CContactPublisher> stream;
    _HARDWARE_FRAME_SDK frame{};

    // A touch already down and pressed, its path holding `samples` samples.
    void HoldWithPath(size_t samples) {
        CTouchPointInfo* contact = Tracker().Tracked()[0];
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

// Brings the paths to `length` - 1 samples outside the timed region (a full path stays full),
// then times one continuing frame, which brings them to `length`.
template <typename TRig>
void TimedFrame(benchmark::State& state, TRig& rig, size_t length) {
    if (length < CTouchPointInfo::kMaxPathSamples ||
        rig.tracker.Tracked()[0]->PathSize() < CTouchPointInfo::kMaxPathSamples) {
        rig.HoldWithPath(length - 1);
    }
    const auto start = std::chrono::steady_clock::now();
    rig.Frame(1);
    const auto stop = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(stop - start).count());
}

// Path lengths 100 and 500: a continuing contact dragging; the frame's update brings the path
// to the given length. The path is rebuilt outside the timed region.
void BM_FrameHeldDrag(benchmark::State& state) {
    const size_t length = static_cast<size_t>(state.range(0));
    Rig rig;
    rig.Frame(0);
    rig.Frame(1);  // pressed: every later frame drags
    for (auto _ : state) {
        TimedFrame(state, rig, length);
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

// The same two frames as the worker runs them: through the contact stream, the gestures its
// only listener. Compare with BM_FramePath1 and BM_FrameHeldDrag500Auto.
void BM_StreamFramePath1(benchmark::State& state) {
    Rig rig;
    rig.ThroughStream();
    rig.Frame(0);
    rig.Frame(0);
    for (auto _ : state) rig.Frame(0);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StreamFramePath1);

void BM_StreamFrameHeldDrag500(benchmark::State& state) {
    Rig rig;
    rig.ThroughStream();
    rig.Frame(0);
    rig.Frame(1);
    rig.HoldWithPath(499);
    for (auto _ : state) rig.Frame(1);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StreamFrameHeldDrag500);

// Two or four fingers resting on the frame, each moving 10 units back and forth a frame: far
// below every two- and four-finger threshold, so no gesture fires and the paths are never
// emptied. Every continuing contact runs the dispatcher, so a frame of n fingers is n calls.
struct HandRig {
    CDiscardEventSink sink;
    CTouchPointContainer container{sink};
    CContactTracker tracker{container};
    std::vector<_HARDWARE_SDK_POINT> points;
    int64_t stamp = 4'000'000;
    bool shifted = false;
    TLogSink previousLog;

    explicit HandRig(int fingers) : points(static_cast<size_t>(fingers)) {
        previousLog = TSetLogSink([](TLogChannel, std::string_view) {});
        container.SetScreenBoard(1920.0f, 1080.0f);
        for (size_t i = 0; i < points.size(); ++i) {
            points[i].id = static_cast<uint8_t>(i + 1);
            points[i].x = BaseX(points[i].id);
            points[i].y = kBaseY;
            points[i].next = i + 1 < points.size() ? &points[i + 1] : nullptr;
        }
    }
    ~HandRig() { TSetLogSink(std::move(previousLog)); }

    static constexpr int kBaseY = 16000;
    static int BaseX(int id) { return 4000 + 6000 * (id - 1); }

    void Frame(uint8_t status) {
        shifted = !shifted;
        for (_HARDWARE_SDK_POINT& p : points) {
            p.status = status;
            p.x = BaseX(p.id) + (shifted ? 10 : 0);
        }
        stamp += kFrameUnits;
        tracker.DealFrame(points.data(), stamp);
    }

    // Every contact's path rebuilt to `samples` samples at its resting place.
    void HoldWithPath(size_t samples) {
        for (CTouchPointInfo* contact : tracker.Tracked()) contact->Remove();
        for (size_t i = 0; i < samples; ++i) {
            stamp += kFrameUnits;
            for (CTouchPointInfo* contact : tracker.Tracked()) {
                contact->Update(static_cast<float>(BaseX(contact->GetID())),
                                static_cast<float>(kBaseY), stamp);
            }
        }
    }

    // Null when every finger is tracked with a path of `length` and no gesture fired.
    const char* Check(size_t length) const {
        if (tracker.Tracked().size() != points.size()) return "a finger is not tracked";
        if (tracker.LastGesture() != TFS_NONE) return "a gesture fired";
        for (const CTouchPointInfo* contact : tracker.Tracked()) {
            if (contact->PathSize() != length) return "a path is not of the length measured";
        }
        return nullptr;
    }

    // Down, then one continuing frame: every later frame goes to the multi-finger handler.
    const char* Land() {
        Frame(0);
        Frame(1);
        return Check(2);
    }
};

// Fingers x path length: the frame's update brings every path to the given length. Paths
// shorter than the limit are rebuilt outside the timed region; a full path stays full.
void BM_FrameRestingHand(benchmark::State& state) {
    const size_t length = static_cast<size_t>(state.range(1));
    HandRig rig(static_cast<int>(state.range(0)));
    if (const char* error = rig.Land()) {
        state.SkipWithError(error);
        return;
    }
    for (auto _ : state) {
        TimedFrame(state, rig, length);
        if (const char* error = rig.Check(length)) {
            state.SkipWithError(error);
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FrameRestingHand)
    ->ArgNames({"fingers", "path"})
    ->Args({2, 10})
    ->Args({2, 500})
    ->Args({4, 10})
    ->Args({4, 500})
    ->UseManualTime();

// The resting hand at 500 samples timed by the framework, without the manual timing's overhead.
void BM_FrameRestingHand500Auto(benchmark::State& state) {
    HandRig rig(static_cast<int>(state.range(0)));
    if (const char* error = rig.Land()) {
        state.SkipWithError(error);
        return;
    }
    rig.HoldWithPath(CTouchPointInfo::kMaxPathSamples - 1);
    rig.Frame(1);
    if (const char* error = rig.Check(CTouchPointInfo::kMaxPathSamples)) {
        state.SkipWithError(error);
        return;
    }
    for (auto _ : state) rig.Frame(1);
    if (const char* error = rig.Check(CTouchPointInfo::kMaxPathSamples)) {
        state.SkipWithError(error);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FrameRestingHand500Auto)->ArgName("fingers")->Arg(2)->Arg(4);

}  // namespace
