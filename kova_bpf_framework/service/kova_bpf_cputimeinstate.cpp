// CPU time in state: policy discovery, seeding and attachment of the KovaBpfTimeInState programs, and
// the readers of their maps. Runs on "BpfServiceTimeInState" (or on a library caller's thread).

#include "service/kova_bpf_cputimeinstate.h"

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <linux/bpf.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <mutex>
#include <set>

#include "kova_bpf_records.h"
#include "service/kova_bpf_helper.h"
#include "utils/kova_bpf_common.h"
#include "service/kova_bpf_syscall.h"
#include "utils/kova_bpf_cpufreq.h"
#include "utils/kova_bpf_paths.h"

namespace Kova::Bpf {
namespace {

using android::base::unique_fd;

// With the trailing slash that the attach functions join with one more.
constexpr char kPinDir[] = "/sys/fs/bpf/kova/";
constexpr char kMapPathFormat[] = "/sys/fs/bpf/kova/map_KovaBpfTimeInState_%s";
constexpr uint32_t kNoSlot = 0xFFFFFFFF;
constexpr uint32_t kReadWrite = 0;
constexpr uint32_t kWriteOnly = BPF_F_WRONLY;  // file flags 16

std::mutex gTisInitLock;
std::mutex gTisTrackingLock;
// Set under their locks; read without by the readers and by isTrackingPidTimesSupported().
std::atomic<bool> gTisInitDone{false};
std::atomic<bool> gTisTracking{false};

// Filled by initGlobals() under gTisInitLock, frozen once gTisInitDone is set.
uint32_t gCpuCount = 0;
uint32_t gPolicyCount = 0;
std::vector<std::vector<uint32_t>> gPolicyFrequencies;
std::vector<std::vector<uint32_t>> gPolicyCpus;
std::vector<uint32_t> gCpuSlot;
std::set<uint32_t> gKnownFrequencies;  // kept current; nothing here reads it

unique_fd gTotalTimeMapFd;
unique_fd gPidDeltaMapFd;
unique_fd gPidFreqDeltaMapFd;
unique_fd gTgidDeltaMapFd;
unique_fd gTgidFreqDeltaMapFd;
unique_fd gPidLastUpdateMapFd;

// Recorded at load, as by the attachment module; informational only.
[[maybe_unused]] const PlatformBuildType gTisBuildType = ReadPlatformBuildType();

std::string MapPath(const char* map) { return KovaPath(StringPrintf(kMapPathFormat, map)); }

// How many per-CPU copies a lookup of a per-CPU map writes. The kernel writes one per possible CPU;
// gCpuCount normally equals that, and a buffer is never sized below it.
size_t PerCpuCopies() {
    const int possible = libbpf_num_possible_cpus();
    return std::max<size_t>(gCpuCount, possible > 0 ? static_cast<size_t>(possible) : 0);
}

bool Initialised() { return gTisInitDone.load(std::memory_order_acquire) || initGlobals(); }

// Policies that have both a frequency list and a CPU list. The two tables have the same length unless
// an initialisation failed half-way through a policy and a later one appended to what it left.
size_t CompletePolicies() { return std::min(gPolicyFrequencies.size(), gPolicyCpus.size()); }

// One zero per frequency of each policy.
PolicyTimes ZeroTimes() {
    PolicyTimes times;
    for (const std::vector<uint32_t>& frequencies : gPolicyFrequencies) times.emplace_back(frequencies.size(), 0);
    return times;
}

size_t LongestFrequencyList() {
    size_t longest = 0;
    for (const std::vector<uint32_t>& frequencies : gPolicyFrequencies) longest = std::max(longest, frequencies.size());
    return longest;
}

// Calls `visit` with every key of the map; a false from `visit` ends the walk. True when the walk
// reached the end (get-next-key failed with ENOENT).
template <typename Key, typename Visit>
bool ForEachKey(int mapFd, Visit visit) {
    Key key{};
    Key next{};
    const Key* previous = nullptr;  // the first call asks for the first key
    while (BpfMapGetNextKey(mapFd, previous, &next) == 0) {
        key = next;
        previous = &key;
        if (!visit(key)) return false;
    }
    return errno == ENOENT;
}

template <typename Key>
std::optional<std::vector<Key>> CollectKeys(int mapFd) {
    std::vector<Key> keys;
    if (!ForEachKey<Key>(mapFd, [&keys](const Key& key) {
            keys.push_back(key);
            return true;
        })) {
        return std::nullopt;
    }
    return keys;
}

uint32_t TgidOf(const uint32_t& key) { return key; }
uint32_t PidOf(const kova_tis_pid_key& key) { return key.pid; }

// A per-CPU frequency map as times per policy and frequency, by id.
template <typename Key>
std::optional<std::unordered_map<uint32_t, PolicyTimes>> ReadFreqTimes(int mapFd, uint32_t (*idOf)(const Key&)) {
    std::vector<kova_tis_freq_times> copies(PerCpuCopies());
    std::unordered_map<uint32_t, PolicyTimes> result;
    const bool complete = ForEachKey<Key>(mapFd, [&](const Key& key) {
        if (BpfMapLookupElem(mapFd, &key, copies.data()) != 0) return false;
        auto [entry, fresh] = result.try_emplace(idOf(key));
        if (!fresh) return true;  // met again after the kernel restarted the walk: the first stays
        entry->second = ZeroTimes();
        for (size_t policy = 0; policy < CompletePolicies(); ++policy) {
            const size_t slots = std::min<size_t>(gPolicyFrequencies[policy].size(), KOVA_TIS_FREQ_SLOTS);
            for (const uint32_t cpu : gPolicyCpus[policy]) {
                const uint32_t slot = gCpuSlot[cpu];
                if (slot >= copies.size()) continue;
                for (size_t j = 0; j < slots; ++j) entry->second[policy][j] += copies[slot].ns[j];
            }
        }
        return true;
    });
    if (!complete) return std::nullopt;
    return result;
}

std::optional<std::unordered_map<uint32_t, pid_data_t>> ReadPids(uint64_t* lastUpdate) {
    if (!Initialised()) return std::nullopt;
    const int mapFd = gPidDeltaMapFd.get();
    std::unordered_map<uint32_t, pid_data_t> result;
    uint64_t newest = lastUpdate != nullptr ? *lastUpdate : 0;
    const bool complete = ForEachKey<kova_tis_pid_key>(mapFd, [&](const kova_tis_pid_key& key) {
        kova_tis_pid_time value{};
        if (BpfMapLookupElem(mapFd, &key, &value) != 0) return false;
        pid_data_t data{};
        data.pid = key.pid;
        data.tgid = key.tgid;
        memcpy(data.thread_name, value.comm, sizeof(data.thread_name));
        data.time = value.time_ns;
        result.try_emplace(key.pid, data);
        uint64_t stamp = 0;
        if (lastUpdate != nullptr && BpfMapLookupElem(gPidLastUpdateMapFd.get(), &key, &stamp) == 0) {
            newest = std::max(newest, stamp);
        }
        return true;
    });
    if (!complete) return std::nullopt;
    if (lastUpdate != nullptr) *lastUpdate = newest;
    return result;
}

// Empties a delta map and its frequency map. Frequency entries are zeroed before they are deleted, so
// that a program holding one between the two steps adds to zero rather than to the old time.
template <typename Key>
bool ClearTimes(int deltaFd, int freqFd) {
    const std::optional<std::vector<Key>> deltaKeys = CollectKeys<Key>(deltaFd);
    if (!deltaKeys) return false;
    const std::optional<std::vector<Key>> freqKeys = CollectKeys<Key>(freqFd);
    if (!freqKeys) return false;
    for (const Key& key : *deltaKeys) {
        if (BpfMapDeleteElem(deltaFd, &key) != 0 && errno != ENOENT) return false;
    }
    const std::vector<kova_tis_freq_times> zeros(PerCpuCopies(), kova_tis_freq_times{});
    for (const Key& key : *freqKeys) {
        if (BpfMapUpdateElem(freqFd, &key, zeros.data(), BPF_EXIST) != 0 && errno != ENOENT) return false;
        if (BpfMapDeleteElem(freqFd, &key) != 0 && errno != ENOENT) return false;
    }
    return true;
}

// Steps of startTrackingPidTimes(), each with a descriptor of its own that closes on the way out.
bool SeedCpuPolicies() {
    unique_fd map(BpfObjGet(MapPath("cpu_policy_map").c_str(), kWriteOnly));
    if (!map.ok()) return false;
    for (uint32_t policy = 0; policy < gPolicyCpus.size(); ++policy) {
        for (const uint32_t cpu : gPolicyCpus[policy]) {
            if (BpfMapUpdateElem(map.get(), &cpu, &policy, BPF_ANY) != 0) return false;
        }
    }
    return true;
}

bool SeedFrequencyIndices() {
    unique_fd map(BpfObjGet(MapPath("freq_to_idx_map").c_str(), kWriteOnly));
    if (!map.ok()) return false;
    for (uint32_t policy = 0; policy < gPolicyFrequencies.size(); ++policy) {
        const std::vector<uint32_t>& frequencies = gPolicyFrequencies[policy];
        for (uint32_t j = 0; j < frequencies.size(); ++j) {
            const kova_tis_freq_key key{policy, frequencies[j]};
            const uint32_t index = j + 1;  // 1-based: 0 means "unknown" to the programs
            if (BpfMapUpdateElem(map.get(), &key, &index, BPF_ANY) != 0) return false;
        }
    }
    return true;
}

bool ZeroSwitchStamps() {
    unique_fd map(BpfObjGet(MapPath("cpu_last_update_map").c_str(), kWriteOnly));
    if (!map.ok()) return false;
    const uint32_t key = 0;
    const std::vector<uint64_t> zeros(PerCpuCopies(), 0);
    return BpfMapUpdateElem(map.get(), &key, zeros.data(), BPF_ANY) == 0;
}

bool SeedCurrentFrequencies() {
    unique_fd map(BpfObjGet(MapPath("policy_freq_idx_map").c_str(), kWriteOnly));
    if (!map.ok()) return false;
    const std::string dir = KovaPath(KOVA_CPUFREQ_DIR);
    for (uint32_t policy = 0; policy < CompletePolicies(); ++policy) {
        // The file is found through the policy's first CPU, not its directory's number.
        if (gPolicyCpus[policy].empty()) return false;
        const std::optional<std::vector<uint32_t>> current =
                readNumbersFromFile(StringPrintf("%s/policy%u/scaling_cur_freq", dir.c_str(), gPolicyCpus[policy][0]));
        if (!current || current->size() != 1) return false;
        const std::vector<uint32_t>& frequencies = gPolicyFrequencies[policy];
        const auto found = std::find(frequencies.begin(), frequencies.end(), current->front());
        if (found == frequencies.end()) return false;
        const uint32_t index = static_cast<uint32_t>(found - frequencies.begin()) + 1;
        if (BpfMapUpdateElem(map.get(), &policy, &index, BPF_ANY) != 0) return false;
    }
    return true;
}

}  // namespace

bool initGlobals() {
    std::lock_guard<std::mutex> lock(gTisInitLock);
    if (gTisInitDone.load(std::memory_order_relaxed)) return true;
    gCpuCount = static_cast<uint32_t>(get_nprocs_conf());

    const std::string dir = KovaPath(KOVA_CPUFREQ_DIR);
    const std::optional<std::vector<std::string>> policies = listPolicyFiles(dir);
    if (!policies) return false;
    gPolicyCount = static_cast<uint32_t>(policies->size());

    // A failure below leaves the tables as far as they got; the next call appends to them.
    for (const std::string& policy : *policies) {
        std::vector<uint32_t> frequencies = readPolicyFrequencies(dir, policy);
        if (frequencies.empty()) return false;
        gKnownFrequencies.insert(frequencies.begin(), frequencies.end());
        gPolicyFrequencies.push_back(std::move(frequencies));

        const std::optional<std::vector<uint32_t>> cpus =
                readNumbersFromFile(StringPrintf("%s/%s/%s", dir.c_str(), policy.c_str(), "related_cpus"));
        if (!cpus) return false;
        // The slot table is as long as the highest CPU: a number no kernel uses is a damaged file.
        if (std::any_of(cpus->begin(), cpus->end(), [](uint32_t cpu) { return cpu >= KOVA_TIS_CPU_ENTRIES; })) {
            return false;
        }
        gPolicyCpus.push_back(*cpus);
    }

    // Over every CPU the tables hold, those of an earlier, failed pass included.
    uint32_t highestCpu = 0;
    for (const std::vector<uint32_t>& cpus : gPolicyCpus) {
        for (const uint32_t cpu : cpus) highestCpu = std::max(highestCpu, cpu);
    }
    gCpuSlot.assign(highestCpu + 1, kNoSlot);
    uint32_t nextSlot = 0;
    for (const std::vector<uint32_t>& cpus : gPolicyCpus) {
        for (const uint32_t cpu : cpus) gCpuSlot[cpu] = nextSlot++;
    }

    const std::pair<unique_fd*, const char*> maps[] = {
            {&gTotalTimeMapFd, "total_time_in_state_map"},   {&gPidDeltaMapFd, "pid_delta_time_map"},
            {&gPidFreqDeltaMapFd, "pid_freq_delta_time_map"}, {&gTgidDeltaMapFd, "tgid_delta_time_map"},
            {&gTgidFreqDeltaMapFd, "tgid_freq_delta_time_map"}, {&gPidLastUpdateMapFd, "pid_last_update_map"},
    };
    for (const auto& [fd, name] : maps) {
        fd->reset(BpfObjGet(MapPath(name).c_str(), kReadWrite));
        if (!fd->ok()) return false;
    }
    gTisInitDone.store(true, std::memory_order_release);
    return true;
}

std::optional<std::vector<std::vector<uint32_t>>> getCpuFreqs() {
    if (!Initialised()) return std::nullopt;
    return gPolicyFrequencies;
}

bool isTrackingPidTimesSupported() {
    const std::optional<std::vector<std::vector<uint32_t>>> frequencies = getCpuFreqs();
    if (!frequencies || frequencies->empty()) return false;
    if (gTisTracking.load(std::memory_order_acquire)) return true;
    // Retrieved to see that they are pinned; the descriptors are deliberately kept.
    const std::string dir = KovaPath(kPinDir);
    if (RetrieveProgramFd(dir, KOVA_TIS_OBJECT, KIND_TRACEPOINT, "sched_sched_switch") < 0) return false;
    return RetrieveProgramFd(dir, KOVA_TIS_OBJECT, KIND_TRACEPOINT, "power_cpu_frequency") >= 0;
}

bool startTrackingPidTimes() {
    std::lock_guard<std::mutex> lock(gTisTrackingLock);
    if (!initGlobals()) return false;
    if (gTisTracking.load(std::memory_order_relaxed)) return true;
    if (!SeedCpuPolicies() || !SeedFrequencyIndices() || !ZeroSwitchStamps() || !SeedCurrentFrequencies()) {
        return false;
    }
    // The attachments live as long as their perf-event descriptors, which stay open for the process.
    const std::string dir = KovaPath(kPinDir);
    gTisTracking.store(AttachTracepointProgram(dir, KOVA_TIS_OBJECT, "sched_sched_switch") >= 0);
    if (!gTisTracking.load()) return false;
    gTisTracking.store(AttachTracepointProgram(dir, KOVA_TIS_OBJECT, "power_cpu_frequency") >= 0);
    return gTisTracking.load();
}

std::optional<PolicyTimes> getTotalCpuFreqTimes() {
    if (!Initialised()) return std::nullopt;
    PolicyTimes result = ZeroTimes();
    std::vector<uint64_t> copies(PerCpuCopies());
    const uint32_t slots = static_cast<uint32_t>(std::min<size_t>(LongestFrequencyList(), KOVA_TIS_TOTAL_SLOTS));
    for (uint32_t k = 0; k < slots; ++k) {
        if (BpfMapLookupElem(gTotalTimeMapFd.get(), &k, copies.data()) != 0) return std::nullopt;
        for (size_t policy = 0; policy < CompletePolicies(); ++policy) {
            if (gPolicyFrequencies[policy].size() <= k) continue;
            for (const uint32_t cpu : gPolicyCpus[policy]) {
                // The CPU must appear among the slot values, not the indices: a rule kept as it stands,
                // which admits every CPU when CPUs are numbered densely.
                if (std::find(gCpuSlot.begin(), gCpuSlot.end(), cpu) == gCpuSlot.end()) continue;
                const uint32_t slot = gCpuSlot[cpu];
                if (slot < copies.size()) result[policy][k] += copies[slot];
            }
        }
    }
    return result;
}

std::optional<std::unordered_map<uint32_t, tgid_data_t>> getTgidsTimes() {
    if (!Initialised()) return std::nullopt;
    const int mapFd = gTgidDeltaMapFd.get();
    std::unordered_map<uint32_t, tgid_data_t> result;
    const bool complete = ForEachKey<uint32_t>(mapFd, [&](const uint32_t& tgid) {
        uint64_t time = 0;
        if (BpfMapLookupElem(mapFd, &tgid, &time) != 0) return false;
        tgid_data_t data{};
        data.tgid = tgid;
        data.time = time;
        result.try_emplace(tgid, data);
        return true;
    });
    if (!complete) return std::nullopt;
    return result;
}

std::optional<std::unordered_map<uint32_t, pid_data_t>> getPidsTimes() { return ReadPids(nullptr); }

std::optional<std::unordered_map<uint32_t, pid_data_t>> getPidsUpdateTimes(uint64_t* lastUpdate) {
    uint64_t ignored = 0;
    return ReadPids(lastUpdate != nullptr ? lastUpdate : &ignored);
}

std::optional<std::unordered_map<uint32_t, PolicyTimes>> getTgidsCpuFreqTimes() {
    if (!Initialised()) return std::nullopt;
    return ReadFreqTimes<uint32_t>(gTgidFreqDeltaMapFd.get(), TgidOf);
}

std::optional<std::unordered_map<uint32_t, PolicyTimes>> getPidsCpuFreqTimes() {
    if (!Initialised()) return std::nullopt;
    return ReadFreqTimes<kova_tis_pid_key>(gPidFreqDeltaMapFd.get(), PidOf);
}

uint64_t getPidLastUpdateTime() {
    if (!Initialised()) return 0;
    const int mapFd = gPidLastUpdateMapFd.get();
    uint64_t newest = 0;
    bool lookupFailed = false;
    ForEachKey<kova_tis_pid_key>(mapFd, [&](const kova_tis_pid_key& key) {
        uint64_t stamp = 0;
        lookupFailed = BpfMapLookupElem(mapFd, &key, &stamp) != 0;
        newest = std::max(newest, stamp);
        return !lookupFailed;
    });
    return lookupFailed ? 0 : newest;
}

bool clearTotalTimes() {
    if (!Initialised()) return false;
    const std::vector<uint64_t> zeros(PerCpuCopies(), 0);
    const uint32_t slots = static_cast<uint32_t>(std::min<size_t>(LongestFrequencyList(), KOVA_TIS_TOTAL_SLOTS));
    for (uint32_t k = 0; k < slots; ++k) {
        if (BpfMapUpdateElem(gTotalTimeMapFd.get(), &k, zeros.data(), BPF_EXIST) != 0 && errno != ENOENT) return false;
    }
    return true;
}

bool clearTgidTimes() {
    if (!Initialised()) return false;
    return ClearTimes<uint32_t>(gTgidDeltaMapFd.get(), gTgidFreqDeltaMapFd.get());
}

bool clearPidTimes() {
    if (!Initialised()) return false;
    return ClearTimes<kova_tis_pid_key>(gPidDeltaMapFd.get(), gPidFreqDeltaMapFd.get());
}

std::string getProcessName(int pid) {
    std::ifstream comm(KovaPath(StringPrintf("/proc/%d/comm", pid)));
    std::string name;
    if (!comm.is_open()) return "";
    std::getline(comm, name);
    return name;
}

std::optional<tis_lost_counts_t> getLostUpdateCounts() {
    unique_fd map(BpfObjGet(MapPath("time_in_state_lost_map").c_str(), BPF_F_RDONLY));
    if (!map.ok()) return std::nullopt;
    tis_lost_counts_t counts{};
    const uint32_t tgidKey = KOVA_TIS_LOST_TGID;
    const uint32_t pidKey = KOVA_TIS_LOST_PID;
    if (BpfMapLookupElem(map.get(), &tgidKey, &counts.tgid) != 0 ||
        BpfMapLookupElem(map.get(), &pidKey, &counts.pid) != 0) {
        return std::nullopt;
    }
    return counts;
}

}  // namespace Kova::Bpf
