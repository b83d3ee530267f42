#include "DeviceListControl.h"

#include <algorithm>

#include "FrameRequests.h"
#include "LoadEvent.h"

namespace {

IDriverEvents* g_events = nullptr;  // main thread

MtDevNode* PresentRecord(int number) {
    for (MtDevNode* node = cmtDevHead; node != nullptr; node = node->next) {
        if (node->deviceNumber == number && node->frame.present) return node;
    }
    return nullptr;
}

// Runs `task` on the main loop (at once when there is none: tests without a loop).
void OnMainLoop(IMainLoop* loop, std::function<void()> task) {
    if (loop != nullptr) {
        loop->Post(std::move(task));
    } else {
        task();
    }
}

TFrameResult Outcome(TFrameOutcome outcome, std::string message) {
    TFrameResult result;
    result.outcome = outcome;
    result.message = std::move(message);
    return result;
}

}  // namespace

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
    OnMainLoop(loop, [number] { FrameStateChanged(number); });
}

void CFrameSlot::SetConfigured(int number, const TFrameGeometry& geometry,
                               const _HARDWARE_DEV_CONFIG& config) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_geometry = geometry;
        m_summary = DescribeConfig(config);
    }
    OnMainLoop(loop, [number] { FrameStateChanged(number); });
}

void CFrameSlot::OpenForRequests() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_accepting = true;
}

void CFrameSlot::Post(int number, TFrameResult result) {
    OnMainLoop(loop, [number, result = std::move(result)]() mutable {
        DeliverFrameResult(number, std::move(result));
    });
}

void CFrameSlot::Serve(int number, CMtDevController& controller,
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
        Post(number, std::move(result));
    } else if (m_cancelled.load()) {
        result.outcome = TFrameOutcome::Cancelled;
        result.message = std::string(FrameOperationName(request->operation)) +
                         " was cancelled; the frame may hold part of what was being written";
        Post(number, std::move(result));
    } else {
        m_held = std::move(result);  // the next poll tells Failed from Gone
    }
}

void CFrameSlot::PollSucceeded(int number) {
    if (!m_held) return;
    TFrameResult result = std::move(*m_held);
    m_held.reset();
    Post(number, std::move(result));
}

void CFrameSlot::Close(int number, bool gone, const char* why) {
    std::optional<TFrameRequest> pending;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_accepting = false;
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
        Post(number, std::move(result));
    }
    if (pending) {
        Post(number, Outcome(gone ? TFrameOutcome::Gone : TFrameOutcome::Failed,
                             "frame " + std::to_string(number) + " " + why +
                                 " before the request was carried out"));
    }
}

// ---------------------------------------------------------------------------------------------
// Frame slot, main thread

bool CFrameSlot::Accept(TFrameRequest request, IDriverControl::TDone done, std::string* why) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_accepting) {
        *why = std::string("the frame is ") + FrameStateName(m_state) +
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

// ---------------------------------------------------------------------------------------------
// The control

CDriverControl::CDriverControl(IMainLoop* loop) : m_loop(loop) {}

CDriverControl::~CDriverControl() {
    g_events = nullptr;
}

std::vector<int> CDriverControl::FrameNumbers() const {
    std::vector<int> numbers;
    for (MtDevNode* node = cmtDevHead; node != nullptr; node = node->next) {
        if (node->frame.present) numbers.push_back(node->deviceNumber);
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

std::optional<TFrameDescription> CDriverControl::DescribeFrame(int number) const {
    const MtDevNode* node = PresentRecord(number);
    if (node == nullptr) return std::nullopt;
    TFrameDescription d;
    d.number = number;
    if (node->hidDevice != nullptr) {
        const TMtHidIdentity& identity = node->hidDevice->Identity();
        d.node = identity.node;
        d.vendorId = identity.vendorId;
        d.productId = identity.productId;
        d.product = identity.product;
        d.serial = identity.serial;
    }
    d.state = node->frame.State();
    d.geometry = node->frame.Geometry();
    d.configSummary = node->frame.Summary();
    return d;
}

void CDriverControl::Submit(int number, TFrameRequest request, TDone done) {
    MtDevNode* node = PresentRecord(number);
    const std::string name = "frame " + std::to_string(number);
    std::string why;
    TFrameResult refusal;
    if (node == nullptr) {
        refusal = Outcome(TFrameOutcome::Gone, name + " is gone");
    } else if (node->frame.Busy()) {
        refusal = Outcome(TFrameOutcome::Busy,
                          name + " is busy with another request; try again when it is done");
    } else if (!node->frame.Accept(std::move(request), done, &why)) {
        refusal = Outcome(TFrameOutcome::Failed, name + ": " + why);
    } else {
        return;
    }
    OnMainLoop(m_loop, [done = std::move(done), refusal = std::move(refusal)]() mutable {
        done(std::move(refusal));
    });
}

bool CDriverControl::Cancel(int number) {
    MtDevNode* node = PresentRecord(number);
    if (node == nullptr || !node->frame.Busy()) return false;
    node->frame.Cancel(node->controller);
    // Each step of a request starts by clearing the abort flag: set it again until it is done.
    if (m_loop != nullptr) {
        // Only the pending task holds the repetition: no cycle, so a task the loop drops at
        // the end frees it.
        auto again = std::make_shared<std::function<void()>>();
        std::weak_ptr<std::function<void()>> self = again;
        *again = [number, self, loop = m_loop] {
            MtDevNode* n = PresentRecord(number);
            if (n == nullptr || !n->frame.Busy() || !n->frame.Cancelled()) return;
            n->frame.Cancel(n->controller);
            loop->PostDelayed(kCancelRepeatMillis, [next = self.lock()] {
                if (next) (*next)();
            });
        };
        m_loop->PostDelayed(kCancelRepeatMillis, [again] { (*again)(); });
    }
    return true;
}

bool CDriverControl::HoldGestures(int number, bool held) {
    MtDevNode* node = PresentRecord(number);
    if (node == nullptr) return false;
    node->frame.HoldGestures(held);
    return true;
}

TTransferProgress CDriverControl::Progress(int number) const {
    MtDevNode* node = PresentRecord(number);
    if (node == nullptr || !node->frame.Busy() || !node->frame.Transferring()) return {};
    return {true, node->controller.ProgressDone(), node->controller.ProgressTotal()};
}

void CDriverControl::SetEvents(IDriverEvents* events) {
    g_events = events;
}

std::optional<TReloadAnswer> CDriverControl::Reload() {
    if (!m_reload) return std::nullopt;
    return m_reload();
}

// ---------------------------------------------------------------------------------------------
// Hooks

void FrameAppeared(int number) {
    if (g_events != nullptr) g_events->OnFrameAdded(number);
}

void FrameStateChanged(int number) {
    if (g_events != nullptr) g_events->OnFrameChanged(number);
}

void FrameDisappeared(int number) {
    if (g_events != nullptr) g_events->OnFrameRemoved(number);
}

void DeliverFrameResult(int number, TFrameResult result) {
    for (MtDevNode* node = cmtDevHead; node != nullptr; node = node->next) {
        if (node->deviceNumber == number) {
            node->frame.Deliver(std::move(result));
            return;
        }
    }
}
