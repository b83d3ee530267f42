// Frame time stamps: the clock that contact matching, the workers and the outputs share.
#pragma once

#include <cstdint>
#include <sys/time.h>

// Weight of a whole second in a frame time stamp. Not a million: plain microseconds are added
// on top, so a stamp unit is a microsecond within a second and each second boundary adds
// 3,000,000 more. Deliberate; the span thresholds of contact matching are in this unit.
inline constexpr int64_t kStampUnitsPerSecond = 4'000'000;

// A frame's time stamp: seconds * kStampUnitsPerSecond + microseconds.
int64_t FrameTimeStamp(const timeval& tv);
// FrameTimeStamp of the current time of day (through the injectable clock).
int64_t CurrentFrameTimeStamp();
