// The device list as tools see it (ports/DriverControl.h), and each record's frame slot: the
// one place where the main thread and a frame's worker meet over requests and state.
//
// A request goes from the main thread into the slot; the worker takes it between two polls
// (polling pauses meanwhile), runs it on its controller and posts the result back to the main
// loop, where the caller's completion runs. A transfer that failed is answered once the next poll
// tells whether the frame is still there: Failed when it answers, Gone when it went away or
// stopped answering. A slot takes requests only while its worker polls; a worker that ends
// answers what it still holds.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "DriverControl.h"
#include "MainLoop.h"
#include "MtDevCtrlInterface.h"

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
    void Serve(int number, CMtDevController& controller,
               const std::function<void(const _HARDWARE_DEV_CONFIG&)>& configChanged);
    // A poll succeeded: a failure held back is answered as Failed.
    void PollSucceeded(int number);
    // The worker ends. `gone`: the frame was unplugged (or the driver ends); the request still
    // pending or held back is answered Gone.
    void Close(int number, bool gone, const char* why);

    // --- Set when the record is made, before its worker starts
    IMainLoop* loop = nullptr;  // where results and changes go; null: delivered at once

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
    // The request's completion arrived from the worker.
    void Deliver(TFrameResult result);
    TFrameState State() const;
    TFrameGeometry Geometry() const;
    std::string Summary() const;

private:
    void Post(int number, TFrameResult result);

    mutable std::mutex m_mutex;            // guards the members up to m_pending
    TFrameState m_state = TFrameState::Opening;
    TFrameGeometry m_geometry;
    std::string m_summary;
    bool m_accepting = false;
    std::optional<TFrameRequest> m_pending;
    std::atomic<bool> m_hasRequest{false};
    std::atomic<bool> m_cancelled{false};
    std::atomic<bool> m_transferring{false};
    std::atomic<bool> m_gesturesHeld{false};
    std::optional<TFrameResult> m_held;  // worker only: a failure awaiting the next poll
    IDriverControl::TDone m_done;        // main thread only
};

// The control over the global device list. One at a time; main thread.
class CDriverControl final : public IDriverControl {
public:
    // Refusals are posted to `loop` (null: delivered at once).
    explicit CDriverControl(IMainLoop* loop);
    ~CDriverControl() override;

    std::vector<int> FrameNumbers() const override;
    std::optional<TFrameDescription> DescribeFrame(int number) const override;
    void Submit(int number, TFrameRequest request, TDone done) override;
    bool Cancel(int number) override;
    bool HoldGestures(int number, bool held) override;
    TTransferProgress Progress(int number) const override;
    void SetEvents(IDriverEvents* events) override;
    std::optional<TReloadAnswer> Reload() override;
    // What Reload does; unset, there is no reload.
    void SetReload(std::function<TReloadAnswer()> reload) { m_reload = std::move(reload); }

    // Real time between two re-assertions of a cancel (a cancel that falls between two steps of
    // a request would otherwise be cleared by the next step).
    static constexpr uint64_t kCancelRepeatMillis = 100;

private:
    IMainLoop* m_loop;
    std::function<TReloadAnswer()> m_reload;
};

// Hooks of the device list (LoadEvent.cpp). Main thread.
void FrameAppeared(int number);
void FrameStateChanged(int number);
void FrameDisappeared(int number);
// A result from a worker, on the main loop.
void DeliverFrameResult(int number, TFrameResult result);
