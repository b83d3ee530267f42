#include "MtEmuHidLink.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace {

// Large enough for any report the host may write, with its report-number byte.
constexpr size_t kLinkBufferBytes = 4096 + 1;

}  // namespace

CMtEmuHidLink::CMtEmuHidLink(CMtDevEmulator& emulator) : m_emulator(emulator) {
    int pair[2] = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return;
    m_device = pair[0];
    m_host = pair[1];
    m_stop = ::eventfd(0, EFD_CLOEXEC);
    if (m_stop < 0) return;
    m_thread = std::thread([this] { Run(); });
    m_ok = true;
}

CMtEmuHidLink::~CMtEmuHidLink() {
    if (m_thread.joinable()) {
        const uint64_t one = 1;
        (void)!::write(m_stop, &one, sizeof one);
        m_thread.join();
    }
    for (int* fd : {&m_device, &m_host, &m_stop}) {
        if (*fd >= 0) ::close(*fd);
        *fd = -1;
    }
}

int CMtEmuHidLink::TakeHostFd() {
    const int fd = m_host;
    m_host = -1;
    return fd;
}

bool CMtEmuHidLink::SendReport(const uint8_t* data, size_t length) {
    if (m_device < 0 || data == nullptr || length == 0) return false;
    return ::send(m_device, data, length, MSG_NOSIGNAL) == static_cast<ssize_t>(length);
}

void CMtEmuHidLink::Unplug() {
    if (m_device >= 0) ::shutdown(m_device, SHUT_RDWR);
}

void CMtEmuHidLink::Run() {
    std::vector<uint8_t> buffer(kLinkBufferBytes);
    std::vector<TEmuReply> replies;
    pollfd fds[2] = {{m_device, POLLIN, 0}, {m_stop, POLLIN, 0}};
    for (;;) {
        fds[0].revents = 0;
        fds[1].revents = 0;
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents != 0) return;
        if ((fds[0].revents & POLLIN) == 0) {
            if (fds[0].revents != 0) fds[0].fd = -1;  // hung up: only the stop signal is left
            continue;
        }
        const ssize_t n = ::recv(m_device, buffer.data(), buffer.size(), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            fds[0].fd = -1;  // the host closed its end, or the device was unplugged
            continue;
        }
        const uint64_t received = m_received.fetch_add(1) + 1;
        // Only report number 0: the frame has no numbered reports.
        if (buffer[0] != 0) {
            m_settled.store(received);
            continue;
        }
        const bool alive =
            m_emulator.OnHidOutput(buffer.data() + 1, static_cast<size_t>(n) - 1, &replies);
        for (const TEmuReply& reply : replies) {
            if (reply.delayMs > 0) {
                m_settled.store(received);  // what follows is late
                pollfd stop{m_stop, POLLIN, 0};
                if (::poll(&stop, 1, static_cast<int>(reply.delayMs)) > 0) return;
            }
            (void)::send(m_device, reply.bytes.data(), reply.bytes.size(), MSG_NOSIGNAL);
        }
        if (!alive) {
            ::shutdown(m_device, SHUT_RDWR);
            fds[0].fd = -1;
        }
        m_settled.store(received);
    }
}
