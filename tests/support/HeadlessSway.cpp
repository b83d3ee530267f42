#include "support/HeadlessSway.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "LinuxScreen.h"

namespace {

std::string Run(const std::string& command) {
    std::string out;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char buffer[4096];
        size_t n;
        while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
        pclose(pipe);
    }
    return out;
}

constexpr const char* kDriver = "org.irframe.Driver1";
constexpr const char* kFrame = "/org/irframe/Driver1/frame1";
constexpr const char* kFrameInterface = "org.irframe.Driver1.Frame";

// The picture an ImageMagick `command` writes as PPM; empty when it writes none.
TPicture ReadPicture(const std::string& command) {
    std::istringstream in(Run(command + " -depth 8 ppm:- 2>/dev/null"));
    TPicture p;
    std::string magic;
    int max = 0;
    in >> magic >> p.width >> p.height >> max;
    in.get();
    p.rgb.assign(std::istreambuf_iterator<char>(in), {});
    return magic == "P6" && p.rgb.size() >= size_t(p.width) * p.height * 3 ? p : TPicture{};
}

}  // namespace

HeadlessSway::HeadlessSway(const std::string& config) {
    char pattern[] = "/tmp/irframe-sway-XXXXXX";
    m_dir = mkdtemp(pattern);
    const uid_t nobody = 65534;
    chown(m_dir.c_str(), nobody, nobody);
    chmod(m_dir.c_str(), 0700);
    std::ofstream(m_dir + "/config") << config;
    m_pid = fork();
    if (m_pid == 0) {
        // Nothing it starts (swaynag on a configuration error) holds the test's output open.
        freopen("/dev/null", "w", stdout);
        freopen((m_dir + "/sway.log").c_str(), "w", stderr);
        if (setgid(nobody) != 0 || setuid(nobody) != 0) _exit(126);
        setenv("XDG_RUNTIME_DIR", m_dir.c_str(), 1);
        setenv("HOME", m_dir.c_str(), 1);
        setenv("WLR_BACKENDS", "headless", 1);
        setenv("WLR_RENDERER", "pixman", 1);
        setenv("WLR_LIBINPUT_NO_DEVICES", "1", 1);
        unsetenv("WAYLAND_DISPLAY");
        unsetenv("DISPLAY");
        unsetenv("SWAYSOCK");
        execlp("sway", "sway", "-c", (m_dir + "/config").c_str(), nullptr);
        _exit(127);
    }
}

HeadlessSway::~HeadlessSway() {
    if (m_pid > 0) {
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
    }
    std::error_code ignored;
    std::filesystem::remove_all(m_dir, ignored);
}

bool HeadlessSway::WaitReady() {
    const auto readyOrGone = [&] {
        for (const auto& entry : std::filesystem::directory_iterator(m_dir)) {
            const std::string name = entry.path().filename();
            if (name.rfind("sway-ipc.", 0) == 0) m_ipc = entry.path();
            if (name.rfind("wayland-", 0) == 0 && name.find(".lock") == std::string::npos) {
                m_wayland = entry.path();
            }
        }
        if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) m_pid = -1;
        return m_pid < 0 || (!m_ipc.empty() && !m_wayland.empty());
    };
    return WaitUntil(readyOrGone) && m_pid > 0;
}

std::string HeadlessSway::Msg(const std::string& arguments) {
    return Run("swaymsg -s '" + m_ipc + "' " + arguments + " 2>&1");
}

std::string HeadlessSway::Log() const { return ReadFile(m_dir + "/sway.log"); }

std::string LayoutText(const TXrandrDesktop& layout) {
    std::ostringstream s;
    s << layout.origin << ":";
    for (const TDisplayOutput& o : layout.outputs) {
        s << " " << o.name << " " << o.rect.x << "," << o.rect.y << " " << o.rect.width << "x"
          << o.rect.height << (o.primary ? " primary" : "");
        if (o.widthMm != 0) s << " " << o.widthMm << "x" << o.heightMm << "mm";
    }
    s << " in " << layout.width << "x" << layout.height;
    return s.str();
}

uint32_t TPicture::At(int x, int y) const {
    const size_t i = (size_t(y) * width + x) * 3;
    return uint32_t(uint8_t(rgb[i])) << 16 | uint32_t(uint8_t(rgb[i + 1])) << 8 |
           uint8_t(rgb[i + 2]);
}

bool NearColour(uint32_t a, uint32_t b) {
    for (int shift : {0, 8, 16}) {
        if (std::abs(int((a >> shift) & 255) - int((b >> shift) & 255)) > 2) return false;
    }
    return true;
}

CDesktopRun::CDesktopRun(std::string driver)
    : m_driver(std::move(driver)), m_scratch("irframe-desktop") {
    SetEnv("XDG_CONFIG_HOME", Path("config"));
    SetEnv("XDG_STATE_HOME", Path("state"));
    SetEnv("GSK_RENDERER", "cairo");  // no GPU here
    if (m_privateBus.Ready()) m_bus = m_privateBus.Connect();
    if (m_bus == nullptr) ADD_FAILURE() << "dbus-daemon is needed (Debian package dbus-daemon)";
}

CDesktopRun::~CDesktopRun() {
    for (auto it = m_pids.rbegin(); it != m_pids.rend(); ++it) {
        kill(*it, SIGTERM);
        WaitExit(*it, 20);
    }
    sd_bus_flush_close_unref(m_bus);
    for (auto it = m_savedEnv.rbegin(); it != m_savedEnv.rend(); ++it) {
        if (it->second) {
            setenv(it->first.c_str(), it->second->c_str(), 1);
        } else {
            unsetenv(it->first.c_str());
        }
    }
}

void CDesktopRun::SetEnv(const char* name, const std::string& value) {
    const char* before = std::getenv(name);
    m_savedEnv.emplace_back(name, before != nullptr ? std::optional<std::string>(before)
                                                    : std::nullopt);
    setenv(name, value.c_str(), 1);
}

pid_t CDesktopRun::Start(const std::vector<std::string>& argv, const std::string& log,
                         const std::string& out) {
    const pid_t pid = SpawnWithOutputFiles(argv, out.empty() ? "/dev/null" : Path(out), Path(log));
    if (pid <= 0) ADD_FAILURE() << "cannot start " << argv[0];
    m_pids.push_back(pid);
    return pid;
}

int CDesktopRun::Wait(pid_t pid, int seconds) {
    std::erase(m_pids, pid);
    return WaitExit(pid, seconds);
}

bool CDesktopRun::StartXvfb() {
    // Xvfb picks a free display number and writes it to descriptor 3.
    const std::string number = Path("display");
    Start({"/bin/sh", "-c",
           "exec Xvfb -displayfd 3 -screen 0 1920x1080x24 -nolisten tcp -noreset -br 3>" + number},
          "xvfb.log");
    if (!WaitUntil([&] { return ReadFile(number).find('\n') != std::string::npos; })) {
        ADD_FAILURE() << "Xvfb is needed (Debian package xvfb): " << Log("xvfb.log");
        return false;
    }
    const std::string text = ReadFile(number);
    SetEnv("DISPLAY", ":" + text.substr(0, text.find('\n')));
    SetEnv("GDK_BACKEND", "x11");
    return true;
}

bool CDesktopRun::StartWeston() {
    const std::string runtime = Path("run");
    mkdir(runtime.c_str(), 0700);
    SetEnv("XDG_RUNTIME_DIR", runtime);
    // --debug offers the screenshooter.
    Start({"/usr/bin/weston", "--backend=headless-backend.so", "--use-pixman", "--debug",
           "--width=1920", "--height=1080", "--socket=irframe-test"},
          "weston.log");
    if (!WaitUntil([&] { return std::filesystem::exists(runtime + "/irframe-test"); })) {
        ADD_FAILURE() << "weston is needed (Debian package weston): " << Log("weston.log");
        return false;
    }
    SetEnv("WAYLAND_DISPLAY", "irframe-test");
    SetEnv("GDK_BACKEND", "wayland");
    m_weston = true;
    return true;
}

pid_t CDesktopRun::StartDriver(const std::string& script, const std::vector<std::string>& faults) {
    std::vector<std::string> argv{m_driver,   "--simulate", m_scratch.File("play.gesture", script),
                                  "--realtime", "--dry-run",  "--output", Path("posted.json")};
    argv.insert(argv.end(), faults.begin(), faults.end());
    const pid_t pid = Start(argv, "irframed.log");
    EXPECT_TRUE(WaitUntil([&] { return State() == "running"; })) << Log("irframed.log");
    return pid;
}

pid_t CDesktopRun::StartWindow(const std::vector<std::string>& argv, const std::string& log,
                               const std::string& out) {
    std::vector<std::string> withEnv{"/usr/bin/env",
                                     "ASAN_OPTIONS=detect_leaks=0:abort_on_error=1"};
    withEnv.insert(withEnv.end(), argv.begin(), argv.end());
    return Start(withEnv, log, out);
}

std::string CDesktopRun::State() {
    char* text = nullptr;
    if (sd_bus_get_property_string(m_bus, kDriver, kFrame, kFrameInterface, "State", nullptr,
                                   &text) < 0) {
        return "";
    }
    const std::string state = text;
    free(text);
    return state;
}

std::optional<bool> CDesktopRun::GesturesHeld() {
    int held = 0;
    if (sd_bus_get_property_trivial(m_bus, kDriver, kFrame, kFrameInterface, "GesturesHeld",
                                    nullptr, 'b', &held) < 0) {
        return std::nullopt;
    }
    return held != 0;
}

std::string CDesktopRun::ReadConfig() {
    sd_bus_message* reply = nullptr;
    const char* json = nullptr;
    EXPECT_GE(sd_bus_call_method(m_bus, kDriver, kFrame, kFrameInterface, "ReadConfig", nullptr,
                                 &reply, ""),
              0);
    const std::string config = sd_bus_message_read(reply, "s", &json) > 0 ? json : "";
    sd_bus_message_unref(reply);
    return config;
}

void CDesktopRun::WriteConfig(const std::string& json) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    EXPECT_GE(sd_bus_call_method(m_bus, kDriver, kFrame, kFrameInterface, "WriteConfig", &error,
                                 nullptr, "s", json.c_str()),
              0)
        << (error.message != nullptr ? error.message : "");
    sd_bus_error_free(&error);
}

TPicture CDesktopRun::Screenshot(const std::string& png, const std::string& crop) {
    const std::string x11 =
        "import -window root " + (crop.empty() ? "" : "-crop " + crop + " +repage ");
    if (png.empty() && !m_weston) return ReadPicture(x11);  // one process: quick to poll
    std::filesystem::create_directories(std::filesystem::path(png).parent_path());
    const std::string shot =
        m_weston ? "cd " + Path("run") + " && weston-screenshooter && mv wayland-screenshot*.png "
                 : x11;
    if (std::system(("(" + shot + png + ") >/dev/null 2>&1").c_str()) != 0) return {};
    return ReadPicture("convert " + png);
}
