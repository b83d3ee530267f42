// The device controller against a frame whose replies are arbitrary bytes: every operation
// over the HID channel must return, without touching memory it does not own.
//
// Input: one byte choosing the operations to run, then the replies, each as a length byte
// (0: the wait times out; 255: the device goes away; else the length, cut to 64) followed by
// that many bytes. When the replies run out every wait times out. Time is virtual, so the
// controller's pauses cost nothing.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "MtDevComInterface.h"
#include "MtDevConfig.h"
#include "MtDevCtrlInterface.h"
#include "MtDevFrame.h"
#include "MtDevLog.h"
#include "MultiPlatformAPI.h"

namespace {

class CReplayDevice final : public CMtHidDevice {
public:
    CReplayDevice(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

    int Open() override { return kMtHidSuccess; }
    void Close() override {}
    void RegisterInputReportCallback(TMtHidReportCallback callback, void* context) override {
        m_callback = callback;
        m_context = context;
    }
    int SetOutputReport(const uint8_t* report, long length) override {
        // Read every byte the controller claims to send, so ASan checks the claim.
        volatile uint8_t sum = 0;
        for (long i = 0; i < length; ++i) sum = static_cast<uint8_t>(sum + report[i]);
        (void)sum;
        return m_gone ? kMtHidError : kMtHidSuccess;
    }
    void BeginWait(unsigned) override {}
    TMtHidRun RunWait() override {
        if (m_gone || m_pos >= m_size) return m_gone ? TMtHidRun::Gone : TMtHidRun::TimedOut;
        const uint8_t length = m_data[m_pos++];
        if (length == 0) return TMtHidRun::TimedOut;
        if (length == 255) {
            m_gone = true;
            return TMtHidRun::Gone;
        }
        const size_t n = std::min<size_t>({length, 64, m_size - m_pos});
        // A report of exactly n bytes on the heap, so a read past it is caught.
        std::unique_ptr<uint8_t[]> report(new uint8_t[n == 0 ? 1 : n]);
        if (n != 0) std::memcpy(report.get(), m_data + m_pos, n);
        m_pos += n;
        if (m_callback != nullptr) {
            m_callback(m_context, kMtHidSuccess, this, kMtHidReportTypeInput, 0, report.get(),
                       static_cast<long>(n));
        }
        return TMtHidRun::Delivered;
    }
    void EndWait() override {}

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
    bool m_gone = false;
    TMtHidReportCallback m_callback = nullptr;
    void* m_context = nullptr;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    static const bool quiet = [] {
        TSetLogSink([](TLogChannel, std::string_view) {});
        return true;
    }();
    (void)quiet;
    TVirtualClock clock;
    TScopedClock scopedClock(clock);

    const uint8_t ops = data[0];
    CReplayDevice device(data + 1, size - 1);
    TMACDEVICEPATH path{&device, nullptr, 2};
    CMtDevController controller;
    if (controller.OpenDevice(&path) != 0) return 0;

    if (ops & 0x01) {
        auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
        controller.GetDeviceConfig(config.get());
    }
    if (ops & 0x02) {
        std::vector<uint8_t> storage(1024);
        _HARDWARE_FRAME_SDK frame{};
        frame.pointBufferBytes = static_cast<uint16_t>(storage.size());
        frame.pointBuffer = storage.data();
        controller.GetFrameSdk(&frame);
        for (const _HARDWARE_SDK_POINT* p = frame.points; p != nullptr; p = p->next) {
            if (reinterpret_cast<const uint8_t*>(p) < storage.data() ||
                reinterpret_cast<const uint8_t*>(p + 1) > storage.data() + storage.size()) {
                __builtin_trap();
            }
        }
    }
    if (ops & 0x04) {
        std::vector<uint8_t> storage(512);
        _HARDWARE_FRAME_DATA raw{};
        raw.capacity = static_cast<uint16_t>(storage.size());
        raw.storage = storage.data();
        controller.GetFrameData(&raw);
    }
    if (ops & 0x08) {
        _HARDWARE_DEV_INFO info{};
        controller.GetDeviceInfo(&info);
        controller.SetDeviceInfo(&info);
    }
    if (ops & 0x10) {
        int length = 0;
        controller.GetScanPatternFile(nullptr, length);
        std::vector<uint8_t> buffer(256);
        length = static_cast<int>(buffer.size());
        controller.GetScanPatternFile(buffer.data(), length);
        length = static_cast<int>(buffer.size());
        controller.GetDevStatus(buffer.data(), length);
    }
    if (ops & 0x20) {
        auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
        controller.SetDeviceConfig(config.get());
        _HARDWARE_CONFIG_OVERRIDE override{};
        controller.SetDeviceConfigOverride(&override);
    }
    if (ops & 0x40) {
        uint8_t report[64];
        controller.ReadDate(report);
    }
    controller.CloseDevice(ops >> 7);
    return 0;
}
