#include "DriverOutputs.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "StopSignalWaits.h"
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
    std::ostream* out = &std::cout;
    if (m_options.output != "-") {
        // A FIFO without a reader would make the open wait where no signal can end it.
        const auto waiting = [this] {
            TLog(TLogLevel::Info, "'%s' is a FIFO: waiting for a reader", m_options.output.c_str());
        };
        if (const int signal = WaitForFifoReader(m_options.output, waiting)) {
            *failure = {0, SignalName(signal) + " while waiting for a reader of '" +
                               m_options.output + "': stopping"};
            return false;
        }
        m_file.open(m_options.output, std::ios::out | std::ios::trunc);
        if (!m_file) {
            *failure = {1, "cannot write '" + m_options.output + "': " + std::strerror(errno)};
            return false;
        }
        out = &m_file;
    }
    m_writer = std::make_unique<CJsonLinesWriter>(*out, [this](int error) { WriteFailed(error); });
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

void CDriverOutputs::WriteFailed(int error) {
    const std::string where =
        m_options.output == "-" ? "standard output" : "'" + m_options.output + "'";
    TLog(TLogLevel::Error,
         "irframed: cannot write the JSON lines to %s: %s; ending (free some space, or keep "
         "the reader of the pipe running)",
         where.c_str(), std::strerror(error));
    if (m_ports == nullptr || m_ports->loop == nullptr || !m_finished) return;
    m_ports->loop->Post([finished = m_finished] { finished(1); });
}
