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

// The value a script position has always come out at: the default mapping (no areas) skips
// about one output value in 270, which came out at its nearest neighbour. Recorded scripts keep
// their positions so. The default mapping's step at the centre is not kept: there it has nothing,
// and a real frame's positions run straight across.
std::vector<int32_t> KeptValues(const std::vector<int32_t>& defaultOutputOfRaw) {
    std::vector<bool> reached(kOutputValues, false);
    for (const int32_t out : defaultOutputOfRaw) {
        if (out >= 0 && out < kOutputValues) reached[static_cast<size_t>(out)] = true;
    }
    std::vector<int32_t> kept(kOutputValues);
    for (int v = 0; v < kOutputValues; ++v) {
        kept[static_cast<size_t>(v)] = v;
        if (reached[static_cast<size_t>(v)]) continue;
        const bool below = v > 0 && reached[static_cast<size_t>(v - 1)];
        const bool above = v + 1 < kOutputValues && reached[static_cast<size_t>(v + 1)];
        if (below && above) kept[static_cast<size_t>(v)] = v - 1;  // a lone skipped value
    }
    return kept;
}

}  // namespace

void SimDevConfig(_HARDWARE_DEV_CONFIG* config) {
    DefaultDevConfig(0, 0, config);
    config->flags &= ~DEV_FLAG_PANELS_ENABLED;
    config->flags |= DEV_FLAG_AREAS_ENABLED;
    config->panelCount = 0;
    // One area across the whole frame that maps raw units one to one onto output values, X
    // mirrored as the default mapping has it: a straight line with no step, as a real frame's
    // sensor is. Output units are half values, centred on each value (the output rectangle
    // starts half a value early), so the translation's single-precision rounding never tips a
    // value into its neighbour: every value 1..32766 has a raw position.
    DefaultDevCalConfig(0, 0, config);
    _HCRECT_CONFIG_FILE& area = config->areas[0];
    area.outputRect = {-1, -1, 65534, 65534};
    area.targetRect = {0, 0, 65532, 65532};  // two output units per raw unit on either side
    for (int8_t& edge : area.edgeAdjust) edge = 0;
}

std::vector<uint8_t> SimConfigBlock() {
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    SimDevConfig(config.get());
    std::vector<uint8_t> block(static_cast<size_t>(EncodeDevConfig(config.get(), nullptr)));
    EncodeDevConfig(config.get(), block.data());
    return block;
}

void InitSimCalibration(const TEmuFramePayload& idleFrame, CCalibrateSystem* calibration) {
    _HARDWARE_FRAME_SDK idle{};
    _HARDWARE_SDK_POINT storage[1];
    idle.pointBufferBytes = sizeof storage;
    idle.pointBuffer = reinterpret_cast<uint8_t*>(storage);
    DecodeFrameBuffer(idleFrame.data(), static_cast<int>(idleFrame.size()), &idle);
    const _CS_CONFIG geometry{idle.logicalWidth, idle.logicalHeight,
                              static_cast<int16_t>(idle.rawWidth),
                              static_cast<int16_t>(idle.rawHeight)};
    auto config = std::make_unique<_HARDWARE_DEV_CONFIG>();
    SimDevConfig(config.get());
    calibration->InitCalibrateSys(config.get(), &geometry);
}

CSimFrameEncoder::CSimFrameEncoder() {
    CCalibrateSystem calibration;
    InitSimCalibration(IdleFrame(), &calibration);

    // The area's axes run along the raw axes: X depends on raw X alone, Y on raw Y alone. The
    // tables come from the calibration code itself, as the driver runs it.
    const size_t rawValues = static_cast<size_t>(kSimRawExtent) + 1;
    std::vector<int32_t> xOfRaw(rawValues), yOfRaw(rawValues);
    std::vector<int32_t> defaultXOfRaw(rawValues), defaultYOfRaw(rawValues);
    for (size_t raw = 0; raw < rawValues; ++raw) {
        const int r = static_cast<int>(raw);
        _CAL_COORDINATE_INFO* area = calibration.UpdateCalCoords(r, r);
        GetShortCoords(area);
        xOfRaw[raw] = area->x.AsInt();
        yOfRaw[raw] = area->y.AsInt();
        _HARDWARE_SDK_POINT point{};
        point.rawX = static_cast<uint16_t>(raw);
        point.rawY = static_cast<uint16_t>(raw);
        calibration.DefaultHidCoords(&point);
        defaultXOfRaw[raw] = point.x;
        defaultYOfRaw[raw] = point.y;
    }
    const std::vector<uint16_t> rawForX = InvertAxis(xOfRaw), rawForY = InvertAxis(yOfRaw);
    const std::vector<int32_t> keptX = KeptValues(defaultXOfRaw);
    const std::vector<int32_t> keptY = KeptValues(defaultYOfRaw);
    m_rawForX.resize(kOutputValues);
    m_rawForY.resize(kOutputValues);
    for (size_t v = 0; v < kOutputValues; ++v) {
        m_rawForX[v] = rawForX[static_cast<size_t>(keptX[v])];
        m_rawForY[v] = rawForY[static_cast<size_t>(keptY[v])];
    }
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
