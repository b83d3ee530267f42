// irframectl: see, back up and change the touch frames, through the running driver or on its own.
#include <pthread.h>
#include <signal.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>
#include <memory>
#include <string>

#include "BusTransport.h"
#include "CommandLine.h"
#include "Commands.h"
#include "DirectTransport.h"
#include "IrframeVersion.h"
#include "MtDevLog.h"
#include "OutputFile.h"
#include "QuotedText.h"

namespace {

// The SIGINT or SIGTERM received, 0 before any.
volatile sig_atomic_t g_interrupted = 0;

// The first Ctrl-C (or SIGTERM) asks the running operation to stop cleanly; a second one ends
// the tool.
void OnInterrupt(int signal) {
    if (g_interrupted != 0) _exit(kCtlCancelled);
    g_interrupted = signal;
}

int StopSignal() { return g_interrupted; }

// Until the tool can act on them, SIGINT and SIGTERM wait pending: a wait that looks for them
// itself (a gesture script's FIFO) then sees one sent before it began.
void HoldStopSignals(bool hold) {
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    pthread_sigmask(hold ? SIG_BLOCK : SIG_UNBLOCK, &stops, nullptr);
}

void CatchInterrupt() {
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no restart: a waiting bus call wakes up and sees the flag
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

struct TOptions {
    bool direct = false;
    bool bus = false;
    bool usb = false;
    std::string simulate;
    std::string frame;
};

std::unique_ptr<ITransport> ChooseTransport(const TOptions& opt) {
    const bool forcedDirect = opt.direct || opt.usb || !opt.simulate.empty();
    if (opt.bus && forcedDirect) {
        throw CToolError(kCtlUsage, "--bus cannot go with --direct, --usb or --simulate");
    }
    if (opt.usb && !opt.simulate.empty()) {
        throw CToolError(kCtlUsage, "--usb cannot go with --simulate: the emulated frame is "
                                    "reached over HID only");
    }
    if (!forcedDirect) {
        HoldStopSignals(false);  // a bus call is cut short by the handler
        std::string error;
        if (sd_bus* bus = OpenSessionBus(&error)) {
            if (DriverOnBus(bus, StopSignal)) return MakeBusTransport(bus, StopSignal);
            sd_bus_flush_close_unref(bus);
            error = "no driver owns " + std::string(kDriverBusName) + " on the session bus";
        }
        if (opt.bus) throw CToolError(kCtlFailure, error);
    }
    TDirectOptions direct;
    direct.usb = opt.usb;
    direct.simulateScript = opt.simulate;
    return MakeDirectTransport(direct);
}

constexpr const char* kDescription =
    "irframectl: see, back up and change the infrared touch frames that irframed serves.\n\n"
    "Goes through the running driver (its D-Bus interface on the session bus) when there is\n"
    "one, and otherwise opens the frame itself through the device library: over its hidraw\n"
    "node, or with --usb over the USB bulk channel.\n";

constexpr const char* kFooter =
    "FRAME is a frame number (irframectl list), a hidraw node (/dev/hidraw3 or hidraw3) or a\n"
    "serial; it may be left out when one frame is attached.\n\n"
    "Exit status:\n"
    "  0  success\n"
    "  1  failure: a device or driver error, the frame went away, a written configuration\n"
    "     that does not read back the same, an output that cannot be written\n"
    "  2  usage: a bad command line, several frames and none named, --yes needed\n"
    "  3  no frame found, or none matches FRAME\n"
    "  4  bad input: a file that cannot be read or is refused (the JSON path of the fault\n"
    "     is named); nothing was written\n"
    "  5  cancelled: Ctrl-C (or SIGTERM) during a transfer or while waiting for a --simulate\n"
    "     FIFO's writer, or the confirmation was declined\n"
    "  6  busy: the frame serves another client's transfer\n\n"
    "Examples:\n"
    "  irframectl list\n"
    "  irframectl config dump frame1.json\n"
    "  irframectl config restore frame1.json\n"
    "  irframectl monitor --json\n"
    "  irframectl record tap.gesture && irframed --simulate tap.gesture --dry-run\n"
    "  irframectl map HDMI-1\n";

}  // namespace

int main(int argc, char** argv) {
    TOptions opt;
    CLI::App app(kDescription, "irframectl");
    app.footer(kFooter);
    app.get_formatter()->column_width(30);
    app.require_subcommand(1);
    app.fallthrough();
    app.add_option("-f,--frame", opt.frame, "The frame to work on")->type_name("FRAME");
    app.add_flag("--direct", opt.direct,
                 "Open the frame directly even when the driver runs (the two then share it)");
    app.add_flag("--bus", opt.bus, "Only through the running driver; fail without it");
    app.add_flag("--usb", opt.usb, "Open the frame directly over its USB bulk channel");
    app.add_option("--simulate", opt.simulate,
                   "Open an emulated frame that plays the gesture script FILE (for tests)")
        ->type_name("FILE");
    app.set_version_flag("-V,--version", "irframectl " IRFRAME_VERSION);

    std::function<int(TToolContext&)> run;
    std::string frameArgument;

    CLI::App* list = app.add_subcommand("list", "The frames, one a line");
    list->callback([&] { run = CmdList; });

    CLI::App* info = app.add_subcommand(
        "info", "[FRAME]: a frame's properties and information block");
    info->add_option("FRAME", frameArgument, "The frame");
    info->callback([&] { run = CmdInfo; });

    CLI::App* status = app.add_subcommand("status", "[FRAME]: a frame's status bytes");
    status->add_option("FRAME", frameArgument, "The frame");
    status->callback([&] { run = CmdStatus; });

    CLI::App* config = app.add_subcommand(
        "config", "show [FRAME] | dump FILE [FRAME] | restore FILE [FRAME]: see, back up and "
                  "restore the configuration");
    config->require_subcommand(1);
    CLI::App* show = config->add_subcommand("show", "The configuration as tables");
    show->add_option("FRAME", frameArgument, "The frame");
    show->callback([&] { run = CmdConfigShow; });
    std::string file;
    CLI::App* dump = config->add_subcommand("dump", "Save the configuration as JSON");
    dump->add_option("FILE", file, "Where ('-': standard output)")->required();
    dump->add_option("FRAME", frameArgument, "The frame");
    dump->callback([&] { run = [&](TToolContext& ctx) { return CmdConfigDump(ctx, file); }; });
    TRestoreOptions restore;
    CLI::App* restoreCmd = config->add_subcommand(
        "restore", "Write a configuration JSON to the frame: check it, show the changes, ask, "
                   "keep what it replaces, write, read back and compare");
    restoreCmd->add_option("FILE", restore.file, "The configuration JSON")->required();
    restoreCmd->add_option("FRAME", frameArgument, "The frame");
    restoreCmd->add_flag("-y,--yes", restore.yes, "Write without asking");
    restoreCmd->add_option("--backup", restore.backup,
                           "Where to keep the replaced configuration, a name not taken (default: "
                           "next to FILE, FILE without .json then .replaced-DATE-TIME.json)")
        ->type_name("PATH");
    restoreCmd->callback([&] {
        run = [&](TToolContext& ctx) {
            if (isatty(STDIN_FILENO)) restore.answers = &std::cin;
            return CmdConfigRestore(ctx, restore);
        };
    });

    bool json = false;
    CLI::App* monitor =
        app.add_subcommand("monitor", "[FRAME] [--json]: show the contacts live until Ctrl-C");
    monitor->add_option("FRAME", frameArgument, "The frame");
    monitor->add_flag("--json", json, "One JSON object a line, one per contact and frame");
    monitor->callback([&] { run = [&](TToolContext& ctx) { return CmdMonitor(ctx, json); }; });

    CLI::App* record = app.add_subcommand(
        "record", "FILE [FRAME]: record the contacts until Ctrl-C as a gesture script for "
                  "irframed --simulate");
    record->add_option("FILE", file, "The script to write")->required();
    record->add_option("FRAME", frameArgument, "The frame");
    record->callback([&] { run = [&](TToolContext& ctx) { return CmdRecord(ctx, file); }; });

    CLI::App* scan = app.add_subcommand(
        "scan-pattern", "get FILE [FRAME] | set FILE [FRAME]: read or write the scan pattern");
    scan->require_subcommand(1);
    CLI::App* scanGet = scan->add_subcommand("get", "Save the frame's scan pattern in FILE");
    scanGet->add_option("FILE", file, "Where ('-': standard output)")->required();
    scanGet->add_option("FRAME", frameArgument, "The frame");
    scanGet->callback([&] { run = [&](TToolContext& ctx) { return CmdScanPatternGet(ctx, file); }; });
    CLI::App* scanSet = scan->add_subcommand("set", "Write FILE as the frame's scan pattern");
    scanSet->add_option("FILE", file, "The scan pattern")->required();
    scanSet->add_option("FRAME", frameArgument, "The frame");
    scanSet->callback([&] { run = [&](TToolContext& ctx) { return CmdScanPatternSet(ctx, file); }; });

    CLI::App* touch = app.add_subcommand(
        "touch-system-file", "set FILE [FRAME]: write the touch-system file");
    touch->require_subcommand(1);
    CLI::App* touchSet = touch->add_subcommand("set", "Write FILE (1024 to 4194304 bytes)");
    touchSet->add_option("FILE", file, "The touch-system file")->required();
    touchSet->add_option("FRAME", frameArgument, "The frame");
    touchSet->callback(
        [&] { run = [&](TToolContext& ctx) { return CmdTouchSystemFileSet(ctx, file); }; });

    TMapOptions mapOptions;
    CLI::App* map = app.add_subcommand(
        "map", "[--area K] [--desktop D] OUTPUT | --show: put the frame's touchscreen and "
               "gestures on a monitor in the desktop's own settings");
    map->add_option("OUTPUT", mapOptions.output, "The monitor's connector name (HDMI-1, DP-2)");
    map->add_option("--area", mapOptions.area,
                    "Only the touchscreen of calibration area K (irframed "
                    "--touchscreen-per-area); the gestures' pointer stays")
        ->type_name("K")
        ->check(CLI::Range(0, 31));
    map->add_option("--desktop", mapOptions.desktop,
                    "The desktop whose setting to write: gnome, kde, wlroots or x11 (default: "
                    "the running one, from XDG_CURRENT_DESKTOP, SWAYSOCK, WAYLAND_DISPLAY, "
                    "DISPLAY)")
        ->type_name("D");
    map->add_flag("--show", mapOptions.show,
                  "Print what each desktop's setting says now, per touchscreen");
    map->callback([&] { run = [&](TToolContext& ctx) { return CmdMap(ctx, mapOptions); }; });

    // A closed pipe on standard output is a write error to report, not a silent death.
    std::signal(SIGPIPE, SIG_IGN);
    COutputFile::GuardStandardDescriptors();
    // What the device library and the emulated frame say is the tool's message too.
    TSetLogProgramName("irframectl");
    if (const std::optional<int> parsed = ParseCommandLine(app, argc, argv)) {
        return *parsed;
    }
    if (!frameArgument.empty()) {
        if (!opt.frame.empty() && opt.frame != frameArgument) {
            std::cerr << "irframectl: two different frames named: " << QuotedText(opt.frame)
                      << " and " << QuotedText(frameArgument) << "\n";
            return kCtlUsage;
        }
        opt.frame = frameArgument;
    }

    HoldStopSignals(true);
    CatchInterrupt();
    COutputFile standardOutput;
    std::string error;
    standardOutput.Open("-", COutputFile::TExisting::Replace, &error);
    int exitStatus = kCtlOk;
    try {
        std::unique_ptr<ITransport> transport = ChooseTransport(opt);
        HoldStopSignals(false);
        TToolContext ctx{*transport, opt.frame, standardOutput.Stream(), std::cerr,
                         [] { return g_interrupted != 0; }, isatty(STDERR_FILENO) != 0,
                         StopSignal};
        exitStatus = run(ctx);
    } catch (const CToolError& e) {
        standardOutput.Stream().flush();
        std::cerr << "irframectl: " << e.what() << "\n";
        exitStatus = e.ExitCode();
    }
    // What was printed counts only once it is out: a full disk or a closed pipe is a failure.
    if (!standardOutput.Commit(&error) && exitStatus == kCtlOk) {
        std::cerr << "irframectl: " << error << "\n";
        exitStatus = kCtlFailure;
    }
    return exitStatus;
}
