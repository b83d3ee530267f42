// Taking one calibration touch: one finger goes down, stays within 1% of the frame's extent of
// where it went down for at least 300 ms, and lifts. Its raw position is the mean over its rest.
// A finger that moves, a second finger or a lift too early refuses the touch; after a refusal
// every finger must lift before the next try.
//
// Time is each polled frame's own time stamp, so a burst of frames handled late still measures
// the rest the finger made.
#pragma once

#include <cstdint>

#include "AreaFit.h"
#include "FrameAccess.h"

enum class TTouchOutcome {
    None,          // nothing decided in this frame
    FingerDown,    // a finger went down on a free frame
    Taken,         // a touch was taken; its position is in `raw`
    Moved,         // refused: the finger moved
    SecondFinger,  // refused: another finger touched
    TooShort,      // refused: lifted before it had rested long enough
};

struct TTouchResult {
    TTouchOutcome outcome = TTouchOutcome::None;
    TPointD raw;
};

class CTouchTaker {
public:
    static constexpr int64_t kRestMicros = 300'000;

    CTouchTaker(int32_t rawWidth, int32_t rawHeight) : m_rawWidth(rawWidth), m_rawHeight(rawHeight) {}

    TTouchResult OnFrame(const TMonitoredFrame& frame);
    // Forgets a touch in progress; the next finger down starts afresh.
    void Reset() { m_state = TState::Free; }

    // A frame's stamp (seconds * 4,000,000 + microseconds) in microseconds.
    static int64_t StampMicros(int64_t stamp) { return stamp / 4'000'000 * 1'000'000 + stamp % 4'000'000; }

private:
    enum class TState { Free, Pressing, WaitForNoFinger };

    int32_t m_rawWidth;
    int32_t m_rawHeight;
    TState m_state = TState::Free;
    uint8_t m_id = 0;
    TPointD m_start;
    TPointD m_sum;
    int m_samples = 0;
    int64_t m_startMicros = 0;
};
