// The running driver as a tool sees it: the frames it serves with their properties, and requests
// (read or write a frame's information block, status, configuration, scan pattern, touch-system
// file) that the frame's own worker carries out between two polls. The D-Bus interface
// (platform/linux/DbusDriverService) is built on this; the device list implements it
// (app/DriverControl).
//
// Threads: every call, and every callback, on the main loop. A request's completion is always
// posted, never called from inside Submit. One request at a time per frame; a frame's request
// never holds up another frame.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MtDevConfig.h"

enum class TFrameState : uint8_t {
    Opening,      // the worker opens the frame
    Configuring,  // reads its configuration and first frame
    Running,      // polls frames; requests are served
    Failed,       // the worker ended: the frame did not open, configure or answer
    Gone,         // unplugged
};

inline const char* FrameStateName(TFrameState state) {
    switch (state) {
        case TFrameState::Opening: return "opening";
        case TFrameState::Configuring: return "configuring";
        case TFrameState::Running: return "running";
        case TFrameState::Failed: return "failed";
        case TFrameState::Gone: return "gone";
    }
    return "unknown";
}

// Extents of the frame's first good report (the calibration's geometry); zero until known.
struct TFrameGeometry {
    int32_t logicalWidth = 0;
    int32_t logicalHeight = 0;
    int32_t rawWidth = 0;
    int32_t rawHeight = 0;
    bool operator==(const TFrameGeometry&) const = default;
};

struct TFrameDescription {
    int number = 0;              // 1, 2, ... in the order the driver found the frames
    std::string node;            // "/dev/hidraw3", or "simulated:<script>"
    uint16_t vendorId = 0;
    uint16_t productId = 0;
    std::string product;         // as the device names itself; may be empty
    std::string serial;          // may be empty
    TFrameState state = TFrameState::Opening;
    TFrameGeometry geometry;
    std::string configSummary;   // e.g. "2 areas, 1 panel (4 keys)"; empty until configured
};

enum class TFrameOperation : uint8_t {
    ReadInfo,
    ReadStatus,
    ReadConfig,
    WriteConfig,           // written, then read back and compared
    WriteOverride,         // written, then the configuration read back and compared
    ReadScanPattern,
    WriteScanPattern,
    WriteTouchSystemFile,
};

inline const char* FrameOperationName(TFrameOperation operation) {
    switch (operation) {
        case TFrameOperation::ReadInfo: return "ReadInfo";
        case TFrameOperation::ReadStatus: return "ReadStatus";
        case TFrameOperation::ReadConfig: return "ReadConfig";
        case TFrameOperation::WriteConfig: return "WriteConfig";
        case TFrameOperation::WriteOverride: return "WriteOverride";
        case TFrameOperation::ReadScanPattern: return "ReadScanPattern";
        case TFrameOperation::WriteScanPattern: return "WriteScanPattern";
        case TFrameOperation::WriteTouchSystemFile: return "WriteTouchSystemFile";
    }
    return "unknown";
}

struct TFrameRequest {
    TFrameOperation operation = TFrameOperation::ReadInfo;
    std::vector<uint8_t> bytes;                           // WriteScanPattern, WriteTouchSystemFile
    std::shared_ptr<const _HARDWARE_DEV_CONFIG> config;   // WriteConfig
    _HARDWARE_CONFIG_OVERRIDE override{};                 // WriteOverride
};

enum class TFrameOutcome : uint8_t {
    Done,
    Busy,       // another request of the frame is in flight; nothing was done
    Failed,     // refused (frame not running) or the device reported an error
    Gone,       // the frame went away (or stopped answering) during the request
    Cancelled,  // Cancel ended the transfer; the device may hold part of a write
};

struct TFrameResult {
    TFrameOutcome outcome = TFrameOutcome::Done;
    uint32_t deviceError = 0;  // the DEV_ERR of a failed transfer, 0 otherwise
    std::string message;       // what went wrong, for a person
    std::vector<uint8_t> bytes;                          // ReadInfo, ReadStatus, ReadScanPattern
    std::shared_ptr<const _HARDWARE_DEV_CONFIG> config;  // ReadConfig; writes: as read back

    // A result that carries nothing but its outcome and why.
    static TFrameResult Of(TFrameOutcome outcome, std::string message) {
        TFrameResult result;
        result.outcome = outcome;
        result.message = std::move(message);
        return result;
    }
};

// Of the request in flight: bytes moved and expected (the controller's counters).
struct TTransferProgress {
    bool active = false;
    uint32_t done = 0;
    uint32_t total = 0;
};

// Changes of the frame list, on the main loop.
class IDriverEvents {
public:
    virtual ~IDriverEvents() = default;
    virtual void OnFrameAdded(int number) = 0;
    // State, geometry or configuration summary changed.
    virtual void OnFrameChanged(int number) = 0;
    virtual void OnFrameRemoved(int number) = 0;
};

// What reading the configuration file again gave (see app/config/ConfigReload.h).
struct TReloadAnswer {
    bool reloaded = false;      // false: nothing changed; `message` says why
    std::string message;        // one line
    std::string restartNeeded;  // the changed settings that wait for a restart; empty: none
};

class IDriverControl {
public:
    using TDone = std::function<void(TFrameResult result)>;

    virtual ~IDriverControl() = default;

    // The frames present, in ascending number.
    virtual std::vector<int> FrameNumbers() const = 0;
    virtual std::optional<TFrameDescription> DescribeFrame(int number) const = 0;
    // Hands `request` to the frame's worker; `done` runs later on the main loop, exactly once
    // (Busy at once when the frame has a request in flight).
    virtual void Submit(int number, TFrameRequest request, TDone done) = 0;
    // Aborts the frame's request in flight (the controller's abort flag). False when none.
    virtual bool Cancel(int number) = 0;
    // Holds (or lets go of) the frame's gestures: its contacts post no events while held, and
    // still go to every other listener. False when the frame is not present.
    virtual bool HoldGestures(int number, bool held) = 0;
    virtual TTransferProgress Progress(int number) const = 0;
    // Null: no events. The events object must outlive the control or be unset first.
    virtual void SetEvents(IDriverEvents* events) = 0;
    // Reads the configuration file again and puts what changes live in force. Nothing when
    // this driver offers no reload.
    virtual std::optional<TReloadAnswer> Reload() { return std::nullopt; }
};

// Between a configuration record and its JSON text. Until a codec is installed the JSON
// methods of the interface answer Failed.
struct TConfigJsonCodec {
    std::function<std::string(const _HARDWARE_DEV_CONFIG& config)> toJson;
    // False with `error` (the JSON path of the fault and what is wrong) when refused.
    std::function<bool(std::string_view json, _HARDWARE_DEV_CONFIG* config, std::string* error)>
        fromJson;
    // The override's reader; empty: the interface's own ({"flags":..,"edgeAdjust":[..]}).
    std::function<bool(std::string_view json, _HARDWARE_CONFIG_OVERRIDE* override,
                       std::string* error)>
        overrideFromJson;
};
