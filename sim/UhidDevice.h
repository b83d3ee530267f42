// One device presented to a real kernel through /dev/uhid, and the thread that reads the node:
// UHID_OPEN and UHID_CLOSE become the device's state (who holds it open); every other event goes
// to the device (a derived class) on that thread. Input reports may be written from any thread.
// The emulated touch frame (MtEmuUhidLink) and the standard digitizer (UhidDigitizer) are two.
#pragma once

#include <linux/uhid.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// What the kernel told the device so far.
struct TUhidLinkState {
    bool open = false;        // UHID_OPEN seen and no UHID_CLOSE since
    uint64_t opens = 0;       // UHID_OPEN events
    uint64_t closes = 0;      // UHID_CLOSE events
};

// Fills a UHID_CREATE2 request for a USB device (texts cut to their fields).
void FillUhidCreate2(const std::string& name, const std::string& phys,
                     const std::vector<uint8_t>& descriptor, uint16_t vendor, uint16_t product,
                     uhid_event* event);

class CUhidDevice {
public:
    // Called right before an input report is written, with the report and the monotonic time
    // in nanoseconds.
    using TSentHook = std::function<void(const uint8_t* report, size_t length, uint64_t nanos)>;

    CUhidDevice() = default;
    // A derived class calls Destroy in its own destructor: the thread calls into it.
    virtual ~CUhidDevice();
    CUhidDevice(const CUhidDevice&) = delete;
    CUhidDevice& operator=(const CUhidDevice&) = delete;

    // UHID_DESTROY: the device goes away as if unplugged. Stops the thread; safe to repeat.
    void Destroy();

    // Set before the device is created; called for every input report sent.
    void SetSentHook(TSentHook hook) { m_sentHook = std::move(hook); }

    bool Created() const { return m_fd >= 0; }
    TUhidLinkState State() const;
    bool IsOpen() const { return State().open; }
    // Waits until `done` holds for the state, or `timeoutMs` of real time passed; true when it
    // held. Checked at every uhid event.
    bool WaitUntil(const std::function<bool(const TUhidLinkState&)>& done, int timeoutMs) const;

protected:
    // Opens the uhid node (normally /dev/uhid) and creates the device with `create`, as Adopt.
    bool CreateOn(const std::string& uhidPath, const uhid_event& create, std::string* error);
    // The same over a descriptor that speaks like the uhid node (tests: one end of a
    // SOCK_SEQPACKET socketpair), owned from now on, also on failure. Starts the thread.
    bool Adopt(int fd, const uhid_event& create, std::string* error);

    // Every event but UHID_OPEN and UHID_CLOSE, on the device's thread, with the bytes read.
    virtual void OnEvent(const uhid_event& event, size_t bytesRead) = 0;

    bool WriteEvent(const uhid_event& event);
    // One UHID_INPUT2 of 1 to UHID_DATA_MAX bytes; `sentNanos` (may be null) gets the time
    // the sent hook gets.
    bool WriteInput(const uint8_t* data, size_t length, uint64_t* sentNanos = nullptr);
    // Answers a UHID_GET_REPORT or UHID_SET_REPORT with EIO (an unanswered request stalls the
    // kernel for seconds).
    void Refuse(const uhid_event& request, size_t bytesRead);
    // Waits up to `millis` for Destroy; true when it was asked for (the thread must end).
    bool Stopping(int millis) const;

private:
    void Run();

    TSentHook m_sentHook;
    int m_fd = -1;
    int m_stop = -1;  // eventfd that ends the thread
    std::thread m_thread;
    mutable std::mutex m_stateMutex;
    mutable std::condition_variable m_stateChanged;
    TUhidLinkState m_state;  // guarded by m_stateMutex
};
