// Writes the contacts of polled frames as a gesture script (docs/gesture-scripts.md) that
// `irframed --simulate` plays back to the same contacts at the same times, and so to the same
// gesture events.
//
// Each frame becomes one `raw` line with its contacts exactly as reported (id, status and
// calibrated position, in the frame's order; retired contacts are left out, the player's contact
// matching retires them again), or a `hold` for a frame without contacts. Time: the first frame
// keeps its place within its second (a leading `wait`), because a simulated frame starts its
// script on a whole second; every later frame comes its measured gap after the previous one
// (`wait` when the gap is not the script's period).
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "FrameAccess.h"

class CGestureRecorder {
public:
    // `header` goes first as comment lines (one per line of the text).
    CGestureRecorder(std::ostream& out, const std::string& header);

    void Add(const TMonitoredFrame& frame);
    // Writes what is still pending; call once at the end.
    void Finish();

    uint64_t Frames() const { return m_frames; }
    uint64_t FramesWithContacts() const { return m_framesWithContacts; }

    // The script's period: the default rate of 100 reports per second.
    static constexpr int64_t kPeriodMicros = 10'000;
    // Longest wait a script line may hold.
    static constexpr int64_t kMaxWaitMicros = 3'600'000'000;

private:
    void Wait(int64_t micros);
    void FlushHold();

    std::ostream& m_out;
    bool m_first = true;
    int64_t m_lastMicros = 0;
    uint64_t m_pendingHold = 0;
    uint64_t m_frames = 0;
    uint64_t m_framesWithContacts = 0;
};

// Microseconds since the epoch of a frame time stamp (seconds * 4,000,000 + microseconds).
int64_t StampToMicros(int64_t stamp);
