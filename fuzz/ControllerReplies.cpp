// The device controller against a frame whose replies are arbitrary bytes: every operation must
// return, without touching memory it does not own. Two modes, chosen by the top bit of the
// first byte.
//
// HID mode (top bit clear): the first byte's other bits choose the operations to run, then come
// the replies, each as a length byte (0: the wait times out; 255: the device goes away; else the
// length, cut to 64) followed by that many bytes. When the replies run out every wait times out.
//
// Bulk mode (top bit set): the same operations in the hi-speed dialect over a USB bulk port
// whose every transfer takes its fate from the input, in the order the transfers happen:
//   - an IN transfer takes a length byte: 0 the read times out; 1..251 that many bytes follow;
//     252 a 16-bit little-endian length and then that many bytes; 253 the read's whole
//     capacity, every byte the next input byte; 254 the IN pipe stalls until cleared; 255 the
//     device goes away. The bytes are cut to what remains and to the read's capacity.
//   - an OUT transfer takes one byte: 0 times out; 253 fails; 254 the OUT pipe stalls until
//     cleared; 255 the device goes away; any other value succeeds.
// When the input runs out, reads time out and writes succeed. Bit 6, which runs ReadDate in HID
// mode, runs transactions of more than one block instead.
//
// Time is virtual, so the controller's pauses and time-outs cost nothing.
#include <algorithm>
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

// Reads every byte the controller claims a buffer holds, so ASan checks the claim.
void TouchAll(const uint8_t* buffer, size_t size) {
    volatile uint8_t sum = 0;
    for (size_t i = 0; i < size; ++i) sum = static_cast<uint8_t>(sum + buffer[i]);
    (void)sum;
}

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
        TouchAll(report, static_cast<size_t>(std::max(0L, length)));
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

// ---------------------------------------------------------------------------------------------
// Bulk mode

constexpr uint8_t kPipeIn = 1;
constexpr uint8_t kPipeOut = 2;

// The input and the state of the device it describes, shared by the port objects.
struct TReplay {
    const uint8_t* data;
    size_t size;
    size_t pos = 0;
    bool gone = false;
    bool stalled[3] = {false, false, false};  // by pipe reference

    bool Next(uint8_t* byte) {
        if (pos >= size) return false;
        *byte = data[pos++];
        return true;
    }
};

// A transfer that waits its whole time-out; on the virtual clock that costs nothing.
int TimedOut(uint32_t timeoutMs) {
    TSleepMicros(static_cast<uint64_t>(timeoutMs) * 1000u);
    return kMtUsbTransactionTimeout;
}

class CReplayInterface final : public CMtUsbInterface {
public:
    explicit CReplayInterface(TReplay& replay) : m_replay(replay) {}

    uint8_t GetInterfaceClass() override { return 0; }
    uint8_t GetInterfaceSubClass() override { return 0; }
    int USBInterfaceOpen() override { return kMtUsbSuccess; }
    int USBInterfaceClose() override { return kMtUsbSuccess; }
    int GetNumEndpoints(uint8_t* count) override {
        if (count == nullptr) return kMtUsbError;
        *count = 2;
        return kMtUsbSuccess;
    }
    int GetPipeProperties(uint8_t pipeRef, TMtUsbPipeProperties* properties) override {
        if ((pipeRef != kPipeIn && pipeRef != kPipeOut) || properties == nullptr) return kMtUsbError;
        *properties = {pipeRef == kPipeIn ? kMtUsbIn : kMtUsbOut, pipeRef, kMtUsbBulk, 64, 0};
        return kMtUsbSuccess;
    }

    int ReadPipeTO(uint8_t pipeRef, uint8_t* buffer, uint32_t* size, uint32_t /*noDataMs*/,
                   uint32_t completionMs) override {
        if (pipeRef != kPipeIn || buffer == nullptr || size == nullptr) __builtin_trap();
        const uint32_t capacity = *size;
        TouchAll(buffer, capacity);
        *size = 0;
        if (m_replay.gone) return kMtUsbNotResponding;
        if (m_replay.stalled[kPipeIn]) return kMtUsbPipeStalled;
        uint8_t code = 0;
        if (!m_replay.Next(&code) || code == 0) return TimedOut(completionMs);
        if (code == 255) {
            m_replay.gone = true;
            return kMtUsbNotResponding;
        }
        if (code == 254) {
            m_replay.stalled[kPipeIn] = true;
            return kMtUsbPipeStalled;
        }
        if (code == 253) {
            uint8_t fill = 0;
            (void)m_replay.Next(&fill);
            std::memset(buffer, fill, capacity);
            *size = capacity;
            return kMtUsbSuccess;
        }
        size_t length = code;
        if (code == 252) {
            uint8_t low = 0;
            uint8_t high = 0;
            (void)m_replay.Next(&low);
            (void)m_replay.Next(&high);
            length = static_cast<size_t>(low | high << 8);
        }
        length = std::min(length, m_replay.size - m_replay.pos);
        // Bytes beyond the capacity are lost, as on a real pipe.
        const size_t n = std::min<size_t>(length, capacity);
        if (n != 0) std::memcpy(buffer, m_replay.data + m_replay.pos, n);
        m_replay.pos += length;
        *size = static_cast<uint32_t>(n);
        return kMtUsbSuccess;
    }

    int WritePipeTO(uint8_t pipeRef, const uint8_t* buffer, uint32_t size, uint32_t /*noDataMs*/,
                    uint32_t completionMs) override {
        if (pipeRef != kPipeOut || buffer == nullptr) __builtin_trap();
        TouchAll(buffer, size);
        if (m_replay.gone) return kMtUsbNotResponding;
        if (m_replay.stalled[kPipeOut]) return kMtUsbPipeStalled;
        uint8_t fate = 1;
        (void)m_replay.Next(&fate);
        switch (fate) {
            case 0:
                return TimedOut(completionMs);
            case 253:
                return kMtUsbError;
            case 254:
                m_replay.stalled[kPipeOut] = true;
                return kMtUsbPipeStalled;
            case 255:
                m_replay.gone = true;
                return kMtUsbNotResponding;
            default:
                return kMtUsbSuccess;
        }
    }

    int GetPipeStatus(uint8_t pipeRef) override {
        if (pipeRef != kPipeIn && pipeRef != kPipeOut) return kMtUsbError;
        if (m_replay.gone) return kMtUsbNotResponding;
        return m_replay.stalled[pipeRef] ? kMtUsbPipeStalled : kMtUsbSuccess;
    }
    int ClearPipeStallBothEnds(uint8_t pipeRef) override {
        if (pipeRef != kPipeIn && pipeRef != kPipeOut) return kMtUsbError;
        if (m_replay.gone) return kMtUsbNotResponding;
        m_replay.stalled[pipeRef] = false;
        return kMtUsbSuccess;
    }

private:
    TReplay& m_replay;
};

class CReplayUsbDevice final : public CMtUsbDevice {
public:
    explicit CReplayUsbDevice(TReplay& replay) : m_replay(replay) {}

    uint16_t GetDeviceReleaseNumber() override { return 0x0100; }
    int USBDeviceOpen() override { return kMtUsbSuccess; }
    int USBDeviceClose() override { return kMtUsbSuccess; }
    int CreateInterfaceIterator(const TMtUsbFindInterfaceRequest& /*request*/,
                                std::vector<std::unique_ptr<CMtUsbInterface>>* out) override {
        if (out == nullptr) return kMtUsbError;
        out->push_back(std::make_unique<CReplayInterface>(m_replay));
        return kMtUsbSuccess;
    }

private:
    TReplay& m_replay;
};

class CReplayUsbService final : public CMtUsbService {
public:
    CReplayUsbService(const uint8_t* data, size_t size) : m_replay{data, size} {}

    std::unique_ptr<CMtUsbDevice> CreateDeviceInterface() override {
        return std::make_unique<CReplayUsbDevice>(m_replay);
    }

private:
    TReplay m_replay;
};

// Hi-speed transactions of more than one block, and the plain commands.
void RunLongTransactions(CMtDevController& controller) {
    int length = 0;
    controller.GetHiSpeed(MTDEV_CMD_DEV_STATUS, nullptr, length);
    std::vector<uint8_t> buffer(2 * MTDEV_HI_BLOCK_BYTES + 4464);
    length = 70000;
    controller.GetDevStatus(buffer.data(), length);
    length = static_cast<int>(buffer.size());
    controller.GetDevStatus(buffer.data(), length);
    // A caller's buffer of exactly the length, so reading past it for the padding is caught.
    std::vector<uint8_t> file(MTDEV_HI_BLOCK_BYTES + 100, 0x5A);
    controller.SetTouchSystemFile(file.data(), static_cast<int>(file.size()));
    controller.SetScanPatternFile(file.data(), 1);
    controller.CmdProcess(0xFF);
    controller.CmdProtect(0x12345678);
}

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
    const bool bulk = (ops & 0x80) != 0;
    CReplayDevice device(data + 1, size - 1);
    CReplayUsbService service(data + 1, size - 1);
    TMACDEVICEPATH path{&device, nullptr, MTDEV_TYPE_HID};
    if (bulk) path = TMACDEVICEPATH{nullptr, &service, MTDEV_TYPE_BULK};
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
        if (raw.dataBytes > raw.capacity ||
            (raw.dataBytes != 0 && (raw.data < storage.data() ||
                                    raw.data + raw.dataBytes > storage.data() + storage.size()))) {
            __builtin_trap();
        }
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
        if (bulk) {
            RunLongTransactions(controller);
        } else {
            uint8_t report[64];
            controller.ReadDate(report);
        }
    }
    controller.CloseDevice(ops >> 7);
    return 0;
}
