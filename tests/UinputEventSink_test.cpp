#include "UinputEventSink.h"

#include "CTouchPointDeal.h"
#include "support/GestureHarness.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libevdev/libevdev.h>
#include <linux/input.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <thread>
#include <tuple>

namespace {

using testing::HasSubstr;

TDisplayGeometry Screen(double width, double height) {
    TDisplayGeometry g;
    g.main = {0, 0, width, height};
    g.desktopWidth = width;
    g.desktopHeight = height;
    return g;
}

constexpr TEvdevEvent kSyn{EV_SYN, SYN_REPORT, 0};

// Verify the absolute axis: screen points scaled to 0..32767, rounded and clamped.
TEST(EvdevTranslator, AbsoluteAxes) {
    CEvdevTranslator one(Screen(1920, 1080), TKeyProfile::Literal);
    EXPECT_EQ(one.AbsoluteX(0), 0);
    EXPECT_EQ(one.AbsoluteX(1920), 32767);
    EXPECT_EQ(one.AbsoluteX(960), 16384);  // 16383.5 rounds up
    EXPECT_EQ(one.AbsoluteY(540), 16384);
    EXPECT_EQ(one.AbsoluteX(-5), 0);
    EXPECT_EQ(one.AbsoluteX(16000), 32767);  // events posted at unscaled device coordinates
    EXPECT_EQ(one.AbsoluteX(std::numeric_limits<double>::quiet_NaN()), 0);
    EXPECT_EQ(one.AbsoluteX(std::numeric_limits<double>::infinity()), 0);
    CEvdevTranslator none(Screen(0, 0), TKeyProfile::Literal);
    EXPECT_EQ(none.AbsoluteX(100), 0);
}

// Verify that a screen point lands on the chosen output of a two-output desktop (1920x1080 at
// 0,0 and 2560x1440 at 1920,0): the axes span the 4480x1440 desktop, the point is offset by the
// output's origin.
TEST(EvdevTranslator, PointerOnTheChosenOutput) {
    const std::vector<TDisplayOutput> outputs = {{"eDP-1", {0, 0, 1920, 1080}, true},
                                                 {"HDMI-1", {1920, 0, 2560, 1440}, false}};
    struct Case {
        const char* output;
        double x, y;
        int32_t absX, absY;
    };
    const Case cases[] = {
        {"eDP-1", 0, 0, 0, 0},
        {"eDP-1", 1920, 1080, 14043, 24575},  // 32767 * 3/7, 32767 * 3/4
        {"HDMI-1", 0, 0, 14043, 0},
        {"HDMI-1", 1280, 720, 23405, 16384},  // 32767 * 5/7, 16383.5 rounded
        {"HDMI-1", 2560, 1440, 32767, 32767},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.output << " " << c.x << "," << c.y);
        std::string error;
        const auto geometry = ChooseOutputGeometry(outputs, c.output, 4480, 1440, &error);
        ASSERT_TRUE(geometry.has_value()) << error;
        CEvdevTranslator t(*geometry, TKeyProfile::Literal);
        const auto move = TInputEvent::Mouse(TInputEventType::MouseMoved, c.x, c.y, 0);
        const std::vector<TEvdevEvent> expected = {
            {EV_ABS, ABS_X, c.absX}, {EV_ABS, ABS_Y, c.absY}, kSyn};
        EXPECT_EQ(t.Translate(move), expected);
    }
}

// Verify that each mouse event moves the pointer and changes exactly its button.
TEST(EvdevTranslator, MouseEventsMoveThenChangeTheirButton) {
    const std::tuple<TInputEventType, TMouseButton, std::vector<TEvdevEvent>> cases[] = {
        {TInputEventType::MouseMoved, TMouseButton::Left, {}},
        {TInputEventType::LeftMouseDragged, TMouseButton::Left, {}},
        {TInputEventType::LeftMouseDown, TMouseButton::Left, {{EV_KEY, BTN_LEFT, 1}}},
        {TInputEventType::LeftMouseUp, TMouseButton::Left, {{EV_KEY, BTN_LEFT, 0}}},
        {TInputEventType::RightMouseDown, TMouseButton::Right, {{EV_KEY, BTN_RIGHT, 1}}},
        {TInputEventType::RightMouseUp, TMouseButton::Right, {{EV_KEY, BTN_RIGHT, 0}}},
    };
    CEvdevTranslator t(Screen(1000, 500), TKeyProfile::Literal);
    for (const auto& [type, button, buttons] : cases) {
        SCOPED_TRACE(static_cast<int>(type));
        std::vector<TEvdevEvent> expected = {{EV_ABS, ABS_X, 8192}, {EV_ABS, ABS_Y, 16384}};
        expected.insert(expected.end(), buttons.begin(), buttons.end());
        expected.push_back(kSyn);
        EXPECT_EQ(t.Translate(TInputEvent::Mouse(type, 250, 250, 0x800000, 2, button)), expected);
    }
}

// Verify that a button held when its contact goes away (the frame is unplugged or stops
// answering, or the driver stops) is released where the finger was: the release comes at the
// origin and lifts only the button, so the pointer stays at the drag's last point.
TEST(EvdevTranslator, ReleaseWithoutContactLeavesThePointer) {
    CGestureHarness h;
    h.Play("down 1 8000 8000\nmove 1 16000 12000 in 4\n");
    ASSERT_EQ(h.TakeEvents().back().type, TInputEventType::LeftMouseDragged);
    h.container.releaseClick();  // as the driver does when the frame goes away or it stops
    const TInputEvent release =
        TInputEvent::Mouse(TInputEventType::LeftMouseUp, 0, 0, EVENT_FLAG_SECONDARY_FN);
    EXPECT_EQ(h.TakeEvents(), std::vector<TInputEvent>{release});
    CEvdevTranslator t(Screen(1920, 1080), TKeyProfile::Literal);
    EXPECT_EQ(t.Translate(release), (std::vector<TEvdevEvent>{{EV_KEY, BTN_LEFT, 0}, kSyn}));
}

// Verify a shortcut: modifiers then key, one report each, and released in reverse.
TEST(EvdevTranslator, ShortcutDownAndUp) {
    CEvdevTranslator t(Screen(1920, 1080), TKeyProfile::Desktop);
    const uint16_t left = CTouchPointDeal::keyCodeForKeyString("LEFT");
    EXPECT_EQ(t.Translate(TInputEvent::Key(true, left, kMacFlagControl)),
              (std::vector<TEvdevEvent>{{EV_KEY, KEY_LEFTCTRL, 1}, kSyn,
                                        {EV_KEY, KEY_LEFTALT, 1}, kSyn,
                                        {EV_KEY, KEY_LEFT, 1}, kSyn}));
    EXPECT_EQ(t.Translate(TInputEvent::Key(false, left, kMacFlagControl)),
              (std::vector<TEvdevEvent>{{EV_KEY, KEY_LEFT, 0}, kSyn,
                                        {EV_KEY, KEY_LEFTALT, 0}, kSyn,
                                        {EV_KEY, KEY_LEFTCTRL, 0}, kSyn}));
    // The name table's unknown code posts nothing.
    EXPECT_TRUE(t.Translate(TInputEvent::Key(true, 0xFFFF, kMacFlagCommand)).empty());
}

// Verify that the device changes exactly the keys that the dry run names, in that order, for
// every gesture's shortcut in every profile and with a user's chord, and nothing for none.
TEST(EvdevTranslator, PressesWhatTheDryRunShows) {
    TShortcutOverrides overrides;
    overrides[static_cast<size_t>(TGestureShortcut::BorderSwipe)] = "shift+alt+ctrl+f13";
    overrides[static_cast<size_t>(TGestureShortcut::Pinch)] = "none";
    std::string error;
    const auto custom = CKeyMap::Make(TKeyProfile::Safe, overrides, &error);
    ASSERT_TRUE(custom.has_value()) << error;
    std::vector<CKeyMap> maps = {*custom};
    for (const char* name : KeyProfileNames()) maps.emplace_back(*ParseKeyProfile(name));

    size_t pressed = 0;
    for (const CKeyMap& map : maps) {
        CEvdevTranslator t(Screen(1920, 1080), map);
        for (const TGestureShortcutInfo& info : GestureShortcutTable()) {
            for (bool down : {true, false}) {
                const TInputEvent event = TInputEvent::Key(down, info.macKeyCode, info.flags);
                std::vector<std::string> changed;
                for (const TEvdevEvent& e : t.Translate(event)) {
                    if (e.type == EV_SYN) continue;
                    EXPECT_EQ(e.type, EV_KEY);
                    EXPECT_EQ(e.value, down ? 1 : 0);
                    changed.push_back(libevdev_event_code_get_name(EV_KEY, e.code));
                }
                EXPECT_EQ(changed, map.KeyNames(event))
                    << KeyProfileName(map.Profile()) << " " << info.name;
                pressed += changed.size();
            }
        }
    }
    EXPECT_GT(pressed, 0u);
    const TGestureShortcutInfo& border = GestureShortcutInfo(TGestureShortcut::BorderSwipe);
    EXPECT_EQ(custom->KeyNames(TInputEvent::Key(true, border.macKeyCode, border.flags)),
              (std::vector<std::string>{"KEY_LEFTCTRL", "KEY_LEFTALT", "KEY_LEFTSHIFT",
                                        "KEY_F13"}));
}

TEvdevEvent Rel(uint16_t code, int32_t value) { return {EV_REL, code, value}; }

// Verify the wheel: hi-res units for every scroll, a whole detent once 120 of them added up,
// the remainder dropped when the direction turns.
TEST(EvdevTranslator, WheelDetents) {
    const std::tuple<int32_t, int32_t, std::vector<TEvdevEvent>> steps[] = {
        {50, 0, {Rel(REL_WHEEL_HI_RES, 120), Rel(REL_WHEEL, 1), kSyn}},  // 50 pixels: a detent
        {30, 0, {Rel(REL_WHEEL_HI_RES, 72), kSyn}},                     // no detent yet
        {30, 0, {Rel(REL_WHEEL_HI_RES, 72), Rel(REL_WHEEL, 1), kSyn}},  // 144: 24 left
        // Turning: the 24 left over do not cancel part of the downward scroll.
        {-50, 0, {Rel(REL_WHEEL_HI_RES, -120), Rel(REL_WHEEL, -1), kSyn}},
        {-125, 0, {Rel(REL_WHEEL_HI_RES, -300), Rel(REL_WHEEL, -2), kSyn}},
        {0, 0, {}},
        {0, 50, {Rel(REL_HWHEEL_HI_RES, 120), Rel(REL_HWHEEL, 1), kSyn}},
    };
    CEvdevTranslator t(Screen(1920, 1080), TKeyProfile::Literal);
    for (const auto& [wheel1, wheel2, events] : steps) {
        SCOPED_TRACE(testing::Message() << wheel1 << " " << wheel2);
        EXPECT_EQ(t.Translate(TInputEvent::Scroll(wheel1, wheel2)), events);
    }
    // Extreme amounts do not overflow.
    const auto huge = t.Translate(TInputEvent::Scroll(std::numeric_limits<int32_t>::max()));
    ASSERT_EQ(huge.size(), 3u);
    EXPECT_GT(huge[0].value, 0);
    EXPECT_GT(huge[1].value, 0);
}

// Verify the one-line advice given when the virtual device cannot be made, end to end for a
// missing node and for a node that is not uinput.
TEST(UinputEventSink, ErrorAdvice) {
    EXPECT_THAT(DescribeUinputError("/dev/uinput", "open", ENODEV), HasSubstr("modprobe uinput"));
    const std::string denied = DescribeUinputError("/dev/uinput", "open", EACCES);
    EXPECT_THAT(denied, HasSubstr("/dev/uinput (Permission denied)"));
    EXPECT_THAT(denied, HasSubstr("packaging/70-irframe.rules"));
    for (const auto& [node, advice] : {std::pair{"/nonexistent/uinput", "modprobe uinput"},
                                       std::pair{"/dev/null", "not a uinput device"}}) {
        std::string error;
        EXPECT_EQ(
            CUinputEventSink::Create(node, Screen(1920, 1080), TKeyProfile::Literal, &error),
            nullptr);
        EXPECT_THAT(error, HasSubstr(advice));
        EXPECT_EQ(error.find('\n'), std::string::npos);
    }
}

// What one write carries, read back through a datagram socket that keeps write boundaries.
std::vector<std::vector<TEvdevEvent>> Writes(int fd) {
    std::vector<std::vector<TEvdevEvent>> writes;
    input_event buffer[256];
    for (;;) {
        const ssize_t n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (n <= 0) break;
        std::vector<TEvdevEvent>& events = writes.emplace_back();
        for (size_t i = 0; i < static_cast<size_t>(n) / sizeof buffer[0]; ++i) {
            events.push_back({buffer[i].type, buffer[i].code, buffer[i].value});
        }
    }
    return writes;
}

// A frame's events in one write, in the order they were posted; outside a frame one write per
// event; two workers' frames do not mix.
TEST(UinputEventSink, OneWritePerFrame) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds), 0);
    auto sink = CUinputEventSink::Adopt(fds[0], Screen(1920, 1080), TKeyProfile::Literal);
    CEvdevTranslator expected(Screen(1920, 1080), TKeyProfile::Literal);
    const std::vector<TInputEvent> click = {
        TInputEvent::Mouse(TInputEventType::MouseMoved, 10, 20, EVENT_FLAG_SECONDARY_FN, 1),
        TInputEvent::Mouse(TInputEventType::LeftMouseDown, 10, 20, EVENT_FLAG_SECONDARY_FN, 1),
        TInputEvent::Mouse(TInputEventType::LeftMouseUp, 10, 20, EVENT_FLAG_SECONDARY_FN, 1),
        TInputEvent::Scroll(120)};
    std::vector<TEvdevEvent> all;
    for (const TInputEvent& e : click) expected.Translate(e, &all);
    {
        TEventFrame frame(sink.get());
        for (const TInputEvent& e : click) sink->Post(e);
        EXPECT_TRUE(Writes(fds[1]).empty());  // held until the frame ends
    }
    EXPECT_EQ(Writes(fds[1]), (std::vector<std::vector<TEvdevEvent>>{all}));

    { TEventFrame nothing(sink.get()); }
    EXPECT_TRUE(Writes(fds[1]).empty());
    sink->Post(click[0]);
    sink->Post(click[1]);
    EXPECT_EQ(Writes(fds[1]).size(), 2u);

    // Another worker's frame, gathered on its own thread while this one gathers.
    TEventFrame mine(sink.get());
    sink->Post(click[1]);
    std::thread other([&] {
        TEventFrame theirs(sink.get());
        sink->Post(click[2]);
    });
    other.join();
    sink->EndFrame();
    const auto writes = Writes(fds[1]);
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_EQ(writes[0].at(2), (TEvdevEvent{EV_KEY, BTN_LEFT, 0}));
    EXPECT_EQ(writes[1].at(2), (TEvdevEvent{EV_KEY, BTN_LEFT, 1}));
    close(fds[1]);
}

}  // namespace
