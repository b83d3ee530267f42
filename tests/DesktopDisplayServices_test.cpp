#include "DesktopDisplayServices.h"

#include <signal.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "support/HeadlessSway.h"

using ::testing::HasSubstr;

namespace {

using TReplyWriter = std::function<void(sd_bus_message*)>;

// GNOME's and KDE's display services as they answer on the bus; a null writer leaves the
// service off the bus.
class CDisplayServices {
public:
    CDisplayServices(const CPrivateBus& bus, TReplyWriter mutter, TReplyWriter kscreen)
        : m_connection(bus), m_mutter(std::move(mutter)), m_kscreen(std::move(kscreen)) {
        sd_bus* const b = m_connection.Bus();
        m_ok = b != nullptr;
        // A stand-in just closed may still hold the name in the daemon's eyes: take it over.
        const uint64_t flags = SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING;
        if (m_ok && m_mutter) {
            sd_bus_add_object(b, nullptr, "/org/gnome/Mutter/DisplayConfig", &Answer, this);
            m_ok = sd_bus_request_name(b, "org.gnome.Mutter.DisplayConfig", flags) >= 0;
        }
        if (m_ok && m_kscreen) {
            sd_bus_add_object(b, nullptr, "/backend", &Answer, this);
            m_ok = sd_bus_request_name(b, "org.kde.KScreen", flags) >= 0;
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
    TReplyWriter m_mutter, m_kscreen;
    bool m_ok = false;
};

// ----- Mutter's GetCurrentState: eDP-1 at scale 2, the primary; DP-3 right of it, turned a
// quarter; HDMI-1 plugged in but not lit. Each lit monitor has a mode that is not current first:
// only "is-current" chooses.
TReplyWriter MutterState(unsigned layoutMode) {
    return [layoutMode](sd_bus_message* r) {
        sd_bus_message_append(
            r, "ua((ssss)a(siiddada{sv})a{sv})a(iiduba(ssss)a{sv})a{sv}", 7u, 3u, "eDP-1", "GSM",
            "LG", "0x01", 2u, "640x480@60", 640, 480, 60.0, 1.0, 1u, 1.0, 0u, "current", 2880,
            1800, 60.0, 1.0, 1u, 1.0, 1u, "is-current", "b", 1, 1u, "display-name", "s", "Monitor",
            "DP-3", "GSM", "LG", "0x01", 2u, "640x480@60", 640, 480, 60.0, 1.0, 1u, 1.0, 0u,
            "current", 1920, 1080, 60.0, 1.0, 1u, 1.0, 1u, "is-current", "b", 1, 1u,
            "display-name", "s", "Monitor", "HDMI-1", "DEL", "U2", "7", 0u, 0u, 2u, 0, 0, 2.0, 0u,
            1, 1u, "eDP-1", "GSM", "LG", "0x01", 0u, 1440, 0, 1.0, 1u, 0, 1u, "DP-3", "GSM", "LG",
            "0x01", 0u, 1u, "layout-mode", "u", layoutMode);
    };
}

// ----- KScreen's getConfig: Qt's JSON-shaped maps, its numbers as doubles

struct TKscreenOutput {
    const char* name;
    bool enabled;
    double x, y;
    double modeWidth, modeHeight;
    double rotation;
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
            // Ten members; mode "1" is not the current one.
            sd_bus_message_append(
                r, "v", "a{sv}", 10u, "name", "s", o.name, "enabled", "b", int(o.enabled),
                "connected", "b", 1, "currentModeId", "s", "2", "rotation", "d", o.rotation,
                "scale", "d", o.scale, "priority", "d", o.primary ? 1.0 : 2.0, "pos", "a{sv}", 2u,
                "x", "d", o.x, "y", "d", o.y, "sizeMM", "a{sv}", 2u, "width", "d", 600.0, "height",
                "d", 340.0, "modes", "av", 2u, "a{sv}", 2u, "id", "s", "1", "size", "a{sv}", 2u,
                "width", "d", 800.0, "height", "d", 600.0, "a{sv}", 2u, "id", "s", "2", "size",
                "a{sv}", 2u, "width", "d", o.modeWidth, "height", "d", o.modeHeight);
        }
        for (int i = 0; i < 4; ++i) sd_bus_message_close_container(r);
    };
}

const std::vector<TKscreenOutput> kKdeOutputs = {
    {"DP-1", true, 0, 0, 2560, 1440, 1, 2.0, true},
    {"HDMI-A-1", true, 1280, 0, 1920, 1080, 8, 1.0, false},
    {"DP-2", false, 0, 0, 1920, 1080, 1, 1.0, false},
};

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

    CPrivateBus m_bus;
    sd_bus* m_client = nullptr;
};

// Verify the layout each desktop reports. Mutter's logical layout divides a monitor's mode by
// its scale, the physical layout (GNOME's default without fractional scaling) keeps the mode;
// KScreen's scale divides, rotation flags 2 and 8 swap the sides, a disabled output takes no
// place, priority 1 is the main monitor, and under Plasma KScreen is asked first. Neither on the
// bus, or answers of the wrong shape or beyond the limits, give no layout and a reason.
TEST_F(DesktopDisplayServices, LayoutOfEachDesktop) {
    const TReplyWriter wrongShape = [](sd_bus_message* r) { sd_bus_message_append(r, "u", 1u); };
    const TReplyWriter noOutputs = [](sd_bus_message* r) {
        sd_bus_message_append(r, "a{sv}", 1, "screen", "s", "none");
    };
    const TReplyWriter tooDeep = [](sd_bus_message* r) {
        for (int i = 0; i < kBusJsonMaxDepth + 2; ++i) sd_bus_message_open_container(r, 'v', "v");
        sd_bus_message_append(r, "v", "s", "deep");
        for (int i = 0; i < kBusJsonMaxDepth + 2; ++i) sd_bus_message_close_container(r);
    };
    const struct {
        const char* desktop;
        TReplyWriter mutter, kscreen;
        std::string layout;                 // empty: refused
        std::vector<const char*> why = {};  // when refused
    } cases[] = {
        {"GNOME", MutterState(1), nullptr,
         "GNOME (Mutter): eDP-1 0,0 1440x900 primary DP-3 1440,0 1080x1920 in 2520x1920"},
        {"GNOME", MutterState(2), nullptr,
         "GNOME (Mutter): eDP-1 0,0 2880x1800 primary DP-3 1440,0 1080x1920 in 2880x1920"},
        {"KDE", MutterState(1), KscreenConfig(kKdeOutputs),
         "KDE (KScreen): DP-1 0,0 1280x720 primary 600x340mm HDMI-A-1 1280,0 1080x1920 "
         "600x340mm in 2360x1920"},
        {"GNOME", nullptr, nullptr, "", {"org.gnome.Mutter.DisplayConfig", "org.kde.KScreen"}},
        {"GNOME", wrongShape, noOutputs, "", {"not GetCurrentState's", "without outputs"}},
        {"GNOME", tooDeep, nullptr, "", {"nested too deeply"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.layout);
        setenv("XDG_CURRENT_DESKTOP", c.desktop, 1);
        CDisplayServices services(m_bus, c.mutter, c.kscreen);
        ASSERT_TRUE(services.Ok());
        std::string why;
        const std::optional<TXrandrDesktop> layout = QueryDesktopServiceLayout(m_client, &why);
        EXPECT_EQ(layout ? LayoutText(*layout) : "", c.layout) << why;
        for (const char* reason : c.why) EXPECT_THAT(why, HasSubstr(reason));
    }
}

// GNOME's monitor list keeps the unlit monitor, with the names irframectl map writes.
TEST_F(DesktopDisplayServices, GnomeMonitorsIncludeUnlitOnes) {
    CDisplayServices services(m_bus, MutterState(1), nullptr);
    ASSERT_TRUE(services.Ok());
    std::string why;
    const std::optional<TMutterState> state = QueryMutterState(m_client, &why);
    ASSERT_TRUE(state) << why;
    ASSERT_EQ(state->monitors.size(), 3u);
    EXPECT_EQ(state->monitors[2], (TMutterMonitor{"HDMI-1", "DEL", "U2", "7"}));
    EXPECT_EQ(state->heads.size(), 2u);
}

// GNOME's own compositor, headless with one virtual monitor: its layout and monitor ids as the
// driver and irframectl map read them.
TEST_F(DesktopDisplayServices, RealMutterHeadless) {
    ASSERT_EQ(access("/usr/bin/mutter", X_OK), 0)
        << "mutter is needed (scripts/setup-test.sh installs it)";
    const CScratchDir dir("irframe-mutter");
    CChild mutter({"/usr/bin/env", "XDG_RUNTIME_DIR=" + dir.Dir(), "/usr/bin/mutter",
                   "--headless", "--wayland", "--no-x11", "--virtual-monitor", "1920x1080"},
                  "/dev/null", dir.Path("mutter.log"));
    // Mutter takes its bus name once its monitors are set up; a busy machine may take long.
    std::string why;
    std::optional<TXrandrDesktop> layout;
    WaitUntil([&] { return (layout = QueryDesktopServiceLayout(m_client, &why)).has_value(); },
              90'000);
    const std::optional<TMutterState> state = QueryMutterState(m_client, &why);
    mutter.Signal(SIGTERM);
    mutter.Wait();
    ASSERT_TRUE(layout) << why << "\n" << mutter.Err();
    EXPECT_EQ(LayoutText(*layout), "GNOME (Mutter): Meta-0 0,0 1920x1080 primary in 1920x1080");
    ASSERT_TRUE(state) << why;
    ASSERT_EQ(state->monitors.size(), 1u);
    EXPECT_EQ(state->monitors[0].vendor, "MetaVendor");
    EXPECT_EQ(state->monitors[0].product, "MetaVirtualMonitor");
}

// The driver itself, in a Wayland session without wlr-output-management, places --display on
// the monitors KScreen reports: an output that is not there is refused with those listed.
TEST_F(DesktopDisplayServices, DriverTakesTheDesktopsMonitors) {
    CDisplayServices services(m_bus, nullptr, KscreenConfig(kKdeOutputs));
    ASSERT_TRUE(services.Ok());
    const CScratchDir dir("irframe-layout");
    CChild driver({"/usr/bin/env", "WAYLAND_DISPLAY=/nonexistent/wayland-0", IRFRAMED_PATH,
                   "--dry-run", "--display", "DP-9"},
                  dir.Path("out"), dir.Path("err"));
    EXPECT_EQ(driver.Wait(), 2) << driver.Err();
    EXPECT_THAT(driver.Err(), HasSubstr("DP-1"));
    EXPECT_THAT(driver.Err(), HasSubstr("HDMI-A-1"));
}

}  // namespace
