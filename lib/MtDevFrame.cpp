#include "MtDevFrame.h"

#include <cstring>

#include "LittleEndian.h"

namespace {

// Storage for contact k (1-based), or null when it would end beyond the owner's buffer.
_HARDWARE_SDK_POINT* PointSlot(const _HARDWARE_FRAME_SDK* frame, int k) {
    if (frame->pointBuffer == nullptr) return nullptr;
    if (reinterpret_cast<uintptr_t>(frame->pointBuffer) % alignof(_HARDWARE_SDK_POINT) != 0) {
        return nullptr;
    }
    const size_t end = static_cast<size_t>(k) * sizeof(_HARDWARE_SDK_POINT);
    if (end > frame->pointBufferBytes) return nullptr;
    return reinterpret_cast<_HARDWARE_SDK_POINT*>(frame->pointBuffer) + (k - 1);
}

void PushFront(_HARDWARE_FRAME_SDK* frame, _HARDWARE_SDK_POINT* point) {
    point->next = frame->points;
    frame->points = point;
}

bool DecodeCompact(const uint8_t* payload, int length, _HARDWARE_FRAME_SDK* frame) {
    if (length < 6) return false;
    const int count = payload[1];
    const int16_t extentX = ReadLeI16(payload + 2);
    const int16_t extentY = ReadLeI16(payload + 4);
    frame->rawWidth = static_cast<uint16_t>(extentX);
    frame->rawHeight = static_cast<uint16_t>(extentY);
    frame->logicalWidth = extentX / 4;  // truncates toward zero: -5 gives -1
    frame->logicalHeight = extentY / 4;
    if (count == 0 || length < 12) return true;

    for (int k = 1;; ++k) {
        _HARDWARE_SDK_POINT* point = PointSlot(frame, k);
        if (point == nullptr) break;
        const uint8_t* src = payload + 6 * k;
        point->id = src[0];
        point->status = src[1];
        point->rawX = ReadLeU16(src + 2);
        point->rawY = ReadLeU16(src + 4);
        point->area = 0;
        point->rawW = 0;
        point->rawH = 0;
        point->user = nullptr;
        PushFront(frame, point);
        if (k >= count) break;
        if (6 * (k + 1) + 5 >= length) break;  // next contact not wholly inside the payload
    }
    return true;
}

bool DecodeExtended(const uint8_t* payload, int length, _HARDWARE_FRAME_SDK* frame) {
    if (length < 10) return false;
    const int count = payload[1];
    frame->logicalWidth = ReadLeI16(payload + 2);
    frame->logicalHeight = ReadLeI16(payload + 4);
    frame->rawWidth = ReadLeU16(payload + 6);
    frame->rawHeight = ReadLeU16(payload + 8);
    if (length < 20 || count == 0) return true;

    for (int k = 1;; ++k) {
        _HARDWARE_SDK_POINT* point = PointSlot(frame, k);
        if (point == nullptr) break;
        const uint8_t* src = payload + 10 * k;
        point->id = src[0];
        point->status = src[1];
        point->rawX = ReadLeU16(src + 2);
        point->rawY = ReadLeU16(src + 4);
        point->rawW = ReadLeI16(src + 6);
        point->rawH = ReadLeI16(src + 8);
        point->area = static_cast<int32_t>(point->rawW) * static_cast<int32_t>(point->rawH);
        point->user = nullptr;
        PushFront(frame, point);
        if (k >= count) break;
        if (10 * (k + 1) + 9 >= length) break;
    }
    return true;
}

}  // namespace

bool DecodeFrameBuffer(const uint8_t* payload, int length, _HARDWARE_FRAME_SDK* frame) {
    frame->points = nullptr;
    if (length < 1 || payload == nullptr) return false;
    switch (payload[0]) {
        case FRAME_TAG_COMPACT:
            return DecodeCompact(payload, length, frame);
        case FRAME_TAG_EXTENDED:
            return DecodeExtended(payload, length, frame);
        default:
            return false;
    }
}
