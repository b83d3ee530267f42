// The transport under the device controller: moves raw packets between the host and one touch
// frame, as HID reports or over a pair of USB bulk pipes.
//
// HID reads are synchronous with a time-out. Input reports that arrive while nobody waits are
// queued and handed to the next read, oldest first; a report longer than 64 bytes is cut to 64.
// A read that times out still returns 64 and leaves the caller's buffer untouched: the protocol
// above relies on that (its reply checks then see the request's own bytes and fail).
//
// Waiting is per device: each communicator waits on its own device only, so a report for one
// device never wakes another device's reader.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "MtDevPorts.h"

// Transport types of a device path.
constexpr uint8_t MTDEV_TYPE_NONE = 0;
constexpr uint8_t MTDEV_TYPE_HID = 2;   // any value other than 0 and 3 is HID
constexpr uint8_t MTDEV_TYPE_BULK = 3;

// The device path that discovery hands to the controller. The two pointers are not owned by the
// path: whoever made the path keeps the objects alive while a controller uses them.
struct TMACDEVICEPATH {
    CMtHidDevice* hidDevice;    // the HID device (Linux: a hidraw node), used by the HID path
    CMtUsbService* usbService;  // the USB device (Linux: a libusb device); null when absent
    uint8_t deviceType;         // MTDEV_TYPE_NONE, MTDEV_TYPE_BULK, any other value HID
};

uint8_t GetTouchDeviceType(const TMACDEVICEPATH* path);

// A list of device paths as a singly linked list of blocks. Nodes and their data blocks are
// allocated with malloc.
struct TOUCH_DEVICE_PATH {
    void* data;
    TOUCH_DEVICE_PATH* next;
};

// Enumeration is done by discovery; this always returns an empty (null) list.
TOUCH_DEVICE_PATH* GetTouchDeviceList();
// Frees every node and its data block.
void FreeTouchDeviceList(TOUCH_DEVICE_PATH* list);

// Byte size of every HID report the protocol moves, and of every read buffer.
constexpr int MTDEV_REPORT_BYTES = 64;

// Results of the channel calls besides 64 (a full report) and byte counts; equal to the
// DEV_ERR codes of the same names.
constexpr int MTDEV_COM_NOT_OPENED = 3;
constexpr int MTDEV_COM_WRITE = 5;
constexpr int MTDEV_COM_NULLPTR = 6;

// One queued input report.
struct THidQueuedReport {
    uint32_t length;  // at most 64
    uint8_t data[MTDEV_REPORT_BYTES];
};

// State of an open HID path.
struct THidDevState {
    CMtHidDevice* device = nullptr;
    uint8_t isOpen = 0;
    // Reports not yet read, oldest first: a ring that grows when full and never shrinks, so the
    // steady state allocates nothing.
    std::vector<THidQueuedReport> queue;
    size_t queueHead = 0;   // index of the oldest report
    size_t queueCount = 0;  // reports queued
    bool isWiat = false;    // true while ReadHidDevCom waits on this device
};

class CMtDevCommunicator {
public:
    CMtDevCommunicator();
    ~CMtDevCommunicator();

    CMtDevCommunicator(const CMtDevCommunicator&) = delete;
    CMtDevCommunicator& operator=(const CMtDevCommunicator&) = delete;

    // --- HID path
    bool OpenHidDevCom(const TMACDEVICEPATH* path);
    // Delivers one input report into buffer (64 bytes). 64 when a report came and also when the
    // wait ended without one (buffer untouched); 6 for a null buffer; 3 when not open.
    int ReadHidDevCom(uint8_t* buffer, unsigned timeoutMs);
    // Sends buffer as one output report of buffer[0] bytes. 64, 5 refused, 6 null, 3 not open.
    // The time-out is accepted and not used.
    int WriteHidDevCom(const uint8_t* buffer, unsigned timeoutMs);

    // Input report callback of the HID port; the context is the THidDevState.
    static void input_callback(void* context, int result, void* sender, int type,
                               uint32_t reportID, uint8_t* report, long reportLength);
    // Time-out of a waiting read; info points at the read's timed-out flag.
    static void timeout_callback(void* timer, void* info);

    // --- USB bulk path
    bool OpenBulkDevCom(const TMACDEVICEPATH* path);
    bool FindInterfaces(CMtUsbDevice* device);
    // Bytes read, or -1 on failure or when buffer or interface is missing.
    int ReadBulkDevCom(uint8_t* buffer, uint32_t size, unsigned timeoutMs);
    // 0 on success, 5 on failure, 6 for a null buffer, 3 without an interface.
    int WriteBulkDevCom(const uint8_t* buffer, uint32_t size, unsigned timeoutMs);

    // Closes whichever path is open; safe to call repeatedly.
    void CloseDevCom();

    // --- For the controller and for tests
    // Whether the last ReadHidDevCom handed over a report (false after a time-out).
    bool LastHidReadDelivered() const { return m_lastReadDelivered; }
    bool IsHidOpen() const { return hid != nullptr && hid->isOpen != 0; }
    size_t HidQueuedReports() const { return hid != nullptr ? hid->queueCount : 0; }
    bool IsBulkOpen() const { return usbInterface != nullptr; }
    uint32_t PipeIn() const { return pipeIn; }
    uint32_t PipeOut() const { return pipeOut; }

    static constexpr uint32_t kNoPipe = 0xFFFFFFFFu;

private:
    bool TakeQueuedReport(uint8_t* buffer);

    std::unique_ptr<THidDevState> hid;
    std::unique_ptr<CMtUsbInterface> usbInterface;
    uint32_t pipeIn = kNoPipe;
    uint32_t pipeOut = kNoPipe;

    // Interfaces that the search opened and rejected: they stay open, as the search leaves
    // them, until the channel closes.
    std::vector<std::unique_ptr<CMtUsbInterface>> m_rejected;
    bool m_lastReadDelivered = false;
};
