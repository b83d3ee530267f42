// The desktops' touchscreen settings that irframectl map writes, each read back by the desktop's
// own client: gsettings (keyfile backend), kreadconfig5, the sway snippet's text, xinput under
// Xvfb.
#include "DesktopMapping.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>

#include "FrameAccess.h"
#include "support/ChildProcess.h"
#include "support/HeadlessSway.h"
#include "support/PrivateBus.h"

namespace {

using testing::HasSubstr;

const TTouchscreenId kFrame{"irframe touchscreen serial 0123AB", 0xAAEC, 0xC020};
const TTouchscreenId kArea{"irframe touchscreen serial 0123AB area 1", 0xAAEC, 0xC020};
const TMonitorId kMonitor{"HDMI-1", "GSM", "LG ULTRAFINE", "0x0001'b"};

std::string Client(const std::vector<std::string>& argv) {
    const TProgramResult result = RunProgram(argv);
    EXPECT_EQ(result.status, 0) << argv[0] << ": " << result.err;
    return result.out;
}

// What the tool error `action` throws says; empty when it throws none.
std::string Refusal(const std::function<void()>& action) {
    try {
        action();
    } catch (const CToolError& e) {
        return e.what();
    }
    return "";
}

// Each test in a configuration directory of its own, without a session bus.
class DesktopMapping : public testing::Test {
protected:
    void SetUp() override {
        setenv("XDG_CONFIG_HOME", (m_dir + "/config").c_str(), 1);
        setenv("XDG_RUNTIME_DIR", m_dir.c_str(), 1);
        setenv("GSETTINGS_BACKEND", "keyfile", 1);
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
        unsetenv("SWAYSOCK");
        std::filesystem::create_directories(m_dir + "/config");
    }
    std::unique_ptr<IDesktopMapping> Mapping(TDesktop desktop) {
        return MakeDesktopMapping(desktop, m_dir + "/config");
    }
    std::string Map(TDesktop desktop, const TTouchscreenId& device, const TMonitorId& monitor) {
        std::ostringstream out;
        Mapping(desktop)->Map(device, monitor, out);
        return out.str();
    }

    CScratchDir m_scratch{"desktopmapping_test"};
    const std::string m_dir = m_scratch.Dir();
};

// Verify the desktop found from the session's variables, the first known name of
// XDG_CURRENT_DESKTOP first.
TEST(DesktopDetection, FromTheSessionVariables) {
    struct TCase {
        TDesktopEnvironment environment;
        std::optional<TDesktop> desktop;
    };
    const TCase cases[] = {
        {{"ubuntu:GNOME", true, false, true}, TDesktop::Gnome},
        {{"KDE", true, false, true}, TDesktop::Kde},
        {{"sway", true, true, false}, TDesktop::Wlroots},
        {{"", true, true, false}, TDesktop::Wlroots},     // SWAYSOCK alone
        {{"labwc:wlroots", true, false, false}, TDesktop::Wlroots},
        {{"XFCE", false, false, true}, TDesktop::X11},
        {{"Unknown", true, false, true}, std::nullopt},  // a Wayland desktop not known
        {{"", false, false, false}, std::nullopt},
    };
    for (const TCase& c : cases) {
        std::string why;
        EXPECT_EQ(DetectDesktop(c.environment, &why), c.desktop) << c.environment.currentDesktop;
        if (!c.desktop) {
            EXPECT_THAT(why, HasSubstr("--desktop")) << c.environment.currentDesktop;
        }
    }
    EXPECT_EQ(ParseDesktop("wlroots"), TDesktop::Wlroots);
    EXPECT_EQ(ParseDesktop("sway"), std::nullopt);
}

// Verify what a program's run gives back: its outputs and status, a missing program told
// apart, and one that does not end killed at the time-out.
TEST(DesktopMappingParts, RunProgram) {
    const TProgramResult echo = RunProgram({"sh", "-c", "echo out; echo err >&2; exit 3"});
    EXPECT_TRUE(echo.found);
    EXPECT_EQ(echo.status, 3);
    EXPECT_EQ(echo.out, "out\n");
    EXPECT_EQ(echo.err, "err\n");
    EXPECT_FALSE(RunProgram({"irframe-no-such-program"}).found);
    const TProgramResult stuck = RunProgram({"sleep", "600"}, 50);
    EXPECT_EQ(stuck.status, -1);
    EXPECT_EQ(stuck.err, "sleep did not end within 0.05 s");
}

// Verify the matrix that puts a device spanning the X screen on one monitor of it.
TEST(DesktopMappingParts, CoordinateMatrix) {
    EXPECT_EQ(CoordinateMatrix(1920, 0, 1920, 1080, 3840, 1080),
              (std::vector<double>{0.5, 0, 0.5, 0, 1, 0, 0, 0, 1}));
    EXPECT_EQ(CoordinateMatrix(0, 1080, 1280, 720, 1920, 1800),
              (std::vector<double>{1280.0 / 1920, 0, 0, 0, 0.4, 0.6, 0, 0, 1}));
    EXPECT_EQ(CoordinateMatrix(0, 0, 10, 10, 0, 0),
              (std::vector<double>{1, 0, 0, 0, 1, 0, 0, 0, 1}));
}

// Verify GNOME's setting read back through gsettings, with the monitor's vendor, product,
// serial (a quote in it) and connector in that order.
TEST_F(DesktopMapping, GnomeThroughGsettings) {
    EXPECT_EQ(GnomeTouchscreenPath(kFrame), "/org/gnome/desktop/peripherals/touchscreens/aaec:c020/");
    EXPECT_EQ(Mapping(TDesktop::Gnome)->Show(kFrame), "not set");
    EXPECT_THAT(Map(TDesktop::Gnome, kFrame, kMonitor), HasSubstr("GNOME: "));
    EXPECT_EQ(Client({"gsettings", "get",
                   "org.gnome.desktop.peripherals.touchscreen:"
                   "/org/gnome/desktop/peripherals/touchscreens/aaec:c020/",
                   "output"}),
              "['GSM', 'LG ULTRAFINE', \"0x0001'b\", 'HDMI-1']\n");
    EXPECT_EQ(Mapping(TDesktop::Gnome)->Show(kFrame), "['GSM', 'LG ULTRAFINE', \"0x0001'b\", 'HDMI-1']");

    // Without a session bus Mutter cannot be asked: the connector alone, and a note saying so.
    std::vector<std::string> notes;
    const TMonitorId known = Mapping(TDesktop::Gnome)->Monitor("DP-2", &notes);
    EXPECT_EQ(known.connector, "DP-2");
    EXPECT_EQ(known.vendor, "");
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_THAT(notes[0], HasSubstr("inside the GNOME session"));
}

// Verify KDE's kcminputrc entry read back by kreadconfig5, one group per device.
TEST_F(DesktopMapping, KdeThroughKcminputrc) {
    EXPECT_EQ(Mapping(TDesktop::Kde)->Show(kFrame), "not set");
    EXPECT_THAT(Map(TDesktop::Kde, kFrame, kMonitor), HasSubstr("in force from the next login"));
    Map(TDesktop::Kde, kArea, {"DP-2", "", "", ""});
    const auto read = [](const TTouchscreenId& device) {
        return Client({"kreadconfig5", "--file", "kcminputrc", "--group", "Libinput", "--group",
                    "43756", "--group", "49184", "--group", device.name, "--key", "OutputName"});
    };
    EXPECT_EQ(read(kFrame), "HDMI-1\n");
    EXPECT_EQ(read(kArea), "DP-2\n");
    EXPECT_EQ(Mapping(TDesktop::Kde)->Show(kArea), "OutputName=DP-2");
}

// Verify the sway snippet: one line per device in sway's identifier form, a new mapping
// replacing the device's line and keeping the others and the user's own lines.
TEST_F(DesktopMapping, WlrootsSnippet) {
    const std::string snippet = m_dir + "/config/irframe/wlroots-map.conf";
    EXPECT_EQ(SwayIdentifier({" a\tb c ", 1, 2}), "1:2:a_b_c");
    EXPECT_THAT(Map(TDesktop::Wlroots, kFrame, kMonitor), HasSubstr("include " + snippet));
    Map(TDesktop::Wlroots, kArea, {"DP-2", "", "", ""});
    std::ofstream(snippet, std::ios::app) << "# mine\n";
    Map(TDesktop::Wlroots, kFrame, {"DP-3", "", "", ""});
    EXPECT_EQ(ReadFile(snippet),
              "# Which monitor each irframe touchscreen lies on; written by irframectl map.\n"
              "input \"43756:49184:irframe_touchscreen_serial_0123AB\" map_to_output DP-3\n"
              "input \"43756:49184:irframe_touchscreen_serial_0123AB_area_1\" map_to_output DP-2\n"
              "# mine\n");
    EXPECT_EQ(Mapping(TDesktop::Wlroots)->Show(kArea), "map_to_output DP-2 in " + snippet);
    EXPECT_THROW(Map(TDesktop::Wlroots, {"a\"b", 1, 2}, kMonitor), CToolError);

    // A snippet that is not a regular file is refused, not replaced.
    std::filesystem::remove(snippet);
    std::filesystem::create_directory(snippet);
    EXPECT_THROW(Map(TDesktop::Wlroots, kFrame, kMonitor), CToolError);
}

// Verify that sway takes the snippet's lines, each a command of its configuration language, and
// that map sends the line to the running sway when SWAYSOCK names it.
TEST_F(DesktopMapping, WlrootsSnippetTakenBySway) {
    ASSERT_EQ(system("command -v sway swaymsg > /dev/null"), 0)
        << "sway is needed (scripts/setup-test.sh installs it)";
    Map(TDesktop::Wlroots, kFrame, kMonitor);
    Map(TDesktop::Wlroots, kArea, {"HEADLESS-1", "", "", ""});
    HeadlessSway sway;
    ASSERT_TRUE(sway.WaitReady()) << sway.Log();
    std::istringstream lines(ReadFile(m_dir + "/config/irframe/wlroots-map.conf"));
    int commands = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#') continue;
        EXPECT_THAT(sway.Msg("'" + line + "'"), HasSubstr("\"success\": true")) << line;
        ++commands;
    }
    EXPECT_EQ(commands, 2);
    EXPECT_THAT(sway.Msg("'input \"1:2:x\" map_to_outputt HEADLESS-1'"),
                HasSubstr("\"success\": false"));

    setenv("SWAYSOCK", sway.IpcSocket().c_str(), 1);
    EXPECT_THAT(Map(TDesktop::Wlroots, kArea, {"HEADLESS-2", "", "", ""}),
                HasSubstr("sway maps it now"));
    EXPECT_THAT(Map(TDesktop::Wlroots, kArea, {"HEADLESS-1 junk", "", "", ""}),
                HasSubstr("sway did not take it now"));
    unsetenv("SWAYSOCK");
}

// Verify the XInput matrix set through xinput on an X server's device, from the output's place
// in the X screen, and an output the server does not have refused with the ones it has.
TEST_F(DesktopMapping, X11ThroughXinput) {
    const std::string out = m_dir + "/xvfb.out";
    const pid_t xvfb = SpawnWithOutputFiles(
        {"/usr/bin/Xvfb", "-displayfd", "1", "-screen", "0", "1280x800x24", "-nolisten", "tcp",
         "-noreset"},
        out,
        m_dir + "/xvfb.err");
    ASSERT_GT(xvfb, 0) << "Xvfb is needed (Debian package xvfb)";
    std::string display;
    ASSERT_TRUE(WaitUntil([&] { return (display = ReadFile(out)).find('\n') != std::string::npos; }))
        << ReadFile(m_dir + "/xvfb.err");
    setenv("DISPLAY", (":" + display.substr(0, display.find('\n'))).c_str(), 1);

    // Xvfb's own devices keep their properties whatever a client sets (checked with xinput
    // alone): the matrix is read back, the writing seen as xinput's success.
    const TTouchscreenId mouse{"Xvfb mouse", 0, 0};
    const std::string identity = "1.000000, 0.000000, 0.000000, 0.000000, 1.000000, 0.000000, "
                                 "0.000000, 0.000000, 1.000000";
    EXPECT_EQ(Mapping(TDesktop::X11)->Show(mouse), identity);
    EXPECT_THAT(Map(TDesktop::X11, mouse, {"screen", "", "", ""}),
                HasSubstr("Coordinate Transformation Matrix 1 0 0 0 1 0 0 0 1"));
    EXPECT_THAT(Refusal([&] { Map(TDesktop::X11, mouse, {"HDMI-9", "", "", ""}); }),
                HasSubstr("screen"));
    EXPECT_THAT(Refusal([&] { Map(TDesktop::X11, {"no such device", 0, 0}, {"screen", "", "", ""}); }),
                HasSubstr("irframed runs with --touchscreen"));
    kill(xvfb, SIGTERM);
    waitpid(xvfb, nullptr, 0);
    unsetenv("DISPLAY");
}

// Mutter's monitor list and KWin's input devices, as the desktops offer them on the session bus:
// one handler answers Mutter's method and the properties of KWin's objects.
class CFakeDesktopServices {
public:
    explicit CFakeDesktopServices(const CPrivateBus& bus) : m_connection(bus) {
        sd_bus* b = m_connection.Bus();
        m_ok = b != nullptr && sd_bus_add_fallback(b, nullptr, "/", &Handle, this) >= 0 &&
               sd_bus_request_name(b, "org.gnome.Mutter.DisplayConfig", 0) >= 0 &&
               sd_bus_request_name(b, "org.kde.KWin", 0) >= 0;
        if (m_ok) m_connection.Serve();
    }
    ~CFakeDesktopServices() { m_connection.Stop(); }
    bool Ok() const { return m_ok; }
    std::string Output(const std::string& sysName) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_outputs[sysName];
    }

private:
    static int Handle(sd_bus_message* m, void* self, sd_bus_error*) {
        auto* services = static_cast<CFakeDesktopServices*>(self);
        const std::string method = sd_bus_message_get_member(m);
        if (method == "GetCurrentState") {
            // Two monitors, each with one mode and whether it is built in; no logical monitors.
            const TMonitorId& k = kMonitor;
            return sd_bus_reply_method_return(
                m, "ua((ssss)a(siiddada{sv})a{sv})a(iiduba(ssss)a{sv})a{sv}", 7u, 2, "eDP-1",
                "BOE", "0x0a1c", "0x00000000", 1, "1920x1080@60", 1920, 1080, 60.0, 1.0, 2, 1.0,
                2.0, 0, 1, "is-builtin", "b", 0, k.connector.c_str(), k.vendor.c_str(),
                k.product.c_str(), k.serial.c_str(), 1, "1920x1080@60", 1920, 1080, 60.0, 1.0, 2,
                1.0, 2.0, 0, 1, "is-builtin", "b", 0, 0, 0);
        }
        // Properties.Get or Set of KWin's device manager or of one device, by its sysname.
        const char* interface = nullptr;
        const char* property = nullptr;
        if (sd_bus_message_read(m, "ss", &interface, &property) < 0) return 0;
        const std::string name = property;
        const std::string sysName = std::strrchr(sd_bus_message_get_path(m), '/') + 1;
        std::lock_guard<std::mutex> lock(services->m_mutex);
        if (method == "Set") {
            const char* output = "";
            sd_bus_message_read(m, "v", "s", &output);
            services->m_outputs[sysName] = output;
            return sd_bus_reply_method_return(m, "");
        }
        if (name == "devicesSysNames") {
            return sd_bus_reply_method_return(m, "v", "as", 2, "event3", "event4");
        }
        if (name == "name") {
            return sd_bus_reply_method_return(
                m, "v", "s", sysName == "event4" ? kArea.name.c_str() : "Some keyboard");
        }
        return sd_bus_reply_method_return(m, "v", "s", services->m_outputs[sysName].c_str());
    }

    CServedConnection m_connection;
    bool m_ok = false;
    std::mutex m_mutex;
    std::map<std::string, std::string> m_outputs;  // by sysname
};

// Verify that GNOME's monitor comes from Mutter with its vendor, product and serial, and that
// KWin's input device of the touchscreen's name takes the output at once.
TEST_F(DesktopMapping, AsksMutterAndKwinOnTheSessionBus) {
    CPrivateBus bus;
    ASSERT_TRUE(bus.Ready()) << "dbus-daemon is needed (Debian package dbus-daemon)";
    CFakeDesktopServices services(bus);
    ASSERT_TRUE(services.Ok());

    std::vector<std::string> notes;
    const TMonitorId monitor = Mapping(TDesktop::Gnome)->Monitor("HDMI-1", &notes);
    EXPECT_TRUE(notes.empty());
    EXPECT_EQ(monitor.vendor, kMonitor.vendor);
    EXPECT_EQ(monitor.product, kMonitor.product);
    EXPECT_EQ(monitor.serial, kMonitor.serial);
    EXPECT_THAT(Refusal([&] { Mapping(TDesktop::Gnome)->Monitor("DP-9", &notes); }),
                HasSubstr("its monitors: eDP-1, HDMI-1"));

    EXPECT_THAT(Map(TDesktop::Kde, kArea, kMonitor), HasSubstr("KWin maps it to HDMI-1 now"));
    EXPECT_EQ(services.Output("event4"), "HDMI-1");
    EXPECT_EQ(services.Output("event3"), "");
}

}  // namespace
