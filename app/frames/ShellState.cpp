#include "ShellState.h"

#include <chrono>

void CShellState::OnMainLoop(std::function<void()> task) const {
    if (m_ports.loop != nullptr) {
        m_ports.loop->Post(std::move(task));
    } else {
        task();
    }
}

void CShellState::FrameAdded(int number) const {
    if (m_events != nullptr) m_events->OnFrameAdded(number);
}

void CShellState::FrameChanged(int number) const {
    if (m_events != nullptr) m_events->OnFrameChanged(number);
}

void CShellState::FrameRemoved(int number) const {
    if (m_events != nullptr) m_events->OnFrameRemoved(number);
}

void CShellState::WorkerStarted() {
    std::lock_guard<std::mutex> lock(m_workersMutex);
    ++m_liveWorkers;
}

void CShellState::WorkerEnded() {
    std::lock_guard<std::mutex> lock(m_workersMutex);
    --m_liveWorkers;
    m_workersEnded.notify_all();
}

int CShellState::LiveWorkers() const {
    std::lock_guard<std::mutex> lock(m_workersMutex);
    return m_liveWorkers;
}

bool CShellState::WaitForWorkers(int waitMillis) {
    // A bound on a wait, not a reading of time: a worker stuck in a long transaction must not
    // hold the process forever.
    std::unique_lock<std::mutex> lock(m_workersMutex);
    return m_workersEnded.wait_for(lock, std::chrono::milliseconds(waitMillis),
                                   [this] { return m_liveWorkers == 0; });
}
