#include "SimBackend.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>

#include "StopSignalWaits.h"
#include "MtDevLog.h"
#include "QuotedText.h"

namespace {

// "[N:]KIND:COUNT[@AFTER]": a fault for simulated frame N (1 when not given).
bool ParseFaultOption(const std::string& text, int* device, TSimFault* fault) {
    *device = 1;
    std::string_view rest = text;
    const size_t colon = rest.find(':');
    if (colon != std::string_view::npos && colon > 0 &&
        rest.substr(0, colon).find_first_not_of("0123456789") == std::string_view::npos) {
        if (colon > 4) return false;
        *device = std::stoi(std::string(rest.substr(0, colon)));
        rest = rest.substr(colon + 1);
    }
    const std::optional<TSimFault> parsed = ParseSimFault(rest);
    if (!parsed || *device < 1) return false;
    *fault = *parsed;
    return true;
}

// Larger than any script a person writes or a recording of several minutes makes.
constexpr size_t kMaxScriptBytes = 64u << 20;

// A script may come through a FIFO; SIGINT or SIGTERM while its writer is awaited ends the
// wait: `stopSignal` is then set and the error says what was awaited.
bool ReadScriptFile(const std::string& path, std::string* text, std::string* error,
                    int* stopSignal) {
    const auto cannot = [&](const std::string& why) {
        *error = "cannot read gesture script " + QuotedText(path) + ": " + why;
        return false;
    };
    std::error_code ec;
    const std::filesystem::file_status status = std::filesystem::status(path, ec);
    if (ec) return cannot(ec.message());
    if (std::filesystem::is_directory(status)) {
        return cannot("it is a directory; name a .gesture file in it");
    }
    if (std::filesystem::is_fifo(status)) {
        TLog(TLogLevel::Info, "gesture script %s is a FIFO: waiting for a writer",
             QuotedText(path).c_str());
    }
    std::string why;
    const int result = ReadWholeFileWaiting(path, kMaxScriptBytes, text, &why);
    if (result < 0) return cannot(why);
    if (result > 0) {
        *stopSignal = result;
        *error = SignalName(result) + " while waiting for a writer to the gesture script " +
                 QuotedText(path) + ": stopping";
        return false;
    }
    return true;
}

}  // namespace

bool LoadGestureScriptFile(const std::string& path, CGestureScript* script,
                           TBackendFailure* failure) {
    std::string text, error;
    int stopSignal = 0;
    if (!ReadScriptFile(path, &text, &error, &stopSignal)) {
        // A stop asked for while waiting is the driver's ordinary end.
        *failure = {stopSignal != 0 ? 0 : 1, error};
        return false;
    }
    if (!CGestureScript::Parse(text, script, &error)) {
        *failure = {2, EscapedText(path) + ": " + error};
        return false;
    }
    if (script->Frames().empty()) {
        *failure = {2, EscapedText(path) + ": the script plays no frame; write at least one "
                                           "'down' line (docs/gesture-scripts.md)"};
        return false;
    }
    return true;
}

CSimBackend::CSimBackend(IMainLoop& loop, const DriverOptions& options,
                         CSimDevice::PortFactory makePort)
    : m_loop(loop), m_options(options), m_makePort(std::move(makePort)) {}

CSimBackend::~CSimBackend() = default;

bool CSimBackend::LoadSpecs(std::vector<TSimDeviceSpec>* specs, TBackendFailure* failure) const {
    for (const std::string& argument : m_options.simulate) {
        TSimDeviceSpec spec;
        std::string path, error;
        if (!ParseSimulateArgument(argument, &path, &spec.plugDelayMillis, &error)) {
            *failure = {2, error};
            return false;
        }
        if (!LoadGestureScriptFile(path, &spec.script, failure)) return false;
        spec.name = path;
        spec.vendorId = m_options.simulateVendor;
        spec.productId = m_options.simulateProduct;
        specs->push_back(std::move(spec));
    }
    for (const std::string& text : m_options.faults) {
        int device = 0;
        TSimFault fault;
        if (!ParseFaultOption(text, &device, &fault) ||
            static_cast<size_t>(device) > specs->size()) {
            *failure = {2, "--fault '" + text +
                               "': expected [N:]config:C, [N:]frame:C, [N:]poll:C[@K], "
                               "[N:]stall:C[@K], [N:]vanish:C[@K] or [N:]hold:C[@K] with N a "
                               "simulated frame (1.." +
                               std::to_string(specs->size()) + ")"};
            return false;
        }
        (*specs)[static_cast<size_t>(device) - 1].faults.push_back(fault);
    }
    return true;
}

bool CSimBackend::Open(TShellPorts* ports, TBackendFailure* failure) {
    std::vector<TSimDeviceSpec> specs;
    if (!LoadSpecs(&specs, failure)) return false;

    // Without --realtime the frames run on per-frame virtual timelines.
    if (!m_options.realtime) {
        m_timelines = std::make_unique<CSimTimelineClock>();
        m_installedClock.emplace(*m_timelines);
    }
    m_hub = std::make_unique<CSimDeviceHub>(m_loop, m_timelines.get());
    for (TSimDeviceSpec& spec : specs) m_hub->Add(std::move(spec));
    std::string error;
    if (!m_hub->Start(m_makePort, &error)) {
        *failure = {1, error};
        return false;
    }
    ports->hidManagers = m_hub.get();
    return true;
}

void CSimBackend::Stopping() {
    if (m_hub) m_hub->AbortAll();
}

void CSimBackend::OnFinished(std::function<void(int status)> finished) {
    if (!m_hub) return;
    m_hub->OnAllDone([finished = std::move(finished)] {
        TLog(TLogLevel::Info, "every simulated frame has been played");
        finished(0);
    });
}

void CSimBackend::Close() {
    // Before the records go: whether a frame was closed says what its worker did.
    if (!m_hub) return;
    for (const auto& device : m_hub->Devices()) TLog(TLogLevel::Info, "%s", device->Summary().c_str());
}
