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
    Translate(event, &out);
    return out;
}

void CEvdevTranslator::Translate(const TInputEvent& event, std::vector<TEvdevEvent>* events) {
    std::vector<TEvdevEvent>& out = *events;
    const size_t start = out.size();
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
                Add(events, EV_ABS, ABS_X, AbsoluteX(event.x));
                Add(events, EV_ABS, ABS_Y, AbsoluteY(event.y));
            }
            if (event.type == TInputEventType::LeftMouseDown) Add(events, EV_KEY, BTN_LEFT, 1);
            if (event.type == TInputEventType::LeftMouseUp) Add(events, EV_KEY, BTN_LEFT, 0);
            if (event.type == TInputEventType::RightMouseDown) Add(events, EV_KEY, BTN_RIGHT, 1);
            if (event.type == TInputEventType::RightMouseUp) Add(events, EV_KEY, BTN_RIGHT, 0);
            Sync(events);
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
                Add(events, EV_KEY, key, down ? 1 : 0);
                Sync(events);
            }
            break;
        }
        case TInputEventType::ScrollWheel: {
            // Positive amounts scroll up on both systems.
            Wheel(events, event.wheel1, REL_WHEEL_HI_RES, REL_WHEEL, &m_verticalRemainder);
            Wheel(events, event.wheel2, REL_HWHEEL_HI_RES, REL_HWHEEL, &m_horizontalRemainder);
            if (out.size() > start) Sync(events);
            break;
        }
    }
}

bool WriteEvdevEvents(int fd, const std::vector<TEvdevEvent>& events, int* error) {
    input_event batch[128];
    size_t done = 0;
    while (done < events.size()) {
        const size_t n = std::min(events.size() - done, std::size(batch));
        for (size_t i = 0; i < n; ++i) {
            batch[i] = input_event{};
            batch[i].type = events[done + i].type;
            batch[i].code = events[done + i].code;
            batch[i].value = events[done + i].value;
        }
        ssize_t r;
        do {
            r = ::write(fd, batch, n * sizeof batch[0]);
        } while (r < 0 && errno == EINTR);
        if (r != static_cast<ssize_t>(n * sizeof batch[0])) {
            *error = r < 0 ? errno : 0;
            return false;
        }
        done += n;
    }
    return true;
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
            return "cannot open " + path + " (" + reason +
                   "): install the udev rule with 'sudo install -m 644 packaging/70-irframe.rules "
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

namespace {

// The frame a thread is gathering, and for which sink: workers post their frames at the same
// time, each on its own thread.
struct TPendingFrame {
    const CUinputEventSink* sink = nullptr;
    std::vector<TEvdevEvent> events;
};
thread_local TPendingFrame t_pending;

}  // namespace

void CUinputEventSink::Post(const TInputEvent& event) {
    const bool gathering = t_pending.sink == this;
    std::vector<TEvdevEvent>& out = gathering ? t_pending.events : m_events;
    std::lock_guard<std::mutex> lock(m_mutex);
    const size_t before = gathering ? out.size() : 0;
    if (!gathering) out.clear();
    m_translator.Translate(event, &out);
    if (out.size() == before) {
        if (m_translator.Keys().KeyChanges(event)) return;  // a shortcut mapped to none
        TLog(TLogLevel::Debug, "uinput: no evdev equivalent for %s",
             DescribeInputEvent(event).c_str());
        return;
    }
    if (!gathering) Write(out);
}

void CUinputEventSink::BeginFrame() {
    t_pending.sink = this;
    t_pending.events.clear();
}

void CUinputEventSink::EndFrame() {
    if (t_pending.sink != this) return;
    t_pending.sink = nullptr;
    if (t_pending.events.empty()) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    Write(t_pending.events);
    t_pending.events.clear();
}

void CUinputEventSink::Write(const std::vector<TEvdevEvent>& events) {
    int error = 0;
    if (!WriteEvdevEvents(m_fd, events, &error)) {
        TLog(TLogLevel::Warning, "uinput: write failed: %s",
             error != 0 ? std::strerror(error) : "short write");
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
