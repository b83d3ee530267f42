// The user's session bus, attached to the main loop: the road of the driver's D-Bus interface
// and of the single-instance exchange on its bus name.
//
// Found as D-Bus clients find it: DBUS_SESSION_BUS_ADDRESS, else $XDG_RUNTIME_DIR/bus. A bare
// console or a test guest has neither; the driver then runs without the bus.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>
#include <string>

// Waits until `bus` has been greeted (its Hello answered), in steps that look for a pending
// SIGINT or SIGTERM between them: sd-bus alone would wait up to 90 s for a bus that accepts and
// never answers, deaf to the two signals (blocked for the main loop). False with `error` when
// the bus failed or a stop signal came first; the caller then closes `bus` without a flush.
bool AwaitBusGreeting(sd_bus* bus, std::string* error);

// Why the user's session bus cannot be reached, from sd_bus_open_user's negative result. sd-bus
// gives ENOMEDIUM ("No medium found") when nothing names the bus; that is said in words.
std::string SessionBusUnreachable(int result);

class CSessionBus {
public:
    // Connects to `address` (a D-Bus address such as "unix:path=/run/user/1000/bus"), or to the
    // user's session bus when it is null, and attaches to `event`. Null with `error` when there
    // is no bus to connect to.
    static std::unique_ptr<CSessionBus> Connect(sd_event* event, const char* address,
                                                std::string* error);
    ~CSessionBus();

    CSessionBus(const CSessionBus&) = delete;
    CSessionBus& operator=(const CSessionBus&) = delete;

    sd_bus* Bus() const { return m_bus; }
    // ":1.42"; empty when the bus did not answer.
    std::string UniqueName() const;

private:
    CSessionBus() = default;
    sd_bus* m_bus = nullptr;
};
