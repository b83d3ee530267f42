// The driver's life end to end, where it meets signals and time: SIGTERM and SIGINT end it in
// order while it waits on a FIFO, SIGHUP reads its configuration file again, an emulated frame
// answers its polls through a long pause of a real-time replay. Every wait here has a bound many
// times what the answer needs; none is a measurement.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/PrivateBus.h"

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

namespace {

using testing::HasSubstr;
using Lines = std::vector<std::string>;

class DriverSignals : public testing::Test {
protected:
    std::string File(const std::string& name, const std::string& text) { return m_scratch.File(name, text); }
    std::string Fifo(const std::string& name) {
        const std::string path = m_scratch.Path(name);
        EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
        return path;
    }
    // irframed -vv (with `tool`, irframectl) with `args`, its output in the scratch directory.
    CChild Program(Lines args, bool tool = false) {
        Lines argv = tool ? Lines{IRFRAMECTL_PATH} : Lines{IRFRAMED_PATH, "-vv"};
        argv.insert(argv.end(), args.begin(), args.end());
        return CChild(std::move(argv), m_dir + "/stdout", m_dir + "/stderr");
    }

    CScratchDir m_scratch{"irframed_signals"};
    const std::string m_dir = m_scratch.Dir();
};

constexpr const char* kTap = "down 1 16000 16000\nhold 2\nup 1\n";

struct TFifoCase {
    const char* name;
    bool tool;           // irframectl, else irframed --dry-run
    const char* input;   // what the FIFO stands for: "gesture script" or "a configuration"
    int signal;
    int status;          // the program's status for an end asked for
    const char* ending;  // the line's words between the signal and the FIFO's name
};

class StopWhileOpening : public DriverSignals, public testing::WithParamInterface<TFifoCase> {};

// Verify that either program waiting for the writer of a FIFO it reads says so, and ends in
// order on SIGTERM or SIGINT with one line naming the signal. (A FIFO as an output is refused
// at once: tests/IrframectlOutput_test.cpp.)
TEST_P(StopWhileOpening, EndsInOrder) {
    const TFifoCase& c = GetParam();
    const std::string fifo = Fifo("fifo");
    const bool script = std::string(c.input) == "gesture script";
    Lines args = !c.tool ? Lines{"--no-config", "--dry-run", "--simulate", fifo}
                 : script ? Lines{"--simulate", fifo, "list"}
                          : Lines{"--simulate", File("tap.gesture", kTap), "config", "restore",
                                  "--yes", "--backup", m_dir + "/kept.json", fifo};
    CChild program = Program(args, c.tool);
    ASSERT_TRUE(program.Started());
    const std::string name = c.tool ? "irframectl: " : "";  // the driver's log is a log
    ASSERT_TRUE(program.WaitForErr(name + c.input + " '" + fifo +
                                   "' is a FIFO: waiting for a writer\n"))
        << program.Err();
    program.Signal(c.signal);
    EXPECT_EQ(program.Wait(), c.status) << program.Err();
    EXPECT_THAT(program.Err(),
                HasSubstr(std::string(c.tool ? "irframectl: " : "irframed: ") +
                          (c.signal == SIGINT ? "SIGINT" : "SIGTERM") + c.ending + " '" + fifo +
                          "': stopping\n"));
}

constexpr const char* kScriptWait = " while waiting for a writer to the gesture script";
INSTANTIATE_TEST_SUITE_P(
    Fifos, StopWhileOpening,
    testing::Values(
        TFifoCase{"DriverSigterm", false, "gesture script", SIGTERM, 0, kScriptWait},
        TFifoCase{"DriverSigint", false, "gesture script", SIGINT, 0, kScriptWait},
        TFifoCase{"ToolSigterm", true, "gesture script", SIGTERM, 5, kScriptWait},
        TFifoCase{"ToolSigint", true, "gesture script", SIGINT, 5, kScriptWait},
        TFifoCase{"ToolConfiguration", true, "a configuration", SIGTERM, 5,
                  " while reading a configuration"}),
    [](const auto& info) { return std::string(info.param.name); });

// Verify that a bus that takes the connection and never answers holds neither program past
// SIGTERM: the driver goes on without it and ends in order; the tool ends as cancelled.
TEST_F(DriverSignals, StopWhileTheBusDoesNotAnswer) {
    const struct {
        bool tool;
        int status;
        const char* said;
    } cases[] = {
        {false, 0, "no session bus (stopped while waiting for the bus to answer)"},
        {true, 5, "irframectl: SIGTERM while waiting for an answer (looking for the driver on "
                  "the bus): stopping\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.tool ? "irframectl" : "irframed");
        const std::string socketPath = m_dir + (c.tool ? "/tool-bus" : "/driver-bus");
        const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(listen(listener, 8), 0);
        // The session bus, and the driver's system bus too.
        const std::string bus = "unix:path=" + socketPath;
        setenv("DBUS_SESSION_BUS_ADDRESS", bus.c_str(), 1);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.c_str(), 1);
        CChild program = Program(c.tool ? Lines{"list"}
                               : Lines{"--no-config", "--dry-run", "--simulate",
                                       File("tap.gesture", kTap) + "@60s"},
                        c.tool);
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
        // Connected: the program waits for the bus's greeting now, its signals in its hands.
        const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        ASSERT_GE(connection, 0);
        program.Signal(SIGTERM);
        EXPECT_EQ(program.Wait(), c.status) << program.Err();
        EXPECT_THAT(program.Err(), HasSubstr(c.said));
        close(connection);
        close(listener);
    }
}

// Verify that a wake from sleep, which ends the driver at once, still puts the dry run's output
// file in place with the lines so far.
TEST_F(DriverSignals, WakeFromSleepKeepsTheOutputFile) {
    CPrivateBus daemon;  // the session bus, and the system bus too
    ASSERT_TRUE(daemon.Ready()) << "dbus-daemon is needed (Debian package dbus-daemon)";
    sd_bus* logind = daemon.Connect();
    ASSERT_NE(logind, nullptr);
    ASSERT_GE(sd_bus_request_name(logind, "org.freedesktop.login1", 0), 0);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", daemon.Address().c_str(), 1);
    const std::string out = m_dir + "/out.json";
    CChild driver = Program({"--no-config", "--dry-run", "--output", out, "--realtime", "--simulate",
                           File("long.gesture", "down 1 10000 10000\nmove 1 14000 12000 in 1000\n")});
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    ASSERT_TRUE(driver.WaitForErr("\ndrag\n")) << driver.Err();
    ASSERT_GE(sd_bus_emit_signal(logind, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                 "PrepareForSleep", "b", 0),
              0);
    sd_bus_flush(logind);
    EXPECT_EQ(driver.Wait(), 0) << driver.Err();
    EXPECT_THAT(ReadFile(out), testing::StartsWith("{\"device\":1,\"type\":\"leftMouseDown\""));
    sd_bus_flush_close_unref(logind);
}

// Verify that a script through a FIFO is played once its writer has written it.
TEST_F(DriverSignals, ScriptThroughAFifoPlays) {
    const std::string fifo = Fifo("fifo");
    CChild driver = Program({"--no-config", "--dry-run", "--simulate", fifo});
    ASSERT_TRUE(driver.WaitForErr("waiting for a writer"));
    std::ofstream(fifo) << kTap;
    EXPECT_EQ(driver.Wait(), 0) << driver.Err();
    EXPECT_THAT(driver.Out(), HasSubstr("\"leftMouseUp\""));
}

// Verify that a real-time replay through a 10 s pause keeps its frame: the frame answers the
// polls meanwhile, every scripted frame is played and both taps press and release. (The events
// in between follow real time stamps, which a loaded machine stretches: they are not compared.)
TEST_F(DriverSignals, RealTimeReplayThroughALongPause) {
    const std::string script =
        File("pause.gesture", std::string(kTap) + "wait 10s\n" + kTap);
    CChild realTime = Program({"--no-config", "--dry-run", "--simulate", script, "--realtime"});
    EXPECT_EQ(realTime.Wait(), 0) << realTime.Err();
    const Lines events = SplitLines(realTime.Out());
    const auto count = [&](const std::string& type) {
        return std::count_if(events.begin(), events.end(), [&](const std::string& e) {
            return e.find(type) != std::string::npos;
        });
    };
    EXPECT_EQ(count("\"leftMouseDown\""), 2) << realTime.Out();
    EXPECT_EQ(count("\"leftMouseUp\""), 2) << realTime.Out();
    EXPECT_THAT(realTime.Err(), HasSubstr("8 of 8 scripted frames played, closed by the driver"));
    EXPECT_THAT(realTime.Err(), testing::Not(HasSubstr("stopped answering")));
}

// Verify that SIGHUP reads the configuration file again: a file with a mistake keeps the one in
// force and says where the mistake is; a good one changes the chord of the next pinch at once
// and names what waits for a restart. The frame comes 8 s after the start, long after both
// reloads (each takes milliseconds).
TEST_F(DriverSignals, HangupReloadsTheConfiguration) {
    const std::string config = File("irframe.toml", "[shortcuts]\npinch = \"ctrl+alt+minus\"\n");
    const std::string pinch = File("pinch.gesture", "down 1 10000 10000, 2 20000 10000\n"
                                                    "move 1 11000 10000 in 10\nup 1, 2\n");
    CChild driver = Program({"--config", config, "--dry-run", "--simulate", pinch + "@8s"});
    ASSERT_TRUE(driver.WaitForErr("configuration " + config)) << driver.Err();

    File("irframe.toml", "[shortcuts]\npinch = \"ctrl+shift+minus\"\n[screen]\nsize = 7\n");
    driver.Signal(SIGHUP);
    ASSERT_TRUE(driver.WaitForErr("configuration not reloaded, the one in force stays: " +
                                  config + ":4:"))
        << driver.Err();

    File("irframe.toml", "[shortcuts]\npinch = \"ctrl+shift+minus\"\n[output.tuio]\n"
                         "enabled = true\n");
    driver.Signal(SIGHUP);
    ASSERT_TRUE(driver.WaitForErr("configuration reloaded from " + config)) << driver.Err();
    EXPECT_TRUE(driver.WaitForErr("configuration: output.tuio changed: in force after a restart"))
        << driver.Err();

    EXPECT_EQ(driver.Wait(), 0) << driver.Err();
    const std::string events = driver.Out();
    EXPECT_THAT(events, HasSubstr(R"("linuxKeys":["KEY_LEFTCTRL","KEY_LEFTSHIFT","KEY_MINUS"])"));
    EXPECT_THAT(events, testing::Not(HasSubstr("KEY_LEFTALT")));
}

}  // namespace
