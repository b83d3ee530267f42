// The device list as tools see it (ports/DriverControl.h): the frames a shell found, their
// descriptions, and tools' requests handed to each frame's slot (FrameSlot.h).
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "DriverControl.h"
#include "ShellState.h"

// The control over the device list of one shell. One at a time; main thread.
class CDriverControl final : public IDriverControl {
public:
    // Refusals are posted to the shell's main loop (none: delivered at once).
    explicit CDriverControl(CShellState& shell) : m_shell(shell) {}

    std::vector<int> FrameNumbers() const override;
    std::optional<TFrameDescription> DescribeFrame(int number) const override;
    void Submit(int number, TFrameRequest request, TDone done) override;
    bool Cancel(int number) override;
    bool HoldGestures(int number, bool held) override;
    TTransferProgress Progress(int number) const override;
    void SetEvents(IDriverEvents* events) override { m_shell.SetEvents(events); }
    std::optional<TReloadAnswer> Reload() override;
    // What Reload does; unset, there is no reload.
    void SetReload(std::function<TReloadAnswer()> reload) { m_reload = std::move(reload); }

    // Real time between two re-assertions of a cancel (a cancel that falls between two steps of
    // a request would otherwise be cleared by the next step).
    static constexpr uint64_t kCancelRepeatMillis = 100;

private:
    CShellState& m_shell;
    std::function<TReloadAnswer()> m_reload;
};
