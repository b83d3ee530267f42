// Gesture scripts: fingers going down, moving in straight lines and lifting, written as text
// and played as a stream of calibrated touch frames on the virtual clock. Tests use them so
// that a test reads like the gesture it checks; the simulation mode plays them as a device.
//
// The format is documented in docs/gesture-scripts.md. In short, one command per line:
//
//   rate 100                      reports per second (default 100)
//   down 1 8000 9000, 2 9000 9000 one frame: the fingers go down (status 0)
//   move 1 12000 9000 in 10       10 frames: finger 1 moves there in a straight line (status 1)
//   hold 3                        3 frames: every finger down holds still (no finger: empty)
//   up 1                          one frame: finger 1 reports lifted (status 2), then is gone
//   up 1 9000 9500                the same, lifting at a new position
//   gone 2 7                      one frame: finger 2 reports status 7 in place, then is gone
//   vanish 2                      no frame: finger 2 is no longer reported, without a lift
//   raw 5 1 100 200, 5 0 300 400  one frame with exactly these contacts (id status x y)
//   wait 250ms                    no frame: the next frame comes 250 ms after the previous one
//
// Example:
//   CGestureScript script = CGestureScript::FromText("down 1 100 100\nhold 2\nup 1\n");
//   TVirtualClock clock;
//   CGestureScriptPlayer player(script, clock);
//   while (const _HARDWARE_FRAME_SDK* frame = player.NextFrame()) {
//       timeval now;  TGetTimeOfDay(&now);   // the frame's time, as a worker would read it
//       ... frame->points ...
//   }
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "MtDevFrame.h"
#include "MultiPlatformAPI.h"

// Limits of the script: what a touch frame can carry.
constexpr int SCRIPT_MIN_COORD = 1;
constexpr int SCRIPT_MAX_COORD = 32766;
constexpr size_t SCRIPT_MAX_CONTACTS = 9;
// Frames of one script in all: over five hours at 100 reports a second, and a bound on the
// memory a short text can ask for ("hold 1000000" on every line).
constexpr size_t SCRIPT_MAX_FRAMES = 2'000'000;

// One contact of a scripted frame, in absolute output units.
struct TScriptContact {
    uint8_t id;
    uint8_t status;  // 0 new, 1 continuing, 2 lifted, other: gone without a final position
    int32_t x;
    int32_t y;
    bool operator==(const TScriptContact&) const = default;
};

// One scripted frame: how long after the previous frame it comes, and its contacts in the
// order the fingers went down (the order in which contact matching walks them).
struct TScriptFrame {
    uint64_t gapMicros;
    std::vector<TScriptContact> contacts;
    int line;  // script line that produced it, for messages
};

class CGestureScript {
public:
    // Parses a script. On error returns false and sets `error` to "line N: what".
    static bool Parse(std::string_view text, CGestureScript* script, std::string* error);
    // Parses a script that is known to be right (tests); throws std::invalid_argument if not.
    static CGestureScript FromText(std::string_view text);

    const std::vector<TScriptFrame>& Frames() const { return m_frames; }
    // Sum of all gaps: how long the script takes from its first frame to its last.
    uint64_t DurationMicros() const;

private:
    std::vector<TScriptFrame> m_frames;
};

// Plays a script frame by frame on a virtual clock.
class CGestureScriptPlayer {
public:
    // The player keeps references to both; they must outlive it. Playing starts at frame
    // `firstFrame`: the frames before it count as played elsewhere (the clock is not moved for
    // them), which lets a script that grows piece by piece go on where it stopped.
    CGestureScriptPlayer(const CGestureScript& script, TVirtualClock& clock, size_t firstFrame = 0);

    // Moves the clock on by the next frame's gap and returns the frame, calibrated (x, y in
    // absolute output units, rawX/rawY the same values, cell 0/0). The record and its contacts
    // belong to the player and stay valid until the next call. nullptr after the last frame.
    const _HARDWARE_FRAME_SDK* NextFrame();

    // The script frame last returned (valid after a NextFrame that returned a frame).
    const TScriptFrame& Current() const { return m_script.Frames()[m_next - 1]; }
    size_t FramesPlayed() const { return m_next; }
    bool Done() const { return m_next >= m_script.Frames().size(); }

private:
    const CGestureScript& m_script;
    TVirtualClock& m_clock;
    size_t m_next;
    _HARDWARE_FRAME_SDK m_frame{};
    std::vector<_HARDWARE_SDK_POINT> m_points;
};
