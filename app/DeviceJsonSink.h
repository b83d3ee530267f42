// The dry-run output: one JSON object per event and line, with the number of the device that
// posted it first ({"device":2,...}); the other fields are CJsonLinesEventSink's. Devices count
// from 1 in the order the driver found them. Lines of all devices go to one stream, whole and
// in the order they were posted.
#pragma once

#include <iosfwd>
#include <mutex>
#include <string>

#include "EventSink.h"

class CJsonLinesWriter {
public:
    explicit CJsonLinesWriter(std::ostream& out) : m_out(out) {}
    // Writes the line and a newline, and flushes.
    void WriteLine(const std::string& line);

private:
    std::mutex m_mutex;
    std::ostream& m_out;
};

class CDeviceJsonSink final : public CEventSink {
public:
    CDeviceJsonSink(CJsonLinesWriter& writer, int deviceNumber)
        : m_writer(writer), m_deviceNumber(deviceNumber) {}
    void Post(const TInputEvent& event) override;

    static std::string ToJsonLine(const TInputEvent& event, int deviceNumber);

private:
    CJsonLinesWriter& m_writer;
    const int m_deviceNumber;
};
