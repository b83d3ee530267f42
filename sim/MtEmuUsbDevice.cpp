#include "MtEmuUsbDevice.h"

#include <algorithm>
#include <mutex>

#include "MultiPlatformAPI.h"

struct CMtEmuUsbService::TShared {
    CMtDevEmulator* emulator;
    TEmuUsbLayout layout;
    mutable std::mutex mutex;
    std::vector<std::string> calls;
    int openInterfaces = 0;
    int liveObjects = 0;

    void Log(std::string call) {
        std::lock_guard<std::mutex> lock(mutex);
        calls.push_back(std::move(call));
    }
    void Count(int* counter, int delta) {
        std::lock_guard<std::mutex> lock(mutex);
        *counter += delta;
    }
};

namespace {

using TShared = CMtEmuUsbService::TShared;

uint64_t NowMicros() {
    return TGetClock().MonotonicNanos() / 1000u;
}

class CEmuUsbInterface final : public CMtUsbInterface {
public:
    CEmuUsbInterface(std::shared_ptr<TShared> shared, size_t index)
        : m_shared(std::move(shared)), m_index(index), m_desc(m_shared->layout.interfaces[index]) {
        m_shared->Count(&m_shared->liveObjects, 1);
    }
    ~CEmuUsbInterface() override {
        if (m_open) m_shared->Count(&m_shared->openInterfaces, -1);
        m_shared->Count(&m_shared->liveObjects, -1);
    }

    uint8_t GetInterfaceClass() override { return m_desc.interfaceClass; }
    uint8_t GetInterfaceSubClass() override { return m_desc.interfaceSubClass; }

    int USBInterfaceOpen() override {
        Log("USBInterfaceOpen");
        if (m_desc.openFails) return kMtUsbError;
        if (!m_open) m_shared->Count(&m_shared->openInterfaces, 1);
        m_open = true;
        return kMtUsbSuccess;
    }

    int USBInterfaceClose() override {
        Log("USBInterfaceClose");
        if (m_open) m_shared->Count(&m_shared->openInterfaces, -1);
        m_open = false;
        return kMtUsbSuccess;
    }

    int GetNumEndpoints(uint8_t* count) override {
        Log("GetNumEndpoints");
        if (m_desc.endpointsFail || count == nullptr) return kMtUsbError;
        *count = static_cast<uint8_t>(m_desc.pipes.size());
        return kMtUsbSuccess;
    }

    int GetPipeProperties(uint8_t pipeRef, TMtUsbPipeProperties* props) override {
        const TEmuUsbPipe* pipe = Pipe(pipeRef);
        if (pipe == nullptr || props == nullptr) return kMtUsbError;
        props->direction = pipe->direction;
        props->number = pipeRef;
        props->transferType = pipe->transferType;
        props->maxPacketSize = 64;
        props->interval = 0;
        return kMtUsbSuccess;
    }

    int ReadPipeTO(uint8_t pipeRef, uint8_t* buffer, uint32_t* size, uint32_t /*noDataTimeoutMs*/,
                   uint32_t completionTimeoutMs) override {
        LogPipe("ReadPipeTO", pipeRef);
        const TEmuUsbPipe* pipe = Pipe(pipeRef);
        if (!m_open || pipe == nullptr || pipe->direction != kMtUsbIn ||
            pipe->transferType != kMtUsbBulk || size == nullptr) {
            return kMtUsbError;
        }
        const uint32_t capacity = *size;
        const uint64_t timeoutMicros = static_cast<uint64_t>(completionTimeoutMs) * 1000u;
        const uint64_t start = NowMicros();
        int64_t readyAt = -1;
        int r = m_shared->emulator->BulkRead(buffer, size, start, &readyAt);
        if (r == kMtUsbTransactionTimeout && readyAt >= 0 &&
            static_cast<uint64_t>(readyAt) - start <= timeoutMicros) {
            // The answer comes late but within the time-out: wait for it.
            TSleepMicros(static_cast<uint64_t>(readyAt) - start);
            *size = capacity;
            r = m_shared->emulator->BulkRead(buffer, size, NowMicros(), &readyAt);
        }
        if (r == kMtUsbTransactionTimeout) {
            TSleepMicros(timeoutMicros - std::min(timeoutMicros, NowMicros() - start));
        }
        if (r != kMtUsbSuccess) *size = 0;
        return r;
    }

    int WritePipeTO(uint8_t pipeRef, const uint8_t* buffer, uint32_t size,
                    uint32_t /*noDataTimeoutMs*/, uint32_t /*completionTimeoutMs*/) override {
        LogPipe("WritePipeTO", pipeRef);
        const TEmuUsbPipe* pipe = Pipe(pipeRef);
        if (!m_open || pipe == nullptr || pipe->direction != kMtUsbOut ||
            pipe->transferType != kMtUsbBulk) {
            return kMtUsbError;
        }
        return m_shared->emulator->BulkWrite(buffer, size);
    }

    int GetPipeStatus(uint8_t pipeRef) override {
        LogPipe("GetPipeStatus", pipeRef);
        const TEmuUsbPipe* pipe = Pipe(pipeRef);
        if (pipe == nullptr) return kMtUsbError;
        return m_shared->emulator->PipeStalled(pipe->direction == kMtUsbIn) ? kMtUsbPipeStalled
                                                                            : kMtUsbSuccess;
    }

    int ClearPipeStallBothEnds(uint8_t pipeRef) override {
        LogPipe("ClearPipeStallBothEnds", pipeRef);
        const TEmuUsbPipe* pipe = Pipe(pipeRef);
        if (pipe == nullptr) return kMtUsbError;
        m_shared->emulator->ClearPipeStall(pipe->direction == kMtUsbIn);
        return kMtUsbSuccess;
    }

private:
    // Interface calls are logged with the interface's index, pipe calls with the pipe reference.
    void Log(const char* call) { m_shared->Log(std::string(call) + " " + std::to_string(m_index)); }
    void LogPipe(const char* call, uint8_t pipeRef) {
        m_shared->Log(std::string(call) + " " + std::to_string(pipeRef));
    }

    const TEmuUsbPipe* Pipe(uint8_t pipeRef) const {
        if (pipeRef < 1 || pipeRef > m_desc.pipes.size()) return nullptr;
        return &m_desc.pipes[pipeRef - 1];
    }

    std::shared_ptr<TShared> m_shared;
    size_t m_index;
    TEmuUsbInterface m_desc;
    bool m_open = false;
};

class CEmuUsbDevice final : public CMtUsbDevice {
public:
    explicit CEmuUsbDevice(std::shared_ptr<TShared> shared) : m_shared(std::move(shared)) {
        m_shared->Count(&m_shared->liveObjects, 1);
    }
    ~CEmuUsbDevice() override { m_shared->Count(&m_shared->liveObjects, -1); }

    uint16_t GetDeviceReleaseNumber() override { return 0x0100; }

    int USBDeviceOpen() override {
        m_shared->Log("USBDeviceOpen");
        return m_shared->layout.deviceOpenFails ? kMtUsbError : kMtUsbSuccess;
    }

    int USBDeviceClose() override {
        m_shared->Log("USBDeviceClose");
        return kMtUsbSuccess;
    }

    int CreateInterfaceIterator(const TMtUsbFindInterfaceRequest& request,
                                std::vector<std::unique_ptr<CMtUsbInterface>>* out) override {
        m_shared->Log("CreateInterfaceIterator");
        if (out == nullptr) return kMtUsbError;
        auto matches = [](uint16_t wanted, uint8_t value) {
            return wanted == kMtUsbFindInterfaceDontCare || wanted == value;
        };
        const std::vector<TEmuUsbInterface>& all = m_shared->layout.interfaces;
        for (size_t i = 0; i < all.size(); ++i) {
            if (matches(request.bInterfaceClass, all[i].interfaceClass) &&
                matches(request.bInterfaceSubClass, all[i].interfaceSubClass) &&
                matches(request.bInterfaceProtocol, all[i].interfaceProtocol)) {
                out->push_back(std::make_unique<CEmuUsbInterface>(m_shared, i));
            }
        }
        return kMtUsbSuccess;
    }

private:
    std::shared_ptr<TShared> m_shared;
};

}  // namespace

TEmuUsbLayout TEmuUsbLayout::Default() {
    TEmuUsbLayout layout;
    TEmuUsbInterface bulk;
    bulk.pipes = {{kMtUsbIn, kMtUsbBulk}, {kMtUsbOut, kMtUsbBulk}};
    layout.interfaces.push_back(bulk);
    return layout;
}

CMtEmuUsbService::CMtEmuUsbService(CMtDevEmulator& emulator, TEmuUsbLayout layout)
    : m_shared(std::make_shared<TShared>()) {
    m_shared->emulator = &emulator;
    m_shared->layout = std::move(layout);
}

CMtEmuUsbService::~CMtEmuUsbService() = default;

std::unique_ptr<CMtUsbDevice> CMtEmuUsbService::CreateDeviceInterface() {
    m_shared->Log("CreateDeviceInterface");
    if (m_shared->layout.deviceInterfaceFails) return nullptr;
    return std::make_unique<CEmuUsbDevice>(m_shared);
}

std::vector<std::string> CMtEmuUsbService::Calls() const {
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    return m_shared->calls;
}

int CMtEmuUsbService::CountCalls(std::string_view call) const {
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    return static_cast<int>(std::count(m_shared->calls.begin(), m_shared->calls.end(), call));
}

void CMtEmuUsbService::ClearCalls() {
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    m_shared->calls.clear();
}

int CMtEmuUsbService::OpenInterfaces() const {
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    return m_shared->openInterfaces;
}

int CMtEmuUsbService::LiveObjects() const {
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    return m_shared->liveObjects;
}
