#include "MtEmuUhidLink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <memory>

#include "MultiPlatformAPI.h"

namespace {

void CopyText(uint8_t* out, size_t capacity, const std::string& text) {
    const size_t n = std::min(text.size(), capacity - 1);
    std::memcpy(out, text.data(), n);
    out[n] = 0;
}

}  // namespace

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
    std::memset(event, 0, sizeof *event);
    event->type = UHID_CREATE2;
    uhid_create2_req& req = event->u.create2;
    CopyText(req.name, sizeof req.name, identity.name);
    CopyText(req.phys, sizeof req.phys, "irframe-uhid");
    const std::vector<uint8_t> descriptor = MtEmuReportDescriptor();
    std::memcpy(req.rd_data, descriptor.data(), descriptor.size());
    req.rd_size = static_cast<uint16_t>(descriptor.size());
    req.bus = BUS_USB;
    req.vendor = identity.vendor;
    req.product = identity.product;
    req.version = 0x0100;
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
    const int fd = ::open(uhidPath.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        *error = "cannot open " + uhidPath + ": " + std::strerror(errno);
        return false;
    }
    return Adopt(fd, identity, error);
}

bool CMtEmuUhidLink::Adopt(int fd, const TUhidIdentity& identity, std::string* error) {
    if (m_fd >= 0) {
        ::close(fd);
        *error = "the link already has a device";
        return false;
    }
    m_fd = fd;
    if (!Start(identity, error)) {
        ::close(m_fd);
        m_fd = -1;
        return false;
    }
    return true;
}

bool CMtEmuUhidLink::Start(const TUhidIdentity& identity, std::string* error) {
    // On the heap: the event is over 4 KiB.
    auto create = std::make_unique<uhid_event>();
    BuildUhidCreate2(identity, create.get());
    if (!WriteEvent(*create)) {
        *error = std::string("UHID_CREATE2 failed: ") + std::strerror(errno);
        return false;
    }
    m_stop = ::eventfd(0, EFD_CLOEXEC);
    if (m_stop < 0) {
        *error = std::string("cannot make an eventfd: ") + std::strerror(errno);
        return false;
    }
    m_thread = std::thread([this] { Run(); });
    return true;
}

void CMtEmuUhidLink::Destroy() {
    if (m_fd >= 0) {
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
    std::lock_guard<std::mutex> lock(m_stateMutex);
    m_state.open = false;
    m_stateChanged.notify_all();
}

TUhidLinkState CMtEmuUhidLink::State() const {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    return m_state;
}

bool CMtEmuUhidLink::WaitUntil(const std::function<bool(const TUhidLinkState&)>& done,
                               int timeoutMs) const {
    std::unique_lock<std::mutex> lock(m_stateMutex);
    return m_stateChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                   [&] { return done(m_state); });
}

bool CMtEmuUhidLink::SendInput(const uint8_t* data, size_t length) {
    if (!IsOpen()) return false;
    return WriteInput(data, length);
}

bool CMtEmuUhidLink::WriteEvent(const uhid_event& event) {
    ssize_t n;
    do {
        n = ::write(m_fd, &event, sizeof event);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(sizeof event);
}

bool CMtEmuUhidLink::WriteInput(const uint8_t* data, size_t length) {
    if (m_fd < 0 || data == nullptr || length == 0 || length > UHID_DATA_MAX) return false;
    auto event = std::make_unique<uhid_event>();
    event->type = UHID_INPUT2;
    event->u.input2.size = static_cast<uint16_t>(length);
    std::memcpy(event->u.input2.data, data, length);
    if (m_sentHook) m_sentHook(data, length, TGetClock().MonotonicNanos());
    return WriteEvent(*event);
}

void CMtEmuUhidLink::Refuse(const uhid_event& request, size_t bytesRead) {
    // Both requests carry their id first; without it there is nothing to answer.
    if (bytesRead < offsetof(uhid_event, u) + sizeof(uint32_t)) return;
    uhid_event reply{};
    if (request.type == UHID_GET_REPORT) {
        reply.type = UHID_GET_REPORT_REPLY;
        reply.u.get_report_reply.id = request.u.get_report.id;
        reply.u.get_report_reply.err = EIO;
    } else {
        reply.type = UHID_SET_REPORT_REPLY;
        reply.u.set_report_reply.id = request.u.set_report.id;
        reply.u.set_report_reply.err = EIO;
    }
    (void)WriteEvent(reply);
}

std::vector<std::vector<uint8_t>> CMtEmuUhidLink::UnansweredReports() const {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    return m_unansweredReports;
}

void CMtEmuUhidLink::Drop(const uint8_t* report, size_t length) {
    m_unanswered.fetch_add(1);
    std::lock_guard<std::mutex> lock(m_stateMutex);
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
        if (reply.delayMs > 0) {
            pollfd stop{m_stop, POLLIN, 0};
            if (::poll(&stop, 1, static_cast<int>(reply.delayMs)) > 0) return;
        }
        // Told to stop answering while the reply was being made (a paced frame waits).
        if (!m_answering.load()) {
            Drop(report, length);
            return;
        }
        (void)WriteInput(reply.bytes.data(), reply.bytes.size());
    }
}

void CMtEmuUhidLink::Run() {
    auto event = std::make_unique<uhid_event>();
    pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_stop, POLLIN, 0}};
    for (;;) {
        fds[0].revents = 0;
        fds[1].revents = 0;
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[1].revents != 0) break;
        if ((fds[0].revents & POLLIN) == 0) {
            if (fds[0].revents != 0) break;  // the node failed
            continue;
        }
        std::memset(event.get(), 0, sizeof *event);
        const ssize_t n = ::read(m_fd, event.get(), sizeof *event);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n < static_cast<ssize_t>(sizeof event->type)) break;

        const uint8_t* report = nullptr;
        size_t length = 0;
        switch (event->type) {
            case UHID_OPEN: {
                std::lock_guard<std::mutex> lock(m_stateMutex);
                m_state.open = true;
                ++m_state.opens;
                break;
            }
            case UHID_CLOSE: {
                std::lock_guard<std::mutex> lock(m_stateMutex);
                m_state.open = false;
                ++m_state.closes;
                break;
            }
            case UHID_OUTPUT:
                if (UhidOutputReport(*event, static_cast<size_t>(n), &report, &length)) {
                    HandleOutput(report, length);
                } else {
                    m_rejected.fetch_add(1);
                }
                break;
            case UHID_GET_REPORT:
            case UHID_SET_REPORT:
                Refuse(*event, static_cast<size_t>(n));
                break;
            default:
                break;  // UHID_START, UHID_STOP and anything newer need no answer
        }
        std::lock_guard<std::mutex> lock(m_stateMutex);
        m_stateChanged.notify_all();
    }
}
