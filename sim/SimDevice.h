// The simulation mode's devices: emulated touch frames that play gesture scripts, reached by the
// driver through the real HID port code, and the discovery sessions that report them.
//
//   CSimDevice        one emulated frame (CMtDevEmulator behind a socketpair, CMtEmuHidLink)
//                     playing one script; faults can be injected into its configuration reads
//                     and frame polls.
//   CSimDeviceHub     all emulated frames of a run: plugs them in (at start, or after a delay),
//                     unplugs each when its script has been played, and says when every frame
//                     is done (played to the end, or closed by the driver).
//   CSimTimelineClock the virtual clock of a run: every emulated frame has its own timeline, and
//                     the worker thread that opens the frame reads that timeline, so several
//                     frames at once cannot shift each other's gesture timing.
//
// Time: with the virtual clock, a frame's script starts at the next whole second of its
// timeline and each scripted frame moves the timeline on by its gap when the driver polls it;
// the driver reads exactly that time for the frame. With real time, each poll is answered once
// the frame is due.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "GestureScript.h"
#include "HidManager.h"
#include "MainLoop.h"
#include "MtDevEmulator.h"
#include "MtEmuHidLink.h"
#include "MultiPlatformAPI.h"
#include "SimFrameEncoder.h"

// Where a simulated run's clocks start: timelines begin here; scripts start a second later.
constexpr uint64_t kSimClockStartNanos = 100'000'000'000ull;  // 100 s after "boot"
constexpr int64_t kSimWallSeconds = 1'700'000'000;            // wall-clock seconds at that time

class CSimTimelineClock final : public TClock {
public:
    CSimTimelineClock() : m_default(kSimClockStartNanos, kSimWallSeconds) {}

    uint64_t MonotonicNanos() override { return Current().MonotonicNanos(); }
    void TimeOfDay(timeval* tv) override { Current().TimeOfDay(tv); }
    void SleepMicros(uint64_t micros) override { Current().SleepMicros(micros); }

    // From now on the calling thread reads `timeline` (null: the run's default timeline).
    static void BindThread(TVirtualClock* timeline);

private:
    TVirtualClock& Current();
    TVirtualClock m_default;
};

// A fault injected into an emulated frame. Config, FirstFrame and Poll: the frame answers with
// a wrong reply code, so the driver's call fails at once. The others concern a tool's transfers
// once the frame runs, and the script's pace.
struct TSimFault {
    enum class Kind {
        Config,      // `count` configuration reads fail
        FirstFrame,  // `count` first polls fail
        Poll,        // `count` polls fail after `after` scripted frames
        Stall,       // a transfer's read stalls: after `after` messages, `count` empty replies
        Vanish,      // the frame is unplugged when the transfer message `after` + 1 arrives
        Hold,        // after `after` scripted frames the script waits for `count` writes of the
                     // configuration or its override
    };
    Kind kind = Kind::Poll;
    int count = 0;
    int after = 0;
    bool operator==(const TSimFault&) const = default;
};

// Real time between two polls answered while a script holds, and the lateness of each empty
// reply of a stalled read: the frame idles instead of spinning.
constexpr unsigned kSimIdlePaceMillis = 10;
// In real time, the longest a scripted frame's answer is held back; a longer pause is answered
// with frames without contacts. Well within the driver's reply time-out.
constexpr unsigned kSimLongestAnswerMillis = 200;

// "config:N", "frame:N" (the first frame), "poll:N@K" (N polls fail after K scripted frames),
// "stall:N@K", "vanish:N@K" (transfers), "hold:N@K" (the script waits for N config writes).
std::optional<TSimFault> ParseSimFault(std::string_view text);

struct TSimDeviceSpec {
    std::string name;         // the script's path, for messages
    CGestureScript script;
    uint64_t plugDelayMillis = 0;  // 0: present at start; else plugged in this much later
    uint16_t vendorId = 0xAAEC;
    uint16_t productId = 0xC020;
    std::vector<TSimFault> faults;
};

// "FILE" or "FILE@DELAY" with DELAY as "250ms" or "2s": the script's path and plug-in delay.
bool ParseSimulateArgument(std::string_view text, std::string* path, uint64_t* delayMillis,
                           std::string* error);

class CSimDevice {
public:
    // Makes the HID port object over the host end of the socketpair (Linux: CHidrawDevice).
    using PortFactory = std::function<std::unique_ptr<CMtHidDevice>(int hostFd)>;

    struct THooks {
        std::function<void(CSimDevice*)> scriptEnded;  // any thread; ask for the unplug
        std::function<void(CSimDevice*)> done;         // any thread; once
    };

    // `timelines` null: real time.
    CSimDevice(int number, TSimDeviceSpec spec, CSimTimelineClock* timelines, THooks hooks);
    ~CSimDevice();

    CSimDevice(const CSimDevice&) = delete;
    CSimDevice& operator=(const CSimDevice&) = delete;

    bool Start(const PortFactory& makePort, std::string* error);

    int Number() const { return m_number; }
    const TSimDeviceSpec& Spec() const { return m_spec; }
    // The device as discovery names it.
    CMtHidDevice* Port() const { return m_port.get(); }

    // The driver handled this device's removal: the last poll may now fail.
    void RemovalHandled();
    // Stops any wait (the run is ending).
    void Abort();
    bool IsDone() const { return m_done.load(); }

    size_t ScriptFramesPlayed() const;
    bool ClosedByHost() const { return m_closedByHost.load(); }
    // One line about the run of this frame.
    std::string Summary() const;

private:
    class CPort;
    bool NextPayload(TEmuFramePayload& payload);
    bool Holding();
    void ArmTransferFaults();
    // The frame goes away: the driver hears of the unplug first, then the link goes dead.
    void UnplugAndWait();
    void EndOfScript();
    void MarkDone();
    void HostClosed();

    const int m_number;
    TSimDeviceSpec m_spec;
    CSimTimelineClock* m_timelines;
    THooks m_hooks;
    CSimFrameEncoder m_encoder;
    TVirtualClock m_timeline{kSimClockStartNanos, kSimWallSeconds};  // virtual: the frame's time
    TVirtualClock m_schedule{0, 0};  // real time: when each frame is due, from the script's start
    uint64_t m_realStartNanos = 0;
    uint64_t m_heldSinceNanos = 0;  // real time: when a hold began in the middle of the script
    std::unique_ptr<CGestureScriptPlayer> m_player;

    // Frame source state (the link thread; the emulator's lock serialises it).
    uint64_t m_pollCalls = 0;
    std::set<uint64_t> m_faultedPolls;  // 1-based indexes of frame polls that fail
    bool m_geometrySent = false;
    bool m_scriptStarted = false;
    bool m_framePending = false;
    bool m_holdAnnounced = false;  // the player's current frame is due but not yet sent
    bool m_vanished = false;
    bool m_unplugRequested = false;

    std::unique_ptr<CMtDevEmulator> m_emulator;
    std::unique_ptr<CMtEmuHidLink> m_link;
    std::unique_ptr<CMtHidDevice> m_port;  // a CPort

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_removalHandled = false;  // guarded by m_mutex
    bool m_aborted = false;         // guarded by m_mutex
    std::atomic<bool> m_done{false};
    std::atomic<bool> m_closedByHost{false};
    std::atomic<size_t> m_framesPlayed{0};
};

// All emulated frames of a run, and the discovery sessions that report them.
class CSimDeviceHub final : public IHidManagerFactory {
public:
    // `timelines` null: real time. The loop must outlive the hub.
    CSimDeviceHub(IMainLoop& loop, CSimTimelineClock* timelines);
    ~CSimDeviceHub() override;

    // Adds a frame; device numbers count from 1 in the order added.
    CSimDevice* Add(TSimDeviceSpec spec);
    // Makes every frame and arms the plug-in timers. False with `error` at the first failure.
    bool Start(const CSimDevice::PortFactory& makePort, std::string* error);
    // Called on the main loop once every frame is done.
    void OnAllDone(std::function<void()> handler) { m_allDone = std::move(handler); }
    void AbortAll();

    std::unique_ptr<IHidManager> CreateHidManager() override;
    const std::vector<std::unique_ptr<CSimDevice>>& Devices() const { return m_devices; }

private:
    class CManager;
    void Plug(CSimDevice* device);     // main thread
    void Unplug(CSimDevice* device);   // main thread
    CManager* ManagerFor(const CSimDevice* device) const;
    void DeviceDone();

    IMainLoop& m_loop;
    CSimTimelineClock* m_timelines;
    std::vector<std::unique_ptr<CSimDevice>> m_devices;
    std::vector<CManager*> m_managers;  // open sessions (owned by the shell); main thread
    std::vector<CSimDevice*> m_present;  // plugged in and not unplugged; main thread
    std::function<void()> m_allDone;
    std::atomic<size_t> m_doneCount{0};
};
