#include "UinputTouchscreen.h"

#include "MtDevLog.h"
#include "UinputEventSink.h"

#include <fcntl.h>
#include <libevdev/libevdev-uinput.h>
#include <libevdev/libevdev.h>
#include <linux/input.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace {

constexpr size_t kMaxNameBytes = 79;  // uinput's name buffer, less its terminator
// Between the last lift and the device's removal: a reader that has not yet read the lift
// when the device goes loses it (evdev refuses reads on a removed device).
constexpr auto kRemoveDelay = std::chrono::milliseconds(100);

void EnableAxis(libevdev* device, uint16_t code, int32_t minimum, int32_t maximum,
                int32_t resolution) {
    input_absinfo axis{};
    axis.minimum = minimum;
    axis.maximum = maximum;
    axis.resolution = resolution;
    libevdev_enable_event_code(device, EV_ABS, code, &axis);
}

}  // namespace

TTouchscreenSize TouchscreenSizeFor(int widthMm, int heightMm, const TDisplayGeometry& monitor) {
    TTouchscreenSize size;
    const auto plausible = [](int mm) { return mm > 0 && mm <= kTouchscreenMaxMm; };
    if (widthMm <= 0 && heightMm <= 0 && plausible(monitor.widthMm) &&
        plausible(monitor.heightMm)) {
        return {monitor.widthMm, monitor.heightMm};
    }
    if (widthMm > 0) size.widthMm = widthMm;
    if (heightMm > 0) size.heightMm = heightMm;
    return size;
}

std::string TouchscreenDeviceName(const TContactSource& source, int area) {
    std::string name = "irframe touchscreen ";
    if (!source.serial.empty()) {
        name += "serial " + source.serial;
    } else if (!source.node.empty()) {
        name += source.node.substr(source.node.rfind('/') + 1);
    } else {
        name += "frame " + std::to_string(source.device);
    }
    const std::string suffix = area >= 0 ? " area " + std::to_string(area) : "";
    // The area stays in the name however long the serial is.
    if (name.size() + suffix.size() > kMaxNameBytes) name.resize(kMaxNameBytes - suffix.size());
    return name + suffix;
}

libevdev* DescribeTouchscreen(const TContactSource& source, const TTouchscreenOptions& options,
                              int area) {
    libevdev* device = libevdev_new();
    libevdev_set_name(device, TouchscreenDeviceName(source, area).c_str());
    libevdev_set_id_bustype(device, BUS_VIRTUAL);
    libevdev_set_id_vendor(device, source.vendorId);
    libevdev_set_id_product(device, source.productId);
    libevdev_set_id_version(device, 1);
    // Direct: the touches land on the display under them (a touchscreen, not a touchpad). No
    // pointer button: a device with BTN_LEFT is a pointer to udev and to GNOME.
    libevdev_enable_property(device, INPUT_PROP_DIRECT);
    libevdev_enable_event_code(device, EV_KEY, BTN_TOUCH, nullptr);
    const int32_t rx = TouchscreenResolution(options.size.widthMm);
    const int32_t ry = TouchscreenResolution(options.size.heightMm);
    // ABS_X/ABS_Y as the kernel's own touchscreens have them (single-touch emulation); libinput
    // reads the size from them.
    EnableAxis(device, ABS_X, kTouchAxisMin, kTouchAxisMax, rx);
    EnableAxis(device, ABS_Y, kTouchAxisMin, kTouchAxisMax, ry);
    const int slots = std::clamp(options.slots, 1, kTouchscreenMaxSlots);
    EnableAxis(device, ABS_MT_SLOT, 0, slots - 1, 0);
    EnableAxis(device, ABS_MT_TRACKING_ID, 0, kTrackingIdMax, 0);
    EnableAxis(device, ABS_MT_POSITION_X, kTouchAxisMin, kTouchAxisMax, rx);
    EnableAxis(device, ABS_MT_POSITION_Y, kTouchAxisMin, kTouchAxisMax, ry);
    EnableAxis(device, ABS_MT_TOUCH_MAJOR, 0, kTouchAxisMax, 0);
    EnableAxis(device, ABS_MT_TOUCH_MINOR, 0, kTouchAxisMax, 0);
    return device;
}

CUinputTouchscreen::CUinputTouchscreen(TTouchscreenOptions options)
    : m_options(std::move(options)) {
    m_events.reserve(16 * kTouchscreenSlots);
    m_areaFrame.contacts.reserve(32);
}

CUinputTouchscreen::~CUinputTouchscreen() {
    std::lock_guard<std::mutex> lock(m_mutex);
    Close();
}

void CUinputTouchscreen::OnFrameReady(const TContactSource& source) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Close();
    std::vector<TTouchscreenArea> areas;
    if (m_options.perArea && source.config != nullptr && source.geometry != nullptr) {
        areas = TouchscreenAreas(*source.config, *source.geometry);
    }
    if (m_options.perArea && areas.empty()) {
        TLog(TLogLevel::Info,
             "touchscreen: frame %d maps through no calibration area: one touchscreen for it",
             source.device);
    }
    if (areas.empty()) {
        Open(source, std::nullopt);
        return;
    }
    for (const TTouchscreenArea& area : areas) {
        if (!Open(source, area)) return;
    }
}

bool CUinputTouchscreen::Open(const TContactSource& source,
                              std::optional<TTouchscreenArea> area) {
    auto device = std::make_unique<TDevice>();
    device->area = area;
    device->slots = CTouchscreenSlots(m_options.slots);
    const int index = area ? area->index : -1;
    device->name = TouchscreenDeviceName(source, index);
    device->fd = ::open(m_options.uinputPath.c_str(), O_RDWR | O_CLOEXEC);
    if (device->fd < 0) {
        TLog(TLogLevel::Error, "touchscreen: %s",
             DescribeUinputError(m_options.uinputPath, "open", errno).c_str());
        return false;
    }
    // Owned by the list from here, so that Close frees what was made.
    TDevice& d = *m_devices.emplace_back(std::move(device));
    d.description = DescribeTouchscreen(source, m_options, index);
    const int r = libevdev_uinput_create_from_device(d.description, d.fd, &d.uinput);
    if (r < 0) {
        TLog(TLogLevel::Error, "touchscreen: %s",
             DescribeUinputError(m_options.uinputPath, "create", -r).c_str());
        d.uinput = nullptr;
        return false;
    }
    const char* node = libevdev_uinput_get_devnode(d.uinput);
    TLog(TLogLevel::Info, "touchscreen: '%s' on %s (%d x %d mm, %d slots)", d.name.c_str(),
         node != nullptr ? node : "an unknown node", m_options.size.widthMm,
         m_options.size.heightMm, d.slots.Slots());
    return true;
}

void CUinputTouchscreen::OnContacts(const TContactFrame& frame) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& device : m_devices) {
        if (device->uinput == nullptr) continue;
        m_events.clear();
        if (device->area) {
            SelectAreaContacts(frame, *device->area, &m_areaFrame);
            device->slots.Update(m_areaFrame, &m_events);
        } else {
            device->slots.Update(frame, &m_events);
        }
        Warn(*device, device->slots.TakeWarnings());
        Write(*device);
    }
}

void CUinputTouchscreen::OnFrameEnd(int device) {
    (void)device;
    std::lock_guard<std::mutex> lock(m_mutex);
    bool lifted = false;
    for (const auto& d : m_devices) {
        if (d->uinput == nullptr) continue;
        m_events.clear();
        d->slots.LiftAll(&m_events);
        Write(*d);
        lifted = lifted || !m_events.empty();
    }
    if (lifted) std::this_thread::sleep_for(kRemoveDelay);
    Close();
}

std::vector<std::string> CUinputTouchscreen::DeviceNames() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> names;
    for (const auto& d : m_devices) {
        if (d->uinput != nullptr) names.push_back(d->name);
    }
    return names;
}

std::vector<std::string> CUinputTouchscreen::DeviceNodes() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> nodes;
    for (const auto& d : m_devices) {
        const char* node = d->uinput != nullptr ? libevdev_uinput_get_devnode(d->uinput) : nullptr;
        if (node != nullptr) nodes.emplace_back(node);
    }
    return nodes;
}

std::string CUinputTouchscreen::DeviceNode() const {
    const std::vector<std::string> nodes = DeviceNodes();
    return nodes.empty() ? "" : nodes.front();
}

void CUinputTouchscreen::Warn(const TDevice& device, unsigned warnings) {
    if ((warnings & kTouchscreenClamped) != 0) {
        TLog(TLogLevel::Warning,
             "touchscreen '%s': contact values beyond %d..%d clamped (said once)",
             device.name.c_str(), kTouchAxisMin, kTouchAxisMax);
    }
    if ((warnings & kTouchscreenDropped) != 0) {
        TLog(TLogLevel::Warning,
             "touchscreen '%s': more contacts than its %d slots, the rest dropped (said once)",
             device.name.c_str(), device.slots.Slots());
    }
}

// The whole report in one write: one system call per frame.
void CUinputTouchscreen::Write(TDevice& device) {
    int error = 0;
    if (WriteEvdevEvents(device.fd, m_events, &error) || device.writeFailed) return;
    device.writeFailed = true;
    TLog(TLogLevel::Warning, "touchscreen '%s': write failed: %s", device.name.c_str(),
         error != 0 ? std::strerror(error) : "short write");
}

void CUinputTouchscreen::Close() {
    for (const auto& d : m_devices) {
        if (d->uinput != nullptr) libevdev_uinput_destroy(d->uinput);
        if (d->description != nullptr) libevdev_free(d->description);
        if (d->fd >= 0) ::close(d->fd);
    }
    m_devices.clear();
}
