// irframectl end to end, the tool binary itself:
//   - what it and irframed write and say: output names, lost standard output, messages;
//   - on an emulated frame it opens directly (--simulate): monitor, record and replay through
//     irframed, configuration dump and restore, transfers, usage;
//   - through a stand-in for the driver's D-Bus interface on a private session bus: the same
//     commands over the bus, progress and Ctrl-C, the driver's refusals;
//   - through irframed itself on a private bus.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "DbusArguments.h"
#include "DevConfigJson.h"
#include "support/ChildProcess.h"
#include "support/PrivateBus.h"

extern char** environ;

namespace {

using testing::HasSubstr;
using Lines = std::vector<std::string>;
using Json = nlohmann::ordered_json;

struct TRun {
    int status = -1;
    std::string out;
    std::string err;
};

constexpr const char* kBusName = "org.irframe.Driver1";
constexpr const char* kRoot = "/org/irframe/Driver1";
constexpr const char* kFrameIface = "org.irframe.Driver1.Frame";

// `json` as the driver keeps a configuration: read and written again; empty when refused.
std::string Stored(const std::string& json, std::string* fault) {
    auto record = std::make_unique<_HARDWARE_DEV_CONFIG>();
    return DevConfigFromJson(json, record.get(), fault) ? DevConfigToJson(*record) : "";
}

std::string DefaultConfig() {
    auto c = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::memset(static_cast<void*>(c.get()), 0, sizeof *c);
    DefaultDevConfig(0, 0, c.get());
    DefaultDevCalConfig(0, 0, c.get());
    return DevConfigToJson(*c);
}

struct TFakeFrame {
    int number = 1;
    std::string node = "/dev/hidraw4";
    std::string serial = "S1";
    std::string config = DefaultConfig();
    std::vector<TContactFrame> contacts{};  // sent on subscribe, then the frame goes away
    std::string refuseWrite{};  // WriteConfig answers InvalidArgument with this, when set
};

// A stand-in for the driver's interface: one handler answers every call under its root from
// the frames' fixed properties and stored configuration, sends scripted contact frames, and
// has transfers that report progress, wait for Cancel or are refused.
class CFakeDriver {
public:
    // A silent one takes every call and answers none.
    CFakeDriver(const CPrivateBus& bus, std::vector<TFakeFrame> frames, bool silent)
        : m_frames(std::move(frames)), m_silent(silent), m_connection(bus) {
        sd_bus* b = m_connection.Bus();
        m_ok = b != nullptr && sd_bus_add_fallback(b, nullptr, kRoot, &Handle, this) >= 0 &&
               sd_bus_request_name(b, kBusName, 0) >= 0;
        if (m_ok) m_connection.Serve();
    }
    ~CFakeDriver() {
        m_connection.Stop();
        sd_bus_message_unref(m_pending);
    }

    bool Ok() const { return m_ok; }
    int Calls(const std::string& method) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls[method];
    }

private:
    static std::string Path(int number) {
        return std::string(kRoot) + "/frame" + std::to_string(number);
    }
    static int Send(sd_bus_message* message) {
        const int r = sd_bus_send(nullptr, message, nullptr);
        sd_bus_message_unref(message);
        return r;
    }
    static int Refuse(sd_bus_message* m, const std::string& kind, const std::string& why) {
        const std::string name = std::string(kBusName) + ".Error." + kind;
        return sd_bus_reply_method_errorf(m, name.c_str(), "%s", why.c_str());
    }
    static int Progress(sd_bus_message* m, uint32_t done, uint32_t total) {
        return sd_bus_emit_signal(sd_bus_message_get_bus(m), sd_bus_message_get_path(m),
                                  kFrameIface, "Progress", "uu", done, total);
    }

    // Every method call under the root; 0 (not answered) for what the driver does not have.
    static int Handle(sd_bus_message* m, void* self, sd_bus_error*) {
        auto* d = static_cast<CFakeDriver*>(self);
        const std::string method = sd_bus_message_get_member(m);
        std::lock_guard<std::mutex> lock(d->m_mutex);
        ++d->m_calls[method];
        if (d->m_silent) return 1;
        if (method == "ListFrames") {
            sd_bus_message* reply = nullptr;
            sd_bus_message_new_method_return(m, &reply);
            sd_bus_message_open_container(reply, 'a', "o");
            for (const TFakeFrame& f : d->m_frames) {
                sd_bus_message_append(reply, "o", Path(f.number).c_str());
            }
            sd_bus_message_close_container(reply);
            return Send(reply);
        }
        for (TFakeFrame& f : d->m_frames) {
            if (Path(f.number) == sd_bus_message_get_path(m)) return d->Answer(m, method, f);
        }
        return 0;
    }

    int Answer(sd_bus_message* m, const std::string& method, TFakeFrame& f) {
        if (method == "GetAll") {
            return sd_bus_reply_method_return(
                m, "a{sv}", 9, "Number", "i", f.number, "Node", "s", f.node.c_str(), "VendorId",
                "q", 0xAAEC, "ProductId", "q", 0xC021, "Product", "s", "IR Touch", "Serial", "s",
                f.serial.c_str(), "State", "s", "running", "Geometry", "(iiii)", 8191, 4095, 32766,
                16383, "ConfigSummary", "s", "1 area, 0 panels");
        }
        if (method == "ReadInfo") {
            return sd_bus_reply_method_return(m, "s", R"({"bytes":"49522d3031"})");
        }
        if (method == "ReadStatus") {
            return sd_bus_reply_method_return(m, "s", R"({"bytes":"00ff10"})");
        }
        if (method == "ReadConfig") return sd_bus_reply_method_return(m, "s", f.config.c_str());
        if (method == "WriteConfig") {
            const char* json = "";
            sd_bus_message_read(m, "s", &json);
            std::string fault = f.refuseWrite;
            const std::string stored = fault.empty() ? Stored(json, &fault) : "";
            if (stored.empty()) return Refuse(m, "InvalidArgument", fault);
            f.config = stored;
            return sd_bus_reply_method_return(m, "s", stored.c_str());
        }
        if (method == "ReadScanPattern") {
            Progress(m, 3, 6);
            Progress(m, 6, 6);
            return sd_bus_reply_method_return(m, "ay", 6, 0xB2, 0, 6, 0, 0, 0);
        }
        if (method == "WriteScanPattern") {  // a quarter done, then waits for Cancel
            m_pending = sd_bus_message_ref(m);
            return Progress(m, 250, 1000);
        }
        if (method == "WriteTouchSystemFile") {
            return Refuse(m, "Busy", "frame 1 is busy with another client's transfer");
        }
        if (method == "Cancel") {
            if (m_pending != nullptr) Refuse(m_pending, "Cancelled", "the transfer was cancelled");
            m_pending = sd_bus_message_unref(m_pending);
            return sd_bus_reply_method_return(m, "");
        }
        if (method == "UnsubscribeContacts") return sd_bus_reply_method_return(m, "");
        if (method != "SubscribeContacts") return 0;
        sd_bus_reply_method_return(m, "");
        sd_bus* bus = sd_bus_message_get_bus(m);
        for (const TContactFrame& frame : f.contacts) {
            sd_bus_message* s = nullptr;
            sd_bus_message_new_signal(bus, &s, Path(f.number).c_str(), kFrameIface, "Contacts");
            AppendContacts(s, frame);
            Send(s);
        }
        return sd_bus_emit_signal(bus, kRoot, kBusName, "FrameRemoved", "o",
                                  Path(f.number).c_str());
    }

    std::vector<TFakeFrame> m_frames;
    const bool m_silent;
    CServedConnection m_connection;
    bool m_ok = false;
    std::mutex m_mutex;
    std::map<std::string, int> m_calls;
    sd_bus_message* m_pending = nullptr;  // a transfer waiting for Cancel
};

class Irframectl : public testing::Test {
protected:
    void SetUp() override {
        // No session bus unless a test makes one: the tool then opens frames itself.
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
        setenv("XDG_RUNTIME_DIR", m_dir.c_str(), 1);
        setenv("XDG_CONFIG_HOME", Path("config").c_str(), 1);
    }
    std::string File(const std::string& name, const std::string& text) {
        return m_scratch.File(name, text);
    }
    std::string Path(const std::string& name) const { return m_scratch.Path(name); }

    CChild Start(const std::string& program, Lines args) {
        args.insert(args.begin(), program);
        const std::string tag = std::to_string(m_children++);
        return CChild(args, Path("out" + tag), Path("err" + tag));
    }
    TRun Tool(Lines args) {
        CChild child = Start(IRFRAMECTL_PATH, std::move(args));
        TRun run{child.Wait(), child.Out(), child.Err()};
        EXPECT_EQ(run.err.find("Sanitizer"), std::string::npos) << run.err;
        return run;
    }
    // The tool on an emulated frame that plays an idle script.
    TRun Simulated(Lines args) {
        args.insert(args.begin(), {"--simulate", m_idle});
        return Tool(std::move(args));
    }
    // The driver's dry-run event lines for a script, played without a bus.
    std::string Events(const std::string& script) {
        const std::string out = Path("events" + std::to_string(m_children));
        CChild child = Start(IRFRAMED_PATH, {"--simulate", script, "--dry-run", "--output", out});
        EXPECT_EQ(child.Wait(), 0) << child.Err();
        return ReadFile(out);
    }

    CScratchDir m_scratch{"irframectl_test"};
    const std::string m_dir = m_scratch.Dir();
    const std::string m_idle = m_scratch.File("idle.gesture", "hold 1\n");
    int m_children = 0;
};

constexpr const char* kScroll =
    "down 1 12000 8000, 2 15000 8000\nmove 1 12000 14000, 2 15000 14000 in 20\nup 1, 2\n";

// Verify that a recorded session played by irframed --simulate posts exactly the events that
// the session itself posted.
TEST_F(Irframectl, RecordingReplaysToTheSameEvents) {
    for (const char* text : {kScroll,
                             "wait 130ms\ndown 1 16000 16000\nup 1\nhold 3\n"
                             "down 1 16010 16000\nup 1\nhold 3\n",
                             "down 3 9000 9000\nmove 3 20000 9500 in 15\nvanish 3\nhold 2\n"}) {
        SCOPED_TRACE(text);
        const std::string script = File("session.gesture", text);
        const TRun run = Tool({"--simulate", script, "record", Path("recorded.gesture")});
        ASSERT_EQ(run.status, 0) << run.err;
        EXPECT_THAT(run.err, HasSubstr("recorded "));
        const std::string original = Events(script);
        EXPECT_FALSE(original.empty());
        EXPECT_EQ(Events(Path("recorded.gesture")), original);
    }
}

// Verify that monitor --json shows each contact of each frame where the script put it, with
// its status, and a contact that vanished as retired.
TEST_F(Irframectl, MonitorJsonShowsTheScriptContacts) {
    const std::string script =
        File("m.gesture", "down 1 1000 2000, 2 30000 4000\nmove 1 1100 2000 in 1\nup 1, 2\n"
                          "down 7 5000 6000\nvanish 7\nhold 1\n");
    const TRun run = Tool({"--simulate", script, "monitor", "--json"});
    ASSERT_EQ(run.status, 0) << run.err;
    Lines seen;
    int64_t firstStamp = -1;
    for (const std::string& line : SplitLines(run.out)) {
        const Json j = Json::parse(line);
        if (firstStamp < 0) firstStamp = j["timeStamp"].get<int64_t>();
        seen.push_back(
            Json::array({j["id"], j["status"], j["retired"], j["x"], j["y"], j["place"]}).dump());
    }
    EXPECT_THAT(seen, testing::ElementsAre(
                          R"([1,0,false,1000,2000,"area"])", R"([2,0,false,30000,4000,"area"])",
                          R"([1,1,false,1100,2000,"area"])", R"([2,1,false,30000,4000,"area"])",
                          R"([1,2,false,1100,2000,"area"])", R"([2,2,false,30000,4000,"area"])",
                          R"([7,0,false,5000,6000,"area"])", R"([7,0,true,5000,6000,"area"])"));
    // A simulated frame's script starts on a whole second.
    EXPECT_EQ(firstStamp % 4'000'000, 0);
}

// Verify that a configuration dumped from the frame, changed and restored is shown as its
// changes once confirmed, keeps what it replaced, is written and reads back the same; and that
// a file that changes nothing asks nothing. (Files the reader refuses: OutputAndMessages and
// DevConfigJson_test.)
TEST_F(Irframectl, ConfigRestoreShowsChangesKeepsBackupAndVerifies) {
    const TRun dump = Simulated({"config", "dump", Path("frame.json")});
    ASSERT_EQ(dump.status, 0) << dump.err;
    const std::string original = ReadFile(Path("frame.json"));
    std::string error;
    ASSERT_NE(Stored(original, &error), "") << error;
    const TRun same = Simulated({"config", "restore", Path("frame.json")});
    EXPECT_EQ(same.status, 0) << same.err;

    Json changed = Json::parse(original);
    changed["flags"] = "0x00101705";
    changed["areas"].push_back(changed["areas"][0]);
    const std::string wanted = File("wanted.json", changed.dump(2));
    const TRun unasked = Simulated({"config", "restore", wanted});
    EXPECT_EQ(unasked.status, 2) << unasked.err;
    EXPECT_THAT(unasked.err, HasSubstr("add --yes"));
    const TRun restore =
        Simulated({"config", "restore", wanted, "--yes", "--backup", Path("before.json")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    EXPECT_THAT(restore.out,
                HasSubstr("  /flags: \"0x00101F05\" -> \"0x00101705\"\n  /areas/1: added\n"
                          "written and read back: frame 1 now holds 2 areas, 0 panels"));
    EXPECT_EQ(ReadFile(Path("before.json")), original);

    // A backup never replaces a file: the restore stops before writing the frame.
    const TRun kept =
        Simulated({"config", "restore", "--yes", "--backup", Path("before.json"), wanted});
    EXPECT_EQ(kept.status, 1) << kept.err;
    EXPECT_EQ(kept.err, "irframectl: cannot write '" + Path("before.json") +
                            "': it exists already, and is never replaced\n");
    EXPECT_EQ(ReadFile(Path("before.json")), original);

    // The backup goes next to the file unless named.
    const TRun again = Simulated({"config", "restore", "--yes", wanted});
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_THAT(again.err, HasSubstr("saved in " + m_dir + "/wanted.replaced-"));
}

// Verify the transfers on an emulated frame: what is read is written back with progress in
// percentages off a terminal; files that cannot be right are refused before the frame is opened.
TEST_F(Irframectl, TransfersShowProgressAndRefuseBadFiles) {
    std::string big(3000, 'x');
    big.replace(0, 6, std::string("\xB2\x00\xB8\x0B\x00\x00", 6));  // 3000 bytes, said at 2..5
    const struct {
        Lines args;
        int status;
        const char* message;
    } cases[] = {
        {{"scan-pattern", "get", Path("pattern.bin")}, 0, "scan pattern: 100%"},
        {{"scan-pattern", "set", Path("pattern.bin")}, 0, "scan pattern: 100%"},
        {{"scan-pattern", "set", File("big.bin", big)}, 0, "scan pattern (3000 bytes) written"},
        {{"scan-pattern", "set", File("short.bin", big.substr(0, 2999))}, 4, "bytes 2..5 say 3000"},
        {{"touch-system-file", "set", File("ts.bin", std::string(1024, 'a'))}, 0,
         "touch-system file: 100%"},
        {{"touch-system-file", "set", File("small.bin", std::string(1023, 'a'))}, 4,
         "at least 1024"},
    };
    for (const auto& c : cases) {
        const TRun run = Simulated(c.args);
        EXPECT_EQ(run.status, c.status) << run.err;
        EXPECT_THAT(run.err, HasSubstr(c.message));
    }
}

// Verify what list, info, status, config dump to standard output, --help and --version show of
// an emulated frame, and the usage errors.
TEST_F(Irframectl, ListInfoStatusAndUsage) {
    using testing::_;
    const struct {
        Lines args;
        int status;
        testing::Matcher<std::string> out;
    } cases[] = {
        {{"--simulate", m_idle, "list"}, 0,
         HasSubstr("1     simulated:" + m_idle + " AAEC:C020 emulated frame")},
        {{"--simulate", m_idle, "info", "1"}, 0,
         HasSubstr("geometry       logical 8191x8191, raw 32766x32766\n"
                   "configuration  1 area, 0 panels\n"
                   "information block (43 bytes)\n000000  30 31 32")},
        {{"--simulate", m_idle, "status"}, 0, HasSubstr("000000  00 01 02 03 10 20 30 40")},
        {{"--simulate", m_idle, "config", "dump", "-", "1"}, 0, testing::StartsWith("{\n")},
        {{"--help"}, 0,
         testing::AllOf(HasSubstr("list"), HasSubstr("info"), HasSubstr("status"),
                        HasSubstr("config"), HasSubstr("monitor"), HasSubstr("record"),
                        HasSubstr("scan-pattern"), HasSubstr("touch-system-file"),
                        HasSubstr("Exit status:"))},
        {{"--version"}, 0, testing::MatchesRegex("irframectl [0-9]+\\.[0-9.]+\n")},
        {{}, 2, _},
        {{"--bus", "--usb", "list"}, 2, _},
        {{"--simulate", m_idle, "info", "2"}, 3, _},
        {{"-f", "1", "--simulate", m_idle, "info", "2"}, 2, _},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        const TRun run = Tool(c.args);
        EXPECT_EQ(run.status, c.status) << run.err;
        EXPECT_THAT(run.out, c.out);
    }
}

// ---------------------------------------------------------------------------------------------
// Through the driver's interface (a stand-in on a private bus)

class IrframectlBus : public Irframectl {
protected:
    void SetUp() override {
        Irframectl::SetUp();
        m_bus = std::make_unique<CPrivateBus>();
        ASSERT_TRUE(m_bus->Ready()) << "dbus-daemon is needed (Debian package dbus-daemon)";
    }
    void Serve(std::vector<TFakeFrame> frames, bool silent = false) {
        m_fake = std::make_unique<CFakeDriver>(*m_bus, std::move(frames), silent);
        ASSERT_TRUE(m_fake->Ok());
    }

    std::unique_ptr<CPrivateBus> m_bus;
    std::unique_ptr<CFakeDriver> m_fake;  // goes before the bus
};

// Verify that the tool goes through the driver when it runs, and shows its frames.
TEST_F(IrframectlBus, ListInfoStatusThroughTheDriver) {
    Serve({TFakeFrame{}, TFakeFrame{.number = 2, .node = "/dev/hidraw9", .serial = "S2"}});
    const TRun list = Tool({"list"});
    EXPECT_EQ(list.status, 0) << list.err;
    EXPECT_THAT(SplitLines(list.out),
                testing::ElementsAre(HasSubstr("FRAME"),
                                     "1     /dev/hidraw4           AAEC:C021 IR Touch                 "
                                     "S1               running     1 area, 0 panels",
                                     HasSubstr("2     /dev/hidraw9")));
    const TRun info = Tool({"info", "S2"});
    EXPECT_EQ(info.status, 0) << info.err;
    EXPECT_THAT(info.out, HasSubstr("frame          2\nnode           /dev/hidraw9\n"));
    EXPECT_THAT(info.out, HasSubstr("geometry       logical 8191x4095, raw 32766x16383\n"));
    EXPECT_THAT(info.out, HasSubstr("000000  49 52 2d 30 31"));
    EXPECT_EQ(Tool({"status"}).status, 2);  // two frames, none named
    EXPECT_THAT(Tool({"status", "hidraw9"}).out, HasSubstr("000000  00 ff 10"));
    EXPECT_EQ(Tool({"--direct", "--simulate", m_idle, "list"}).status, 0);
}

// Verify that monitor and record take the driver's contact frames until the frame goes away.
TEST_F(IrframectlBus, MonitorAndRecordThroughTheDriver) {
    const int64_t second = 1'700'000'001LL * 4'000'000;
    const TContact down{.id = 1, .x = 100, .y = 200, .rawX = 10, .rawY = 20};
    const TContact other{.id = 2, .x = 300, .y = 400};
    const TContact moving{.id = 1, .status = 1, .x = 110, .y = 200, .width = 5, .height = 6,
                          .rawX = 11, .rawY = 20, .cell = {0xFF, 2}};
    TContact retired = moving;
    retired.retired = true;
    // Its node says it is simulated: its going away is the end of its script.
    Serve({TFakeFrame{.node = "simulated:x.gesture",
                      .contacts = {{1, second, {down, other}},
                                   {1, second + 10'000, {moving}},
                                   {1, second + 20'000, {}},
                                   {1, second + 30'000, {retired}}}}});
    const TRun monitor = Tool({"monitor", "--json"});
    EXPECT_EQ(monitor.status, 0) << monitor.err;
    const Lines lines = SplitLines(monitor.out);
    ASSERT_EQ(lines.size(), 4u) << monitor.out;
    EXPECT_EQ(lines[2],
              R"({"frame":1,"timeStamp":6800000004010000,"id":1,"status":1,"retired":false,"x":110,)"
              R"("y":200,"width":5,"height":6,"rawX":11,"rawY":20,"cell":[255,2],"place":"panel","index":2})");
    EXPECT_THAT(Tool({"monitor"}).out,
                HasSubstr("  0.010000  id 1   moving   raw    11,20     at   110,200    size 5x6  panel 2"));

    const TRun record = Tool({"record", Path("r.gesture")});
    EXPECT_EQ(record.status, 0) << record.err;
    EXPECT_THAT(ReadFile(Path("r.gesture")),
                testing::EndsWith("raw 1 0 100 200, 2 0 300 400\nraw 1 1 110 200\nhold 2\n"));
    EXPECT_EQ(m_fake->Calls("SubscribeContacts"), 3);
}

// Verify that Ctrl-C during a transfer cancels it through the driver and says what state the
// frame is in, and that a busy frame and a refused configuration are their own exit statuses.
TEST_F(IrframectlBus, TransferCancelBusyAndRefusal) {
    Serve({TFakeFrame{.refuseWrite = "/areas/0/rotation: not usable on this frame"}});
    const std::string pattern = std::string("\xB2\x00\x08\x00\x00\x00", 6) + "ab";
    CChild child = Start(IRFRAMECTL_PATH, {"scan-pattern", "set", File("p.bin", pattern)});
    ASSERT_TRUE(child.WaitForErr("scan pattern: 25%")) << child.Err();
    child.Signal(SIGINT);
    EXPECT_EQ(child.Wait(), 5) << child.Err();
    EXPECT_THAT(child.Err(), HasSubstr("the transfer was cancelled; frame 1 is now running"));
    EXPECT_EQ(m_fake->Calls("Cancel"), 1);

    const TRun busy = Tool({"touch-system-file", "set", File("t.bin", std::string(2048, 't'))});
    EXPECT_EQ(busy.status, 6);
    EXPECT_THAT(busy.err, HasSubstr("frame 1 is busy with another client's transfer"));

    const TRun get = Tool({"scan-pattern", "get", Path("got.bin")});
    EXPECT_EQ(get.status, 0) << get.err;
    EXPECT_THAT(get.err, HasSubstr("scan pattern: 50%\nscan pattern: 100%\n"));
    EXPECT_EQ(ReadFile(Path("got.bin")), std::string("\xB2\x00\x06\x00\x00\x00", 6));

    Json changed = Json::parse(DefaultConfig());
    changed["areas"][0]["rotation"] = 2;
    const TRun refused = Tool({"config", "restore", "--yes", "--backup", Path("k.json"),
                               File("r.json", changed.dump())});
    EXPECT_EQ(refused.status, 4);
    EXPECT_THAT(refused.err, HasSubstr("writing the configuration: /areas/0/rotation: not usable"));
}

// Verify that no driver on the bus is a failure, and that an owner of the driver's name that
// never answers is waited for only until SIGINT or SIGTERM, which end the tool as cancelled
// with one line naming the signal.
TEST_F(IrframectlBus, NoDriverOrOneThatNeverAnswers) {
    const TRun run = Tool({"--bus", "list"});
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err, HasSubstr("no driver owns org.irframe.Driver1"));

    Serve({}, true);
    for (const int signal : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(signal);
        const int before = m_fake->Calls("ListFrames");
        CChild tool = Start(IRFRAMECTL_PATH, {"list"});
        ASSERT_TRUE(WaitUntil([&] { return m_fake->Calls("ListFrames") > before; })) << tool.Err();
        tool.Signal(signal);
        EXPECT_EQ(tool.Wait(), 5);
        EXPECT_EQ(tool.Err(), std::string("irframectl: ") + (signal == SIGINT ? "SIGINT" : "SIGTERM") +
                                  " while waiting for an answer (listing the frames): stopping\n");
    }
}

// ---------------------------------------------------------------------------------------------
// Through irframed itself on a private bus

class IrframectlDriver : public IrframectlBus {
protected:
    // Starts irframed with `args` (and --dry-run into a file); false when its frame does not
    // come to run on the bus (before, requests are refused).
    bool StartDriver(Lines args) {
        args.insert(args.end(), {"--dry-run", "--output", Path("driver.json")});
        m_driver = std::make_unique<CChild>(Start(IRFRAMED_PATH, args));
        return m_driver->WaitForErr("frame 1 found") && WaitUntil([this] {
                   return Tool({"--bus", "list"}).out.find(" running ") != std::string::npos;
               });
    }
    void TearDown() override {
        if (m_driver) {
            m_driver->Signal(SIGTERM);
            m_driver->Wait();
        }
    }

    // A carried value changed: writing it releases a frame that holds its script.
    std::string Changed(const std::string& dumped, int value1) {
        Json j = Json::parse(dumped);
        j["value1"] = value1;
        std::string error;
        const std::string stored = Stored(j.dump(), &error);
        EXPECT_NE(stored, "") << error;
        return File("changed" + std::to_string(value1) + ".json", stored);
    }

    std::unique_ptr<CChild> m_driver;
};

TEST_F(IrframectlDriver, ListInfoAndDumpRestoreDumpByteIdentical) {
    const std::string script = File("long.gesture", "hold 6000\n");
    ASSERT_TRUE(StartDriver({"--simulate", script, "--realtime"})) << m_driver->Err();
    const TRun list = Tool({"list"});
    EXPECT_EQ(list.status, 0) << list.err;
    EXPECT_THAT(list.out, HasSubstr("simulated:" + script));
    EXPECT_THAT(Tool({"info", "1"}).out, HasSubstr("geometry       logical 8191x8191, raw 32766x32766"));

    ASSERT_EQ(Tool({"config", "dump", Path("a.json")}).status, 0);
    const std::string b = Changed(ReadFile(Path("a.json")), 77);
    const TRun restore = Tool({"config", "restore", "--yes", "--backup", Path("bk.json"), b});
    ASSERT_EQ(restore.status, 0) << restore.err;
    ASSERT_EQ(Tool({"config", "dump", Path("c.json")}).status, 0);
    EXPECT_EQ(ReadFile(Path("c.json")), ReadFile(b));
    ASSERT_EQ(Tool({"config", "restore", "--yes", "--backup", Path("bk2.json"), Path("a.json")}).status, 0);
    ASSERT_EQ(Tool({"config", "dump", Path("d.json")}).status, 0);
    EXPECT_EQ(ReadFile(Path("d.json")), ReadFile(Path("a.json")));
}

// The frame holds its script until its configuration is written, so the tool is listening
// before the first contact; in real time, so that no contact frame is dropped on the way.
TEST_F(IrframectlDriver, MonitorShowsAndRecordReplaysTheScript) {
    const std::string script = File("scroll.gesture", kScroll);
    for (const bool recording : {false, true}) {
        SCOPED_TRACE(recording ? "record" : "monitor");
        ASSERT_TRUE(StartDriver({"--simulate", script, "--realtime", "--fault", "hold:1@0"}))
            << m_driver->Err();
        ASSERT_EQ(Tool({"config", "dump", Path("a.json")}).status, 0);
        CChild tool = Start(IRFRAMECTL_PATH, recording ? Lines{"record", Path("rec.gesture")}
                                                       : Lines{"monitor", "--json"});
        ASSERT_TRUE(tool.WaitForErr("frame 1 (")) << tool.Err();
        ASSERT_EQ(Tool({"config", "restore", "--yes", "--backup",
                        Path(recording ? "bk-record.json" : "bk-monitor.json"),
                        Changed(ReadFile(Path("a.json")), 5)}).status, 0);
        EXPECT_EQ(tool.Wait(), 0) << tool.Err();
        EXPECT_EQ(m_driver->Wait(), 0) << m_driver->Err();
        if (recording) {
            EXPECT_EQ(Events(Path("rec.gesture")), ReadFile(Path("driver.json")));
            continue;
        }
        // The same contacts as the tool sees on the emulated frame it opens itself (where the
        // emulated calibration places each script position), whatever the time stamps.
        const auto withoutTime = [](const std::string& lines) {
            Lines out;
            for (const std::string& line : SplitLines(lines)) {
                Json j = Json::parse(line);
                j.erase("timeStamp");
                out.push_back(j.dump());
            }
            return out;
        };
        const TRun direct = Tool({"--simulate", script, "monitor", "--json"});
        ASSERT_EQ(direct.status, 0) << direct.err;
        const Lines want = withoutTime(direct.out);
        EXPECT_EQ(want.size(), 2u * 22u);
        EXPECT_EQ(withoutTime(tool.Out()), want);
    }
}

// Verify that map writes the desktop's setting for the name the frame's touchscreen gets, puts
// the gestures' pointer on the monitor in the user's drop-in, and has the driver read it.
TEST_F(IrframectlDriver, MapWritesTheDropInAndReloads) {
    ASSERT_TRUE(StartDriver({"--simulate", File("long.gesture", "hold 6000\n"), "--realtime"}))
        << m_driver->Err();
    const TRun map = Tool({"map", "--desktop", "wlroots", "HDMI-2"});
    EXPECT_EQ(map.status, 0) << map.err;
    EXPECT_THAT(map.err, HasSubstr("'irframe touchscreen frame 1'"));
    EXPECT_THAT(map.out, HasSubstr("input \"43756:49184:irframe_touchscreen_frame_1\" "
                                   "map_to_output HDMI-2"));
    EXPECT_THAT(map.out, HasSubstr("irframed reloaded its configuration; screen.output "
                                   "changed: in force after a restart"));
    EXPECT_EQ(ReadFile(Path("config/irframe/irframe.d/40-map.toml")),
              "# Written by irframectl map: the monitor the gestures' pointer maps into.\n"
              "[screen]\noutput = \"HDMI-2\"\n");
    EXPECT_TRUE(m_driver->WaitForErr("configuration reloaded from " +
                                     Path("config/irframe/irframe.d/40-map.toml")))
        << m_driver->Err();
    EXPECT_THAT(Tool({"map", "--show", "--desktop", "wlroots"}).out,
                HasSubstr("  wlroots: map_to_output HDMI-2 in "));
    EXPECT_EQ(Tool({"map", "--desktop", "mac", "HDMI-2"}).status, 2);
}

// ---------------------------------------------------------------------------------------------
// Both programs on what they write and what they say: every output name is replaced whole,
// followed or refused before any work; every lost write (a full disk, a closed or broken
// standard output) is exit 1 and one line; every message is one short line that starts with
// the program's name; irframectl --simulate takes scripts by irframed's rules.

using Args = Lines;

// What standard output of a run is.
enum class TStdout { File, Full, Closed, BrokenPipe };

class OutputAndMessages : public Irframectl {
protected:
    // Runs irframectl, or irframed without a configuration file, (stdin /dev/null, stderr kept)
    // with standard output as asked.
    TRun Run(bool driver, Args args, TStdout out = TStdout::File) {
        const Lines program = driver ? Lines{IRFRAMED_PATH, "--no-config"} : Lines{IRFRAMECTL_PATH};
        args.insert(args.begin(), program.begin(), program.end());
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
        const TRun run{WaitExit(pid, kHangBoundMillis / 1000), "", ReadFile(Path("stderr"))};
        EXPECT_EQ(run.err.find("Sanitizer"), std::string::npos) << run.err;
        return run;
    }

    const std::string m_script = File("tap.gesture", "down 1 100 100\nhold 2\nup 1\n");
};

// The line of `err` that starts with `prefix`; empty when none does.
std::string LineStartingWith(const std::string& err, const std::string& prefix) {
    std::istringstream in(err);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(prefix, 0) == 0) return line;
    }
    return {};
}

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
    const struct {
        bool driver;
        Args args;  // "OUT" stands for the output name
        const char* written;  // what the output holds after a good run
    } writers[] = {
        {false, {"--simulate", m_script, "config", "dump", "OUT"}, "\"format\": \"irframe-config\""},
        {false, {"--simulate", m_script, "record", "OUT"}, "raw 1 0 100 100"},
        {false, {"--simulate", m_script, "scan-pattern", "get", "OUT"}, ""},
        {true, {"--simulate", m_script, "--dry-run", "-o", "OUT"}, "\"device\":1"},
    };
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
    ASSERT_EQ(mkdir(Path("dir").c_str(), 0700), 0);
    for (const auto& w : writers) {
        SCOPED_TRACE(w.args[2] + " " + w.args[3]);
        std::remove(Path("target").c_str());
        std::remove(Path("link").c_str());
        ASSERT_EQ(symlink("target", Path("link").c_str()), 0);
        const TRun linked = Run(w.driver, WithOutput(w.args, Path("link")));
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
            const TRun run = Run(w.driver, WithOutput(w.args, r.path));
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
            const TRun run = Run(p.driver, p.args, f.out);
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

// Verify the messages about bad input: the cause is true, outside text is escaped and cut,
// each is one line that starts with the program's name.
TEST_F(OutputAndMessages, MessagesAreTrueEscapedAndOneLine) {
    ASSERT_EQ(Tool({"--simulate", m_script, "config", "dump", Path("frame.json")}).status, 0);
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
        const TRun run = Run(c.driver, c.args);
        const std::string program = c.driver ? "irframed: " : "irframectl: ";
        EXPECT_EQ(run.status, c.status) << run.err;
        EXPECT_EQ(run.err, program + c.line + "\n");
    }
    // Nothing names a session bus: said in words, not as sd-bus's "No medium found".
    unsetenv("XDG_RUNTIME_DIR");
    const TRun noBus = Tool({"--bus", "list"});
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
        const TRun driver = Run(true, {"--simulate", script, "--dry-run"});
        const TRun tool = Tool({"--simulate", script, "list"});
        EXPECT_NE(driver.status, 0);
        EXPECT_EQ(tool.status, driver.status);
        ASSERT_EQ(driver.err.rfind("irframed: ", 0), 0u) << driver.err;
        EXPECT_EQ("irframectl: " + driver.err.substr(10), tool.err);
    }
}

}  // namespace
