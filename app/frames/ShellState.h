// What the service shell, its device list and its workers share: the ports, the tools' listener,
// the stop flag of the orderly end and the count of live workers. The shell object (LoadEvent)
// owns it; each device record is handed it when discovery reports the device, through the keeper
// the device carries, so discovery's callbacks (given nothing but the device) find it.
//
// Threads: the ports and the listener are used on the main thread; the stop flag and the
// worker count are read and written by the workers too.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "DriverControl.h"
#include "MtDevPorts.h"
#include "ShellPorts.h"

class CShellState final : public CMtHidDeviceKeeper {
public:
    // `ports` is read as the shell starts and must outlive it; backends may fill it until then.
    explicit CShellState(const TShellPorts& ports) : m_ports(ports) {}

    CShellState(const CShellState&) = delete;
    CShellState& operator=(const CShellState&) = delete;

    const TShellPorts& Ports() const { return m_ports; }
    // Runs `task` on the main loop; at once when there is none (tests without a loop).
    void OnMainLoop(std::function<void()> task) const;

    // --- Tools' listener; main thread
    void SetEvents(IDriverEvents* events) { m_events = events; }
    void FrameAdded(int number) const;
    void FrameChanged(int number) const;
    void FrameRemoved(int number) const;

    // --- Workers
    // The orderly end asks every worker to stop; set once, never cleared.
    void StopWorkers() { m_stopping.store(true); }
    const std::atomic<bool>& Stopping() const { return m_stopping; }
    void WorkerStarted();
    void WorkerEnded();
    int LiveWorkers() const;
    // Waits until no worker runs, up to `waitMillis` of real time. True when all ended.
    bool WaitForWorkers(int waitMillis);

private:
    const TShellPorts& m_ports;
    IDriverEvents* m_events = nullptr;
    std::atomic<bool> m_stopping{false};
    mutable std::mutex m_workersMutex;
    std::condition_variable m_workersEnded;
    int m_liveWorkers = 0;
};
