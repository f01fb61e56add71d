// kovabpfd run as a child process, as a user runs it, against ring buffers and status maps that the
// test created and pinned under the service's names in a bpffs directory of its own (PinnedRings), with
// every fixed path (properties, diagnostics, pins, /proc, cpufreq, socket, pid file) redirected to the
// test. It can be stopped and started again on the same rings. Time-in-state tracking runs only when
// asked for (EnableTimeInState()); otherwise the daemon's cpufreq directory is empty.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "kova_service_harness.h"
#include "kova_test_support.h"
#include "kova_time_in_state_support.h"

namespace kova::test {

class DaemonUnderTest : public PinnedRings {
  public:
    // REQUIRES: HaveBpf(). Check ok(). The daemon sees an empty /proc unless `realProc`.
    explicit DaemonUnderTest(bool realProc = false);
    ~DaemonUnderTest();

    // The cpufreq tree EnableTimeInState() generates: policy N holds CPU N, lists these frequencies
    // (kHz; available out of order, and a boost one) and runs at kTisCurrentKhz.
    static constexpr char kTisAvailableKhz[] = "1200000 300000\n";
    static constexpr char kTisBoostKhz[] = "2400000\n";
    static constexpr uint32_t kTisCurrentKhz = 1200000;

    // Before Start(): gives the daemon real time-in-state tracking. The real loader pins its objects into
    // a bpffs directory of its own; the KovaBpfTimeInState maps and programs are pinned again under the
    // same names beside the test's rings, and the daemon's cpufreq directory gets one policy per
    // possible CPU. False, with the reason in *error, when that cannot be done.
    bool EnableTimeInState(std::string* error);
    // The loader's pins behind the daemon's (this process's pin directory points at them too).
    // REQUIRES: EnableTimeInState() succeeded.
    const PinnedTimeInState& timeInState() const { return *loaded_; }
    // The cpufreq directory the daemon reads.
    std::string cpufreqDir() const { return tree_ ? tree_->path() : dir_ / "cpufreq"; }

    // Starts kovabpfd. With `ready`, sets "sys.kova_bpf_ready" first and waits until both monitors
    // have set status bits 1 and 2; without, the daemon serves its socket but waits for the loader.
    bool Start(bool ready = true);
    // SIGTERM, then waits for a clean exit; false when it does not exit cleanly within 5 s.
    bool Stop();
    bool running() const { return daemon_ && daemon_->running(); }
    pid_t pid() const { return daemon_ ? daemon_->pid() : -1; }

    // The redirections, as "NAME=value" entries for the daemon and for kovabpfctl.
    std::vector<std::string> Environment() const;
    const std::string& socketName() const { return socketName_; }
    std::string pidFile() const { return dir_ / "kovabpfd.pid"; }
    std::string diagDir() const { return dir_ / "diag"; }
    std::string Stderr() const { return ReadFile(dir_ / "kovabpfd.stderr"); }

  private:
    TempDir dir_;
    const bool realProc_;
    std::string socketName_ = UniqueSocketName();
    std::unique_ptr<PinnedTimeInState> loaded_;  // the loader's own pins, when time in state is enabled
    std::unique_ptr<CpufreqTree> tree_;
    std::unique_ptr<ChildProcess> daemon_;
};

}  // namespace kova::test
