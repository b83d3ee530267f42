// Constants of the service shell: the devices it serves and the pacing of a device worker.
#pragma once

#include <cstddef>
#include <cstdint>

// One row of the matching table: discovery opens one session per row, in this order.
struct TDeviceMatchRow {
    uint16_t vendorId;
    uint16_t productId;
};

inline constexpr TDeviceMatchRow kDeviceMatchTable[] = {
    {0xAAEC, 0xC020},
    {0xAAEC, 0xC021},
    {0x202E, 0x0006},
};
inline constexpr size_t kDeviceMatchRows = sizeof kDeviceMatchTable / sizeof kDeviceMatchTable[0];

// Discovery hands devices to the HID report channel.
inline constexpr uint8_t kHidDeviceType = 2;
// Stored in every new device record; nothing reads it (the worker counts its own poll attempts).
inline constexpr int32_t kInitialFaildCount = 5;

// Worker pacing.
inline constexpr int kConfigReadTries = 10;        // GetDeviceConfig attempts before "GETCFG_ERR"
inline constexpr int kFirstFrameTries = 10;        // first GetFrameSdk attempts before "GETFRAME_ERR"
inline constexpr uint64_t kRetryPauseMicros = 300; // pause after each failed attempt of the two above
inline constexpr int kFramePollTries = 6;          // consecutive failed polls that end a worker
inline constexpr uint32_t kFrameBufferBytes = 10240;  // contact storage of the worker's frame record

// Notification names.
inline constexpr const char* kNotifyWindowExist = "isWindowExist";
inline constexpr const char* kNotifyOpenThread = "openThread";
