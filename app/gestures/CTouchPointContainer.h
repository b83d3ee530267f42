// The per-device gesture container: turns the tracked contacts of each frame into synthetic
// mouse, key and scroll events, and remembers the outcome as its local gesture.
//
// Where the members are implemented:
//   CTouchPointContainer.cpp             construction, dispatch (DealPoints), the shared event
//                                        posting helpers, one-finger mouse emulation
//                                        (OneFingerTouchType, toSingleClick, releaseClick)
//   CTouchPointContainerTwoFinger.cpp    TwoFingersTouchType and the two-finger classifiers
//                                        of CTouchPointDeal
//   CTouchPointContainerMultiFinger.cpp  ThreeFingersTouchType, FourFingerTouchType and the
//                                        three-/four-finger classifiers of CTouchPointDeal
//   CTouchPointDeal.cpp                  geometry, movement trend, key-name table
//
// Threads: the device worker calls everything; the main thread may call releaseClick when the
// device goes away. Every public entry point takes the container's (recursive) lock, so the
// handlers, which run inside DealPoints, always hold it; a handler calling another member
// needs no care.
//
// Time: gesture timing is in ticks of 1/60 s (TTickCount through the injectable clock),
// widened without sign to 64 bits; differences are signed 64-bit, now minus stored.
#pragma once

#include <cstdint>
#include <mutex>

#include "CTouchPointDeal.h"
#include "CTouchPointInfo.h"
#include "EventSink.h"

// Values of CTouchPointContainer::buttonState, the synthetic left button. It counts as held
// when pressed or dragging.
inline constexpr uint32_t kButtonNeverPressed = 0;
inline constexpr uint32_t kButtonPressed = 1;
inline constexpr uint32_t kButtonDragging = 2;
inline constexpr uint32_t kButtonReleased = 3;

// Values of CTouchPointContainer::fingerMode, the finger count of the gesture in progress.
// Five contacts are handled as four; three leave it alone.
inline constexpr uint32_t kFingerModeNone = 0;  // no gesture yet
inline constexpr uint32_t kFingerModeOne = 1;
inline constexpr uint32_t kFingerModeTwo = 2;
inline constexpr uint32_t kFingerModeFour = 4;

// A position on the screen, in points.
struct TScreenPoint {
    double x;
    double y;
};

class CTouchPointContainer : public CTouchPointDeal {
public:
    // Posts to a sink that drops every event until SetEventSink is called.
    CTouchPointContainer();
    explicit CTouchPointContainer(CEventSink& sink);
    ~CTouchPointContainer() = default;

    CTouchPointContainer(const CTouchPointContainer&) = delete;
    CTouchPointContainer& operator=(const CTouchPointContainer&) = delete;

    // The sink must outlive the container (or be replaced first); nullptr drops events.
    void SetEventSink(CEventSink* sink);
    CEventSink* EventSink() const;

    // ---- Dispatcher and worker entry points (CTouchPointContainer.cpp) ----

    void SetScreenBoard(float width, float height);
    // Dispatches by finger count: 1, 2, 3, 4 or 5 (handled as 4); 0 or more than 5 yield
    // TFS_NONE. isDown: the contacts still touch (false: a lift). The result is also stored in
    // localGesture.
    TELO_FINGER_STATUS DealPoints(const CTouchPointList& contacts, bool isDown);
    void SetHoldStatus(bool hold);
    void SetLocalGesture(TELO_FINGER_STATUS gesture);
    void ResetLocalGesture();
    // Empties the path of every contact in the list (the list itself is not changed), so the
    // next gesture is measured from fresh paths.
    void ClearTouchPointLists(const CTouchPointList& contacts);

    // ---- One finger (CTouchPointContainer.cpp) ----

    TELO_FINGER_STATUS OneFingerTouchType(CTouchPointInfo* contact, bool isDown);
    // Finishes a one-finger touch that never pressed: click, double click, replayed drag, or
    // for a very short touch the Command-0 / Command-9 zoom toggle.
    void toSingleClick(CTouchPointInfo* contact);
    // Releases a held left button (at screen point 0, 0). Safe from any thread.
    void releaseClick();
    // Releases a held left button where `contact` was last (null: at 0, 0) and forgets the
    // gesture in progress. Safe from any thread.
    void releaseClickAt(const CTouchPointInfo* contact);

    // ---- Two fingers (CTouchPointContainerTwoFinger.cpp) ----

    TELO_FINGER_STATUS TwoFingersTouchType(const CTouchPointList& contacts, bool isDown);

    // ---- Three and four fingers (CTouchPointContainerMultiFinger.cpp) ----

    TELO_FINGER_STATUS ThreeFingersTouchType(const CTouchPointList& contacts, bool isDown);
    // Called for four and for five contacts; only the first four are swept.
    TELO_FINGER_STATUS FourFingerTouchType(const CTouchPointList& contacts, bool isDown);

    // ---- Event posting shared by all handlers (CTouchPointContainer.cpp) ----

    // Current tick (1/60 s), widened without sign.
    static int64_t CurrentTick();
    // Device position to screen points: x * screenWidth / 32767.0, y * screenHeight / 32767.0.
    TScreenPoint ScalePoint(float x, float y) const;
    // The scaled position of a contact's latest sample.
    TScreenPoint ScaledLatest(const CTouchPointInfo* contact) const;
    bool IsButtonHeld() const {
        return buttonState == kButtonPressed || buttonState == kButtonDragging;
    }

    // A left-button event (moved, down, up, dragged) at a point, to the HID tap. Fn-flagged
    // unless told otherwise.
    void PostLeftMouse(TInputEventType type, TScreenPoint at,
                       uint64_t flags = EVENT_FLAG_SECONDARY_FN);
    // Moved, down, up, all with click state 1 and the Fn flag.
    void PostClick(TScreenPoint at);
    // Moved, up, down, up, all with click state 2 and the Fn flag.
    void PostDoubleClick(TScreenPoint at);
    // Right down then right up, no flags.
    void PostRightClick(TScreenPoint at);
    // Key down then key up of a named key, both with the modifier flags, to the session tap.
    void PostShortcut(const char* keyName, uint64_t flags);
    // A pixel scroll of `amount` on the vertical wheel (0 on the second), to the HID tap.
    void PostScroll(int32_t amount);
    // Flips zoomToggle and posts Command-"0" if it was true, else Command-"9".
    void PostZoomToggle();

    // ---- State (initial values from the constructor) ----

    TELO_FINGER_STATUS localGesture = TFS_NONE;  // outcome of the last DealPoints
    bool holdStatus = false;      // four-finger latch: a gesture fired and is still held
    bool holdStatusSet = true;    // set by SetHoldStatus; read by nothing
    bool zoomToggle = true;       // next zoom toggle: true Command-0, false Command-9
    int64_t twoFingerTick = 0;    // tick of the last two-finger frame
    int64_t lastClickTick = 0;    // tick of the last one-finger click
    int64_t touchStartTick = 0;   // start of the one-finger touch; two-finger double-touch timer
    float lastClickX = 0.0f;      // device position of the last click
    float lastClickY = 0.0f;
    float screenWidth = 0.0f;     // screen size in points (SetScreenBoard)
    float screenHeight = 0.0f;
    uint32_t fingerMode = kFingerModeNone;       // finger count of the gesture in progress
    uint32_t buttonState = kButtonNeverPressed;  // the synthetic left button
    int32_t gestureSent = 0;      // 1 once a shortcut, scroll or tap was posted; read by nothing

private:
    void Post(const TInputEvent& event);
    // A multi-finger handler found the left button held: release it at the first contact's
    // latest position (or 0, 0), enter the handler's finger mode and restart the paths.
    void ReleaseHeldButton(const CTouchPointList& contacts, uint32_t mode);

    mutable std::recursive_mutex m_lock;
    CDiscardEventSink m_discard;  // where events go while no sink is set
    CEventSink* m_sink;
};
