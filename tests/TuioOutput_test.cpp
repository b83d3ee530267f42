// The TUIO output read back through liblo, an OSC implementation of its own: what a receiver
// gets for contacts going down, moving, resting and lifting, per area and target, and what
// happens with targets that cannot be used.
#include "TuioOutput.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <lo/lo.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "MtDevLog.h"
#include "support/MtDevLinkRig.h"
#include "support/ChildProcess.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct Set {
    int session;
    float x, y, vx, vy, accel;
};

// One bundle as a receiver sees it.
struct Bundle {
    std::string source;
    std::vector<int> alive;
    std::vector<Set> sets;
    int fseq = -1;
    size_t bytes = 0;
};

// A bundle in a form a test can spell: "alive 1 2; set 1 x,y vx,vy accel", positions to a
// thousandth, speeds to a hundredth, the acceleration whole.
std::string Text(const Bundle& b) {
    std::string text = "alive";
    for (int id : b.alive) text += " " + std::to_string(id);
    for (const Set& s : b.sets) {
        char set[96];
        std::snprintf(set, sizeof set, "; set %d %.3f,%.3f %.2f,%.2f %.0f", s.session, s.x, s.y,
                      s.vx, s.vy, s.accel);
        text += set;
    }
    return text;
}

std::vector<std::string> Texts(const std::vector<Bundle>& bundles) {
    std::vector<std::string> texts;
    for (const Bundle& b : bundles) texts.push_back(Text(b));
    return texts;
}

// Decodes /tuio/2Dcur bundles with liblo's dispatcher; also receives them from the network.
class Receiver {
public:
    Receiver() : m_server(lo_server_new(nullptr, nullptr)) {
        lo_server_add_method(m_server, "/tuio/2Dcur", nullptr, &Receiver::OnMessage, this);
        lo_server_add_bundle_handlers(m_server, &Receiver::OnStart, &Receiver::OnEnd, this);
    }
    ~Receiver() { lo_server_free(m_server); }

    uint16_t Port() const { return static_cast<uint16_t>(lo_server_get_port(m_server)); }

    void Decode(const std::vector<uint8_t>& bytes) {
        std::vector<uint8_t> copy = bytes;
        ASSERT_GT(lo_server_dispatch_data(m_server, copy.data(), copy.size()), 0);
        bundles.back().bytes = bytes.size();
    }
    // Datagrams sent to Port() on loopback are queued by the time send returns.
    void Drain() {
        while (lo_server_recv_noblock(m_server, 0) > 0) {
        }
    }

    std::vector<Bundle> bundles;

private:
    static int OnStart(lo_timetag, void* self) {
        static_cast<Receiver*>(self)->bundles.emplace_back();
        return 0;
    }
    static int OnEnd(void*) { return 0; }
    // liblo's arguments are 4-byte aligned; its lo_arg union asks for 8, so read the bytes.
    template <typename T>
    static T Arg(const lo_arg* a) {
        T value;
        std::memcpy(&value, a, sizeof value);
        return value;
    }
    static std::string Text(const lo_arg* a) { return reinterpret_cast<const char*>(a); }

    static int OnMessage(const char*, const char* types, lo_arg** argv, int argc, lo_message,
                         void* self) {
        Bundle& b = static_cast<Receiver*>(self)->bundles.back();
        const std::string command = Text(argv[0]);
        if (command == "source" && std::string(types) == "ss") b.source = Text(argv[1]);
        if (command == "alive") {
            for (int i = 1; i < argc; ++i) b.alive.push_back(Arg<int32_t>(argv[i]));
        }
        if (command == "set" && std::string(types) == "sifffff") {
            b.sets.push_back({Arg<int32_t>(argv[1]), Arg<float>(argv[2]), Arg<float>(argv[3]),
                              Arg<float>(argv[4]), Arg<float>(argv[5]), Arg<float>(argv[6])});
        }
        if (command == "fseq") b.fseq = Arg<int32_t>(argv[1]);
        return 0;
    }

    lo_server m_server;
};

// Stands in for the network: keeps every datagram per target.
struct Network {
    std::map<std::string, std::vector<std::vector<uint8_t>>> sent;

    TTuioSocketFactory Factory() {
        return [this](const TTuioTarget& target, std::string* error) -> std::unique_ptr<ITuioSocket> {
            if (target.host == "unresolvable") {
                *error = "Name or service not known";
                return nullptr;
            }
            return std::make_unique<Socket>(this, FormatTuioTarget(target));
        };
    }
    std::vector<Bundle> Bundles(const std::string& target) {
        Receiver receiver;
        for (const auto& bytes : sent[target]) receiver.Decode(bytes);
        return receiver.bundles;
    }

private:
    struct Socket : ITuioSocket {
        Socket(Network* n, std::string t) : network(n), target(std::move(t)) {}
        bool Send(std::span<const uint8_t> bytes, std::string*) override {
            network->sent[target].emplace_back(bytes.begin(), bytes.end());
            return true;
        }
        bool Loopback() const override { return true; }
        Network* network;
        std::string target;
    };
};

struct Touch {
    uint8_t id, status;
    uint16_t rawX, rawY;
};

constexpr int64_t Stamp(int64_t micros) {
    return micros / 1'000'000 * 4'000'000 + micros % 1'000'000;
}

// Frame geometry with raw units equal to normalised units.
const _CS_CONFIG kGeometry{8191, 8191, 32767, 32767};

// An area over raw x from cx - half to cx + half, the full height, output 1000 x 1000.
_HCRECT_CONFIG_FILE Area(int16_t cx, int16_t half, uint16_t port, uint8_t rotation = 0) {
    _HCRECT_CONFIG_FILE area{};
    area.netAddress = 0x7F000001;
    area.port = port;
    area.rotation = rotation;
    area.outputRect = {0, 0, 1000, 1000};
    area.targetRect = {0, 0, 1000, 1000};
    area.center = {cx, 16384};
    area.axisH = {static_cast<int16_t>(-half), 0};
    area.axisV = {0, 16384};
    return area;
}

std::unique_ptr<_HARDWARE_DEV_CONFIG> Config(std::initializer_list<_HCRECT_CONFIG_FILE> areas,
                                             uint32_t flags = DEV_FLAG_AREAS_ENABLED |
                                                              DEV_FLAG_KEEP_OUTSIDE) {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    DefaultDevConfig('c', 0, config.get());
    config->flags = flags;
    for (const auto& area : areas) config->areas[config->areaCount++] = area;
    return config;
}

class TuioOutputTest : public testing::Test {
protected:
    CTuioOutput& Start(const _HARDWARE_DEV_CONFIG* config, int device = 1) {
        outputs.push_back(
            std::make_unique<CTuioOutput>(settings, sessions, network.Factory(), "test"));
        TContactSource source;
        source.device = device;
        source.config = config;
        source.geometry = &kGeometry;
        outputs.back()->OnFrameReady(source);
        return *outputs.back();
    }

    static void Feed(CTuioOutput& output, int64_t micros, const std::vector<Touch>& touches,
                     int device = 1) {
        TContactFrame frame;
        frame.device = device;
        frame.timeStamp = Stamp(micros);
        for (const Touch& touch : touches) {
            TContact c;
            c.id = touch.id;
            c.status = touch.status;
            c.rawX = touch.rawX;
            c.rawY = touch.rawY;
            frame.contacts.push_back(c);
        }
        output.OnContacts(frame);
    }

    // Every line logged, each once, in any order.
    void ExpectLogged(const std::vector<std::string>& parts) const {
        std::vector<testing::Matcher<std::string>> each;
        for (const std::string& part : parts) each.push_back(HasSubstr(part));
        EXPECT_THAT(log.Lines(TLogChannel::System), testing::UnorderedElementsAreArray(each));
    }

    CLogCapture log;
    TTuioSettings settings;
    std::atomic<int32_t> sessions{0};
    Network network;
    std::vector<std::unique_ptr<CTuioOutput>> outputs;
};

// --- targets --------------------------------------------------------------------------------

TEST(TuioTargetTest, ParsesHostAndPort) {
    const struct {
        const char* text;
        const char* host;
        int port;
    } good[] = {{"3333", "127.0.0.1", 3333},
                {"10.0.0.2:65535", "10.0.0.2", 65535},
                {"tuio-host.example:1", "tuio-host.example", 1},
                {"[::1]:3334", "::1", 3334}};
    for (const auto& c : good) {
        std::string error;
        const auto target = ParseTuioTarget(c.text, &error);
        ASSERT_TRUE(target) << c.text << ": " << error;
        EXPECT_EQ(target->host, c.host);
        EXPECT_EQ(target->port, c.port);
        EXPECT_EQ(*ParseTuioTarget(FormatTuioTarget(*target), nullptr), *target);
    }
    for (const char* bad : {"", "0", "65536", "99999999999", "host:", ":3333", "::1:3333",
                            "[::1]3333", "[::1]", "[]:1", "[zz]:1", "ho st:1", "host:12a",
                            "host:-1", "a\nb:1"}) {
        std::string error;
        EXPECT_FALSE(ParseTuioTarget(bad, &error)) << bad;
        EXPECT_THAT(error, HasSubstr("TUIO target")) << bad;
    }
}

TEST(TuioTargetTest, AreaTargetsInOrderOfPrecedence) {
    TTuioSettings s;
    s.areaTargets[2] = "10.0.0.9:4000";
    s.areaTargets[3] = "10.0.0.9:0";
    TTuioSettings all = s;
    all.target = "5000";
    TTuioSettings allow;
    allow.allowDeviceTargets = true;
    const struct {
        const TTuioSettings& settings;
        int area;
        uint32_t address;
        uint16_t port;
        std::string expected;  // target, or part of the problem
    } cases[] = {
        {s, 2, 0x7F000001, 3333, "10.0.0.9:4000"},  // the area's own setting
        {all, 2, 0x7F000001, 3333, "10.0.0.9:4000"},
        {all, 1, 0x7F000001, 3333, "127.0.0.1:5000"},  // then the setting for all
        {all, -1, 0x7F000001, 3333, "127.0.0.1:5000"},
        {all, 3, 0x7F000001, 3333, "TUIO target \"10.0.0.9:0\": the port must be"},
        {s, -1, 0x7F000001, 3333, "127.0.0.1:3333"},  // a frame without areas: the record's
        {s, 1, 0x7F000102, 3334, "127.0.1.2:3334"},   // then the frame's, on this machine
        {s, 1, 0xC0A80105, 3333, "192.168.1.5:3333 is not on this machine"},
        {allow, 1, 0xC0A80105, 3333, "192.168.1.5:3333"},
        {allow, 1, 0, 3333, "no target (0.0.0.0:3333)"},
        {allow, 1, 0x7F000001, 0, "no target (127.0.0.1:0)"},
    };
    for (const auto& c : cases) {
        const TTuioAreaTarget t = ResolveTuioAreaTarget(c.settings, c.area, c.address, c.port);
        const std::string got = t.target ? FormatTuioTarget(*t.target) : t.problem;
        EXPECT_THAT(got, HasSubstr(c.expected)) << c.area;
        EXPECT_EQ(t.target.has_value(), t.problem.empty());
    }
}

TEST(TuioFrameMicrosTest, StampsAreSecondsTimesFourMillionPlusMicros) {
    EXPECT_EQ(TuioFrameMicros(Stamp(1'999'999)), 1'999'999);
    EXPECT_EQ(TuioFrameMicros(Stamp(2'000'000)) - TuioFrameMicros(Stamp(1'999'999)), 1);
    EXPECT_EQ(TuioFrameMicros(Stamp(1'700'000'123'456'789)), 1'700'000'123'456'789);
}

// --- what is sent ---------------------------------------------------------------------------

TEST_F(TuioOutputTest, PositionsAreFractionsOfTheContactsArea) {
    // Area 0 left of raw x 16384, area 1 right of it and turned by 90 degrees; different
    // targets so each area's cursors can be told apart.
    const auto config = Config({Area(8192, 8192, 4000), Area(24576, 8192, 4001, 1)});
    CTuioOutput& output = Start(config.get());
    const struct {
        uint16_t rawX, rawY;
        const char* target;
        float x, y;
    } cases[] = {
        {8192, 16384, "127.0.0.1:4000", 0.5f, 0.5f},   // centre
        {4096, 8192, "127.0.0.1:4000", 0.75f, 0.25f},  // output x grows to the left
        {12288, 24576, "127.0.0.1:4000", 0.25f, 0.75f},
        {24576, 16384, "127.0.0.1:4001", 0.5f, 0.5f},
        {20480, 8192, "127.0.0.1:4001", 0.25f, 0.25f},  // (0.75, 0.25) turned: (y, 1 - x)
    };
    int64_t t = 0;
    for (const auto& c : cases) {
        network.sent.clear();
        Feed(output, t += 10'000, {{1, kContactDown, c.rawX, c.rawY}});
        Feed(output, t += 10'000, {});
        const auto bundles = network.Bundles(c.target);
        ASSERT_EQ(bundles.size(), 2u) << c.rawX << "," << c.rawY;
        ASSERT_EQ(bundles[0].sets.size(), 1u);
        EXPECT_NEAR(bundles[0].sets[0].x, c.x, 0.002) << c.rawX << "," << c.rawY;
        EXPECT_NEAR(bundles[0].sets[0].y, c.y, 0.002) << c.rawX << "," << c.rawY;
    }
}

TEST_F(TuioOutputTest, AContactAboveTheAreaIsOnItsTopEdge) {
    auto config = Config({Area(16384, 8192, 4000)});
    config->areas[0].axisV = {0, 8192};  // raw y 8192..24576
    CTuioOutput& output = Start(config.get());
    Feed(output, 0, {{1, kContactDown, 12288, 8000}});
    const auto b = network.Bundles("127.0.0.1:4000");
    ASSERT_EQ(b.size(), 2u);
    ASSERT_EQ(b[1].sets.size(), 1u);
    EXPECT_NEAR(b[1].sets[0].x, 0.75, 0.002);
    EXPECT_EQ(b[1].sets[0].y, 0.0f);
}

TEST_F(TuioOutputTest, ATouchFromDownToLift) {
    CTuioOutput& output = Start(nullptr);  // no configuration: the whole frame, 127.0.0.1:3333
    Feed(output, 1'000'000, {{7, kContactDown, 16384, 16384}});
    Feed(output, 1'010'000, {{7, kContactMoving, 16384 - 328, 16384}});  // about 0.01 to the right
    Feed(output, 1'020'000, {{7, kContactMoving, 16384 - 328, 16384}});  // rests
    Feed(output, 1'030'000, {{7, kContactLifted, 16384 - 328, 16384}});
    Feed(output, 1'040'000, {});
    output.OnFrameEnd(1);

    const auto b = network.Bundles("127.0.0.1:3333");
    // The start; the touch at the middle; the move, 0.01 of the width in 10 ms: 1 width per
    // second; at rest the speed drops to 0 in 10 ms, one more set says so; the lift; the end.
    EXPECT_THAT(Texts(b), ElementsAre("alive", "alive 1; set 1 0.500,0.500 0.00,0.00 0",
                                      "alive 1; set 1 0.510,0.500 1.00,0.00 100",
                                      "alive 1; set 1 0.510,0.500 0.00,0.00 -100", "alive",
                                      "alive"));
    for (size_t i = 0; i < b.size(); ++i) {
        EXPECT_EQ(b[i].source, "irframe-1@test");
        EXPECT_EQ(b[i].fseq, static_cast<int>(i + 1));
    }
}

TEST_F(TuioOutputTest, SessionIdsAreUniqueAcrossFramesAndTouches) {
    const auto config = Config({});
    CTuioOutput& first = Start(config.get(), 1);
    CTuioOutput& second = Start(config.get(), 2);
    Feed(first, 0, {{1, kContactDown, 100, 100}, {2, kContactDown, 200, 200}});
    Feed(second, 0, {{1, kContactDown, 100, 100}}, 2);
    Feed(first, 10'000, {{1, kContactLifted, 100, 100}, {2, kContactMoving, 200, 200}});
    Feed(first, 20'000, {{1, kContactDown, 100, 100}, {2, kContactMoving, 200, 200}});
    Feed(first, 30'000, {{2, kContactMoving, 300, 300}, {2, kContactMoving, 300, 300}});
    std::vector<int> all;
    const auto bundles = network.Bundles("127.0.0.1:3333");
    for (const Bundle& b : bundles) {
        for (const Set& s : b.sets) all.push_back(s.session);
    }
    // The same id touching again is a new cursor; an id twice in a frame is one cursor.
    EXPECT_THAT(all, ElementsAre(1, 2, 3, 4, 2));
    EXPECT_THAT(bundles.back().alive, ElementsAre(2));
    EXPECT_GT(bundles.back().sets.at(0).accel, 0.0f);  // tracked once: 10 ms, not 0 ms
}

TEST_F(TuioOutputTest, ContactsThatAreNotCursorsAreNotSent) {
    // A button panel in area 0's middle, and a frame that drops contacts outside its areas.
    auto config = Config({Area(8192, 4096, 4000)},
                         DEV_FLAG_AREAS_ENABLED | DEV_FLAG_PANELS_ENABLED);
    _HBRECT_CONFIG_FILE& panel = config->panels[config->panelCount++];
    panel.width = panel.height = 100;
    panel.center = {8192, 4096};
    panel.axisH = {-1024, 0};
    panel.axisV = {0, 1024};
    CTuioOutput& output = Start(config.get());
    Feed(output, 0, {{1, kContactDown, 8192, 4096},      // on the panel
                     {2, kContactDown, 30000, 16384},    // outside every area
                     {3, kContactDown, 8192, 16384}});  // in the area
    EXPECT_THAT(Texts(network.Bundles("127.0.0.1:4000")),
                ElementsAre("alive", "alive 1; set 1 0.500,0.500 0.00,0.00 0"));
}

TEST_F(TuioOutputTest, ABigUpdateIsSplitWithAliveInEachPart) {
    settings.maxLoopbackBundleBytes = 300;
    CTuioOutput& output = Start(nullptr);
    std::vector<Touch> nine;
    for (uint8_t id = 0; id < 9; ++id) {
        nine.push_back({id, kContactDown, static_cast<uint16_t>(2000 + 3000 * id), 16384});
    }
    Feed(output, 0, nine);
    const auto b = network.Bundles("127.0.0.1:3333");
    ASSERT_GT(b.size(), 3u);
    std::vector<int> set;
    for (size_t i = 1; i < b.size(); ++i) {
        EXPECT_LE(b[i].bytes, 300u);
        EXPECT_THAT(b[i].alive, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9));
        EXPECT_EQ(b[i].fseq, b[i - 1].fseq + 1);
        for (const Set& s : b[i].sets) set.push_back(s.session);
    }
    EXPECT_THAT(set, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9));
}

TEST_F(TuioOutputTest, RestingCursorsAreRefreshedEverySecondOfFrameTime) {
    CTuioOutput& output = Start(nullptr);
    // 100 frames a second for 2.5 s; the finger rests from the first frame on.
    std::vector<int64_t> setTimes;
    for (int64_t t = 0; t <= 2'500'000; t += 10'000) {
        const size_t before = network.sent["127.0.0.1:3333"].size();
        Feed(output, 5'000'000 + t, {{1, t == 0 ? kContactDown : kContactMoving, 9000, 9000}});
        if (network.sent["127.0.0.1:3333"].size() != before) setTimes.push_back(t);
    }
    EXPECT_THAT(setTimes, ElementsAre(0, 1'000'000, 2'000'000));
    const auto b = network.Bundles("127.0.0.1:3333");
    ASSERT_EQ(b.size(), 4u);
    EXPECT_EQ(b[2].sets.size(), 1u);
    EXPECT_EQ(b[3].sets.size(), 1u);
    // Without contacts the refresh is an empty alive.
    for (int64_t t = 2'510'000; t <= 4'000'000; t += 10'000) Feed(output, 5'000'000 + t, {});
    const auto after = network.Bundles("127.0.0.1:3333");
    ASSERT_EQ(after.size(), 6u);  // the lift at 2.51 s, the refresh at 3.51 s
    EXPECT_THAT(after[5].alive, IsEmpty());
}

// --- targets that cannot be used ------------------------------------------------------------

TEST_F(TuioOutputTest, AnAreaWithoutAUsableTargetIsWarnedOnceAndTheOthersGoOn) {
    settings.areaTargets[2] = "unresolvable:3333";
    settings.areaTargets[4] = "unresolvable";
    const auto config = Config({Area(5000, 4000, 0), Area(16384, 4000, 4001),
                                Area(27000, 4000, 4002), Area(16384, 4000, 4003),
                                Area(27000, 4000, 4004)});
    config->areas[3].netAddress = 0x0A000001;  // 10.0.0.1: not on this machine
    CTuioOutput& output = Start(config.get());
    for (int64_t t = 0; t < 100'000; t += 10'000) {
        Feed(output, t, {{1, kContactMoving, 5000, 16384}, {2, kContactMoving, 27000, 16384}});
    }
    ExpectLogged({"area 0: the frame gives no target (127.0.0.1:0)",
                  "area 2: cannot send to unresolvable:3333",
                  "area 3: the frame's target 10.0.0.1:4003 is not on this machine",
                  "area 4: TUIO target \"unresolvable\": the port must be"});
    std::vector<std::string> targets;
    for (const auto& t : output.Targets()) targets.push_back(FormatTuioTarget(t));
    EXPECT_THAT(targets, ElementsAre("127.0.0.1:4001"));
}

TEST_F(TuioOutputTest, AFailureInsideStopsTheOutputWithoutThrowing) {
    CTuioOutput output(settings, sessions,
                       [](const TTuioTarget&, std::string*) -> std::unique_ptr<ITuioSocket> {
                           throw std::runtime_error("no sockets today");
                       },
                       "test");
    TContactSource source;
    source.device = 3;
    source.name = "test frame";
    source.geometry = &kGeometry;
    EXPECT_NO_THROW(output.OnFrameReady(source));
    EXPECT_NO_THROW(Feed(output, 0, {{1, kContactDown, 100, 100}}));
    EXPECT_NO_THROW(output.OnFrameEnd(3));
    ExpectLogged({"frame 3 (test frame): TUIO output stopped: no sockets today"});
}

// --- from the driver, through a real socket -------------------------------------------------

// Verify that irframed --tuio sends a script's touch as one cursor that a receiver of its own
// reads, where the script put the finger and at its speed, and leaves the events unchanged.
TEST(TuioFromTheDriver, SendsTheTouchAsACursor) {
    CScratchDir scratch("tuio_driver");
    // 30 frames 10 ms apart (virtual clock) from (8000, 8000) to (14000, 12000) of 32767.
    const std::string drag = scratch.File(
        "drag", "rate 100\ndown 1 8000 8000\nmove 1 14000 12000 in 30\nup 1\nhold 1\n");
    Receiver receiver;
    const auto run = [&](const std::vector<std::string>& tuio) {
        std::vector<std::string> argv{IRFRAMED_PATH, "-vv", "--no-config", "--dry-run", "--output",
                                      scratch.Path("out.json"), "--simulate", drag};
        argv.insert(argv.end(), tuio.begin(), tuio.end());
        CChild driver(argv, scratch.Path("stdout"), scratch.Path("stderr"));
        EXPECT_EQ(driver.Wait(), 0) << driver.Err();
        EXPECT_THAT(driver.Err(), testing::Not(HasSubstr("TUIO")));  // nothing to warn about
        return ReadFile(scratch.Path("out.json"));
    };
    const std::string plain = run({});
    EXPECT_FALSE(plain.empty());
    EXPECT_EQ(run({"--tuio", "127.0.0.1:" + std::to_string(receiver.Port())}), plain);
    receiver.Drain();

    const std::vector<Bundle>& bundles = receiver.bundles;
    ASSERT_GE(bundles.size(), 4u);
    EXPECT_THAT(bundles.front().alive, IsEmpty());  // the start
    EXPECT_THAT(bundles.back().alive, IsEmpty());   // after the lift
    std::vector<Set> sets;
    for (size_t i = 0; i < bundles.size(); ++i) {
        EXPECT_THAT(bundles[i].source, testing::StartsWith("irframe-1@"));
        EXPECT_EQ(bundles[i].fseq, static_cast<int>(i + 1));
        sets.insert(sets.end(), bundles[i].sets.begin(), bundles[i].sets.end());
    }
    ASSERT_GE(sets.size(), 30u);  // a set for every frame that moved
    for (const Set& set : sets) {
        EXPECT_EQ(set.session, sets.front().session);  // one cursor throughout
        EXPECT_TRUE(set.x >= 0 && set.x <= 1 && set.y >= 0 && set.y <= 1) << set.x << "," << set.y;
    }
    // Fractions of the frame where the script put the finger, and its speed in frame widths
    // and heights per second of frame time: 6000/32767 in 0.3 s, 4000/32767 in 0.3 s.
    EXPECT_NEAR(sets.front().x, 8000.0 / 32767, 0.01);
    EXPECT_NEAR(sets.front().y, 8000.0 / 32767, 0.01);
    EXPECT_NEAR(sets.back().x, 14000.0 / 32767, 0.01);
    EXPECT_NEAR(sets.back().y, 12000.0 / 32767, 0.01);
    EXPECT_NEAR(sets[sets.size() / 2].vx, 6000.0 / 32767 / 0.3, 0.05);
    EXPECT_NEAR(sets[sets.size() / 2].vy, 4000.0 / 32767 / 0.3, 0.05);
}

}  // namespace
