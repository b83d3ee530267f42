// Three- and four-finger gestures: the three-finger latch, four-finger sweeps and zooms.
#include "CTouchPointContainer.h"

// placeholder until the multi-finger gestures land
TELO_FINGER_STATUS CTouchPointContainer::ThreeFingersTouchType(const CTouchPointList& contacts,
                                                               bool isDown) {
    (void)contacts;
    (void)isDown;
    return TFS_NONE;
}

// placeholder until the multi-finger gestures land
TELO_FINGER_STATUS CTouchPointContainer::FourFingerTouchType(const CTouchPointList& contacts,
                                                             bool isDown) {
    (void)contacts;
    (void)isDown;
    return TFS_NONE;
}

// placeholder until the multi-finger gestures land
TELO_FINGER_STATUS CTouchPointDeal::ThreeFingersTap(const CTouchPointList& contacts) {
    (void)contacts;
    return TFS_NONE;
}

// placeholder until the multi-finger gestures land
TELO_FINGER_STATUS CTouchPointDeal::FourFingersRoll(const CTouchPointList& contacts) {
    (void)contacts;
    return TFS_NONE;
}

// placeholder until the multi-finger gestures land
TELO_FINGER_STATUS CTouchPointDeal::FourCompatibleFingersZoom(const CTouchPointList& contacts) {
    (void)contacts;
    return TFS_NONE;
}
