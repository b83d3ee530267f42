// The narrow ports under the device link: what the transport needs from the operating system to
// reach one touch frame, and nothing more.
//
// Two ports, one per transport:
//   - a HID device: open/close, send an output report of N bytes, and wait for input reports
//     (delivered through a callback, one call per report) with a one-shot time-out;
//   - a USB device reached through its service: open/close, iterate its interfaces, and on an
//     interface read/write a pipe with time-outs, ask a pipe's status and clear a stall.
//
// Every rule about what to do with these (queueing, the 64-byte cut, the interface search, stall
// recovery, pauses) lives in CMtDevCommunicator above the ports, so it is the same code on every
// platform and under test. Linux implements the ports over hidraw and libusb-1.0
// (platform/linux); the emulated touch frame (sim/) implements them in process.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// ---------------------------------------------------------------------------------------------
// HID report port

constexpr int kMtHidSuccess = 0;
constexpr int kMtHidError = -1;

// Report types passed to the input callback.
constexpr int kMtHidReportTypeInput = 0;
constexpr int kMtHidReportTypeOutput = 1;

// Called once for every input report that arrives while a wait runs. `sender` is the device
// that produced it, `result` is kMtHidSuccess for a good report.
using TMtHidReportCallback = void (*)(void* context, int result, void* sender, int type,
                                      uint32_t reportID, uint8_t* report, long reportLength);

// What one turn of a wait ended with.
enum class TMtHidRun {
    Delivered,  // at least one input report went through the callback
    TimedOut,   // the wait's one-shot timer fired
    Gone,       // the device went away (or is not open)
};

// What the platform knows of a device, for messages and tools; empty where it does not know.
struct TMtHidIdentity {
    std::string node;  // "/dev/hidraw3", or "simulated:<script>" for an emulated frame
    uint16_t vendorId = 0;
    uint16_t productId = 0;
    std::string product;  // the device's product string
    std::string serial;
};

// "/dev/hidraw3 (AAEC:C020 "IR Touch", serial 1234)", leaving out what is not known.
std::string DescribeHidIdentity(const TMtHidIdentity& identity);

// Whoever discovery hands devices to (the service shell). A discovery session records it on each
// device it reports, as a platform's device reference knows the manager that found it, so that
// code given nothing but the device reaches the state that device belongs to. The device link
// never uses it.
class CMtHidDeviceKeeper {
protected:
    ~CMtHidDeviceKeeper() = default;
};

class CMtHidDevice {
public:
    virtual ~CMtHidDevice() = default;

    // Set by discovery before the device is handed out, read-only afterwards.
    void SetIdentity(TMtHidIdentity identity) { m_identity = std::move(identity); }
    const TMtHidIdentity& Identity() const { return m_identity; }
    // Set by the discovery session as it hands the device over; null for a device no session
    // reported. Main thread.
    void SetKeeper(CMtHidDeviceKeeper* keeper) { m_keeper = keeper; }
    CMtHidDeviceKeeper* Keeper() const { return m_keeper; }

    // kMtHidSuccess when the device is open for reports.
    virtual int Open() = 0;
    // Closes; safe to call when not open.
    virtual void Close() = 0;
    // The callback that the device's input reports go to during a wait.
    virtual void RegisterInputReportCallback(TMtHidReportCallback callback, void* context) = 0;
    // Sends `length` bytes as one output report with report id 0; kMtHidSuccess or an error.
    virtual int SetOutputReport(const uint8_t* report, long length) = 0;

    // A wait: BeginWait arms a one-shot timer of `timeoutMs`; each RunWait blocks until reports
    // were delivered, the timer fired or the device is gone; EndWait disarms the timer.
    virtual void BeginWait(unsigned timeoutMs) = 0;
    virtual TMtHidRun RunWait() = 0;
    virtual void EndWait() = 0;

private:
    TMtHidIdentity m_identity;
    CMtHidDeviceKeeper* m_keeper = nullptr;
};

// ---------------------------------------------------------------------------------------------
// USB bulk port

// Results of the USB calls. 0 is success; the failure values are the platform's own codes.
constexpr int kMtUsbSuccess = 0;
constexpr int kMtUsbError = static_cast<int>(0xE00002BCu);           // general failure
constexpr int kMtUsbNotResponding = static_cast<int>(0xE00002EDu);   // device went away
constexpr int kMtUsbTransactionTimeout = static_cast<int>(0xE0004051u);
constexpr int kMtUsbPipeStalled = static_cast<int>(0xE000404Fu);      // GetPipeStatus: stalled

// Transfer types and directions of a pipe.
constexpr uint8_t kMtUsbControl = 0;
constexpr uint8_t kMtUsbIsoc = 1;
constexpr uint8_t kMtUsbBulk = 2;
constexpr uint8_t kMtUsbInterrupt = 3;
constexpr uint8_t kMtUsbOut = 0;
constexpr uint8_t kMtUsbIn = 1;

constexpr uint16_t kMtUsbFindInterfaceDontCare = 0xFFFF;

struct TMtUsbFindInterfaceRequest {
    uint16_t bInterfaceClass;
    uint16_t bInterfaceSubClass;
    uint16_t bInterfaceProtocol;
    uint16_t bAlternateSetting;
};

struct TMtUsbPipeProperties {
    uint8_t direction;      // kMtUsbIn / kMtUsbOut
    uint8_t number;         // endpoint number
    uint8_t transferType;   // kMtUsbBulk, ...
    uint16_t maxPacketSize;
    uint8_t interval;
};

// One interface of a USB device. Pipe references count from 1 to GetNumEndpoints. Releasing
// the object (deleting it) closes the interface if it is still open.
class CMtUsbInterface {
public:
    virtual ~CMtUsbInterface() = default;

    virtual uint8_t GetInterfaceClass() = 0;
    virtual uint8_t GetInterfaceSubClass() = 0;
    virtual int USBInterfaceOpen() = 0;
    virtual int USBInterfaceClose() = 0;
    virtual int GetNumEndpoints(uint8_t* count) = 0;
    virtual int GetPipeProperties(uint8_t pipeRef, TMtUsbPipeProperties* properties) = 0;
    // *size: in the buffer's capacity, out the bytes read.
    virtual int ReadPipeTO(uint8_t pipeRef, uint8_t* buffer, uint32_t* size,
                           uint32_t noDataTimeoutMs, uint32_t completionTimeoutMs) = 0;
    virtual int WritePipeTO(uint8_t pipeRef, const uint8_t* buffer, uint32_t size,
                            uint32_t noDataTimeoutMs, uint32_t completionTimeoutMs) = 0;
    // kMtUsbSuccess, kMtUsbPipeStalled, or another failure.
    virtual int GetPipeStatus(uint8_t pipeRef) = 0;
    virtual int ClearPipeStallBothEnds(uint8_t pipeRef) = 0;
};

// The device interface of a USB device. Interfaces it hands out outlive it: closing and releasing
// the device leaves an opened interface open.
class CMtUsbDevice {
public:
    virtual ~CMtUsbDevice() = default;

    virtual uint16_t GetDeviceReleaseNumber() = 0;
    virtual int USBDeviceOpen() = 0;
    virtual int USBDeviceClose() = 0;
    // The interfaces that match `request`, in the device's order. A null entry stands for an
    // interface whose object could not be made.
    virtual int CreateInterfaceIterator(const TMtUsbFindInterfaceRequest& request,
                                        std::vector<std::unique_ptr<CMtUsbInterface>>* out) = 0;
};

// A USB device as discovery names it. It stays owned by whoever made the device path.
class CMtUsbService {
public:
    virtual ~CMtUsbService() = default;

    // The device's interface object, or null when it cannot be made.
    virtual std::unique_ptr<CMtUsbDevice> CreateDeviceInterface() = 0;
};
