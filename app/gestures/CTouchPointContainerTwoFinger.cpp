// Two-finger gestures: scroll, swipes, zoom, rotation, right click, zoom toggle.
#include <cmath>
#include <cstdlib>

#include "CTouchPointContainer.h"
#include "GestureThresholds.h"
#include "MtDevLog.h"

using namespace TwoFingerThresholds;

namespace {

// The first two contacts, or false when the list does not hold two usable ones.
bool FirstTwo(const CTouchPointList& contacts, const CTouchPointInfo** c0,
              const CTouchPointInfo** c1) {
    if (contacts.size() < 2 || contacts[0] == nullptr || contacts[1] == nullptr) return false;
    *c0 = contacts[0];
    *c1 = contacts[1];
    return true;
}

// Distance in points of the contact's first position from the right screen edge is below the
// border limit.
bool StartsAtRightEdge(const CTouchPointInfo* contact, float screenWidth) {
    const double width = screenWidth;
    const double fromEdge =
        std::fabs(static_cast<double>(contact->GetFirstX()) / 32767.0 * width - width);
    return fromEdge < kBorderEdgePoints;
}

}  // namespace

TELO_FINGER_STATUS CTouchPointContainer::TwoFingersTouchType(const CTouchPointList& contacts,
                                                             bool isDown) {
    std::lock_guard<std::recursive_mutex> lock(m_lock);

    // The border swipe holds until the worker resets the local gesture after the lift.
    if (localGesture == TFS_TWO_FINGERS_BORDER) return localGesture;

    if (IsButtonHeld()) {
        // A second finger landed during a one-finger press or drag: end the mouse action only.
        const int64_t now = CurrentTick();
        ReleaseHeldButton(contacts, kFingerModeTwo);
        touchStartTick = now;
        return TFS_ONE_FINGER_UP;
    }

    if (fingerMode == kFingerModeFour) {
        // A four-finger gesture is being lifted finger by finger.
        fingerMode = kFingerModeTwo;
        ClearTouchPointLists(contacts);
        return TFS_NONE;
    }

    const int64_t now = CurrentTick();
    TELO_FINGER_STATUS outcome = TFS_NONE;
    bool settled = false;
    if (!isDown) {
        // touchStartTick doubles as the time of the last two-finger lift.
        const int64_t sinceLastLift = now - touchStartTick;
        TLogSystem("currTime-twolastTickTime:%ld", static_cast<long>(sinceLastLift));
        if (sinceLastLift < kDoubleTouchTicks) {
            touchStartTick = 0;
            outcome = TFS_TWO_FINGERS_DBCLICK;
            settled = true;
        } else {
            touchStartTick = now;
            const int64_t sinceLastFrame = now - twoFingerTick;
            TLogSystem("currTime-lastTickTime:%ld", static_cast<long>(sinceLastFrame));
            if (sinceLastFrame <= kTapWindowTicks) {
                const TELO_FINGER_STATUS tap = TwoFingersTap(contacts);
                if (tap != TFS_NONE) {
                    twoFingerTick = now;
                    outcome = tap;
                    settled = true;
                }
            }
        }
    }

    if (!settled) {
        twoFingerTick = now;
        outcome = TwoFingersRoll(contacts);
        if (outcome == TFS_NONE) {
            if (contacts.size() != 2) {
                fingerMode = kFingerModeTwo;
                return TFS_NONE;
            }
            outcome = TwoFingersZoomRotation(contacts);
        } else if (outcome == TFS_TWO_FINGERS_LEFT) {
            // Roll answers only for two usable contacts, so both exist here.
            if (StartsAtRightEdge(contacts[0], screenWidth) ||
                StartsAtRightEdge(contacts[1], screenWidth)) {
                outcome = TFS_TWO_FINGERS_BORDER;
            }
        }
    }

    switch (outcome) {
        case TFS_NONE:
            // Nothing yet: the paths keep growing.
            fingerMode = kFingerModeTwo;
            return TFS_NONE;
        case TFS_TWO_FINGERS_UP:
        case TFS_TWO_FINGERS_DOWN: {
            // Roll answered, so C0 exists. Positive when the fingers moved down the screen.
            const CTouchPointInfo* c0 = contacts[0];
            const int movedY = TruncateToInt(c0->GetBehindY() - c0->GetFisrtY());
            PostScroll(TruncateToInt(static_cast<double>(movedY) / kScrollDivisor));
            TLogSystem("TFS_TWO_FINGERS_UP");
            break;
        }
        case TFS_TWO_FINGERS_DBCLICK:
            PostZoomToggle();
            TLogSystem("%s", TeloFingerStatusName(outcome));
            break;
        case TFS_TWO_FINGERS_BORDER:
            PostShortcut("F7", EVENT_FLAG_SECONDARY_FN);
            TLogSystem("%s", TeloFingerStatusName(outcome));
            break;
        case TFS_TWO_FINGERS_TAP: {
            // Tap answered, so both contacts exist. Right click between the first positions.
            const CTouchPointInfo* c0 = contacts[0];
            const CTouchPointInfo* c1 = contacts[1];
            const float midX = (c1->GetFirstX() + c0->GetFirstX()) * 0.5f;
            const float midY = (c1->GetFisrtY() + c0->GetFisrtY()) * 0.5f;
            PostRightClick(ScalePoint(midX, midY));
            TLogSystem("%s", TeloFingerStatusName(outcome));
            break;
        }
        // A swipe posts the opposite arrow: the page follows the fingers.
        case TFS_TWO_FINGERS_LEFT:
            PostShortcut("RIGHT", EVENT_FLAG_COMMAND);
            TLogSystem("%s", TeloFingerStatusName(outcome));
            break;
        case TFS_TWO_FINGERS_RIGHT:
            PostShortcut("LEFT", EVENT_FLAG_COMMAND);
            TLogSystem("%s", TeloFingerStatusName(outcome));
            break;
        case TFS_TWO_FINGERS_ZOOM_IN:
            PostShortcut("-", EVENT_FLAG_COMMAND);
            TLogSystem("%s", TeloFingerStatusName(outcome));
            break;
        case TFS_TWO_FINGERS_ZOOM_OUT:
            PostShortcut("+", EVENT_FLAG_COMMAND);
            TLogSystem("%s", TeloFingerStatusName(outcome));
            break;
        case TFS_TWO_FINGERS_ROTATE_CLOCKWISE:
            PostShortcut("r", EVENT_FLAG_COMMAND);
            TLogSystem("%s", TeloFingerStatusName(outcome));
            break;
        case TFS_TWO_FINGERS_ROTATE_ACLOCKWISE:
            PostShortcut("l", EVENT_FLAG_COMMAND);
            TLogSystem("%s", TeloFingerStatusName(outcome));
            break;
        default:
            break;
    }

    // Every recognised gesture restarts the paths, so the next one is measured afresh.
    gestureSent = 1;
    ClearTouchPointLists(contacts);
    fingerMode = kFingerModeTwo;
    localGesture = outcome;
    return outcome;
}

TELO_FINGER_STATUS CTouchPointDeal::TwoFingersRoll(const CTouchPointList& contacts) {
    const CTouchPointInfo* c0 = nullptr;
    const CTouchPointInfo* c1 = nullptr;
    if (!FirstTwo(contacts, &c0, &c1)) return TFS_NONE;

    if (TruncateToInt(c0->GetDistance()) < kRollMinDistance ||
        TruncateToInt(c1->GetDistance()) < kRollMinDistance) {
        return TFS_NONE;
    }
    const int a0 = c0->GetAngle();
    const int a1 = c1->GetAngle();
    if (CompareWithAngle(a0, a1) > kRollMaxBearingSpread) return TFS_NONE;

    const int d0 = Direction4(a0);
    if (d0 != Direction4(a1)) return TFS_NONE;
    switch (d0) {
        case DIRECTION_UP: return TFS_TWO_FINGERS_UP;
        case DIRECTION_DOWN: return TFS_TWO_FINGERS_DOWN;
        case DIRECTION_RIGHT: return TFS_TWO_FINGERS_RIGHT;
        case DIRECTION_LEFT: return TFS_TWO_FINGERS_LEFT;
        default: return TFS_NONE;
    }
}

TELO_FINGER_STATUS CTouchPointDeal::TwoFingersTap(const CTouchPointList& contacts) {
    const CTouchPointInfo* c0 = nullptr;
    const CTouchPointInfo* c1 = nullptr;
    if (!FirstTwo(contacts, &c0, &c1)) return TFS_NONE;
    if (c0->GetDistance() < kTapMaxDistance && c1->GetDistance() < kTapMaxDistance) {
        return TFS_TWO_FINGERS_TAP;
    }
    return TFS_NONE;
}

TELO_FINGER_STATUS CTouchPointDeal::TwoFingersZoomRotation(const CTouchPointList& contacts) {
    const CTouchPointInfo* c0 = nullptr;
    const CTouchPointInfo* c1 = nullptr;
    if (!FirstTwo(contacts, &c0, &c1)) return TFS_NONE;

    const int d0 = TruncateToInt(c0->GetDistance());
    const int d1 = TruncateToInt(c1->GetDistance());
    if (d0 < kZoomRotationMinDistance && d1 < kZoomRotationMinDistance) return TFS_NONE;

    const float x0First = c0->GetFirstX(), y0First = c0->GetFisrtY();
    const float x0Last = c0->GetBehindX(), y0Last = c0->GetBehindY();
    const float x1First = c1->GetFirstX(), y1First = c1->GetFisrtY();
    const float x1Last = c1->GetBehindX(), y1Last = c1->GetBehindY();

    // Bearings between the two contacts: A the initial axis, E the final axis, B and C the
    // two mixed ones.
    const int a = GetAngle(x0First, x1First, y0First, y1First);
    const int b = GetAngle(x0First, x1Last, y0First, y1Last);
    const int c = GetAngle(x0Last, x1First, y0Last, y1First);
    const int e = GetAngle(x0Last, x1Last, y0Last, y1Last);
    const int diffAB = CompareWithAngle(a, b);
    const int diffEC = CompareWithAngle(e, c);
    const int diffCA = CompareWithAngle(c, a);
    const int diffEB = CompareWithAngle(e, b);

    // Rotation: when the axis turned, the path of one contact (never both) tells the sense.
    const bool axisStill = diffAB <= kAxisStillDegrees && diffEC <= kAxisStillDegrees &&
                           diffCA <= kAxisStillDegrees && diffEB <= kAxisStillDegrees;
    if (!axisStill) {
        TELO_FINGER_STATUS trend = TFS_NONE;
        if (diffAB <= kAxisTurnDegrees && diffEC <= kAxisTurnDegrees) {
            if (!(diffCA <= kAxisTurnDegrees && diffEB <= kAxisTurnDegrees)) {
                trend = FingerMovementTrend(c0->getPointsPath());
            }
        } else {
            trend = FingerMovementTrend(c1->getPointsPath());
        }
        if (trend != TFS_NONE) return trend;
    }

    // Zoom: one contact moves along the axis relative to the other.
    const CTouchPointInfo* moving = nullptr;
    const CTouchPointInfo* reference = nullptr;
    if (d0 >= kZoomMovedDistance && d1 <= kZoomStillDistance) {
        if (diffEB > kZoomAxisDegrees) return TFS_NONE;
        moving = c0;
        reference = c1;
    } else if (d0 >= kZoomMovedDistance && d1 >= kZoomMovedDistance) {
        if (diffEB > kZoomAxisDegrees || diffAB > kZoomAxisDegrees) return TFS_NONE;
        // Both moved: only fingers heading into different sectors zoom.
        if (OneFignerMovingDirection(c0->GetAngle()) == OneFignerMovingDirection(c1->GetAngle())) {
            return TFS_NONE;
        }
        moving = c0;
        reference = c1;
    } else if (d0 <= kZoomStillDistance && d1 >= kZoomMovedDistance) {
        if (diffAB > kZoomAxisDegrees) return TFS_NONE;
        moving = c1;
        reference = c0;
    } else {
        return TFS_NONE;  // a distance of exactly 800 where it decides
    }

    const float refX = reference->GetBehindX();
    const float refY = reference->GetBehindY();
    const int64_t before =
        TruncateToInt(GetDistance(refX, moving->GetFirstX(), refY, moving->GetFisrtY()));
    const int64_t after =
        TruncateToInt(GetDistance(refX, moving->GetBehindX(), refY, moving->GetBehindY()));
    if (std::llabs(before - after) < kZoomMinChange) return TFS_NONE;
    return before > after ? TFS_TWO_FINGERS_ZOOM_IN : TFS_TWO_FINGERS_ZOOM_OUT;
}
