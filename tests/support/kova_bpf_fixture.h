// Real kernel objects for tests: whether this machine can run BPF, and a bpffs directory of the test's
// own, removed with everything pinned in it.
#pragma once

#include <string>

namespace kova::test {

// True when the process can create BPF maps and bpffs is mounted at /sys/fs/bpf; otherwise false
// with the reason in *reason. Use with KOVA_REQUIRE(HaveBpf(&reason), reason).
bool HaveBpf(std::string* reason);

// True when tracefs is mounted at /sys/kernel/tracing (BCC attaches tracepoints through it).
bool HaveTracefs(std::string* reason);

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

}  // namespace kova::test
