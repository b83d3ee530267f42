#include "UserNotificationChannel.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace {

// Connections waiting for their packet; more than this at once are refused.
constexpr size_t kMaxPendingConnections = 8;

socklen_t AbstractAddress(const std::string& name, sockaddr_un* address) {
    std::memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    const size_t length = std::min(name.size(), sizeof address->sun_path - 1);
    std::memcpy(address->sun_path + 1, name.data(), length);  // sun_path[0] = 0: abstract
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
}

bool IsPrintableName(const char* text, size_t length) {
    if (length == 0) return false;
    return std::all_of(text, text + length, [](char c) { return c > ' ' && c < 0x7f; });
}

}  // namespace

CUserNotificationChannel::CUserNotificationChannel(std::string socketName)
    : m_socketName(std::move(socketName)) {}

CUserNotificationChannel::~CUserNotificationChannel() {
    StopListening();
}

std::string CUserNotificationChannel::DefaultSocketName(uid_t uid) {
    return "irframed." + std::to_string(uid);
}

bool CUserNotificationChannel::Post(const std::string& name, int waitMillis) const {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_un address;
    const socklen_t length = AbstractAddress(m_socketName, &address);
    bool delivered = false;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
        send(fd, name.data(), name.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(name.size())) {
        delivered = true;
        // Wait for the listener to hang up: by then it has given up the name.
        pollfd waiting{fd, POLLIN, 0};
        if (poll(&waiting, 1, waitMillis) > 0) {
            char ignored;
            [[maybe_unused]] ssize_t r = recv(fd, &ignored, sizeof ignored, MSG_DONTWAIT);
        }
    }
    close(fd);
    return delivered;
}

bool CUserNotificationChannel::Listen(sd_event* event, Observer observer, std::string* error) {
    StopListening();
    auto fail = [&](const char* what, int code) {
        if (error != nullptr) *error = std::string(what) + ": " + std::strerror(code);
        StopListening();
        return false;
    };
    m_listenFd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_listenFd < 0) return fail("cannot create the instance socket", errno);
    sockaddr_un address;
    const socklen_t length = AbstractAddress(m_socketName, &address);
    if (bind(m_listenFd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
        return fail(("cannot bind @" + m_socketName).c_str(), errno);
    }
    if (listen(m_listenFd, static_cast<int>(kMaxPendingConnections)) != 0) {
        return fail("cannot listen on the instance socket", errno);
    }
    const int r = sd_event_add_io(event, &m_listenSource, m_listenFd, EPOLLIN, &OnAccept, this);
    if (r < 0) return fail("cannot watch the instance socket", -r);
    m_event = event;
    m_observer = std::move(observer);
    return true;
}

void CUserNotificationChannel::StopListening() {
    m_listenSource = sd_event_source_disable_unref(m_listenSource);
    if (m_listenFd >= 0) close(m_listenFd);
    m_listenFd = -1;
    while (!m_connections.empty()) DropConnection(m_connections.back().get(), true);
}

void CUserNotificationChannel::DropConnection(const TConnection* connection, bool closeFd) {
    const auto it = std::find_if(m_connections.begin(), m_connections.end(),
                                 [connection](const auto& c) { return c.get() == connection; });
    if (it == m_connections.end()) return;
    sd_event_source_disable_unref((*it)->source);
    if (closeFd && (*it)->fd >= 0) close((*it)->fd);
    m_connections.erase(it);
}

int CUserNotificationChannel::OnAccept(sd_event_source*, int fd, uint32_t, void* self) {
    auto* channel = static_cast<CUserNotificationChannel*>(self);
    const int connection = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (connection < 0) return 0;
    ucred peer{};
    socklen_t peerLength = sizeof peer;
    const bool sameUser = getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &peerLength) == 0 &&
                          peer.uid == getuid();
    if (!sameUser || channel->m_connections.size() >= kMaxPendingConnections) {
        close(connection);
        return 0;
    }
    auto entry = std::make_unique<TConnection>(TConnection{channel, connection, nullptr});
    TConnection* added = entry.get();
    channel->m_connections.push_back(std::move(entry));
    if (sd_event_add_io(channel->m_event, &added->source, connection, EPOLLIN, &OnReadable,
                        added) < 0) {
        channel->DropConnection(added, true);
    }
    return 0;
}

int CUserNotificationChannel::OnReadable(sd_event_source*, int fd, uint32_t, void* connection) {
    auto* entry = static_cast<TConnection*>(connection);
    CUserNotificationChannel* channel = entry->channel;
    char packet[kMaxNameBytes + 1];
    const ssize_t received = recv(fd, packet, sizeof packet, MSG_DONTWAIT | MSG_TRUNC);
    if (received < 0 && (errno == EAGAIN || errno == EINTR)) return 0;

    // The connection stays open until the observer has run, so the poster's wait ends only
    // after the observer gave up the name.
    channel->DropConnection(entry, false);
    if (received > 0 && static_cast<size_t>(received) <= kMaxNameBytes &&
        IsPrintableName(packet, static_cast<size_t>(received)) && channel->m_observer) {
        const Observer observer = channel->m_observer;  // the observer may stop the channel
        observer(std::string(packet, static_cast<size_t>(received)));
    }
    close(fd);
    return 0;
}
