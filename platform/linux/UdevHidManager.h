// Discovery sessions on Linux: each session is one CUdevHidMatcher (one row of the matching
// table), and each matched hidraw node becomes a CHidrawDevice that the worker opens.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "HidManager.h"
#include "HidrawDevice.h"
#include "UdevHidDiscovery.h"

class CUdevHidManagerFactory final : public IHidManagerFactory {
public:
    CUdevHidManagerFactory(sd_event* event, TUdevSource source) : m_event(event), m_source(source) {}

    std::unique_ptr<IHidManager> CreateHidManager() override;

    // A device object for one appearance of a node. Objects are kept for the rest of the
    // process: device records keep pointing at them.
    CHidrawDevice* NewDevice(const std::string& devnode);

    sd_event* Event() const { return m_event; }
    TUdevSource Source() const { return m_source; }

private:
    sd_event* m_event;
    TUdevSource m_source;
    std::vector<std::unique_ptr<CHidrawDevice>> m_devices;
};

class CUdevHidManager final : public IHidManager {
public:
    explicit CUdevHidManager(CUdevHidManagerFactory& factory) : m_factory(factory) {}

    void SetDeviceMatching(uint16_t vendorId, uint16_t productId) override;
    void ScheduleWithMainLoop() override {}
    void UnscheduleFromMainLoop() override;
    void RegisterDeviceMatchingCallback(THidDeviceCallback callback, void* context) override;
    void RegisterDeviceRemovalCallback(THidDeviceCallback callback, void* context) override;
    int Open() override;

private:
    void Matched(const THidrawDevice& device);
    void Removed(const THidrawDevice& device);

    CUdevHidManagerFactory& m_factory;
    std::unique_ptr<CUdevHidMatcher> m_matcher;
    std::map<std::string, CHidrawDevice*> m_present;  // by syspath
    THidDeviceCallback m_matched = nullptr;
    void* m_matchedContext = nullptr;
    THidDeviceCallback m_removed = nullptr;
    void* m_removedContext = nullptr;
};
