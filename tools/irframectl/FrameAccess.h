// What irframectl needs from a touch frame, whichever way it reaches it: through the running
// driver on the session bus (BusTransport), or by opening the frame itself through the device
// library when no driver runs (DirectTransport).
//
// Every operation either returns its result or throws CToolError, which carries the exit code
// the tool ends with and a message for the user.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "MtDevConfig.h"
#include "MtDevCtrlInterface.h"

// Exit codes of irframectl (docs/irframectl.md).
enum TCtlExit : int {
    kCtlOk = 0,
    kCtlFailure = 1,    // the operation failed: device or driver error, frame gone, mismatch
    kCtlUsage = 2,      // bad command line
    kCtlNoFrame = 3,    // no frame found, or none matches FRAME
    kCtlBadInput = 4,   // an input file that cannot be read or is refused
    kCtlCancelled = 5,  // cancelled with Ctrl-C, or the confirmation was declined
    kCtlBusy = 6,       // the frame is busy with another client's transfer
};

class CToolError : public std::runtime_error {
public:
    CToolError(int exitCode, const std::string& message)
        : std::runtime_error(message), m_exitCode(exitCode) {}
    int ExitCode() const { return m_exitCode; }

private:
    int m_exitCode;
};

struct TFrameEntry {
    int number = 0;    // the driver's frame number; direct: 1, 2, ... in discovery order
    std::string node;  // "/dev/hidraw3", "usb:001:004", "simulated:<script>"
    uint16_t vendorId = 0;
    uint16_t productId = 0;
    std::string product;
    std::string serial;
    std::string state;  // the driver's: opening, configuring, running, failed, gone
    // Geometry from the frame's first report; zero until known.
    int32_t logicalWidth = 0;
    int32_t logicalHeight = 0;
    int32_t rawWidth = 0;
    int32_t rawHeight = 0;
    std::string configSummary;  // "2 areas, 1 panel (4 keys)"; empty until known
    // The driver's touchscreen devices for the frame, one per area with per-area touchscreens;
    // empty without them (and without the driver).
    std::vector<std::string> touchscreens;
};

// One contact of a polled frame, calibrated (absolute output units 1..32766).
struct TMonitoredContact {
    uint8_t id = 0;
    uint8_t status = 0;    // 0 down, 1 moving, 2 lifted, other: gone without a lift
    bool retired = false;  // missing from this frame without a lift; last position
    int32_t x = 0;
    int32_t y = 0;
    int32_t width = 0;     // 0 when the frame does not report sizes
    int32_t height = 0;
    uint16_t rawX = 0;
    uint16_t rawY = 0;
    uint8_t cellGroup = 0;  // 255 for a button panel
    uint8_t cellIndex = 0;  // area or panel id
};

// One polled frame: its contacts in the order the frame listed them, then the retired ones.
struct TMonitoredFrame {
    int64_t timeStamp = 0;  // seconds * 4,000,000 + microseconds
    std::vector<TMonitoredContact> contacts;
};

struct TTransferHooks {
    std::function<void(uint32_t done, uint32_t total)> progress;  // may be empty
    std::function<bool()> cancelRequested;                        // polled; may be empty
};

// How a contact stream ended.
enum class TStreamEnd {
    Stopped,     // the caller asked to stop
    FrameGone,   // the frame went away or stopped answering
    DriverGone,  // the driver left the bus
    Ended,       // an emulated frame played its script to the end
};

class IFrame {
public:
    virtual ~IFrame() = default;

    virtual TFrameEntry Describe() = 0;
    virtual std::vector<uint8_t> ReadInfo() = 0;
    virtual std::vector<uint8_t> ReadStatus() = 0;
    virtual std::unique_ptr<_HARDWARE_DEV_CONFIG> ReadConfig() = 0;
    // Writes the configuration and returns what the frame holds afterwards.
    virtual std::unique_ptr<_HARDWARE_DEV_CONFIG> WriteConfig(const _HARDWARE_DEV_CONFIG& config) = 0;
    // Holds (true) or lets go of the frame's gestures: its touches post no events meanwhile.
    // The hold ends too when this process leaves.
    virtual void HoldGestures(bool held) = 0;
    virtual std::vector<uint8_t> ReadScanPattern(const TTransferHooks& hooks) = 0;
    virtual void WriteScanPattern(const std::vector<uint8_t>& pattern, const TTransferHooks& hooks) = 0;
    virtual void WriteTouchSystemFile(const std::vector<uint8_t>& file, const TTransferHooks& hooks) = 0;
    // Hands every polled frame to `onFrame` until it returns false, `stop` returns true (asked
    // between frames, and every 100 ms through the driver), or the stream ends. `started` is
    // called once when frames flow: every frame after it is handed over.
    virtual TStreamEnd StreamContacts(const std::function<bool(const TMonitoredFrame&)>& onFrame,
                                      const std::function<bool()>& stop,
                                      const std::function<void()>& started) = 0;
};

class ITransport {
public:
    virtual ~ITransport() = default;
    // "the driver" or "direct access", for messages.
    virtual std::string Name() const = 0;
    virtual std::vector<TFrameEntry> List() = 0;
    virtual std::unique_ptr<IFrame> Open(const TFrameEntry& frame) = 0;
};

// Largest files the tool reads: a configuration JSON is limited by its reader; these bound the
// binary files before they are read whole.
constexpr size_t kMaxScanPatternBytes = 0x200000;
constexpr size_t kMaxTouchSystemFileBytes = MTDEV_TOUCH_SYSTEM_FILE_MAX_BYTES;  // as the driver's
constexpr size_t kMaxStatusBytes = 0x10000;
