// An in-process HID device driven by a script, for checks that need full control over what
// arrives: reports from another device, reports with an error result, arbitrary bytes.
//
// Every output report is recorded and handed to an optional responder, which queues the input
// reports that answer it. A wait delivers everything queued; with nothing queued it waits its
// time-out on the system clock (TSleepMicros, so a virtual clock makes it instant) and times out.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "MtDevPorts.h"

struct TScriptedInput {
    std::vector<uint8_t> bytes;
    int result = kMtHidSuccess;  // the report's result as the platform gives it
    bool foreign = false;        // sent by another device
};

class CMtScriptedHidDevice final : public CMtHidDevice {
public:
    using Responder = std::function<void(const uint8_t* report, long length,
                                         std::vector<TScriptedInput>* inputs)>;

    void SetResponder(Responder responder) { m_responder = std::move(responder); }
    void QueueInput(TScriptedInput input) { m_pending.push_back(std::move(input)); }
    void SetOpenFails(bool fails) { m_openFails = fails; }
    void SetWriteFails(bool fails) { m_writeFails = fails; }
    // The device goes away: waits end at once.
    void SetGone(bool gone) { m_gone = gone; }

    const std::vector<std::vector<uint8_t>>& Outputs() const { return m_outputs; }
    // Time-outs of the waits begun so far.
    const std::vector<unsigned>& Waits() const { return m_waits; }
    size_t PendingInputs() const { return m_pending.size(); }
    bool IsOpen() const { return m_open; }
    int OpenCount() const { return m_openCount; }

    int Open() override;
    void Close() override;
    void RegisterInputReportCallback(TMtHidReportCallback callback, void* context) override;
    int SetOutputReport(const uint8_t* report, long length) override;
    void BeginWait(unsigned timeoutMs) override;
    TMtHidRun RunWait() override;
    void EndWait() override {}

private:
    Responder m_responder;
    std::vector<TScriptedInput> m_pending;
    std::vector<std::vector<uint8_t>> m_outputs;
    std::vector<unsigned> m_waits;
    TMtHidReportCallback m_callback = nullptr;
    void* m_context = nullptr;
    unsigned m_waitMs = 0;
    bool m_timerFired = false;
    bool m_openFails = false;
    bool m_writeFails = false;
    bool m_gone = false;
    bool m_open = false;
    int m_openCount = 0;
    int m_foreignTag = 0;  // its address stands for the other device
};
