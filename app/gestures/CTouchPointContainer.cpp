#include "CTouchPointContainer.h"

#include <charconv>

#include "MtDevLog.h"
#include "MultiPlatformAPI.h"

namespace {

// One-finger timing and distances (ticks of 1/60 s, device units).
constexpr int64_t kDoubleClickTicks = 14;      // a second lift within this many is a double click
constexpr int64_t kLongTouchTicks = 49;        // longer touches click; shorter ones toggle zoom
constexpr int64_t kClickAfterClickTicks = 40;  // toSingleClick's own double-click window
constexpr float kDoubleClickRadius = 200.0f;
constexpr float kDoubleClickStillness = 100.0f;
constexpr float kDragReplayDistance = 50.0f;

// A value as printf's "%f" writes it (six decimals, correctly rounded), without printf's slow
// general-purpose float path: the per-frame lines are written on every frame of a touch.
struct TFixed {
    explicit TFixed(double value) {
        const auto result = std::to_chars(text, text + sizeof text - 1, value,
                                          std::chars_format::fixed, 6);
        *(result.ec == std::errc() ? result.ptr : text) = '\0';
    }
    char text[340];  // the longest double in fixed notation fits
};

}  // namespace

CTouchPointContainer::CTouchPointContainer() : m_sink(&m_discard) {}

CTouchPointContainer::CTouchPointContainer(CEventSink& sink) : m_sink(&sink) {}

void CTouchPointContainer::SetEventSink(CEventSink* sink) {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    m_sink = sink ? sink : &m_discard;
}

CEventSink* CTouchPointContainer::EventSink() const {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    return m_sink;
}

// ---------------------------------------------------------------------------------------------
// Dispatcher and worker entry points

void CTouchPointContainer::SetScreenBoard(float width, float height) {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    screenWidth = width;
    screenHeight = height;
}

TELO_FINGER_STATUS CTouchPointContainer::DealPoints(const CTouchPointList& contacts,
                                                    bool isDown) {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    const size_t n = contacts.size();
    if (n == 0 || n > 5) {
        localGesture = TFS_NONE;
        return localGesture;
    }
    TLogStdout("%zu", n);
    TELO_FINGER_STATUS result = TFS_NONE;
    switch (n) {
        case 1: result = OneFingerTouchType(contacts[0], isDown); break;
        case 2: result = TwoFingersTouchType(contacts, isDown); break;
        case 3: result = ThreeFingersTouchType(contacts, isDown); break;
        default: result = FourFingerTouchType(contacts, isDown); break;  // a fifth rides along
    }
    localGesture = result;
    return result;
}

void CTouchPointContainer::SetHoldStatus(bool hold) {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    holdStatus = hold;
    holdStatusSet = true;
    gestureSent = 0;
}

void CTouchPointContainer::SetLocalGesture(TELO_FINGER_STATUS gesture) {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    localGesture = gesture;
}

void CTouchPointContainer::ResetLocalGesture() {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    localGesture = TFS_NONE;
}

void CTouchPointContainer::ClearTouchPointLists(const CTouchPointList& contacts) {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    for (CTouchPointInfo* contact : contacts) {
        if (contact) contact->Remove();
    }
}

// ---------------------------------------------------------------------------------------------
// One finger

TELO_FINGER_STATUS CTouchPointContainer::OneFingerTouchType(CTouchPointInfo* contact,
                                                            bool isDown) {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (localGesture == TFS_THREE_FINGERS_TAP) {
        // Three fingers latched the hand: a remaining finger moves nothing until all lift.
        TLogSystem("one");
        return localGesture;
    }
    if (contact == nullptr || contact->PathEmpty()) {
        localGesture = TFS_NONE;
        return localGesture;
    }
    const CTouchPointPath path = contact->getPointsPath();
    const CTouchPoint first = path.front();
    const CTouchPoint last = path.back();
    TLogStdout("x:%sy:%s", TFixed(last.x).text, TFixed(last.y).text);
    const TScreenPoint at = ScalePoint(last.x, last.y);
    TLogStdout("point.x:%spoint.y:%s", TFixed(at.x).text, TFixed(at.y).text);

    if (fingerMode != kFingerModeOne) {
        // A new touch only arms; it never presses on its first frame.
        TELO_FINGER_STATUS result = TFS_NONE;
        if (IsButtonHeld()) {
            PostLeftMouse(TInputEventType::LeftMouseUp, at);
            buttonState = kButtonReleased;
            result = TFS_ONE_FINGER_UP;
        }
        touchStartTick = CurrentTick();
        fingerMode = kFingerModeOne;
        TLogSystem("asdasd");
        localGesture = result;
        return result;
    }

    if (isDown) {
        TELO_FINGER_STATUS result = TFS_NONE;
        switch (buttonState) {
            case kButtonNeverPressed:
            case kButtonReleased:
                buttonState = kButtonPressed;
                PostLeftMouse(TInputEventType::LeftMouseDown, at);
                TLogStdout("down");
                result = TFS_ONE_FINGER_DOWN;
                break;
            case kButtonPressed:
                buttonState = kButtonDragging;
                PostLeftMouse(TInputEventType::LeftMouseDragged, at);
                TLogStdout("drag");
                result = TFS_ONE_FINGER_DRAG;
                break;
            case kButtonDragging:
                PostLeftMouse(TInputEventType::LeftMouseDragged, at);
                TLogStdout("drag");
                result = TFS_ONE_FINGER_DRAG;
                break;
            default:
                break;
        }
        fingerMode = kFingerModeOne;
        localGesture = result;
        return result;
    }

    // The finger lifted.
    const int64_t now = CurrentTick();
    // Near the last click and hardly moved: the lift is a double click.
    auto isSecondClick = [&]() {
        const float fromLastClick = GetDistance(lastClickX, last.x, lastClickY, last.y);
        TLogSystem("distance:%f", fromLastClick);
        const float moved = GetDistance(first.x, last.x, first.y, last.y);
        TLogSystem("MYdistance:%f", moved);
        return !(fromLastClick > kDoubleClickRadius) && !(moved > kDoubleClickStillness);
    };

    if (!IsButtonHeld()) {
        // The touch ended before it pressed (e.g. a touch of one frame).
        if (now - lastClickTick > kDoubleClickTicks) {
            TLogSystem("mark1");
            lastClickTick = now;
            lastClickX = last.x;
            lastClickY = last.y;
            fingerMode = kFingerModeOne;
            localGesture = TFS_NONE;
            toSingleClick(contact);
            return TFS_NONE;
        }
        if (isSecondClick()) {
            PostDoubleClick(at);
            buttonState = kButtonReleased;
            TLogStdout("DBClick");
            localGesture = TFS_ONE_FINGER_DBCLICK;
            return localGesture;
        }
        localGesture = TFS_NONE;
        TLogSystem("distance>200");
        toSingleClick(contact);
        return TFS_NONE;
    }

    TLogSystem("mouse up start");
    PostLeftMouse(TInputEventType::LeftMouseUp, at);
    if (now - lastClickTick > kDoubleClickTicks) {
        buttonState = kButtonReleased;
        lastClickTick = now;
        lastClickX = last.x;
        lastClickY = last.y;
        TLogSystem("mouse up end");
        localGesture = TFS_ONE_FINGER_UP;
        return localGesture;
    }
    if (isSecondClick()) {
        PostDoubleClick(at);
        buttonState = kButtonReleased;
        TLogStdout("1-DBClick");
        localGesture = TFS_ONE_FINGER_DBCLICK;
        return localGesture;
    }
    // A quick second touch away from the first click: the button sequence goes on (the drag
    // after the up just posted is kept so). The last click is left as it was.
    TELO_FINGER_STATUS result = TFS_NONE;
    switch (buttonState) {
        case kButtonPressed:
            PostLeftMouse(TInputEventType::LeftMouseDragged, at);
            TLogStdout("1-drag");
            buttonState = kButtonDragging;
            result = TFS_ONE_FINGER_DRAG;
            break;
        case kButtonDragging:
            PostLeftMouse(TInputEventType::LeftMouseUp, at);
            TLogStdout("1-up");
            buttonState = kButtonReleased;
            result = TFS_ONE_FINGER_UP;
            break;
        case kButtonReleased:
            PostLeftMouse(TInputEventType::LeftMouseDown, at);
            TLogStdout("1-down");
            buttonState = kButtonPressed;
            result = TFS_ONE_FINGER_DOWN;
            break;
        default:
            break;
    }
    localGesture = result;
    return result;
}

void CTouchPointContainer::toSingleClick(CTouchPointInfo* contact) {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (contact == nullptr || contact->PathEmpty()) return;
    const int64_t now = CurrentTick();

    if (now - touchStartTick <= kLongTouchTicks) {
        // A very short touch is the zoom-reset toggle, not a click.
        touchStartTick = 0;
        PostZoomToggle();
        gestureSent = 1;
        return;
    }

    const CTouchPointPath path = contact->getPointsPath();
    const CTouchPoint first = path.front();
    const CTouchPoint last = path.back();
    const float moved = GetDistance(first.x, last.x, first.y, last.y);
    TLogStdout("mydistance%f", moved);

    if (moved >= kDragReplayDistance) {
        // Replay the touch as a drag. Press and release go out at the unscaled device
        // position and every drag event at the one scaled end point; kept so.
        PostLeftMouse(TInputEventType::LeftMouseDown, TScreenPoint{first.x, first.y});
        const TScreenPoint end = ScalePoint(last.x, last.y);
        for (size_t i = 0; i < path.size(); ++i) {
            PostLeftMouse(TInputEventType::LeftMouseDragged, end);
        }
        PostLeftMouse(TInputEventType::LeftMouseUp, TScreenPoint{last.x, last.y});
        TLogStdout("3-up");
        buttonState = kButtonReleased;
        return;
    }

    const TScreenPoint at = ScalePoint(last.x, last.y);
    PostLeftMouse(TInputEventType::LeftMouseUp, at, EVENT_FLAG_NONE);
    if (now - lastClickTick < kClickAfterClickTicks) {
        TLogSystem("sigleclick start");
        if (GetDistance(lastClickX, last.x, lastClickY, last.y) > kDoubleClickRadius) {
            TLogSystem("sigleclick out");
            return;
        }
        PostDoubleClick(at);
        TLogSystem("doubleclick");
    } else {
        PostClick(at);
        TLogSystem("signleclick");
    }
    buttonState = kButtonReleased;
    lastClickTick = now;
    lastClickX = last.x;
    lastClickY = last.y;
    TLogSystem("sigleclick end");
}

void CTouchPointContainer::releaseClick() {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (!IsButtonHeld()) return;
    PostLeftMouse(TInputEventType::LeftMouseUp, TScreenPoint{0.0, 0.0});
    buttonState = kButtonReleased;
    TLogSystem("releaseclick");
}

void CTouchPointContainer::releaseClickAt(const CTouchPointInfo* contact) {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (!IsButtonHeld()) return;
    PostLeftMouse(TInputEventType::LeftMouseUp,
                  contact != nullptr ? ScaledLatest(contact) : ScalePoint(0.0f, 0.0f));
    buttonState = kButtonReleased;
    fingerMode = kFingerModeNone;
}

void CTouchPointContainer::ReleaseHeldButton(const CTouchPointList& contacts, uint32_t mode) {
    const TScreenPoint at = (!contacts.empty() && contacts[0] != nullptr)
                                ? ScaledLatest(contacts[0])
                                : ScalePoint(0.0f, 0.0f);
    PostLeftMouse(TInputEventType::LeftMouseUp, at);
    fingerMode = mode;
    buttonState = kButtonReleased;
    ClearTouchPointLists(contacts);
}

// ---------------------------------------------------------------------------------------------
// Event posting

int64_t CTouchPointContainer::CurrentTick() {
    return static_cast<int64_t>(static_cast<uint64_t>(TTickCount()));
}

TScreenPoint CTouchPointContainer::ScalePoint(float x, float y) const {
    return TScreenPoint{static_cast<double>(x) * static_cast<double>(screenWidth) / 32767.0,
                        static_cast<double>(y) * static_cast<double>(screenHeight) / 32767.0};
}

TScreenPoint CTouchPointContainer::ScaledLatest(const CTouchPointInfo* contact) const {
    return ScalePoint(contact->GetBehindX(), contact->GetBehindY());
}

void CTouchPointContainer::Post(const TInputEvent& event) { m_sink->Post(event); }

void CTouchPointContainer::PostLeftMouse(TInputEventType type, TScreenPoint at,
                                         uint64_t flags) {
    Post(TInputEvent::Mouse(type, at.x, at.y, flags));
}

void CTouchPointContainer::PostClick(TScreenPoint at) {
    // One event, re-typed and posted again for each step, all carrying click state 1.
    for (TInputEventType type : {TInputEventType::MouseMoved, TInputEventType::LeftMouseDown,
                                 TInputEventType::LeftMouseUp}) {
        Post(TInputEvent::Mouse(type, at.x, at.y, EVENT_FLAG_SECONDARY_FN, 1));
    }
}

void CTouchPointContainer::PostDoubleClick(TScreenPoint at) {
    for (TInputEventType type : {TInputEventType::MouseMoved, TInputEventType::LeftMouseUp,
                                 TInputEventType::LeftMouseDown, TInputEventType::LeftMouseUp}) {
        Post(TInputEvent::Mouse(type, at.x, at.y, EVENT_FLAG_SECONDARY_FN, 2));
    }
}

void CTouchPointContainer::PostRightClick(TScreenPoint at) {
    Post(TInputEvent::Mouse(TInputEventType::RightMouseDown, at.x, at.y, EVENT_FLAG_NONE, 0,
                            TMouseButton::Right));
    Post(TInputEvent::Mouse(TInputEventType::RightMouseUp, at.x, at.y, EVENT_FLAG_NONE, 0,
                            TMouseButton::Right));
}

void CTouchPointContainer::PostShortcut(const char* keyName, uint64_t flags) {
    const uint16_t code = keyCodeForKeyString(keyName);
    Post(TInputEvent::Key(true, code, flags));
    Post(TInputEvent::Key(false, code, flags));
}

void CTouchPointContainer::PostScroll(int32_t amount) { Post(TInputEvent::Scroll(amount, 0)); }

void CTouchPointContainer::PostZoomToggle() {
    const bool wasSet = zoomToggle;
    zoomToggle = !zoomToggle;
    PostShortcut(wasSet ? "0" : "9", EVENT_FLAG_COMMAND);
}
