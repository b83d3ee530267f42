// Portable system layer: threads, events, recursive mutexes and the clock.
//
// The thread, event and mutex objects keep the names and result codes that code from other
// platforms expects (including a few odd return values that callers rely on). All time that the
// system reads goes through one injectable clock (TClock): the real clock by default, a virtual
// clock in tests and in the simulation mode.
#pragma once

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <ctime>

// ---------------------------------------------------------------------------------------------
// Threads

class CkorFrameThread {
public:
    using Routine = unsigned int (*)(void*);

    CkorFrameThread();
    CkorFrameThread(Routine routine, void* argument);
    ~CkorFrameThread();  // joins a created thread

    CkorFrameThread(const CkorFrameThread&) = delete;
    CkorFrameThread& operator=(const CkorFrameThread&) = delete;

    int Start();                   // 0, or 1 when the thread could not be created
    int Join();                    // 1 when not started, else joins and returns 0
    int Wait(unsigned long ms);    // 0 when not started; joins without limit (ms is not used)
    int JoinTo(unsigned long ms);  // 1 when not started; sleeps ms, then cancels the thread
    bool IsStarted() const { return m_started; }

private:
    static void* Trampoline(void* self);

    Routine m_routine = nullptr;
    void* m_argument = nullptr;
    bool m_started = false;
    pthread_t m_handle{};
    bool m_hasHandle = false;  // pthread_t has no portable null value
};

CkorFrameThread* TCreateThread(CkorFrameThread::Routine routine, void* argument);
int TWaitForThread(CkorFrameThread* thread, unsigned long ms);
void TCloseThread(CkorFrameThread* thread);

// ---------------------------------------------------------------------------------------------
// Events: result codes 0 = done, 60 = time-out, 0xFFFFFFFF = error.

constexpr unsigned int TEVENT_OK = 0;
constexpr unsigned int TEVENT_TIMEOUT = 60;
constexpr unsigned int TEVENT_ERROR = 0xFFFFFFFFu;
constexpr unsigned long TEVENT_INFINITE = 0xFFFFFFFFul;

class CkorFrameEvent {
public:
    CkorFrameEvent(bool signalled = false, bool manualReset = false);
    ~CkorFrameEvent();

    CkorFrameEvent(const CkorFrameEvent&) = delete;
    CkorFrameEvent& operator=(const CkorFrameEvent&) = delete;

    // True when the condition was made; also true when the mutex failed (callers rely on it).
    bool InitEvent();
    unsigned int WaitEvent(unsigned long ms);  // TEVENT_INFINITE waits without limit
    unsigned int SetEvent();
    unsigned int ResetEvent();

    bool IsSignalled();
    bool IsManualReset() const { return m_manualReset; }

private:
    bool m_signalled;
    bool m_manualReset;
    pthread_mutex_t m_mutex;
    pthread_cond_t m_cond;
    bool m_mutexReady = false;
    bool m_condReady = false;
};

// Absolute deadline of a wait of `ms` milliseconds that starts at `now` (time of day), with the
// nanoseconds carried into the seconds.
timespec TEventDeadline(const timeval& now, unsigned long ms);

CkorFrameEvent* TCreateEvent(signed char initialState);
unsigned int TWaitForEvent(CkorFrameEvent* event, unsigned long ms);
unsigned int TSetEvent(CkorFrameEvent* event);
unsigned int TResetEvent(CkorFrameEvent* event);
void TCloseEvent(CkorFrameEvent* event);

// ---------------------------------------------------------------------------------------------
// Recursive mutex

class CkorFrameMutex {
public:
    CkorFrameMutex();
    ~CkorFrameMutex();

    CkorFrameMutex(const CkorFrameMutex&) = delete;
    CkorFrameMutex& operator=(const CkorFrameMutex&) = delete;

    int Lock();    // POSIX result
    int unLock();  // POSIX result

private:
    pthread_mutex_t m_mutex;
};

CkorFrameMutex* TCreateMutex(signed char initiallyOwned);
unsigned int TWaitForMutex(CkorFrameMutex* mutex, unsigned long ms);  // always 0xFFFFFFFF
int TReleaseMutex(CkorFrameMutex* mutex);
void TCloseMutex(CkorFrameMutex* mutex);

// ---------------------------------------------------------------------------------------------
// Clock

// Source of all time in the system. Implementations must be safe to call from any thread.
class TClock {
public:
    virtual ~TClock() = default;
    virtual uint64_t MonotonicNanos() = 0;        // since boot (or any fixed origin)
    virtual void TimeOfDay(timeval* tv) = 0;      // wall-clock time
    virtual void SleepMicros(uint64_t micros) = 0;
};

// The operating system's clocks; the default.
class TRealClock final : public TClock {
public:
    uint64_t MonotonicNanos() override;
    void TimeOfDay(timeval* tv) override;
    void SleepMicros(uint64_t micros) override;
};

// A clock that moves only when told to. Sleeping on it advances it instead of waiting, so code
// with pauses runs at full speed and deterministically under test.
class TVirtualClock final : public TClock {
public:
    explicit TVirtualClock(uint64_t monotonicNanos = 0, int64_t wallSeconds = 1'700'000'000);

    uint64_t MonotonicNanos() override { return m_nanos.load(std::memory_order_acquire); }
    void TimeOfDay(timeval* tv) override;
    void SleepMicros(uint64_t micros) override { AdvanceMicros(micros); }

    void AdvanceNanos(uint64_t nanos) { m_nanos.fetch_add(nanos, std::memory_order_acq_rel); }
    void AdvanceMicros(uint64_t micros) { AdvanceNanos(micros * 1000u); }
    void AdvanceMillis(uint64_t millis) { AdvanceNanos(millis * 1000000u); }
    void AdvanceTicks(uint64_t ticks);  // 1/60 s each
    void SetMonotonicNanos(uint64_t nanos) { m_nanos.store(nanos, std::memory_order_release); }
    // Sets the time of day; it then moves with the monotonic time.
    void SetTimeOfDay(int64_t seconds, int64_t micros);
    // Total virtual time slept through SleepMicros is not tracked separately: it is in the clock.

private:
    std::atomic<uint64_t> m_nanos;
    std::atomic<int64_t> m_wallOffsetNanos;  // time of day = monotonic + offset
};

// Installs `clock` as the system's clock (nullptr restores the real clock). The caller keeps
// ownership and must keep it alive while installed.
void TSetClock(TClock* clock);
TClock& TGetClock();

// Installs a clock for the lifetime of a scope and restores the previous one afterwards.
class TScopedClock {
public:
    explicit TScopedClock(TClock& clock);
    ~TScopedClock();
    TScopedClock(const TScopedClock&) = delete;
    TScopedClock& operator=(const TScopedClock&) = delete;

private:
    TClock* m_previous;
};

unsigned long TGetTickCount();           // milliseconds since boot, low 32 bits
uint32_t TTickCount();                   // sixtieths of a second since boot, low 32 bits
void TGetTimeOfDay(timeval* tv);         // wall-clock time
void TSleepMicros(uint64_t micros);      // pause (advances a virtual clock instead)

// Tick arithmetic shared by the clock functions, exposed for tests.
unsigned long TMillisFromNanos(uint64_t nanos);
uint32_t TTicksFromNanos(uint64_t nanos);
