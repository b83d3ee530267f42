// The service shell: discovery row by row, the device list, removal, the start-up
// notifications and the hexadecimal helper. Discovery and the main loop are scripted fakes;
// devices refuse to open, so each worker ends at once with "opendevice err".
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <mutex>

#include "DeviceListControl.h"
#include "LoadEvent.h"
#include "support/WorkerRig.h"

namespace {

using testing::ElementsAre;

// Runs posted tasks one per RunOnce, as the platform loop hands out one source per dispatch.
// Workers post from their own threads.
class CFakeLoop final : public IMainLoop {
public:
    bool RunOnce(uint64_t) override {
        std::function<void()> task;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (tasks.empty()) return false;
            task = std::move(tasks.front());
            tasks.pop_front();
        }
        task();
        return true;
    }
    int Run() override { return quitStatus; }
    void Quit(int status) override { quitStatus = status; ++quits; }
    void Post(std::function<void()> task) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        tasks.push_back(std::move(task));
    }
    void PostDelayed(uint64_t, std::function<void()> task) override { Post(std::move(task)); }
    void OnTerminationSignal(std::function<void(int)>) override {}

    std::mutex m_mutex;
    std::deque<std::function<void()>> tasks;  // guarded by m_mutex
    int quitStatus = -1;
    int quits = 0;
};

class CClosedDevice final : public CMtHidDevice {
public:
    int Open() override { return -1; }
    void Close() override {}
    void RegisterInputReportCallback(TMtHidReportCallback, void*) override {}
    int SetOutputReport(const uint8_t*, long) override { return -1; }
    void BeginWait(unsigned) override {}
    TMtHidRun RunWait() override { return TMtHidRun::Gone; }
    void EndWait() override {}
};

// Discovery sessions over a fixed set of present devices, each with its id pair.
class CFakeManagers final : public IHidManagerFactory {
public:
    struct TPresent {
        uint16_t vendor, product;
        CMtHidDevice* device;
    };

    class CManager final : public IHidManager {
    public:
        explicit CManager(CFakeManagers& owner) : m_owner(owner) {}
        void SetDeviceMatching(uint16_t v, uint16_t p) override { m_vendor = v, m_product = p; }
        void ScheduleWithMainLoop() override {}
        void UnscheduleFromMainLoop() override { m_owner.unscheduled.push_back(m_vendor); }
        void RegisterDeviceMatchingCallback(THidDeviceCallback cb, void* ctx) override {
            m_added = cb, m_context = ctx;
        }
        void RegisterDeviceRemovalCallback(THidDeviceCallback cb, void*) override { m_removed = cb; }
        int Open() override {
            m_owner.opened.push_back({m_vendor, m_product});
            if (m_owner.failOpenAt == m_owner.opened.size()) return -1;
            for (const TPresent& p : m_owner.present) {
                if (p.vendor != m_vendor || p.product != m_product) continue;
                m_owner.loop.Post([this, d = p.device] { m_added(m_context, 0, this, Handed(d)); });
            }
            m_owner.sessions.push_back(this);
            return 0;
        }
        void Remove(CMtHidDevice* device) { m_removed(nullptr, 0, this, Handed(device)); }

    private:
        CFakeManagers& m_owner;
        uint16_t m_vendor = 0, m_product = 0;
        THidDeviceCallback m_added = nullptr, m_removed = nullptr;
        void* m_context = nullptr;
    };

    explicit CFakeManagers(CFakeLoop& l) : loop(l) {}
    std::unique_ptr<IHidManager> CreateHidManager() override {
        if (++created == failCreateAt) return nullptr;
        return std::make_unique<CManager>(*this);
    }

    CFakeLoop& loop;
    std::vector<TPresent> present;
    std::vector<std::pair<uint16_t, uint16_t>> opened;
    std::vector<uint16_t> unscheduled;
    std::vector<CManager*> sessions;
    size_t failOpenAt = 0;  // 1-based session whose Open fails; 0: none
    size_t failCreateAt = 0;
    size_t created = 0;
};

class CFakeNotifications final : public INotificationCenter {
public:
    void PostDistributed(const std::string& name) override { log.push_back("post " + name); }
    void ObserveDistributed(const std::string& name, std::function<void()> o) override {
        log.push_back("observe " + name);
        observer = std::move(o);
    }
    void StopObservingDistributed() override { log.push_back("stop"); }
    void ObserveWake(std::function<void()>) override { log.push_back("wake"); }
    std::vector<std::string> log;
    std::function<void()> observer;
};

class LoadEventTest : public testing::Test {
protected:
    LoadEventTest() : managers(loop) { ports.loop = &loop, ports.hidManagers = &managers; }
    // Each shell has waited for its workers as it went.
    ~LoadEventTest() override { ReleaseDeviceList(); }
    // The records from the head of the list, as the devices they stand for.
    std::vector<CMtHidDevice*> ListedDevices() const {
        std::vector<CMtHidDevice*> out;
        for (MtDevNode* n = cmtDevHead; n != nullptr; n = n->next) out.push_back(n->hidDevice);
        return out;
    }

    CLogCapture log;
    CFakeLoop loop;
    CFakeManagers managers;
    TShellPorts ports;
    CClosedDevice a, b, c;
};

// Verify that each row's present devices are handled before the next row's session opens,
// that later records go to the head, and that each device's record is filled as discovery
// hands it to the controller.
TEST_F(LoadEventTest, RowsInOrderDevicesBeforeNextRow) {
    managers.present = {{0x202E, 0x0006, &c}, {0xAAEC, 0xC020, &a}, {0xAAEC, 0xC021, &b}};
    LoadEvent shell(ports);
    EXPECT_EQ(shell.RegisterHidDeviceNotification(), 0);
    EXPECT_THAT(managers.opened, ElementsAre(std::pair<uint16_t, uint16_t>{0xAAEC, 0xC020},
                                             std::pair<uint16_t, uint16_t>{0xAAEC, 0xC021},
                                             std::pair<uint16_t, uint16_t>{0x202E, 0x0006}));
    EXPECT_THAT(ListedDevices(), ElementsAre(&c, &b, &a));
    for (MtDevNode* n = cmtDevHead; n != nullptr; n = n->next) {
        EXPECT_EQ(n->devPath->hidDevice, n->hidDevice);
        EXPECT_EQ(n->devPath->usbService, nullptr);
        EXPECT_EQ(n->devPath->deviceType, 2);
        EXPECT_EQ(n->faildCount, 5);
        EXPECT_NE(n->thread, nullptr);
    }
    EXPECT_TRUE(shell.State().WaitForWorkers(10'000));
    EXPECT_EQ(log.Count(TLogChannel::System, "hid add"), 3);
    EXPECT_EQ(log.Count(TLogChannel::System, "opendevice err"), 3);
}

// Verify that a failing session stops discovery there: the third row is only served when the
// two sessions before it opened.
TEST_F(LoadEventTest, FailedSessionSkipsLaterRows) {
    managers.present = {{0xAAEC, 0xC020, &a}, {0x202E, 0x0006, &c}};
    managers.failOpenAt = 2;
    LoadEvent shell(ports);
    EXPECT_EQ(shell.RegisterHidDeviceNotification(), -1);
    EXPECT_EQ(managers.opened.size(), 2u);
    EXPECT_THAT(managers.unscheduled, ElementsAre(0xAAEC));
    EXPECT_THAT(ListedDevices(), ElementsAre(&a));

    CFakeManagers none(loop);
    none.failCreateAt = 1;
    TShellPorts noPorts = ports;
    noPorts.hidManagers = &none;
    LoadEvent other(noPorts);
    EXPECT_EQ(other.RegisterHidDeviceNotification(), -1);
    EXPECT_TRUE(none.opened.empty());
}

// Verify removal: the record stays, its run flag is cleared and the release is logged; a
// device that never matched changes nothing; the same device matched again reuses its record
// and gets a new worker.
TEST_F(LoadEventTest, RemovalAndReturn) {
    managers.present = {{0xAAEC, 0xC020, &a}};
    LoadEvent shell(ports);
    shell.RegisterHidDeviceNotification();
    ASSERT_EQ(managers.sessions.size(), 3u);
    MtDevNode* record = cmtDevHead;
    record->isRunning.store(true);

    managers.sessions[0]->Remove(&b);  // never matched
    EXPECT_EQ(log.Count(TLogChannel::System, "TOUCH DEV RELEASE"), 0);
    EXPECT_TRUE(record->isRunning.load());

    managers.sessions[0]->Remove(&a);
    EXPECT_EQ(log.Count(TLogChannel::System, "remove"), 2);
    EXPECT_EQ(log.Count(TLogChannel::System, "TOUCH DEV RELEASE"), 1);
    EXPECT_FALSE(record->isRunning.load());
    EXPECT_THAT(ListedDevices(), ElementsAre(&a));

    hidDeviceAdd(nullptr, 0, nullptr, &a);
    EXPECT_THAT(ListedDevices(), ElementsAre(&a));
    EXPECT_EQ(cmtDevHead, record);
    EXPECT_EQ(record->workers.size(), 2u);
}

// Verify that the devices a shell's sessions report reach that shell's state, though the
// callbacks get nothing but the device: its tools hear each frame come and go, its control lists
// them by number, and its workers are counted out.
TEST_F(LoadEventTest, DevicesReachTheirShell) {
    struct TEvents final : IDriverEvents {
        void OnFrameAdded(int n) override { heard.push_back("added " + std::to_string(n)); }
        void OnFrameChanged(int) override {}
        void OnFrameRemoved(int n) override { heard.push_back("removed " + std::to_string(n)); }
        std::vector<std::string> heard;
    } events;
    managers.present = {{0xAAEC, 0xC020, &a}, {0xAAEC, 0xC021, &b}};
    LoadEvent shell(ports);
    CDriverControl control(shell.State());
    control.SetEvents(&events);
    shell.RegisterHidDeviceNotification();
    EXPECT_THAT(control.FrameNumbers(), ElementsAre(1, 2));
    managers.sessions[0]->Remove(&a);
    EXPECT_THAT(control.FrameNumbers(), ElementsAre(2));
    EXPECT_THAT(events.heard, ElementsAre("added 1", "added 2", "removed 1"));
    EXPECT_TRUE(shell.State().WaitForWorkers(10'000));
    EXPECT_EQ(shell.LiveWorkerCount(), 0);

    // A shell of its own sees none of these frames.
    LoadEvent other(ports);
    EXPECT_TRUE(CDriverControl(other.State()).FrameNumbers().empty());
}

// Verify the start-up order of notifications (announce, then listen), the screen size kept
// truncated (none without a screen), and that a later instance's announcement ends this one in
// order.
TEST_F(LoadEventTest, StartUpAndLaterInstance) {
    CFakeNotifications notes;
    CFixedScreen screen(TScreenRect{0, 0, 1366.9, 768.2});
    ports.notifications = &notes;
    ports.screen = &screen;
    LoadEvent shell(ports);
    shell.init();
    EXPECT_EQ(shell.nWidth, 1366);
    EXPECT_EQ(shell.nLength, 768);
    EXPECT_THAT(notes.log, ElementsAre("post isWindowExist", "observe isWindowExist", "wake"));

    ASSERT_TRUE(notes.observer);
    notes.observer();
    EXPECT_TRUE(shell.IsTerminating());
    EXPECT_EQ(loop.quitStatus, 0);
    EXPECT_EQ(notes.log.back(), "stop");
    notes.observer();  // a second announcement while ending: nothing more
    EXPECT_EQ(loop.quits, 1);

    CFixedScreen none(std::nullopt);
    ports.screen = &none;
    LoadEvent unscreened(ports);
    unscreened.initVar();
    EXPECT_EQ(unscreened.nWidth, 0);
    EXPECT_EQ(unscreened.nLength, 0);
}

TEST(HexStringForChar, FormsByLength) {
    const uint32_t values[] = {0x1, 0xAB, 0x1234, 0xDEADBEEF, 0x5};
    EXPECT_EQ(LoadEvent::hexStringForChar(values, 0), std::nullopt);
    EXPECT_EQ(LoadEvent::hexStringForChar(values, -3), std::string());
    EXPECT_EQ(LoadEvent::hexStringForChar(values, 4), "00000001000000AB00001234DEADBEEF");
    // Not a multiple of four: "%02X" of 32-bit words, so wide values print all their digits.
    EXPECT_EQ(LoadEvent::hexStringForChar(values, 3), "01AB1234");
    EXPECT_EQ(LoadEvent::hexStringForChar(values, 5), "01AB1234DEADBEEF05");
}

}  // namespace
