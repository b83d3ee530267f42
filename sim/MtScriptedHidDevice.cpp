#include "MtScriptedHidDevice.h"

#include "MultiPlatformAPI.h"

int CMtScriptedHidDevice::Open() {
    if (m_openFails) return kMtHidError;
    m_open = true;
    ++m_openCount;
    return kMtHidSuccess;
}

void CMtScriptedHidDevice::Close() {
    m_open = false;
}

void CMtScriptedHidDevice::RegisterInputReportCallback(TMtHidReportCallback callback,
                                                       void* context) {
    m_callback = callback;
    m_context = context;
}

int CMtScriptedHidDevice::SetOutputReport(const uint8_t* report, long length) {
    if (!m_open || m_gone || m_writeFails || report == nullptr || length < 0) return kMtHidError;
    m_outputs.emplace_back(report, report + length);
    if (m_responder) m_responder(report, length, &m_pending);
    return kMtHidSuccess;
}

void CMtScriptedHidDevice::BeginWait(unsigned timeoutMs) {
    m_waits.push_back(timeoutMs);
    m_waitMs = timeoutMs;
    m_timerFired = false;
}

TMtHidRun CMtScriptedHidDevice::RunWait() {
    if (!m_open || m_gone) return TMtHidRun::Gone;
    if (!m_pending.empty()) {
        std::vector<TScriptedInput> inputs;
        inputs.swap(m_pending);
        for (TScriptedInput& input : inputs) {
            void* sender = input.foreign ? static_cast<void*>(&m_foreignTag)
                                         : static_cast<void*>(static_cast<CMtHidDevice*>(this));
            if (m_callback != nullptr) {
                m_callback(m_context, input.result, sender, kMtHidReportTypeInput, 0,
                           input.bytes.data(), static_cast<long>(input.bytes.size()));
            }
        }
        return TMtHidRun::Delivered;
    }
    if (!m_timerFired) {
        m_timerFired = true;
        TSleepMicros(static_cast<uint64_t>(m_waitMs) * 1000u);
    }
    return TMtHidRun::TimedOut;
}
