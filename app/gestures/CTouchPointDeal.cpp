#include "CTouchPointDeal.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

template <typename F>
int Truncate(F value) {
    // The processor's conversion gives 0x80000000 for NaN and out-of-range values; in C++ that
    // conversion is undefined, so the range is checked first.
    if (!(value > F(-2147483649.0) && value < F(2147483648.0))) {
        return std::numeric_limits<int>::min();
    }
    return static_cast<int>(value);
}

struct KeyName {
    const char* name;
    uint16_t code;
};

// macOS virtual key codes (ANSI layout), then the pseudo-keys of mouse buttons and wheels.
constexpr KeyName kKeyNames[] = {
    {"a", 0},        {"s", 1},         {"d", 2},         {"f", 3},         {"h", 4},
    {"g", 5},        {"z", 6},         {"x", 7},         {"c", 8},         {"v", 9},
    {"b", 11},       {"q", 12},        {"w", 13},        {"e", 14},        {"r", 15},
    {"y", 16},       {"t", 17},        {"1", 18},        {"2", 19},        {"3", 20},
    {"4", 21},       {"6", 22},        {"5", 23},        {"=", 24},        {"9", 25},
    {"7", 26},       {"-", 27},        {"8", 28},        {"0", 29},        {"]", 30},
    {"o", 31},       {"u", 32},        {"[", 33},        {"i", 34},        {"p", 35},
    {"RETURN", 36},  {"l", 37},        {"j", 38},        {"'", 39},        {"k", 40},
    {";", 41},       {"\\", 42},       {",", 43},        {"/", 44},        {"n", 45},
    {"m", 46},       {".", 47},        {"TAB", 48},      {"SPACE", 49},    {"`", 50},
    {"DELETE", 51},  {"ENTER", 52},    {"ESCAPE", 53},   {"SHIFT", 56},    {"CTRL", 59},
    {"CMD", 55},     {"ALT", 58},      {"*", 67},        {"+", 69},        {"CLEAR", 71},
    {"F5", 96},      {"F6", 97},       {"F7", 98},       {"F3", 99},       {"F8", 100},
    {"F9", 101},     {"F11", 103},     {"F13", 105},     {"F14", 107},     {"F10", 109},
    {"F12", 111},    {"F15", 113},     {"HELP", 114},    {"HOME", 115},    {"PGUP", 116},
    {"F4", 118},     {"END", 119},     {"F2", 120},      {"PGDN", 121},    {"F1", 122},
    {"LEFT", 123},   {"RIGHT", 124},   {"DOWN", 125},    {"UP", 126},
    {"MouseLeftButton", 1}, {"MouseRightButton", 3}, {"FirstWheel", 1}, {"SecondWheel", 2},
    {"FirstWheel+SecondWheel", 5},
};

}  // namespace

int TruncateToInt(float value) { return Truncate(value); }
int TruncateToInt(double value) { return Truncate(value); }

const char* TeloFingerStatusName(TELO_FINGER_STATUS status) {
    switch (status) {
        case TFS_NONE: return "TFS_NONE";
        case TFS_ONE_FINGER_UP: return "TFS_ONE_FINGER_UP";
        case TFS_ONE_FINGER_DOWN: return "TFS_ONE_FINGER_DOWN";
        case TFS_ONE_FINGER_DRAG: return "TFS_ONE_FINGER_DRAG";
        case TFS_ONE_FINGER_DBCLICK: return "TFS_ONE_FINGER_DBCLICK";
        case TFS_TWO_FINGERS_DOWN: return "TFS_TWO_FINGERS_DOWN";
        case TFS_TWO_FINGERS_DBCLICK: return "TFS_TWO_FINGERS_DBCLICK";
        case TFS_TWO_FINGERS_BORDER: return "TFS_TWO_FINGERS_BORDER";
        case TFS_TWO_FINGERS_TAP: return "TFS_TWO_FINGERS_TAP";
        case TFS_TWO_FINGERS_UP: return "TFS_TWO_FINGERS_UP";
        case TFS_TWO_FINGERS_LEFT: return "TFS_TWO_FINGERS_LEFT";
        case TFS_TWO_FINGERS_RIGHT: return "TFS_TWO_FINGERS_RIGHT";
        case TFS_TWO_FINGERS_ZOOM_IN: return "TFS_TWO_FINGERS_ZOOM_IN";
        case TFS_TWO_FINGERS_ZOOM_OUT: return "TFS_TWO_FINGERS_ZOOM_OUT";
        case TFS_TWO_FINGERS_ROTATE_CLOCKWISE: return "TFS_TWO_FINGERS_ROTATE_CLOCKWISE";
        case TFS_TWO_FINGERS_ROTATE_ACLOCKWISE: return "TFS_TWO_FINGERS_ROTATE_ACLOCKWISE";
        case TFS_THREE_FINGERS_TAP: return "TFS_THREE_FINGERS_TAP";
        case TFS_FOUR_FINGERS_LEFT: return "TFS_FOUR_FINGERS_LEFT";
        case TFS_FOUR_FINGERS_UP: return "TFS_FOUR_FINGERS_UP";
        case TFS_FOUR_FINGERS_RIGHT: return "TFS_FOUR_FINGERS_RIGHT";
        case TFS_FOUR_FINGERS_DOWN: return "TFS_FOUR_FINGERS_DOWN";
        case TFS_FOUR_FINGERS_ZOOM_IN: return "TFS_FOUR_FINGERS_ZOOM_IN";
        case TFS_FOUR_FINGERS_ZOOM_OUT: return "TFS_FOUR_FINGERS_ZOOM_OUT";
    }
    return "TFS_UNKNOWN";
}

float CTouchPointDeal::GetDistance(float x1, float x2, float y1, float y2) {
    const float dy = y1 - y2;
    const float dx = x1 - x2;
    return std::sqrt(dy * dy + dx * dx);
}

int CTouchPointDeal::GetAngle(float x1, float x2, float y1, float y2) {
    const float dx = x2 - x1;
    const float dy = y2 - y1;
    const float r = std::sqrt(dy * dy + dx * dx);
    if (r == 0.0f) return 0;
    // 1.57 and 3.14 stand for a quarter and a half turn; their small skew is kept.
    float a = static_cast<float>(std::asin(static_cast<double>(dy / r)) + 1.57);
    a = a * 180.0f;
    a = static_cast<float>(static_cast<double>(a) / 3.14);
    if (dx < 0) a = 360.0f - a;
    return TruncateToInt(a);
}

int CTouchPointDeal::OneFignerMovingDirection(int bearing) {
    if (bearing >= 0 && bearing < 45) return 7;
    if (bearing >= 45 && bearing < 90) return 8;
    if (bearing >= 90 && bearing < 135) return 9;
    if (bearing >= 135 && bearing < 180) return 10;
    if (bearing >= 180 && bearing < 225) return 11;
    if (bearing >= 225 && bearing < 270) return 12;
    if (bearing >= 270 && bearing < 315) return 13;
    return 6;
}

int CTouchPointDeal::CompareWithAngle(int a, int b) {
    // Widened so that extreme bearings (the NaN bearing is INT_MIN) cannot overflow.
    const int64_t d = std::llabs(static_cast<int64_t>(a) - static_cast<int64_t>(b));
    return static_cast<int>(d <= 180 ? d : 360 - d);
}

float CTouchPointDeal::GetArea(float x1, float y1, float x2, float y2, float x3, float y3,
                               float x4, float y4) {
    const float minX = std::fmin(std::fmin(x1, x2), std::fmin(x3, x4));
    const float maxX = std::fmax(std::fmax(x1, x2), std::fmax(x3, x4));
    const float minY = std::fmin(std::fmin(y1, y2), std::fmin(y3, y4));
    const float maxY = std::fmax(std::fmax(y1, y2), std::fmax(y3, y4));
    return (maxX - minX) * (maxY - minY);
}

TELO_FINGER_STATUS CTouchPointDeal::FingerMovementTrend(CTouchPointPath path) {
    if (path.size() < 4) return TFS_NONE;
    const CTouchPoint& origin = path[0];
    auto sectorTo = [&origin](const CTouchPoint& p) {
        return OneFignerMovingDirection(GetAngle(origin.x, p.x, origin.y, p.y));
    };
    const int start = sectorTo(path[2]);
    const int clockwise = start == 13 ? 6 : start + 1;
    const int anticlockwise = start == 6 ? 13 : start - 1;
    for (size_t i = 2; i < path.size(); ++i) {
        const int sector = sectorTo(path[i]);
        if (sector == clockwise) return TFS_TWO_FINGERS_ROTATE_CLOCKWISE;
        if (sector == anticlockwise) return TFS_TWO_FINGERS_ROTATE_ACLOCKWISE;
    }
    return TFS_NONE;
}

uint16_t CTouchPointDeal::keyCodeForKeyString(const char* name) {
    if (name == nullptr) return KEY_CODE_UNKNOWN;
    for (const KeyName& key : kKeyNames) {
        if (std::strcmp(key.name, name) == 0) return key.code;
    }
    return KEY_CODE_UNKNOWN;
}
