// Test rigs for the device link: an emulated touch frame reached through the real hidraw port
// over a socketpair, or through the in-process USB bulk port; plus helpers to check that a test
// left no descriptor open and to read what was logged.
#pragma once

#include <dirent.h>

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
        std::lock_guard<std::mutex> lock(m_mutex);
        int n = 0;
        for (const auto& entry : m_lines) n += entry.first == channel && entry.second == text;
        return n;
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
// a test sees which time-out each read used without timing anything.
class CWaitRecordingHidDevice final : public CMtHidDevice {
public:
    explicit CWaitRecordingHidDevice(CMtHidDevice& inner) : m_inner(inner) {}
    int Open() override { return m_inner.Open(); }
    void Close() override { m_inner.Close(); }
    void RegisterInputReportCallback(TMtHidReportCallback callback, void* context) override {
        m_callback = callback;
        m_context = context;
        // Reports come from the inner device; present them as ours.
        m_inner.RegisterInputReportCallback(callback != nullptr ? &Forward : nullptr, this);
    }
    int SetOutputReport(const uint8_t* report, long length) override {
        return m_inner.SetOutputReport(report, length);
    }
    void BeginWait(unsigned timeoutMs) override {
        m_waits.push_back(timeoutMs);
        m_inner.BeginWait(timeoutMs);
    }
    TMtHidRun RunWait() override { return m_inner.RunWait(); }
    void EndWait() override { m_inner.EndWait(); }

    const std::vector<unsigned>& Waits() const { return m_waits; }
    void ClearWaits() { m_waits.clear(); }

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
    TMtHidReportCallback m_callback = nullptr;
    void* m_context = nullptr;
    std::vector<unsigned> m_waits;
};

// Short, distinct HID time-outs: a lost reply costs a tenth of a second instead of seconds,
// yet leaves a loaded machine ample time for a reply that does come; and each wait's time-out
// tells which step it was. Bulk time-outs keep the device's values (they run on a virtual
// clock).
constexpr unsigned kTestReplyMs = 100;
constexpr unsigned kTestWriteAckMs = 110;
constexpr unsigned kTestEndAckMs = 120;

inline TMtDevTimeouts ShortHidTimeouts() {
    TMtDevTimeouts t;
    t.hidReplyMs = kTestReplyMs;
    t.hidWriteAckMs = kTestWriteAckMs;
    t.hidEndAckMs = kTestEndAckMs;
    return t;
}

// The emulated frame on a socketpair, opened through the real hidraw port.
struct THidRig {
    CMtDevEmulator emulator;
    CMtEmuHidLink link{emulator};
    std::unique_ptr<CHidrawDevice> port;
    std::unique_ptr<CWaitRecordingHidDevice> recorder;
    TMACDEVICEPATH path{};

    THidRig() {
        port = CHidrawDevice::Adopt(link.TakeHostFd());
        recorder = std::make_unique<CWaitRecordingHidDevice>(*port);
        path.hidDevice = recorder.get();
        path.usbService = nullptr;
        path.deviceType = MTDEV_TYPE_HID;
    }
};

// The emulated frame behind the in-process bulk port.
struct TBulkRig {
    CMtDevEmulator emulator;
    CMtEmuUsbService service;
    TMACDEVICEPATH path{};

    explicit TBulkRig(TEmuUsbLayout layout = TEmuUsbLayout::Default())
        : service(emulator, std::move(layout)) {
        path.hidDevice = nullptr;
        path.usbService = &service;
        path.deviceType = MTDEV_TYPE_BULK;
    }
};
