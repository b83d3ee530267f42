#include "DesktopDisplayServices.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "QuotedText.h"

using nlohmann::json;

namespace {

// ---------------------------------------------------------------------------------------------
// A reply as JSON

class CBusJsonReader {
public:
    explicit CBusJsonReader(sd_bus_message* m) : m_message(m) {}

    // Values up to the end of the current container, as an array.
    bool ReadSequence(int depth, json* out) {
        *out = json::array();
        for (;;) {
            char type = 0;
            const char* contents = nullptr;
            const int more = sd_bus_message_peek_type(m_message, &type, &contents);
            if (more < 0) return Fail("a message that cannot be read");
            if (more == 0) return true;
            json value;
            if (!ReadValue(type, contents, depth, &value)) return false;
            out->push_back(std::move(value));
        }
    }

    const std::string& Why() const { return m_why; }

private:
    bool Fail(const char* why) {
        if (m_why.empty()) m_why = why;
        return false;
    }

    bool ReadValue(char type, const char* contents, int depth, json* out) {
        if (++m_values > kBusJsonMaxValues) return Fail("a reply with too many values");
        if (depth > kBusJsonMaxDepth) return Fail("a reply nested too deeply");
        switch (type) {
            case SD_BUS_TYPE_VARIANT:
            case SD_BUS_TYPE_STRUCT:
                return ReadContainer(type, contents, depth, out);
            case SD_BUS_TYPE_ARRAY:
                if (contents != nullptr && contents[0] == SD_BUS_TYPE_DICT_ENTRY_BEGIN) {
                    return ReadDictionary(contents, depth, out);
                }
                return ReadContainer(type, contents, depth, out);
            default:
                return ReadBasic(type, out);
        }
    }

    bool ReadContainer(char type, const char* contents, int depth, json* out) {
        if (sd_bus_message_enter_container(m_message, type, contents) <= 0) {
            return Fail("a message that cannot be read");
        }
        json items;
        if (!ReadSequence(depth + 1, &items)) return false;
        if (sd_bus_message_exit_container(m_message) < 0) return Fail("a message that cannot be read");
        if (type == SD_BUS_TYPE_VARIANT) {
            if (items.size() != 1) return Fail("an empty variant");
            *out = std::move(items[0]);
        } else {
            *out = std::move(items);
        }
        return true;
    }

    // a{kv}: an object, its keys as text.
    bool ReadDictionary(const char* contents, int depth, json* out) {
        if (sd_bus_message_enter_container(m_message, SD_BUS_TYPE_ARRAY, contents) <= 0) {
            return Fail("a message that cannot be read");
        }
        *out = json::object();
        const std::string entry(contents + 1, std::max<size_t>(std::strlen(contents), 2) - 2);
        for (;;) {
            const int more = sd_bus_message_enter_container(m_message, SD_BUS_TYPE_DICT_ENTRY,
                                                            entry.c_str());
            if (more < 0) return Fail("a message that cannot be read");
            if (more == 0) break;
            json pair;
            if (!ReadSequence(depth + 1, &pair)) return false;
            if (sd_bus_message_exit_container(m_message) < 0 || pair.size() != 2) {
                return Fail("a message that cannot be read");
            }
            const std::string key = pair[0].is_string() ? pair[0].get<std::string>() : pair[0].dump();
            (*out)[key] = std::move(pair[1]);
        }
        if (sd_bus_message_exit_container(m_message) < 0) return Fail("a message that cannot be read");
        return true;
    }

    bool ReadBasic(char type, json* out) {
        union {
            uint8_t u8;
            int i32;
            int16_t i16;
            uint16_t u16;
            uint32_t u32;
            int64_t i64;
            uint64_t u64;
            double d;
            const char* s;
        } v{};
        if (sd_bus_message_read_basic(m_message, type, &v) <= 0) {
            return Fail("a message that cannot be read");
        }
        switch (type) {
            case SD_BUS_TYPE_BYTE: *out = v.u8; break;
            case SD_BUS_TYPE_BOOLEAN: *out = v.i32 != 0; break;
            case SD_BUS_TYPE_INT16: *out = v.i16; break;
            case SD_BUS_TYPE_UINT16: *out = v.u16; break;
            case SD_BUS_TYPE_INT32: *out = v.i32; break;
            case SD_BUS_TYPE_UINT32: *out = v.u32; break;
            case SD_BUS_TYPE_INT64: *out = v.i64; break;
            case SD_BUS_TYPE_UINT64: *out = v.u64; break;
            case SD_BUS_TYPE_DOUBLE: *out = std::isfinite(v.d) ? json(v.d) : json(); break;
            case SD_BUS_TYPE_STRING:
            case SD_BUS_TYPE_OBJECT_PATH:
            case SD_BUS_TYPE_SIGNATURE: *out = CutText(v.s); break;
            default: *out = nullptr; break;  // a file descriptor: nothing to keep
        }
        return true;
    }

    // At most kBusJsonMaxString bytes, not ending inside a UTF-8 character (the bus checked
    // the rest).
    static std::string CutText(const char* text) {
        size_t length = strnlen(text, kBusJsonMaxString + 1);
        if (length > kBusJsonMaxString) {
            length = kBusJsonMaxString;
            while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) {
                --length;
            }
        }
        return std::string(text, length);
    }

    sd_bus_message* m_message;
    size_t m_values = 0;
    std::string m_why;
};

// ---------------------------------------------------------------------------------------------
// Reading the JSON

std::optional<double> Number(const json& value) {
    if (value.is_number()) return value.get<double>();
    if (value.is_boolean()) return value.get<bool>() ? 1.0 : 0.0;
    return std::nullopt;
}

int Coordinate(const json& value) {  // a position on the desktop
    const std::optional<double> n = Number(value);
    return n ? static_cast<int>(std::clamp(*n, -65535.0, 65535.0)) : 0;
}

int Extent(const json& value) {  // a size in pixels or millimetres; 0 when unusable
    const std::optional<double> n = Number(value);
    return n && *n >= 1 ? static_cast<int>(std::min(*n, 65535.0)) : 0;
}

bool Truth(const json& value) {
    const std::optional<double> n = Number(value);
    return n && *n != 0;
}

std::string Text(const json& value) {
    return value.is_string() ? value.get<std::string>() : std::string();
}

const json& Member(const json& object, const char* name) {
    static const json kNothing;
    if (!object.is_object()) return kNothing;
    const auto found = object.find(name);
    return found != object.end() ? *found : kNothing;
}

double UsableScale(const json& value) {
    const std::optional<double> n = Number(value);
    return n && *n >= 0.25 && *n <= 16 ? *n : 1.0;
}

std::optional<TMutterMonitor> MonitorSpec(const json& spec) {
    if (!spec.is_array() || spec.size() != 4) return std::nullopt;
    for (const json& part : spec) {
        if (!part.is_string()) return std::nullopt;
    }
    return TMutterMonitor{PrintableOutputName(spec[0].get_ref<const std::string&>().c_str()),
                          Text(spec[1]), Text(spec[2]), Text(spec[3])};
}

std::optional<json> CallWithoutStarting(sd_bus* bus, const char* service, const char* path,
                                        const char* interface, const char* method,
                                        std::string* why) {
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    std::optional<json> result;
    // A desktop that is not running is not started for a question.
    if (sd_bus_message_new_method_call(bus, &call, service, path, interface, method) < 0 ||
        sd_bus_message_set_auto_start(call, 0) < 0) {
        *why = "cannot ask " + std::string(service);
    } else if (sd_bus_call(bus, call, 2'000'000, &error, &reply) < 0) {
        *why = std::string(service) + " did not answer" +
               (error.name != nullptr && std::strcmp(error.name, SD_BUS_ERROR_SERVICE_UNKNOWN) == 0
                    ? std::string()
                    : " (" + EscapedText(error.message != nullptr ? error.message : "") + ")");
    } else {
        json arguments;
        CBusJsonReader reader(reply);
        if (reader.ReadSequence(0, &arguments)) {
            result = std::move(arguments);
        } else {
            *why = std::string(service) + " sent " + reader.Why();
        }
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
    return result;
}

std::optional<TXrandrDesktop> Layout(std::vector<TWlrHead> heads, const char* origin,
                                     std::string* why) {
    TXrandrDesktop layout = LayoutOfHeads(heads);
    if (layout.outputs.empty()) {
        *why = std::string(origin) + " reports no lit monitor";
        return std::nullopt;
    }
    layout.origin = origin;
    return layout;
}

std::optional<TXrandrDesktop> QueryMutterLayout(sd_bus* bus, std::string* why) {
    std::optional<TMutterState> state = QueryMutterState(bus, why);
    if (!state) return std::nullopt;
    return Layout(std::move(state->heads), "GNOME (Mutter)", why);
}

std::optional<TXrandrDesktop> QueryKscreenLayout(sd_bus* bus, std::string* why) {
    // Qt answers a call without an interface by the method's name.
    const std::optional<json> reply =
        CallWithoutStarting(bus, "org.kde.KScreen", "/backend", nullptr, "getConfig", why);
    if (!reply) return std::nullopt;
    std::optional<std::vector<TWlrHead>> heads = KscreenHeadsFromJson(*reply);
    if (!heads) {
        *why = "KScreen sent a configuration without outputs";
        return std::nullopt;
    }
    return Layout(std::move(*heads), "KDE (KScreen)", why);
}

}  // namespace

std::optional<json> BusArgumentsToJson(sd_bus_message* m, std::string* why) {
    CBusJsonReader reader(m);
    json arguments;
    if (!reader.ReadSequence(0, &arguments)) {
        *why = reader.Why();
        return std::nullopt;
    }
    return arguments;
}

std::optional<TMutterState> MutterStateFromJson(const json& reply) {
    // (u serial, a((ssss)a(siiddada{sv})a{sv}) monitors, a(iiduba(ssss)a{sv}) logical, a{sv})
    if (!reply.is_array() || reply.size() != 4 || !reply[1].is_array() || !reply[2].is_array()) {
        return std::nullopt;
    }
    struct TLit {
        TMutterMonitor id;
        int width = 0, height = 0;
        int widthMm = 0, heightMm = 0;
    };
    TMutterState state;
    std::vector<TLit> lit;
    for (const json& monitor : reply[1]) {
        if (!monitor.is_array() || monitor.size() != 3 || !monitor[1].is_array()) return std::nullopt;
        const std::optional<TMutterMonitor> id = MonitorSpec(monitor[0]);
        if (!id) return std::nullopt;
        if (state.monitors.size() < 64) state.monitors.push_back(*id);
        TLit entry{*id};
        for (const json& mode : monitor[1]) {
            if (!mode.is_array() || mode.size() != 7) return std::nullopt;
            if (Truth(Member(mode[6], "is-current"))) {
                entry.width = Extent(mode[1]);
                entry.height = Extent(mode[2]);
            }
        }
        entry.widthMm = Extent(Member(monitor[2], "width-mm"));
        entry.heightMm = Extent(Member(monitor[2], "height-mm"));
        if (lit.size() < 64) lit.push_back(std::move(entry));
    }
    // Layout mode 1 is logical: a monitor takes its mode divided by its scale.
    const bool logical = Number(Member(reply[3], "layout-mode")) == 1.0;
    for (const json& logicalMonitor : reply[2]) {
        if (!logicalMonitor.is_array() || logicalMonitor.size() != 7 ||
            !logicalMonitor[5].is_array()) {
            return std::nullopt;
        }
        const std::optional<double> transform = Number(logicalMonitor[3]);
        for (const json& spec : logicalMonitor[5]) {
            const std::optional<TMutterMonitor> id = MonitorSpec(spec);
            if (!id) return std::nullopt;
            const auto found = std::find_if(lit.begin(), lit.end(),
                                            [&](const TLit& l) { return l.id == *id; });
            if (found == lit.end() || state.heads.size() >= 64) continue;
            TWlrHead head;
            head.name = id->connector;
            head.enabled = true;
            head.x = Coordinate(logicalMonitor[0]);
            head.y = Coordinate(logicalMonitor[1]);
            head.modeWidth = found->width;
            head.modeHeight = found->height;
            head.transform = transform && *transform >= 0 && *transform <= 7
                                 ? static_cast<int>(*transform)
                                 : 0;
            head.scale = logical ? UsableScale(logicalMonitor[2]) : 1.0;
            head.widthMm = found->widthMm;
            head.heightMm = found->heightMm;
            head.primary = Truth(logicalMonitor[4]);
            state.heads.push_back(std::move(head));
        }
    }
    return state;
}

std::optional<std::vector<TWlrHead>> KscreenHeadsFromJson(const json& reply) {
    const json& config = reply.is_array() && reply.size() == 1 ? reply[0] : reply;
    const json& outputs = Member(config, "outputs");
    if (!outputs.is_array()) return std::nullopt;
    std::vector<TWlrHead> heads;
    for (const json& output : outputs) {
        if (!output.is_object() || heads.size() >= 64) continue;
        TWlrHead head;
        head.name = PrintableOutputName(Text(Member(output, "name")).c_str());
        head.enabled = Truth(Member(output, "enabled")) &&
                       (!Member(output, "connected").is_boolean() ||
                        Member(output, "connected").get<bool>());
        const json& pos = Member(output, "pos");
        head.x = Coordinate(Member(pos, "x"));
        head.y = Coordinate(Member(pos, "y"));
        const std::string current = Text(Member(output, "currentModeId"));
        const json& modes = Member(output, "modes");
        if (modes.is_array()) {
            for (const json& mode : modes) {
                if (Text(Member(mode, "id")) != current) continue;
                const json& size = Member(mode, "size");
                head.modeWidth = Extent(Member(size, "width"));
                head.modeHeight = Extent(Member(size, "height"));
            }
        }
        // Rotation flags: 1 none, 2 left, 4 inverted, 8 right; as wl_output transforms 0-3.
        switch (Extent(Member(output, "rotation"))) {
            case 2: head.transform = 1; break;
            case 4: head.transform = 2; break;
            case 8: head.transform = 3; break;
            default: head.transform = 0; break;
        }
        head.scale = UsableScale(Member(output, "scale"));
        const json& millimetres = Member(output, "sizeMM");
        head.widthMm = Extent(Member(millimetres, "width"));
        head.heightMm = Extent(Member(millimetres, "height"));
        // Plasma 5 marks the main monitor "primary"; Plasma 6 gives it priority 1.
        head.primary = Truth(Member(output, "primary")) ||
                       Number(Member(output, "priority")) == 1.0;
        heads.push_back(std::move(head));
    }
    return heads;
}

std::optional<TMutterState> QueryMutterState(sd_bus* bus, std::string* why) {
    const std::optional<json> reply =
        CallWithoutStarting(bus, "org.gnome.Mutter.DisplayConfig", "/org/gnome/Mutter/DisplayConfig",
                            "org.gnome.Mutter.DisplayConfig", "GetCurrentState", why);
    if (!reply) return std::nullopt;
    std::optional<TMutterState> state = MutterStateFromJson(*reply);
    if (!state) *why = "Mutter sent an answer that is not GetCurrentState's";
    return state;
}

std::optional<TXrandrDesktop> QueryDesktopServiceLayout(sd_bus* bus, std::string* why) {
    const char* desktop = std::getenv("XDG_CURRENT_DESKTOP");
    const bool kdeFirst = desktop != nullptr && std::strstr(desktop, "KDE") != nullptr;
    std::string whyNotFirst, whyNotSecond;
    std::optional<TXrandrDesktop> layout =
        kdeFirst ? QueryKscreenLayout(bus, &whyNotFirst) : QueryMutterLayout(bus, &whyNotFirst);
    if (!layout) {
        layout = kdeFirst ? QueryMutterLayout(bus, &whyNotSecond)
                          : QueryKscreenLayout(bus, &whyNotSecond);
    }
    if (!layout) *why = whyNotFirst + "; " + whyNotSecond;
    return layout;
}
