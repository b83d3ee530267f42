// A standard multitouch digitizer (a touch screen as its HID descriptor says it: per-finger tip
// switch, contact identifier and absolute X/Y, a contact count, and the contact count maximum
// as a feature report) presented through /dev/uhid. The kernel binds its own hid-multitouch
// driver to it: the yardstick the real-kernel test holds the touchscreen output against.
//
// The device's thread (CUhidDevice) answers the driver's feature requests at once (an
// unanswered request stalls the probe for seconds); reports are sent from any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "UhidDevice.h"

inline constexpr size_t kDigitizerFingers = 2;     // finger collections in the input report
inline constexpr uint8_t kDigitizerInputId = 1;    // report id of the input report
inline constexpr uint8_t kDigitizerMaxCountId = 2; // report id of the contact count maximum
inline constexpr uint16_t kDigitizerAxisMax = 32767;

struct TDigitizerContact {
    bool tip = false;
    uint8_t id = 0;  // 0..127
    uint16_t x = 0;  // 0..kDigitizerAxisMax
    uint16_t y = 0;
};

std::vector<uint8_t> DigitizerReportDescriptor();
// The input report for up to kDigitizerFingers contacts (the rest are left out), with the
// contact count.
std::vector<uint8_t> DigitizerInputReport(const std::vector<TDigitizerContact>& contacts);

class CUhidDigitizer final : public CUhidDevice {
public:
    CUhidDigitizer() = default;
    ~CUhidDigitizer() override;

    // Creates the device on the uhid node; Adopt on a descriptor that speaks like it (tests),
    // which the digitizer owns from then on. False with `error`.
    bool Create(const std::string& uhidPath, const std::string& name, std::string* error);
    bool Adopt(int fd, const std::string& name, std::string* error);

    // Sends one input report; `sentNanos` (may be null) gets the monotonic time right before
    // the write.
    bool Send(const std::vector<TDigitizerContact>& contacts, uint64_t* sentNanos);

    // Waits until someone opened the device (its input node is read); false on time-out.
    bool WaitOpen(int timeoutMs);
    uint64_t FeatureRequests() const { return m_features.load(); }

private:
    void OnEvent(const uhid_event& request, size_t bytesRead) override;

    std::atomic<uint64_t> m_features{0};
};
