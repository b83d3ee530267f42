#include "DesktopDisplayServices.h"

#include <sys/wait.h>
#include <systemd/sd-bus.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include <signal.h>
#include <unistd.h>

#include "support/ChildProcess.h"
#include "support/PrivateBus.h"

using ::testing::HasSubstr;

namespace {

using TReplyWriter = std::function<void(sd_bus_message*)>;

// GNOME's and KDE's display services as they answer on the bus; a null writer leaves the
// service off the bus.
class CDisplayServices {
public:
    CDisplayServices(const CPrivateBus& bus, TReplyWriter mutter, TReplyWriter kscreen)
        : m_connection(bus),
          m_bus(m_connection.Bus()),
          m_mutter(std::move(mutter)),
          m_kscreen(std::move(kscreen)) {
        if (m_bus == nullptr) return;
        m_ok = true;
        // A stand-in just closed may still hold the name in the daemon's eyes: take it over.
        const uint64_t flags = SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING;
        if (m_mutter) {
            sd_bus_add_object(m_bus, nullptr, "/org/gnome/Mutter/DisplayConfig", &Answer, this);
            m_ok = m_ok && sd_bus_request_name(m_bus, "org.gnome.Mutter.DisplayConfig", flags) >= 0;
        }
        if (m_kscreen) {
            sd_bus_add_object(m_bus, nullptr, "/backend", &Answer, this);
            m_ok = m_ok && sd_bus_request_name(m_bus, "org.kde.KScreen", flags) >= 0;
        }
        m_connection.Serve();
    }
    ~CDisplayServices() { m_connection.Stop(); }
    bool Ok() const { return m_ok; }

private:
    // KScreen is a Qt service: asked without an interface, it answers by the method's name.
    static int Answer(sd_bus_message* m, void* data, sd_bus_error*) {
        auto* self = static_cast<CDisplayServices*>(data);
        const bool mutter = sd_bus_message_is_method_call(
            m, "org.gnome.Mutter.DisplayConfig", "GetCurrentState");
        const bool kscreen = sd_bus_message_is_method_call(m, nullptr, "getConfig");
        if (!mutter && !kscreen) return 0;
        sd_bus_message* reply = nullptr;
        sd_bus_message_new_method_return(m, &reply);
        (mutter ? self->m_mutter : self->m_kscreen)(reply);
        const int r = sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
        return r;
    }

    CServedConnection m_connection;
    sd_bus* const m_bus;
    TReplyWriter m_mutter, m_kscreen;
    bool m_ok = false;
};

// ----- Mutter's GetCurrentState

struct TLitMonitor {
    const char* connector;
    int modeWidth, modeHeight;
    int x, y;
    double scale;
    unsigned transform;
    bool primary;
};

TReplyWriter MutterState(std::vector<TLitMonitor> lit, unsigned layoutMode) {
    return [lit, layoutMode](sd_bus_message* r) {
        sd_bus_message_append(r, "u", 7u);
        sd_bus_message_open_container(r, 'a', "((ssss)a(siiddada{sv})a{sv})");
        for (const TLitMonitor& monitor : lit) {
            sd_bus_message_open_container(r, 'r', "(ssss)a(siiddada{sv})a{sv}");
            sd_bus_message_append(r, "(ssss)", monitor.connector, "GSM", "LG", "0x01");
            // A mode that is not current comes first: only "is-current" chooses.
            sd_bus_message_append(r, "a(siiddada{sv})", 2, "640x480@60", 640, 480, 60.0, 1.0, 1,
                                  1.0, 0, "current", monitor.modeWidth, monitor.modeHeight,
                                  60.0, 1.0, 1, 1.0, 1, "is-current", "b", 1);
            sd_bus_message_append(r, "a{sv}", 1, "display-name", "s", "Monitor");
            sd_bus_message_close_container(r);
        }
        // A monitor that is plugged in but not lit.
        sd_bus_message_open_container(r, 'r', "(ssss)a(siiddada{sv})a{sv}");
        sd_bus_message_append(r, "(ssss)a(siiddada{sv})a{sv}", "HDMI-1", "DEL", "U2", "7", 0, 0);
        sd_bus_message_close_container(r);
        sd_bus_message_close_container(r);

        sd_bus_message_open_container(r, 'a', "(iiduba(ssss)a{sv})");
        for (const TLitMonitor& monitor : lit) {
            sd_bus_message_append(r, "(iiduba(ssss)a{sv})", monitor.x, monitor.y, monitor.scale,
                                  monitor.transform, monitor.primary, 1, monitor.connector,
                                  "GSM", "LG", "0x01", 0);
        }
        sd_bus_message_close_container(r);
        sd_bus_message_append(r, "a{sv}", 1, "layout-mode", "u", layoutMode);
    };
}

// ----- KScreen's getConfig: Qt's JSON-shaped maps, its numbers as doubles

void Number(sd_bus_message* r, const char* key, double value) {
    sd_bus_message_append(r, "{sv}", key, "d", value);
}

void Pair(sd_bus_message* r, const char* key, const char* first, double a, const char* second,
          double b) {
    sd_bus_message_open_container(r, 'e', "sv");
    sd_bus_message_append(r, "s", key);
    sd_bus_message_open_container(r, 'v', "a{sv}");
    sd_bus_message_open_container(r, 'a', "{sv}");
    Number(r, first, a);
    Number(r, second, b);
    sd_bus_message_close_container(r);
    sd_bus_message_close_container(r);
    sd_bus_message_close_container(r);
}

struct TKscreenOutput {
    const char* name;
    bool enabled;
    int x, y;
    int modeWidth, modeHeight;
    int rotation;
    double scale;
    bool primary;
};

TReplyWriter KscreenConfig(std::vector<TKscreenOutput> outputs) {
    return [outputs](sd_bus_message* r) {
        sd_bus_message_open_container(r, 'a', "{sv}");
        sd_bus_message_open_container(r, 'e', "sv");
        sd_bus_message_append(r, "s", "outputs");
        sd_bus_message_open_container(r, 'v', "av");
        sd_bus_message_open_container(r, 'a', "v");
        for (const TKscreenOutput& o : outputs) {
            sd_bus_message_open_container(r, 'v', "a{sv}");
            sd_bus_message_open_container(r, 'a', "{sv}");
            sd_bus_message_append(r, "{sv}{sv}{sv}{sv}", "name", "s", o.name, "enabled", "b",
                                  o.enabled, "connected", "b", 1, "currentModeId", "s", "2");
            Number(r, "rotation", o.rotation);
            Number(r, "scale", o.scale);
            Number(r, "priority", o.primary ? 1 : 2);
            Pair(r, "pos", "x", o.x, "y", o.y);
            Pair(r, "sizeMM", "width", 600, "height", 340);
            sd_bus_message_open_container(r, 'e', "sv");
            sd_bus_message_append(r, "s", "modes");
            sd_bus_message_open_container(r, 'v', "av");
            sd_bus_message_open_container(r, 'a', "v");
            for (const char* id : {"1", "2"}) {
                sd_bus_message_open_container(r, 'v', "a{sv}");
                sd_bus_message_open_container(r, 'a', "{sv}");
                sd_bus_message_append(r, "{sv}", "id", "s", id);
                const bool current = std::string(id) == "2";
                Pair(r, "size", "width", current ? o.modeWidth : 800, "height",
                     current ? o.modeHeight : 600);
                sd_bus_message_close_container(r);
                sd_bus_message_close_container(r);
            }
            sd_bus_message_close_container(r);
            sd_bus_message_close_container(r);
            sd_bus_message_close_container(r);
            sd_bus_message_close_container(r);
            sd_bus_message_close_container(r);
        }
        sd_bus_message_close_container(r);
        sd_bus_message_close_container(r);
        sd_bus_message_close_container(r);
        sd_bus_message_close_container(r);
    };
}

struct TExpectedOutput {
    std::string name;
    TScreenRect rect;
    bool primary;
};

void ExpectLayout(const TXrandrDesktop& layout, const std::vector<TExpectedOutput>& expected,
                  double width, double height) {
    ASSERT_EQ(layout.outputs.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(layout.outputs[i].name, expected[i].name) << i;
        EXPECT_EQ(layout.outputs[i].rect, expected[i].rect) << expected[i].name;
        EXPECT_EQ(layout.outputs[i].primary, expected[i].primary) << expected[i].name;
    }
    EXPECT_EQ(layout.width, width);
    EXPECT_EQ(layout.height, height);
}

class DesktopDisplayServices : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_bus.Ready()) << "dbus-daemon is needed (scripts/setup-test.sh)";
        m_client = m_bus.Connect();
        ASSERT_NE(m_client, nullptr);
    }
    void TearDown() override {
        sd_bus_flush_close_unref(m_client);
        unsetenv("XDG_CURRENT_DESKTOP");
    }

    std::optional<TXrandrDesktop> Ask(std::string* why) {
        return QueryDesktopServiceLayout(m_client, why);
    }

    CPrivateBus m_bus;
    sd_bus* m_client = nullptr;
};

const std::vector<TLitMonitor> kGnomeMonitors = {
    {"eDP-1", 2880, 1800, 0, 0, 2.0, 0, true},
    {"DP-3", 1920, 1080, 1440, 0, 1.0, 1, false},  // turned a quarter
};

// Mutter's logical layout divides a monitor's mode by its scale; the physical layout (GNOME's
// default without fractional scaling) keeps the mode. Turned monitors swap their sides.
TEST_F(DesktopDisplayServices, GnomeLayoutInBothLayoutModes) {
    struct TCase {
        unsigned layoutMode;
        std::vector<TExpectedOutput> outputs;
        double width, height;
    };
    const TCase cases[] = {
        {1, {{"eDP-1", {0, 0, 1440, 900}, true}, {"DP-3", {1440, 0, 1080, 1920}, false}}, 2520,
         1920},
        {2, {{"eDP-1", {0, 0, 2880, 1800}, true}, {"DP-3", {1440, 0, 1080, 1920}, false}}, 2880,
         1920},
    };
    for (const TCase& c : cases) {
        SCOPED_TRACE(c.layoutMode);
        CDisplayServices services(m_bus, MutterState(kGnomeMonitors, c.layoutMode), nullptr);
        ASSERT_TRUE(services.Ok());
        std::string why;
        const std::optional<TXrandrDesktop> layout = Ask(&why);
        ASSERT_TRUE(layout) << why;
        EXPECT_EQ(layout->origin, "GNOME (Mutter)");
        ExpectLayout(*layout, c.outputs, c.width, c.height);
    }
}

// GNOME's monitor list keeps the unlit monitor, with the names irframectl map writes.
TEST_F(DesktopDisplayServices, GnomeMonitorsIncludeUnlitOnes) {
    CDisplayServices services(m_bus, MutterState(kGnomeMonitors, 1), nullptr);
    ASSERT_TRUE(services.Ok());
    std::string why;
    const std::optional<TMutterState> state = QueryMutterState(m_client, &why);
    ASSERT_TRUE(state) << why;
    ASSERT_EQ(state->monitors.size(), 3u);
    EXPECT_EQ(state->monitors[2], (TMutterMonitor{"HDMI-1", "DEL", "U2", "7"}));
    EXPECT_EQ(state->heads.size(), 2u);
}

// KScreen's outputs: scale divides, rotation flags 2 and 8 swap the sides, a disabled output
// takes no place, and priority 1 is the main monitor. Under Plasma KScreen is asked first.
TEST_F(DesktopDisplayServices, KdeLayoutFromKscreen) {
    setenv("XDG_CURRENT_DESKTOP", "KDE", 1);
    CDisplayServices services(m_bus, MutterState(kGnomeMonitors, 1),
                              KscreenConfig({{"DP-1", true, 0, 0, 2560, 1440, 1, 2.0, true},
                                             {"HDMI-A-1", true, 1280, 0, 1920, 1080, 8, 1.0, false},
                                             {"DP-2", false, 0, 0, 1920, 1080, 1, 1.0, false}}));
    ASSERT_TRUE(services.Ok());
    std::string why;
    const std::optional<TXrandrDesktop> layout = Ask(&why);
    ASSERT_TRUE(layout) << why;
    EXPECT_EQ(layout->origin, "KDE (KScreen)");
    ExpectLayout(*layout,
                 {{"DP-1", {0, 0, 1280, 720}, true}, {"HDMI-A-1", {1280, 0, 1080, 1920}, false}},
                 2360, 1920);
    EXPECT_EQ(layout->outputs[0].widthMm, 600);
}

// Neither desktop on the bus: no layout, a reason naming both, and no service started.
TEST_F(DesktopDisplayServices, NeitherDesktopAnswers) {
    std::string why;
    EXPECT_FALSE(Ask(&why));
    EXPECT_THAT(why, HasSubstr("org.gnome.Mutter.DisplayConfig"));
    EXPECT_THAT(why, HasSubstr("org.kde.KScreen"));
}

// Answers of the wrong shape or beyond the limits are refused, not half read.
TEST_F(DesktopDisplayServices, RefusesMalformedAnswers) {
    const TReplyWriter wrongShape = [](sd_bus_message* r) { sd_bus_message_append(r, "u", 1u); };
    const TReplyWriter tooDeep = [](sd_bus_message* r) {
        for (int i = 0; i < kBusJsonMaxDepth + 2; ++i) sd_bus_message_open_container(r, 'v', "v");
        sd_bus_message_append(r, "v", "s", "deep");
        for (int i = 0; i < kBusJsonMaxDepth + 2; ++i) sd_bus_message_close_container(r);
    };
    const TReplyWriter noOutputs = [](sd_bus_message* r) {
        sd_bus_message_append(r, "a{sv}", 1, "screen", "s", "none");
    };
    std::string why;
    {
        CDisplayServices services(m_bus, wrongShape, noOutputs);
        ASSERT_TRUE(services.Ok());
        EXPECT_FALSE(Ask(&why));
        EXPECT_THAT(why, HasSubstr("not GetCurrentState's"));
        EXPECT_THAT(why, HasSubstr("without outputs"));
    }

    CDisplayServices deep(m_bus, tooDeep, nullptr);
    ASSERT_TRUE(deep.Ok());
    EXPECT_FALSE(QueryMutterState(m_client, &why));
    EXPECT_THAT(why, HasSubstr("nested too deeply"));
}

// GNOME's own compositor, headless with one virtual monitor: its layout and monitor ids as the
// driver and irframectl map read them.
TEST_F(DesktopDisplayServices, RealMutterHeadless) {
    ASSERT_EQ(access("/usr/bin/mutter", X_OK), 0)
        << "mutter is needed (scripts/setup-test.sh installs it)";
    char dir[] = "/tmp/irframe-mutter-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    const std::string oldRuntime = runtime != nullptr ? runtime : "";
    setenv("XDG_RUNTIME_DIR", dir, 1);
    const std::string log = std::string(dir) + "/mutter.log";
    const pid_t mutter = SpawnWithOutputFiles({"/usr/bin/mutter", "--headless", "--wayland",
                                               "--no-x11", "--virtual-monitor", "1920x1080"},
                                              "/dev/null", log);
    ASSERT_GT(mutter, 0);
    // Mutter takes its bus name once its monitors are set up; a busy machine may take long.
    std::string why;
    std::optional<TXrandrDesktop> layout;
    std::optional<TMutterState> state;
    for (int waited = 0; waited < 90'000 && !layout; waited += 200) {
        layout = QueryDesktopServiceLayout(m_client, &why);
        if (!layout) usleep(200'000);
    }
    if (layout) state = QueryMutterState(m_client, &why);
    kill(mutter, SIGTERM);
    waitpid(mutter, nullptr, 0);
    if (runtime != nullptr) {
        setenv("XDG_RUNTIME_DIR", oldRuntime.c_str(), 1);
    } else {
        unsetenv("XDG_RUNTIME_DIR");
    }
    std::stringstream text;
    text << std::ifstream(log).rdbuf();
    std::filesystem::remove_all(dir);
    ASSERT_TRUE(layout) << why << "\n" << text.str();
    EXPECT_EQ(layout->origin, "GNOME (Mutter)");
    ExpectLayout(*layout, {{"Meta-0", {0, 0, 1920, 1080}, true}}, 1920, 1080);
    ASSERT_TRUE(state) << why;
    ASSERT_EQ(state->monitors.size(), 1u);
    EXPECT_EQ(state->monitors[0].vendor, "MetaVendor");
    EXPECT_EQ(state->monitors[0].product, "MetaVirtualMonitor");
}

// The driver itself, in a Wayland session without wlr-output-management, places --display on
// the monitors KScreen reports: an output that is not there is refused with those listed.
TEST_F(DesktopDisplayServices, DriverTakesTheDesktopsMonitors) {
    CDisplayServices services(m_bus, nullptr,
                              KscreenConfig({{"DP-1", true, 0, 0, 2560, 1440, 1, 2.0, true},
                                             {"HDMI-A-1", true, 1280, 0, 1920, 1080, 8, 1.0, false}}));
    ASSERT_TRUE(services.Ok());
    char dir[] = "/tmp/irframe-layout-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    setenv("WAYLAND_DISPLAY", "/nonexistent/wayland-0", 1);
    const std::string out = std::string(dir) + "/out", err = std::string(dir) + "/err";
    const pid_t child =
        SpawnWithOutputFiles({IRFRAMED_PATH, "--dry-run", "--display", "DP-9"}, out, err);
    unsetenv("WAYLAND_DISPLAY");
    ASSERT_GT(child, 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    std::stringstream text;
    text << std::ifstream(err).rdbuf();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << text.str();
    EXPECT_THAT(text.str(), HasSubstr("DP-1"));
    EXPECT_THAT(text.str(), HasSubstr("HDMI-A-1"));
    std::filesystem::remove_all(dir);
}

}  // namespace
