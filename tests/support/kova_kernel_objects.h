// The real kernel-side objects in a test: kovabpf-loader run into a pin directory of the test's own,
// tracepoints attached by the test, the status word set, and a ring buffer drained into records the
// test can search.
#pragma once

#include <stdint.h>
#include <sys/types.h>
#include <string.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "kova_bpf_fixture.h"
#include "kova_test_support.h"

struct ring_buffer;
struct bpf_object;
struct bpf_link;

namespace kova::test {

inline constexpr char kNormalObject[] = "KovaBpfDefineset";
inline constexpr char kGplObject[] = "KovaBpfGplDefineset";

// Runs kovabpf-loader with KOVA_PIN_DIR and KOVA_PROPERTY_DIR pointing at directories of this object.
class PinnedObjects {
  public:
    PinnedObjects();
    ~PinnedObjects();

    // True when the loader exited 0; otherwise message() says why.
    bool ok() const { return status_ == 0; }
    const std::string& message() const { return message_; }
    const BpfTestDir& pins() const { return pins_; }
    const std::string& propertyDir() const { return properties_.path(); }

    // A descriptor of the pinned object prog_/map_<name>; not ok() when missing.
    android::base::unique_fd Get(const std::string& pinName) const;
    android::base::unique_fd Map(const std::string& object, const std::string& map) const {
        return Get("map_" + object + "_" + map);
    }

    // Attaches prog_<object>_tracepoint_<program> to category:event for the lifetime of this object.
    bool AttachTracepoint(const std::string& object, const std::string& program, const std::string& category,
                          const std::string& event);

    // Writes `word` into key 0 of the object's "ringbuf_status".
    bool SetStatusWord(const std::string& object, uint64_t word) const;
    // Reads `key` of the object's "ringbuf_status"; ~0 when it cannot be read.
    uint64_t Status(const std::string& object, uint32_t key) const;

  private:
    BpfTestDir pins_;
    TempDir properties_;
    int status_ = -1;
    std::string message_;
    std::vector<android::base::unique_fd> links_;
};

// kovabpfd run as a user runs it, on the real objects that the loader pinned. It can be stopped or
// killed and started again on the same pins, as after a crash (the loader is not run again). The
// destructor stops a running daemon with SIGTERM and expects a clean exit.
class DaemonOnObjects {
  public:
    DaemonOnObjects();
    ~DaemonOnObjects();
    const PinnedObjects& objects() const { return objects_; }
    const std::string& socketName() const { return socketName_; }
    // "NAME=value" redirections for the daemon and for tools run against it.
    std::vector<std::string> Environment() const;
    // Launch(), then WaitUntilReady().
    bool Start(std::string* error);
    // Starts kovabpfd; its stderr replaces the previous instance's.
    bool Launch(std::string* error);
    // Waits until both monitors of this instance have taken their rings over and set their core and
    // normal bits (bits an earlier instance left set do not count).
    bool WaitUntilReady(std::string* error);
    // SIGTERM; true when it exits cleanly within 10 s.
    bool Stop();
    // SIGKILL, as a crash ends it, and reaps it.
    void Kill();
    std::string Stderr() const { return ReadFile(dir_ / "stderr"); }
    pid_t pid() const { return daemon_ ? daemon_->pid() : -1; }
    const std::string& diagDir() const { return dir_.path(); }
    // More "NAME=value" entries for the daemon's next Launch().
    std::vector<std::string> extraEnvironment;

  private:
    PinnedObjects objects_;
    TempDir dir_;
    std::string socketName_ = UniqueSocketName();
    std::unique_ptr<ChildProcess> daemon_;
    bool ended_ = false;  // stopped or killed by the test
};

// A test object of bpf/test whose maps are those of a pinned object (bpf_map__reuse_fd before load), so
// that its programs, which share their bodies with the real programs, act on the real pins.
class ObjectOnPins {
  public:
    ObjectOnPins(const PinnedObjects& pins, const std::string& pinnedObject, const std::string& testObject);
    ~ObjectOnPins();
    ObjectOnPins(const ObjectOnPins&) = delete;
    ObjectOnPins& operator=(const ObjectOnPins&) = delete;

    bool ok() const { return object_ != nullptr; }
    const std::string& error() const { return error_; }
    // Test-runs the program with `args` as its context (a raw tracepoint's arguments); false when it
    // cannot run.
    bool Run(const std::string& program, const std::vector<uint64_t>& args) const;
    // Attaches a program where its section says, for the lifetime of this object.
    bool Attach(const std::string& program);

  private:
    bpf_object* object_ = nullptr;
    std::vector<bpf_link*> links_;
    std::string error_;
};

// Drains one ring buffer (given by a descriptor the reader duplicates) into a list of records.
class RingReader {
  public:
    explicit RingReader(int ringBufferFd);
    ~RingReader();
    RingReader(const RingReader&) = delete;
    RingReader& operator=(const RingReader&) = delete;

    bool ok() const { return ring_ != nullptr; }
    // Consumes every record available now; returns how many.
    int Drain();
    // Waits in the ring buffer's own poll (so only a kernel wake-up ends the wait early) for up to
    // `timeout`; returns the records consumed, or a negative errno.
    int Poll(std::chrono::milliseconds timeout);
    // Drains every 20 ms until `condition` holds or `timeout` passes; returns the condition's last value.
    bool DrainUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

    const std::vector<std::string>& records() const { return records_; }
    void Clear() { records_.clear(); }

    // Every record of `type` as T, copied after checking its length against sizeof(T).
    template <typename T>
    std::vector<T> Of(uint32_t type) const {
        std::vector<T> out;
        for (const std::string& bytes : records_) {
            uint32_t recordType;
            if (bytes.size() < sizeof(recordType)) continue;
            memcpy(&recordType, bytes.data(), sizeof(recordType));
            if (recordType != type || bytes.size() != sizeof(T)) continue;
            T record;
            memcpy(static_cast<void*>(&record), bytes.data(), sizeof(T));
            out.push_back(record);
        }
        return out;
    }

  private:
    static int OnRecord(void* context, void* data, size_t size);

    android::base::unique_fd fd_;
    ring_buffer* ring_ = nullptr;
    std::vector<std::string> records_;
};

// Name of the calling thread, as a new child would inherit it.
std::string CurrentThreadComm();

// A cgroup of the test's own ("kova-test-<pid>-<n>") in the cpuset hierarchy (cgroup v1) or else the
// unified one (v2); removed on destruction once its members have left.
class TestCgroup {
  public:
    TestCgroup();
    ~TestCgroup();
    TestCgroup(const TestCgroup&) = delete;
    TestCgroup& operator=(const TestCgroup&) = delete;

    bool ok() const { return !root_.empty(); }
    const std::string& name() const { return name_; }
    // Moves the process `pid` into this cgroup, or back to the hierarchy's root.
    bool Move(pid_t pid, bool intoTest) const;

  private:
    std::string path() const { return root_ + "/" + name_; }
    std::string root_, name_;
    bool v1_ = false;
};

}  // namespace kova::test
