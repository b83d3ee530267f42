#include "FrameRequests.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

namespace {

TFrameResult Failure(TFrameOperation operation, DEV_ERR code,
                     const std::string& what = "the frame refused") {
    TFrameResult result;
    result.outcome = TFrameOutcome::Failed;
    result.deviceError = code;
    result.message = std::string(FrameOperationName(operation)) + " failed: " + what + " (" +
                     MtDevErrorName(code) + ", " + std::to_string(code) + ")";
    return result;
}

TFrameResult Stopped(TFrameOperation operation) {
    TFrameResult result;
    result.outcome = TFrameOutcome::Failed;
    result.deviceError = DE_ERROR;
    result.message = std::string(FrameOperationName(operation)) + " was stopped";
    return result;
}

// Reads the configuration back after a write.
DEV_ERR ReadBack(CMtDevController& controller, std::shared_ptr<_HARDWARE_DEV_CONFIG>* out) {
    auto config = std::make_shared<_HARDWARE_DEV_CONFIG>();
    const DEV_ERR code = controller.GetDeviceConfig(config.get());
    if (code == DE_OK) *out = std::move(config);
    return code;
}

bool SameOverride(const _HARDWARE_CONFIG_OVERRIDE& a, const _HARDWARE_CONFIG_OVERRIDE& b) {
    return a.flags == b.flags && a.option1 == b.option1 && a.option2 == b.option2 &&
           a.option3 == b.option3 && a.value0 == b.value0 && a.value1 == b.value1 &&
           std::memcmp(a.edgeAdjust, b.edgeAdjust, sizeof a.edgeAdjust) == 0;
}

}  // namespace

TFrameResult RunFrameRequest(CMtDevController& controller, const TFrameRequest& request,
                             const std::atomic<bool>& cancelled) {
    const TFrameOperation op = request.operation;
    TFrameResult result;
    if (cancelled.load()) return Stopped(op);
    DEV_ERR code = DE_OK;
    switch (op) {
        case TFrameOperation::ReadInfo: {
            _HARDWARE_DEV_INFO info{};
            code = controller.GetDeviceInfo(&info);
            if (code != DE_OK) return Failure(op, code);
            result.bytes.assign(info.bytes, info.bytes + sizeof info.bytes);
            return result;
        }
        case TFrameOperation::ReadStatus: {
            int size = 0;
            code = controller.GetDevStatus(nullptr, size);
            if (code != DE_OK) return Failure(op, code);
            if (size < 0 || size > kFrameStatusMaxBytes) {
                return Failure(op, DE_BAD_DATA_SIZE,
                               "the frame announces a status of " + std::to_string(size) + " bytes");
            }
            if (cancelled.load()) return Stopped(op);
            result.bytes.assign(static_cast<size_t>(size), 0);
            if (size > 0) {
                code = controller.GetDevStatus(result.bytes.data(), size);
                if (code != DE_OK) return Failure(op, code);
                result.bytes.resize(static_cast<size_t>(std::clamp(size, 0, kFrameStatusMaxBytes)));
            }
            return result;
        }
        case TFrameOperation::ReadConfig: {
            std::shared_ptr<_HARDWARE_DEV_CONFIG> config;
            code = ReadBack(controller, &config);
            if (code != DE_OK) return Failure(op, code);
            result.config = std::move(config);
            return result;
        }
        case TFrameOperation::WriteConfig: {
            if (!request.config) return Failure(op, DE_NULLPTR, "no configuration given");
            // The controller takes a mutable record; the request's stays as the client sent it.
            auto written = std::make_unique<_HARDWARE_DEV_CONFIG>(*request.config);
            code = controller.SetDeviceConfig(written.get());
            if (code != DE_OK) return Failure(op, code);
            if (cancelled.load()) return Stopped(op);
            std::shared_ptr<_HARDWARE_DEV_CONFIG> back;
            code = ReadBack(controller, &back);
            if (code != DE_OK) return Failure(op, code, "reading it back");
            if (const char* field = DevConfigFirstDifference(request.config.get(), back.get())) {
                TFrameResult differs = Failure(op, DE_DEV_FLASH,
                                               std::string("the frame holds another ") + field +
                                                   " after the write");
                differs.config = std::move(back);
                return differs;
            }
            result.config = std::move(back);
            return result;
        }
        case TFrameOperation::WriteOverride: {
            _HARDWARE_CONFIG_OVERRIDE written = request.override;
            code = controller.SetDeviceConfigOverride(&written);
            if (code != DE_OK) return Failure(op, code);
            if (cancelled.load()) return Stopped(op);
            std::shared_ptr<_HARDWARE_DEV_CONFIG> back;
            code = ReadBack(controller, &back);
            if (code != DE_OK) return Failure(op, code, "reading the configuration back");
            _HARDWARE_CONFIG_OVERRIDE held{};
            GetDevConfigOverride(back.get(), &held);
            // Without an area the frame has no edge adjustment to hold.
            if (back->areaCount == 0) std::memcpy(held.edgeAdjust, request.override.edgeAdjust, 4);
            if (!SameOverride(held, request.override)) {
                TFrameResult differs =
                    Failure(op, DE_DEV_FLASH, "the frame holds other values after the write");
                differs.config = std::move(back);
                return differs;
            }
            result.config = std::move(back);
            return result;
        }
        case TFrameOperation::ReadScanPattern: {
            int size = 0;
            code = controller.GetScanPatternFile(nullptr, size);
            if (code != DE_OK) return Failure(op, code);
            if (cancelled.load()) return Stopped(op);
            result.bytes.assign(static_cast<size_t>(size), 0);  // 6..MTDEV_SCAN_PATTERN_MAX
            code = controller.GetScanPatternFile(result.bytes.data(), size);
            if (code != DE_OK) return Failure(op, code);
            result.bytes.resize(static_cast<size_t>(std::clamp<int>(size, 0, static_cast<int>(result.bytes.size()))));
            return result;
        }
        case TFrameOperation::WriteScanPattern: {
            std::vector<uint8_t> data = request.bytes;  // the controller takes a mutable buffer
            code = controller.SetScanPatternFile(data.data(), static_cast<int>(data.size()));
            if (code != DE_OK) return Failure(op, code);
            return result;
        }
        case TFrameOperation::WriteTouchSystemFile: {
            std::vector<uint8_t> data = request.bytes;
            code = controller.SetTouchSystemFile(data.data(), static_cast<int>(data.size()));
            if (code != DE_OK) return Failure(op, code);
            return result;
        }
    }
    return Failure(op, DE_UNSUPPORT);
}

std::string DescribeConfig(const _HARDWARE_DEV_CONFIG& config) {
    const int areas = config.areaCount;
    const int panels = std::min<int>(config.panelCount, DEV_CONFIG_MAX_PANELS);
    int keys = 0;
    for (int i = 0; i < panels; ++i) {
        keys += std::min(config.panels[i].rows * config.panels[i].columns, DEV_CONFIG_MAX_KEYS);
    }
    std::string text = std::to_string(areas) + (areas == 1 ? " area, " : " areas, ") +
                       std::to_string(panels) + (panels == 1 ? " panel" : " panels");
    if (panels > 0) text += " (" + std::to_string(keys) + (keys == 1 ? " key)" : " keys)");
    return text;
}
