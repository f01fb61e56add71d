// CPU time in state, the user-space side of the KovaBpfTimeInState programs: discovery of the cpufreq
// policies and their frequency tables, seeding of the lookup maps the programs need, attachment of the
// two programs, and readers that turn the pinned maps into plain containers. Map layouts and index
// conventions: bpf/include/kova_bpf_records.h.
//
// State. Free functions over file-scope state that initGlobals() fills once: the policy tables, the
// per-CPU slot of each CPU, and six read-write descriptors of the pinned maps the readers use. A failed
// initialisation leaves what it had built (tables, open descriptors) and is run again in full by the
// next call, which appends to the same tables; nothing here logs (callers do).
//
// Threads. initGlobals() and startTrackingPidTimes() are serialised by their own locks. The readers take
// no lock: they rely on the tables being complete and frozen once initialisation succeeded, and on the
// kernel's per-operation atomicity of map accesses. Call them from one thread at a time (the service's
// "BpfServiceTimeInState").
//
// Paths. The cpufreq directory ("/sys/devices/system/cpu/cpufreq"), the pin directory and /proc go
// through KovaPath(), so tests and hosts without cpufreq can supply a generated tree.
#pragma once

#include <dirent.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "utils/kova_bpf_cpufreq.h"

namespace Kova::Bpf {

inline constexpr char KOVA_TIS_OBJECT[] = "KovaBpfTimeInState";

// One process's time since the last reset. The readers fill tgid and time; `name` stays zero until the
// reporting fills it from /proc.
struct tgid_data_t {
    uint32_t tgid;
    uint64_t time;  // ns
    char name[16];
};

// One thread's time since the last reset. The readers fill pid, tgid, thread_name (as the kernel side
// recorded it at the thread's last switch-out) and time; process_name stays zero.
struct pid_data_t {
    uint32_t pid;
    uint32_t tgid;
    char thread_name[16];
    char process_name[16];
    uint64_t time;  // ns
};

// Times per policy (in policy order) and frequency (ascending), in ns.
using PolicyTimes = std::vector<std::vector<uint64_t>>;

// ---- Set-up ----

// Reads the policies under the cpufreq directory and opens the reader maps. True once it has
// completed; idempotent after that.
bool initGlobals();
// The frequencies (kHz, ascending, duplicates kept) of every policy, in policy order.
std::optional<std::vector<std::vector<uint32_t>>> getCpuFreqs();
// Whether there are policies and both programs are pinned. Retrieved program descriptors are kept open.
bool isTrackingPidTimesSupported();
// Seeds the lookup maps (CPU to policy, frequency to index, current index per policy, zeroed switch
// stamps) and attaches both programs for the life of the process. True when tracking runs.
bool startTrackingPidTimes();

// ---- Readers ----

// Each frequency slot of each policy summed over the policy's CPUs. At most 64 slots are read.
std::optional<PolicyTimes> getTotalCpuFreqTimes();
// By tgid / by pid.
std::optional<std::unordered_map<uint32_t, tgid_data_t>> getTgidsTimes();
std::optional<std::unordered_map<uint32_t, pid_data_t>> getPidsTimes();
// As getPidsTimes(); when the newest last-update stamp of the threads exceeds *lastUpdate (0 for a
// null pointer), it is written back through the pointer.
std::optional<std::unordered_map<uint32_t, pid_data_t>> getPidsUpdateTimes(uint64_t* lastUpdate);
// By tgid / by pid: times per policy and frequency; frequencies past a policy's 32nd read 0.
std::optional<std::unordered_map<uint32_t, PolicyTimes>> getTgidsCpuFreqTimes();
std::optional<std::unordered_map<uint32_t, PolicyTimes>> getPidsCpuFreqTimes();
// The newest last-update stamp of any thread; 0 on failure.
uint64_t getPidLastUpdateTime();

// The resets behind requests 50008 to 50010. False at the first hard failure, leaving what it had not
// reached; entries that vanish meanwhile are no failure.
bool clearTotalTimes();
bool clearTgidTimes();
bool clearPidTimes();

// The first line of "/proc/<pid>/comm"; "" when the process is gone.
std::string getProcessName(int pid);

// Switch-outs whose process or thread got no entry because its map was full (or the kernel could not
// allocate one) since the object was loaded: the map "time_in_state_lost_map". Empty when unreadable.
struct tis_lost_counts_t {
    uint64_t tgid;
    uint64_t pid;
};
std::optional<tis_lost_counts_t> getLostUpdateCounts();

}  // namespace Kova::Bpf
