#include "DesktopMapping.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "BusTransport.h"
#include "DesktopDisplayServices.h"
#include "FrameAccess.h"
#include "InputFile.h"
#include "LinuxScreen.h"
#include "OutputFile.h"
#include "QuotedText.h"

extern char** environ;

namespace {

constexpr size_t kMaxProgramOutput = 64 * 1024;
constexpr size_t kMaxSnippetBytes = 64 * 1024;

std::string FirstLine(const std::string& text) {
    std::string line = text.substr(0, text.find('\n'));
    while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back()))) line.pop_back();
    return EscapedText(line);
}

std::string Trimmed(std::string text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
    size_t start = 0;
    while (start < text.size() && std::isspace(static_cast<unsigned char>(text[start]))) ++start;
    return text.substr(start);
}

// Runs the first of `programs` that is installed with `args`; throws naming `package` when none
// is.
TProgramResult RunInstalled(const std::vector<std::string>& programs,
                            const std::vector<std::string>& args, const std::string& package) {
    for (const std::string& program : programs) {
        std::vector<std::string> argv{program};
        argv.insert(argv.end(), args.begin(), args.end());
        TProgramResult result = RunProgram(argv);
        if (result.found) return result;
    }
    throw CToolError(kCtlFailure, programs.front() + " is not installed: install " + package);
}

// ---------------------------------------------------------------------------------------------
// GNOME

constexpr const char* kGnomeSchema = "org.gnome.desktop.peripherals.touchscreen";

class CGnomeMapping final : public IDesktopMapping {
public:
    TDesktop Desktop() const override { return TDesktop::Gnome; }

    TMonitorId Monitor(const std::string& connector, std::vector<std::string>* notes) override {
        std::string why;
        const std::optional<std::vector<TMonitorId>> monitors = MutterMonitors(&why);
        if (!monitors) {
            notes->push_back("GNOME's monitor list (org.gnome.Mutter.DisplayConfig) did not "
                             "answer (" + why + "): the setting names the connector only, but "
                             "GNOME finds the monitor by its vendor, product and serial; run "
                             "irframectl map again inside the GNOME session");
            return {connector, "", "", ""};
        }
        std::string names;
        for (const TMonitorId& monitor : *monitors) {
            if (monitor.connector == connector) return monitor;
            names += (names.empty() ? "" : ", ") + EscapedText(monitor.connector);
        }
        throw CToolError(kCtlUsage, "GNOME has no monitor " + QuotedText(connector) +
                                        "; its monitors: " + (names.empty() ? "none" : names));
    }

    void Map(const TTouchscreenId& device, const TMonitorId& monitor,
             std::ostream& out) override {
        const std::string value = GVariantStrings(
            {monitor.vendor, monitor.product, monitor.serial, monitor.connector});
        const TProgramResult result = Gsettings({"set", Where(device), "output", value});
        if (result.status != 0) {
            throw CToolError(kCtlFailure, "gsettings could not set " + Where(device) +
                                              " output: " + FirstLine(result.err) + Hint(result));
        }
        out << "GNOME: " << EscapedText(device.name) << ": " << Where(device) << " output "
            << value << "\n";
    }

    std::string Show(const TTouchscreenId& device) override {
        const TProgramResult result = Gsettings({"get", Where(device), "output"});
        if (result.status != 0) return "cannot read: " + FirstLine(result.err) + Hint(result);
        const std::string value = Trimmed(result.out);
        return value == "['', '', '']" || value == "['', '', '', '']"
                   ? "not set"
                   : EscapedText(value, 200);
    }

private:
    static std::string Where(const TTouchscreenId& device) {
        return std::string(kGnomeSchema) + ":" + GnomeTouchscreenPath(device);
    }
    static TProgramResult Gsettings(const std::vector<std::string>& args) {
        return RunInstalled({"gsettings"}, args, "libglib2.0-bin");
    }
    static std::string Hint(const TProgramResult& result) {
        return result.err.find("No such schema") != std::string::npos
                   ? " (install gsettings-desktop-schemas)"
                   : "";
    }

    // The monitors as Mutter reports them: connector, vendor, product, serial.
    static std::optional<std::vector<TMonitorId>> MutterMonitors(std::string* why) {
        sd_bus* bus = OpenSessionBus(why);
        if (bus == nullptr) return std::nullopt;
        const std::optional<TMutterState> state = QueryMutterState(bus, why);
        sd_bus_flush_close_unref(bus);
        if (!state) return std::nullopt;
        std::vector<TMonitorId> monitors;
        for (const TMutterMonitor& m : state->monitors) {
            monitors.push_back({m.connector, m.vendor, m.product, m.serial});
        }
        return monitors;
    }
};

// ---------------------------------------------------------------------------------------------
// KDE Plasma

class CKdeMapping final : public IDesktopMapping {
public:
    TDesktop Desktop() const override { return TDesktop::Kde; }

    void Map(const TTouchscreenId& device, const TMonitorId& monitor,
             std::ostream& out) override {
        std::vector<std::string> args = Group(device);
        args.push_back(monitor.connector);
        const TProgramResult result = RunInstalled({"kwriteconfig6", "kwriteconfig5"}, args,
                                                   "libkf5config-bin (Plasma 6: kf6-kconfig)");
        if (result.status != 0) {
            throw CToolError(kCtlFailure, "kwriteconfig could not write kcminputrc: " +
                                              FirstLine(result.err + result.out) +
                                              "; check that ~/.config is writable");
        }
        out << "KDE: " << EscapedText(device.name) << ": kcminputrc [Libinput]["
            << device.vendorId << "][" << device.productId << "][" << EscapedText(device.name)
            << "] OutputName=" << monitor.connector << "\n";
        std::string why;
        if (SetKwinOutput(device, monitor.connector, &why)) {
            out << "KDE: " << EscapedText(device.name) << ": KWin maps it to "
                << monitor.connector << " now\n";
        } else {
            out << "KDE: " << EscapedText(device.name) << ": in force from the next login or "
                << "plugging (" << why << ")\n";
        }
    }

    std::string Show(const TTouchscreenId& device) override {
        const TProgramResult result = RunInstalled({"kreadconfig6", "kreadconfig5"},
                                                   Group(device), "libkf5config-bin");
        if (result.status != 0) return "cannot read: " + FirstLine(result.err);
        const std::string value = Trimmed(result.out);
        return value.empty() ? "not set" : "OutputName=" + EscapedText(value);
    }

private:
    static std::vector<std::string> Group(const TTouchscreenId& device) {
        return {"--file", "kcminputrc", "--group", "Libinput",
                "--group", std::to_string(device.vendorId),
                "--group", std::to_string(device.productId),
                "--group", device.name, "--key", "OutputName"};
    }

    // Sets the outputName property of KWin's input device of that name, when KWin runs.
    static bool SetKwinOutput(const TTouchscreenId& device, const std::string& output,
                              std::string* why) {
        sd_bus* bus = OpenSessionBus(why);
        if (bus == nullptr) return false;
        constexpr const char* kKwin = "org.kde.KWin";
        constexpr const char* kDeviceInterface = "org.kde.KWin.InputDevice";
        sd_bus_error error = SD_BUS_ERROR_NULL;
        char** sysNames = nullptr;
        bool set = false;
        *why = "KWin does not run";
        if (sd_bus_get_property_strv(bus, kKwin, "/org/kde/KWin/InputDevice",
                                     "org.kde.KWin.InputDeviceManager", "devicesSysNames", &error,
                                     &sysNames) >= 0) {
            *why = "KWin has no input device of that name; it appears once irframed runs with "
                   "--touchscreen";
            for (size_t i = 0; sysNames != nullptr && sysNames[i] != nullptr && i < 256; ++i) {
                const std::string path = std::string("/org/kde/KWin/InputDevice/") + sysNames[i];
                char* name = nullptr;
                sd_bus_error_free(&error);
                if (sd_bus_get_property_string(bus, kKwin, path.c_str(), kDeviceInterface, "name",
                                               &error, &name) >= 0 &&
                    name != nullptr && device.name == name) {
                    sd_bus_error_free(&error);
                    set = sd_bus_set_property(bus, kKwin, path.c_str(), kDeviceInterface,
                                              "outputName", &error, "s", output.c_str()) >= 0;
                    if (!set) {
                        *why = "KWin refused the output: " +
                               EscapedText(error.message != nullptr ? error.message : "");
                    }
                }
                std::free(name);
                if (set) break;
            }
            for (size_t i = 0; sysNames != nullptr && sysNames[i] != nullptr; ++i) {
                std::free(sysNames[i]);
            }
            std::free(sysNames);
        }
        sd_bus_error_free(&error);
        sd_bus_flush_close_unref(bus);
        return set;
    }
};

// ---------------------------------------------------------------------------------------------
// wlroots compositors, in sway's configuration language

class CWlrootsMapping final : public IDesktopMapping {
public:
    explicit CWlrootsMapping(const std::string& configHome)
        : m_dir(configHome + "/irframe"), m_snippet(m_dir + "/wlroots-map.conf") {}

    TDesktop Desktop() const override { return TDesktop::Wlroots; }

    void Map(const TTouchscreenId& device, const TMonitorId& monitor,
             std::ostream& out) override {
        const std::string identifier = Identifier(device);
        const std::string text = SetSwayMapping(Read(), identifier, monitor.connector);
        MakeDirectories(m_dir);
        COutputFile file;
        std::string error;
        if (!file.Open(m_snippet, COutputFile::TExisting::Replace, &error) ||
            !file.Write(text) || !file.Commit(&error)) {
            throw CToolError(kCtlFailure, error.empty() ? "cannot write " + m_snippet : error);
        }
        out << "wlroots: " << EscapedText(device.name) << ": " << m_snippet << ": input \""
            << identifier << "\" map_to_output " << monitor.connector << "\n";
        out << "wlroots: include it once in the compositor's configuration (sway: ~/.config/sway/"
               "config) with the line: include " << m_snippet << "\n";
        if (std::getenv("SWAYSOCK") != nullptr) {
            const TProgramResult now = RunProgram(
                {"swaymsg", "input", identifier, "map_to_output", monitor.connector});
            out << "wlroots: " << (now.status == 0 ? "sway maps it now"
                                                   : "sway did not take it now: " +
                                                         FirstLine(now.out + now.err))
                << "\n";
        }
    }

    std::string Show(const TTouchscreenId& device) override {
        const std::string prefix = "input \"" + SwayIdentifier(device) + "\" map_to_output ";
        std::istringstream lines(Read());
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind(prefix, 0) == 0) {
                return "map_to_output " + EscapedText(line.substr(prefix.size())) + " in " +
                       m_snippet;
            }
        }
        return "not set";
    }

private:
    static std::string Identifier(const TTouchscreenId& device) {
        const std::string identifier = SwayIdentifier(device);
        if (identifier.find_first_of("\"\\") != std::string::npos) {
            throw CToolError(kCtlFailure, "the device name " + QuotedText(device.name) +
                                              " holds a quote, which a sway configuration "
                                              "cannot name; map it with swaymsg by hand");
        }
        return identifier;
    }

    std::string Read() const {
        struct stat info {};
        if (stat(m_snippet.c_str(), &info) != 0 && errno == ENOENT) return "";
        std::string text, why;
        if (!S_ISREG(info.st_mode)) {
            why = "not a regular file";
        } else if (ReadInputFile(m_snippet, kMaxSnippetBytes, &text, &why)) {
            return text;
        }
        throw CToolError(kCtlBadInput, "cannot read " + QuotedText(m_snippet) + ": " + why +
                                           "; remove it and map again");
    }

    std::string m_dir;
    std::string m_snippet;
};

// ---------------------------------------------------------------------------------------------
// X11

class CX11Mapping final : public IDesktopMapping {
public:
    TDesktop Desktop() const override { return TDesktop::X11; }

    void Map(const TTouchscreenId& device, const TMonitorId& monitor,
             std::ostream& out) override {
        std::string why;
        const std::optional<TXrandrDesktop> desktop = QueryXrandrDesktop(nullptr, &why);
        if (!desktop) {
            throw CToolError(kCtlFailure, "no X server answers (" + why +
                                              "); run irframectl map inside the X session");
        }
        std::string error;
        const std::optional<TDisplayGeometry> geometry = ChooseOutputGeometry(
            desktop->outputs, monitor.connector, desktop->width, desktop->height, &error);
        if (!geometry) throw CToolError(kCtlUsage, error);
        const TScreenRect& r = geometry->main;
        const std::vector<double> matrix = CoordinateMatrix(
            r.x, r.y, r.width, r.height, geometry->desktopWidth, geometry->desktopHeight);
        std::vector<std::string> args{"set-prop", device.name, kMatrixProperty};
        std::string values;
        for (double value : matrix) {
            char text[32];
            std::snprintf(text, sizeof text, "%.6g", value);
            args.emplace_back(text);
            values += (values.empty() ? "" : " ") + std::string(text);
        }
        const TProgramResult result = RunInstalled({"xinput"}, args, "xinput");
        if (result.status != 0) {
            throw CToolError(kCtlFailure, "xinput could not set the matrix of " +
                                              QuotedText(device.name) + ": " +
                                              FirstLine(result.err + result.out) +
                                              "; the device exists while irframed runs with "
                                              "--touchscreen");
        }
        out << "X11: " << EscapedText(device.name) << ": " << kMatrixProperty << " " << values
            << " (until the device is made again: run irframectl map after each start of "
               "irframed)\n";
    }

    std::string Show(const TTouchscreenId& device) override {
        const TProgramResult result = RunInstalled({"xinput"}, {"list-props", device.name},
                                                   "xinput");
        if (result.status != 0) return "cannot read: " + FirstLine(result.err + result.out);
        std::istringstream lines(result.out);
        for (std::string line; std::getline(lines, line);) {
            const size_t at = line.find(kMatrixProperty);
            const size_t colon = line.find(':', at);
            if (at != std::string::npos && colon != std::string::npos) {
                return EscapedText(Trimmed(line.substr(colon + 1)), 200);
            }
        }
        return "not set";
    }

private:
    static constexpr const char* kMatrixProperty = "Coordinate Transformation Matrix";
};

}  // namespace

std::optional<TDesktop> ParseDesktop(std::string_view text) {
    for (TDesktop desktop : {TDesktop::Gnome, TDesktop::Kde, TDesktop::Wlroots, TDesktop::X11}) {
        if (text == DesktopName(desktop)) return desktop;
    }
    return std::nullopt;
}

const char* DesktopName(TDesktop desktop) {
    switch (desktop) {
        case TDesktop::Gnome: return "gnome";
        case TDesktop::Kde: return "kde";
        case TDesktop::Wlroots: return "wlroots";
        case TDesktop::X11: return "x11";
    }
    return "";
}

TDesktopEnvironment ProcessDesktopEnvironment() {
    const auto set = [](const char* name) {
        const char* value = std::getenv(name);
        return value != nullptr && *value != '\0';
    };
    TDesktopEnvironment environment;
    if (const char* current = std::getenv("XDG_CURRENT_DESKTOP")) {
        environment.currentDesktop = current;
    }
    environment.wayland = set("WAYLAND_DISPLAY");
    environment.swaySocket = set("SWAYSOCK");
    environment.x11 = set("DISPLAY");
    return environment;
}

std::optional<TDesktop> DetectDesktop(const TDesktopEnvironment& environment, std::string* why) {
    // XDG_CURRENT_DESKTOP is a list ("ubuntu:GNOME"): the first name known wins.
    std::istringstream names(environment.currentDesktop);
    for (std::string name; std::getline(names, name, ':');) {
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (name == "gnome" || name == "gnome-classic") return TDesktop::Gnome;
        if (name == "kde") return TDesktop::Kde;
        if (name == "sway" || name == "labwc" || name == "wayfire" || name == "river" ||
            name == "hyprland" || name == "wlroots") {
            return TDesktop::Wlroots;
        }
    }
    if (environment.swaySocket) return TDesktop::Wlroots;
    if (environment.wayland) {
        *why = "a Wayland desktop that irframectl does not know (XDG_CURRENT_DESKTOP " +
               QuotedText(environment.currentDesktop) +
               "); name it with --desktop gnome, kde or wlroots";
        return std::nullopt;
    }
    if (environment.x11) return TDesktop::X11;
    *why = "no desktop found (neither WAYLAND_DISPLAY nor DISPLAY is set); run it in the "
           "desktop session or name it with --desktop gnome, kde, wlroots or x11";
    return std::nullopt;
}

TProgramResult RunProgram(const std::vector<std::string>& argv, int timeoutMillis) {
    TProgramResult result;
    int outPipe[2], errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0) return result;
    if (pipe2(errPipe, O_CLOEXEC) != 0) {
        close(outPipe[0]);
        close(outPipe[1]);
        return result;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    const int spawned = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(outPipe[1]);
    close(errPipe[1]);
    if (spawned != 0) {
        close(outPipe[0]);
        close(errPipe[0]);
        result.found = spawned != ENOENT;
        result.err = std::strerror(spawned);
        return result;
    }
    // Both pipes at once, so that a program filling one does not wait for ever.
    std::array<pollfd, 2> fds{{{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}}};
    std::array<std::string*, 2> into{&result.out, &result.err};
    size_t open = 2;
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMillis);
    bool late = false;
    while (open > 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            late = true;  // a program that waits for something that never comes
            kill(pid, SIGKILL);
            break;
        }
        if (poll(fds.data(), fds.size(), static_cast<int>(left.count())) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (size_t i = 0; i < fds.size(); ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buffer[4096];
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            } else if (into[i]->size() < kMaxProgramOutput) {
                into[i]->append(buffer, std::min(static_cast<size_t>(n),
                                                 kMaxProgramOutput - into[i]->size()));
            }
        }
    }
    for (const pollfd& fd : fds) {
        if (fd.fd >= 0) close(fd.fd);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(status) && !late ? WEXITSTATUS(status) : -1;
    if (late) {
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%g s", timeoutMillis / 1000.0);
        result.err = argv[0] + " did not end within " + seconds;
    }
    return result;
}

std::unique_ptr<IDesktopMapping> MakeDesktopMapping(TDesktop desktop,
                                                    const std::string& configHome) {
    switch (desktop) {
        case TDesktop::Gnome: return std::make_unique<CGnomeMapping>();
        case TDesktop::Kde: return std::make_unique<CKdeMapping>();
        case TDesktop::Wlroots: return std::make_unique<CWlrootsMapping>(configHome);
        case TDesktop::X11: return std::make_unique<CX11Mapping>();
    }
    return nullptr;
}

void MakeDirectories(const std::string& dir) {
    for (size_t end = dir.find('/', 1);; end = dir.find('/', end + 1)) {
        const std::string part = dir.substr(0, end);
        if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            throw CToolError(kCtlFailure, "cannot make " + QuotedText(part) + ": " +
                                              std::strerror(errno));
        }
        if (end == std::string::npos) return;
    }
}

std::string GnomeTouchscreenPath(const TTouchscreenId& device) {
    char ids[16];
    std::snprintf(ids, sizeof ids, "%04x:%04x", device.vendorId, device.productId);
    return std::string("/org/gnome/desktop/peripherals/touchscreens/") + ids + "/";
}

std::string GVariantStrings(const std::vector<std::string>& items) {
    std::string text = "[";
    for (size_t i = 0; i < items.size(); ++i) {
        text += i > 0 ? ", '" : "'";
        for (unsigned char c : items[i]) {
            if (c == '\'' || c == '\\') {
                text += '\\';
                text += static_cast<char>(c);
            } else if (c < 0x20 || c == 0x7f) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                text += escaped;
            } else {
                text += static_cast<char>(c);
            }
        }
        text += "'";
    }
    return text + "]";
}

std::string SwayIdentifier(const TTouchscreenId& device) {
    // As sway makes it: the name without its outer blanks, each blank or unprintable byte '_'.
    std::string name = Trimmed(device.name);
    for (char& c : name) {
        if (c == ' ' || std::isprint(static_cast<unsigned char>(c)) == 0) c = '_';
    }
    return std::to_string(device.vendorId) + ":" + std::to_string(device.productId) + ":" + name;
}

std::string SetSwayMapping(const std::string& text, const std::string& identifier,
                           const std::string& output) {
    const std::string prefix = "input \"" + identifier + "\" ";
    const std::string line = prefix + "map_to_output " + output;
    std::string result;
    bool replaced = false;
    std::istringstream lines(text);
    for (std::string current; std::getline(lines, current);) {
        if (current.rfind(prefix, 0) == 0) {
            if (replaced) continue;  // one line per device
            current = line;
            replaced = true;
        }
        result += current + "\n";
    }
    if (result.empty()) {
        result = "# Which monitor each irframe touchscreen lies on; written by irframectl map.\n";
    }
    if (!replaced) result += line + "\n";
    return result;
}

std::vector<double> CoordinateMatrix(double x, double y, double w, double h, double width,
                                     double height) {
    if (!(width > 0) || !(height > 0)) return {1, 0, 0, 0, 1, 0, 0, 0, 1};
    return {w / width, 0, x / width, 0, h / height, y / height, 0, 0, 1};
}
