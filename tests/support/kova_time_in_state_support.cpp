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

namespace {

// The context switches of `pid` so far (voluntary and not), from /proc/<pid>/status.
uint64_t ContextSwitches(pid_t pid) {
    std::istringstream status(ReadFile("/proc/" + std::to_string(pid) + "/status"));
    uint64_t total = 0;
    for (std::string line; std::getline(status, line);) {
        if (line.find("ctxt_switches:") != std::string::npos) total += strtoull(line.c_str() + line.find(':') + 1, nullptr, 10);
    }
    return total;
}

}  // namespace

bool BusyChild::Stop() {
    int status = 0;
    if (pid_ <= 0 || kill(pid_, SIGSTOP) != 0 || waitpid(pid_, &status, WUNTRACED) != pid_ || !WIFSTOPPED(status)) {
        return false;
    }
    // The parent hears of the stop before the child has left its CPU, and only that switch charges
    // its last stretch: a stopped child switches no more, so a count that holds still has switched.
    for (uint64_t before = ContextSwitches(pid_);;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const uint64_t now = ContextSwitches(pid_);
        if (now == before) return true;
        before = now;
    }
}

uint64_t BusyChild::ScheduledNs() const {
    return strtoull(ReadFile("/proc/" + std::to_string(pid_) + "/schedstat").c_str(), nullptr, 10);
}

}  // namespace kova::test
