// The configuration's checks on Linux: the key profiles and chords of EvdevKeyMap and the screen
// sizes of LinuxScreen.
#pragma once

#include "ConfigChecks.h"

TConfigChecks LinuxConfigChecks();
