// A frame as a touchscreen of its own: a uinput multitouch device (protocol B) made when the
// frame is ready, fed from its contacts, and removed when the frame ends, every touch lifted
// first. udev's input_id tags it ID_INPUT_TOUCHSCREEN (direct, BTN_TOUCH, absolute axes), so
// libinput and the desktops take it for one.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ContactStream.h"
#include "EvdevEvent.h"
#include "TouchscreenSlots.h"

struct libevdev;
struct libevdev_uinput;

struct TTouchscreenOptions {
    std::string uinputPath = "/dev/uinput";
    TTouchscreenSize size;
    int slots = kTouchscreenSlots;
};

// "irframe touchscreen <frame name>" ("frame <number>" when the frame has no name), cut to
// what uinput takes (79 bytes).
std::string TouchscreenDeviceName(const TContactSource& source);

// The device's description (name, ids, properties, axes with their resolutions); the caller
// frees it with libevdev_free.
libevdev* DescribeTouchscreen(const TContactSource& source, const TTouchscreenOptions& options);

class CUinputTouchscreen final : public IContactListener {
public:
    explicit CUinputTouchscreen(TTouchscreenOptions options);
    ~CUinputTouchscreen() override;

    void OnFrameReady(const TContactSource& source) override;
    void OnContacts(const TContactFrame& frame) override;
    void OnFrameEnd(int device) override;

    // The event node of the device while it exists, else empty.
    std::string DeviceNode() const;

private:
    void Write();
    void Close();
    void Warn(unsigned warnings);

    const TTouchscreenOptions m_options;
    // A frame's calls come on its worker; a frame plugged in again gets a new worker while the
    // old one may still be ending.
    mutable std::mutex m_mutex;
    CTouchscreenSlots m_slots;
    std::vector<TEvdevEvent> m_events;  // reused for every frame
    std::string m_name;
    libevdev* m_device = nullptr;
    libevdev_uinput* m_uinput = nullptr;
    int m_fd = -1;
    bool m_writeFailed = false;  // said once per device
};
