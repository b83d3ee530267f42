// The driver's D-Bus interface end to end: a private session bus (dbus-daemon, started here),
// irframed on emulated frames, and an sd-bus client. Frames hold their scripts (--fault hold) so
// that the driver stays up while the test talks to it; transfers stall or vanish by --fault.
#include <signal.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

class DriverDbus : public testing::Test {
protected:
    void SetUp() override {
        m_daemon = std::make_unique<CPrivateBus>();
        ASSERT_TRUE(m_daemon->Ready()) << "dbus-daemon is needed (Debian package dbus-daemon)";
        m_bus = m_daemon->Connect();
        ASSERT_NE(m_bus, nullptr);
        // A frame that waits for a write of its configuration before it touches.
        m_tap = Script("tap.gesture", "down 1 16000 16000\nhold 2\nup 1\nhold 1\n");
    }

    void TearDown() override {
        for (TDriver* d : m_drivers) d->Stop();
        m_signalSlot = sd_bus_slot_unref(m_signalSlot);
        m_bus = sd_bus_flush_close_unref(m_bus);
        m_daemon.reset();
    }

    std::string Script(const std::string& name, const std::string& text) { return m_scratch.File(name, text); }

    TDriver& Start(const Args& args) {
        const std::string n = std::to_string(m_owned.size());
        Args argv{IRFRAMED_PATH, "--dry-run", "--output", m_dir + "/out" + n + ".json"};
        argv.insert(argv.end(), args.begin(), args.end());
        auto driver = std::make_unique<TDriver>(argv, "/dev/null", m_dir + "/err" + n + ".txt");
        m_drivers.push_back(driver.get());
        m_owned.push_back(std::move(driver));
        return *m_owned.back();
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

    std::string Owner() {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        std::string owner;
        if (sd_bus_call_method(m_bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "GetNameOwner", &error, &reply, "s",
                               kName) >= 0) {
            const char* s = nullptr;
            sd_bus_message_read(reply, "s", &s);
            owner = s != nullptr ? s : "";
        }
        sd_bus_message_unref(reply);
        sd_bus_error_free(&error);
        return owner;
    }

    std::vector<std::string> ListFrames() {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        std::vector<std::string> frames;
        if (sd_bus_call_method(m_bus, kName, kRoot, kName, "ListFrames", &error, &reply, "") >= 0) {
            sd_bus_message_enter_container(reply, 'a', "o");
            const char* path = nullptr;
            while (sd_bus_message_read(reply, "o", &path) > 0) frames.push_back(path);
        }
        sd_bus_message_unref(reply);
        sd_bus_error_free(&error);
        return frames;
    }

    std::string StringProperty(int frame, const char* name) {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        char* value = nullptr;
        std::string out;
        if (sd_bus_get_property_string(m_bus, kName, FramePath(frame).c_str(), kFrameIface, name,
                                       &error, &value) >= 0) {
            out = value;
        }
        free(value);
        sd_bus_error_free(&error);
        return out;
    }

    bool Running(int frame) { return StringProperty(frame, "State") == "running"; }

    // A method of a frame: the error's name (empty on success) and the string it returned.
    struct TCall {
        std::string error;
        std::string message;
        std::string text;
        std::vector<uint8_t> bytes;
    };
    TCall Call(int frame, const char* method, const char* types = "", const std::string& arg = "") {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        int r;
        if (*types == 's') {
            r = sd_bus_call_method(m_bus, kName, FramePath(frame).c_str(), kFrameIface, method,
                                   &error, &reply, "s", arg.c_str());
        } else {
            r = sd_bus_call_method(m_bus, kName, FramePath(frame).c_str(), kFrameIface, method,
                                   &error, &reply, "");
        }
        TCall call;
        if (r < 0) {
            call.error = error.name != nullptr ? error.name : "?";
            call.message = error.message != nullptr ? error.message : "";
        } else if (const char* sig = sd_bus_message_get_signature(reply, 1); sig && *sig == 's') {
            const char* s = nullptr;
            sd_bus_message_read(reply, "s", &s);
            call.text = s != nullptr ? s : "";
        } else if (sig != nullptr && std::string(sig) == "ay") {
            const void* data = nullptr;
            size_t size = 0;
            sd_bus_message_read_array(reply, 'y', &data, &size);
            call.bytes.assign(static_cast<const uint8_t*>(data),
                              static_cast<const uint8_t*>(data) + size);
        }
        sd_bus_message_unref(reply);
        sd_bus_error_free(&error);
        return call;
    }

    // Starts a call without waiting; `reply` is filled when it comes.
    void CallAsync(int frame, const char* method, TCall* reply, bool* done) {
        struct TContext {
            TCall* reply;
            bool* done;
        };
        auto* context = new TContext{reply, done};
        sd_bus_call_method_async(
            m_bus, nullptr, kName, FramePath(frame).c_str(), kFrameIface, method,
            [](sd_bus_message* m, void* userdata, sd_bus_error*) -> int {
                auto* c = static_cast<TContext*>(userdata);
                if (const sd_bus_error* e = sd_bus_message_get_error(m)) {
                    c->reply->error = e->name;
                    c->reply->message = e->message != nullptr ? e->message : "";
                }
                *c->done = true;
                delete c;
                return 0;
            },
            context, "");
    }

    // Collects every signal of the driver as "member path".
    void WatchSignals() {
        sd_bus_add_match(
            m_bus, &m_signalSlot, "type='signal',path_namespace='/org/irframe/Driver1'",
            [](sd_bus_message* m, void* userdata, sd_bus_error*) -> int {
                auto* self = static_cast<DriverDbus*>(userdata);
                std::string line = std::string(sd_bus_message_get_member(m)) + " " +
                                   sd_bus_message_get_path(m);
                if (sd_bus_message_is_signal(m, kFrameIface, "Progress")) {
                    uint32_t done = 0, total = 0;
                    sd_bus_message_read(m, "uu", &done, &total);
                    line += " " + std::to_string(done) + "/" + std::to_string(total);
                } else if (sd_bus_message_is_signal(m, kFrameIface, "Contacts")) {
                    int64_t stamp = 0;
                    sd_bus_message_read(m, "x", &stamp);
                    sd_bus_message_enter_container(m, 'a', "(yybiiiiqqyy)");
                    uint8_t id, status, group, index;
                    int retired;
                    int32_t x, y, w, h;
                    uint16_t rx, ry;
                    while (sd_bus_message_read(m, "(yybiiiiqqyy)", &id, &status, &retired, &x,
                                               &y, &w, &h, &rx, &ry, &group, &index) > 0) {
                        line += " " + std::to_string(id) + ":" + std::to_string(status);
                    }
                } else if (sd_bus_message_is_signal(m, "org.freedesktop.DBus.Properties",
                                                    "PropertiesChanged")) {
                    line += " " + self->ChangedState(m);
                }
                self->m_signals.push_back(line);
                return 0;
            },
            this);
    }
    std::string ChangedState(sd_bus_message* m) {
        const char* iface = nullptr;
        sd_bus_message_read(m, "s", &iface);
        sd_bus_message_enter_container(m, 'a', "{sv}");
        while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
            const char* name = nullptr;
            sd_bus_message_read(m, "s", &name);
            if (std::string(name) == "State") {
                const char* state = nullptr;
                sd_bus_message_read(m, "v", "s", &state);
                return std::string("State=") + state;
            }
            sd_bus_message_skip(m, "v");
            sd_bus_message_exit_container(m);
        }
        return "";
    }
    bool Signalled(const std::string& prefix) const {
        for (const std::string& s : m_signals) {
            if (s.rfind(prefix, 0) == 0) return true;
        }
        return false;
    }

    CScratchDir m_scratch{"driver_dbus_test"};
    const std::string m_dir = m_scratch.Dir();
    std::unique_ptr<CPrivateBus> m_daemon;
    sd_bus* m_bus = nullptr;
    sd_bus_slot* m_signalSlot = nullptr;
    std::string m_tap;
    std::vector<std::unique_ptr<TDriver>> m_owned;
    std::vector<TDriver*> m_drivers;
    std::vector<std::string> m_signals;
};

// Verify that the emulated frames are listed with their properties and answer the reads.
TEST_F(DriverDbus, ListsFramesAndAnswersReads) {
    TDriver& driver =
        Start({"--simulate", m_tap, "--fault", "hold:1", "--simulate", m_tap, "--fault", "2:hold:1"});
    ASSERT_TRUE(Until([&] { return Running(1) && Running(2); })) << driver.Log();
    EXPECT_EQ(ListFrames(), (std::vector<std::string>{FramePath(1), FramePath(2)}));
    EXPECT_EQ(StringProperty(2, "Node"), "simulated:" + m_tap);
    EXPECT_EQ(StringProperty(1, "Product"), "emulated frame 1");
    EXPECT_EQ(StringProperty(1, "ConfigSummary"), "1 area, 0 panels");

    uint16_t vendor = 0;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    ASSERT_GE(sd_bus_get_property_trivial(m_bus, kName, FramePath(1).c_str(), kFrameIface,
                                          "VendorId", &error, 'q', &vendor),
              0);
    EXPECT_EQ(vendor, 0xAAEC);
    ASSERT_GE(sd_bus_get_property(m_bus, kName, FramePath(1).c_str(), kFrameIface, "Geometry",
                                  &error, &reply, "(iiii)"),
              0);
    int32_t geometry[4] = {};
    sd_bus_message_read(reply, "(iiii)", &geometry[0], &geometry[1], &geometry[2], &geometry[3]);
    sd_bus_message_unref(reply);
    EXPECT_GT(geometry[2], 0);
    EXPECT_GT(geometry[3], 0);

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

    const TCall bad = Call(1, "WriteOverride", "s", R"({"flags":"0x1"})");
    EXPECT_EQ(bad.error, "org.irframe.Driver1.Error.InvalidArgument");
    EXPECT_THAT(bad.message, HasSubstr("/: missing member"));
    EXPECT_EQ(driver.Stop(), 0) << driver.Log();
}

// Verify that Reload reads the configuration file again: a file with a mistake is an answer
// that keeps the configuration in force, a good one is taken, names what waits for a restart
// and its chord is what the next gesture presses.
TEST_F(DriverDbus, ReloadRereadsTheConfiguration) {
    const std::string config = Script("irframe.toml", "[keys]\nprofile = \"safe\"\n");
    const std::string pinch = Script("pinch.gesture", "down 1 10000 10000, 2 20000 10000\n"
                                                      "move 1 11000 10000 in 10\nup 1, 2\nhold 1\n");
    TDriver& driver = Start({"--config", config, "--simulate", pinch, "--fault", "hold:1"});
    ASSERT_TRUE(Until([&] { return Running(1); })) << driver.Log();
    const auto reload = [&] {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        int reloaded = -1;
        const char* message = "";
        const char* restart = "";
        std::string out;
        if (sd_bus_call_method(m_bus, kName, kRoot, kName, "Reload", &error, &reply, "") >= 0 &&
            sd_bus_message_read(reply, "bss", &reloaded, &message, &restart) >= 0) {
            out = std::to_string(reloaded) + "|" + message + "|" + restart;
        } else {
            out = std::string("error ") + (error.name != nullptr ? error.name : "?");
        }
        sd_bus_message_unref(reply);
        sd_bus_error_free(&error);
        return out;
    };
    Script("irframe.toml", "[keys]\nprofile = \"desktop\"\n[screen]\nsize = 7\n");
    EXPECT_THAT(reload(), testing::StartsWith("0|configuration not reloaded, the one in force "
                                              "stays: " + config + ":4:8: "));
    Script("irframe.toml", "[shortcuts]\npinch = \"ctrl+shift+minus\"\n[output.tuio]\nenabled = true\n");
    EXPECT_THAT(reload(), testing::StartsWith("1|configuration reloaded from " + config +
                                              "|output.tuio changed: in force after a restart"));
    // A write of what the frame holds lets its script play: the pinch presses the new chord.
    ASSERT_EQ(Call(1, "WriteConfig", "s", Call(1, "ReadConfig").text).error, "");
    EXPECT_EQ(driver.Wait(), 0) << driver.Log();
    EXPECT_THAT(ReadFile(m_dir + "/out0.json"),
                HasSubstr(R"("linuxKeys":["KEY_LEFTCTRL","KEY_LEFTSHIFT","KEY_MINUS"])"));
}

// Verify that a stalled transfer shows its progress, refuses a second request with Busy, leaves
// the other frame served, and ends Cancelled on Cancel; the frame then goes on.
TEST_F(DriverDbus, ProgressBusyAndCancel) {
    WatchSignals();
    TDriver& driver = Start({"--simulate", m_tap, "--fault", "hold:1", "--fault",
                             "stall:100000@2", "--simulate", m_tap, "--fault", "2:hold:1"});
    ASSERT_TRUE(Until([&] { return Running(1) && Running(2); })) << driver.Log();

    TCall transfer;
    bool done = false;
    CallAsync(1, "ReadScanPattern", &transfer, &done);
    ASSERT_TRUE(Until([&] { return Signalled("Progress " + FramePath(1)); })) << driver.Log();
    EXPECT_TRUE(Signalled("Progress " + FramePath(1) + " 58/70")) << testing::PrintToString(m_signals);
    EXPECT_FALSE(done);

    const TCall second = Call(1, "ReadInfo");
    EXPECT_EQ(second.error, "org.irframe.Driver1.Error.Busy");
    EXPECT_THAT(Call(2, "ReadInfo").text, HasSubstr("bytes"));

    EXPECT_EQ(Call(1, "Cancel").error, "");
    ASSERT_TRUE(Until([&] { return done; }));
    EXPECT_EQ(transfer.error, "org.irframe.Driver1.Error.Cancelled") << transfer.message;
    // The frame answers again once the cancelled transfer is over.
    EXPECT_THAT(Call(1, "ReadStatus").text, HasSubstr("bytes"));
    EXPECT_EQ(driver.Stop(), 0) << driver.Log();
}

// Verify that a frame unplugged in the middle of a transfer answers Gone and leaves the bus,
// while the other frame is still served.
TEST_F(DriverDbus, FrameUnpluggedMidTransferIsGone) {
    WatchSignals();
    TDriver& driver = Start({"--simulate", m_tap, "--fault", "hold:1", "--fault", "vanish:1@2",
                             "--simulate", m_tap, "--fault", "2:hold:1"});
    ASSERT_TRUE(Until([&] { return Running(1) && Running(2); })) << driver.Log();
    const TCall transfer = Call(1, "ReadScanPattern");
    EXPECT_EQ(transfer.error, "org.irframe.Driver1.Error.Gone") << transfer.message;
    ASSERT_TRUE(Until([&] { return Signalled("FrameRemoved " + std::string(kRoot)); }));
    EXPECT_TRUE(Signalled("PropertiesChanged " + FramePath(1) + " State=gone"))
        << testing::PrintToString(m_signals);
    EXPECT_EQ(ListFrames(), (std::vector<std::string>{FramePath(2)}));
    EXPECT_THAT(Call(2, "ReadInfo").text, HasSubstr("bytes"));
    EXPECT_EQ(driver.Stop(), 0) << driver.Log();
}

// Verify that a subscriber gets one Contacts signal per polled frame once the script plays,
// and that an override written through the bus is what the frame then holds.
TEST_F(DriverDbus, ContactsAfterAnOverride) {
    WatchSignals();
    TDriver& driver = Start({"--simulate", m_tap, "--fault", "hold:1"});
    ASSERT_TRUE(Until([&] { return Running(1); })) << driver.Log();
    EXPECT_FALSE(Signalled("Contacts"));
    ASSERT_EQ(Call(1, "SubscribeContacts").error, "");
    // The override as the configuration codec reads it (docs/config-json.md).
    const std::string override =
        R"({"format":"irframe-config-override","version":1,"flags":"0x00101F05","option1":255,)"
        R"("option2":0,"option3":0,"value0":2500,"value1":0,)"
        R"("edgeAdjust":{"minusX":0,"plusX":0,"minusY":0,"plusY":0}})";
    const TCall written = Call(1, "WriteOverride", "s", override);
    EXPECT_EQ(written.error, "") << written.message;
    EXPECT_THAT(written.text, HasSubstr("\"flags\": \"0x00101F05\""));
    ASSERT_TRUE(Until([&] { return Signalled("Contacts " + FramePath(1) + " 1:2"); }))
        << testing::PrintToString(m_signals) << driver.Log();
    EXPECT_TRUE(Signalled("Contacts " + FramePath(1) + " 1:0"));
    EXPECT_EQ(driver.Wait(), 0) << driver.Log();  // the script played to its end
}

// Verify that held gestures post nothing while the contacts still flow, and that a hold ends by
// itself when its client leaves the bus.
TEST_F(DriverDbus, HeldGesturesPostNothingAndEndWithTheirClient) {
    WatchSignals();
    TDriver& driver = Start({"--simulate", m_tap, "--fault", "hold:1"});
    ASSERT_TRUE(Until([&] { return Running(1); })) << driver.Log();
    const auto held = [&] {
        int value = -1;
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        if (sd_bus_get_property(m_bus, kName, FramePath(1).c_str(), kFrameIface, "GesturesHeld",
                                &error, &reply, "b") >= 0) {
            sd_bus_message_read(reply, "b", &value);
        }
        sd_bus_message_unref(reply);
        sd_bus_error_free(&error);
        return value;
    };
    EXPECT_EQ(held(), 0);
    sd_bus* other = nullptr;
    const char* address = getenv("DBUS_SESSION_BUS_ADDRESS");
    ASSERT_GE(sd_bus_new(&other), 0);
    sd_bus_set_address(other, address);
    sd_bus_set_bus_client(other, 1);
    ASSERT_GE(sd_bus_start(other), 0);
    ASSERT_GE(sd_bus_call_method(other, kName, FramePath(1).c_str(), kFrameIface, "HoldGestures",
                                 nullptr, nullptr, ""),
              0);
    EXPECT_EQ(held(), 1);
    sd_bus_flush_close_unref(other);  // the holder leaves without a word
    ASSERT_TRUE(Until([&] { return held() == 0; }));

    ASSERT_EQ(Call(1, "HoldGestures").error, "");
    ASSERT_EQ(Call(1, "SubscribeContacts").error, "");
    const std::string config = Call(1, "ReadConfig").text;
    ASSERT_EQ(Call(1, "WriteConfig", "s", config).error, "");  // the script taps now
    EXPECT_TRUE(Until([&] { return Signalled("Contacts " + FramePath(1) + " 1:2"); }));
    EXPECT_EQ(driver.Wait(), 0) << driver.Log();
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
    TDriver& real = Start({"--claim-bus-name", "--simulate", m_tap, "--fault", "hold:1"});
    ASSERT_TRUE(Until([&] { return !Owner().empty() && Running(1); })) << real.Log();
    const std::string realOwner = Owner();
    TDriver& dry = Start({"--simulate", m_tap, "--fault", "hold:1"});
    ASSERT_TRUE(Until([&] { return dry.Log().find("serves no bus name") != std::string::npos; }))
        << dry.Log();
    EXPECT_EQ(Owner(), realOwner);
    EXPECT_EQ(real.Stop(), 0);
    EXPECT_EQ(dry.Stop(), 0);

    TDriver& dryFirst = Start({"--simulate", m_tap, "--fault", "hold:1"});
    ASSERT_TRUE(Until([&] { return !Owner().empty() && Running(1); })) << dryFirst.Log();
    const std::string dryOwner = Owner();
    TDriver& later = Start({"--claim-bus-name", "--simulate", m_tap, "--fault", "hold:1"});
    ASSERT_TRUE(Until([&] { return later.Log().find("is not replaced") != std::string::npos; }))
        << later.Log();
    EXPECT_EQ(Owner(), dryOwner);
    EXPECT_THAT(dryFirst.Log(), testing::Not(HasSubstr("another instance started")));
    EXPECT_EQ(later.Stop(), 0);
    EXPECT_EQ(dryFirst.Stop(), 0);
}

}  // namespace
