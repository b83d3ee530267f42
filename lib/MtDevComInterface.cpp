#include "MtDevComInterface.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "MtDevLog.h"
#include "MultiPlatformAPI.h"

namespace {

// Pause after clearing a stalled IN pipe, before the one retry.
constexpr uint64_t kStallRecoveryMicros = 200000;
// Pause after a bulk interface was found, so the device settles before the first command.
constexpr uint64_t kBulkSettleMicros = 1000000;

// Interfaces of class 0, subclass 0, protocol 0 (deliberately not the "any" value) in any
// alternate setting.
constexpr TMtUsbFindInterfaceRequest kBulkInterfaceRequest = {0, 0, 0,
                                                               kMtUsbFindInterfaceDontCare};

}  // namespace

uint8_t GetTouchDeviceType(const TMACDEVICEPATH* path) {
    return path != nullptr ? path->deviceType : MTDEV_TYPE_NONE;
}

TOUCH_DEVICE_PATH* GetTouchDeviceList() {
    return nullptr;
}

void FreeTouchDeviceList(TOUCH_DEVICE_PATH* list) {
    while (list != nullptr) {
        TOUCH_DEVICE_PATH* next = list->next;
        if (list->data != nullptr) std::free(list->data);
        std::free(list);
        list = next;
    }
}

CMtDevCommunicator::CMtDevCommunicator() = default;

CMtDevCommunicator::~CMtDevCommunicator() {
    CloseDevCom();
}

// ---------------------------------------------------------------------------------------------
// HID path

bool CMtDevCommunicator::OpenHidDevCom(const TMACDEVICEPATH* path) {
    if (path == nullptr || path->hidDevice == nullptr) return false;
    // Opening the same device twice keeps the open state (and its queue) instead of opening
    // the device a second time.
    if (hid != nullptr && hid->isOpen != 0 && hid->device == path->hidDevice) return true;
    if (hid != nullptr) CloseDevCom();
    if (path->hidDevice->Open() != kMtHidSuccess) return false;
    hid = std::make_unique<THidDevState>();
    path->hidDevice->RegisterInputReportCallback(&CMtDevCommunicator::input_callback, hid.get());
    hid->device = path->hidDevice;
    hid->isOpen = 1;
    return true;
}

void CMtDevCommunicator::input_callback(void* context, int result, void* sender, int /*type*/,
                                        uint32_t /*reportID*/, uint8_t* report,
                                        long reportLength) {
    auto* state = static_cast<THidDevState*>(context);
    if (state == nullptr || result != kMtHidSuccess || reportLength <= 0 || report == nullptr ||
        sender != state->device) {
        return;
    }
    if (state->queueCount == state->queue.size()) {
        // Full: grow, laying the reports out oldest first.
        std::vector<THidQueuedReport> grown(std::max<size_t>(4, state->queue.size() * 2));
        for (size_t i = 0; i < state->queueCount; ++i) {
            grown[i] = state->queue[(state->queueHead + i) % state->queue.size()];
        }
        state->queue.swap(grown);
        state->queueHead = 0;
    }
    THidQueuedReport& slot =
        state->queue[(state->queueHead + state->queueCount) % state->queue.size()];
    slot.length = static_cast<uint32_t>(std::min<long>(reportLength, MTDEV_REPORT_BYTES));
    std::memcpy(slot.data, report, slot.length);
    ++state->queueCount;
}

void CMtDevCommunicator::timeout_callback(void* /*timer*/, void* info) {
    TLogSystem("timeout_callback");
    if (info != nullptr) *static_cast<int*>(info) = 1;
}

bool CMtDevCommunicator::TakeQueuedReport(uint8_t* buffer) {
    if (hid == nullptr || hid->queueCount == 0) return false;
    const THidQueuedReport& head = hid->queue[hid->queueHead];
    std::memcpy(buffer, head.data, std::min<uint32_t>(head.length, MTDEV_REPORT_BYTES));
    hid->queueHead = (hid->queueHead + 1) % hid->queue.size();
    --hid->queueCount;
    return true;
}

int CMtDevCommunicator::ReadHidDevCom(uint8_t* buffer, unsigned timeoutMs) {
    m_lastReadDelivered = false;
    if (buffer == nullptr) return MTDEV_COM_NULLPTR;
    if (hid == nullptr || hid->isOpen == 0) return MTDEV_COM_NOT_OPENED;
    if (TakeQueuedReport(buffer)) {
        m_lastReadDelivered = true;
        return MTDEV_REPORT_BYTES;
    }

    CMtHidDevice* device = hid->device;
    hid->isWiat = true;
    int timedOut = 0;
    device->BeginWait(timeoutMs);
    for (;;) {
        const TMtHidRun run = device->RunWait();
        if (TakeQueuedReport(buffer)) {
            m_lastReadDelivered = true;
            break;
        }
        if (hid->isOpen == 0) break;
        if (run == TMtHidRun::TimedOut) timeout_callback(nullptr, &timedOut);
        if (timedOut != 0) break;
        // A device that went away ends the wait like a time-out: buffer untouched.
        if (run == TMtHidRun::Gone) break;
        // Delivered, but nothing for us (an ignored report): wait on.
    }
    hid->isWiat = false;
    device->EndWait();
    return MTDEV_REPORT_BYTES;
}

int CMtDevCommunicator::WriteHidDevCom(const uint8_t* buffer, unsigned /*timeoutMs*/) {
    if (buffer == nullptr) return MTDEV_COM_NULLPTR;
    if (hid == nullptr || hid->isOpen == 0) return MTDEV_COM_NOT_OPENED;
    // The packet's first byte is its length: 17-, 27-, 37- and 64-byte commands and the 4-byte
    // end-of-data report each go out at their own size.
    if (hid->device->SetOutputReport(buffer, buffer[0]) != kMtHidSuccess) return MTDEV_COM_WRITE;
    return MTDEV_REPORT_BYTES;
}

// ---------------------------------------------------------------------------------------------
// USB bulk path

bool CMtDevCommunicator::OpenBulkDevCom(const TMACDEVICEPATH* path) {
    if (usbInterface != nullptr) return true;
    if (path == nullptr || path->usbService == nullptr) return false;
    std::unique_ptr<CMtUsbDevice> device = path->usbService->CreateDeviceInterface();
    if (device == nullptr) return false;
    (void)device->GetDeviceReleaseNumber();
    if (device->USBDeviceOpen() != kMtUsbSuccess) return false;
    const bool found = FindInterfaces(device.get());
    // The chosen interface stays open on its own.
    device->USBDeviceClose();
    device.reset();
    if (!found) return false;
    TSleepMicros(kBulkSettleMicros);
    return true;
}

bool CMtDevCommunicator::FindInterfaces(CMtUsbDevice* device) {
    if (device == nullptr) return false;
    std::vector<std::unique_ptr<CMtUsbInterface>> interfaces;
    if (device->CreateInterfaceIterator(kBulkInterfaceRequest, &interfaces) != kMtUsbSuccess) {
        return false;
    }
    for (std::unique_ptr<CMtUsbInterface>& candidate : interfaces) {
        if (candidate == nullptr) return false;
        (void)candidate->GetInterfaceClass();
        (void)candidate->GetInterfaceSubClass();
        if (candidate->USBInterfaceOpen() != kMtUsbSuccess) {
            candidate.reset();
            continue;
        }
        uint8_t endpoints = 0;
        if (candidate->GetNumEndpoints(&endpoints) != kMtUsbSuccess) {
            candidate->USBInterfaceClose();
            return false;
        }
        for (int ref = 1; ref <= endpoints; ++ref) {
            TMtUsbPipeProperties props{};
            if (candidate->GetPipeProperties(static_cast<uint8_t>(ref), &props) != kMtUsbSuccess) {
                break;
            }
            if (props.transferType != kMtUsbBulk) continue;
            // A later bulk pipe of the same direction replaces an earlier one.
            if (props.direction == kMtUsbIn) {
                pipeIn = static_cast<uint32_t>(ref);
            } else {
                pipeOut = static_cast<uint32_t>(ref);
            }
        }
        // Pipes found on an earlier interface count for a later one.
        if (pipeIn != kNoPipe && pipeOut != kNoPipe) {
            usbInterface = std::move(candidate);
            return true;
        }
        // Rejected interfaces are left open.
        m_rejected.push_back(std::move(candidate));
    }
    return false;
}

int CMtDevCommunicator::ReadBulkDevCom(uint8_t* buffer, uint32_t size, unsigned timeoutMs) {
    if (buffer == nullptr || usbInterface == nullptr) return -1;
    const auto pipe = static_cast<uint8_t>(pipeIn);
    uint32_t got = size;
    if (usbInterface->ReadPipeTO(pipe, buffer, &got, timeoutMs, timeoutMs) != kMtUsbSuccess) {
        // Only a stall is recovered from: clear it, let the device settle, try once more.
        if (usbInterface->GetPipeStatus(pipe) != kMtUsbPipeStalled) return -1;
        if (usbInterface->ClearPipeStallBothEnds(pipe) != kMtUsbSuccess) return -1;
        TSleepMicros(kStallRecoveryMicros);
        got = size;
        if (usbInterface->ReadPipeTO(pipe, buffer, &got, timeoutMs, timeoutMs) != kMtUsbSuccess) {
            return -1;
        }
    }
    return static_cast<int>(std::min<uint32_t>({got, size, 0x7FFFFFFFu}));
}

int CMtDevCommunicator::WriteBulkDevCom(const uint8_t* buffer, uint32_t size, unsigned timeoutMs) {
    if (buffer == nullptr) return MTDEV_COM_NULLPTR;
    if (usbInterface == nullptr) return MTDEV_COM_NOT_OPENED;
    const auto pipe = static_cast<uint8_t>(pipeOut);
    if (usbInterface->WritePipeTO(pipe, buffer, size, timeoutMs, timeoutMs) == kMtUsbSuccess) {
        return 0;
    }
    // The write clears the stall blindly (no status check, no pause) and retries once.
    (void)usbInterface->ClearPipeStallBothEnds(pipe);
    if (usbInterface->WritePipeTO(pipe, buffer, size, timeoutMs, timeoutMs) == kMtUsbSuccess) {
        return 0;
    }
    return MTDEV_COM_WRITE;
}

// ---------------------------------------------------------------------------------------------

void CMtDevCommunicator::CloseDevCom() {
    if (hid != nullptr) {
        if (hid->isOpen != 0 && hid->device != nullptr) {
            hid->device->RegisterInputReportCallback(nullptr, nullptr);
            hid->device->Close();
            hid->device = nullptr;
        }
        hid.reset();  // frees the queued reports
    }
    if (usbInterface != nullptr) {
        usbInterface->USBInterfaceClose();
        usbInterface.reset();
        pipeIn = kNoPipe;
        pipeOut = kNoPipe;
    }
    for (std::unique_ptr<CMtUsbInterface>& rejected : m_rejected) {
        rejected->USBInterfaceClose();
    }
    m_rejected.clear();
    m_lastReadDelivered = false;
}
