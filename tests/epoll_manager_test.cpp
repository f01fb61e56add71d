// The epoll loop on real descriptors: which callback an event reaches, write-event arming, stopping,
// and the loop thread's name, CPUs and signal dispositions.

#include <android/log.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kova_test_support.h"
#include "ipc/kova_bpf_epoll_manager.h"

namespace kova::test {
namespace {

using namespace std::chrono_literals;
using android::base::unique_fd;
using Fn = std::function<int(epoll_event)>;

constexpr auto kWait = 10s;

// A connected pair of non-blocking stream sockets: `near` is watched, `far` plays the peer.
struct SocketPair {
    SocketPair() {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) abort();
        near.reset(fds[0]);
        far.reset(fds[1]);
    }
    unique_fd near;
    unique_fd far;
};

int Drain(int fd) {
    char bytes[256];
    while (read(fd, bytes, sizeof(bytes)) > 0) {
    }
    return 0;
}

// Keeps every callback invocation: which callback, and the event mask it was given.
class EpollManagerTest : public ::testing::Test {
  protected:
    struct Call {
        std::string callback;
        uint32_t events;
    };

    // Registers `fd` with the callbacks named in `then` ("read", "write" or "close"); each invocation
    // is recorded, then `then` runs (an empty one returns 0).
    void Watch(EpollManager* manager, int fd, const std::map<std::string, Fn>& then) {
        EpollCallback callback;
        for (const auto& [name, fn] : then) {
            Fn& slot = name == "read" ? callback.readCallback
                                      : name == "write" ? callback.writeCallback : callback.closeCallback;
            slot = [this, name, fn](epoll_event event) {
                {
                    std::lock_guard<std::mutex> lock(callsLock);
                    calls.push_back({name, event.events});
                }
                return fn ? fn(event) : 0;
            };
        }
        ASSERT_TRUE(manager->addMonitorFd(fd, callback));
    }
    std::vector<Call> Calls() {
        std::lock_guard<std::mutex> lock(callsLock);
        return calls;
    }
    void ClearCalls() {
        std::lock_guard<std::mutex> lock(callsLock);
        calls.clear();
    }
    int Count(const std::string& name) {
        int count = 0;
        for (const Call& call : Calls()) count += call.callback == name;
        return count;
    }
    bool WaitForCount(const std::string& name, int count) {
        return WaitUntil([&] { return Count(name) >= count; }, kWait);
    }

    LogCapture log;
    std::mutex callsLock;
    std::vector<Call> calls;
};

// Without a close callback the read callback reads the end of stream.
TEST_F(EpollManagerTest, AHangUpGoesToTheCloseCallbackAndNeverToTheReadCallback) {
    for (const bool withClose : {true, false}) {
        SCOPED_TRACE(withClose);
        ClearCalls();
        SocketPair pair;
        ASSERT_EQ(write(pair.far, "last", 4), 4);
        pair.far.reset();  // data and hang-up arrive in one event
        auto manager = EpollManager::Create(4, 8, nullptr, "EpollHangUp", -1);
        const Fn unregister = [&](epoll_event event) {
            manager->delMonitorFd(event.data.fd);  // the usual reaction; the record goes while in use
            return EPOLL_CALLBACK_NOTHING;
        };
        Watch(manager.get(), pair.near, withClose ? std::map<std::string, Fn>{{"read", nullptr}, {"close", unregister}}
                                             : std::map<std::string, Fn>{{"read", unregister}});
        manager->start();
        ASSERT_TRUE(WaitForCount(withClose ? "close" : "read", 1));
        manager->stop();
        const std::vector<Call> seen = Calls();
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_TRUE(seen[0].events & EPOLLIN);
        EXPECT_TRUE(seen[0].events & (EPOLLHUP | EPOLLRDHUP));
    }
}

// A read that succeeds is followed by the write in the same round, with the same event; after one that
// closed, failed or found the end, the armed write comes in a later round, on its own.
TEST_F(EpollManagerTest, OnlyASuccessfulReadIsFollowedByTheWriteInTheSameRound) {
    for (const int readResult : {0, -2, -1, -3, 1}) {
        SCOPED_TRACE(readResult);
        ClearCalls();
        SocketPair pair;
        auto manager = EpollManager::Create(4, 8, nullptr, "EpollReadWrite", -1);
        Watch(manager.get(), pair.near,
              {{"read", [readResult](epoll_event event) { return Drain(event.data.fd) + readResult; }},
               {"write", [](epoll_event) { return EPOLL_CALLBACK_NOTHING; }}});
        ASSERT_TRUE(manager->notifyWriteEventReady(pair.near));
        ASSERT_EQ(write(pair.far, "x", 1), 1);  // readable and writable before the loop looks
        manager->start();
        ASSERT_TRUE(WaitForCount("write", 1));
        manager->stop();
        const std::vector<Call> seen = Calls();
        ASSERT_GE(seen.size(), 2u);
        EXPECT_EQ(seen[0].callback, "read");
        EXPECT_EQ(seen[1].callback, "write");
        EXPECT_EQ(static_cast<bool>(seen[1].events & EPOLLIN), readResult == 0);
    }
}

// Regression: a wake-up was lost when a producer armed the write event while the write callback ran.
// A write callback that has more to send (0) runs again; one that has nothing left (-3) disarms the
// event, unless it was armed again meanwhile.
TEST_F(EpollManagerTest, ArmingWhileTheWriteCallbackRunsIsNotLost) {
    SocketPair pair;
    auto manager = EpollManager::Create(4, 8, nullptr, "EpollRearm", -1);
    std::atomic<int> rounds{0};
    // The second round finds nothing to send, but a producer queues and arms before it returns: its
    // arming found the event still armed, so it is the loop that must not disarm.
    Watch(manager.get(), pair.near, {{"write", [&](epoll_event event) {
                                     const int round = rounds++;
                                     if (round == 1) {
                                         EXPECT_TRUE(manager->notifyWriteEventReady(event.data.fd));
                                     }
                                     return round == 0 ? 0 : EPOLL_CALLBACK_NOTHING;
                                 }}});
    ASSERT_TRUE(manager->notifyWriteEventReady(pair.near));
    manager->start();
    EXPECT_TRUE(WaitForCount("write", 3));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(Count("write"), 3);  // and then it is disarmed until armed again
    ASSERT_TRUE(manager->notifyWriteEventReady(pair.near));
    EXPECT_TRUE(WaitForCount("write", 4));
}

// Closing a descriptor drops it from the epoll set, so any epoll_ctl on it fails and shows whether
// a system call was made.
TEST_F(EpollManagerTest, ArmingAnArmedDescriptorMakesNoSystemCall) {
    SocketPair pair;
    auto manager = EpollManager::Create(4, 8, nullptr, "EpollArm", -1);
    const int writer = pair.near.get();
    const int reader = pair.far.get();
    Watch(manager.get(), writer, {{"write", nullptr}});
    Watch(manager.get(), reader, {{"read", nullptr}});
    ASSERT_TRUE(manager->notifyWriteEventReady(writer));
    EXPECT_TRUE(manager->notifyWriteEventReady(reader));  // no write callback: never armed
    pair.near.reset();
    pair.far.reset();
    EXPECT_TRUE(manager->notifyWriteEventReady(writer));
    EXPECT_FALSE(manager->notifyWriteEventReady(reader));
    EXPECT_FALSE(manager->markWriteEventFinish(writer));
    for (const auto& [operation, fd] : {std::pair{"markWriteEventFinish", writer}, {"notifyWriteEventReady", reader}}) {
        EXPECT_EQ(log.Count(ANDROID_LOG_ERROR, "EpollArm",
                            std::string("[EpollManager][") + operation + "] Epoll mod monitor failed, fd: " +
                                    std::to_string(fd) + ", message: Bad file descriptor"),
                  1)
                << log.Dump();
    }
}

TEST_F(EpollManagerTest, UnknownDescriptorsAreRefusedWithTheirMessages) {
    auto manager = EpollManager::Create(4, 8, nullptr, "EpollUnknown", -1);
    EXPECT_FALSE(manager->notifyWriteEventReady(12345));
    EXPECT_FALSE(manager->markWriteEventFinish(12345));
    EXPECT_FALSE(manager->writeEventNow(12345));
    EXPECT_FALSE(manager->delMonitorFd(12345));
    EXPECT_FALSE(manager->addMonitorFd(-1, EpollCallback{}));
    EXPECT_EQ(log.Count(ANDROID_LOG_ERROR, "EpollUnknown",
                        "[EpollManager][notifyWriteEventReady] the socket fd does not exist"),
              2);
    for (const char* message : {"[EpollManager][markWriteEventFinish] the socket fd does not exist",
                                "[EpollManager] Epoll del fd from epoll failed: 9, message: Bad file descriptor",
                                "[EpollManager] Epoll add monitor fd failed: 9, message: Bad file descriptor"}) {
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "EpollUnknown", message)) << log.Dump();
    }
}

TEST_F(EpollManagerTest, WriteEventNowDrivesTheWriteCallbackOnTheCallingThreadUntilItEnds) {
    SocketPair pair;
    auto manager = EpollManager::Create(4, 8, nullptr, "EpollNow", -1);
    int rounds = 0;
    EpollCallback callback;
    callback.writeCallback = [&, caller = std::this_thread::get_id()](epoll_event event) {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        EXPECT_EQ(event.events, 0u);
        EXPECT_EQ(event.data.fd, pair.near.get());
        return ++rounds < 3 ? 0 : EPOLL_CALLBACK_NOTHING;
    };
    ASSERT_TRUE(manager->addMonitorFd(pair.near, callback));
    EXPECT_TRUE(manager->writeEventNow(pair.near));
    EXPECT_EQ(rounds, 3);
    callback.writeCallback = nullptr;  // a failing one is shown by the stalled peer in unix_ipc_manager_test
    ASSERT_TRUE(manager->addMonitorFd(pair.far, callback));
    EXPECT_FALSE(manager->writeEventNow(pair.far));
}

TEST_F(EpollManagerTest, StopBeforeStartLetsTheLoopRunItsInitAndLeaveAtOnce) {
    SocketPair pair;
    std::atomic<int> inits{0};
    auto manager = EpollManager::Create(4, 8, [&] { return ++inits; }, "EpollEarlyStop", -1);
    Watch(manager.get(), pair.near, {{"read", nullptr}});
    manager->stop();
    ASSERT_EQ(write(pair.far, "x", 1), 1);  // ready after the control descriptor, so reported after it
    manager->start();
    manager->join();
    EXPECT_EQ(inits, 1);
    // Readable the whole time, yet never read: the control event ended the loop first.
    EXPECT_EQ(Count("read"), 0);
}

// The init function runs on the loop thread, so it sees the thread's name, CPUs and signal dispositions.
TEST_F(EpollManagerTest, TheLoopThreadIsNamedPinnedIgnoresSigpipeAndSigquitAndRunsAfterAFailedInit) {
    cpu_set_t none;
    CPU_ZERO(&none);
    std::string name(16, '\0');
    cpu_set_t cpus;
    std::atomic<bool> inLoop{false};
    SocketPair pair;  // outlives the manager, whose loop may still be reading it
    auto manager = EpollManager::Create(4, 8, [&] {
        prctl(PR_GET_NAME, name.data());
        sched_getaffinity(0, sizeof(cpus), &cpus);
        inLoop = true;
        return 0;
    }, "EpollPinned", none, -1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "EpollPinned", "[EpollManager] cpu affinity invalid!"));
    Watch(manager.get(), pair.near, {{"read", [](epoll_event event) { return Drain(event.data.fd); }}});
    manager->start();
    ASSERT_TRUE(WaitUntil([&] { return inLoop.load(); }, kWait));
    EXPECT_STREQ(name.c_str(), "EpollPinned");
    EXPECT_EQ(CPU_COUNT(&cpus), 1);
    EXPECT_TRUE(CPU_ISSET(0, &cpus));
    for (const int signo : {SIGPIPE, SIGQUIT}) {
        struct sigaction action {};
        sigaction(signo, nullptr, &action);
        EXPECT_EQ(action.sa_handler, SIG_IGN) << signo;
    }
    ASSERT_EQ(write(pair.far, "x", 1), 1);
    EXPECT_TRUE(WaitForCount("read", 1));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "EpollPinned", "[EpollManager][mainThread] initFunc failed"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "EpollPinned", "[EpollManager] main thread starting..."));
}

TEST_F(EpollManagerTest, WithoutATagTheManagerIsBpfUtils) {
    auto manager = EpollManager::Create(0, 8, nullptr, nullptr, -1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils", "[EpollManager] Create epoll failed: 22, message: Invalid argument"))
            << log.Dump();
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils", "[EpollManager] Setup control fd failed: 9, message: Bad file descriptor"));
    EXPECT_EQ(manager, nullptr);
}

TEST(EpollManagerDeathTest, StartingTwiceTerminates) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
            {
                auto manager = EpollManager::Create(4, 8, nullptr, "EpollTwice", -1);
                manager->start();
                manager->start();
            },
            "");
}

}  // namespace
}  // namespace kova::test
