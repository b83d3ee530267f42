#include "LinuxNotificationCenter.h"

#include "MtDevLog.h"

CLinuxNotificationCenter::CLinuxNotificationCenter(sd_event* event, std::string socketName,
                                                   const char* busAddress)
    : m_event(event), m_busAddress(busAddress) {
    if (!socketName.empty()) m_channel = std::make_unique<CUserNotificationChannel>(socketName);
}

void CLinuxNotificationCenter::PostDistributed(const std::string& name) {
    if (m_channel) m_channel->Post(name, kPostWaitMillis);
}

void CLinuxNotificationCenter::ObserveDistributed(const std::string& name,
                                                  std::function<void()> observer) {
    if (!m_channel) return;
    m_observers[name] = std::move(observer);
    if (m_channel->IsListening()) return;
    std::string error;
    if (!m_channel->Listen(m_event, [this](const std::string& got) { Deliver(got); }, &error)) {
        TLog(TLogLevel::Warning,
             "instance channel unavailable (%s); a later instance will not replace this one",
             error.c_str());
    }
}

void CLinuxNotificationCenter::StopObservingDistributed() {
    if (m_channel) m_channel->StopListening();
    m_observers.clear();
}

void CLinuxNotificationCenter::ObserveWake(std::function<void()> observer) {
    std::string error;
    if (!m_sleepWatcher.Start(m_event, std::move(observer), &error, m_busAddress)) {
        TLog(TLogLevel::Info, "no wake notification (%s); the driver goes on without it",
             error.c_str());
    }
}

void CLinuxNotificationCenter::Deliver(const std::string& name) {
    const auto it = m_observers.find(name);
    if (it == m_observers.end()) return;
    const std::function<void()> observer = it->second;  // the observer may clear the map
    observer();
}
