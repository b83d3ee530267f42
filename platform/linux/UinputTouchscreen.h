// A frame as a touchscreen of its own: a uinput multitouch device (protocol B) made when the
// frame is ready, fed from its contacts, and removed when the frame ends, every touch lifted
// first. udev's input_id tags it ID_INPUT_TOUCHSCREEN (direct, BTN_TOUCH, absolute axes), so
// libinput and the desktops take it for one.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ContactStream.h"
#include "EvdevEvent.h"
#include "LinuxScreen.h"
#include "TouchscreenAreas.h"
#include "TouchscreenSlots.h"

struct libevdev;
struct libevdev_uinput;

struct TTouchscreenOptions {
    std::string uinputPath = "/dev/uinput";
    TTouchscreenSize size;
    int slots = kTouchscreenSlots;
    // One device per calibration area of the frame, each with its area's contacts only; a frame
    // without areas still gets one.
    bool perArea = false;
};

// The touch surface's size: each side configured (above 0) as configured; with neither, the
// monitor's own size where the desktop reports a plausible one; else the default.
TTouchscreenSize TouchscreenSizeFor(int widthMm, int heightMm, const TDisplayGeometry& monitor);

// "irframe touchscreen " and what stays the same for the frame from one plugging to the next:
// its serial ("serial 1234"), else its node ("hidraw3"), else "frame <number>"; with an area,
// " area <index>". Cut to what uinput takes (79 bytes).
std::string TouchscreenDeviceName(const TContactSource& source, int area = -1);

// The device's description (name, ids, properties, axes with their resolutions); the caller
// frees it with libevdev_free.
libevdev* DescribeTouchscreen(const TContactSource& source, const TTouchscreenOptions& options,
                              int area = -1);

class CUinputTouchscreen final : public IContactListener {
public:
    explicit CUinputTouchscreen(TTouchscreenOptions options);
    ~CUinputTouchscreen() override;

    void OnFrameReady(const TContactSource& source) override;
    void OnContacts(const TContactFrame& frame) override;
    void OnFrameEnd(int device) override;

    // The names of the devices that exist (one per area, in area order), else empty.
    std::vector<std::string> DeviceNames() const;
    // The event nodes of the devices that exist (one per area), else empty.
    std::vector<std::string> DeviceNodes() const;
    std::string DeviceNode() const;  // the first one's

private:
    // One uinput device: the frame's, or one area's.
    struct TDevice {
        std::optional<TTouchscreenArea> area;  // none: the whole frame
        std::string name;
        CTouchscreenSlots slots;
        libevdev* description = nullptr;
        libevdev_uinput* uinput = nullptr;
        int fd = -1;
        bool writeFailed = false;  // said once per device
    };

    bool Open(const TContactSource& source, std::optional<TTouchscreenArea> area);
    void Write(TDevice& device);
    void Close();
    void Warn(const TDevice& device, unsigned warnings);

    const TTouchscreenOptions m_options;
    // A frame's calls come on its worker; a frame plugged in again gets a new worker while the
    // old one may still be ending.
    mutable std::mutex m_mutex;
    std::vector<std::unique_ptr<TDevice>> m_devices;
    std::vector<TEvdevEvent> m_events;  // reused for every frame
    TContactFrame m_areaFrame;          // one area's contacts, reused
};
