// Discovery of touch frames on Linux: hidraw nodes found through libudev.
//
// One CUdevHidMatcher serves one row of the matching table. Open() starts a hot-plug monitor and
// then enumerates the hidraw nodes present now; the matches found are delivered one per dispatch
// of the main loop, in enumeration order, so a caller that runs the loop until it is idle has
// handled every present device of the row before it opens the next row. Later add and remove
// events arrive from the monitor, also on the main loop.
//
// A hidraw node is matched by the HID_ID of its "hid" parent (bus:vendor:product), which exists
// for USB, Bluetooth and I2C devices alike; there may be no USB parent at all.
#pragma once

#include <systemd/sd-event.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

struct udev;
struct udev_device;
struct udev_monitor;

// Identity of a HID device as the kernel writes it in the HID_ID property: "0003:0000AAEC:0000C020".
struct THidId {
    uint32_t bus = 0;
    uint32_t vendor = 0;
    uint32_t product = 0;
};

// Parses a HID_ID value: three colon-separated hexadecimal fields of 1 to 8 digits each, nothing
// else (no sign, no spaces, no "0x"). Empty on anything malformed.
std::optional<THidId> ParseHidId(std::string_view text);

// Which netlink group a monitor listens to: udevd's processed events ("udev"), or the kernel's
// raw uevents when udevd is not running (its control socket is missing). The udev group would be
// silent without udevd.
enum class TUdevSource { Udev, Kernel };
TUdevSource ChooseMonitorSource(const char* controlSocketPath = "/run/udev/control");
const char* UdevSourceName(TUdevSource source);

struct THidrawDevice {
    std::string syspath;  // /sys/devices/.../hidraw/hidrawN: the identity of one appearance
    std::string devnode;  // /dev/hidrawN
    THidId id;
    std::string name;    // HID_NAME of the "hid" parent: the product string
    std::string serial;  // HID_UNIQ of the "hid" parent, where the device has one
};

// The devices of one matching row that are present. Deduplicates: a device that enumeration and
// the monitor both report is matched once, and a removal is reported only for a matched device.
class CHidPresence {
public:
    CHidPresence(uint16_t vendor, uint16_t product) : m_vendor(vendor), m_product(product) {}

    bool Matches(const THidId& id) const { return id.vendor == m_vendor && id.product == m_product; }
    // True when the device is of this row and was not present: it is now.
    bool Add(const std::string& syspath, const THidId& id);
    // True when the device was present: it is not any more.
    bool Remove(const std::string& syspath);
    size_t Count() const { return m_present.size(); }

private:
    uint16_t m_vendor;
    uint16_t m_product;
    std::set<std::string> m_present;
};

class CUdevHidMatcher {
public:
    using Callback = std::function<void(const THidrawDevice&)>;

    CUdevHidMatcher(uint16_t vendor, uint16_t product, Callback matched, Callback removed);
    ~CUdevHidMatcher();

    CUdevHidMatcher(const CUdevHidMatcher&) = delete;
    CUdevHidMatcher& operator=(const CUdevHidMatcher&) = delete;

    // Starts the monitor on `event` and queues the devices present now. False with `error` set
    // when the monitor or the enumeration cannot be made; nothing stays attached then.
    bool Open(sd_event* event, TUdevSource source, std::string* error);
    // Detaches from the loop; pending matches are dropped. Safe to call repeatedly.
    void Close();

    size_t PresentCount() const { return m_presence.Count(); }

private:
    static int OnMonitor(sd_event_source* source, int fd, uint32_t events, void* self);
    static int OnPending(sd_event_source* source, void* self);
    bool Enumerate(std::string* error);
    std::optional<THidrawDevice> Describe(udev_device* device) const;

    CHidPresence m_presence;
    Callback m_matched;
    Callback m_removed;
    udev* m_udev = nullptr;
    udev_monitor* m_monitor = nullptr;
    sd_event_source* m_monitorSource = nullptr;
    sd_event_source* m_pendingSource = nullptr;
    std::deque<THidrawDevice> m_pending;  // found by enumeration, not yet delivered
};
