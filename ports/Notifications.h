// Notifications the service shell listens to, delivered on the main loop.
//
// Distributed notifications reach the other processes of the same user: the single-instance
// handshake posts "isWindowExist" and observes it. The wake notification comes after the machine
// resumed from sleep. Linux: the driver's name on the session bus and logind's PrepareForSleep;
// macOS: NSDistributedNotificationCenter and NSWorkspaceDidWakeNotification.
#pragma once

#include <functional>
#include <string>

class INotificationCenter {
public:
    virtual ~INotificationCenter() = default;

    // Posts `name` to the other processes of this user. Returns once a listening instance has
    // taken it (or at once when nobody listens).
    virtual void PostDistributed(const std::string& name) = 0;
    // Runs `observer` on the main loop whenever another process of this user posts `name`.
    virtual void ObserveDistributed(const std::string& name, std::function<void()> observer) = 0;
    // Stops all distributed observation; afterwards a new instance can take over.
    virtual void StopObservingDistributed() = 0;
    // Runs `observer` on the main loop each time the machine has woken from sleep.
    virtual void ObserveWake(std::function<void()> observer) = 0;
};
