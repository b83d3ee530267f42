// An emulated touch frame on /dev/uhid that plays gesture scripts in real time, for end-to-end
// runs of the driver on a real kernel.
//
// The frame answers every frame poll: with the next frame of the script in play, or with an
// empty frame when no script plays. Each answer goes out one frame period after the previous
// answer (an empty frame's period, or the scripted frame's gap), and no sooner than half a
// period after its poll arrived, not at a fixed schedule: the driver stamps frames when it
// receives them, and a burst of overdue frames stamped a few microseconds apart would look to
// contact matching like a finger still settling.
//
// Threads: the link's thread runs the frame source; Play, Unplug and the waits come from any
// other thread.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "GestureScript.h"
#include "MtDevEmulator.h"
#include "MtEmuUhidLink.h"
#include "SimFrameEncoder.h"

class CMtEmuUhidFrame {
public:
    // Called on the link's thread right before the report of scripted frame `frameIndex` of
    // the script in play is written, with the monotonic time (TGetClock) in nanoseconds.
    using TFrameSentHook = std::function<void(size_t frameIndex, uint64_t nanos)>;

    // The encoder is shared (building one takes a while) and must outlive the frame.
    CMtEmuUhidFrame(const CSimFrameEncoder& encoder, TUhidIdentity identity);
    ~CMtEmuUhidFrame();

    CMtEmuUhidFrame(const CMtEmuUhidFrame&) = delete;
    CMtEmuUhidFrame& operator=(const CMtEmuUhidFrame&) = delete;

    // When the answer to a poll is due: one gap after the previous answer, and never sooner
    // than half a gap after the poll arrived (a driver that fell behind still stamps two frames
    // at least that far apart). No previous answer (0): at once.
    static uint64_t AnswerDueNanos(uint64_t lastAnswerNanos, uint64_t arrivedNanos,
                                   uint64_t gapMicros);

    // Creates the device on the uhid node; PlugFd on a descriptor that speaks like it (tests).
    bool Plug(const std::string& uhidPath, std::string* error);
    bool PlugFd(int fd, std::string* error);
    // The device goes away; a script in play stops where it is. Safe to repeat.
    void Unplug();

    // Set before plugging in.
    void SetFrameSentHook(TFrameSentHook hook) { m_frameSent = std::move(hook); }
    void SetIdlePeriodMicros(uint64_t micros) { m_idlePeriodMicros = micros; }

    // Starts playing at the next poll; false while another script plays or once unplugged.
    bool Play(const CGestureScript& script);
    // Waits until the script in play has been sent to its last frame; false on time-out.
    bool WaitPlayed(int timeoutMs);
    bool Playing() const;
    // Scripted frames of the current (or last) script sent so far.
    size_t FramesSent() const;

    // Frame polls answered (scripted and empty frames).
    uint64_t Polls() const;
    // Waits until more than `count` polls have been answered; false on time-out.
    bool WaitPollsAbove(uint64_t count, int timeoutMs);

    const TUhidIdentity& Identity() const { return m_identity; }
    CMtEmuUhidLink& Link() { return *m_link; }
    CMtDevEmulator& Emulator() { return *m_emulator; }

private:
    bool NextPayload(TEmuFramePayload& payload);
    void OnSent(const uint8_t* report, size_t length, uint64_t nanos);
    bool Prepare();

    const CSimFrameEncoder& m_encoder;
    const TUhidIdentity m_identity;
    uint64_t m_idlePeriodMicros = 20'000;
    TFrameSentHook m_frameSent;
    std::unique_ptr<CMtDevEmulator> m_emulator;
    std::unique_ptr<CMtEmuUhidLink> m_link;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::optional<CGestureScript> m_script;  // guarded by m_mutex
    size_t m_next = 0;                       // guarded: next frame of m_script to send
    bool m_playing = false;                  // guarded
    bool m_unplugged = false;                // guarded
    uint64_t m_polls = 0;                    // guarded
    uint64_t m_lastAnswerNanos = 0;          // guarded; 0 before the first answer

    // Link thread only: the scripted frame whose report is being sent, if any.
    std::optional<size_t> m_sending;
};
