// kovabpfd run as a child process, as a user runs it, against ring buffers and status maps that the
// test created and pinned under the service's names in a bpffs directory of its own, with every fixed
// path (properties, diagnostics, pins, /proc, socket, pid file) redirected to the test. Records are
// written into the rings from the kernel side with RingBufferInjector.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "kova_bpf_fixture.h"
#include "kova_ringbuf_injector.h"
#include "kova_test_support.h"

namespace kova::test {

class DaemonUnderTest {
  public:
    enum Ring { kNormalRing = 0, kGplRing = 1 };

    // Creates and pins both rings' maps. REQUIRES: HaveBpf(). Check ok().
    DaemonUnderTest();
    ~DaemonUnderTest();

    bool ok() const;

    // Starts kovabpfd. With `ready`, sets "sys.kova_bpf_ready" first and waits until both monitors
    // have set status bits 1 and 2; without, the daemon serves its socket but waits for the loader.
    bool Start(bool ready = true);
    // SIGTERM, then waits for a clean exit; false when it does not exit cleanly within 5 s.
    bool Stop();
    bool running() const { return daemon_ && daemon_->running(); }
    pid_t pid() const { return daemon_ ? daemon_->pid() : -1; }

    // Writes `bytes` as one record into a ring buffer, from the kernel side.
    bool Inject(Ring ring, const std::string& bytes);
    uint64_t StatusWord(Ring ring) const;

    // The redirections, as "NAME=value" entries for the daemon and for kovabpfctl.
    std::vector<std::string> Environment() const;
    const std::string& socketName() const { return socketName_; }
    std::string pidFile() const { return dir_ / "kovabpfd.pid"; }
    std::string diagDir() const { return dir_ / "diag"; }
    std::string Stderr() const { return ReadFile(dir_ / "kovabpfd.stderr"); }

  private:
    bool WaitUntilServing(std::chrono::milliseconds timeout) const;

    BpfTestDir pins_;
    TempDir dir_;
    std::string socketName_ = UniqueSocketName();
    android::base::unique_fd ring_[2];
    android::base::unique_fd status_[2];
    std::unique_ptr<RingBufferInjector> injector_[2];
    std::unique_ptr<ChildProcess> daemon_;
};

}  // namespace kova::test
