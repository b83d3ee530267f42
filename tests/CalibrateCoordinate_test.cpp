#include "CalibrateCoordinate.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

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

// The default area's lengths, halves and side scales; then one side stretched by each edge
// adjustment: ((adjust * (32767 * half extent)) / 8191) / 16384 + half extent.
TEST(CalibrateCoordinate, AreaStateAndEdgeAdjust) {
    auto info = Make(DefaultArea());
    ASSERT_NE(info, nullptr);
    const _CAL_COORDINATE_INFO& i = *info;
    EXPECT_EQ((std::vector<int32_t>{i.lengthH, i.lengthV, i.halfH, i.halfV, i.centerX, i.centerY}),
              (std::vector<int32_t>{-32768, -32768, 16384, 16384, 960, 540}));
    EXPECT_EQ((std::vector<int32_t>{i.scaleMinusX, i.scalePlusX, i.scalePlusY, i.scaleMinusY}),
              (std::vector<int32_t>{963, 963, 541, 541}));
    EXPECT_EQ(i.next, nullptr);

    auto area = DefaultArea();
    area.edgeAdjust[EDGE_MINUS_X] = 0;
    area.edgeAdjust[EDGE_PLUS_X] = 60;
    area.edgeAdjust[EDGE_MINUS_Y] = -15;
    area.edgeAdjust[EDGE_PLUS_Y] = 0;
    auto a = Make(area);
    EXPECT_EQ((std::vector<int32_t>{a->scaleMinusX, a->scalePlusX, a->scalePlusY, a->scaleMinusY}),
              (std::vector<int32_t>{960, 60 * (32767 * 960) / 8191 / 16384 + 960, 540,
                                    -15 * (32767 * 540) / 8191 / 16384 + 540}));
}

// Centre to target centre; raw X growing makes output X shrink (axis pointing left), raw Y
// growing makes Y grow; dV = 0 takes the minus-X branch and lands on the centre column.
TEST(CalibrateCoordinate, DefaultAreaMapping) {
    auto info = Make(DefaultArea(), 708);
    TranslateCalCoords(16384, 16384, info.get());
    EXPECT_EQ(info->x.AsFloat(), 960.0f);
    EXPECT_EQ(info->y.AsFloat(), 540.0f);
    EXPECT_EQ(info->outside, 0);
    TranslateCalCoords(20000, 16384, info.get());  // dV = 3616
    EXPECT_EQ(info->x.AsFloat(), 960.0f - static_cast<float>(963 * 3616) / 16384.0f);

    float lastX = INFINITY, lastY = -INFINITY;
    for (int raw = 0; raw <= 32767; raw += 1024) {
        TranslateCalCoords(raw, 16384, info.get());
        EXPECT_LT(info->x.AsFloat(), lastX) << raw;
        lastX = info->x.AsFloat();
        TranslateCalCoords(16384, raw, info.get());
        EXPECT_GT(info->y.AsFloat(), lastY) << raw;
        lastY = info->y.AsFloat();
        TranslateCalCoords(16384, raw, info.get());  // dV = 0
        EXPECT_EQ(info->x.AsFloat(), 960.0f) << raw;
    }

    auto area = DefaultArea();
    area.axisH = {16384, 0};  // pointing right: X keeps its direction
    auto right = Make(area);
    EXPECT_EQ(right->lengthH, 32768);
    EXPECT_EQ(right->lengthV, 32768);
    TranslateCalCoords(10000, 16384, right.get());
    const float left = right->x.AsFloat();
    TranslateCalCoords(20000, 16384, right.get());
    EXPECT_GT(right->x.AsFloat(), left);
    // Both axes along one line make the two sides of the orientation test equal: the lengths
    // keep their sign, so raw Y past the line lands on the plus-Y side.
    area.axisV = {16384, 0};
    auto line = Make(area);
    EXPECT_EQ(std::make_pair(line->lengthH, line->lengthV), std::make_pair(32768, 32768));
    TranslateCalCoords(16384, 20000, line.get());
    EXPECT_GT(line->y.AsFloat(), 540.0f);
}

// In the default area dV = rawX - 16384 and dH = rawY - 16384. The margin is halved with
// truncation; the minus-Y side is measured against halfV and ignores the margin.
TEST(CalibrateCoordinate, ExcessOnEachSideWithAndWithoutMargin) {
    for (int margin : {0, 100, 101, 708}) {
        SCOPED_TRACE(margin);
        auto info = Make(DefaultArea(), margin);
        const int core = 16384 - margin / 2;
        ASSERT_EQ(info->coreH, core);
        ASSERT_EQ(info->coreV, core);
        auto outside = [&](int dV, int dH) {
            TranslateCalCoords(16384 + dV, 16384 + dH, info.get());
            return info->outside;
        };
        EXPECT_EQ(outside(core, 0), 0);
        EXPECT_EQ(outside(core + 5, 0), 5);       // minus-X side of the output
        EXPECT_EQ(outside(-core, 0), 0);
        EXPECT_EQ(outside(-(core + 5), 0), 5);    // plus-X side
        EXPECT_EQ(outside(0, core), 0);
        EXPECT_EQ(outside(0, core + 5), 5);       // plus-Y side
        EXPECT_EQ(outside(0, -(16384 + 5)), 5);   // minus-Y side, against halfV
        EXPECT_EQ(outside(0, -(core + 5)), margin == 0 ? 5 : 0);
        EXPECT_EQ(outside(core + 5, core + 7), 12);  // the two excesses add
        EXPECT_EQ(outside(-(core + 5), -(16384 + 7)), 12);
    }
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

// Whatever would divide by zero gets no state: an axis shorter than 2 raw units (zero vectors or
// a raw extent of 1) or a geometry value below 1.
TEST(CalibrateCoordinate, DegenerateAreasGetNoState) {
    auto flat = DefaultArea(), thin = DefaultArea(), shortest = DefaultArea();
    flat.axisH = {0, 0};
    thin.axisV = {0, 0};
    shortest.axisH = {1, 0};  // two raw units: the shortest usable axis
    EXPECT_EQ(Make(flat), nullptr);
    EXPECT_EQ(Make(thin), nullptr);
    const _CS_CONFIG geometries[] = {{8191, 8191, 1, 32767}, {0, 8191, 32767, 32767},
                                     {8191, -1, 32767, 32767}, {8191, 8191, 32767, 0}};
    for (const _CS_CONFIG& g : geometries) EXPECT_EQ(Make(DefaultArea(), 0, g), nullptr);
    EXPECT_EQ(InitCoordinateInfo(nullptr, nullptr, 0), nullptr);
    auto info = Make(shortest);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->halfH, 1);
    FreeCoordinateInfo(nullptr);
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

// Fractions of the rectangle; a y at or before its start zeroes x and keeps y in output units.
TEST(CalibrateCoordinate, FloatCoordsAndTheYCrossOver) {
    const float cases[][4] = {{600.0f, 450.0f, 0.5f, 0.5f},
                              {50.0f, 2000.0f, 0.0f, 1.0f},
                              {600.0f, 150.0f, 0.0f, 150.0f}};
    for (const auto& c : cases) {
        auto info = RectInfo();
        info.x.SetFloat(c[0]);
        info.y.SetFloat(c[1]);
        GetFloatCoords(&info);
        EXPECT_EQ(info.x.AsFloat(), c[2]) << c[0] << ", " << c[1];
        EXPECT_EQ(info.y.AsFloat(), c[3]) << c[0] << ", " << c[1];
    }
}

TEST(CalibrateCoordinate, RotationsMirrorAgainst32767) {
    const struct {
        void (*rotate)(_CAL_COORDINATE_INFO*);
        int32_t x, y, newX, newY;
    } cases[] = {{RotateCoordsHID_90, 1, 32766, 32766, 32766},
                 {RotateCoordsHID_270, 1, 32766, 1, 1},
                 {RotateCoordsHID_180, 1, 32766, 32766, 1},
                 {RotateCoordsHID_90, 100, 2000, 2000, 32667},
                 {RotateCoordsHID_180, 100, 2000, 32667, 30767},
                 {RotateCoordsHID_270, 100, 2000, 30767, 100}};
    for (const auto& r : cases) {
        _CAL_COORDINATE_INFO info{};
        info.x.SetInt(r.x);
        info.y.SetInt(r.y);
        r.rotate(&info);
        EXPECT_EQ(std::make_pair(info.x.AsInt(), info.y.AsInt()), std::make_pair(r.newX, r.newY))
            << r.x << ", " << r.y;
    }
}

TEST(CalibrateCoordinate, SqrtIntListedValues) {
    const std::pair<uint32_t, uint32_t> cases[] = {
        {0u, 0u}, {1u, 1u}, {2u, 1u}, {3u, 2u}, {8u, 3u}, {99u, 10u}, {0xFFFFFFFFu, 65535u},
        {1073741823u, 32768u},  // 2^30 - 1, rounded up
        {1073741824u, 32768u},  // 2^30
        {1600000000u, 32768u},  // seeded pair: not 40000
        {1610612736u, 32768u},  // not 40132
        {2147483647u, 32768u},  // 2^31 - 1
        {2147483648u, 46341u},  // from 2^31 up: right again
        {3000000000u, 54772u}};
    for (const auto& [value, root] : cases) EXPECT_EQ(SqrtInt(value), root) << value;
}

// Outside the seeded range the root is the rounded one; inside it stays near 32768.
TEST(CalibrateCoordinate, SqrtIntSweeps) {
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
    for (uint32_t v = 0xFFFFFFFFu - 300000; v != 0; ++v) ASSERT_EQ(SqrtInt(v), reference(v)) << v;
    for (uint64_t v = 1ull << 30; v < (1ull << 31); v += 9999991) {
        const uint32_t r = SqrtInt(static_cast<uint32_t>(v));
        ASSERT_TRUE(r >= 32767u && r <= 32769u) << v << " -> " << r;
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
