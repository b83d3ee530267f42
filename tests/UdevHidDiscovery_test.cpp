#include "UdevHidDiscovery.h"

#include "SdEventLoop.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <optional>
#include <string>
#include <unistd.h>

namespace {

// Verify the HID_ID parser on the kernel's own format and on malformed values.
TEST(HidIdParse, ParsesOrRejects) {
    const std::pair<const char*, std::optional<std::array<uint32_t, 3>>> cases[] = {
        {"0003:0000AAEC:0000C020", {{0x3, 0xAAEC, 0xC020}}},
        {"0003:0000AAEC:0000C021", {{0x3, 0xAAEC, 0xC021}}},
        {"0005:0000202E:00000006", {{0x5, 0x202E, 0x0006}}},  // Bluetooth
        {"0018:0000aaec:0000c020", {{0x18, 0xAAEC, 0xC020}}},  // lower case, I2C
        {"3:AAEC:C020", {{0x3, 0xAAEC, 0xC020}}},
        {"FFFFFFFF:FFFFFFFF:FFFFFFFF", {{0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF}}},
        {"", std::nullopt},
        {"0003:0000AAEC", std::nullopt},
        {"0003:0000AAEC:0000C020:0001", std::nullopt},
        {"0003::0000C020", std::nullopt},
        {"0003:0000AAEC:", std::nullopt},
        {"0x03:0000AAEC:0000C020", std::nullopt},
        {"0003:0000AAEC:0000C02G", std::nullopt},
        {"0003:10000AAEC:0000C020", std::nullopt},  // nine digits
        {"0003:0000AAEC:0000C020\n", std::nullopt},
        {" 0003:0000AAEC:0000C020", std::nullopt},
        {"-003:0000AAEC:0000C020", std::nullopt},
        {"0003:+000AAEC:0000C020", std::nullopt},
    };
    for (const auto& [text, id] : cases) {
        const auto parsed = ParseHidId(text);
        std::optional<std::array<uint32_t, 3>> fields;
        if (parsed) fields = {{parsed->bus, parsed->vendor, parsed->product}};
        EXPECT_EQ(fields, id) << '"' << text << '"';
    }
}

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
