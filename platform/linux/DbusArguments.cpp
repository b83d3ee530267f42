#include "DbusArguments.h"

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "LittleEndian.h"

namespace {

using nlohmann::json;

TArgumentCheck Refuse(std::string error) {
    return {false, std::move(error)};
}

// Deepest nesting of arrays and objects, strings skipped; stops counting past `limit`.
int NestingDepth(std::string_view text, int limit) {
    int depth = 0, deepest = 0;
    bool inString = false, escaped = false;
    for (const char c : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            deepest = std::max(deepest, ++depth);
            if (deepest > limit) return deepest;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return deepest;
}

// An integer member within [low, high]; false with `error` naming the member.
bool TakeInteger(const json& object, const char* name, int64_t low, int64_t high, int64_t* out,
                 std::string* error) {
    const auto it = object.find(name);
    if (it == object.end()) {
        *error = std::string("$.") + name + ": missing";
        return false;
    }
    if (!it->is_number_integer()) {
        *error = std::string("$.") + name + ": an integer is expected";
        return false;
    }
    // Unsigned values above the signed range are out of every range used here.
    if (it->is_number_unsigned() && it->get<uint64_t>() > static_cast<uint64_t>(high)) {
        *error = std::string("$.") + name + ": " + it->dump() + " is outside " +
                 std::to_string(low) + ".." + std::to_string(high);
        return false;
    }
    const int64_t value = it->get<int64_t>();
    if (value < low || value > high) {
        *error = std::string("$.") + name + ": " + std::to_string(value) + " is outside " +
                 std::to_string(low) + ".." + std::to_string(high);
        return false;
    }
    *out = value;
    return true;
}

}  // namespace

TArgumentCheck CheckScanPattern(const uint8_t* data, size_t size, const TDbusArgumentLimits& limits) {
    if (size < 6) return Refuse("a scan pattern has at least 6 bytes, got " + std::to_string(size));
    if (size > limits.maxScanPatternBytes) {
        return Refuse("a scan pattern has at most " + std::to_string(limits.maxScanPatternBytes) +
                      " bytes, got " + std::to_string(size));
    }
    const uint32_t announced = ReadLeU32(data + 2);
    if (announced != size) {
        return Refuse("the scan pattern announces " + std::to_string(announced) +
                      " bytes in bytes 2..5 but has " + std::to_string(size));
    }
    return {};
}

TArgumentCheck CheckTouchSystemFile(size_t size, const TDbusArgumentLimits& limits) {
    if (size < limits.minTouchSystemBytes || size > limits.maxTouchSystemBytes) {
        return Refuse("a touch-system file has " + std::to_string(limits.minTouchSystemBytes) +
                      " to " + std::to_string(limits.maxTouchSystemBytes) + " bytes, got " +
                      std::to_string(size));
    }
    return {};
}

TArgumentCheck CheckJsonText(std::string_view json, const TDbusArgumentLimits& limits) {
    if (json.empty()) return Refuse("the JSON text is empty");
    if (json.size() > limits.maxJsonBytes) {
        return Refuse("the JSON text has more than " + std::to_string(limits.maxJsonBytes) +
                      " bytes");
    }
    return {};
}

TArgumentCheck ParseOverrideJson(std::string_view text, const TDbusArgumentLimits& limits,
                                 _HARDWARE_CONFIG_OVERRIDE* override) {
    TArgumentCheck check = CheckJsonText(text, limits);
    if (!check.ok) return check;
    // The override is flat; deeper texts are refused before the parser sees them.
    constexpr int kMaxDepth = 4;
    if (NestingDepth(text, kMaxDepth) > kMaxDepth) return Refuse("$: nested too deeply");
    const json document = json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (document.is_discarded()) return Refuse("$: not valid JSON");
    if (!document.is_object()) return Refuse("$: an object is expected");
    static const char* const kMembers[] = {"flags",  "option1", "option2",   "option3",
                                           "value0", "value1",  "edgeAdjust"};
    for (const auto& [key, value] : document.items()) {
        bool known = false;
        for (const char* member : kMembers) known = known || key == member;
        if (!known) return Refuse("$." + key + ": unknown member");
    }
    std::string error;
    int64_t flags = 0, option1 = 0, option2 = 0, option3 = 0, value0 = 0, value1 = 0;
    if (!TakeInteger(document, "flags", 0, UINT32_MAX, &flags, &error) ||
        !TakeInteger(document, "option1", 0, UINT8_MAX, &option1, &error) ||
        !TakeInteger(document, "option2", 0, UINT8_MAX, &option2, &error) ||
        !TakeInteger(document, "option3", 0, UINT8_MAX, &option3, &error) ||
        !TakeInteger(document, "value0", 0, UINT16_MAX, &value0, &error) ||
        !TakeInteger(document, "value1", 0, UINT16_MAX, &value1, &error)) {
        return Refuse(error);
    }
    const auto edges = document.find("edgeAdjust");
    if (edges == document.end()) return Refuse("$.edgeAdjust: missing");
    if (!edges->is_array() || edges->size() != 4) {
        return Refuse("$.edgeAdjust: an array of 4 integers is expected");
    }
    _HARDWARE_CONFIG_OVERRIDE parsed{};
    for (size_t i = 0; i < 4; ++i) {
        const json& e = (*edges)[i];
        const std::string path = "$.edgeAdjust[" + std::to_string(i) + "]";
        if (!e.is_number_integer()) return Refuse(path + ": an integer is expected");
        if (e.is_number_unsigned() ? e.get<uint64_t>() > 127
                                   : (e.get<int64_t>() < -128 || e.get<int64_t>() > 127)) {
            return Refuse(path + ": " + e.dump() + " is outside -128..127");
        }
        parsed.edgeAdjust[i] = static_cast<int8_t>(e.get<int64_t>());
    }
    parsed.flags = static_cast<uint32_t>(flags);
    parsed.option1 = static_cast<uint8_t>(option1);
    parsed.option2 = static_cast<uint8_t>(option2);
    parsed.option3 = static_cast<uint8_t>(option3);
    parsed.value0 = static_cast<uint16_t>(value0);
    parsed.value1 = static_cast<uint16_t>(value1);
    *override = parsed;
    return {};
}

std::string OverrideToJson(const _HARDWARE_CONFIG_OVERRIDE& o) {
    // Copied out first: the record is packed, and a reference to a member may be misaligned.
    const uint32_t flags = o.flags;
    const uint16_t value0 = o.value0, value1 = o.value1;
    const int option1 = o.option1, option2 = o.option2, option3 = o.option3;
    json out = {{"flags", flags},     {"option1", option1}, {"option2", option2},
                {"option3", option3}, {"value0", value0},   {"value1", value1}};
    out["edgeAdjust"] = json::array();
    for (const int8_t e : o.edgeAdjust) out["edgeAdjust"].push_back(e);
    return out.dump();
}

std::string BytesToJson(const std::vector<uint8_t>& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(bytes.size() * 2);
    for (const uint8_t b : bytes) {
        hex.push_back(kDigits[b >> 4]);
        hex.push_back(kDigits[b & 0x0F]);
    }
    return json{{"bytes", hex}}.dump();
}

int ReadByteArrayArgument(sd_bus_message* message, size_t maxBytes, std::vector<uint8_t>* out,
                          TArgumentCheck* check) {
    const void* data = nullptr;
    size_t size = 0;
    const int r = sd_bus_message_read_array(message, 'y', &data, &size);
    if (r < 0) return r;
    if (size > maxBytes) {
        *check = Refuse("the byte array has more than " + std::to_string(maxBytes) + " bytes");
        return 0;
    }
    const auto* bytes = static_cast<const uint8_t*>(data);
    out->assign(bytes, bytes + size);
    *check = {};
    return 0;
}

int ReadStringArgument(sd_bus_message* message, size_t maxBytes, std::string* out,
                       TArgumentCheck* check) {
    const char* text = nullptr;
    const int r = sd_bus_message_read_basic(message, 's', &text);
    if (r < 0) return r;
    if (r == 0 || text == nullptr) return -ENXIO;
    // The bus allows strings far longer than any argument here: measure up to the limit only.
    const size_t length = strnlen(text, maxBytes + 1);
    if (length > maxBytes) {
        *check = Refuse("the text has more than " + std::to_string(maxBytes) + " bytes");
        return 0;
    }
    out->assign(text, length);
    *check = {};
    return 0;
}

TArgumentCheck MakeWriteConfigRequest(std::string_view json, const TConfigJsonCodec& codec,
                                      const TDbusArgumentLimits& limits, TFrameRequest* request) {
    TArgumentCheck check = CheckJsonText(json, limits);
    if (!check.ok) return check;
    if (!codec.fromJson) return Refuse("this driver has no configuration JSON reader");
    auto config = std::make_shared<_HARDWARE_DEV_CONFIG>();
    std::string error;
    if (!codec.fromJson(json, config.get(), &error)) {
        return Refuse(error.empty() ? "the configuration JSON is refused" : error);
    }
    request->operation = TFrameOperation::WriteConfig;
    request->config = std::move(config);
    return {};
}

TArgumentCheck MakeWriteOverrideRequest(std::string_view json, const TConfigJsonCodec& codec,
                                        const TDbusArgumentLimits& limits, TFrameRequest* request) {
    _HARDWARE_CONFIG_OVERRIDE override{};
    TArgumentCheck check;
    if (codec.overrideFromJson) {
        check = CheckJsonText(json, limits);
        if (!check.ok) return check;
        std::string error;
        if (!codec.overrideFromJson(json, &override, &error)) {
            return Refuse(error.empty() ? "the override JSON is refused" : error);
        }
    } else {
        check = ParseOverrideJson(json, limits, &override);
        if (!check.ok) return check;
    }
    request->operation = TFrameOperation::WriteOverride;
    request->override = override;
    return {};
}

TArgumentCheck MakeScanPatternRequest(std::vector<uint8_t> data, const TDbusArgumentLimits& limits,
                                      TFrameRequest* request) {
    TArgumentCheck check = CheckScanPattern(data.data(), data.size(), limits);
    if (!check.ok) return check;
    request->operation = TFrameOperation::WriteScanPattern;
    request->bytes = std::move(data);
    return {};
}

TArgumentCheck MakeTouchSystemRequest(std::vector<uint8_t> data, const TDbusArgumentLimits& limits,
                                      TFrameRequest* request) {
    TArgumentCheck check = CheckTouchSystemFile(data.size(), limits);
    if (!check.ok) return check;
    request->operation = TFrameOperation::WriteTouchSystemFile;
    request->bytes = std::move(data);
    return {};
}

int AppendContacts(sd_bus_message* message, const TContactFrame& frame) {
    int r = sd_bus_message_append(message, "x", static_cast<int64_t>(frame.timeStamp));
    if (r < 0) return r;
    r = sd_bus_message_open_container(message, 'a', "(yybiiiiqqyy)");
    if (r < 0) return r;
    for (const TContact& c : frame.contacts) {
        r = sd_bus_message_append(message, "(yybiiiiqqyy)", c.id, c.status, c.retired ? 1 : 0, c.x,
                                  c.y, c.width, c.height, c.rawX, c.rawY, c.cell[0], c.cell[1]);
        if (r < 0) return r;
    }
    return sd_bus_message_close_container(message);
}
