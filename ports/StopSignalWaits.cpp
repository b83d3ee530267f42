#include "StopSignalWaits.h"

#include <pthread.h>
#include <signal.h>

#include "InputFile.h"

namespace {

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
    return ReadInputFileUnlessStopped(path, limit, text, error, &TakeStopSignal);
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
