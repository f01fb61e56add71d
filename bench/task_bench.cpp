// Task tracking: the cost of each task handler per record, and the start-up scan of /proc beside `ps`.
//
//   - BM_TaskHandler: one fork, exit or RSS record per iteration, into a table of 5,000 processes, with
//     no client subscribed (so whatever event a handler builds goes nowhere), called directly and
//     through the dispatch (handleBpfRingBuffEvent). None of the records crosses a report threshold.
//   - BM_StartupScan: initTaskInfo() over a generated /proc of 5,000 processes (status and stat files
//     shaped like the kernel's), and over the real /proc, optionally with 5,000 extra sleeping
//     processes started for the run.
//   - BM_Ps: `ps -e -o pid,ppid,uid,nlwp,rss,comm` over the real /proc, with and without the same
//     5,000 extra processes: the user's alternative. Both report microseconds per process.
//
// Runs without root or BPF. Run: build/bin/task_bench --benchmark_repetitions=5
//   --benchmark_report_aggregates_only=true (see bench/README.md).

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "kova_bpf_records.h"
#include "kova_service_harness.h"
#include "kova_test_support.h"
#include "service/kova_bpf_service.h"
#include "service/kova_bpf_task_manager.h"
#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_paths.h"

extern char** environ;

namespace kova::bench {
namespace {

using Kova::Bpf::KovaBpfService;
using Kova::Bpf::KovaTaskManager;

constexpr int kTableSize = 5000;
constexpr int32_t kFirstPid = 1000;  // the table holds kFirstPid .. kFirstPid + kTableSize - 1
constexpr int kNewPids = 4096;       // fresh pids forked per round, beyond the table
constexpr int32_t kFirstNewPid = 100000;
constexpr uint64_t kOldNs = 10ull * 1000000000ull;  // record times well past the 3 s gate
constexpr uint64_t kRssBytes = 60ull << 20;          // every counter of every seeded process
constexpr int32_t kThreads = 20;                     // threads of every seeded process

KovaBpfService* Service() { return KovaBpfService::GetInstance(); }

kova_task_init_record InitRecord(int32_t pid) {
    kova_task_init_record record{};
    record.type = KOVA_RAW_TASK_INIT;
    record.timestamp_ns = 1;
    record.pid = pid;
    record.ppid = 1;
    record.uid = 10000 + static_cast<uint32_t>(pid % 50);
    record.thread_count = kThreads;
    snprintf(record.comm, sizeof(record.comm), "app%d", pid);
    record.rss_file_bytes = kRssBytes;
    record.rss_anon_bytes = kRssBytes;
    record.rss_shmem_bytes = kRssBytes;
    record.swap_bytes = kRssBytes;
    return record;
}

// The table as after a start-up scan of kTableSize processes, and nothing else.
void SeedTable() {
    KovaTaskManager* table = KovaTaskManager::GetInstance();
    for (int pid = kFirstNewPid; pid < kFirstNewPid + kNewPids; ++pid) table->DelKovaTask(pid);
    for (int32_t pid = kFirstPid; pid < kFirstPid + kTableSize; ++pid) {
        kova_task_init_record record = InitRecord(pid);
        Service()->handleKovaTaskInitEvent(reinterpret_cast<char*>(&record), sizeof(record));
    }
}

// Young records from a parent the kernel side knows (no /proc probe): a thread change is counted but
// not reported.
std::string ForkRecord(int32_t pid, uint32_t kind) { return test::ForkRecord(pid, "forked", kind, 2, 1, 10000); }
std::string ExitRecord(int32_t pid, uint32_t kind) { return test::ExitRecord(pid, "exited", 2, kind); }

enum Record { kForkProcess, kForkThread, kExitProcess, kExitThread, kRss };
enum Path { kHandler = 0, kDispatch = 1 };

int Handle(Record which, Path path, char* data, size_t size) {
    if (path == kDispatch) return KovaBpfService::handleBpfRingBuffEvent(nullptr, data, size);
    switch (which) {
        case kForkProcess:
        case kForkThread: return Service()->handleSched_SchedProcessFork(data, static_cast<int64_t>(size));
        case kExitProcess:
        case kExitThread: return Service()->handleSched_SchedProcessExit(data, static_cast<int64_t>(size));
        case kRss: return Service()->handleKmem_RssStat(data, static_cast<int64_t>(size));
    }
    return 0;
}

void BM_TaskHandler(benchmark::State& state) {
    const auto which = static_cast<Record>(state.range(0));
    const auto path = static_cast<Path>(state.range(1));
    SeedTable();
    KovaTaskManager* table = KovaTaskManager::GetInstance();
    // A round of records, prepared before timing; between rounds the table is put back untimed.
    std::vector<std::string> records;
    for (int i = 0; i < kNewPids; ++i) {
        const int32_t tablePid = kFirstPid + (i * 7) % kTableSize;
        std::string bytes;
        switch (which) {
            case kForkProcess: bytes = ForkRecord(kFirstNewPid + i, KOVA_TASK_KIND_PROCESS); break;
            case kForkThread: bytes = ForkRecord(tablePid, KOVA_TASK_KIND_THREAD); break;
            case kExitProcess: bytes = ExitRecord(kFirstNewPid + i, KOVA_TASK_KIND_PROCESS); break;
            case kExitThread: bytes = ExitRecord(tablePid, KOVA_TASK_KIND_THREAD); break;
            case kRss:
                // Old processes, so the whole report test runs; the four counters move by 2 KiB at most
                // each, so the change never reaches 16 KiB.
                bytes = test::RssRecord(tablePid, i % 4, static_cast<int64_t>(kRssBytes) + ((i / 4) % 2) * 2048, kOldNs);
                break;
        }
        records.push_back(std::move(bytes));
    }
    const auto prepareRound = [&] {
        for (int i = 0; i < kNewPids; ++i) {
            const int32_t pid = kFirstNewPid + i;
            if (which == kForkProcess) table->DelKovaTask(pid);
            if (which == kExitProcess) {
                kova_task_init_record record = InitRecord(pid);
                Service()->handleKovaTaskInitEvent(reinterpret_cast<char*>(&record), sizeof(record));
            }
        }
    };
    prepareRound();
    size_t next = 0;
    for (auto _ : state) {
        if (next == records.size()) {
            state.PauseTiming();
            prepareRound();
            next = 0;
            state.ResumeTiming();
        }
        std::string& record = records[next++];
        benchmark::DoNotOptimize(Handle(which, path, record.data(), record.size()));
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    // The figures are for records that report nothing: a report would have moved the last-reported
    // values, which start equal to the current ones.
    for (int32_t pid = kFirstPid; pid < kFirstPid + kTableSize; ++pid) {
        const Kova::Bpf::KovaTask* task = table->GetKovaTask(pid);
        if (task == nullptr) {
            state.SkipWithError("the table lost a task");
            return;
        }
        bool reported = task->oldThreadNum != kThreads;
        for (const int64_t bytes : task->rssOldSize) reported |= bytes != static_cast<int64_t>(kRssBytes);
        if (reported) {
            state.SkipWithError("a record crossed a report threshold");
            return;
        }
    }
}
BENCHMARK(BM_TaskHandler)
        ->ArgNames({"record", "dispatch"})
        ->ArgsProduct({{kForkProcess, kForkThread, kExitProcess, kExitThread, kRss}, {kHandler, kDispatch}});

// ---- The start-up scan beside ps ----

// A status file shaped like the kernel's (the same lines, in the same order, of typical length).
std::string StatusFile(int32_t pid) {
    return Kova::Bpf::StringPrintf(
            "Name:\tapp%d\nUmask:\t0022\nState:\tS (sleeping)\nTgid:\t%d\nNgid:\t0\nPid:\t%d\nPPid:\t%d\n"
            "TracerPid:\t0\nUid:\t%d\t%d\t%d\t%d\nGid:\t%d\t%d\t%d\t%d\nFDSize:\t64\nGroups:\t3003 9997 \n"
            "NStgid:\t%d\nNSpid:\t%d\nNSpgid:\t%d\nNSsid:\t%d\nKthread:\t0\nVmPeak:\t 1245184 kB\n"
            "VmSize:\t 1183744 kB\nVmLck:\t       0 kB\nVmPin:\t       0 kB\nVmHWM:\t  102400 kB\n"
            "VmRSS:\t  100352 kB\nRssAnon:\t   61440 kB\nRssFile:\t   38912 kB\nRssShmem:\t    2048 kB\n"
            "VmData:\t  204800 kB\nVmStk:\t     132 kB\nVmExe:\t      20 kB\nVmLib:\t  102400 kB\n"
            "VmPTE:\t     644 kB\nVmSwap:\t    1024 kB\nHugetlbPages:\t       0 kB\nCoreDumping:\t0\n"
            "THP_enabled:\t1\nuntag_mask:\t0xffffffffffffffff\nThreads:\t%d\nSigQ:\t0/96365\n"
            "SigPnd:\t0000000000000000\nShdPnd:\t0000000000000000\nSigBlk:\t0000000000001204\n"
            "SigIgn:\t0000000000000001\nSigCgt:\t00000006400084f8\nCapInh:\t0000000000000000\n"
            "CapPrm:\t0000000000000000\nCapEff:\t0000000000000000\nCapBnd:\t0000000000000000\n"
            "CapAmb:\t0000000000000000\nNoNewPrivs:\t0\nSeccomp:\t2\nSeccomp_filters:\t1\n"
            "Speculation_Store_Bypass:\tthread vulnerable\nSpeculationIndirectBranch:\tconditional enabled\n"
            "Cpus_allowed:\tff\nCpus_allowed_list:\t0-7\nMems_allowed:\t1\nMems_allowed_list:\t0\n"
            "voluntary_ctxt_switches:\t1520\nnonvoluntary_ctxt_switches:\t311\n",
            pid, pid, pid, 600 + pid % 7, 10000 + pid % 50, 10000 + pid % 50, 10000 + pid % 50, 10000 + pid % 50,
            10000 + pid % 50, 10000 + pid % 50, 10000 + pid % 50, 10000 + pid % 50, pid, pid, pid, pid,
            12 + pid % 40);
}

std::string StatFile(int32_t pid) {
    return Kova::Bpf::StringPrintf(
            "%d (app%d) S %d %d 0 0 -1 4194624 51234 0 120 0 812 455 0 0 20 0 %d 0 %d 1212153856 25088 "
            "18446744073709551615 1 1 0 0 0 0 4612 1 1073775864 0 0 0 17 3 0 0 0 0 0 0 0 0 0 0 0 0 0\n",
            pid, pid, 600 + pid % 7, pid, 12 + pid % 40, 4000 + pid);
}

// A /proc of kTableSize processes, and the entries that are not processes. It lives in memory
// (/dev/shm when there is one), as the real /proc does, so that the scan is not timed against a disk.
class GeneratedProc {
  public:
    GeneratedProc() {
        char pattern[] = "/dev/shm/kova-bench-proc-XXXXXX";
        char fallback[] = "/tmp/kova-bench-proc-XXXXXX";
        const char* made = mkdtemp(pattern);
        if (made == nullptr) made = mkdtemp(fallback);
        if (made == nullptr) return;
        path_ = made;
        for (int32_t pid = kFirstPid; pid < kFirstPid + kTableSize; ++pid) {
            const std::string dir = path_ + "/" + std::to_string(pid);
            test::WriteFile(dir + "/status", StatusFile(pid));
            test::WriteFile(dir + "/stat", StatFile(pid));
        }
        for (const char* name : {"self", "meminfo", "stat", "sys", "net", "uptime"}) {
            test::WriteFile(path_ + "/" + name, "");
        }
    }
    ~GeneratedProc() {
        if (!path_.empty()) test::RemoveTree(path_);
    }
    GeneratedProc(const GeneratedProc&) = delete;
    GeneratedProc& operator=(const GeneratedProc&) = delete;
    bool ok() const { return !path_.empty(); }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

// Extra processes that only sleep, so that the real /proc holds thousands of them; killed and reaped
// on destruction.
class SleepingProcesses {
  public:
    explicit SleepingProcesses(int count) {
        for (int i = 0; i < count; ++i) {
            const pid_t child = fork();
            if (child == 0) {
                while (true) pause();
            }
            if (child < 0) break;
            children_.push_back(child);
        }
    }
    ~SleepingProcesses() {
        for (const pid_t child : children_) kill(child, SIGKILL);
        for (const pid_t child : children_) waitpid(child, nullptr, 0);
    }
    size_t count() const { return children_.size(); }

  private:
    std::vector<pid_t> children_;
};

std::unique_ptr<SleepingProcesses>& Population() {
    static std::unique_ptr<SleepingProcesses> population;
    return population;
}

// Makes the real /proc hold `extra` more processes than at start (only 0 and one fixed count are used).
bool EnsurePopulation(int extra) {
    std::unique_ptr<SleepingProcesses>& population = Population();
    if (extra == 0) {
        population.reset();
        return true;
    }
    if (!population) population = std::make_unique<SleepingProcesses>(extra);
    return population->count() == static_cast<size_t>(extra);
}

size_t CountProcesses(const std::string& procDir) {
    size_t count = 0;
    DIR* dir = opendir(procDir.c_str());
    if (dir == nullptr) return 0;
    while (dirent* entry = readdir(dir)) {
        if (Kova::Bpf::IsDigits(entry->d_name)) ++count;
    }
    closedir(dir);
    return count;
}

// `seconds` is the wall time of all iterations.
void ReportPerProcess(benchmark::State& state, size_t processes, double seconds) {
    const double scanned = static_cast<double>(state.iterations() * processes);
    state.SetItemsProcessed(static_cast<int64_t>(scanned));
    state.counters["processes"] = static_cast<double>(processes);
    state.counters["us_per_process"] = scanned > 0 ? seconds * 1e6 / scanned : 0;
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

enum ProcSource { kGeneratedProc = 0, kRealProc = 1 };

void BM_StartupScan(benchmark::State& state) {
    const auto source = static_cast<ProcSource>(state.range(0));
    const int extra = static_cast<int>(state.range(1));
    std::unique_ptr<GeneratedProc> generated;
    std::unique_ptr<test::ScopedRoot> root;
    if (source == kGeneratedProc) {
        EnsurePopulation(0);
        generated = std::make_unique<GeneratedProc>();
        if (!generated->ok()) {
            state.SkipWithError("cannot create the generated /proc");
            return;
        }
        root = std::make_unique<test::ScopedRoot>(Kova::Bpf::KOVA_PROC_DIR, generated->path());
    } else if (!EnsurePopulation(extra)) {
        state.SkipWithError("cannot start the extra processes");
        return;
    }
    const std::string procDir = Kova::Bpf::KovaPath(Kova::Bpf::KOVA_PROC_DIR);
    const size_t processes = CountProcesses(procDir);
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) Service()->initTaskInfo();
    ReportPerProcess(state, processes, SecondsSince(start));
}

int RunPs() {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    char* argv[] = {const_cast<char*>("ps"), const_cast<char*>("-e"), const_cast<char*>("-o"),
                    const_cast<char*>("pid,ppid,uid,nlwp,rss,comm"), nullptr};
    pid_t child = -1;
    const int spawned = posix_spawnp(&child, "ps", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return -1;
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void BM_Ps(benchmark::State& state) {
    if (!EnsurePopulation(static_cast<int>(state.range(0)))) {
        state.SkipWithError("cannot start the extra processes");
        return;
    }
    const size_t processes = CountProcesses("/proc");
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        if (RunPs() != 0) {
            state.SkipWithError("ps failed");
            return;
        }
    }
    ReportPerProcess(state, processes, SecondsSince(start));
}

constexpr int kExtraProcesses = 5000;

// Each scan beside ps over the same /proc; the extra processes are started once, for the last pair.
BENCHMARK(BM_StartupScan)->ArgNames({"real_proc", "extra"})->Args({kGeneratedProc, 0})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StartupScan)->ArgNames({"real_proc", "extra"})->Args({kRealProc, 0})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Ps)->ArgName("extra")->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StartupScan)
        ->ArgNames({"real_proc", "extra"})
        ->Args({kRealProc, kExtraProcesses})
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
BENCHMARK(BM_Ps)->ArgName("extra")->Arg(kExtraProcesses)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace kova::bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    kova::bench::Population().reset();
    return 0;
}
