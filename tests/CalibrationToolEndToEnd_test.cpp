// irframe-calibrate end to end: irframed's emulated frame touches the targets where a planted
// mis-calibration puts them, the calibrator runs under Xvfb or weston, and every tap after its
// write must post within 2 px of its point. Every wait is for a state, bounded only against a hang.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "support/HeadlessSway.h"

namespace {

constexpr int kW = 1920, kH = 1080;
const std::string kShots = IRFRAME_SCREENSHOT_DIR "/";

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

// A touch on each of the first `targets` targets, then (with `taps`) a tap on each tap point.
std::string Script(const TPlanted& planted, size_t targets, bool taps) {
    std::ostringstream s;
    s << "rate 100\n";
    for (size_t i = 0; i < targets; ++i) {
        const auto [x, y] = planted.Script(kTargets[i].first, kTargets[i].second);
        s << "down 1 " << x << " " << y << "\nhold 45\nup 1\nhold 20\n";
    }
    for (size_t i = 0; taps && i < kTaps.size(); ++i) {
        const auto [x, y] = planted.Script(kTaps[i].first, kTaps[i].second);
        s << "hold 40\ndown 1 " << x << " " << y << "\nhold 3\nup 1\n";
    }
    s << "hold 10\n";
    return s.str();
}

// Faults that hold the script until the first write and again after `targets` touches (67
// frames each), until a second write.
std::vector<std::string> HoldAfterTargets(size_t targets) {
    return {"--fault", "hold:1@0", "--fault", "hold:2@" + std::to_string(67 * targets)};
}

class CalibrationToolEndToEnd : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_run.Ready()); }

    uint32_t Pixel(int x, int y) {
        const std::string at = std::to_string(x) + "+" + std::to_string(y);
        return m_run.Screenshot("", "1x1+" + at).At(0, 0);
    }

    // The calibrator, once it holds the gestures and (under X11) its target screen is up.
    pid_t StartCalibrator(const std::vector<std::string>& options, bool x11 = true) {
        std::vector<std::string> argv{IRFRAME_CALIBRATE_PATH};
        argv.insert(argv.end(), options.begin(), options.end());
        const pid_t pid = m_run.StartWindow(argv, "calibrate.err", "calibrate.out");
        EXPECT_TRUE(WaitUntil([&] { return m_run.GesturesHeld() == true; }))
            << m_run.Log("calibrate.err");
        EXPECT_TRUE(!x11 || WaitUntil([&] { return Pixel(1900, 1060) == 0xFFFFFF; }, 10'000))
            << m_run.Log("calibrate.err");
        return pid;
    }

    // The whole run with --yes: the targets, the write, then the taps; checks every tap.
    void CalibrateAndTap(bool x11) {
        const pid_t driver =
            m_run.StartDriver(Script({3.0, 1.06, 0.95, 40, -30}, kTargets.size(), true),
                              HoldAfterTargets(kTargets.size()));
        const pid_t calibrator = StartCalibrator({"--yes"}, x11);
        if (x11) m_run.Screenshot(kShots + "calibration-targets.png");
        m_run.WriteConfig(m_run.ReadConfig());  // the script touches the targets now
        EXPECT_EQ(m_run.Wait(calibrator, 120), 0) << m_run.Log("calibrate.err");
        const std::string said = m_run.Log("calibrate.out");
        const size_t at = said.find("backup: ");
        ASSERT_NE(at, std::string::npos) << said;
        const std::string backup = said.substr(at + 8, said.find('\n', at) - at - 8);
        EXPECT_EQ(backup.rfind(m_run.Path("state/irframe/backups/frame1-"), 0), 0u) << backup;
        EXPECT_NE(ReadFile(backup).find("\"areas\""), std::string::npos);
        EXPECT_EQ(m_run.Wait(driver, 120), 0) << m_run.Log("irframed.log");

        std::vector<std::pair<double, double>> downs;
        for (const std::string& line : SplitLines(m_run.Log("posted.json"))) {
            if (line.find("\"leftMouseDown\"") == std::string::npos) continue;
            const size_t x = line.find("\"x\":"), y = line.find("\"y\":");
            downs.push_back({std::stod(line.substr(x + 4)), std::stod(line.substr(y + 4))});
        }
        ASSERT_EQ(downs.size(), kTaps.size()) << m_run.Log("posted.json");
        for (size_t i = 0; i < kTaps.size(); ++i) {
            EXPECT_LE(std::hypot(downs[i].first - kTaps[i].first, downs[i].second - kTaps[i].second),
                      2.0)
                << "tap " << i << " at " << kTaps[i].first << "," << kTaps[i].second << " came at "
                << downs[i].first << "," << downs[i].second;
        }
    }

    CDesktopRun m_run{IRFRAMED_PATH};
};

// Verify the whole calibration under X11: every tap after it lands within 2 px of its point.
TEST_F(CalibrationToolEndToEnd, CalibratesUnderXvfb) {
    ASSERT_TRUE(m_run.StartXvfb());
    CalibrateAndTap(true);
}

// Verify the same on a headless Wayland compositor.
TEST_F(CalibrationToolEndToEnd, CalibratesUnderWeston) {
    ASSERT_TRUE(m_run.StartWeston());
    CalibrateAndTap(false);
}

// Verify the check screen (its picture is saved) and that Esc there cancels with nothing written.
TEST_F(CalibrationToolEndToEnd, CheckScreenAndEscape) {
    ASSERT_TRUE(m_run.StartXvfb());
    // The frame stays after the targets: the script waits for a second write that never comes.
    m_run.StartDriver(Script({-2.0, 0.97, 1.04, -25, 20}, kTargets.size(), false),
                      HoldAfterTargets(kTargets.size()));
    const pid_t calibrator = StartCalibrator({});
    m_run.WriteConfig(m_run.ReadConfig());
    // The check screen: a green cross where the first target's touch lands now.
    ASSERT_TRUE(WaitUntil([&] {
        const uint32_t p = Pixel(240, 135);
        return (p >> 16) < 0x40 && ((p >> 8) & 255) > 0x60 && (p & 255) < 0x40;
    })) << m_run.Log("calibrate.err");
    m_run.Screenshot(kShots + "calibration-check.png");
    ASSERT_EQ(std::system("xdotool key Escape"), 0) << "xdotool is needed (Debian package xdotool)";
    EXPECT_EQ(m_run.Wait(calibrator, 60), 5);
    EXPECT_EQ(m_run.GesturesHeld(), false);
    EXPECT_EQ(m_run.Log("calibrate.out"), "");
}

// Verify that a frame unplugged in the middle ends the calibration with 1 and writes nothing,
// and that no touch at all ends it with 5 after its time-out.
TEST_F(CalibrationToolEndToEnd, FrameUnpluggedAndTimeOut) {
    ASSERT_TRUE(m_run.StartXvfb());
    const pid_t driver =
        m_run.StartDriver(Script({0, 1, 1, 0, 0}, 2, false), {"--fault", "hold:1@0"});
    pid_t calibrator = StartCalibrator({});
    m_run.WriteConfig(m_run.ReadConfig());  // two targets, then the frame is gone
    EXPECT_EQ(m_run.Wait(calibrator, 60), 1);
    EXPECT_NE(m_run.Log("calibrate.err").find("went away"), std::string::npos)
        << m_run.Log("calibrate.err");
    EXPECT_EQ(m_run.Wait(driver, 60), 0);

    m_run.StartDriver("hold 10\n", {"--fault", "hold:1@0"});
    calibrator = m_run.StartWindow({IRFRAME_CALIBRATE_PATH, "--timeout", "1"}, "calibrate.err");
    EXPECT_EQ(m_run.Wait(calibrator, 60), 5) << m_run.Log("calibrate.err");
}

}  // namespace
