#include "DirectTransport.h"

#include <libudev.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <thread>
#include <utility>

#include "CCalibrateSystem.h"
#include "ContactStream.h"
#include "DevConfigJson.h"
#include "FrameTimeStamp.h"
#include "GestureScript.h"
#include "SimBackend.h"
#include "HidrawDevice.h"
#include "LibusbDevice.h"
#include "MtDevCtrlInterface.h"
#include "Parameter.h"
#include "SimDevice.h"
#include "UdevHidDiscovery.h"

namespace {

bool Supported(uint16_t vendor, uint16_t product) {
    return std::any_of(std::begin(kDeviceMatchTable), std::end(kDeviceMatchTable),
                       [&](const TDeviceMatchRow& row) {
                           return row.vendorId == vendor && row.productId == product;
                       });
}

std::string Text(const char* value) {
    return value != nullptr ? value : "";
}

// The number at the end of a node name ("/dev/hidraw12" -> 12), for a natural order.
long NodeNumber(const std::string& node) {
    size_t digits = node.size();
    while (digits > 0 && node[digits - 1] >= '0' && node[digits - 1] <= '9') --digits;
    return digits < node.size() ? std::strtol(node.c_str() + digits, nullptr, 10) : -1;
}

struct TUdevDeleter {
    void operator()(udev* u) const { udev_unref(u); }
    void operator()(udev_enumerate* e) const { udev_enumerate_unref(e); }
    void operator()(udev_device* d) const { udev_device_unref(d); }
};

struct TFound {
    TFrameEntry description;
    uint8_t bus = 0;      // USB: where libusb finds the device
    uint8_t address = 0;
};

// Every present device of `subsystem`, handed to `take` (which keeps what matches).
template <class Take>
void Enumerate(const char* subsystem, Take take) {
    std::unique_ptr<udev, TUdevDeleter> u(udev_new());
    if (!u) throw CToolError(kCtlFailure, "cannot use udev to find the frames");
    std::unique_ptr<udev_enumerate, TUdevDeleter> e(udev_enumerate_new(u.get()));
    if (!e || udev_enumerate_add_match_subsystem(e.get(), subsystem) < 0 ||
        udev_enumerate_scan_devices(e.get()) < 0) {
        throw CToolError(kCtlFailure, std::string("cannot list the ") + subsystem + " devices");
    }
    udev_list_entry* entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(e.get())) {
        std::unique_ptr<udev_device, TUdevDeleter> d(
            udev_device_new_from_syspath(u.get(), udev_list_entry_get_name(entry)));
        if (d) take(d.get());  // gone since the scan otherwise
    }
}

std::vector<TFound> FindHidraw() {
    std::vector<TFound> found;
    Enumerate("hidraw", [&](udev_device* device) {
        udev_device* hid = udev_device_get_parent_with_subsystem_devtype(device, "hid", nullptr);
        const char* node = udev_device_get_devnode(device);
        const auto id = hid != nullptr ? ParseHidId(Text(udev_device_get_property_value(hid, "HID_ID")))
                                       : std::nullopt;
        if (node == nullptr || !id || id->vendor > 0xFFFF || id->product > 0xFFFF ||
            !Supported(static_cast<uint16_t>(id->vendor), static_cast<uint16_t>(id->product))) {
            return;
        }
        TFound f;
        f.description.node = node;
        f.description.vendorId = static_cast<uint16_t>(id->vendor);
        f.description.productId = static_cast<uint16_t>(id->product);
        f.description.product = Text(udev_device_get_property_value(hid, "HID_NAME"));
        f.description.serial = Text(udev_device_get_property_value(hid, "HID_UNIQ"));
        found.push_back(std::move(f));
    });
    std::sort(found.begin(), found.end(), [](const TFound& a, const TFound& b) {
        return NodeNumber(a.description.node) < NodeNumber(b.description.node);
    });
    return found;
}

std::vector<TFound> FindUsb() {
    std::vector<TFound> found;
    Enumerate("usb", [&](udev_device* device) {
        const char* type = udev_device_get_devtype(device);
        if (type == nullptr || std::strcmp(type, "usb_device") != 0) return;
        const auto hex = [&](const char* name) {
            return std::strtoul(Text(udev_device_get_sysattr_value(device, name)).c_str(), nullptr, 16);
        };
        const auto dec = [&](const char* name) {
            return std::strtoul(Text(udev_device_get_sysattr_value(device, name)).c_str(), nullptr, 10);
        };
        const unsigned long vendor = hex("idVendor"), product = hex("idProduct");
        const unsigned long bus = dec("busnum"), address = dec("devnum");
        if (vendor > 0xFFFF || product > 0xFFFF || bus > 255 || address > 255 ||
            !Supported(static_cast<uint16_t>(vendor), static_cast<uint16_t>(product))) {
            return;
        }
        TFound f;
        char node[32];
        std::snprintf(node, sizeof node, "usb:%03lu:%03lu", bus, address);
        f.description.node = node;
        f.description.vendorId = static_cast<uint16_t>(vendor);
        f.description.productId = static_cast<uint16_t>(product);
        f.description.product = Text(udev_device_get_sysattr_value(device, "product"));
        f.description.serial = Text(udev_device_get_sysattr_value(device, "serial"));
        f.bus = static_cast<uint8_t>(bus);
        f.address = static_cast<uint8_t>(address);
        found.push_back(std::move(f));
    });
    std::sort(found.begin(), found.end(), [](const TFound& a, const TFound& b) {
        return std::make_pair(a.bus, a.address) < std::make_pair(b.bus, b.address);
    });
    return found;
}

std::string Failed(const std::string& what, DEV_ERR code) {
    return what + " failed: " + MtDevErrorName(code);
}

// One frame opened by the tool. Owns what the device path points at.
class CDirectFrame final : public IFrame {
public:
    struct TParts {
        TFrameEntry description;
        std::unique_ptr<CMtHidDevice> hid;
        std::unique_ptr<CMtUsbService> usb;
        std::unique_ptr<CSimDevice> sim;
        std::shared_ptr<std::atomic<bool>> scriptEnded;  // emulated frames only
    };

    explicit CDirectFrame(TParts parts) : m_parts(std::move(parts)) {
        if (m_parts.sim) {
            m_path = {m_parts.sim->Port(), nullptr, MTDEV_TYPE_HID};
        } else if (m_parts.usb) {
            m_path = {nullptr, m_parts.usb.get(), MTDEV_TYPE_BULK};
        } else {
            m_path = {m_parts.hid.get(), nullptr, MTDEV_TYPE_HID};
        }
        if (m_controller.OpenDevice(&m_path) != DE_OK) {
            // The system's reason, from the node behind the frame (usbfs for "usb:BBB:AAA").
            std::string why;
            const std::string& node = m_parts.description.node;
            std::string file = m_parts.hid ? node : std::string();
            if (m_parts.usb && node.size() == 11 && node.rfind("usb:", 0) == 0) {
                file = "/dev/bus/usb/" + node.substr(4, 3) + "/" + node.substr(8, 3);
            }
            if (!file.empty() && access(file.c_str(), R_OK | W_OK) != 0) {
                why = std::string(": ") + std::strerror(errno);
            }
            throw CToolError(kCtlFailure, "cannot open " + node + why);
        }
    }

    ~CDirectFrame() override { m_controller.CloseDevice(0); }

    TFrameEntry Describe() override {
        TFrameEntry d = m_parts.description;
        d.configSummary = DevConfigSummary(Config());
        if (m_path.deviceType != MTDEV_TYPE_BULK) {
            const _CS_CONFIG g = Geometry();
            d.logicalWidth = g.logicalWidth;
            d.logicalHeight = g.logicalHeight;
            d.rawWidth = g.rawWidth;
            d.rawHeight = g.rawHeight;
        }
        return d;
    }

    std::vector<uint8_t> ReadInfo() override {
        _HARDWARE_DEV_INFO info{};
        const DEV_ERR r = m_controller.GetDeviceInfo(&info);
        if (r != DE_OK) throw CToolError(kCtlFailure, Failed("reading the information block", r));
        return {info.bytes, info.bytes + sizeof info.bytes};
    }

    std::vector<uint8_t> ReadStatus() override {
        int length = 0;
        DEV_ERR r = m_controller.GetDevStatus(nullptr, length);  // the size first
        if (r != DE_OK) throw CToolError(kCtlFailure, Failed("asking for the status size", r));
        if (length < 1 || static_cast<size_t>(length) > kMaxStatusBytes) {
            throw CToolError(kCtlFailure, "the frame announces a status of " +
                                               std::to_string(length) + " bytes");
        }
        std::vector<uint8_t> status(static_cast<size_t>(length));
        r = m_controller.GetDevStatus(status.data(), length);
        if (r != DE_OK) throw CToolError(kCtlFailure, Failed("reading the status", r));
        status.resize(static_cast<size_t>(std::clamp(length, 0, static_cast<int>(status.size()))));
        return status;
    }

    std::unique_ptr<_HARDWARE_DEV_CONFIG> ReadConfig() override {
        m_config.reset();
        auto copy = std::make_unique<_HARDWARE_DEV_CONFIG>();
        std::memcpy(static_cast<void*>(copy.get()), &Config(), sizeof *copy);
        return copy;
    }

    std::unique_ptr<_HARDWARE_DEV_CONFIG> WriteConfig(const _HARDWARE_DEV_CONFIG& config) override {
        auto copy = std::make_unique<_HARDWARE_DEV_CONFIG>();
        std::memcpy(static_cast<void*>(copy.get()), &config, sizeof *copy);
        const DEV_ERR r = m_controller.SetDeviceConfig(copy.get());
        m_config.reset();
        if (r != DE_OK) throw CToolError(kCtlFailure, Failed("writing the configuration", r));
        return ReadConfig();
    }

    std::vector<uint8_t> ReadScanPattern(const TTransferHooks& hooks) override {
        int length = 0;
        DEV_ERR r = m_controller.GetScanPatternFile(nullptr, length);
        if (r != DE_OK) throw CToolError(kCtlFailure, Failed("asking for the scan pattern size", r));
        std::vector<uint8_t> pattern(static_cast<size_t>(length));
        Transfer("reading the scan pattern", hooks,
                 [&] { return m_controller.GetScanPatternFile(pattern.data(), length); });
        pattern.resize(static_cast<size_t>(std::clamp(length, 0, static_cast<int>(pattern.size()))));
        return pattern;
    }

    void WriteScanPattern(const std::vector<uint8_t>& pattern, const TTransferHooks& hooks) override {
        std::vector<uint8_t> data = pattern;
        Transfer("writing the scan pattern", hooks, [&] {
            return m_controller.SetScanPatternFile(data.data(), static_cast<int>(data.size()));
        });
    }

    void WriteTouchSystemFile(const std::vector<uint8_t>& file, const TTransferHooks& hooks) override {
        std::vector<uint8_t> data = file;
        Transfer("writing the touch-system file", hooks, [&] {
            return m_controller.SetTouchSystemFile(data.data(), static_cast<int>(data.size()));
        });
    }

    // Without a driver nothing posts this frame's gestures: there is nothing to hold.
    void HoldGestures(bool) override {}

    TStreamEnd StreamContacts(const std::function<bool(const TMonitoredFrame&)>& onFrame,
                              const std::function<bool()>& stop,
                              const std::function<void()>& started) override {
        if (m_path.deviceType == MTDEV_TYPE_BULK) {
            throw CToolError(kCtlFailure, "contacts are polled over the frame's HID channel; "
                                           "run this without --usb");
        }
        const _CS_CONFIG geometry = Geometry();
        CCalibrateSystem calibration;
        calibration.InitCalibrateSys(&Config(), &geometry);
        if (started) started();

        CContactFrameBuilder values(0);
        for (int failed = 0;;) {
            if (stop && stop()) return TStreamEnd::Stopped;
            if (m_controller.GetFrameSdk(&m_record.frame) != DE_OK) {
                if (m_parts.scriptEnded && m_parts.scriptEnded->load()) return TStreamEnd::Ended;
                if (++failed >= kFramePollTries) return TStreamEnd::FrameGone;
                continue;
            }
            failed = 0;
            calibration.CalFramePoint(&m_record.frame);
            calibration.GetAbsHIDCoords(&m_record.frame);
            const TContactFrame& frame = values.Build(m_record.frame, CurrentFrameTimeStamp());
            TMonitoredFrame out;
            out.timeStamp = frame.timeStamp;
            for (const TContact& c : frame.contacts) {
                out.contacts.push_back({c.id, c.status, c.retired, c.x, c.y, c.width, c.height,
                                        c.rawX, c.rawY, c.cell[0], c.cell[1]});
            }
            if (!onFrame(out)) return TStreamEnd::Stopped;
        }
    }

private:
    const _HARDWARE_DEV_CONFIG& Config() {
        if (m_config) return *m_config;
        auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
        DEV_ERR r = DE_OK;
        for (int tries = 0; tries < kConfigReadTries; ++tries) {
            r = m_controller.GetDeviceConfig(config.get());
            if (r == DE_OK) break;
            TSleepMicros(kRetryPauseMicros);
        }
        if (r != DE_OK) throw CToolError(kCtlFailure, Failed("reading the configuration", r));
        m_config = std::move(config);
        return *m_config;
    }

    // The extents of the frame's first report, as the driver takes them.
    _CS_CONFIG Geometry() {
        if (m_geometry) return *m_geometry;
        DEV_ERR r = DE_OK;
        for (int tries = 0; tries < kFirstFrameTries; ++tries) {
            r = m_controller.GetFrameSdk(&m_record.frame);
            if (r == DE_OK) break;
            TSleepMicros(kRetryPauseMicros);
        }
        if (r != DE_OK) throw CToolError(kCtlFailure, Failed("reading a first frame", r));
        const _HARDWARE_FRAME_SDK& f = m_record.frame;
        m_geometry = _CS_CONFIG{f.logicalWidth, f.logicalHeight, static_cast<int16_t>(f.rawWidth),
                                static_cast<int16_t>(f.rawHeight)};
        return *m_geometry;
    }

    // Runs one transfer on a thread of its own, so that progress is shown and Ctrl-C can abort
    // it between two pieces.
    template <class Operation>
    void Transfer(const std::string& what, const TTransferHooks& hooks, Operation operation) {
        std::atomic<bool> done{false};
        DEV_ERR result = DE_OK;
        std::thread worker([&] {
            result = operation();
            done.store(true);
        });
        bool cancelled = false;
        while (!done.load()) {
            poll(nullptr, 0, 50);  // real time, whatever clock the library runs on
            if (hooks.progress) hooks.progress(m_controller.ProgressDone(), m_controller.ProgressTotal());
            if (!cancelled && hooks.cancelRequested && hooks.cancelRequested()) {
                m_controller.BreakOffCmdProcess();
                cancelled = true;
            }
        }
        worker.join();
        if (cancelled && result != DE_OK) {
            throw CToolError(kCtlCancelled,
                             what + " was cancelled: the frame was left in the middle of the "
                                    "transfer (no end of data was sent), so it keeps what it had "
                                    "before or an incomplete copy; write it again before relying "
                                    "on it, or unplug the frame to reset it");
        }
        if (result != DE_OK) throw CToolError(kCtlFailure, Failed(what, result));
        if (hooks.progress) hooks.progress(m_controller.ProgressTotal(), m_controller.ProgressTotal());
    }

    TParts m_parts;  // outlives the controller's use of the path
    TMACDEVICEPATH m_path{};
    CMtDevController m_controller;
    std::unique_ptr<_HARDWARE_DEV_CONFIG> m_config;
    std::optional<_CS_CONFIG> m_geometry;
    TFrameRecord m_record{kFrameBufferBytes};
};

class CDirectTransport final : public ITransport {
public:
    explicit CDirectTransport(TDirectOptions options) : m_options(std::move(options)) {
        if (!m_options.simulateScript.empty()) LoadScript();
    }

    std::string Name() const override { return "direct access"; }

    std::vector<TFrameEntry> List() override {
        std::vector<TFrameEntry> out;
        if (!m_options.simulateScript.empty()) {
            TFrameEntry d;
            d.node = "simulated:" + m_options.simulateScript;
            d.vendorId = m_spec.vendorId;
            d.productId = m_spec.productId;
            d.product = "emulated frame";
            out.push_back(d);
        } else {
            m_found = m_options.usb ? FindUsb() : FindHidraw();
            for (const TFound& f : m_found) out.push_back(f.description);
        }
        for (size_t i = 0; i < out.size(); ++i) out[i].number = static_cast<int>(i) + 1;
        return out;
    }

    std::unique_ptr<IFrame> Open(const TFrameEntry& frame) override {
        CDirectFrame::TParts parts;
        parts.description = frame;
        if (!m_options.simulateScript.empty()) {
            if (m_opened) {
                throw CToolError(kCtlFailure, "the emulated frame can be opened once per run");
            }
            m_opened = true;
            parts.scriptEnded = std::make_shared<std::atomic<bool>>(false);
            CSimDevice::THooks hooks;
            hooks.scriptEnded = [ended = parts.scriptEnded](CSimDevice* device) {
                ended->store(true);
                device->RemovalHandled();  // nobody else handles the unplug
            };
            parts.sim = std::make_unique<CSimDevice>(1, m_spec, m_timelines.get(), hooks);
            std::string error;
            if (!parts.sim->Start([](int fd) -> std::unique_ptr<CMtHidDevice> {
                    return CHidrawDevice::Adopt(fd);
                }, &error)) {
                throw CToolError(kCtlFailure, error);
            }
        } else if (m_options.usb) {
            const auto it = std::find_if(m_found.begin(), m_found.end(), [&](const TFound& f) {
                return f.description.node == frame.node;
            });
            if (it != m_found.end()) parts.usb = CLibusbService::Find(it->bus, it->address);
            if (!parts.usb) {
                throw CToolError(kCtlFailure, "cannot reach " + frame.node +
                                                   " through libusb: it is no longer listed");
            }
        } else {
            parts.hid = std::make_unique<CHidrawDevice>(frame.node);
        }
        return std::make_unique<CDirectFrame>(std::move(parts));
    }

private:
    // The driver's own rule and messages for a script: what irframed --simulate refuses is
    // refused here with the same status.
    void LoadScript() {
        const std::string& path = m_options.simulateScript;
        TBackendFailure failure;
        if (!LoadGestureScriptFile(path, &m_spec.script, &failure)) {
            const TCtlExit status = failure.exitStatus == 0   ? kCtlCancelled
                                    : failure.exitStatus == 1 ? kCtlFailure
                                                              : kCtlUsage;
            throw CToolError(status, failure.message);
        }
        m_spec.name = path;
        // The emulated frame runs on its own virtual timeline, as under the driver.
        m_timelines = std::make_unique<CSimTimelineClock>();
        m_clock.emplace(*m_timelines);
    }

    TDirectOptions m_options;
    std::vector<TFound> m_found;
    TSimDeviceSpec m_spec;
    std::unique_ptr<CSimTimelineClock> m_timelines;
    std::optional<TScopedClock> m_clock;
    bool m_opened = false;
};

}  // namespace

std::unique_ptr<ITransport> MakeDirectTransport(const TDirectOptions& options) {
    return std::make_unique<CDirectTransport>(options);
}
