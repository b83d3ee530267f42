// Two-finger gestures: scroll, swipes, zoom, rotation, right click, zoom toggle.
#include "CTouchPointContainer.h"

// placeholder until the multi-finger gestures land
TELO_FINGER_STATUS CTouchPointContainer::TwoFingersTouchType(const CTouchPointList& contacts,
                                                             bool isDown) {
    (void)contacts;
    (void)isDown;
    return TFS_NONE;
}

// placeholder until the multi-finger gestures land
TELO_FINGER_STATUS CTouchPointDeal::TwoFingersRoll(const CTouchPointList& contacts) {
    (void)contacts;
    return TFS_NONE;
}

// placeholder until the multi-finger gestures land
TELO_FINGER_STATUS CTouchPointDeal::TwoFingersZoomRotation(const CTouchPointList& contacts) {
    (void)contacts;
    return TFS_NONE;
}

// placeholder until the multi-finger gestures land
TELO_FINGER_STATUS CTouchPointDeal::TwoFingersTap(const CTouchPointList& contacts) {
    (void)contacts;
    return TFS_NONE;
}
