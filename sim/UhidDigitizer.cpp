#include "UhidDigitizer.h"

#include <algorithm>
#include <memory>

namespace {

constexpr uint8_t kMaxContacts = kDigitizerFingers;

void AppendFinger(std::vector<uint8_t>* d) {
    const uint8_t finger[] = {
        0x05, 0x0D,        // Usage Page (Digitizer)
        0x09, 0x22,        // Usage (Finger)
        0xA1, 0x02,        // Collection (Logical)
        0x09, 0x42,        //   Usage (Tip Switch)
        0x15, 0x00,        //   Logical Minimum (0)
        0x25, 0x01,        //   Logical Maximum (1)
        0x75, 0x01,        //   Report Size (1)
        0x95, 0x01,        //   Report Count (1)
        0x81, 0x02,        //   Input (Data, Variable, Absolute)
        0x75, 0x07,        //   Report Size (7)
        0x81, 0x03,        //   Input (Constant): padding to the byte
        0x09, 0x51,        //   Usage (Contact Identifier)
        0x25, 0x7F,        //   Logical Maximum (127)
        0x75, 0x08,        //   Report Size (8)
        0x81, 0x02,        //   Input
        0x05, 0x01,        //   Usage Page (Generic Desktop)
        0x26, 0xFF, 0x7F,  //   Logical Maximum (32767)
        0x75, 0x10,        //   Report Size (16)
        0x09, 0x30,        //   Usage (X)
        0x81, 0x02,        //   Input
        0x09, 0x31,        //   Usage (Y)
        0x81, 0x02,        //   Input
        0xC0,              // End Collection
    };
    d->insert(d->end(), std::begin(finger), std::end(finger));
}

}  // namespace

std::vector<uint8_t> DigitizerReportDescriptor() {
    std::vector<uint8_t> d = {
        0x05, 0x0D,               // Usage Page (Digitizer)
        0x09, 0x04,               // Usage (Touch Screen)
        0xA1, 0x01,               // Collection (Application)
        0x85, kDigitizerInputId,  //   Report ID
    };
    for (size_t i = 0; i < kDigitizerFingers; ++i) AppendFinger(&d);
    const uint8_t tail[] = {
        0x05, 0x0D,                  //   Usage Page (Digitizer)
        0x09, 0x54,                  //   Usage (Contact Count)
        0x25, 0x7F,                  //   Logical Maximum (127)
        0x75, 0x08,                  //   Report Size (8)
        0x81, 0x02,                  //   Input
        0x85, kDigitizerMaxCountId,  //   Report ID
        0x09, 0x55,                  //   Usage (Contact Count Maximum)
        0x25, kMaxContacts,          //   Logical Maximum
        0xB1, 0x02,                  //   Feature (Data, Variable, Absolute)
        0xC0,                        // End Collection
    };
    d.insert(d.end(), std::begin(tail), std::end(tail));
    return d;
}

std::vector<uint8_t> DigitizerInputReport(const std::vector<TDigitizerContact>& contacts) {
    std::vector<uint8_t> r = {kDigitizerInputId};
    const size_t n = std::min(contacts.size(), kDigitizerFingers);
    for (size_t i = 0; i < kDigitizerFingers; ++i) {
        const TDigitizerContact c = i < n ? contacts[i] : TDigitizerContact{};
        const uint16_t x = std::min(c.x, kDigitizerAxisMax);
        const uint16_t y = std::min(c.y, kDigitizerAxisMax);
        r.push_back(c.tip ? 1 : 0);
        r.push_back(c.id & 0x7F);
        r.push_back(static_cast<uint8_t>(x & 0xFF));
        r.push_back(static_cast<uint8_t>(x >> 8));
        r.push_back(static_cast<uint8_t>(y & 0xFF));
        r.push_back(static_cast<uint8_t>(y >> 8));
    }
    r.push_back(static_cast<uint8_t>(n));
    return r;
}

CUhidDigitizer::~CUhidDigitizer() {
    Destroy();
}

namespace {

// The create request, on the heap (over 4 KiB).
std::unique_ptr<uhid_event> CreateRequest(const std::string& name) {
    auto create = std::make_unique<uhid_event>();
    // The Linux Foundation's id, as for other virtual devices.
    FillUhidCreate2(name, "irframe-digitizer", DigitizerReportDescriptor(), 0x1D6B, 0x0F10,
                    create.get());
    return create;
}

}  // namespace

bool CUhidDigitizer::Create(const std::string& uhidPath, const std::string& name,
                            std::string* error) {
    return CreateOn(uhidPath, *CreateRequest(name), error);
}

bool CUhidDigitizer::Adopt(int fd, const std::string& name, std::string* error) {
    return CUhidDevice::Adopt(fd, *CreateRequest(name), error);
}

bool CUhidDigitizer::Send(const std::vector<TDigitizerContact>& contacts, uint64_t* sentNanos) {
    const std::vector<uint8_t> report = DigitizerInputReport(contacts);
    return WriteInput(report.data(), report.size(), sentNanos);
}

bool CUhidDigitizer::WaitOpen(int timeoutMs) {
    return WaitUntil([](const TUhidLinkState& state) { return state.open; }, timeoutMs);
}

// The contact count maximum is the one feature report; any other request fails at once.
void CUhidDigitizer::OnEvent(const uhid_event& request, size_t bytesRead) {
    const bool maxCount =
        request.type == UHID_GET_REPORT &&
        bytesRead >= offsetof(uhid_event, u) + sizeof(uhid_get_report_req) &&
        request.u.get_report.rtype == UHID_FEATURE_REPORT &&
        request.u.get_report.rnum == kDigitizerMaxCountId;
    if (!maxCount) {
        Refuse(request, bytesRead);
        return;
    }
    uhid_event reply{};
    reply.type = UHID_GET_REPORT_REPLY;
    uhid_get_report_reply_req& r = reply.u.get_report_reply;
    r.id = request.u.get_report.id;
    r.err = 0;
    r.size = 2;
    r.data[0] = kDigitizerMaxCountId;
    r.data[1] = kMaxContacts;
    m_features.fetch_add(1);
    (void)WriteEvent(reply);
}
