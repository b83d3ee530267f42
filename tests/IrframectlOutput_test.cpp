// Both programs end to end on what they write and what they say: every output name is replaced
// whole, followed or refused before any work; every lost write (a full disk, a closed or broken
// standard output) is exit 1 and one line; every message is one short line that starts with
// the program's name; irframectl --simulate takes scripts by irframed's rules.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/ChildProcess.h"

extern char** environ;

namespace {

using testing::HasSubstr;
using Args = std::vector<std::string>;

// What standard output of a run is.
enum class TStdout { File, Full, Closed, BrokenPipe };

struct TRun {
    int status = -1;
    std::string err;
};

class OutputAndMessages : public testing::Test {
protected:
    void SetUp() override {
        unsetenv("DBUS_SESSION_BUS_ADDRESS");  // the tool opens the emulated frame itself
        setenv("XDG_RUNTIME_DIR", m_dir.c_str(), 1);
        m_script = File("tap.gesture", "down 1 100 100\nhold 2\nup 1\n");
    }
    std::string Path(const std::string& name) const { return m_scratch.Path(name); }
    std::string File(const std::string& name, const std::string& text) {
        return m_scratch.File(name, text);
    }

    // Runs a program (stdin /dev/null, stderr kept) with standard output as asked.
    TRun Run(const char* program, Args args, TStdout out = TStdout::File) {
        args.insert(args.begin(), program);
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        // Standard output's descriptor; none when closed.
        int fd = -1;
        int pipeEnds[2] = {-1, -1};
        if (out == TStdout::File) {
            fd = open(Path("stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        } else if (out == TStdout::Full) {
            fd = open("/dev/full", O_WRONLY | O_CLOEXEC);
        } else if (out == TStdout::BrokenPipe && pipe2(pipeEnds, O_CLOEXEC) == 0) {
            close(pipeEnds[0]);  // nobody reads: the read end is gone before the program starts
            fd = pipeEnds[1];
        }
        EXPECT_TRUE(fd >= 0 || out == TStdout::Closed);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        if (fd >= 0) {
            posix_spawn_file_actions_adddup2(&actions, fd, 1);
        } else {
            posix_spawn_file_actions_addclose(&actions, 1);
        }
        posix_spawn_file_actions_addopen(&actions, 2, Path("stderr").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        pid_t pid = -1;
        EXPECT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        if (fd >= 0) close(fd);
        const TRun run{WaitExit(pid, kHangBoundMillis / 1000), ReadFile(Path("stderr"))};
        EXPECT_EQ(run.err.find("Sanitizer"), std::string::npos) << run.err;
        return run;
    }
    TRun Ctl(Args args, TStdout out = TStdout::File) {
        return Run(IRFRAMECTL_PATH, std::move(args), out);
    }
    TRun Driver(Args args, TStdout out = TStdout::File) {
        args.insert(args.begin(), "--no-config");
        return Run(IRFRAMED_PATH, std::move(args), out);
    }
    TRun Either(bool driver, Args args, TStdout out = TStdout::File) {
        return driver ? Driver(std::move(args), out) : Ctl(std::move(args), out);
    }

    CScratchDir m_scratch{"irframe_output_test"};
    const std::string m_dir = m_scratch.Dir();
    std::string m_script;
};

// The line of `err` that starts with `prefix`; empty when none does.
std::string LineStartingWith(const std::string& err, const std::string& prefix) {
    std::istringstream in(err);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(prefix, 0) == 0) return line;
    }
    return {};
}

struct TWriter {
    bool driver;
    Args args;  // "OUT" stands for the output name
    const char* written;  // what the output holds after a good run
};

Args WithOutput(Args args, const std::string& out) {
    for (std::string& a : args) {
        if (a == "OUT") a = out;
    }
    return args;
}

// Verify every program that writes a file on each kind of name: a link is followed and its
// target replaced; a directory, a FIFO and a device are refused at once with exit 1, before
// any work (nothing recorded, nothing played), and stay what they were.
TEST_F(OutputAndMessages, OutputNamesAreFollowedOrRefusedBeforeAnyWork) {
    const TWriter writers[] = {
        {false, {"--simulate", m_script, "config", "dump", "OUT"}, "\"format\": \"irframe-config\""},
        {false, {"--simulate", m_script, "record", "OUT"}, "raw 1 0 100 100"},
        {false, {"--simulate", m_script, "scan-pattern", "get", "OUT"}, ""},
        {true, {"--simulate", m_script, "--dry-run", "-o", "OUT"}, "\"device\":1"},
    };
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
    ASSERT_EQ(mkdir(Path("dir").c_str(), 0700), 0);
    for (const TWriter& w : writers) {
        SCOPED_TRACE(w.args[2] + " " + w.args[3]);
        std::remove(Path("target").c_str());
        std::remove(Path("link").c_str());
        ASSERT_EQ(symlink("target", Path("link").c_str()), 0);
        const TRun linked = Either(w.driver, WithOutput(w.args, Path("link")));
        EXPECT_EQ(linked.status, 0) << linked.err;
        EXPECT_THAT(ReadFile(Path("target")), HasSubstr(w.written));
        struct stat st {};
        ASSERT_EQ(lstat(Path("link").c_str(), &st), 0);
        EXPECT_TRUE(S_ISLNK(st.st_mode));

        const struct {
            std::string path;
            const char* what;
        } refused[] = {{Path("dir"), "a directory"}, {Path("fifo"), "a FIFO"}, {"/dev/null", "a device"}};
        for (const auto& r : refused) {
            const TRun run = Either(w.driver, WithOutput(w.args, r.path));
            EXPECT_EQ(run.status, 1) << run.err;
            const std::string program = w.driver ? "irframed: " : "irframectl: ";
            EXPECT_EQ(LineStartingWith(run.err, program),
                      program + "cannot write '" + r.path + "': it is " + r.what +
                          ", not a regular file; name a file, or '-' for standard output");
            EXPECT_THAT(run.err, testing::Not(HasSubstr("frame 1")));  // no work started
        }
        ASSERT_EQ(lstat("/dev/null", &st), 0);
        EXPECT_TRUE(S_ISCHR(st.st_mode));
        ASSERT_EQ(lstat(Path("fifo").c_str(), &st), 0);
        EXPECT_TRUE(S_ISFIFO(st.st_mode));
    }
}

// Verify every command that prints a result on a full disk, a closed standard output and a
// pipe nobody reads: exit 1 and one line that names the cause; nothing says "written".
TEST_F(OutputAndMessages, LostStandardOutputIsExitOneAndOneLine) {
    const struct {
        bool driver;
        Args args;
    } printers[] = {
        {false, {"--simulate", m_script, "config", "dump", "-"}},
        {false, {"--simulate", m_script, "config", "show"}},
        {false, {"--simulate", m_script, "list"}},
        {false, {"--simulate", m_script, "info"}},
        {false, {"--simulate", m_script, "status"}},
        {false, {"--help"}},
        {true, {"--simulate", m_script, "--dry-run"}},
    };
    const struct {
        TStdout out;
        const char* why;
    } failures[] = {{TStdout::Full, "No space left on device"},
                    {TStdout::Closed, "Bad file descriptor"},
                    {TStdout::BrokenPipe, "Broken pipe"}};
    for (const auto& p : printers) {
        for (const auto& f : failures) {
            SCOPED_TRACE(p.args.back() + " " + f.why);
            const TRun run = Either(p.driver, p.args, f.out);
            EXPECT_EQ(run.status, 1) << run.err;
            const std::string program = p.driver ? "irframed: " : "irframectl: ";
            const std::string line = LineStartingWith(run.err, program);
            EXPECT_THAT(line, HasSubstr("standard output")) << run.err;
            if (p.args.back() != "--help") {
                EXPECT_THAT(line, HasSubstr(f.why));
            }
            if (!p.driver) {
                EXPECT_EQ(run.err, line + "\n");
            }
        }
    }
}

// Verify that a backup never replaces a file: the restore stops before writing the frame.
TEST_F(OutputAndMessages, BackupNeverReplacesAFile) {
    ASSERT_EQ(Ctl({"--simulate", m_script, "config", "dump", Path("frame.json")}).status, 0);
    std::string changed = ReadFile(Path("frame.json"));
    changed.replace(changed.find("\"port\": "), 8, "\"port\": 1");
    File("changed.json", changed);
    const std::string kept = File("kept.json", "mine");
    const TRun run = Ctl({"--simulate", m_script, "config", "restore", "--yes", "--backup", kept,
                          Path("changed.json")});
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_EQ(run.err, "irframectl: cannot write '" + kept + "': it exists already, and is never "
                       "replaced\n");
    EXPECT_EQ(ReadFile(kept), "mine");
}

// Verify the messages about bad input: the cause is true, outside text is escaped and cut,
// each is one line that starts with the program's name.
TEST_F(OutputAndMessages, MessagesAreTrueEscapedAndOneLine) {
    ASSERT_EQ(Ctl({"--simulate", m_script, "config", "dump", Path("frame.json")}).status, 0);
    const std::string json = ReadFile(Path("frame.json"));
    std::string bigPort = json;
    const size_t port = bigPort.find("\"port\": ") + 8;
    bigPort.replace(port, bigPort.find(',', port) - port, "1234567890123456789012345678901");
    ASSERT_EQ(mkdir(Path("dir").c_str(), 0700), 0);
    const std::string binary = File("binary.gesture", "down 1 100 100\n\x1b[2J\xff\xfe" +
                                                          std::string(10 << 20, 'A') + "\n");
    const struct {
        bool driver;
        Args args;
        int status;
        std::string line;  // after the program's name
    } cases[] = {
        {false, {"frobnicate"}, 2, "unknown command 'frobnicate'; the commands are list, info, "
                                   "status, config, monitor, record, scan-pattern, "
                                   "touch-system-file, map"},
        {false, {"config", "frobnicate"}, 2, "unknown command 'frobnicate' of 'config'; the "
                                             "commands of 'config' are show, dump, restore"},
        {false, {"--frobnicate"}, 2, "unknown option '--frobnicate'; a command is needed: list, "
                                     "info, status, config, monitor, record, scan-pattern, "
                                     "touch-system-file, map"},
        {true, {"--frobnicate"}, 2, "The following argument was not expected: --frobnicate "
                                    "(see irframed --help)"},
        {false, {"--simulate", m_script, "config", "restore", "--yes", File("nul.json", json + '\0' + "x")},
         4, Path("nul.json") + ": a NUL byte at byte " + std::to_string(json.size() + 1) +
                ": JSON text has none (nothing was written)"},
        {false, {"--simulate", m_script, "config", "restore", "--yes", File("tail.json", json + "{}")},
         4, Path("tail.json") + ": parse error at line " +
                std::to_string(std::count(json.begin(), json.end(), '\n') + 1) +
                ", column 1: syntax error while parsing value - unexpected '{'; expected end of "
                "input (nothing was written)"},
        {false, {"--simulate", m_script, "config", "restore", "--yes", File("big.json", bigPort)},
         4, Path("big.json") + ": /port: the integer '1234567890123456789012345678901' "
                                     "is out of range (nothing was written)"},
        {false, {"--simulate", m_script, "config", "restore", "--yes", Path("dir")}, 4,
         "cannot read a configuration '" + Path("dir") + "': it is a directory; name a file in it"},
        {false, {"--simulate", m_script, "scan-pattern", "set", Path("dir")}, 4,
         "cannot read a scan pattern '" + Path("dir") + "': it is a directory; name a file in it"},
        {true, {"--simulate", binary, "--dry-run"}, 2,
         binary + ": line 2: unknown command \"\\x1b[2J\\xff\\xfe" + std::string(65, 'A') + "...\""},
        // The system's own reason for a name under a file, never a guess.
        {false, {"--simulate", m_script, "config", "restore", "--yes", m_script + "/x.json"}, 4,
         "cannot read a configuration '" + m_script + "/x.json': Not a directory"},
        {true, {"--simulate", m_script, "--dry-run", "-o", m_script + "/x.json"}, 1,
         "cannot write '" + m_script + "/x.json': Not a directory"},
        {false, {"--simulate", m_script, "config", "restore", "--yes", "-"}, 2,
         "'-' is not a file with a place beside it for the replaced configuration: name one "
         "with --backup PATH"},
        {false, {"--usb", "--simulate", m_script, "list"}, 2,
         "--usb cannot go with --simulate: the emulated frame is reached over HID only"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.back());
        const TRun run = Either(c.driver, c.args);
        const std::string program = c.driver ? "irframed: " : "irframectl: ";
        EXPECT_EQ(run.status, c.status) << run.err;
        EXPECT_EQ(run.err, program + c.line + "\n");
    }
    // Nothing names a session bus: said in words, not as sd-bus's "No medium found".
    unsetenv("XDG_RUNTIME_DIR");
    const TRun noBus = Ctl({"--bus", "list"});
    EXPECT_EQ(noBus.status, 1);
    EXPECT_EQ(noBus.err, "irframectl: no session bus: neither DBUS_SESSION_BUS_ADDRESS nor "
                         "XDG_RUNTIME_DIR is set\n");
}

// Verify that irframectl --simulate takes a script exactly as irframed does: the same status
// and message for a directory, a missing file, an empty script and a bad line.
TEST_F(OutputAndMessages, SimulateScriptsByTheDriversRules) {
    ASSERT_EQ(mkdir(Path("dir").c_str(), 0700), 0);
    for (const std::string& script : {Path("dir"), Path("missing"), File("empty.gesture", ""),
                                      File("bad.gesture", "hold 1\njump 2\n")}) {
        SCOPED_TRACE(script);
        const TRun driver = Driver({"--simulate", script, "--dry-run"});
        const TRun tool = Ctl({"--simulate", script, "list"});
        EXPECT_NE(driver.status, 0);
        EXPECT_EQ(tool.status, driver.status);
        ASSERT_EQ(driver.err.rfind("irframed: ", 0), 0u) << driver.err;
        EXPECT_EQ("irframectl: " + driver.err.substr(10), tool.err);
    }
}

}  // namespace
