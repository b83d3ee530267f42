#include "DriverOutputs.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "MtDevLog.h"

bool CDriverOutputs::Open(TShellPorts* ports, TBackendFailure* failure) {
    if (!m_options.dryRun) return true;
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
