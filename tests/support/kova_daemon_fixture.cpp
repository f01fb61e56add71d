#include "kova_daemon_fixture.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>

#include "kova_bpf_records.h"
#include "service/kova_bpf_cputimeinstate.h"

namespace kova::test {

using namespace std::chrono_literals;

DaemonUnderTest::DaemonUnderTest(bool realProc) : realProc_(realProc) {
    mkdir((dir_ / "proc").c_str(), 0755);
    mkdir((dir_ / "props").c_str(), 0755);
    mkdir((dir_ / "cpufreq").c_str(), 0755);
}

bool DaemonUnderTest::EnableTimeInState(std::string* error) {
    loaded_ = std::make_unique<PinnedTimeInState>();
    if (!loaded_->ok()) {
        *error = loaded_->message();
        return false;
    }
    const std::string object = Kova::Bpf::KOVA_TIS_OBJECT;
    int pinned = 0;
    std::error_code failed;
    for (const auto& entry : std::filesystem::directory_iterator(loaded_->pins().path(), failed)) {
        const std::string name = entry.path().filename();
        if (!name.starts_with("map_" + object + "_") && !name.starts_with("prog_" + object + "_")) continue;
        android::base::unique_fd fd = loaded_->Get(name);
        if (!fd.ok() || !pins().Pin(fd.get(), name)) {
            *error = "cannot pin " + name + " again in " + pins().path() + ": " + strerror(errno);
            return false;
        }
        ++pinned;
    }
    if (pinned == 0) {
        *error = "the loader pinned nothing of " + object + " in " + loaded_->pins().path();
        return false;
    }
    tree_ = std::make_unique<CpufreqTree>();
    for (int cpu = 0; cpu < PossibleCpus(); ++cpu) {
        tree_->Add({static_cast<unsigned>(cpu), std::to_string(cpu) + "\n", kTisAvailableKhz, kTisBoostKhz,
                    std::to_string(kTisCurrentKhz) + "\n"});
    }
    return true;
}

DaemonUnderTest::~DaemonUnderTest() {
    if (running()) Stop();
}

std::vector<std::string> DaemonUnderTest::Environment() const {
    // An empty /proc keeps the start-up scan and the parent look-ups under the test's control; the boot
    // time still comes from the real /proc/stat.
    return {"KOVA_PROPERTY_DIR=" + dir_ / "props",
            "KOVA_DIAG_DIR=" + diagDir(),
            "KOVA_PIN_DIR=" + pins().path(),
            "KOVA_PROC_DIR=" + (realProc_ ? std::string("/proc") : dir_ / "proc"),
            "KOVA_PROC_STAT=/proc/stat",
            "KOVA_CPUFREQ_DIR=" + cpufreqDir(),
            "KOVA_SOCKET_NAME=" + socketName_,
            "KOVA_PID_FILE=" + pidFile()};
}

bool DaemonUnderTest::Start(bool ready) {
    // A stopped daemon leaves its bits set; cleared, so that the new one is seen setting them.
    SetStatus(kNormalRing, KOVA_STATUS_WORD, 0);
    SetStatus(kGplRing, KOVA_STATUS_WORD, 0);
    WriteFile(dir_ / "props/sys.kova_bpf_ready", ready ? "1" : "0");
    daemon_ = std::make_unique<ChildProcess>(std::vector<std::string>{ProjectBinary("kovabpfd")}, Environment(),
                                             dir_ / "kovabpfd.stderr");
    if (!WaitUntil([this] { return FileExists(pidFile()) || !running(); }, 5s) || !running()) return false;
    return !ready || WaitForMonitors(10s);
}

bool DaemonUnderTest::Stop() {
    if (!daemon_ || !daemon_->Signal(SIGTERM)) return false;
    const int status = daemon_->WaitForExit(5s);
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace kova::test
