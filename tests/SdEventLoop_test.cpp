#include "SdEventLoop.h"

#include <gtest/gtest.h>

#include <csignal>
#include <thread>
#include <vector>

namespace {

std::unique_ptr<CSdEventLoop> MakeLoop() {
    std::string error;
    auto loop = CSdEventLoop::Create(&error);
    EXPECT_NE(loop, nullptr) << error;
    return loop;
}

// Verify that RunOnce handles one posted task per call, in order, and reports idleness.
TEST(SdEventLoop, RunOnceHandlesOneTaskAtATime) {
    auto loop = MakeLoop();
    ASSERT_NE(loop, nullptr);
    std::vector<int> ran;
    for (int i = 0; i < 3; ++i) loop->Post([&ran, i] { ran.push_back(i); });
    EXPECT_TRUE(loop->RunOnce(0));
    EXPECT_EQ(ran, (std::vector<int>{0}));
    EXPECT_TRUE(loop->RunOnce(0));
    EXPECT_TRUE(loop->RunOnce(0));
    EXPECT_EQ(ran, (std::vector<int>{0, 1, 2}));
    EXPECT_FALSE(loop->RunOnce(0));
}

// Verify that tasks posted from other threads run on the loop's thread and that Quit ends Run
// with its status.
TEST(SdEventLoop, PostFromWorkersAndQuit) {
    auto loop = MakeLoop();
    ASSERT_NE(loop, nullptr);
    const std::thread::id mainThread = std::this_thread::get_id();
    int onMain = 0;
    std::vector<std::thread> workers;
    for (int i = 0; i < 4; ++i) {
        workers.emplace_back([&] {
            for (int k = 0; k < 25; ++k) {
                loop->Post([&] { onMain += std::this_thread::get_id() == mainThread; });
            }
        });
    }
    for (auto& w : workers) w.join();
    loop->Post([&] { loop->Quit(7); });
    EXPECT_EQ(loop->Run(), 7);
    EXPECT_EQ(onMain, 100);
}

// Verify that SIGTERM and SIGINT arrive as calls on the loop instead of ending the process.
TEST(SdEventLoop, TerminationSignalsArriveOnTheLoop) {
    auto loop = MakeLoop();
    ASSERT_NE(loop, nullptr);
    std::vector<int> signals;
    loop->OnTerminationSignal([&](int sig) { signals.push_back(sig); });
    ASSERT_EQ(raise(SIGTERM), 0);
    while (loop->RunOnce(0)) {}
    ASSERT_EQ(raise(SIGINT), 0);
    while (loop->RunOnce(0)) {}
    EXPECT_EQ(signals, (std::vector<int>{SIGTERM, SIGINT}));
}

}  // namespace
