// Test rigs for the device link: an emulated touch frame reached through the real hidraw port
// over a socketpair, or through the in-process USB bulk port; plus helpers to check that a test
// left no descriptor open and to read what was logged.
#pragma once

#include <dirent.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "HidrawDevice.h"
#include "MtDevComInterface.h"
#include "MtDevCtrlInterface.h"
#include "MtDevEmulator.h"
#include "MtDevLog.h"
#include "MtEmuHidLink.h"
#include "MtEmuUsbDevice.h"
#include "MultiPlatformAPI.h"

// Open descriptors of this process.
inline int CountOpenFds() {
    int count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') ++count;
        }
        closedir(dir);
    }
    return count - 1;  // the directory's own descriptor
}

// Collects the lines logged while it lives.
class CLogCapture {
public:
    CLogCapture() {
        m_previous = TSetLogSink([this](TLogChannel channel, std::string_view line) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.push_back({channel, std::string(line)});
        });
    }
    ~CLogCapture() { TSetLogSink(m_previous); }
    CLogCapture(const CLogCapture&) = delete;
    CLogCapture& operator=(const CLogCapture&) = delete;

    int Count(TLogChannel channel, const std::string& text) const {
        const std::vector<std::string> lines = Lines(channel);
        return static_cast<int>(std::count(lines.begin(), lines.end(), text));
    }
    std::vector<std::string> Lines(TLogChannel channel) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::string> out;
        for (const auto& entry : m_lines) {
            if (entry.first == channel) out.push_back(entry.second);
        }
        return out;
    }

private:
    TLogSink m_previous;
    mutable std::mutex m_mutex;
    std::vector<std::pair<TLogChannel, std::string>> m_lines;
};

// A HID device that passes everything to another one and notes the time-out of every wait, so
// a test sees which time-out each read used without timing anything. Given the emulated frame's
// link, a wait ends as soon as the frame has dealt with every report written and its replies
// are read: a reply that comes is never missed however slow the frame's thread, one that never
// comes costs no time. A generous bound stays, so a fault fails a test instead of hanging it.
class CWaitRecordingHidDevice final : public CMtHidDevice {
public:
    static constexpr unsigned kSliceMs = 5;
    static constexpr int64_t kBoundMs = 60'000;

    explicit CWaitRecordingHidDevice(CMtHidDevice& inner, const CMtEmuHidLink* link = nullptr)
        : m_inner(inner), m_link(link) {}
    int Open() override { return m_inner.Open(); }
    void Close() override { m_inner.Close(); }
    void RegisterInputReportCallback(TMtHidReportCallback callback, void* context) override {
        m_callback = callback;
        m_context = context;
        // Reports come from the inner device; present them as ours.
        m_inner.RegisterInputReportCallback(callback != nullptr ? &Forward : nullptr, this);
    }
    int SetOutputReport(const uint8_t* report, long length) override {
        const int result = m_inner.SetOutputReport(report, length);
        if (result == kMtHidSuccess) ++m_written;
        return result;
    }
    void BeginWait(unsigned timeoutMs) override {
        m_waits.push_back(timeoutMs);
        m_inner.BeginWait(timeoutMs);
    }
    TMtHidRun RunWait() override {
        if (m_link == nullptr) return m_inner.RunWait();
        const auto bound = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBoundMs);
        for (;;) {
            // Settled first, then read: every reply sent in time is in the socket by then.
            const bool settled = m_link->ReportsSettled() >= m_written;
            m_inner.BeginWait(settled ? 0 : kSliceMs);
            const TMtHidRun run = m_inner.RunWait();
            if (run != TMtHidRun::TimedOut) return run;
            if (settled || std::chrono::steady_clock::now() > bound) return TMtHidRun::TimedOut;
        }
    }
    void EndWait() override { m_inner.EndWait(); }

    const std::vector<unsigned>& Waits() const { return m_waits; }

private:
    static void Forward(void* context, int result, void* /*sender*/, int type, uint32_t reportID,
                        uint8_t* report, long length) {
        auto* self = static_cast<CWaitRecordingHidDevice*>(context);
        if (self->m_callback != nullptr) {
            self->m_callback(self->m_context, result,
                             static_cast<void*>(static_cast<CMtHidDevice*>(self)), type, reportID,
                             report, length);
        }
    }

    CMtHidDevice& m_inner;
    const CMtEmuHidLink* m_link;
    uint64_t m_written = 0;
    TMtHidReportCallback m_callback = nullptr;
    void* m_context = nullptr;
    std::vector<unsigned> m_waits;
};

// Distinct HID time-outs, so each wait's time-out tells which step it was. Through THidRig no
// wait runs them out (see CWaitRecordingHidDevice). Bulk time-outs keep the device's values
// (they run on a virtual clock).
constexpr unsigned kTestReplyMs = 100;
constexpr unsigned kTestWriteAckMs = 110;
constexpr unsigned kTestEndAckMs = 120;

inline TMtDevTimeouts ShortHidTimeouts() {
    return {.hidReplyMs = kTestReplyMs, .hidWriteAckMs = kTestWriteAckMs,
            .hidEndAckMs = kTestEndAckMs};
}

// The emulated frame on a socketpair, opened through the real hidraw port.
struct THidRig {
    CMtDevEmulator emulator;
    CMtEmuHidLink link{emulator};
    std::unique_ptr<CHidrawDevice> port = CHidrawDevice::Adopt(link.TakeHostFd());
    std::unique_ptr<CWaitRecordingHidDevice> recorder =
        std::make_unique<CWaitRecordingHidDevice>(*port, &link);
    TMACDEVICEPATH path{recorder.get(), nullptr, MTDEV_TYPE_HID};
};

// One pipe transfer as the controller asked for it and as it ended.
struct TBulkTransfer {
    bool write;                  // WritePipeTO; else ReadPipeTO
    uint8_t pipe;
    uint32_t size;               // bytes written, or the read's capacity
    std::vector<uint8_t> bytes;  // bytes written, or bytes read
    uint32_t noDataTimeoutMs;
    uint32_t completionTimeoutMs;
    uint64_t startMicros;        // on the installed clock
    uint64_t endMicros;
    int result;
};

// A bulk service that passes every call on to another one and records each pipe transfer with
// its bytes, time-outs and clock readings, so a test sees exact packets, time-outs and pauses
// without timing anything. A hook runs after each transfer on the caller's thread, so a test
// can act between two transfers of one transaction. For one thread.
class CRecordingUsbService final : public CMtUsbService {
public:
    using Hook = std::function<void(const TBulkTransfer&)>;

    explicit CRecordingUsbService(CMtUsbService& inner)
        : m_inner(inner), m_state(std::make_shared<TState>()) {}

    std::unique_ptr<CMtUsbDevice> CreateDeviceInterface() override {
        std::unique_ptr<CMtUsbDevice> device = m_inner.CreateDeviceInterface();
        if (device == nullptr) return nullptr;
        return std::make_unique<CDevice>(std::move(device), m_state);
    }

    const std::vector<TBulkTransfer>& Transfers() const { return m_state->transfers; }
    void Clear() { m_state->transfers.clear(); }
    void SetHook(Hook hook) { m_state->hook = std::move(hook); }

private:
    struct TState {
        std::vector<TBulkTransfer> transfers;
        Hook hook;

        void Done(TBulkTransfer transfer) {
            transfer.endMicros = NowMicros();
            transfers.push_back(transfer);
            if (hook) hook(transfer);
        }
    };

    static uint64_t NowMicros() { return TGetClock().MonotonicNanos() / 1000u; }

    class CInterface final : public CMtUsbInterface {
    public:
        CInterface(std::unique_ptr<CMtUsbInterface> inner, std::shared_ptr<TState> state)
            : m_inner(std::move(inner)), m_state(std::move(state)) {}
        uint8_t GetInterfaceClass() override { return m_inner->GetInterfaceClass(); }
        uint8_t GetInterfaceSubClass() override { return m_inner->GetInterfaceSubClass(); }
        int USBInterfaceOpen() override { return m_inner->USBInterfaceOpen(); }
        int USBInterfaceClose() override { return m_inner->USBInterfaceClose(); }
        int GetNumEndpoints(uint8_t* count) override { return m_inner->GetNumEndpoints(count); }
        int GetPipeProperties(uint8_t pipeRef, TMtUsbPipeProperties* properties) override {
            return m_inner->GetPipeProperties(pipeRef, properties);
        }
        int ReadPipeTO(uint8_t pipeRef, uint8_t* buffer, uint32_t* size, uint32_t noDataMs,
                       uint32_t completionMs) override {
            TBulkTransfer t{false, pipeRef, size != nullptr ? *size : 0, {}, noDataMs,
                            completionMs, NowMicros(), 0, 0};
            t.result = m_inner->ReadPipeTO(pipeRef, buffer, size, noDataMs, completionMs);
            if (t.result == kMtUsbSuccess && buffer != nullptr && size != nullptr) {
                t.bytes.assign(buffer, buffer + *size);
            }
            const int result = t.result;
            m_state->Done(std::move(t));
            return result;
        }
        int WritePipeTO(uint8_t pipeRef, const uint8_t* buffer, uint32_t size, uint32_t noDataMs,
                        uint32_t completionMs) override {
            TBulkTransfer t{true, pipeRef, size, {}, noDataMs, completionMs, NowMicros(), 0, 0};
            if (buffer != nullptr) t.bytes.assign(buffer, buffer + size);
            t.result = m_inner->WritePipeTO(pipeRef, buffer, size, noDataMs, completionMs);
            const int result = t.result;
            m_state->Done(std::move(t));
            return result;
        }
        int GetPipeStatus(uint8_t pipeRef) override { return m_inner->GetPipeStatus(pipeRef); }
        int ClearPipeStallBothEnds(uint8_t pipeRef) override {
            return m_inner->ClearPipeStallBothEnds(pipeRef);
        }

    private:
        std::unique_ptr<CMtUsbInterface> m_inner;
        std::shared_ptr<TState> m_state;
    };

    class CDevice final : public CMtUsbDevice {
    public:
        CDevice(std::unique_ptr<CMtUsbDevice> inner, std::shared_ptr<TState> state)
            : m_inner(std::move(inner)), m_state(std::move(state)) {}
        uint16_t GetDeviceReleaseNumber() override { return m_inner->GetDeviceReleaseNumber(); }
        int USBDeviceOpen() override { return m_inner->USBDeviceOpen(); }
        int USBDeviceClose() override { return m_inner->USBDeviceClose(); }
        int CreateInterfaceIterator(const TMtUsbFindInterfaceRequest& request,
                                    std::vector<std::unique_ptr<CMtUsbInterface>>* out) override {
            if (out == nullptr) return m_inner->CreateInterfaceIterator(request, out);
            std::vector<std::unique_ptr<CMtUsbInterface>> found;
            const int result = m_inner->CreateInterfaceIterator(request, &found);
            for (std::unique_ptr<CMtUsbInterface>& i : found) {
                // A null entry stays null: it stands for an interface that could not be made.
                out->push_back(i == nullptr ? nullptr
                                            : std::make_unique<CInterface>(std::move(i), m_state));
            }
            return result;
        }

    private:
        std::unique_ptr<CMtUsbDevice> m_inner;
        std::shared_ptr<TState> m_state;
    };

    CMtUsbService& m_inner;
    std::shared_ptr<TState> m_state;
};

// The emulated frame behind the in-process bulk port, every transfer recorded.
struct TRecordedBulkRig {
    CMtDevEmulator emulator;
    CMtEmuUsbService service;
    CRecordingUsbService recorder{service};
    TMACDEVICEPATH path{nullptr, &recorder, MTDEV_TYPE_BULK};

    explicit TRecordedBulkRig(TEmuUsbLayout layout = TEmuUsbLayout::Default())
        : service(emulator, std::move(layout)) {}
};
