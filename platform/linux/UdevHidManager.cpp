#include "UdevHidManager.h"

#include "MtDevLog.h"

std::unique_ptr<IHidManager> CUdevHidManagerFactory::CreateHidManager() {
    return std::make_unique<CUdevHidManager>(*this);
}

CHidrawDevice* CUdevHidManagerFactory::NewDevice(const std::string& devnode) {
    m_devices.push_back(std::make_unique<CHidrawDevice>(devnode));
    return m_devices.back().get();
}

void CUdevHidManager::SetDeviceMatching(uint16_t vendorId, uint16_t productId) {
    m_matcher = std::make_unique<CUdevHidMatcher>(
        vendorId, productId, [this](const THidrawDevice& d) { Matched(d); },
        [this](const THidrawDevice& d) { Removed(d); });
}

void CUdevHidManager::UnscheduleFromMainLoop() {
    if (m_matcher) m_matcher->Close();
}

void CUdevHidManager::RegisterDeviceMatchingCallback(THidDeviceCallback callback, void* context) {
    m_matched = callback;
    m_matchedContext = context;
}

void CUdevHidManager::RegisterDeviceRemovalCallback(THidDeviceCallback callback, void* context) {
    m_removed = callback;
    m_removedContext = context;
}

int CUdevHidManager::Open() {
    if (!m_matcher) return -1;
    std::string error;
    if (!m_matcher->Open(m_factory.Event(), m_factory.Source(), &error)) {
        TLog(TLogLevel::Warning, "udev: %s; frames plugged in later will not be seen",
             error.c_str());
        return -1;
    }
    return 0;
}

void CUdevHidManager::Matched(const THidrawDevice& device) {
    CHidrawDevice* object = m_factory.NewDevice(device.devnode);
    object->SetIdentity({device.devnode, static_cast<uint16_t>(device.id.vendor),
                         static_cast<uint16_t>(device.id.product), device.name, device.serial});
    m_present[device.syspath] = object;
    if (m_matched != nullptr) m_matched(m_matchedContext, 0, this, Handed(object));
}

void CUdevHidManager::Removed(const THidrawDevice& device) {
    const auto it = m_present.find(device.syspath);
    if (it == m_present.end()) return;
    CHidrawDevice* object = it->second;
    m_present.erase(it);
    if (m_removed != nullptr) m_removed(m_removedContext, 0, this, Handed(object));
}
