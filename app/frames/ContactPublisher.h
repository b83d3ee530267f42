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
    // The frame calibrates with `source.config` from the next Publish on.
    void ConfigChanged(const TContactSource& source);
    // Every listener lifts what it holds; later calls are ignored.
    void End();

private:
    const int m_device;
    const std::vector<IContactListener*> m_listeners;
    CContactFrameBuilder m_values;
    bool m_started = false;
    bool m_ended = false;
};

// The gesture emulation: contact matching and the frame's gesture container, fed with the
// contacts the frame reported (the retired ones are contact matching's own to find).
class CGestureListener final : public IContactListener {
public:
    explicit CGestureListener(CTouchPointContainer& container);
    void OnContacts(const TContactFrame& frame) override;
    const CContactTracker& Tracker() const { return m_tracker; }

private:
    CContactTracker m_tracker;
    std::vector<_HARDWARE_SDK_POINT> m_points;  // the reported contacts as matching takes them
};
