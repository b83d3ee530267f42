#include "ContactPublisher.h"

#include <algorithm>

CContactPublisher::CContactPublisher(int device, std::vector<IContactListener*> listeners)
    : m_device(device), m_listeners(std::move(listeners)) {
    m_frame.device = device;
    // A frame report holds at most nine contacts; the retired ones come on top.
    m_frame.contacts.reserve(32);
    m_down.reserve(32);
}

CContactPublisher::~CContactPublisher() { End(); }

void CContactPublisher::Ready(const TContactSource& source) {
    m_started = true;
    for (IContactListener* listener : m_listeners) listener->OnFrameReady(source);
}

void CContactPublisher::Publish(const _HARDWARE_FRAME_SDK& frame, int64_t timeStamp) {
    m_frame.timeStamp = timeStamp;
    m_frame.points = frame.points;
    m_frame.contacts.clear();
    for (const _HARDWARE_SDK_POINT* p = frame.points; p != nullptr; p = p->next) {
        TContact c;
        c.id = p->id;
        c.status = p->status;
        c.hasSize = p->rawW != 0 || p->rawH != 0;
        c.x = p->x;
        c.y = p->y;
        c.width = c.hasSize ? p->width : 0;
        c.height = c.hasSize ? p->height : 0;
        c.rawX = p->rawX;
        c.rawY = p->rawY;
        c.cell[0] = p->cell[0];
        c.cell[1] = p->cell[1];
        m_frame.contacts.push_back(c);
    }
    const size_t reported = m_frame.contacts.size();
    // A contact that was down and is missing now never lifted: contact matching retires it.
    for (TContact& before : m_down) {
        const auto first = m_frame.contacts.begin();
        const auto last = first + static_cast<std::ptrdiff_t>(reported);
        if (std::none_of(first, last, [&](const TContact& c) { return c.id == before.id; })) {
            before.retired = true;
            m_frame.contacts.push_back(before);
        }
    }
    m_down.clear();
    for (size_t i = 0; i < reported; ++i) {
        if (!m_frame.contacts[i].Ended()) m_down.push_back(m_frame.contacts[i]);
    }
    for (IContactListener* listener : m_listeners) listener->OnContacts(m_frame);
    m_frame.points = nullptr;
}

void CContactPublisher::End() {
    if (!m_started || m_ended) return;
    m_ended = true;
    for (IContactListener* listener : m_listeners) listener->OnFrameEnd(m_device);
}

void CGestureListener::OnContacts(const TContactFrame& frame) {
    // A frame's events reach the sink together: one write to the input device.
    TEventFrame events(m_container.EventSink());
    if (m_held != nullptr && m_held->load()) {
        if (!m_holding) {
            m_holding = true;
            const CTouchPointList& tracked = m_tracker.Tracked();
            m_container.releaseClickAt(tracked.empty() ? nullptr : tracked.front());
            m_tracker.Reset();
        }
        return;
    }
    if (m_holding) {
        if (std::any_of(frame.contacts.begin(), frame.contacts.end(),
                        [](const TContact& c) { return !c.Ended(); })) {
            return;
        }
        m_holding = false;
        return;
    }
    m_tracker.DealFrame(frame.points, frame.timeStamp);
}
