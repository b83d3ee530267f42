#include "DriverOutputs.h"

#include <cerrno>
#include <cstring>

#include "MtDevLog.h"

bool CDriverOutputs::Open(TShellPorts* ports, TBackendFailure* failure) {
    m_ports = ports;
    if (m_options.dryRun && !OpenJson(ports, failure)) return false;
    if (m_options.tuio.enabled) OpenTuio(ports);
    return true;
}

void CDriverOutputs::OpenTuio(TShellPorts* ports) {
    m_tuio = std::make_unique<CTuioOutputs>(m_options.tuio);
    ports->contactListeners = [this, before = ports->contactListeners](int deviceNumber) {
        std::vector<IContactListener*> listeners;
        if (before) listeners = before(deviceNumber);
        listeners.push_back(m_tuio->ForDevice(deviceNumber));
        return listeners;
    };
}

bool CDriverOutputs::OpenJson(TShellPorts* ports, TBackendFailure* failure) {
    std::string error;
    // A file is replaced whole when the run ends (Finish), so it never holds half a run;
    // standard output is the stream to follow live. A FIFO is refused with the other nodes,
    // so no open waits for a reader.
    if (!m_output.Open(m_options.output, COutputFile::TExisting::Replace, &error)) {
        *failure = {1, error};
        return false;
    }
    m_writer = std::make_unique<CJsonLinesWriter>(m_output.Stream(),
                                                  [this](int) { WriteFailed(); });
    // Ending at once (wake from sleep) still puts the lines so far in place.
    ports->beforeImmediateExit = [this, before = ports->beforeImmediateExit] {
        if (before) before();
        Finish();
    };
    // The key namer is read when a frame's sink is made: a later backend gives it.
    ports->sinkForDevice = [this](int deviceNumber) -> CEventSink* {
        std::unique_ptr<CDeviceJsonSink>& sink = m_jsonSinks[deviceNumber];
        if (!sink) {
            sink = std::make_unique<CDeviceJsonSink>(*m_writer, deviceNumber, m_ports->keyNamer);
        }
        return sink.get();
    };
    return true;
}

void CDriverOutputs::OnFinished(std::function<void(int status)> finished) {
    m_finished = std::move(finished);
}

std::string CDriverOutputs::Failure() const {
    return "cannot write the JSON lines to " + m_output.Name() + ": " +
           std::strerror(m_output.Error() != 0 ? m_output.Error() : EIO);
}

bool CDriverOutputs::Finish() {
    if (!m_writer) return true;
    m_writer->Close();
    std::string error;
    if (m_output.Commit(&error)) return true;
    if (!m_failureSaid.exchange(true)) TLog(TLogLevel::Error, "irframed: %s", Failure().c_str());
    return false;
}

void CDriverOutputs::WriteFailed() {
    if (m_failureSaid.exchange(true)) return;
    // What helps depends on the cause.
    const int why = m_output.Error();
    const char* advice = why == ENOSPC || why == EDQUOT ? " (free some space)"
                         : why == EPIPE                 ? " (keep the reader of the pipe running)"
                                                        : "";
    TLog(TLogLevel::Error, "irframed: %s; ending%s", Failure().c_str(), advice);
    if (m_ports == nullptr || m_ports->loop == nullptr || !m_finished) return;
    m_ports->loop->Post([finished = m_finished] { finished(1); });
}
