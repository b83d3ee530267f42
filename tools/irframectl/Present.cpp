#include "Present.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

#include "CCalibrateSystem.h"
#include "DevConfigJson.h"
#include "GestureRecorder.h"

namespace {

std::string Format(const char* format, auto... args) {
    char line[512];
    std::snprintf(line, sizeof line, format, args...);
    return line;
}

std::string BaseName(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool AllDigits(const std::string& s) {
    return !s.empty() && s.size() <= 9 &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string Address(uint32_t a) {
    return Format("%u.%u.%u.%u", a >> 24, (a >> 16) & 0xFF, (a >> 8) & 0xFF, a & 0xFF);
}

std::string Point(_HC_POINT16 p) {
    return Format("%d,%d", p.x, p.y);
}

std::string Rect(_HC_RECT32 r) {
    return Format("%d,%d %dx%d", r.x, r.y, r.width, r.height);
}

template <class Owner>
std::string TextOf(const Owner& owner) {
    // As the dump writes it: UTF-8 in quotes, or the code units where they are not well-formed.
    std::vector<uint16_t> units;
    for (int i = 0; i < DEV_CONFIG_TEXT_CHARS - 1 && owner.text[i] != 0; ++i) {
        units.push_back(static_cast<uint16_t>(static_cast<uint32_t>(owner.text[i]) & 0xFFFF));
    }
    std::string utf8;
    if (DevTextUnitsToUtf8(units, &utf8)) return nlohmann::json(utf8).dump(-1, ' ', false);
    return "units " + nlohmann::json(units).dump();
}

const char* StatusName(const TMonitoredContact& c) {
    if (c.retired) return "retired";
    switch (c.status) {
        case 0: return "down";
        case 1: return "moving";
        case 2: return "lifted";
        default: return "gone";
    }
}

}  // namespace

const TFrameEntry& PickFrame(const std::vector<TFrameEntry>& frames,
                                   const std::string& wanted) {
    if (frames.empty()) throw CToolError(kCtlNoFrame, "no touch frame found");
    if (wanted.empty()) {
        if (frames.size() == 1) return frames.front();
        throw CToolError(kCtlUsage, std::to_string(frames.size()) +
                                         " frames are attached: name one by number, node or "
                                         "serial (see irframectl list)");
    }
    std::vector<const TFrameEntry*> matches;
    for (const TFrameEntry& f : frames) {
        const bool byNumber = AllDigits(wanted) && std::stoi(wanted) == f.number;
        const bool byNode = f.node == wanted || (wanted.find('/') == std::string::npos &&
                                                 BaseName(f.node) == wanted);
        const bool bySerial = !f.serial.empty() && f.serial == wanted;
        if (byNumber || byNode || bySerial) matches.push_back(&f);
    }
    if (matches.empty()) throw CToolError(kCtlNoFrame, "no frame matches '" + wanted + "'");
    if (matches.size() > 1) {
        throw CToolError(kCtlUsage, "'" + wanted + "' matches " + std::to_string(matches.size()) +
                                         " frames: name one by number or node");
    }
    return *matches.front();
}

std::string FrameTable(const std::vector<TFrameEntry>& frames) {
    std::string out = Format("%-5s %-22s %-9s %-24s %-16s %-11s %s\n", "FRAME", "NODE", "USB ID",
                             "PRODUCT", "SERIAL", "STATE", "CONFIGURATION");
    for (const TFrameEntry& f : frames) {
        out += Format("%-5d %-22s %04X:%04X %-24s %-16s %-11s %s\n", f.number, f.node.c_str(),
                      f.vendorId, f.productId, f.product.empty() ? "-" : f.product.c_str(),
                      f.serial.empty() ? "-" : f.serial.c_str(),
                      f.state.empty() ? "-" : f.state.c_str(),
                      f.configSummary.empty() ? "-" : f.configSummary.c_str());
    }
    return out;
}

std::string FrameDetails(const TFrameEntry& f) {
    std::string out;
    out += Format("frame          %d\n", f.number);
    out += Format("node           %s\n", f.node.c_str());
    out += Format("usb id         %04X:%04X\n", f.vendorId, f.productId);
    out += Format("product        %s\n", f.product.empty() ? "-" : f.product.c_str());
    out += Format("serial         %s\n", f.serial.empty() ? "-" : f.serial.c_str());
    if (!f.state.empty()) out += Format("state          %s\n", f.state.c_str());
    if (f.rawWidth > 0) {
        out += Format("geometry       logical %dx%d, raw %dx%d\n", f.logicalWidth,
                      f.logicalHeight, f.rawWidth, f.rawHeight);
    }
    if (!f.configSummary.empty()) {
        out += Format("configuration  %s\n", f.configSummary.c_str());
    }
    return out;
}

std::string HexDump(const std::vector<uint8_t>& bytes) {
    std::string out;
    for (size_t row = 0; row < bytes.size(); row += 16) {
        out += Format("%06zx ", row);
        std::string text;
        for (size_t i = row; i < row + 16; ++i) {
            if (i < bytes.size()) {
                out += Format(" %02x", bytes[i]);
                text += bytes[i] >= 0x20 && bytes[i] < 0x7F ? static_cast<char>(bytes[i]) : '.';
            } else {
                out += "   ";
            }
        }
        out += "  " + text + "\n";
    }
    return out;
}

std::string ConfigTables(const _HARDWARE_DEV_CONFIG& c) {
    const uint32_t flags = c.flags;
    const auto onOff = [&](uint32_t bit) { return (flags & bit) != 0 ? "on" : "off"; };
    std::string out;
    out += Format("flags          0x%08X: areas %s, keep contacts outside areas %s, panels %s\n",
                  flags, onOff(DEV_FLAG_AREAS_ENABLED), onOff(DEV_FLAG_KEEP_OUTSIDE),
                  onOff(DEV_FLAG_PANELS_ENABLED));
    out += Format("network        %s ports %u, %u\n", Address(c.netAddress).c_str(), c.port,
                  c.port2);
    out += Format("options        %u %u %u %u   values %u %u\n", c.option0, c.option1, c.option2,
                  c.option3, c.value0, c.value1);
    out += Format("records        1: byte %u, values %u %u   2: %u   4: %u\n", c.rec1Byte,
                  c.rec1Value0, c.rec1Value1, c.rec2Value, c.rec4Byte);
    out += Format("text           %s, values %u %u\n", TextOf(c).c_str(), c.textValue1,
                  c.textValue2);

    const int areas = std::min<int>(c.areaCount, DEV_CONFIG_MAX_AREAS);
    out += Format("\nareas (%d)\n", areas);
    if (areas > 0) {
        out += Format("  %-3s %-4s %-5s %-4s %-5s %-22s %-22s %-16s %-13s %-13s %-13s %s\n", "#",
                      "id", "group", "rot", "mode", "output x,y wxh", "target x,y wxh",
                      "edges -x +x -y +y", "center", "axisH", "axisV", "network");
    }
    for (int i = 0; i < areas; ++i) {
        const _HCRECT_CONFIG_FILE& a = c.areas[i];
        const std::string edges = Format("%d %d %d %d", a.edgeAdjust[0], a.edgeAdjust[1],
                                         a.edgeAdjust[2], a.edgeAdjust[3]);
        const std::string net = Format("%s:%u/%u", Address(a.netAddress).c_str(), a.port, a.port2);
        out += Format("  %-3d %-4u %-5u %-4u %-5u %-22s %-22s %-16s %-13s %-13s %-13s %s\n", i,
                      a.id, a.group, a.rotation, a.mode, Rect(a.outputRect).c_str(),
                      Rect(a.targetRect).c_str(), edges.c_str(), Point(a.center).c_str(),
                      Point(a.axisH).c_str(), Point(a.axisV).c_str(), net.c_str());
    }

    const int panels = std::min<int>(c.panelCount, DEV_CONFIG_MAX_PANELS);
    out += Format("\npanels (%d)\n", panels);
    for (int i = 0; i < panels; ++i) {
        const _HBRECT_CONFIG_FILE& p = c.panels[i];
        out += Format("  panel %d: id %u, %u x %u keys, size %ux%u, center %s, axisH %s, axisV %s,"
                      " carried %u/%02x%02x%02x%02x\n",
                      i, p.id, p.rows, p.columns, p.width, p.height, Point(p.center).c_str(),
                      Point(p.axisH).c_str(), Point(p.axisV).c_str(), p.reserved1,
                      p.reserved4[0], p.reserved4[1], p.reserved4[2], p.reserved4[3]);
        const int keys = std::min(p.rows * p.columns, DEV_CONFIG_MAX_KEYS);
        if (keys > 0) out += Format("    %-3s %-20s %-5s %s\n", "#", "rect x,y wxh", "type", "key");
        for (int k = 0; k < keys; ++k) {
            const _HARDWARE_KEY_CONFIG& key = p.keys[k];
            const std::string rect = Format("%u,%u %ux%u", key.rect.x, key.rect.y, key.rect.width,
                                            key.rect.height);
            std::string what;
            if (key.type & KEY_TYPE_CODE) {
                what = Format("code %u %u %u", key.code0, key.code1, key.code2);
            } else if (key.type & (KEY_TYPE_TEXT2 | KEY_TYPE_TEXT3)) {
                what = "text " + TextOf(key) + Format(", values %u %u", key.keyValue1,
                                                      key.keyValue2);
                if (!(key.type & KEY_TYPE_TEXT2)) what += Format(" %u", key.keyValue3);
            } else {
                what = "empty";
            }
            out += Format("    %-3d %-20s 0x%02X  %s\n", k, rect.c_str(), key.type, what.c_str());
        }
    }

    const int extras = std::min<int>(c.extraCount, DEV_CONFIG_MAX_EXTRAS);
    out += Format("\nextras (%d)\n", extras);
    for (int i = 0; i < extras; ++i) {
        std::string hex;
        for (int b = 0; b < DEV_CONFIG_EXTRA_BYTES; ++b) hex += Format("%02x", c.extras[i][b]);
        out += Format("  %-3d %s\n", i, hex.c_str());
    }
    const int backup = c.backupLength < DEV_CONFIG_BACKUP_BYTES ? c.backupLength : 0;
    out += Format("\nbackup         %d bytes\n", backup);
    return out;
}

TContactPlace PlaceOf(const TMonitoredContact& contact, const _HARDWARE_DEV_CONFIG& config) {
    if (contact.cellGroup == CAL_BUTTON_GROUP && contact.cellIndex == CAL_CELL_OUTSIDE) {
        return {"outside", -1};
    }
    if (contact.cellGroup == CAL_BUTTON_GROUP) return {"panel", contact.cellIndex};
    if ((config.flags & DEV_FLAG_AREAS_ENABLED) != 0 && config.areaCount > 0) {
        return {"area", contact.cellIndex};
    }
    return {"default", -1};
}

std::string ContactLine(const TMonitoredContact& c, int64_t timeStamp, int64_t origin,
                        const _HARDWARE_DEV_CONFIG& config) {
    const double seconds =
        static_cast<double>(StampToMicros(timeStamp) - StampToMicros(origin)) / 1e6;
    const TContactPlace place = PlaceOf(c, config);
    std::string where = place.kind;
    if (place.index >= 0) where += " " + std::to_string(place.index);
    std::string line = Format("%10.6f  id %-3u %-8s raw %5u,%-5u  at %5d,%-5d", seconds, c.id,
                              StatusName(c), c.rawX, c.rawY, c.x, c.y);
    if (c.width != 0 || c.height != 0) line += Format("  size %dx%d", c.width, c.height);
    return line + "  " + where;
}

std::string ContactJson(int frame, const TMonitoredContact& c, int64_t timeStamp,
                        const _HARDWARE_DEV_CONFIG& config) {
    const TContactPlace place = PlaceOf(c, config);
    nlohmann::ordered_json j;
    j["frame"] = frame;
    j["timeStamp"] = timeStamp;
    j["id"] = c.id;
    j["status"] = c.status;
    j["retired"] = c.retired;
    j["x"] = c.x;
    j["y"] = c.y;
    j["width"] = c.width;
    j["height"] = c.height;
    j["rawX"] = c.rawX;
    j["rawY"] = c.rawY;
    j["cell"] = {c.cellGroup, c.cellIndex};
    j["place"] = place.kind;
    if (place.index >= 0) j["index"] = place.index;
    return j.dump();
}
