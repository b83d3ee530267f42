#include "SdEventLoop.h"

#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {
// SIGHUP asks for the configuration to be read again, the daemons' convention.
constexpr int kHandledSignals[3] = {SIGTERM, SIGINT, SIGHUP};
}

std::unique_ptr<CSdEventLoop> CSdEventLoop::Create(std::string* error) {
    std::unique_ptr<CSdEventLoop> loop(new CSdEventLoop());
    auto fail = [&](const char* what, int code) {
        if (error != nullptr) *error = std::string(what) + ": " + std::strerror(code < 0 ? -code : code);
        return nullptr;
    };

    sigset_t block;
    sigemptyset(&block);
    for (int sig : kHandledSignals) sigaddset(&block, sig);
    const int maskResult = pthread_sigmask(SIG_BLOCK, &block, &loop->m_previousMask);
    if (maskResult != 0) return fail("cannot block the termination signals", maskResult);
    loop->m_maskSaved = true;

    int r = sd_event_new(&loop->m_event);
    if (r < 0) return fail("cannot create the event loop", r);

    loop->m_wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE);
    if (loop->m_wakeFd < 0) return fail("cannot create the wake-up eventfd", errno);
    r = sd_event_add_io(loop->m_event, &loop->m_wakeSource, loop->m_wakeFd, EPOLLIN, &OnWake,
                        loop.get());
    if (r < 0) return fail("cannot watch the wake-up eventfd", r);

    for (int i = 0; i < 3; ++i) {
        r = sd_event_add_signal(loop->m_event, &loop->m_signalSources[i], kHandledSignals[i],
                                &OnSignal, loop.get());
        if (r < 0) return fail("cannot watch the signals", r);
    }
    return loop;
}

CSdEventLoop::~CSdEventLoop() {
    for (sd_event_source*& source : m_signalSources) source = sd_event_source_disable_unref(source);
    m_wakeSource = sd_event_source_disable_unref(m_wakeSource);
    if (m_wakeFd >= 0) close(m_wakeFd);
    m_event = sd_event_unref(m_event);
    if (m_maskSaved) pthread_sigmask(SIG_SETMASK, &m_previousMask, nullptr);
}

bool CSdEventLoop::RunOnce(uint64_t timeoutMicros) {
    // After Quit the loop only winds down in Run.
    if (m_quitRequested) return false;
    return sd_event_run(m_event, timeoutMicros) > 0;
}

int CSdEventLoop::Run() {
    if (!m_quitRequested) sd_event_loop(m_event);
    return m_quitStatus;
}

void CSdEventLoop::Quit(int status) {
    if (m_quitRequested) return;
    m_quitRequested = true;
    m_quitStatus = status;
    sd_event_exit(m_event, status);
}

void CSdEventLoop::Post(std::function<void()> task) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_tasks.push_back(std::move(task));
    }
    const uint64_t one = 1;
    // The counter cannot overflow in practice (2^64 - 2 pending tasks); a failed write would
    // only delay the task to the next wake-up.
    [[maybe_unused]] ssize_t written = write(m_wakeFd, &one, sizeof one);
}

void CSdEventLoop::PostDelayed(uint64_t millis, std::function<void()> task) {
    auto* owned = new std::function<void()>(std::move(task));
    sd_event_source* source = nullptr;
    // A floating source: the loop owns it until the loop ends; the destroy callback frees the
    // task with it. Delayed tasks are few (plug-in timers), so keeping fired ones costs little.
    const int r = sd_event_add_time_relative(m_event, &source, CLOCK_MONOTONIC, millis * 1000u, 0,
                                             &OnTimer, owned);
    if (r < 0) {
        delete owned;
        return;
    }
    sd_event_source_set_destroy_callback(source, [](void* task) {
        delete static_cast<std::function<void()>*>(task);
    });
    sd_event_source_set_floating(source, 1);
    sd_event_source_unref(source);
}

int CSdEventLoop::OnTimer(sd_event_source* source, uint64_t, void* task) {
    auto* run = static_cast<std::function<void()>*>(task);
    if (*run) (*run)();
    // A one-shot source is off once it fired; the loop frees it (and the task) when it ends.
    // Freeing it here, inside its own dispatch, is not safe on every libsystemd.
    sd_event_source_set_enabled(source, SD_EVENT_OFF);
    return 0;
}

void CSdEventLoop::OnTerminationSignal(std::function<void(int)> handler) {
    m_onSignal = std::move(handler);
}

void CSdEventLoop::OnReloadSignal(std::function<void()> handler) {
    m_onReload = std::move(handler);
}

int CSdEventLoop::OnWake(sd_event_source*, int fd, uint32_t, void* self) {
    auto* loop = static_cast<CSdEventLoop*>(self);
    uint64_t count = 0;
    if (read(fd, &count, sizeof count) != static_cast<ssize_t>(sizeof count)) return 0;
    // Semaphore mode: one read takes one post, so one dispatch runs one task.
    std::function<void()> task;
    {
        std::lock_guard<std::mutex> lock(loop->m_mutex);
        if (loop->m_tasks.empty()) return 0;
        task = std::move(loop->m_tasks.front());
        loop->m_tasks.pop_front();
    }
    if (task) task();
    return 0;
}

int CSdEventLoop::OnSignal(sd_event_source*, const struct signalfd_siginfo* info, void* self) {
    auto* loop = static_cast<CSdEventLoop*>(self);
    if (info->ssi_signo == SIGHUP) {
        if (loop->m_onReload) loop->m_onReload();
        return 0;
    }
    if (loop->m_onSignal) loop->m_onSignal(static_cast<int>(info->ssi_signo));
    return 0;
}
