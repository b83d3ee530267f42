// irframectl end to end, the tool binary itself:
//   - on an emulated frame it opens directly (--simulate): monitor, record and replay through
//     irframed, configuration dump and restore, transfers, usage;
//   - through a stand-in for the driver's D-Bus interface on a private session bus: the same
//     commands over the bus, progress and Ctrl-C, the driver's refusals;
//   - through irframed itself on a private bus, once the driver serves its interface (skipped
//     while it does not).
#include <signal.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "DevConfigJson.h"
#include "support/ChildProcess.h"
#include "support/PrivateBus.h"

namespace {

using testing::HasSubstr;
using Lines = std::vector<std::string>;
using Json = nlohmann::ordered_json;

struct TRun {
    int status = -1;
    std::string out;
    std::string err;
};

// ---------------------------------------------------------------------------------------------
// A stand-in for the driver's interface: frames with fixed properties, a stored configuration,
// scripted contact frames, and transfers that report progress, wait for Cancel or are refused.

constexpr const char* kBusName = "org.irframe.Driver1";
constexpr const char* kRoot = "/org/irframe/Driver1";
constexpr const char* kFrameIface = "org.irframe.Driver1.Frame";
constexpr const char* kError = "org.irframe.Driver1.Error.";

struct TFakeContact {
    uint8_t id, status;
    bool retired;
    int32_t x, y;
    uint16_t rawX, rawY;
    uint8_t group, index;
};

struct TFakeFrame {
    int number = 1;
    std::string node = "/dev/hidraw4";
    std::string serial = "S1";
    std::string state = "running";
    std::string config;  // JSON
    std::vector<std::pair<int64_t, std::vector<TFakeContact>>> contacts;  // sent on subscribe
    std::string refuseWrite;  // WriteConfig answers InvalidArgument with this, when set
};

class CFakeDriver {
public:
    CFakeDriver(const CPrivateBus& bus, std::vector<TFakeFrame> frames)
        : m_connection(bus), m_bus(m_connection.Bus()) {
        for (TFakeFrame& f : frames) m_frames.push_back(std::make_unique<TObject>(TObject{this, f}));
        if (m_bus == nullptr) return;
        sd_bus_add_object_vtable(m_bus, nullptr, kRoot, "org.irframe.Driver1", kRootTable, this);
        for (auto& object : m_frames) {
            sd_bus_add_object_vtable(m_bus, nullptr, Path(object->frame.number).c_str(),
                                     kFrameIface, kFrameTable, object.get());
        }
        m_ok = sd_bus_request_name(m_bus, kBusName, 0) >= 0;
        m_connection.Serve();
    }
    ~CFakeDriver() {
        m_connection.Stop();
        if (m_pending != nullptr) sd_bus_message_unref(m_pending);
    }

    bool Ok() const { return m_ok; }
    int Calls(const std::string& method) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls[method];
    }
    std::string Config(int frame) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_frames[static_cast<size_t>(frame - 1)]->frame.config;
    }

private:
    // What the frame objects' handlers get.
    struct TObject {
        CFakeDriver* driver;
        TFakeFrame frame;
    };

    static std::string Path(int number) { return std::string(kRoot) + "/frame" + std::to_string(number); }

    static CFakeDriver* Owner(void* object) { return static_cast<TObject*>(object)->driver; }
    static TFakeFrame& Of(void* object) { return static_cast<TObject*>(object)->frame; }
    void Count(const char* method) {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_calls[method];
    }

    static int ListFrames(sd_bus_message* m, void* self, sd_bus_error*) {
        auto* d = static_cast<CFakeDriver*>(self);
        sd_bus_message* reply = nullptr;
        sd_bus_message_new_method_return(m, &reply);
        sd_bus_message_open_container(reply, 'a', "o");
        for (const auto& o : d->m_frames) sd_bus_message_append(reply, "o", Path(o->frame.number).c_str());
        sd_bus_message_close_container(reply);
        const int r = sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
        return r;
    }

    static int Property(sd_bus*, const char*, const char*, const char* property,
                        sd_bus_message* reply, void* frame, sd_bus_error*) {
        const TFakeFrame& f = Of(frame);
        const std::string p = property;
        if (p == "Number") return sd_bus_message_append(reply, "i", f.number);
        if (p == "Node") return sd_bus_message_append(reply, "s", f.node.c_str());
        if (p == "VendorId") return sd_bus_message_append(reply, "q", uint16_t{0xAAEC});
        if (p == "ProductId") return sd_bus_message_append(reply, "q", uint16_t{0xC021});
        if (p == "Product") return sd_bus_message_append(reply, "s", "IR Touch");
        if (p == "Serial") return sd_bus_message_append(reply, "s", f.serial.c_str());
        if (p == "State") return sd_bus_message_append(reply, "s", f.state.c_str());
        if (p == "Geometry") return sd_bus_message_append(reply, "(iiii)", 8191, 4095, 32766, 16383);
        return sd_bus_message_append(reply, "s", "1 area, 0 panels");
    }

    static int Read(sd_bus_message* m, void* frame, sd_bus_error*) {
        CFakeDriver* d = Owner(frame);
        const std::string method = sd_bus_message_get_member(m);
        d->Count(method.c_str());
        if (method == "ReadConfig") {
            std::lock_guard<std::mutex> lock(d->m_mutex);
            return sd_bus_reply_method_return(m, "s", Of(frame).config.c_str());
        }
        return sd_bus_reply_method_return(
            m, "s", method == "ReadInfo" ? R"({"bytes":"49522d3031"})" : R"({"bytes":"00ff10"})");
    }

    static int WriteConfig(sd_bus_message* m, void* frame, sd_bus_error* error) {
        CFakeDriver* d = Owner(frame);
        d->Count("WriteConfig");
        auto& f = Of(frame);
        const char* json = nullptr;
        sd_bus_message_read(m, "s", &json);
        if (!f.refuseWrite.empty()) {
            return sd_bus_error_set(error, (std::string(kError) + "InvalidArgument").c_str(),
                                    f.refuseWrite.c_str());
        }
        // Kept as the driver keeps it: read and written again.
        auto record = std::make_unique<_HARDWARE_DEV_CONFIG>();
        std::string fault;
        if (!DevConfigFromJson(json, record.get(), &fault)) {
            return sd_bus_error_set(error, (std::string(kError) + "InvalidArgument").c_str(),
                                    fault.c_str());
        }
        {
            std::lock_guard<std::mutex> lock(d->m_mutex);
            f.config = DevConfigToJson(*record);
        }
        return sd_bus_reply_method_return(m, "s", f.config.c_str());
    }

    static void Progress(sd_bus_message* m, uint32_t done, uint32_t total) {
        sd_bus_emit_signal(sd_bus_message_get_bus(m), sd_bus_message_get_path(m), kFrameIface,
                           "Progress", "uu", done, total);
    }

    static int ReadScanPattern(sd_bus_message* m, void* frame, sd_bus_error*) {
        Owner(frame)->Count("ReadScanPattern");
        Progress(m, 3, 6);
        Progress(m, 6, 6);
        sd_bus_message* reply = nullptr;
        sd_bus_message_new_method_return(m, &reply);
        const uint8_t pattern[] = {0xB2, 0, 6, 0, 0, 0};
        sd_bus_message_append_array(reply, 'y', pattern, sizeof pattern);
        const int r = sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
        return r;
    }

    // Reports a quarter done and waits for Cancel.
    static int WriteScanPattern(sd_bus_message* m, void* frame, sd_bus_error*) {
        CFakeDriver* d = Owner(frame);
        d->Count("WriteScanPattern");
        d->m_pending = sd_bus_message_ref(m);
        Of(frame).state = "running";
        Progress(m, 250, 1000);
        return 1;
    }

    static int WriteTouchSystemFile(sd_bus_message*, void* frame, sd_bus_error* error) {
        Owner(frame)->Count("WriteTouchSystemFile");
        return sd_bus_error_set(error, (std::string(kError) + "Busy").c_str(),
                                "frame 1 is busy with another client's transfer");
    }

    static int Cancel(sd_bus_message* m, void* frame, sd_bus_error*) {
        CFakeDriver* d = Owner(frame);
        d->Count("Cancel");
        if (d->m_pending != nullptr) {
            sd_bus_reply_method_errorf(d->m_pending, (std::string(kError) + "Cancelled").c_str(),
                                       "the transfer was cancelled");
            d->m_pending = sd_bus_message_unref(d->m_pending);
        }
        return sd_bus_reply_method_return(m, "");
    }

    // Answers, then sends the scripted contact frames and says the frame went away.
    static int Subscribe(sd_bus_message* m, void* frame, sd_bus_error*) {
        Owner(frame)->Count("SubscribeContacts");
        const TFakeFrame& f = Of(frame);
        sd_bus* bus = sd_bus_message_get_bus(m);
        sd_bus_reply_method_return(m, "");
        for (const auto& [stamp, contacts] : f.contacts) {
            sd_bus_message* s = nullptr;
            sd_bus_message_new_signal(bus, &s, Path(f.number).c_str(), kFrameIface, "Contacts");
            sd_bus_message_append(s, "x", stamp);
            sd_bus_message_open_container(s, 'a', "(yybiiiiqqyy)");
            for (const TFakeContact& c : contacts) {
                sd_bus_message_append(s, "(yybiiiiqqyy)", c.id, c.status, static_cast<int>(c.retired),
                                      c.x, c.y, 0, 0, c.rawX, c.rawY, c.group, c.index);
            }
            sd_bus_message_close_container(s);
            sd_bus_send(bus, s, nullptr);
            sd_bus_message_unref(s);
        }
        sd_bus_emit_signal(bus, kRoot, "org.irframe.Driver1", "FrameRemoved", "o",
                           Path(f.number).c_str());
        return 1;
    }

    static int Unsubscribe(sd_bus_message* m, void* frame, sd_bus_error*) {
        Owner(frame)->Count("UnsubscribeContacts");
        return sd_bus_reply_method_return(m, "");
    }

    static const sd_bus_vtable kRootTable[];
    static const sd_bus_vtable kFrameTable[];

    std::vector<std::unique_ptr<TObject>> m_frames;
    CServedConnection m_connection;
    sd_bus* const m_bus;
    bool m_ok = false;
    std::mutex m_mutex;
    std::map<std::string, int> m_calls;
    sd_bus_message* m_pending = nullptr;  // a transfer waiting for Cancel; the bus thread's
};

const sd_bus_vtable CFakeDriver::kRootTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("ListFrames", "", "ao", &CFakeDriver::ListFrames, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL("FrameAdded", "o", 0),
    SD_BUS_SIGNAL("FrameRemoved", "o", 0),
    SD_BUS_VTABLE_END};

const sd_bus_vtable CFakeDriver::kFrameTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Number", "i", &CFakeDriver::Property, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Node", "s", &CFakeDriver::Property, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("VendorId", "q", &CFakeDriver::Property, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("ProductId", "q", &CFakeDriver::Property, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Product", "s", &CFakeDriver::Property, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Serial", "s", &CFakeDriver::Property, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("State", "s", &CFakeDriver::Property, 0, 0),
    SD_BUS_PROPERTY("Geometry", "(iiii)", &CFakeDriver::Property, 0, 0),
    SD_BUS_PROPERTY("ConfigSummary", "s", &CFakeDriver::Property, 0, 0),
    SD_BUS_METHOD("ReadInfo", "", "s", &CFakeDriver::Read, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("ReadStatus", "", "s", &CFakeDriver::Read, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("ReadConfig", "", "s", &CFakeDriver::Read, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("WriteConfig", "s", "s", &CFakeDriver::WriteConfig, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("ReadScanPattern", "", "ay", &CFakeDriver::ReadScanPattern,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("WriteScanPattern", "ay", "", &CFakeDriver::WriteScanPattern,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("WriteTouchSystemFile", "ay", "", &CFakeDriver::WriteTouchSystemFile,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Cancel", "", "", &CFakeDriver::Cancel, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("SubscribeContacts", "", "", &CFakeDriver::Subscribe, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("UnsubscribeContacts", "", "", &CFakeDriver::Unsubscribe,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL("Progress", "uu", 0),
    SD_BUS_SIGNAL("Contacts", "xa(yybiiiiqqyy)", 0),
    SD_BUS_VTABLE_END};

// ---------------------------------------------------------------------------------------------

class Irframectl : public testing::Test {
protected:
    void SetUp() override {
        // No session bus unless a test makes one: the tool then opens frames itself.
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
        setenv("XDG_RUNTIME_DIR", m_dir.c_str(), 1);
    }
    std::string File(const std::string& name, const std::string& text) { return m_scratch.File(name, text); }
    std::string Path(const std::string& name) const { return m_scratch.Path(name); }

    CChild Start(const std::string& program, Lines args) {
        args.insert(args.begin(), program);
        const std::string tag = std::to_string(m_children++);
        return CChild(args, Path("out" + tag), Path("err" + tag));
    }

    TRun Tool(Lines args) {
        CChild child = Start(IRFRAMECTL_PATH, std::move(args));
        TRun run;
        run.status = child.Wait();
        run.out = child.Out();
        run.err = child.Err();
        EXPECT_EQ(run.err.find("Sanitizer"), std::string::npos) << run.err;
        return run;
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
    int m_children = 0;
};

constexpr const char* kScroll =
    "down 1 12000 8000, 2 15000 8000\nmove 1 12000 14000, 2 15000 14000 in 20\nup 1, 2\n";
constexpr const char* kTapTwice =
    "wait 130ms\ndown 1 16000 16000\nup 1\nhold 3\ndown 1 16010 16000\nup 1\nhold 3\n";
constexpr const char* kDragVanish = "down 3 9000 9000\nmove 3 20000 9500 in 15\nvanish 3\nhold 2\n";

// ---------------------------------------------------------------------------------------------
// An emulated frame opened by the tool itself

// Verify that a recorded session played by irframed --simulate posts exactly the events that
// the session itself posted.
TEST_F(Irframectl, RecordingReplaysToTheSameEvents) {
    for (const char* text : {kScroll, kTapTwice, kDragVanish}) {
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
        seen.push_back(std::to_string(j["id"].get<int>()) + " " + std::to_string(j["status"].get<int>()) +
                       (j["retired"].get<bool>() ? " retired " : " ") + std::to_string(j["x"].get<int>()) +
                       "," + std::to_string(j["y"].get<int>()) + " " + j["place"].get<std::string>());
    }
    EXPECT_THAT(seen, testing::ElementsAre("1 0 1000,2000 area", "2 0 30000,4000 area",
                                           "1 1 1100,2000 area", "2 1 30000,4000 area",
                                           "1 2 1100,2000 area", "2 2 30000,4000 area",
                                           "7 0 5000,6000 area", "7 0 retired 5000,6000 area"));
    // A simulated frame's script starts on a whole second.
    EXPECT_EQ(firstStamp % 4'000'000, 0);
}

// Verify that a configuration dumped from the frame, changed and restored is shown as its
// changes, keeps what it replaced, is written and reads back the same.
TEST_F(Irframectl, ConfigRestoreShowsChangesKeepsBackupAndVerifies) {
    const std::string script = File("idle.gesture", "hold 1\n");
    const TRun dump = Tool({"--simulate", script, "config", "dump", Path("frame.json")});
    ASSERT_EQ(dump.status, 0) << dump.err;
    const std::string original = ReadFile(Path("frame.json"));
    auto record = std::make_unique<_HARDWARE_DEV_CONFIG>();
    std::string error;
    ASSERT_TRUE(DevConfigFromJson(original, record.get(), &error)) << error;

    Json changed = Json::parse(original);
    changed["flags"] = "0x00101705";
    changed["areas"].push_back(Json::parse(R"({"netAddress": "10.0.0.2", "port": 1, "port2": 2, "mode": 5,
        "id": 3, "group": 0, "rotation": 1,
        "outputRect": {"x": 0, "y": 0, "width": 1920, "height": 1080},
        "targetRect": {"x": 0, "y": 0, "width": 1280, "height": 720},
        "edgeAdjust": {"minusX": 15, "plusX": 15, "minusY": 15, "plusY": 15},
        "center": {"x": 16384, "y": 16384}, "axisH": {"x": -16384, "y": 0},
        "axisV": {"x": 0, "y": 16384}})"));
    const std::string wanted = File("wanted.json", changed.dump(2));
    const TRun restore = Tool({"--simulate", script, "config", "restore", wanted, "--yes",
                               "--backup", Path("before.json")});
    ASSERT_EQ(restore.status, 0) << restore.err;
    EXPECT_THAT(restore.out, HasSubstr("  /flags: \"0x00101F05\" -> \"0x00101705\"\n"));
    EXPECT_THAT(restore.out, HasSubstr("  /areas/1: added\n"));
    EXPECT_THAT(restore.out, HasSubstr("written and read back: frame 1 now holds 2 areas, 0 panels"));
    EXPECT_EQ(ReadFile(Path("before.json")), original);

    // The backup goes next to the file unless named.
    const TRun again = Tool({"--simulate", script, "config", "restore", "--yes", wanted});
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_THAT(again.err, HasSubstr("saved in " + m_dir + "/wanted.replaced-"));
}

// Verify that a file that changes nothing asks nothing, and that a change nobody confirmed
// leaves the frame alone. (Files the reader refuses: OutputAndMessages and DevConfigJson_test.)
TEST_F(Irframectl, ConfigRestoreUnconfirmed) {
    const std::string script = File("idle.gesture", "hold 1\n");
    ASSERT_EQ(Tool({"--simulate", script, "config", "dump", Path("frame.json")}).status, 0);
    const TRun same = Tool({"--simulate", script, "config", "restore", Path("frame.json")});
    EXPECT_EQ(same.status, 0) << same.err;
    Json changed = Json::parse(ReadFile(Path("frame.json")));
    changed["port"] = 4000;
    const TRun unasked =
        Tool({"--simulate", script, "config", "restore", File("b2.json", changed.dump())});
    EXPECT_EQ(unasked.status, 2) << unasked.err;
    EXPECT_THAT(unasked.err, HasSubstr("add --yes"));
}

// Verify the transfers on an emulated frame: what is read is written back with progress in
// percentages off a terminal; files that cannot be right are refused before the frame is opened.
TEST_F(Irframectl, TransfersShowProgressAndRefuseBadFiles) {
    const std::string script = File("idle.gesture", "hold 1\n");
    const TRun get = Tool({"--simulate", script, "scan-pattern", "get", Path("pattern.bin")});
    ASSERT_EQ(get.status, 0) << get.err;
    const std::string pattern = ReadFile(Path("pattern.bin"));
    ASSERT_GE(pattern.size(), 6u);

    std::string big(3000, 'x');
    big.replace(0, 6, std::string("\xB2\x00\xB8\x0B\x00\x00", 6));  // 3000 bytes, said at 2..5
    const struct {
        Lines args;
        int status;
        const char* message;
    } cases[] = {
        {{"scan-pattern", "set", Path("pattern.bin")}, 0, "scan pattern: 100%"},
        {{"scan-pattern", "set", File("big.bin", big)}, 0, "scan pattern (3000 bytes) written"},
        {{"scan-pattern", "set", File("short.bin", big.substr(0, 2999))}, 4, "bytes 2..5 say 3000"},
        {{"touch-system-file", "set", File("ts.bin", std::string(1024, 'a'))}, 0, "touch-system file: 100%"},
        {{"touch-system-file", "set", File("small.bin", std::string(1023, 'a'))}, 4, "at least 1024"},
    };
    for (const auto& c : cases) {
        Lines args = {"--simulate", script};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const TRun run = Tool(args);
        EXPECT_EQ(run.status, c.status) << run.err;
        EXPECT_THAT(run.err, HasSubstr(c.message));
    }
}

// Verify what list, info and status show of an emulated frame, and the usage errors.
TEST_F(Irframectl, ListInfoStatusAndUsage) {
    const std::string script = File("idle.gesture", "hold 1\n");
    const TRun list = Tool({"--simulate", script, "list"});
    EXPECT_EQ(list.status, 0);
    EXPECT_THAT(list.out, HasSubstr("1     simulated:" + script + " AAEC:C020 emulated frame"));
    const TRun info = Tool({"--simulate", script, "info", "1"});
    EXPECT_EQ(info.status, 0) << info.err;
    EXPECT_THAT(info.out, HasSubstr("geometry       logical 8191x8191, raw 32766x32766\n"));
    EXPECT_THAT(info.out, HasSubstr("configuration  1 area, 0 panels\n"));
    EXPECT_THAT(info.out, HasSubstr("information block (43 bytes)\n000000  30 31 32"));
    const TRun status = Tool({"--simulate", script, "status"});
    EXPECT_EQ(status.status, 0) << status.err;
    EXPECT_THAT(status.out, HasSubstr("000000  00 01 02 03 10 20 30 40"));

    const TRun help = Tool({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* word : {"list", "info", "status", "config", "monitor", "record", "scan-pattern",
                             "touch-system-file", "Exit status:"}) {
        EXPECT_THAT(help.out, HasSubstr(word));
    }
    EXPECT_THAT(Tool({"--version"}).out, testing::MatchesRegex("irframectl [0-9]+\\.[0-9.]+\n"));
    EXPECT_EQ(Tool({"--simulate", script, "config", "dump", "-", "1"}).out.rfind("{\n", 0), 0u);
    EXPECT_EQ(Tool({}).status, 2);
    EXPECT_EQ(Tool({"--bus", "--usb", "list"}).status, 2);
    EXPECT_EQ(Tool({"--simulate", script, "info", "2"}).status, 3);
    EXPECT_EQ(Tool({"-f", "1", "--simulate", script, "info", "2"}).status, 2);
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
    void TearDown() override {
        m_fake.reset();
        m_bus.reset();
        Irframectl::TearDown();
    }

    void Serve(std::vector<TFakeFrame> frames) {
        m_fake = std::make_unique<CFakeDriver>(*m_bus, std::move(frames));
        ASSERT_TRUE(m_fake->Ok());
    }

    // As the writer puts it.
    static std::string Canonical(const Json& j) {
        auto record = std::make_unique<_HARDWARE_DEV_CONFIG>();
        std::string error;
        EXPECT_TRUE(DevConfigFromJson(j.dump(), record.get(), &error)) << error;
        return DevConfigToJson(*record);
    }

    static std::string SampleConfig() {
        auto c = std::make_unique<_HARDWARE_DEV_CONFIG>();
        std::memset(static_cast<void*>(c.get()), 0, sizeof *c);
        DefaultDevConfig(0, 0, c.get());
        DefaultDevCalConfig(0, 0, c.get());
        return DevConfigToJson(*c);
    }

    std::unique_ptr<CPrivateBus> m_bus;
    std::unique_ptr<CFakeDriver> m_fake;
};

// Verify that the tool goes through the driver when it runs, and shows its frames.
TEST_F(IrframectlBus, ListInfoStatusThroughTheDriver) {
    TFakeFrame second;
    second.number = 2;
    second.node = "/dev/hidraw9";
    second.serial = "S2";
    second.config = SampleConfig();
    Serve({TFakeFrame{}, second});
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
    EXPECT_EQ(Tool({"--direct", "--simulate", File("i.gesture", "hold 1\n"), "list"}).status, 0);
}

TEST_F(IrframectlBus, DriverRefusalIsBadInput) {
    TFakeFrame frame;
    frame.config = SampleConfig();
    frame.refuseWrite = "/areas/0/rotation: not usable on this frame";
    Serve({frame});
    Json changed = Json::parse(frame.config);
    changed["areas"][0]["rotation"] = 2;
    const TRun run = Tool({"config", "restore", "--yes", "--backup", Path("k.json"),
                           File("r.json", changed.dump())});
    EXPECT_EQ(run.status, 4);
    EXPECT_THAT(run.err, HasSubstr("writing the configuration: /areas/0/rotation: not usable"));
}

// Verify that monitor and record take the driver's contact frames until the frame goes away.
TEST_F(IrframectlBus, MonitorAndRecordThroughTheDriver) {
    TFakeFrame frame;
    frame.node = "simulated:x.gesture";  // its going away is the end of its script
    frame.config = SampleConfig();
    const int64_t second = 1'700'000'001LL * 4'000'000;
    frame.contacts = {
        {second, {{1, 0, false, 100, 200, 10, 20, 0, 0}}},
        {second + 10'000, {{1, 1, false, 110, 200, 11, 20, 0xFF, 2}}},
        {second + 20'000, {}},
        {second + 30'000, {{1, 1, true, 110, 200, 11, 20, 0xFF, 2}}},
    };
    Serve({frame});
    const TRun monitor = Tool({"monitor", "--json"});
    EXPECT_EQ(monitor.status, 0) << monitor.err;
    const Lines lines = SplitLines(monitor.out);
    ASSERT_EQ(lines.size(), 3u) << monitor.out;
    EXPECT_EQ(lines[1],
              R"({"frame":1,"timeStamp":6800000004010000,"id":1,"status":1,"retired":false,"x":110,)"
              R"("y":200,"width":0,"height":0,"rawX":11,"rawY":20,"cell":[255,2],"place":"panel","index":2})");
    EXPECT_THAT(Tool({"monitor"}).out, HasSubstr("  0.010000  id 1   moving   raw    11,20     at   110,200    panel 2"));

    const TRun record = Tool({"record", Path("r.gesture")});
    EXPECT_EQ(record.status, 0) << record.err;
    EXPECT_THAT(ReadFile(Path("r.gesture")), testing::EndsWith("raw 1 0 100 200\nraw 1 1 110 200\nhold 2\n"));
    EXPECT_EQ(m_fake->Calls("SubscribeContacts"), 3);
}

// Verify that Ctrl-C during a transfer cancels it through the driver and says what state the
// frame is in, and that a busy frame is its own exit status.
TEST_F(IrframectlBus, TransferCancelAndBusy) {
    Serve({TFakeFrame{}});
    std::string pattern = std::string("\xB2\x00\x08\x00\x00\x00", 6) + "ab";
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
}

// Verify that no driver on the bus is a failure, and that an owner of the driver's name that
// never answers is waited for only until SIGINT or SIGTERM, which end the tool as cancelled
// with one line naming the signal.
TEST_F(IrframectlBus, NoDriverOrOneThatNeverAnswers) {
    const TRun run = Tool({"--bus", "list"});
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err, HasSubstr("no driver owns org.irframe.Driver1"));

    // Takes every message it is sent and answers none.
    sd_bus* silent = m_bus->Connect();
    ASSERT_NE(silent, nullptr);
    ASSERT_GE(sd_bus_request_name(silent, "org.irframe.Driver1", 0), 0);
    std::atomic<int> asked{0};
    const auto swallow = [](sd_bus_message* m, void* count, sd_bus_error*) {
        if (sd_bus_message_is_method_call(m, nullptr, "ListFrames")) ++*static_cast<std::atomic<int>*>(count);
        return 1;
    };
    ASSERT_GE(sd_bus_add_filter(silent, nullptr, swallow, &asked), 0);
    for (const int signal : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(signal);
        const int before = asked;
        CChild tool = Start(IRFRAMECTL_PATH, {"list"});
        for (int waited = 0; asked == before && waited < kHangBoundMillis; waited += 10) {
            while (sd_bus_process(silent, nullptr) > 0) {
            }
            sd_bus_wait(silent, 10'000);
        }
        ASSERT_GT(asked, before) << tool.Err();
        tool.Signal(signal);
        EXPECT_EQ(tool.Wait(), 5);
        EXPECT_EQ(tool.Err(), std::string("irframectl: ") + (signal == SIGINT ? "SIGINT" : "SIGTERM") +
                                  " while waiting for an answer (listing the frames): stopping\n");
    }
    sd_bus_flush_close_unref(silent);
}

// ---------------------------------------------------------------------------------------------
// Through irframed itself on a private bus. Skipped while the driver does not take its bus name.

class IrframectlDriver : public IrframectlBus {
protected:
    // Starts irframed with `args` (and --dry-run into a file). False when it does not take its
    // bus name by the time its frame runs: the caller then skips.
    bool StartDriver(Lines args) {
        args.insert(args.end(), {"--dry-run", "--output", Path("driver.json")});
        m_driver = std::make_unique<CChild>(Start(IRFRAMED_PATH, args));
        // The interface starts with the driver; by the time its frame is found, the name is
        // taken or about to be (a short bound, only ever waited out where it is not served).
        if (!m_driver->WaitForErr("frame 1 found")) return false;
        sd_bus* bus = m_bus->Connect();
        int owned = 0;
        for (int tries = 0; bus != nullptr && owned == 0 && tries < 100; ++tries) {
            sd_bus_message* reply = nullptr;
            if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                   "org.freedesktop.DBus", "NameHasOwner", nullptr, &reply, "s",
                                   kBusName) >= 0) {
                sd_bus_message_read(reply, "b", &owned);
            }
            sd_bus_message_unref(reply);
            if (owned == 0) usleep(20'000);
        }
        sd_bus_flush_close_unref(bus);
        return owned != 0;
    }
    void TearDown() override {
        if (m_driver) {
            m_driver->Signal(SIGTERM);
            m_driver->Wait();
        }
        IrframectlBus::TearDown();
    }
    std::string DriverEvents() const { return ReadFile(m_dir + "/driver.json"); }

    // A carried value changed: writing it releases a frame that holds its script.
    std::string Changed(const std::string& dumped, int value1) {
        Json j = Json::parse(dumped);
        j["value1"] = value1;
        return File("changed" + std::to_string(value1) + ".json", Canonical(j));
    }

    std::unique_ptr<CChild> m_driver;
};

TEST_F(IrframectlDriver, ListInfoAndDumpRestoreDumpByteIdentical) {
    const std::string script = File("long.gesture", "hold 6000\n");
    if (!StartDriver({"--simulate", script, "--realtime"})) {
        GTEST_SKIP() << "irframed does not serve org.irframe.Driver1: " << m_driver->Err();
    }
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
        if (!StartDriver({"--simulate", script, "--realtime", "--fault", "hold:1@0"})) {
            GTEST_SKIP() << "irframed does not serve org.irframe.Driver1: " << m_driver->Err();
        }
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
            EXPECT_EQ(Events(Path("rec.gesture")), DriverEvents());
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
        const Lines seen = withoutTime(tool.Out());
        EXPECT_EQ(want.size(), 2u * 22u);
        EXPECT_EQ(seen, want);
    }
}

// Verify that map writes the desktop's setting for the name the frame's touchscreen gets, puts
// the gestures' pointer on the monitor in the user's drop-in, and has the driver read it.
TEST_F(IrframectlDriver, MapWritesTheDropInAndReloads) {
    const char* saved = std::getenv("XDG_CONFIG_HOME");
    const std::string savedValue = saved != nullptr ? saved : "";
    const auto restore = [&] {
        if (saved != nullptr) {
            setenv("XDG_CONFIG_HOME", savedValue.c_str(), 1);
        } else {
            unsetenv("XDG_CONFIG_HOME");
        }
    };
    setenv("XDG_CONFIG_HOME", Path("config").c_str(), 1);
    const std::string script = File("long.gesture", "hold 6000\n");
    if (!StartDriver({"--simulate", script, "--realtime"})) {
        restore();
        GTEST_SKIP() << "irframed does not serve org.irframe.Driver1: " << m_driver->Err();
    }
    const TRun map = Tool({"map", "--desktop", "wlroots", "HDMI-2"});
    restore();
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
    setenv("XDG_CONFIG_HOME", Path("config").c_str(), 1);
    const TRun show = Tool({"map", "--show", "--desktop", "wlroots"});
    restore();
    EXPECT_THAT(show.out, HasSubstr("  wlroots: map_to_output HDMI-2 in "));
    EXPECT_EQ(Tool({"map", "--desktop", "mac", "HDMI-2"}).status, 2);
}

}  // namespace
