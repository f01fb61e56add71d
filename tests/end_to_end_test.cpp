// The whole system on the real kernel: kovabpf-loader pins the real objects, kovabpfd attaches them and
// serves a subscribed client, and real processes and threads become the client events the rules say.

#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <set>
#include <thread>

#include "kova_bpf_records.h"
#include "kova_kernel_objects.h"
#include "kova_test_client.h"
#include "protocol/kova_bpf_protocol.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;
using namespace std::chrono_literals;

constexpr int kProcesses = 20;
constexpr int kThreadsPerProcess = 12;
constexpr size_t kTouchedBytes = 8 << 20;
constexpr char kForkerName[] = "e2e-forker";

void SleepUntil(const timespec& start, double seconds) {
    const int64_t ns = start.tv_sec * 1000000000LL + start.tv_nsec + static_cast<int64_t>(seconds * 1e9);
    const timespec until{static_cast<time_t>(ns / 1000000000LL), static_cast<long>(ns % 1000000000LL)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

timespec gStart;

// A workload thread: the first one touches 8 MiB after 3.5 s; all of them end at 4.5 s, after the
// 3-second gate of young processes.
void* WorkloadThread(void* toucher) {
    if (toucher != nullptr) {
        SleepUntil(gStart, 3.5);
        void* memory = mmap(nullptr, kTouchedBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory != MAP_FAILED) memset(memory, 0x5a, kTouchedBytes);
    }
    SleepUntil(gStart, 4.5);
    return nullptr;
}

// The child: only async-signal-safe calls and raw threads, since it was forked from a threaded process.
[[noreturn]] void RunWorkload() {
    clock_gettime(CLOCK_MONOTONIC, &gStart);
    pthread_t threads[kThreadsPerProcess];
    for (int i = 0; i < kThreadsPerProcess; ++i) {
        pthread_create(&threads[i], nullptr, WorkloadThread, i == 0 ? &threads[i] : nullptr);
    }
    for (pthread_t thread : threads) pthread_join(thread, nullptr);
    _exit(0);
}

// Forks the workloads from a thread named kForkerName, so that the children carry that name.
std::vector<pid_t> SpawnWorkloads() {
    std::vector<pid_t> pids;
    std::thread forker([&] {
        prctl(PR_SET_NAME, kForkerName);
        for (int i = 0; i < kProcesses; ++i) {
            const pid_t pid = fork();
            if (pid == 0) RunWorkload();
            pids.push_back(pid);
        }
    });
    forker.join();
    return pids;
}

template <typename Event>
Event As(const std::string& bytes) {
    Event event{};
    memcpy(&event, bytes.data(), std::min(bytes.size(), sizeof(event)));
    return event;
}

class EndToEndTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
        KOVA_REQUIRE(HaveTracefs(&reason), reason);
        ASSERT_TRUE(daemon_.Start(&reason)) << reason;
    }

    DaemonOnObjects daemon_;
    const std::string& socketName_ = daemon_.socketName();
};

TEST_F(EndToEndTest, ProcessesAndThreadsBecomeTheEventsTheRulesSay) {
    TestClient client(socketName_);
    ASSERT_TRUE(client.connected());
    for (const int32_t id : {EVENT_TASK_CREATE, EVENT_TASK_EXIT, EVENT_THREAD_COUNT_CHANGE, EVENT_RSS_CHANGE}) {
        ASSERT_EQ(client.Subscribe(id), 0);
    }
    const std::vector<pid_t> pids = SpawnWorkloads();
    ASSERT_EQ(pids.size(), static_cast<size_t>(kProcesses));
    const std::set<pid_t> ours(pids.begin(), pids.end());

    std::map<pid_t, std::vector<KovaTaskCreateEvent>> created;
    std::map<pid_t, std::vector<KovaTaskExitEvent>> exited;
    std::map<pid_t, std::vector<KovaThreadCountChangeEvent>> threadCounts;
    std::map<pid_t, std::vector<KovaRssChangeEvent>> rss;
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (exited.size() < ours.size() && std::chrono::steady_clock::now() < deadline) {
        std::optional<std::string> event = client.NextEvent(1s);
        if (!event || event->size() < 8) continue;
        const uint32_t id = As<uint32_t>(*event);
        const pid_t pid = As<KovaTaskExitEvent>(*event).pid;  // every event has the pid at offset 4
        if (ours.count(pid) == 0) continue;                    // the whole machine is traced
        if (id == EVENT_TASK_CREATE) created[pid].push_back(As<KovaTaskCreateEvent>(*event));
        if (id == EVENT_TASK_EXIT) exited[pid].push_back(As<KovaTaskExitEvent>(*event));
        if (id == EVENT_THREAD_COUNT_CHANGE) threadCounts[pid].push_back(As<KovaThreadCountChangeEvent>(*event));
        if (id == EVENT_RSS_CHANGE) rss[pid].push_back(As<KovaRssChangeEvent>(*event));
    }
    for (const pid_t pid : pids) {
        int status = 0;
        waitpid(pid, &status, 0);
    }
    // One more second for anything still in flight (there should be nothing). The whole machine is
    // traced, so other processes' events may never pause for that long.
    const auto lateUntil = std::chrono::steady_clock::now() + 1s;
    while (std::chrono::steady_clock::now() < lateUntil) {
        const std::optional<std::string> late = client.NextEvent(100ms);
        if (!late || late->size() < 8) continue;
        const pid_t pid = As<KovaTaskExitEvent>(*late).pid;
        if (ours.count(pid) != 0 && As<uint32_t>(*late) != EVENT_RSS_CHANGE) ADD_FAILURE() << "late event for " << pid;
    }

    for (const pid_t pid : pids) {
        SCOPED_TRACE("pid " + std::to_string(pid));
        ASSERT_EQ(created[pid].size(), 1u);
        EXPECT_EQ(std::tie(created[pid][0].ppid, created[pid][0].uid), std::make_tuple(getpid(), getuid()));
        EXPECT_STREQ(created[pid][0].comm, kForkerName);
        ASSERT_EQ(exited[pid].size(), 1u);
        EXPECT_STREQ(exited[pid][0].comm, kForkerName);

        // Twelve threads made in the first 3 s are counted silently; the first thread exit after 3 s
        // reports 1 -> 12 and the eleventh after it 12 -> 1.
        ASSERT_EQ(threadCounts[pid].size(), 2u);
        EXPECT_EQ(std::tie(threadCounts[pid][0].oldThreadNum, threadCounts[pid][0].threadNum), std::make_tuple(1, 12));
        EXPECT_EQ(std::tie(threadCounts[pid][1].oldThreadNum, threadCounts[pid][1].threadNum), std::make_tuple(12, 1));

        // Touching 8 MiB after 3 s is reported; every report covers at least 16384 bytes of change.
        ASSERT_FALSE(rss[pid].empty());
        int64_t largestAnon = 0;
        for (const KovaRssChangeEvent& event : rss[pid]) {
            int64_t change = 0;
            for (int member = 0; member < 4; ++member) change += std::abs(event.rssSize[member] - event.rssOldSize[member]);
            EXPECT_GE(change, 16384);
            largestAnon = std::max(largestAnon, event.rssSize[KOVA_RSS_ANON]);
        }
        EXPECT_GE(largestAnon, static_cast<int64_t>(kTouchedBytes));
    }
    // Nothing was lost in the kernel: the ring buffers never filled.
    EXPECT_EQ(daemon_.objects().Status(kNormalObject, KOVA_STATUS_WORD) & KOVA_STATUS_FULL, 0u);
}

// An operator watching cgroup moves by name sees a process moved into a cgroup and back, with the
// destination, from the real cgroup program through the daemon.
TEST_F(EndToEndTest, WatchNamesACgroupMove) {
    TestCgroup cgroup;
    KOVA_REQUIRE(cgroup.ok(), "no cpuset or unified cgroup hierarchy to create a test cgroup in");
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_NAME, "kova-moved");
        pause();
        _exit(0);
    }
    TempDir out;
    ChildProcess watch({ProjectBinary("kovabpfctl"), "watch", "--json", "--count", "2", "--pid", std::to_string(child),
                        "cgroup_move"},
                       daemon_.Environment(), out / "stderr", out / "stdout");
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(out / "stderr").find("watching 5") != std::string::npos; }, 10s))
            << ReadFile(out / "stderr");
    ASSERT_TRUE(cgroup.Move(child, true));
    ASSERT_TRUE(cgroup.Move(child, false));
    const int status = watch.WaitForExit(10s);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << ReadFile(out / "stderr");

    const std::string lines = ReadFile(out / "stdout");
    const std::string moved = "\"event\":\"cgroup_move\",\"pid\":" + std::to_string(child) + ",\"comm\":\"kova-moved\"";
    const size_t into = lines.find(moved);
    ASSERT_NE(into, std::string::npos) << lines;
    EXPECT_NE(lines.find("\"path\":\"/" + cgroup.name() + "\",\"level\":1", into), std::string::npos) << lines;
    EXPECT_NE(lines.find("\"path\":\"/\",\"level\":0", lines.find(moved, into + 1)), std::string::npos) << lines;
}

// Under a service manager (systemd's Type=notify), the daemon says it is ready only once it serves: its
// socket accepts and both monitors' records flow. It says so when it stops, too.
TEST(ServiceManagerTest, TheDaemonIsReadyOnlyOnceItServesAndSaysWhenItStops) {
    std::string reason;
    KOVA_REQUIRE(HaveBpf(&reason), reason);
    const std::string name = "kova-notify-" + std::to_string(getpid());
    const android::base::unique_fd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, name.data(), name.size());
    ASSERT_EQ(bind(manager.get(), reinterpret_cast<const sockaddr*>(&address),
                   static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size())),
              0);
    const auto next = [&](int timeoutMs) {
        pollfd ready{manager.get(), POLLIN, 0};
        char message[256];
        const ssize_t size = poll(&ready, 1, timeoutMs) == 1 ? recv(manager.get(), message, sizeof(message), 0) : -1;
        return size < 0 ? std::string() : std::string(message, static_cast<size_t>(size));
    };

    DaemonOnObjects daemon;
    daemon.extraEnvironment = {"NOTIFY_SOCKET=@" + name};
    ASSERT_TRUE(daemon.Launch(&reason)) << reason;
    ASSERT_EQ(next(30000), "READY=1\nSTATUS=serving clients") << daemon.Stderr();
    constexpr uint64_t kFlowing = KOVA_STATUS_CORE | KOVA_STATUS_NORMAL;
    EXPECT_EQ(daemon.objects().Status(kNormalObject, KOVA_STATUS_WORD) & kFlowing, kFlowing);
    EXPECT_EQ(daemon.objects().Status(kGplObject, KOVA_STATUS_WORD) & kFlowing, kFlowing);
    EXPECT_TRUE(TestClient(daemon.socketName(), std::chrono::milliseconds(0)).connected());
    EXPECT_EQ(next(0), "") << "said twice";
    ASSERT_TRUE(daemon.Stop()) << daemon.Stderr();
    EXPECT_EQ(next(5000), "STOPPING=1");
}

// The units are well formed for the systemd of this machine, and name programs that exist.
TEST(ServiceManagerTest, TheSystemdUnitsVerify) {
    KOVA_REQUIRE(access("/usr/bin/systemd-analyze", X_OK) == 0, "no systemd-analyze (package systemd)");
    std::string out;
    const std::string unitDir = KOVA_UNIT_DIR;
    const int status = RunProgram({"/bin/sh", "-c",
                                   "systemd-analyze verify --man=no " + unitDir + "/kovabpf-loader.service " + unitDir +
                                           "/kovabpfd.service " + unitDir + "/kovabpfd.socket 2>&1"},
                                  {}, &out);
    EXPECT_EQ(status, 0) << out;
    EXPECT_EQ(out, "");
}

// Socket activation: a service manager listens first and hands the socket over as descriptor 3 with
// LISTEN_PID and LISTEN_FDS; the daemon serves on it instead of making its own.
TEST(ServiceManagerTest, TheDaemonServesTheSocketAServiceManagerHandsOver) {
    std::string reason;
    KOVA_REQUIRE(HaveBpf(&reason), reason);
    const std::string name = "kova-activated-" + std::to_string(getpid());
    const android::base::unique_fd listening(socket(AF_UNIX, SOCK_STREAM, 0));  // inherited on purpose
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, name.data(), name.size());
    ASSERT_EQ(bind(listening.get(), reinterpret_cast<const sockaddr*>(&address),
                   static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size())),
              0);
    ASSERT_EQ(listen(listening.get(), 16), 0);
    // A client may connect before the daemon runs: it waits in the backlog.
    TestClient early(name, std::chrono::milliseconds(0));
    ASSERT_TRUE(early.connected());

    DaemonOnObjects objects;  // pins, properties and a socket name of its own, which must stay unused
    TempDir dir;
    const std::string command = "exec 3<&" + std::to_string(listening.get()) + "; LISTEN_PID=$$ LISTEN_FDS=1 exec " +
                                ProjectBinary("kovabpfd");
    ChildProcess daemon({"/bin/sh", "-c", command}, objects.Environment(), dir / "stderr");
    const uint32_t event = EVENT_TASK_CREATE;
    const uint32_t request = early.Request(51, std::string(reinterpret_cast<const char*>(&event), sizeof(event)));
    const std::optional<Response> answer = early.AwaitResponse(request, std::chrono::seconds(30));
    ASSERT_TRUE(answer.has_value()) << ReadFile(dir / "stderr");
    EXPECT_EQ(answer->result, 0);
    EXPECT_FALSE(TestClient(objects.socketName(), std::chrono::milliseconds(0)).connected());
    daemon.Signal(SIGTERM);
    EXPECT_NE(daemon.WaitForExit(std::chrono::seconds(10)), -1);
}

}  // namespace
}  // namespace kova::test
