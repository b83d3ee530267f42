// A device record's frame slot: the one place where the main thread and a frame's worker meet
// over tools' requests and the frame's state.
//
// A request goes from the main thread into the slot; the worker takes it between two polls
// (polling pauses meanwhile), runs it on its controller and posts the result back to the main
// loop, where the caller's completion runs. A transfer that failed is answered once the next poll
// tells whether the frame is still there: Failed when it answers, Gone when it went away or
// stopped answering. A slot takes requests only while its worker polls; a worker that ends
// answers what it still holds. The record, and so the slot, outlives the main loop's run.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "DriverControl.h"
#include "MtDevCtrlInterface.h"
#include "ShellState.h"

class CFrameSlot {
public:
    // --- Worker side
    void SetState(int number, TFrameState state);
    // The frame's geometry and configuration, once known or changed by a write.
    void SetConfigured(int number, const TFrameGeometry& geometry, const _HARDWARE_DEV_CONFIG& config);
    // From now on requests are taken (the worker polls).
    void OpenForRequests();
    bool HasRequest() const { return m_hasRequest.load(); }
    // Runs the pending request on `controller`. `configChanged` gets the configuration the
    // frame holds after a write that reached it.
    void Serve(CMtDevController& controller,
               const std::function<void(const _HARDWARE_DEV_CONFIG&)>& configChanged);
    // A poll succeeded: a failure held back is answered as Failed.
    void PollSucceeded();
    // The worker ends. `gone`: the frame was unplugged (or the driver ends); the request still
    // pending or held back is answered Gone.
    void Close(int number, bool gone, const char* why);

    // --- Set when the record is made, before its worker starts
    // Where results and changes go (its main loop and tools' listener); null: results are
    // delivered at once and changes told to nobody.
    CShellState* shell = nullptr;

    // --- Main thread
    bool present = false;     // plugged in (between the matched and the removed callback)
    bool Busy() const { return m_done != nullptr; }
    // False with the reason when the slot takes no request now.
    bool Accept(TFrameRequest request, IDriverControl::TDone done, std::string* why);
    void Cancel(CMtDevController& controller);
    bool Cancelled() const { return m_cancelled.load(); }
    // A tool holds the frame's gestures (it calibrates): the worker's gesture listener reads it.
    void HoldGestures(bool held) { m_gesturesHeld.store(held); }
    const std::atomic<bool>& GesturesHeld() const { return m_gesturesHeld; }
    bool Transferring() const { return m_transferring.load(); }
    TFrameState State() const;
    TFrameGeometry Geometry() const;
    std::string Summary() const;

private:
    // The request's result, handed to its completion on the main loop.
    void Post(TFrameResult result);
    void Deliver(TFrameResult result);
    // The frame's state, geometry or summary changed: tools hear of it on the main loop.
    void Changed(int number) const;

    mutable std::mutex m_mutex;            // guards the members up to m_pending
    TFrameState m_state = TFrameState::Opening;
    TFrameGeometry m_geometry;
    std::string m_summary;
    bool m_accepting = false;
    bool m_closed = false;  // by the worker as it ended
    std::optional<TFrameRequest> m_pending;
    std::atomic<bool> m_hasRequest{false};
    std::atomic<bool> m_cancelled{false};
    std::atomic<bool> m_transferring{false};
    std::atomic<bool> m_gesturesHeld{false};
    std::optional<TFrameResult> m_held;  // worker only: a failure awaiting the next poll
    IDriverControl::TDone m_done;        // main thread only
};
