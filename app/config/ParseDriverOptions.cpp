#include "ParseDriverOptions.h"

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "CommandLine.h"
#include "DriverConfig.h"
#include "IrframeVersion.h"
#include "Parameter.h"
#include "QuotedText.h"

namespace {

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
    "  irframed --simulate a.gesture --simulate b.gesture@2s --fault 2:poll:6@10 --dry-run\n"
    "  irframed --tuio 3333                       also send TUIO cursors to 127.0.0.1:3333\n"
    "  irframed --print-config > ~/.config/irframe/irframe.toml\n"
    "                                             start a configuration file\n\n"
    "Exit status: 0 after an orderly end or a wake from sleep, 1 when the driver cannot\n"
    "start (no uinput, an unreadable script), 2 on a usage error (a bad option or script).";

// "VVVV:PPPP" in hexadecimal.
bool ParseUsbId(const std::string& text, uint16_t* vendor, uint16_t* product) {
    unsigned v = 0, p = 0;
    char tail = 0;
    if (std::sscanf(text.c_str(), "%4x:%4x%c", &v, &p, &tail) != 2) return false;
    *vendor = static_cast<uint16_t>(v);
    *product = static_cast<uint16_t>(p);
    return true;
}

// JOURNAL_STREAM is "DEVICE:INODE" of the stream systemd connected; it only counts while our
// standard error is still that stream.
bool StderrIsJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    if (stream == nullptr) return false;
    unsigned long long device = 0, inode = 0;
    if (std::sscanf(stream, "%llu:%llu", &device, &inode) != 2) return false;
    struct stat st {};
    if (fstat(2, &st) != 0) return false;
    return static_cast<unsigned long long>(st.st_dev) == device &&
           static_cast<unsigned long long>(st.st_ino) == inode;
}

bool IsServedId(uint16_t vendor, uint16_t product) {
    return std::any_of(std::begin(kDeviceMatchTable), std::end(kDeviceMatchTable),
                       [&](const TDeviceMatchRow& row) {
                           return row.vendorId == vendor && row.productId == product;
                       });
}

// "AAEC:C020, AAEC:C021 or 202E:0006"
std::string ServedIds() {
    std::string list;
    for (size_t i = 0; i < kDeviceMatchRows; ++i) {
        char id[16];
        std::snprintf(id, sizeof id, "%04X:%04X", kDeviceMatchTable[i].vendorId,
                      kDeviceMatchTable[i].productId);
        if (i > 0) list += i + 1 == kDeviceMatchRows ? " or " : ", ";
        list += id;
    }
    return list;
}

int UsageError(const std::string& line) {
    std::fprintf(stderr, "irframed: %s\n", line.c_str());
    return kExitUsage;
}

std::string Quoted(const std::vector<std::string>& names) {
    std::string out;
    for (size_t i = 0; i < names.size(); ++i) {
        if (i > 0) out += i + 1 == names.size() ? " or " : ", ";
        out += "'" + names[i] + "'";
    }
    return out;
}

// The file's settings under the options: what the command line did not say, the file says.
void ApplyDriverConfig(const TDriverConfig& config, DriverOptions* opt) {
    if (!opt->given.logLevel) opt->logLevel = config.logLevel;
    if (!opt->given.screen) opt->screen = config.screenSize;
    if (!opt->given.display) opt->display = config.screenOutput;
    if (!opt->given.keys) opt->keys = config.keyProfile;
    if (!opt->given.gestures) opt->gestures = config.gestures;
    opt->shortcuts = config.shortcuts;
    // A dry run posts nothing: the file's touchscreen waits for a real run.
    if (!opt->given.touchscreen) {
        opt->touchscreen = config.touchscreen && !opt->dryRun;
        opt->touchscreenPerArea = config.touchscreenPerArea && opt->touchscreen;
    }
    opt->touchscreenWidthMm = config.touchscreenWidthMm;
    opt->touchscreenHeightMm = config.touchscreenHeightMm;
    if (!opt->given.tuio) {
        opt->tuio.enabled = config.tuio;
        opt->tuio.target = config.tuioTarget;
    }
    opt->tuio.allowDeviceTargets = config.tuioAllowDeviceTargets;
    opt->tuio.areaTargets = config.tuioAreaTargets;
}

// Reads the configuration file that the options name; `config` starts as the defaults.
TConfigStatus ReadDriverConfig(const TConfigChecks& checks, DriverOptions* opt,
                               TDriverConfig* config, std::string* error) {
    *config = DefaultDriverConfig(checks);
    opt->configFile.clear();
    opt->configSkipped.clear();
    if (opt->noConfig) return TConfigStatus::Ok;
    TConfigSources sources;
    const TConfigStatus status = LoadDriverConfig(ProcessConfigEnvironment(opt->configPath),
                                                  checks, config, &sources, error);
    for (const std::string& path : sources.files) {
        opt->configFile += (opt->configFile.empty() ? "" : ", ") + path;
    }
    opt->configSkipped = std::move(sources.skipped);
    return status;
}

std::optional<int> ApplyConfigFile(const TConfigChecks& checks, DriverOptions* opt) {
    TDriverConfig config;
    std::string error;
    switch (ReadDriverConfig(checks, opt, &config, &error)) {
        case TConfigStatus::Ok: break;
        case TConfigStatus::CannotRead:
            std::fprintf(stderr, "irframed: %s\n", error.c_str());
            return kExitCannotStart;
        case TConfigStatus::Invalid: return UsageError(error);
    }
    ApplyDriverConfig(config, opt);
    return std::nullopt;
}

// The configuration in force, command line included, as the file would say it.
std::optional<int> PrintConfiguration(const DriverOptions& opt, const TConfigChecks& checks) {
    if (!opt.screen.empty() && !checks.screenSize(opt.screen)) {
        return UsageError("--screen " + QuotedText(opt.screen) + " is not WIDTHxHEIGHT or WIDTHxHEIGHT+X+Y");
    }
    if (!opt.display.empty() && !IsOutputName(opt.display)) {
        return UsageError("--display " + QuotedText(opt.display) + " is not an output name");
    }
    TDriverConfig config = DefaultDriverConfig(checks);
    config.logLevel = LogLevelName(EffectiveLogLevel(opt));
    config.screenSize = opt.screen;
    config.screenOutput = opt.display;
    config.keyProfile = opt.keys;
    config.gestures = opt.gestures;
    config.shortcuts = opt.shortcuts;
    config.touchscreen = opt.touchscreen;
    config.touchscreenPerArea = opt.touchscreenPerArea;
    config.touchscreenWidthMm = opt.touchscreenWidthMm;
    config.touchscreenHeightMm = opt.touchscreenHeightMm;
    config.tuio = opt.tuio.enabled;
    config.tuioTarget = opt.tuio.target;
    config.tuioAllowDeviceTargets = opt.tuio.allowDeviceTargets;
    config.tuioAreaTargets = opt.tuio.areaTargets;
    std::fputs(PrintConfig(config, checks).c_str(), stdout);
    return std::fflush(stdout) == 0 && !std::ferror(stdout) ? kExitOk : kExitCannotStart;
}

}  // namespace

std::optional<int> ParseDriverOptions(int argc, const char* const* argv, DriverOptions* options,
                                      const TConfigChecks& checks) {
    DriverOptions& opt = *options;
    std::string simulateId;
    CLI::App app(kDescription, "irframed");
    app.footer(kFooter);
    app.get_formatter()->column_width(34);
    app.add_flag("-n,--dry-run", opt.dryRun,
                 "Print each synthetic event as a JSON line instead of posting it through "
                 "uinput");
    app.add_option("-o,--output", opt.output,
                   "With --dry-run: write the JSON lines to FILE, replaced whole when the run "
                   "ends ('-': standard output, to follow them live)")
        ->type_name("FILE");
    app.add_option("-s,--simulate", opt.simulate,
                   "Run against an emulated frame playing the gesture script FILE, plugged in "
                   "DELAY (e.g. 500ms, 2s) after start; repeat for several frames")
        ->type_name("FILE[@DELAY]");
    app.add_option("--fault", opt.faults,
                   "Make simulated frame N (default 1) fail: config:C (C configuration reads), "
                   "frame:C (C first-frame reads), poll:C@K (C polls after K scripted frames), "
                   "stall:C@K (a tool's read stalls for C replies after K messages), "
                   "vanish:1@K (unplugged at a tool's transfer message K+1), hold:C@K (the "
                   "script waits after K frames until C configuration writes)")
        ->type_name("[N:]KIND:COUNT[@K]");
    app.add_option("--simulate-id", simulateId,
                   "USB vendor:product of the simulated frames: AAEC:C020 (the default), "
                   "AAEC:C021 or 202E:0006")
        ->type_name("VVVV:PPPP");
    app.add_flag("--realtime", opt.realtime,
                 "Pace simulated frames in real time instead of on an instant virtual clock");
    app.add_option("--screen", opt.screen,
                   "Screen size in points, and its place on the desktop, when no X server "
                   "answers (default 1920x1080); simulation always uses it")
        ->type_name("WxH[+X+Y]");
    app.add_option("--desktop", opt.desktopSize,
                   "The whole desktop's size in points, for --screen when neither an X server "
                   "nor the compositor tells the layout (default: up to the screen's far corner)")
        ->type_name("WxH");
    app.add_option("--display", opt.display,
                   "Map the gestures into this output (e.g. HDMI-1, as the X server or the "
                   "Wayland compositor names it) instead of the primary one")
        ->type_name("NAME");
    app.add_option("--keys", opt.keys,
                   "Shortcut mapping: 'safe' (the default: no chord that locks, closes, tiles, "
                   "launches or reloads; rotations press nothing), 'literal' (Command as Super, "
                   "the same keys) or 'desktop' (each gesture's shortcut as a Linux desktop "
                   "binds it)")
        ->type_name("PROFILE");
    app.add_option("--uinput", opt.uinputPath, "The uinput device node")->type_name("PATH");
    app.add_flag("--no-single-instance", opt.noSingleInstance,
                 "Neither end a running instance nor listen for later ones");
    app.add_flag("-v,--verbose", opt.verbose,
                 "Say more on standard error: -v info, -vv debug (every trace line)");
    app.add_option("--log-level", opt.logLevel,
                   "error, warning, info (the default) or debug; overrides -v")
        ->type_name("LEVEL");
    std::string tuioTarget;
    app.add_option("--tuio", tuioTarget,
                   "Also send each frame's contacts as TUIO 1.1 cursors (/tuio/2Dcur over "
                   "OSC/UDP) to HOST:PORT (HOST 127.0.0.1 when left out), for every area")
        ->type_name("[HOST:]PORT");
    app.add_flag("--touchscreen", opt.touchscreen,
                 "Also present each frame as a multitouch touchscreen (uinput) that libinput "
                 "and the desktops use directly");
    app.add_flag("--touchscreen-per-area", opt.touchscreenPerArea,
                 "As --touchscreen, but one touchscreen per calibration area of a frame, each "
                 "with only its area's touches (a frame across several displays)");
    bool noGestures = false;
    app.add_flag("--no-gestures", noGestures,
                 "No mouse and shortcut emulation: only the other outputs (--touchscreen, --tuio)");
    // Lets a simulation act as a real instance in the exchange on the bus name, so that the
    // takeover can be tested without frames. Not for users: hidden from --help.
    app.add_flag("--claim-bus-name", opt.claimBusName)->group("");
    std::string configPath;
    app.add_option("--config", configPath,
                   "Read the configuration from FILE alone instead of irframe.toml, then "
                   "irframe.d/*.toml, in $XDG_CONFIG_HOME/irframe (else /etc/irframe); the "
                   "command line overrides it")
        ->type_name("FILE");
    bool noConfig = false;
    app.add_flag("--no-config", noConfig, "Read no configuration file: the built-in defaults");
    bool printConfig = false;
    app.add_flag("--print-config", printConfig,
                 "Print the configuration in force (file, defaults and command line) as TOML "
                 "and end");
    app.set_version_flag("-V,--version", "irframed " IRFRAME_VERSION);
    if (const std::optional<int> status = ParseCommandLine(app, argc, argv)) return status;

    if (noConfig && app.count("--config") != 0) {
        return UsageError("--config and --no-config exclude each other");
    }
    if (app.count("--config") != 0 && configPath.empty()) {
        return UsageError("--config needs a file name");
    }
    opt.configPath = configPath;
    opt.noConfig = noConfig;
    opt.given.logLevel = app.count("--log-level") != 0 || opt.verbose != 0;
    opt.given.screen = app.count("--screen") != 0;
    opt.given.display = app.count("--display") != 0;
    opt.given.keys = app.count("--keys") != 0;
    opt.given.gestures = noGestures;
    opt.gestures = !noGestures;
    opt.given.touchscreen =
        app.count("--touchscreen") != 0 || app.count("--touchscreen-per-area") != 0;
    opt.given.tuio = app.count("--tuio") != 0;
    if (const std::optional<int> status = ApplyConfigFile(checks, &opt)) return status;
    if (std::find(checks.keyProfiles.begin(), checks.keyProfiles.end(), opt.keys) ==
        checks.keyProfiles.end()) {
        return UsageError("--keys " + QuotedText(opt.keys) + ": use " + Quoted(checks.keyProfiles));
    }

    if (!opt.Simulating() && (!opt.faults.empty() || opt.realtime || !simulateId.empty())) {
        return UsageError("--fault, --realtime and --simulate-id need --simulate");
    }
    if (!opt.dryRun && opt.output != "-") return UsageError("--output needs --dry-run");
    if (!opt.logLevel.empty() && !ParseLogLevel(opt.logLevel)) {
        return UsageError("--log-level " + QuotedText(opt.logLevel) +
                          ": use error, warning, info or debug");
    }
    if (opt.touchscreenPerArea) opt.touchscreen = true;
    if (opt.dryRun && opt.touchscreen) {
        return UsageError("--touchscreen makes a uinput device: it cannot go with --dry-run");
    }
    if (!simulateId.empty() &&
        !ParseUsbId(simulateId, &opt.simulateVendor, &opt.simulateProduct)) {
        return UsageError("--simulate-id " + QuotedText(simulateId) +
                          " is not VVVV:PPPP in hexadecimal");
    }
    if (!simulateId.empty() && !IsServedId(opt.simulateVendor, opt.simulateProduct)) {
        // Discovery would never match the emulated frame: the driver would wait for ever.
        return UsageError("--simulate-id " + QuotedText(simulateId) +
                          " is not a frame the driver serves: use " + ServedIds());
    }
    if (app.count("--tuio") != 0) {
        std::string error;
        if (!ParseTuioTarget(tuioTarget, &error)) return UsageError("--tuio: " + error);
        opt.tuio.enabled = true;
        opt.tuio.target = tuioTarget;
    }
    if (printConfig) return PrintConfiguration(opt, checks);
    return std::nullopt;
}

bool RereadDriverConfig(const TConfigChecks& checks, DriverOptions* options, std::string* error) {
    DriverOptions next = *options;
    TDriverConfig config;
    if (ReadDriverConfig(checks, &next, &config, error) != TConfigStatus::Ok) return false;
    ApplyDriverConfig(config, &next);
    if (std::find(checks.keyProfiles.begin(), checks.keyProfiles.end(), next.keys) ==
        checks.keyProfiles.end()) {
        *error = "configuration " + next.configFile + ": keys.profile '" + next.keys + "': use " +
                 Quoted(checks.keyProfiles);
        return false;
    }
    *options = std::move(next);
    return true;
}

TLogLevel EffectiveLogLevel(const DriverOptions& options) {
    if (const std::optional<TLogLevel> level = ParseLogLevel(options.logLevel)) return *level;
    return options.verbose >= 2 ? TLogLevel::Debug : TLogLevel::Info;
}

void ApplyLogOptions(const DriverOptions& options) {
    TSetLogOutput(EffectiveLogLevel(options), StderrIsJournal());
}
