#include "UinputEventSink.h"

#include "MtDevLog.h"

#include <fcntl.h>
#include <libevdev/libevdev-uinput.h>
#include <libevdev/libevdev.h>
#include <linux/input.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace {

int32_t ScaleToAxis(double value, double extent) {
    if (!(extent > 0) || !std::isfinite(value)) return 0;
    const double scaled = std::round(value * kUinputAbsMax / extent);
    if (scaled <= 0) return 0;
    if (scaled >= kUinputAbsMax) return kUinputAbsMax;
    return static_cast<int32_t>(scaled);
}

void Add(std::vector<TEvdevEvent>* out, uint16_t type, uint16_t code, int32_t value) {
    out->push_back({type, code, value});
}

void Sync(std::vector<TEvdevEvent>* out) {
    Add(out, EV_SYN, SYN_REPORT, 0);
}

// Contacts map to 1..32766 and so to points away from the origin; a left release exactly at
// the origin is the gestures' release of a held button with no contact left to place it.
bool IsReleaseWithoutContact(const TInputEvent& event) {
    return event.type == TInputEventType::LeftMouseUp && event.x == 0.0 && event.y == 0.0;
}

}  // namespace

int32_t CEvdevTranslator::AbsoluteX(double x) const {
    return ScaleToAxis(m_geometry.main.x + x, m_geometry.desktopWidth);
}

int32_t CEvdevTranslator::AbsoluteY(double y) const {
    return ScaleToAxis(m_geometry.main.y + y, m_geometry.desktopHeight);
}

void CEvdevTranslator::SetKeys(CKeyMap keys) {
    if (m_shortcutsDown > 0) {
        m_nextKeys = std::move(keys);
        return;
    }
    m_keys = std::move(keys);
    m_nextKeys.reset();
}

void CEvdevTranslator::Wheel(std::vector<TEvdevEvent>* out, int32_t pixels, uint16_t hiResCode,
                             uint16_t code, int32_t* remainder) {
    if (pixels == 0) return;
    // 64-bit: a scroll of 2^31 pixels must not overflow the product.
    const int64_t hiRes = static_cast<int64_t>(pixels) * kHiResPerDetent / kScrollPixelsPerDetent;
    if (hiRes == 0) return;
    // A change of direction starts the detent count afresh, as a wheel mouse does.
    if ((*remainder < 0 && hiRes > 0) || (*remainder > 0 && hiRes < 0)) *remainder = 0;
    const int64_t clamped = std::clamp<int64_t>(hiRes, INT32_MIN / 2, INT32_MAX / 2);
    Add(out, EV_REL, hiResCode, static_cast<int32_t>(clamped));
    const int64_t total = *remainder + clamped;
    const int64_t detents = total / kHiResPerDetent;
    *remainder = static_cast<int32_t>(total - detents * kHiResPerDetent);
    if (detents != 0) Add(out, EV_REL, code, static_cast<int32_t>(detents));
}

std::vector<TEvdevEvent> CEvdevTranslator::Translate(const TInputEvent& event) {
    std::vector<TEvdevEvent> out;
    switch (event.type) {
        case TInputEventType::MouseMoved:
        case TInputEventType::LeftMouseDragged:
        case TInputEventType::LeftMouseDown:
        case TInputEventType::LeftMouseUp:
        case TInputEventType::RightMouseDown:
        case TInputEventType::RightMouseUp: {
            // Every mouse event carries its position, and the pointer goes there; except the
            // release of a button whose contact is gone (the frame went away, stopped answering,
            // or the driver stops): it comes at the origin, which no contact maps to, and the
            // button goes up where the finger was, where the pointer still is.
            if (!IsReleaseWithoutContact(event)) {
                Add(&out, EV_ABS, ABS_X, AbsoluteX(event.x));
                Add(&out, EV_ABS, ABS_Y, AbsoluteY(event.y));
            }
            if (event.type == TInputEventType::LeftMouseDown) Add(&out, EV_KEY, BTN_LEFT, 1);
            if (event.type == TInputEventType::LeftMouseUp) Add(&out, EV_KEY, BTN_LEFT, 0);
            if (event.type == TInputEventType::RightMouseDown) Add(&out, EV_KEY, BTN_RIGHT, 1);
            if (event.type == TInputEventType::RightMouseUp) Add(&out, EV_KEY, BTN_RIGHT, 0);
            Sync(&out);
            break;
        }
        case TInputEventType::KeyDown:
        case TInputEventType::KeyUp: {
            const bool down = event.type == TInputEventType::KeyDown;
            const auto keys = m_keys.KeyChanges(event);
            if (down) {
                ++m_shortcutsDown;
            } else if (m_shortcutsDown > 0 && --m_shortcutsDown == 0 && m_nextKeys) {
                m_keys = std::move(*m_nextKeys);
                m_nextKeys.reset();
            }
            if (!keys) break;
            // One key per report: some clients take a modifier and its key in one report in
            // either order.
            for (uint16_t key : *keys) {
                Add(&out, EV_KEY, key, down ? 1 : 0);
                Sync(&out);
            }
            break;
        }
        case TInputEventType::ScrollWheel: {
            // Positive amounts scroll up on both systems.
            Wheel(&out, event.wheel1, REL_WHEEL_HI_RES, REL_WHEEL, &m_verticalRemainder);
            Wheel(&out, event.wheel2, REL_HWHEEL_HI_RES, REL_HWHEEL, &m_horizontalRemainder);
            if (!out.empty()) Sync(&out);
            break;
        }
    }
    return out;
}

std::string DescribeUinputError(const std::string& path, const char* stage, int error) {
    const std::string reason = std::strerror(error);
    if (std::strcmp(stage, "open") == 0) {
        if (error == ENOENT || error == ENODEV || error == ENXIO) {
            return "cannot open " + path + " (" + reason +
                   "): load the uinput kernel module with 'sudo modprobe uinput' "
                   "(to load it at boot: echo uinput | sudo tee /etc/modules-load.d/uinput.conf), "
                   "or run with --dry-run";
        }
        if (error == EACCES || error == EPERM) {
            return "no permission to open " + path +
                   ": install the udev rule with 'sudo install -m 644 packaging/70-irframe.rules "
                   "/etc/udev/rules.d/' and 'sudo udevadm control --reload && sudo udevadm "
                   "trigger', then log in again (it gives the logged-in user access to uinput)";
        }
        return "cannot open " + path + ": " + reason;
    }
    if (error == ENOTTY || error == EINVAL) {
        return path + " is not a uinput device (" + reason + "): check that it is the node of "
               "the uinput kernel module (sudo modprobe uinput)";
    }
    return "cannot create the virtual input device on " + path + ": " + reason;
}

std::unique_ptr<CUinputEventSink> CUinputEventSink::Create(const std::string& path,
                                                           TDisplayGeometry geometry,
                                                           CKeyMap keys,
                                                           std::string* error) {
    std::unique_ptr<CUinputEventSink> sink(
        new CUinputEventSink(std::move(geometry), std::move(keys)));
    sink->m_fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (sink->m_fd < 0) {
        if (error != nullptr) *error = DescribeUinputError(path, "open", errno);
        return nullptr;
    }

    libevdev* device = libevdev_new();
    sink->m_device = device;
    libevdev_set_name(device, "irframe touch frame");
    libevdev_set_id_bustype(device, BUS_VIRTUAL);
    input_absinfo axis{};
    axis.minimum = 0;
    axis.maximum = kUinputAbsMax;
    libevdev_enable_event_code(device, EV_ABS, ABS_X, &axis);
    libevdev_enable_event_code(device, EV_ABS, ABS_Y, &axis);
    libevdev_enable_event_code(device, EV_KEY, BTN_LEFT, nullptr);
    libevdev_enable_event_code(device, EV_KEY, BTN_RIGHT, nullptr);
    for (uint16_t code : {REL_WHEEL, REL_WHEEL_HI_RES, REL_HWHEEL, REL_HWHEEL_HI_RES}) {
        libevdev_enable_event_code(device, EV_REL, code, nullptr);
    }
    for (uint16_t key : AllEvdevKeys()) libevdev_enable_event_code(device, EV_KEY, key, nullptr);

    const int r = libevdev_uinput_create_from_device(device, sink->m_fd, &sink->m_uinput);
    if (r < 0) {
        if (error != nullptr) *error = DescribeUinputError(path, "create", -r);
        return nullptr;
    }
    return sink;
}

std::unique_ptr<CUinputEventSink> CUinputEventSink::Adopt(int fd, TDisplayGeometry geometry,
                                                          CKeyMap keys) {
    std::unique_ptr<CUinputEventSink> sink(
        new CUinputEventSink(std::move(geometry), std::move(keys)));
    sink->m_fd = fd;
    return sink;
}

CUinputEventSink::~CUinputEventSink() {
    if (m_uinput != nullptr) libevdev_uinput_destroy(m_uinput);
    if (m_device != nullptr) libevdev_free(m_device);
    if (m_fd >= 0) close(m_fd);
}

void CUinputEventSink::Post(const TInputEvent& event) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const std::vector<TEvdevEvent> events = m_translator.Translate(event);
    if (events.empty()) {
        if (m_translator.Keys().KeyChanges(event)) return;  // a shortcut mapped to none
        TLog(TLogLevel::Debug, "uinput: no evdev equivalent for %s",
             DescribeInputEvent(event).c_str());
        return;
    }
    for (const TEvdevEvent& e : events) {
        // What libevdev_uinput_write_event writes: one input_event, its time left to the kernel.
        input_event raw{};
        raw.type = e.type;
        raw.code = e.code;
        raw.value = e.value;
        ssize_t written;
        do {
            written = ::write(m_fd, &raw, sizeof raw);
        } while (written < 0 && errno == EINTR);
        if (written != static_cast<ssize_t>(sizeof raw)) {
            TLog(TLogLevel::Warning, "uinput: write failed: %s",
                 written < 0 ? std::strerror(errno) : "short write");
            return;
        }
    }
}

void CUinputEventSink::SetKeys(CKeyMap keys) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_translator.SetKeys(std::move(keys));
}

std::string CUinputEventSink::DeviceNode() const {
    const char* node = m_uinput != nullptr ? libevdev_uinput_get_devnode(m_uinput) : nullptr;
    return node != nullptr ? node : "";
}
