// CPU time in state in a test: a generated cpufreq tree, the real KovaBpfTimeInState pinned by the real
// loader into the test's own directory (both redirected in through the path seam), direct access to its
// maps, the frequency-change program run on demand, and busy children pinned to one CPU.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>

#include "kova_kernel_objects.h"
#include "kova_test_support.h"

namespace kova::test {

// policyN directories under a temporary directory that stands in for "/sys/devices/system/cpu/cpufreq".
class CpufreqTree {
  public:
    struct Policy {
        unsigned number;          // the directory is "policy<number>"
        std::string relatedCpus;  // the files' contents as the kernel writes them, e.g. "0 1\n"
        std::string available;
        std::string boost;        // no file when empty
        std::string current;      // no file when empty
    };

    CpufreqTree() = default;
    explicit CpufreqTree(const std::vector<Policy>& policies) {
        for (const Policy& policy : policies) Add(policy);
    }
    void Add(const Policy& policy);
    const std::string& path() const { return dir_.path(); }

  private:
    TempDir dir_;
    ScopedRoot root_{Kova::Bpf::KOVA_CPUFREQ_DIR, dir_.path()};
};

// The machine's possible CPUs: how many copies a per-CPU map value has.
int PossibleCpus();

// Time the hypervisor took from `cpu` so far ("steal" in /proc/stat), in ns, at its tick granularity.
// The scheduler's own counts leave it out; switch-to-switch times cannot.
uint64_t CpuStealNs(int cpu);

// The loader's pins, with the service's pin directory pointed at them.
class PinnedTimeInState : public PinnedObjects {
  public:
    // A descriptor of map_KovaBpfTimeInState_<map>.
    android::base::unique_fd TisMap(const std::string& map) const { return Map("KovaBpfTimeInState", map); }
    // Writes `value` under `key` into map_KovaBpfTimeInState_<map>. A per-CPU map takes one copy per
    // possible CPU: `copies` is padded with zero values to that count.
    template <typename Key, typename Value>
    bool Put(const std::string& map, const Key& key, const Value& value) const {
        return bpf_map_update_elem(TisMap(map).get(), &key, &value, BPF_ANY) == 0;
    }
    template <typename Key, typename Value>
    bool PutPerCpu(const std::string& map, const Key& key, std::vector<Value> copies) const {
        copies.resize(PossibleCpus());
        return bpf_map_update_elem(TisMap(map).get(), &key, copies.data(), BPF_ANY) == 0;
    }
    // Pins a queue under the name of `map`: every walk and lookup of it fails, as every write does.
    bool ReplaceWithUnreadable(const std::string& map) const;
    // Freezes `map`: writes and deletes from user space fail from now on, reads still work.
    bool Freeze(const std::string& map) const { return bpf_map_freeze(TisMap(map).get()) == 0; }

  private:
    ScopedRoot pinRoot_{Kova::Bpf::KOVA_PIN_DIR, pins().path()};
};

// KovaBpfTimeInState's power_cpu_frequency body in a raw tracepoint program that the kernel can
// test-run, its maps those of the pinned object.
class FrequencyChanger {
  public:
    explicit FrequencyChanger(const PinnedTimeInState& pins) : object_(pins, "KovaBpfTimeInState", "kova_tis_test_run") {}
    bool ok() const { return object_.ok(); }
    const std::string& error() const { return object_.error(); }
    // Runs the program as the tracepoint "CPU `cpu` now runs at `khz`" would; false when it cannot run.
    bool Change(uint32_t khz, uint32_t cpu) const { return object_.Run("kova_tis_cpu_frequency", {khz, cpu}); }

  private:
    ObjectOnPins object_;
};

// A child that spins on `cpu` (forked from a thread pinned there, so that it never runs elsewhere),
// named `name`. Stop() freezes it with SIGSTOP and returns once it has been switched out, so all its
// time is charged, and its /proc entry stays. Killed on destruction.
class BusyChild {
  public:
    BusyChild(int cpu, const char* name);
    ~BusyChild();
    pid_t pid() const { return pid_; }
    bool Stop();
    // The first field of /proc/<pid>/schedstat: the nanoseconds it has run, as the scheduler counts them.
    uint64_t ScheduledNs() const;

  private:
    pid_t pid_ = -1;
};

}  // namespace kova::test
