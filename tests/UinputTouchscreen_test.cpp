#include "UinputTouchscreen.h"

#include "MtDevLog.h"

#include <gtest/gtest.h>
#include <libevdev/libevdev.h>
#include <linux/input.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using TDevice = std::unique_ptr<libevdev, decltype(&libevdev_free)>;

TDevice Describe(TTouchscreenOptions options, std::string name = "hidraw3 (AAEC:C020)") {
    TContactSource source;
    source.name = std::move(name);
    source.vendorId = 0xAAEC;
    source.productId = 0xC020;
    return TDevice(DescribeTouchscreen(source, options), &libevdev_free);
}

// What udev's input_id needs to tag the device ID_INPUT_TOUCHSCREEN and not as a touchpad,
// tablet or mouse, and the axes libinput reads the size from.
TEST(UinputTouchscreen, DescribedAsTouchscreen) {
    TTouchscreenOptions options;
    options.size = {1000, 500};
    options.slots = 10;
    const TDevice d = Describe(options);
    EXPECT_STREQ(libevdev_get_name(d.get()), "irframe touchscreen hidraw3 (AAEC:C020)");
    EXPECT_EQ(libevdev_get_id_vendor(d.get()), 0xAAEC);
    EXPECT_TRUE(libevdev_has_property(d.get(), INPUT_PROP_DIRECT));
    EXPECT_TRUE(libevdev_has_event_code(d.get(), EV_KEY, BTN_TOUCH));
    for (unsigned code : {BTN_TOOL_FINGER, BTN_TOOL_PEN, BTN_STYLUS, BTN_LEFT}) {
        EXPECT_FALSE(libevdev_has_event_code(d.get(), EV_KEY, code)) << code;
    }
    EXPECT_EQ(libevdev_get_num_slots(d.get()), 10);
    struct TAxis {
        unsigned code;
        int minimum, maximum, resolution;
    };
    for (const TAxis& a : {TAxis{ABS_X, 1, 32766, 33}, TAxis{ABS_Y, 1, 32766, 66},
                           TAxis{ABS_MT_POSITION_X, 1, 32766, 33},
                           TAxis{ABS_MT_POSITION_Y, 1, 32766, 66},
                           TAxis{ABS_MT_TRACKING_ID, 0, 65535, 0},
                           TAxis{ABS_MT_TOUCH_MAJOR, 0, 32766, 0}}) {
        const input_absinfo* info = libevdev_get_abs_info(d.get(), a.code);
        ASSERT_NE(info, nullptr) << a.code;
        EXPECT_EQ(info->minimum, a.minimum) << a.code;
        EXPECT_EQ(info->maximum, a.maximum) << a.code;
        EXPECT_EQ(info->resolution, a.resolution) << a.code;
    }
}

TEST(UinputTouchscreen, NamedAfterTheFrame) {
    TContactSource source;
    source.device = 3;
    EXPECT_EQ(TouchscreenDeviceName(source), "irframe touchscreen frame 3");
    source.name = "x";
    EXPECT_EQ(TouchscreenDeviceName(source), "irframe touchscreen x");
    source.name = std::string(200, 'n');
    EXPECT_EQ(TouchscreenDeviceName(source).size(), 79u);  // uinput's limit
}

// Without a uinput node the frame says why once, and its contacts go nowhere.
TEST(UinputTouchscreen, MissingUinputSaysWhy) {
    std::vector<std::string> lines;
    TLogSink previous = TSetLogSink(
        [&](TLogChannel, std::string_view line) { lines.emplace_back(line); });
    TTouchscreenOptions options;
    options.uinputPath = "/nonexistent/uinput";
    CUinputTouchscreen touchscreen(options);
    touchscreen.OnFrameReady(TContactSource{});
    TContactFrame frame;
    frame.contacts.resize(1);
    touchscreen.OnContacts(frame);
    touchscreen.OnFrameEnd(0);
    TSetLogSink(std::move(previous));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("touchscreen: cannot open /nonexistent/uinput"), std::string::npos)
        << lines[0];
    EXPECT_EQ(touchscreen.DeviceNode(), "");
}

}  // namespace
