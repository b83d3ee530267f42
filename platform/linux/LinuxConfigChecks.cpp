#include "LinuxConfigChecks.h"

#include "EvdevKeyMap.h"
#include "LinuxScreen.h"

TConfigChecks LinuxConfigChecks() {
    TConfigChecks checks;
    for (const char* name : KeyProfileNames()) checks.keyProfiles.emplace_back(name);
    checks.chord = [](std::string_view text, std::string* canonical, std::string* error) {
        TEvdevChord chord;
        if (!ParseChord(text, &chord, error)) return false;
        *canonical = FormatChord(chord);
        return true;
    };
    checks.profileChord = [](std::string_view profile, TGestureShortcut shortcut) {
        return FormatChord(ProfileChord(ParseKeyProfile(profile).value_or(kDefaultKeyProfile),
                                        shortcut));
    };
    checks.screenSize = [](std::string_view text) {
        return ParseScreenPlacement(text).has_value();
    };
    return checks;
}
