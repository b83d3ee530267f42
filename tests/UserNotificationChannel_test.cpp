#include "UserNotificationChannel.h"

#include "SdEventLoop.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <future>
#include <thread>

namespace {

// A name no other test process uses.
std::string UniqueName() {
    static std::atomic<int> counter{0};
    return "irframe-test." + std::to_string(getpid()) + "." + std::to_string(counter++);
}

std::unique_ptr<CSdEventLoop> MakeLoop() {
    std::string error;
    auto loop = CSdEventLoop::Create(&error);
    EXPECT_NE(loop, nullptr) << error;
    return loop;
}

// Runs the loop until `done` or a generous bound of iterations (each waits at most 10 ms).
template <typename Predicate>
void RunUntil(CSdEventLoop& loop, Predicate done) {
    for (int i = 0; i < 500 && !done(); ++i) loop.RunOnce(10'000);
}

// Verify that a post with nobody listening is refused at once.
TEST(UserNotificationChannel, PostWithoutListenerIsANoOp) {
    CUserNotificationChannel channel(UniqueName());
    EXPECT_FALSE(channel.Post("isWindowExist", 1000));
}

// Verify the handshake: the running instance receives the name, gives up the channel inside
// its observer, and only then does the new instance's post return, so it can take the channel.
TEST(UserNotificationChannel, NewInstanceTakesOver) {
    auto loop = MakeLoop();
    ASSERT_NE(loop, nullptr);
    const std::string name = UniqueName();
    CUserNotificationChannel running(name);
    std::string error;
    std::vector<std::string> received;
    std::atomic<bool> postReturned{false};
    ASSERT_TRUE(running.Listen(loop->Event(),
                               [&](const std::string& got) {
                                   // The poster is still waiting while the observer runs.
                                   EXPECT_FALSE(postReturned.load());
                                   received.push_back(got);
                                   running.StopListening();
                               },
                               &error))
        << error;

    CUserNotificationChannel newcomer(name);
    std::string secondError;
    EXPECT_FALSE(newcomer.Listen(loop->Event(), [](const std::string&) {}, &secondError));
    EXPECT_NE(secondError.find("@" + name), std::string::npos) << secondError;

    auto posted = std::async(std::launch::async, [&] {
        const bool delivered = newcomer.Post("isWindowExist", 5000);
        postReturned = true;
        return delivered;
    });
    RunUntil(*loop, [&] { return !received.empty(); });
    EXPECT_TRUE(posted.get());
    EXPECT_EQ(received, (std::vector<std::string>{"isWindowExist"}));
    EXPECT_FALSE(running.IsListening());
    EXPECT_TRUE(newcomer.Listen(loop->Event(), [](const std::string&) {}, &error)) << error;
}

// Verify that packets that are not a plain name (too long, control characters, empty) are
// dropped without reaching the observer.
TEST(UserNotificationChannel, MalformedPacketsAreDropped) {
    auto loop = MakeLoop();
    ASSERT_NE(loop, nullptr);
    const std::string name = UniqueName();
    CUserNotificationChannel channel(name);
    std::vector<std::string> received;
    std::string error;
    ASSERT_TRUE(channel.Listen(loop->Event(),
                               [&](const std::string& got) { received.push_back(got); }, &error));

    auto sendRaw = [&](const std::string& packet) {
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path + 1, name.data(), name.size());
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), length), 0);
        if (packet.empty()) {
            shutdown(fd, SHUT_WR);
        } else {
            EXPECT_EQ(send(fd, packet.data(), packet.size(), 0), static_cast<ssize_t>(packet.size()));
        }
        return fd;
    };
    std::vector<int> fds = {sendRaw(std::string(CUserNotificationChannel::kMaxNameBytes + 1, 'a')),
                            sendRaw(std::string("isWindow\nExist")), sendRaw(""),
                            sendRaw("openThread")};
    RunUntil(*loop, [&] { return !received.empty(); });
    for (int i = 0; i < 20; ++i) loop->RunOnce(1000);
    for (int fd : fds) close(fd);
    EXPECT_EQ(received, (std::vector<std::string>{"openThread"}));
}

// Verify that a process of another user cannot end this instance.
TEST(UserNotificationChannel, OtherUsersAreRefused) {
    if (getuid() != 0) GTEST_SKIP() << "needs root to post as another user";
    auto loop = MakeLoop();
    ASSERT_NE(loop, nullptr);
    const std::string name = UniqueName();
    CUserNotificationChannel channel(name);
    std::vector<std::string> received;
    std::string error;
    ASSERT_TRUE(channel.Listen(loop->Event(),
                               [&](const std::string& got) { received.push_back(got); }, &error));
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
        CUserNotificationChannel stranger(name);
        stranger.Post("isWindowExist", 2000);
        _exit(0);
    }
    int status = 0;
    std::atomic<bool> reaped{false};
    std::thread reaper([&] {
        waitpid(child, &status, 0);
        reaped = true;
    });
    RunUntil(*loop, [&] { return reaped.load(); });
    reaper.join();
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(received.empty());
    EXPECT_TRUE(channel.IsListening());
}

TEST(UserNotificationChannel, DefaultNameIsPerUser) {
    EXPECT_EQ(CUserNotificationChannel::DefaultSocketName(1000), "irframed.1000");
    EXPECT_NE(CUserNotificationChannel::DefaultSocketName(0),
              CUserNotificationChannel::DefaultSocketName(1000));
}

}  // namespace
