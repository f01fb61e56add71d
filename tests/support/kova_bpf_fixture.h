// Real kernel objects for tests: whether this machine can run BPF, a bpffs directory of the test's
// own, removed with everything pinned in it, and small real programs to pin there.
#pragma once

#include <android-base/unique_fd.h>
#include <linux/bpf.h>
#include <stdint.h>

#include <string>

namespace kova::test {

// True when the process can create BPF maps and bpffs is mounted at /sys/fs/bpf; otherwise false
// with the reason in *reason. Use with KOVA_REQUIRE(HaveBpf(&reason), reason).
bool HaveBpf(std::string* reason);

// True when tracefs is mounted at /sys/kernel/tracing (BCC attaches tracepoints through it).
bool HaveTracefs(std::string* reason);

// True when the kernel can create kprobes (a kprobe PMU or tracefs kprobe_events). Kernels built
// without CONFIG_KPROBES, like the development machines', load and pin kprobe programs but cannot
// attach them.
bool HaveKprobes();

// The name the loader pins a program under: "prog_<group>_<kind>_<name>".
std::string PinnedProgramName(const std::string& group, const std::string& kind, const std::string& name);

// A directory on bpffs that only this test uses ("/sys/fs/bpf/kova-test-<pid>-<n>"). Pins made in it
// are removed, and the directory with them, on destruction.
class BpfTestDir {
  public:
    BpfTestDir();
    ~BpfTestDir();
    BpfTestDir(const BpfTestDir&) = delete;
    BpfTestDir& operator=(const BpfTestDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    // Pins `fd` (a map or program) under `name` in this directory; false with errno on failure.
    bool Pin(int fd, const std::string& name) const;

  private:
    std::string path_;
};

// An array map of one 64-bit counter, which programs from LoadTestProgram() add one to each time they
// run: a test sees an attachment fire by the counter growing.
class BpfCounter {
  public:
    BpfCounter();  // creates the map; check ok()
    bool ok() const { return fd_.ok(); }
    int fd() const { return fd_.get(); }
    uint64_t Value() const;  // 0 when the map cannot be read

  private:
    android::base::unique_fd fd_;
};

// Loads a minimal real program of `type` (BPF_PROG_TYPE_TRACEPOINT, BPF_PROG_TYPE_KPROBE, ...) that
// returns 0, first adding one to `counter` when one is given. Returns the owned descriptor; on failure
// an invalid one, with errno's text in *error.
android::base::unique_fd LoadTestProgram(bpf_prog_type type, const BpfCounter* counter = nullptr,
                                         std::string* error = nullptr);

}  // namespace kova::test
