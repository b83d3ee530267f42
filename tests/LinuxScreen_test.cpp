#include "LinuxScreen.h"

#include <gtest/gtest.h>

namespace {

struct TPlacementCase {
    const char* text;
    std::optional<TScreenPlacement> placement;
};

class ScreenOption : public testing::TestWithParam<TPlacementCase> {};

// Verify the --screen parser: a size alone lies at +0+0.
TEST_P(ScreenOption, Parses) {
    EXPECT_EQ(ParseScreenPlacement(GetParam().text), GetParam().placement) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(
    Table, ScreenOption,
    testing::Values(
        TPlacementCase{"1920x1080", TScreenPlacement{1920, 1080, 0, 0}},
        TPlacementCase{"1x1", TScreenPlacement{1, 1, 0, 0}},
        TPlacementCase{"65535x65535", TScreenPlacement{65535, 65535, 0, 0}},
        TPlacementCase{"2560x1440+1920+0", TScreenPlacement{2560, 1440, 1920, 0}},
        TPlacementCase{"800x600+0+65535", TScreenPlacement{800, 600, 0, 65535}},
        TPlacementCase{"0x1080", std::nullopt}, TPlacementCase{"65536x10", std::nullopt},
        TPlacementCase{"1920X1080", std::nullopt}, TPlacementCase{"1920x", std::nullopt},
        TPlacementCase{"x1080", std::nullopt}, TPlacementCase{"1920*1080", std::nullopt},
        TPlacementCase{"-1920x1080", std::nullopt}, TPlacementCase{"+1920x1080", std::nullopt},
        TPlacementCase{"1920x1080x2", std::nullopt}, TPlacementCase{" 1920x1080", std::nullopt},
        TPlacementCase{"", std::nullopt}, TPlacementCase{"99999999999x1", std::nullopt},
        TPlacementCase{"1920x1080+", std::nullopt}, TPlacementCase{"1920x1080+10", std::nullopt},
        TPlacementCase{"1920x1080+10+", std::nullopt},
        TPlacementCase{"1920x1080++10", std::nullopt},
        TPlacementCase{"1920x1080+-1+0", std::nullopt},
        TPlacementCase{"1920x1080-10+0", std::nullopt},
        TPlacementCase{"1920x1080+0-10", std::nullopt},
        TPlacementCase{"1920x1080+1+2+3", std::nullopt},
        TPlacementCase{"1920x1080+65536+0", std::nullopt},
        TPlacementCase{"1920x1080+0+0 ", std::nullopt},
        TPlacementCase{"1920x+0+0", std::nullopt}, TPlacementCase{"+0+0", std::nullopt}));

// A laptop panel, primary, and a wider monitor to its right: a 4480x1440 desktop.
std::vector<TDisplayOutput> TwoOutputs(bool withPrimary = true) {
    return {{"eDP-1", {0, 0, 1920, 1080}, withPrimary}, {"HDMI-1", {1920, 0, 2560, 1440}, false}};
}

struct TChoiceCase {
    const char* wanted;
    std::vector<TDisplayOutput> outputs;
    TScreenRect main;
    const char* source;
};

// Verify the choice of output: by name, else the primary, else the first, else the X screen.
TEST(LinuxScreen, ChoosesTheOutput) {
    const std::vector<TDisplayOutput> primaryLast = {TwoOutputs()[1], TwoOutputs()[0]};
    const std::vector<TDisplayOutput> noPrimary = {TwoOutputs(false)[1], TwoOutputs(false)[0]};
    const char* const left = "XRandR output eDP-1 at +0+0 of 4480x1440";
    const char* const right = "XRandR output HDMI-1 at +1920+0 of 4480x1440";
    const TChoiceCase cases[] = {
        {"HDMI-1", TwoOutputs(), {1920, 0, 2560, 1440}, right},
        {"eDP-1", TwoOutputs(), {0, 0, 1920, 1080}, left},
        {"", TwoOutputs(), {0, 0, 1920, 1080}, left},
        {"", primaryLast, {0, 0, 1920, 1080}, left},
        {"", noPrimary, {1920, 0, 2560, 1440}, right},
        {"", {}, {0, 0, 4480, 1440}, "the X screen at +0+0 of 4480x1440"},
    };
    for (const TChoiceCase& c : cases) {
        SCOPED_TRACE(testing::Message() << "'" << c.wanted << "' " << c.source);
        std::string error;
        const auto geometry = ChooseOutputGeometry(c.outputs, c.wanted, 4480, 1440, &error);
        ASSERT_TRUE(geometry.has_value()) << error;
        EXPECT_EQ(geometry->main, c.main);
        EXPECT_EQ(geometry->desktopWidth, 4480);
        EXPECT_EQ(geometry->desktopHeight, 1440);
        EXPECT_EQ(geometry->source, c.source);
    }
}

// Verify that a name no output has is refused with the outputs there are.
TEST(LinuxScreen, UnknownOutputListsTheOutputs) {
    const std::pair<std::vector<TDisplayOutput>, const char*> cases[] = {
        {TwoOutputs(),
         "no XRandR output named 'HDMI-2'; the outputs are: eDP-1 1920x1080+0+0 (primary), "
         "HDMI-1 2560x1440+1920+0"},
        {{}, "no XRandR output named 'HDMI-2'; the X server reports no lit output"},
    };
    for (const auto& [outputs, message] : cases) {
        std::string error;
        EXPECT_FALSE(ChooseOutputGeometry(outputs, "HDMI-2", 4480, 1440, &error).has_value());
        EXPECT_EQ(error, message);
    }
    std::string error;
    EXPECT_FALSE(ChooseOutputGeometry(TwoOutputs(), "hdmi-1", 4480, 1440, &error).has_value());
}

struct TResolveCase {
    const char* name;
    bool withX;
    TScreenRequest request;
    TScreenRect main;
    double desktopWidth, desktopHeight;
    const char* source;  // empty: refused
};

// Verify the order of the sources: the X server, then --screen, then 1920x1080.
TEST(LinuxScreen, ResolveOrder) {
    const TScreenPlacement right{2560, 1440, 1920, 0};
    const TResolveCase cases[] = {
        {"X first", true, {"", right}, {0, 0, 1920, 1080}, 4480, 1440,
         "XRandR output eDP-1 at +0+0 of 4480x1440"},
        {"X by name", true, {"HDMI-1", std::nullopt}, {1920, 0, 2560, 1440}, 4480, 1440,
         "XRandR output HDMI-1 at +1920+0 of 4480x1440"},
        {"X unknown name", true, {"DP-3", right}, {}, 0, 0, ""},
        {"size", false, {"", TScreenPlacement{800, 600, 0, 0}}, {0, 0, 800, 600}, 800, 600,
         "--screen (no X)"},
        {"placed", false, {"", right}, {1920, 0, 2560, 1440}, 4480, 1440,
         "--screen at +1920+0 of 4480x1440 (no X)"},
        {"named and placed", false, {"HDMI-1", right}, {1920, 0, 2560, 1440}, 4480, 1440,
         "--screen as output HDMI-1 at +1920+0 of 4480x1440 (no X)"},
        {"named only", false, {"HDMI-1", std::nullopt}, {}, 0, 0, ""},
        {"default", false, {}, {0, 0, 1920, 1080}, 1920, 1080, "the default (no X)"},
        {"left of two", false, {"", TScreenPlacement{1920, 1080, 0, 0}, TScreenPlacement{3840, 1080}},
         {0, 0, 1920, 1080}, 3840, 1080, "--screen (no X)"},
    };
    const TXrandrDesktop desktop{TwoOutputs(), 4480, 1440};
    for (const TResolveCase& c : cases) {
        SCOPED_TRACE(c.name);
        std::string error;
        const auto geometry = ResolveDisplayGeometry(
            c.withX ? std::optional(desktop) : std::nullopt, c.request, "no X", &error);
        if (*c.source == '\0') {
            EXPECT_FALSE(geometry.has_value());
            EXPECT_NE(error.find(c.request.output), std::string::npos) << error;
            continue;
        }
        ASSERT_TRUE(geometry.has_value()) << error;
        EXPECT_EQ(geometry->main, c.main);
        EXPECT_EQ(geometry->desktopWidth, c.desktopWidth);
        EXPECT_EQ(geometry->desktopHeight, c.desktopHeight);
        EXPECT_EQ(geometry->source, c.source);
        EXPECT_EQ(CLinuxScreen(*geometry).MainScreenFrame(), c.main);
    }
}

// Verify the touchscreen's matrix: [w/W 0 x/W; 0 h/H y/H] of the output within the desktop.
TEST(LinuxScreen, LibinputCalibrationLine) {
    const std::pair<TDisplayGeometry, const char*> cases[] = {
        {{{1920, 0, 2560, 1440}, 4480, 1440, ""},
         "ENV{LIBINPUT_CALIBRATION_MATRIX}=\"0.571429 0 0.428571 0 1 0\""},
        {{{0, 0, 1920, 1080}, 4480, 1440, ""},
         "ENV{LIBINPUT_CALIBRATION_MATRIX}=\"0.428571 0 0 0 0.75 0\""},
        {{{0, 1080, 1920, 1080}, 1920, 2160, ""},
         "ENV{LIBINPUT_CALIBRATION_MATRIX}=\"1 0 0 0 0.5 0.5\""},
        {{{0, 0, 0, 0}, 0, 1080, ""}, ""},
    };
    for (const auto& [geometry, line] : cases) {
        EXPECT_EQ(LibinputCalibrationLine(geometry), line);
    }
}

// Verify that a display nobody serves gives no geometry and a reason.
TEST(LinuxScreen, NoXServer) {
    std::string why;
    EXPECT_FALSE(QueryXrandrDesktop(":473", &why).has_value());
    EXPECT_FALSE(why.empty());
}

}  // namespace
