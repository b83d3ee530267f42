#include "StopSignalWaits.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// How long one step of a wait lasts: the delay between a signal and the end of the wait.
constexpr int kStepMillis = static_cast<int>(kStopCheckMicros / 1000);

// A pending SIGINT or SIGTERM, taken; 0 when there is none.
int TakeStopSignal() {
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    const timespec none{0, 0};
    const int signal = sigtimedwait(&stops, nullptr, &none);
    return signal > 0 ? signal : 0;
}

// Waits for `fd` to become readable (or hung up); 0, or the signal that ended the wait.
int WaitReadable(int fd) {
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, kStepMillis) > 0) return 0;
        if (const int signal = TakeStopSignal()) return signal;
    }
}

// SIGINT and SIGTERM held back in this thread while it waits, so that one sent meanwhile stays
// pending for TakeStopSignal whatever the program does with it otherwise (a handler would take
// it and leave the wait running; the default action would end the process unsaid). The mask
// before is put back at the end: a signal not taken is then delivered as usual.
class CStopSignalsHeld {
public:
    CStopSignalsHeld() {
        sigset_t stops;
        sigemptyset(&stops);
        sigaddset(&stops, SIGINT);
        sigaddset(&stops, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &stops, &m_before);
    }
    ~CStopSignalsHeld() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    CStopSignalsHeld(const CStopSignalsHeld&) = delete;
    CStopSignalsHeld& operator=(const CStopSignalsHeld&) = delete;

private:
    sigset_t m_before;
};

}  // namespace

int ReadWholeFileWaiting(const std::string& path, size_t limit, std::string* text,
                         std::string* error) {
    const CStopSignalsHeld held;
    // Non-blocking: opening a FIFO does not wait for a writer, reading it does not wait for data.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        *error = std::strerror(errno);
        return -1;
    }
    struct stat st {};
    const bool fifo = ::fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode);
    bool writerSeen = false;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n > 0) {
            writerSeen = true;
            text->append(buffer, static_cast<size_t>(n));
            if (text->size() > limit) {
                ::close(fd);
                *error = "larger than " + std::to_string(limit >> 20) + " MiB";
                return -1;
            }
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        // A FIFO nobody has opened for writing yet reads as end of file too: wait for a writer.
        const bool waitForWriter = n == 0 && fifo && !writerSeen;
        if (n < 0 && errno != EAGAIN) {
            *error = std::strerror(errno);
            ::close(fd);
            return -1;
        }
        if (n == 0 && !waitForWriter) break;
        if (const int signal = WaitReadable(fd)) {
            ::close(fd);
            return signal;
        }
        // Readable: data, or a writer that came and went (end of file from now on).
        if (waitForWriter) writerSeen = true;
    }
    ::close(fd);
    return 0;
}

bool StopSignalPending() {
    sigset_t pending;
    sigemptyset(&pending);
    if (sigpending(&pending) != 0) return false;
    return sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1;
}

std::string SignalName(int signal) {
    if (signal == SIGINT) return "SIGINT";
    if (signal == SIGTERM) return "SIGTERM";
    return "signal " + std::to_string(signal);
}
