#include "HidrawDevice.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "MtDevLog.h"

namespace {

// How long a write may wait for room when the node (or socket) is momentarily full.
constexpr int kWriteRoomWaitMs = 1000;

int CloseFd(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
    return 0;
}

}  // namespace

CHidrawDevice::CHidrawDevice(std::string nodePath) : m_path(std::move(nodePath)) {}

std::unique_ptr<CHidrawDevice> CHidrawDevice::Adopt(int fd) {
    std::unique_ptr<CHidrawDevice> device(new CHidrawDevice());
    device->m_adopted = fd;
    device->m_path = "fd:" + std::to_string(fd);
    return device;
}

CHidrawDevice::~CHidrawDevice() {
    Close();
    CloseFd(m_adopted);
}

int CHidrawDevice::Open() {
    if (m_fd >= 0) return kMtHidSuccess;
    int fd = -1;
    if (m_adopted >= 0) {
        fd = ::fcntl(m_adopted, F_DUPFD_CLOEXEC, 0);
        if (fd >= 0) {
            const int flags = ::fcntl(fd, F_GETFL);
            if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) CloseFd(fd);
        }
    } else if (!m_path.empty()) {
        fd = ::open(m_path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            // The worker only logs that the device did not open; say why, and what helps.
            const int error = errno;
            TLog(TLogLevel::Warning, "cannot open %s: %s%s", m_path.c_str(), std::strerror(error),
                 error == EACCES || error == EPERM
                     ? " (install the udev rules 70-irframe.rules, then replug the frame; "
                       "getfacl the node to see who may open it)"
                     : "");
        }
    }
    if (fd < 0) return kMtHidError;
    const int timer = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (timer < 0) {
        ::close(fd);
        return kMtHidError;
    }
    struct stat st{};
    m_isSocket = ::fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
    m_fd = fd;
    m_timer = timer;
    m_gone = false;
    return kMtHidSuccess;
}

void CHidrawDevice::Close() {
    CloseFd(m_fd);
    CloseFd(m_timer);
}

void CHidrawDevice::RegisterInputReportCallback(TMtHidReportCallback callback, void* context) {
    m_callback = callback;
    m_context = context;
}

int CHidrawDevice::SetOutputReport(const uint8_t* report, long length) {
    if (m_fd < 0 || report == nullptr || length < 0 || length > kMaxReportBytes) {
        return kMtHidError;
    }
    // hidraw takes the report number first; 0 for a device without numbered reports.
    m_tx[0] = 0;
    std::memcpy(m_tx + 1, report, static_cast<size_t>(length));
    const size_t total = static_cast<size_t>(length) + 1;
    for (int attempt = 0; attempt < 2; ++attempt) {
        ssize_t sent;
        do {
            sent = m_isSocket ? ::send(m_fd, m_tx, total, MSG_NOSIGNAL) : ::write(m_fd, m_tx, total);
        } while (sent < 0 && errno == EINTR);
        if (sent == static_cast<ssize_t>(total)) return kMtHidSuccess;
        if (sent >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return kMtHidError;
        pollfd room{m_fd, POLLOUT, 0};
        if (::poll(&room, 1, kWriteRoomWaitMs) <= 0) return kMtHidError;
    }
    return kMtHidError;
}

void CHidrawDevice::BeginWait(unsigned timeoutMs) {
    if (m_timer < 0) return;
    itimerspec spec{};
    spec.it_value.tv_sec = static_cast<time_t>(timeoutMs / 1000);
    spec.it_value.tv_nsec = static_cast<long>(timeoutMs % 1000) * 1000000L;
    // A zero value would disarm the timer; a zero time-out fires at once instead.
    if (timeoutMs == 0) spec.it_value.tv_nsec = 1;
    // Arming also clears an expiry left over from an earlier wait.
    ::timerfd_settime(m_timer, 0, &spec, nullptr);
}

TMtHidRun CHidrawDevice::RunWait() {
    if (m_fd < 0 || m_timer < 0 || m_gone) return TMtHidRun::Gone;
    pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_timer, POLLIN, 0}};
    for (;;) {
        fds[0].revents = 0;
        fds[1].revents = 0;
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return TMtHidRun::Gone;
        }
        if ((fds[0].revents & POLLIN) != 0) {
            // One report, handed on at once: a second read to look for more would only delay
            // this one (the next wait's poll finds any that came meanwhile).
            ssize_t n;
            do {
                n = ::read(m_fd, m_rx, sizeof m_rx);
            } while (n < 0 && errno == EINTR);
            if (n > 0) {
                if (m_callback != nullptr) {
                    m_callback(m_context, kMtHidSuccess,
                               static_cast<void*>(static_cast<CMtHidDevice*>(this)),
                               kMtHidReportTypeInput, 0, m_rx, static_cast<long>(n));
                }
                return TMtHidRun::Delivered;
            }
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) continue;
            m_gone = true;  // end of file (peer closed) or the node went away
            return TMtHidRun::Gone;
        }
        if ((fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
            m_gone = true;
            return TMtHidRun::Gone;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            uint64_t expirations = 0;
            (void)!::read(m_timer, &expirations, sizeof expirations);
            return TMtHidRun::TimedOut;
        }
    }
}

void CHidrawDevice::EndWait() {
    // Nothing to undo: the next BeginWait re-arms the timer and clears its expiry count, and a
    // timer left running fires into nobody's wait.
}
