#include "LinuxScreen.h"

#include <gtest/gtest.h>

namespace {

struct TSizeCase {
    const char* text;
    std::optional<TScreenSize> size;
};

class ScreenSizeOption : public testing::TestWithParam<TSizeCase> {};

// Verify the --screen parser.
TEST_P(ScreenSizeOption, Parses) {
    EXPECT_EQ(ParseScreenSize(GetParam().text), GetParam().size) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(
    Table, ScreenSizeOption,
    testing::Values(TSizeCase{"1920x1080", TScreenSize{1920, 1080}},
                    TSizeCase{"1x1", TScreenSize{1, 1}},
                    TSizeCase{"65535x65535", TScreenSize{65535, 65535}},
                    TSizeCase{"0x1080", std::nullopt}, TSizeCase{"65536x10", std::nullopt},
                    TSizeCase{"1920X1080", std::nullopt}, TSizeCase{"1920x", std::nullopt},
                    TSizeCase{"x1080", std::nullopt}, TSizeCase{"1920*1080", std::nullopt},
                    TSizeCase{"-1920x1080", std::nullopt}, TSizeCase{"+1920x1080", std::nullopt},
                    TSizeCase{"1920x1080x2", std::nullopt}, TSizeCase{" 1920x1080", std::nullopt},
                    TSizeCase{"", std::nullopt}, TSizeCase{"99999999999x1", std::nullopt}));

// Verify the order of the sources: the X server, then --screen, then 1920x1080.
TEST(LinuxScreen, ResolveOrder) {
    TDisplayGeometry fromX;
    fromX.main = {1920, 0, 1280, 1024};
    fromX.desktopWidth = 3200;
    fromX.desktopHeight = 1080;
    fromX.source = "XRandR output HDMI-1";
    const auto withX = ResolveDisplayGeometry(fromX, TScreenSize{800, 600}, "");
    EXPECT_EQ(withX.main, fromX.main);
    EXPECT_EQ(withX.desktopWidth, 3200);
    EXPECT_EQ(withX.source, "XRandR output HDMI-1");

    const auto option = ResolveDisplayGeometry(std::nullopt, TScreenSize{800, 600}, "no X");
    EXPECT_EQ(option.main, (TScreenRect{0, 0, 800, 600}));
    EXPECT_EQ(option.desktopWidth, 800);
    EXPECT_EQ(option.desktopHeight, 600);
    EXPECT_EQ(option.source, "--screen (no X)");

    const auto fallback = ResolveDisplayGeometry(std::nullopt, std::nullopt, "no X");
    EXPECT_EQ(fallback.main, (TScreenRect{0, 0, 1920, 1080}));
    EXPECT_EQ(fallback.source, "the default (no X)");

    CLinuxScreen screen(option);
    EXPECT_EQ(screen.MainScreenFrame(), (TScreenRect{0, 0, 800, 600}));
}

// Verify that a display nobody serves gives no geometry and a reason.
TEST(LinuxScreen, NoXServer) {
    std::string why;
    EXPECT_FALSE(QueryXrandrGeometry(":473", &why).has_value());
    EXPECT_FALSE(why.empty());
}

}  // namespace
