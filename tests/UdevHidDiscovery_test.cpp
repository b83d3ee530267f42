#include "UdevHidDiscovery.h"

#include "SdEventLoop.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <unistd.h>

namespace {

struct THidIdCase {
    const char* text;
    bool valid;
    THidId id;
};

class HidIdParse : public testing::TestWithParam<THidIdCase> {};

// Verify the HID_ID parser on the kernel's own format and on malformed values.
TEST_P(HidIdParse, ParsesOrRejects) {
    const THidIdCase& c = GetParam();
    const auto parsed = ParseHidId(c.text);
    ASSERT_EQ(parsed.has_value(), c.valid) << '"' << c.text << '"';
    if (c.valid) {
        EXPECT_EQ(parsed->bus, c.id.bus);
        EXPECT_EQ(parsed->vendor, c.id.vendor);
        EXPECT_EQ(parsed->product, c.id.product);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, HidIdParse,
    testing::Values(
        THidIdCase{"0003:0000AAEC:0000C020", true, {0x3, 0xAAEC, 0xC020}},
        THidIdCase{"0003:0000AAEC:0000C021", true, {0x3, 0xAAEC, 0xC021}},
        THidIdCase{"0005:0000202E:00000006", true, {0x5, 0x202E, 0x0006}},  // Bluetooth
        THidIdCase{"0018:0000aaec:0000c020", true, {0x18, 0xAAEC, 0xC020}},  // lower case, I2C
        THidIdCase{"3:AAEC:C020", true, {0x3, 0xAAEC, 0xC020}},
        THidIdCase{"FFFFFFFF:FFFFFFFF:FFFFFFFF", true, {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF}},
        THidIdCase{"", false, {}},
        THidIdCase{"0003:0000AAEC", false, {}},
        THidIdCase{"0003:0000AAEC:0000C020:0001", false, {}},
        THidIdCase{"0003::0000C020", false, {}},
        THidIdCase{"0003:0000AAEC:", false, {}},
        THidIdCase{"0x03:0000AAEC:0000C020", false, {}},
        THidIdCase{"0003:0000AAEC:0000C02G", false, {}},
        THidIdCase{"0003:100000AAEC:0000C020", false, {}},  // nine digits
        THidIdCase{"0003:0000AAEC:0000C020\n", false, {}},
        THidIdCase{" 0003:0000AAEC:0000C020", false, {}},
        THidIdCase{"-003:0000AAEC:0000C020", false, {}},
        THidIdCase{"0003:+000AAEC:0000C020", false, {}}));

// Verify that the udev group is chosen only while udevd's control socket exists.
TEST(UdevHidDiscovery, MonitorSourceFollowsUdevd) {
    char path[] = "/tmp/irframe-udev-control-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(ChooseMonitorSource(path), TUdevSource::Udev);
    unlink(path);
    EXPECT_EQ(ChooseMonitorSource(path), TUdevSource::Kernel);
    EXPECT_STREQ(UdevSourceName(TUdevSource::Udev), "udev");
    EXPECT_STREQ(UdevSourceName(TUdevSource::Kernel), "kernel");
}

// Verify the presence set of one row: other ids are not taken, a device reported by both the
// enumeration and the monitor is matched once, and only matched devices are removed.
TEST(HidPresence, MatchesOncePerAppearance) {
    CHidPresence row(0xAAEC, 0xC021);
    const THidId frame{3, 0xAAEC, 0xC021};
    EXPECT_FALSE(row.Add("/sys/a", THidId{3, 0xAAEC, 0xC020}));  // the other row's product
    EXPECT_FALSE(row.Add("/sys/a", THidId{3, 0x202E, 0xC021}));
    EXPECT_FALSE(row.Add("/sys/a", THidId{3, 0x1AAEC, 0xC021}));  // no truncation to 16 bits
    EXPECT_TRUE(row.Add("/sys/a", frame));
    EXPECT_FALSE(row.Add("/sys/a", frame));
    EXPECT_TRUE(row.Add("/sys/b", frame));
    EXPECT_EQ(row.Count(), 2u);
    EXPECT_FALSE(row.Remove("/sys/unknown"));
    EXPECT_TRUE(row.Remove("/sys/a"));
    EXPECT_FALSE(row.Remove("/sys/a"));
    EXPECT_TRUE(row.Add("/sys/a", frame));  // plugged in again
}

// Verify the live path against this machine's udev: opening a row works with whatever monitor
// source applies here, and delivers exactly the matching devices present (normally none),
// each on its own dispatch.
TEST(UdevHidMatcher, OpensAndDeliversPresentDevices) {
    std::string error;
    auto loop = CSdEventLoop::Create(&error);
    ASSERT_NE(loop, nullptr) << error;
    int matched = 0;
    CUdevHidMatcher matcher(0xAAEC, 0xC020, [&](const THidrawDevice&) { ++matched; },
                            [](const THidrawDevice&) {});
    if (!matcher.Open(loop->Event(), ChooseMonitorSource(), &error)) {
        GTEST_SKIP() << "no udev here: " << error;
    }
    const size_t present = matcher.PresentCount();
    size_t dispatches = 0;
    while (loop->RunOnce(0)) ++dispatches;
    EXPECT_EQ(static_cast<size_t>(matched), present);
    EXPECT_GE(dispatches, present);
    matcher.Close();
    matcher.Close();
}

}  // namespace
