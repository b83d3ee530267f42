#include "DeviceListControl.h"

#include <algorithm>
#include <memory>

#include "LoadEvent.h"

namespace {

// The record of the frame `number` that `shell` found, while it is plugged in.
MtDevNode* PresentRecord(const CShellState& shell, int number) {
    for (MtDevNode* node = cmtDevHead; node != nullptr; node = node->next) {
        if (node->deviceNumber == number && node->frame.present && node->frame.shell == &shell) {
            return node;
        }
    }
    return nullptr;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// The control

std::vector<int> CDriverControl::FrameNumbers() const {
    std::vector<int> numbers;
    for (MtDevNode* node = cmtDevHead; node != nullptr; node = node->next) {
        if (node->frame.present && node->frame.shell == &m_shell) {
            numbers.push_back(node->deviceNumber);
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

std::optional<TFrameDescription> CDriverControl::DescribeFrame(int number) const {
    const MtDevNode* node = PresentRecord(m_shell, number);
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
    MtDevNode* node = PresentRecord(m_shell, number);
    const std::string name = "frame " + std::to_string(number);
    std::string why;
    TFrameResult refusal;
    if (node == nullptr) {
        refusal = TFrameResult::Of(TFrameOutcome::Gone, name + " is gone");
    } else if (node->frame.Busy()) {
        refusal = TFrameResult::Of(
            TFrameOutcome::Busy, name + " is busy with another request; try again when it is done");
    } else if (!node->frame.Accept(std::move(request), done, &why)) {
        refusal = TFrameResult::Of(TFrameOutcome::Failed, name + ": " + why);
    } else {
        return;
    }
    m_shell.OnMainLoop([done = std::move(done), refusal = std::move(refusal)]() mutable {
        done(std::move(refusal));
    });
}

bool CDriverControl::Cancel(int number) {
    MtDevNode* node = PresentRecord(m_shell, number);
    if (node == nullptr || !node->frame.Busy()) return false;
    node->frame.Cancel(node->controller);
    // Each step of a request starts by clearing the abort flag: set it again until it is done.
    if (IMainLoop* loop = m_shell.Ports().loop) {
        // Only the pending task holds the repetition: no cycle, so a task the loop drops at
        // the end frees it.
        auto again = std::make_shared<std::function<void()>>();
        std::weak_ptr<std::function<void()>> self = again;
        *again = [number, self, loop, shell = &m_shell] {
            MtDevNode* n = PresentRecord(*shell, number);
            if (n == nullptr || !n->frame.Busy() || !n->frame.Cancelled()) return;
            n->frame.Cancel(n->controller);
            loop->PostDelayed(kCancelRepeatMillis, [next = self.lock()] {
                if (next) (*next)();
            });
        };
        loop->PostDelayed(kCancelRepeatMillis, [again] { (*again)(); });
    }
    return true;
}

bool CDriverControl::HoldGestures(int number, bool held) {
    MtDevNode* node = PresentRecord(m_shell, number);
    if (node == nullptr) return false;
    node->frame.HoldGestures(held);
    return true;
}

TTransferProgress CDriverControl::Progress(int number) const {
    MtDevNode* node = PresentRecord(m_shell, number);
    if (node == nullptr || !node->frame.Busy() || !node->frame.Transferring()) return {};
    return {true, node->controller.ProgressDone(), node->controller.ProgressTotal()};
}

std::optional<TReloadAnswer> CDriverControl::Reload() {
    if (!m_reload) return std::nullopt;
    return m_reload();
}
