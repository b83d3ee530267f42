#include "ContactPublisher.h"

#include <algorithm>

CContactPublisher::CContactPublisher(int device, std::vector<IContactListener*> listeners)
    : m_device(device), m_listeners(std::move(listeners)), m_values(device) {}

CContactPublisher::~CContactPublisher() { End(); }

void CContactPublisher::Ready(const TContactSource& source) {
    m_started = true;
    for (IContactListener* listener : m_listeners) listener->OnFrameReady(source);
}

void CContactPublisher::Publish(const _HARDWARE_FRAME_SDK& frame, int64_t timeStamp) {
    const TContactFrame& values = m_values.Build(frame, timeStamp);
    for (IContactListener* listener : m_listeners) listener->OnContacts(values);
}

void CContactPublisher::ConfigChanged(const TContactSource& source) {
    if (!m_started || m_ended) return;
    for (IContactListener* listener : m_listeners) listener->OnConfigChanged(source);
}

void CContactPublisher::End() {
    if (!m_started || m_ended) return;
    m_ended = true;
    for (IContactListener* listener : m_listeners) listener->OnFrameEnd(m_device);
}

CGestureListener::CGestureListener(CTouchPointContainer& container,
                                   const std::atomic<bool>* held)
    : m_container(container), m_tracker(container), m_held(held) {
    m_points.reserve(32);
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
    m_points.clear();
    for (const TContact& c : frame.contacts) {
        if (c.retired) continue;
        _HARDWARE_SDK_POINT p{};
        p.id = c.id;
        p.status = c.status;
        p.x = c.x;
        p.y = c.y;
        p.width = c.width;
        p.height = c.height;
        p.rawX = c.rawX;
        p.rawY = c.rawY;
        p.cell[0] = c.cell[0];
        p.cell[1] = c.cell[1];
        m_points.push_back(p);
    }
    for (size_t i = 0; i + 1 < m_points.size(); ++i) m_points[i].next = &m_points[i + 1];
    m_tracker.DealFrame(m_points.empty() ? nullptr : m_points.data(), frame.timeStamp);
}
