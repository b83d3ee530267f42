#include "DriverConfig.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <sstream>
#include <vector>

// Built in (not the shared library) and without exceptions: a parse error is a value, and the
// parser is instrumented with the rest when fuzzing.
#define TOML_HEADER_ONLY 1
#define TOML_EXCEPTIONS 0
#include <toml++/toml.h>

#include "TuioSettings.h"

namespace {

// ---------------------------------------------------------------------------------------------
// The known keys

using TReadValue = std::function<bool(const toml::node& value, const TConfigChecks& checks,
                                      TDriverConfig* config, std::string* error)>;
using TPrintValue = std::function<std::string(const TDriverConfig& config,
                                              const TConfigChecks& checks)>;

struct TKeySpec {
    std::string section;  // "" for the top level; "screen"; a subsection as "output.tuio"
    std::string key;
    std::string comment;  // printed above the key, or after it
    TReadValue read;
    TPrintValue print;
    bool commentAfter = false;
};

// A basic (double-quoted) string with escapes, as people write them.
std::string TomlString(std::string_view text) {
    std::ostringstream out;
    out << toml::toml_formatter(toml::value<std::string>(std::string(text)),
                                toml::format_flags::none);
    return out.str();
}

const char* TypeName(toml::node_type type) {
    switch (type) {
        case toml::node_type::table: return "a table";
        case toml::node_type::array: return "an array";
        case toml::node_type::string: return "a string";
        case toml::node_type::integer: return "an integer";
        case toml::node_type::floating_point: return "a number";
        case toml::node_type::boolean: return "a boolean";
        case toml::node_type::date: return "a date";
        case toml::node_type::time: return "a time";
        case toml::node_type::date_time: return "a date-time";
        case toml::node_type::none: break;
    }
    return "nothing";
}

std::string Join(const std::vector<std::string>& items, const char* last = " or ") {
    std::string out;
    for (size_t i = 0; i < items.size(); ++i) {
        if (i > 0) out += i + 1 == items.size() ? last : ", ";
        out += items[i];
    }
    return out;
}

// A string value, quoted for a message and cut to a readable length.
std::string Shown(std::string_view value) {
    constexpr size_t kShown = 60;
    return value.size() <= kShown ? TomlString(value)
                                  : TomlString(value.substr(0, kShown)) + "...";
}

bool ReadString(const toml::node& node, std::string* out, std::string* error) {
    const auto* text = node.as_string();
    if (text == nullptr) {
        *error = std::string("must be a string, not ") + TypeName(node.type());
        return false;
    }
    *out = text->get();
    return true;
}

// A string key kept in a member; `check` accepts a value or says what is valid.
TKeySpec StringKey(std::string section, std::string key, std::string comment,
                   std::string TDriverConfig::*member,
                   std::function<bool(const std::string&, const TConfigChecks&, std::string*)>
                       check) {
    TKeySpec spec{std::move(section), std::move(key), std::move(comment), nullptr, nullptr, false};
    spec.read = [member, check](const toml::node& node, const TConfigChecks& checks,
                                TDriverConfig* config, std::string* error) {
        std::string value;
        if (!ReadString(node, &value, error) || !check(value, checks, error)) return false;
        config->*member = std::move(value);
        return true;
    };
    spec.print = [member](const TDriverConfig& config, const TConfigChecks&) {
        return TomlString(config.*member);
    };
    return spec;
}

// A boolean key kept in a member.
TKeySpec BoolKey(std::string section, std::string key, std::string comment,
                 bool TDriverConfig::*member) {
    TKeySpec spec{std::move(section), std::move(key), std::move(comment), nullptr, nullptr, false};
    spec.read = [member](const toml::node& node, const TConfigChecks&, TDriverConfig* config,
                         std::string* error) {
        const auto* value = node.as_boolean();
        if (value == nullptr) {
            *error = std::string("must be true or false, not ") + TypeName(node.type());
            return false;
        }
        config->*member = value->get();
        return true;
    };
    spec.print = [member](const TDriverConfig& config, const TConfigChecks&) {
        return std::string(config.*member ? "true" : "false");
    };
    return spec;
}

// An integer key from `low` to `high` kept in a member.
TKeySpec IntKey(std::string section, std::string key, std::string comment,
                int TDriverConfig::*member, int low, int high) {
    TKeySpec spec{std::move(section), std::move(key), std::move(comment), nullptr, nullptr, false};
    spec.read = [member, low, high](const toml::node& node, const TConfigChecks&,
                                    TDriverConfig* config, std::string* error) {
        const auto* value = node.as_integer();
        if (value == nullptr) {
            *error = std::string("must be a whole number, not ") + TypeName(node.type());
            return false;
        }
        if (value->get() < low || value->get() > high) {
            *error = std::to_string(value->get()) + " is out of range " + std::to_string(low) +
                     ".." + std::to_string(high);
            return false;
        }
        config->*member = static_cast<int>(value->get());
        return true;
    };
    spec.print = [member](const TDriverConfig& config, const TConfigChecks&) {
        return std::to_string(config.*member);
    };
    return spec;
}

bool OneOf(const std::string& value, const std::vector<std::string>& valid, std::string* error) {
    for (const std::string& v : valid) {
        if (v == value) return true;
    }
    std::vector<std::string> quoted;
    for (const std::string& v : valid) quoted.push_back(TomlString(v));
    *error = Shown(value) + " is not valid; use " + Join(quoted);
    return false;
}

// [output] touchscreen: true or false, or "per-area" for one touchscreen per calibration area.
TKeySpec TouchscreenKey() {
    TKeySpec spec{"output", "touchscreen",
                  "Also present each frame as a multitouch touchscreen, as --touchscreen; "
                  "\"per-area\": one per calibration area, as --touchscreen-per-area.",
                  nullptr, nullptr, false};
    spec.read = [](const toml::node& node, const TConfigChecks&, TDriverConfig* config,
                   std::string* error) {
        if (const auto* value = node.as_boolean()) {
            config->touchscreen = value->get();
            config->touchscreenPerArea = false;
            return true;
        }
        const auto* text = node.as_string();
        if (text == nullptr) {
            *error = std::string("must be true, false or \"per-area\", not ") +
                     TypeName(node.type());
            return false;
        }
        if (!OneOf(text->get(), {"per-frame", "per-area"}, error)) return false;
        config->touchscreen = true;
        config->touchscreenPerArea = text->get() == "per-area";
        return true;
    };
    spec.print = [](const TDriverConfig& config, const TConfigChecks&) {
        if (config.touchscreen && config.touchscreenPerArea) return std::string("\"per-area\"");
        return std::string(config.touchscreen ? "true" : "false");
    };
    return spec;
}

std::vector<TKeySpec> BuildKeySpecs() {
    std::vector<TKeySpec> specs;
    specs.push_back(StringKey(
        "", "log_level", "How much to log: error, warning, info or debug.",
        &TDriverConfig::logLevel,
        [](const std::string& value, const TConfigChecks&, std::string* error) {
            return OneOf(value, {kConfigLogLevels.begin(), kConfigLogLevels.end()}, error);
        }));
    specs.push_back(StringKey(
        "screen", "size",
        "Screen size in points, WIDTHxHEIGHT[+X+Y], as --screen takes it; \"\" when not set.",
        &TDriverConfig::screenSize,
        [](const std::string& value, const TConfigChecks& checks, std::string* error) {
            if (value.empty() || checks.screenSize(value)) return true;
            *error = Shown(value) + " is not WIDTHxHEIGHT or WIDTHxHEIGHT+X+Y (such as " +
                     "\"1920x1080\" or \"2560x1440+1920+0\")";
            return false;
        }));
    specs.push_back(StringKey(
        "screen", "output",
        "The XRandR output the gestures map into, as --display (\"HDMI-1\"); \"\": the primary.",
        &TDriverConfig::screenOutput,
        [](const std::string& value, const TConfigChecks&, std::string* error) {
            if (value.empty() || IsOutputName(value)) return true;
            *error = Shown(value) + " is not an output name: at most 64 letters, digits and " +
                     "- _ . : (as xrandr lists them)";
            return false;
        }));
    specs.push_back(BoolKey("gestures", "enabled",
                            "Turn touches into mouse, scroll and shortcut events; false as "
                            "--no-gestures, for the touchscreen or TUIO alone.",
                            &TDriverConfig::gestures));
    specs.push_back(StringKey(
        "keys", "profile",
        "The key profile: what each gesture's shortcut presses unless [shortcuts] says.",
        &TDriverConfig::keyProfile,
        [](const std::string& value, const TConfigChecks& checks, std::string* error) {
            return OneOf(value, checks.keyProfiles, error);
        }));
    for (const TGestureShortcutInfo& info : GestureShortcutTable()) {
        const size_t index = static_cast<size_t>(info.id);
        TKeySpec spec{"shortcuts", info.name, info.gesture, nullptr, nullptr, true};
        spec.read = [index](const toml::node& node, const TConfigChecks& checks,
                            TDriverConfig* config, std::string* error) {
            std::string text, canonical;
            if (!ReadString(node, &text, error)) return false;
            if (!checks.chord(text, &canonical, error)) return false;
            config->shortcuts[index] = std::move(canonical);
            return true;
        };
        spec.print = [id = info.id](const TDriverConfig& config, const TConfigChecks& checks) {
            return TomlString(EffectiveShortcuts(config, checks)[static_cast<size_t>(id)]);
        };
        specs.push_back(std::move(spec));
    }
    specs.push_back(TouchscreenKey());
    specs.push_back(IntKey("output", "width_mm",
                           "The touch surface's width in millimetres; 0: the default size.",
                           &TDriverConfig::touchscreenWidthMm, 0, 20000));
    specs.push_back(IntKey("output", "height_mm",
                           "The touch surface's height in millimetres; 0: the default size.",
                           &TDriverConfig::touchscreenHeightMm, 0, 20000));
    specs.push_back(BoolKey("output.tuio", "enabled",
                            "Also send the contacts as TUIO 1.1 cursors, as --tuio.",
                            &TDriverConfig::tuio));
    specs.push_back(StringKey(
        "output.tuio", "target",
        "\"[HOST:]PORT\" every area sends to; \"\": each area's own target from the frame.",
        &TDriverConfig::tuioTarget,
        [](const std::string& value, const TConfigChecks&, std::string* error) {
            return value.empty() || ParseTuioTarget(value, error).has_value();
        }));
    specs.push_back(BoolKey("output.tuio", "allow_device_targets",
                            "Use an area's target from the frame even when it is another machine.",
                            &TDriverConfig::tuioAllowDeviceTargets));
    // One key per calibration area a frame can hold; only the areas given are printed.
    for (int area = 0; area < 32; ++area) {
        TKeySpec spec{"output.tuio.areas", std::to_string(area),
                      "area " + std::to_string(area) + ": \"[HOST:]PORT\"", nullptr, nullptr,
                      true};
        spec.read = [area](const toml::node& node, const TConfigChecks&, TDriverConfig* config,
                           std::string* error) {
            std::string text;
            if (!ReadString(node, &text, error) || !ParseTuioTarget(text, error)) return false;
            config->tuioAreaTargets[area] = std::move(text);
            return true;
        };
        spec.print = [area](const TDriverConfig& config, const TConfigChecks&) {
            const auto it = config.tuioAreaTargets.find(area);
            return it == config.tuioAreaTargets.end() ? std::string() : TomlString(it->second);
        };
        specs.push_back(std::move(spec));
    }
    return specs;
}

const std::vector<TKeySpec>& KeySpecs() {
    static const std::vector<TKeySpec> specs = BuildKeySpecs();
    return specs;
}

// Section names in the order their first key is declared.
std::vector<std::string> Sections() {
    std::vector<std::string> sections;
    for (const TKeySpec& spec : KeySpecs()) {
        if (std::find(sections.begin(), sections.end(), spec.section) == sections.end()) {
            sections.push_back(spec.section);
        }
    }
    return sections;
}

// Whether `path` is a declared section or holds one ("output" holds "output.tuio").
bool IsSectionPath(const std::string& path) {
    for (const TKeySpec& spec : KeySpecs()) {
        if (spec.section == path || spec.section.rfind(path + ".", 0) == 0) return true;
    }
    return false;
}

const TKeySpec* FindSpec(const std::string& section, std::string_view key) {
    for (const TKeySpec& spec : KeySpecs()) {
        if (spec.section == section && spec.key == key) return &spec;
    }
    return nullptr;
}

// What may stand in a section: its keys, then its subsections as [name].
std::string ValidNames(const std::string& section) {
    std::vector<std::string> names;
    for (const TKeySpec& spec : KeySpecs()) {
        if (spec.section == section) names.push_back(spec.key);
    }
    for (const std::string& other : Sections()) {
        const std::string prefix = section.empty() ? "" : section + ".";
        if (other.empty() || other.rfind(prefix, 0) != 0) continue;
        const std::string child = other.substr(0, other.find('.', prefix.size()));
        const std::string shown = "[" + child + "]";
        if (std::find(names.begin(), names.end(), shown) == names.end()) names.push_back(shown);
    }
    return Join(names, ", ");
}

// ---------------------------------------------------------------------------------------------
// Reading

std::string Where(const std::string& name, const toml::source_region& region) {
    if (region.begin.line == 0) return name + ": ";
    return name + ":" + std::to_string(region.begin.line) + ":" +
           std::to_string(region.begin.column) + ": ";
}

std::string Dotted(const std::string& section, std::string_view key) {
    return section.empty() ? std::string(key) : section + "." + std::string(key);
}

bool ReadTable(const toml::table& table, const std::string& section, const std::string& name,
               const TConfigChecks& checks, TDriverConfig* config, std::string* error) {
    for (auto&& [key, node] : table) {
        const std::string path = Dotted(section, key.str());
        if (const TKeySpec* spec = FindSpec(section, key.str())) {
            std::string why;
            if (!spec->read(node, checks, config, &why)) {
                *error = Where(name, node.source()) + path + ": " + why;
                return false;
            }
            continue;
        }
        if (IsSectionPath(path)) {
            const toml::table* inner = node.as_table();
            if (inner == nullptr) {
                *error = Where(name, node.source()) + path + " must be a table ([" + path +
                         "]), not " + TypeName(node.type());
                return false;
            }
            if (!ReadTable(*inner, path, name, checks, config, error)) return false;
            continue;
        }
        *error = Where(name, key.source()) + "unknown key " + Shown(key.str()) +
                 (section.empty() ? std::string() : " in [" + section + "]") +
                 "; valid keys: " + ValidNames(section);
        return false;
    }
    return true;
}

// "name:line:column" of a byte offset (columns count bytes).
std::string Position(const std::string& name, std::string_view text, size_t offset) {
    const std::string_view before = text.substr(0, offset);
    const size_t line = static_cast<size_t>(std::count(before.begin(), before.end(), '\n')) + 1;
    const size_t lineStart = before.rfind('\n');
    const size_t column = lineStart == std::string_view::npos ? offset + 1 : offset - lineStart;
    return name + ":" + std::to_string(line) + ":" + std::to_string(column);
}

std::string Hex(char byte) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", static_cast<unsigned char>(byte));
    return text;
}

// A message as one line: control characters (from the parser's quote of the text, or a file
// name) written as \n, \t or \xNN.
std::string OneLine(std::string_view text) {
    std::string out;
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (byte < 0x20 || byte == 0x7F) {
            out += "\\x" + Hex(c).substr(2);
        } else {
            out += c;
        }
    }
    return out;
}

// The first byte that does not belong to well-formed UTF-8 (no overlong forms, no surrogates);
// the size when there is none.
size_t FirstNonUtf8(std::string_view text) {
    size_t i = 0;
    while (i < text.size()) {
        const auto b = static_cast<unsigned char>(text[i]);
        size_t length = 0;
        unsigned min = 0;
        if (b < 0x80) {
            ++i;
            continue;
        } else if ((b & 0xE0) == 0xC0) {
            length = 2;
            min = 0x80;
        } else if ((b & 0xF0) == 0xE0) {
            length = 3;
            min = 0x800;
        } else if ((b & 0xF8) == 0xF0) {
            length = 4;
            min = 0x10000;
        } else {
            return i;
        }
        if (i + length > text.size()) return i;
        unsigned code = b & (0xFFu >> (length + 1));
        for (size_t k = 1; k < length; ++k) {
            const auto c = static_cast<unsigned char>(text[i + k]);
            if ((c & 0xC0) != 0x80) return i;
            code = (code << 6) | (c & 0x3Fu);
        }
        if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return i;
        i += length;
    }
    return text.size();
}

// toml++ 3.3 reaches an "unreachable" branch (undefined behaviour in a release build) when it
// asks whether some characters outside ASCII are whitespace, which it does in many places: after
// a value or a key, while it guesses a value's type, after a backslash in a multi-line string
// (its issues 190 and 295). No key or value of the configuration is outside ASCII, so such a
// character is refused before toml++ sees the text anywhere but in a comment. Returns the
// offending byte's offset, or the size.
size_t FirstNonAsciiOutsideComment(std::string_view text) {
    enum class TState { Code, Comment, Basic, Literal, MultiBasic, MultiLiteral };
    TState state = TState::Code;
    size_t i = text.starts_with("\xEF\xBB\xBF") ? 3 : 0;  // a byte-order mark
    auto quotes = [&](char quote) {
        size_t n = 0;
        while (i + n < text.size() && text[i + n] == quote) ++n;
        return n;
    };
    while (i < text.size()) {
        const char c = text[i];
        if (static_cast<unsigned char>(c) >= 0x80 && state != TState::Comment) return i;
        switch (state) {
            case TState::Code:
                if (c == '#') state = TState::Comment;
                if (c == '"' || c == '\'') {
                    const bool multi = quotes(c) >= 3;
                    state = c == '"' ? (multi ? TState::MultiBasic : TState::Basic)
                                     : (multi ? TState::MultiLiteral : TState::Literal);
                    i += multi ? 3 : 1;
                    continue;
                }
                break;
            case TState::Comment:
                if (c == '\n') state = TState::Code;
                break;
            case TState::Basic:
            case TState::Literal:
                if (c == '\n' || c == (state == TState::Basic ? '"' : '\'')) {
                    state = TState::Code;
                } else if (c == '\\' && state == TState::Basic && i + 1 < text.size() &&
                           static_cast<unsigned char>(text[i + 1]) < 0x80) {
                    ++i;  // an escaped character, a quote perhaps
                }
                break;
            case TState::MultiBasic:
            case TState::MultiLiteral: {
                const char quote = state == TState::MultiBasic ? '"' : '\'';
                if (c == quote) {
                    // Three to five quotes close the string (one or two of them its text).
                    const size_t n = quotes(quote);
                    if (n >= 3) state = TState::Code;
                    i += n;
                    continue;
                }
                if (c == '\\' && state == TState::MultiBasic && i + 1 < text.size() &&
                    static_cast<unsigned char>(text[i + 1]) < 0x80) {
                    ++i;
                }
                break;
            }
        }
        ++i;
    }
    return text.size();
}

bool ReadConfigText(std::string_view text, const std::string& name, const TConfigChecks& checks,
                    TDriverConfig* config, std::string* error) {
    try {
        if (const size_t bad = FirstNonUtf8(text); bad != text.size()) {
            *error = Position(name, text, bad) + ": not UTF-8 text (byte " + Hex(text[bad]) +
                     "); save the file as UTF-8";
            return false;
        }
        if (const size_t bad = FirstNonAsciiOutsideComment(text); bad != text.size()) {
            *error = Position(name, text, bad) + ": a character outside ASCII (byte " +
                     Hex(text[bad]) + "); only comments may hold one";
            return false;
        }
        toml::parse_result parsed = toml::parse(text, name);
        if (!parsed) {
            const toml::parse_error& e = parsed.error();
            *error = Where(name, e.source()) + "not valid TOML: " + std::string(e.description());
            return false;
        }
        TDriverConfig read = *config;
        if (!ReadTable(parsed.table(), "", name, checks, &read, error)) return false;
        *config = std::move(read);
        return true;
    } catch (const std::exception& e) {
        *error = name + ": cannot read the configuration: " + e.what();
        return false;
    }
}

bool ReadConfigFile(const std::string& path, std::string* text, std::string* error) {
    // Non-blocking, so that a FIFO given by mistake does not wait for a writer.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        const int why = errno;
        *error = "cannot read configuration " + path + ": " + std::strerror(why);
        if (why == EACCES) *error += " (check its permissions: ls -l " + path + ")";
        return false;
    }
    struct stat info {};
    bool ok = fstat(fd, &info) == 0;
    if (!ok) {
        *error = "cannot read configuration " + path + ": " + std::strerror(errno);
    } else if (S_ISDIR(info.st_mode)) {
        ok = false;
        *error = "configuration " + path + " is a directory; give the file inside it";
    } else if (!S_ISREG(info.st_mode)) {
        ok = false;
        *error = "configuration " + path + " is not a regular file";
    } else {
        // Read one byte past the limit rather than trust the size the file claims.
        char buffer[65536];
        while (ok && text->size() <= kMaxConfigBytes) {
            const ssize_t n = read(fd, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                ok = false;
                *error = "cannot read configuration " + path + ": " + std::strerror(errno);
            } else if (n == 0) {
                break;
            } else {
                text->append(buffer, static_cast<size_t>(n));
            }
        }
        if (ok && text->size() > kMaxConfigBytes) {
            ok = false;
            *error = "configuration " + path + " is larger than " +
                     std::to_string(kMaxConfigBytes >> 20) +
                     " MiB; a configuration file holds a few lines";
        }
    }
    close(fd);
    return ok;
}


}  // namespace

TDriverConfig DefaultDriverConfig(const TConfigChecks& checks) {
    TDriverConfig config;
    if (!checks.keyProfiles.empty()) config.keyProfile = checks.keyProfiles.front();
    return config;
}

bool ParseDriverConfig(std::string_view text, const std::string& name, const TConfigChecks& checks,
                       TDriverConfig* config, std::string* error) {
    if (ReadConfigText(text, name, checks, config, error)) return true;
    *error = OneLine(*error);
    return false;
}

TConfigStatus LoadDriverConfigFile(const std::string& path, const TConfigChecks& checks,
                                   TDriverConfig* config, std::string* error) {
    std::string text;
    if (!ReadConfigFile(path, &text, error)) {
        *error = OneLine(*error);
        return TConfigStatus::CannotRead;
    }
    return ParseDriverConfig(text, path, checks, config, error) ? TConfigStatus::Ok
                                                                 : TConfigStatus::Invalid;
}


TConfigEnvironment ProcessConfigEnvironment(std::string explicitPath) {
    TConfigEnvironment environment;
    environment.explicitPath = std::move(explicitPath);
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME")) environment.xdgConfigHome = xdg;
    if (const char* home = std::getenv("HOME")) environment.home = home;
    environment.exists = [](const std::string& path) {
        struct stat info {};
        return stat(path.c_str(), &info) == 0;
    };
    environment.list = [](const std::string& dir) {
        std::vector<TConfigDirEntry> entries;
        DIR* stream = opendir(dir.c_str());
        if (stream == nullptr) return entries;
        while (const dirent* entry = readdir(stream)) {
            TConfigDirEntry item{entry->d_name};
            if (item.name == "." || item.name == "..") continue;
            struct stat info {};
            item.regular = stat((dir + "/" + item.name).c_str(), &info) == 0 &&
                           S_ISREG(info.st_mode);
            entries.push_back(std::move(item));
        }
        closedir(stream);
        return entries;
    };
    return environment;
}

std::string UserConfigDir(const TConfigEnvironment& environment) {
    // Relative base directories are ignored, as the XDG base directory rules say.
    if (environment.xdgConfigHome && environment.xdgConfigHome->starts_with('/')) {
        return *environment.xdgConfigHome + "/irframe";
    }
    if (environment.home && environment.home->starts_with('/')) {
        return *environment.home + "/.config/irframe";
    }
    return "";
}

std::string FindConfigFile(const TConfigEnvironment& environment) {
    if (!environment.explicitPath.empty()) return environment.explicitPath;
    for (const std::string& dir : {UserConfigDir(environment), environment.systemDir + "/irframe"}) {
        if (dir.empty()) continue;
        const std::string path = dir + "/irframe.toml";
        if (environment.exists && environment.exists(path)) return path;
    }
    return "";
}

namespace {

// The drop-ins of `dir`/irframe.d in name order, at most kMaxConfigDropIns.
void AddDropIns(const TConfigEnvironment& environment, const std::string& dir,
                TConfigSources* sources) {
    if (dir.empty() || !environment.list) return;
    const std::string dropInDir = dir + "/irframe.d";
    std::vector<TConfigDirEntry> entries = environment.list(dropInDir);
    std::erase_if(entries, [](const TConfigDirEntry& entry) {
        return entry.name.starts_with('.') || !entry.name.ends_with(".toml");
    });
    std::sort(entries.begin(), entries.end(),
              [](const TConfigDirEntry& a, const TConfigDirEntry& b) { return a.name < b.name; });
    size_t taken = 0;
    for (const TConfigDirEntry& entry : entries) {
        const std::string path = dropInDir + "/" + entry.name;
        if (!entry.regular) {
            sources->skipped.push_back(OneLine("configuration " + path +
                                               " skipped: not a regular file"));
        } else if (taken == kMaxConfigDropIns) {
            sources->skipped.push_back(OneLine(
                "configuration " + path + " skipped: only " + std::to_string(kMaxConfigDropIns) +
                " files are read from " + dropInDir + "; merge some of them"));
        } else {
            sources->files.push_back(path);
            ++taken;
        }
    }
}

}  // namespace

TConfigSources FindConfigFiles(const TConfigEnvironment& environment) {
    TConfigSources sources;
    const std::string main = FindConfigFile(environment);
    if (!main.empty()) sources.files.push_back(main);
    if (!environment.explicitPath.empty()) return sources;
    const std::string userDir = UserConfigDir(environment);
    // The user's own irframe.toml replaces everything the system's directory says.
    if (userDir.empty() || main != userDir + "/irframe.toml") {
        AddDropIns(environment, environment.systemDir + "/irframe", &sources);
    }
    AddDropIns(environment, userDir, &sources);
    return sources;
}

TConfigStatus LoadDriverConfig(const TConfigEnvironment& environment, const TConfigChecks& checks,
                               TDriverConfig* config, TConfigSources* sources,
                               std::string* error) {
    *sources = FindConfigFiles(environment);
    TDriverConfig read = *config;
    for (const std::string& path : sources->files) {
        const TConfigStatus status = LoadDriverConfigFile(path, checks, &read, error);
        if (status != TConfigStatus::Ok) return status;
    }
    *config = std::move(read);
    return TConfigStatus::Ok;
}

TConfigStatus LoadDriverConfig(const TConfigEnvironment& environment, const TConfigChecks& checks,
                               TDriverConfig* config, std::string* source, std::string* error) {
    TConfigSources sources;
    const TConfigStatus status = LoadDriverConfig(environment, checks, config, &sources, error);
    source->clear();
    for (const std::string& path : sources.files) *source += (source->empty() ? "" : ", ") + path;
    return status;
}

bool IsOutputName(std::string_view name) {
    constexpr size_t kMaxOutputName = 64;
    if (name.empty() || name.size() > kMaxOutputName) return false;
    return std::all_of(name.begin(), name.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
               (c != '\0' && std::strchr("-_.:", c) != nullptr);
    });
}

std::array<std::string, kGestureShortcutCount> EffectiveShortcuts(const TDriverConfig& config,
                                                                  const TConfigChecks& checks) {
    std::array<std::string, kGestureShortcutCount> chords;
    for (size_t i = 0; i < chords.size(); ++i) {
        chords[i] = config.shortcuts[i]
                        ? *config.shortcuts[i]
                        : checks.profileChord(config.keyProfile, GestureShortcutTable()[i].id);
    }
    return chords;
}

std::string PrintConfig(const TDriverConfig& config, const TConfigChecks& checks) {
    std::string out =
        "# irframe configuration: the values in force, defaults included.\n"
        "# Each [shortcuts] line replaces the profile's chord for that gesture; delete it to\n"
        "# follow the profile. A chord is key names joined by '+' (\"ctrl+alt+left\") or \"none\".\n";
    for (const std::string& section : Sections()) {
        out += "\n";
        if (!section.empty()) out += "[" + section + "]\n";
        for (const TKeySpec& spec : KeySpecs()) {
            if (spec.section != section) continue;
            const std::string value = spec.print(config, checks);
            if (value.empty()) continue;  // a key that is not set and has no default
            const std::string line = spec.key + " = " + value;
            if (spec.commentAfter) {
                out += line + "  # " + spec.comment + "\n";
            } else {
                out += "# " + spec.comment + "\n" + line + "\n";
            }
        }
    }
    return out;
}

std::string TomlQuoted(std::string_view text) { return TomlString(text); }
