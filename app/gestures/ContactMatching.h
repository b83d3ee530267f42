// Contact matching: follows the contacts of each calibrated frame by their device ids, keeps
// the worker's list of tracked contacts, and decides when the gesture container runs.
//
// Ownership: every CTouchPointInfo in a tracked list was allocated by this module and is freed
// by it. Contacts that leave the list (lift, id missing from a frame, a lone new touch, a frame
// without contacts, the tracker's end) are destroyed as they leave: nothing else keeps a
// pointer to them, because the gesture container only borrows the list for one call.
#pragma once

#include <cstdint>

#include "CTouchPointContainer.h"
#include "CTouchPointInfo.h"
#include "FrameTimeStamp.h"
#include "MtDevFrame.h"

// The first tracked contact, from the front, with this id; nullptr if none.
CTouchPointInfo* findTouchPoint(int id, CTouchPointList* list);
// Removes the first contact with this id from the list (order kept) and destroys it.
void removeTouchPoint(int id, CTouchPointList* list);
// Retires (empties, removes, destroys) tracked contacts whose id is not in the frame. The
// index moves on after a removal too, so the entry that slides into the freed slot waits for
// the next frame.
void checkTouchPoint(const _HARDWARE_SDK_POINT* points, CTouchPointList* list);

// The worker's tracked list and last gesture, and the per-frame update. One per device worker,
// used on that worker's thread only.
class CContactTracker {
public:
    // Spans (latest minus first sample stamp) below which a contact is still settling.
    static constexpr int64_t kSettleSpan = 4000;
    static constexpr int64_t kTwoFingerLiftSpan = 30000;

    explicit CContactTracker(CTouchPointContainer& container) : m_container(container) {}
    ~CContactTracker();  // destroys the contacts still tracked
    CContactTracker(const CContactTracker&) = delete;
    CContactTracker& operator=(const CContactTracker&) = delete;

    // Deals with one calibrated frame: `points` is the frame's contact list (nullptr for a
    // frame without contacts), `timeStamp` its FrameTimeStamp.
    void DealFrame(const _HARDWARE_SDK_POINT* points, int64_t timeStamp);
    void DealFrame(const _HARDWARE_FRAME_SDK& frame, int64_t timeStamp) {
        DealFrame(frame.points, timeStamp);
    }

    const CTouchPointList& Tracked() const { return m_tracked; }
    TELO_FINGER_STATUS LastGesture() const { return m_lastGesture; }

    // Drops (and destroys) every tracked contact and forgets the last gesture.
    void Reset();

private:
    void DealContacts(const _HARDWARE_SDK_POINT* points, int64_t timeStamp);
    void DealEmptyFrame();
    CTouchPointInfo* NewContact(const _HARDWARE_SDK_POINT& point, int64_t timeStamp);
    CTouchPointInfo* UpdateOrAppend(const _HARDWARE_SDK_POINT& point, int64_t timeStamp);
    void DropAll();
    void DealLoneLift(CTouchPointInfo* contact);

    CTouchPointContainer& m_container;
    CTouchPointList m_tracked;
    TELO_FINGER_STATUS m_lastGesture = TFS_NONE;
};
