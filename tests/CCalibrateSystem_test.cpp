#include "CCalibrateSystem.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

struct Contact {
    uint8_t id;
    uint8_t status;
    uint16_t x;
    uint16_t y;
    int16_t w = 0;
    int16_t h = 0;
};

// A decoded frame as the decoder leaves it: contacts linked last-first.
class Frame {
public:
    explicit Frame(const std::vector<Contact>& contacts) : points_(contacts.size()) {
        frame_.logicalWidth = 8191;
        frame_.logicalHeight = 8191;
        frame_.rawWidth = 32767;
        frame_.rawHeight = 32767;
        frame_.pointBufferBytes = static_cast<uint16_t>(points_.size() * sizeof(_HARDWARE_SDK_POINT));
        frame_.pointBuffer = reinterpret_cast<uint8_t*>(points_.data());
        for (size_t i = 0; i < contacts.size(); ++i) {
            _HARDWARE_SDK_POINT& p = points_[i];
            p.id = contacts[i].id;
            p.status = contacts[i].status;
            p.rawX = contacts[i].x;
            p.rawY = contacts[i].y;
            p.rawW = contacts[i].w;
            p.rawH = contacts[i].h;
            p.area = p.rawW * p.rawH;
            p.next = frame_.points;
            frame_.points = &p;
        }
    }

    _HARDWARE_FRAME_SDK* get() { return &frame_; }
    const _HARDWARE_SDK_POINT& operator[](size_t reportIndex) const { return points_[reportIndex]; }

private:
    std::vector<_HARDWARE_SDK_POINT> points_;
    _HARDWARE_FRAME_SDK frame_{};
};

_CS_CONFIG Geometry() { return {8191, 8191, 32767, 32767}; }

// The record is ~24 KB: keep it on the heap, value-initialised (all zero).
std::unique_ptr<_HARDWARE_DEV_CONFIG> Config(uint32_t flags) {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    config->flags = flags;
    return config;
}

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

void AddArea(_HARDWARE_DEV_CONFIG& config, const _HCRECT_CONFIG_FILE& area) {
    config.areas[config.areaCount++] = area;
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

// What one area alone makes of a raw point (float output units).
std::pair<float, float> Alone(const _HCRECT_CONFIG_FILE& area, int margin, int x, int y) {
    const _CS_CONFIG geometry = Geometry();
    std::unique_ptr<_CAL_COORDINATE_INFO, decltype(&FreeCoordinateInfo)> info(
        InitCoordinateInfo(&area, &geometry, margin), &FreeCoordinateInfo);
    TranslateCalCoords(x, y, info.get());
    return {info->x.AsFloat(), info->y.AsFloat()};
}

int Count(const _CAL_COORDINATE_INFO* list) {
    int n = 0;
    for (; list != nullptr; list = list->next) ++n;
    return n;
}

std::pair<int, int> Cell(const _HARDWARE_SDK_POINT& p) { return {p.cell[0], p.cell[1]}; }

class CalibrateSystemTest : public ::testing::Test {
protected:
    // One frame through the worker's two calls.
    void Run(Frame& frame) {
        cal.CalFramePoint(frame.get());
        cal.GetAbsHIDCoords(frame.get());
    }

    CCalibrateSystem cal;
    _CS_CONFIG geometry = Geometry();
};

TEST_F(CalibrateSystemTest, GeometryBelowOneIsRefused) {
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
}

TEST_F(CalibrateSystemTest, DerivedWidths) {
    ASSERT_TRUE(cal.InitCalibrateSys(nullptr, &geometry));
    EXPECT_EQ(cal.Edge(), 32767 * 15 / 8191);    // 60
    EXPECT_EQ(cal.Blend(), 32767 * 177 / 8191);  // 708
    EXPECT_EQ(cal.HalfWidth(), 16383);
    EXPECT_EQ(cal.HalfHeight(), 16383);
    EXPECT_TRUE(cal.KeepOutside());
    EXPECT_EQ(cal.Areas(), nullptr);
    EXPECT_EQ(cal.Buttons(), nullptr);
}

TEST_F(CalibrateSystemTest, DefaultAreaThroughTheSystem) {
    auto config = Config(DEV_FLAG_AREAS_ENABLED | DEV_FLAG_KEEP_OUTSIDE);
    AddArea(*config, DefaultArea(9, 3));
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    ASSERT_EQ(Count(cal.Areas()), 1);

    Frame frame({{1, 2, 16384, 16384}, {2, 2, 20000, 16384}, {3, 2, 24000, 16384}});
    Run(frame);
    EXPECT_EQ(cal.Slot(1)->x, 960.0f);
    EXPECT_EQ(cal.Slot(1)->y, 540.0f);
    EXPECT_EQ(frame[0].x, 16383);  // 960 * 32767 / 1920 = 16383.5
    EXPECT_EQ(frame[0].y, 16383);
    EXPECT_EQ(Cell(frame[0]), std::make_pair(3, 9));
    // Raw X growing: output X shrinking.
    EXPECT_LT(frame[1].x, frame[0].x);
    EXPECT_LT(frame[2].x, frame[1].x);
    EXPECT_EQ(frame[2].y, frame[0].y);
}

TEST_F(CalibrateSystemTest, DeviceDefaultsFromTheConfigurationCodec) {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    DefaultDevConfig(0, 0, config.get());
    DefaultDevCalConfig(0, 0, config.get());
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    EXPECT_TRUE(cal.KeepOutside());
    EXPECT_EQ(cal.Buttons(), nullptr);
    ASSERT_EQ(Count(cal.Areas()), 1);

    // The same default area through a device block.
    std::vector<uint8_t> block(static_cast<size_t>(EncodeDevConfig(config.get(), nullptr)));
    EncodeDevConfig(config.get(), block.data());
    auto decoded = std::make_unique<_HARDWARE_DEV_CONFIG>();
    ASSERT_EQ(DecodeDevConfig(block.data(), static_cast<int>(block.size()), decoded.get()),
              DEV_CONFIG_DECODE_OK);
    CCalibrateSystem fromBlock;
    ASSERT_TRUE(fromBlock.InitCalibrateSys(decoded.get(), &geometry));

    for (CCalibrateSystem* system : {&cal, &fromBlock}) {
        Frame frame({{1, 2, 16384, 16384}});
        system->CalFramePoint(frame.get());
        system->GetAbsHIDCoords(frame.get());
        EXPECT_EQ(system->Slot(1)->x, 960.0f);
        EXPECT_EQ(system->Slot(1)->y, 540.0f);
        EXPECT_EQ(frame[0].x, 16383);
        EXPECT_EQ(frame[0].y, 16383);
        EXPECT_EQ(Cell(frame[0]), std::make_pair(0, 0));
    }
}

TEST_F(CalibrateSystemTest, ContactSpanThroughTheArea) {
    auto config = Config(DEV_FLAG_AREAS_ENABLED | DEV_FLAG_KEEP_OUTSIDE);
    AddArea(*config, DefaultArea());
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    Frame frame({{1, 2, 16384, 16384, 1000, 600}});
    Run(frame);
    // Corners at rawX 15884 / 16884 and rawY 16084 / 16684, each through the area alone.
    auto hid = [&](int x, int y) {
        const _CS_CONFIG g = Geometry();
        const auto area = DefaultArea();
        std::unique_ptr<_CAL_COORDINATE_INFO, decltype(&FreeCoordinateInfo)> info(
            InitCoordinateInfo(&area, &g, cal.Blend()), &FreeCoordinateInfo);
        TranslateCalCoords(x, y, info.get());
        GetShortCoords(info.get());
        return std::make_pair(info->x.AsInt(), info->y.AsInt());
    };
    EXPECT_EQ(frame[0].width, hid(15884, 16084).first - hid(16884, 16084).first);
    EXPECT_EQ(frame[0].height, hid(15884, 16684).second - hid(15884, 16084).second);
    EXPECT_GT(frame[0].width, 900);
    EXPECT_GT(frame[0].height, 500);
}

class RotationSystemTest : public CalibrateSystemTest,
                           public ::testing::WithParamInterface<int> {};

TEST_P(RotationSystemTest, OutputRotatedPerArea) {
    const int rotation = GetParam();
    auto config = Config(DEV_FLAG_AREAS_ENABLED | DEV_FLAG_KEEP_OUTSIDE);
    auto area = DefaultArea();
    area.rotation = static_cast<uint8_t>(rotation);
    AddArea(*config, area);
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    Frame frame({{1, 2, 12000, 20000, 400, 200}});
    Run(frame);

    CCalibrateSystem plain;
    auto unrotated = Config(DEV_FLAG_AREAS_ENABLED | DEV_FLAG_KEEP_OUTSIDE);
    AddArea(*unrotated, DefaultArea());
    ASSERT_TRUE(plain.InitCalibrateSys(unrotated.get(), &geometry));
    Frame base({{1, 2, 12000, 20000, 400, 200}});
    plain.CalFramePoint(base.get());
    plain.GetAbsHIDCoords(base.get());

    const int x = base[0].x, y = base[0].y;
    const std::pair<int, int> expected[] = {
        {x, y}, {y, 32767 - x}, {32767 - x, 32767 - y}, {32767 - y, x}};
    EXPECT_EQ(std::make_pair(frame[0].x, frame[0].y), expected[rotation]);
    const bool quarter = rotation % 2 == 1;
    EXPECT_EQ(frame[0].width, quarter ? base[0].height : base[0].width);
    EXPECT_EQ(frame[0].height, quarter ? base[0].width : base[0].height);

    // GetHIDCoords is the same output without any rotation.
    cal.CalFramePoint(frame.get());
    cal.GetHIDCoords(frame.get());
    EXPECT_EQ(std::make_pair(frame[0].x, frame[0].y), std::make_pair(x, y));
}

INSTANTIATE_TEST_SUITE_P(ZeroTo270, RotationSystemTest, ::testing::Values(0, 1, 2, 3));

// Area A holds the point in its core (outside 0); area B, shifted left, holds it 10 raw units
// past its core (outside 10). B = 708, core = 16384 - 354.
class BlendTest : public CalibrateSystemTest {
protected:
    static constexpr int kBlend = 708;
    static _HCRECT_CONFIG_FILE AreaA() { return DefaultArea(1); }
    static _HCRECT_CONFIG_FILE AreaB() {
        auto area = DefaultArea(2);
        area.center.x = static_cast<int16_t>(16384 - (16384 - kBlend / 2 + 10));
        return area;
    }
};

TEST_F(BlendTest, OutsideValuesOfTheTwoAreas) {
    const _CS_CONFIG g = Geometry();
    const auto a = AreaA();
    const auto b = AreaB();
    std::unique_ptr<_CAL_COORDINATE_INFO, decltype(&FreeCoordinateInfo)> ia(
        InitCoordinateInfo(&a, &g, kBlend), &FreeCoordinateInfo);
    std::unique_ptr<_CAL_COORDINATE_INFO, decltype(&FreeCoordinateInfo)> ib(
        InitCoordinateInfo(&b, &g, kBlend), &FreeCoordinateInfo);
    TranslateCalCoords(16384, 16384, ia.get());
    TranslateCalCoords(16384, 16384, ib.get());
    EXPECT_EQ(ia->outside, 0);
    EXPECT_EQ(ib->outside, 10);
}

TEST_F(BlendTest, CoreAreaFirstInTheWalkGivesTheWeightedMean) {
    // Lists run in reverse: configuring B then A walks A first.
    auto config = Config(DEV_FLAG_AREAS_ENABLED | DEV_FLAG_KEEP_OUTSIDE);
    AddArea(*config, AreaB());
    AddArea(*config, AreaA());
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    ASSERT_EQ(cal.Blend(), kBlend);
    ASSERT_EQ(cal.Areas()->id, 1);

    Frame frame({{4, 2, 16384, 16384}});
    Run(frame);
    const auto [ax, ay] = Alone(AreaA(), kBlend, 16384, 16384);
    const auto [bx, by] = Alone(AreaB(), kBlend, 16384, 16384);
    float sumX = ax * 708.0f;
    sumX += bx * 698.0f;
    float sumY = ay * 708.0f;
    sumY += by * 698.0f;
    EXPECT_EQ(cal.Slot(4)->x, sumX / 1406.0f);
    EXPECT_EQ(cal.Slot(4)->y, sumY / 1406.0f);
    EXPECT_GT(cal.Slot(4)->x, std::min(ax, bx));
    EXPECT_LT(cal.Slot(4)->x, std::max(ax, bx));
    EXPECT_EQ(Cell(frame[0]), std::make_pair(0, 1));  // stored in the area with outside 0
}

TEST_F(BlendTest, CoreAreaSecondEntersThroughItsIntegerReading) {
    auto config = Config(DEV_FLAG_AREAS_ENABLED | DEV_FLAG_KEEP_OUTSIDE);
    AddArea(*config, AreaA());
    AddArea(*config, AreaB());
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    ASSERT_EQ(cal.Areas()->id, 2);

    Frame frame({{4, 2, 16384, 16384}});
    Run(frame);
    const auto [ax, ay] = Alone(AreaA(), kBlend, 16384, 16384);
    const auto [bx, by] = Alone(AreaB(), kBlend, 16384, 16384);
    const int32_t axBits = std::bit_cast<int32_t>(ax);
    const int32_t ayBits = std::bit_cast<int32_t>(ay);
    float sumX = bx * 698.0f;
    sumX += static_cast<float>(cal32::Mul(axBits, 708));
    float sumY = by * 698.0f;
    sumY += static_cast<float>(cal32::Mul(ayBits, 708));
    EXPECT_EQ(cal.Slot(4)->x, sumX / 1406.0f);
    EXPECT_EQ(cal.Slot(4)->y, sumY / 1406.0f);
    // Not a mean of the two positions.
    EXPECT_FALSE(cal.Slot(4)->x > std::min(ax, bx) && cal.Slot(4)->x < std::max(ax, bx));
    EXPECT_EQ(Cell(frame[0]), std::make_pair(0, 1));
}

TEST_F(CalibrateSystemTest, TiesGoToTheEarlierAreaOfTheWalk) {
    auto config = Config(DEV_FLAG_AREAS_ENABLED | DEV_FLAG_KEEP_OUTSIDE);
    AddArea(*config, SmallArea(1));
    AddArea(*config, SmallArea(2));
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    Frame frame({{1, 2, 8192, 8192}, {2, 2, 30000, 8192}});  // inside both; beyond both
    Run(frame);
    EXPECT_EQ(Cell(frame[0]), std::make_pair(0, 2));
    EXPECT_EQ(Cell(frame[1]), std::make_pair(0, 2));
}

TEST_F(CalibrateSystemTest, OutsideEveryAreaWithoutKeepOutside) {
    for (bool keep : {false, true}) {
        auto config = Config(DEV_FLAG_AREAS_ENABLED | (keep ? DEV_FLAG_KEEP_OUTSIDE : 0));
        AddArea(*config, SmallArea(6));
        ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
        EXPECT_EQ(cal.KeepOutside(), keep);
        Frame frame({{1, 2, 30000, 8192}});
        Run(frame);
        EXPECT_EQ(Cell(frame[0]), keep ? std::make_pair(0, 6) : std::make_pair(255, 255));
        // Still mapped through the nearest area, not the default mapping.
        EXPECT_NE(cal.Slot(1)->info, nullptr);
        EXPECT_EQ(frame[0].x, 1);
        EXPECT_EQ(frame[0].y, 16383);
    }
}

TEST_F(CalibrateSystemTest, ButtonPanelKeptWhileTheStatusClassStays) {
    auto config = Config(DEV_FLAG_AREAS_ENABLED | DEV_FLAG_KEEP_OUTSIDE | DEV_FLAG_PANELS_ENABLED);
    AddArea(*config, DefaultArea(1));
    AddPanel(*config, 7, 8000, 8000, 1000);
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    ASSERT_EQ(Count(cal.Buttons()), 1);

    struct Step {
        uint8_t status;
        uint16_t x, y;
        std::pair<int, int> cell;
    };
    const std::pair<int, int> panel{255, 7}, area{0, 1};
    const Step steps[] = {
        {2, 8000, 8000, panel},    // chosen: inside the panel
        {3, 20000, 20000, panel},  // kept while the status stays at 2 or above
        {1, 20000, 20000, area},   // dropped below 2: chosen again
        {1, 8000, 8000, area},     // kept while the status stays below 2
        {2, 8000, 8000, area},     // rising does not choose again
        {0, 8000, 8000, panel},    // dropping again does
    };
    for (const Step& step : steps) {
        Frame frame({{5, step.status, step.x, step.y}});
        Run(frame);
        EXPECT_EQ(Cell(frame[0]), step.cell) << int(step.status) << " " << step.x;
    }
    // At the panel's centre the button maps to the middle of its 100 x 100 rectangle.
    Frame frame({{5, 0, 8000, 8000}});
    Run(frame);
    EXPECT_EQ(frame[0].x, 16383);
    EXPECT_EQ(frame[0].y, 16383);
    EXPECT_EQ(cal.Slot(5)->state & (CAL_SLOT_CHOSEN | CAL_SLOT_BUTTON),
              CAL_SLOT_CHOSEN | CAL_SLOT_BUTTON);
}

TEST_F(CalibrateSystemTest, LaterPanelWinsAndUnusablePanelsAreSkipped) {
    auto config = Config(DEV_FLAG_PANELS_ENABLED);
    AddPanel(*config, 7, 8000, 8000, 1000);
    AddPanel(*config, 8, 8000, 8000, 1000);
    AddPanel(*config, 9, 8000, 8000, 1000);
    config->panels[2].height = 49;  // too small
    AddPanel(*config, 10, 8000, 8000, 0);  // axes of no length
    config->panelCount = 200;              // beyond the array: clamped
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    EXPECT_EQ(Count(cal.Buttons()), 2);
    Frame frame({{1, 2, 8100, 8100}, {2, 2, 30000, 30000}});
    Run(frame);
    EXPECT_EQ(Cell(frame[0]), std::make_pair(255, 8));
    // Outside every panel and no areas: no mapping.
    EXPECT_EQ(Cell(frame[1]), std::make_pair(0, 0));
    EXPECT_EQ(cal.Slot(2)->info, nullptr);
}

TEST_F(CalibrateSystemTest, PanelsIgnoredWithoutTheirFlag) {
    auto config = Config(0);
    AddPanel(*config, 7, 8000, 8000, 1000);
    AddArea(*config, DefaultArea());
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    EXPECT_EQ(cal.Buttons(), nullptr);
    EXPECT_EQ(cal.Areas(), nullptr);
    EXPECT_FALSE(cal.KeepOutside());
}

TEST_F(CalibrateSystemTest, InvalidAreasAreSkipped) {
    auto config = Config(DEV_FLAG_AREAS_ENABLED);
    auto rotated = DefaultArea(1);
    rotated.rotation = 4;
    auto narrow = DefaultArea(2);
    narrow.outputRect.width = 49;
    auto low = DefaultArea(3);
    low.targetRect.height = 49;
    auto flat = DefaultArea(4);
    flat.axisV = {0, 0};
    auto good = DefaultArea(5);
    for (const auto& a : {rotated, narrow, low, flat, good}) AddArea(*config, a);
    EXPECT_FALSE(CCalibrateSystem::CheckCalRectConfig(&rotated));
    EXPECT_FALSE(CCalibrateSystem::CheckCalRectConfig(&narrow));
    EXPECT_FALSE(CCalibrateSystem::CheckCalRectConfig(&low));
    EXPECT_TRUE(CCalibrateSystem::CheckCalRectConfig(&flat));
    EXPECT_FALSE(CCalibrateSystem::CheckCalRectConfig(nullptr));
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    ASSERT_EQ(Count(cal.Areas()), 1);
    EXPECT_EQ(cal.Areas()->id, 5);
}

TEST_F(CalibrateSystemTest, AreaCountClampedToTheArray) {
    auto config = Config(DEV_FLAG_AREAS_ENABLED);
    for (int i = 0; i < DEV_CONFIG_MAX_AREAS; ++i) AddArea(*config, DefaultArea(uint8_t(i)));
    config->areaCount = 255;
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    EXPECT_EQ(Count(cal.Areas()), DEV_CONFIG_MAX_AREAS);
    EXPECT_EQ(cal.Areas()->id, DEV_CONFIG_MAX_AREAS - 1);
    // Rebuilding releases the old lists first.
    ASSERT_TRUE(cal.InitCalibrateSys(nullptr, &geometry));
    EXPECT_EQ(cal.Areas(), nullptr);
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
    Frame again({{2, 2, 100, 100}});
    Run(again);
    EXPECT_EQ(ActiveIds(cal), (std::vector<int>{2}));
}

TEST_F(CalibrateSystemTest, DuplicateIdsShareOneSlot) {
    ASSERT_TRUE(cal.InitCalibrateSys(nullptr, &geometry));
    Frame frame({{1, 2, 100, 100}, {1, 2, 30000, 30000}});
    Run(frame);
    EXPECT_EQ(ActiveIds(cal), (std::vector<int>{1}));
}

struct DefaultCase {
    uint16_t raw;
    int32_t x;  // mirrored
    int32_t y;
};

class DefaultHidTest : public CalibrateSystemTest, public ::testing::WithParamInterface<DefaultCase> {};

TEST_P(DefaultHidTest, WithoutAreas) {
    ASSERT_TRUE(cal.InitCalibrateSys(nullptr, &geometry));
    ASSERT_EQ(cal.Edge(), 60);
    const DefaultCase& c = GetParam();
    Frame frame({{1, 2, c.raw, c.raw, 100, -50}});
    Run(frame);
    EXPECT_EQ(frame[0].x, c.x);
    EXPECT_EQ(frame[0].y, c.y);
    EXPECT_EQ(Cell(frame[0]), std::make_pair(0, 0));
    EXPECT_EQ(frame[0].width, 100 * 32767 / 32767);
    EXPECT_EQ(frame[0].height, -50);
}

// halfWidth 16383, edge 60: below the centre v = d * 16583 / c, above it t * 16384 / c + 16383.
INSTANTIATE_TEST_SUITE_P(
    Cases, DefaultHidTest,
    ::testing::Values(DefaultCase{0, 32766, 1},           // d <= 0 at the low edge
                      DefaultCase{16383, 16384, 16383},   // at half width
                      DefaultCase{16382, 16186, 16581},   // one below: the step of 200
                      DefaultCase{8192, 32767 - 8262, 8262},
                      DefaultCase{24000, 32767 - 24027, 24027},
                      DefaultCase{32767, 1, 32766},       // t >= c at the high edge
                      DefaultCase{65535, 1, 32766}));

TEST_F(CalibrateSystemTest, DefaultHidStaysInRangeForAHugeEdge) {
    const _CS_CONFIG g{1, 1, 32767, 32767};  // edge = 491505: products wrap
    ASSERT_TRUE(cal.InitCalibrateSys(nullptr, &g));
    for (int raw = 0; raw <= 65535; raw += 97) {
        _HARDWARE_SDK_POINT p{};
        p.rawX = static_cast<uint16_t>(raw);
        p.rawY = static_cast<uint16_t>(raw);
        cal.DefaultHidCoords(&p);
        ASSERT_GE(p.x, 1);
        ASSERT_LE(p.x, 32766);
        ASSERT_GE(p.y, 1);
        ASSERT_LE(p.y, 32766);
    }
}

TEST_F(CalibrateSystemTest, DefaultHidWithARawExtentOfOne) {
    const _CS_CONFIG g{8191, 8191, 1, 1};
    ASSERT_TRUE(cal.InitCalibrateSys(nullptr, &g));
    ASSERT_EQ(cal.HalfWidth(), 0);
    _HARDWARE_SDK_POINT p{};
    cal.DefaultHidCoords(&p);
    EXPECT_EQ(p.x, 32767 - 16383);
    EXPECT_EQ(p.y, 16383);
    p.rawX = p.rawY = 1;
    cal.DefaultHidCoords(&p);
    EXPECT_EQ(p.x, 1);
    EXPECT_EQ(p.y, 32766);
}

TEST_F(CalibrateSystemTest, FloatForms) {
    auto config = Config(DEV_FLAG_AREAS_ENABLED | DEV_FLAG_KEEP_OUTSIDE | DEV_FLAG_PANELS_ENABLED);
    auto area = DefaultArea();
    area.targetRect = {0, 0, 1920, 1080};
    area.outputRect = {0, 100, 1920, 1080};  // output starts below the area's top
    AddArea(*config, area);
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    for (auto form : {&CCalibrateSystem::GetTuioCoords, &CCalibrateSystem::GetFlashCoords}) {
        Frame frame({{1, 2, 16384, 16384}, {2, 2, 16384, 1000}});
        cal.CalFramePoint(frame.get());
        (cal.*form)(frame.get());
        EXPECT_EQ(SdkPointFloat(frame[0].x), 0.5f);
        EXPECT_EQ(SdkPointFloat(frame[0].y), 440.0f / 1080.0f);
        // y before the output rectangle: x zeroed, y left in output units.
        EXPECT_EQ(SdkPointFloat(frame[1].x), 0.0f);
        EXPECT_EQ(SdkPointFloat(frame[1].y), cal.Slot(2)->y);
        EXPECT_LT(cal.Slot(2)->y, 100.0f);
    }
}

TEST_F(CalibrateSystemTest, DefaultFloatCoords) {
    ASSERT_TRUE(cal.InitCalibrateSys(nullptr, &geometry));
    Frame frame({{1, 2, 0, 0}, {2, 2, 16383, 16383}, {3, 2, 32767, 32767}, {4, 2, 8192, 8192}});
    cal.CalFramePoint(frame.get());
    cal.GetTuioCoords(frame.get());
    EXPECT_EQ(SdkPointFloat(frame[0].x), 1.0f);  // mirrored low edge
    EXPECT_EQ(SdkPointFloat(frame[0].y), 0.0f);
    EXPECT_EQ(SdkPointFloat(frame[1].x), 0.5f);
    EXPECT_EQ(SdkPointFloat(frame[1].y), 0.5f);
    EXPECT_EQ(SdkPointFloat(frame[2].x), 0.0f);
    EXPECT_EQ(SdkPointFloat(frame[2].y), 1.0f);
    // rawX 8192: t = 16443 * 8191 / 16383 = 8220, d = 8163.
    EXPECT_EQ(SdkPointFloat(frame[3].y), static_cast<float>(8163 * 0.5 / 16383));
    EXPECT_EQ(SdkPointFloat(frame[3].x), 1.0f - static_cast<float>(8163 * 0.5 / 16383));
}

TEST_F(CalibrateSystemTest, DesktopCoords) {
    auto config = Config(DEV_FLAG_AREAS_ENABLED | DEV_FLAG_KEEP_OUTSIDE);
    AddArea(*config, SmallArea(1));
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    Frame frame({{1, 2, 8192, 8192}, {2, 2, 9000, 8192}});
    cal.CalFramePoint(frame.get());
    cal.GetDesktopCoords(frame.get());
    EXPECT_EQ(frame[0].x, 960);
    EXPECT_EQ(frame[0].y, 540);
    EXPECT_EQ(frame[1].x, static_cast<int32_t>(cal.Slot(2)->x));

    ASSERT_TRUE(cal.InitCalibrateSys(nullptr, &geometry));
    Frame unmapped({{1, 2, 16384, 16384}});
    cal.CalFramePoint(unmapped.get());
    cal.GetDesktopCoords(unmapped.get());
    EXPECT_EQ(unmapped[0].x, 1366 - 16384 * 1366 / 32767);
    EXPECT_EQ(unmapped[0].y, 16384 * 768 / 32767);
}

TEST_F(CalibrateSystemTest, SdkCoordsAreTheDeviceUnits) {
    auto config = Config(DEV_FLAG_AREAS_ENABLED | DEV_FLAG_KEEP_OUTSIDE);
    AddArea(*config, DefaultArea(4, 2));
    ASSERT_TRUE(cal.InitCalibrateSys(config.get(), &geometry));
    Frame frame({{1, 2, 1234, 4321, 30, -20}});
    cal.CalFramePoint(frame.get());
    cal.GetSDKCoords(frame.get());
    EXPECT_EQ(frame[0].x, 1234);
    EXPECT_EQ(frame[0].y, 4321);
    EXPECT_EQ(frame[0].z, -600);
    EXPECT_EQ(frame[0].width, 30);
    EXPECT_EQ(frame[0].height, -20);
    EXPECT_EQ(Cell(frame[0]), std::make_pair(2, 4));  // the choice of CalFramePoint stays
}

TEST(CalibrateSystem, WarningBits) {
    EXPECT_TRUE(CCalibrateSystem::GetWarningBits(0));
    EXPECT_FALSE(CCalibrateSystem::GetWarningBits(0x20000));
    EXPECT_TRUE(CCalibrateSystem::GetWarningBits(0xFFFDFFFF));
    EXPECT_FALSE(CCalibrateSystem::GetWarningBits(0xFFFFFFFF));
    EXPECT_TRUE(CCalibrateSystem::GetWarningBits(0x10000));
}

}  // namespace
