#include "EvdevKeyMap.h"

#include <libevdev/libevdev.h>
#include <linux/input-event-codes.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <string>
#include <utility>

#include "QuotedText.h"

namespace {

// macOS virtual key code (ANSI layout) -> evdev key, for every key of the key-name table.
constexpr std::pair<uint16_t, uint16_t> kMacToEvdev[] = {
    {0, KEY_A},           {1, KEY_S},          {2, KEY_D},           {3, KEY_F},
    {4, KEY_H},           {5, KEY_G},          {6, KEY_Z},           {7, KEY_X},
    {8, KEY_C},           {9, KEY_V},          {11, KEY_B},          {12, KEY_Q},
    {13, KEY_W},          {14, KEY_E},         {15, KEY_R},          {16, KEY_Y},
    {17, KEY_T},          {18, KEY_1},         {19, KEY_2},          {20, KEY_3},
    {21, KEY_4},          {22, KEY_6},         {23, KEY_5},          {24, KEY_EQUAL},
    {25, KEY_9},          {26, KEY_7},         {27, KEY_MINUS},      {28, KEY_8},
    {29, KEY_0},          {30, KEY_RIGHTBRACE}, {31, KEY_O},         {32, KEY_U},
    {33, KEY_LEFTBRACE},  {34, KEY_I},         {35, KEY_P},          {36, KEY_ENTER},
    {37, KEY_L},          {38, KEY_J},         {39, KEY_APOSTROPHE}, {40, KEY_K},
    {41, KEY_SEMICOLON},  {42, KEY_BACKSLASH}, {43, KEY_COMMA},      {44, KEY_SLASH},
    {45, KEY_N},          {46, KEY_M},         {47, KEY_DOT},        {48, KEY_TAB},
    {49, KEY_SPACE},      {50, KEY_GRAVE},
    {51, KEY_BACKSPACE},  // "DELETE" is the key above Return
    {52, KEY_ENTER},      // "ENTER": the main Enter key, not the keypad's
    {53, KEY_ESC},
    {55, KEY_LEFTMETA},   // "CMD"
    {56, KEY_LEFTSHIFT},  {58, KEY_LEFTALT},   {59, KEY_LEFTCTRL},
    {67, KEY_KPASTERISK}, {69, KEY_KPPLUS},
    {71, KEY_NUMLOCK},    // keypad Clear sits where a PC keyboard has Num Lock
    {96, KEY_F5},         {97, KEY_F6},        {98, KEY_F7},         {99, KEY_F3},
    {100, KEY_F8},        {101, KEY_F9},       {103, KEY_F11},       {105, KEY_F13},
    {107, KEY_F14},       {109, KEY_F10},      {111, KEY_F12},       {113, KEY_F15},
    {114, KEY_INSERT},    // "HELP" sits where a PC keyboard has Insert
    {115, KEY_HOME},      {116, KEY_PAGEUP},   {118, KEY_F4},        {119, KEY_END},
    {120, KEY_F2},        {121, KEY_PAGEDOWN}, {122, KEY_F1},        {123, KEY_LEFT},
    {124, KEY_RIGHT},     {125, KEY_DOWN},     {126, KEY_UP},
};

// Key codes of the key-name table used by the gestures' shortcuts.
constexpr uint16_t kMac0 = 29, kMac9 = 25, kMacMinus = 27, kMacKeypadPlus = 69, kMacR = 15,
                   kMacL = 37, kMacF7 = 98, kMacF8 = 100, kMacF11 = 103, kMacLeft = 123,
                   kMacRight = 124, kMacDown = 125, kMacUp = 126;

const TDesktopShortcut kDesktopShortcuts[] = {
    {kMacLeft, kMacFlagCommand, {{KEY_LEFTALT}, KEY_LEFT}, "back"},
    {kMacRight, kMacFlagCommand, {{KEY_LEFTALT}, KEY_RIGHT}, "forward"},
    {kMacMinus, kMacFlagCommand, {{KEY_LEFTCTRL}, KEY_MINUS}, "zoom out"},
    {kMacKeypadPlus, kMacFlagCommand, {{KEY_LEFTCTRL}, KEY_KPPLUS}, "zoom in"},
    {kMac0, kMacFlagCommand, {{KEY_LEFTCTRL}, KEY_0}, "reset zoom"},
    {kMac9, kMacFlagCommand, {{KEY_LEFTCTRL}, KEY_9}, "zoom toggle, second shortcut"},
    {kMacR, kMacFlagCommand, {{KEY_LEFTCTRL}, KEY_R}, "rotate clockwise (image viewers)"},
    {kMacL, kMacFlagCommand, {{KEY_LEFTCTRL, KEY_LEFTSHIFT}, KEY_R},
     "rotate anticlockwise (image viewers)"},
    {kMacLeft, kMacFlagControl, {{KEY_LEFTCTRL, KEY_LEFTALT}, KEY_LEFT}, "workspace left"},
    {kMacRight, kMacFlagControl, {{KEY_LEFTCTRL, KEY_LEFTALT}, KEY_RIGHT}, "workspace right"},
    {kMacUp, kMacFlagControl, {{KEY_LEFTCTRL, KEY_LEFTALT}, KEY_UP}, "workspace up"},
    {kMacDown, kMacFlagControl, {{KEY_LEFTCTRL, KEY_LEFTALT}, KEY_DOWN}, "workspace down"},
    {kMacF7, kMacFlagSecondaryFn, {{KEY_LEFTMETA}, KEY_V}, "notification list"},
    {kMacF8, kMacFlagSecondaryFn, {{KEY_LEFTMETA}, KEY_A}, "application grid"},
    {kMacF11, kMacFlagSecondaryFn, {{KEY_LEFTMETA}, KEY_D}, "show desktop"},
};

using enum TGestureShortcut;

// None of these locks the screen, logs out, tiles, closes or switches windows, launches an
// application or reloads a page on GNOME, Plasma, Xfce or in a browser.
const TSafeShortcut kSafeShortcuts[] = {
    {RotateClockwise, {}, "rotating by accident is easy; no chord means the same everywhere"},
    {RotateAnticlockwise, {}, "as clockwise (Super+L would lock the screen)"},
    {SwipeLeft, {{KEY_LEFTALT}, KEY_RIGHT}, "forward in browsers and file managers"},
    {SwipeRight, {{KEY_LEFTALT}, KEY_LEFT}, "back in browsers and file managers"},
    {BorderSwipe, {}, "no desktop agrees on an edge panel; Super+V opens another one each"},
    {Pinch, {{KEY_LEFTCTRL}, KEY_MINUS}, "zoom out"},
    {Spread, {{KEY_LEFTCTRL}, KEY_KPPLUS}, "zoom in"},
    {ZoomToggleFirst, {{KEY_LEFTCTRL}, KEY_0}, "reset zoom"},
    {ZoomToggleSecond, {{KEY_LEFTCTRL}, KEY_0},
     "reset zoom again: Ctrl+9 would switch to the last browser tab"},
    {FourFingerLeft, {{KEY_LEFTCTRL, KEY_LEFTALT}, KEY_RIGHT}, "next workspace"},
    {FourFingerRight, {{KEY_LEFTCTRL, KEY_LEFTALT}, KEY_LEFT}, "previous workspace"},
    {FourFingerUp, {{KEY_LEFTCTRL, KEY_LEFTALT}, KEY_UP}, "workspace above"},
    {FourFingerDown, {{KEY_LEFTCTRL, KEY_LEFTALT}, KEY_DOWN}, "workspace below"},
    {FourFingerPinch, {}, "Super+A and the overview keys differ between desktops"},
    {FourFingerSpread, {}, "Super+D (show desktop) hides every window"},
};

// The names a chord text may use. Modifiers first, in the order they are pressed; the first
// name of a code is the one FormatChord writes.
struct TChordKeyName {
    std::string name;
    uint16_t code;
    const char* group;  // shown as one range in messages ("a-z"); null: shown by name
};

constexpr uint16_t kModifierOrder[] = {KEY_LEFTCTRL,  KEY_RIGHTCTRL,  KEY_LEFTALT,
                                       KEY_RIGHTALT,  KEY_LEFTSHIFT,  KEY_RIGHTSHIFT,
                                       KEY_LEFTMETA,  KEY_RIGHTMETA};

bool IsModifier(uint16_t code) {
    return std::find(std::begin(kModifierOrder), std::end(kModifierOrder), code) !=
           std::end(kModifierOrder);
}

int ModifierRank(uint16_t code) {
    return static_cast<int>(std::find(std::begin(kModifierOrder), std::end(kModifierOrder), code) -
                            std::begin(kModifierOrder));
}

const std::vector<TChordKeyName>& ChordKeyNames() {
    static const std::vector<TChordKeyName> names = [] {
        std::vector<TChordKeyName> v = {
            {"ctrl", KEY_LEFTCTRL, nullptr},        {"rightctrl", KEY_RIGHTCTRL, nullptr},
            {"alt", KEY_LEFTALT, nullptr},          {"rightalt", KEY_RIGHTALT, nullptr},
            {"shift", KEY_LEFTSHIFT, nullptr},      {"rightshift", KEY_RIGHTSHIFT, nullptr},
            {"super", KEY_LEFTMETA, nullptr},       {"meta", KEY_LEFTMETA, nullptr},
            {"rightsuper", KEY_RIGHTMETA, nullptr}, {"rightmeta", KEY_RIGHTMETA, nullptr},
        };
        constexpr uint16_t letters[] = {KEY_A, KEY_B, KEY_C, KEY_D, KEY_E, KEY_F, KEY_G,
                                        KEY_H, KEY_I, KEY_J, KEY_K, KEY_L, KEY_M, KEY_N,
                                        KEY_O, KEY_P, KEY_Q, KEY_R, KEY_S, KEY_T, KEY_U,
                                        KEY_V, KEY_W, KEY_X, KEY_Y, KEY_Z};
        for (size_t i = 0; i < std::size(letters); ++i) {
            v.push_back({std::string(1, static_cast<char>('a' + i)), letters[i], "a-z"});
        }
        constexpr uint16_t digits[] = {KEY_0, KEY_1, KEY_2, KEY_3, KEY_4,
                                       KEY_5, KEY_6, KEY_7, KEY_8, KEY_9};
        constexpr uint16_t keypad[] = {KEY_KP0, KEY_KP1, KEY_KP2, KEY_KP3, KEY_KP4,
                                       KEY_KP5, KEY_KP6, KEY_KP7, KEY_KP8, KEY_KP9};
        for (size_t i = 0; i < 10; ++i) {
            v.push_back({std::to_string(i), digits[i], "0-9"});
        }
        constexpr uint16_t functions[] = {
            KEY_F1,  KEY_F2,  KEY_F3,  KEY_F4,  KEY_F5,  KEY_F6,  KEY_F7,  KEY_F8,
            KEY_F9,  KEY_F10, KEY_F11, KEY_F12, KEY_F13, KEY_F14, KEY_F15, KEY_F16,
            KEY_F17, KEY_F18, KEY_F19, KEY_F20, KEY_F21, KEY_F22, KEY_F23, KEY_F24};
        for (size_t i = 0; i < std::size(functions); ++i) {
            v.push_back({"f" + std::to_string(i + 1), functions[i], "f1-f24"});
        }
        const TChordKeyName others[] = {
            {"left", KEY_LEFT, nullptr},         {"right", KEY_RIGHT, nullptr},
            {"up", KEY_UP, nullptr},             {"down", KEY_DOWN, nullptr},
            {"home", KEY_HOME, nullptr},         {"end", KEY_END, nullptr},
            {"pageup", KEY_PAGEUP, nullptr},     {"pagedown", KEY_PAGEDOWN, nullptr},
            {"insert", KEY_INSERT, nullptr},     {"delete", KEY_DELETE, nullptr},
            {"backspace", KEY_BACKSPACE, nullptr}, {"enter", KEY_ENTER, nullptr},
            {"tab", KEY_TAB, nullptr},           {"space", KEY_SPACE, nullptr},
            {"esc", KEY_ESC, nullptr},           {"minus", KEY_MINUS, nullptr},
            {"equal", KEY_EQUAL, nullptr},       {"leftbrace", KEY_LEFTBRACE, nullptr},
            {"rightbrace", KEY_RIGHTBRACE, nullptr}, {"backslash", KEY_BACKSLASH, nullptr},
            {"semicolon", KEY_SEMICOLON, nullptr}, {"apostrophe", KEY_APOSTROPHE, nullptr},
            {"grave", KEY_GRAVE, nullptr},       {"comma", KEY_COMMA, nullptr},
            {"dot", KEY_DOT, nullptr},           {"slash", KEY_SLASH, nullptr},
        };
        v.insert(v.end(), std::begin(others), std::end(others));
        for (size_t i = 0; i < 10; ++i) {
            v.push_back({"kp" + std::to_string(i), keypad[i], "kp0-kp9"});
        }
        const TChordKeyName more[] = {
            {"kpplus", KEY_KPPLUS, nullptr},     {"kpminus", KEY_KPMINUS, nullptr},
            {"kpasterisk", KEY_KPASTERISK, nullptr}, {"kpslash", KEY_KPSLASH, nullptr},
            {"kpdot", KEY_KPDOT, nullptr},       {"kpenter", KEY_KPENTER, nullptr},
            {"numlock", KEY_NUMLOCK, nullptr},   {"back", KEY_BACK, nullptr},
            {"forward", KEY_FORWARD, nullptr},   {"zoomin", KEY_ZOOMIN, nullptr},
            {"zoomout", KEY_ZOOMOUT, nullptr},   {"zoomreset", KEY_ZOOMRESET, nullptr},
            {"volumeup", KEY_VOLUMEUP, nullptr}, {"volumedown", KEY_VOLUMEDOWN, nullptr},
            {"mute", KEY_MUTE, nullptr},         {"playpause", KEY_PLAYPAUSE, nullptr},
            {"nextsong", KEY_NEXTSONG, nullptr}, {"previoussong", KEY_PREVIOUSSONG, nullptr},
        };
        v.insert(v.end(), std::begin(more), std::end(more));
        return v;
    }();
    return names;
}

const TChordKeyName* FindChordKey(std::string_view name) {
    for (const TChordKeyName& entry : ChordKeyNames()) {
        if (entry.name == name) return &entry;
    }
    return nullptr;
}

const TChordKeyName* ChordKeyOfCode(uint16_t code) {
    for (const TChordKeyName& entry : ChordKeyNames()) {
        if (entry.code == code) return &entry;
    }
    return nullptr;
}

std::string_view Trim(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string Lower(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// Modifier flags in the order their keys are pressed.
struct TModifierKey {
    uint64_t flag;
    uint16_t literal;
    uint16_t desktop;
};
constexpr TModifierKey kModifiers[] = {
    {kMacFlagControl, KEY_LEFTCTRL, KEY_LEFTCTRL},
    {kMacFlagAlternate, KEY_LEFTALT, KEY_LEFTALT},
    {kMacFlagShift, KEY_LEFTSHIFT, KEY_LEFTSHIFT},
    {kMacFlagCommand, KEY_LEFTMETA, KEY_LEFTCTRL},
};

}  // namespace

std::optional<TKeyProfile> ParseKeyProfile(std::string_view name) {
    if (name == "safe") return TKeyProfile::Safe;
    if (name == "literal") return TKeyProfile::Literal;
    if (name == "desktop") return TKeyProfile::Desktop;
    return std::nullopt;
}

const char* KeyProfileName(TKeyProfile profile) {
    switch (profile) {
        case TKeyProfile::Safe: return "safe";
        case TKeyProfile::Literal: return "literal";
        case TKeyProfile::Desktop: return "desktop";
    }
    return "safe";
}

std::span<const char* const> KeyProfileNames() {
    static constexpr const char* kNames[] = {"safe", "literal", "desktop"};
    return kNames;
}

bool ParseChord(std::string_view text, TEvdevChord* chord, std::string* error) {
    constexpr size_t kMaxChordText = 200;
    if (text.size() > kMaxChordText) {
        *error = "a chord is at most " + std::to_string(kMaxChordText) + " characters";
        return false;
    }
    if (Lower(Trim(text)) == "none") {
        *chord = TEvdevChord{};
        return true;
    }
    std::vector<uint16_t> codes;
    std::vector<std::string> written;
    size_t start = 0;
    while (true) {
        const size_t plus = text.find('+', start);
        const std::string_view part =
            Trim(text.substr(start, plus == std::string_view::npos ? plus : plus - start));
        const std::string name = Lower(part);
        if (name.empty()) {
            *error = "empty key name in " + QuotedText(text) +
                     ": write key names joined by '+', such as 'ctrl+alt+left', or 'none'";
            return false;
        }
        if (name == "none") {
            *error = "'none' stands alone: it cannot be part of " + QuotedText(text);
            return false;
        }
        const TChordKeyName* key = FindChordKey(name);
        if (key == nullptr) {
            *error = "unknown key name " + QuotedText(part) + " in " + QuotedText(text) +
                     "; valid names: " + ChordKeyNamesHelp() + ", or 'none' alone";
            return false;
        }
        if (std::find(codes.begin(), codes.end(), key->code) != codes.end()) {
            *error = "key " + QuotedText(part) + " twice in " + QuotedText(text);
            return false;
        }
        codes.push_back(key->code);
        written.push_back(std::string(part));
        if (plus == std::string_view::npos) break;
        start = plus + 1;
    }
    // Only the last name may be a key that is not a modifier.
    for (size_t i = 0; i + 1 < codes.size(); ++i) {
        if (!IsModifier(codes[i])) {
            *error = "only the last key of " + QuotedText(text) + " may be a key that is not a " +
                     "modifier (ctrl, alt, shift, super); " + QuotedText(written[i]) + " is not last";
            return false;
        }
    }
    TEvdevChord parsed;
    parsed.key = codes.back();
    parsed.modifiers.assign(codes.begin(), codes.end() - 1);
    std::sort(parsed.modifiers.begin(), parsed.modifiers.end(),
              [](uint16_t a, uint16_t b) { return ModifierRank(a) < ModifierRank(b); });
    *chord = std::move(parsed);
    return true;
}

std::string FormatChord(const TEvdevChord& chord) {
    if (chord.IsNone()) return "none";
    std::string text;
    auto append = [&](uint16_t code) {
        if (!text.empty()) text += '+';
        const TChordKeyName* name = ChordKeyOfCode(code);
        text += name != nullptr ? name->name : Lower(EvdevKeyName(code));
    };
    for (uint16_t modifier : chord.modifiers) append(modifier);
    append(chord.key);
    return text;
}

std::string ChordKeyNamesHelp() {
    std::string help;
    const char* lastGroup = nullptr;
    for (const TChordKeyName& entry : ChordKeyNames()) {
        if (entry.group != nullptr && entry.group == lastGroup) continue;
        lastGroup = entry.group;
        if (!help.empty()) help += ", ";
        help += entry.group != nullptr ? entry.group : entry.name;
    }
    return help;
}

std::string EvdevKeyName(uint16_t code) {
    const char* name = libevdev_event_code_get_name(EV_KEY, code);
    return name != nullptr ? name : "KEY_" + std::to_string(code);
}

std::optional<uint16_t> EvdevKeyForMacKey(uint16_t macKeyCode) {
    for (const auto& [mac, evdev] : kMacToEvdev) {
        if (mac == macKeyCode) return evdev;
    }
    return std::nullopt;
}

std::optional<TEvdevChord> TranslateShortcut(TKeyProfile profile, uint16_t macKeyCode,
                                             uint64_t macFlags) {
    if (profile == TKeyProfile::Safe) {
        if (const auto shortcut = GestureShortcutOfKey(macKeyCode, macFlags)) {
            for (const TSafeShortcut& entry : kSafeShortcuts) {
                if (entry.shortcut == *shortcut) return entry.chord;
            }
        }
    }
    if (profile == TKeyProfile::Desktop) {
        for (const TDesktopShortcut& entry : kDesktopShortcuts) {
            if (entry.macKeyCode == macKeyCode && entry.macFlags == macFlags) return entry.chord;
        }
    }
    const auto key = EvdevKeyForMacKey(macKeyCode);
    if (!key) return std::nullopt;
    TEvdevChord chord;
    chord.key = *key;
    for (const TModifierKey& modifier : kModifiers) {
        if ((macFlags & modifier.flag) == 0) continue;
        // Outside their tables the safe and desktop profiles treat modifiers alike.
        const uint16_t code = profile == TKeyProfile::Literal ? modifier.literal : modifier.desktop;
        // Command and Control both become Ctrl on the desktop: press it once.
        if (code != chord.key &&
            std::find(chord.modifiers.begin(), chord.modifiers.end(), code) == chord.modifiers.end()) {
            chord.modifiers.push_back(code);
        }
    }
    return chord;
}

std::span<const TDesktopShortcut> DesktopShortcutTable() {
    return kDesktopShortcuts;
}

std::span<const TSafeShortcut> SafeShortcutTable() {
    return kSafeShortcuts;
}

TEvdevChord ProfileChord(TKeyProfile profile, TGestureShortcut shortcut) {
    const TGestureShortcutInfo& info = GestureShortcutInfo(shortcut);
    // Every key a gesture posts has an evdev key, so a profile always gives a chord.
    return TranslateShortcut(profile, info.macKeyCode, info.flags).value_or(TEvdevChord{});
}

std::optional<CKeyMap> CKeyMap::Make(TKeyProfile profile, const TShortcutOverrides& overrides,
                                     std::string* error) {
    CKeyMap map(profile);
    for (size_t i = 0; i < overrides.size(); ++i) {
        if (!overrides[i]) continue;
        TEvdevChord chord;
        std::string why;
        if (!ParseChord(*overrides[i], &chord, &why)) {
            *error = std::string(GestureShortcutTable()[i].name) + ": " + why;
            return std::nullopt;
        }
        map.m_overrides[i] = std::move(chord);
    }
    return map;
}

TEvdevChord CKeyMap::ChordOf(TGestureShortcut shortcut) const {
    const auto& chosen = m_overrides[static_cast<size_t>(shortcut)];
    return chosen ? *chosen : ProfileChord(m_profile, shortcut);
}

std::optional<TEvdevChord> CKeyMap::Chord(uint16_t macKeyCode, uint64_t flags) const {
    if (const auto shortcut = GestureShortcutOfKey(macKeyCode, flags)) {
        if (const auto& chosen = m_overrides[static_cast<size_t>(*shortcut)]) return *chosen;
    }
    return TranslateShortcut(m_profile, macKeyCode, flags);
}

std::optional<std::vector<uint16_t>> CKeyMap::KeyChanges(const TInputEvent& event) const {
    const bool down = event.type == TInputEventType::KeyDown;
    if (!down && event.type != TInputEventType::KeyUp) return std::nullopt;
    const std::optional<TEvdevChord> chord = Chord(event.keyCode, event.flags);
    if (!chord) return std::nullopt;
    std::vector<uint16_t> keys;
    if (chord->IsNone()) return keys;
    if (down) {
        keys = chord->modifiers;
        keys.push_back(chord->key);
    } else {
        keys.push_back(chord->key);
        keys.insert(keys.end(), chord->modifiers.rbegin(), chord->modifiers.rend());
    }
    return keys;
}

std::vector<std::string> CKeyMap::KeyNames(const TInputEvent& event) const {
    std::vector<std::string> names;
    if (const auto keys = KeyChanges(event)) {
        for (uint16_t code : *keys) names.push_back(EvdevKeyName(code));
    }
    return names;
}

std::vector<uint16_t> AllEvdevKeys() {
    std::vector<uint16_t> keys;
    for (const auto& entry : kMacToEvdev) keys.push_back(entry.second);
    for (const auto& modifier : kModifiers) {
        keys.push_back(modifier.literal);
        keys.push_back(modifier.desktop);
    }
    for (const auto& shortcut : kDesktopShortcuts) {
        keys.insert(keys.end(), shortcut.chord.modifiers.begin(), shortcut.chord.modifiers.end());
        keys.push_back(shortcut.chord.key);
    }
    for (const auto& shortcut : kSafeShortcuts) {
        keys.insert(keys.end(), shortcut.chord.modifiers.begin(), shortcut.chord.modifiers.end());
        if (!shortcut.chord.IsNone()) keys.push_back(shortcut.chord.key);
    }
    for (const TChordKeyName& name : ChordKeyNames()) keys.push_back(name.code);
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    return keys;
}

namespace {

// A dangerous chord: it holds all of `modifiers` (either hand's key) and one of `keys`.
struct TDangerousChord {
    const char* what;
    std::vector<uint16_t> modifiers;
    std::vector<uint16_t> keys;
};

const std::vector<TDangerousChord>& DangerousChords() {
    static const std::vector<TDangerousChord> list = {
        {"Super+L (lock)", {KEY_LEFTMETA}, {KEY_L}},
        {"Super+arrow (tile)", {KEY_LEFTMETA}, {KEY_LEFT, KEY_RIGHT, KEY_UP, KEY_DOWN}},
        {"Super+digit (launch)", {KEY_LEFTMETA},
         {KEY_0, KEY_1, KEY_2, KEY_3, KEY_4, KEY_5, KEY_6, KEY_7, KEY_8, KEY_9}},
        {"Super+D (show desktop)", {KEY_LEFTMETA}, {KEY_D}},
        {"Ctrl+R (reload)", {KEY_LEFTCTRL}, {KEY_R}},
        {"Ctrl+Shift+R (reload)", {KEY_LEFTCTRL, KEY_LEFTSHIFT}, {KEY_R}},
        {"Ctrl+W (close)", {KEY_LEFTCTRL}, {KEY_W}},
        {"Ctrl+Q (quit)", {KEY_LEFTCTRL}, {KEY_Q}},
        {"Alt+F4 (close)", {KEY_LEFTALT}, {KEY_F4}},
        {"Alt+Tab (switch)", {KEY_LEFTALT}, {KEY_TAB}},
        {"Ctrl+Alt+Delete (log out)", {KEY_LEFTCTRL, KEY_LEFTALT}, {KEY_DELETE}},
        {"Ctrl+Alt+Backspace (kill X)", {KEY_LEFTCTRL, KEY_LEFTALT}, {KEY_BACKSPACE}},
    };
    return list;
}

uint16_t LeftHand(uint16_t code) {
    switch (code) {
        case KEY_RIGHTCTRL: return KEY_LEFTCTRL;
        case KEY_RIGHTALT: return KEY_LEFTALT;
        case KEY_RIGHTSHIFT: return KEY_LEFTSHIFT;
        case KEY_RIGHTMETA: return KEY_LEFTMETA;
        default: return code;
    }
}

}  // namespace

std::string DangerousChordsIn(const std::vector<uint16_t>& pressed) {
    if (pressed.empty()) return "";
    std::vector<uint16_t> held;
    for (uint16_t code : pressed) held.push_back(LeftHand(code));
    const uint16_t key = held.back();
    held.pop_back();
    std::string found;
    for (const TDangerousChord& f : DangerousChords()) {
        const bool hasModifiers = std::all_of(f.modifiers.begin(), f.modifiers.end(), [&](uint16_t m) {
            return std::find(held.begin(), held.end(), m) != held.end();
        });
        if (hasModifiers && std::find(f.keys.begin(), f.keys.end(), key) != f.keys.end()) {
            found += std::string(found.empty() ? "" : ", ") + f.what;
        }
    }
    return found;
}
