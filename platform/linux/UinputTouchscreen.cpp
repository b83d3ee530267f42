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

std::string TouchscreenDeviceName(const TContactSource& source) {
    std::string name = "irframe touchscreen " +
                       (source.name.empty() ? "frame " + std::to_string(source.device)
                                            : source.name);
    if (name.size() > kMaxNameBytes) name.resize(kMaxNameBytes);
    return name;
}

libevdev* DescribeTouchscreen(const TContactSource& source, const TTouchscreenOptions& options) {
    libevdev* device = libevdev_new();
    libevdev_set_name(device, TouchscreenDeviceName(source).c_str());
    libevdev_set_id_bustype(device, BUS_VIRTUAL);
    libevdev_set_id_vendor(device, source.vendorId);
    libevdev_set_id_product(device, source.productId);
    libevdev_set_id_version(device, 1);
    // Direct: the touches land on the display under them (a touchscreen, not a touchpad).
    libevdev_enable_property(device, INPUT_PROP_DIRECT);
    libevdev_enable_event_code(device, EV_KEY, BTN_TOUCH, nullptr);
    const int32_t rx = TouchscreenResolution(options.size.widthMm);
    const int32_t ry = TouchscreenResolution(options.size.heightMm);
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
    : m_options(std::move(options)), m_slots(m_options.slots) {
    m_events.reserve(16 * kTouchscreenSlots);
}

CUinputTouchscreen::~CUinputTouchscreen() {
    std::lock_guard<std::mutex> lock(m_mutex);
    Close();
}

void CUinputTouchscreen::OnFrameReady(const TContactSource& source) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Close();
    m_slots = CTouchscreenSlots(m_options.slots);
    m_writeFailed = false;
    m_name = TouchscreenDeviceName(source);
    m_fd = ::open(m_options.uinputPath.c_str(), O_RDWR | O_CLOEXEC);
    if (m_fd < 0) {
        TLog(TLogLevel::Error, "touchscreen: %s",
             DescribeUinputError(m_options.uinputPath, "open", errno).c_str());
        return;
    }
    m_device = DescribeTouchscreen(source, m_options);
    const int r = libevdev_uinput_create_from_device(m_device, m_fd, &m_uinput);
    if (r < 0) {
        TLog(TLogLevel::Error, "touchscreen: %s",
             DescribeUinputError(m_options.uinputPath, "create", -r).c_str());
        m_uinput = nullptr;
        Close();
        return;
    }
    const char* node = libevdev_uinput_get_devnode(m_uinput);
    TLog(TLogLevel::Info, "touchscreen: '%s' on %s (%d x %d mm, %d slots)", m_name.c_str(),
         node != nullptr ? node : "an unknown node", m_options.size.widthMm,
         m_options.size.heightMm, m_slots.Slots());
}

void CUinputTouchscreen::OnContacts(const TContactFrame& frame) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_uinput == nullptr) return;
    m_events.clear();
    m_slots.Update(frame, &m_events);
    Warn(m_slots.TakeWarnings());
    Write();
}

void CUinputTouchscreen::OnFrameEnd(int device) {
    (void)device;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_uinput == nullptr) return;
    m_events.clear();
    m_slots.LiftAll(&m_events);
    Write();
    if (!m_events.empty()) std::this_thread::sleep_for(kRemoveDelay);
    Close();
}

std::string CUinputTouchscreen::DeviceNode() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const char* node = m_uinput != nullptr ? libevdev_uinput_get_devnode(m_uinput) : nullptr;
    return node != nullptr ? node : "";
}

void CUinputTouchscreen::Warn(unsigned warnings) {
    if ((warnings & kTouchscreenClamped) != 0) {
        TLog(TLogLevel::Warning,
             "touchscreen '%s': contact values beyond %d..%d clamped (said once)",
             m_name.c_str(), kTouchAxisMin, kTouchAxisMax);
    }
    if ((warnings & kTouchscreenDropped) != 0) {
        TLog(TLogLevel::Warning,
             "touchscreen '%s': more contacts than its %d slots, the rest dropped (said once)",
             m_name.c_str(), m_slots.Slots());
    }
}

// The whole report in one write: one system call per frame.
void CUinputTouchscreen::Write() {
    input_event batch[128];
    size_t done = 0;
    while (done < m_events.size()) {
        const size_t n = std::min(m_events.size() - done, std::size(batch));
        for (size_t i = 0; i < n; ++i) {
            batch[i] = input_event{};
            batch[i].type = m_events[done + i].type;
            batch[i].code = m_events[done + i].code;
            batch[i].value = m_events[done + i].value;
        }
        ssize_t r;
        do {
            r = ::write(m_fd, batch, n * sizeof batch[0]);
        } while (r < 0 && errno == EINTR);
        if (r != static_cast<ssize_t>(n * sizeof batch[0])) {
            if (!m_writeFailed) {
                m_writeFailed = true;
                TLog(TLogLevel::Warning, "touchscreen '%s': write failed: %s", m_name.c_str(),
                     r < 0 ? std::strerror(errno) : "short write");
            }
            return;
        }
        done += n;
    }
}

void CUinputTouchscreen::Close() {
    if (m_uinput != nullptr) libevdev_uinput_destroy(m_uinput);
    if (m_device != nullptr) libevdev_free(m_device);
    if (m_fd >= 0) ::close(m_fd);
    m_uinput = nullptr;
    m_device = nullptr;
    m_fd = -1;
}
