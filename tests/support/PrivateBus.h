// A private dbus-daemon for one test: a session bus of its own, named in
// DBUS_SESSION_BUS_ADDRESS for every child while it lives, so no test touches the user's bus.
#pragma once

#include <sys/types.h>

#include <string>

struct sd_bus;

class CPrivateBus {
public:
    CPrivateBus();  // starts the daemon and waits (bounded) until it listens
    ~CPrivateBus();
    CPrivateBus(const CPrivateBus&) = delete;
    CPrivateBus& operator=(const CPrivateBus&) = delete;

    // False when dbus-daemon could not be started (Debian package dbus-daemon).
    bool Ready() const { return !m_address.empty(); }
    const std::string& Address() const { return m_address; }
    // A client connection of the test's own; null on failure. The caller unrefs it.
    sd_bus* Connect() const;

private:
    pid_t m_pid = -1;
    std::string m_address;
};
