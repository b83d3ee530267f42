#include "DevConfigJson.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "QuotedText.h"

// The records are byte-packed: their fields are always copied into locals before they meet a
// reference (a JSON constructor, a comparison helper), never bound directly.

namespace {

using Json = nlohmann::ordered_json;

// A refused document; carries the whole message.
struct TJsonFault {
    std::string message;
};

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
    throw TJsonFault{(path.empty() ? std::string("/") : path) + ": " + what};
}

// One step of a JSON pointer: "~" and "/" escaped.
std::string PointerStep(std::string_view name) {
    std::string out;
    for (const char c : name) {
        if (c == '~') {
            out += "~0";
        } else if (c == '/') {
            out += "~1";
        } else {
            out += c;
        }
    }
    return out;
}

std::string Join(const std::string& path, std::string_view name) {
    return path + "/" + PointerStep(name);
}

std::string Join(const std::string& path, size_t index) {
    return path + "/" + std::to_string(index);
}

std::string TypeName(const Json& value) {
    switch (value.type()) {
        case Json::value_t::object: return "an object";
        case Json::value_t::array: return "an array";
        case Json::value_t::string: return "a string";
        case Json::value_t::boolean: return "a boolean";
        case Json::value_t::number_float: return "a number with a fraction or an exponent";
        case Json::value_t::number_integer:
        case Json::value_t::number_unsigned: return "an integer";
        case Json::value_t::null: return "null";
        default: return "a value of another kind";
    }
}

// ---------------------------------------------------------------------------------------------
// Texts: 16-bit code units in the block, UTF-8 in JSON.

struct TUnits {
    std::vector<uint16_t> units;  // before the first zero, at most 31
};

template <class Owner>
TUnits LoadUnits(const Owner& owner) {
    TUnits t;
    for (int i = 0; i < DEV_CONFIG_TEXT_CHARS - 1; ++i) {
        const wchar_t c = owner.text[i];
        if (c == 0) break;
        t.units.push_back(static_cast<uint16_t>(static_cast<uint32_t>(c) & 0xFFFF));
    }
    return t;
}

template <class Owner>
void StoreUnits(Owner& owner, const std::vector<uint16_t>& units) {
    for (int i = 0; i < DEV_CONFIG_TEXT_CHARS; ++i) {
        owner.text[i] = i < static_cast<int>(units.size())
                            ? static_cast<wchar_t>(units[static_cast<size_t>(i)])
                            : 0;
    }
}

void AppendUtf8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// The units as UTF-8; false when they are not well-formed UTF-16 (a lone surrogate).
bool UnitsToUtf8(const std::vector<uint16_t>& units, std::string* out) {
    out->clear();
    for (size_t i = 0; i < units.size(); ++i) {
        const uint32_t u = units[i];
        if (u >= 0xD800 && u <= 0xDBFF) {
            if (i + 1 >= units.size() || units[i + 1] < 0xDC00 || units[i + 1] > 0xDFFF) {
                return false;
            }
            AppendUtf8(*out, 0x10000 + ((u - 0xD800) << 10) + (units[i + 1] - 0xDC00u));
            ++i;
        } else if (u >= 0xDC00 && u <= 0xDFFF) {
            return false;
        } else {
            AppendUtf8(*out, u);
        }
    }
    return true;
}

// UTF-8 (already checked by the parser) to UTF-16 units.
std::vector<uint16_t> Utf8ToUnits(const std::string& text, const std::string& path) {
    std::vector<uint16_t> units;
    for (size_t i = 0; i < text.size();) {
        const auto b = static_cast<uint8_t>(text[i]);
        const int extra = b < 0x80 ? 0 : b >= 0xF0 ? 3 : b >= 0xE0 ? 2 : b >= 0xC0 ? 1 : -1;
        if (extra < 0 || i + static_cast<size_t>(extra) >= text.size()) {
            Fail(path, "not valid UTF-8");
        }
        uint32_t cp = extra == 0 ? b : b & (0x3F >> extra);
        for (int k = 1; k <= extra; ++k) {
            const auto c = static_cast<uint8_t>(text[i + static_cast<size_t>(k)]);
            if ((c & 0xC0) != 0x80) Fail(path, "not valid UTF-8");
            cp = (cp << 6) | (c & 0x3F);
        }
        i += static_cast<size_t>(extra) + 1;
        if (cp == 0) Fail(path, "a text cannot hold the character U+0000");
        if (cp >= 0x10000) {
            cp -= 0x10000;
            units.push_back(static_cast<uint16_t>(0xD800 + (cp >> 10)));
            units.push_back(static_cast<uint16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            units.push_back(static_cast<uint16_t>(cp));
        }
    }
    return units;
}

// ---------------------------------------------------------------------------------------------
// Small value forms

std::string HexBytes(const uint8_t* bytes, size_t n) {
    static const char* digits = "0123456789abcdef";
    std::string out;
    out.reserve(2 * n);
    for (size_t i = 0; i < n; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 0xF];
    }
    return out;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string FlagsText(uint32_t flags) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08" PRIX32, flags);
    return text;
}

std::string AddressText(uint32_t address) {
    char text[20];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", address >> 24, (address >> 16) & 0xFF,
                  (address >> 8) & 0xFF, address & 0xFF);
    return text;
}

template <class T>
Json Num(T value) {
    return Json(value);
}

Json Point(_HC_POINT16 p) {
    return Json{{"x", Num(p.x)}, {"y", Num(p.y)}};
}

Json Rect32(_HC_RECT32 r) {
    return Json{{"x", Num(r.x)}, {"y", Num(r.y)}, {"width", Num(r.width)},
                {"height", Num(r.height)}};
}

Json Rect16(_HK_RECT16 r) {
    return Json{{"x", Num(r.x)}, {"y", Num(r.y)}, {"width", Num(r.width)},
                {"height", Num(r.height)}};
}

Json Edges(const int8_t (&e)[4]) {
    return Json{{"minusX", Num(e[EDGE_MINUS_X])}, {"plusX", Num(e[EDGE_PLUS_X])},
                {"minusY", Num(e[EDGE_MINUS_Y])}, {"plusY", Num(e[EDGE_PLUS_Y])}};
}

enum class TKeyKind { Code, Text2, Text3, None };

TKeyKind KindOf(uint8_t type) {
    if (type & KEY_TYPE_CODE) return TKeyKind::Code;
    if (type & KEY_TYPE_TEXT2) return TKeyKind::Text2;
    if (type & KEY_TYPE_TEXT3) return TKeyKind::Text3;
    return TKeyKind::None;
}

// "text" when the units are well-formed UTF-16, else "textUnits" with the units as numbers.
template <class Owner>
void PutText(Json& object, const Owner& owner) {
    const TUnits t = LoadUnits(owner);
    std::string utf8;
    if (UnitsToUtf8(t.units, &utf8)) {
        object["text"] = utf8;
    } else {
        object["textUnits"] = t.units;
    }
}

// ---------------------------------------------------------------------------------------------
// Writing

Json AreaJson(const _HCRECT_CONFIG_FILE& a) {
    Json j;
    j["netAddress"] = AddressText(a.netAddress);
    j["port"] = Num(a.port);
    j["port2"] = Num(a.port2);
    j["mode"] = Num(a.mode);
    j["id"] = Num(a.id);
    j["group"] = Num(a.group);
    j["rotation"] = Num(a.rotation);
    j["outputRect"] = Rect32(a.outputRect);
    j["targetRect"] = Rect32(a.targetRect);
    const int8_t edges[4] = {a.edgeAdjust[0], a.edgeAdjust[1], a.edgeAdjust[2], a.edgeAdjust[3]};
    j["edgeAdjust"] = Edges(edges);
    j["center"] = Point(a.center);
    j["axisH"] = Point(a.axisH);
    j["axisV"] = Point(a.axisV);
    return j;
}

Json KeyJson(const _HARDWARE_KEY_CONFIG& k) {
    Json j;
    j["rect"] = Rect16(k.rect);
    j["type"] = Num(k.type);
    switch (KindOf(k.type)) {
        case TKeyKind::Code:
            j["code0"] = Num(k.code0);
            j["code1"] = Num(k.code1);
            j["code2"] = Num(k.code2);
            break;
        case TKeyKind::Text2:
        case TKeyKind::Text3:
            PutText(j, k);
            j["keyValue1"] = Num(k.keyValue1);
            j["keyValue2"] = Num(k.keyValue2);
            if (KindOf(k.type) == TKeyKind::Text3) j["keyValue3"] = Num(k.keyValue3);
            break;
        case TKeyKind::None:
            break;
    }
    return j;
}

Json PanelJson(const _HBRECT_CONFIG_FILE& p) {
    Json j;
    j["id"] = Num(p.id);
    j["reserved1"] = Num(p.reserved1);
    j["rows"] = Num(p.rows);
    j["columns"] = Num(p.columns);
    const uint8_t reserved4[4] = {p.reserved4[0], p.reserved4[1], p.reserved4[2], p.reserved4[3]};
    j["reserved4"] = HexBytes(reserved4, 4);
    j["width"] = Num(p.width);
    j["height"] = Num(p.height);
    j["center"] = Point(p.center);
    j["axisH"] = Point(p.axisH);
    j["axisV"] = Point(p.axisV);
    Json keys = Json::array();
    const int inUse = std::min(p.rows * p.columns, DEV_CONFIG_MAX_KEYS);
    for (int k = 0; k < inUse; ++k) keys.push_back(KeyJson(p.keys[k]));
    j["keys"] = std::move(keys);
    return j;
}

Json ConfigJson(const _HARDWARE_DEV_CONFIG& c) {
    Json j;
    j["format"] = kDevConfigJsonFormat;
    j["version"] = kDevConfigJsonVersion;
    j["flags"] = FlagsText(c.flags);
    j["option0"] = Num(c.option0);
    j["option1"] = Num(c.option1);
    j["option2"] = Num(c.option2);
    j["option3"] = Num(c.option3);
    j["value0"] = Num(c.value0);
    j["value1"] = Num(c.value1);
    j["netAddress"] = AddressText(c.netAddress);
    j["port"] = Num(c.port);
    j["port2"] = Num(c.port2);
    j["rec1Byte"] = Num(c.rec1Byte);
    j["rec1Value0"] = Num(c.rec1Value0);
    j["rec1Value1"] = Num(c.rec1Value1);
    j["rec2Value"] = Num(c.rec2Value);
    j["rec4Byte"] = Num(c.rec4Byte);
    PutText(j, c);
    j["textValue1"] = Num(c.textValue1);
    j["textValue2"] = Num(c.textValue2);

    Json areas = Json::array();
    for (int a = 0; a < std::min<int>(c.areaCount, DEV_CONFIG_MAX_AREAS); ++a) {
        areas.push_back(AreaJson(c.areas[a]));
    }
    j["areas"] = std::move(areas);
    Json extras = Json::array();
    for (int x = 0; x < std::min<int>(c.extraCount, DEV_CONFIG_MAX_EXTRAS); ++x) {
        extras.push_back(HexBytes(c.extras[x], DEV_CONFIG_EXTRA_BYTES));
    }
    j["extras"] = std::move(extras);
    Json panels = Json::array();
    for (int p = 0; p < std::min<int>(c.panelCount, DEV_CONFIG_MAX_PANELS); ++p) {
        panels.push_back(PanelJson(c.panels[p]));
    }
    j["panels"] = std::move(panels);
    // Only a backup of 1 to 2047 bytes is carried by a block.
    const int backup = c.backupLength < DEV_CONFIG_BACKUP_BYTES ? c.backupLength : 0;
    j["backup"] = HexBytes(c.backup, static_cast<size_t>(backup));
    return j;
}

Json OverrideJson(const _HARDWARE_CONFIG_OVERRIDE& o) {
    Json j;
    j["format"] = kDevConfigOverrideJsonFormat;
    j["version"] = kDevConfigJsonVersion;
    j["flags"] = FlagsText(o.flags);
    j["option1"] = Num(o.option1);
    j["option2"] = Num(o.option2);
    j["option3"] = Num(o.option3);
    j["value0"] = Num(o.value0);
    j["value1"] = Num(o.value1);
    const int8_t edges[4] = {o.edgeAdjust[0], o.edgeAdjust[1], o.edgeAdjust[2], o.edgeAdjust[3]};
    j["edgeAdjust"] = Edges(edges);
    return j;
}

// Two-space indentation, with containers of plain values (a rectangle, a point) on one line when
// that line stays short, so that a dump reads like a table.
constexpr size_t kOneLineLimit = 100;

std::string Inline(const Json& j) {
    if (!j.is_structured()) return j.dump(-1, ' ', false);
    std::string out(1, j.is_object() ? '{' : '[');
    bool first = true;
    for (auto it = j.begin(); it != j.end(); ++it) {
        if (!first) out += ", ";
        first = false;
        if (j.is_object()) out += Json(it.key()).dump(-1, ' ', false) + ": ";
        out += it.value().dump(-1, ' ', false);
    }
    return out + (j.is_object() ? '}' : ']');
}

void Pretty(const Json& j, size_t indent, std::string& out) {
    const bool flat = std::none_of(j.begin(), j.end(), [](const Json& v) {
        return v.is_structured();
    });
    if (!j.is_structured() || j.empty() ||
        (flat && indent + Inline(j).size() <= kOneLineLimit)) {
        out += Inline(j);
        return;
    }
    const std::string pad(indent + 2, ' ');
    out += j.is_object() ? "{\n" : "[\n";
    bool first = true;
    for (auto it = j.begin(); it != j.end(); ++it) {
        if (!first) out += ",\n";
        first = false;
        out += pad;
        if (j.is_object()) out += Json(it.key()).dump(-1, ' ', false) + ": ";
        Pretty(it.value(), indent + 2, out);
    }
    out += "\n" + std::string(indent, ' ') + (j.is_object() ? '}' : ']');
}

std::string Dump(const Json& j) {
    std::string out;
    Pretty(j, 0, out);
    return out + "\n";
}

// ---------------------------------------------------------------------------------------------
// Parsing: nlohmann's SAX interface builds the tree, refusing duplicate members and deep nesting
// on the way (the tree type itself would keep the last duplicate silently).

class CStrictBuilder final : public nlohmann::json_sax<Json> {
public:
    Json root;
    std::string fault;

    bool null() override { return Put(Json(nullptr)); }
    bool boolean(bool v) override { return Put(Json(v)); }
    bool number_integer(number_integer_t v) override { return Put(Json(v)); }
    bool number_unsigned(number_unsigned_t v) override { return Put(Json(v)); }
    bool number_float(number_float_t v, const string_t& text) override {
        // Digits alone that do not fit 64 bits: an integer out of every member's range, not a
        // fraction.
        if (text.find_first_of(".eE") == string_t::npos) {
            const std::string at = PathOfNext();
            return Refuse((at.empty() ? std::string("/") : at) + ": the integer " +
                          QuotedText(text) + " is out of range");
        }
        return Put(Json(v));
    }
    bool string(string_t& v) override { return Put(Json(std::move(v))); }
    bool binary(binary_t&) override { return Refuse("binary values are not JSON"); }

    bool start_object(std::size_t) override { return Open(Json::object()); }
    bool start_array(std::size_t) override { return Open(Json::array()); }
    bool end_object() override { return Close(); }
    bool end_array() override { return Close(); }

    bool key(string_t& name) override {
        TLevel& level = m_stack.back();
        if (!level.names.insert(name).second) {
            return Refuse(Join(PathOfTop(), name) + ": duplicate member");
        }
        level.key = name;
        return true;
    }

    bool parse_error(std::size_t, const std::string&,
                     const nlohmann::detail::exception& e) override {
        std::string what = e.what();
        // "[json.exception.parse_error.101] parse error at line 1, column 5: ..."
        const size_t bracket = what.find("] ");
        if (what.rfind("[json.exception.", 0) == 0 && bracket != std::string::npos) {
            what = what.substr(bracket + 2);
        }
        // "...; last read: 'TOKEN'": the token is the document's own text, escaped and cut.
        constexpr std::string_view kLastRead = "last read: '";
        const size_t token = what.find(kLastRead);
        if (token != std::string::npos && what.size() > token + kLastRead.size() &&
            what.back() == '\'') {
            const size_t from = token + kLastRead.size();
            what = what.substr(0, token) + "last read: " +
                   QuotedText(std::string_view(what).substr(from, what.size() - 1 - from));
        }
        fault = EscapedText(what, 2 * kQuotedTextMaxChars);
        return false;
    }

private:
    struct TLevel {
        Json* value;
        std::set<std::string> names;  // objects: members seen
        std::string key;              // objects: the member being read
    };

    bool Refuse(std::string message) {
        fault = std::move(message);
        return false;
    }

    // Where the value about to be inserted goes.
    std::string PathOfNext() const {
        if (m_stack.empty()) return "";
        const TLevel& top = m_stack.back();
        return top.value->is_object() ? Join(PathOfTop(), top.key)
                                      : Join(PathOfTop(), top.value->size());
    }

    std::string PathOfTop() const {
        std::string path;
        for (size_t i = 0; i + 1 < m_stack.size(); ++i) {
            const TLevel& level = m_stack[i];
            if (level.value->is_object()) {
                path = Join(path, level.key);
            } else {
                path = Join(path, level.value->size() - 1);
            }
        }
        return path;
    }

    Json* Insert(Json&& value) {
        if (m_stack.empty()) {
            root = std::move(value);
            return &root;
        }
        Json& parent = *m_stack.back().value;
        if (parent.is_object()) {
            Json& slot = parent[m_stack.back().key];
            slot = std::move(value);
            return &slot;
        }
        parent.push_back(std::move(value));
        return &parent.back();
    }

    bool Put(Json&& value) {
        Insert(std::move(value));
        return true;
    }

    bool Open(Json&& container) {
        if (static_cast<int>(m_stack.size()) >= kDevConfigJsonMaxDepth) {
            const std::string top = PathOfTop();
            return Refuse((top.empty() ? std::string("/") : top) + ": nested deeper than " +
                          std::to_string(kDevConfigJsonMaxDepth) + " levels");
        }
        Json* value = Insert(std::move(container));
        m_stack.push_back(TLevel{value, {}, {}});
        return true;
    }

    bool Close() {
        m_stack.pop_back();
        return true;
    }

    std::vector<TLevel> m_stack;
};

Json ParseStrict(std::string_view text) {
    if (text.size() > kDevConfigJsonMaxBytes) {
        throw TJsonFault{"the document has " + std::to_string(text.size()) +
                         " bytes, at most " + std::to_string(kDevConfigJsonMaxBytes)};
    }
    // The parser would take a NUL as the end of the text and ignore what follows.
    const size_t nul = text.find('\0');
    if (nul != std::string_view::npos) {
        throw TJsonFault{"a NUL byte at byte " + std::to_string(nul + 1) +
                         ": JSON text has none"};
    }
    CStrictBuilder builder;
    const bool ok = Json::sax_parse(text, &builder, nlohmann::detail::input_format_t::json, true,
                                    false);
    if (!ok) {
        throw TJsonFault{builder.fault.empty() ? "not a JSON document" : builder.fault};
    }
    return std::move(builder.root);
}

// ---------------------------------------------------------------------------------------------
// Reading

// One JSON object being read: refuses members not named, and reads named ones by type.
class CObjectReader {
public:
    CObjectReader(const Json& value, std::string path, std::initializer_list<const char*> names,
                  std::initializer_list<const char*> optional = {})
        : m_value(value), m_path(std::move(path)) {
        if (!value.is_object()) Fail(m_path, "expected an object, found " + TypeName(value));
        for (auto it = value.begin(); it != value.end(); ++it) {
            const auto known = [&](std::initializer_list<const char*> list) {
                return std::any_of(list.begin(), list.end(),
                                   [&](const char* n) { return it.key() == n; });
            };
            if (!known(names) && !known(optional)) Fail(Join(m_path, it.key()), "unknown member");
        }
        for (const char* n : names) {
            if (!value.contains(n)) Fail(m_path, std::string("missing member \"") + n + "\"");
        }
    }

    const std::string& Path() const { return m_path; }
    std::string Path(std::string_view name) const { return Join(m_path, name); }
    bool Has(const char* name) const { return m_value.contains(name); }
    const Json& At(const char* name) const { return m_value.at(name); }

    template <class T>
    T Int(const char* name) const {
        return IntValue<T>(At(name), Path(name));
    }

    template <class T>
    static T IntValue(const Json& v, const std::string& path) {
        constexpr auto lo = static_cast<int64_t>(std::numeric_limits<T>::min());
        constexpr auto hi = static_cast<uint64_t>(std::numeric_limits<T>::max());
        const std::string range = std::to_string(lo) + ".." + std::to_string(hi);
        if (v.is_number_unsigned()) {
            const auto u = v.get<uint64_t>();
            if (u > hi) Fail(path, std::to_string(u) + " is out of range " + range);
            return static_cast<T>(u);
        }
        if (v.is_number_integer()) {
            const auto s = v.get<int64_t>();
            if (s < lo || (s >= 0 && static_cast<uint64_t>(s) > hi)) {
                Fail(path, std::to_string(s) + " is out of range " + range);
            }
            return static_cast<T>(s);
        }
        Fail(path, "expected an integer, found " + TypeName(v));
    }

    const std::string& String(const char* name) const {
        const Json& v = At(name);
        if (!v.is_string()) Fail(Path(name), "expected a string, found " + TypeName(v));
        return v.get_ref<const std::string&>();
    }

    const Json& Array(const char* name) const {
        const Json& v = At(name);
        if (!v.is_array()) Fail(Path(name), "expected an array, found " + TypeName(v));
        return v;
    }

    // Exactly `count` bytes as hexadecimal digits.
    void Hex(const char* name, uint8_t* out, size_t count) const {
        HexValue(String(name), Path(name), out, count);
    }

    static void HexValue(const std::string& text, const std::string& path, uint8_t* out,
                         size_t count) {
        if (text.size() != 2 * count) {
            Fail(path, "expected " + std::to_string(2 * count) + " hexadecimal digits (" +
                           std::to_string(count) + " bytes), found " +
                           std::to_string(text.size()) + " characters");
        }
        for (size_t i = 0; i < count; ++i) {
            const int hi = HexDigit(text[2 * i]);
            const int lo = HexDigit(text[2 * i + 1]);
            if (hi < 0 || lo < 0) Fail(path, "\"" + text + "\" is not hexadecimal");
            out[i] = static_cast<uint8_t>(hi << 4 | lo);
        }
    }

    uint32_t Flags(const char* name) const {
        const std::string& text = String(name);
        const std::string path = Path(name);
        const bool prefixed = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
        if (!prefixed || text.size() > 10) {
            Fail(path, "\"" + text + "\" is not a 32-bit hexadecimal value like \"0x00101F05\"");
        }
        uint32_t value = 0;
        for (size_t i = 2; i < text.size(); ++i) {
            const int d = HexDigit(text[i]);
            if (d < 0) {
                Fail(path, "\"" + text + "\" is not a 32-bit hexadecimal value like \"0x00101F05\"");
            }
            value = value << 4 | static_cast<uint32_t>(d);
        }
        return value;
    }

    uint32_t Address(const char* name) const {
        const std::string& text = String(name);
        uint32_t value = 0;
        int parts = 0;
        size_t i = 0;
        bool ok = true;
        while (ok && parts < 4) {
            size_t digits = 0;
            unsigned part = 0;
            while (i < text.size() && text[i] >= '0' && text[i] <= '9' && digits < 3) {
                part = part * 10 + static_cast<unsigned>(text[i] - '0');
                ++i;
                ++digits;
            }
            ok = digits > 0 && part <= 255;
            value = value << 8 | part;
            ++parts;
            if (parts < 4) ok = ok && i < text.size() && text[i++] == '.';
        }
        if (!ok || i != text.size()) {
            Fail(Path(name), "\"" + text + "\" is not an IPv4 address like \"127.0.0.1\"");
        }
        return value;
    }

private:
    const Json& m_value;
    std::string m_path;
};

// "text", or "textUnits" for a text that is not well-formed UTF-16: exactly one of them.
template <class Owner>
void ReadText(const CObjectReader& r, Owner& owner) {
    const bool hasText = r.Has("text");
    const bool hasUnits = r.Has("textUnits");
    if (hasText == hasUnits) {
        Fail(r.Path(), hasText ? "both \"text\" and \"textUnits\"; give one"
                               : "missing member \"text\"");
    }
    std::vector<uint16_t> units;
    std::string path;
    if (hasText) {
        path = r.Path("text");
        units = Utf8ToUnits(r.String("text"), path);
    } else {
        path = r.Path("textUnits");
        const Json& list = r.Array("textUnits");
        if (list.size() > static_cast<size_t>(DEV_CONFIG_TEXT_CHARS - 1)) {
            Fail(path, std::to_string(list.size()) + " code units, at most " +
                           std::to_string(DEV_CONFIG_TEXT_CHARS - 1));
        }
        for (size_t i = 0; i < list.size(); ++i) {
            const auto u = CObjectReader::IntValue<uint16_t>(list[i], Join(path, i));
            if (u == 0) Fail(Join(path, i), "a text cannot hold the code unit 0");
            units.push_back(u);
        }
    }
    if (units.size() > static_cast<size_t>(DEV_CONFIG_TEXT_CHARS - 1)) {
        Fail(path, "the text takes " + std::to_string(units.size()) +
                       " UTF-16 code units, at most " +
                       std::to_string(DEV_CONFIG_TEXT_CHARS - 1));
    }
    StoreUnits(owner, units);
}

_HC_POINT16 ReadPoint(const CObjectReader& parent, const char* name) {
    CObjectReader r(parent.At(name), parent.Path(name), {"x", "y"});
    return {r.Int<int16_t>("x"), r.Int<int16_t>("y")};
}

_HC_RECT32 ReadRect32(const CObjectReader& parent, const char* name) {
    CObjectReader r(parent.At(name), parent.Path(name), {"x", "y", "width", "height"});
    return {r.Int<int32_t>("x"), r.Int<int32_t>("y"), r.Int<int32_t>("width"),
            r.Int<int32_t>("height")};
}

_HK_RECT16 ReadRect16(const CObjectReader& parent, const char* name) {
    CObjectReader r(parent.At(name), parent.Path(name), {"x", "y", "width", "height"});
    return {r.Int<uint16_t>("x"), r.Int<uint16_t>("y"), r.Int<uint16_t>("width"),
            r.Int<uint16_t>("height")};
}

void ReadEdges(const CObjectReader& parent, const char* name, int8_t* out) {
    CObjectReader r(parent.At(name), parent.Path(name), {"minusX", "plusX", "minusY", "plusY"});
    out[EDGE_MINUS_X] = r.Int<int8_t>("minusX");
    out[EDGE_PLUS_X] = r.Int<int8_t>("plusX");
    out[EDGE_MINUS_Y] = r.Int<int8_t>("minusY");
    out[EDGE_PLUS_Y] = r.Int<int8_t>("plusY");
}

void ReadHead(const CObjectReader& r, const char* format) {
    const std::string& f = r.String("format");
    if (f != format) {
        Fail(r.Path("format"), "\"" + f + "\" is not \"" + format + "\"");
    }
    const int version = r.Int<int>("version");
    if (version != kDevConfigJsonVersion) {
        Fail(r.Path("version"), "version " + std::to_string(version) + " is not supported (" +
                                    std::to_string(kDevConfigJsonVersion) + " is)");
    }
}

void ReadArea(const Json& value, const std::string& path, _HCRECT_CONFIG_FILE& a) {
    CObjectReader r(value, path,
                    {"netAddress", "port", "port2", "mode", "id", "group", "rotation", "outputRect",
                     "targetRect", "edgeAdjust", "center", "axisH", "axisV"});
    a.netAddress = r.Address("netAddress");
    a.port = r.Int<uint16_t>("port");
    a.port2 = r.Int<uint16_t>("port2");
    a.mode = r.Int<uint8_t>("mode");
    a.id = r.Int<uint8_t>("id");
    a.group = r.Int<uint8_t>("group");
    a.rotation = r.Int<uint8_t>("rotation");
    a.outputRect = ReadRect32(r, "outputRect");
    a.targetRect = ReadRect32(r, "targetRect");
    int8_t edges[4];
    ReadEdges(r, "edgeAdjust", edges);
    for (int i = 0; i < 4; ++i) a.edgeAdjust[i] = edges[i];
    a.center = ReadPoint(r, "center");
    a.axisH = ReadPoint(r, "axisH");
    a.axisV = ReadPoint(r, "axisV");
}

std::string TypeText(uint8_t type) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", type);
    return text;
}

void ReadKey(const Json& value, const std::string& path, _HARDWARE_KEY_CONFIG& k) {
    // The type decides which members belong to the key; read it first.
    if (value.is_object() && value.contains("type")) {
        k.type = CObjectReader::IntValue<uint8_t>(value.at("type"), Join(path, "type"));
    } else if (!value.is_object()) {
        Fail(path, "expected an object, found " + TypeName(value));
    } else {
        Fail(path, "missing member \"type\"");
    }
    const TKeyKind kind = KindOf(k.type);
    static const char* const kKindMembers[] = {"code0",     "code1",     "code2",    "text",
                                               "textUnits", "keyValue1", "keyValue2", "keyValue3"};
    const auto belongs = [&](std::string_view m) {
        if (m.rfind("code", 0) == 0) return kind == TKeyKind::Code;
        if (m == "keyValue3") return kind == TKeyKind::Text3;
        return kind == TKeyKind::Text2 || kind == TKeyKind::Text3;
    };
    for (const char* m : kKindMembers) {
        if (value.contains(m) && !belongs(m)) {
            Fail(Join(path, m), "not used by a key of type " + TypeText(k.type));
        }
    }
    switch (kind) {
        case TKeyKind::Code: {
            CObjectReader r(value, path, {"rect", "type", "code0", "code1", "code2"});
            k.rect = ReadRect16(r, "rect");
            k.code0 = r.Int<uint8_t>("code0");
            k.code1 = r.Int<uint8_t>("code1");
            k.code2 = r.Int<uint8_t>("code2");
            break;
        }
        case TKeyKind::Text2:
        case TKeyKind::Text3: {
            const bool three = kind == TKeyKind::Text3;
            CObjectReader r(value, path,
                            three ? std::initializer_list<const char*>{"rect", "type", "keyValue1",
                                                                       "keyValue2", "keyValue3"}
                                  : std::initializer_list<const char*>{"rect", "type", "keyValue1",
                                                                       "keyValue2"},
                            {"text", "textUnits"});
            k.rect = ReadRect16(r, "rect");
            ReadText(r, k);
            k.keyValue1 = r.Int<uint32_t>("keyValue1");
            k.keyValue2 = r.Int<uint32_t>("keyValue2");
            if (three) k.keyValue3 = r.Int<uint32_t>("keyValue3");
            break;
        }
        case TKeyKind::None: {
            CObjectReader r(value, path, {"rect", "type"});
            k.rect = ReadRect16(r, "rect");
            break;
        }
    }
}

void ReadPanel(const Json& value, const std::string& path, _HBRECT_CONFIG_FILE& p) {
    CObjectReader r(value, path,
                    {"id", "reserved1", "rows", "columns", "reserved4", "width", "height",
                     "center", "axisH", "axisV", "keys"});
    p.id = r.Int<uint8_t>("id");
    p.reserved1 = r.Int<uint8_t>("reserved1");
    p.rows = r.Int<uint8_t>("rows");
    p.columns = r.Int<uint8_t>("columns");
    uint8_t reserved4[4];
    r.Hex("reserved4", reserved4, 4);
    for (int i = 0; i < 4; ++i) p.reserved4[i] = reserved4[i];
    p.width = r.Int<uint16_t>("width");
    p.height = r.Int<uint16_t>("height");
    p.center = ReadPoint(r, "center");
    p.axisH = ReadPoint(r, "axisH");
    p.axisV = ReadPoint(r, "axisV");
    const int keys = p.rows * p.columns;
    if (keys > DEV_CONFIG_MAX_KEYS) {
        Fail(r.Path("rows"), std::to_string(+p.rows) + " rows of " + std::to_string(+p.columns) +
                                 " columns make " + std::to_string(keys) + " keys, at most " +
                                 std::to_string(DEV_CONFIG_MAX_KEYS));
    }
    const Json& list = r.Array("keys");
    if (list.size() != static_cast<size_t>(keys)) {
        Fail(r.Path("keys"), std::to_string(list.size()) + " keys, but " +
                                 std::to_string(+p.rows) + " rows of " +
                                 std::to_string(+p.columns) + " columns hold " +
                                 std::to_string(keys));
    }
    for (size_t k = 0; k < list.size(); ++k) ReadKey(list[k], Join(r.Path("keys"), k), p.keys[k]);
}

template <size_t N>
const Json& BoundedArray(const CObjectReader& r, const char* name, const char* what) {
    const Json& list = r.Array(name);
    if (list.size() > N) {
        Fail(r.Path(name), std::to_string(list.size()) + " " + what + ", at most " +
                               std::to_string(N));
    }
    return list;
}

void ReadConfig(const Json& root, _HARDWARE_DEV_CONFIG& c) {
    CObjectReader r(root, "",
                    {"format", "version", "flags", "option0", "option1", "option2", "option3",
                     "value0", "value1", "netAddress", "port", "port2", "rec1Byte", "rec1Value0",
                     "rec1Value1", "rec2Value", "rec4Byte", "textValue1", "textValue2", "areas",
                     "extras", "panels", "backup"},
                    {"text", "textUnits"});
    ReadHead(r, kDevConfigJsonFormat);
    c.flags = r.Flags("flags");
    c.option0 = r.Int<uint8_t>("option0");
    c.option1 = r.Int<uint8_t>("option1");
    c.option2 = r.Int<uint8_t>("option2");
    c.option3 = r.Int<uint8_t>("option3");
    c.value0 = r.Int<uint16_t>("value0");
    c.value1 = r.Int<uint16_t>("value1");
    c.netAddress = r.Address("netAddress");
    c.port = r.Int<uint16_t>("port");
    c.port2 = r.Int<uint16_t>("port2");
    c.rec1Byte = r.Int<uint8_t>("rec1Byte");
    c.rec1Value0 = r.Int<uint16_t>("rec1Value0");
    c.rec1Value1 = r.Int<uint16_t>("rec1Value1");
    c.rec2Value = r.Int<uint16_t>("rec2Value");
    c.rec4Byte = r.Int<uint8_t>("rec4Byte");
    ReadText(r, c);
    c.textValue1 = r.Int<uint32_t>("textValue1");
    c.textValue2 = r.Int<uint32_t>("textValue2");

    const Json& areas = BoundedArray<DEV_CONFIG_MAX_AREAS>(r, "areas", "areas");
    for (size_t a = 0; a < areas.size(); ++a) ReadArea(areas[a], Join(r.Path("areas"), a), c.areas[a]);
    c.areaCount = static_cast<uint8_t>(areas.size());

    const Json& extras = BoundedArray<DEV_CONFIG_MAX_EXTRAS>(r, "extras", "extras");
    for (size_t x = 0; x < extras.size(); ++x) {
        const std::string path = Join(r.Path("extras"), x);
        if (!extras[x].is_string()) Fail(path, "expected a string, found " + TypeName(extras[x]));
        CObjectReader::HexValue(extras[x].get_ref<const std::string&>(), path, c.extras[x],
                                DEV_CONFIG_EXTRA_BYTES);
    }
    c.extraCount = static_cast<uint8_t>(extras.size());

    const Json& panels = BoundedArray<DEV_CONFIG_MAX_PANELS>(r, "panels", "panels");
    for (size_t p = 0; p < panels.size(); ++p) {
        ReadPanel(panels[p], Join(r.Path("panels"), p), c.panels[p]);
    }
    c.panelCount = static_cast<uint8_t>(panels.size());

    const std::string& backup = r.String("backup");
    constexpr size_t kMaxBackup = DEV_CONFIG_BACKUP_BYTES - 1;  // what a block can carry
    if (backup.size() % 2 != 0 || backup.size() > 2 * kMaxBackup) {
        Fail(r.Path("backup"), "expected an even number of hexadecimal digits, at most " +
                                   std::to_string(2 * kMaxBackup) + " (" +
                                   std::to_string(kMaxBackup) + " bytes), found " +
                                   std::to_string(backup.size()) + " characters");
    }
    CObjectReader::HexValue(backup, r.Path("backup"), c.backup, backup.size() / 2);
    c.backupLength = static_cast<uint16_t>(backup.size() / 2);
}

void ReadOverride(const Json& root, _HARDWARE_CONFIG_OVERRIDE& o) {
    CObjectReader r(root, "",
                    {"format", "version", "flags", "option1", "option2", "option3", "value0",
                     "value1", "edgeAdjust"});
    ReadHead(r, kDevConfigOverrideJsonFormat);
    o.flags = r.Flags("flags");
    o.option1 = r.Int<uint8_t>("option1");
    o.option2 = r.Int<uint8_t>("option2");
    o.option3 = r.Int<uint8_t>("option3");
    o.value0 = r.Int<uint16_t>("value0");
    o.value1 = r.Int<uint16_t>("value1");
    int8_t edges[4];
    ReadEdges(r, "edgeAdjust", edges);
    for (int i = 0; i < 4; ++i) o.edgeAdjust[i] = edges[i];
}

// ---------------------------------------------------------------------------------------------
// Differences

std::string Short(const Json& v) {
    const std::string text = v.dump(-1, ' ', false);
    return text.size() <= 60 ? text : text.substr(0, 57) + "...";
}

void Differences(const Json& a, const Json& b, const std::string& path,
                 std::vector<std::string>& out) {
    if (a.is_object() && b.is_object()) {
        for (auto it = a.begin(); it != a.end(); ++it) {
            const std::string p = Join(path, it.key());
            if (!b.contains(it.key())) {
                out.push_back(p + ": removed");
            } else {
                Differences(it.value(), b.at(it.key()), p, out);
            }
        }
        for (auto it = b.begin(); it != b.end(); ++it) {
            if (!a.contains(it.key())) out.push_back(Join(path, it.key()) + ": added");
        }
        return;
    }
    if (a.is_array() && b.is_array()) {
        const size_t common = std::min(a.size(), b.size());
        for (size_t i = 0; i < common; ++i) Differences(a[i], b[i], Join(path, i), out);
        for (size_t i = common; i < a.size(); ++i) out.push_back(Join(path, i) + ": removed");
        for (size_t i = common; i < b.size(); ++i) out.push_back(Join(path, i) + ": added");
        return;
    }
    if (a != b) out.push_back((path.empty() ? "/" : path) + ": " + Short(a) + " -> " + Short(b));
}

template <class Record, class Reader>
bool ReadDocument(std::string_view text, Record* out, std::string* error, Reader read) {
    try {
        const Json root = ParseStrict(text);
        auto record = std::make_unique<Record>();
        std::memset(static_cast<void*>(record.get()), 0, sizeof(Record));
        read(root, *record);
        std::memcpy(static_cast<void*>(out), record.get(), sizeof(Record));
        return true;
    } catch (const TJsonFault& fault) {
        if (error != nullptr) *error = fault.message;
    } catch (const std::exception& e) {
        if (error != nullptr) *error = std::string("/: ") + e.what();
    }
    return false;
}

}  // namespace

std::string DevConfigToJson(const _HARDWARE_DEV_CONFIG& config) {
    return Dump(ConfigJson(config));
}

bool DevConfigFromJson(std::string_view text, _HARDWARE_DEV_CONFIG* config, std::string* error) {
    return ReadDocument(text, config, error, ReadConfig);
}

std::string DevConfigOverrideToJson(const _HARDWARE_CONFIG_OVERRIDE& override) {
    return Dump(OverrideJson(override));
}

bool DevConfigOverrideFromJson(std::string_view text, _HARDWARE_CONFIG_OVERRIDE* override,
                               std::string* error) {
    return ReadDocument(text, override, error, ReadOverride);
}

bool DevTextUnitsToUtf8(const std::vector<uint16_t>& units, std::string* utf8) {
    return UnitsToUtf8(units, utf8);
}

std::string DevConfigSummary(const _HARDWARE_DEV_CONFIG& config) {
    const int areas = std::min<int>(config.areaCount, DEV_CONFIG_MAX_AREAS);
    const int panels = std::min<int>(config.panelCount, DEV_CONFIG_MAX_PANELS);
    int keys = 0;
    for (int p = 0; p < panels; ++p) {
        keys += std::min(config.panels[p].rows * config.panels[p].columns, DEV_CONFIG_MAX_KEYS);
    }
    std::string text = std::to_string(areas) + (areas == 1 ? " area, " : " areas, ") +
                       std::to_string(panels) + (panels == 1 ? " panel" : " panels");
    if (panels > 0) text += " (" + std::to_string(keys) + (keys == 1 ? " key)" : " keys)");
    return text;
}

std::vector<std::string> DevConfigDifferences(const _HARDWARE_DEV_CONFIG& from,
                                              const _HARDWARE_DEV_CONFIG& to) {
    std::vector<std::string> out;
    Differences(ConfigJson(from), ConfigJson(to), "", out);
    return out;
}
