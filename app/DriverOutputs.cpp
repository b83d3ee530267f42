#include "DriverOutputs.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "MtDevLog.h"

bool CDriverOutputs::Open(TShellPorts* ports, TBackendFailure* failure) {
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
        m_file.open(m_options.output, std::ios::out | std::ios::trunc);
        if (!m_file) {
            *failure = {1, "cannot write '" + m_options.output + "': " + std::strerror(errno)};
            return false;
        }
        out = &m_file;
    }
    m_writer = std::make_unique<CJsonLinesWriter>(*out);
    ports->sinkForDevice = [this](int deviceNumber) -> CEventSink* {
        std::unique_ptr<CDeviceJsonSink>& sink = m_jsonSinks[deviceNumber];
        if (!sink) sink = std::make_unique<CDeviceJsonSink>(*m_writer, deviceNumber);
        return sink.get();
    };
    return true;
}
