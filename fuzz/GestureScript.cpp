// Arbitrary text as a gesture script. A script that parses must respect the limits a touch frame
// has (contacts per frame, coordinates) and play to its end on a virtual clock; one that does not
// must say which line is wrong.
#include "GestureScript.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    CGestureScript script;
    std::string error;
    if (!CGestureScript::Parse(text, &script, &error)) {
        if (error.rfind("line ", 0) != 0) abort();
        return 0;
    }
    for (const TScriptFrame& frame : script.Frames()) {
        if (frame.contacts.size() > SCRIPT_MAX_CONTACTS) abort();
        for (const TScriptContact& c : frame.contacts) {
            if (c.x < SCRIPT_MIN_COORD || c.x > SCRIPT_MAX_COORD || c.y < SCRIPT_MIN_COORD ||
                c.y > SCRIPT_MAX_COORD) {
                abort();
            }
        }
    }
    TVirtualClock clock;
    CGestureScriptPlayer player(script, clock);
    size_t played = 0;
    while (player.NextFrame() != nullptr) ++played;
    if (played != script.Frames().size()) abort();
    (void)script.DurationMicros();
    return 0;
}
