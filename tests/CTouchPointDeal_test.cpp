#include "CTouchPointDeal.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace {

// Verify bearings between two points, the 1.57/3.14 skew included. Equal points give 0, not
// NaN; (-1, -10000) gives 360 and (-1000, 1) 269.
TEST(CTouchPointDeal, Bearings) {
    const struct {
        float x1, y1, x2, y2;
        int angle;
    } cases[] = {{5, 5, 5, 5, 0},          {0, 0, 10, 0, 90},        {0, 0, 0, 10, 180},
                 {0, 0, -10, 0, 270},      {0, 0, 0, -10, 0},        {0, 0, 100, -100, 44},
                 {0, 0, -100, 100, 224},   {0, 0, -100, -100, 315},  {0, 0, -1, -10000, 360},
                 {0, 0, -1000, 1, 269},    {100, 200, 103, 204, 143}};
    for (const auto& b : cases) {
        EXPECT_EQ(CTouchPointDeal::GetAngle(b.x1, b.x2, b.y1, b.y2), b.angle)
            << b.x2 << ", " << b.y2;
    }
}

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

// Verify the eight half-open sectors, the catch-all 6, and how they pair into four directions.
TEST(CTouchPointDeal, Sectors) {
    constexpr int kUp = DIRECTION_UP;
    constexpr int kRight = DIRECTION_RIGHT;
    constexpr int kDown = DIRECTION_DOWN;
    constexpr int kLeft = DIRECTION_LEFT;
    const int cases[][3] = {
        {0, 7, kUp},         {44, 7, kUp},       {45, 8, kRight},    {89, 8, kRight},
        {90, 9, kRight},     {134, 9, kRight},   {135, 10, kDown},   {179, 10, kDown},
        {180, 11, kDown},    {224, 11, kDown},   {225, 12, kLeft},   {269, 12, kLeft},
        {270, 13, kLeft},    {314, 13, kLeft},   {315, 6, kUp},      {359, 6, kUp},
        {360, 6, kUp},       {1000, 6, kUp},     {-1, 6, kUp},       {INT_MIN, 6, kUp}};
    for (const auto& [bearing, code, direction4] : cases) {
        EXPECT_EQ(CTouchPointDeal::OneFignerMovingDirection(bearing), code) << bearing;
        EXPECT_EQ(CTouchPointDeal::Direction4(bearing), direction4) << bearing;
    }
}

// Verify the folded angular difference.
TEST(CTouchPointDeal, CompareWithAngle) {
    const int64_t cases[][3] = {{10, 350, 20}, {350, 10, 20}, {0, 180, 180}, {0, 181, 179},
                                {90, 90, 0},   {0, 360, 0},   {-10, 10, 20},
                                {INT_MIN, 90, 360 - 2147483738LL}};
    for (const auto& [a, b, difference] : cases) {
        EXPECT_EQ(CTouchPointDeal::CompareWithAngle(int(a), int(b)), difference) << a << " " << b;
    }
}

CTouchPoint P(float dx, float dy) { return CTouchPoint(10000.0f + dx, 10000.0f + dy, 0); }

// Verify the rotation sense from the sectors of bearings taken from the first sample. Sectors
// seen from the origin: (-1000, 300) 12, (-1000, -300) 13, (-300, 1000) 11, (-100, -1000) 6,
// (1000, 0) 9.
TEST(CTouchPointDeal, FingerMovementTrend) {
    constexpr TELO_FINGER_STATUS kCw = TFS_TWO_FINGERS_ROTATE_CLOCKWISE;
    constexpr TELO_FINGER_STATUS kAcw = TFS_TWO_FINGERS_ROTATE_ACLOCKWISE;
    const std::pair<std::vector<CTouchPoint>, TELO_FINGER_STATUS> cases[] = {
        {{P(0, 0), P(-1000, 300), P(-1000, 300)}, TFS_NONE},  // three samples
        {{P(0, 0), P(-500, 150), P(-1000, 300), P(-2000, 600)}, TFS_NONE},  // straight
        {{P(0, 0), P(-1000, 300), P(-1000, 300), P(-1000, -300)}, kCw},     // 12 to 13
        {{P(0, 0), P(-1000, 300), P(-1000, 300), P(-300, 1000)}, kAcw},     // 12 to 11
        {{P(0, 0), P(0, 0), P(-100, -1000), P(-1000, -300)}, kAcw},         // 6 to 13
        {{P(0, 0), P(0, 0), P(-1000, -300), P(-100, -1000)}, kCw},          // 13 to 6
        // A jump across is no rotation; the first neighbouring sector decides.
        {{P(0, 0), P(0, 0), P(-1000, 300), P(1000, 0), P(-100, -1000)}, TFS_NONE},
        {{P(0, 0), P(0, 0), P(-1000, 300), P(1000, 0), P(-300, 1000), P(-1000, -300)}, kAcw},
        // Sample 1 is ignored.
        {{P(0, 0), P(-1000, -300), P(-1000, 300), P(-2000, 600)}, TFS_NONE},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& [path, trend] = cases[i];
        EXPECT_EQ(CTouchPointDeal::FingerMovementTrend(CTouchPointPath(path)), trend) << i;
    }
}

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
