#include "ContactMatching.h"

#include <algorithm>

#include "MtDevLog.h"
#include "MultiPlatformAPI.h"

namespace {

// Contact status values of a frame.
constexpr uint8_t kStatusNew = 0;
constexpr uint8_t kStatusContinuing = 1;
constexpr uint8_t kStatusLifted = 2;

// Latest minus first sample stamp of a contact with samples.
int64_t Span(const CTouchPointInfo* contact) {
    const CTouchPointPath path = contact->getPointsPath();
    return path.back().GetBirthTime() - path.front().GetBirthTime();
}

bool HasPathShorterThan(const CTouchPointInfo* contact, int64_t span) {
    return !contact->PathEmpty() && Span(contact) < span;
}

bool FrameHasId(const _HARDWARE_SDK_POINT* points, int id) {
    for (const _HARDWARE_SDK_POINT* p = points; p != nullptr; p = p->next) {
        if (static_cast<int>(p->id) == id) return true;
    }
    return false;
}

}  // namespace

CTouchPointInfo* findTouchPoint(int id, CTouchPointList* list) {
    if (list == nullptr) return nullptr;
    for (CTouchPointInfo* contact : *list) {
        if (contact->GetID() == id) return contact;
    }
    return nullptr;
}

void removeTouchPoint(int id, CTouchPointList* list) {
    CTouchPointInfo* contact = findTouchPoint(id, list);
    if (contact == nullptr) return;
    contact->Remove();
    list->erase(std::find(list->begin(), list->end(), contact));
    delete contact;
}

void checkTouchPoint(const _HARDWARE_SDK_POINT* points, CTouchPointList* list) {
    if (list == nullptr) return;
    // The index moves on after an erase as well, so the entry that slid into the slot is
    // examined at the next frame; this pacing is kept.
    for (size_t i = 0; i < list->size(); ++i) {
        CTouchPointInfo* contact = (*list)[i];
        if (FrameHasId(points, contact->GetID())) continue;
        contact->Remove();
        list->erase(list->begin() + static_cast<std::ptrdiff_t>(i));
        // Nothing else refers to a contact that left the list: the container only borrows it.
        delete contact;
    }
}

// ---------------------------------------------------------------------------------------------

CContactTracker::~CContactTracker() { DropAll(); }

void CContactTracker::Reset() {
    DropAll();
    m_lastGesture = TFS_NONE;
}

void CContactTracker::DropAll() {
    for (CTouchPointInfo* contact : m_tracked) delete contact;
    m_tracked.clear();
}

void CContactTracker::DealFrame(const _HARDWARE_SDK_POINT* points, int64_t timeStamp) {
    if (points == nullptr) {
        DealEmptyFrame();
    } else {
        DealContacts(points, timeStamp);
    }
}

CTouchPointInfo* CContactTracker::NewContact(const _HARDWARE_SDK_POINT& point,
                                             int64_t timeStamp) {
    return new CTouchPointInfo(point.id, static_cast<float>(point.x), static_cast<float>(point.y),
                               point.status, point.cell[0], timeStamp);
}

CTouchPointInfo* CContactTracker::UpdateOrAppend(const _HARDWARE_SDK_POINT& point,
                                                 int64_t timeStamp) {
    CTouchPointInfo* contact = findTouchPoint(point.id, &m_tracked);
    if (contact != nullptr) {
        contact->Update(static_cast<float>(point.x), static_cast<float>(point.y), timeStamp);
    } else {
        contact = NewContact(point, timeStamp);
        m_tracked.push_back(contact);
    }
    return contact;
}

void CContactTracker::DealLoneLift(CTouchPointInfo* contact) {
    if (contact->PathEmpty()) return;  // a finished multi-finger gesture emptied it
    if (m_lastGesture == TFS_THREE_FINGERS_TAP) {
        m_container.toSingleClick(contact);
    } else {
        m_lastGesture = m_container.DealPoints(m_tracked, false);
    }
}

void CContactTracker::DealContacts(const _HARDWARE_SDK_POINT* points, int64_t timeStamp) {
    size_t frameCount = 0;
    for (const _HARDWARE_SDK_POINT* p = points; p != nullptr; p = p->next) ++frameCount;

    for (const _HARDWARE_SDK_POINT* p = points; p != nullptr; p = p->next) {
        switch (p->status) {
            case kStatusNew: {
                // Not looked up: a known id gets a second entry, and lookups find the older.
                CTouchPointInfo* contact = NewContact(*p, timeStamp);
                if (frameCount == 1) DropAll();  // a lone new touch starts afresh
                TLogSystem("new point add");
                m_tracked.push_back(contact);
                if (m_tracked.size() == 1) m_lastGesture = m_container.DealPoints(m_tracked, true);
                break;
            }
            case kStatusContinuing: {
                UpdateOrAppend(*p, timeStamp);
                const size_t n = m_tracked.size();
                // A contact younger than kSettleSpan is still settling: wait for more samples.
                if (n == 1 && HasPathShorterThan(m_tracked[0], kSettleSpan)) break;
                if (n == 2 && (HasPathShorterThan(m_tracked[0], kSettleSpan) ||
                               HasPathShorterThan(m_tracked[1], kSettleSpan))) {
                    break;
                }
                m_lastGesture = m_container.DealPoints(m_tracked, true);
                break;
            }
            case kStatusLifted: {
                m_container.SetHoldStatus(false);
                UpdateOrAppend(*p, timeStamp);
                const size_t n = m_tracked.size();
                if (n == 1) {
                    DealLoneLift(m_tracked[0]);
                } else if (n == 2 && !HasPathShorterThan(m_tracked[0], kTwoFingerLiftSpan) &&
                           !HasPathShorterThan(m_tracked[1], kTwoFingerLiftSpan)) {
                    m_lastGesture = m_container.DealPoints(m_tracked, false);
                }
                removeTouchPoint(p->id, &m_tracked);
                break;
            }
            default: {
                // Gone without a final position: nothing is recorded, and two fingers are
                // released without the span test of a proper lift.
                m_container.SetHoldStatus(false);
                const size_t n = m_tracked.size();
                if (n == 1) {
                    DealLoneLift(m_tracked[0]);
                } else if (n == 2 && !m_tracked[0]->PathEmpty() && !m_tracked[1]->PathEmpty()) {
                    m_lastGesture = m_container.DealPoints(m_tracked, false);
                }
                removeTouchPoint(p->id, &m_tracked);
                break;
            }
        }
    }
    checkTouchPoint(points, &m_tracked);
}

void CContactTracker::DealEmptyFrame() {
    m_container.SetHoldStatus(false);
    if (m_tracked.size() == 1 && !m_tracked[0]->PathEmpty()) {
        if (m_lastGesture == TFS_THREE_FINGERS_TAP) {
            m_container.toSingleClick(m_tracked[0]);
        } else {
            m_container.DealPoints(m_tracked, false);
        }
    } else if (m_tracked.size() == 2 && !m_tracked[0]->PathEmpty() &&
               !m_tracked[1]->PathEmpty()) {
        m_container.DealPoints(m_tracked, false);
    }
    m_container.ResetLocalGesture();
    DropAll();
    m_lastGesture = TFS_NONE;
    checkTouchPoint(nullptr, &m_tracked);
}
