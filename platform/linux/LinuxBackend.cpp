#include "LinuxBackend.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include <systemd/sd-bus.h>

#include "DesktopDisplayServices.h"
#include "HidrawDevice.h"
#include "MtDevLog.h"
#include "WlrOutputLayout.h"

namespace {

// A Wayland session's compositor knows its monitors by their connector names; XRandR there
// sees only Xwayland's. wlroots compositors tell through wlr-output-management, GNOME and KDE
// through their display services on the session bus. Without Wayland, the X server.
std::optional<TXrandrDesktop> QueryDesktopLayout(std::string* why) {
    std::string whyNotWayland;
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    if (wayland != nullptr && *wayland != '\0') {
        if (auto layout = QueryWlrOutputs(nullptr, &whyNotWayland)) return layout;
        sd_bus* bus = nullptr;
        std::string whyNotService = "no session bus";
        if (sd_bus_open_user(&bus) >= 0) {
            std::optional<TXrandrDesktop> layout = QueryDesktopServiceLayout(bus, &whyNotService);
            sd_bus_flush_close_unref(bus);
            if (layout) return layout;
        }
        whyNotWayland += "; " + whyNotService;
    }
    std::optional<TXrandrDesktop> fromX = QueryXrandrDesktop(nullptr, why);
    if (!fromX && !whyNotWayland.empty()) *why = whyNotWayland + "; " + *why;
    return fromX;
}

}  // namespace

bool CLinuxBackend::Open(TShellPorts* ports, TBackendFailure* failure) {
    TScreenRequest request;
    request.output = m_options.display;
    if (!m_options.screen.empty()) {
        request.placement = ParseScreenPlacement(m_options.screen);
        if (!request.placement) {
            *failure = {2, "--screen '" + m_options.screen +
                               "' is not WIDTHxHEIGHT or WIDTHxHEIGHT+X+Y (e.g. 1920x1080, "
                               "2560x1440+1920+0)"};
            return false;
        }
    }
    if (!m_options.desktopSize.empty()) {
        request.desktop = ParseScreenPlacement(m_options.desktopSize);
        if (!request.desktop || request.desktop->x != 0 || request.desktop->y != 0) {
            *failure = {2, "--desktop '" + m_options.desktopSize +
                               "' is not WIDTHxHEIGHT (e.g. 3840x1080)"};
            return false;
        }
    }
    if (!ParseKeyProfile(m_options.keys)) {
        *failure = {2, "--keys '" + m_options.keys + "': use 'safe', 'literal' or 'desktop'"};
        return false;
    }

    // The outputs of the compositor or the X server, unless this is a simulation (kept
    // deterministic).
    std::string whyNoX = "simulation";
    std::optional<TXrandrDesktop> fromX;
    if (!m_options.Simulating()) fromX = QueryDesktopLayout(&whyNoX);
    std::string error;
    const std::optional<TDisplayGeometry> resolved =
        ResolveDisplayGeometry(fromX, request, whyNoX, &error);
    if (!resolved) {
        *failure = {2, error};
        return false;
    }
    const TDisplayGeometry& geometry = *resolved;
    TLog(TLogLevel::Info, "screen %.0fx%.0f (%s)", geometry.main.width, geometry.main.height,
               geometry.source.c_str());
    m_screen = std::make_unique<CLinuxScreen>(geometry);
    ports->screen = m_screen.get();

    ports->gestures = m_options.gestures;
    // One key map: what the uinput device presses is what the dry run shows.
    if (!MakeKeys(&error)) {
        *failure = {2, error};
        return false;
    }
    ports->keyNamer = [this](const TInputEvent& event) { return Keys()->KeyNames(event); };
    if (!m_options.dryRun && m_options.gestures) {
        m_uinput = CUinputEventSink::Create(m_options.uinputPath, geometry, *Keys(), &error);
        if (!m_uinput) {
            *failure = {1, error};
            return false;
        }
        TLog(TLogLevel::Info, "virtual input device %s (keys: %s)",
             m_uinput->DeviceNode().c_str(), KeyProfileName(Keys()->Profile()));
        ports->sinkForDevice = [sink = m_uinput.get()](int) -> CEventSink* { return sink; };
    }

    if (m_options.touchscreen) {
        // Each frame makes its touchscreen when it is ready: a node that cannot be opened is
        // said now, not once per frame later.
        const int probe = ::open(m_options.uinputPath.c_str(), O_RDWR | O_CLOEXEC);
        if (probe < 0) {
            *failure = {1, "--touchscreen: " +
                               DescribeUinputError(m_options.uinputPath, "open", errno)};
            return false;
        }
        ::close(probe);
        TTouchscreenOptions touch;
        touch.uinputPath = m_options.uinputPath;
        touch.perArea = m_options.touchscreenPerArea;
        // The configured size, else the monitor's own where the desktop knows it.
        touch.size = TouchscreenSizeFor(m_options.touchscreenWidthMm,
                                        m_options.touchscreenHeightMm, geometry);
        // The touchscreen's axes span the whole desktop; libinput confines it to the chosen
        // output through a udev property, which only the user can install.
        TLog(TLogLevel::Info,
             "to map the touchscreens to the screen at %.0fx%.0f%+.0f%+.0f, put this in a udev "
             "rule for them (docs/touchscreen.md): %s",
             geometry.main.width, geometry.main.height, geometry.main.x, geometry.main.y,
             LibinputCalibrationLine(geometry).c_str());
        ports->firstContactListeners = [this, touch, before = ports->firstContactListeners](
                                           int frame) {
            std::vector<IContactListener*> listeners;
            if (before) listeners = before(frame);
            std::unique_ptr<CUinputTouchscreen>& touchscreen = m_touchscreens[frame];
            if (!touchscreen) touchscreen = std::make_unique<CUinputTouchscreen>(touch);
            listeners.push_back(touchscreen.get());
            return listeners;
        };
    }

    if (!m_options.Simulating()) {
        const TUdevSource source = ChooseMonitorSource();
        TLog(TLogLevel::Debug, "discovery through udev (%s events)", UdevSourceName(source));
        m_udev = std::make_unique<CUdevHidManagerFactory>(m_loop.Event(), source);
        ports->hidManagers = m_udev.get();
    }

    OpenSessionBus(ports);
    m_notifications = std::make_unique<CLinuxNotificationCenter>(
        m_loop.Event(), m_options.SingleInstance() ? m_claim.get() : nullptr);
    ports->notifications = m_notifications.get();
    ports->loop = &m_loop;
    return true;
}

bool CLinuxBackend::MakeKeys(std::string* error) {
    const std::optional<TKeyProfile> profile = ParseKeyProfile(m_options.keys);
    if (!profile) {
        *error = "--keys '" + m_options.keys + "': use 'safe', 'literal' or 'desktop'";
        return false;
    }
    std::string why;
    std::optional<CKeyMap> keys = CKeyMap::Make(*profile, m_options.shortcuts, &why);
    if (!keys) {
        *error = "shortcuts." + why;
        return false;
    }
    auto made = std::make_shared<const CKeyMap>(std::move(*keys));
    std::lock_guard<std::mutex> lock(m_keysMutex);
    m_keys = std::move(made);
    return true;
}

std::shared_ptr<const CKeyMap> CLinuxBackend::Keys() const {
    std::lock_guard<std::mutex> lock(m_keysMutex);
    return m_keys;
}

void CLinuxBackend::OptionsChanged() {
    std::string error;
    if (!MakeKeys(&error)) {
        TLog(TLogLevel::Error, "the keys stay as they were: %s", error.c_str());
        return;
    }
    if (m_uinput) m_uinput->SetKeys(*Keys());
}

void CLinuxBackend::OpenSessionBus(TShellPorts* ports) {
    std::string error;
    m_bus = CSessionBus::Connect(m_loop.Event(), nullptr, &error);
    if (!m_bus) {
        TLog(TLogLevel::Info, "no session bus (%s): running without the D-Bus interface",
             error.c_str());
        return;
    }
    const bool exchange = m_options.SingleInstance();
    m_claim = std::make_unique<CBusNameClaim>(
        m_bus->Bus(), CDbusDriverService::kBusName,
        exchange ? CBusNameClaim::TMode::Exchange : CBusNameClaim::TMode::IfFree);
    if (m_control != nullptr) {
        m_service = std::make_unique<CDbusDriverService>(m_bus->Bus(), m_loop, *m_control, m_codec);
        m_service->SetTouchscreenNames([this](int frame) {
            const auto found = m_touchscreens.find(frame);
            return found != m_touchscreens.end() ? found->second->DeviceNames()
                                                 : std::vector<std::string>{};
        });
        if (!m_service->Start(&error)) {
            TLog(TLogLevel::Warning, "D-Bus interface unavailable (%s)", error.c_str());
            m_service.reset();
        }
    }
    if (m_service) {
        // The bus monitor listens after the frame's other outputs.
        ports->contactListeners = [earlier = ports->contactListeners,
                                   service = m_service.get()](int device) {
            std::vector<IContactListener*> listeners;
            if (earlier) listeners = earlier(device);
            listeners.push_back(service->ContactListener(device));
            return listeners;
        };
    }
    // A real instance claims the name when it announces itself (the notification centre); the
    // others take it now if it is free.
    if (!exchange) {
        std::string detail;
        if (m_claim->Request(0, &detail) != CBusNameClaim::TResult::Owner) {
            TLog(TLogLevel::Info, "%s: this instance serves no bus name", detail.c_str());
        }
    }
}

std::unique_ptr<CMtHidDevice> CLinuxBackend::AdoptHidPort(int fd) {
    return CHidrawDevice::Adopt(fd);
}
