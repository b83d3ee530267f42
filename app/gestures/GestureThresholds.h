// Thresholds of the two-, three- and four-finger gestures, one namespace per gesture family.
//
// Units: device units are absolute output units (0..32767 per axis); ticks are 1/60 s;
// bearings and their differences are whole degrees. Several limits are deliberately uneven
// (799 / 800 / 801, 35 / 40, 20 / 46): they are kept exactly as the gestures were tuned.
#pragma once

#include <cstdint>

namespace TwoFingerThresholds {

// Swipe and scroll (TwoFingersRoll).
constexpr int kRollMinDistance = 500;      // each contact moved this far (units, truncated)
constexpr int kRollMaxBearingSpread = 45;  // the two bearings differ by at most this many degrees

// Border swipe.
constexpr double kBorderEdgePoints = 80.0;  // a left swipe starting closer (points) to the right
                                            // screen edge is the border gesture

// Lift timing.
constexpr int64_t kDoubleTouchTicks = 15;  // a lift sooner than this after the last: double touch
constexpr int64_t kTapWindowTicks = 199;   // a lift within this of the last two-finger frame taps

// Tap and scroll.
constexpr float kTapMaxDistance = 800.0f;  // each contact moved less than this (units) for a tap
constexpr double kScrollDivisor = 10.0;    // scroll amount = C0's vertical movement / this

// Zoom and rotation (TwoFingersZoomRotation).
constexpr int kZoomRotationMinDistance = 800;  // below this for both contacts nothing is judged
constexpr int kAxisStillDegrees = 40;          // all four axis differences within this: no turn
constexpr int kAxisTurnDegrees = 35;           // finer split deciding whose trend is asked
constexpr int kZoomMovedDistance = 801;        // a contact counts as moved from this distance on
constexpr int kZoomStillDistance = 799;        // and as still up to this one; 800 decides nothing
constexpr int kZoomAxisDegrees = 20;           // the moving contact stays this close to the axis
constexpr int kZoomMinChange = 800;            // the distance to the reference changes by this

}  // namespace TwoFingerThresholds

namespace ThreeFingerThresholds {

constexpr float kTapMaxDistance = 100.0f;  // each of the first three moved less: hand held still

}  // namespace ThreeFingerThresholds

namespace FourFingerThresholds {

constexpr float kMovedDistance = 300.0f;  // a contact counts as moving beyond this many units
constexpr int kSweepMinMoving = 3;        // of the first four contacts, this many must move
constexpr int kSweepMaxSpread = 20;       // every pair of bearings within this many degrees
constexpr int kZoomMinMovingOfFour = 3;   // zoom with four contacts: this many must move
constexpr int kZoomMinMovingOfFive = 4;   // zoom with five contacts: this many must move
constexpr int kZoomTogetherDegrees = 46;  // all pairs closer than this move together: no zoom

}  // namespace FourFingerThresholds
