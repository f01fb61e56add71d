#include "kova_time_in_state_support.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <thread>

namespace kova::test {

void CpufreqTree::Add(const Policy& policy) {
    const std::string dir = dir_ / ("policy" + std::to_string(policy.number));
    WriteFile(dir + "/related_cpus", policy.relatedCpus);
    WriteFile(dir + "/scaling_available_frequencies", policy.available);
    if (!policy.boost.empty()) WriteFile(dir + "/scaling_boost_frequencies", policy.boost);
    if (!policy.current.empty()) WriteFile(dir + "/scaling_cur_freq", policy.current);
}

int PossibleCpus() { return libbpf_num_possible_cpus(); }

uint64_t CpuStealNs(int cpu) {
    std::istringstream stat(ReadFile("/proc/stat"));
    const std::string name = "cpu" + std::to_string(cpu);
    for (std::string line; std::getline(stat, line);) {
        std::istringstream fields(line);
        std::string label;
        uint64_t value[8] = {};  // user nice system idle iowait irq softirq steal
        fields >> label;
        if (label != name) continue;
        for (uint64_t& field : value) fields >> field;
        return value[7] * (1000000000ull / sysconf(_SC_CLK_TCK));
    }
    return 0;
}

bool PinnedTimeInState::ReplaceWithUnreadable(const std::string& map) const {
    android::base::unique_fd queue(bpf_map_create(BPF_MAP_TYPE_QUEUE, map.c_str(), 0, sizeof(uint64_t), 1, nullptr));
    const std::string name = "map_KovaBpfTimeInState_" + map;
    return queue.ok() && unlink((pins() / name).c_str()) == 0 && pins().Pin(queue.get(), name);
}

FrequencyChanger::FrequencyChanger(const PinnedTimeInState& pins) {
    const std::string path = std::string(KOVA_BPF_OBJECT_DIR) + "/kova_tis_test_run.o";
    bpf_object* object = bpf_object__open_file(path.c_str(), nullptr);
    if (object == nullptr) {
        error_ = "cannot open " + path + ": " + strerror(errno);
        return;
    }
    bpf_map* map;
    bpf_object__for_each_map(map, object) {
        if (bpf_map__is_internal(map)) continue;
        android::base::unique_fd pinned = pins.TisMap(bpf_map__name(map));
        if (!pinned.ok() || bpf_map__reuse_fd(map, pinned.get()) != 0) {
            error_ = std::string("cannot use the pinned ") + bpf_map__name(map);
            bpf_object__close(object);
            return;
        }
    }
    if (int err = bpf_object__load(object); err != 0) {
        error_ = std::string("cannot load ") + path + ": " + strerror(-err);
        bpf_object__close(object);
        return;
    }
    object_ = object;
    programFd_ = bpf_program__fd(bpf_object__find_program_by_name(object, "kova_tis_cpu_frequency"));
}

FrequencyChanger::~FrequencyChanger() {
    if (object_ != nullptr) bpf_object__close(object_);
}

bool FrequencyChanger::Change(uint32_t khz, uint32_t cpu) const {
    uint64_t arguments[2] = {khz, cpu};  // the tracepoint's (frequency, cpu_id)
    LIBBPF_OPTS(bpf_test_run_opts, options, .ctx_in = arguments, .ctx_size_in = sizeof(arguments));
    return ok() && bpf_prog_test_run_opts(programFd_, &options) == 0;
}

BusyChild::BusyChild(int cpu, const char* name) {
    std::thread forker([this, cpu, name] {
        cpu_set_t cpus;
        CPU_ZERO(&cpus);
        CPU_SET(cpu, &cpus);
        if (sched_setaffinity(0, sizeof(cpus), &cpus) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_NAME, name);
            while (true) asm volatile("" ::: "memory");  // a spin the compiler must keep

        }
    });
    forker.join();
}

BusyChild::~BusyChild() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

bool BusyChild::Stop() {
    int status = 0;
    return pid_ > 0 && kill(pid_, SIGSTOP) == 0 && waitpid(pid_, &status, WUNTRACED) == pid_ && WIFSTOPPED(status);
}

bool BusyChild::Continue() { return pid_ > 0 && kill(pid_, SIGCONT) == 0; }

uint64_t BusyChild::ScheduledNs() const {
    return strtoull(ReadFile("/proc/" + std::to_string(pid_) + "/schedstat").c_str(), nullptr, 10);
}

}  // namespace kova::test
