// The stream of calibrated contacts: after calibration, each polled frame's contacts go to every
// listener of that frame. The gesture emulation is one listener; the touchscreen, TUIO, a live
// monitor and recording are others.
//
// Calls come on the frame's worker thread, in this order: OnFrameReady once the frame is
// configured, OnContacts once per polled frame, OnFrameEnd once when the worker ends (the frame
// went away, stopped answering, or the driver is ending). A listener that holds touches must
// lift them all in OnFrameEnd. Listeners of several frames are called from several threads.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "CalibrateCoordinate.h"
#include "MtDevConfig.h"
#include "MtDevFrame.h"

// A contact's status as the frame reports it.
inline constexpr uint8_t kContactDown = 0;     // first report of the id
inline constexpr uint8_t kContactMoving = 1;   // the id continues
inline constexpr uint8_t kContactLifted = 2;   // last report, with a final position
// Any other value: gone without a final position.

struct TContact {
    uint8_t id = 0;
    uint8_t status = kContactDown;
    // Not in this frame any more although it never reported a lift: contact matching retired
    // it. Its position is the last one reported.
    bool retired = false;
    bool hasSize = false;  // width and height are the frame's own (extended reports)
    int32_t x = 0;         // absolute output units, 1..32766, rotated per area
    int32_t y = 0;
    int32_t width = 0;     // output units, where hasSize
    int32_t height = 0;
    uint16_t rawX = 0;     // as the frame sent it
    uint16_t rawY = 0;
    uint8_t cell[2] = {0, 0};  // group and index of the calibration area or button panel

    bool Ended() const { return retired || status >= kContactLifted; }
    bool operator==(const TContact&) const = default;
};

// One polled frame: its contacts in report order (last contact of the report first), then the
// contacts that ended without a lift since the previous frame (retired).
struct TContactFrame {
    int device = 0;         // the frame's number (1, 2, ... in order of discovery)
    int64_t timeStamp = 0;  // seconds * 4,000,000 + microseconds
    std::vector<TContact> contacts;
    // The calibrated contact list the values above come from; valid only during the call.
    const _HARDWARE_SDK_POINT* points = nullptr;
};

// What a listener may want to know about the frame it listens to, valid from OnFrameReady to
// OnFrameEnd.
struct TContactSource {
    int device = 0;
    std::string name;  // e.g. "hidraw3 (AAEC:C020 IR Touch, serial 1234)"
    uint16_t vendorId = 0;
    uint16_t productId = 0;
    const _HARDWARE_DEV_CONFIG* config = nullptr;  // as read from the frame
    const _CS_CONFIG* geometry = nullptr;          // from the first frame
    std::string serial;  // the frame's USB serial; empty when it has none
    std::string node;    // "/dev/hidraw3"; empty when not known
};

class IContactListener {
public:
    virtual ~IContactListener() = default;
    virtual void OnFrameReady(const TContactSource& source) { (void)source; }
    virtual void OnContacts(const TContactFrame& frame) = 0;
    // The frame's worker ends: every contact still down is to be lifted now.
    virtual void OnFrameEnd(int device) { (void)device; }
};
