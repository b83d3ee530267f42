#include "UdevHidDiscovery.h"

#include <libudev.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

std::optional<uint32_t> ParseHexField(std::string_view field) {
    if (field.empty() || field.size() > 8) return std::nullopt;
    uint32_t value = 0;
    for (char c : field) {
        uint32_t digit;
        if (c >= '0' && c <= '9') {
            digit = static_cast<uint32_t>(c - '0');
        } else if (c >= 'a' && c <= 'f') {
            digit = static_cast<uint32_t>(c - 'a' + 10);
        } else if (c >= 'A' && c <= 'F') {
            digit = static_cast<uint32_t>(c - 'A' + 10);
        } else {
            return std::nullopt;
        }
        value = value << 4 | digit;
    }
    return value;
}

std::string Errno(int code) {
    return std::strerror(code < 0 ? -code : code);
}

}  // namespace

std::optional<THidId> ParseHidId(std::string_view text) {
    const size_t first = text.find(':');
    if (first == std::string_view::npos) return std::nullopt;
    const size_t second = text.find(':', first + 1);
    if (second == std::string_view::npos) return std::nullopt;
    const auto bus = ParseHexField(text.substr(0, first));
    const auto vendor = ParseHexField(text.substr(first + 1, second - first - 1));
    const auto product = ParseHexField(text.substr(second + 1));  // a third ':' fails here
    if (!bus || !vendor || !product) return std::nullopt;
    return THidId{*bus, *vendor, *product};
}

TUdevSource ChooseMonitorSource(const char* controlSocketPath) {
    return access(controlSocketPath, F_OK) == 0 ? TUdevSource::Udev : TUdevSource::Kernel;
}

const char* UdevSourceName(TUdevSource source) {
    return source == TUdevSource::Udev ? "udev" : "kernel";
}

bool CHidPresence::Add(const std::string& syspath, const THidId& id) {
    if (!Matches(id)) return false;
    return m_present.insert(syspath).second;
}

bool CHidPresence::Remove(const std::string& syspath) {
    return m_present.erase(syspath) > 0;
}

CUdevHidMatcher::CUdevHidMatcher(uint16_t vendor, uint16_t product, Callback matched,
                                 Callback removed)
    : m_presence(vendor, product), m_matched(std::move(matched)), m_removed(std::move(removed)) {}

CUdevHidMatcher::~CUdevHidMatcher() {
    Close();
}

void CUdevHidMatcher::Close() {
    m_pendingSource = sd_event_source_disable_unref(m_pendingSource);
    m_monitorSource = sd_event_source_disable_unref(m_monitorSource);
    if (m_monitor != nullptr) m_monitor = udev_monitor_unref(m_monitor);
    if (m_udev != nullptr) m_udev = udev_unref(m_udev);
    m_pending.clear();
}

bool CUdevHidMatcher::Open(sd_event* event, TUdevSource source, std::string* error) {
    auto fail = [&](const std::string& what) {
        if (error != nullptr) *error = what;
        Close();
        return false;
    };
    Close();
    m_udev = udev_new();
    if (m_udev == nullptr) return fail("cannot create a udev context: " + Errno(errno));

    // The monitor listens before enumeration starts, so that a device plugged in between is
    // reported by one or the other (or both: the presence set keeps it once).
    m_monitor = udev_monitor_new_from_netlink(m_udev, UdevSourceName(source));
    if (m_monitor == nullptr) return fail("cannot create a udev monitor: " + Errno(errno));
    int r = udev_monitor_filter_add_match_subsystem_devtype(m_monitor, "hidraw", nullptr);
    if (r < 0) return fail("cannot filter the udev monitor: " + Errno(r));
    r = udev_monitor_enable_receiving(m_monitor);
    if (r < 0) return fail("cannot start the udev monitor: " + Errno(r));
    r = sd_event_add_io(event, &m_monitorSource, udev_monitor_get_fd(m_monitor), EPOLLIN,
                        &OnMonitor, this);
    if (r < 0) return fail("cannot watch the udev monitor: " + Errno(r));

    r = sd_event_add_defer(event, &m_pendingSource, &OnPending, this);
    if (r < 0) return fail("cannot queue the present devices: " + Errno(r));
    sd_event_source_set_enabled(m_pendingSource, SD_EVENT_OFF);

    std::string enumerateError;
    if (!Enumerate(&enumerateError)) return fail(enumerateError);
    if (!m_pending.empty()) sd_event_source_set_enabled(m_pendingSource, SD_EVENT_ON);
    return true;
}

bool CUdevHidMatcher::Enumerate(std::string* error) {
    udev_enumerate* enumerate = udev_enumerate_new(m_udev);
    if (enumerate == nullptr) {
        *error = "cannot enumerate hidraw devices: " + Errno(errno);
        return false;
    }
    int r = udev_enumerate_add_match_subsystem(enumerate, "hidraw");
    if (r >= 0) r = udev_enumerate_scan_devices(enumerate);
    if (r < 0) {
        udev_enumerate_unref(enumerate);
        *error = "cannot enumerate hidraw devices: " + Errno(r);
        return false;
    }
    udev_list_entry* entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumerate)) {
        udev_device* device = udev_device_new_from_syspath(m_udev, udev_list_entry_get_name(entry));
        if (device == nullptr) continue;  // gone since the scan
        if (auto found = Describe(device); found && m_presence.Add(found->syspath, found->id)) {
            m_pending.push_back(std::move(*found));
        }
        udev_device_unref(device);
    }
    udev_enumerate_unref(enumerate);
    return true;
}

std::optional<THidrawDevice> CUdevHidMatcher::Describe(udev_device* device) const {
    const char* syspath = udev_device_get_syspath(device);
    const char* devnode = udev_device_get_devnode(device);
    // The parent is owned by `device`; it is not unreferenced here.
    udev_device* hid = udev_device_get_parent_with_subsystem_devtype(device, "hid", nullptr);
    const char* hidId = hid != nullptr ? udev_device_get_property_value(hid, "HID_ID") : nullptr;
    if (syspath == nullptr || devnode == nullptr || hidId == nullptr) return std::nullopt;
    const auto id = ParseHidId(hidId);
    if (!id || !m_presence.Matches(*id)) return std::nullopt;
    const char* name = udev_device_get_property_value(hid, "HID_NAME");
    const char* serial = udev_device_get_property_value(hid, "HID_UNIQ");
    return THidrawDevice{syspath, devnode, *id, name != nullptr ? name : "",
                         serial != nullptr ? serial : ""};
}

int CUdevHidMatcher::OnPending(sd_event_source* source, void* self) {
    auto* matcher = static_cast<CUdevHidMatcher*>(self);
    if (matcher->m_pending.empty()) {
        sd_event_source_set_enabled(source, SD_EVENT_OFF);
        return 0;
    }
    const THidrawDevice device = std::move(matcher->m_pending.front());
    matcher->m_pending.pop_front();
    if (matcher->m_pending.empty()) sd_event_source_set_enabled(source, SD_EVENT_OFF);
    if (matcher->m_matched) matcher->m_matched(device);
    return 0;
}

int CUdevHidMatcher::OnMonitor(sd_event_source*, int, uint32_t, void* self) {
    auto* matcher = static_cast<CUdevHidMatcher*>(self);
    udev_device* device = udev_monitor_receive_device(matcher->m_monitor);
    if (device == nullptr) return 0;  // filtered out or malformed message
    const char* action = udev_device_get_action(device);
    const char* syspath = udev_device_get_syspath(device);
    if (action != nullptr && syspath != nullptr) {
        if (std::strcmp(action, "add") == 0) {
            if (auto found = matcher->Describe(device);
                found && matcher->m_presence.Add(found->syspath, found->id)) {
                if (matcher->m_matched) matcher->m_matched(*found);
            }
        } else if (std::strcmp(action, "remove") == 0) {
            // A device removed before its enumerated match was delivered is never reported.
            auto& pending = matcher->m_pending;
            for (auto it = pending.begin(); it != pending.end(); ++it) {
                if (it->syspath == syspath) {
                    pending.erase(it);
                    matcher->m_presence.Remove(syspath);
                    break;
                }
            }
            // The hid parent may already be gone: the syspath alone identifies the device.
            if (matcher->m_presence.Remove(syspath)) {
                const char* devnode = udev_device_get_devnode(device);
                THidrawDevice gone{syspath, devnode != nullptr ? devnode : "", {}, {}, {}};
                if (matcher->m_removed) matcher->m_removed(gone);
            }
        }
    }
    udev_device_unref(device);
    return 0;
}
