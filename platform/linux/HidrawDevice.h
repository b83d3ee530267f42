// The HID report port on Linux: one hidraw node (or a descriptor that speaks like one).
//
// Output reports are written with the leading report-number byte 0 that hidraw expects for
// devices without numbered reports; each read returns exactly one input report. A wait polls the
// node together with a one-shot timerfd, so a read's time-out needs no clock reading.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "MtDevPorts.h"

class CHidrawDevice final : public CMtHidDevice {
public:
    // A hidraw node such as /dev/hidraw3, opened by Open.
    explicit CHidrawDevice(std::string nodePath);
    // An open descriptor that behaves like a hidraw node, for example one end of a
    // SOCK_SEQPACKET socketpair with the emulated touch frame on the other. The device owns it;
    // each Open works on a duplicate, so the device can be opened again after a close.
    static std::unique_ptr<CHidrawDevice> Adopt(int fd);
    ~CHidrawDevice() override;

    CHidrawDevice(const CHidrawDevice&) = delete;
    CHidrawDevice& operator=(const CHidrawDevice&) = delete;

    int Open() override;
    void Close() override;
    void RegisterInputReportCallback(TMtHidReportCallback callback, void* context) override;
    int SetOutputReport(const uint8_t* report, long length) override;
    void BeginWait(unsigned timeoutMs) override;
    TMtHidRun RunWait() override;
    void EndWait() override;

    const std::string& NodePath() const { return m_path; }
    bool IsOpen() const { return m_fd >= 0; }

    // Largest report a read takes whole; longer ones are cut by the kernel.
    static constexpr int kMaxReportBytes = 4096;

private:
    CHidrawDevice() = default;

    std::string m_path;
    int m_adopted = -1;   // the adopted descriptor, -1 for a node path
    int m_fd = -1;        // open descriptor
    int m_timer = -1;     // timerfd of the running wait
    bool m_isSocket = false;
    bool m_gone = false;
    TMtHidReportCallback m_callback = nullptr;
    void* m_context = nullptr;
    uint8_t m_rx[kMaxReportBytes];
    uint8_t m_tx[kMaxReportBytes + 1];
};
