// The driver binary end to end: irframed runs against simulated frames (the real hidraw port
// code over socketpairs, discovery, workers, calibration, tracking, gestures) and prints its
// events as JSON lines, which are compared here. Each gesture family, hot-plug, the worker's
// retry limits, unplugging with the button held and two frames at once.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ChildProcess.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Lines = std::vector<std::string>;

struct TRun {
    int status = -1;  // exit status, or -1 when it did not exit normally
    Lines events;     // each JSON line in short form (see Short)
    Lines linuxKeys;  // the "linuxKeys" member of each key line, as JSON
    Lines log;        // standard error, line by line
    std::string logText;
    std::string printed;  // standard output
    std::string outputWhenSignalled;  // the output file as the signal was sent
};

// One event in a form a test can spell: "leftMouseDown 938,527", "keyDown 124 cmd",
// "scroll 50", with "dN " in front when the device number is not 1.
std::string Short(const nlohmann::json& e) {
    std::string out;
    const int device = e.at("device").get<int>();
    if (device != 1) out = "d" + std::to_string(device) + " ";
    const std::string type = e.at("type").get<std::string>();
    if (type == "scrollWheel") return out + "scroll " + std::to_string(e.at("wheel1").get<int>());
    if (type == "keyDown" || type == "keyUp") {
        out += type + " " + std::to_string(e.at("keyCode").get<int>());
        const uint64_t flags = e.at("flags").get<uint64_t>();
        if (flags & 0x100000) out += " cmd";
        if (flags & 0x40000) out += " ctrl";
        if (flags & 0x800000) out += " fn";
        return out;
    }
    out += type + " " + std::to_string(std::lround(e.at("x").get<double>())) + "," +
           std::to_string(std::lround(e.at("y").get<double>()));
    if (e.contains("clickState")) out += " click=" + std::to_string(e.at("clickState").get<int>());
    return out;
}

// The events of device 1 and of device 2, each in its order.
std::pair<Lines, Lines> SplitByDevice(const Lines& events) {
    Lines first, second;
    for (const std::string& e : events) (e.rfind("d2 ", 0) == 0 ? second : first).push_back(e);
    return {first, second};
}

class Irframed : public testing::Test {
protected:
    // Writes a gesture script and returns its path.
    std::string Script(const std::string& name, const std::string& text) { return m_scratch.File(name, text); }

    // Runs the driver with `args` and --dry-run into a file; ends it if it hangs. With
    // `signalWhen`, sends SIGTERM once the log holds that line.
    TRun Run(Lines args, bool dryRun = true, const std::string& signalWhen = "") {
        const std::string out = m_dir + "/out.json";
        const std::string err = m_dir + "/err.txt";
        // Every trace line: several cases count the system's own lines. No configuration file
        // of the machine's unless the case asks for one.
        Lines argv{IRFRAMED_PATH, "-vv"};
        if (!m_readConfig && std::find(args.begin(), args.end(), "--config") == args.end()) {
            argv.push_back("--no-config");
        }
        if (dryRun) {
            argv.insert(argv.end(), {"--dry-run", "--output", out});
        }
        argv.insert(argv.end(), args.begin(), args.end());
        const std::string printed = m_dir + "/stdout.txt";
        CChild child(argv, printed, err);
        TRun run;
        if (!signalWhen.empty() && child.WaitForErr("\n" + signalWhen + "\n")) {
            run.outputWhenSignalled = ReadFile(out);
            child.Signal(SIGTERM);
        }
        run.status = child.Wait();
        run.logText = ReadFile(err);
        run.printed = ReadFile(printed);
        // Under a sanitizer build of the driver, a report is a failure of whatever case ran.
        EXPECT_EQ(run.logText.find("Sanitizer"), std::string::npos) << run.logText;
        run.log = SplitLines(run.logText);
        for (const std::string& line : SplitLines(ReadFile(out))) {
            const nlohmann::json e = nlohmann::json::parse(line, nullptr, false);
            if (e.is_discarded()) {
                ADD_FAILURE() << "not a JSON line: " << line;
                continue;
            }
            run.events.push_back(Short(e));
            if (e.contains("linuxKeys")) run.linuxKeys.push_back(e["linuxKeys"].dump());
        }
        return run;
    }

    static size_t Count(const TRun& run, const std::string& line) {
        return static_cast<size_t>(std::count(run.log.begin(), run.log.end(), line));
    }

    CScratchDir m_scratch{"irframed_test"};
    const std::string m_dir = m_scratch.Dir();
    bool m_readConfig = false;  // let the driver look for its configuration file
};

// Screen 1920 x 1080: an absolute unit is 1920/32767 points across, 1080/32767 down.
constexpr const char* kTap = "down 1 16000 16000\nhold 2\nup 1\n";
// A drag that is still held when the script (and so the device) ends.
constexpr const char* kHeldDrag = "down 1 10000 10000\nmove 1 14000 12000 in 20\n";

// ---------------------------------------------------------------------------------------------
// Gesture families

// Verify that a second quick tap at the same place makes a double click.
TEST_F(Irframed, OneFingerDoubleTapDoubleClicks) {
    const TRun run = Run({"--simulate", Script("dbl", "down 1 16000 16000\nup 1\nhold 3\n"
                                                      "down 1 16000 16000\nup 1\nhold 3\n")});
    EXPECT_EQ(run.status, 0) << run.logText;
    ASSERT_FALSE(run.events.empty());
    EXPECT_THAT(run.events, testing::Contains(HasSubstr("click=2")));
}

// Verify that the dry run shows what the uinput device would press: the gesture posts the same
// shortcut under every profile, and only "linuxKeys" tells them apart.
TEST_F(Irframed, DryRunShowsTheKeysOfEachProfile) {
    std::string orbit = "down 1 16000 16000, 2 20698 17710\n";
    for (int a = 25; a <= 80; a += 5) {
        const double rad = a * M_PI / 180.0;
        orbit += "move 2 " + std::to_string(std::lround(16000 + 5000 * std::cos(rad))) + " " +
                 std::to_string(std::lround(16000 + 5000 * std::sin(rad))) + " in 1\n";
    }
    const std::string rotate = Script("rotate", orbit + "up 1, 2\n");
    const TRun byDefault = Run({"--simulate", rotate});
    const TRun desktop = Run({"--simulate", rotate, "--keys", "desktop"});
    const TRun literal = Run({"--simulate", rotate, "--keys", "literal"});
    for (const TRun* run : {&byDefault, &desktop, &literal}) {
        EXPECT_THAT(run->events, ElementsAre("keyDown 15 cmd", "keyUp 15 cmd"));
    }
    EXPECT_THAT(byDefault.linuxKeys, ElementsAre("[]", "[]"));
    EXPECT_THAT(desktop.linuxKeys, ElementsAre(R"(["KEY_LEFTCTRL","KEY_R"])",
                                               R"(["KEY_R","KEY_LEFTCTRL"])"));
    EXPECT_THAT(literal.linuxKeys, ElementsAre(R"(["KEY_LEFTMETA","KEY_R"])",
                                               R"(["KEY_R","KEY_LEFTMETA"])"));
}

// ---------------------------------------------------------------------------------------------
// Configuration file

// Verify that [gestures] enabled = false turns the gestures off as --no-gestures does, and that
// --no-gestures wins over a file that turns them on.
TEST_F(Irframed, GesturesOffFromTheFileOrTheCommandLine) {
    const std::string tap = Script("tap", "down 1 10000 10000\nup 1\n");
    const std::string off = Script("off.toml", "[gestures]\nenabled = false\n");
    const std::string on = Script("on.toml", "[gestures]\nenabled = true\n");
    struct TCase {
        std::vector<std::string> args;
        bool posts;
    };
    const TCase cases[] = {{{"--config", on}, true},
                           {{"--config", off}, false},
                           {{"--config", on, "--no-gestures"}, false}};
    for (const TCase& c : cases) {
        std::vector<std::string> args = c.args;
        args.insert(args.end(), {"--simulate", tap});
        const TRun run = Run(args);
        EXPECT_EQ(run.status, 0) << run.logText;
        EXPECT_EQ(run.events.empty(), !c.posts) << c.args[1];
        args = c.args;
        args.push_back("--print-config");
        EXPECT_THAT(Run(args).printed,
                    HasSubstr(c.posts ? "\nenabled = true\n" : "\nenabled = false\n"));
    }
}

// Verify that --print-config prints what is in force, command line over file over defaults,
// that the file it prints reads back to the same, and that a run with it presses what it says.
TEST_F(Irframed, PrintConfigReadsBackAndDrivesTheKeys) {
    const std::string file = Script("irframe.toml", "[keys]\nprofile = \"desktop\"\n"
                                                   "[shortcuts]\npinch = \"ctrl+alt+minus\"\n");
    const TRun printed = Run({"--config", file, "--screen", "1280x800", "--print-config"});
    EXPECT_EQ(printed.status, 0) << printed.logText;
    EXPECT_EQ(printed.logText, "");
    EXPECT_THAT(printed.printed, HasSubstr("\nlog_level = \"debug\"\n"));  // -vv
    EXPECT_THAT(printed.printed, HasSubstr("\nsize = \"1280x800\"\n"));
    EXPECT_THAT(printed.printed, HasSubstr("\nprofile = \"desktop\"\n"));
    EXPECT_THAT(printed.printed, HasSubstr("\nrotate-clockwise = \"ctrl+r\"  #"));
    EXPECT_THAT(printed.printed, HasSubstr("\npinch = \"ctrl+alt+minus\"  #"));

    const std::string again = Script("printed.toml", printed.printed);
    const TRun reread = Run({"--config", again, "--print-config"});
    EXPECT_EQ(reread.status, 0) << reread.logText;
    EXPECT_EQ(reread.printed, printed.printed);

    const std::string pinch = Script("pinch", "down 1 10000 10000, 2 20000 10000\n"
                                              "move 1 11000 10000 in 10\nup 1, 2\n");
    const TRun run = Run({"--config", file, "--simulate", pinch});
    EXPECT_EQ(run.status, 0) << run.logText;
    EXPECT_THAT(run.events, ElementsAre("keyDown 27 cmd", "keyUp 27 cmd"));
    EXPECT_THAT(run.linuxKeys, ElementsAre(R"(["KEY_LEFTCTRL","KEY_LEFTALT","KEY_MINUS"])",
                                           R"(["KEY_MINUS","KEY_LEFTALT","KEY_LEFTCTRL"])"));
}

// Verify that the user's file is found through XDG_CONFIG_HOME, and --no-config skips it.
TEST_F(Irframed, FindsTheUsersConfiguration) {
    ASSERT_EQ(mkdir((m_dir + "/irframe").c_str(), 0700), 0);
    const std::string file = Script("irframe/irframe.toml", "[keys]\nprofile = \"literal\"\n");
    const char* before = std::getenv("XDG_CONFIG_HOME");
    const std::string saved = before != nullptr ? before : "";
    setenv("XDG_CONFIG_HOME", m_dir.c_str(), 1);
    m_readConfig = true;
    const TRun found = Run({"--print-config"});
    const TRun skipped = Run({"--no-config", "--print-config"});
    before != nullptr ? setenv("XDG_CONFIG_HOME", saved.c_str(), 1) : unsetenv("XDG_CONFIG_HOME");
    std::remove(file.c_str());
    rmdir((m_dir + "/irframe").c_str());
    EXPECT_THAT(found.printed, HasSubstr("\nprofile = \"literal\"\n"));
    EXPECT_THAT(skipped.printed, HasSubstr("\nprofile = \"safe\"\n"));
}

// Verify that a configuration file the driver cannot use stops it with one line: status 1 when
// it cannot be read, 2 when it says something wrong.
TEST_F(Irframed, BadConfigurationStopsWithOneLine) {
    struct Case {
        Lines args;
        int status;
        std::string line;
    };
    const std::string tap = Script("tap", kTap);
    const std::string unknown = Script("unknown.toml", "[screen]\nsise = \"1x1\"\n");
    const Case cases[] = {
        {{"--config", unknown}, 2,
         "irframed: " + unknown + ":2:1: unknown key \"sise\" in [screen]; valid keys: size, "
         "output"},
        {{"--config", m_dir}, 1,
         "irframed: configuration " + m_dir + " is a directory; give the file inside it"},
        {{"--config", unknown, "--no-config"}, 2,
         "irframed: --config and --no-config exclude each other"},
    };
    for (const Case& c : cases) {
        Lines args = c.args;
        args.insert(args.end(), {"--simulate", tap});
        const TRun run = Run(args);
        EXPECT_EQ(run.status, c.status) << run.logText;
        ASSERT_EQ(run.log.size(), 1u) << run.logText;
        EXPECT_THAT(run.log[0], testing::StartsWith(c.line));
        EXPECT_TRUE(run.events.empty());
    }
}

// ---------------------------------------------------------------------------------------------
// Devices coming and going

// Verify that a frame plugged in while the driver runs is served like one present at start.
TEST_F(Irframed, HotPlugAddAndRemove) {
    const std::string tap = Script("tap", kTap);
    const TRun run = Run({"--simulate", tap, "--simulate", tap + "@300ms"});
    EXPECT_EQ(run.status, 0) << run.logText;
    // Each device's events in its own order (a slow machine may still be serving the first).
    const auto [first, second] = SplitByDevice(run.events);
    EXPECT_THAT(first, ElementsAre("leftMouseDown 938,527", "leftMouseDragged 938,527",
                                   "leftMouseUp 938,527"));
    EXPECT_THAT(second, ElementsAre("d2 leftMouseDown 938,527", "d2 leftMouseDragged 938,527",
                                    "d2 leftMouseUp 938,527"));
    EXPECT_EQ(Count(run, "hid add"), 2u);
    EXPECT_EQ(Count(run, "remove"), 2u);
    EXPECT_EQ(Count(run, "TOUCH DEV RELEASE"), 2u);
    EXPECT_EQ(Count(run, "THREAD QUIT"), 2u);
}

// Verify that unplugging a frame while its button is held releases the button at once, at the
// screen's origin, and ends the worker, which sends the gone device nothing but gives back its
// handle.
TEST_F(Irframed, UnplugWhileHeldReleasesButton) {
    const TRun run = Run({"--simulate", Script("held", kHeldDrag)});
    ASSERT_GE(run.events.size(), 3u);
    EXPECT_EQ(run.events.front(), "leftMouseDown 598,333");
    EXPECT_EQ(run.events.back(), "leftMouseUp 0,0");
    EXPECT_THAT(run.log, testing::IsSupersetOf({"remove", "releaseclick", "TOUCH DEV RELEASE",
                                                "THREAD QUIT"}));
    EXPECT_EQ(Count(run, "pDev->faildCount==0"), 0u);
    // The gone device's handle is given back (a hidraw node held open keeps its number).
    EXPECT_THAT(run.logText, HasSubstr("played, closed by the driver"));
}

// Verify that SIGTERM ends the driver in order: the held button is released, the device is
// closed, the exit status is 0, and the output file, which held an earlier run until then, is
// replaced whole with this one's lines, its mode kept.
TEST_F(Irframed, TerminationSignalEndsInOrder) {
    const std::string out = m_dir + "/out.json";
    std::ofstream(out) << "an earlier run\n";
    ASSERT_EQ(chmod(out.c_str(), 0640), 0);
    // Ten seconds of drag in real time: the signal comes long before the script ends.
    const TRun run = Run({"--realtime", "--simulate",
                          Script("long", "down 1 10000 10000\nmove 1 14000 12000 in 1000\n")},
                         true, "drag");
    EXPECT_EQ(run.outputWhenSignalled, "an earlier run\n");
    struct stat st {};
    ASSERT_EQ(stat(out.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(run.status, 0) << run.logText;
    ASSERT_FALSE(run.events.empty());
    EXPECT_EQ(run.events.back(), "leftMouseUp 0,0");
    EXPECT_THAT(run.log, testing::IsSupersetOf({"SIGTERM: stopping", "releaseclick",
                                                "THREAD QUIT"}));
    EXPECT_THAT(run.logText, HasSubstr("closed by the driver"));
}

// ---------------------------------------------------------------------------------------------
// The worker's retry limits

// Verify that each --fault kind reaches the worker's limits: nine failed configuration reads or
// first frames and five failed polls in a row are survived; ten, ten and six end the worker with
// its line, the device closed and a held button released at the origin. A frame of the third
// id pair is served like the others.
TEST_F(Irframed, WorkerRetryLimits) {
    const std::string tap = Script("tap", kTap);
    const std::string drag = Script("drag", std::string(kHeldDrag) + "up 1\n");
    const struct {
        Lines args;
        const char* line;  // the worker's line when it gives up
        bool givesUp;
        size_t failedPolls;  // "getsdk->err:2": the injected ones, and the poll that finds the
                             // frame gone after its script
        const char* lastEvent;
    } cases[] = {
        {{"--simulate", tap, "--fault", "config:9"}, "GETCFG_ERR", false, 1, "leftMouseUp 938,527"},
        {{"--simulate", tap, "--fault", "config:10"}, "GETCFG_ERR", true, 0, ""},
        {{"--simulate", tap, "--fault", "frame:9", "--simulate-id", "202E:0006"}, "GETFRAME_ERR",
         false, 1, "leftMouseUp 938,527"},
        {{"--simulate", tap, "--fault", "frame:10"}, "GETFRAME_ERR", true, 0, ""},
        {{"--simulate", drag, "--fault", "poll:5@5"}, "pDev->faildCount==0", false, 5 + 1,
         "leftMouseUp 820,396"},
        {{"--simulate", drag, "--fault", "poll:6@5"}, "pDev->faildCount==0", true, 6,
         "leftMouseUp 0,0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[3]);
        const TRun run = Run(c.args);
        EXPECT_EQ(run.status, 0) << run.logText;
        EXPECT_EQ(Count(run, c.line), c.givesUp ? 1u : 0u);
        EXPECT_EQ(Count(run, "getsdk->err:2"), c.failedPolls);
        // Only a worker that reached its polls quits them.
        EXPECT_EQ(Count(run, "THREAD QUIT"), c.failedPolls > 0 ? 1u : 0u);
        EXPECT_EQ(run.events.empty() ? "" : run.events.back(), c.lastEvent);
        if (c.givesUp) {
            EXPECT_THAT(run.logText, HasSubstr("closed by the driver"));
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Usage

TEST_F(Irframed, UsageErrorsSayWhatIsWrong) {
    struct Case {
        Lines args;
        int status;
        const char* message;
    };
    const std::string tap = Script("tap", kTap);
    const std::string bad = Script("bad", "down 1 16000 16000\nwiggle 1\n");
    const Case cases[] = {
        {{"--simulate", tap, "--screen", "wide"}, 2, "is not WIDTHxHEIGHT"},
        {{"--simulate", tap, "--screen", "1920x1080+10"}, 2, "is not WIDTHxHEIGHT"},
        {{"--simulate", tap, "--display", "HDMI-1"}, 2, "'HDMI-1' cannot be looked up"},
        {{"--simulate", tap, "--keys", "emacs"}, 2, "use 'safe', 'literal' or 'desktop'"},
        {{"--simulate", m_dir + "/missing"}, 1, "cannot read gesture script"},
        {{"--simulate", bad}, 2, "line 2"},
        {{"--simulate", tap, "--fault", "2:poll:6"}, 2, "with N a simulated frame (1..1)"},
        {{"--simulate", tap + "@soon"}, 2, "bad plug-in delay"},
        {{"--fault", "config:1"}, 2, "need --simulate"},
        {{"--simulate", m_dir}, 1, "it is a directory"},
        {{"--simulate", Script("empty", "")}, 2, "plays no frame"},
        {{"--simulate", Script("comments", "# nothing\n\n")}, 2, "plays no frame"},
        {{"--simulate", tap, "--log-level", "loud"}, 2, "use error, warning, info or debug"},
        {{"--simulate", tap, "--tuio", "localhost:0"}, 2, "the port must be a number 1..65535"},
        {{"--simulate", tap, "--touchscreen"}, 2, "cannot go with --dry-run"},
        {{"--simulate", tap, "--simulate-id", "1234:5678"}, 2,
         "--simulate-id '1234:5678' is not a frame the driver serves: use AAEC:C020, AAEC:C021 "
         "or 202E:0006"},
    };
    for (const Case& c : cases) {
        const TRun run = Run(c.args);
        EXPECT_EQ(run.status, c.status) << run.logText;
        EXPECT_THAT(run.logText, HasSubstr(c.message));
        EXPECT_TRUE(run.events.empty());
    }
}

// Verify that events stay in the chosen screen's own points wherever it lies on the desktop:
// the virtual pointer, not the gestures, adds the screen's place.
TEST_F(Irframed, PlacedScreenKeepsScreenPoints) {
    const std::string tap = Script("tap", kTap);
    const TRun here = Run({"--simulate", tap, "--screen", "1920x1080"});
    const TRun there =
        Run({"--simulate", tap, "--screen", "1920x1080+2560+0", "--display", "HDMI-1"});
    EXPECT_EQ(there.status, 0) << there.logText;
    ASSERT_FALSE(there.events.empty());
    EXPECT_EQ(there.events, here.events);
    EXPECT_THAT(there.logText, HasSubstr("screen 1920x1080 (--screen as output HDMI-1 at "
                                         "+2560+0 of 4480x1080 (simulation))"));
}

// ---------------------------------------------------------------------------------------------
// TUIO output

// oscdump (liblo-tools), an OSC receiver of its own, listening on a free loopback port and
// writing one line per message into a file.
class COscDump {
public:
    explicit COscDump(std::string file) : m_file(std::move(file)) {
        m_socket = socket(AF_INET, SOCK_DGRAM, 0);
        for (int attempt = 0; attempt < 5 && !Start(); ++attempt) {
        }
    }
    ~COscDump() {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
        }
        close(m_socket);
        std::remove(m_file.c_str());
    }
    uint16_t Port() const { return m_port; }
    bool Listening() const { return m_pid > 0; }

    // Every line received so far: a marker sent now comes after all that was sent before.
    Lines Received() {
        const std::string marker = "/marker" + std::to_string(++m_markers);
        if (!WaitFor(marker)) return {};
        Lines lines;
        for (const std::string& line : SplitLines(ReadFile(m_file))) {
            if (line.find("/marker") == std::string::npos) lines.push_back(line);
        }
        return lines;
    }

private:
    bool Start() {
        // A port that was free a moment ago; if someone takes it first, oscdump ends and the
        // next attempt takes another one.
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int probe = socket(AF_INET, SOCK_DGRAM, 0);
        socklen_t length = sizeof address;
        bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
        getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
        close(probe);
        m_port = ntohs(address.sin_port);

        const std::string port = std::to_string(m_port);
        std::string program = "oscdump", lineBuffered = "-L", portArg = port;
        char* argv[] = {program.data(), lineBuffered.data(), portArg.data(), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, m_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0600);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        const int spawned = posix_spawnp(&m_pid, "oscdump", &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        if (spawned != 0) {
            ADD_FAILURE() << "cannot start oscdump: install liblo-tools (scripts/setup.sh)";
            m_pid = -1;
            return true;  // no point in trying again
        }
        if (WaitFor("/marker0")) return true;
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
        return false;
    }

    // Sends the OSC message `path` (no arguments) until oscdump has written it. False when
    // oscdump ended (the port was taken) or never answered.
    bool WaitFor(const std::string& path) {
        std::vector<char> message(path.begin(), path.end());
        message.resize((path.size() + 4) & ~size_t{3}, '\0');
        message.insert(message.end(), {',', '\0', '\0', '\0'});
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        to.sin_port = htons(m_port);
        // A safety net, not a measurement: oscdump answers in milliseconds.
        for (int waited = 0; waited < 60'000; waited += 20) {
            if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
                m_pid = -1;
                return false;
            }
            if (waited % 200 == 0) {
                sendto(m_socket, message.data(), message.size(), 0,
                       reinterpret_cast<sockaddr*>(&to), sizeof to);
            }
            if (ReadFile(m_file).find(path + " ") != std::string::npos) return true;
            usleep(20'000);
        }
        ADD_FAILURE() << "oscdump did not answer on port " << m_port;
        return false;
    }

    std::string m_file;
    int m_socket = -1;
    pid_t m_pid = -1;
    uint16_t m_port = 0;
    int m_markers = 0;
};

// One /tuio/2Dcur bundle from oscdump's lines.
struct TTuioBundle {
    std::string source;
    std::vector<int> alive;
    std::vector<std::vector<double>> sets;  // session, x, y, X, Y, m
    int fseq = -1;
};

// oscdump writes "TIMETAG /tuio/2Dcur TYPES ARGS..."; each bundle starts with its `source`.
std::vector<TTuioBundle> TuioBundles(const Lines& lines) {
    std::vector<TTuioBundle> bundles;
    for (const std::string& line : lines) {
        std::istringstream in(line);
        std::string stamp, path, types, command;
        in >> stamp >> path >> types >> command;
        if (path != "/tuio/2Dcur") {
            ADD_FAILURE() << "unexpected message: " << line;
            continue;
        }
        if (command == "\"source\"") bundles.emplace_back();
        if (bundles.empty()) {
            ADD_FAILURE() << "a message before the first source: " << line;
            continue;
        }
        TTuioBundle& b = bundles.back();
        if (command == "\"source\"") {
            in >> b.source;
        } else if (command == "\"alive\"") {
            for (int id; in >> id;) b.alive.push_back(id);
        } else if (command == "\"set\"") {
            b.sets.emplace_back();
            for (double v; in >> v;) b.sets.back().push_back(v);
        } else if (command == "\"fseq\"") {
            in >> b.fseq;
        }
    }
    return bundles;
}

// Verify that --tuio sends a script's touch as TUIO cursors that a receiver of its own reads,
// and leaves the events unchanged.
TEST_F(Irframed, TuioOutputSendsTheTouchAsACursor) {
    // 30 frames 10 ms apart (virtual clock) from (8000, 8000) to (14000, 12000) of 32767.
    const std::string drag =
        Script("drag", "rate 100\ndown 1 8000 8000\nmove 1 14000 12000 in 30\nup 1\nhold 1\n");
    const TRun plain = Run({"--simulate", drag});
    const std::string plainJson = ReadFile(m_dir + "/out.json");
    COscDump dump(m_dir + "/oscdump.txt");
    ASSERT_TRUE(dump.Listening());
    const TRun run =
        Run({"--simulate", drag, "--tuio", "127.0.0.1:" + std::to_string(dump.Port())});
    EXPECT_EQ(run.status, 0) << run.logText;
    EXPECT_EQ(ReadFile(m_dir + "/out.json"), plainJson);
    EXPECT_FALSE(plainJson.empty());
    EXPECT_THAT(run.logText, testing::Not(HasSubstr("TUIO")));  // nothing to warn about

    const std::vector<TTuioBundle> bundles = TuioBundles(dump.Received());
    ASSERT_GE(bundles.size(), 4u);
    EXPECT_TRUE(bundles.front().alive.empty());  // the start
    EXPECT_TRUE(bundles.back().alive.empty());   // after the lift
    std::vector<std::vector<double>> sets;
    for (size_t i = 0; i < bundles.size(); ++i) {
        EXPECT_EQ(bundles[i].source.rfind("\"irframe-1@", 0), 0u) << bundles[i].source;
        EXPECT_EQ(bundles[i].fseq, static_cast<int>(i + 1));
        sets.insert(sets.end(), bundles[i].sets.begin(), bundles[i].sets.end());
    }
    ASSERT_GE(sets.size(), 30u);  // a set for every frame that moved
    for (const auto& set : sets) {
        ASSERT_EQ(set.size(), 6u);
        EXPECT_EQ(set[0], sets.front()[0]);  // one cursor throughout
        EXPECT_GE(set[1], 0.0);
        EXPECT_LE(set[1], 1.0);
        EXPECT_GE(set[2], 0.0);
        EXPECT_LE(set[2], 1.0);
    }
    // Fractions of the frame where the script put the finger, and its speed in frame widths
    // and heights per second of frame time: 6000/32767 in 0.3 s, 4000/32767 in 0.3 s.
    EXPECT_NEAR(sets.front()[1], 8000.0 / 32767, 0.01);
    EXPECT_NEAR(sets.front()[2], 8000.0 / 32767, 0.01);
    EXPECT_NEAR(sets.back()[1], 14000.0 / 32767, 0.01);
    EXPECT_NEAR(sets.back()[2], 12000.0 / 32767, 0.01);
    const auto& moving = sets[sets.size() / 2];
    EXPECT_NEAR(moving[3], 6000.0 / 32767 / 0.3, 0.05);
    EXPECT_NEAR(moving[4], 4000.0 / 32767 / 0.3, 0.05);
}

// Verify that without uinput the driver says what to do and fails.
TEST_F(Irframed, MissingUinputIsExplained) {
    const TRun run = Run({"--simulate", Script("tap", kTap), "--uinput", m_dir + "/no-uinput"},
                         /*dryRun=*/false);
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.logText, HasSubstr("uinput"));
    EXPECT_THAT(run.logText, HasSubstr("modprobe uinput"));

    // Also when the touchscreen is the only output.
    const TRun touch = Run({"--simulate", Script("tap", kTap), "--uinput", m_dir + "/no-uinput",
                            "--touchscreen", "--no-gestures"},
                           /*dryRun=*/false);
    EXPECT_EQ(touch.status, 1);
    EXPECT_THAT(touch.logText, HasSubstr("--touchscreen: cannot open"));
}

// Verify that without the gestures a tap posts nothing, and the frame is still served.
TEST_F(Irframed, NoGesturesPostNothing) {
    const TRun run = Run({"--simulate", Script("tap", kTap), "--no-gestures"});
    EXPECT_EQ(run.status, 0) << run.logText;
    EXPECT_TRUE(run.events.empty());
    EXPECT_THAT(run.logText, HasSubstr("4 of 4 scripted frames played"));
}

}  // namespace
