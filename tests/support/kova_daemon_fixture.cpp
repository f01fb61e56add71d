#include "kova_daemon_fixture.h"

#include <bpf/bpf.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "kova_bpf_records.h"

namespace kova::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* kObjects[2] = {"KovaBpfDefineset", "KovaBpfGplDefineset"};
constexpr uint32_t kRingSize = 256 * 1024;

}  // namespace

DaemonUnderTest::DaemonUnderTest() {
    for (int ring = 0; ring < 2; ++ring) {
        const std::string prefix = std::string("map_") + kObjects[ring] + "_";
        ring_[ring].reset(bpf_map_create(BPF_MAP_TYPE_RINGBUF, "ringbuf_map", 0, 0, kRingSize, nullptr));
        status_[ring].reset(bpf_map_create(BPF_MAP_TYPE_ARRAY, "ringbuf_status", sizeof(uint32_t), sizeof(uint64_t),
                                           KOVA_STATUS_KEY_COUNT, nullptr));
        if (!ring_[ring].ok() || !status_[ring].ok()) continue;
        pins_.Pin(ring_[ring].get(), prefix + "ringbuf_map");
        pins_.Pin(status_[ring].get(), prefix + "ringbuf_status");
        injector_[ring] = std::make_unique<RingBufferInjector>(ring_[ring].get());
    }
    mkdir((dir_ / "proc").c_str(), 0755);
    mkdir((dir_ / "props").c_str(), 0755);
}

DaemonUnderTest::~DaemonUnderTest() {
    if (running()) Stop();
}

bool DaemonUnderTest::ok() const {
    for (int ring = 0; ring < 2; ++ring) {
        if (!injector_[ring] || !injector_[ring]->ok()) return false;
    }
    return true;
}

std::vector<std::string> DaemonUnderTest::Environment() const {
    // An empty /proc keeps the start-up scan and the parent look-ups under the test's control; the boot
    // time still comes from the real /proc/stat.
    return {"KOVA_PROPERTY_DIR=" + dir_ / "props", "KOVA_DIAG_DIR=" + diagDir(), "KOVA_PIN_DIR=" + pins_.path(),
            "KOVA_PROC_DIR=" + dir_ / "proc",      "KOVA_PROC_STAT=/proc/stat",    "KOVA_SOCKET_NAME=" + socketName_,
            "KOVA_PID_FILE=" + pidFile()};
}

bool DaemonUnderTest::Start(bool ready) {
    // A stopped daemon leaves its bits set; clear them so that the new one is seen setting them.
    for (int ring = 0; ring < 2; ++ring) {
        uint32_t key = KOVA_STATUS_WORD;
        uint64_t value = 0;
        bpf_map_update_elem(status_[ring].get(), &key, &value, BPF_ANY);
    }
    WriteFile(dir_ / "props/sys.kova_bpf_ready", ready ? "1" : "0");
    daemon_ = std::make_unique<ChildProcess>(std::vector<std::string>{ProjectBinary("kovabpfd")}, Environment(),
                                             dir_ / "kovabpfd.stderr");
    if (!WaitUntil([this] { return FileExists(pidFile()) || !running(); }, 5s) || !running()) return false;
    return !ready || WaitUntilServing(10s);
}

bool DaemonUnderTest::Stop() {
    if (!daemon_ || !daemon_->Signal(SIGTERM)) return false;
    const int status = daemon_->WaitForExit(5s);
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool DaemonUnderTest::WaitUntilServing(std::chrono::milliseconds timeout) const {
    constexpr uint64_t kEnabled = KOVA_STATUS_CORE | KOVA_STATUS_NORMAL;
    return WaitUntil(
            [this] {
                return (StatusWord(kNormalRing) & kEnabled) == kEnabled && (StatusWord(kGplRing) & kEnabled) == kEnabled;
            },
            timeout);
}

bool DaemonUnderTest::Inject(Ring ring, const std::string& bytes) {
    return injector_[ring] && injector_[ring]->ok() && injector_[ring]->Write(bytes);
}

uint64_t DaemonUnderTest::StatusWord(Ring ring) const {
    uint32_t key = KOVA_STATUS_WORD;
    uint64_t value = 0;
    return bpf_map_lookup_elem(status_[ring].get(), &key, &value) == 0 ? value : ~0ull;
}

}  // namespace kova::test
