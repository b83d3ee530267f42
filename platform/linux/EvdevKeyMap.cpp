#include "EvdevKeyMap.h"

#include <linux/input-event-codes.h>

#include <algorithm>
#include <array>
#include <utility>

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
    if (name == "literal") return TKeyProfile::Literal;
    if (name == "desktop") return TKeyProfile::Desktop;
    return std::nullopt;
}

const char* KeyProfileName(TKeyProfile profile) {
    return profile == TKeyProfile::Literal ? "literal" : "desktop";
}

std::optional<uint16_t> EvdevKeyForMacKey(uint16_t macKeyCode) {
    for (const auto& [mac, evdev] : kMacToEvdev) {
        if (mac == macKeyCode) return evdev;
    }
    return std::nullopt;
}

std::optional<TEvdevChord> TranslateShortcut(TKeyProfile profile, uint16_t macKeyCode,
                                             uint64_t macFlags) {
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
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    return keys;
}
