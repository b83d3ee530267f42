// Gesture geometry: distances, bearings, sectors, movement trend, the gesture classifiers and
// the key-name table. No state: every operation is a pure function of its arguments, so they
// are static and callable on a container as well as on their own.
//
// Coordinates are absolute output units (0..32767 on both axes, y growing downward).
#pragma once

#include <cstdint>

#include "CTouchPointInfo.h"

// Outcome of one gesture decision. The values are sparse on purpose: the gaps are never
// produced and stay unused so that every number keeps its meaning.
enum TELO_FINGER_STATUS : int32_t {
    TFS_NONE = 0,
    TFS_ONE_FINGER_UP = 1,
    TFS_ONE_FINGER_DOWN = 2,
    TFS_ONE_FINGER_DRAG = 3,
    TFS_ONE_FINGER_DBCLICK = 5,
    TFS_TWO_FINGERS_DOWN = 17,
    TFS_TWO_FINGERS_DBCLICK = 19,
    TFS_TWO_FINGERS_BORDER = 20,
    TFS_TWO_FINGERS_TAP = 21,
    TFS_TWO_FINGERS_UP = 23,
    TFS_TWO_FINGERS_LEFT = 24,
    TFS_TWO_FINGERS_RIGHT = 25,
    TFS_TWO_FINGERS_ZOOM_IN = 35,
    TFS_TWO_FINGERS_ZOOM_OUT = 36,
    TFS_TWO_FINGERS_ROTATE_CLOCKWISE = 37,
    TFS_TWO_FINGERS_ROTATE_ACLOCKWISE = 38,
    TFS_THREE_FINGERS_TAP = 40,
    TFS_FOUR_FINGERS_LEFT = 41,
    TFS_FOUR_FINGERS_UP = 42,
    TFS_FOUR_FINGERS_RIGHT = 43,
    TFS_FOUR_FINGERS_DOWN = 44,
    TFS_FOUR_FINGERS_ZOOM_IN = 45,
    TFS_FOUR_FINGERS_ZOOM_OUT = 46,
};

// The enumerator's name ("TFS_TWO_FINGERS_UP"), or "TFS_UNKNOWN" for a value never produced.
const char* TeloFingerStatusName(TELO_FINGER_STATUS status);

// Direction codes of the eight 45-degree sectors; clearing the low bit joins them in pairs.
constexpr int DIRECTION_UP = 6;
constexpr int DIRECTION_RIGHT = 8;
constexpr int DIRECTION_DOWN = 10;
constexpr int DIRECTION_LEFT = 12;

// Key code of a name the table does not hold (-1 as a 16-bit key code).
constexpr uint16_t KEY_CODE_UNKNOWN = 0xFFFF;

// Float to int the way the target processor converts: truncation toward zero, and the
// "integer indefinite" value -2147483648 for NaN and anything out of range.
int TruncateToInt(float value);
int TruncateToInt(double value);

class CTouchPointDeal {
public:
    // ---- Geometry and movement trend (CTouchPointDeal.cpp) ----

    // Euclidean distance; note the argument order: both x, then both y.
    static float GetDistance(float x1, float x2, float y1, float y2);
    // Bearing in whole degrees from (x1, y1) to (x2, y2): 0 up, 90 right, 180 down, ~270 left.
    static int GetAngle(float x1, float x2, float y1, float y2);
    // Sector code 6..13 of a bearing.
    static int OneFignerMovingDirection(int bearing);
    // Four-direction code of a bearing: its sector with the low bit cleared, DIRECTION_UP,
    // _RIGHT, _DOWN or _LEFT.
    static int Direction4(int bearing) { return OneFignerMovingDirection(bearing) & ~1; }
    // Angular difference 0..180 of two bearings.
    static int CompareWithAngle(int a, int b);
    // Area of the axis-aligned bounding box of four points.
    static float GetArea(float x1, float y1, float x2, float y2, float x3, float y3, float x4,
                         float y4);
    // Rotation sense of one path: TFS_TWO_FINGERS_ROTATE_CLOCKWISE, _ACLOCKWISE or TFS_NONE.
    static TELO_FINGER_STATUS FingerMovementTrend(CTouchPointPath path);

    // ---- Key-name table (CTouchPointDeal.cpp) ----

    // macOS virtual key code of a key name ("r", "LEFT", "F7"), KEY_CODE_UNKNOWN if unknown.
    static uint16_t keyCodeForKeyString(const char* name);

    // ---- Two-finger classifiers (CTouchPointContainerTwoFinger.cpp) ----
    // Each examines the first two contacts and posts nothing.

    static TELO_FINGER_STATUS TwoFingersRoll(const CTouchPointList& contacts);
    static TELO_FINGER_STATUS TwoFingersZoomRotation(const CTouchPointList& contacts);
    static TELO_FINGER_STATUS TwoFingersTap(const CTouchPointList& contacts);

    // ---- Three- and four-finger classifiers (CTouchPointContainerMultiFinger.cpp) ----

    static TELO_FINGER_STATUS ThreeFingersTap(const CTouchPointList& contacts);
    static TELO_FINGER_STATUS FourFingersRoll(const CTouchPointList& contacts);
    static TELO_FINGER_STATUS FourCompatibleFingersZoom(const CTouchPointList& contacts);
};
