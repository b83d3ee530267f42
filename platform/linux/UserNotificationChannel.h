// Notifications between the processes of one user on Linux: the single-instance handshake.
//
// The channel is an abstract unix socket (SOCK_SEQPACKET) named "irframed.<uid>" by default;
// `ss -xlp | grep irframed` shows it as "@irframed.1000". A notification is one packet holding
// its name ("isWindowExist"). The listener accepts only peers of its own uid (SO_PEERCRED).
//
// Handshake: a new instance connects and sends its packet, then waits until the listener closes
// the connection. The listener hands the name to its observer first (which stops listening, so
// the name is free) and only then closes the connection; the new instance then binds the name
// itself. With nobody listening, the connection is refused and the post is a no-op.
#pragma once

#include <systemd/sd-event.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

class CUserNotificationChannel {
public:
    using Observer = std::function<void(const std::string& name)>;

    // `socketName` is the abstract name without its leading NUL.
    explicit CUserNotificationChannel(std::string socketName);
    ~CUserNotificationChannel();

    CUserNotificationChannel(const CUserNotificationChannel&) = delete;
    CUserNotificationChannel& operator=(const CUserNotificationChannel&) = delete;

    static std::string DefaultSocketName(uid_t uid);

    // Sends `name` to the listening process, then waits up to `waitMillis` for it to close the
    // connection. False when nobody listens (or the send failed).
    bool Post(const std::string& name, int waitMillis) const;

    // Binds the name and delivers each notification to `observer` on `event`'s loop. False with
    // `error` set when the name is taken or the socket cannot be made.
    bool Listen(sd_event* event, Observer observer, std::string* error);
    // Closes the listening socket and every connection not yet read. Safe inside the observer.
    void StopListening();
    bool IsListening() const { return m_listenFd >= 0; }

    // Longest notification name accepted; longer packets are dropped.
    static constexpr size_t kMaxNameBytes = 64;

private:
    struct TConnection {
        CUserNotificationChannel* channel;
        int fd;
        sd_event_source* source;
    };
    static int OnAccept(sd_event_source* source, int fd, uint32_t events, void* self);
    static int OnReadable(sd_event_source* source, int fd, uint32_t events, void* connection);
    void DropConnection(const TConnection* connection, bool closeFd);

    std::string m_socketName;
    int m_listenFd = -1;
    sd_event* m_event = nullptr;
    sd_event_source* m_listenSource = nullptr;
    Observer m_observer;
    std::vector<std::unique_ptr<TConnection>> m_connections;  // accepted, packet not yet read
};
