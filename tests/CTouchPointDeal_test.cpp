#include "CTouchPointDeal.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace {

struct Bearing {
    float x1, y1, x2, y2;
    int angle;
};

class BearingTable : public testing::TestWithParam<Bearing> {};

// Verify bearings between two points, the 1.57/3.14 skew included.
TEST_P(BearingTable, Angle) {
    const Bearing& b = GetParam();
    EXPECT_EQ(CTouchPointDeal::GetAngle(b.x1, b.x2, b.y1, b.y2), b.angle);
}

// Equal points give 0, not NaN; (-1, -10000) gives 360 and (-1000, 1) 269.
INSTANTIATE_TEST_SUITE_P(
    All, BearingTable,
    testing::Values(Bearing{5, 5, 5, 5, 0}, Bearing{0, 0, 10, 0, 90}, Bearing{0, 0, 0, 10, 180},
                    Bearing{0, 0, -10, 0, 270}, Bearing{0, 0, 0, -10, 0},
                    Bearing{0, 0, 100, -100, 44}, Bearing{0, 0, -100, 100, 224},
                    Bearing{0, 0, -100, -100, 315}, Bearing{0, 0, -1, -10000, 360},
                    Bearing{0, 0, -1000, 1, 269}, Bearing{100, 200, 103, 204, 143}));

// Verify distance (x-first argument order), the bounding-box area of four points, and the
// processor-style conversion used where a float bearing may be NaN.
TEST(CTouchPointDeal, DistanceAreaTruncate) {
    EXPECT_FLOAT_EQ(CTouchPointDeal::GetDistance(0, 3, 0, 4), 5.0f);
    EXPECT_FLOAT_EQ(CTouchPointDeal::GetDistance(3, 0, 4, 0), 5.0f);
    EXPECT_FLOAT_EQ(CTouchPointDeal::GetDistance(1, 1, 2, 2), 0.0f);
    EXPECT_FLOAT_EQ(CTouchPointDeal::GetDistance(0, 0, 0, 7), 7.0f);  // (0,0) to (0,7)

    EXPECT_FLOAT_EQ(CTouchPointDeal::GetArea(0, 0, 10, 0, 10, 5, 0, 5), 50.0f);
    EXPECT_FLOAT_EQ(CTouchPointDeal::GetArea(7, 1, 3, 9, 5, 4, 4, 2), 32.0f);  // 4 x 8
    EXPECT_FLOAT_EQ(CTouchPointDeal::GetArea(1, 1, 1, 1, 1, 1, 1, 1), 0.0f);

    EXPECT_EQ(TruncateToInt(std::numeric_limits<float>::quiet_NaN()), INT_MIN);
    EXPECT_EQ(TruncateToInt(3e9f), INT_MIN);
    EXPECT_EQ(TruncateToInt(-3e9), INT_MIN);
    EXPECT_EQ(TruncateToInt(359.99f), 359);
    EXPECT_EQ(TruncateToInt(-0.9f), 0);
    EXPECT_EQ(TruncateToInt(-2147483648.0), INT_MIN);
    EXPECT_EQ(TruncateToInt(2147483647.0), INT_MAX);
}

struct Sector {
    int bearing;
    int code;
    int direction4;
};

class SectorTable : public testing::TestWithParam<Sector> {};

// Verify the eight sectors and their boundaries, and how they pair into four directions.
TEST_P(SectorTable, Code) {
    EXPECT_EQ(CTouchPointDeal::OneFignerMovingDirection(GetParam().bearing), GetParam().code);
    EXPECT_EQ(CTouchPointDeal::Direction4(GetParam().bearing), GetParam().direction4);
}

INSTANTIATE_TEST_SUITE_P(
    All, SectorTable,
    testing::Values(Sector{0, 7, DIRECTION_UP}, Sector{44, 7, DIRECTION_UP},
                    Sector{45, 8, DIRECTION_RIGHT}, Sector{90, 9, DIRECTION_RIGHT},
                    Sector{134, 9, DIRECTION_RIGHT}, Sector{135, 10, DIRECTION_DOWN},
                    Sector{180, 11, DIRECTION_DOWN}, Sector{224, 11, DIRECTION_DOWN},
                    Sector{225, 12, DIRECTION_LEFT}, Sector{270, 13, DIRECTION_LEFT},
                    Sector{314, 13, DIRECTION_LEFT}, Sector{315, 6, DIRECTION_UP},
                    Sector{359, 6, DIRECTION_UP}, Sector{-1, 6, DIRECTION_UP},
                    Sector{INT_MIN, 6, DIRECTION_UP}));

struct AngleDifference {
    int a, b, difference;
};

class CompareWithAngleTable : public testing::TestWithParam<AngleDifference> {};

// Verify the folded angular difference.
TEST_P(CompareWithAngleTable, Folded) {
    EXPECT_EQ(CTouchPointDeal::CompareWithAngle(GetParam().a, GetParam().b),
              GetParam().difference);
}

INSTANTIATE_TEST_SUITE_P(
    All, CompareWithAngleTable,
    testing::Values(AngleDifference{10, 350, 20}, AngleDifference{350, 10, 20},
                    AngleDifference{0, 180, 180}, AngleDifference{0, 181, 179},
                    AngleDifference{90, 90, 0}, AngleDifference{0, 360, 0},
                    AngleDifference{-10, 10, 20},
                    AngleDifference{INT_MIN, 90, 360 - 2147483738LL}));

struct Trend {
    const char* name;
    std::vector<CTouchPoint> path;
    TELO_FINGER_STATUS trend;
};

CTouchPoint P(float dx, float dy) { return CTouchPoint(10000.0f + dx, 10000.0f + dy, 0); }

class TrendTable : public testing::TestWithParam<Trend> {};

// Verify the rotation sense from the sectors of bearings taken from the first sample.
TEST_P(TrendTable, Trend) {
    const std::vector<CTouchPoint>& path = GetParam().path;
    EXPECT_EQ(CTouchPointDeal::FingerMovementTrend(CTouchPointPath(path)), GetParam().trend);
}

// Sectors seen from the origin: (-1000, 300) 12, (-1000, -300) 13, (-300, 1000) 11,
// (-100, -1000) 6, (1000, 0) 9.
INSTANTIATE_TEST_SUITE_P(
    All, TrendTable,
    testing::Values(
        Trend{"ThreeSamples", {P(0, 0), P(-1000, 300), P(-1000, 300)}, TFS_NONE},
        Trend{"Straight", {P(0, 0), P(-500, 150), P(-1000, 300), P(-2000, 600)}, TFS_NONE},
        Trend{"TwelveToThirteen",
              {P(0, 0), P(-1000, 300), P(-1000, 300), P(-1000, -300)},
              TFS_TWO_FINGERS_ROTATE_CLOCKWISE},
        Trend{"TwelveToEleven",
              {P(0, 0), P(-1000, 300), P(-1000, 300), P(-300, 1000)},
              TFS_TWO_FINGERS_ROTATE_ACLOCKWISE},
        Trend{"SixToThirteen",
              {P(0, 0), P(0, 0), P(-100, -1000), P(-1000, -300)},
              TFS_TWO_FINGERS_ROTATE_ACLOCKWISE},
        Trend{"ThirteenToSix",
              {P(0, 0), P(0, 0), P(-1000, -300), P(-100, -1000)},
              TFS_TWO_FINGERS_ROTATE_CLOCKWISE},
        Trend{"JumpAcrossIsNotRotation",
              {P(0, 0), P(0, 0), P(-1000, 300), P(1000, 0), P(-100, -1000)},
              TFS_NONE},
        Trend{"FirstNeighbourDecides",
              {P(0, 0), P(0, 0), P(-1000, 300), P(1000, 0), P(-300, 1000), P(-1000, -300)},
              TFS_TWO_FINGERS_ROTATE_ACLOCKWISE},
        Trend{"SampleOneIsIgnored",
              {P(0, 0), P(-1000, -300), P(-1000, 300), P(-2000, 600)},
              TFS_NONE}),
    [](const testing::TestParamInfo<Trend>& info) { return std::string(info.param.name); });

struct KeyEntry {
    const char* name;
    int code;
};

// The whole table, in its order.
const KeyEntry kKeyTable[] = {
    {"a", 0}, {"s", 1}, {"d", 2}, {"f", 3}, {"h", 4}, {"g", 5}, {"z", 6}, {"x", 7}, {"c", 8},
    {"v", 9}, {"b", 11}, {"q", 12}, {"w", 13}, {"e", 14}, {"r", 15}, {"y", 16}, {"t", 17},
    {"1", 18}, {"2", 19}, {"3", 20}, {"4", 21}, {"6", 22}, {"5", 23}, {"=", 24}, {"9", 25},
    {"7", 26}, {"-", 27}, {"8", 28}, {"0", 29}, {"]", 30}, {"o", 31}, {"u", 32}, {"[", 33},
    {"i", 34}, {"p", 35}, {"RETURN", 36}, {"l", 37}, {"j", 38}, {"'", 39}, {"k", 40}, {";", 41},
    {"\\", 42}, {",", 43}, {"/", 44}, {"n", 45}, {"m", 46}, {".", 47}, {"TAB", 48},
    {"SPACE", 49}, {"`", 50}, {"DELETE", 51}, {"ENTER", 52}, {"ESCAPE", 53}, {"SHIFT", 56},
    {"CTRL", 59}, {"CMD", 55}, {"ALT", 58}, {"*", 67}, {"+", 69}, {"CLEAR", 71}, {"F5", 96},
    {"F6", 97}, {"F7", 98}, {"F3", 99}, {"F8", 100}, {"F9", 101}, {"F11", 103}, {"F13", 105},
    {"F14", 107}, {"F10", 109}, {"F12", 111}, {"F15", 113}, {"HELP", 114}, {"HOME", 115},
    {"PGUP", 116}, {"F4", 118}, {"END", 119}, {"F2", 120}, {"PGDN", 121}, {"F1", 122},
    {"LEFT", 123}, {"RIGHT", 124}, {"DOWN", 125}, {"UP", 126}, {"MouseLeftButton", 1},
    {"MouseRightButton", 3}, {"FirstWheel", 1}, {"SecondWheel", 2}, {"FirstWheel+SecondWheel", 5},
};

// Verify every name of the table, and that the table has exactly these 89 names.
TEST(KeyNameTable, EveryEntry) {
    EXPECT_EQ(std::size(kKeyTable), 89u);
    for (const KeyEntry& e : kKeyTable) {
        EXPECT_EQ(CTouchPointDeal::keyCodeForKeyString(e.name), e.code) << e.name;
    }
}

// Verify names outside the table: exact, case-sensitive comparison, -1 as a 16-bit code.
TEST(KeyNameTable, UnknownNames) {
    for (const char* name : {"", "left", "Left", "F16", "f1", "A", "LEFT ", "FirstWheel+",
                             "KP0", "RSHIFT", "ab"}) {
        EXPECT_EQ(CTouchPointDeal::keyCodeForKeyString(name), KEY_CODE_UNKNOWN) << name;
    }
    EXPECT_EQ(CTouchPointDeal::keyCodeForKeyString(nullptr), KEY_CODE_UNKNOWN);
    EXPECT_EQ(KEY_CODE_UNKNOWN, static_cast<uint16_t>(-1));
}

// Verify the names printed for the gesture outcomes (the two-finger ones are asserted through
// their log lines by the gesture tests), and that the gaps have none.
TEST(TeloFingerStatus, Names) {
    EXPECT_STREQ(TeloFingerStatusName(TFS_NONE), "TFS_NONE");
    EXPECT_STREQ(TeloFingerStatusName(TFS_FOUR_FINGERS_ZOOM_OUT), "TFS_FOUR_FINGERS_ZOOM_OUT");
    EXPECT_STREQ(TeloFingerStatusName(static_cast<TELO_FINGER_STATUS>(4)), "TFS_UNKNOWN");
    EXPECT_EQ(TFS_THREE_FINGERS_TAP, 40);
    EXPECT_EQ(TFS_ONE_FINGER_DBCLICK, 5);
}

}  // namespace
