// The notification centre on Linux: the per-user instance socket for distributed notifications
// and logind for the wake notification. Failures are logged once each and the driver goes on
// without that notification.
#pragma once

#include "LogindSleepWatcher.h"
#include "Notifications.h"
#include "UserNotificationChannel.h"

#include <map>
#include <memory>
#include <string>

class CLinuxNotificationCenter final : public INotificationCenter {
public:
    // `socketName` empty: no distributed notifications (simulation runs stay out of the way of
    // a running driver). `busAddress` null: the system bus.
    CLinuxNotificationCenter(sd_event* event, std::string socketName,
                             const char* busAddress = nullptr);

    void PostDistributed(const std::string& name) override;
    void ObserveDistributed(const std::string& name, std::function<void()> observer) override;
    void StopObservingDistributed() override;
    void ObserveWake(std::function<void()> observer) override;

    // How long a post waits for the running instance to give up the channel.
    static constexpr int kPostWaitMillis = 2000;

private:
    void Deliver(const std::string& name);

    sd_event* m_event;
    std::unique_ptr<CUserNotificationChannel> m_channel;  // null when disabled
    std::map<std::string, std::function<void()>> m_observers;
    const char* m_busAddress;
    CLogindSleepWatcher m_sleepWatcher;
};
