// The settings window's core without GTK: the live view's geometry, trails and drawing, the
// drop-in it writes, the chord checks, the frame list and the backups.
#include <cairo.h>
#include <fcntl.h>
#include <fontconfig/fontconfig.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <tuple>

#include "LinuxConfigChecks.h"
#include "LiveViewDrawing.h"
#include "SettingsModel.h"
#include "TouchSettings.h"
#include "DevConfigJson.h"
#include "support/ChildProcess.h"
#include "support/TwoAreasAndPanel.h"

namespace {

TFrameEntry Frame(int number = 1) {
    TFrameEntry f;
    f.number = number;
    f.state = "running";
    f.logicalWidth = 1600;
    f.logicalHeight = 900;
    f.rawWidth = f.rawHeight = 32768;
    return f;
}

TMonitoredContact Contact(uint8_t id, uint16_t rawX, uint16_t rawY, uint8_t group, uint8_t index) {
    return {.id = id, .rawX = rawX, .rawY = rawY, .cellGroup = group, .cellIndex = index};
}

// Verify the frame keeps its aspect and sits centred, and that raw X is mirrored.
TEST(SettingsLiveView, FitAndMirror) {
    struct {
        double w, h, left, top, width;
    } cases[] = {{1640, 940, 20, 20, 1600}, {840, 940, 20, 245, 800}, {3240, 940, 820, 20, 1600}};
    for (const auto& c : cases) {
        const TViewFit fit = FitFrame(Frame(), c.w, c.h, 20);
        EXPECT_EQ(std::tuple(fit.left, fit.top, fit.width, fit.height),
                  std::tuple(c.left, c.top, c.width, c.width * 900 / 1600))
            << c.w;
    }
    const TViewPoint p = RawToView(Frame(), 8192, 24576);
    EXPECT_EQ(std::pair(p.x, p.y), std::pair(0.75, 0.75));
}

// Verify where the areas and panels lie, that switched-off or too small ones are left out, and
// that a contact gets the colour of what took it.
TEST(SettingsLiveView, ShapesAndColours) {
    _HARDWARE_DEV_CONFIG config = TwoAreasAndPanel();
    std::vector<TViewShape> shapes = ConfigShapes(config);
    ASSERT_EQ(shapes.size(), 3u);
    EXPECT_NEAR(shapes[0].corners[0].x, 0.0, 1e-4);  // area 0: raw right half, view left half
    EXPECT_NEAR(shapes[0].corners[2].x, 0.5, 1e-4);
    EXPECT_NEAR(shapes[1].corners[2].x, 1.0, 1e-4);
    EXPECT_TRUE(shapes[2].panel);
    EXPECT_NEAR(shapes[2].corners[2].y, 0.125, 1e-4);
    config.panels[0].height = 49;
    config.flags &= ~DEV_FLAG_AREAS_ENABLED;
    EXPECT_TRUE(ConfigShapes(config).empty());

    config = TwoAreasAndPanel();
    struct {
        uint8_t group, index;
        TViewColour want;
    } cells[] = {{0, 0, shapes[0].colour}, {0, 1, shapes[1].colour}, {255, 2, shapes[2].colour},
                 {255, 255, PlaceColour({"outside", -1})}};
    for (const auto& c : cells) {
        EXPECT_EQ(ContactColour(Contact(1, 0, 0, c.group, c.index), config), c.want)
            << int(c.group) << "," << int(c.index);
    }
    EXPECT_NE(shapes[0].colour, shapes[1].colour);
    EXPECT_NE(shapes[1].colour, shapes[2].colour);
}

// Verify that an hour of nine moving contacts (at 100 frames/s, ids cycling through all 256)
// keeps every trail and the trail count bounded, and that lifted contacts fade away.
TEST(SettingsLiveView, TrailsStayBounded) {
    CLiveView view;
    view.SetFrame(Frame(), TwoAreasAndPanel());
    int64_t now = 0;
    for (int i = 0; i < 360'000; i += 7) {  // a sample of the hour's frames is enough
        TMonitoredFrame f;
        for (int k = 0; k < 9; ++k) {
            f.contacts.push_back(Contact(static_cast<uint8_t>((i / 500 + k * 28) % 256),
                                         static_cast<uint16_t>((i * 37 + k * 3000) % 32768),
                                         static_cast<uint16_t>(k * 3500), 0, 0));
        }
        now = int64_t{i} * 10'000;
        view.OnFrame(f, now);
        ASSERT_LE(view.Trails().size(), CLiveView::kMaxTrails);
        for (const auto& [id, points] : view.Trails()) ASSERT_LE(points.size(), CLiveView::kMaxTrailPoints);
    }
    EXPECT_EQ(view.Contacts().size(), 9u);
    EXPECT_EQ(view.FrameRate(), 15);  // every 7th frame of 100/s
    TMonitoredFrame lifted;
    lifted.contacts.push_back(Contact(3, 100, 100, 0, 0));
    lifted.contacts.back().status = 2;
    view.OnFrame(lifted, now + 10'000);
    EXPECT_TRUE(view.Contacts().empty());
    EXPECT_FALSE(view.Trails().empty());
    view.Expire(now + 10'000 + CLiveView::kTrailMicros + 1);
    EXPECT_TRUE(view.Trails().empty());
    EXPECT_TRUE(view.TrailColours().empty());
}

// Verify that the drawing puts each dot, in its colour, where the contact is, inside the frame
// outline drawn in its own colour.
TEST(SettingsLiveView, DrawsDotsWhereTheContactsAre) {
    CLiveView view;
    view.SetFrame(Frame(), TwoAreasAndPanel());
    TMonitoredFrame f;
    f.contacts = {Contact(1, 24576, 16384, 0, 0), Contact(2, 8192, 20000, 0, 1),
                  Contact(3, 16384, 1500, 255, 2)};
    view.OnFrame(f, 0);
    const int w = 840, h = 500;
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, w, h);
    cairo_t* cr = cairo_create(surface);
    CLiveViewPainter painter;
    painter.Draw(cr, view, w, h, 0);
    cairo_surface_flush(surface);
    const auto pixel = [&](double x, double y) {
        const uint8_t* row = cairo_image_surface_get_data(surface) +
                             int(y) * cairo_image_surface_get_stride(surface);
        const uint32_t v = reinterpret_cast<const uint32_t*>(row)[int(x)];
        return TViewColour{((v >> 16) & 255) / 255.0, ((v >> 8) & 255) / 255.0, (v & 255) / 255.0};
    };
    const auto near = [](TViewColour a, TViewColour b) {
        return std::abs(a.r - b.r) < 0.01 && std::abs(a.g - b.g) < 0.01 && std::abs(a.b - b.b) < 0.01;
    };
    const TViewFit fit = LiveViewFit(view, w, h);
    for (const TViewContact& c : view.Contacts()) {
        const TViewPoint p = fit.Pixel(c.at);
        EXPECT_TRUE(near(pixel(p.x, p.y), c.colour)) << c.id << " at " << p.x << "," << p.y;
    }
    EXPECT_TRUE(near(pixel(std::floor(fit.left), fit.top + fit.height / 2), kFrameOutlineColour));
    cairo_destroy(cr);
    cairo_surface_destroy(surface);
    cairo_debug_reset_static_data();  // the font caches, for the leak check
    FcFini();
}

class SettingsFiles : public testing::Test {
protected:
    CScratchDir m_scratch{"settings_model"};
    const std::string m_dir = m_scratch.Dir();
    TConfigChecks m_checks = LinuxConfigChecks();
};

// Verify that what the window chooses is read back the same from the drop-in it writes, that
// what it leaves out stays unset (the files before it hold), and that a refused choice leaves
// the drop-in as it was.
TEST_F(SettingsFiles, DropInRoundTrip) {
    TTouchChoices all;
    all.gestures = false;
    all.keyProfile = "desktop";
    all.shortcuts[size_t(TGestureShortcut::SwipeLeft)] = "ctrl+alt+left";
    all.shortcuts[size_t(TGestureShortcut::Pinch)] = "none";
    all.shortcuts[size_t(TGestureShortcut::FourFingerUp)] = "super+up";
    all.touchscreen = true;
    all.screenOutput = "HDMI-1";
    all.tuio = false;
    all.tuioTarget = "host.example:3333";
    TTouchChoices some;
    some.touchscreen = false;
    TConfigEnvironment env;
    env.xdgConfigHome = m_dir;
    const std::string path = SettingsDropInPath(env);
    EXPECT_EQ(path, m_dir + "/irframe/irframe.d/50-settings.toml");
    std::string error;
    for (const TTouchChoices& want : {TTouchChoices{}, some, all}) {
        ASSERT_TRUE(WriteTouchChoices(path, want, m_checks, &error)) << error;
        TTouchChoices got;
        got.keyProfile = "x";
        ASSERT_TRUE(TouchChoicesFromToml(ReadFile(path), "t", m_checks, &got, &error)) << error;
        EXPECT_EQ(got, want) << ReadFile(path);
    }
    const std::string written = ReadFile(path);
    EXPECT_NE(written.find("four-finger-up = \"super+up\""), std::string::npos) << written;
    all.tuioTarget = "not a target";
    EXPECT_FALSE(WriteTouchChoices(path, all, m_checks, &error));
    EXPECT_NE(error.find("target"), std::string::npos) << error;
    EXPECT_EQ(ReadFile(path), written);
}

// Verify the chord checks: dangerous chords are told apart and need a confirmation.
TEST(SettingsChords, DangerousNeedConfirmation) {
    struct {
        const char* text;
        bool valid;
        const char* canonical;
        bool dangerous;
    } cases[] = {{"Ctrl+Alt+Left", true, "ctrl+alt+left", false},
                 {"none", true, "none", false},
                 {"super+l", true, "super+l", true},
                 {"alt+ctrl+delete", true, "ctrl+alt+delete", true},
                 {"alt+f4", true, "alt+f4", true},
                 {"ctrl+nokey", false, "", false}};
    for (const auto& c : cases) {
        const TChordVerdict v = CheckShortcutChord(c.text);
        EXPECT_EQ(v.valid, c.valid) << c.text;
        EXPECT_EQ(v.canonical, c.canonical) << c.text;
        EXPECT_EQ(!v.dangerous.empty(), c.dangerous) << c.text;
        EXPECT_EQ(ChordAccepted(v, false), c.valid && !c.dangerous) << c.text;
        EXPECT_EQ(ChordAccepted(v, true), c.valid) << c.text;
    }
}

// Verify that the frame list tells what came, went and changed.
TEST(SettingsFrameList, Changes) {
    CFrameListModel model;
    TFrameEntry two = Frame(2);
    auto change = model.Update({two, Frame(1)});
    EXPECT_EQ(change.added, (std::vector<int>{1, 2}));
    EXPECT_EQ(model.Frames().front().number, 1);
    two.configSummary = "2 areas, 1 panel (0 keys)";
    change = model.Update({two, Frame(3)});
    EXPECT_EQ(change.added, std::vector<int>{3});
    EXPECT_EQ(change.removed, std::vector<int>{1});
    EXPECT_EQ(change.changed, std::vector<int>{2});
    EXPECT_TRUE(model.Update(model.Frames()).Empty());
    EXPECT_EQ(model.Find(1), nullptr);
}

// Verify that a touch on a monitor's "touch here" names that monitor, and a stray one none.
TEST(SettingsMonitorPick, TouchedMonitor) {
    struct {
        double x, y;
        int count;
        std::optional<int> want;
    } cases[] = {{0.5, 0.5, 1, 0},     {0.3, 0.6, 1, 0},        {0.2, 0.5, 1, std::nullopt},
                 {0.25, 0.5, 2, 0},    {0.80, 0.45, 2, 1},      {0.5, 0.5, 2, std::nullopt},
                 {5 / 6.0, 0.5, 3, 2}, {0.75, 0.1, 2, std::nullopt}, {0.5, 0.5, 0, std::nullopt}};
    for (const auto& c : cases) {
        EXPECT_EQ(TouchedMonitor({c.x, c.y}, c.count), c.want) << c.x << "," << c.y << " of " << c.count;
    }
    for (int count = 1; count <= 4; ++count) {
        for (int i = 0; i < count; ++i) EXPECT_EQ(TouchedMonitor(MonitorTarget(i, count), count), i);
    }
}

// Verify that only backups are listed, newest first, and that a bad one is refused on reading.
TEST_F(SettingsFiles, Backups) {
    const auto write = [&](const std::string& name, const std::string& text, time_t when) {
        std::ofstream(m_dir + "/" + name) << text;
        const struct timespec times[2] = {{when, 0}, {when, 0}};
        utimensat(AT_FDCWD, (m_dir + "/" + name).c_str(), times, 0);
    };
    _HARDWARE_DEV_CONFIG config = TwoAreasAndPanel();
    write("frame1-20261125-100000.json", DevConfigToJson(config), 1000);
    write("frame2-20261126-100000-2.json", "{}", 2000);
    write("notes.json", "{}", 3000);
    write("frame1-2026.json", "{}", 3000);
    mkdir((m_dir + "/frame3-20261126-100000.json").c_str(), 0700);
    const std::vector<TBackupEntry> list = ListBackups(m_dir);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].frame, 2);
    EXPECT_EQ(list[1].name, "frame1-20261125-100000.json");
    std::string error;
    const auto read = ReadSavedConfig(list[1].path, &error);
    ASSERT_NE(read, nullptr) << error;
    EXPECT_TRUE(DevConfigDifferences(config, *read).empty());
    EXPECT_EQ(ReadSavedConfig(list[0].path, &error), nullptr);
    EXPECT_TRUE(ListBackups(m_dir + "/missing").empty());
}

}  // namespace
