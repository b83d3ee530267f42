#include "MtEmuUhidLink.h"

#include <cstddef>
#include <memory>

std::vector<uint8_t> MtEmuReportDescriptor() {
    return {
        0x06, 0x00, 0xFF,        // Usage Page (vendor defined 0xFF00)
        0x09, 0x01,              // Usage (1)
        0xA1, 0x01,              // Collection (Application)
        0x15, 0x00,              //   Logical Minimum (0)
        0x26, 0xFF, 0x00,        //   Logical Maximum (255)
        0x75, 0x08,              //   Report Size (8)
        0x95, kUhidReportBytes,  //   Report Count (64)
        0x09, 0x01,              //   Usage (1)
        0x81, 0x02,              //   Input (Data, Variable, Absolute)
        0x95, kUhidReportBytes,  //   Report Count (64)
        0x09, 0x02,              //   Usage (2)
        0x91, 0x02,              //   Output (Data, Variable, Absolute)
        0xC0,                    // End Collection
    };
}

void BuildUhidCreate2(const TUhidIdentity& identity, uhid_event* event) {
    FillUhidCreate2(identity.name, "irframe-uhid", MtEmuReportDescriptor(), identity.vendor,
                    identity.product, event);
}

bool UhidOutputReport(const uhid_event& event, size_t bytesRead, const uint8_t** report,
                      size_t* length) {
    // The whole output request must have arrived before any field of it is read.
    constexpr size_t kNeeded = offsetof(uhid_event, u) + sizeof(uhid_output_req);
    if (bytesRead < kNeeded || event.type != UHID_OUTPUT) return false;
    const uhid_output_req& out = event.u.output;
    if (out.rtype != UHID_OUTPUT_REPORT) return false;
    if (out.size < 2 || out.size > UHID_DATA_MAX) return false;
    // The frame has no numbered reports: the first byte is the report number 0.
    if (out.data[0] != 0) return false;
    *report = out.data + 1;
    *length = static_cast<size_t>(out.size) - 1;
    return true;
}

CMtEmuUhidLink::CMtEmuUhidLink(CMtDevEmulator& emulator) : m_emulator(emulator) {}

CMtEmuUhidLink::~CMtEmuUhidLink() {
    Destroy();
}

bool CMtEmuUhidLink::Create(const std::string& uhidPath, const TUhidIdentity& identity,
                            std::string* error) {
    auto create = std::make_unique<uhid_event>();  // over 4 KiB
    BuildUhidCreate2(identity, create.get());
    return CreateOn(uhidPath, *create, error);
}

bool CMtEmuUhidLink::Adopt(int fd, const TUhidIdentity& identity, std::string* error) {
    auto create = std::make_unique<uhid_event>();
    BuildUhidCreate2(identity, create.get());
    return CUhidDevice::Adopt(fd, *create, error);
}

bool CMtEmuUhidLink::SendInput(const uint8_t* data, size_t length) {
    if (!IsOpen()) return false;
    return WriteInput(data, length);
}

std::vector<std::vector<uint8_t>> CMtEmuUhidLink::UnansweredReports() const {
    std::lock_guard<std::mutex> lock(m_droppedMutex);
    return m_unansweredReports;
}

void CMtEmuUhidLink::Drop(const uint8_t* report, size_t length) {
    m_unanswered.fetch_add(1);
    std::lock_guard<std::mutex> lock(m_droppedMutex);
    if (m_unansweredReports.size() < kKeptUnanswered) {
        m_unansweredReports.emplace_back(report, report + length);
    }
}

void CMtEmuUhidLink::HandleOutput(const uint8_t* report, size_t length) {
    m_outputs.fetch_add(1);
    if (!m_answering.load()) {
        Drop(report, length);
        return;
    }
    std::vector<TEmuReply> replies;
    (void)m_emulator.OnHidOutput(report, length, &replies);
    for (const TEmuReply& reply : replies) {
        if (reply.delayMs > 0 && Stopping(static_cast<int>(reply.delayMs))) return;
        // Told to stop answering while the reply was being made (a paced frame waits).
        if (!m_answering.load()) {
            Drop(report, length);
            return;
        }
        (void)WriteInput(reply.bytes.data(), reply.bytes.size());
    }
}

void CMtEmuUhidLink::OnEvent(const uhid_event& event, size_t bytesRead) {
    const uint8_t* report = nullptr;
    size_t length = 0;
    switch (event.type) {
        case UHID_OUTPUT:
            if (UhidOutputReport(event, bytesRead, &report, &length)) {
                HandleOutput(report, length);
            } else {
                m_rejected.fetch_add(1);
            }
            break;
        case UHID_GET_REPORT:
        case UHID_SET_REPORT:
            Refuse(event, bytesRead);
            break;
        default:
            break;  // UHID_START, UHID_STOP and anything newer need no answer
    }
}
