#include "TuioOutput.h"

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <optional>

#include "MtDevLog.h"

namespace {

// Runs one step of the output: a failure stops this output with one warning, never the worker.
template <typename Step>
std::optional<std::string> Failure(Step&& step) {
    try {
        step();
        return std::nullopt;
    } catch (const std::exception& e) {
        return std::string("output stopped: ") + e.what();
    } catch (...) {
        return std::string("output stopped");
    }
}

constexpr uint32_t kRecordAddress = 0x7F000001;  // the record's defaults: 127.0.0.1:3333
constexpr uint16_t kRecordPort = 3333;

std::string Dotted(uint32_t address) {
    return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 0xFF) + "." +
           std::to_string((address >> 8) & 0xFF) + "." + std::to_string(address & 0xFF);
}

std::string AreaName(int area) {
    return area < 0 ? std::string("(no areas)") : "area " + std::to_string(area);
}

// NaN and anything below 0 give 0, anything above 1 gives 1.
float Clamp01(float v) {
    if (!(v >= 0.0f)) return 0.0f;
    return v <= 1.0f ? v : 1.0f;
}

// The turns of the HID output, on fractions.
void Rotate(uint8_t rotation, float* x, float* y) {
    const float u = *x;
    const float v = *y;
    switch (rotation) {
        case 0:
            return;
        case 1:
            *x = v;
            *y = 1.0f - u;
            return;
        case 2:
            *x = 1.0f - u;
            *y = 1.0f - v;
            return;
        default:
            *x = 1.0f - v;
            *y = u;
            return;
    }
}

size_t BundleLimit(size_t bytes) {
    return std::clamp(bytes, kTuioMinBundleBytes, kTuioMaxBundleBytes);
}

}  // namespace

TTuioAreaTarget ResolveTuioAreaTarget(const TTuioSettings& settings, int area,
                                      uint32_t frameAddress, uint16_t framePort) {
    const std::string* text = settings.target.empty() ? nullptr : &settings.target;
    if (area >= 0) {
        if (const auto it = settings.areaTargets.find(area); it != settings.areaTargets.end()) {
            text = &it->second;
        }
    }
    if (text != nullptr) {
        TTuioAreaTarget result;
        result.target = ParseTuioTarget(*text, &result.problem);
        return result;
    }
    const std::string device = Dotted(frameAddress) + ":" + std::to_string(framePort);
    if (frameAddress == 0 || framePort == 0) {
        return {std::nullopt, "the frame gives no target (" + device + ")"};
    }
    if ((frameAddress >> 24) != 127 && !settings.allowDeviceTargets) {
        return {std::nullopt, "the frame's target " + device +
                                  " is not on this machine and allow_device_targets is off"};
    }
    return {TTuioTarget{Dotted(frameAddress), framePort}, {}};
}

std::string TuioHostName() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "localhost";
    return name;
}

// ---------------------------------------------------------------------------------------------

struct CTuioOutput::TOut {
    TTuioTarget target;
    std::string areas;  // for messages: "area 0, area 2"
    std::unique_ptr<ITuioSocket> socket;
    std::unique_ptr<CTuioStream> stream;
    std::vector<TTuioCursor> pending;  // this frame's cursors
    bool failed = false;               // a send failed: warned once
};

CTuioOutput::CTuioOutput(const TTuioSettings& settings, std::atomic<int32_t>& sessions,
                         TTuioSocketFactory open, std::string hostName)
    : m_settings(settings), m_sessions(sessions), m_open(std::move(open)),
      m_hostName(std::move(hostName)) {
    m_points.reserve(CTuioStream::kMaxCursors);
}

CTuioOutput::~CTuioOutput() = default;

void CTuioOutput::Warn(const std::string& text) const {
    TLog(TLogLevel::Warning, "frame %d (%s): TUIO %s", m_device, m_name.c_str(), text.c_str());
}

void CTuioOutput::OnFrameReady(const TContactSource& source) {
    if (const std::optional<std::string> why = Failure([&] { Ready(source); })) {
        m_ready = false;
        Warn(*why);
    }
}

void CTuioOutput::OnContacts(const TContactFrame& frame) {
    if (!m_ready) return;
    if (const std::optional<std::string> why = Failure([&] { Contacts(frame); })) {
        m_ready = false;
        Warn(*why);
    }
}

void CTuioOutput::OnConfigChanged(const TContactSource& source) {
    if (m_ready) {
        if (const std::optional<std::string> why = Failure([&] { End(); })) Warn(*why);
    }
    OnFrameReady(source);
}

void CTuioOutput::OnFrameEnd(int device) {
    if (!m_ready || device != m_device) return;
    if (const std::optional<std::string> why = Failure([&] { End(); })) Warn(*why);
    m_ready = false;
    // The listener stays for the run (frame numbers are not reused): keep nothing of the frame.
    m_routes.clear();
    m_streams.clear();
    m_calibration.FreeCalibrateSys();
}

std::vector<TTuioTarget> CTuioOutput::Targets() const {
    std::vector<TTuioTarget> targets;
    for (const auto& out : m_streams) targets.push_back(out->target);
    return targets;
}

int CTuioOutput::StreamFor(const TTuioTarget& target, const std::string& areaName) {
    for (size_t i = 0; i < m_streams.size(); ++i) {
        if (m_streams[i]->target == target) {
            m_streams[i]->areas += ", " + areaName;
            return static_cast<int>(i);
        }
    }
    std::string error;
    std::unique_ptr<ITuioSocket> socket = m_open ? m_open(target, &error) : nullptr;
    if (!socket) {
        Warn(areaName + ": cannot send to " + FormatTuioTarget(target) + ": " + error);
        return -1;
    }
    auto out = std::make_unique<TOut>();
    out->target = target;
    out->areas = areaName;
    out->pending.reserve(CTuioStream::kMaxCursors);
    CTuioStream::TOptions options;
    options.source = "irframe-" + std::to_string(m_device) + "@" + m_hostName;
    options.maxBundleBytes = BundleLimit(socket->Loopback() ? m_settings.maxLoopbackBundleBytes
                                                            : m_settings.maxBundleBytes);
    options.refreshMicros = m_settings.refreshMicros;
    out->socket = std::move(socket);
    TOut* raw = out.get();
    out->stream = std::make_unique<CTuioStream>(
        options, m_sessions, [this, raw](std::span<const uint8_t> bundle) {
            std::string error;
            if (raw->socket->Send(bundle, &error) || raw->failed) return;
            raw->failed = true;
            Warn(raw->areas + ": sending to " + FormatTuioTarget(raw->target) +
                 " failed: " + error + " (not repeated)");
        });
    m_streams.push_back(std::move(out));
    return static_cast<int>(m_streams.size() - 1);
}

void CTuioOutput::Ready(const TContactSource& source) {
    m_ready = false;
    m_routes.clear();
    m_streams.clear();
    m_device = source.device;
    m_name = source.name;
    if (!m_calibration.InitCalibrateSys(source.config, source.geometry)) {
        Warn("no usable frame geometry; nothing is sent");
        return;
    }
    const _HARDWARE_DEV_CONFIG* config = source.config;

    // The calibration keeps the usable areas, newest first; find their indexes the way it
    // chose them.
    std::vector<int> usable;
    if (config != nullptr && (config->flags & DEV_FLAG_AREAS_ENABLED) != 0) {
        const int count = std::min<int>(config->areaCount, DEV_CONFIG_MAX_AREAS);
        for (int i = 0; i < count; ++i) {
            const _HCRECT_CONFIG_FILE* area = &config->areas[i];
            if (!CCalibrateSystem::CheckCalRectConfig(area)) continue;
            _CAL_COORDINATE_INFO* probe =
                InitCoordinateInfo(area, source.geometry, m_calibration.Blend());
            if (probe == nullptr) continue;
            FreeCoordinateInfo(probe);
            usable.push_back(i);
        }
    }
    size_t k = usable.size();
    for (const _CAL_COORDINATE_INFO* a = m_calibration.Areas(); a != nullptr; a = a->next) {
        if (k == 0) break;
        const int index = usable[--k];
        const _HCRECT_CONFIG_FILE& area = config->areas[index];
        TRoute route{a, -1, a->rotation};
        const TTuioAreaTarget target =
            ResolveTuioAreaTarget(m_settings, index, area.netAddress, area.port);
        if (target.target) {
            route.stream = StreamFor(*target.target, AreaName(index));
        } else {
            Warn(AreaName(index) + ": " + target.problem + "; nothing is sent for it");
        }
        m_routes.push_back(route);
    }
    if (m_calibration.Areas() == nullptr) {
        const uint32_t address = config != nullptr ? config->netAddress : kRecordAddress;
        const uint16_t port = config != nullptr ? config->port : kRecordPort;
        TRoute route;
        const TTuioAreaTarget target = ResolveTuioAreaTarget(m_settings, -1, address, port);
        if (target.target) {
            route.stream = StreamFor(*target.target, AreaName(-1));
        } else {
            Warn(AreaName(-1) + ": " + target.problem + "; nothing is sent");
        }
        m_routes.push_back(route);
    }
    for (const auto& out : m_streams) out->stream->Start();
    m_ready = true;
}

const CTuioOutput::TRoute* CTuioOutput::RouteOf(const _CAL_COORDINATE_INFO* info) const {
    for (const TRoute& route : m_routes) {
        if (route.info == info) return &route;
    }
    return nullptr;
}

void CTuioOutput::Contacts(const TContactFrame& frame) {
    // A copy of the contact list for this output's own calibration.
    m_points.clear();
    for (const TContact& c : frame.contacts) {
        if (c.retired) continue;  // not in the frame: leaves `alive`
        if (m_points.size() == m_points.capacity()) break;
        _HARDWARE_SDK_POINT p{};
        p.id = c.id;
        p.status = c.status;
        p.rawX = c.rawX;
        p.rawY = c.rawY;
        m_points.push_back(p);
    }
    for (size_t i = 0; i < m_points.size(); ++i) {
        m_points[i].next = i + 1 < m_points.size() ? &m_points[i + 1] : nullptr;
    }
    _HARDWARE_FRAME_SDK record{};
    record.points = m_points.empty() ? nullptr : m_points.data();
    m_calibration.CalFramePoint(&record);
    m_calibration.GetTuioCoords(&record);

    for (const auto& out : m_streams) out->pending.clear();
    for (const _HARDWARE_SDK_POINT& p : m_points) {
        if (p.status >= kContactLifted) continue;  // ended: leaves `alive`
        if (p.cell[0] == CAL_CELL_OUTSIDE && p.cell[1] == CAL_CELL_OUTSIDE) continue;
        // A contact on a button panel maps through the panel, which has no route.
        const _CAL_POINT_SLOT* slot = m_calibration.Slot(p.id);
        const TRoute* route = RouteOf(slot->info);
        if (route == nullptr || route->stream < 0) continue;

        float x = SdkPointFloat(p.x);
        float y = SdkPointFloat(p.y);
        if (const _CAL_COORDINATE_INFO* info = slot->info) {
            // At or above the area's top edge the fraction form leaves y in output units and
            // zeroes x: take the top edge and x from the contact's own position instead.
            const _HC_RECT32& r = info->floatRect;
            if (!(slot->y > static_cast<float>(r.y)) && r.width > 0) {
                y = 0.0f;
                x = (slot->x - static_cast<float>(r.x)) / static_cast<float>(r.width);
            }
        }
        x = Clamp01(x);
        y = Clamp01(y);
        Rotate(route->rotation, &x, &y);
        m_streams[static_cast<size_t>(route->stream)]->pending.push_back({p.id, x, y});
    }

    const int64_t micros = TuioFrameMicros(frame.timeStamp);
    for (const auto& out : m_streams) out->stream->Frame(micros, out->pending);
}

void CTuioOutput::End() {
    for (const auto& out : m_streams) out->stream->Stop();
}

// ---------------------------------------------------------------------------------------------

CTuioOutputs::CTuioOutputs(TTuioSettings settings, TTuioSocketFactory open, std::string hostName)
    : m_settings(std::move(settings)), m_open(std::move(open)), m_hostName(std::move(hostName)) {}

IContactListener* CTuioOutputs::ForDevice(int device) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::unique_ptr<CTuioOutput>& output = m_outputs[device];
    if (!output) output = std::make_unique<CTuioOutput>(m_settings, m_sessions, m_open, m_hostName);
    return output.get();
}
