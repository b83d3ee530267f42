// The main thread's event loop.
//
// Discovery callbacks, notifications from other processes, the wake notification and termination
// signals are all delivered on this loop, so everything that touches the device list runs on the
// main thread. A backend supplies it: sd-event on Linux, the main CFRunLoop on macOS.
#pragma once

#include <cstdint>
#include <functional>

class IMainLoop {
public:
    virtual ~IMainLoop() = default;

    // Handles at most one ready source, waiting for one up to `timeoutMicros` (0: only what is
    // ready now). True when a source was handled. Start-up calls this with 0 until it returns
    // false, so that the devices already present are handled one by one.
    virtual bool RunOnce(uint64_t timeoutMicros) = 0;

    // Handles sources until Quit is called; returns the status given to Quit.
    virtual int Run() = 0;

    // Makes Run return `status` once the current source has been handled. Main thread only;
    // other threads go through Post.
    virtual void Quit(int status) = 0;

    // Queues `task` to run on the main thread. Safe from any thread; tasks run in order.
    virtual void Post(std::function<void()> task) = 0;

    // Runs `task` on the main thread once `millis` of real time have passed. Main thread only.
    virtual void PostDelayed(uint64_t millis, std::function<void()> task) = 0;

    // Calls `handler` on the main thread with the signal number when SIGTERM or SIGINT arrives.
    virtual void OnTerminationSignal(std::function<void(int signal)> handler) = 0;
};
