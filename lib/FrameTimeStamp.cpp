#include "FrameTimeStamp.h"

#include "MultiPlatformAPI.h"

int64_t FrameTimeStamp(const timeval& tv) {
    return static_cast<int64_t>(tv.tv_sec) * kStampUnitsPerSecond +
           static_cast<int64_t>(tv.tv_usec);
}

int64_t CurrentFrameTimeStamp() {
    timeval tv{};
    TGetTimeOfDay(&tv);
    return FrameTimeStamp(tv);
}
