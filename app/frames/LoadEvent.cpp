#include "LoadEvent.h"

#include <cstdio>
#include <cstdlib>

#include "MtDevLog.h"
#include "Parameter.h"

MtDevNode* cmtDevHead = nullptr;

namespace {

// The state of the shell whose discovery reported `device`; null when none did.
CShellState* ShellOf(const CMtHidDevice* device) {
    return static_cast<CShellState*>(device->Keeper());
}

// A new record takes its shell's ports, listeners and stop flag before its worker starts.
void JoinShell(MtDevNode* node, CShellState* shell) {
    node->frame.shell = shell;
    TWorkerContext& worker = node->worker;
    worker.stopping = &shell->Stopping();
    worker.ports = &shell->Ports();
    worker.ended = [shell] { shell->WorkerEnded(); };
    const TShellPorts& ports = shell->Ports();
    if (ports.sinkForDevice) node->container.SetEventSink(ports.sinkForDevice(node->deviceNumber));
    if (ports.contactListeners) worker.listeners = ports.contactListeners(node->deviceNumber);
    if (ports.firstContactListeners) {
        worker.firstListeners = ports.firstContactListeners(node->deviceNumber);
    }
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Device list

MtDevNode* insertDevNode(CMtHidDevice* device) {
    for (MtDevNode* node = cmtDevHead; node != nullptr; node = node->next) {
        if (node->devPath != nullptr && node->devPath->hidDevice != nullptr &&
            node->devPath->hidDevice == device && node->devPath->usbService == nullptr) {
            return node;
        }
    }
    // Value-initialised: every field, the controller and the container start in their zero
    // state. (Filling live C++ objects with zero bytes would be undefined behaviour.)
    auto* node = new MtDevNode();
    node->devPath = new TMACDEVICEPATH{device, nullptr, kHidDeviceType};
    node->faildCount = kInitialFaildCount;
    node->hidDevice = device;
    // Records are only ever added at the head: the head holds the highest number.
    node->deviceNumber = cmtDevHead != nullptr ? cmtDevHead->deviceNumber + 1 : 1;
    if (CShellState* shell = ShellOf(device)) JoinShell(node, shell);
    node->next = cmtDevHead;
    cmtDevHead = node;
    return node;
}

void removeDevice(CMtHidDevice* device) {
    MtDevNode* node = cmtDevHead;
    while (node != nullptr && !(node->devPath != nullptr && node->devPath->hidDevice == device &&
                                node->devPath->usbService == nullptr)) {
        node = node->next;
    }
    if (node == nullptr) return;
    node->removed.store(true);
    node->isRunning.store(false);
    node->container.releaseClick();
    TLogSystem("TOUCH DEV RELEASE");
    TLog(TLogLevel::Info, "frame %d removed: %s", node->deviceNumber,
         DescribeHidIdentity(device->Identity()).c_str());
    if (node->frame.present) {
        // Tools see the state go to "gone" before the frame leaves the list.
        const CShellState* shell = node->frame.shell;
        node->frame.SetState(node->deviceNumber, TFrameState::Gone);
        if (shell != nullptr) shell->FrameChanged(node->deviceNumber);
        node->frame.present = false;
        if (shell != nullptr) shell->FrameRemoved(node->deviceNumber);
    }
}

void hidDeviceAdd(void*, int, void*, CMtHidDevice* device) {
    TLogSystem("hid add");
    MtDevNode* node = insertDevNode(device);
    TLog(TLogLevel::Info, "frame %d found: %s", node->deviceNumber,
         DescribeHidIdentity(device->Identity()).c_str());
    const bool appeared = !node->frame.present;
    node->frame.present = true;
    node->frame.SetState(node->deviceNumber, TFrameState::Opening);
    // The record's shell counts its workers; a record no shell made has nobody to tell.
    CShellState* shell = node->frame.shell;
    if (shell != nullptr && appeared) shell->FrameAdded(node->deviceNumber);
    if (shell != nullptr) shell->WorkerStarted();
    node->thread = TCreateThread(&test, node);
    node->workers.push_back(node->thread);
    if (shell != nullptr && !node->thread->IsStarted()) shell->WorkerEnded();  // it never ran
}

void hidDeviceRemove(void*, int, void*, CMtHidDevice* device) {
    TLogSystem("remove");
    removeDevice(device);
}

void ReleaseDeviceList() {
    while (cmtDevHead != nullptr) {
        MtDevNode* node = cmtDevHead;
        cmtDevHead = node->next;
        for (CkorFrameThread* worker : node->workers) TCloseThread(worker);  // joins
        delete node->devPath;
        delete node;
    }
}

// ---------------------------------------------------------------------------------------------
// Application object

LoadEvent::LoadEvent(const TShellPorts& ports)
    : m_state(std::make_unique<CShellState>(ports)), m_ports(ports) {}

LoadEvent::~LoadEvent() {
    if (m_state->LiveWorkers() == 0) return;
    StopAllWorkers();
    if (!m_state->WaitForWorkers(kWorkerStopMillis)) {
        // A worker stuck in a transaction still reads the state: it is left to the process.
        TLog(TLogLevel::Warning, "%d frame worker(s) did not stop; their state is kept",
             m_state->LiveWorkers());
        ReleaseAllClicks();
        (void)m_state.release();
    }
}

void LoadEvent::StopAllWorkers() {
    // Each worker releases its own button and closes its device as it ends: a release from
    // here could be followed by one more frame of the worker pressing it again.
    m_state->StopWorkers();
    for (MtDevNode* node = cmtDevHead; node != nullptr; node = node->next) {
        if (node->frame.shell == m_state.get()) node->isRunning.store(false);
    }
}

void LoadEvent::ReleaseAllClicks() {
    for (MtDevNode* node = cmtDevHead; node != nullptr; node = node->next) {
        if (node->frame.shell == m_state.get()) node->container.releaseClick();
    }
}

LoadEvent* LoadEvent::init() {
    runProgram();
    return this;
}

void LoadEvent::runProgram() {
    initVar();
    RegisterHidDeviceNotification();  // the result is not used
}

void LoadEvent::initVar() {
    cmtDevHead = nullptr;

    const std::optional<TScreenRect> screen =
        m_ports.screen != nullptr ? m_ports.screen->MainScreenFrame() : std::nullopt;
    const TScreenRect frame = screen.value_or(TScreenRect{});
    nWidth = static_cast<int32_t>(frame.width);
    nLength = static_cast<int32_t>(frame.height);

    // Registered, and never posted by anything: kept as the shell always had it.
    m_localObservers.push_back(kNotifyOpenThread);

    if (m_ports.notifications != nullptr) {
        // Announce first, then answer later instances: a running instance ends, this one stays.
        m_ports.notifications->PostDistributed(kNotifyWindowExist);
        m_ports.notifications->ObserveDistributed(kNotifyWindowExist,
                                                  [this] { reqestWithWindowExist(); });
        m_ports.notifications->ObserveWake([this] { restartProgram(); });
    }
}

void LoadEvent::restartProgram() {
    if (m_ports.beforeImmediateExit) m_ports.beforeImmediateExit();
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(0);
}

void LoadEvent::reqestWithWindowExist() {
    TLog(TLogLevel::Info, "another instance started: ending this one");
    Terminate(0);
}

int LoadEvent::RegisterHidDeviceNotification() {
    if (m_ports.hidManagers == nullptr || m_ports.loop == nullptr) return -1;
    for (const TDeviceMatchRow& row : kDeviceMatchTable) {
        std::unique_ptr<IHidManager> manager = m_ports.hidManagers->CreateHidManager();
        if (!manager) return -1;
        manager->SetDeviceMatching(row.vendorId, row.productId);
        manager->SetDeviceKeeper(m_state.get());
        manager->ScheduleWithMainLoop();
        manager->RegisterDeviceMatchingCallback(&hidDeviceAdd, nullptr);
        manager->RegisterDeviceRemovalCallback(&hidDeviceRemove, nullptr);
        if (manager->Open() != 0) {
            manager->UnscheduleFromMainLoop();
            return -1;
        }
        // Deliver the devices of this row that are present, one per turn, before the next row.
        while (m_ports.loop->RunOnce(0)) {
        }
        m_managers.push_back(std::move(manager));
    }
    return 0;
}

std::optional<std::string> LoadEvent::hexStringForChar(const uint32_t* values, int len) {
    if (len == 0) return std::nullopt;
    std::string text;
    if (len < 0 || values == nullptr) return text;
    const char* format = len % 4 == 0 ? "%08X" : "%02X";
    char digits[16];
    for (int i = 0; i < len; ++i) {
        std::snprintf(digits, sizeof digits, format, values[i]);
        text += digits;
    }
    return text;
}

bool LoadEvent::Terminate(int status) {
    if (m_terminating) return true;
    m_terminating = true;
    // The name is given up first, so that a later instance can take over at once.
    if (m_ports.notifications != nullptr) m_ports.notifications->StopObservingDistributed();
    StopAllWorkers();
    const bool ended = m_state->WaitForWorkers(kWorkerStopMillis);
    if (!ended) {
        // A worker stuck in a transaction: at least no button stays held.
        TLog(TLogLevel::Warning, "%d frame worker(s) did not stop within %d s: held buttons "
             "are released from here", m_state->LiveWorkers(), kWorkerStopMillis / 1000);
        ReleaseAllClicks();
    }
    if (m_ports.loop != nullptr) m_ports.loop->Quit(status);
    return ended;
}
