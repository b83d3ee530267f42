// The driver's D-Bus interface end to end: a private session bus (dbus-daemon, started here),
// irframed on emulated frames, and an sd-bus client. Frames hold their scripts (--fault hold) so
// that the driver stays up while the test talks to it; transfers stall or vanish by --fault.
#include <signal.h>
#include <systemd/sd-bus.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/PrivateBus.h"

namespace {

using testing::HasSubstr;
using Args = std::vector<std::string>;

constexpr const char* kName = "org.irframe.Driver1";
constexpr const char* kRoot = "/org/irframe/Driver1";
constexpr const char* kFrameIface = "org.irframe.Driver1.Frame";

std::string FramePath(int n) {
    return std::string(kRoot) + "/frame" + std::to_string(n);
}

// One irframed run; its standard error is its log.
struct TDriver : CChild {
    using CChild::CChild;
    std::string Log() const { return Err(); }
    int Stop() {
        Signal(SIGTERM);
        return Wait();
    }
};

// A method's answer: the error's name and message, or what it returned.
struct TCall {
    std::string error;
    std::string message;
    std::string text;  // a returned string, or a returned (bss) as "b|s|s"
    std::vector<uint8_t> bytes;
    std::vector<std::string> paths;
};

// Fills `call` from a reply (or an error) of any of the driver's methods.
void ReadAnswer(sd_bus_message* reply, const sd_bus_error* error, TCall* call) {
    if (reply == nullptr || (error != nullptr && sd_bus_error_is_set(error))) {
        call->error = error != nullptr && error->name != nullptr ? error->name : "?";
        call->message = error != nullptr && error->message != nullptr ? error->message : "";
        return;
    }
    const std::string signature = sd_bus_message_get_signature(reply, 1);
    const char* s = nullptr;
    const char* restart = nullptr;
    int reloaded = 0;
    if (signature == "s" && sd_bus_message_read(reply, "s", &s) > 0) {
        call->text = s;
    } else if (signature == "bss" &&
               sd_bus_message_read(reply, "bss", &reloaded, &s, &restart) > 0) {
        call->text = std::to_string(reloaded) + "|" + s + "|" + restart;
    } else if (signature == "ay") {
        const void* data = nullptr;
        size_t size = 0;
        sd_bus_message_read_array(reply, 'y', &data, &size);
        const auto* bytes = static_cast<const uint8_t*>(data);
        call->bytes.assign(bytes, bytes + size);
    } else if (signature == "ao") {
        sd_bus_message_enter_container(reply, 'a', "o");
        while (sd_bus_message_read(reply, "o", &s) > 0) call->paths.push_back(s);
    }
}

class DriverDbus : public testing::Test {
protected:
    void SetUp() override {
        m_daemon = std::make_unique<CPrivateBus>();
        ASSERT_TRUE(m_daemon->Ready()) << "dbus-daemon is needed (Debian package dbus-daemon)";
        m_bus = m_daemon->Connect();
        ASSERT_NE(m_bus, nullptr);
        // A frame that waits for a write of its configuration before it touches.
        m_tap = m_scratch.File("tap.gesture", "down 1 16000 16000\nhold 2\nup 1\nhold 1\n");
    }

    void TearDown() override {
        for (const std::unique_ptr<TDriver>& d : m_drivers) d->Stop();
        m_signalSlot = sd_bus_slot_unref(m_signalSlot);
        m_bus = sd_bus_flush_close_unref(m_bus);
        m_daemon.reset();
    }

    TDriver& Start(const Args& args) {
        const std::string n = std::to_string(m_drivers.size());
        Args argv{IRFRAMED_PATH, "--dry-run", "--output", m_dir + "/out" + n + ".json"};
        argv.insert(argv.end(), args.begin(), args.end());
        const std::string err = m_dir + "/err" + n + ".txt";
        m_drivers.push_back(std::make_unique<TDriver>(argv, "/dev/null", err));
        return *m_drivers.back();
    }
    // Two held frames, with the faults of each.
    TDriver& StartTwo(const Args& first = {}, const Args& second = {}) {
        Args args{"--simulate", m_tap, "--fault", "hold:1"};
        args.insert(args.end(), first.begin(), first.end());
        args.insert(args.end(), {"--simulate", m_tap, "--fault", "2:hold:1"});
        args.insert(args.end(), second.begin(), second.end());
        return Start(args);
    }

    // Runs the client's side of the bus until `done`, within a bound against a hang.
    bool Until(const std::function<bool()>& done) {
        for (int i = 0; i < 3000; ++i) {
            if (done()) return true;
            while (sd_bus_process(m_bus, nullptr) > 0) {
            }
            if (done()) return true;
            sd_bus_wait(m_bus, 10'000);
        }
        return done();
    }

    // A method of `path` (a frame's by number) with no argument or one string.
    TCall CallAt(const std::string& path, const char* iface, const char* method,
                 const std::string& arg = "", sd_bus* bus = nullptr) {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        const char* destination = iface == std::string(kName) || iface == std::string(kFrameIface)
                                      ? kName
                                      : "org.freedesktop.DBus";
        sd_bus_call_method(bus != nullptr ? bus : m_bus, destination, path.c_str(), iface, method,
                           &error, &reply, arg.empty() ? "" : "s", arg.c_str());
        TCall call;
        ReadAnswer(reply, &error, &call);
        sd_bus_message_unref(reply);
        sd_bus_error_free(&error);
        return call;
    }
    TCall Call(int frame, const char* method, const std::string& arg = "") {
        return CallAt(FramePath(frame), kFrameIface, method, arg);
    }
    std::string Owner() {
        return CallAt("/org/freedesktop/DBus", "org.freedesktop.DBus", "GetNameOwner", kName).text;
    }
    std::vector<std::string> ListFrames() { return CallAt(kRoot, kName, "ListFrames").paths; }

    // A property of a frame, read with `type`; false when it could not be read.
    template <typename... T>
    bool Property(int frame, const char* name, const char* type, T*... values) {
        sd_bus_message* reply = nullptr;
        const bool read = sd_bus_get_property(m_bus, kName, FramePath(frame).c_str(), kFrameIface,
                                              name, nullptr, &reply, type) >= 0 &&
                          sd_bus_message_read(reply, type, values...) > 0;
        sd_bus_message_unref(reply);
        return read;
    }
    std::string StringProperty(int frame, const char* name) {
        char* value = nullptr;
        sd_bus_get_property_string(m_bus, kName, FramePath(frame).c_str(), kFrameIface, name,
                                   nullptr, &value);
        const std::string out = value != nullptr ? value : "";
        free(value);
        return out;
    }
    bool Running(int frame) { return StringProperty(frame, "State") == "running"; }

    // Starts a call without waiting; `reply` is filled and `done` set when it comes.
    void CallAsync(int frame, const char* method, TCall* reply, bool* done) {
        struct TContext {
            TCall* reply;
            bool* done;
        };
        sd_bus_call_method_async(
            m_bus, nullptr, kName, FramePath(frame).c_str(), kFrameIface, method,
            [](sd_bus_message* m, void* userdata, sd_bus_error*) -> int {
                std::unique_ptr<TContext> c(static_cast<TContext*>(userdata));
                ReadAnswer(m, sd_bus_message_get_error(m), c->reply);
                *c->done = true;
                return 0;
            },
            new TContext{reply, done}, "");
    }

    // Collects every signal of the driver as "member path" and what it carries: a Progress's
    // "done/total", the "id:status" of each contact, a changed "State=".
    void WatchSignals() {
        sd_bus_add_match(
            m_bus, &m_signalSlot, "type='signal',path_namespace='/org/irframe/Driver1'",
            [](sd_bus_message* m, void* userdata, sd_bus_error*) -> int {
                std::string line = std::string(sd_bus_message_get_member(m)) + " " +
                                   sd_bus_message_get_path(m);
                if (sd_bus_message_is_signal(m, kFrameIface, "Progress")) {
                    uint32_t done = 0, total = 0;
                    sd_bus_message_read(m, "uu", &done, &total);
                    line += " " + std::to_string(done) + "/" + std::to_string(total);
                } else if (sd_bus_message_is_signal(m, kFrameIface, "Contacts")) {
                    sd_bus_message_skip(m, "x");
                    sd_bus_message_enter_container(m, 'a', "(yybiiiiqqyy)");
                    uint8_t id = 0, status = 0;
                    while (sd_bus_message_enter_container(m, 'r', "yybiiiiqqyy") > 0) {
                        sd_bus_message_read(m, "yy", &id, &status);
                        line += " " + std::to_string(id) + ":" + std::to_string(status);
                        sd_bus_message_skip(m, "biiiiqqyy");
                        sd_bus_message_exit_container(m);
                    }
                } else if (sd_bus_message_is_signal(m, "org.freedesktop.DBus.Properties",
                                                    "PropertiesChanged")) {
                    line += " " + ChangedState(m);
                }
                static_cast<DriverDbus*>(userdata)->m_signals.push_back(line);
                return 0;
            },
            this);
    }
    static std::string ChangedState(sd_bus_message* m) {
        sd_bus_message_skip(m, "s");
        sd_bus_message_enter_container(m, 'a', "{sv}");
        while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
            const char* name = nullptr;
            const char* state = nullptr;
            sd_bus_message_read(m, "s", &name);
            if (std::string(name) == "State" && sd_bus_message_read(m, "v", "s", &state) > 0) {
                return std::string("State=") + state;
            }
            sd_bus_message_skip(m, "v");
            sd_bus_message_exit_container(m);
        }
        return "";
    }
    bool Signalled(const std::string& prefix) const {
        return std::any_of(m_signals.begin(), m_signals.end(),
                           [&](const std::string& s) { return s.rfind(prefix, 0) == 0; });
    }

    CScratchDir m_scratch{"driver_dbus_test"};
    const std::string m_dir = m_scratch.Dir();
    std::unique_ptr<CPrivateBus> m_daemon;
    sd_bus* m_bus = nullptr;
    sd_bus_slot* m_signalSlot = nullptr;
    std::string m_tap;
    std::vector<std::unique_ptr<TDriver>> m_drivers;
    std::vector<std::string> m_signals;
};

// Verify that the emulated frames are listed with their properties and answer the reads.
TEST_F(DriverDbus, ListsFramesAndAnswersReads) {
    TDriver& driver = StartTwo();
    ASSERT_TRUE(Until([&] { return Running(1) && Running(2); })) << driver.Log();
    EXPECT_EQ(ListFrames(), (std::vector<std::string>{FramePath(1), FramePath(2)}));
    EXPECT_EQ(StringProperty(2, "Node"), "simulated:" + m_tap);
    EXPECT_EQ(StringProperty(1, "Product"), "emulated frame 1");
    EXPECT_EQ(StringProperty(1, "ConfigSummary"), "1 area, 0 panels");
    uint16_t vendor = 0;
    ASSERT_TRUE(Property(1, "VendorId", "q", &vendor));
    EXPECT_EQ(vendor, 0xAAEC);
    int32_t x = 0, y = 0, width = 0, height = 0;
    ASSERT_TRUE(Property(1, "Geometry", "(iiii)", &x, &y, &width, &height));
    EXPECT_GT(width, 0);
    EXPECT_GT(height, 0);

    std::string info = R"({"bytes":")";
    for (int i = 0; i < 43; ++i) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02x", 0x30 + i);
        info += hex;
    }
    EXPECT_EQ(Call(1, "ReadInfo").text, info + "\"}");
    EXPECT_EQ(Call(2, "ReadStatus").text, R"({"bytes":"0001020310203040"})");
    const TCall pattern = Call(1, "ReadScanPattern");
    ASSERT_EQ(pattern.bytes.size(), 70u) << pattern.error << pattern.message;
    EXPECT_EQ(pattern.bytes[2], 70);

    const TCall bad = Call(1, "WriteOverride", R"({"flags":"0x1"})");
    EXPECT_EQ(bad.error, "org.irframe.Driver1.Error.InvalidArgument");
    EXPECT_THAT(bad.message, HasSubstr("/: missing member"));
    EXPECT_EQ(driver.Stop(), 0) << driver.Log();
}

// Verify that Reload reads the configuration file again: a file with a mistake is an answer
// that keeps the configuration in force, a good one is taken, names what waits for a restart
// and its chord is what the next gesture presses.
TEST_F(DriverDbus, ReloadRereadsTheConfiguration) {
    const std::string config = m_scratch.File("irframe.toml", "[keys]\nprofile = \"safe\"\n");
    const std::string pinch = m_scratch.File("pinch.gesture", "down 1 10000 10000, 2 20000 10000\n"
                                                              "move 1 11000 10000 in 10\nup 1, 2\n"
                                                              "hold 1\n");
    TDriver& driver = Start({"--config", config, "--simulate", pinch, "--fault", "hold:1"});
    ASSERT_TRUE(Until([&] { return Running(1); })) << driver.Log();
    m_scratch.File("irframe.toml", "[keys]\nprofile = \"desktop\"\n[screen]\nsize = 7\n");
    EXPECT_THAT(CallAt(kRoot, kName, "Reload").text,
                testing::StartsWith("0|configuration not reloaded, the one in force stays: " +
                                    config + ":4:8: "));
    m_scratch.File("irframe.toml",
                   "[shortcuts]\npinch = \"ctrl+shift+minus\"\n[output.tuio]\nenabled = true\n");
    EXPECT_THAT(CallAt(kRoot, kName, "Reload").text,
                testing::StartsWith("1|configuration reloaded from " + config +
                                    "|output.tuio changed: in force after a restart"));
    // A write of what the frame holds lets its script play: the pinch presses the new chord.
    ASSERT_EQ(Call(1, "WriteConfig", Call(1, "ReadConfig").text).error, "");
    EXPECT_EQ(driver.Wait(), 0) << driver.Log();
    EXPECT_THAT(ReadFile(m_dir + "/out0.json"),
                HasSubstr(R"("linuxKeys":["KEY_LEFTCTRL","KEY_LEFTSHIFT","KEY_MINUS"])"));
}

// Verify that a stalled transfer shows its progress, refuses a second request with Busy and ends
// Cancelled on Cancel, the frame then going on; that a frame unplugged in the middle of a
// transfer answers Gone and leaves the bus; and that each frame is served meanwhile.
TEST_F(DriverDbus, StalledCancelledAndGoneTransfers) {
    WatchSignals();
    TDriver& driver = StartTwo({"--fault", "stall:100000@2"}, {"--fault", "2:vanish:1@2"});
    ASSERT_TRUE(Until([&] { return Running(1) && Running(2); })) << driver.Log();

    TCall transfer;
    bool done = false;
    CallAsync(1, "ReadScanPattern", &transfer, &done);
    ASSERT_TRUE(Until([&] { return Signalled("Progress " + FramePath(1)); })) << driver.Log();
    EXPECT_TRUE(Signalled("Progress " + FramePath(1) + " 58/70"))
        << testing::PrintToString(m_signals);
    EXPECT_FALSE(done);
    EXPECT_EQ(Call(1, "ReadInfo").error, "org.irframe.Driver1.Error.Busy");

    const TCall gone = Call(2, "ReadScanPattern");
    EXPECT_EQ(gone.error, "org.irframe.Driver1.Error.Gone") << gone.message;
    ASSERT_TRUE(Until([&] { return Signalled("FrameRemoved " + std::string(kRoot)); }));
    EXPECT_TRUE(Signalled("PropertiesChanged " + FramePath(2) + " State=gone"))
        << testing::PrintToString(m_signals);
    EXPECT_EQ(ListFrames(), (std::vector<std::string>{FramePath(1)}));

    EXPECT_EQ(Call(1, "Cancel").error, "");
    ASSERT_TRUE(Until([&] { return done; }));
    EXPECT_EQ(transfer.error, "org.irframe.Driver1.Error.Cancelled") << transfer.message;
    // The frame answers again once the cancelled transfer is over.
    EXPECT_THAT(Call(1, "ReadStatus").text, HasSubstr("bytes"));
    EXPECT_EQ(driver.Stop(), 0) << driver.Log();
}

// Verify that a hold of the gestures ends by itself when its client leaves the bus; that while
// they are held nothing is posted but a subscriber gets one Contacts signal per polled frame;
// and that an override written through the bus is what the frame then holds.
TEST_F(DriverDbus, ContactsFlowWhileGesturesAreHeld) {
    WatchSignals();
    TDriver& driver = Start({"--simulate", m_tap, "--fault", "hold:1"});
    ASSERT_TRUE(Until([&] { return Running(1); })) << driver.Log();
    const auto held = [&] {
        int value = -1;
        Property(1, "GesturesHeld", "b", &value);
        return value;
    };
    EXPECT_EQ(held(), 0);
    sd_bus* other = m_daemon->Connect();
    ASSERT_NE(other, nullptr);
    ASSERT_EQ(CallAt(FramePath(1), kFrameIface, "HoldGestures", "", other).error, "");
    EXPECT_EQ(held(), 1);
    sd_bus_flush_close_unref(other);  // the holder leaves without a word
    ASSERT_TRUE(Until([&] { return held() == 0; }));

    ASSERT_EQ(Call(1, "HoldGestures").error, "");
    EXPECT_FALSE(Signalled("Contacts"));
    ASSERT_EQ(Call(1, "SubscribeContacts").error, "");
    // The override as the configuration codec reads it (docs/config-json.md); once written, the
    // script taps.
    const std::string override =
        R"({"format":"irframe-config-override","version":1,"flags":"0x00101F05","option1":255,)"
        R"("option2":0,"option3":0,"value0":2500,"value1":0,)"
        R"("edgeAdjust":{"minusX":0,"plusX":0,"minusY":0,"plusY":0}})";
    const TCall written = Call(1, "WriteOverride", override);
    EXPECT_EQ(written.error, "") << written.message;
    EXPECT_THAT(written.text, HasSubstr("\"flags\": \"0x00101F05\""));
    ASSERT_TRUE(Until([&] { return Signalled("Contacts " + FramePath(1) + " 1:2"); }))
        << testing::PrintToString(m_signals) << driver.Log();
    EXPECT_TRUE(Signalled("Contacts " + FramePath(1) + " 1:0"));
    EXPECT_EQ(driver.Wait(), 0) << driver.Log();  // the script played to its end
    EXPECT_EQ(ReadFile(m_dir + "/out0.json"), "");  // the tap posted no click
}

// Verify the takeover: a later real instance takes the name, the earlier one ends in order
// with the same lines as on "isWindowExist", and only then does the later one go on.
TEST_F(DriverDbus, LaterInstanceTakesOver) {
    TDriver& first = Start({"--claim-bus-name", "--simulate", m_tap, "--fault", "hold:1"});
    ASSERT_TRUE(Until([&] { return !Owner().empty() && Running(1); })) << first.Log();
    const std::string firstOwner = Owner();
    TDriver& second = Start({"--claim-bus-name", "--simulate", m_tap, "--fault", "hold:1"});
    EXPECT_EQ(first.Wait(), 0);
    EXPECT_THAT(first.Log(), HasSubstr("another instance started: ending this one"));
    EXPECT_THAT(first.Log(), HasSubstr("closed by the driver"));  // an orderly end
    ASSERT_TRUE(Until([&] { return Running(1); })) << second.Log();
    EXPECT_NE(Owner(), firstOwner);
    EXPECT_EQ(second.Stop(), 0) << second.Log();
}

// Verify that a dry run neither replaces a real instance nor is replaced by one.
TEST_F(DriverDbus, DryRunNeitherReplacesNorIsReplaced) {
    const Args real{"--claim-bus-name", "--simulate", m_tap, "--fault", "hold:1"};
    const Args dry{"--simulate", m_tap, "--fault", "hold:1"};
    for (const bool realFirst : {true, false}) {
        SCOPED_TRACE(realFirst ? "real first" : "dry run first");
        TDriver& earlier = Start(realFirst ? real : dry);
        ASSERT_TRUE(Until([&] { return !Owner().empty() && Running(1); })) << earlier.Log();
        const std::string owner = Owner();
        TDriver& later = Start(realFirst ? dry : real);
        const char* said = realFirst ? "serves no bus name" : "is not replaced";
        ASSERT_TRUE(Until([&] { return later.Log().find(said) != std::string::npos; }))
            << later.Log();
        EXPECT_EQ(Owner(), owner);
        EXPECT_THAT(earlier.Log(), testing::Not(HasSubstr("another instance started")));
        EXPECT_EQ(later.Stop(), 0);
        EXPECT_EQ(earlier.Stop(), 0);
    }
}

}  // namespace
