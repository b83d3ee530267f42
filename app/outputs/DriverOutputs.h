// Where the frames' events and contacts go besides the backend's own devices: the dry run's JSON
// lines (standard output or a file), and the TUIO output. Outputs that listen to the contact
// stream are added here and chained after the listeners already in the ports.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "DeviceJsonSink.h"
#include "DriverOptions.h"
#include "OutputFile.h"
#include "ShellBackend.h"
#include "TuioOutput.h"

class CDriverOutputs final : public IShellBackend {
public:
    explicit CDriverOutputs(const DriverOptions& options) : m_options(options) {}

    // Opens the JSON output of a dry run (its lines replace the backend's event sink) and the
    // TUIO output when asked for.
    bool Open(TShellPorts* ports, TBackendFailure* failure) override;
    // A JSON line that cannot be written ends the run with status 1.
    void OnFinished(std::function<void(int status)> finished) override;
    // The run has ended: later lines are dropped, and the JSON lines put in place (a file is
    // replaced only now, whole). False, said once, when a line was lost.
    bool Finish();

private:
    void WriteFailed();  // any thread
    std::string Failure() const;
    bool OpenJson(TShellPorts* ports, TBackendFailure* failure);
    void OpenTuio(TShellPorts* ports);

    const DriverOptions& m_options;
    const TShellPorts* m_ports = nullptr;
    std::function<void(int status)> m_finished;
    COutputFile m_output;
    std::atomic<bool> m_failureSaid{false};
    std::unique_ptr<CJsonLinesWriter> m_writer;
    std::map<int, std::unique_ptr<CDeviceJsonSink>> m_jsonSinks;  // main thread
    std::unique_ptr<CTuioOutputs> m_tuio;
};
