#include "DeviceJsonSink.h"

#include <cerrno>
#include <ostream>

void CJsonLinesWriter::WriteLine(const std::string& line) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_broken) return;
    errno = 0;
    m_out << line << '\n';
    m_out.flush();
    if (m_out) return;
    m_broken = true;
    if (m_failed) m_failed(errno != 0 ? errno : EIO);
}

void CJsonLinesWriter::Close() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_broken = true;
}

std::string CDeviceJsonSink::ToJsonLine(const TInputEvent& event, int deviceNumber,
                                        const TKeyNamer& linuxKeys) {
    const std::string fields = CJsonLinesEventSink::ToJsonLine(event, linuxKeys);
    std::string line = "{\"device\":" + std::to_string(deviceNumber);
    // The event's own object, opened by its brace: splice its members in after ours.
    if (fields.size() > 2 && fields.front() == '{') {
        line += ',';
        line.append(fields, 1, std::string::npos);
    } else {
        line += '}';
    }
    return line;
}

void CDeviceJsonSink::Post(const TInputEvent& event) {
    m_writer.WriteLine(ToJsonLine(event, m_deviceNumber, m_linuxKeys));
}
