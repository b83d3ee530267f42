// irframe-settings end to end: irframed on an emulated frame with two areas and a button panel
// written through a private bus, and the window under Xvfb and weston: each finger's dot in its
// place's colour, the pages saved as pictures, a chosen shortcut reaching the driver through its
// drop-in and Reload. Every wait is for a state, bounded only against a hang.
#include <signal.h>

#include <gtest/gtest.h>

#include <fstream>

#include "BusTransport.h"
#include "DevConfigJson.h"
#include "LinuxConfigChecks.h"
#include "LiveView.h"
#include "LiveViewDrawing.h"
#include "TouchSettings.h"
#include "support/HeadlessSway.h"
#include "support/TwoAreasAndPanel.h"

namespace {

const std::string kShots = IRFRAME_SCREENSHOT_DIR "/";

uint32_t Rgb(const TViewColour& c) {
    const auto byte = [](double v) { return uint32_t(v * 255 + 0.5); };
    return byte(c.r) << 16 | byte(c.g) << 8 | byte(c.b);
}

// Three fingers moving into two areas and the panel of the frame (script units run across the
// frame as seen from the front), then holding far longer than the test needs.
struct TFinger {
    int x, y;
    uint32_t colour;
};
const TFinger kFingers[] = {{8000, 20000, Rgb(PlaceColour({"area", 0}))},
                            {24000, 24000, Rgb(PlaceColour({"area", 1}))},
                            {16000, 2000, Rgb(PlaceColour({"panel", 2}))}};

class SettingsWindowEndToEnd : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_run.Ready()); }

    _HARDWARE_DEV_CONFIG ReadConfig() {
        _HARDWARE_DEV_CONFIG config{};
        std::string error;
        EXPECT_TRUE(DevConfigFromJson(m_run.ReadConfig(), &config, &error)) << error;
        return config;
    }

    pid_t StartWindow(std::vector<std::string> options) {
        options.insert(options.begin(), IRFRAME_SETTINGS_PATH);
        return m_run.StartWindow(options, "settings.log");
    }

    // Until its window is off the screen, so that the next picture is the next window's.
    void StopWindow(pid_t pid) {
        kill(pid, SIGTERM);
        m_run.Wait(pid, 30);
        EXPECT_TRUE(WaitUntil([&] {
            const TPicture p = m_run.Screenshot("", "1x1+600+400");
            return p.width > 0 && p.At(0, 0) == 0;
        }));
    }

    // The driver playing the fingers once two areas and a panel are written through the bus;
    // the configuration before, saved in a file.
    std::string StartFramesWithAreas() {
        m_run.StartDriver("rate 100\ndown 1 4000 16000, 2 20000 16000, 3 12000 2000\n"
                          "move 1 8000 20000, 2 24000 24000, 3 16000 2000 in 30\nhold 30000\n",
                          {"--fault", "hold:1@0"});
        const std::string original = m_run.ReadConfig();
        m_run.WriteConfig(DevConfigToJson(TwoAreasAndPanel(ReadConfig())));
        EXPECT_EQ(ReadConfig().areaCount, 2);
        const std::string saved = m_run.Path("original.json");
        std::ofstream(saved) << original;
        return saved;
    }

    CDesktopRun m_run{IRFRAMED_PATH};
};

// Verify the pages under X11: the frames list, the live view with three fingers drawn in the
// colour of the area or panel under them, the shortcuts page, and the restore dialog.
TEST_F(SettingsWindowEndToEnd, PagesUnderXvfb) {
    ASSERT_TRUE(m_run.StartXvfb());
    const std::string saved = StartFramesWithAreas();
    pid_t window = StartWindow({"--page", "live"});
    int left = 0, right = 0, top = 0, bottom = 0;
    // The frame's outline: the rows and columns with a long run of its colour.
    const auto findFrame = [&] {
        const TPicture shot = m_run.Screenshot(kShots + "settings-live-view.png", "1100x760+0+0");
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
        for (const TFinger& f : kFingers) {
            const int x = left + (right - left) * f.x / 32766;
            const int y = top + (bottom - top) * f.y / 32766;
            if (!NearColour(shot.At(x, y), f.colour)) return false;
        }
        return true;
    };
    EXPECT_TRUE(WaitUntil(findFrame, 90'000)) << "frame " << left << "," << top << " " << right
                                              << "," << bottom << "\n" << m_run.Log("settings.log");
    StopWindow(window);

    const std::string settings = "Touch frame settings", restore = "Restore a configuration";
    for (const auto& [options, picture, title] :
         {std::tuple{std::vector<std::string>{"--page", "frames"}, "settings-frames.png", settings},
          std::tuple{std::vector<std::string>{"--page", "touch"}, "settings-shortcuts.png",
                     settings},
          std::tuple{std::vector<std::string>{"--page", "backups", "--restore", saved},
                     "settings-restore.png", restore}}) {
        window = StartWindow(options);
        EXPECT_TRUE(WaitUntil([&] {
            return std::system(("xdotool search --onlyvisible --name '^" + title +
                                "$' >/dev/null 2>&1").c_str()) == 0;
        })) << "xdotool is needed (Debian package xdotool): " << title;
        // Painted: the window's corner is no longer the empty screen's black.
        EXPECT_TRUE(WaitUntil([&] {
            const TPicture p = m_run.Screenshot(kShots + picture, "1100x760+0+0");
            return p.width > 0 && p.At(300, 200) != 0;
        })) << picture;
        StopWindow(window);
    }
}

// Verify "which screen is this frame on?": "touch here" holds the gestures until a touch on the
// target, which lets them go (a stray touch would keep asking).
TEST_F(SettingsWindowEndToEnd, WhichScreenUnderXvfb) {
    ASSERT_TRUE(m_run.StartXvfb());
    m_run.StartDriver("rate 100\ndown 1 3000 3000\nhold 3\nup 1\nhold 3\n"
                      "down 1 16383 16383\nhold 3\nup 1\nhold 30000\n",
                      {"--fault", "hold:1@0"});
    StartWindow({"--which-screen"});
    ASSERT_TRUE(WaitUntil([&] { return m_run.GesturesHeld() == true; }))
        << m_run.Log("settings.log");
    EXPECT_TRUE(WaitUntil([&] {
        // Beyond the settings window: "touch here" fills the screen.
        const TPicture p = m_run.Screenshot(kShots + "settings-which-screen.png");
        return p.width > 1500 && p.At(1500, 900) == 0xFFFFFF;
    }));
    m_run.WriteConfig(m_run.ReadConfig());  // the script plays: a stray touch, then the target
    EXPECT_TRUE(WaitUntil([&] { return m_run.GesturesHeld() == false; }))
        << m_run.Log("settings.log");
}

// Verify that the window shows the frame's contacts under a headless Wayland compositor too:
// its pictures (weston's own screenshooter) hold each finger's dot.
TEST_F(SettingsWindowEndToEnd, LiveViewUnderWeston) {
    ASSERT_TRUE(m_run.StartWeston());
    StartFramesWithAreas();
    StartWindow({"--page", "live"});
    const auto dotsShown = [&] {
        const TPicture p = m_run.Screenshot(m_run.Path("weston.png"));
        for (const TFinger& f : kFingers) {
            int count = 0;  // a dot of radius 14 has about 600 pixels
            for (int y = 0; y < p.height; ++y) {
                for (int x = 0; x < p.width; ++x) count += NearColour(p.At(x, y), f.colour);
            }
            if (count < 400) return false;
        }
        return p.width > 0;
    };
    EXPECT_TRUE(WaitUntil(dotsShown, 90'000)) << m_run.Log("settings.log");
}

// Verify that a shortcut chosen through the model reaches the driver: its drop-in is written,
// the driver reloads, the four-finger swipe presses the new chord, and the hand-written
// irframe.toml is untouched.
TEST_F(SettingsWindowEndToEnd, ShortcutThroughDropInAndReload) {
    const std::string dir = m_run.Path("config/irframe");
    ASSERT_EQ(std::system(("mkdir -p " + dir).c_str()), 0);
    const std::string handWritten = "# my room's settings\n[keys]\nprofile = \"safe\"  # keep\n";
    std::ofstream(dir + "/irframe.toml") << handWritten;
    const pid_t driver = m_run.StartDriver(
        "rate 100\ndown 1 10000 10000, 2 14000 10000, 3 10000 14000, 4 14000 14000\n"
        "move 1 9000 10000, 2 13000 10000, 3 9000 14000, 4 13000 14000 in 10\nhold 3\n"
        "up 1, 2, 3, 4\nhold 1\n",
        {"--fault", "hold:1@0"});
    TTouchChoices choices;
    choices.shortcuts[size_t(TGestureShortcut::FourFingerLeft)] = "ctrl+alt+f5";
    std::string error;
    ASSERT_TRUE(WriteTouchChoices(SettingsDropInPath(ProcessConfigEnvironment("")), choices,
                                  LinuxConfigChecks(), &error))
        << error;
    const std::string reloaded = ReloadDriver();
    m_run.WriteConfig(m_run.ReadConfig());  // the script plays now
    ASSERT_EQ(m_run.Wait(driver, 120), 0) << m_run.Log("irframed.log");
    EXPECT_NE(m_run.Log("posted.json")
                  .find("\"linuxKeys\":[\"KEY_LEFTCTRL\",\"KEY_LEFTALT\",\"KEY_F5\"]"),
              std::string::npos)
        << reloaded << "\n" << m_run.Log("posted.json");
    EXPECT_EQ(ReadFile(dir + "/irframe.toml"), handWritten);
}

}  // namespace
