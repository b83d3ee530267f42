// The emulated touch frame presented to a real kernel through /dev/uhid.
//
// The kernel makes a HID device of it (and, with hid-generic bound, a hidraw node), so a driver
// reaches it through real discovery and real hidraw I/O. One thread reads the uhid node
// (CUhidDevice):
//   - UHID_OPEN / UHID_CLOSE say whether someone holds the device open;
//   - UHID_OUTPUT is one output report. hidraw hands it over with the leading report-number
//     byte 0 that real USB hardware never receives, so that byte is stripped before the
//     emulator sees the report; the emulator's replies go back as UHID_INPUT2;
//   - UHID_GET_REPORT / UHID_SET_REPORT are refused at once (the frame has no feature reports;
//     an unanswered request would stall the kernel for seconds).
// Input goes to the kernel only in answer to an output report, or unasked while the device is
// open. The link can be told to stop answering: output reports are then taken and dropped, as
// by a frame whose firmware hangs.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "MtDevEmulator.h"
#include "UhidDevice.h"

// Who the emulated frame says it is.
struct TUhidIdentity {
    uint16_t vendor = 0xAAEC;
    uint16_t product = 0xC020;
    std::string name = "emulated touch frame";
};

// Bytes of every input and output report the frame declares.
constexpr size_t kUhidReportBytes = 64;

// The frame's report descriptor: one vendor-defined collection with a 64-byte input report and
// a 64-byte output report, without report ids.
std::vector<uint8_t> MtEmuReportDescriptor();

// Fills a UHID_CREATE2 request for a USB device with this identity and the frame's descriptor.
void BuildUhidCreate2(const TUhidIdentity& identity, uhid_event* event);

// The output report carried by a UHID_OUTPUT event of `bytesRead` bytes, without its leading
// report-number byte. False for anything else: another event type, a short read, a size beyond
// the event's data, another report type, an empty report or a numbered report.
bool UhidOutputReport(const uhid_event& event, size_t bytesRead, const uint8_t** report,
                      size_t* length);

class CMtEmuUhidLink final : public CUhidDevice {
public:
    explicit CMtEmuUhidLink(CMtDevEmulator& emulator);
    // Destroys the device if it still exists.
    ~CMtEmuUhidLink() override;

    // Opens the uhid node (normally /dev/uhid) and creates the device. False with `error`.
    bool Create(const std::string& uhidPath, const TUhidIdentity& identity, std::string* error);
    // The same over a descriptor that speaks like the uhid node (tests: one end of a
    // SOCK_SEQPACKET socketpair). The link owns it from now on, also on failure.
    bool Adopt(int fd, const TUhidIdentity& identity, std::string* error);

    // false: output reports are dropped unanswered from now on (also a reply being made).
    void SetAnswering(bool answering) { m_answering.store(answering); }

    // Sends an input report nobody asked for: only while the device is open.
    bool SendInput(const uint8_t* data, size_t length);

    uint64_t OutputReports() const { return m_outputs.load(); }
    uint64_t Unanswered() const { return m_unanswered.load(); }
    uint64_t Rejected() const { return m_rejected.load(); }
    // The first kKeptUnanswered output reports dropped unanswered, in order.
    std::vector<std::vector<uint8_t>> UnansweredReports() const;
    static constexpr size_t kKeptUnanswered = 64;

private:
    void OnEvent(const uhid_event& event, size_t bytesRead) override;
    void HandleOutput(const uint8_t* report, size_t length);
    void Drop(const uint8_t* report, size_t length);

    CMtDevEmulator& m_emulator;
    std::atomic<bool> m_answering{true};
    std::atomic<uint64_t> m_outputs{0};
    std::atomic<uint64_t> m_unanswered{0};
    std::atomic<uint64_t> m_rejected{0};

    mutable std::mutex m_droppedMutex;
    std::vector<std::vector<uint8_t>> m_unansweredReports;  // guarded by m_droppedMutex
};
