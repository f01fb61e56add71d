// The epoll loop on real descriptors: which callback an event reaches, write-event arming, stopping,
// and the loop thread's name, CPUs and signal dispositions.

#include <android/log.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kova_test_support.h"
#include "utils/kova_bpf_epoll_manager.h"

namespace kova::test {
namespace {

using namespace std::chrono_literals;
using android::base::unique_fd;

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

// A field of /proc/self/task/<tid>/status of the thread named `threadName`, or "" when there is none.
std::string ThreadStatusField(const std::string& threadName, const std::string& field) {
    std::string value;
    const std::string tasks = "/proc/self/task";
    if (DIR* dir = opendir(tasks.c_str())) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] == '.') continue;
            const std::string base = tasks + "/" + entry->d_name;
            if (ReadFile(base + "/comm") != threadName + "\n") continue;
            const std::string status = ReadFile(base + "/status");
            const size_t at = status.find(field + ":\t");
            if (at == std::string::npos) continue;
            const size_t start = at + field.size() + 2;
            value = status.substr(start, status.find('\n', start) - start);
        }
        closedir(dir);
    }
    return value;
}

// Keeps every callback invocation: which callback, and the event mask it was given.
class EpollManagerTest : public ::testing::Test {
  protected:
    struct Call {
        std::string callback;
        uint32_t events;
    };

    std::function<int(epoll_event)> Record(const std::string& name, std::function<int(epoll_event)> then) {
        return [this, name, then](epoll_event event) {
            {
                std::lock_guard<std::mutex> lock(callsLock);
                calls.push_back({name, event.events});
            }
            return then ? then(event) : 0;
        };
    }
    std::vector<Call> Calls() {
        std::lock_guard<std::mutex> lock(callsLock);
        return calls;
    }
    int Count(const std::string& name) {
        int count = 0;
        for (const Call& call : Calls()) count += call.callback == name;
        return count;
    }
    bool WaitForCount(const std::string& name, int count) {
        return WaitUntil([&] { return Count(name) >= count; }, kWait);
    }

    static int Drain(int fd) {
        char bytes[256];
        while (read(fd, bytes, sizeof(bytes)) > 0) {
        }
        return 0;
    }

    LogCapture log;
    std::mutex callsLock;
    std::vector<Call> calls;
};

TEST_F(EpollManagerTest, AHangUpGoesToTheCloseCallbackAndNeverToTheReadCallback) {
    SocketPair pair;
    ASSERT_EQ(write(pair.far, "last", 4), 4);
    pair.far.reset();  // data and hang-up arrive in one event
    EpollManager manager(4, 8, nullptr, "EpollHangUp", -1);
    EpollCallback callback;
    callback.readCallback = Record("read", nullptr);
    callback.closeCallback = Record("close", [&](epoll_event event) {
        manager.delMonitorFd(event.data.fd);  // the usual reaction; the record goes while in use
        return 0;
    });
    ASSERT_TRUE(manager.addMonitorFd(pair.near, callback));
    manager.start();
    ASSERT_TRUE(WaitForCount("close", 1));
    manager.stop();
    const std::vector<Call> seen = Calls();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_TRUE(seen[0].events & EPOLLIN);
    EXPECT_TRUE(seen[0].events & (EPOLLHUP | EPOLLRDHUP));
}

TEST_F(EpollManagerTest, ADescriptorWithoutACloseCallbackReadsTheEndOfStream) {
    SocketPair pair;
    pair.far.reset();
    EpollManager manager(4, 8, nullptr, "EpollNoClose", -1);
    EpollCallback callback;
    callback.readCallback = Record("read", [&](epoll_event event) {
        manager.delMonitorFd(event.data.fd);
        return -3;
    });
    ASSERT_TRUE(manager.addMonitorFd(pair.near, callback));
    manager.start();
    EXPECT_TRUE(WaitForCount("read", 1));
}

TEST_F(EpollManagerTest, AReadThatSucceedsIsFollowedByTheWriteInTheSameRound) {
    SocketPair pair;
    EpollManager manager(4, 8, nullptr, "EpollReadWrite", -1);
    EpollCallback callback;
    callback.readCallback = Record("read", [](epoll_event event) { return Drain(event.data.fd); });
    callback.writeCallback = Record("write", [](epoll_event) { return -3; });
    ASSERT_TRUE(manager.addMonitorFd(pair.near, callback));
    ASSERT_TRUE(manager.notifyWriteEventReady(pair.near));
    ASSERT_EQ(write(pair.far, "x", 1), 1);  // readable and writable before the loop looks
    manager.start();
    ASSERT_TRUE(WaitForCount("write", 1));
    manager.stop();
    const std::vector<Call> seen = Calls();
    ASSERT_GE(seen.size(), 2u);
    EXPECT_EQ(seen[0].callback, "read");
    EXPECT_EQ(seen[1].callback, "write");
    EXPECT_EQ(seen[1].events, seen[0].events);  // the same event: EPOLLIN | EPOLLOUT
    EXPECT_TRUE(seen[1].events & EPOLLIN);
}

TEST_F(EpollManagerTest, AReadThatClosedOrFailedIsNotFollowedByTheWrite) {
    for (const int readResult : {-2, -1, -3, 1}) {
        SCOPED_TRACE(readResult);
        {
            std::lock_guard<std::mutex> lock(callsLock);
            calls.clear();
        }
        SocketPair pair;
        EpollManager manager(4, 8, nullptr, "EpollReadStop", -1);
        EpollCallback callback;
        callback.readCallback = Record("read", [readResult](epoll_event event) {
            Drain(event.data.fd);
            return readResult;
        });
        callback.writeCallback = Record("write", [](epoll_event) { return -3; });
        ASSERT_TRUE(manager.addMonitorFd(pair.near, callback));
        ASSERT_TRUE(manager.notifyWriteEventReady(pair.near));
        ASSERT_EQ(write(pair.far, "x", 1), 1);
        manager.start();
        // Still armed, the write comes in a later round, on its own.
        ASSERT_TRUE(WaitForCount("write", 1));
        manager.stop();
        for (const Call& call : Calls()) {
            if (call.callback == "write") {
                EXPECT_FALSE(call.events & EPOLLIN);
            }
        }
    }
}

TEST_F(EpollManagerTest, AWriteCallbackRunsUntilItHasNothingLeftThenTheEventIsDisarmed) {
    SocketPair pair;
    EpollManager manager(4, 8, nullptr, "EpollWrites", -1);
    std::atomic<int> batches{3};
    EpollCallback callback;
    callback.writeCallback = Record("write", [&](epoll_event) { return batches-- > 0 ? 0 : -3; });
    ASSERT_TRUE(manager.addMonitorFd(pair.near, callback));
    manager.start();
    ASSERT_TRUE(manager.notifyWriteEventReady(pair.near));
    ASSERT_TRUE(WaitForCount("write", 4));
    // Disarmed after the -3, so nothing more comes until the descriptor is armed again.
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(Count("write"), 4);
    ASSERT_TRUE(manager.notifyWriteEventReady(pair.near));
    EXPECT_TRUE(WaitForCount("write", 5));
    manager.stop();
}

TEST_F(EpollManagerTest, ArmingWhileTheWriteCallbackRunsIsNotLost) {
    SocketPair pair;
    EpollManager manager(4, 8, nullptr, "EpollRearm", -1);
    std::atomic<int> rounds{0};
    EpollCallback callback;
    // The first round finds nothing to send, but a producer queues and arms before it returns: its
    // arming found the event still armed, so it is the loop that must not disarm.
    callback.writeCallback = Record("write", [&](epoll_event event) {
        if (rounds++ == 0) {
            EXPECT_TRUE(manager.notifyWriteEventReady(event.data.fd));
        }
        return -3;
    });
    ASSERT_TRUE(manager.addMonitorFd(pair.near, callback));
    ASSERT_TRUE(manager.notifyWriteEventReady(pair.near));
    manager.start();
    EXPECT_TRUE(WaitForCount("write", 2));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(Count("write"), 2);  // and then it is disarmed
}

TEST_F(EpollManagerTest, ArmingAnArmedDescriptorMakesNoSystemCall) {
    SocketPair pair;
    EpollManager manager(4, 8, nullptr, "EpollArm", -1);
    EpollCallback callback;
    callback.writeCallback = Record("write", nullptr);
    const int fd = pair.near.get();
    ASSERT_TRUE(manager.addMonitorFd(fd, callback));
    ASSERT_TRUE(manager.notifyWriteEventReady(fd));
    // Closing drops the descriptor from the epoll set, so any epoll_ctl on it now fails.
    pair.near.reset();
    EXPECT_TRUE(manager.notifyWriteEventReady(fd));
    EXPECT_EQ(log.CountContaining("Epoll mod monitor failed"), 0);
    EXPECT_FALSE(manager.markWriteEventFinish(fd));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "EpollArm",
                        "[EpollManager][markWriteEventFinish] Epoll mod monitor failed, fd: " + std::to_string(fd) +
                                ", message: Bad file descriptor"))
            << log.Dump();
}

TEST_F(EpollManagerTest, ArmingWithoutAWriteCallbackReRegistersTheSameMask) {
    SocketPair pair;
    EpollManager manager(4, 8, nullptr, "EpollNoWrite", -1);
    EpollCallback callback;
    callback.readCallback = Record("read", nullptr);
    const int fd = pair.near.get();
    ASSERT_TRUE(manager.addMonitorFd(fd, callback));
    EXPECT_TRUE(manager.notifyWriteEventReady(fd));
    pair.near.reset();
    // Never armed, so every call asks the kernel again.
    EXPECT_FALSE(manager.notifyWriteEventReady(fd));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "EpollNoWrite",
                        "[EpollManager][notifyWriteEventReady] Epoll mod monitor failed, fd: " + std::to_string(fd) +
                                ", message: Bad file descriptor"));
}

TEST_F(EpollManagerTest, UnknownDescriptorsAreRefusedWithTheirMessages) {
    EpollManager manager(4, 8, nullptr, "EpollUnknown", -1);
    EXPECT_FALSE(manager.notifyWriteEventReady(12345));
    EXPECT_FALSE(manager.markWriteEventFinish(12345));
    EXPECT_FALSE(manager.writeEventNow(12345));
    EXPECT_FALSE(manager.delMonitorFd(12345));
    EXPECT_EQ(log.Count(ANDROID_LOG_ERROR, "EpollUnknown",
                        "[EpollManager][notifyWriteEventReady] the socket fd does not exist"),
              2);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "EpollUnknown",
                        "[EpollManager][markWriteEventFinish] the socket fd does not exist"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "EpollUnknown",
                        "[EpollManager] Epoll del fd from epoll failed: 9, message: Bad file descriptor"))
            << log.Dump();
    EXPECT_FALSE(manager.addMonitorFd(-1, EpollCallback{}));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "EpollUnknown",
                        "[EpollManager] Epoll add monitor fd failed: 9, message: Bad file descriptor"));
}

TEST_F(EpollManagerTest, WriteEventNowDrivesTheWriteCallbackOnTheCallingThread) {
    SocketPair pair;
    EpollManager manager(4, 8, nullptr, "EpollNow", -1);
    const auto caller = std::this_thread::get_id();
    int rounds = 0;
    EpollCallback callback;
    callback.writeCallback = [&](epoll_event event) {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        EXPECT_EQ(event.events, 0u);
        EXPECT_EQ(event.data.fd, pair.near.get());
        return ++rounds < 3 ? 0 : -3;
    };
    ASSERT_TRUE(manager.addMonitorFd(pair.near, callback));
    EXPECT_TRUE(manager.writeEventNow(pair.near));
    EXPECT_EQ(rounds, 3);

    callback.writeCallback = [](epoll_event) { return -1; };
    ASSERT_TRUE(manager.addMonitorFd(pair.far, callback));
    EXPECT_FALSE(manager.writeEventNow(pair.far));
    callback.writeCallback = nullptr;
    manager.delMonitorFd(pair.far);
    ASSERT_TRUE(manager.addMonitorFd(pair.far, callback));
    EXPECT_FALSE(manager.writeEventNow(pair.far));
}

TEST_F(EpollManagerTest, AnUnregisteredDescriptorGetsNoMoreCallbacks) {
    SocketPair pair;
    SocketPair witness;  // proves the loop went round after the last write
    EpollManager manager(4, 8, nullptr, "EpollDel", -1);
    EpollCallback callback;
    callback.readCallback = Record("read", [](epoll_event event) { return Drain(event.data.fd); });
    ASSERT_TRUE(manager.addMonitorFd(pair.near, callback));
    manager.start();
    ASSERT_EQ(write(pair.far, "1", 1), 1);
    ASSERT_TRUE(WaitForCount("read", 1));
    ASSERT_TRUE(manager.delMonitorFd(pair.near));
    EpollCallback witnessCallback;
    witnessCallback.readCallback = Record("witness", [](epoll_event event) { return Drain(event.data.fd); });
    ASSERT_TRUE(manager.addMonitorFd(witness.near, witnessCallback));
    ASSERT_EQ(write(pair.far, "2", 1), 1);
    ASSERT_EQ(write(witness.far, "w", 1), 1);
    ASSERT_TRUE(WaitForCount("witness", 1));
    EXPECT_EQ(Count("read"), 1);
}

TEST_F(EpollManagerTest, StopBeforeStartLetsTheLoopRunItsInitAndLeaveAtOnce) {
    SocketPair pair;
    std::atomic<int> inits{0};
    EpollManager manager(4, 8, [&] { return ++inits; }, "EpollEarlyStop", -1);
    EpollCallback callback;
    callback.readCallback = Record("read", nullptr);
    ASSERT_TRUE(manager.addMonitorFd(pair.near, callback));
    manager.stop();
    ASSERT_EQ(write(pair.far, "x", 1), 1);  // ready after the control descriptor, so reported after it
    manager.start();
    EXPECT_TRUE(WaitUntil([&] { return inits == 1 && ThreadStatusField("EpollEarlyStop", "Pid").empty(); }, kWait));
    // Readable the whole time, yet never read: the control event ended the loop first.
    EXPECT_EQ(Count("read"), 0);
}

TEST_F(EpollManagerTest, AFailedInitIsReportedAndTheLoopRunsAllTheSame) {
    SocketPair pair;
    EpollManager manager(4, 8, [] { return 0; }, "EpollInitFail", -1);
    EpollCallback callback;
    callback.readCallback = Record("read", [](epoll_event event) { return Drain(event.data.fd); });
    ASSERT_TRUE(manager.addMonitorFd(pair.near, callback));
    manager.start();
    ASSERT_EQ(write(pair.far, "x", 1), 1);
    EXPECT_TRUE(WaitForCount("read", 1));
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "EpollInitFail", "[EpollManager][mainThread] initFunc failed"));
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "EpollInitFail", "[EpollManager] main thread starting..."));
}

TEST_F(EpollManagerTest, TheLoopThreadIsNamedPinnedAndIgnoresSigpipeAndSigquit) {
    cpu_set_t none;
    CPU_ZERO(&none);
    std::atomic<bool> inLoop{false};
    EpollManager manager(4, 8, [&] { return inLoop = true; }, "EpollPinned", none, -1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "EpollPinned", "[EpollManager] cpu affinity invalid!"));
    manager.start();
    ASSERT_TRUE(WaitUntil([&] { return inLoop.load(); }, kWait));
    EXPECT_EQ(ThreadStatusField("EpollPinned", "Cpus_allowed_list"), "0");
    for (const int signo : {SIGPIPE, SIGQUIT}) {
        struct sigaction action {};
        sigaction(signo, nullptr, &action);
        EXPECT_EQ(action.sa_handler, SIG_IGN) << signo;
    }
}

TEST_F(EpollManagerTest, WithoutATagTheManagerIsBpfUtils) {
    std::atomic<bool> inLoop{false};
    EpollManager manager(0, 8, [&] { return inLoop = true; }, -1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils", "[EpollManager] Create epoll failed: 22, message: Invalid argument"))
            << log.Dump();
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "BpfUtils", "[EpollManager] Setup control fd failed: 9, message: Bad file descriptor"));
    EXPECT_FALSE(manager.addMonitorFd(0, EpollCallback{}));
}

TEST(EpollManagerDeathTest, StartingTwiceTerminates) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
            {
                EpollManager manager(4, 8, nullptr, "EpollTwice", -1);
                manager.start();
                manager.start();
            },
            "");
}

}  // namespace
}  // namespace kova::test
