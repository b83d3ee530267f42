#include "UhidDevice.h"

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

void CopyText(uint8_t* out, size_t capacity, const std::string& text) {
    const size_t n = std::min(text.size(), capacity - 1);
    std::memcpy(out, text.data(), n);
    out[n] = 0;
}

}  // namespace

void FillUhidCreate2(const std::string& name, const std::string& phys,
                     const std::vector<uint8_t>& descriptor, uint16_t vendor, uint16_t product,
                     uhid_event* event) {
    std::memset(event, 0, sizeof *event);
    event->type = UHID_CREATE2;
    uhid_create2_req& req = event->u.create2;
    CopyText(req.name, sizeof req.name, name);
    CopyText(req.phys, sizeof req.phys, phys);
    const size_t size = std::min(descriptor.size(), sizeof req.rd_data);
    std::memcpy(req.rd_data, descriptor.data(), size);
    req.rd_size = static_cast<uint16_t>(size);
    req.bus = BUS_USB;
    req.vendor = vendor;
    req.product = product;
    req.version = 0x0100;
}

CUhidDevice::~CUhidDevice() {
    Destroy();
}

bool CUhidDevice::CreateOn(const std::string& uhidPath, const uhid_event& create,
                           std::string* error) {
    const int fd = ::open(uhidPath.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        *error = "cannot open " + uhidPath + ": " + std::strerror(errno);
        return false;
    }
    return Adopt(fd, create, error);
}

bool CUhidDevice::Adopt(int fd, const uhid_event& create, std::string* error) {
    if (m_fd >= 0) {
        ::close(fd);
        *error = "the device was already created";
        return false;
    }
    m_fd = fd;
    if (!WriteEvent(create)) {
        *error = std::string("UHID_CREATE2 failed: ") + std::strerror(errno);
    } else if ((m_stop = ::eventfd(0, EFD_CLOEXEC)) < 0) {
        *error = std::string("cannot make an eventfd: ") + std::strerror(errno);
    } else {
        m_thread = std::thread([this] { Run(); });
        return true;
    }
    Destroy();
    return false;
}

void CUhidDevice::Destroy() {
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

TUhidLinkState CUhidDevice::State() const {
    std::lock_guard<std::mutex> lock(m_stateMutex);
    return m_state;
}

bool CUhidDevice::WaitUntil(const std::function<bool(const TUhidLinkState&)>& done,
                            int timeoutMs) const {
    std::unique_lock<std::mutex> lock(m_stateMutex);
    return m_stateChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                   [&] { return done(m_state); });
}

bool CUhidDevice::WriteEvent(const uhid_event& event) {
    ssize_t n;
    do {
        n = ::write(m_fd, &event, sizeof event);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(sizeof event);
}

bool CUhidDevice::WriteInput(const uint8_t* data, size_t length, uint64_t* sentNanos) {
    if (m_fd < 0 || data == nullptr || length == 0 || length > UHID_DATA_MAX) return false;
    auto event = std::make_unique<uhid_event>();  // over 4 KiB
    event->type = UHID_INPUT2;
    event->u.input2.size = static_cast<uint16_t>(length);
    std::memcpy(event->u.input2.data, data, length);
    const uint64_t nanos = TGetClock().MonotonicNanos();
    if (sentNanos != nullptr) *sentNanos = nanos;
    if (m_sentHook) m_sentHook(data, length, nanos);
    return WriteEvent(*event);
}

void CUhidDevice::Refuse(const uhid_event& request, size_t bytesRead) {
    // Both requests carry their id first; without it there is nothing to answer.
    if (bytesRead < offsetof(uhid_event, u) + sizeof(uint32_t)) return;
    uhid_event reply{};
    if (request.type == UHID_GET_REPORT) {
        reply.type = UHID_GET_REPORT_REPLY;
        reply.u.get_report_reply.id = request.u.get_report.id;
        reply.u.get_report_reply.err = EIO;
    } else if (request.type == UHID_SET_REPORT) {
        reply.type = UHID_SET_REPORT_REPLY;
        reply.u.set_report_reply.id = request.u.set_report.id;
        reply.u.set_report_reply.err = EIO;
    } else {
        return;
    }
    (void)WriteEvent(reply);
}

bool CUhidDevice::Stopping(int millis) const {
    pollfd stop{m_stop, POLLIN, 0};
    return ::poll(&stop, 1, millis) > 0;
}

void CUhidDevice::Run() {
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
            std::lock_guard<std::mutex> lock(m_stateMutex);
            m_state.open = event->type == UHID_OPEN;
            ++(m_state.open ? m_state.opens : m_state.closes);
        } else {
            OnEvent(*event, static_cast<size_t>(n));
        }
        std::lock_guard<std::mutex> lock(m_stateMutex);
        m_stateChanged.notify_all();
    }
}
