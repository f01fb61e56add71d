// kovabpfd as a user runs it: start-up lines, the readiness wait, signal 50, its pid file and a clean
// SIGTERM.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "kova_test_support.h"

namespace kova::test {
namespace {

using namespace std::chrono_literals;

class DaemonTest : public ::testing::Test {
  protected:
    std::vector<std::string> Environment() const {
        return {"KOVA_PROPERTY_DIR=" + dir_ / "props", "KOVA_DIAG_DIR=" + dir_ / "diag",
                "KOVA_PIN_DIR=" + dir_ / "pins", "KOVA_SOCKET_NAME=kova-daemon-test-" + std::to_string(getpid()),
                "KOVA_PID_FILE=" + PidFile()};
    }
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
