// Fork storm: how many process events kovabpfd delivers, and at what CPU cost, while processes are
// forked and reaped as fast as the machine can, beside the kernel's own process-event connector
// (netlink PROC_EVENT_FORK / PROC_EVENT_EXIT) watching the same storm in the same run.
//
//   fork_storm_bench [--forks N] [--generators G] [--connector-rcvbuf BYTES]
//
// Runs as root. It loads the programs with kovabpf-loader into a pin directory of its own, starts
// kovabpfd on it with its own socket, diagnostics and property directories, and subscribes with
// libkovabpfclient to 50001 and 50002. G generator processes named "kova-storm" each fork N / G
// children that exit at once, and reap them. On both sides a storm child is a process created by a
// generator, and its exit is counted once it was seen created.

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
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

  private:
    void Run() {
        alignas(nlmsghdr) char buffer[8192];
        while (!stop_) {
            ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
            if (n < 0) {
                if (errno == ENOBUFS) ++overruns_;  // the kernel dropped events for this socket
                continue;
            }
            kova::bench::ForEachProcEvent(buffer, n, [this](const proc_event& event) { Count(event); });
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
    std::atomic<uint64_t> forks_{0}, exits_{0}, overruns_{0};
    std::thread thread_;
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

bool UnixSocketListed(const std::string& abstractName) {
    std::ifstream sockets("/proc/net/unix");
    std::string line;
    while (std::getline(sockets, line)) {
        if (line.size() > abstractName.size() && line.compare(line.size() - abstractName.size() - 1, std::string::npos,
                                                               "@" + abstractName) == 0) {
            return true;
        }
    }
    return false;
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
        } else {
            Fail("usage: fork_storm_bench [--forks N] [--generators G] [--connector-rcvbuf BYTES]");
        }
    }
    if (options.forks < 1 || options.generators < 1) Fail("--forks and --generators must be positive");
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = ParseOptions(argc, argv);
    if (geteuid() != 0) Fail("needs root (BPF, netlink connector)");
    std::string reason;
    if (!kova::test::HaveBpf(&reason)) Fail(reason);
    // The loader pins the real objects into a directory of our own; the daemon runs on them with its own
    // socket, diagnostics and pid file.
    kova::test::PinnedObjects objects;
    if (!objects.ok()) Fail(objects.message());
    kova::test::TempDir work;
    const std::string socketName = "kova-storm-" + std::to_string(getpid());
    const std::string daemonLog = work / "kovabpfd.log";
    kova::test::ChildProcess daemonProcess(
            {kova::test::ProjectBinary("kovabpfd")},
            {"KOVA_PIN_DIR=" + objects.pins().path(), "KOVA_PROPERTY_DIR=" + objects.propertyDir(),
             "KOVA_DIAG_DIR=" + (work / "diag"), "KOVA_SOCKET_NAME=" + socketName, "KOVA_PID_FILE=" + (work / "kovabpfd.pid")},
            daemonLog);
    const pid_t daemon = daemonProcess.pid();
    const auto statusWord = [&] { return objects.Status(kova::test::kNormalObject, KOVA_STATUS_WORD); };

    // The daemon's socket is an abstract name; it appears once the daemon's IPC thread runs.
    for (auto deadline = Clock::now() + 30s; !UnixSocketListed(socketName);) {
        if (Clock::now() > deadline) Fail("kovabpfd did not open its socket:\n" + kova::test::ReadFile(daemonLog));
        std::this_thread::sleep_for(50ms);
    }

    std::atomic<uint64_t> created{0}, exited{0};
    std::mutex generatorsLock;
    std::set<pid_t> generators;  // guarded by generatorsLock
    std::set<pid_t> children;    // storm children seen created and not yet exited; guarded by generatorsLock
    Kova::Client::ClientOptions clientOptions;
    clientOptions.socketName = socketName;
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
    // The monitors enable the programs once the start-up scan is done: wait for the status word.
    const auto ready = Clock::now() + 30s;
    while ((statusWord() & (KOVA_STATUS_CORE | KOVA_STATUS_NORMAL)) != (KOVA_STATUS_CORE | KOVA_STATUS_NORMAL) ||
           !client.waitUntilSubscribed(100ms)) {
        if (Clock::now() > ready) Fail("kovabpfd did not come up:\n" + kova::test::ReadFile(daemonLog));
    }

    ConnectorListener connector(options.connectorRcvbuf);
    int startPipe[2];
    if (pipe2(startPipe, O_CLOEXEC) != 0) Fail("pipe");
    const int perGenerator = options.forks / options.generators;
    const int forks = perGenerator * options.generators;
    {
        std::lock_guard<std::mutex> lock(generatorsLock);
        for (int g = 0; g < options.generators; ++g) generators.insert(StartGenerator(perGenerator, startPipe[0]));
        connector.SetGenerators(generators);
    }
    const double daemonCpuBefore = CpuMicros(daemon);

    const auto stormStart = Clock::now();
    const std::string go(static_cast<size_t>(options.generators), 'g');
    if (write(startPipe[1], go.data(), go.size()) != static_cast<ssize_t>(go.size())) Fail("start pipe");
    for (const pid_t generator : std::set<pid_t>(generators)) WaitExit(generator);
    const double stormSeconds = std::chrono::duration<double>(Clock::now() - stormStart).count();

    // Events still in flight: wait until both counts stop moving for a second.
    uint64_t lastTotal = ~0ull;
    for (auto deadline = Clock::now() + 60s; Clock::now() < deadline;) {
        const uint64_t total = created + exited + connector.forks() + connector.exits();
        if (total == lastTotal) break;
        lastTotal = total;
        std::this_thread::sleep_for(1s);
    }
    const double daemonCpu = CpuMicros(daemon) - daemonCpuBefore;
    const uint64_t finalStatus = statusWord();
    const std::vector<uint64_t> records = DaemonRecordCounts(daemon, work / "diag");
    client.stop();
    daemonProcess.Signal(SIGTERM);
    daemonProcess.WaitForExit(10s);
    const int trims = CountQueueTrims(work / "diag");

    const uint64_t received = created + exited;
    printf("fork storm: %d forks by %d generators in %.2f s = %.0f forks/s\n", forks, options.generators,
           stormSeconds, forks / stormSeconds);
    printf("%-30s %12s %12s %12s\n", "", "forks", "exits", "lost");
    printf("%-30s %12llu %12llu %12lld\n", "kovabpfd (50001 / 50002)", static_cast<unsigned long long>(created.load()),
           static_cast<unsigned long long>(exited.load()), static_cast<long long>(2LL * forks - received));
    printf("%-30s %12llu %12llu %12lld   (ENOBUFS: %llu)\n", "process-event connector",
           static_cast<unsigned long long>(connector.forks()), static_cast<unsigned long long>(connector.exits()),
           static_cast<long long>(2LL * forks - connector.forks() - connector.exits()),
           static_cast<unsigned long long>(connector.overruns()));
    printf("ring buffer full bit: %s; client queue trims: %d\n", (finalStatus & KOVA_STATUS_FULL) ? "SET" : "clear", trims);
    const uint64_t handled = records[KOVA_RAW_RSS] + records[KOVA_RAW_TASK_CREATE] + records[KOVA_RAW_TASK_EXIT];
    printf("kovabpfd CPU: %.3f s = %.2f us per storm event delivered\n", daemonCpu / 1e6,
           received > 0 ? daemonCpu / static_cast<double>(received) : 0.0);
    printf("kovabpfd records handled since start: %llu fork, %llu exit, %llu rss (%llu polls) = %.2f us per record\n",
           static_cast<unsigned long long>(records[KOVA_RAW_TASK_CREATE]),
           static_cast<unsigned long long>(records[KOVA_RAW_TASK_EXIT]),
           static_cast<unsigned long long>(records[KOVA_RAW_RSS]), static_cast<unsigned long long>(records[14]),
           handled > 0 ? daemonCpu / static_cast<double>(handled) : 0.0);
    return 0;
}
