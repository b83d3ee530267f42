// One touch frame: the report a touch frame sends, the decoded record, and the decoder.
//
// A frame report is the 64-byte reply 0xD1 + a 63-byte payload. The payload comes in two forms:
//   compact  (tag 0xB0): 6-byte header, 6-byte contacts  (at most 9 in 63 bytes)
//   extended (tag 0xB1): 10-byte header, 10-byte contacts (at most 5 in 63 bytes)
// All values are little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

constexpr uint8_t FRAME_TAG_COMPACT = 0xB0;
constexpr uint8_t FRAME_TAG_EXTENDED = 0xB1;
constexpr int FRAME_PAYLOAD_BYTES = 63;      // reply bytes 1..63
constexpr int FRAME_POINT_BUFFER_BYTES = 10240;  // contact storage the worker allocates per device

// One contact. Raw fields come from the decoder, output fields from calibration.
struct _HARDWARE_SDK_POINT {
    int32_t x;        // output X (calibration)
    int32_t y;        // output Y (calibration)
    int32_t z;        // third output value where an output mode uses it; never set by the decoder
    int32_t width;    // output width (calibration)
    int32_t height;   // output height (calibration)
    uint16_t rawX;    // as sent
    uint16_t rawY;    // as sent
    int32_t area;     // rawW * rawH (extended form), 0 in the compact form
    int16_t rawW;     // contact width as sent (extended form)
    int16_t rawH;     // contact height as sent (extended form)
    uint8_t id;       // contact id as sent
    uint8_t status;   // contact status as sent (below 2 / 2 and above matter to calibration)
    uint8_t cell[2];  // group and id of the calibration area or button panel that took it
    void* user;       // free for consumers; cleared by the decoder
    _HARDWARE_SDK_POINT* next;
};

// One decoded frame. The owner sets pointBufferBytes and pointBuffer; the decoder places the
// contacts in pointBuffer, so they are valid only until the next decode into the same record.
struct _HARDWARE_FRAME_SDK {
    int32_t logicalWidth;
    int32_t logicalHeight;
    uint16_t rawWidth;   // read back as a signed 16-bit value by the worker
    uint16_t rawHeight;
    _HARDWARE_SDK_POINT* points;  // contacts, last contact of the report first; null when none
    uint16_t pointBufferBytes;
    uint8_t* pointBuffer;  // must be aligned for _HARDWARE_SDK_POINT (any new[] buffer is)
};

// A frame record with contact storage of its own, allocated once and reused for every frame.
struct TFrameRecord {
    _HARDWARE_FRAME_SDK frame{};
    std::unique_ptr<uint8_t[]> storage;

    explicit TFrameRecord(uint16_t storageBytes) : storage(new uint8_t[storageBytes]) {
        frame.pointBufferBytes = storageBytes;
        frame.pointBuffer = storage.get();
    }
};

// Decodes a frame payload (reply byte 1 onward). True when the payload is a frame, with or
// without contacts; false for any other tag or a payload too short for its header.
// A count larger than the payload or the contact storage holds is not an error: decoding stops
// at whichever limit comes first.
bool DecodeFrameBuffer(const uint8_t* payload, int length, _HARDWARE_FRAME_SDK* frame);

// How many contacts the frame's storage holds.
inline size_t FramePointCapacity(const _HARDWARE_FRAME_SDK& frame) {
    return frame.pointBufferBytes / sizeof(_HARDWARE_SDK_POINT);
}
