// The service shell: the application object, the device list, discovery's callbacks and the
// per-device worker.
//
// Start-up (main thread): LoadEvent::init -> runProgram -> initVar (screen size, notifications)
// -> RegisterHidDeviceNotification (one discovery session per row of the matching table; the
// devices present are handled row by row) -> the main loop runs. Each matched device gets a
// record (MtDevNode) and a worker thread running `test`, which owns everything of its device.
// Removal clears the record's run flag and releases a held button; the worker ends at its next
// poll.
//
// Threads: the device list, discovery and notifications live on the main thread. A worker reads
// its own record. Two things cross: the run flag (atomic) and the container's releaseClick (the
// container locks itself). The orderly end (Terminate) stops every worker, releases held buttons,
// has each worker close its device, and waits for them.
//
// Platform pieces come in through TShellPorts: the main loop, the discovery sessions, the screen,
// the notification centre and the event sinks. The shell object owns what its device list and
// workers share (CShellState); the only process-wide variable is the list's head, cmtDevHead.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CTouchPointContainer.h"
#include "FrameSlot.h"
#include "MtDevComInterface.h"
#include "MtDevCtrlInterface.h"
#include "MultiPlatformAPI.h"
#include "ShellPorts.h"
#include "ShellState.h"

// What a worker needs from its shell, set on the main thread when the record is made; all null
// for a record no shell made.
struct TWorkerContext {
    const std::atomic<bool>* stopping = nullptr;  // the orderly end asks every worker to stop
    const TShellPorts* ports = nullptr;           // null: no screen, no listeners
    std::function<void()> ended;                  // called once as the worker returns
    std::vector<IContactListener*> listeners;     // the frame's contact listeners besides gestures
    std::vector<IContactListener*> firstListeners;  // those that hear a frame before the gestures
};

// One record per device appearance; records are never unlinked while the process runs.
struct MtDevNode {
    MtDevNode* next = nullptr;
    TMACDEVICEPATH* devPath = nullptr;  // handed to OpenDevice; owned by the record
    int32_t faildCount = 0;             // set to 5; nothing reads it
    CMtHidDevice* hidDevice = nullptr;  // the platform's device object (owned by discovery)
    CkorFrameThread* thread = nullptr;  // the worker started last
    std::atomic<bool> isRunning{false}; // cleared on removal, set by the worker once configured
    CMtDevController controller;
    CTouchPointContainer container;

    // Set with the run flag's clearing on removal: the worker then leaves the device as it is,
    // also during the orderly end.
    std::atomic<bool> removed{false};

    TWorkerContext worker;  // written before the worker starts, then read-only

    // Requests from tools and the state they see; shared with the worker through its own lock.
    // Its `shell` is the shell whose discovery found the device.
    CFrameSlot frame;

    // Main thread only.
    int deviceNumber = 0;                   // 1, 2, ... in order of creation (names the device)
    std::vector<CkorFrameThread*> workers;  // every worker started on the record
};

// Head of the device list; main thread only.
extern MtDevNode* cmtDevHead;

// The record of `device`: the existing one, or a new one at the head of the list. A new record
// is given the state of the shell whose discovery reported the device (its keeper).
MtDevNode* insertDevNode(CMtHidDevice* device);
// Stops the worker of `device`'s record: clears the run flag, releases a held button and logs
// "TOUCH DEV RELEASE". The record stays; the device is not closed here.
void removeDevice(CMtHidDevice* device);
// Discovery callbacks (main thread). A worker is started on every matched call.
void hidDeviceAdd(void* context, int result, void* sender, CMtHidDevice* device);
void hidDeviceRemove(void* context, int result, void* sender, CMtHidDevice* device);
// The worker: the thread routine of a device record. Always returns 0.
unsigned int test(void* arg);

// Frees every record and its worker objects; workers must have ended. For the end of a run and
// for tests. Main thread.
void ReleaseDeviceList();

class LoadEvent {
public:
    // `ports` is read as the shell starts (init) and must outlive it: backends may fill it
    // after the shell is made.
    explicit LoadEvent(const TShellPorts& ports);
    // The workers this shell started are stopped and waited for first.
    ~LoadEvent();

    LoadEvent(const LoadEvent&) = delete;
    LoadEvent& operator=(const LoadEvent&) = delete;

    // Runs the whole start-up; returns this object.
    LoadEvent* init();
    void runProgram();
    void initVar();
    // Ends the process at once with status 0 (wake from sleep): devices and threads are left
    // as they are; a result file is put in place (beforeImmediateExit) and standard output and
    // error are flushed first.
    [[noreturn]] void restartProgram();
    // A later instance announced itself: this one ends in order.
    void reqestWithWindowExist();
    // 0 when all three discovery sessions are open, -1 at the first that fails.
    int RegisterHidDeviceNotification();
    // Hexadecimal text of `len` 32-bit values: "%08X" each when len is a multiple of 4, else
    // "%02X" each (values above 0xFF print more digits). Empty optional for len 0; "" for len < 0.
    static std::optional<std::string> hexStringForChar(const uint32_t* values, int len);

    // The orderly end: stop listening for later instances, stop every worker (each closes its
    // device), release held buttons, wait for the workers, then make the main loop return
    // `status`. False when some worker did not end in time (the caller should not wait on it).
    bool Terminate(int status);
    bool IsTerminating() const { return m_terminating; }

    // What the device list, its workers and the tools' control share.
    CShellState& State() { return *m_state; }
    // Workers this shell started and not yet ended.
    int LiveWorkerCount() const { return m_state->LiveWorkers(); }
    // Closes the device managers, once every worker has ended: before the backends whose
    // devices (an emulated frame's hub) they use go.
    void CloseManagers() { m_managers.clear(); }

    // Real time the orderly end waits for the workers.
    static constexpr int kWorkerStopMillis = 10'000;

    int32_t nWidth = 0;   // main screen, points, truncated
    int32_t nLength = 0;

private:
    // Asks every worker of this shell to stop and end in order (release, close).
    void StopAllWorkers();
    // Releases every held button of this shell's frames from the main thread.
    void ReleaseAllClicks();

    // On the heap so that a worker that never ends can keep it (see the destructor).
    std::unique_ptr<CShellState> m_state;
    const TShellPorts& m_ports;
    std::vector<std::unique_ptr<IHidManager>> m_managers;  // open for the process's lifetime
    std::vector<std::string> m_localObservers;             // local notifications registered for
    bool m_terminating = false;
};
