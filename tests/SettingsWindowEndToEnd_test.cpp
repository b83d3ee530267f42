// irframe-settings end to end: a private session bus, irframed on an emulated frame whose
// configuration (two areas and a button panel) is written through the bus first, then the
// window under Xvfb. Three fingers held in the two areas and the panel must be drawn in their
// colours where the script put them; the pages are saved as PNG pictures. The drop-in the
// window's model writes must reach the driver through Reload and change the chord it posts,
// with a hand-written irframe.toml left byte for byte. Every wait is for a state (a bus
// property, a painted pixel, a process's end), bounded only against a hang.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>

#include "BusTransport.h"
#include "DevConfigJson.h"
#include "LinuxConfigChecks.h"
#include "LiveView.h"
#include "LiveViewDrawing.h"
#include "TouchSettings.h"
#include "support/ChildProcess.h"
#include "support/PrivateBus.h"
#include "support/TwoAreasAndPanel.h"

namespace {

constexpr const char* kFrame = "/org/irframe/Driver1/frame1";

bool Until(const std::function<bool()>& done, int seconds = 60) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        if (done()) return true;
        usleep(20'000);
    }
    return done();
}

// An RGB picture read from a PNG through ImageMagick.
struct TPicture {
    int width = 0, height = 0;
    std::string rgb;
    uint32_t At(int x, int y) const {
        const size_t i = (size_t(y) * width + x) * 3;
        return uint32_t(uint8_t(rgb[i])) << 16 | uint32_t(uint8_t(rgb[i + 1])) << 8 | uint8_t(rgb[i + 2]);
    }
};

TPicture ReadPicture(const std::string& png) {
    const std::string ppm = png + ".ppm";
    TPicture p;
    if (std::system(("convert " + png + " -depth 8 ppm:" + ppm).c_str()) != 0) return p;
    std::ifstream in(ppm, std::ios::binary);
    std::string magic;
    int max = 0;
    in >> magic >> p.width >> p.height >> max;
    in.get();
    p.rgb.assign(std::istreambuf_iterator<char>(in), {});
    if (magic != "P6" || p.rgb.size() < size_t(p.width) * p.height * 3) p = {};
    unlink(ppm.c_str());
    return p;
}

uint32_t Rgb(const TViewColour& c) {
    const auto byte = [](double v) { return uint32_t(v * 255 + 0.5); };
    return byte(c.r) << 16 | byte(c.g) << 8 | byte(c.b);
}

// Colours within 2 per channel: the window rounds its colours its own way.
bool Near(uint32_t a, uint32_t b) {
    for (int shift : {0, 8, 16}) {
        if (std::abs(int((a >> shift) & 255) - int((b >> shift) & 255)) > 2) return false;
    }
    return true;
}

class SettingsWindowEndToEnd : public testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/settings_e2e.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_dir = dir;
        setenv("XDG_CONFIG_HOME", (m_dir + "/config").c_str(), 1);
        setenv("XDG_STATE_HOME", (m_dir + "/state").c_str(), 1);
        setenv("GSK_RENDERER", "cairo", 1);
        m_privateBus = std::make_unique<CPrivateBus>();
        ASSERT_TRUE(m_privateBus->Ready()) << "dbus-daemon is needed (Debian package dbus-daemon)";
        m_bus = m_privateBus->Connect();
        ASSERT_NE(m_bus, nullptr);
    }

    void TearDown() override {
        for (auto it = m_pids.rbegin(); it != m_pids.rend(); ++it) {
            kill(*it, SIGTERM);
            WaitExit(*it, 20);
        }
        m_bus = sd_bus_flush_close_unref(m_bus);
        m_privateBus.reset();
        for (const char* name : {"XDG_CONFIG_HOME", "XDG_STATE_HOME", "DISPLAY", "GDK_BACKEND"}) unsetenv(name);
        std::system(("rm -rf " + m_dir).c_str());
    }

    pid_t Start(const std::vector<std::string>& argv, const std::string& log) {
        const pid_t pid = SpawnWithOutputFiles(argv, "/dev/null", m_dir + "/" + log);
        EXPECT_GT(pid, 0) << argv[0];
        m_pids.push_back(pid);
        return pid;
    }

    // Xvfb on a display number it picks itself; DISPLAY is set for the children.
    void StartXvfb() {
        const std::string number = m_dir + "/display";
        const pid_t pid = Start({"/bin/sh", "-c", "exec Xvfb -displayfd 3 -screen 0 1920x1080x24 "
                                 "-nolisten tcp -noreset -br 3>" + number},
                                "xvfb.log");
        ASSERT_TRUE(Until([&] { return ReadFile(number).find('\n') != std::string::npos; }))
            << "Xvfb is needed (Debian package xvfb): " << ReadFile(m_dir + "/xvfb.log");
        (void)pid;
        m_display = ":" + ReadFile(number).substr(0, ReadFile(number).find('\n'));
        setenv("DISPLAY", m_display.c_str(), 1);
        setenv("GDK_BACKEND", "x11", 1);
    }

    // A property of frame 1: a string, or "true"/"false".
    std::string Property(const char* name, const char* type = "s") {
        sd_bus_message* reply = nullptr;
        std::string value;
        if (sd_bus_get_property(m_bus, kDriverBusName, kFrame, kFrameInterface, name, nullptr,
                                &reply, type) >= 0) {
            if (*type == 'b') {
                int b = 0;
                sd_bus_message_read(reply, "b", &b);
                value = b ? "true" : "false";
            } else {
                const char* text = nullptr;
                sd_bus_message_read(reply, "s", &text);
                value = text != nullptr ? text : "";
            }
        }
        sd_bus_message_unref(reply);
        return value;
    }

    // The driver on a script that waits for the first configuration written.
    pid_t StartDriver(const std::string& script) {
        const std::string path = m_dir + "/play.gesture";
        std::ofstream(path) << script;
        const pid_t pid = Start({IRFRAMED_PATH, "--simulate", path, "--realtime", "--dry-run",
                                 "--output", m_dir + "/posted.json", "--fault", "hold:1@0"},
                                "irframed.log");
        EXPECT_TRUE(Until([&] { return Property("State") == "running"; })) << ReadFile(m_dir + "/irframed.log");
        return pid;
    }

    std::unique_ptr<_HARDWARE_DEV_CONFIG> ReadConfig() {
        sd_bus_message* reply = nullptr;
        auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
        const char* json = nullptr;
        std::string error;
        EXPECT_GE(sd_bus_call_method(m_bus, kDriverBusName, kFrame, kFrameInterface, "ReadConfig",
                                     nullptr, &reply, ""), 0);
        sd_bus_message_read(reply, "s", &json);
        EXPECT_TRUE(DevConfigFromJson(json != nullptr ? json : "", config.get(), &error)) << error;
        sd_bus_message_unref(reply);
        return config;
    }

    void WriteConfig(const _HARDWARE_DEV_CONFIG& config) {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        EXPECT_GE(sd_bus_call_method(m_bus, kDriverBusName, kFrame, kFrameInterface, "WriteConfig",
                                     &error, nullptr, "s", DevConfigToJson(config).c_str()),
                  0)
            << (error.message != nullptr ? error.message : "");
        sd_bus_error_free(&error);
    }

    // A screenshot of the window's corner of the screen (all of it with `whole`), saved among
    // the pictures as `name` (or at `name` when it is a path).
    TPicture Screenshot(const std::string& name, bool whole = false) {
        const std::string dir = IRFRAME_SCREENSHOT_DIR;
        mkdir(dir.c_str(), 0755);
        const std::string path = name[0] == '/' ? name : dir + "/" + name;
        if (std::system(("import -window root " + std::string(whole ? "" : "-crop 1100x760+0+0 +repage ") + path + " 2>/dev/null").c_str()) != 0) return {};
        return ReadPicture(path);
    }

    pid_t StartWindow(const std::vector<std::string>& options) {
        std::vector<std::string> argv{IRFRAME_SETTINGS_PATH};
        argv.insert(argv.end(), options.begin(), options.end());
        // The desktop libraries keep caches until the process ends, which a leak check would
        // count; the window's own code is leak-checked by its unit tests.
        const char* before = std::getenv("ASAN_OPTIONS");
        const std::string kept = before != nullptr ? before : "";
        setenv("ASAN_OPTIONS", "detect_leaks=0:abort_on_error=1", 1);
        const pid_t pid = Start(argv, "settings.log");
        if (before != nullptr) {
            setenv("ASAN_OPTIONS", kept.c_str(), 1);
        } else {
            unsetenv("ASAN_OPTIONS");
        }
        return pid;
    }

    // Under X11 also until its window is off the screen, so that the next picture is the next
    // window's.
    void StopWindow(pid_t pid) {
        kill(pid, SIGTERM);
        WaitExit(pid, 30);
        std::erase(m_pids, pid);
        if (m_display.empty()) return;
        EXPECT_TRUE(Until([&] {
            const TPicture p = Screenshot(m_dir + "/gone.png");
            return p.width > 0 && p.At(600, 400) == 0;
        }));
    }

    // Three fingers moving into two areas and the panel of the frame (script units run across
    // the frame as seen from the front), then holding far longer than the test needs.
    struct TFinger {
        int x, y;
        uint32_t colour;
    };
    const std::vector<TFinger> m_fingers = {{8000, 20000, Rgb(PlaceColour({"area", 0}))},
                                            {24000, 24000, Rgb(PlaceColour({"area", 1}))},
                                            {16000, 2000, Rgb(PlaceColour({"panel", 2}))}};

    // The driver playing them once two areas and a panel are written through the bus; the
    // configuration before, saved in a file.
    std::string StartFramesWithAreas();

    std::unique_ptr<CPrivateBus> m_privateBus;
    sd_bus* m_bus = nullptr;
    std::string m_dir, m_display;
    std::vector<pid_t> m_pids;
};

std::string SettingsWindowEndToEnd::StartFramesWithAreas() {
    StartDriver("rate 100\ndown 1 4000 16000, 2 20000 16000, 3 12000 2000\n"
                "move 1 8000 20000, 2 24000 24000, 3 16000 2000 in 30\nhold 30000\n");
    const auto original = ReadConfig();
    const std::string saved = m_dir + "/original.json";
    std::ofstream(saved) << DevConfigToJson(*original);
    WriteConfig(TwoAreasAndPanel(*original));
    EXPECT_EQ(ReadConfig()->areaCount, 2);
    return saved;
}

// Verify the pages under X11: the frames list, the live view with three fingers drawn in the
// colour of the area or panel under them, the shortcuts page, and the restore dialog.
TEST_F(SettingsWindowEndToEnd, PagesUnderXvfb) {
    StartXvfb();
    const std::string saved = StartFramesWithAreas();
    pid_t window = StartWindow({"--page", "live"});
    TPicture shot;
    int left = 0, right = 0, top = 0, bottom = 0;
    // The frame's outline: the rows and columns with a long run of its colour.
    const auto findFrame = [&] {
        shot = Screenshot("settings-live-view.png");
        if (shot.width == 0) return false;
        const uint32_t outline = Rgb(kFrameOutlineColour);
        left = right = top = bottom = -1;
        for (int y = 0; y < shot.height; ++y) {
            int run = 0;
            for (int x = 0; x < shot.width; ++x) run += shot.At(x, y) == outline;
            if (run > 200) (top < 0 ? top : bottom) = y;
        }
        for (int x = 0; x < shot.width; ++x) {
            int run = 0;
            for (int y = 0; y < shot.height; ++y) run += shot.At(x, y) == outline;
            if (run > 100) (left < 0 ? left : right) = x;
        }
        if (top < 0 || bottom < 0 || left < 0 || right < 0) return false;
        for (const TFinger& f : m_fingers) {
            const int x = left + (right - left) * f.x / 32766, y = top + (bottom - top) * f.y / 32766;
            if (!Near(shot.At(x, y), f.colour)) return false;
        }
        return true;
    };
    EXPECT_TRUE(Until(findFrame, 90)) << "frame " << left << "," << top << " " << right << ","
                                      << bottom << "\n" << ReadFile(m_dir + "/settings.log");
    StopWindow(window);

    for (const auto& [page, picture] : {std::pair{"frames", "settings-frames.png"},
                                        std::pair{"touch", "settings-shortcuts.png"}}) {
        window = StartWindow({"--page", page});
        // Painted: the window's corner is no longer the empty screen's black.
        EXPECT_TRUE(Until([&] {
            const TPicture p = Screenshot(picture);
            return p.width > 0 && p.At(600, 400) != 0;
        })) << page;
        StopWindow(window);
    }

    window = StartWindow({"--page", "backups", "--restore", saved});
    EXPECT_TRUE(Until([&] {
        return std::system("xdotool search --onlyvisible --name '^Restore a configuration$' >/dev/null 2>&1") == 0;
    })) << "xdotool is needed (Debian package xdotool)";
    EXPECT_TRUE(Until([&] {
        const TPicture p = Screenshot("settings-restore.png");
        return p.width > 0 && p.At(300, 200) != 0;
    }));
    StopWindow(window);
}

// Verify "which screen is this frame on?": "touch here" holds the gestures until a touch on the
// target, which lets them go (a stray touch would keep asking).
TEST_F(SettingsWindowEndToEnd, WhichScreenUnderXvfb) {
    StartXvfb();
    StartDriver("rate 100\ndown 1 3000 3000\nhold 3\nup 1\nhold 3\n"
                "down 1 16383 16383\nhold 3\nup 1\nhold 30000\n");
    StartWindow({"--which-screen"});
    ASSERT_TRUE(Until([&] { return Property("GesturesHeld", "b") == "true"; }))
        << ReadFile(m_dir + "/settings.log");
    EXPECT_TRUE(Until([&] {
        // Beyond the settings window: "touch here" fills the screen.
        const TPicture p = Screenshot("settings-which-screen.png", true);
        return p.width > 1500 && p.At(1500, 900) == 0xFFFFFF;
    }));
    WriteConfig(*ReadConfig());  // the script plays: a stray touch, then one on the target
    EXPECT_TRUE(Until([&] { return Property("GesturesHeld", "b") == "false"; }))
        << ReadFile(m_dir + "/settings.log");
}

// Verify that the window shows the frame's contacts under a headless Wayland compositor too:
// its pictures (weston's own screenshooter) hold each finger's dot.
TEST_F(SettingsWindowEndToEnd, LiveViewUnderWeston) {
    const std::string runtime = m_dir + "/run";
    mkdir(runtime.c_str(), 0700);
    setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    Start({"/usr/bin/weston", "--backend=headless-backend.so", "--use-pixman", "--debug",
           "--width=1280", "--height=800", "--socket=settings"},
          "weston.log");
    ASSERT_TRUE(Until([&] {
        struct stat st;
        return stat((runtime + "/settings").c_str(), &st) == 0;
    })) << "weston is needed (Debian package weston): " << ReadFile(m_dir + "/weston.log");
    setenv("WAYLAND_DISPLAY", "settings", 1);
    setenv("GDK_BACKEND", "wayland", 1);
    StartFramesWithAreas();
    StartWindow({"--page", "live"});
    const std::string shots = m_dir + "/shots";
    mkdir(shots.c_str(), 0700);
    const auto dotsShown = [&] {
        const std::string png = m_dir + "/weston.png";
        if (std::system(("cd " + shots + " && weston-screenshooter >/dev/null 2>&1 && mv *.png " + png)
                            .c_str()) != 0) {
            return false;
        }
        const TPicture p = ReadPicture(png);
        for (const TFinger& f : m_fingers) {
            int count = 0;  // a dot of radius 14 has about 600 pixels
            for (int y = 0; y < p.height; ++y) {
                for (int x = 0; x < p.width; ++x) count += Near(p.At(x, y), f.colour);
            }
            if (count < 400) return false;
        }
        return p.width > 0;
    };
    EXPECT_TRUE(Until(dotsShown, 90)) << ReadFile(m_dir + "/settings.log");
    for (const char* name : {"XDG_RUNTIME_DIR", "WAYLAND_DISPLAY"}) unsetenv(name);
}

// Verify that a shortcut chosen through the model reaches the driver: its drop-in is written,
// the driver reloads, the four-finger swipe presses the new chord, and the hand-written
// irframe.toml is untouched.
TEST_F(SettingsWindowEndToEnd, ShortcutThroughDropInAndReload) {
    const std::string dir = m_dir + "/config/irframe";
    ASSERT_EQ(std::system(("mkdir -p " + dir).c_str()), 0);
    const std::string handWritten = "# my room's settings\n[keys]\nprofile = \"safe\"  # keep\n";
    std::ofstream(dir + "/irframe.toml") << handWritten;
    const pid_t driver = StartDriver(
        "rate 100\ndown 1 10000 10000, 2 14000 10000, 3 10000 14000, 4 14000 14000\n"
        "move 1 9000 10000, 2 13000 10000, 3 9000 14000, 4 13000 14000 in 10\nhold 3\n"
        "up 1, 2, 3, 4\nhold 1\n");
    const TConfigChecks checks = LinuxConfigChecks();
    TTouchChoices choices;
    choices.shortcuts[size_t(TGestureShortcut::FourFingerLeft)] = "ctrl+alt+f5";
    std::string error;
    ASSERT_TRUE(WriteTouchChoices(SettingsDropInPath(ProcessConfigEnvironment("")), choices, checks,
                                  &error)) << error;
    const std::string reloaded = ReloadDriver();
    WriteConfig(*ReadConfig());  // the script plays now
    ASSERT_EQ(WaitExit(driver, 120), 0) << ReadFile(m_dir + "/irframed.log");
    std::erase(m_pids, driver);
    EXPECT_NE(ReadFile(m_dir + "/posted.json")
                  .find("\"linuxKeys\":[\"KEY_LEFTCTRL\",\"KEY_LEFTALT\",\"KEY_F5\"]"),
              std::string::npos)
        << reloaded << "\n" << ReadFile(m_dir + "/posted.json");
    EXPECT_EQ(ReadFile(dir + "/irframe.toml"), handWritten);
}

}  // namespace
