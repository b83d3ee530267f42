#include "SessionBus.h"

#include <cerrno>
#include <cstring>

#include "StopSignalWaits.h"

std::string SessionBusUnreachable(int result) {
    if (result == -ENOMEDIUM) return "neither DBUS_SESSION_BUS_ADDRESS nor XDG_RUNTIME_DIR is set";
    return std::strerror(-result);
}

bool AwaitBusGreeting(sd_bus* bus, std::string* error) {
    int r;
    while ((r = sd_bus_is_ready(bus)) == 0) {
        r = sd_bus_process(bus, nullptr);
        if (r < 0) break;
        if (r > 0) continue;
        if (StopSignalPending()) {
            *error = "stopped while waiting for the bus to answer";
            return false;
        }
        r = sd_bus_wait(bus, kStopCheckMicros);
        if (r < 0 && r != -EINTR) break;
    }
    if (r >= 0) return true;
    *error = std::string("the bus does not answer: ") + std::strerror(-r);
    return false;
}

std::unique_ptr<CSessionBus> CSessionBus::Connect(sd_event* event, const char* address,
                                                  std::string* error) {
    std::unique_ptr<CSessionBus> bus(new CSessionBus());
    auto fail = [&](const char* what, int r) {
        if (error != nullptr) *error = std::string(what) + ": " + std::strerror(-r);
        return nullptr;
    };
    int r;
    if (address == nullptr) {
        r = sd_bus_open_user(&bus->m_bus);
        if (r < 0) {
            if (error != nullptr) *error = "cannot connect to the session bus: " + SessionBusUnreachable(r);
            return nullptr;
        }
    } else {
        r = sd_bus_new(&bus->m_bus);
        if (r >= 0) r = sd_bus_set_address(bus->m_bus, address);
        if (r >= 0) r = sd_bus_set_bus_client(bus->m_bus, 1);
        if (r >= 0) r = sd_bus_start(bus->m_bus);
        if (r < 0) return fail("cannot connect to the bus", r);
    }
    // The greeting is asynchronous: wait for it here, so that a socket nobody serves shows up
    // now rather than in the first call.
    std::string why;
    if (!AwaitBusGreeting(bus->m_bus, &why)) {
        if (error != nullptr) *error = why;
        bus->m_bus = sd_bus_close_unref(bus->m_bus);
        return nullptr;
    }
    r = sd_bus_attach_event(bus->m_bus, event, SD_EVENT_PRIORITY_NORMAL);
    if (r < 0) return fail("cannot attach the session bus to the main loop", r);
    return bus;
}

CSessionBus::~CSessionBus() {
    if (m_bus != nullptr) {
        sd_bus_detach_event(m_bus);
        m_bus = sd_bus_flush_close_unref(m_bus);
    }
}

std::string CSessionBus::UniqueName() const {
    const char* unique = nullptr;
    if (m_bus == nullptr || sd_bus_get_unique_name(m_bus, &unique) < 0 || unique == nullptr) {
        return {};
    }
    return unique;
}
