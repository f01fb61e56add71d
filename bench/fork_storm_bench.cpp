// Fork storm: processes forked and reaped as fast as the machine can, in storms of the same size one
// after another, to hold kovabpfd against two baselines measured in the same run:
//
//   A  nothing attached: the loader has pinned the programs, but only kovabpfd attaches them and it is
//      not running yet (checked: no process holds a perf event of a pinned program);
//   B  the kernel's process-event connector (netlink PROC_EVENT_FORK / PROC_EVENT_EXIT) and one
//      listener thread, without kovabpfd;
//   C  kovabpfd and one libkovabpfclient subscriber (50001 and 50002), without the connector.
//
// Targets: the fork rate of C over that of A at least 0.90; kovabpfd's CPU per storm event delivered in C
// over the listener thread's CPU per message read in B at most 1.
//
//   fork_storm_bench [--forks N] [--generators G] [--connector-rcvbuf BYTES] [--repeat R]
//
// Runs as root. It loads the programs with kovabpf-loader into a pin directory of its own and starts
// kovabpfd for each storm C with its own socket, diagnostics and property directories. G generator
// processes named "kova-storm" each fork N / G children that exit at once, and reap them. For both
// observers a storm child is a process created by a generator, and its exit is counted once it was
// seen created. --repeat runs the three storms R times, A, B, C each time.

#include <bpf/bpf.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/bpf.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>


#include "kova/bpf_client.h"
#include "kova/bpf_client_events.h"
#include "kova_kernel_objects.h"
#include "kova_proc_connector.h"
#include "kova_test_support.h"
#include "kova_bpf_records.h"


namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr char kStormName[] = "kova-storm";

struct Options {
    int forks = 100000;
    int generators = 2;
    int connectorRcvbuf = 0;  // 0: the system's default
    int repeat = 1;
};

[[noreturn]] void Fail(const std::string& message) {
    fprintf(stderr, "fork_storm_bench: %s\n", message.c_str());
    exit(1);
}

int WaitExit(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// CPU time of a process, user plus system, in microseconds.
double CpuMicros(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    std::istringstream fields(line.substr(line.rfind(')') + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int index = 3; fields >> field; ++index) {
        if (index == 14) utime = std::stoull(field);
        if (index == 15) {
            stime = std::stoull(field);
            break;
        }
    }
    return static_cast<double>(utime + stime) * 1e6 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// The kernel's process-event connector, counting the forks and exits of the storm's children.
class ConnectorListener {
  public:
    explicit ConnectorListener(int rcvbuf) {
        std::string error;
        fd_ = kova::bench::OpenProcConnector(rcvbuf, &error);
        if (fd_ < 0) Fail(error);
        timeval timeout{0, 200000};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
        thread_ = std::thread([this] { Run(); });
        pthread_getcpuclockid(thread_.native_handle(), &cpuClock_);
    }
    ~ConnectorListener() {
        stop_ = true;
        thread_.join();
        kova::bench::ProcConnectorControl(fd_, PROC_CN_MCAST_IGNORE);
        close(fd_);
    }
    void SetGenerators(const std::set<pid_t>& generators) {
        std::lock_guard<std::mutex> lock(mutex_);
        generators_ = generators;
    }
    uint64_t forks() const { return forks_; }
    uint64_t exits() const { return exits_; }
    uint64_t overruns() const { return overruns_; }
    // Every message read, whatever process it is about.
    uint64_t messages() const { return messages_; }
    // CPU time of the listening thread alone, in microseconds.
    double cpuMicros() const {
        timespec now{};
        clock_gettime(cpuClock_, &now);
        return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
    }

  private:
    void Run() {
        alignas(nlmsghdr) char buffer[8192];
        while (!stop_) {
            ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
            if (n < 0) {
                if (errno == ENOBUFS) ++overruns_;  // the kernel dropped events for this socket
                continue;
            }
            kova::bench::ForEachProcEvent(buffer, n, [this](const proc_event& event) {
                ++messages_;
                Count(event);
            });
        }
    }
    void Count(const proc_event& event) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (event.what == proc_event::PROC_EVENT_FORK) {
            const auto& fork = event.event_data.fork;
            if (generators_.count(fork.parent_tgid) != 0 && fork.child_pid == fork.child_tgid) {
                children_.insert(fork.child_pid);
                ++forks_;
            }
        } else if (event.what == proc_event::PROC_EVENT_EXIT) {
            const auto& exit = event.event_data.exit;
            if (exit.process_pid == exit.process_tgid && children_.erase(exit.process_pid) != 0) ++exits_;
        }
    }

    int fd_ = -1;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::set<pid_t> generators_;
    std::set<pid_t> children_;
    std::atomic<uint64_t> forks_{0}, exits_{0}, overruns_{0}, messages_{0};
    std::thread thread_;
    clockid_t cpuClock_{};
};

// A generator: named kova-storm (so are its children), forks `count` children that exit at once and
// reaps them, as fast as it can. Started stopped on a pipe so that all generators begin together.
pid_t StartGenerator(int count, int startPipe) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_NAME, kStormName);
    char go;
    if (read(startPipe, &go, 1) != 1) _exit(2);
    for (int i = 0; i < count; ++i) {
        const pid_t child = fork();
        if (child == 0) _exit(0);
        if (child < 0) _exit(3);
        waitpid(child, nullptr, 0);
    }
    _exit(0);
}

// The generators of one storm, started stopped on a pipe so that they begin together.
class Storm {
  public:
    explicit Storm(const Options& options) : perGenerator_(options.forks / options.generators) {
        if (pipe2(pipe_, O_CLOEXEC) != 0) Fail("pipe");
        for (int g = 0; g < options.generators; ++g) generators_.insert(StartGenerator(perGenerator_, pipe_[0]));
    }
    ~Storm() {
        close(pipe_[0]);
        close(pipe_[1]);
    }
    const std::set<pid_t>& generators() const { return generators_; }
    int forks() const { return perGenerator_ * static_cast<int>(generators_.size()); }
    // Lets the generators go and reaps them; returns the storm's wall time in seconds.
    double Run() {
        const auto start = Clock::now();
        const std::string go(generators_.size(), 'g');
        if (write(pipe_[1], go.data(), go.size()) != static_cast<ssize_t>(go.size())) Fail("start pipe");
        for (const pid_t generator : generators_) WaitExit(generator);
        return std::chrono::duration<double>(Clock::now() - start).count();
    }

  private:
    const int perGenerator_;
    int pipe_[2] = {-1, -1};
    std::set<pid_t> generators_;
};

// Events of the storm may still be in flight when the last generator is reaped: waits until an
// observer's count stops moving for a second.
void WaitQuiet(const std::function<uint64_t()>& count) {
    uint64_t last = ~0ull;
    for (auto deadline = Clock::now() + 60s; Clock::now() < deadline; std::this_thread::sleep_for(1s)) {
        const uint64_t now = count();
        if (now == last) return;
        last = now;
    }
}

// BPF programs attached through perf events (as kovabpfd attaches its tracepoints and kprobes), held by
// any process: BPF_TASK_FD_QUERY on every open descriptor, as bpftool perf finds them. `ours` counts
// the programs pinned in `pinDir`, `others` the rest.
void CountPerfAttachments(const std::string& pinDir, int* ours, int* others) {
    std::set<uint32_t> pinnedIds;
    std::unique_ptr<DIR, int (*)(DIR*)> pins(opendir(pinDir.c_str()), closedir);
    for (dirent* entry; pins && (entry = readdir(pins.get())) != nullptr;) {
        if (strncmp(entry->d_name, "prog_", 5) != 0) continue;
        const int fd = bpf_obj_get((pinDir + "/" + entry->d_name).c_str());
        bpf_prog_info info{};
        uint32_t size = sizeof(info);
        if (fd >= 0 && bpf_obj_get_info_by_fd(fd, &info, &size) == 0) pinnedIds.insert(info.id);
        if (fd >= 0) close(fd);
    }
    if (pinnedIds.empty()) Fail("no programs pinned in " + pinDir);
    *ours = *others = 0;
    std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
    for (dirent* process; proc && (process = readdir(proc.get())) != nullptr;) {
        const int pid = atoi(process->d_name);
        if (pid <= 0) continue;
        std::unique_ptr<DIR, int (*)(DIR*)> fds(opendir(("/proc/" + std::string(process->d_name) + "/fd").c_str()),
                                                 closedir);
        for (dirent* fd; fds && (fd = readdir(fds.get())) != nullptr;) {
            if (fd->d_name[0] == '.') continue;
            __u32 nameSize = 0, programId = 0, type = 0;
            __u64 offset = 0, address = 0;
            if (bpf_task_fd_query(pid, atoi(fd->d_name), 0, nullptr, &nameSize, &programId, &type, &offset,
                                  &address) != 0) {
                continue;  // not a perf event with a program, or gone
            }
            ++*(pinnedIds.count(programId) != 0 ? ours : others);
        }
    }
}

// Raw records the daemon handled, by type, from its own counters (signal 50 writes them).
std::vector<uint64_t> DaemonRecordCounts(pid_t daemon, const std::string& diagDir) {
    const std::string csv = diagDir + "/bpfservice_state.csv";
    unlink(csv.c_str());
    kill(daemon, 50);
    std::vector<uint64_t> totals(15, 0);
    for (auto deadline = Clock::now() + 5s; Clock::now() < deadline; std::this_thread::sleep_for(50ms)) {
        std::ifstream in(csv);
        std::string line;
        if (!std::getline(in, line)) continue;  // not written yet
        std::vector<uint64_t> sums(15, 0);
        bool whole = false;
        while (std::getline(in, line)) {
            std::istringstream fields(line);
            std::string field;
            std::getline(fields, field, ',');  // the row's sum
            for (size_t type = 0; type < sums.size() && std::getline(fields, field, ','); ++type) {
                sums[type] += std::stoull(field);
            }
            whole = line.back() == '\r';
        }
        if (whole) return sums;
    }
    return totals;
}

int CountQueueTrims(const std::string& diagDir) {
    std::ifstream log(diagDir + "/error.log");
    std::string line;
    int trims = 0;
    while (std::getline(log, line)) trims += line == "ErrorCode: 4";
    return trims;
}

Options ParseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--forks" && hasValue) {
            options.forks = atoi(argv[++i]);
        } else if (arg == "--generators" && hasValue) {
            options.generators = atoi(argv[++i]);
        } else if (arg == "--connector-rcvbuf" && hasValue) {
            options.connectorRcvbuf = atoi(argv[++i]);
        } else if (arg == "--repeat" && hasValue) {
            options.repeat = atoi(argv[++i]);
        } else {
            Fail("usage: fork_storm_bench [--forks N] [--generators G] [--connector-rcvbuf BYTES] [--repeat R]");
        }
    }
    if (options.forks < options.generators || options.generators < 1 || options.repeat < 1) {
        Fail("--generators and --repeat must be positive, and --forks at least --generators");
    }
    return options;
}

// One storm: its wall time, what its observer saw, and the observer's CPU time over it.
struct StormFigures {
    int forks = 0;
    double seconds = 0;
    uint64_t forksSeen = 0, exitsSeen = 0;
    double cpuMicros = 0;
    uint64_t cpuUnits = 0;  // what the CPU time is shared over: events delivered, or messages read
    double rate() const { return forks / seconds; }
    double cpuPerUnit() const { return cpuUnits > 0 ? cpuMicros / static_cast<double>(cpuUnits) : 0.0; }
    long long lost() const { return 2LL * forks - static_cast<long long>(forksSeen + exitsSeen); }
};

// A: nothing attached and nobody listening.
StormFigures StormAlone(const Options& options) {
    Storm storm(options);
    StormFigures figures;
    figures.forks = storm.forks();
    figures.seconds = storm.Run();
    return figures;
}

// B: the process-event connector and one listener thread.
StormFigures StormConnector(const Options& options, uint64_t* overruns) {
    ConnectorListener connector(options.connectorRcvbuf);
    Storm storm(options);
    connector.SetGenerators(storm.generators());
    StormFigures figures;
    figures.forks = storm.forks();
    const double cpuBefore = connector.cpuMicros();
    const uint64_t messagesBefore = connector.messages();
    figures.seconds = storm.Run();
    WaitQuiet([&] { return connector.forks() + connector.exits(); });
    figures.cpuMicros = connector.cpuMicros() - cpuBefore;
    figures.cpuUnits = connector.messages() - messagesBefore;
    figures.forksSeen = connector.forks();
    figures.exitsSeen = connector.exits();
    *overruns = connector.overruns();
    return figures;
}

struct DaemonState {
    int attached = 0;  // perf events of the pinned programs while it ran
    bool ringFull = false;
    int trims = 0;
    std::vector<uint64_t> records;  // raw records handled since it started, by type
};

// C: kovabpfd, started for this storm, and one libkovabpfclient subscriber to 50001 and 50002.
StormFigures StormDaemon(const Options& options, kova::test::DaemonOnObjects& daemon, DaemonState* state) {
    const int trimsBefore = CountQueueTrims(daemon.diagDir());
    std::string error;
    if (!daemon.Start(&error)) Fail(error);
    std::atomic<uint64_t> created{0}, exited{0};
    std::mutex generatorsLock;
    std::set<pid_t> generators;  // guarded by generatorsLock
    std::set<pid_t> children;    // storm children seen created and not yet exited; guarded by generatorsLock
    Kova::Client::ClientOptions clientOptions;
    clientOptions.socketName = daemon.socketName();
    Kova::Client::KovaBpfClient client(clientOptions);
    client.subscribe(Kova::Client::kTaskCreated, [&](const Kova::Client::ClientEvent& event) {
        const auto decoded = Kova::Client::DecodeTaskCreated(event.record);
        if (!decoded) return;
        std::lock_guard<std::mutex> lock(generatorsLock);
        if (generators.count(decoded->ppid) != 0 && children.insert(decoded->pid).second) ++created;
    });
    client.subscribe(Kova::Client::kTaskExited, [&](const Kova::Client::ClientEvent& event) {
        const auto decoded = Kova::Client::DecodeTaskExited(event.record);
        if (!decoded) return;
        std::lock_guard<std::mutex> lock(generatorsLock);
        if (children.erase(decoded->pid) != 0) ++exited;
    });
    client.start();
    if (!client.waitUntilSubscribed(30s)) Fail("the client did not subscribe:\n" + daemon.Stderr());
    int othersAttached = 0;
    CountPerfAttachments(daemon.objects().pins().path(), &state->attached, &othersAttached);

    Storm storm(options);
    {
        std::lock_guard<std::mutex> lock(generatorsLock);
        generators = storm.generators();
    }
    StormFigures figures;
    figures.forks = storm.forks();
    const double cpuBefore = CpuMicros(daemon.pid());
    figures.seconds = storm.Run();
    WaitQuiet([&] { return created + exited; });
    figures.cpuMicros = CpuMicros(daemon.pid()) - cpuBefore;
    figures.forksSeen = created;
    figures.exitsSeen = exited;
    figures.cpuUnits = created + exited;
    state->ringFull = (daemon.objects().Status(kova::test::kNormalObject, KOVA_STATUS_WORD) & KOVA_STATUS_FULL) != 0;
    state->records = DaemonRecordCounts(daemon.pid(), daemon.diagDir());
    client.stop();
    if (!daemon.Stop()) Fail("kovabpfd did not stop cleanly:\n" + daemon.Stderr());
    state->trims = CountQueueTrims(daemon.diagDir()) - trimsBefore;
    return figures;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = ParseOptions(argc, argv);
    if (geteuid() != 0) Fail("needs root (BPF, netlink connector)");
    std::string reason;
    if (!kova::test::HaveBpf(&reason)) Fail(reason);
    // The loader pins the real objects into a directory of our own, once; kovabpfd runs on them, with its
    // own socket, diagnostics and pid file, only during each storm C.
    kova::test::DaemonOnObjects daemon;
    if (!daemon.objects().ok()) Fail(daemon.objects().message());

    std::vector<double> rateRatios, cpuRatios;
    for (int round = 1; round <= options.repeat; ++round) {
        int attachedA = 0, othersA = 0;
        CountPerfAttachments(daemon.objects().pins().path(), &attachedA, &othersA);
        if (attachedA != 0) Fail("pinned programs are attached while no kovabpfd runs");
        const StormFigures a = StormAlone(options);
        uint64_t overruns = 0;
        const StormFigures b = StormConnector(options, &overruns);
        DaemonState state;
        const StormFigures c = StormDaemon(options, daemon, &state);

        printf("round %d of %d: storms of %d forks by %d generators\n", round, options.repeat, a.forks,
               options.generators);
        printf("%-44s %8s %10s %10s %10s %10s\n", "storm", "seconds", "forks/s", "forks", "exits", "lost");
        printf("%-44s %8.2f %10.0f\n", "A  nothing attached", a.seconds, a.rate());
        printf("%-44s %8.2f %10.0f %10llu %10llu %10lld   (ENOBUFS: %llu)\n",
               "B  process-event connector, one listener", b.seconds, b.rate(),
               static_cast<unsigned long long>(b.forksSeen), static_cast<unsigned long long>(b.exitsSeen), b.lost(),
               static_cast<unsigned long long>(overruns));
        printf("%-44s %8.2f %10.0f %10llu %10llu %10lld\n", "C  kovabpfd, one subscriber (50001 / 50002)",
               c.seconds, c.rate(), static_cast<unsigned long long>(c.forksSeen),
               static_cast<unsigned long long>(c.exitsSeen), c.lost());
        printf("A: perf events of the pinned programs: %d (%d while kovabpfd ran in C); other BPF perf events: %d\n",
               attachedA, state.attached, othersA);
        printf("B: listener thread CPU %.3f s = %.2f us per message read (%llu: every message it read from the "
               "storm's start until the storm's events stopped arriving, the storm's or not)\n",
               b.cpuMicros / 1e6, b.cpuPerUnit(), static_cast<unsigned long long>(b.cpuUnits));
        printf("C: kovabpfd CPU %.3f s = %.2f us per storm event delivered (%llu)\n", c.cpuMicros / 1e6,
               c.cpuPerUnit(), static_cast<unsigned long long>(c.cpuUnits));
        printf("C: ring buffer full bit: %s; client queue trims: %d\n", state.ringFull ? "SET" : "clear", state.trims);
        const std::vector<uint64_t>& records = state.records;
        const uint64_t handled = records[KOVA_RAW_RSS] + records[KOVA_RAW_TASK_CREATE] + records[KOVA_RAW_TASK_EXIT];
        printf("C: kovabpfd records handled since start: %llu fork, %llu exit, %llu rss (%llu polls) = %.2f us per "
               "record\n",
               static_cast<unsigned long long>(records[KOVA_RAW_TASK_CREATE]),
               static_cast<unsigned long long>(records[KOVA_RAW_TASK_EXIT]),
               static_cast<unsigned long long>(records[KOVA_RAW_RSS]), static_cast<unsigned long long>(records[14]),
               handled > 0 ? c.cpuMicros / static_cast<double>(handled) : 0.0);
        rateRatios.push_back(c.rate() / a.rate());
        cpuRatios.push_back(b.cpuPerUnit() > 0 ? c.cpuPerUnit() / b.cpuPerUnit() : 0.0);
        printf("fork rate C/A: %.2f (target >= 0.90); CPU per event C/B: %.2f (target <= 1)\n\n", rateRatios.back(),
               cpuRatios.back());
    }
    if (options.repeat > 1) {
        printf("median of %d rounds: fork rate C/A %.2f (target >= 0.90); CPU per event C/B %.2f (target <= 1)\n",
               options.repeat, Median(rateRatios), Median(cpuRatios));
    }
    return 0;
}
