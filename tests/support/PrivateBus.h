// A private dbus-daemon for one test: a session bus of its own, named in
// DBUS_SESSION_BUS_ADDRESS for every child while it lives, so no test touches the user's bus.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>
#include <thread>

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

// A connection of the test's own whose objects answer on a thread of their own, as a stand-in
// for the driver or a desktop service. Add the objects and names on Bus(), then Serve(). Stop()
// before the stand-in's own members go, as its handlers use them; the connection is closed when
// this goes.
class CServedConnection {
public:
    explicit CServedConnection(const CPrivateBus& bus) : m_bus(bus.Connect()) {}
    ~CServedConnection();
    CServedConnection(const CServedConnection&) = delete;
    CServedConnection& operator=(const CServedConnection&) = delete;

    sd_bus* Bus() const { return m_bus; }  // null when the connection failed
    void Serve();
    void Stop();

private:
    sd_bus* m_bus;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};
