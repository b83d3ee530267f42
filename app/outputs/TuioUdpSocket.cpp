#include "TuioUdpSocket.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

bool IsLoopback(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(&address);
        return (ntohl(v4->sin_addr.s_addr) >> 24) == 127;
    }
    if (address.ss_family == AF_INET6) {
        const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&address);
        if (IN6_IS_ADDR_LOOPBACK(&v6->sin6_addr)) return true;
        // ::ffff:127.x.y.z
        return IN6_IS_ADDR_V4MAPPED(&v6->sin6_addr) && v6->sin6_addr.s6_addr[12] == 127;
    }
    return false;
}

class CTuioUdpSocket final : public ITuioSocket {
public:
    CTuioUdpSocket(int fd, const sockaddr_storage& address, socklen_t length)
        : m_fd(fd), m_address(address), m_length(length), m_loopback(IsLoopback(address)) {}
    ~CTuioUdpSocket() override { ::close(m_fd); }
    CTuioUdpSocket(const CTuioUdpSocket&) = delete;
    CTuioUdpSocket& operator=(const CTuioUdpSocket&) = delete;

    bool Send(std::span<const uint8_t> bytes, std::string* error) override {
        const ssize_t sent = ::sendto(m_fd, bytes.data(), bytes.size(), MSG_DONTWAIT,
                                      reinterpret_cast<const sockaddr*>(&m_address), m_length);
        if (sent >= 0 || errno == EAGAIN || errno == EWOULDBLOCK) return true;
        if (error != nullptr) *error = std::strerror(errno);
        return false;
    }

    bool Loopback() const override { return m_loopback; }

private:
    int m_fd;
    sockaddr_storage m_address;
    socklen_t m_length;
    bool m_loopback;
};

}  // namespace

std::unique_ptr<ITuioSocket> OpenTuioUdpSocket(const TTuioTarget& target, std::string* error) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const std::string port = std::to_string(target.port);
    const int status = ::getaddrinfo(target.host.c_str(), port.c_str(), &hints, &found);
    if (status != 0 || found == nullptr) {
        if (error != nullptr) *error = status != 0 ? ::gai_strerror(status) : "no address";
        return nullptr;
    }
    std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> list(found, &::freeaddrinfo);
    std::string lastError = "no usable address";
    for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
        if (a->ai_addrlen > sizeof(sockaddr_storage)) continue;
        const int fd = ::socket(a->ai_family, a->ai_socktype, a->ai_protocol);
        if (fd < 0) {
            lastError = std::strerror(errno);
            continue;
        }
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        sockaddr_storage address{};
        std::memcpy(&address, a->ai_addr, a->ai_addrlen);
        return std::make_unique<CTuioUdpSocket>(fd, address, a->ai_addrlen);
    }
    if (error != nullptr) *error = lastError;
    return nullptr;
}
