// The service's entry and lifecycle: the disable switch, the readiness wait across processes, producer
// threads, stop and Wait, and the singleton. Then kovabpfd as a user runs it: start-up lines, the
// readiness wait, signal 50, its pid file, a clean SIGTERM, and an outsider it never reads.

#include <android-base/properties.h>
#include <android/log.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <regex>
#include <thread>

#include "kova_ipc_test_util.h"
#include "kova_test_client.h"
#include "kova_test_support.h"
#include "service/kova_bpf_service.h"
#include "utils/kova_bpf_paths.h"
#include "utils/kova_bpf_time.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;
using namespace std::chrono_literals;

bool HasThread(const std::string& name) {
    const std::vector<std::string> names = ThreadNames();
    return std::find(names.begin(), names.end(), name) != names.end();
}

// The CPUs the thread named `name` may run on (from /proc/self/task/<tid>/status), or "".
std::string AllowedCpus(const std::string& name) {
    std::string value;
    for (const std::string& tid : ThreadIds()) {
        const std::string dir = "/proc/self/task/" + tid;
        if (ReadFile(dir + "/comm") != name + "\n") continue;
        const std::string status = ReadFile(dir + "/status");
        const std::string field = "Cpus_allowed_list:\t";
        const size_t start = status.find(field) + field.size();
        value = status.substr(start, status.find('\n', start) - start);
    }
    return value;
}

// Every test runs in a process of its own, so each one meets a fresh singleton.
class ServiceLifecycleTest : public ::testing::Test {
  protected:
    void SetUp() override { WriteFile(dir_ / "stat", "cpu 1\nbtime 4242\n"); }
    void StopAndWait() {
        KovaBpfService* service = KovaBpfService::GetInstance();
        service->stop();
        EXPECT_EQ(service->Wait(), 0);
    }

    ScopedPropertyStore properties_;
    ScopedServiceRoots roots_;
    TempDir dir_;
    ScopedRoot diag_{KOVA_DIAGNOSTICS_DIR, dir_ / "diag"};
    ScopedRoot stat_{KOVA_PROC_STAT, dir_ / "stat"};
    LogCapture log_;
};

TEST_F(ServiceLifecycleTest, OnlyTheExactValueOneDisablesTheService) {
    properties_.Set("persist.sys.stability.bpfframework.disable", "1");
    EXPECT_FALSE(BpfServiceMain());
    EXPECT_TRUE(log_.Has(ANDROID_LOG_INFO, "BpfService", "[BpfServiceMain] Starting KOVA Bpf Service disabled!"));
    EXPECT_EQ(log_.Records().size(), 1u);
    EXPECT_FALSE(FileExists(dir_ / "diag"));  // a disabled service touches nothing
}

class DisableValueTest : public ServiceLifecycleTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(DisableValueTest, OtherValuesLeaveTheServiceEnabled) {
    properties_.Set("persist.sys.stability.bpfframework.disable", GetParam());
    EXPECT_TRUE(BpfServiceMain());
    EXPECT_TRUE(log_.Has(ANDROID_LOG_INFO, "BpfService", "[BpfServiceMain] Starting KOVA Bpf Service"));
    EXPECT_TRUE(KovaBpfService::GetInstance()->running());
    StopAndWait();
}

INSTANTIATE_TEST_SUITE_P(Values, DisableValueTest, ::testing::Values("true", "01", "1 ", "0"));

TEST_F(ServiceLifecycleTest, ReadinessWaitEndsWhenAnotherProcessSetsTheProperty) {
    ASSERT_TRUE(BpfServiceMain());
    ASSERT_TRUE(WaitUntil([] { return HasThread("BpfServicePoll"); }, 2s));
    // The producer is pinned to CPUs 0 to 2 as far as this machine has them: "0-2", "0-1" or "0".
    const std::string allowed = AllowedCpus("BpfServicePoll");
    EXPECT_TRUE(allowed == "0-2" || allowed == "0-1" || allowed == "0") << allowed;
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(GetBasetime(), 0) << "the producer went on before the loader was ready";
    EXPECT_FALSE(KovaBpfService::GetInstance()->hasLaunchedProducers());

    ASSERT_EQ(RunProgram({ProjectBinary("kova-setprop"), "sys.kova_bpf_ready", "1"}), 0);
    EXPECT_TRUE(WaitUntil([] { return KovaBpfService::GetInstance()->hasLaunchedProducers(); }, 3s));
    EXPECT_EQ(GetBasetime(), 4242);
    StopAndWait();
}

TEST_F(ServiceLifecycleTest, StopThenWaitJoinsEveryProducer) {
    properties_.Set("sys.kova_bpf_ready", "ready");  // any value but "0" ends the wait
    ASSERT_TRUE(BpfServiceMain());
    ASSERT_TRUE(WaitUntil([] { return KovaBpfService::GetInstance()->hasLaunchedProducers(); }, 3s));
    EXPECT_EQ(GetBasetime(), 4242);
    // Nothing is pinned here: the dmabuf maps cannot be opened, which is logged and passed over, and
    // time in state cannot start; that ends its producer, not the service.
    EXPECT_TRUE(log_.Has(ANDROID_LOG_ERROR, "BpfService",
                         "[KovaBpfService][InitBpfMap] get processInodeMap failed: No such file or directory"));
    EXPECT_TRUE(log_.Has(ANDROID_LOG_ERROR, "BpfService", "[KovaBpfService][eventProduceThread] Init bpf map failed"));
    EXPECT_TRUE(log_.WaitFor("[KovaBpfService][timeInStateProduceThread] Start tracking pid times failed.", 3s));
    EXPECT_TRUE(HasThread("BpfServiceTr"));
    StopAndWait();
    EXPECT_FALSE(KovaBpfService::GetInstance()->running());
    for (const char* name : {"BpfServicePoll", "BpfServicePGpl", "BpfServiceTimeInState"}) {
        EXPECT_FALSE(HasThread(name)) << name;
    }
}

TEST_F(ServiceLifecycleTest, StopWhileWaitingForReadinessEndsTheProducer) {
    ASSERT_TRUE(BpfServiceMain());
    ASSERT_TRUE(WaitUntil([] { return HasThread("BpfServicePoll"); }, 2s));
    std::this_thread::sleep_for(300ms);  // into the one-second readiness sleep
    const auto started = std::chrono::steady_clock::now();
    StopAndWait();
    EXPECT_LT(std::chrono::steady_clock::now() - started, 3s);
    EXPECT_FALSE(HasThread("BpfServicePoll"));
    EXPECT_TRUE(log_.Has(ANDROID_LOG_WARN, "BpfService",
                         "[KovaBpfService][eventProduceThread] Service stopped while waiting for sys.kova_bpf_ready"));
}

TEST_F(ServiceLifecycleTest, ConcurrentGetInstanceCreatesOneService) {
    std::vector<KovaBpfService*> seen(16, nullptr);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&, i] {
            while (!go) std::this_thread::yield();
            seen[i] = KovaBpfService::GetInstance();
        });
    }
    go = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_NE(seen[0], nullptr);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), seen[0]), static_cast<long>(seen.size()));
    EXPECT_EQ(seen[0]->Wait(), 0);  // a service that is not running: returns at once
}

// The supervisor fills empty slots at once; if it does so before the event producer starts slots 1
// and 2 itself, the producer's start ends the process. This is why a host calls Wait() only after
// hasLaunchedProducers().
TEST_F(ServiceLifecycleTest, SupervisingBeforeTheProducersLaunchEndsTheProcess) {
    EXPECT_DEATH(
            {
                BpfServiceMain();
                std::thread([] { KovaBpfService::GetInstance()->Wait(); }).detach();
                std::this_thread::sleep_for(300ms);
                android::base::SetProperty("sys.kova_bpf_ready", "1");
                std::this_thread::sleep_for(5s);
            },
            "");
}

// kovabpfd as a user runs it.
class DaemonTest : public ::testing::Test {
  protected:
    std::vector<std::string> Environment() const {
        return {"KOVA_PROPERTY_DIR=" + dir_ / "props", "KOVA_DIAG_DIR=" + dir_ / "diag",
                "KOVA_PIN_DIR=" + dir_ / "pins", "KOVA_SOCKET_NAME=" + SocketName(), "KOVA_PID_FILE=" + PidFile()};
    }
    static std::string SocketName() { return "kova-daemon-test-" + std::to_string(getpid()); }
    std::unique_ptr<ChildProcess> StartDaemon() {
        return std::make_unique<ChildProcess>(std::vector<std::string>{ProjectBinary("kovabpfd")}, Environment(),
                                              dir_ / "stderr");
    }
    std::string Stderr() const { return ReadFile(dir_ / "stderr"); }
    std::string PidFile() const { return dir_ / "kovabpfd.pid"; }
    bool StderrHas(const std::string& text, std::chrono::milliseconds timeout = 5s) const {
        return WaitUntil([&] { return Stderr().find(text) != std::string::npos; }, timeout);
    }
    // Sends `signo` (none when 0) and expects a clean exit within 4 s.
    void ExpectCleanExit(ChildProcess& daemon, int signo) const {
        EXPECT_TRUE(signo == 0 || daemon.Signal(signo));
        const int status = daemon.WaitForExit(4s);
        EXPECT_TRUE(status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << Stderr();
    }
    void SetProperty(const std::string& name, const std::string& value) {
        ASSERT_EQ(RunProgram({ProjectBinary("kova-setprop"), name, value}, {"KOVA_PROPERTY_DIR=" + dir_ / "props"}), 0);
    }

    TempDir dir_;
};

TEST_F(DaemonTest, StartsWaitsForReadinessDumpsCountersAndStopsOnSigterm) {
    WriteFile(dir_ / "diag/error.log", "from the last run\n");
    auto daemon = StartDaemon();
    ASSERT_TRUE(StderrHas("I BpfService: [BpfServiceMain] Starting KOVA Bpf Service\n")) << Stderr();
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(dir_ / "diag/error.old.log") == "from the last run\n"; }, 5s));
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(PidFile()) == std::to_string(daemon->pid()) + "\n"; }, 5s));
    std::this_thread::sleep_for(1500ms);
    ASSERT_TRUE(daemon->running()) << Stderr();

    SetProperty("sys.kova_bpf_ready", "1");
    // The monitor installs the dump signal handlers, then finds no ring buffer in this pin directory.
    ASSERT_TRUE(StderrHas("[KovaBpfService][eventMonitor] KOVABPF: get ringbuf failed")) << Stderr();
    ASSERT_TRUE(daemon->Signal(50));
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(dir_ / "diag/bpfservice_state.csv").starts_with("EventCount, "); }, 5s));
    ASSERT_TRUE(daemon->running()) << Stderr();

    ExpectCleanExit(*daemon, SIGTERM);
    EXPECT_NE(Stderr().find("[kovabpfd] Terminated received, stopping the service"), std::string::npos);
    EXPECT_FALSE(FileExists(PidFile()));
}

TEST_F(DaemonTest, PidFileOfAnotherDaemonIsLeftInPlaceAndAnUnwritableOneIsNoFailure) {
    auto daemon = StartDaemon();
    ASSERT_TRUE(WaitUntil([&] { return FileExists(PidFile()); }, 5s)) << Stderr();
    WriteFile(PidFile(), "99999999\n");  // a second daemon took it over
    ExpectCleanExit(*daemon, SIGTERM);
    EXPECT_EQ(ReadFile(PidFile()), "99999999\n");

    std::vector<std::string> environment = Environment();
    environment.back() = "KOVA_PID_FILE=" + dir_ / "missing/dir/kovabpfd.pid";
    ChildProcess second({ProjectBinary("kovabpfd")}, environment, dir_ / "stderr");
    ASSERT_TRUE(StderrHas("W kovabpfd: [kovabpfd] cannot write the pid file " + dir_ / "missing/dir/kovabpfd.pid" +
                          ": No such file or directory"))
            << Stderr();
    ExpectCleanExit(second, SIGINT);  // also while it waits for readiness
}

// The framing's fatal check would end the daemon on this request, were it read. An outsider queues it
// while the daemon is stopped, so that it waits unread when the daemon accepts.
TEST_F(DaemonTest, AnOutsidersMalformedRequestIsNeverRead) {
    KOVA_REQUIRE(geteuid() == 0, "connecting as another user needs root");
    auto daemon = StartDaemon();
    TestClient root(SocketName());
    ASSERT_EQ(root.Subscribe(50001), 0) << Stderr();
    ASSERT_TRUE(daemon->Signal(SIGSTOP));
    TestClient outsider = ConnectAs(SocketName(), 65534, 65534, {});
    // dataSize says 8, but only 4 data bytes follow.
    ASSERT_TRUE(outsider.Send(PackageFrame(PACKAGE_TYPE_REQUEST, U32(1) + U32(51) + U32(8) + U32(50001))));
    ASSERT_TRUE(daemon->Signal(SIGCONT));
    EXPECT_EQ(NextRead(outsider.fd()), -ECONNRESET);  // closed with bytes unread
    EXPECT_EQ(root.Unsubscribe(50001), 0) << Stderr();
    // Not in the default client group, which this machine may lack.
    EXPECT_TRUE(std::regex_search(Stderr(), std::regex("W BpfService: \\[KovaBpfService\\] Refused client pid [0-9]+ "
                                                       "uid 65534 gid 65534: not root.* group kovabpf\n")))
            << Stderr();
    ExpectCleanExit(*daemon, SIGTERM);
}

TEST_F(DaemonTest, DisabledServiceExitsAtOnce) {
    SetProperty("persist.sys.stability.bpfframework.disable", "1");
    auto daemon = StartDaemon();
    ExpectCleanExit(*daemon, 0);
    EXPECT_NE(Stderr().find("[BpfServiceMain] Starting KOVA Bpf Service disabled!"), std::string::npos);
    EXPECT_FALSE(FileExists(dir_ / "diag"));
    EXPECT_FALSE(FileExists(PidFile()));
}

}  // namespace
}  // namespace kova::test
