// Plays gesture scripts through contact matching into a gesture container that posts to a
// recording sink, on a virtual clock (at 1000 s), with the log captured; screen 1920 x 1080.
// Successive Play calls continue one script: the fingers stay where the last call left them,
// and the first new frame comes one report period (or the waited time) after the last one.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "CTouchPointContainer.h"
#include "ContactMatching.h"
#include "EventSink.h"
#include "GestureScript.h"
#include "MtDevLog.h"
#include "MultiPlatformAPI.h"

struct TLoggedLine {
    TLogChannel channel;
    std::string text;
    bool operator==(const TLoggedLine&) const = default;
};

using Events = std::vector<TInputEvent>;

// The parts' events one after another.
inline Events Concat(std::initializer_list<Events> parts) {
    Events all;
    for (const Events& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

class CGestureHarness {
public:
    static constexpr uint64_t kStartNanos = 1000ull * 1000000000ull;  // tick 60000
    static constexpr int64_t kStartWallSeconds = 1'700'000'000;      // on a second boundary

    explicit CGestureHarness(float screenWidth = 1920.0f, float screenHeight = 1080.0f);
    ~CGestureHarness();
    CGestureHarness(const CGestureHarness&) = delete;
    CGestureHarness& operator=(const CGestureHarness&) = delete;

    // Appends to the script and plays its new frames into the tracker; `afterFrame` (if given)
    // runs after each frame with its index in this call. Throws std::invalid_argument for a
    // script with errors (line numbers count from the first Play).
    void Play(std::string_view script,
              const std::function<void(size_t frameIndex)>& afterFrame = nullptr);

    std::vector<TInputEvent> TakeEvents() { return sink.Take(); }
    std::vector<TLoggedLine> TakeLogs();
    // The captured lines of one channel, text only (and forgets all captured lines).
    std::vector<std::string> TakeLines(TLogChannel channel);

    // The scaled screen position of a device position, as the container computes it.
    TScreenPoint Scaled(float x, float y) const { return container.ScalePoint(x, y); }
    // A Fn-flagged left-button event at the scaled position of a device position.
    TInputEvent Left(TInputEventType type, float x, float y, int64_t clickState = 0) const;
    // The same at an unscaled (device) position.
    static TInputEvent LeftUnscaled(TInputEventType type, float x, float y);
    // Key down and key up of a named key with modifier flags.
    static std::vector<TInputEvent> Shortcut(const char* key, uint64_t flags);

    int64_t Tick() const { return CTouchPointContainer::CurrentTick(); }
    // Microseconds from now to the first microsecond at or after the start of `tick`.
    uint64_t MicrosUntilTick(int64_t tick);

    TVirtualClock clock{kStartNanos, kStartWallSeconds};

private:
    TScopedClock m_scopedClock{clock};

public:
    CRecordingEventSink sink;
    CTouchPointContainer container{sink};
    CContactTracker tracker{container};

private:
    std::string m_script;  // everything played so far
    size_t m_framesPlayed = 0;
    TLogSink m_previousLog;
    std::vector<TLoggedLine> m_logs;
};
