#include "LogindSleepWatcher.h"

#include "SdEventLoop.h"
#include "support/PrivateBus.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

void EmitPrepareForSleep(sd_bus* bus, bool preparing) {
    ASSERT_GE(sd_bus_emit_signal(bus, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                 "PrepareForSleep", "b", static_cast<int>(preparing)),
              0);
    sd_bus_flush(bus);
}

// Verify that only logind's PrepareForSleep(false), the resume, counts as a wake, and that the
// same signal from another sender does not.
TEST(LogindSleepWatcher, WakeOnResumeFromLogindOnly) {
    CPrivateBus daemon;
    ASSERT_TRUE(daemon.Ready()) << "dbus-daemon is needed (Debian package dbus-daemon)";
    std::string error;
    auto loop = CSdEventLoop::Create(&error);
    ASSERT_NE(loop, nullptr) << error;

    int wakes = 0;
    CLogindSleepWatcher watcher;
    ASSERT_TRUE(watcher.Start(loop->Event(), [&] { ++wakes; }, &error, daemon.Address().c_str()))
        << error;

    sd_bus* impostor = daemon.Connect();
    sd_bus* logind = daemon.Connect();
    ASSERT_NE(impostor, nullptr);
    ASSERT_NE(logind, nullptr);
    ASSERT_GE(sd_bus_request_name(logind, "org.freedesktop.login1", 0), 0);

    EmitPrepareForSleep(impostor, false);  // not logind: ignored
    EmitPrepareForSleep(logind, true);     // going to sleep: no wake yet
    EmitPrepareForSleep(logind, false);    // resumed
    for (int i = 0; i < 300 && wakes == 0; ++i) loop->RunOnce(10'000);
    for (int i = 0; i < 20; ++i) loop->RunOnce(1000);  // anything else pending
    EXPECT_EQ(wakes, 1);

    sd_bus_flush_close_unref(impostor);
    sd_bus_flush_close_unref(logind);
}

// Verify that a bus that does not answer is reported, not waited for.
TEST(LogindSleepWatcher, NoBusIsAnError) {
    std::string error;
    auto loop = CSdEventLoop::Create(&error);
    ASSERT_NE(loop, nullptr) << error;
    CLogindSleepWatcher watcher;
    EXPECT_FALSE(watcher.Start(loop->Event(), [] {}, &error,
                               "unix:path=/nonexistent/irframe-test-bus"));
    EXPECT_FALSE(error.empty());
}

}  // namespace
