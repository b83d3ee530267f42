#include "UinputTouchscreen.h"

#include "MtDevLog.h"

#include <gtest/gtest.h>
#include <libevdev/libevdev.h>
#include <linux/input.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace {

using TDevice = std::unique_ptr<libevdev, decltype(&libevdev_free)>;

TDevice Describe(TTouchscreenOptions options) {
    TContactSource source;
    source.node = "/dev/hidraw3";
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
    EXPECT_STREQ(libevdev_get_name(d.get()), "irframe touchscreen hidraw3");
    EXPECT_EQ(libevdev_get_id_vendor(d.get()), 0xAAEC);
    EXPECT_TRUE(libevdev_has_property(d.get(), INPUT_PROP_DIRECT));
    EXPECT_TRUE(libevdev_has_event_code(d.get(), EV_KEY, BTN_TOUCH));
    for (unsigned code : {BTN_TOOL_FINGER, BTN_TOOL_PEN, BTN_STYLUS, BTN_LEFT}) {
        EXPECT_FALSE(libevdev_has_event_code(d.get(), EV_KEY, code)) << code;
    }
    EXPECT_EQ(libevdev_get_num_slots(d.get()), 10);
    std::vector<std::array<int, 3>> axes;  // minimum, maximum, resolution
    for (unsigned code : {ABS_X, ABS_Y, ABS_MT_POSITION_X, ABS_MT_POSITION_Y, ABS_MT_TRACKING_ID,
                          ABS_MT_TOUCH_MAJOR}) {
        const input_absinfo* info = libevdev_get_abs_info(d.get(), code);
        ASSERT_NE(info, nullptr) << code;
        axes.push_back({info->minimum, info->maximum, info->resolution});
    }
    EXPECT_EQ(axes, (std::vector<std::array<int, 3>>{{1, 32766, 33},
                                                     {1, 32766, 66},
                                                     {1, 32766, 33},
                                                     {1, 32766, 66},
                                                     {0, 65535, 0},
                                                     {0, 32766, 0}}));
}

// A name that stays the same from one plugging to the next and tells frames and areas apart.
TEST(UinputTouchscreen, NamedAfterTheFrame) {
    TContactSource source;
    source.device = 3;
    source.name = "/dev/hidraw3 (AAEC:C020)";  // the log's name: not part of the device's
    EXPECT_EQ(TouchscreenDeviceName(source), "irframe touchscreen frame 3");
    source.node = "/dev/hidraw3";
    EXPECT_EQ(TouchscreenDeviceName(source), "irframe touchscreen hidraw3");
    source.serial = "A1234";
    EXPECT_EQ(TouchscreenDeviceName(source), "irframe touchscreen serial A1234");
    EXPECT_EQ(TouchscreenDeviceName(source, 2), "irframe touchscreen serial A1234 area 2");
    source.serial = std::string(200, 'n');
    const std::string cut = TouchscreenDeviceName(source, 11);
    EXPECT_EQ(cut.size(), 79u);  // uinput's limit
    EXPECT_EQ(cut.substr(cut.size() - 8), " area 11");
}

TEST(UinputTouchscreen, SizeConfiguredElseTheMonitors) {
    TDisplayGeometry monitor;
    monitor.widthMm = 527;
    monitor.heightMm = 296;
    EXPECT_EQ(TouchscreenSizeFor(0, 0, monitor), (TTouchscreenSize{527, 296}));
    EXPECT_EQ(TouchscreenSizeFor(1000, 0, monitor), (TTouchscreenSize{1000, 685}));
    EXPECT_EQ(TouchscreenSizeFor(0, 0, TDisplayGeometry{}), TTouchscreenSize{});
    monitor.heightMm = 0;  // a projector tells no size
    EXPECT_EQ(TouchscreenSizeFor(0, 0, monitor), TTouchscreenSize{});
}

_HCRECT_CONFIG_FILE HalfArea(uint8_t id, int32_t targetX, uint8_t rotation = 0) {
    _HCRECT_CONFIG_FILE area{};
    area.id = id;
    area.rotation = rotation;
    area.outputRect = {0, 0, 3840, 1080};
    area.targetRect = {targetX, 0, 1920, 1080};
    area.center = {16384, 16384};
    area.axisH = {-16384, 0};
    area.axisV = {0, 16384};
    return area;
}

// A frame across two displays side by side: each area's target rectangle in output units,
// and its contacts alone, stretched over the whole axes.
TEST(TouchscreenAreas, OneDevicePerDisplay) {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    config->flags = DEV_FLAG_AREAS_ENABLED;
    config->areas[0] = HalfArea(1, 0);
    config->areas[1] = HalfArea(1, 1920);  // the same cell: left out
    config->areas[2] = HalfArea(2, 1920);
    config->areas[3] = HalfArea(3, 0, 2);  // upside down
    config->areas[4] = HalfArea(4, 0, 9);  // no such rotation: not used by calibration
    config->areaCount = 5;
    const _CS_CONFIG geometry{8191, 8191, 32767, 32767};
    const std::vector<TTouchscreenArea> areas = TouchscreenAreas(*config, geometry);
    std::vector<std::array<int32_t, 5>> bounds;
    for (const TTouchscreenArea& a : areas) {
        bounds.push_back({a.index, a.left, a.right, a.top, a.bottom});
    }
    EXPECT_EQ(bounds, (std::vector<std::array<int32_t, 5>>{{0, 1, 16383, 1, 32766},
                                                           {2, 16383, 32766, 1, 32766},
                                                           {3, 16384, 32766, 1, 32766}}));
    ASSERT_EQ(areas.size(), 3u);

    TContactFrame frame;
    frame.device = 2;
    frame.contacts = {{.id = 7, .x = 16383, .y = 16384, .cell = {0, 2}},
                      {.id = 8, .x = 8192, .y = 1, .cell = {0, 1}},
                      {.id = 9, .hasSize = true, .x = 32766, .y = 32766, .width = 1638,
                       .height = 100, .cell = {0, 2}}};
    TContactFrame right;
    SelectAreaContacts(frame, areas[1], &right);
    EXPECT_EQ(right.device, 2);
    // Both stretched over the whole axis: the wide one twice as wide.
    EXPECT_EQ(right.contacts,
              (std::vector<TContact>{{.id = 7, .x = 1, .y = 16384, .cell = {0, 2}},
                                     {.id = 9, .hasSize = true, .x = 32766, .y = 32766,
                                      .width = 3275, .height = 100, .cell = {0, 2}}}));
    config->flags = 0;  // areas off: the frame is one touchscreen
    EXPECT_TRUE(TouchscreenAreas(*config, geometry).empty());
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
