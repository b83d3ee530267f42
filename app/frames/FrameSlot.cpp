#include "FrameSlot.h"

#include "DevConfigJson.h"
#include "FrameRequests.h"

// ---------------------------------------------------------------------------------------------
// Frame slot, worker side

void CFrameSlot::SetState(int number, TFrameState state) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        // Gone is final for this appearance; the ending worker does not make it Failed.
        if (m_state == state || (m_state == TFrameState::Gone && state == TFrameState::Failed)) {
            return;
        }
        m_state = state;
    }
    Changed(number);
}

void CFrameSlot::SetConfigured(int number, const TFrameGeometry& geometry,
                               const _HARDWARE_DEV_CONFIG& config) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_geometry = geometry;
        m_summary = DevConfigSummary(config);
    }
    Changed(number);
}

void CFrameSlot::OpenForRequests() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_accepting = true;
    m_closed = false;
}

void CFrameSlot::Changed(int number) const {
    if (shell != nullptr) shell->OnMainLoop([number, s = shell] { s->FrameChanged(number); });
}

void CFrameSlot::Post(TFrameResult result) {
    auto deliver = [this, result = std::move(result)]() mutable { Deliver(std::move(result)); };
    if (shell != nullptr) {
        shell->OnMainLoop(std::move(deliver));
    } else {
        deliver();
    }
}

void CFrameSlot::Serve(CMtDevController& controller,
                       const std::function<void(const _HARDWARE_DEV_CONFIG&)>& configChanged) {
    std::optional<TFrameRequest> request;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        request.swap(m_pending);
        m_hasRequest.store(false);
    }
    if (!request) return;
    m_transferring.store(true);
    TFrameResult result = RunFrameRequest(controller, *request, m_cancelled);
    m_transferring.store(false);
    // A write that the frame took changes what this worker calibrates with.
    const bool write = request->operation == TFrameOperation::WriteConfig ||
                       request->operation == TFrameOperation::WriteOverride;
    if (write && result.config) configChanged(*result.config);

    if (result.outcome == TFrameOutcome::Done) {
        Post(std::move(result));
    } else if (m_cancelled.load()) {
        result.outcome = TFrameOutcome::Cancelled;
        result.message = std::string(FrameOperationName(request->operation)) +
                         " was cancelled; the frame may hold part of what was being written";
        Post(std::move(result));
    } else {
        m_held = std::move(result);  // the next poll tells Failed from Gone
    }
}

void CFrameSlot::PollSucceeded() {
    if (!m_held) return;
    TFrameResult result = std::move(*m_held);
    m_held.reset();
    Post(std::move(result));
}

void CFrameSlot::Close(int number, bool gone, const char* why) {
    std::optional<TFrameRequest> pending;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_accepting = false;
        m_closed = true;
        pending.swap(m_pending);
        m_hasRequest.store(false);
    }
    if (m_held) {
        TFrameResult result = std::move(*m_held);
        m_held.reset();
        // It failed and the frame then stopped answering or went away.
        result.outcome = TFrameOutcome::Gone;
        result.message = "frame " + std::to_string(number) + " " + why + " during the request (" +
                         result.message + ")";
        Post(std::move(result));
    }
    if (pending) {
        Post(TFrameResult::Of(gone ? TFrameOutcome::Gone : TFrameOutcome::Failed,
                              "frame " + std::to_string(number) + " " + why +
                                  " before the request was carried out"));
    }
}

// ---------------------------------------------------------------------------------------------
// Frame slot, main thread

bool CFrameSlot::Accept(TFrameRequest request, IDriverControl::TDone done, std::string* why) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_accepting) {
        // Closed by its ending worker while the frame still reads as running.
        *why = m_closed ? std::string("the frame is ending and takes no more requests")
                   : std::string("the frame is ") + FrameStateName(m_state) +
                         "; requests are carried out while it runs";
        return false;
    }
    m_pending = std::move(request);
    m_cancelled.store(false);
    m_hasRequest.store(true);
    m_done = std::move(done);
    return true;
}

void CFrameSlot::Cancel(CMtDevController& controller) {
    m_cancelled.store(true);
    controller.BreakOffCmdProcess();
}

void CFrameSlot::Deliver(TFrameResult result) {
    IDriverControl::TDone done = std::move(m_done);
    m_done = nullptr;
    m_cancelled.store(false);
    if (done) done(std::move(result));
}

TFrameState CFrameSlot::State() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_state;
}

TFrameGeometry CFrameSlot::Geometry() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_geometry;
}

std::string CFrameSlot::Summary() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_summary;
}
