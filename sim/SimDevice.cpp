#include "SimDevice.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>

#include "QuotedText.h"
#include "MtDevCtrlInterface.h"
#include "MtDevLog.h"

// ---------------------------------------------------------------------------------------------
// Clock

namespace {
thread_local TVirtualClock* t_timeline = nullptr;

std::optional<int> ParseCount(std::string_view text) {
    int value = 0;
    if (text.empty() || text.size() > 6) return std::nullopt;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || value < 0) return std::nullopt;
    return value;
}
}  // namespace

void CSimTimelineClock::BindThread(TVirtualClock* timeline) {
    t_timeline = timeline;
}

TVirtualClock& CSimTimelineClock::Current() {
    return t_timeline != nullptr ? *t_timeline : m_default;
}

// ---------------------------------------------------------------------------------------------
// Arguments

std::optional<TSimFault> ParseSimFault(std::string_view text) {
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    const std::string_view kind = text.substr(0, colon);
    std::string_view rest = text.substr(colon + 1);
    TSimFault fault;
    if (kind == "config") {
        fault.kind = TSimFault::Kind::Config;
    } else if (kind == "frame") {
        fault.kind = TSimFault::Kind::FirstFrame;
    } else if (kind == "poll" || kind == "stall" || kind == "vanish" || kind == "hold") {
        fault.kind = kind == "poll"    ? TSimFault::Kind::Poll
                     : kind == "stall" ? TSimFault::Kind::Stall
                     : kind == "hold"  ? TSimFault::Kind::Hold
                                       : TSimFault::Kind::Vanish;
        if (const size_t at = rest.find('@'); at != std::string_view::npos) {
            const auto after = ParseCount(rest.substr(at + 1));
            if (!after) return std::nullopt;
            fault.after = *after;
            rest = rest.substr(0, at);
        }
    } else {
        return std::nullopt;
    }
    const auto count = ParseCount(rest);
    if (!count || *count < 1) return std::nullopt;
    fault.count = *count;
    return fault;
}

bool ParseSimulateArgument(std::string_view text, std::string* path, uint64_t* delayMillis,
                           std::string* error) {
    *delayMillis = 0;
    const size_t at = text.rfind('@');
    if (at == std::string_view::npos) {
        *path = std::string(text);
        return !path->empty() || (*error = "empty script path", false);
    }
    std::string_view delay = text.substr(at + 1);
    uint64_t scale = 0;
    if (delay.size() > 2 && delay.substr(delay.size() - 2) == "ms") {
        scale = 1;
        delay.remove_suffix(2);
    } else if (delay.size() > 1 && delay.back() == 's') {
        scale = 1000;
        delay.remove_suffix(1);
    }
    const auto amount = scale != 0 ? ParseCount(delay) : std::nullopt;
    if (!amount) {
        *error = "bad plug-in delay in " + QuotedText(text) + " (use FILE@250ms or FILE@2s)";
        return false;
    }
    *path = std::string(text.substr(0, at));
    *delayMillis = static_cast<uint64_t>(*amount) * scale;
    if (path->empty()) {
        *error = "empty script path";
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// One emulated frame

// The port the driver opens: the real HID port over the socketpair. Opening binds the opening
// thread (the device's worker) to the frame's timeline; closing tells the frame that the driver
// gave it up.
class CSimDevice::CPort final : public CMtHidDevice {
public:
    CPort(CSimDevice& owner, std::unique_ptr<CMtHidDevice> inner)
        : m_owner(owner), m_inner(std::move(inner)) {}

    int Open() override {
        if (m_owner.m_timelines != nullptr) CSimTimelineClock::BindThread(&m_owner.m_timeline);
        const int result = m_inner->Open();
        m_open = result == kMtHidSuccess;
        return result;
    }
    void Close() override {
        m_inner->Close();
        if (m_open) m_owner.HostClosed();
        m_open = false;
    }
    // Reports must name this object as their sender: the reader ignores reports of any other
    // device, and this is the device it opened.
    void RegisterInputReportCallback(TMtHidReportCallback callback, void* context) override {
        m_callback = callback;
        m_context = context;
        m_inner->RegisterInputReportCallback(callback != nullptr ? &Forward : nullptr, this);
    }
    int SetOutputReport(const uint8_t* report, long length) override {
        return m_inner->SetOutputReport(report, length);
    }
    void BeginWait(unsigned timeoutMs) override { m_inner->BeginWait(timeoutMs); }
    TMtHidRun RunWait() override { return m_inner->RunWait(); }
    void EndWait() override { m_inner->EndWait(); }

private:
    static void Forward(void* self, int result, void*, int type, uint32_t reportID,
                        uint8_t* report, long reportLength) {
        auto* port = static_cast<CPort*>(self);
        if (port->m_callback != nullptr) {
            port->m_callback(port->m_context, result, port, type, reportID, report, reportLength);
        }
    }

    CSimDevice& m_owner;
    std::unique_ptr<CMtHidDevice> m_inner;
    TMtHidReportCallback m_callback = nullptr;
    void* m_context = nullptr;
    bool m_open = false;  // the worker's thread only
};

CSimDevice::CSimDevice(int number, TSimDeviceSpec spec, CSimTimelineClock* timelines, THooks hooks)
    : m_number(number), m_spec(std::move(spec)), m_timelines(timelines), m_hooks(std::move(hooks)) {}

CSimDevice::~CSimDevice() {
    Abort();
    m_link.reset();  // joins the link thread
    m_port.reset();
    m_emulator.reset();
}

bool CSimDevice::Start(const PortFactory& makePort, std::string* error) {
    m_emulator = std::make_unique<CMtDevEmulator>();
    m_emulator->KeepRequestLog(false);  // a simulated frame may be polled for hours
    m_emulator->SetConfigBlock(SimConfigBlock());
    m_emulator->SetIdleFrame(m_encoder.IdleFrame());

    // Faults: wrong reply codes, so each failing call fails at once.
    uint64_t firstFrameFaults = 0;
    for (const TSimFault& fault : m_spec.faults) {
        if (fault.kind != TSimFault::Kind::FirstFrame) continue;
        for (int i = 0; i < fault.count; ++i) {
            m_faultedPolls.insert(++firstFrameFaults);
            m_emulator->InjectFault({TEmuFaultKind::WrongCode, MTDEV_CMD_FRAME_SDK,
                                     TEmuStage::Request});
        }
    }
    for (const TSimFault& fault : m_spec.faults) {
        if (fault.kind == TSimFault::Kind::Config) {
            for (int i = 0; i < fault.count; ++i) {
                m_emulator->InjectFault({TEmuFaultKind::WrongCode, MTDEV_CMD_DEV_CONFIG,
                                         TEmuStage::Request});
            }
        } else if (fault.kind == TSimFault::Kind::Poll) {
            // Polls before these: the failed first-frame polls, the geometry frame, `after`
            // scripted frames. A fault lets that many matching polls through first.
            const uint64_t before = firstFrameFaults + 1 + static_cast<uint64_t>(fault.after);
            for (int i = 0; i < fault.count; ++i) {
                m_faultedPolls.insert(before + 1 + static_cast<uint64_t>(i));
                m_emulator->InjectFault({TEmuFaultKind::WrongCode, MTDEV_CMD_FRAME_SDK,
                                         TEmuStage::Request, static_cast<int>(before)});
            }
        }
    }
    m_emulator->SetFrameSource([this](TEmuFramePayload& payload) { return NextPayload(payload); });
    m_emulator->SetVanishHook([this] { UnplugAndWait(); });

    m_link = std::make_unique<CMtEmuHidLink>(*m_emulator);
    if (!m_link->Ok()) {
        *error = m_spec.name + ": cannot make the emulated frame's socketpair";
        return false;
    }
    std::unique_ptr<CMtHidDevice> inner = makePort(m_link->TakeHostFd());
    if (!inner) {
        *error = m_spec.name + ": cannot make the HID port of the emulated frame";
        return false;
    }
    m_port = std::make_unique<CPort>(*this, std::move(inner));
    m_port->SetIdentity({"simulated:" + m_spec.name, m_spec.vendorId, m_spec.productId,
                         "emulated frame " + std::to_string(m_number), ""});
    return true;
}

bool CSimDevice::NextPayload(TEmuFramePayload& payload) {
    ++m_pollCalls;
    if (m_vanished || m_faultedPolls.count(m_pollCalls) != 0) return false;
    if (!m_geometrySent) {
        m_geometrySent = true;  // the idle frame: the driver learns the extents from it
        ArmTransferFaults();    // the worker's own configuration reads are behind it
        return false;
    }
    if (Holding()) {
        if (m_scriptStarted && m_timelines == nullptr && m_heldSinceNanos == 0) {
            m_heldSinceNanos = TGetClock().MonotonicNanos();
        }
        return false;
    }
    if (m_heldSinceNanos != 0) {
        // In real time the script goes on after a hold at its own pace, not in a burst.
        m_realStartNanos += TGetClock().MonotonicNanos() - m_heldSinceNanos;
        m_heldSinceNanos = 0;
    }
    if (!m_scriptStarted) {
        m_scriptStarted = true;
        if (m_timelines != nullptr) {
            const uint64_t second = 1'000'000'000ull;
            m_timeline.SetMonotonicNanos((m_timeline.MonotonicNanos() / second + 1) * second);
            m_player = std::make_unique<CGestureScriptPlayer>(m_spec.script, m_timeline);
        } else {
            m_realStartNanos = TGetClock().MonotonicNanos();
            m_player = std::make_unique<CGestureScriptPlayer>(m_spec.script, m_schedule);
        }
    }
    if (!m_framePending) {
        if (m_player->Done()) {
            EndOfScript();
            return false;
        }
        m_player->NextFrame();
        m_framePending = true;
    }
    if (m_timelines == nullptr) {
        const uint64_t due = m_realStartNanos + m_schedule.MonotonicNanos();
        const uint64_t now = TGetClock().MonotonicNanos();
        // A real frame answers every poll: through a long pause of the script (a wait) it
        // reports no contacts, so that the driver does not take it for dead.
        if (due > now + kSimLongestAnswerMillis * 1'000'000ull) {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait_for(lock, std::chrono::milliseconds(kSimIdlePaceMillis),
                               [this] { return m_aborted; });
            payload = m_encoder.IdleFrame();
            return true;
        }
        if (due > now) TSleepMicros((due - now) / 1000u);
    }
    m_framePending = false;
    payload = m_encoder.Encode(m_player->Current().contacts);
    m_framesPlayed.fetch_add(1);
    return true;
}

void CSimDevice::ArmTransferFaults() {
    for (const TSimFault& fault : m_spec.faults) {
        TEmuFault armed{};
        armed.notCommand = MTDEV_CMD_FRAME_SDK;  // a tool's transfer, not the polls
        armed.skip = fault.after;
        armed.count = fault.count;
        if (fault.kind == TSimFault::Kind::Stall) {
            armed.kind = TEmuFaultKind::Stall;
            armed.stage = TEmuStage::Request;
            armed.value = static_cast<int>(kSimIdlePaceMillis);
        } else if (fault.kind == TSimFault::Kind::Vanish) {
            armed.kind = TEmuFaultKind::Vanish;
        } else {
            continue;
        }
        m_emulator->InjectFault(armed);
    }
}

bool CSimDevice::Holding() {
    for (const TSimFault& fault : m_spec.faults) {
        if (fault.kind != TSimFault::Kind::Hold) continue;
        if (ScriptFramesPlayed() < static_cast<size_t>(fault.after)) continue;
        const size_t writes = m_emulator->WriteCount(MTDEV_CMD_DEV_CONFIG) +
                              m_emulator->WriteCount(MTDEV_CMD_CONFIG_OVERRIDE);
        if (writes >= static_cast<size_t>(fault.count)) {
            continue;
        }
        if (!m_holdAnnounced) {
            m_holdAnnounced = true;  // what the frame waits for, or a hold looks like a hang
            TLog(TLogLevel::Info,
                 "simulated frame %d holds after %d scripted frames until a tool has written "
                 "its configuration %d time(s) over the driver's D-Bus interface (irframectl "
                 "config restore); SIGINT or SIGTERM ends the driver meanwhile",
                 m_number, fault.after, fault.count);
        }
        // Polls without contacts at an idle pace, so a waiting frame does not spin.
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::milliseconds(kSimIdlePaceMillis),
                           [this] { return m_aborted; });
        return true;
    }
    return false;
}

void CSimDevice::UnplugAndWait() {
    if (!m_unplugRequested) {
        m_unplugRequested = true;
        if (m_hooks.scriptEnded) m_hooks.scriptEnded(this);
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_removalHandled || m_aborted; });
    }
    m_vanished = true;
    MarkDone();
}

void CSimDevice::EndOfScript() {
    // The frame is unplugged after its last scripted frame: the driver handles the removal
    // first, and only then does this poll go unanswered, as when a device goes during a poll.
    UnplugAndWait();
    m_emulator->InjectFault({TEmuFaultKind::Vanish, MTDEV_CMD_FRAME_SDK, TEmuStage::Request});
}

void CSimDevice::RemovalHandled() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_removalHandled = true;
    m_changed.notify_all();
}

void CSimDevice::Abort() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_aborted = true;
    m_changed.notify_all();
}

void CSimDevice::MarkDone() {
    if (!m_done.exchange(true) && m_hooks.done) m_hooks.done(this);
}

void CSimDevice::HostClosed() {
    m_closedByHost.store(true);
    MarkDone();
}

size_t CSimDevice::ScriptFramesPlayed() const {
    return m_framesPlayed.load();
}

std::string CSimDevice::Summary() const {
    char line[512];
    std::snprintf(line, sizeof line,
                  "simulated frame %d (%s, %04X:%04X): %zu of %zu scripted frames played, %s",
                  m_number, m_spec.name.c_str(), m_spec.vendorId, m_spec.productId,
                  ScriptFramesPlayed(), m_spec.script.Frames().size(),
                  ClosedByHost() ? "closed by the driver" : "not closed by the driver");
    return line;
}

// ---------------------------------------------------------------------------------------------
// Discovery sessions

class CSimDeviceHub::CManager final : public IHidManager {
public:
    explicit CManager(CSimDeviceHub& hub) : m_hub(hub) {}
    ~CManager() override { Unregister(); }

    void SetDeviceMatching(uint16_t vendorId, uint16_t productId) override {
        m_vendor = vendorId;
        m_product = productId;
    }
    void ScheduleWithMainLoop() override {}
    void UnscheduleFromMainLoop() override { Unregister(); }
    void RegisterDeviceMatchingCallback(THidDeviceCallback callback, void* context) override {
        m_matched = callback;
        m_matchedContext = context;
    }
    void RegisterDeviceRemovalCallback(THidDeviceCallback callback, void* context) override {
        m_removed = callback;
        m_removedContext = context;
    }
    int Open() override {
        m_hub.m_managers.push_back(this);
        // The frames present now are reported one per turn of the loop.
        for (CSimDevice* device : m_hub.m_present) {
            if (!Matches(device)) continue;
            m_hub.m_loop.Post([this, device] { Matched(device); });
        }
        return 0;
    }

    bool Matches(const CSimDevice* device) const {
        return device->Spec().vendorId == m_vendor && device->Spec().productId == m_product;
    }
    void Matched(CSimDevice* device) {
        if (m_matched != nullptr) m_matched(m_matchedContext, 0, this, Handed(device->Port()));
    }
    void Removed(CSimDevice* device) {
        if (m_removed != nullptr) m_removed(m_removedContext, 0, this, Handed(device->Port()));
    }

private:
    void Unregister() {
        auto& managers = m_hub.m_managers;
        managers.erase(std::remove(managers.begin(), managers.end(), this), managers.end());
    }

    CSimDeviceHub& m_hub;
    uint16_t m_vendor = 0;
    uint16_t m_product = 0;
    THidDeviceCallback m_matched = nullptr;
    void* m_matchedContext = nullptr;
    THidDeviceCallback m_removed = nullptr;
    void* m_removedContext = nullptr;
};

CSimDeviceHub::CSimDeviceHub(IMainLoop& loop, CSimTimelineClock* timelines)
    : m_loop(loop), m_timelines(timelines) {}

CSimDeviceHub::~CSimDeviceHub() {
    AbortAll();
    m_devices.clear();
}

CSimDevice* CSimDeviceHub::Add(TSimDeviceSpec spec) {
    CSimDevice::THooks hooks;
    hooks.scriptEnded = [this](CSimDevice* device) {
        m_loop.Post([this, device] { Unplug(device); });
    };
    hooks.done = [this](CSimDevice*) { DeviceDone(); };
    const int number = static_cast<int>(m_devices.size()) + 1;
    m_devices.push_back(
        std::make_unique<CSimDevice>(number, std::move(spec), m_timelines, std::move(hooks)));
    return m_devices.back().get();
}

bool CSimDeviceHub::Start(const CSimDevice::PortFactory& makePort, std::string* error) {
    for (const auto& device : m_devices) {
        if (!device->Start(makePort, error)) return false;
    }
    for (const auto& device : m_devices) {
        CSimDevice* d = device.get();
        if (d->Spec().plugDelayMillis == 0) {
            m_present.push_back(d);
        } else {
            m_loop.PostDelayed(d->Spec().plugDelayMillis, [this, d] { Plug(d); });
        }
    }
    return true;
}

void CSimDeviceHub::AbortAll() {
    for (const auto& device : m_devices) device->Abort();
}

std::unique_ptr<IHidManager> CSimDeviceHub::CreateHidManager() {
    return std::make_unique<CManager>(*this);
}

CSimDeviceHub::CManager* CSimDeviceHub::ManagerFor(const CSimDevice* device) const {
    for (CManager* manager : m_managers) {
        if (manager->Matches(device)) return manager;
    }
    return nullptr;
}

void CSimDeviceHub::Plug(CSimDevice* device) {
    m_present.push_back(device);
    if (CManager* manager = ManagerFor(device)) manager->Matched(device);
}

void CSimDeviceHub::Unplug(CSimDevice* device) {
    m_present.erase(std::remove(m_present.begin(), m_present.end(), device), m_present.end());
    if (CManager* manager = ManagerFor(device)) manager->Removed(device);
    device->RemovalHandled();
}

void CSimDeviceHub::DeviceDone() {
    if (m_doneCount.fetch_add(1) + 1 == m_devices.size() && m_allDone) {
        m_loop.Post([this] {
            if (m_allDone) m_allDone();
        });
    }
}
