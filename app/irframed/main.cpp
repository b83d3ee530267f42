// irframed: the touch-frame driver.
//
// Wires the backends to the service shell and runs the main loop until the driver is asked to
// end (a signal, a later instance, wake from sleep) or, in simulation, until every emulated
// frame has been played.
#include <pthread.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "ConfigReload.h"
#include "DevConfigJson.h"
#include "DeviceListControl.h"
#include "DriverOutputs.h"
#include "LinuxBackend.h"
#include "LinuxConfigChecks.h"
#include "LoadEvent.h"
#include "MtDevLog.h"
#include "OutputFile.h"
#include "ParseDriverOptions.h"
#include "SdEventLoop.h"
#include "SimBackend.h"

namespace {

int Fail(const std::string& message, int status) {
    std::fprintf(stderr, "irframed: %s\n", message.c_str());
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    COutputFile::GuardStandardDescriptors();
    // A closed pipe on standard output is a write error to report, not a silent death.
    std::signal(SIGPIPE, SIG_IGN);
    // SIGHUP reloads the configuration once the loop runs; until then it waits, blocked,
    // rather than ending the driver.
    sigset_t hangup;
    sigemptyset(&hangup);
    sigaddset(&hangup, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &hangup, nullptr);

    DriverOptions options;
    if (const std::optional<int> status =
            ParseDriverOptions(argc, argv, &options, LinuxConfigChecks())) {
        return *status;
    }
    ApplyLogOptions(options);
    if (!options.configFile.empty()) {
        TLog(TLogLevel::Info, "configuration %s", options.configFile.c_str());
    }
    for (const std::string& line : options.configSkipped) {
        TLog(TLogLevel::Warning, "%s", line.c_str());
    }

    // The loop first: it blocks SIGTERM and SIGINT for every thread started after it.
    std::string error;
    std::unique_ptr<CSdEventLoop> loop = CSdEventLoop::Create(&error);
    if (!loop) return Fail(error, kExitCannotStart);

    // The shell first: tools reach its frames through the control (the D-Bus interface), which
    // the backends need as they open. Both outlive the backends; the backends fill the ports
    // before the shell starts.
    TShellPorts ports;
    LoadEvent shell(ports);
    CDriverControl control(shell.State());
    // Opened in this order; the emulated frames' checks come before anything is created.
    std::vector<std::unique_ptr<IShellBackend>> backends;
    if (options.Simulating()) {
        backends.push_back(
            std::make_unique<CSimBackend>(*loop, options, &CLinuxBackend::AdoptHidPort));
    }
    auto outputs = std::make_unique<CDriverOutputs>(options);
    CDriverOutputs& driverOutputs = *outputs;
    backends.push_back(std::move(outputs));
    // The bus interface hands out and takes configurations as the JSON of irframectl.
    const TConfigJsonCodec codec{DevConfigToJson, DevConfigFromJson, DevConfigOverrideFromJson};
    backends.push_back(std::make_unique<CLinuxBackend>(*loop, options, &control, codec));
    for (const std::unique_ptr<IShellBackend>& backend : backends) {
        TBackendFailure failure;
        if (!backend->Open(&ports, &failure)) return Fail(failure.message, failure.exitStatus);
    }

    loop->OnTerminationSignal([&](int signal) {
        TLog(TLogLevel::Info, "%s: stopping", signal == SIGINT ? "SIGINT" : "SIGTERM");
        for (const std::unique_ptr<IShellBackend>& backend : backends) backend->Stopping();
        shell.Terminate(kExitOk);
    });
    for (const std::unique_ptr<IShellBackend>& backend : backends) {
        backend->OnFinished([&shell](int status) { shell.Terminate(status); });
    }
    const auto reload = [&] {
        return ReloadDriverConfiguration(LinuxConfigChecks(), &options, [&] {
            ApplyLogOptions(options);
            for (const std::unique_ptr<IShellBackend>& backend : backends) {
                backend->OptionsChanged();
            }
        });
    };
    loop->OnReloadSignal([&] {
        TLog(TLogLevel::Info, "SIGHUP: reading the configuration again");
        reload();
    });
    control.SetReload([&] {
        const TReloadResult result = reload();
        return TReloadAnswer{result.reloaded, result.message, result.restartNeeded};
    });
    shell.init();
    int status = loop->Run();
    if (!driverOutputs.Finish() && status == kExitOk) status = kExitCannotStart;

    // The orderly end waited for the workers; free what they used only if they all ended.
    if (shell.LiveWorkerCount() != 0) {
        std::fflush(nullptr);
        std::_Exit(status);
    }
    shell.CloseManagers();
    for (const std::unique_ptr<IShellBackend>& backend : backends) backend->Close();
    ReleaseDeviceList();
    return status;
}
