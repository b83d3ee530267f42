// The main-thread loop on Linux: sd-event from libsystemd.
//
// Other Linux pieces (udev monitors, the instance socket, the system bus) attach their sources to
// Event(). Posted tasks travel through a semaphore eventfd, one task per dispatch, so that each
// posted event counts as one handled source for RunOnce. SIGTERM, SIGINT and SIGHUP are blocked
// in the constructing thread and read through a signalfd: construct the loop before any other
// thread starts, so that every thread inherits the blocked mask. Without a handler SIGHUP is
// ignored.
#pragma once

#include "MainLoop.h"

#include <systemd/sd-event.h>
#include <signal.h>

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

class CSdEventLoop final : public IMainLoop {
public:
    // Null with `error` filled when the loop cannot be made.
    static std::unique_ptr<CSdEventLoop> Create(std::string* error);
    ~CSdEventLoop() override;

    CSdEventLoop(const CSdEventLoop&) = delete;
    CSdEventLoop& operator=(const CSdEventLoop&) = delete;

    bool RunOnce(uint64_t timeoutMicros) override;
    int Run() override;
    void Quit(int status) override;
    void Post(std::function<void()> task) override;
    void PostDelayed(uint64_t millis, std::function<void()> task) override;
    void OnTerminationSignal(std::function<void(int signal)> handler) override;
    // Calls `handler` on the main thread when SIGHUP arrives.
    void OnReloadSignal(std::function<void()> handler);

    sd_event* Event() const { return m_event; }

private:
    CSdEventLoop() = default;
    static int OnWake(sd_event_source* source, int fd, uint32_t events, void* self);
    static int OnTimer(sd_event_source* source, uint64_t usec, void* task);
    static int OnSignal(sd_event_source* source, const struct signalfd_siginfo* info, void* self);

    sd_event* m_event = nullptr;
    sd_event_source* m_wakeSource = nullptr;
    sd_event_source* m_signalSources[3] = {nullptr, nullptr, nullptr};
    int m_wakeFd = -1;
    sigset_t m_previousMask{};
    bool m_maskSaved = false;
    std::mutex m_mutex;
    std::deque<std::function<void()>> m_tasks;  // guarded by m_mutex
    std::function<void(int)> m_onSignal;        // main thread only
    std::function<void()> m_onReload;           // main thread only
    bool m_quitRequested = false;
    int m_quitStatus = 0;
};
