// The dry-run output: one JSON object per event and line, with the number of the device that
// posted it first ({"device":2,...}); the other fields are CJsonLinesEventSink's. Devices count
// from 1 in the order the driver found them. Lines of all devices go to one stream, whole and
// in the order they were posted. With a key namer, key lines end with "linuxKeys".
#pragma once

#include <functional>
#include <iosfwd>
#include <mutex>
#include <string>

#include "EventSink.h"

class CJsonLinesWriter {
public:
    // `failed` runs once, on the writing thread, when a line cannot be written (a full disk, a
    // closed pipe), with the errno of the failure; later lines are dropped.
    explicit CJsonLinesWriter(std::ostream& out, std::function<void(int error)> failed = {})
        : m_out(out), m_failed(std::move(failed)) {}
    // Writes the line and a newline, and flushes.
    void WriteLine(const std::string& line);
    // Drops every later line (the output is being closed).
    void Close();

private:
    std::mutex m_mutex;
    std::ostream& m_out;
    std::function<void(int error)> m_failed;
    bool m_broken = false;
};

class CDeviceJsonSink final : public CEventSink {
public:
    CDeviceJsonSink(CJsonLinesWriter& writer, int deviceNumber, TKeyNamer linuxKeys = {})
        : m_writer(writer), m_deviceNumber(deviceNumber), m_linuxKeys(std::move(linuxKeys)) {}
    void Post(const TInputEvent& event) override;

    static std::string ToJsonLine(const TInputEvent& event, int deviceNumber,
                                  const TKeyNamer& linuxKeys = {});

private:
    CJsonLinesWriter& m_writer;
    const int m_deviceNumber;
    const TKeyNamer m_linuxKeys;
};
