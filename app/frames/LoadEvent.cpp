#include "LoadEvent.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "MtDevLog.h"
#include "Parameter.h"

MtDevNode* cmtDevHead = nullptr;

namespace {

const TShellPorts* g_ports = nullptr;  // set on the main thread before any worker starts
int g_deviceCount = 0;                 // main thread only

// Workers started and not yet ended; the orderly end waits on it.
std::mutex g_workersMutex;
std::condition_variable g_workersEnded;
int g_liveWorkers = 0;

// Set by StopAllWorkers, read by every worker through its context.
std::atomic<bool> g_stopWorkers{false};

void WorkerEnded() {
    std::lock_guard<std::mutex> lock(g_workersMutex);
    --g_liveWorkers;
    g_workersEnded.notify_all();
}

}  // namespace

void SetShellPorts(const TShellPorts* ports) {
    g_ports = ports;
}

int LiveWorkerCount() {
    std::lock_guard<std::mutex> lock(g_workersMutex);
    return g_liveWorkers;
}

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
    node->deviceNumber = ++g_deviceCount;
    node->worker.stopping = &g_stopWorkers;
    node->worker.ports = g_ports;
    node->worker.ended = &WorkerEnded;
    if (g_ports != nullptr) node->frame.loop = g_ports->loop;
    if (g_ports != nullptr && g_ports->sinkForDevice) {
        node->container.SetEventSink(g_ports->sinkForDevice(node->deviceNumber));
    }
    if (g_ports != nullptr && g_ports->contactListeners) {
        node->worker.listeners = g_ports->contactListeners(node->deviceNumber);
    }
    if (g_ports != nullptr && g_ports->firstContactListeners) {
        node->worker.firstListeners = g_ports->firstContactListeners(node->deviceNumber);
    }
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
        node->frame.SetState(node->deviceNumber, TFrameState::Gone);
        FrameStateChanged(node->deviceNumber);
        node->frame.present = false;
        FrameDisappeared(node->deviceNumber);
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
    if (appeared) FrameAppeared(node->deviceNumber);
    {
        std::lock_guard<std::mutex> lock(g_workersMutex);
        ++g_liveWorkers;
    }
    node->thread = TCreateThread(&test, node);
    node->workers.push_back(node->thread);
    if (!node->thread->IsStarted()) WorkerEnded();  // it never ran
}

void hidDeviceRemove(void*, int, void*, CMtHidDevice* device) {
    TLogSystem("remove");
    removeDevice(device);
}

void StopAllWorkers() {
    // Each worker releases its own button and closes its device as it ends: a release from
    // here could be followed by one more frame of the worker pressing it again.
    g_stopWorkers.store(true);
    for (MtDevNode* node = cmtDevHead; node != nullptr; node = node->next) {
        node->isRunning.store(false);
    }
}

void ReleaseAllClicks() {
    for (MtDevNode* node = cmtDevHead; node != nullptr; node = node->next) {
        node->container.releaseClick();
    }
}

bool WaitForWorkers(int waitMillis) {
    // A bound on a wait, not a reading of time: a worker stuck in a long transaction must not
    // hold the process forever.
    std::unique_lock<std::mutex> lock(g_workersMutex);
    return g_workersEnded.wait_for(lock, std::chrono::milliseconds(waitMillis),
                                   [] { return g_liveWorkers == 0; });
}

void ReleaseDeviceList() {
    while (cmtDevHead != nullptr) {
        MtDevNode* node = cmtDevHead;
        cmtDevHead = node->next;
        for (CkorFrameThread* worker : node->workers) TCloseThread(worker);  // joins
        delete node->devPath;
        delete node;
    }
    g_deviceCount = 0;
    g_stopWorkers.store(false);
}

// ---------------------------------------------------------------------------------------------
// Application object

LoadEvent::LoadEvent(const TShellPorts& ports) : m_ports(ports) {}

LoadEvent::~LoadEvent() {
    if (g_ports == &m_ports) g_ports = nullptr;
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
    SetShellPorts(&m_ports);

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
    const bool ended = WaitForWorkers(kWorkerStopMillis);
    if (!ended) {
        // A worker stuck in a transaction: at least no button stays held.
        TLog(TLogLevel::Warning, "%d frame worker(s) did not stop within %d s: held buttons "
             "are released from here", LiveWorkerCount(), kWorkerStopMillis / 1000);
        ReleaseAllClicks();
    }
    if (m_ports.loop != nullptr) m_ports.loop->Quit(status);
    return ended;
}
