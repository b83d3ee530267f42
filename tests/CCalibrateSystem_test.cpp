#include "CCalibrateSystem.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

struct Contact {
    uint8_t id, status;
    uint16_t x, y;
    int16_t w = 0, h = 0;
};

// A decoded frame's contacts as the decoder links them: last-first. Calibration reads nothing
// else of the frame record.
class Frame {
public:
    explicit Frame(const std::vector<Contact>& contacts) : points_(contacts.size()) {
        for (size_t i = 0; i < contacts.size(); ++i) {
            const Contact& c = contacts[i];  // outputs 0; raw values, area, id, status; no cell
            points_[i] = {0, 0, 0, 0, 0, c.x, c.y, c.w * c.h, c.w, c.h, c.id, c.status, {}, {},
                          frame_.points};
            frame_.points = &points_[i];
        }
    }

    _HARDWARE_FRAME_SDK* get() { return &frame_; }
    const _HARDWARE_SDK_POINT& operator[](size_t reportIndex) const { return points_[reportIndex]; }

private:
    std::vector<_HARDWARE_SDK_POINT> points_;
    _HARDWARE_FRAME_SDK frame_{};
};

_CS_CONFIG Geometry() { return {8191, 8191, 32767, 32767}; }

constexpr uint32_t kAreasKeep = DEV_FLAG_AREAS_ENABLED | DEV_FLAG_KEEP_OUTSIDE;

_HCRECT_CONFIG_FILE DefaultArea(uint8_t id = 0, uint8_t group = 0) {
    _HCRECT_CONFIG_FILE area{};
    area.id = id;
    area.group = group;
    area.outputRect = {0, 0, 1920, 1080};
    area.targetRect = {0, 0, 1920, 1080};
    for (auto& a : area.edgeAdjust) a = 15;
    area.center = {16384, 16384};
    area.axisH = {-16384, 0};
    area.axisV = {0, 16384};
    return area;
}

// A quarter-size area around (8192, 8192) in raw units.
_HCRECT_CONFIG_FILE SmallArea(uint8_t id) {
    auto area = DefaultArea(id, 0);
    area.center = {8192, 8192};
    area.axisH = {-4096, 0};
    area.axisV = {0, 4096};
    return area;
}

// The record is ~24 KB: keep it on the heap, value-initialised (all zero).
std::unique_ptr<_HARDWARE_DEV_CONFIG> WithAreas(uint32_t flags,
                                                std::initializer_list<_HCRECT_CONFIG_FILE> areas) {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    config->flags = flags;
    for (const auto& area : areas) config->areas[config->areaCount++] = area;
    return config;
}

void AddPanel(_HARDWARE_DEV_CONFIG& config, uint8_t id, int16_t cx, int16_t cy, int16_t half) {
    _HBRECT_CONFIG_FILE& panel = config.panels[config.panelCount++];
    panel.id = id;
    panel.width = 100;
    panel.height = 100;
    panel.center = {cx, cy};
    panel.axisH = {static_cast<int16_t>(-half), 0};
    panel.axisV = {0, half};
}

// What one area alone makes of a raw point: output-unit floats, excess, then HID units.
struct Alone {
    float x, y;
    int outside, hidX, hidY;
};

Alone Through(const _HCRECT_CONFIG_FILE& area, int margin, int x, int y) {
    const _CS_CONFIG geometry = Geometry();
    std::unique_ptr<_CAL_COORDINATE_INFO, decltype(&FreeCoordinateInfo)> info(
        InitCoordinateInfo(&area, &geometry, margin), &FreeCoordinateInfo);
    TranslateCalCoords(x, y, info.get());
    Alone a{info->x.AsFloat(), info->y.AsFloat(), info->outside, 0, 0};
    GetShortCoords(info.get());
    a.hidX = info->x.AsInt();
    a.hidY = info->y.AsInt();
    return a;
}

int Count(const _CAL_COORDINATE_INFO* list) {
    int n = 0;
    for (; list != nullptr; list = list->next) ++n;
    return n;
}

std::pair<int, int> Cell(const _HARDWARE_SDK_POINT& p) { return {p.cell[0], p.cell[1]}; }
std::pair<int, int> Xy(const _HARDWARE_SDK_POINT& p) { return {p.x, p.y}; }

class CalibrateSystemTest : public ::testing::Test {
protected:
    // One frame through the worker's two calls.
    static void Run(CCalibrateSystem& system, Frame& frame) {
        system.CalFramePoint(frame.get());
        system.GetAbsHIDCoords(frame.get());
    }
    void Run(Frame& frame) { Run(cal, frame); }

    CCalibrateSystem cal;
    _CS_CONFIG geometry = Geometry();
};

TEST_F(CalibrateSystemTest, GeometryBelowOneIsRefusedAndWidthsDerived) {
    const _CS_CONFIG bad[] = {{0, 8191, 32767, 32767}, {8191, -1, 32767, 32767},
                              {8191, 8191, 0, 32767}, {8191, 8191, 32767, INT32_MIN}};
    for (const auto& g : bad) {
        EXPECT_FALSE(cal.InitCalibrateSys(nullptr, &g));
        EXPECT_EQ(cal.Slot(0), nullptr);
        EXPECT_EQ(cal.Edge(), 15);
        Frame frame({{1, 2, 100, 100}});
        frame.get()->points->x = -7;
        Run(frame);  // ignored without slots
        EXPECT_EQ(frame[0].x, -7);
    }
    EXPECT_FALSE(cal.InitCalibrateSys(nullptr, nullptr));

    ASSERT_TRUE(cal.InitCalibrateSys(nullptr, &geometry));
    // Edge 32767 * 15 / 8191, blend 32767 * 177 / 8191.
    EXPECT_EQ(std::make_tuple(cal.Edge(), cal.Blend(), cal.HalfWidth(), cal.HalfHeight()),
              std::make_tuple(60, 708, 16383, 16383));
    EXPECT_TRUE(cal.KeepOutside());
    EXPECT_EQ(cal.Areas(), nullptr);
    EXPECT_EQ(cal.Buttons(), nullptr);
}

// The default area, hand-built and from the product defaults (their block round trip is the
// codec's test): raw (16384, 16384) lands on (960, 540); raw X growing makes output X shrink.
// Raw positions are signed 16-bit values: a frame reports a contact just beyond its low edge as
// 0xFFFF (-1), which stays on that side. The span is that of the contact's signed corners.
TEST_F(CalibrateSystemTest, DefaultAreaMapsCentreMirrorsXAndWidensWithSign) {
    auto handBuilt = WithAreas(kAreasKeep, {DefaultArea(9, 3)});
    auto defaults = std::make_unique<_HARDWARE_DEV_CONFIG>();
    DefaultDevConfig(0, 0, defaults.get());
    DefaultDevCalConfig(0, 0, defaults.get());
    const std::pair<const _HARDWARE_DEV_CONFIG*, std::pair<int, int>> cases[] = {
        {handBuilt.get(), {3, 9}}, {defaults.get(), {0, 0}}};
    const std::vector<Contact> contacts = {
        {1, 2, 16384, 16384, 1000, 600},  {2, 2, 20000, 16384, 1000, 600},
        {3, 2, 24000, 16384, 1000, 600},  {4, 2, 0xFFFF, 16384, 1000, 600},
        {5, 2, 16384, 0xFFFF, 1000, 600}, {6, 2, 0x8000, 0x8000, 1000, 600},
        {7, 2, 0xFFFF, 0xFFFF, 1000, 600}};
    // 960 * 32767 / 1920 = 16383.5; low raw X maps to high output X.
    const std::pair<int, int> expected[] = {
        {16383, 16383}, {}, {}, {32766, 16383}, {16383, 1}, {32766, 1}, {32766, 1}};
    for (const auto& [config, cell] : cases) {
        CCalibrateSystem system;
        ASSERT_TRUE(system.InitCalibrateSys(config, &geometry));
        EXPECT_TRUE(system.KeepOutside());
        EXPECT_EQ(system.Buttons(), nullptr);
        ASSERT_EQ(Count(system.Areas()), 1);
        Frame frame(contacts);
        Run(system, frame);
        EXPECT_EQ(std::make_pair(system.Slot(1)->x, system.Slot(1)->y),
                  std::make_pair(960.0f, 540.0f));
        EXPECT_EQ(Cell(frame[0]), cell);
        EXPECT_LT(frame[1].x, frame[0].x);
        EXPECT_LT(frame[2].x, frame[1].x);
        EXPECT_EQ(frame[2].y, frame[0].y);
        EXPECT_GT(frame[0].width, 900);
        EXPECT_GT(frame[0].height, 500);
        auto hid = [&](int x, int y) { return Through(DefaultArea(), system.Blend(), x, y); };
        for (size_t i : {0, 3, 4, 5, 6}) {
            SCOPED_TRACE(i);
            EXPECT_EQ(Xy(frame[i]), expected[i]);
            const int x0 = int16_t(contacts[i].x) - 500, y0 = int16_t(contacts[i].y) - 300;
            EXPECT_EQ(frame[i].width, hid(x0, y0).hidX - hid(x0 + 1000, y0).hidX);
            EXPECT_EQ(frame[i].height, hid(x0, y0 + 600).hidY - hid(x0, y0).hidY);
        }
    }
}

// Each rotation turns position and span against the unrotated output; GetHIDCoords never rotates.
TEST_F(CalibrateSystemTest, OutputRotatedPerArea) {
    auto plain = WithAreas(kAreasKeep, {DefaultArea()});
    ASSERT_TRUE(cal.InitCalibrateSys(plain.get(), &geometry));
    Frame base({{1, 2, 12000, 20000, 400, 200}});
    Run(base);
    const int x = base[0].x, y = base[0].y;
    const std::pair<int, int> expected[] = {
        {x, y}, {y, 32767 - x}, {32767 - x, 32767 - y}, {32767 - y, x}};

    for (int rotation = 1; rotation < 4; ++rotation) {
        SCOPED_TRACE(rotation);
        auto area = DefaultArea();
        area.rotation = static_cast<uint8_t>(rotation);
        auto config = WithAreas(kAreasKeep, {area});
        CCalibrateSystem rotated;
        ASSERT_TRUE(rotated.InitCalibrateSys(config.get(), &geometry));
        Frame frame({{1, 2, 12000, 20000, 400, 200}});
        Run(rotated, frame);
        EXPECT_EQ(Xy(frame[0]), expected[rotation]);
        const bool quarter = rotation % 2 == 1;
        EXPECT_EQ(frame[0].width, quarter ? base[0].height : base[0].width);
        EXPECT_EQ(frame[0].height, quarter ? base[0].width : base[0].height);

        rotated.CalFramePoint(frame.get());
        rotated.GetHIDCoords(frame.get());
        EXPECT_EQ(Xy(frame[0]), expected[0]);
    }
}

// Area A holds the point in its core (outside 0); area B, shifted left, holds it 10 raw units
// past its core (outside 10): blend 708, core = 16384 - 354. The list runs in reverse order of
// configuration. The first area of the walk enters with its float weighted by (blend - outside);
// a later one with outside 0 enters through the integer reading of its float slots, so only the
// core-first walk gives a mean of the two positions.
TEST_F(CalibrateSystemTest, TwoOverlappingAreasBlendedInBothWalkOrders) {
    constexpr int kBlend = 708;
    const auto areaA = DefaultArea(1);
    auto areaB = DefaultArea(2);
    areaB.center.x = static_cast<int16_t>(16384 - (16384 - kBlend / 2 + 10));
    const Alone a = Through(areaA, kBlend, 16384, 16384);
    const Alone b = Through(areaB, kBlend, 16384, 16384);
    ASSERT_EQ(a.outside, 0);
    ASSERT_EQ(b.outside, 10);

    for (bool coreFirst : {true, false}) {
        SCOPED_TRACE(coreFirst ? "A walked first" : "B walked first");
        auto config = coreFirst ? WithAreas(kAreasKeep, {areaB, areaA})
                                : WithAreas(kAreasKeep, {areaA, areaB});
        CCalibrateSystem system;
        ASSERT_TRUE(system.InitCalibrateSys(config.get(), &geometry));
        ASSERT_EQ(system.Blend(), kBlend);
        ASSERT_EQ(system.Areas()->id, coreFirst ? 1 : 2);
        Frame frame({{4, 2, 16384, 16384}});
        Run(system, frame);

        auto blended = [&](float av, float bv) {
            float sum = coreFirst ? av * 708.0f : bv * 698.0f;
            sum += coreFirst ? bv * 698.0f
                             : static_cast<float>(cal32::Mul(std::bit_cast<int32_t>(av), 708));
            return sum / 1406.0f;
        };
        const float x = system.Slot(4)->x;
        EXPECT_EQ(x, blended(a.x, b.x));
        EXPECT_EQ(system.Slot(4)->y, blended(a.y, b.y));
        EXPECT_EQ(x > std::min(a.x, b.x) && x < std::max(a.x, b.x), coreFirst);
        EXPECT_EQ(Cell(frame[0]), std::make_pair(0, 1));  // stored in the area with outside 0
    }
}

// Two equal areas: ties go to the earlier area of the walk (the later configured). Beyond both,
// keepOutside false marks the cell (255, 255) but the point is still mapped through the area.
TEST_F(CalibrateSystemTest, TiesAndPointsOutsideEveryArea) {
    for (bool keep : {false, true}) {
        auto config = WithAreas(DEV_FLAG_AREAS_ENABLED | (keep ? DEV_FLAG_KEEP_OUTSIDE : 0),
                                {SmallArea(1), SmallArea(2)});
        ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
        EXPECT_EQ(cal.KeepOutside(), keep);
        Frame frame({{1, 2, 8192, 8192}, {2, 2, 30000, 8192}});  // inside both; beyond both
        Run(frame);
        EXPECT_EQ(Cell(frame[0]), std::make_pair(0, 2));
        EXPECT_EQ(Cell(frame[1]), keep ? std::make_pair(0, 2) : std::make_pair(255, 255));
        EXPECT_NE(cal.Slot(2)->info, nullptr);
        EXPECT_EQ(Xy(frame[1]), std::make_pair(1, 16383));
    }
}

TEST_F(CalibrateSystemTest, ButtonPanelKeptWhileTheStatusClassStays) {
    auto config = WithAreas(kAreasKeep | DEV_FLAG_PANELS_ENABLED, {DefaultArea(1)});
    AddPanel(*config, 7, 8000, 8000, 1000);
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    ASSERT_EQ(Count(cal.Buttons()), 1);

    const std::pair<int, int> panel{255, 7}, area{0, 1};
    const struct {
        uint8_t status;
        uint16_t x, y;
        std::pair<int, int> cell;
    } steps[] = {
        {2, 8000, 8000, panel},    // chosen: inside the panel
        {3, 20000, 20000, panel},  // kept while the status stays at 2 or above
        {1, 20000, 20000, area},   // dropped below 2: chosen again
        {1, 8000, 8000, area},     // kept while the status stays below 2
        {2, 8000, 8000, area},     // rising does not choose again
        {0, 8000, 8000, panel},    // dropping again does
    };
    for (const auto& step : steps) {
        Frame frame({{5, step.status, step.x, step.y}});
        Run(frame);
        EXPECT_EQ(Cell(frame[0]), step.cell) << int(step.status) << " " << step.x;
        // At the panel's centre the button maps to the middle of its 100 x 100 rectangle.
        if (step.cell == panel && step.x == 8000) {
            EXPECT_EQ(Xy(frame[0]), std::make_pair(16383, 16383));
        }
    }
    EXPECT_EQ(cal.Slot(5)->state & (CAL_SLOT_CHOSEN | CAL_SLOT_BUTTON),
              CAL_SLOT_CHOSEN | CAL_SLOT_BUTTON);
}

// Panels and areas a device configuration may hold but that are not used: too small, rotation
// 4, axes of no length (would divide by zero), counts beyond the arrays, disabled by the flags.
TEST_F(CalibrateSystemTest, UnusableAreasAndPanelsAreSkipped) {
    auto panels = WithAreas(DEV_FLAG_PANELS_ENABLED, {});
    for (uint8_t id : {7, 8, 9}) AddPanel(*panels, id, 8000, 8000, 1000);
    panels->panels[2].height = 49;         // too small
    AddPanel(*panels, 10, 8000, 8000, 0);  // axes of no length
    panels->panelCount = 200;              // beyond the array: clamped
    ASSERT_TRUE(cal.InitCalibrateSys(panels.get(), &geometry));
    EXPECT_EQ(Count(cal.Buttons()), 2);
    Frame frame({{1, 2, 8100, 8100}, {2, 2, 30000, 30000}});
    Run(frame);
    EXPECT_EQ(Cell(frame[0]), std::make_pair(255, 8));  // the later panel wins
    EXPECT_EQ(Cell(frame[1]), std::make_pair(0, 0));    // no panel, no area: no mapping
    EXPECT_EQ(cal.Slot(2)->info, nullptr);

    auto rotated = DefaultArea(1), narrow = DefaultArea(2), low = DefaultArea(3), flat = DefaultArea(4);
    rotated.rotation = 4;
    narrow.outputRect.width = 49;
    low.targetRect.height = 49;
    flat.axisV = {0, 0};
    const std::pair<const _HCRECT_CONFIG_FILE*, bool> checks[] = {
        {&rotated, false}, {&narrow, false}, {&low, false}, {&flat, true}, {nullptr, false}};
    for (const auto& [area, valid] : checks) {
        EXPECT_EQ(CCalibrateSystem::CheckCalRectConfig(area), valid);
    }
    auto areas = WithAreas(DEV_FLAG_AREAS_ENABLED, {rotated, narrow, low, flat, DefaultArea(5)});
    ASSERT_TRUE(cal.InitCalibrateSys(areas.get(), &geometry));
    ASSERT_EQ(Count(cal.Areas()), 1);
    EXPECT_EQ(cal.Areas()->id, 5);

    auto full = WithAreas(DEV_FLAG_AREAS_ENABLED, {});
    for (int i = 0; i < DEV_CONFIG_MAX_AREAS; ++i) full->areas[i] = DefaultArea(uint8_t(i));
    full->areaCount = 255;
    ASSERT_TRUE(cal.InitCalibrateSys(full.get(), &geometry));
    EXPECT_EQ(Count(cal.Areas()), DEV_CONFIG_MAX_AREAS);
    EXPECT_EQ(cal.Areas()->id, DEV_CONFIG_MAX_AREAS - 1);

    auto flagsOff = WithAreas(0, {DefaultArea()});
    AddPanel(*flagsOff, 7, 8000, 8000, 1000);
    ASSERT_TRUE(cal.InitCalibrateSys(flagsOff.get(), &geometry));  // rebuilds: old lists released
    EXPECT_EQ(cal.Buttons(), nullptr);
    EXPECT_EQ(cal.Areas(), nullptr);
    EXPECT_FALSE(cal.KeepOutside());
}

std::vector<int> ActiveIds(const CCalibrateSystem& cal) {
    std::vector<int> ids;
    for (const _CAL_POINT_SLOT* s = cal.ActiveSlots(); s != nullptr; s = s->next) {
        ids.push_back(static_cast<int>(s - cal.Slot(0)));
    }
    return ids;
}

TEST_F(CalibrateSystemTest, SlotsSweptOneFrameAfterTheContactLeaves) {
    ASSERT_TRUE(cal.InitCalibrateSys(nullptr, &geometry));
    Frame first({{1, 2, 100, 100}, {2, 1, 200, 200}});
    Run(first);  // the decoder's list is 2, 1: slot 2 pushed first, then 1
    EXPECT_EQ(ActiveIds(cal), (std::vector<int>{1, 2}));
    // Pushed in this frame, so not swept although not marked seen.
    EXPECT_EQ(cal.Slot(1)->state, CAL_SLOT_IN_USE | CAL_SLOT_CHOSEN);
    EXPECT_EQ(cal.Slot(2)->state, CAL_SLOT_IN_USE | CAL_SLOT_LOW_STATUS | CAL_SLOT_CHOSEN);

    Frame second({{1, 2, 110, 110}, {3, 2, 300, 300}});
    Run(second);
    EXPECT_EQ(ActiveIds(cal), (std::vector<int>{3, 1}));
    EXPECT_EQ(cal.Slot(2)->state, 0);
    EXPECT_EQ(cal.Slot(1)->state, CAL_SLOT_IN_USE | CAL_SLOT_CHOSEN);  // seen, mark cleared
    EXPECT_EQ(cal.Slot(3)->state, CAL_SLOT_IN_USE | CAL_SLOT_CHOSEN);

    Frame empty({});
    Run(empty);
    EXPECT_TRUE(ActiveIds(cal).empty());
    Frame duplicate({{2, 2, 100, 100}, {2, 2, 30000, 30000}});  // one id twice: one slot
    Run(duplicate);
    EXPECT_EQ(ActiveIds(cal), (std::vector<int>{2}));
}

// Without areas, every output form of one raw value on both axes: the default mapping (X
// mirrored; halfWidth 16383, edge 60; below the centre d * 16583 / c, above it t * 16384 / c +
// 16383: a step of 200) in HID units and in fractions, the desktop form's own scale (1366 - r *
// 1366 / 32767, r * 768 / 32767), and the device's own units. Raw values are signed: 0xFFFF is
// -1, beyond the low edge and not the high one.
TEST_F(CalibrateSystemTest, WithoutAreasEveryForm) {
    struct Case {
        uint16_t raw;
        int32_t x, y;  // HID
        float fx, fy;
        int32_t desktopX, desktopY;
    };
    const Case cases[] = {
        {0, 32766, 1, 1.0f, 0.0f, 1366, 0},  // d <= 0 at the low edge
        {8192, 32767 - 8262, 8262, 0.750869811f, 0.249130189f, 1025, 192},
        {16382, 16186, 16581, 0.500030518f, 0.499969482f, 684, 383},  // one below half width
        {16383, 16384, 16383, 0.5f, 0.5f, 684, 383},                   // at half width
        {24000, 32767 - 24027, 24027, 0.266709387f, 0.733290613f, 366, 562},
        {32767, 1, 32766, 0.0f, 1.0f, 0, 768},  // t >= c at the high edge
        {0xFFFF, 32766, 1, 1.0f, 0.0f, 1366, 0},
        {0x8000, 32766, 1, 1.0f, 0.0f, 2732, -768},
    };
    ASSERT_TRUE(cal.InitCalibrateSys(nullptr, &geometry));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.raw);
        Frame frame({{1, 2, c.raw, c.raw, 100, -50}});
        Run(frame);
        EXPECT_EQ(Xy(frame[0]), std::make_pair(c.x, c.y));
        EXPECT_EQ(Cell(frame[0]), std::make_pair(0, 0));
        EXPECT_EQ(std::make_pair(frame[0].width, frame[0].height), std::make_pair(100, -50));
        cal.GetTuioCoords(frame.get());
        EXPECT_EQ(std::make_pair(SdkPointFloat(frame[0].x), SdkPointFloat(frame[0].y)),
                  std::make_pair(c.fx, c.fy));
        cal.GetDesktopCoords(frame.get());
        EXPECT_EQ(Xy(frame[0]), std::make_pair(c.desktopX, c.desktopY));
        cal.GetSDKCoords(frame.get());
        EXPECT_EQ(Xy(frame[0]), std::make_pair(int(int16_t(c.raw)), int(int16_t(c.raw))));
    }

    const _CS_CONFIG tiny{8191, 8191, 1, 1};  // halfWidth 0: 16383 at raw 0, 32766 above
    ASSERT_TRUE(cal.InitCalibrateSys(nullptr, &tiny));
    Frame frame({{1, 2, 0, 0, 1, 1}, {2, 2, 1, 1}});
    Run(frame);
    EXPECT_EQ(Xy(frame[0]), std::make_pair(32767 - 16383, 16383));
    EXPECT_EQ(Xy(frame[1]), std::make_pair(1, 32766));
    EXPECT_EQ(std::make_pair(frame[0].width, frame[0].height), std::make_pair(32767, 32767));
    const _CS_CONFIG wide{8191, 8191, 2, 1};  // each size by its own axis
    ASSERT_TRUE(cal.InitCalibrateSys(nullptr, &wide));
    for (const bool tuio : {false, true}) {
        tuio ? cal.GetTuioCoords(frame.get()) : Run(frame);
        EXPECT_EQ(std::make_pair(frame[0].width, frame[0].height), std::make_pair(16383, 32767));
    }

    const _CS_CONFIG huge{1, 1, 32767, 32767};  // edge = 491505: products wrap
    ASSERT_TRUE(cal.InitCalibrateSys(nullptr, &huge));
    for (int raw = 0; raw <= 65535; raw += 97) {
        _HARDWARE_SDK_POINT p{};
        p.rawX = p.rawY = static_cast<uint16_t>(raw);
        cal.DefaultHidCoords(&p);
        ASSERT_TRUE(p.x >= 1 && p.x <= 32766 && p.y >= 1 && p.y <= 32766) << raw;
    }
}

// The other output forms on one mapped frame, then without areas. GetSDKCoords is our choice:
// the device's own units, and the cell CalFramePoint chose.
TEST_F(CalibrateSystemTest, FloatDesktopAndSdkForms) {
    auto area = DefaultArea(4, 2);
    area.outputRect = {0, 100, 1920, 1080};  // output starts below the area's top
    auto config = WithAreas(kAreasKeep, {area});
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    Frame frame({{1, 2, 16384, 16384}, {2, 2, 16384, 1000}, {3, 2, 1234, 4321, 30, -20}});
    cal.CalFramePoint(frame.get());
    for (auto form : {&CCalibrateSystem::GetTuioCoords, &CCalibrateSystem::GetFlashCoords}) {
        (cal.*form)(frame.get());
        EXPECT_EQ(SdkPointFloat(frame[0].x), 0.5f);
        EXPECT_EQ(SdkPointFloat(frame[0].y), 440.0f / 1080.0f);
        // y before the output rectangle: x zeroed, y left in output units.
        EXPECT_EQ(SdkPointFloat(frame[1].x), 0.0f);
        EXPECT_EQ(SdkPointFloat(frame[1].y), cal.Slot(2)->y);
        EXPECT_LT(cal.Slot(2)->y, 100.0f);
    }
    cal.GetDesktopCoords(frame.get());  // slot floats truncated
    EXPECT_EQ(Xy(frame[0]), std::make_pair(960, 540));
    EXPECT_EQ(frame[1].y, static_cast<int32_t>(cal.Slot(2)->y));
    EXPECT_NE(static_cast<float>(frame[1].y), cal.Slot(2)->y);
    cal.GetSDKCoords(frame.get());
    const _HARDWARE_SDK_POINT& p = frame[2];
    EXPECT_EQ((std::vector<int>{p.x, p.y, p.z, p.width, p.height, p.cell[0], p.cell[1]}),
              (std::vector<int>{1234, 4321, -600, 30, -20, 2, 4}));
}

TEST(CalibrateSystem, WarningBits) {
    const std::pair<uint32_t, bool> cases[] = {
        {0, true}, {0x20000, false}, {0xFFFDFFFF, true}, {0xFFFFFFFF, false}, {0x10000, true}};
    for (const auto& [value, warning] : cases) {
        EXPECT_EQ(CCalibrateSystem::GetWarningBits(value), warning) << std::hex << value;
    }
}

}  // namespace
