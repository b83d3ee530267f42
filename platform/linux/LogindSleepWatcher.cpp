#include "LogindSleepWatcher.h"

#include <cstring>

#include "SessionBus.h"

CLogindSleepWatcher::~CLogindSleepWatcher() {
    Stop();
}

void CLogindSleepWatcher::Stop() {
    m_slot = sd_bus_slot_unref(m_slot);
    if (m_bus != nullptr) {
        sd_bus_detach_event(m_bus);
        m_bus = sd_bus_flush_close_unref(m_bus);
    }
}

bool CLogindSleepWatcher::Start(sd_event* event, std::function<void()> onWake, std::string* error,
                                const char* busAddress) {
    Stop();
    m_onWake = std::move(onWake);
    auto fail = [&](const std::string& why) {
        if (error != nullptr) *error = why;
        m_slot = sd_bus_slot_unref(m_slot);
        // Not flushed: a bus that does not answer would hold the close as long.
        m_bus = sd_bus_close_unref(m_bus);
        return false;
    };
    auto failed = [&](const char* what, int r) {
        return fail(std::string(what) + ": " + std::strerror(-r));
    };
    int r;
    if (busAddress == nullptr) {
        r = sd_bus_open_system(&m_bus);
        if (r < 0) return failed("cannot connect to the system bus", r);
    } else {
        r = sd_bus_new(&m_bus);
        if (r >= 0) r = sd_bus_set_address(m_bus, busAddress);
        if (r >= 0) r = sd_bus_set_bus_client(m_bus, 1);
        if (r >= 0) r = sd_bus_start(m_bus);
        if (r < 0) return failed("cannot connect to the bus", r);
    }
    std::string why;
    if (!AwaitBusGreeting(m_bus, &why)) return fail(why);
    // The match is installed synchronously so that a bus that does not answer shows up here.
    r = sd_bus_match_signal(m_bus, &m_slot, "org.freedesktop.login1", "/org/freedesktop/login1",
                            "org.freedesktop.login1.Manager", "PrepareForSleep",
                            &OnPrepareForSleep, this);
    if (r < 0) return failed("cannot subscribe to logind's PrepareForSleep", r);
    r = sd_bus_attach_event(m_bus, event, SD_EVENT_PRIORITY_NORMAL);
    if (r < 0) return failed("cannot attach the system bus to the main loop", r);
    return true;
}

int CLogindSleepWatcher::OnPrepareForSleep(sd_bus_message* message, void* self, sd_bus_error*) {
    auto* watcher = static_cast<CLogindSleepWatcher*>(self);
    int preparing = 0;
    if (sd_bus_message_read(message, "b", &preparing) < 0) return 0;  // malformed: ignored
    if (!preparing && watcher->m_onWake) watcher->m_onWake();
    return 0;
}
