#include "LinuxScreen.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

// Verify the --screen parser: a size alone lies at +0+0; anything else is refused.
TEST(LinuxScreen, ParsesTheScreenOption) {
    const std::pair<const char*, TScreenPlacement> placements[] = {
        {"1920x1080", {1920, 1080, 0, 0}},
        {"1x1", {1, 1, 0, 0}},
        {"65535x65535", {65535, 65535, 0, 0}},
        {"2560x1440+1920+0", {2560, 1440, 1920, 0}},
        {"800x600+0+65535", {800, 600, 0, 65535}},
    };
    for (const auto& [text, placement] : placements) {
        EXPECT_EQ(ParseScreenPlacement(text), placement) << text;
    }
    const char* const refused[] = {
        "0x1080",
        "65536x10",
        "1920X1080",
        "1920x",
        "x1080",
        "1920*1080",
        "-1920x1080",
        "+1920x1080",
        "1920x1080x2",
        " 1920x1080",
        "",
        "99999999999x1",
        "1920x1080+",
        "1920x1080+10",
        "1920x1080+10+",
        "1920x1080++10",
        "1920x1080+-1+0",
        "1920x1080-10+0",
        "1920x1080+0-10",
        "1920x1080+1+2+3",
        "1920x1080+65536+0",
        "1920x1080+0+0 ",
        "1920x+0+0",
        "+0+0",
    };
    for (const char* text : refused) {
        EXPECT_EQ(ParseScreenPlacement(text), std::nullopt) << "'" << text << "'";
    }
}

// A geometry as one line: the main screen, the desktop, where it came from.
std::string GeometryText(const TDisplayGeometry& g) {
    std::ostringstream s;
    s << g.main.x << "," << g.main.y << " " << g.main.width << "x" << g.main.height << " of "
      << g.desktopWidth << "x" << g.desktopHeight << ": " << g.source;
    return s.str();
}

// A laptop panel, primary, and a wider monitor to its right: a 4480x1440 desktop.
const TDisplayOutput kLeft{"eDP-1", {0, 0, 1920, 1080}, true};
const TDisplayOutput kRight{"HDMI-1", {1920, 0, 2560, 1440}, false};

// Verify the choice of the screen: the X server's output by name, else its primary, else its
// first, else the whole X screen; without X the --screen placement, else 1920x1080. A name no
// output has is refused with the outputs there are.
TEST(LinuxScreen, ChoosesTheScreen) {
    const TScreenPlacement right{2560, 1440, 1920, 0};
    TDisplayOutput unmarkedLeft = kLeft;
    unmarkedLeft.primary = false;
    const struct {
        std::optional<std::vector<TDisplayOutput>> x;  // the X server's outputs, if one answers
        TScreenRequest request;
        const char* want;  // the geometry, or the error
    } cases[] = {
        {{{kLeft, kRight}}, {"", right},
         "0,0 1920x1080 of 4480x1440: XRandR output eDP-1 at +0+0 of 4480x1440"},
        {{{kLeft, kRight}}, {"HDMI-1", std::nullopt},
         "1920,0 2560x1440 of 4480x1440: XRandR output HDMI-1 at +1920+0 of 4480x1440"},
        {{{kLeft, kRight}}, {"eDP-1", std::nullopt},
         "0,0 1920x1080 of 4480x1440: XRandR output eDP-1 at +0+0 of 4480x1440"},
        {{{kRight, kLeft}}, {},
         "0,0 1920x1080 of 4480x1440: XRandR output eDP-1 at +0+0 of 4480x1440"},
        {{{kRight, unmarkedLeft}}, {},
         "1920,0 2560x1440 of 4480x1440: XRandR output HDMI-1 at +1920+0 of 4480x1440"},
        {{{}}, {}, "0,0 4480x1440 of 4480x1440: the X screen at +0+0 of 4480x1440"},
        {{{kLeft, kRight}}, {"DP-3", right},
         "no XRandR output named 'DP-3'; the outputs are: eDP-1 1920x1080+0+0 (primary), "
         "HDMI-1 2560x1440+1920+0"},
        {{{kLeft, kRight}}, {"hdmi-1", std::nullopt},
         "no XRandR output named 'hdmi-1'; the outputs are: eDP-1 1920x1080+0+0 (primary), "
         "HDMI-1 2560x1440+1920+0"},
        {{{}}, {"HDMI-2", std::nullopt},
         "no XRandR output named 'HDMI-2'; the X server reports no lit output"},
        {std::nullopt, {"", TScreenPlacement{800, 600, 0, 0}},
         "0,0 800x600 of 800x600: --screen (no X)"},
        {std::nullopt, {"", right},
         "1920,0 2560x1440 of 4480x1440: --screen at +1920+0 of 4480x1440 (no X)"},
        {std::nullopt, {"HDMI-1", right},
         "1920,0 2560x1440 of 4480x1440: --screen as output HDMI-1 at +1920+0 of 4480x1440 (no X)"},
        {std::nullopt, {"HDMI-1", std::nullopt},
         "output 'HDMI-1' cannot be looked up (no X); give its place with --screen WxH+X+Y"},
        {std::nullopt, {}, "0,0 1920x1080 of 1920x1080: the default (no X)"},
        {std::nullopt, {"", TScreenPlacement{1920, 1080, 0, 0}, TScreenPlacement{3840, 1080}},
         "0,0 1920x1080 of 3840x1080: --screen (no X)"},
    };
    for (const auto& c : cases) {
        std::optional<TXrandrDesktop> desktop;
        if (c.x) desktop = TXrandrDesktop{*c.x, 4480, 1440};
        std::string error;
        const auto geometry = ResolveDisplayGeometry(desktop, c.request, "no X", &error);
        EXPECT_EQ(geometry ? GeometryText(*geometry) : error, c.want);
        if (geometry) {
            EXPECT_EQ(CLinuxScreen(*geometry).MainScreenFrame(), geometry->main);
        }
    }
}

// Verify the touchscreen's matrix: [w/W 0 x/W; 0 h/H y/H] of the output within the desktop.
TEST(LinuxScreen, LibinputCalibrationLine) {
    const std::pair<TDisplayGeometry, std::string> cases[] = {
        {{{1920, 0, 2560, 1440}, 4480, 1440, ""}, "0.571429 0 0.428571 0 1 0"},
        {{{0, 0, 1920, 1080}, 4480, 1440, ""}, "0.428571 0 0 0 0.75 0"},
        {{{0, 1080, 1920, 1080}, 1920, 2160, ""}, "1 0 0 0 0.5 0.5"},
        {{{0, 0, 0, 0}, 0, 1080, ""}, ""},
    };
    for (const auto& [geometry, matrix] : cases) {
        EXPECT_EQ(LibinputCalibrationLine(geometry),
                  matrix.empty() ? "" : "ENV{LIBINPUT_CALIBRATION_MATRIX}=\"" + matrix + "\"");
    }
}

// Verify that a display nobody serves gives no geometry and a reason.
TEST(LinuxScreen, NoXServer) {
    std::string why;
    EXPECT_FALSE(QueryXrandrDesktop(":473", &why).has_value());
    EXPECT_FALSE(why.empty());
}

}  // namespace
