// The driver's well-known name on the session bus, claimed in one of two ways.
//
//   Exchange (a real driver): the name is requested with replacement allowed, replacing its
//   owner. A running instance that allowed replacement loses the name to the newcomer and hears
//   it through the lost callback; it then ends in order. The newcomer waits until the instance
//   it replaced has left the bus, so that it never opens frames that one still holds.
//   IfFree (a simulation, a dry run, --no-single-instance): the name is taken only when free,
//   never replaces an owner and does not allow replacement, so it is never replaced either.
//
// An instance that does not hold the name still runs; it is only not reachable by the name.
#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <string>

class CBusNameClaim {
public:
    enum class TMode { Exchange, IfFree };
    enum class TResult {
        Owner,  // this connection owns the name
        Taken,  // another process holds it and keeps it
        Error,  // the bus refused or did not answer
    };

    CBusNameClaim(sd_bus* bus, std::string name, TMode mode);
    ~CBusNameClaim();

    CBusNameClaim(const CBusNameClaim&) = delete;
    CBusNameClaim& operator=(const CBusNameClaim&) = delete;

    // Requests the name. In Exchange mode, when an owner was replaced, waits up to
    // `waitMillis` for it to leave the bus. `detail` says who holds the name or what failed.
    TResult Request(int waitMillis, std::string* detail);
    // Runs on the main loop when the name, once owned, went to another process.
    void OnLost(std::function<void()> lost) { m_lost = std::move(lost); }
    // Gives the name up (no lost callback for that). Safe when not owned.
    void Release();

    bool Owned() const { return m_owned; }
    TMode Mode() const { return m_mode; }
    const std::string& Name() const { return m_name; }

private:
    static int OnNameLost(sd_bus_message* message, void* self, sd_bus_error* error);
    static int OnOwnerChanged(sd_bus_message* message, void* self, sd_bus_error* error);
    std::string CurrentOwner();
    bool WaitUntilGone(const std::string& unique, int waitMillis);

    sd_bus* m_bus;
    std::string m_name;
    TMode m_mode;
    sd_bus_slot* m_lostSlot = nullptr;
    std::function<void()> m_lost;
    bool m_owned = false;
    std::string m_waitingFor;  // unique name of a replaced owner not yet gone
};
