// irframe-calibrate end to end: a private session bus, irframed playing an emulated frame whose
// touches land where a planted mis-calibration puts them, and the calibrator's window under Xvfb
// and under a headless Wayland compositor (weston). After the calibrator's write the script taps
// other points; each posted click must be within 2 px of its point. The X11 run saves the target
// and check screens as PNG pictures. Every wait is for a state (a bus property, a process's end,
// a painted pixel), bounded only against a hang.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/PrivateBus.h"

extern char** environ;

namespace {

constexpr const char* kName = "org.irframe.Driver1";
constexpr const char* kFrame = "/org/irframe/Driver1/frame1";
constexpr const char* kFrameIface = "org.irframe.Driver1.Frame";
constexpr int kW = 1920, kH = 1080;

using Args = std::vector<std::string>;

// Runs `args` with `env` added to this process's environment; output to files.
pid_t Spawn(const Args& args, const std::map<std::string, std::string>& env,
            const std::string& out = "/dev/null", const std::string& err = "/dev/null") {
    std::vector<std::string> envText;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        if (env.count(entry.substr(0, entry.find('='))) == 0) envText.push_back(entry);
    }
    for (const auto& [k, v] : env) envText.push_back(k + "=" + v);
    std::vector<char*> argv, envp;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    for (std::string& e : envText) envp.push_back(e.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Where a frame mounted off puts a screen point, in the script's (uncalibrated) units.
struct TPlanted {
    double rotationDeg, scaleX, scaleY, offsetX, offsetY;  // offsets in pixels

    std::pair<int, int> Script(double x, double y) const {
        const double a = rotationDeg * M_PI / 180, dx = (x - kW / 2.0) * scaleX,
                     dy = (y - kH / 2.0) * scaleY;
        const double px = kW / 2.0 + offsetX + dx * std::cos(a) - dy * std::sin(a);
        const double py = kH / 2.0 + offsetY + dx * std::sin(a) + dy * std::cos(a);
        return {static_cast<int>(std::lround(px * 32767 / kW)),
                static_cast<int>(std::lround(py * 32767 / kH))};
    }
};

const std::vector<std::pair<double, double>> kTargets = {
    {240, 135}, {1680, 135}, {1680, 945}, {240, 945}, {960, 540}};
// Taps between the targets and across the middle, where a frame whose positions stepped at
// the centre would land them off.
const std::vector<std::pair<double, double>> kTaps = {
    {480, 270}, {1450, 800}, {975, 548}, {700, 820}, {1300, 330}};

class CalibrationToolEndToEnd : public testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/calibrate_e2e.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_dir = dir;
        m_privateBus = std::make_unique<CPrivateBus>();
        ASSERT_TRUE(m_privateBus->Ready()) << "dbus-daemon is needed (Debian package dbus-daemon)";
        m_bus = m_privateBus->Connect();
        ASSERT_NE(m_bus, nullptr);
    }

    void TearDown() override {
        for (auto it = m_pids.rbegin(); it != m_pids.rend(); ++it) {
            kill(*it, SIGTERM);
            WaitExit(*it, 10);
        }
        m_bus = sd_bus_flush_close_unref(m_bus);
        m_privateBus.reset();
        std::system(("rm -rf " + m_dir).c_str());
    }

    // Polls `done` every 10 ms, up to a bound far beyond what it needs.
    static bool Until(const std::function<bool()>& done, int seconds = 60) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (std::chrono::steady_clock::now() < end) {
            if (done()) return true;
            usleep(10'000);
        }
        return done();
    }

    // Xvfb on a display number it picks itself; the DISPLAY value.
    std::string StartXvfb() {
        int fds[2];
        EXPECT_EQ(pipe(fds), 0);
        const pid_t pid = Spawn({"Xvfb", "-displayfd", std::to_string(fds[1]), "-screen", "0",
                                 "1920x1080x24", "-nolisten", "tcp", "-noreset"},
                                {});
        close(fds[1]);
        EXPECT_GT(pid, 0) << "Xvfb is needed (Debian package xvfb)";
        m_pids.push_back(pid);
        std::string number;
        char c;
        while (read(fds[0], &c, 1) == 1 && c != '\n') number.push_back(c);
        close(fds[0]);
        EXPECT_FALSE(number.empty()) << "Xvfb did not start";
        return ":" + number;
    }

    // Headless weston; the environment a client needs.
    std::map<std::string, std::string> StartWeston() {
        const std::string runtime = m_dir + "/run";
        mkdir(runtime.c_str(), 0700);
        const std::string socket = "calibrate-" + std::to_string(getpid());
        const pid_t pid = Spawn({"weston", "--backend=headless-backend.so", "--width=1920",
                                 "--height=1080", "--socket=" + socket},
                                {{"XDG_RUNTIME_DIR", runtime}}, "/dev/null", m_dir + "/weston.log");
        EXPECT_GT(pid, 0) << "weston is needed (Debian package weston)";
        m_pids.push_back(pid);
        struct stat st;
        EXPECT_TRUE(Until([&] { return stat((runtime + "/" + socket).c_str(), &st) == 0; }))
            << ReadFile(m_dir + "/weston.log");
        return {{"XDG_RUNTIME_DIR", runtime}, {"WAYLAND_DISPLAY", socket}, {"GDK_BACKEND", "wayland"}};
    }

    std::string Property(const char* name, const char* type) {
        sd_bus_message* reply = nullptr;
        std::string out;
        if (sd_bus_get_property(m_bus, kName, kFrame, kFrameIface, name, nullptr, &reply, type) >= 0) {
            if (*type == 'b') {
                int b = 0;
                sd_bus_message_read(reply, "b", &b);
                out = b ? "true" : "false";
            } else {
                const char* s = nullptr;
                sd_bus_message_read(reply, "s", &s);
                out = s != nullptr ? s : "";
            }
        }
        sd_bus_message_unref(reply);
        return out;
    }

    // The frame's configuration written back unchanged: it lets the script go on.
    void WriteSameConfig() {
        sd_bus_message* reply = nullptr;
        ASSERT_GE(sd_bus_call_method(m_bus, kName, kFrame, kFrameIface, "ReadConfig", nullptr,
                                     &reply, ""),
                  0);
        const char* json = nullptr;
        sd_bus_message_read(reply, "s", &json);
        const std::string config = json;
        sd_bus_message_unref(reply);
        ASSERT_GE(sd_bus_call_method(m_bus, kName, kFrame, kFrameIface, "WriteConfig", nullptr,
                                     nullptr, "s", config.c_str()),
                  0);
    }

    // Writes the script; its frame count before the taps in `*beforeTaps`.
    std::string Script(const TPlanted& planted, size_t targets, bool taps, int* beforeTaps) {
        std::ostringstream s;
        int frames = 0;
        s << "rate 100\n";
        for (size_t i = 0; i < targets; ++i) {
            const auto [x, y] = planted.Script(kTargets[i].first, kTargets[i].second);
            s << "down 1 " << x << " " << y << "\nhold 45\nup 1\nhold 20\n";
            frames += 67;
        }
        *beforeTaps = frames;
        if (taps) {
            for (const auto& [tx, ty] : kTaps) {
                const auto [x, y] = planted.Script(tx, ty);
                s << "hold 40\ndown 1 " << x << " " << y << "\nhold 3\nup 1\n";
            }
        }
        s << "hold 10\n";
        const std::string path = m_dir + "/calibrate.gesture";
        std::ofstream(path) << s.str();
        return path;
    }

    pid_t StartDriver(const std::string& script, const Args& faults) {
        Args args{IRFRAMED_PATH, "--simulate", script, "--realtime", "--dry-run", "--output",
                  m_dir + "/posted.json"};
        args.insert(args.end(), faults.begin(), faults.end());
        const pid_t pid = Spawn(args, {}, "/dev/null", m_dir + "/irframed.log");
        m_pids.push_back(pid);
        EXPECT_TRUE(Until([&] { return Property("State", "s") == "running"; }))
            << ReadFile(m_dir + "/irframed.log");
        return pid;
    }

    pid_t StartCalibrator(const Args& options, std::map<std::string, std::string> env) {
        env["GSK_RENDERER"] = "cairo";
        env["XDG_STATE_HOME"] = m_dir + "/state";
        // The desktop libraries keep caches (fonts, types, modules loaded and unloaded) until
        // the process ends, which a leak check would count against the exit status checked
        // here; the calibrator's own code is leak-checked by its unit tests.
        env["ASAN_OPTIONS"] = "detect_leaks=0:abort_on_error=1";
        Args args{IRFRAME_CALIBRATE_PATH};
        args.insert(args.end(), options.begin(), options.end());
        const pid_t pid = Spawn(args, env, m_dir + "/calibrate.out", m_dir + "/calibrate.err");
        m_pids.push_back(pid);
        return pid;
    }

    // Under Xvfb: the colour of one pixel of the screen ("#RRGGBB").
    static std::string Pixel(const std::string& display, int x, int y) {
        const std::string out = "/tmp/calibrate_e2e_pixel_" + std::to_string(getpid()) + ".txt";
        std::system(("DISPLAY=" + display + " import -window root -depth 8 -crop 1x1+" + std::to_string(x) +
                     "+" + std::to_string(y) + " txt:" + out + " 2>" + out + ".err")
                        .c_str());
        const std::string text = ReadFile(out);
        const size_t hash = text.rfind('#');
        return hash == std::string::npos ? "" : text.substr(hash, 7);
    }

    static void Screenshot(const std::string& display, const std::string& name) {
        const std::string dir = IRFRAME_SCREENSHOT_DIR;
        std::system(("mkdir -p " + dir + " && DISPLAY=" + display + " import -window root " + dir +
                     "/" + name)
                        .c_str());
    }

    // The whole run with --yes: the targets, the write, then the taps; checks every tap.
    void CalibrateAndTap(const std::map<std::string, std::string>& display, const std::string& x11) {
        const TPlanted planted{3.0, 1.06, 0.95, 40, -30};
        int beforeTaps = 0;
        const std::string script = Script(planted, kTargets.size(), true, &beforeTaps);
        const pid_t driver = StartDriver(
            script, {"--fault", "hold:1@0", "--fault", "hold:2@" + std::to_string(beforeTaps)});
        const pid_t calibrator = StartCalibrator({"--yes"}, display);
        ASSERT_TRUE(Until([&] { return Property("GesturesHeld", "b") == "true"; }))
            << ReadFile(m_dir + "/calibrate.err");
        if (!x11.empty()) {
            ASSERT_TRUE(Until([&] { return Pixel(x11, 1900, 1060) == "#FFFFFF"; }, 10))
                << Pixel(x11, 1900, 1060) << x11 << ReadFile(m_dir + "/calibrate.err");
            Screenshot(x11, "calibration-targets.png");
        }
        WriteSameConfig();  // the script touches the targets now
        EXPECT_EQ(WaitExit(calibrator, 120), 0) << ReadFile(m_dir + "/calibrate.err");
        const std::string said = ReadFile(m_dir + "/calibrate.out");
        const size_t at = said.find("backup: ");
        ASSERT_NE(at, std::string::npos) << said;
        const std::string backup = said.substr(at + 8, said.find('\n', at) - at - 8);
        EXPECT_EQ(backup.rfind(m_dir + "/state/irframe/backups/frame1-", 0), 0u) << backup;
        EXPECT_NE(ReadFile(backup).find("\"areas\""), std::string::npos);
        EXPECT_EQ(WaitExit(driver, 120), 0) << ReadFile(m_dir + "/irframed.log");

        std::vector<std::pair<double, double>> downs;
        std::istringstream lines(ReadFile(m_dir + "/posted.json"));
        for (std::string line; std::getline(lines, line);) {
            if (line.find("\"leftMouseDown\"") == std::string::npos) continue;
            const size_t x = line.find("\"x\":"), y = line.find("\"y\":");
            downs.push_back({std::stod(line.substr(x + 4)), std::stod(line.substr(y + 4))});
        }
        ASSERT_EQ(downs.size(), kTaps.size()) << ReadFile(m_dir + "/posted.json");
        for (size_t i = 0; i < kTaps.size(); ++i) {
            EXPECT_LE(std::hypot(downs[i].first - kTaps[i].first, downs[i].second - kTaps[i].second),
                      2.0)
                << "tap " << i << " at " << kTaps[i].first << "," << kTaps[i].second << " came at "
                << downs[i].first << "," << downs[i].second;
        }
    }

    std::unique_ptr<CPrivateBus> m_privateBus;
    sd_bus* m_bus = nullptr;
    std::string m_dir;
    std::vector<pid_t> m_pids;
};

// Verify the whole calibration under X11: every tap after it lands within 2 px of its point.
TEST_F(CalibrationToolEndToEnd, CalibratesUnderXvfb) {
    const std::string display = StartXvfb();
    CalibrateAndTap({{"DISPLAY", display}, {"GDK_BACKEND", "x11"}}, display);
}

// Verify the same on a headless Wayland compositor.
TEST_F(CalibrationToolEndToEnd, CalibratesUnderWeston) {
    CalibrateAndTap(StartWeston(), "");
}

// Verify the check screen (its picture is saved) and that Esc there cancels with nothing written.
TEST_F(CalibrationToolEndToEnd, CheckScreenAndEscape) {
    const std::string display = StartXvfb();
    const TPlanted planted{-2.0, 0.97, 1.04, -25, 20};
    int beforeTaps = 0;
    const std::string script = Script(planted, kTargets.size(), false, &beforeTaps);
    // The frame stays after the targets: the script waits for a second write that never comes.
    StartDriver(script, {"--fault", "hold:1@0", "--fault", "hold:2@" + std::to_string(beforeTaps)});
    const pid_t calibrator = StartCalibrator({}, {{"DISPLAY", display}, {"GDK_BACKEND", "x11"}});
    ASSERT_TRUE(Until([&] { return Property("GesturesHeld", "b") == "true"; }));
    WriteSameConfig();
    // The check screen: a green cross where the first target's touch lands now.
    const auto green = [&] {
        const std::string p = Pixel(display, 240, 135);
        return p.size() == 7 && std::stoi(p.substr(1, 2), nullptr, 16) < 0x40 &&
               std::stoi(p.substr(3, 2), nullptr, 16) > 0x60 &&
               std::stoi(p.substr(5, 2), nullptr, 16) < 0x40;
    };
    ASSERT_TRUE(Until(green))
        << ReadFile(m_dir + "/calibrate.err");
    Screenshot(display, "calibration-check.png");
    ASSERT_EQ(std::system(("DISPLAY=" + display + " xdotool key Escape").c_str()), 0)
        << "xdotool is needed (Debian package xdotool)";
    EXPECT_EQ(WaitExit(calibrator, 60), 5);
    EXPECT_EQ(Property("GesturesHeld", "b"), "false");
    EXPECT_EQ(ReadFile(m_dir + "/calibrate.out"), "");
}

// Verify that a frame unplugged in the middle ends the calibration with 1 and writes nothing,
// and that no touch at all ends it with 5 after its time-out.
TEST_F(CalibrationToolEndToEnd, FrameUnpluggedAndTimeOut) {
    const std::string display = StartXvfb();
    int beforeTaps = 0;
    const std::string script = Script({0, 1, 1, 0, 0}, 2, false, &beforeTaps);
    const pid_t driver = StartDriver(script, {"--fault", "hold:1@0"});
    pid_t calibrator = StartCalibrator({}, {{"DISPLAY", display}, {"GDK_BACKEND", "x11"}});
    ASSERT_TRUE(Until([&] { return Property("GesturesHeld", "b") == "true"; }));
    WriteSameConfig();  // two targets, then the frame is gone
    EXPECT_EQ(WaitExit(calibrator, 60), 1);
    EXPECT_NE(ReadFile(m_dir + "/calibrate.err").find("went away"), std::string::npos)
        << ReadFile(m_dir + "/calibrate.err");
    EXPECT_EQ(WaitExit(driver, 60), 0);

    const std::string idle = m_dir + "/idle.gesture";
    std::ofstream(idle) << "hold 10\n";
    StartDriver(idle, {"--fault", "hold:1@0"});
    calibrator = StartCalibrator({"--timeout", "1"}, {{"DISPLAY", display}, {"GDK_BACKEND", "x11"}});
    EXPECT_EQ(WaitExit(calibrator, 60), 5) << ReadFile(m_dir + "/calibrate.err");
}

}  // namespace
