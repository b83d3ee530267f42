// The driver binary end to end: irframed runs against simulated frames (the real hidraw port
// code over socketpairs, discovery, workers, calibration, tracking, gestures) and prints its
// events as JSON lines, which are compared here: the configuration file and the command line,
// unplugging with the button held, the termination signal and the worker's retry limits.
// (Every gesture family and hot-plug: tests/golden; --tuio: tests/TuioOutput_test.cpp.)
#include <signal.h>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ChildProcess.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

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

Lines Cat(Lines first, const Lines& then) {
    first.insert(first.end(), then.begin(), then.end());
    return first;
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
    const struct {
        Lines keys;
        Lines linuxKeys;
    } cases[] = {
        {{}, {"[]", "[]"}},
        {{"--keys", "desktop"}, {R"(["KEY_LEFTCTRL","KEY_R"])", R"(["KEY_R","KEY_LEFTCTRL"])"}},
        {{"--keys", "literal"}, {R"(["KEY_LEFTMETA","KEY_R"])", R"(["KEY_R","KEY_LEFTMETA"])"}},
    };
    for (const auto& c : cases) {
        const TRun run = Run(Cat({"--simulate", rotate}, c.keys));
        EXPECT_THAT(run.events, ElementsAre("keyDown 15 cmd", "keyUp 15 cmd"));
        EXPECT_EQ(run.linuxKeys, c.linuxKeys);
    }
}

// ---------------------------------------------------------------------------------------------
// Configuration file

// Verify that [gestures] enabled = false turns the gestures off as --no-gestures does, and that
// --no-gestures wins over a file that turns them on; without gestures a tap posts nothing and
// its frame is still served.
TEST_F(Irframed, GesturesOffFromTheFileOrTheCommandLine) {
    const std::string tap = Script("tap", kTap);
    const std::string off = Script("off.toml", "[gestures]\nenabled = false\n");
    const std::string on = Script("on.toml", "[gestures]\nenabled = true\n");
    const struct {
        Lines args;
        bool posts;
    } cases[] = {{{"--config", on}, true},
                 {{"--config", off}, false},
                 {{"--config", on, "--no-gestures"}, false},
                 {{"--no-gestures"}, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        const TRun run = Run(Cat(c.args, {"--simulate", tap}));
        EXPECT_EQ(run.status, 0) << run.logText;
        EXPECT_EQ(run.events.empty(), !c.posts);
        EXPECT_THAT(run.logText, HasSubstr("4 of 4 scripted frames played"));
        EXPECT_THAT(Run(Cat(c.args, {"--print-config"})).printed,
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
    // log_level from -vv, size from the command line, profile from the file, a default chord
    // and the file's own.
    for (const char* line : {"\nlog_level = \"debug\"\n", "\nsize = \"1280x800\"\n",
                             "\nprofile = \"desktop\"\n", "\nrotate-clockwise = \"ctrl+r\"  #",
                             "\npinch = \"ctrl+alt+minus\"  #"}) {
        EXPECT_THAT(printed.printed, HasSubstr(line));
    }

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
    Script("irframe/irframe.toml", "[keys]\nprofile = \"literal\"\n");
    const char* before = std::getenv("XDG_CONFIG_HOME");
    const std::string saved = before != nullptr ? before : "";
    setenv("XDG_CONFIG_HOME", m_dir.c_str(), 1);
    m_readConfig = true;
    const TRun found = Run({"--print-config"});
    const TRun skipped = Run({"--no-config", "--print-config"});
    before != nullptr ? setenv("XDG_CONFIG_HOME", saved.c_str(), 1) : unsetenv("XDG_CONFIG_HOME");
    EXPECT_THAT(found.printed, HasSubstr("\nprofile = \"literal\"\n"));
    EXPECT_THAT(skipped.printed, HasSubstr("\nprofile = \"safe\"\n"));
}

// ---------------------------------------------------------------------------------------------
// Devices coming and going

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

// Verify that a wrong command line, a configuration file the driver cannot use or a missing
// uinput stops the driver with one line that says what is wrong or what to do: status 1 when
// something cannot be read or opened, 2 when it says something wrong.
TEST_F(Irframed, UsageErrorsSayWhatIsWrong) {
    const std::string tap = Script("tap", kTap);
    const std::string bad = Script("bad", "down 1 16000 16000\nwiggle 1\n");
    const std::string unknown = Script("unknown.toml", "[screen]\nsise = \"1x1\"\n");
    const std::string noUinput = m_dir + "/no-uinput";
    const struct {
        Lines args;
        int status;
        std::string message;
        bool dryRun = true;
    } cases[] = {
        {{"--config", unknown, "--simulate", tap}, 2,
         "irframed: " + unknown + ":2:1: unknown key \"sise\" in [screen]; valid keys: size, "
         "output"},
        {{"--config", m_dir, "--simulate", tap}, 1,
         "irframed: configuration " + m_dir + " is a directory; give the file inside it"},
        {{"--config", unknown, "--no-config", "--simulate", tap}, 2,
         "irframed: --config and --no-config exclude each other"},
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
        {{"--simulate", tap, "--uinput", noUinput}, 1, "modprobe uinput", false},
        {{"--simulate", tap, "--uinput", noUinput, "--touchscreen", "--no-gestures"}, 1,
         "--touchscreen: cannot open", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        const TRun run = Run(c.args, c.dryRun);
        EXPECT_EQ(run.status, c.status) << run.logText;
        ASSERT_FALSE(run.log.empty());
        EXPECT_THAT(run.log.back(), HasSubstr(c.message));
        // Without --dry-run the screen's line comes first.
        EXPECT_EQ(run.log.size(), c.dryRun ? 1u : 2u) << run.logText;
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

}  // namespace
