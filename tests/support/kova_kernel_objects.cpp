#include "kova_kernel_objects.h"

#include <bcc/libbpf.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

#include "kova_bpf_records.h"

namespace kova::test {

PinnedObjects::PinnedObjects() {
    std::string output;
    status_ = RunProgram({ProjectBinary("kovabpf-loader")},
                         {"KOVA_PIN_DIR=" + pins_.path(), "KOVA_PROPERTY_DIR=" + properties_.path()}, &output);
    message_ = "kovabpf-loader exited with " + std::to_string(status_) + ": " + output;
}

PinnedObjects::~PinnedObjects() = default;

android::base::unique_fd PinnedObjects::Get(const std::string& pinName) const {
    return android::base::unique_fd(bpf_obj_get((pins_ / pinName).c_str()));
}

bool PinnedObjects::AttachTracepoint(const std::string& object, const std::string& program,
                                     const std::string& category, const std::string& event) {
    android::base::unique_fd prog = Get("prog_" + object + "_tracepoint_" + program);
    if (!prog.ok()) return false;
    const int link = bpf_attach_tracepoint(prog.get(), category.c_str(), event.c_str());
    if (link < 0) return false;
    links_.emplace_back(link);
    return true;
}

bool PinnedObjects::SetStatusWord(const std::string& object, uint64_t word) const {
    android::base::unique_fd status = Map(object, "ringbuf_status");
    const uint32_t key = KOVA_STATUS_WORD;
    return status.ok() && bpf_map_update_elem(status.get(), &key, &word, BPF_ANY) == 0;
}

uint64_t PinnedObjects::Status(const std::string& object, uint32_t key) const {
    android::base::unique_fd status = Map(object, "ringbuf_status");
    uint64_t value = ~0ull;
    if (!status.ok() || bpf_map_lookup_elem(status.get(), &key, &value) != 0) return ~0ull;
    return value;
}

DaemonOnObjects::DaemonOnObjects() = default;

DaemonOnObjects::~DaemonOnObjects() {
    // A daemon that ended by itself (a crash) fails here too.
    if (daemon_ && !ended_) {
        EXPECT_TRUE(Stop()) << Stderr();
    }
}

std::vector<std::string> DaemonOnObjects::Environment() const {
    return {"KOVA_PROPERTY_DIR=" + objects_.propertyDir(), "KOVA_DIAG_DIR=" + dir_.path(),
            "KOVA_PIN_DIR=" + objects_.pins().path(), "KOVA_SOCKET_NAME=" + socketName_,
            "KOVA_PID_FILE=" + dir_ / "kovabpfd.pid"};
}

bool DaemonOnObjects::Start(std::string* error) { return Launch(error) && WaitUntilReady(error); }

bool DaemonOnObjects::Launch(std::string* error) {
    if (!objects_.ok()) {
        *error = objects_.message();
        return false;
    }
    std::vector<std::string> environment = Environment();
    environment.insert(environment.end(), extraEnvironment.begin(), extraEnvironment.end());
    daemon_ = std::make_unique<ChildProcess>(std::vector<std::string>{ProjectBinary("kovabpfd")}, environment,
                                             dir_ / "stderr");
    ended_ = false;
    return true;
}

bool DaemonOnObjects::WaitUntilReady(std::string* error) {
    constexpr uint64_t kEnabled = KOVA_STATUS_CORE | KOVA_STATUS_NORMAL;
    // Each monitor clears the status word when it takes its ring over, and says so, before it sets its bits.
    const bool flowing = WaitUntil(
            [&] {
                const std::string log = Stderr();
                return log.find("[KovaBpfService][eventMonitor] KOVABPF: ring taken over") != std::string::npos &&
                       log.find("[KovaBpfService][gpleventMonitor] KOVABPF: ring taken over") != std::string::npos &&
                       (objects_.Status(kNormalObject, KOVA_STATUS_WORD) & kEnabled) == kEnabled &&
                       (objects_.Status(kGplObject, KOVA_STATUS_WORD) & kEnabled) == kEnabled;
            },
            std::chrono::seconds(20));
    if (!flowing) *error = "the monitors did not start: " + Stderr();
    return flowing;
}

bool DaemonOnObjects::Stop() {
    if (!daemon_) return false;
    ended_ = true;
    daemon_->Signal(SIGTERM);
    const int status = daemon_->WaitForExit(std::chrono::seconds(10));
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void DaemonOnObjects::Kill() {
    if (!daemon_) return;
    ended_ = true;
    daemon_->Signal(SIGKILL);
    daemon_->WaitForExit(std::chrono::seconds(10));
}

ObjectOnPins::ObjectOnPins(const PinnedObjects& pins, const std::string& pinnedObject, const std::string& testObject) {
    const std::string path = std::string(KOVA_BPF_OBJECT_DIR) + "/" + testObject + ".o";
    bpf_object* object = bpf_object__open_file(path.c_str(), nullptr);
    if (object == nullptr) {
        error_ = "cannot open " + path + ": " + strerror(errno);
        return;
    }
    bpf_map* map;
    bpf_object__for_each_map(map, object) {
        if (bpf_map__is_internal(map)) continue;
        const android::base::unique_fd pinned = pins.Map(pinnedObject, bpf_map__name(map));
        if (!pinned.ok() || bpf_map__reuse_fd(map, pinned.get()) != 0) {
            error_ = "cannot use the pinned " + pinnedObject + " map " + bpf_map__name(map);
            bpf_object__close(object);
            return;
        }
    }
    if (const int err = bpf_object__load(object); err != 0) {
        error_ = "cannot load " + path + ": " + strerror(-err);
        bpf_object__close(object);
        return;
    }
    object_ = object;
}

ObjectOnPins::~ObjectOnPins() {
    for (bpf_link* link : links_) bpf_link__destroy(link);
    if (object_ != nullptr) bpf_object__close(object_);
}

bool ObjectOnPins::Run(const std::string& program, const std::vector<uint64_t>& args) const {
    const bpf_program* found = ok() ? bpf_object__find_program_by_name(object_, program.c_str()) : nullptr;
    LIBBPF_OPTS(bpf_test_run_opts, options, .ctx_in = args.data(), .ctx_size_in = static_cast<__u32>(args.size() * sizeof(uint64_t)));
    return found != nullptr && bpf_prog_test_run_opts(bpf_program__fd(found), &options) == 0;
}

bool ObjectOnPins::Attach(const std::string& program) {
    bpf_program* found = ok() ? bpf_object__find_program_by_name(object_, program.c_str()) : nullptr;
    bpf_link* link = found != nullptr ? bpf_program__attach(found) : nullptr;
    if (link == nullptr) {
        error_ = "cannot attach " + program + ": " + strerror(errno);
        return false;
    }
    links_.push_back(link);
    return true;
}

RingReader::RingReader(int ringBufferFd) : fd_(fcntl(ringBufferFd, F_DUPFD_CLOEXEC, 0)) {
    if (fd_.ok()) ring_ = ring_buffer__new(fd_.get(), &RingReader::OnRecord, this, nullptr);
}

RingReader::~RingReader() {
    if (ring_ != nullptr) ring_buffer__free(ring_);
}

int RingReader::OnRecord(void* context, void* data, size_t size) {
    static_cast<RingReader*>(context)->records_.emplace_back(static_cast<const char*>(data), size);
    return 0;
}

int RingReader::Drain() { return ring_ == nullptr ? -EINVAL : ring_buffer__consume(ring_); }

int RingReader::Poll(std::chrono::milliseconds timeout) {
    return ring_ == nullptr ? -EINVAL : ring_buffer__poll(ring_, static_cast<int>(timeout.count()));
}

bool RingReader::DrainUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        Drain();
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

std::string CurrentThreadComm() {
    char name[17] = {};
    prctl(PR_GET_NAME, name);
    return name;
}

TestCgroup::TestCgroup() {
    std::ifstream mounts("/proc/self/mounts");
    std::string line, device, mountPoint, type, options;
    while (std::getline(mounts, line)) {
        std::istringstream fields(line);
        fields >> device >> mountPoint >> type >> options;
        if (type == "cgroup" && ("," + options + ",").find(",cpuset,") != std::string::npos) {
            root_ = mountPoint;
            v1_ = true;
            break;
        }
        if (type == "cgroup2" && root_.empty()) root_ = mountPoint;
    }
    static std::atomic<int> counter{0};
    name_ = "kova-test-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
    if (root_.empty() || (mkdir(path().c_str(), 0755) != 0 && errno != EEXIST)) {
        root_.clear();
        return;
    }
    if (v1_) {
        // A v1 cpuset takes no task before it has CPUs and memory nodes.
        WriteFile(path() + "/cpuset.cpus", ReadFile(root_ + "/cpuset.cpus"));
        WriteFile(path() + "/cpuset.mems", ReadFile(root_ + "/cpuset.mems"));
    }
}

TestCgroup::~TestCgroup() {
    // A killed member leaves the cgroup shortly after it is reaped.
    if (ok()) WaitUntil([this] { return rmdir(path().c_str()) == 0 || errno == ENOENT; }, std::chrono::seconds(2));
}

bool TestCgroup::Move(pid_t pid, bool intoTest) const {
    std::ofstream procs((intoTest ? path() : root_) + (v1_ ? "/tasks" : "/cgroup.procs"));
    procs << pid << std::flush;
    return procs.good();
}

}  // namespace kova::test
