#include "SimFrameEncoder.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "CCalibrateSystem.h"
#include "CalibrateCoordinate.h"

namespace {

constexpr int kOutputValues = 32768;

// For each output value, the raw value that maps nearest to it (ties to the smaller raw value).
std::vector<uint16_t> InvertAxis(const std::vector<int32_t>& outputOfRaw) {
    std::vector<int32_t> rawOf(kOutputValues, -1);
    for (size_t raw = 0; raw < outputOfRaw.size(); ++raw) {
        const int32_t out = outputOfRaw[raw];
        if (out >= 0 && out < kOutputValues && rawOf[static_cast<size_t>(out)] < 0) {
            rawOf[static_cast<size_t>(out)] = static_cast<int32_t>(raw);
        }
    }
    // Values the mapping skips take the raw value of the nearest value it reaches.
    std::vector<uint16_t> table(kOutputValues, 0);
    for (int v = 0; v < kOutputValues; ++v) {
        int best = -1;
        for (int d = 0; best < 0 && d < kOutputValues; ++d) {
            if (v - d >= 0 && rawOf[static_cast<size_t>(v - d)] >= 0) {
                best = rawOf[static_cast<size_t>(v - d)];
            } else if (v + d < kOutputValues && rawOf[static_cast<size_t>(v + d)] >= 0) {
                best = rawOf[static_cast<size_t>(v + d)];
            }
        }
        table[static_cast<size_t>(v)] = static_cast<uint16_t>(std::max(best, 0));
    }
    return table;
}

}  // namespace

void SimDevConfig(_HARDWARE_DEV_CONFIG* config) {
    DefaultDevConfig(0, 0, config);
    config->flags &= ~(DEV_FLAG_AREAS_ENABLED | DEV_FLAG_PANELS_ENABLED);
    config->areaCount = 0;
    config->panelCount = 0;
}

std::vector<uint8_t> SimConfigBlock() {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    SimDevConfig(config.get());
    std::vector<uint8_t> block(static_cast<size_t>(EncodeDevConfig(config.get(), nullptr)));
    EncodeDevConfig(config.get(), block.data());
    return block;
}

CSimFrameEncoder::CSimFrameEncoder() {
    // The same geometry the driver takes from the first (idle) frame.
    _HARDWARE_FRAME_SDK idle{};
    _HARDWARE_SDK_POINT storage[1];
    idle.pointBufferBytes = sizeof storage;
    idle.pointBuffer = reinterpret_cast<uint8_t*>(storage);
    const TEmuFramePayload payload = IdleFrame();
    DecodeFrameBuffer(payload.data(), static_cast<int>(payload.size()), &idle);
    const _CS_CONFIG geometry{idle.logicalWidth, idle.logicalHeight,
                              static_cast<int16_t>(idle.rawWidth),
                              static_cast<int16_t>(idle.rawHeight)};
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    SimDevConfig(config.get());
    CCalibrateSystem calibration;
    calibration.InitCalibrateSys(config.get(), &geometry);

    std::vector<int32_t> xOfRaw(static_cast<size_t>(kSimRawExtent) + 1);
    std::vector<int32_t> yOfRaw(xOfRaw.size());
    for (size_t raw = 0; raw < xOfRaw.size(); ++raw) {
        _HARDWARE_SDK_POINT point{};
        point.rawX = static_cast<uint16_t>(raw);
        point.rawY = static_cast<uint16_t>(raw);
        calibration.DefaultHidCoords(&point);
        xOfRaw[raw] = point.x;
        yOfRaw[raw] = point.y;
    }
    m_rawForX = InvertAxis(xOfRaw);
    m_rawForY = InvertAxis(yOfRaw);
}

uint16_t CSimFrameEncoder::RawX(int32_t x) const {
    return m_rawForX[static_cast<size_t>(std::clamp(x, 1, 32766))];
}

uint16_t CSimFrameEncoder::RawY(int32_t y) const {
    return m_rawForY[static_cast<size_t>(std::clamp(y, 1, 32766))];
}

TEmuFramePayload CSimFrameEncoder::Encode(const std::vector<TScriptContact>& contacts) const {
    std::vector<TEmuContact> reversed;
    reversed.reserve(contacts.size());
    for (auto it = contacts.rbegin(); it != contacts.rend(); ++it) {
        reversed.push_back(TEmuContact{it->id, it->status, RawX(it->x), RawY(it->y)});
    }
    return EmuCompactFrame(kSimRawExtent, kSimRawExtent, reversed);
}

TEmuFramePayload CSimFrameEncoder::IdleFrame() const {
    return EmuCompactFrame(kSimRawExtent, kSimRawExtent, {});
}
