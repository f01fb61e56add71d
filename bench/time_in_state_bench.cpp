// CPU time in state: what the KovaBpfTimeInState sched_switch program costs every context switch, how
// closely what it charges agrees with the scheduler, and what a report costs the service when the maps
// are full of tasks. Each figure beside a baseline measured in the same run:
//
//   switch    a pipe ping-pong between two processes pinned to one CPU (two context switches per round
//             trip), in rounds that rotate four arms: nothing attached to sched/sched_switch, an empty
//             program attached as a raw tracepoint and as a tracepoint program (what an attachment
//             costs by itself), and the time-in-state program. Per window, ns per switch from the
//             pair's CPU time (schedstat, which leaves out other tasks' time and stolen time) and from
//             the wall clock; the added cost is the median over rounds of the per-round differences.
//             After each round, one window with the kernel's BPF run-time statistics on gives the
//             program's own time per run beside the empty program's.
//   accuracy  ten spinning processes, some pinned, some free to migrate, stopped 50 ms to 1 s after they
//             start: what the program charged each (getTgidsTimes) against the first field of
//             /proc/<pid>/schedstat, beside the CPUs' steal (/proc/stat), which the scheduler leaves
//             out and a switch-to-switch time cannot, and beside a replay of the kernel's own
//             sched_switch events recorded in a tracefs instance of the run.
//   report    handleKovaThreadCpuTimeInState / handleKovaProcessCpuTimeInState over 5,000 processes and
//             30,000 threads written straight into the maps, nothing attached; beside a bare walk of
//             the same maps (get-next-key and lookup per key), and a batched lookup for reference.
//
// The maps are seeded once by startTrackingPidTimes() in a child process that then exits, taking its
// attachments with it, so that this process attaches and detaches the program itself.
//
//   time_in_state_bench [--only switch|accuracy|report] [--rounds N] [--window-ms MS] [--cpu C]
//                       [--accuracy-runs N] [--no-replay] [--report-reps N] [--frequencies N]
//
// Runs as root, with BPF and tracefs (see bench/README.md).

#include <bcc/libbpf.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kova_bpf_fixture.h"
#include "kova_bpf_records.h"
#include "kova_test_support.h"
#include "kova_time_in_state_support.h"
#include "service/kova_bpf_cputimeinstate.h"
#include "service/kova_bpf_service.h"

namespace {

using namespace std::chrono_literals;
using android::base::unique_fd;
using Clock = std::chrono::steady_clock;
namespace kt = kova::test;

struct Options {
    std::string only;        // "" runs all three
    int rounds = 15;         // switch: rounds of the four arms
    int windowMs = 400;      // switch: length of one arm's window
    int cpu = -1;            // switch: the ping-pong's CPU; -1 for the last possible one
    int accuracyRuns = 5;    // accuracy: runs of ten processes
    int reportReps = 11;     // report: repetitions of each handler and baseline
    int frequencies = 16;    // frequencies per policy in the generated tree
    bool replay = true;      // accuracy: record the switch events in a tracefs instance and replay them
};

// Thrown rather than exiting, so that the busy children, the pins and the tracefs instance go with
// their owners on the way out.
[[noreturn]] void Fail(const std::string& message) { throw std::runtime_error(message); }

uint64_t NowNs(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t ScheduledNs(pid_t pid) {
    return strtoull(kt::ReadFile("/proc/" + std::to_string(pid) + "/schedstat").c_str(), nullptr, 10);
}

std::string LoadAverage() {
    std::string line = kt::ReadFile("/proc/loadavg");
    return line.substr(0, line.find(' ', line.find(' ', line.find(' ') + 1) + 1));
}

bool PinSelf(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpu < 0) {
        for (int c = 0; c < kt::PossibleCpus(); ++c) CPU_SET(c, &set);
    } else {
        CPU_SET(cpu, &set);
    }
    return sched_setaffinity(0, sizeof(set), &set) == 0;
}

// Median and spread of a sample.
struct Summary {
    double median = 0, p25 = 0, p75 = 0, min = 0, max = 0;
};

double Quantile(std::vector<double> values, double q) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const double position = q * static_cast<double>(values.size() - 1);
    const size_t below = static_cast<size_t>(position);
    const size_t above = std::min(below + 1, values.size() - 1);
    return values[below] + (position - static_cast<double>(below)) * (values[above] - values[below]);
}

Summary Summarise(const std::vector<double>& values) {
    Summary s;
    if (values.empty()) return s;
    s.median = Quantile(values, 0.5);
    s.p25 = Quantile(values, 0.25);
    s.p75 = Quantile(values, 0.75);
    s.min = *std::min_element(values.begin(), values.end());
    s.max = *std::max_element(values.begin(), values.end());
    return s;
}

// "median [p25..p75] min..max"
std::string Format(const Summary& s, const char* format) {
    std::string out;
    const double values[] = {s.median, s.p25, s.p75, s.min, s.max};
    const char* separators[] = {" [", "..", "] ", "..", ""};
    for (int i = 0; i < 5; ++i) {
        char number[32];
        snprintf(number, sizeof(number), format, values[i]);
        out += std::string(number) + separators[i];
    }
    return out;
}

// One line of the closing summary.
struct Result {
    std::string measure, figure, baseline, aim;
};
std::vector<Result> gResults;

// ---- Set-up shared by the three measures ----

// The loader's objects in a pin directory of this run, a generated cpufreq tree with one policy per
// possible CPU, and the lookup maps seeded from it by the service's own code.
class TimeInStateSetup {
  public:
    explicit TimeInStateSetup(int frequencies) {
        std::string reason;
        if (!kt::HaveBpf(&reason)) Fail(reason);
        if (!kt::HaveTracefs(&reason)) Fail(reason);
        if (!pins_.ok()) Fail(pins_.message());
        for (int cpu = 0; cpu < kt::PossibleCpus(); ++cpu) {
            std::string available;
            for (int j = 0; j < frequencies; ++j) available += std::to_string(300000 + 100000 * j) + " ";
            available.back() = '\n';
            tree_.Add({static_cast<unsigned>(cpu), std::to_string(cpu) + "\n", available, "",
                       std::to_string(300000 + 100000 * (frequencies / 2)) + "\n"});
        }
        SeedInChild();
        stamps_ = pins_.TisMap("cpu_last_update_map");
        if (!stamps_.ok()) Fail("cannot open cpu_last_update_map");
    }

    const kt::PinnedTimeInState& pins() const { return pins_; }

    // The per-CPU "last switch" stamps back to zero, so that the first switch after an attachment only
    // starts the clock rather than charging the whole time since the last detachment.
    void ZeroStamps() const {
        const uint32_t key = 0;
        const std::vector<uint64_t> zeros(static_cast<size_t>(kt::PossibleCpus()), 0);
        if (bpf_map_update_elem(stamps_.get(), &key, zeros.data(), BPF_ANY) != 0) Fail("cannot zero the stamps");
    }
    uint64_t StampSum() const {
        const uint32_t key = 0;
        std::vector<uint64_t> stamps(static_cast<size_t>(kt::PossibleCpus()), 0);
        bpf_map_lookup_elem(stamps_.get(), &key, stamps.data());
        uint64_t sum = 0;
        for (const uint64_t stamp : stamps) sum += stamp;
        return sum;
    }

  private:
    // startTrackingPidTimes() attaches for the life of its process: a child seeds and exits.
    void SeedInChild() {
        const pid_t child = fork();
        if (child < 0) Fail("fork");
        if (child == 0) _exit(Kova::Bpf::startTrackingPidTimes() ? 0 : 1);
        int status = 0;
        waitpid(child, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) Fail("startTrackingPidTimes() failed in the seeding child");
    }

    kt::PinnedTimeInState pins_;
    kt::CpufreqTree tree_;
    unique_fd stamps_;
};

// A program attached to sched/sched_switch while alive, as a tracepoint program (through a perf event,
// as the service attaches it) or as a raw tracepoint; closing the descriptor detaches it.
class SwitchAttachment {
  public:
    explicit SwitchAttachment(int programFd, bool raw = false)
        : link_(raw ? bpf_raw_tracepoint_open("sched_switch", programFd)
                    : bpf_attach_tracepoint(programFd, "sched", "sched_switch")) {
        if (!link_.ok()) Fail(std::string("cannot attach to sched/sched_switch: ") + strerror(errno));
    }

  private:
    unique_fd link_;
};

// ---- 1. The cost per context switch ----

// Two processes pinned to one CPU that pass a byte back and forth through two pipes; the first counts
// round trips in shared memory.
class PingPong {
  public:
    explicit PingPong(int cpu) {
        void* shared = mmap(nullptr, sizeof(std::atomic<uint64_t>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (shared == MAP_FAILED) Fail("mmap");
        trips_ = new (shared) std::atomic<uint64_t>(0);
        int there[2], back[2];
        if (pipe(there) != 0 || pipe(back) != 0) Fail("pipe");
        a_ = Spawn(cpu, "kova-ping", [&] {
            char byte = 0;
            while (write(there[1], &byte, 1) == 1 && read(back[0], &byte, 1) == 1) {
                trips_->fetch_add(1, std::memory_order_relaxed);
            }
        });
        b_ = Spawn(cpu, "kova-pong", [&] {
            char byte = 0;
            while (read(there[0], &byte, 1) == 1 && write(back[1], &byte, 1) == 1) {
            }
        });
        for (int fd : {there[0], there[1], back[0], back[1]}) close(fd);
    }
    ~PingPong() {
        for (pid_t pid : {a_, b_}) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        munmap(trips_, sizeof(*trips_));
    }
    uint64_t trips() const { return trips_->load(std::memory_order_relaxed); }
    uint64_t cpuNs() const { return ScheduledNs(a_) + ScheduledNs(b_); }

  private:
    static pid_t Spawn(int cpu, const char* name, const std::function<void()>& body) {
        const pid_t pid = fork();
        if (pid < 0) Fail("fork");
        if (pid == 0) {
            prctl(PR_SET_NAME, name);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            PinSelf(cpu);
            body();
            _exit(0);
        }
        return pid;
    }

    std::atomic<uint64_t>* trips_ = nullptr;
    pid_t a_ = -1, b_ = -1;
};

struct Window {
    double cpuNsPerSwitch;
    double wallNsPerSwitch;
    double switchesPerSecond;  // wall clock
};

Window Measure(const PingPong& pair, int windowMs) {
    const uint64_t trips0 = pair.trips(), cpu0 = pair.cpuNs(), wall0 = NowNs(CLOCK_MONOTONIC);
    std::this_thread::sleep_for(std::chrono::milliseconds(windowMs));
    const uint64_t trips1 = pair.trips(), cpu1 = pair.cpuNs(), wall1 = NowNs(CLOCK_MONOTONIC);
    const double switches = 2.0 * static_cast<double>(trips1 - trips0);
    if (switches == 0) Fail("the ping-pong made no progress");
    return {static_cast<double>(cpu1 - cpu0) / switches, static_cast<double>(wall1 - wall0) / switches,
            switches * 1e9 / static_cast<double>(wall1 - wall0)};
}

// Programs of other processes attached to sched_switch right now, found as bpftool does: every
// perf-event and link descriptor of every process, asked what it is attached to. When there are
// some, the tracepoint's own work (formatting the event for BPF) is already paid in the baseline, and
// a program attached on top adds little more than its body.
int ForeignSwitchAttachments() {
    int count = 0;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return -1;
    while (const dirent* process = readdir(proc)) {
        const int pid = atoi(process->d_name);
        if (pid <= 0 || pid == getpid()) continue;
        const std::string fdDir = "/proc/" + std::to_string(pid) + "/fd";
        DIR* fds = opendir(fdDir.c_str());
        if (fds == nullptr) continue;
        while (const dirent* entry = readdir(fds)) {
            char target[64] = {};
            if (readlink((fdDir + "/" + entry->d_name).c_str(), target, sizeof(target) - 1) <= 0) continue;
            if (strcmp(target, "anon_inode:[perf_event]") != 0 && strcmp(target, "anon_inode:bpf_link") != 0) continue;
            char name[64] = {};
            __u32 length = sizeof(name), programId = 0, type = 0;
            __u64 offset = 0, address = 0;
            if (bpf_task_fd_query(pid, atoi(entry->d_name), 0, name, &length, &programId, &type, &offset, &address) == 0 &&
                strcmp(name, "sched_switch") == 0) {
                ++count;
            }
        }
        closedir(fds);
    }
    closedir(proc);
    return count;
}

// The programs' own run time per run, as the kernel times them (BPF_ENABLE_STATS keeps timing on only
// while its descriptor is open), over one window with both attached: the time-in-state program and the
// empty one, whose figure is the floor that the timing itself adds.
struct KernelTimed {
    double program = -1, empty = -1;
};

KernelTimed KernelTimedNsPerRun(const TimeInStateSetup& setup, int programFd, int emptyFd, int windowMs) {
    const unique_fd stats(bpf_enable_stats(BPF_STATS_RUN_TIME));
    if (!stats.ok()) return {};
    struct Counts {
        uint64_t runs, ns;
    };
    const auto read = [](int fd) {
        bpf_prog_info info{};
        uint32_t length = sizeof(info);
        if (bpf_obj_get_info_by_fd(fd, &info, &length) != 0) Fail("cannot read a program's statistics");
        return Counts{info.run_cnt, info.run_time_ns};
    };
    const auto perRun = [](Counts before, Counts after) {
        return after.runs > before.runs ? static_cast<double>(after.ns - before.ns) / static_cast<double>(after.runs - before.runs)
                                        : -1.0;
    };
    setup.ZeroStamps();
    SwitchAttachment program(programFd), empty(emptyFd);
    std::this_thread::sleep_for(20ms);
    const Counts program0 = read(programFd), empty0 = read(emptyFd);
    std::this_thread::sleep_for(std::chrono::milliseconds(windowMs));
    return {perRun(program0, read(programFd)), perRun(empty0, read(emptyFd))};
}

void MeasureSwitchCost(const TimeInStateSetup& setup, const Options& options) {
    const int cpus = kt::PossibleCpus();
    const int cpu = options.cpu >= 0 ? options.cpu : cpus - 1;
    // This process sleeps through the windows, away from the pair when there is room.
    if (cpus > 1) PinSelf(cpu == 0 ? 1 : 0);

    std::string error;
    const unique_fd empty = kt::LoadTestProgram(BPF_PROG_TYPE_TRACEPOINT, nullptr, &error);
    if (!empty.ok()) Fail("cannot load the empty program: " + error);
    const unique_fd emptyRaw = kt::LoadTestProgram(BPF_PROG_TYPE_RAW_TRACEPOINT, nullptr, &error);
    if (!emptyRaw.ok()) Fail("cannot load the empty raw tracepoint program: " + error);
    const unique_fd timeInState = setup.pins().Get(
            kt::PinnedProgramName(Kova::Bpf::KOVA_TIS_OBJECT, "tracepoint", "sched_sched_switch"));
    if (!timeInState.ok()) Fail("the time-in-state sched_switch program is not pinned");

    PingPong pair(cpu);
    std::this_thread::sleep_for(200ms);  // let both settle into the exchange
    enum Arm { kNone, kEmptyRaw, kEmpty, kProgram, kArms };
    const char* names[kArms] = {"nothing attached", "empty raw tracepoint", "empty tracepoint program",
                                "time-in-state program"};
    std::vector<Window> windows[kArms];
    std::vector<double> kernelTimed, kernelTimedEmpty;
    std::vector<bool> shared;  // per round: others had programs on sched_switch before or after it
    for (int round = 0; round < options.rounds; ++round) {
        const int foreignBefore = ForeignSwitchAttachments();
        for (int step = 0; step < kArms; ++step) {
            const Arm arm = static_cast<Arm>((round + step) % kArms);  // every arm takes every position
            std::unique_ptr<SwitchAttachment> attachment;
            if (arm == kProgram) setup.ZeroStamps();
            if (arm == kEmptyRaw) attachment = std::make_unique<SwitchAttachment>(emptyRaw.get(), true);
            if (arm == kEmpty) attachment = std::make_unique<SwitchAttachment>(empty.get());
            if (arm == kProgram) attachment = std::make_unique<SwitchAttachment>(timeInState.get());
            std::this_thread::sleep_for(20ms);
            windows[arm].push_back(Measure(pair, options.windowMs));
        }
        // Apart from the arms: the timing that the statistics add would count in the difference.
        const KernelTimed timed = KernelTimedNsPerRun(setup, timeInState.get(), empty.get(), options.windowMs);
        if (timed.program >= 0 && timed.empty >= 0) {
            kernelTimed.push_back(timed.program);
            kernelTimedEmpty.push_back(timed.empty);
        }
        shared.push_back(foreignBefore != 0 || ForeignSwitchAttachments() != 0);
    }
    PinSelf(-1);

    printf("\n== sched_switch program: cost per context switch ==\n");
    printf("pipe ping-pong of two processes on CPU %d; %d rounds of %d ms per arm, arms rotated\n", cpu,
           options.rounds, options.windowMs);
    printf("%-26s %-50s %-50s\n", "arm", "ns per switch (pair's CPU time)", "switches per second (wall)");
    for (int arm = 0; arm < kArms; ++arm) {
        std::vector<double> cpuNs, rate;
        for (const Window& w : windows[arm]) {
            cpuNs.push_back(w.cpuNsPerSwitch);
            rate.push_back(w.switchesPerSecond);
        }
        printf("%-26s %-50s %-50s\n", names[arm], Format(Summarise(cpuNs), "%.0f").c_str(),
               Format(Summarise(rate), "%.0f").c_str());
    }
    printf("added per switch, median of per-round differences (ns):\n");
    // Per-round differences; `group` 0 or 1 keeps only the rounds without or with others' programs.
    const auto difference = [&](Arm with, Arm without, bool wall, int group) {
        std::vector<double> added;
        for (int round = 0; round < options.rounds; ++round) {
            if (group >= 0 && shared[round] != (group == 1)) continue;
            const Window& a = windows[with][round];
            const Window& b = windows[without][round];
            added.push_back(wall ? a.wallNsPerSwitch - b.wallNsPerSwitch : a.cpuNsPerSwitch - b.cpuNsPerSwitch);
        }
        return Summarise(added);
    };
    const Summary added = difference(kProgram, kNone, false, -1);
    const Summary addedWall = difference(kProgram, kNone, true, -1);
    printf("  %-52s %s   aim <= 150 ns: %s\n", "time-in-state program vs nothing (CPU time)",
           Format(added, "%.0f").c_str(), added.median <= 150 ? "met" : "NOT met");
    printf("  %-52s %s\n", "time-in-state program vs nothing (wall)", Format(addedWall, "%.0f").c_str());
    printf("  %-52s %s\n", "empty tracepoint program vs nothing (CPU time)",
           Format(difference(kEmpty, kNone, false, -1), "%.0f").c_str());
    printf("  %-52s %s\n", "empty raw tracepoint vs nothing (CPU time)",
           Format(difference(kEmptyRaw, kNone, false, -1), "%.0f").c_str());
    printf("  %-52s %s\n", "time-in-state vs empty tracepoint program (CPU time)",
           Format(difference(kProgram, kEmpty, false, -1), "%.0f").c_str());
    const int sharedRounds = static_cast<int>(std::count(shared.begin(), shared.end(), true));
    printf("rounds in which other processes had programs on sched_switch: %d of %d\n", sharedRounds, options.rounds);
    if (sharedRounds > 0 && sharedRounds < options.rounds) {
        for (const int group : {0, 1}) {
            printf("  %-52s %s\n",
                   group == 0 ? "vs nothing, rounds with the tracepoint to ourselves" : "vs nothing, rounds with others' programs",
                   Format(difference(kProgram, kNone, false, group), "%.0f").c_str());
        }
    }
    std::string timed = "BPF_ENABLE_STATS unavailable";
    if (!kernelTimed.empty()) {
        timed = Format(Summarise(kernelTimed), "%.0f") + " ns, empty program " + Format(Summarise(kernelTimedEmpty), "%.0f") + " ns";
    }
    printf("own run time per run, kernel BPF stats (a %d ms window per round, both attached): time-in-state %s\n",
           options.windowMs, timed.c_str());

    char figure[160], baseline[160];
    snprintf(figure, sizeof(figure), "+%s ns per switch (CPU time); wall +%.0f; kernel-timed body %s ns",
             Format(added, "%.0f").c_str(), addedWall.median,
             kernelTimed.empty() ? "n/a" : Format(Summarise(kernelTimed), "%.0f").c_str());
    std::vector<double> baseNs;
    for (const Window& w : windows[kNone]) baseNs.push_back(w.cpuNsPerSwitch);
    snprintf(baseline, sizeof(baseline), "nothing attached: %.0f ns per switch; others' programs on the tracepoint in %d/%d rounds",
             Summarise(baseNs).median, sharedRounds, options.rounds);
    gResults.push_back({"sched_switch program cost", figure, baseline,
                        std::string("<= 150 ns: ") + (added.median <= 150 ? "met" : "NOT met")});
}

// ---- 2. Accuracy against the scheduler ----

struct Busy {
    int lengthMs;
    int cpu;  // -1: free to run on any CPU
};

// Runs the kernel skipped because a BPF program was already active on the CPU: the switches whose time
// then goes to the next switch's outgoing task.
uint64_t RecursionMisses(int programFd) {
    bpf_prog_info info{};
    uint32_t length = sizeof(info);
    return bpf_obj_get_info_by_fd(programFd, &info, &length) == 0 ? info.recursion_misses : 0;
}

bool Unpin(pid_t pid) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int c = 0; c < kt::PossibleCpus(); ++c) CPU_SET(c, &set);
    return sched_setaffinity(pid, sizeof(set), &set) == 0;
}

// The kernel's own sched_switch events, recorded in a tracefs instance of this run on the clock that
// bpf_ktime_get_ns() reads, so that what the program should have charged can be replayed from them.
// Where the replay and the scheduler disagree, the program is not to blame.
class SwitchTrace {
  public:
    struct Switch {
        int cpu;
        uint64_t ns;  // microsecond precision: the text format's
        int prev, next;
        std::string nextComm;
    };

    SwitchTrace() : dir_(std::string(kInstances) + kPrefix + std::to_string(getpid())) {
        RemoveStale();
        if (mkdir(dir_.c_str(), 0755) != 0) return;
        ok_ = Write("trace_clock", "mono") && Write("buffer_size_kb", "8192") &&
              Write("events/sched/sched_switch/enable", "1") && Write("tracing_on", "1");
    }
    ~SwitchTrace() {
        Write("tracing_on", "0");
        Write("events/sched/sched_switch/enable", "0");
        rmdir(dir_.c_str());
    }
    bool ok() const { return ok_; }
    void Clear() const { Write("trace", ""); }
    // Events lost to a full buffer since the last Clear(), over every CPU.
    uint64_t Overruns() const {
        uint64_t lost = 0;
        for (int cpu = 0; cpu < kt::PossibleCpus(); ++cpu) {
            std::istringstream stats(kt::ReadFile(dir_ + "/per_cpu/cpu" + std::to_string(cpu) + "/stats"));
            for (std::string line; std::getline(stats, line);) {
                if (line.rfind("overrun: ", 0) == 0) lost += strtoull(line.c_str() + 9, nullptr, 10);
            }
        }
        return lost;
    }
    std::vector<Switch> Read() const {
        std::vector<Switch> switches;
        std::istringstream trace(kt::ReadFile(dir_ + "/trace"));
        for (std::string line; std::getline(trace, line);) {
            // "<comm>-<pid> [003] d..2. 2486.770406: sched_switch: prev_comm=... prev_pid=N ... ==> next_comm=... next_pid=M ..."
            const size_t event = line.find(": sched_switch: ");
            const size_t stamp = event == std::string::npos ? event : line.rfind(' ', event);
            const size_t cpu = stamp == std::string::npos ? stamp : line.rfind('[', stamp);
            const size_t prev = line.find(" prev_pid=", event);
            const size_t arrow = line.find(" ==> next_comm=", event);
            const size_t next = line.find(" next_pid=", arrow);
            if (cpu == std::string::npos || prev == std::string::npos || arrow == std::string::npos || next == std::string::npos) {
                continue;
            }
            Switch entry;
            entry.cpu = atoi(line.c_str() + cpu + 1);
            char* fraction = nullptr;
            const uint64_t seconds = strtoull(line.c_str() + stamp + 1, &fraction, 10);
            entry.ns = seconds * 1000000000ull + (*fraction == '.' ? strtoull(fraction + 1, nullptr, 10) * 1000ull : 0);
            entry.prev = atoi(line.c_str() + prev + 10);
            entry.next = atoi(line.c_str() + next + 10);
            entry.nextComm = line.substr(arrow + 15, next - arrow - 15);
            switches.push_back(std::move(entry));
        }
        return switches;
    }

  private:
    static constexpr char kInstances[] = "/sys/kernel/tracing/instances/";
    static constexpr char kPrefix[] = "kova-tis-bench-";

    // Instances left by runs that were killed; removing one also stops its tracing.
    static void RemoveStale() {
        DIR* instances = opendir(kInstances);
        if (instances == nullptr) return;
        std::vector<std::string> stale;
        while (const dirent* entry = readdir(instances)) {
            if (strncmp(entry->d_name, kPrefix, strlen(kPrefix)) != 0) continue;
            const std::string owner = "/proc/" + std::string(entry->d_name + strlen(kPrefix));
            if (access(owner.c_str(), F_OK) != 0) stale.push_back(std::string(kInstances) + entry->d_name);
        }
        closedir(instances);
        for (const std::string& dir : stale) rmdir(dir.c_str());
    }

    bool Write(const std::string& file, const std::string& value) const {
        const int fd = open((dir_ + "/" + file).c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
        if (fd < 0) return false;
        const bool written = write(fd, value.data(), value.size()) == static_cast<ssize_t>(value.size()) || value.empty();
        close(fd);
        return written;
    }

    std::string dir_;
    bool ok_ = false;
};

// What the replay of the recorded switches says about one process.
struct Replayed {
    uint64_t ns = 0;          // time between each of its switch-outs and the CPU's previous switch
    int untracedIn = 0;       // switch-outs not preceded on their CPU by its own switch-in
    uint64_t untracedNs = 0;  // the time those charged, which includes some other task's
};

// The program's rule applied to the recorded events: at each switch, the time since the CPU's previous
// switch goes to the outgoing task. A switch-out whose CPU's previous event switched to another task
// means a task left the CPU without a sched_switch event; its time goes to the next outgoing task.
// Counts in *vanished, by name, the tasks that left so.
std::vector<Replayed> Replay(const std::vector<SwitchTrace::Switch>& switches, const std::vector<pid_t>& pids,
                             std::map<std::string, int>* vanished) {
    std::vector<Replayed> result(pids.size());
    std::map<int, const SwitchTrace::Switch*> last;  // by CPU
    for (const SwitchTrace::Switch& entry : switches) {
        const auto previous = last.find(entry.cpu);
        if (previous != last.end()) {
            const bool untraced = previous->second->next != entry.prev;
            if (untraced) ++(*vanished)[previous->second->nextComm];
            for (size_t i = 0; i < pids.size(); ++i) {
                if (pids[i] != entry.prev) continue;
                const uint64_t delta = entry.ns - previous->second->ns;
                result[i].ns += delta;
                if (untraced) {
                    ++result[i].untracedIn;
                    result[i].untracedNs += delta;
                }
            }
        }
        last[entry.cpu] = &entry;
    }
    return result;
}

struct AccuracyTotals {
    std::vector<double> errors;          // against the scheduler, percent
    std::map<int, std::vector<double>> errorsByCpu;  // the same by placement: the pinned CPU, or -1
    std::vector<double> replayErrors;    // against the replay, percent
    int beyondAim = 0, beyondAimExplained = 0;
    uint64_t wallNs = 0, stolenNs = 0, misses = 0, overruns = 0;
    double excessNs = 0;                 // charged beyond the scheduler, summed over the processes
    std::map<std::string, int> vanished;
};

void AccuracyRun(const TimeInStateSetup& setup, SwitchTrace* trace, int run, AccuracyTotals* totals) {
    const int cpus = kt::PossibleCpus();
    // Pinned ones alternate over the CPUs; every third is free to migrate.
    const int lengths[] = {50, 100, 150, 250, 350, 450, 600, 750, 900, 1000};
    std::vector<Busy> plan;
    for (int i = 0; i < 10; ++i) plan.push_back({lengths[i], i % 3 == 2 ? -1 : (i % cpus)});

    if (!Kova::Bpf::clearTgidTimes() || !Kova::Bpf::clearPidTimes()) Fail("cannot clear the task maps");
    const unique_fd program = setup.pins().Get(
            kt::PinnedProgramName(Kova::Bpf::KOVA_TIS_OBJECT, "tracepoint", "sched_sched_switch"));
    if (trace != nullptr) trace->Clear();
    setup.ZeroStamps();
    auto attachment = std::make_unique<SwitchAttachment>(program.get());
    std::this_thread::sleep_for(20ms);

    std::vector<uint64_t> stealBefore;
    for (int c = 0; c < cpus; ++c) stealBefore.push_back(kt::CpuStealNs(c));
    const uint64_t missesBefore = RecursionMisses(program.get());
    const uint64_t start = NowNs(CLOCK_MONOTONIC);
    std::vector<std::unique_ptr<kt::BusyChild>> children;
    std::vector<pid_t> pids;
    for (size_t i = 0; i < plan.size(); ++i) {
        const std::string name = "kova-busy-" + std::to_string(i);
        children.push_back(std::make_unique<kt::BusyChild>(plan[i].cpu < 0 ? static_cast<int>(i) % cpus : plan[i].cpu,
                                                           name.c_str()));
        if (children.back()->pid() <= 0) Fail("cannot start a busy child");
        if (plan[i].cpu < 0 && !Unpin(children.back()->pid())) Fail("cannot unpin a busy child");
        pids.push_back(children.back()->pid());
    }
    const auto started = Clock::now();
    for (size_t i = 0; i < plan.size(); ++i) {  // lengths ascend
        std::this_thread::sleep_until(started + std::chrono::milliseconds(plan[i].lengthMs));
        if (!children[i]->Stop()) Fail("cannot stop a busy child");
    }
    const uint64_t wall = NowNs(CLOCK_MONOTONIC) - start;
    std::vector<uint64_t> stolen;
    for (int c = 0; c < cpus; ++c) stolen.push_back(kt::CpuStealNs(c) - stealBefore[c]);
    const uint64_t misses = RecursionMisses(program.get()) - missesBefore;
    const auto charged = Kova::Bpf::getTgidsTimes();
    attachment.reset();
    if (!charged) Fail("getTgidsTimes() failed");

    std::map<std::string, int> vanished;
    std::vector<Replayed> replayed;
    const uint64_t overruns = trace != nullptr ? trace->Overruns() : 0;
    if (trace != nullptr && overruns == 0) replayed = Replay(trace->Read(), pids, &vanished);

    printf("run %d: %.0f ms; steal:", run, static_cast<double>(wall) / 1e6);
    for (int c = 0; c < cpus; ++c) printf(" cpu%d %.0f ms", c, static_cast<double>(stolen[c]) / 1e6);
    printf("; runs the program missed: %llu", static_cast<unsigned long long>(misses));
    if (overruns > 0) printf("; trace lost %llu events, no replay", static_cast<unsigned long long>(overruns));
    printf("\n  %-12s %7s %4s %12s %12s %9s %12s %9s %s\n", "process", "stop ms", "cpu", "scheduler ms", "charged ms",
           "error", "replayed ms", "vs replay", "untraced switch-ins (ms)");
    for (size_t i = 0; i < plan.size(); ++i) {
        const uint64_t scheduled = children[i]->ScheduledNs();
        const auto found = charged->find(static_cast<uint32_t>(pids[i]));
        const uint64_t time = found == charged->end() ? 0 : found->second.time;
        const double error = 100.0 * (static_cast<double>(time) - static_cast<double>(scheduled)) / static_cast<double>(scheduled);
        totals->errors.push_back(error);
        totals->errorsByCpu[plan[i].cpu].push_back(error);
        totals->excessNs += static_cast<double>(time) - static_cast<double>(scheduled);
        printf("  kova-busy-%-2zu %7d %4s %12.3f %12.3f %+8.3f%%", i, plan[i].lengthMs,
               plan[i].cpu < 0 ? "any" : std::to_string(plan[i].cpu).c_str(), static_cast<double>(scheduled) / 1e6,
               static_cast<double>(time) / 1e6, error);
        bool explained = std::any_of(stolen.begin(), stolen.end(), [](uint64_t ns) { return ns > 0; });
        if (!replayed.empty()) {
            const Replayed& r = replayed[i];
            const double replayError = 100.0 * (static_cast<double>(time) - static_cast<double>(r.ns)) / static_cast<double>(r.ns);
            totals->replayErrors.push_back(replayError);
            explained |= r.untracedIn > 0;
            printf(" %12.3f %+8.3f%% %d (%.3f)", static_cast<double>(r.ns) / 1e6, replayError, r.untracedIn,
                   static_cast<double>(r.untracedNs) / 1e6);
        }
        printf("\n");
        if (std::abs(error) > 1.0) {
            ++totals->beyondAim;
            totals->beyondAimExplained += explained;
        }
    }
    if (!vanished.empty()) {
        printf("  tasks that left a CPU without a sched_switch event:");
        for (const auto& [comm, count] : vanished) printf(" %s x%d", comm.c_str(), count);
        printf("\n");
    }
    totals->wallNs += wall;
    for (const uint64_t ns : stolen) totals->stolenNs += ns;
    totals->misses += misses;
    totals->overruns += overruns;
    for (const auto& [comm, count] : vanished) totals->vanished[comm] += count;
}

void MeasureAccuracy(const TimeInStateSetup& setup, const Options& options) {
    printf("\n== accuracy: charged time (getTgidsTimes) against /proc/<pid>/schedstat ==\n");
    printf("ten spinning processes started together, stopped (SIGSTOP) 50 ms to 1 s later. Beside the scheduler:\n"
           "the steal of each CPU (/proc/stat, 10 ms units), which the scheduler leaves out and the program cannot;\n"
           "and a replay of the kernel's sched_switch events (tracefs), what the program should have charged\n");
    std::unique_ptr<SwitchTrace> trace;
    if (options.replay) trace = std::make_unique<SwitchTrace>();
    if (trace != nullptr && !trace->ok()) {
        printf("(no tracefs instance: no replay)\n");
        trace.reset();
    }
    AccuracyTotals totals;
    for (int run = 1; run <= options.accuracyRuns; ++run) AccuracyRun(setup, trace.get(), run, &totals);

    std::vector<double> magnitudes, replayMagnitudes;
    for (const double error : totals.errors) magnitudes.push_back(std::abs(error));
    for (const double error : totals.replayErrors) replayMagnitudes.push_back(std::abs(error));
    const Summary s = Summarise(magnitudes);
    const double cpuMs = static_cast<double>(totals.wallNs) * kt::PossibleCpus() / 1e6;
    printf("|error| vs the scheduler, %zu processes: %s %%   aim <= 1 %% each: %s\n", magnitudes.size(),
           Format(s, "%.3f").c_str(), s.max <= 1.0 ? "met" : "NOT met");
    printf("beyond 1 %%: %d processes, %d of them in a run with steal or after an untraced switch\n", totals.beyondAim,
           totals.beyondAimExplained);
    // Time a CPU loses to the machine shows as a bias shared by the processes pinned to it.
    printf("error vs the scheduler by placement (signed):");
    for (const auto& [cpu, errors] : totals.errorsByCpu) {
        printf("  %s %s %%", cpu < 0 ? "free" : ("cpu" + std::to_string(cpu)).c_str(), Format(Summarise(errors), "%+.3f").c_str());
    }
    printf("\n");
    if (!replayMagnitudes.empty()) {
        printf("|error| vs the replay of the kernel's switch events: %s %%\n", Format(Summarise(replayMagnitudes), "%.3f").c_str());
    }
    printf("steal over the runs: %.0f ms of %.0f CPU-ms; charged beyond the scheduler, all processes: %.1f ms; "
           "runs the program missed: %llu\n",
           static_cast<double>(totals.stolenNs) / 1e6, cpuMs, totals.excessNs / 1e6,
           static_cast<unsigned long long>(totals.misses));
    std::string vanished;
    for (const auto& [comm, count] : totals.vanished) vanished += " " + comm + " x" + std::to_string(count);
    if (!vanished.empty()) printf("tasks that left a CPU without a sched_switch event, over the runs:%s\n", vanished.c_str());

    char figure[200], baseline[240];
    snprintf(figure, sizeof(figure), "|error| %s %% over %zu processes; %d beyond 1 %% (%d with steal or an untraced switch)",
             Format(s, "%.3f").c_str(), magnitudes.size(), totals.beyondAim, totals.beyondAimExplained);
    snprintf(baseline, sizeof(baseline),
             "/proc/<pid>/schedstat; steal %.0f ms of %.0f CPU-ms; vs replay of the switch events: max %.3f %%",
             static_cast<double>(totals.stolenNs) / 1e6, cpuMs,
             replayMagnitudes.empty() ? -1.0 : Summarise(replayMagnitudes).max);
    gResults.push_back({"accuracy vs the scheduler", figure, baseline,
                        std::string("<= 1 % each: ") + (s.max <= 1.0 ? "met" : "NOT met")});
}

// ---- 3. Report cost with full maps ----

constexpr uint32_t kFakeBase = 0x40000000;  // above any pid the kernel hands out (PID_MAX_LIMIT is 2^22)

// Inserts one entry. The kernel allocates entries of these maps (no preallocation) from per-CPU caches
// that it refills asynchronously, so a burst of inserts from user space can find them empty for a
// moment (ENOMEM): wait for the refill rather than give up.
bool Insert(int mapFd, const void* key, const void* value) {
    for (int attempt = 0; attempt < 1000; ++attempt) {
        if (bpf_map_update_elem(mapFd, key, value, BPF_NOEXIST) == 0) return true;
        if (errno != ENOMEM) return false;
        usleep(100);
    }
    return false;
}

void FillMaps(const kt::PinnedTimeInState& pins, int processes, int threads, int frequencies) {
    if (!Kova::Bpf::clearTgidTimes() || !Kova::Bpf::clearPidTimes()) Fail("cannot clear the task maps");
    const unique_fd tgidTimes = pins.TisMap("tgid_delta_time_map");
    const unique_fd tgidFreq = pins.TisMap("tgid_freq_delta_time_map");
    const unique_fd pidTimes = pins.TisMap("pid_delta_time_map");
    const unique_fd pidFreq = pins.TisMap("pid_freq_delta_time_map");
    const int cpus = kt::PossibleCpus();
    std::vector<kova_tis_freq_times> copies(static_cast<size_t>(cpus));
    // Distinct times, spread evenly over every CPU's copy of every frequency slot.
    const auto spread = [&](uint64_t time) {
        const int slots = std::min(frequencies, KOVA_TIS_FREQ_SLOTS);
        for (kova_tis_freq_times& copy : copies) {
            memset(&copy, 0, sizeof(copy));
            for (int j = 0; j < slots; ++j) copy.ns[j] = time / static_cast<uint64_t>(cpus * slots);
        }
    };
    for (int p = 0; p < processes; ++p) {
        const uint32_t tgid = kFakeBase + static_cast<uint32_t>(p);
        const uint64_t time = 1000003ull * static_cast<uint64_t>(p + 1);
        spread(time);
        if (!Insert(tgidTimes.get(), &tgid, &time) || !Insert(tgidFreq.get(), &tgid, copies.data())) {
            Fail(std::string("cannot fill the process maps: ") + strerror(errno));
        }
    }
    for (int t = 0; t < threads; ++t) {
        const kova_tis_pid_key key{kFakeBase + static_cast<uint32_t>(processes + t),
                                   kFakeBase + static_cast<uint32_t>(t % processes)};
        kova_tis_pid_time value{};
        snprintf(value.comm, sizeof(value.comm), "kova-fake-%d", t);
        value.time_ns = 999983ull * static_cast<uint64_t>(t + 1);
        spread(value.time_ns);
        if (!Insert(pidTimes.get(), &key, &value) || !Insert(pidFreq.get(), &key, copies.data())) {
            Fail(std::string("cannot fill the thread maps: ") + strerror(errno));
        }
    }
}

// Get-next-key and lookup per key into a reused buffer, no containers: the floor of reading one key per
// system call. Returns the keys read.
template <typename Key>
size_t Walk(int mapFd, void* value) {
    Key key{}, next{};
    const Key* previous = nullptr;
    size_t keys = 0;
    while (bpf_map_get_next_key(mapFd, previous, &next) == 0) {
        key = next;
        previous = &key;
        if (bpf_map_lookup_elem(mapFd, &key, value) != 0) Fail("lookup failed during a walk");
        ++keys;
    }
    return keys;
}

// For reference: the same entries read a batch at a time.
template <typename Key>
size_t BatchRead(int mapFd, size_t valueSize, size_t batch, std::vector<char>* values, std::vector<Key>* keys) {
    keys->resize(batch);
    values->resize(batch * valueSize);
    uint64_t in = 0, out = 0;
    bool first = true;
    size_t total = 0;
    while (true) {
        uint32_t count = static_cast<uint32_t>(batch);
        const int err = bpf_map_lookup_batch(mapFd, first ? nullptr : &in, &out, keys->data(), values->data(), &count, nullptr);
        total += count;
        if (err != 0) {
            if (errno == ENOENT) return total;
            Fail(std::string("batched lookup failed: ") + strerror(errno));
        }
        in = out;
        first = false;
    }
}

struct Cost {
    std::vector<double> wallMs, cpuMs;
};

void Time(Cost* cost, const std::function<void()>& body) {
    const uint64_t wall = NowNs(CLOCK_MONOTONIC), cpu = NowNs(CLOCK_THREAD_CPUTIME_ID);
    body();
    cost->cpuMs.push_back(static_cast<double>(NowNs(CLOCK_THREAD_CPUTIME_ID) - cpu) / 1e6);
    cost->wallMs.push_back(static_cast<double>(NowNs(CLOCK_MONOTONIC) - wall) / 1e6);
}

// The size the handler logged last ("<handler> size:<bytes>").
long LoggedSize(const kt::LogCapture& log, const std::string& handler) {
    long size = -1;
    for (const kt::LogRecord& record : log.Records()) {
        if (record.message.rfind(handler + " size:", 0) == 0) size = atol(record.message.c_str() + handler.size() + 6);
    }
    return size;
}

void MeasureReportCost(const TimeInStateSetup& setup, const Options& options) {
    constexpr int kProcesses = 5000, kThreads = 30000;
    FillMaps(setup.pins(), kProcesses, kThreads, options.frequencies);
    // Nothing is attached here, so the maps hold exactly what was written.
    const auto processes = Kova::Bpf::getTgidsTimes();
    const auto threads = Kova::Bpf::getPidsTimes();
    if (!processes || !threads || processes->size() != kProcesses || threads->size() != kThreads) {
        Fail("the maps do not hold exactly the entries written (is something attached?)");
    }

    // The service's socket and diagnostics away from the system's; the singleton starts no thread.
    kt::TempDir diagnostics;
    kt::ScopedRoot diag(Kova::Bpf::KOVA_DIAGNOSTICS_DIR, diagnostics.path());
    kt::ScopedRoot socket(Kova::Bpf::KOVA_SOCKET_NAME, kt::UniqueSocketName());
    Kova::Bpf::KovaBpfService* service = Kova::Bpf::KovaBpfService::GetInstance();
    kt::LogCapture log;

    const unique_fd tgidTimes = setup.pins().TisMap("tgid_delta_time_map");
    const unique_fd tgidFreq = setup.pins().TisMap("tgid_freq_delta_time_map");
    const unique_fd pidTimes = setup.pins().TisMap("pid_delta_time_map");
    const unique_fd pidFreq = setup.pins().TisMap("pid_freq_delta_time_map");
    const size_t perCpuValue = sizeof(kova_tis_freq_times) * static_cast<size_t>(kt::PossibleCpus());
    std::vector<char> value(perCpuValue);
    std::vector<char> batchValues;
    std::vector<uint32_t> tgidKeys;
    std::vector<kova_tis_pid_key> pidKeys;

    enum Step {
        kThreadReport, kThreadReaders, kThreadWalk, kThreadBatch,
        kProcessReport, kProcessReaders, kProcessWalk, kProcessBatch, kSteps
    };
    const char* names[kSteps] = {"handleKovaThreadCpuTimeInState", "  its readers alone", "bare walk, thread maps",
                                 "batched lookup, thread maps", "handleKovaProcessCpuTimeInState", "  its readers alone",
                                 "bare walk, process maps", "batched lookup, process maps"};
    // The readers alone: what the report adds to them is the sort and the ten names.
    const std::function<void()> bodies[kSteps] = {
            [&] { service->handleKovaThreadCpuTimeInState(); },
            [&] {
                if (!Kova::Bpf::getPidsTimes() || !Kova::Bpf::getPidsCpuFreqTimes()) Fail("a thread reader failed");
            },
            [&] {
                if (Walk<kova_tis_pid_key>(pidTimes.get(), value.data()) != kThreads ||
                    Walk<kova_tis_pid_key>(pidFreq.get(), value.data()) != kThreads) {
                    Fail("the walk missed thread entries");
                }
            },
            [&] {
                if (BatchRead(pidTimes.get(), sizeof(kova_tis_pid_time), 4096, &batchValues, &pidKeys) != kThreads ||
                    BatchRead(pidFreq.get(), perCpuValue, 4096, &batchValues, &pidKeys) != kThreads) {
                    Fail("the batched lookup missed thread entries");
                }
            },
            [&] { service->handleKovaProcessCpuTimeInState(); },
            [&] {
                if (!Kova::Bpf::getTgidsTimes() || !Kova::Bpf::getTgidsCpuFreqTimes()) Fail("a process reader failed");
            },
            [&] {
                if (Walk<uint32_t>(tgidTimes.get(), value.data()) != kProcesses ||
                    Walk<uint32_t>(tgidFreq.get(), value.data()) != kProcesses) {
                    Fail("the walk missed process entries");
                }
            },
            [&] {
                if (BatchRead(tgidTimes.get(), sizeof(uint64_t), 4096, &batchValues, &tgidKeys) != kProcesses ||
                    BatchRead(tgidFreq.get(), perCpuValue, 4096, &batchValues, &tgidKeys) != kProcesses) {
                    Fail("the batched lookup missed process entries");
                }
            },
    };
    Cost costs[kSteps];
    for (const auto& body : bodies) body();  // warm caches and the allocator once, untimed
    for (int rep = 0; rep < options.reportReps; ++rep) {
        for (int step = 0; step < kSteps; ++step) {
            const int which = rep % 2 == 0 ? step : kSteps - 1 - step;  // alternate the order
            Time(&costs[which], bodies[which]);
        }
    }

    printf("\n== reports over %d processes and %d threads in the maps (nothing attached) ==\n", kProcesses, kThreads);
    printf("%d repetitions, order alternated; %d policies of %d frequencies\n", options.reportReps, kt::PossibleCpus(),
           options.frequencies);
    printf("%-34s %-44s %-44s\n", "", "wall ms", "thread CPU ms");
    for (int step = 0; step < kSteps; ++step) {
        printf("%-34s %-44s %-44s\n", names[step], Format(Summarise(costs[step].wallMs), "%.2f").c_str(),
               Format(Summarise(costs[step].cpuMs), "%.2f").c_str());
    }
    const auto median = [&](Step step) { return Quantile(costs[step].wallMs, 0.5); };
    const double threadReport = median(kThreadReport);
    printf("per-thread report: %.1f ms median wall = %.2fx the bare walk (%.2f us per key and map); aim < 100 ms: %s\n",
           threadReport, threadReport / median(kThreadWalk), 1e3 * median(kThreadWalk) / (2.0 * kThreads),
           threadReport < 100 ? "met" : "NOT met");
    printf("per-process report: %.1f ms median wall = %.2fx the bare walk (%.2f us per key and map)\n",
           median(kProcessReport), median(kProcessReport) / median(kProcessWalk),
           1e3 * median(kProcessWalk) / (2.0 * kProcesses));
    const long threadSize = LoggedSize(log, "handleKovaThreadCpuTimeInState");
    const long processSize = LoggedSize(log, "handleKovaProcessCpuTimeInState");
    printf("report sizes (logged by the handlers): thread %ld bytes, process %ld bytes\n", threadSize, processSize);
    if (!Kova::Bpf::clearTgidTimes() || !Kova::Bpf::clearPidTimes()) Fail("cannot empty the task maps");

    char figure[160], baseline[160];
    snprintf(figure, sizeof(figure), "%s ms wall, %ld bytes", Format(Summarise(costs[kThreadReport].wallMs), "%.1f").c_str(),
             threadSize);
    snprintf(baseline, sizeof(baseline), "bare walk %s ms; batched %.1f ms",
             Format(Summarise(costs[kThreadWalk].wallMs), "%.1f").c_str(), median(kThreadBatch));
    gResults.push_back({"per-thread report, 30,000 threads", figure, baseline,
                        std::string("< 100 ms: ") + (threadReport < 100 ? "met" : "NOT met")});
    snprintf(figure, sizeof(figure), "%s ms wall, %ld bytes", Format(Summarise(costs[kProcessReport].wallMs), "%.1f").c_str(),
             processSize);
    snprintf(baseline, sizeof(baseline), "bare walk %s ms; batched %.1f ms",
             Format(Summarise(costs[kProcessWalk].wallMs), "%.1f").c_str(), median(kProcessBatch));
    gResults.push_back({"per-process report, 5,000 processes", figure, baseline, "(none)"});
}

Options ParseOptions(int argc, char** argv) {
    Options options;
    const char* usage =
            "usage: time_in_state_bench [--only switch|accuracy|report] [--rounds N] [--window-ms MS] [--cpu C]\n"
            "                           [--accuracy-runs N] [--no-replay] [--report-reps N] [--frequencies N]";
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--no-replay") {
            options.replay = false;
            continue;
        }
        if (i + 1 >= argc) Fail(usage);
        const char* value = argv[++i];
        if (arg == "--only") {
            options.only = value;
        } else if (arg == "--rounds") {
            options.rounds = atoi(value);
        } else if (arg == "--window-ms") {
            options.windowMs = atoi(value);
        } else if (arg == "--cpu") {
            options.cpu = atoi(value);
        } else if (arg == "--accuracy-runs") {
            options.accuracyRuns = atoi(value);
        } else if (arg == "--report-reps") {
            options.reportReps = atoi(value);
        } else if (arg == "--frequencies") {
            options.frequencies = atoi(value);
        } else {
            Fail(usage);
        }
    }
    if (!options.only.empty() && options.only != "switch" && options.only != "accuracy" && options.only != "report") {
        Fail(usage);
    }
    if (options.rounds < 1 || options.windowMs < 10 || options.accuracyRuns < 1 || options.reportReps < 1 ||
        options.frequencies < 1 || options.frequencies > KOVA_TIS_FREQ_SLOTS || options.cpu >= kt::PossibleCpus()) {
        Fail(usage);
    }
    return options;
}

}  // namespace

int Run(int argc, char** argv) {
    const Options options = ParseOptions(argc, argv);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    printf("load average before: %s\n", LoadAverage().c_str());
    std::vector<uint64_t> stealBefore;
    for (int c = 0; c < kt::PossibleCpus(); ++c) stealBefore.push_back(kt::CpuStealNs(c));
    const uint64_t start = NowNs(CLOCK_MONOTONIC);
    {
        TimeInStateSetup setup(options.frequencies);
        // The seeding child's attachments ended with it: the stamps must stand still.
        const uint64_t stamps = setup.StampSum();
        std::this_thread::sleep_for(50ms);
        if (setup.StampSum() != stamps) Fail("the time-in-state program is still attached after seeding");

        if (options.only.empty() || options.only == "switch") MeasureSwitchCost(setup, options);
        if (options.only.empty() || options.only == "accuracy") MeasureAccuracy(setup, options);
        if (options.only.empty() || options.only == "report") MeasureReportCost(setup, options);
    }
    const uint64_t wall = NowNs(CLOCK_MONOTONIC) - start;
    printf("\nwhole run: %.1f s; steal:", static_cast<double>(wall) / 1e9);
    for (int c = 0; c < kt::PossibleCpus(); ++c) {
        const uint64_t stolen = kt::CpuStealNs(c) - stealBefore[c];
        printf(" cpu%d %.0f ms (%.2f %%)", c, static_cast<double>(stolen) / 1e6,
               100.0 * static_cast<double>(stolen) / static_cast<double>(wall));
    }
    printf("\nload average after: %s\n", LoadAverage().c_str());
    printf("\n== summary: median [p25..p75] min..max ==\n");
    for (const Result& result : gResults) {
        printf("%s\n    figure:   %s\n    baseline: %s\n    aim:      %s\n", result.measure.c_str(), result.figure.c_str(),
               result.baseline.c_str(), result.aim.c_str());
    }
    return 0;
}

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        fprintf(stderr, "time_in_state_bench: %s\n", error.what());
        return 1;
    }
}
