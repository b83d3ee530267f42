// Discovery of HID devices, one matching session per vendor/product pair.
//
// The shape follows the platform HID managers the shell was written against: a session is
// created, given its matching pair, scheduled on the main loop, given a matched and a removed
// callback, and opened. Once open, the devices already present are reported as ready sources
// of the main loop, one per dispatch, and later plug and unplug events follow on the same loop.
// Backends: udev (Linux), the emulated frames (simulation), IOHIDManager (macOS).
//
// A device is named by its HID port object (CMtHidDevice*). The backend owns it and keeps it
// alive for the rest of the process, since device records keep pointing at it; each appearance
// of a device gets a new object. The callbacks get nothing but the device: it carries the keeper
// the session was given, through which they find the shell's state.
#pragma once

#include <cstdint>
#include <memory>

#include "MtDevPorts.h"

// Matched and removed callbacks: context as registered, result 0, sender the session.
using THidDeviceCallback = void (*)(void* context, int result, void* sender, CMtHidDevice* device);

class IHidManager {
public:
    virtual ~IHidManager() = default;

    virtual void SetDeviceMatching(uint16_t vendorId, uint16_t productId) = 0;
    virtual void ScheduleWithMainLoop() = 0;
    virtual void UnscheduleFromMainLoop() = 0;
    virtual void RegisterDeviceMatchingCallback(THidDeviceCallback callback, void* context) = 0;
    virtual void RegisterDeviceRemovalCallback(THidDeviceCallback callback, void* context) = 0;
    // 0 when the session is open (and the present devices are queued), non-zero otherwise.
    virtual int Open() = 0;

    // Who the session's devices are for (the shell that made it): set before Open, recorded on
    // every device the session hands to a callback.
    void SetDeviceKeeper(CMtHidDeviceKeeper* keeper) { m_keeper = keeper; }

protected:
    // `device`, marked as the keeper's, for a callback.
    CMtHidDevice* Handed(CMtHidDevice* device) const {
        device->SetKeeper(m_keeper);
        return device;
    }

private:
    CMtHidDeviceKeeper* m_keeper = nullptr;
};

class IHidManagerFactory {
public:
    virtual ~IHidManagerFactory() = default;
    // A new session, or null when none can be made.
    virtual std::unique_ptr<IHidManager> CreateHidManager() = 0;
};
