// The worker's side of the contact stream: each calibrated frame's contacts, as values, to every
// listener of the frame; and the gesture emulation as one such listener.
#pragma once

#include <vector>

#include "ContactMatching.h"
#include "ContactStream.h"

// One per worker, used on its thread only.
class CContactPublisher {
public:
    CContactPublisher(int device, std::vector<IContactListener*> listeners);
    ~CContactPublisher();  // ends the stream if it was started
    CContactPublisher(const CContactPublisher&) = delete;
    CContactPublisher& operator=(const CContactPublisher&) = delete;

    void Ready(const TContactSource& source);
    // `frame` has been calibrated into absolute units; `timeStamp` is its FrameTimeStamp.
    void Publish(const _HARDWARE_FRAME_SDK& frame, int64_t timeStamp);
    // Every listener lifts what it holds; later calls are ignored.
    void End();

private:
    const int m_device;
    const std::vector<IContactListener*> m_listeners;
    TContactFrame m_frame;
    std::vector<TContact> m_down;  // contacts of the previous frame that had not ended
    bool m_started = false;
    bool m_ended = false;
};

// The gesture emulation: contact matching and the frame's gesture container.
class CGestureListener final : public IContactListener {
public:
    explicit CGestureListener(CTouchPointContainer& container) : m_tracker(container) {}
    void OnContacts(const TContactFrame& frame) override {
        m_tracker.DealFrame(frame.points, frame.timeStamp);
    }
    const CContactTracker& Tracker() const { return m_tracker; }

private:
    CContactTracker m_tracker;
};
