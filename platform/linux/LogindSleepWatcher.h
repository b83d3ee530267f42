// Wake-up detection on Linux: logind's PrepareForSleep signal on the system bus.
//
// logind sends PrepareForSleep(true) before the machine suspends or hibernates and
// PrepareForSleep(false) after it has resumed; the second one is the wake notification.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <functional>
#include <string>

class CLogindSleepWatcher {
public:
    CLogindSleepWatcher() = default;
    ~CLogindSleepWatcher();

    CLogindSleepWatcher(const CLogindSleepWatcher&) = delete;
    CLogindSleepWatcher& operator=(const CLogindSleepWatcher&) = delete;

    // Connects to the system bus (or to `busAddress` when not null, for tests), subscribes to
    // PrepareForSleep and attaches to `event`; `onWake` runs on that loop after each resume.
    // False with `error` set when no bus answers or the subscription is refused.
    bool Start(sd_event* event, std::function<void()> onWake, std::string* error,
               const char* busAddress = nullptr);
    void Stop();

private:
    static int OnPrepareForSleep(sd_bus_message* message, void* self, sd_bus_error* error);

    sd_bus* m_bus = nullptr;
    sd_bus_slot* m_slot = nullptr;
    std::function<void()> m_onWake;
};
