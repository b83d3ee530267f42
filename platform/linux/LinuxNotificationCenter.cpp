#include "LinuxNotificationCenter.h"

#include "MtDevLog.h"

CLinuxNotificationCenter::CLinuxNotificationCenter(sd_event* event, CBusNameClaim* exchange,
                                                   const char* busAddress)
    : m_event(event), m_exchange(exchange), m_busAddress(busAddress) {
    if (m_exchange != nullptr) m_exchange->OnLost([this] { Deliver(); });
}

void CLinuxNotificationCenter::PostDistributed(const std::string&) {
    if (m_exchange == nullptr) return;
    std::string detail;
    switch (m_exchange->Request(kPostWaitMillis, &detail)) {
        case CBusNameClaim::TResult::Owner:
            if (!detail.empty()) TLog(TLogLevel::Warning, "%s", detail.c_str());
            break;
        case CBusNameClaim::TResult::Taken:
            TLog(TLogLevel::Info,
                 "%s, which is not replaced (a simulation or a dry run): this instance runs "
                 "without the bus name",
                 detail.c_str());
            break;
        case CBusNameClaim::TResult::Error:
            TLog(TLogLevel::Warning, "%s; a later instance will not replace this one",
                 detail.c_str());
            break;
    }
}

void CLinuxNotificationCenter::ObserveDistributed(const std::string& name,
                                                  std::function<void()> observer) {
    if (m_exchange == nullptr) return;
    m_observers[name] = std::move(observer);
}

void CLinuxNotificationCenter::StopObservingDistributed() {
    m_observers.clear();
    // Given up at once, so that a later instance can take it.
    if (m_exchange != nullptr) m_exchange->Release();
}

void CLinuxNotificationCenter::ObserveWake(std::function<void()> observer) {
    std::string error;
    if (!m_sleepWatcher.Start(m_event, std::move(observer), &error, m_busAddress)) {
        TLog(TLogLevel::Info, "no wake notification (%s); the driver goes on without it",
             error.c_str());
    }
}

void CLinuxNotificationCenter::Deliver() {
    // A later instance took the name: every observer of the announcement hears it.
    const auto observers = m_observers;  // an observer may clear the map
    for (const auto& [name, observer] : observers) {
        if (observer) observer();
    }
}
