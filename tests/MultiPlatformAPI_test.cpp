#include "MultiPlatformAPI.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

// ---------------------------------------------------------------------------------------------
// Threads

std::atomic<int> g_runs{0};

unsigned int CountRun(void*) {
    g_runs.fetch_add(1);
    return 0;
}

unsigned int SpinUntilCancelled(void* flag) {
    auto* running = static_cast<std::atomic<bool>*>(flag);
    running->store(true);
    for (;;) pthread_testcancel();
    return 0;
}

// Verify that a thread whose routine returns at once still reports itself as started, and the
// result codes of a thread object that was never started.
TEST(Thread, StartedAndUnstartedThreads) {
    g_runs = 0;
    CkorFrameThread* thread = TCreateThread(&CountRun, nullptr);
    ASSERT_NE(thread, nullptr);
    EXPECT_TRUE(thread->IsStarted());
    EXPECT_EQ(TWaitForThread(thread, 5), 0);
    EXPECT_EQ(g_runs.load(), 1);
    TCloseThread(thread);
    TCloseThread(nullptr);

    CkorFrameThread unstarted(&CountRun, nullptr);
    EXPECT_FALSE(unstarted.IsStarted());
    EXPECT_EQ(unstarted.Join(), 1);
    EXPECT_EQ(unstarted.Wait(100), 0);
    EXPECT_EQ(unstarted.JoinTo(100), 1);
}

// Verify that JoinTo sleeps the whole time first and then cancels a thread that never ends.
TEST(Thread, JoinToSleepsThenCancels) {
    TVirtualClock clock(5'000'000'000ull);
    TScopedClock scoped(clock);
    std::atomic<bool> running{false};
    {
        CkorFrameThread thread(&SpinUntilCancelled, &running);
        ASSERT_EQ(thread.Start(), 0);
        while (!running.load()) std::this_thread::yield();
        const unsigned long before = TGetTickCount();
        EXPECT_EQ(thread.JoinTo(100), 0);
        EXPECT_EQ(TGetTickCount() - before, 100u);
    }  // the destructor joins the cancelled thread; a hang here is the failure
    CkorFrameThread quick(&CountRun, nullptr);
    ASSERT_EQ(quick.Start(), 0);
    const unsigned long before = TGetTickCount();
    EXPECT_EQ(quick.JoinTo(0), 0);
    EXPECT_EQ(TGetTickCount(), before);
}

// ---------------------------------------------------------------------------------------------
// Events

// Verify the deadline arithmetic, including the carry of nanoseconds into seconds.
TEST(Event, DeadlineCarriesNanosecondsIntoSeconds) {
    struct Case {
        long sec, usec;
        unsigned long ms;
        long wantSec, wantNsec;
    } cases[] = {
        {10, 600000, 1500, 12, 100000000},  // 11 s + 1.1e9 ns carried
        {10, 0, 0, 10, 0},
        {10, 999999, 1, 11, 999000},
        {10, 400000, 600, 11, 0},           // exactly 1e9 ns carries
        {0, 1, 999, 0, 999001000},
        {100, 0, 0xFFFFFFFEul, 100 + 4294967, 294000000},
    };
    for (const auto& c : cases) {
        const timespec d = TEventDeadline(timeval{c.sec, c.usec}, c.ms);
        EXPECT_EQ(std::make_pair(d.tv_sec, d.tv_nsec), std::make_pair(c.wantSec, c.wantNsec))
            << c.sec << "." << c.usec << " + " << c.ms;
    }
}

// Verify that an auto-reset event releases exactly one wait and is then cleared.
TEST(Event, AutoResetReleasesOneWait) {
    CkorFrameEvent* event = TCreateEvent(1);
    ASSERT_NE(event, nullptr);
    EXPECT_FALSE(event->IsManualReset());
    EXPECT_EQ(TWaitForEvent(event, 0), TEVENT_OK);
    EXPECT_EQ(TWaitForEvent(event, 0), TEVENT_TIMEOUT);

    EXPECT_EQ(TSetEvent(event), TEVENT_OK);
    EXPECT_EQ(TWaitForEvent(event, TEVENT_INFINITE), TEVENT_OK);
    EXPECT_FALSE(event->IsSignalled());

    EXPECT_EQ(TSetEvent(event), TEVENT_OK);
    EXPECT_EQ(TResetEvent(event), TEVENT_OK);
    EXPECT_EQ(TWaitForEvent(event, 1), TEVENT_TIMEOUT);
    TCloseEvent(event);
    TCloseEvent(nullptr);
}

// Verify that a manual-reset event stays signalled for every waiter until it is reset, and that
// a set from another thread wakes a waiter blocked without limit.
TEST(Event, ManualResetAndSetFromAnotherThread) {
    CkorFrameEvent event(false, true);
    ASSERT_TRUE(event.InitEvent());
    EXPECT_EQ(event.SetEvent(), TEVENT_OK);
    EXPECT_EQ(event.WaitEvent(0), TEVENT_OK);
    EXPECT_EQ(event.WaitEvent(TEVENT_INFINITE), TEVENT_OK);
    EXPECT_TRUE(event.IsSignalled());
    EXPECT_EQ(event.ResetEvent(), TEVENT_OK);
    EXPECT_EQ(event.WaitEvent(0), TEVENT_TIMEOUT);

    CkorFrameEvent* created = TCreateEvent(0);
    ASSERT_NE(created, nullptr);
    std::thread setter([created] { TSetEvent(created); });
    EXPECT_EQ(TWaitForEvent(created, TEVENT_INFINITE), TEVENT_OK);
    setter.join();
    TCloseEvent(created);
}

// ---------------------------------------------------------------------------------------------
// Mutex

// Verify recursion, and that TWaitForMutex reports 0xFFFFFFFF although it holds the lock.
TEST(Mutex, RecursiveAndOddWaitResult) {
    CkorFrameMutex* mutex = TCreateMutex(1);
    EXPECT_EQ(TWaitForMutex(mutex, 10), 0xFFFFFFFFu);
    EXPECT_EQ(mutex->Lock(), 0);
    EXPECT_EQ(TReleaseMutex(mutex), 0);
    EXPECT_EQ(TReleaseMutex(mutex), 0);

    // Still held once: another thread cannot take it until the last release.
    std::atomic<bool> taken{false};
    std::thread other([&] {
        mutex->Lock();
        taken = true;
        mutex->unLock();
    });
    EXPECT_FALSE(taken.load());
    EXPECT_EQ(mutex->unLock(), 0);
    other.join();
    EXPECT_TRUE(taken.load());
    TCloseMutex(mutex);
    TCloseMutex(nullptr);
}

// ---------------------------------------------------------------------------------------------
// Clock

// Verify the millisecond and tick conversions, including the 32-bit wrap.
TEST(Clock, TickArithmetic) {
    EXPECT_EQ(TMillisFromNanos(0), 0u);
    EXPECT_EQ(TMillisFromNanos(999'999), 0u);
    EXPECT_EQ(TMillisFromNanos(1'000'000), 1u);
    EXPECT_EQ(TMillisFromNanos(4'294'967'296ull * 1'000'000ull), 0u);
    EXPECT_EQ(TMillisFromNanos(4'294'967'297ull * 1'000'000ull), 1u);
    EXPECT_EQ(TTicksFromNanos(16'666'666), 0u);
    EXPECT_EQ(TTicksFromNanos(16'666'667), 1u);
    EXPECT_EQ(TTicksFromNanos(1'000'000'000), 60u);
    EXPECT_EQ(TTicksFromNanos(4'294'967'296ull / 60 * 1'000'000'000ull + 2'000'000'000ull), 104u);
}

// Verify that every time source moves together on a virtual clock, and sleeps advance it.
TEST(Clock, VirtualClockDrivesEveryTimeSource) {
    TVirtualClock clock(0, 1'000);
    TScopedClock scoped(clock);
    EXPECT_EQ(TGetTickCount(), 0u);
    EXPECT_EQ(TTickCount(), 0u);

    clock.AdvanceTicks(3);
    EXPECT_EQ(TTickCount(), 3u);
    EXPECT_EQ(TGetTickCount(), 50u);
    for (int i = 0; i < 597; ++i) clock.AdvanceTicks(1);
    EXPECT_EQ(TTickCount(), 600u);
    EXPECT_EQ(TGetTickCount(), 10'000u);

    TSleepMicros(250'000);
    EXPECT_EQ(TGetTickCount(), 10'250u);
    timeval tv{};
    TGetTimeOfDay(&tv);
    EXPECT_EQ(tv.tv_sec, 1'010);
    EXPECT_EQ(tv.tv_usec, 250'000);

    clock.SetTimeOfDay(50, 999'999);
    clock.AdvanceMicros(1);
    TGetTimeOfDay(&tv);
    EXPECT_EQ(tv.tv_sec, 51);
    EXPECT_EQ(tv.tv_usec, 0);
}

// Verify that a scoped clock restores the one that was installed before.
TEST(Clock, ScopedClockRestores) {
    TClock* real = &TGetClock();
    {
        TVirtualClock outer(1'000'000'000);
        TScopedClock a(outer);
        {
            TVirtualClock inner(2'000'000'000);
            TScopedClock b(inner);
            EXPECT_EQ(TGetTickCount(), 2000u);
        }
        EXPECT_EQ(TGetTickCount(), 1000u);
    }
    EXPECT_EQ(&TGetClock(), real);
}

}  // namespace
