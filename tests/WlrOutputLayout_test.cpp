#include "WlrOutputLayout.h"

#include "support/HeadlessSway.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <map>
#include <string>

namespace {

// The compositor's space: modes turned a quarter swap their sides, scales divide them;
// disabled heads and heads without a mode take no place.
TEST(WlrOutputLayout, HeadsInTheCompositorsSpace) {
    const std::vector<TWlrHead> heads = {
        {"DP-1", true, 0, 0, 2560, 1440, 0, 2.0, 597, 336},
        {"HDMI-A-1", true, 1280, 0, 1920, 1080, 1, 1.0, 0, 0},  // 90 degrees
        {"DP-2", false, 0, 0, 1920, 1080, 0, 1.0, 0, 0},
        {"WL-1", true, 0, 0, 0, 0, 0, 1.0, 0, 0},
    };
    EXPECT_EQ(LayoutText(LayoutOfHeads(heads)),
              "compositor: DP-1 0,0 1280x720 597x336mm HDMI-A-1 1280,0 1080x1920 in 2360x1920");
}

// The heads read through wlr-output-management are sway's own outputs, and every enabled head
// lies where sway says. (sway 1.7 marks outputs without a mode list, as headless ones are,
// disabled in the protocol: there the names are what can be compared.)
TEST(WlrOutputLayout, MatchesSwaysOwnOutputs) {
    ASSERT_EQ(system("command -v sway swaymsg > /dev/null"), 0)
        << "sway is needed (scripts/setup-test.sh installs it)";
    HeadlessSway sway;
    ASSERT_TRUE(sway.WaitReady()) << sway.Log();
    sway.Msg("create_output");
    sway.Msg("create_output");
    sway.Msg("output HEADLESS-2 mode 1280x720 position 1920 0");
    sway.Msg("output HEADLESS-3 mode 1600x1200 position 0 1080 scale 2 transform 90");
    const nlohmann::json outputs =
        nlohmann::json::parse(sway.Msg("-t get_outputs -r"), nullptr, false);
    ASSERT_TRUE(outputs.is_array()) << outputs;
    ASSERT_EQ(outputs.size(), 3u) << outputs;

    std::string why;
    const std::optional<std::vector<TWlrHead>> heads =
        QueryWlrHeads(sway.WaylandSocket().c_str(), &why);
    ASSERT_TRUE(heads) << why;
    ASSERT_EQ(heads->size(), outputs.size());
    // Sway's rectangles of the enabled heads, and where the layout puts them.
    std::map<std::string, TScreenRect> swayPlaces, placed;
    for (const auto& output : outputs) {
        const std::string name = output.at("name");
        const auto head = std::find_if(heads->begin(), heads->end(),
                                       [&](const TWlrHead& h) { return h.name == name; });
        ASSERT_NE(head, heads->end()) << name;
        if (!head->enabled) continue;
        const auto& rect = output.at("rect");
        swayPlaces[name] = {rect.at("x").get<double>(), rect.at("y").get<double>(),
                            rect.at("width").get<double>(), rect.at("height").get<double>()};
    }
    for (const TDisplayOutput& o : LayoutOfHeads(*heads).outputs) placed[o.name] = o.rect;
    EXPECT_EQ(placed, swayPlaces);
}

}  // namespace
