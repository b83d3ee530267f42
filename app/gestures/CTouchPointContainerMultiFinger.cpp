// Three- and four-finger gestures: the three-finger latch, four-finger sweeps and zooms.
#include <array>

#include "CTouchPointContainer.h"
#include "GestureThresholds.h"

namespace {

// The first N contacts, or false when the list holds fewer usable ones.
template <size_t N>
bool FirstContacts(const CTouchPointList& contacts, std::array<const CTouchPointInfo*, N>* out) {
    if (contacts.size() < N) return false;
    for (size_t i = 0; i < N; ++i) {
        if (contacts[i] == nullptr) return false;
        (*out)[i] = contacts[i];
    }
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Three fingers

TELO_FINGER_STATUS CTouchPointContainer::ThreeFingersTouchType(const CTouchPointList& contacts,
                                                               bool /*isDown*/) {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (localGesture == TFS_THREE_FINGERS_TAP) {
        // Latched: keep the paths empty until the hand lifts.
        ClearTouchPointLists(contacts);
        return TFS_THREE_FINGERS_TAP;
    }
    return ThreeFingersTap(contacts);
}

TELO_FINGER_STATUS CTouchPointDeal::ThreeFingersTap(const CTouchPointList& contacts) {
    std::array<const CTouchPointInfo*, 3> c{};
    if (!FirstContacts(contacts, &c)) return TFS_NONE;
    for (const CTouchPointInfo* contact : c) {
        if (!(contact->GetDistance() < ThreeFingerThresholds::kTapMaxDistance)) return TFS_NONE;
    }
    return TFS_THREE_FINGERS_TAP;
}

// ---------------------------------------------------------------------------------------------
// Four fingers

TELO_FINGER_STATUS CTouchPointContainer::FourFingerTouchType(const CTouchPointList& contacts,
                                                             bool isDown) {
    std::lock_guard<std::recursive_mutex> lock(m_lock);

    if (holdStatus) {
        // This hand already fired its one shortcut; it stays silent until a finger lifts.
        ClearTouchPointLists(contacts);
        localGesture = TFS_ONE_FINGER_UP;
        return localGesture;
    }

    if (IsButtonHeld()) {
        // More fingers landed during a one-finger press or drag: end the mouse action only.
        ReleaseHeldButton(contacts, kFingerModeFour);
        localGesture = TFS_ONE_FINGER_UP;
        return localGesture;
    }

    TELO_FINGER_STATUS outcome = FourFingersRoll(contacts);
    if (outcome == TFS_NONE) outcome = FourCompatibleFingersZoom(contacts);
    if (outcome == TFS_NONE) {
        // Nothing yet: the paths keep growing.
        fingerMode = kFingerModeFour;
        localGesture = TFS_NONE;
        return TFS_NONE;
    }

    // A sweep posts the opposite arrow: the desktop follows the fingers.
    switch (outcome) {
        case TFS_FOUR_FINGERS_LEFT: PostShortcut("RIGHT", EVENT_FLAG_CONTROL); break;
        case TFS_FOUR_FINGERS_UP: PostShortcut("UP", EVENT_FLAG_CONTROL); break;
        case TFS_FOUR_FINGERS_RIGHT: PostShortcut("LEFT", EVENT_FLAG_CONTROL); break;
        case TFS_FOUR_FINGERS_DOWN: PostShortcut("DOWN", EVENT_FLAG_CONTROL); break;
        case TFS_FOUR_FINGERS_ZOOM_IN: PostShortcut("F8", EVENT_FLAG_SECONDARY_FN); break;
        case TFS_FOUR_FINGERS_ZOOM_OUT: PostShortcut("F11", EVENT_FLAG_SECONDARY_FN); break;
        default: break;
    }
    gestureSent = 1;

    // One shortcut per touch: the latch holds while the fingers stay down.
    holdStatus = isDown;
    ClearTouchPointLists(contacts);
    fingerMode = kFingerModeFour;
    localGesture = outcome;
    return outcome;
}

TELO_FINGER_STATUS CTouchPointDeal::FourFingersRoll(const CTouchPointList& contacts) {
    using namespace FourFingerThresholds;
    // A fifth contact rides along: only the first four are swept.
    std::array<const CTouchPointInfo*, 4> c{};
    if (!FirstContacts(contacts, &c)) return TFS_NONE;

    int moving = 0;
    for (const CTouchPointInfo* contact : c) {
        if (contact->GetDistance() > kMovedDistance) ++moving;
    }
    if (moving < kSweepMinMoving) return TFS_NONE;

    std::array<int, 4> bearing{};
    for (size_t i = 0; i < c.size(); ++i) bearing[i] = c[i]->GetAngle();
    for (size_t i = 0; i < bearing.size(); ++i) {
        for (size_t j = i + 1; j < bearing.size(); ++j) {
            if (CompareWithAngle(bearing[i], bearing[j]) > kSweepMaxSpread) return TFS_NONE;
        }
    }

    std::array<int, 4> direction{};
    for (size_t i = 0; i < bearing.size(); ++i) direction[i] = Direction4(bearing[i]);
    auto all = [&direction](int code) {
        for (int d : direction) {
            if (d != code) return false;
        }
        return true;
    };
    if (all(DIRECTION_UP)) return TFS_FOUR_FINGERS_UP;
    if (all(DIRECTION_LEFT)) return TFS_FOUR_FINGERS_LEFT;
    if (all(DIRECTION_RIGHT)) return TFS_FOUR_FINGERS_RIGHT;
    if (all(DIRECTION_DOWN)) return TFS_FOUR_FINGERS_DOWN;
    return TFS_NONE;
}

TELO_FINGER_STATUS CTouchPointDeal::FourCompatibleFingersZoom(const CTouchPointList& contacts) {
    using namespace FourFingerThresholds;
    // Asked for four or five contacts; a fifth takes part in the movement tests.
    const size_t n = contacts.size();
    if (n < 4 || n > 5) return TFS_NONE;
    for (const CTouchPointInfo* contact : contacts) {
        if (contact == nullptr) return TFS_NONE;
    }

    int moving = 0;
    std::array<int, 5> bearing{};
    for (size_t i = 0; i < n; ++i) {
        if (contacts[i]->GetDistance() > kMovedDistance) ++moving;
        bearing[i] = contacts[i]->GetAngle();
    }
    if (moving < (n == 4 ? kZoomMinMovingOfFour : kZoomMinMovingOfFive)) return TFS_NONE;

    // Fingers that all head the same way are sweeping, not zooming.
    bool apart = false;
    for (size_t i = 0; i < n && !apart; ++i) {
        for (size_t j = i + 1; j < n; ++j) {
            if (CompareWithAngle(bearing[i], bearing[j]) >= kZoomTogetherDegrees) {
                apart = true;
                break;
            }
        }
    }
    if (!apart) return TFS_NONE;

    // The hand closed when the box around the first positions of the first four contacts is
    // larger than the box around their latest positions.
    const CTouchPointInfo* const* c = contacts.data();
    const float firstArea =
        GetArea(c[0]->GetFirstX(), c[0]->GetFisrtY(), c[1]->GetFirstX(), c[1]->GetFisrtY(),
                c[2]->GetFirstX(), c[2]->GetFisrtY(), c[3]->GetFirstX(), c[3]->GetFisrtY());
    const float latestArea =
        GetArea(c[0]->GetBehindX(), c[0]->GetBehindY(), c[1]->GetBehindX(), c[1]->GetBehindY(),
                c[2]->GetBehindX(), c[2]->GetBehindY(), c[3]->GetBehindX(), c[3]->GetBehindY());
    return firstArea > latestArea ? TFS_FOUR_FINGERS_ZOOM_IN : TFS_FOUR_FINGERS_ZOOM_OUT;
}
