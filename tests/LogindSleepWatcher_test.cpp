#include "LogindSleepWatcher.h"

#include "SdEventLoop.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

extern char** environ;

namespace {

// A private bus daemon standing in for the system bus, so that a test can play logind.
class CPrivateBus {
public:
    CPrivateBus() {
        char dir[] = "/tmp/irframe-bus-XXXXXX";
        if (mkdtemp(dir) == nullptr) return;
        m_dir = dir;
        const std::string socket = m_dir + "/bus";
        const std::string config = m_dir + "/bus.conf";
        std::ofstream(config)
            << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
               " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
               "<busconfig><type>session</type><listen>unix:path=" << socket << "</listen>"
               "<auth>EXTERNAL</auth><policy context=\"default\"><allow send_destination=\"*\"/>"
               "<allow receive_sender=\"*\"/><allow own=\"*\"/></policy></busconfig>\n";
        const std::string configArg = "--config-file=" + config;
        const char* argv[] = {"dbus-daemon", configArg.c_str(), "--nofork", "--nopidfile",
                              nullptr};
        if (posix_spawnp(&m_pid, "dbus-daemon", nullptr, nullptr, const_cast<char**>(argv),
                         environ) != 0) {
            m_pid = -1;
            return;
        }
        // Wait (bounded) for the socket to appear.
        struct stat info;
        for (int i = 0; i < 6000 && stat(socket.c_str(), &info) != 0; ++i) usleep(10'000);
        m_address = "unix:path=" + socket;
    }
    ~CPrivateBus() {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
        }
        if (!m_dir.empty()) {
            std::remove((m_dir + "/bus").c_str());
            std::remove((m_dir + "/bus.conf").c_str());
            rmdir(m_dir.c_str());
        }
    }
    bool Ready() const { return m_pid > 0 && !m_address.empty(); }
    const std::string& Address() const { return m_address; }

private:
    pid_t m_pid = -1;
    std::string m_dir;
    std::string m_address;
};

sd_bus* Connect(const std::string& address) {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0) return nullptr;
    if (sd_bus_set_address(bus, address.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
        sd_bus_start(bus) < 0) {
        sd_bus_unref(bus);
        return nullptr;
    }
    return bus;
}

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
    if (!daemon.Ready()) GTEST_SKIP() << "dbus-daemon is not available";
    std::string error;
    auto loop = CSdEventLoop::Create(&error);
    ASSERT_NE(loop, nullptr) << error;

    int wakes = 0;
    CLogindSleepWatcher watcher;
    ASSERT_TRUE(watcher.Start(loop->Event(), [&] { ++wakes; }, &error, daemon.Address().c_str()))
        << error;

    sd_bus* impostor = Connect(daemon.Address());
    sd_bus* logind = Connect(daemon.Address());
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
