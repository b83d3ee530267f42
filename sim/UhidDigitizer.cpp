#include "UhidDigitizer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

#include "MultiPlatformAPI.h"

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

void CopyText(uint8_t* out, size_t capacity, const std::string& text) {
    const size_t n = std::min(text.size(), capacity - 1);
    std::memcpy(out, text.data(), n);
    out[n] = 0;
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

bool CUhidDigitizer::Create(const std::string& uhidPath, const std::string& name,
                            std::string* error) {
    const int fd = ::open(uhidPath.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        *error = "cannot open " + uhidPath + ": " + std::strerror(errno);
        return false;
    }
    return Adopt(fd, name, error);
}

bool CUhidDigitizer::Adopt(int fd, const std::string& name, std::string* error) {
    if (m_fd >= 0) {
        ::close(fd);
        *error = "the digitizer already has a device";
        return false;
    }
    m_fd = fd;
    auto create = std::make_unique<uhid_event>();  // over 4 KiB
    std::memset(create.get(), 0, sizeof *create);
    create->type = UHID_CREATE2;
    uhid_create2_req& req = create->u.create2;
    CopyText(req.name, sizeof req.name, name);
    CopyText(req.phys, sizeof req.phys, "irframe-digitizer");
    const std::vector<uint8_t> descriptor = DigitizerReportDescriptor();
    std::memcpy(req.rd_data, descriptor.data(), descriptor.size());
    req.rd_size = static_cast<uint16_t>(descriptor.size());
    req.bus = BUS_USB;
    req.vendor = 0x1D6B;  // the Linux Foundation's id, as for other virtual devices
    req.product = 0x0F10;
    req.version = 0x0100;
    m_stop = ::eventfd(0, EFD_CLOEXEC);
    if (m_stop < 0 || !WriteEvent(*create)) {
        *error = std::string("UHID_CREATE2 failed: ") + std::strerror(errno);
        Destroy();
        return false;
    }
    m_thread = std::thread([this] { Run(); });
    return true;
}

void CUhidDigitizer::Destroy() {
    if (m_fd >= 0 && m_thread.joinable()) {
        uhid_event destroy{};
        destroy.type = UHID_DESTROY;
        (void)WriteEvent(destroy);
    }
    if (m_thread.joinable()) {
        const uint64_t one = 1;
        (void)!::write(m_stop, &one, sizeof one);
        m_thread.join();
    }
    for (int* fd : {&m_fd, &m_stop}) {
        if (*fd >= 0) ::close(*fd);
        *fd = -1;
    }
}

bool CUhidDigitizer::Send(const std::vector<TDigitizerContact>& contacts, uint64_t* sentNanos) {
    if (m_fd < 0) return false;
    const std::vector<uint8_t> report = DigitizerInputReport(contacts);
    auto event = std::make_unique<uhid_event>();
    std::memset(event.get(), 0, sizeof *event);
    event->type = UHID_INPUT2;
    event->u.input2.size = static_cast<uint16_t>(report.size());
    std::memcpy(event->u.input2.data, report.data(), report.size());
    if (sentNanos != nullptr) *sentNanos = TGetClock().MonotonicNanos();
    return WriteEvent(*event);
}

bool CUhidDigitizer::WaitOpen(int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return m_open; });
}

bool CUhidDigitizer::WriteEvent(const uhid_event& event) {
    ssize_t n;
    do {
        n = ::write(m_fd, &event, sizeof event);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(sizeof event);
}

// The contact count maximum is the one feature report; any other request fails at once.
void CUhidDigitizer::Answer(const uhid_event& request, size_t bytesRead) {
    if (request.type == UHID_GET_REPORT) {
        if (bytesRead < offsetof(uhid_event, u) + sizeof(uhid_get_report_req)) return;
        uhid_event reply{};
        reply.type = UHID_GET_REPORT_REPLY;
        uhid_get_report_reply_req& r = reply.u.get_report_reply;
        r.id = request.u.get_report.id;
        if (request.u.get_report.rtype == UHID_FEATURE_REPORT &&
            request.u.get_report.rnum == kDigitizerMaxCountId) {
            r.err = 0;
            r.size = 2;
            r.data[0] = kDigitizerMaxCountId;
            r.data[1] = kMaxContacts;
            m_features.fetch_add(1);
        } else {
            r.err = EIO;
        }
        (void)WriteEvent(reply);
    } else if (request.type == UHID_SET_REPORT) {
        if (bytesRead < offsetof(uhid_event, u) + sizeof(uint32_t)) return;
        uhid_event reply{};
        reply.type = UHID_SET_REPORT_REPLY;
        reply.u.set_report_reply.id = request.u.set_report.id;
        reply.u.set_report_reply.err = EIO;
        (void)WriteEvent(reply);
    }
}

void CUhidDigitizer::Run() {
    auto event = std::make_unique<uhid_event>();
    pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_stop, POLLIN, 0}};
    for (;;) {
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents != 0) return;
        if ((fds[0].revents & POLLIN) == 0) {
            if (fds[0].revents != 0) return;  // the node failed
            continue;
        }
        std::memset(event.get(), 0, sizeof *event);
        const ssize_t n = ::read(m_fd, event.get(), sizeof *event);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n < static_cast<ssize_t>(sizeof event->type)) return;
        if (event->type == UHID_OPEN || event->type == UHID_CLOSE) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_open = event->type == UHID_OPEN;
            m_changed.notify_all();
        } else {
            Answer(*event, static_cast<size_t>(n));
        }
    }
}
