#include "kova_daemon_fixture.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "kova_bpf_records.h"

namespace kova::test {

using namespace std::chrono_literals;

DaemonUnderTest::DaemonUnderTest(bool realProc) : realProc_(realProc) {
    mkdir((dir_ / "proc").c_str(), 0755);
    mkdir((dir_ / "props").c_str(), 0755);
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
