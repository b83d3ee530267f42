// The worker's side of the contact stream: each calibrated frame's contacts, as values, to every
// listener of the frame; and the gesture emulation as one such listener.
#pragma once

#include <atomic>
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

// The gesture emulation: contact matching and the frame's gesture container. While `held` is
// set (a tool calibrates the frame) no frame reaches the gestures: a button held when the hold
// begins is released where the finger was, and after the hold the gestures resume with the
// first frame that has no finger down, so no gesture starts in the middle of a touch.
class CGestureListener final : public IContactListener {
public:
    explicit CGestureListener(CTouchPointContainer& container,
                              const std::atomic<bool>* held = nullptr)
        : m_container(container), m_tracker(container), m_held(held) {}
    void OnContacts(const TContactFrame& frame) override;
    const CContactTracker& Tracker() const { return m_tracker; }

private:
    CTouchPointContainer& m_container;
    CContactTracker m_tracker;
    const std::atomic<bool>* m_held;
    bool m_holding = false;
};
