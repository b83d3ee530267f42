// The emulated touch frame behind a SOCK_SEQPACKET socketpair, in place of a hidraw node.
//
// The host end behaves like an open hidraw node: each write is one output report preceded by the
// report-number byte 0 (stripped here, as a kernel front would), each read one input report.
// Hand it to the HID port (CHidrawDevice::Adopt) so that the real port code is what runs.
// The device end is served by a thread of its own, which passes every report to the emulator
// and sends its replies back, late ones after a real pause.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <thread>

#include "MtDevEmulator.h"

class CMtEmuHidLink {
public:
    explicit CMtEmuHidLink(CMtDevEmulator& emulator);
    // Stops the thread and closes both ends (the host end only if it was never taken).
    ~CMtEmuHidLink();

    CMtEmuHidLink(const CMtEmuHidLink&) = delete;
    CMtEmuHidLink& operator=(const CMtEmuHidLink&) = delete;

    // False when the socketpair or the thread could not be made.
    bool Ok() const { return m_ok; }
    // The host's end; from now on the caller owns it. -1 once taken.
    int TakeHostFd();
    // Sends an input report the host did not ask for.
    bool SendReport(const uint8_t* data, size_t length);
    // The device goes away: the host reads end of file and its writes fail.
    void Unplug();
    // Output reports received so far.
    uint64_t ReportsReceived() const { return m_received.load(); }
    // Output reports dealt with: every reply due in time is sent (a late reply may still be on
    // its way). Once this reaches the number of reports the host wrote, the host has all it will
    // get in time, and a test's wait can end without a time-out running out.
    uint64_t ReportsSettled() const { return m_settled.load(); }

private:
    void Run();

    CMtDevEmulator& m_emulator;
    int m_device = -1;
    int m_host = -1;
    int m_stop = -1;  // eventfd that ends the thread
    bool m_ok = false;
    std::atomic<uint64_t> m_received{0};
    std::atomic<uint64_t> m_settled{0};
    std::thread m_thread;
};
