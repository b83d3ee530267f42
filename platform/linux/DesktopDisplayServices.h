// The monitors of GNOME and KDE Plasma as their session-bus services report them: Mutter's
// org.gnome.Mutter.DisplayConfig GetCurrentState and KScreen's /backend getConfig. Their
// compositors do not offer wlr-output-management, and XRandR there sees only Xwayland's screens.
//
// A reply is first turned into JSON (structs and arrays as arrays, string-keyed dictionaries as
// objects, variants as what they hold), within limits, then read by name: KScreen sends Qt's
// JSON-shaped maps whose numbers may come as any D-Bus number type.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>
#include <vector>

#include "WlrOutputLayout.h"

struct sd_bus;
struct sd_bus_message;

// Limits on a reply: nesting, values in all, characters kept of a string.
inline constexpr int kBusJsonMaxDepth = 12;
inline constexpr size_t kBusJsonMaxValues = 20'000;
inline constexpr size_t kBusJsonMaxString = 256;

// The rest of `m`'s arguments as a JSON array. Empty, with `why`, past a limit or on a message
// that cannot be read.
std::optional<nlohmann::json> BusArgumentsToJson(sd_bus_message* m, std::string* why);

// A monitor as Mutter names it: connector, vendor, product, serial.
struct TMutterMonitor {
    std::string connector, vendor, product, serial;
    bool operator==(const TMutterMonitor&) const = default;
};

// What GetCurrentState says: its monitors, and the lit ones placed as heads in the desktop.
struct TMutterState {
    std::vector<TMutterMonitor> monitors;
    std::vector<TWlrHead> heads;  // one per monitor of a logical monitor, with its current mode
};

// GetCurrentState's reply as JSON (serial, monitors, logical monitors, properties). Empty when
// it does not have that shape. In Mutter's logical layout mode (layout-mode 1) a logical monitor
// is its mode divided by its scale; otherwise (physical) the mode itself.
std::optional<TMutterState> MutterStateFromJson(const nlohmann::json& reply);

// getConfig's reply as JSON (one map holding "outputs"). The enabled, connected outputs as
// heads; empty when there is no output list.
std::optional<std::vector<TWlrHead>> KscreenHeadsFromJson(const nlohmann::json& reply);

// Asks Mutter on `bus` (never starting it). Empty with `why` when it does not answer.
std::optional<TMutterState> QueryMutterState(sd_bus* bus, std::string* why);

// The desktop's layout from Mutter, else from KScreen, whichever answers on the session bus
// (XDG_CURRENT_DESKTOP chooses which is asked first). Empty with `why` when neither does.
std::optional<TXrandrDesktop> QueryDesktopServiceLayout(sd_bus* bus, std::string* why);
