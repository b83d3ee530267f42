#include "TouchSettings.h"

#include "DesktopMapping.h"
#include "EvdevKeyMap.h"
#include "FrameAccess.h"
#include "OutputFile.h"
#include "QuotedText.h"

std::string TouchChoicesToml(const TTouchChoices& c) {
    std::string out =
        "# Written by irframe-settings; what it leaves out comes from the files before it\n"
        "# (irframe.toml, other drop-ins). Edit irframe.toml instead to keep comments.\n";
    if (c.screenOutput) out += "\n[screen]\noutput = " + TomlQuoted(*c.screenOutput) + "\n";
    if (c.gestures) out += std::string("\n[gestures]\nenabled = ") + (*c.gestures ? "true" : "false") + "\n";
    if (c.keyProfile) out += "\n[keys]\nprofile = " + TomlQuoted(*c.keyProfile) + "\n";
    bool section = false;
    for (const TGestureShortcutInfo& info : GestureShortcutTable()) {
        const auto& chord = c.shortcuts[static_cast<size_t>(info.id)];
        if (!chord) continue;
        if (!section) out += "\n[shortcuts]\n";
        section = true;
        out += std::string(info.name) + " = " + TomlQuoted(*chord) + "\n";
    }
    if (c.touchscreen) out += std::string("\n[output]\ntouchscreen = ") + (*c.touchscreen ? "true" : "false") + "\n";
    if (c.tuio || c.tuioTarget) {
        out += "\n[output.tuio]\n";
        if (c.tuio) out += std::string("enabled = ") + (*c.tuio ? "true" : "false") + "\n";
        if (c.tuioTarget) out += "target = " + TomlQuoted(*c.tuioTarget) + "\n";
    }
    return out;
}

bool TouchChoicesFromToml(const std::string& text, const std::string& name,
                          const TConfigChecks& checks, TTouchChoices* choices, std::string* error) {
    // Read over two bases that differ in every value: a key the text sets comes out the same
    // from both, a key it leaves out does not.
    TDriverConfig a = DefaultDriverConfig(checks), b = a;
    b.gestures = !a.gestures;
    b.keyProfile = "\x01";
    b.screenOutput = "\x01";
    b.touchscreen = !a.touchscreen;
    b.tuio = !a.tuio;
    b.tuioTarget = "\x01";
    if (!ParseDriverConfig(text, name, checks, &a, error) ||
        !ParseDriverConfig(text, name, checks, &b, error)) {
        return false;
    }
    TTouchChoices c;
    if (a.gestures == b.gestures) c.gestures = a.gestures;
    if (a.keyProfile == b.keyProfile) c.keyProfile = a.keyProfile;
    if (a.screenOutput == b.screenOutput) c.screenOutput = a.screenOutput;
    if (a.touchscreen == b.touchscreen) c.touchscreen = a.touchscreen;
    if (a.tuio == b.tuio) c.tuio = a.tuio;
    if (a.tuioTarget == b.tuioTarget) c.tuioTarget = a.tuioTarget;
    c.shortcuts = a.shortcuts;
    *choices = c;
    return true;
}

std::string SettingsDropInPath(const TConfigEnvironment& environment) {
    const std::string dir = UserConfigDir(environment);
    return dir.empty() ? "" : dir + "/irframe.d/" + kSettingsDropInName;
}

bool WriteTouchChoices(const std::string& path, const TTouchChoices& choices,
                       const TConfigChecks& checks, std::string* error) {
    const std::string text = TouchChoicesToml(choices);
    TDriverConfig check = DefaultDriverConfig(checks);
    if (!ParseDriverConfig(text, path, checks, &check, error)) return false;
    try {
        MakeDirectories(path.substr(0, path.rfind('/')));
    } catch (const CToolError& e) {
        *error = e.what();
        return false;
    }
    COutputFile file;
    return file.Open(path, COutputFile::TExisting::Replace, error) && file.Write(text) &&
           file.Commit(error);
}

TChordVerdict CheckShortcutChord(const std::string& text) {
    TChordVerdict verdict;
    TEvdevChord chord;
    if (!ParseChord(text, &chord, &verdict.message)) return verdict;
    verdict.valid = true;
    verdict.canonical = FormatChord(chord);
    if (chord.IsNone()) return verdict;
    std::vector<uint16_t> pressed = chord.modifiers;
    pressed.push_back(chord.key);
    verdict.dangerous = DangerousChordsIn(pressed);
    if (!verdict.dangerous.empty()) {
        verdict.message = QuotedText(verdict.canonical) + " is " + verdict.dangerous +
                          ": a touch would press it; confirm to use it anyway";
    }
    return verdict;
}
