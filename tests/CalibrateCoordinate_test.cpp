#include "CalibrateCoordinate.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <tuple>

namespace {

using InfoPtr = std::unique_ptr<_CAL_COORDINATE_INFO, decltype(&FreeCoordinateInfo)>;

// The area a device starts with: one area over the whole frame, 1920 x 1080 output.
_HCRECT_CONFIG_FILE DefaultArea() {
    _HCRECT_CONFIG_FILE area{};
    area.outputRect = {0, 0, 1920, 1080};
    area.targetRect = {0, 0, 1920, 1080};
    for (auto& a : area.edgeAdjust) a = 15;
    area.center = {16384, 16384};
    area.axisH = {-16384, 0};
    area.axisV = {0, 16384};
    return area;
}

// Raw extents 32767 make normalised units equal raw units.
_CS_CONFIG Geometry() { return {8191, 8191, 32767, 32767}; }

InfoPtr Make(const _HCRECT_CONFIG_FILE& area, int margin = 0, _CS_CONFIG geometry = Geometry()) {
    return InfoPtr(InitCoordinateInfo(&area, &geometry, margin), &FreeCoordinateInfo);
}

// 32-bit wrap of a wide value, as the device arithmetic does it.
int32_t Wrap(int64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); }

TEST(CalibrateCoordinate, DefaultAreaAxes) {
    auto info = Make(DefaultArea());
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->lineHOriginX, 32768);
    EXPECT_EQ(info->lineHOriginY, 16384);
    EXPECT_EQ(info->lineHDirX, -32768);
    EXPECT_EQ(info->lineHDirY, 0);
    EXPECT_EQ(info->lineVOriginX, 16384);
    EXPECT_EQ(info->lineVOriginY, 0);
    EXPECT_EQ(info->lineVDirX, 0);
    EXPECT_EQ(info->lineVDirY, 32768);
    EXPECT_EQ(info->lengthH, -32768);
    EXPECT_EQ(info->lengthV, -32768);
    EXPECT_EQ(info->halfH, 16384);
    EXPECT_EQ(info->halfV, 16384);
    EXPECT_EQ(info->centerX, 960);
    EXPECT_EQ(info->centerY, 540);
    // ((15 * (32767 * 960)) / 8191) / 16384 + 960, and the same with 540 for Y.
    EXPECT_EQ(info->scaleMinusX, 963);
    EXPECT_EQ(info->scalePlusX, 963);
    EXPECT_EQ(info->scalePlusY, 541);
    EXPECT_EQ(info->scaleMinusY, 541);
    EXPECT_EQ(info->next, nullptr);
}

TEST(CalibrateCoordinate, DefaultAreaMapsCentreToTargetCentre) {
    auto info = Make(DefaultArea());
    TranslateCalCoords(16384, 16384, info.get());
    EXPECT_EQ(info->x.AsFloat(), 960.0f);
    EXPECT_EQ(info->y.AsFloat(), 540.0f);
    EXPECT_EQ(info->outside, 0);

    TranslateCalCoords(20000, 16384, info.get());  // dV = 3616
    EXPECT_EQ(info->x.AsFloat(), 960.0f - static_cast<float>(963 * 3616) / 16384.0f);
}

TEST(CalibrateCoordinate, DefaultAreaMirrorsXAndKeepsY) {
    auto info = Make(DefaultArea());
    float lastX = INFINITY;
    float lastY = -INFINITY;
    for (int raw = 0; raw <= 32767; raw += 1024) {
        TranslateCalCoords(raw, 16384, info.get());
        EXPECT_LT(info->x.AsFloat(), lastX) << raw;
        lastX = info->x.AsFloat();
        TranslateCalCoords(16384, raw, info.get());
        EXPECT_GT(info->y.AsFloat(), lastY) << raw;
        lastY = info->y.AsFloat();
    }
}

TEST(CalibrateCoordinate, AxisPointingRightKeepsXDirection) {
    auto area = DefaultArea();
    area.axisH = {16384, 0};
    auto info = Make(area);
    EXPECT_EQ(info->lengthH, 32768);
    EXPECT_EQ(info->lengthV, 32768);
    TranslateCalCoords(10000, 16384, info.get());
    const float left = info->x.AsFloat();
    TranslateCalCoords(20000, 16384, info.get());
    EXPECT_GT(info->x.AsFloat(), left);
}

TEST(CalibrateCoordinate, PointOnVerticalAxisTakesMinusXBranch) {
    auto info = Make(DefaultArea(), 708);
    for (int rawY : {0, 5000, 16384, 30000}) {
        TranslateCalCoords(16384, rawY, info.get());  // dV = 0
        EXPECT_EQ(info->x.AsFloat(), 960.0f) << rawY;
    }
    TranslateCalCoords(16384, 16384, info.get());
    EXPECT_EQ(info->outside, 0);
}

// In the default area dV = rawX - 16384 and dH = rawY - 16384.
class OutsideTest : public ::testing::TestWithParam<int> {};

TEST_P(OutsideTest, ExcessOnEachSide) {
    const int margin = GetParam();
    auto info = Make(DefaultArea(), margin);
    const int core = 16384 - margin / 2;
    ASSERT_EQ(info->coreH, core);
    ASSERT_EQ(info->coreV, core);
    auto outside = [&](int dV, int dH) {
        TranslateCalCoords(16384 + dV, 16384 + dH, info.get());
        return info->outside;
    };
    EXPECT_EQ(outside(core, 0), 0);
    EXPECT_EQ(outside(core + 5, 0), 5);        // minus-X side of the output
    EXPECT_EQ(outside(-core, 0), 0);
    EXPECT_EQ(outside(-(core + 5), 0), 5);     // plus-X side
    EXPECT_EQ(outside(0, core), 0);
    EXPECT_EQ(outside(0, core + 5), 5);        // plus-Y side
    EXPECT_EQ(outside(0, -(16384 + 5)), 5);    // minus-Y side, against halfV
    // The minus-Y side ignores the margin: a point 5 past the core is inside there.
    EXPECT_EQ(outside(0, -(core + 5)), margin == 0 ? 5 : 0);
    EXPECT_EQ(outside(core + 5, core + 7), 12);     // the two excesses add
    EXPECT_EQ(outside(-(core + 5), -(16384 + 7)), 12);
}

INSTANTIATE_TEST_SUITE_P(Margins, OutsideTest, ::testing::Values(0, 100, 708));

TEST(CalibrateCoordinate, MarginIsHalvedWithTruncation) {
    auto info = Make(DefaultArea(), 101);
    EXPECT_EQ(info->coreH, 16384 - 50);
    EXPECT_EQ(info->coreV, 16384 - 50);
}

TEST(CalibrateCoordinate, EdgeAdjustStretchesOneSide) {
    auto area = DefaultArea();
    area.edgeAdjust[EDGE_MINUS_X] = 0;
    area.edgeAdjust[EDGE_PLUS_X] = 60;
    area.edgeAdjust[EDGE_MINUS_Y] = -15;
    area.edgeAdjust[EDGE_PLUS_Y] = 0;
    auto info = Make(area);
    EXPECT_EQ(info->scaleMinusX, 960);
    EXPECT_EQ(info->scalePlusX, (60 * (32767 * 960)) / 8191 / 16384 + 960);
    EXPECT_EQ(info->scaleMinusY, (-15 * (32767 * 540)) / 8191 / 16384 + 540);
    EXPECT_EQ(info->scalePlusY, 540);
}

TEST(CalibrateCoordinate, ProductsWrapAs32Bit) {
    auto area = DefaultArea();
    area.targetRect = {0, 0, 0x7FFFFFFE, 1080};
    area.edgeAdjust[EDGE_MINUS_X] = 127;
    auto info = Make(area);
    ASSERT_NE(info, nullptr);
    const int32_t hw = 0x3FFFFFFF;
    const int32_t inner = Wrap(static_cast<int64_t>(32767) * hw);
    const int32_t expected = Wrap(static_cast<int64_t>(Wrap(int64_t{127} * inner) / 8191 / 16384) + hw);
    EXPECT_EQ(info->scaleMinusX, expected);
    // Translation with the wrapped scale stays defined.
    TranslateCalCoords(65535, 65535, info.get());
    EXPECT_EQ(info->x.AsFloat(),
              static_cast<float>(info->centerX) -
                  static_cast<float>(Wrap(static_cast<int64_t>(expected) * (65535 - 16384))) /
                      16384.0f);
}

TEST(CalibrateCoordinate, DegenerateAreasGetNoState) {
    auto flat = DefaultArea();
    flat.axisH = {0, 0};
    EXPECT_EQ(Make(flat), nullptr);
    auto thin = DefaultArea();
    thin.axisV = {0, 0};
    EXPECT_EQ(Make(thin), nullptr);
    // A raw extent of 1: the axis is 1 raw unit long, its half 0.
    EXPECT_EQ(Make(DefaultArea(), 0, {8191, 8191, 1, 32767}), nullptr);
    EXPECT_EQ(Make(DefaultArea(), 0, {0, 8191, 32767, 32767}), nullptr);
    EXPECT_EQ(Make(DefaultArea(), 0, {8191, -1, 32767, 32767}), nullptr);
    EXPECT_EQ(Make(DefaultArea(), 0, {8191, 8191, 32767, 0}), nullptr);
    EXPECT_EQ(InitCoordinateInfo(nullptr, nullptr, 0), nullptr);
    // Two raw units is the shortest usable axis.
    auto shortest = DefaultArea();
    shortest.axisH = {1, 0};
    auto info = Make(shortest);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->halfH, 1);
    FreeCoordinateInfo(nullptr);
}

TEST(CalibrateCoordinate, CopiesIdentityAndRectangles) {
    auto area = DefaultArea();
    area.id = 9;
    area.group = 4;
    area.rotation = 3;
    area.outputRect = {10, 20, 300, 400};
    auto info = Make(area);
    EXPECT_EQ(info->id, 9);
    EXPECT_EQ(info->group, 4);
    EXPECT_EQ(info->rotation, 3);
    EXPECT_EQ(info->outputRect.width, 300);
    EXPECT_EQ(info->floatRect.height, 400);
    EXPECT_EQ(info->floatRect.x, 10);
}

_CAL_COORDINATE_INFO RectInfo() {
    _CAL_COORDINATE_INFO info{};
    info.outputRect = {100, 200, 1000, 500};
    info.floatRect = info.outputRect;
    return info;
}

TEST(CalibrateCoordinate, ShortCoordsRange) {
    auto info = RectInfo();
    auto hid = [&](float x, float y) {
        info.x.SetFloat(x);
        info.y.SetFloat(y);
        GetShortCoords(&info);
        return std::make_pair(info.x.AsInt(), info.y.AsInt());
    };
    EXPECT_EQ(hid(100.0f, 200.0f), std::make_pair(1, 1));            // at the start
    EXPECT_EQ(hid(1100.0f, 700.0f), std::make_pair(32766, 32766));    // at start + width
    EXPECT_EQ(hid(-5.0f, 9999.0f), std::make_pair(1, 32766));
    EXPECT_EQ(hid(600.0f, 450.0f), std::make_pair(16383, 16383));     // 16383.5 truncated
    EXPECT_EQ(hid(100.01f, 200.01f), std::make_pair(1, 1));           // 0 raised to 1
    EXPECT_EQ(hid(1099.99f, 699.99f), std::make_pair(32766, 32766));
    EXPECT_EQ(hid(350.0f, 325.0f).first, static_cast<int32_t>(250.0f * 32767.0f / 1000.0f));
    EXPECT_EQ(hid(NAN, INFINITY), std::make_pair(1, 32766));
}

TEST(CalibrateCoordinate, FloatCoordsAndTheYCrossOver) {
    auto info = RectInfo();
    info.x.SetFloat(600.0f);
    info.y.SetFloat(450.0f);
    GetFloatCoords(&info);
    EXPECT_EQ(info.x.AsFloat(), 0.5f);
    EXPECT_EQ(info.y.AsFloat(), 0.5f);

    info.x.SetFloat(50.0f);
    info.y.SetFloat(2000.0f);
    GetFloatCoords(&info);
    EXPECT_EQ(info.x.AsFloat(), 0.0f);
    EXPECT_EQ(info.y.AsFloat(), 1.0f);

    // y before the rectangle: x is zeroed and y keeps its output-unit value.
    info.x.SetFloat(600.0f);
    info.y.SetFloat(150.0f);
    GetFloatCoords(&info);
    EXPECT_EQ(info.x.AsFloat(), 0.0f);
    EXPECT_EQ(info.y.AsFloat(), 150.0f);
}

struct Rotation {
    void (*rotate)(_CAL_COORDINATE_INFO*);
    int32_t x, y, newX, newY;
};

class RotationTest : public ::testing::TestWithParam<Rotation> {};

TEST_P(RotationTest, MirrorsAgainst32767) {
    const Rotation& r = GetParam();
    _CAL_COORDINATE_INFO info{};
    info.x.SetInt(r.x);
    info.y.SetInt(r.y);
    r.rotate(&info);
    EXPECT_EQ(info.x.AsInt(), r.newX);
    EXPECT_EQ(info.y.AsInt(), r.newY);
}

INSTANTIATE_TEST_SUITE_P(
    All, RotationTest,
    ::testing::Values(Rotation{RotateCoordsHID_90, 1, 32766, 32766, 32766},
                      Rotation{RotateCoordsHID_270, 1, 32766, 1, 1},
                      Rotation{RotateCoordsHID_180, 1, 32766, 32766, 1},
                      Rotation{RotateCoordsHID_90, 100, 2000, 2000, 32667},
                      Rotation{RotateCoordsHID_180, 100, 2000, 32667, 30767},
                      Rotation{RotateCoordsHID_270, 100, 2000, 30767, 100}));

class SqrtIntTest : public ::testing::TestWithParam<std::tuple<uint32_t, uint32_t>> {};

TEST_P(SqrtIntTest, Value) {
    EXPECT_EQ(SqrtInt(std::get<0>(GetParam())), std::get<1>(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(
    Listed, SqrtIntTest,
    ::testing::Values(std::make_tuple(0u, 0u), std::make_tuple(1u, 1u), std::make_tuple(2u, 1u),
                      std::make_tuple(3u, 2u), std::make_tuple(8u, 3u), std::make_tuple(99u, 10u),
                      std::make_tuple(0xFFFFFFFFu, 65535u),
                      std::make_tuple(1073741823u, 32768u),   // 2^30 - 1, rounded up
                      std::make_tuple(1073741824u, 32768u),   // 2^30
                      std::make_tuple(1600000000u, 32768u),   // seeded pair: not 40000
                      std::make_tuple(1610612736u, 32768u),   // not 40132
                      std::make_tuple(2147483647u, 32768u),   // 2^31 - 1
                      std::make_tuple(2147483648u, 46341u),   // from 2^31 up: right again
                      std::make_tuple(3000000000u, 54772u)));

TEST(CalibrateCoordinate, SqrtIntRoundsOutsideTheSeededRange) {
    auto reference = [](uint32_t v) {
        const auto r = static_cast<uint32_t>(std::llround(std::sqrt(static_cast<double>(v))));
        return r > 65535u ? 65535u : r;  // the rounding square wraps at 65536
    };
    for (uint64_t v = 1; v < (1ull << 30); v = v * 3 / 2 + 7) {
        ASSERT_EQ(SqrtInt(static_cast<uint32_t>(v)), reference(static_cast<uint32_t>(v))) << v;
    }
    for (uint64_t v = 1ull << 31; v <= 0xFFFFFFFFull; v += 12345679) {
        ASSERT_EQ(SqrtInt(static_cast<uint32_t>(v)), reference(static_cast<uint32_t>(v))) << v;
    }
    for (uint32_t v = 0xFFFFFFFFu - 300000; v != 0; ++v) {
        ASSERT_EQ(SqrtInt(v), reference(v)) << v;
    }
}

TEST(CalibrateCoordinate, SqrtIntSeededRangeStaysNear32768) {
    for (uint64_t v = 1ull << 30; v < (1ull << 31); v += 9999991) {
        const uint32_t r = SqrtInt(static_cast<uint32_t>(v));
        EXPECT_GE(r, 32767u) << v;
        EXPECT_LE(r, 32769u) << v;
    }
}

TEST(CalibrateCoordinate, WrappingHelpers) {
    EXPECT_EQ(cal32::Mul(0x10000, 0x10000), 0);
    EXPECT_EQ(cal32::Mul(-3, 7), -21);
    EXPECT_EQ(cal32::Add(INT32_MAX, 1), INT32_MIN);
    EXPECT_EQ(cal32::Sub(INT32_MIN, 1), INT32_MAX);
    EXPECT_EQ(cal32::Neg(INT32_MIN), INT32_MIN);
    EXPECT_EQ(cal32::Div(INT32_MIN, -1), INT32_MIN);
    EXPECT_EQ(cal32::Div(-7, 2), -3);
    EXPECT_EQ(cal32::Div(7, 0), 0);
}

}  // namespace
