// irframed: the touch-frame driver.
//
// Wires the platform pieces to the service shell and runs the main loop until the driver is
// asked to end (a signal, a later instance, wake from sleep) or, in simulation, until every
// emulated frame has been played.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "DeviceJsonSink.h"
#include "EvdevKeyMap.h"
#include "GestureScript.h"
#include "HidrawDevice.h"
#include "LinuxNotificationCenter.h"
#include "LinuxScreen.h"
#include "LoadEvent.h"
#include "MtDevLog.h"
#include "SdEventLoop.h"
#include "SimDevice.h"
#include "UdevHidManager.h"
#include "UinputEventSink.h"
#include "UserNotificationChannel.h"

namespace {

struct TOptions {
    bool dryRun = false;
    std::string output = "-";
    std::vector<std::string> simulate;
    std::vector<std::string> faults;
    std::string simulateId;
    bool realtime = false;
    std::string screen;
    std::string keys = "literal";
    std::string uinputPath = "/dev/uinput";
    bool noSingleInstance = false;
};

// "[N:]KIND:COUNT[@AFTER]": a fault for simulated frame N (1 when not given).
bool ParseFaultOption(const std::string& text, int* device, TSimFault* fault) {
    *device = 1;
    std::string_view rest = text;
    const size_t colon = rest.find(':');
    if (colon != std::string_view::npos && colon > 0 &&
        rest.substr(0, colon).find_first_not_of("0123456789") == std::string_view::npos) {
        if (colon > 4) return false;
        *device = std::stoi(std::string(rest.substr(0, colon)));
        rest = rest.substr(colon + 1);
    }
    const std::optional<TSimFault> parsed = ParseSimFault(rest);
    if (!parsed || *device < 1) return false;
    *fault = *parsed;
    return true;
}

// "VVVV:PPPP" in hexadecimal.
bool ParseUsbId(const std::string& text, uint16_t* vendor, uint16_t* product) {
    unsigned v = 0, p = 0;
    char tail = 0;
    if (std::sscanf(text.c_str(), "%4x:%4x%c", &v, &p, &tail) != 2) return false;
    *vendor = static_cast<uint16_t>(v);
    *product = static_cast<uint16_t>(p);
    return true;
}

bool LoadScript(const std::string& path, CGestureScript* script, std::string* error) {
    std::ifstream in(path);
    if (!in) {
        *error = "cannot read gesture script '" + path + "': " + std::strerror(errno);
        return false;
    }
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::string parseError;
    if (!CGestureScript::Parse(text, script, &parseError)) {
        *error = path + ": " + parseError;
        return false;
    }
    return true;
}

constexpr const char* kDescription =
    "irframed: user-space gesture driver for USB infrared multi-touch frames.\n\n"
    "Finds every attached frame (USB ids AAEC:C020, AAEC:C021, 202E:0006), reads the\n"
    "calibration stored in it, tracks the contacts and posts mouse, shortcut and scroll\n"
    "events through a virtual uinput device. Runs until stopped (SIGTERM, Ctrl-C), until a\n"
    "newer instance of the same user starts, or until the machine wakes from sleep (the\n"
    "systemd user unit then starts it again).\n\n"
    "With --simulate it runs against emulated frames that play gesture scripts instead of\n"
    "real devices, and ends once every script has been played.\n";

constexpr const char* kFooter =
    "Examples:\n"
    "  irframed                                   serve the attached frames\n"
    "  irframed --dry-run                         print events as JSON lines instead\n"
    "  irframed --simulate examples/09-one-finger-tap.gesture --dry-run\n"
    "  irframed --simulate a.gesture --simulate b.gesture@2s --fault 2:poll:6@10 --dry-run\n\n"
    "Exit status: 0 after an orderly end or a wake from sleep, 1 when the driver cannot\n"
    "start (no uinput, an unreadable script), 2 on a usage error (a bad option or script).";

}  // namespace

int main(int argc, char** argv) {
    TOptions opt;
    CLI::App app(kDescription, "irframed");
    app.footer(kFooter);
    app.get_formatter()->column_width(34);
    app.add_flag("-n,--dry-run", opt.dryRun,
                 "Print each synthetic event as a JSON line instead of posting it through "
                 "uinput");
    app.add_option("-o,--output", opt.output,
                   "With --dry-run: write the JSON lines to FILE ('-': standard output)")
        ->type_name("FILE");
    app.add_option("-s,--simulate", opt.simulate,
                   "Run against an emulated frame playing the gesture script FILE, plugged in "
                   "DELAY (e.g. 500ms, 2s) after start; repeat for several frames")
        ->type_name("FILE[@DELAY]");
    app.add_option("--fault", opt.faults,
                   "Make simulated frame N (default 1) fail: config:C (C configuration reads), "
                   "frame:C (C first-frame reads), poll:C@K (C polls after K scripted frames)")
        ->type_name("[N:]KIND:COUNT[@K]");
    app.add_option("--simulate-id", opt.simulateId,
                   "USB vendor:product of the simulated frames (default AAEC:C020)")
        ->type_name("VVVV:PPPP");
    app.add_flag("--realtime", opt.realtime,
                 "Pace simulated frames in real time instead of on an instant virtual clock");
    app.add_option("--screen", opt.screen,
                   "Screen size in points when no X server answers (default 1920x1080); "
                   "simulation always uses it")
        ->type_name("WxH");
    app.add_option("--keys", opt.keys,
                   "Shortcut mapping: 'literal' (Command as Super, the same keys) or 'desktop' "
                   "(each gesture's shortcut as a Linux desktop binds it)")
        ->type_name("PROFILE");
    app.add_option("--uinput", opt.uinputPath, "The uinput device node")->type_name("PATH");
    app.add_flag("--no-single-instance", opt.noSingleInstance,
                 "Neither end a running instance nor listen for later ones");
    app.set_version_flag("-V,--version", "irframed 0.1");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;
    }

    // Checks that need no device come first, so a mistake is reported before anything starts.
    std::optional<TScreenSize> screenOption;
    if (!opt.screen.empty()) {
        screenOption = ParseScreenSize(opt.screen);
        if (!screenOption) {
            std::fprintf(stderr, "irframed: --screen '%s' is not WIDTHxHEIGHT (e.g. 1920x1080)\n",
                         opt.screen.c_str());
            return 2;
        }
    }
    const std::optional<TKeyProfile> profile = ParseKeyProfile(opt.keys);
    if (!profile) {
        std::fprintf(stderr, "irframed: --keys '%s': use 'literal' or 'desktop'\n",
                     opt.keys.c_str());
        return 2;
    }
    const bool simulating = !opt.simulate.empty();
    if (!simulating && (!opt.faults.empty() || opt.realtime || !opt.simulateId.empty())) {
        std::fprintf(stderr, "irframed: --fault, --realtime and --simulate-id need --simulate\n");
        return 2;
    }
    if (!opt.dryRun && opt.output != "-") {
        std::fprintf(stderr, "irframed: --output needs --dry-run\n");
        return 2;
    }

    uint16_t simVendor = 0xAAEC, simProduct = 0xC020;
    if (!opt.simulateId.empty() && !ParseUsbId(opt.simulateId, &simVendor, &simProduct)) {
        std::fprintf(stderr, "irframed: --simulate-id '%s' is not VVVV:PPPP in hexadecimal\n",
                     opt.simulateId.c_str());
        return 2;
    }
    std::vector<TSimDeviceSpec> specs;
    for (const std::string& argument : opt.simulate) {
        TSimDeviceSpec spec;
        std::string path, error;
        if (!ParseSimulateArgument(argument, &path, &spec.plugDelayMillis, &error) ||
            !LoadScript(path, &spec.script, &error)) {
            std::fprintf(stderr, "irframed: %s\n", error.c_str());
            return error.rfind("cannot read", 0) == 0 ? 1 : 2;
        }
        spec.name = path;
        spec.vendorId = simVendor;
        spec.productId = simProduct;
        specs.push_back(std::move(spec));
    }
    for (const std::string& text : opt.faults) {
        int device = 0;
        TSimFault fault;
        if (!ParseFaultOption(text, &device, &fault) ||
            static_cast<size_t>(device) > specs.size()) {
            std::fprintf(stderr,
                         "irframed: --fault '%s': expected [N:]config:C, [N:]frame:C or "
                         "[N:]poll:C[@K] with N a simulated frame (1..%zu)\n",
                         text.c_str(), specs.size());
            return 2;
        }
        specs[static_cast<size_t>(device) - 1].faults.push_back(fault);
    }

    // The dry-run lines, and where the handlers' own lines go so that they never mix.
    std::ofstream outputFile;
    std::ostream* jsonOut = &std::cout;
    if (opt.dryRun && opt.output != "-") {
        outputFile.open(opt.output, std::ios::out | std::ios::trunc);
        if (!outputFile) {
            std::fprintf(stderr, "irframed: cannot write '%s': %s\n", opt.output.c_str(),
                         std::strerror(errno));
            return 1;
        }
        jsonOut = &outputFile;
    }
    if (opt.dryRun && jsonOut == &std::cout) {
        TSetLogSink([](TLogChannel, std::string_view line) {
            std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
        });
    }

    // The loop first: it blocks SIGTERM and SIGINT for every thread started after it.
    std::string error;
    std::unique_ptr<CSdEventLoop> loop = CSdEventLoop::Create(&error);
    if (!loop) {
        std::fprintf(stderr, "irframed: %s\n", error.c_str());
        return 1;
    }

    // Screen: the X server's primary output, unless this is a simulation (kept deterministic).
    std::string whyNoX = "simulation";
    std::optional<TDisplayGeometry> fromX;
    if (!simulating) fromX = QueryXrandrGeometry(nullptr, &whyNoX);
    const TDisplayGeometry geometry = ResolveDisplayGeometry(fromX, screenOption, whyNoX);
    TLogSystem("screen %.0fx%.0f (%s)", geometry.main.width, geometry.main.height,
               geometry.source.c_str());
    CLinuxScreen screen(geometry);

    // Output.
    CJsonLinesWriter writer(*jsonOut);
    std::map<int, std::unique_ptr<CDeviceJsonSink>> jsonSinks;
    std::unique_ptr<CUinputEventSink> uinput;
    if (!opt.dryRun) {
        uinput = CUinputEventSink::Create(opt.uinputPath, geometry, *profile, &error);
        if (!uinput) {
            std::fprintf(stderr, "irframed: %s\n", error.c_str());
            return 1;
        }
        TLogSystem("virtual input device %s (keys: %s)", uinput->DeviceNode().c_str(),
                   KeyProfileName(*profile));
    }

    // Clock: a simulation without --realtime runs on per-frame virtual timelines.
    std::unique_ptr<CSimTimelineClock> timelines;
    std::optional<TScopedClock> installedClock;  // uninstalled on every way out
    if (simulating && !opt.realtime) {
        timelines = std::make_unique<CSimTimelineClock>();
        installedClock.emplace(*timelines);
    }

    // Discovery.
    std::unique_ptr<CSimDeviceHub> hub;
    std::unique_ptr<CUdevHidManagerFactory> udev;
    IHidManagerFactory* managers = nullptr;
    if (simulating) {
        hub = std::make_unique<CSimDeviceHub>(*loop, timelines.get());
        for (TSimDeviceSpec& spec : specs) hub->Add(std::move(spec));
        if (!hub->Start([](int fd) -> std::unique_ptr<CMtHidDevice> {
                return CHidrawDevice::Adopt(fd);
            }, &error)) {
            std::fprintf(stderr, "irframed: %s\n", error.c_str());
            return 1;
        }
        managers = hub.get();
    } else {
        const TUdevSource source = ChooseMonitorSource();
        TLogSystem("discovery through udev (%s events)", UdevSourceName(source));
        udev = std::make_unique<CUdevHidManagerFactory>(loop->Event(), source);
        managers = udev.get();
    }

    const bool singleInstance = !simulating && !opt.noSingleInstance;
    CLinuxNotificationCenter notifications(
        loop->Event(), singleInstance ? CUserNotificationChannel::DefaultSocketName(getuid()) : "");

    TShellPorts ports;
    ports.loop = loop.get();
    ports.hidManagers = managers;
    ports.screen = &screen;
    ports.notifications = &notifications;
    ports.sinkForDevice = [&](int deviceNumber) -> CEventSink* {
        if (uinput) return uinput.get();
        auto& sink = jsonSinks[deviceNumber];
        if (!sink) sink = std::make_unique<CDeviceJsonSink>(writer, deviceNumber);
        return sink.get();
    };

    LoadEvent shell(ports);
    loop->OnTerminationSignal([&](int signal) {
        TLogSystem("%s: stopping", signal == SIGINT ? "SIGINT" : "SIGTERM");
        if (hub) hub->AbortAll();
        shell.Terminate(0);
    });
    if (hub) {
        hub->OnAllDone([&] {
            TLogSystem("every simulated frame has been played");
            shell.Terminate(0);
        });
    }
    shell.init();

    const int status = loop->Run();

    // The orderly end waited for the workers; free what they used only if they all ended.
    if (LiveWorkerCount() != 0) {
        std::fflush(nullptr);
        std::_Exit(status);
    }
    // Before the records go: whether a frame was closed says what its worker did.
    if (hub) {
        for (const auto& device : hub->Devices()) TLogSystem("%s", device->Summary().c_str());
    }
    ReleaseDeviceList();
    return status;
}
