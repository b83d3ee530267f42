// The notification centre on Linux: the driver's bus name on the session bus for the
// single-instance exchange, and logind for the wake notification. Failures are logged once each
// and the driver goes on without that notification.
//
// The exchange: announcing this instance ("isWindowExist") is claiming the bus name with
// replacement; the running instance that loses the name hears the same notification from this
// one. Posting returns once the replaced instance has left the bus.
#pragma once

#include "BusNameClaim.h"
#include "LogindSleepWatcher.h"
#include "Notifications.h"

#include <map>
#include <string>

class CLinuxNotificationCenter final : public INotificationCenter {
public:
    // `exchange` null: no distributed notifications (no session bus, or an instance that takes
    // no part in the exchange). `busAddress` null: the system bus for logind.
    CLinuxNotificationCenter(sd_event* event, CBusNameClaim* exchange,
                             const char* busAddress = nullptr);

    void PostDistributed(const std::string& name) override;
    void ObserveDistributed(const std::string& name, std::function<void()> observer) override;
    void StopObservingDistributed() override;
    void ObserveWake(std::function<void()> observer) override;

    // How long a post waits for the replaced instance to end; it waits for its own workers up to
    // 10 s before it gives up on them.
    static constexpr int kPostWaitMillis = 12'000;

private:
    void Deliver();

    sd_event* m_event;
    CBusNameClaim* m_exchange;
    std::map<std::string, std::function<void()>> m_observers;
    const char* m_busAddress;
    CLogindSleepWatcher m_sleepWatcher;
};
