// kovabpfctl: the command-line client of the Kova BPF service.
//
//   watch       subscribes through libkovabpfclient and prints one line per event, as text or JSON
//   stats       sends kovabpfd signal 50 and prints the counter CSV it writes
//   dump-tasks  sends kovabpfd signal 51 to 54 and prints the task dump it writes
//   cpu-time    asks for a time-in-state report (or a reset) through libkovabpfclient and prints it
//
// The daemon is found through its pid file, the diagnostics directory, the socket and the cpufreq
// directory through the same path seam and environment variables as the service (KOVA_PID_FILE,
// KOVA_DIAG_DIR, KOVA_SOCKET_NAME, KOVA_CPUFREQ_DIR).
//
// A user the daemon refuses (neither root nor in its client group), or one that may not signal it or
// read its files, is told which right it lacks, with an exit status of its own.

#include <android-base/thread_annotations.h>
#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android/log.h>
#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kova/bpf_client.h"
#include "kova/bpf_client_events.h"
#include "kovabpfctl_cpu_time.h"
#include "kovabpfctl_format.h"
#include "kovabpfctl_stats.h"
#include "kovabpfctl_top.h"
#include "utils/kova_bpf_client_access.h"
#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_diagnostics.h"
#include "utils/kova_bpf_locking.h"
#include "utils/kova_bpf_paths.h"
#include "utils/kova_bpf_proc_status.h"

namespace {

using namespace Kova::Client;
using Kova::Bpf::KovaPath;
using Kova::Bpf::StringPrintf;

// Exit statuses, as documented in --help.
enum ExitStatus {
    kOk = 0,
    kUsage = 1,
    kNoDaemon = 2,        // no pid file
    kStalePidFile = 3,    // the pid file names no running kovabpfd
    kDaemonNotReady = 4,  // kovabpfd does not take the signal yet
    kNoSocket = 5,        // the service's socket cannot be reached
    kFailed = 6,          // the command could not be carried out
    kNoPermission = 7,    // this user lacks a right the command needs
};

constexpr uint32_t kDefaultEvents[] = {kTaskCreated, kTaskExited, kThreadCountChanged, kRssChanged};
// Every id with a name, for `watch` by name.
constexpr uint32_t kNamedEvents[] = {kDmabufSizeChanged, kCgroupMoved, kFdCountChanged, kDmabufChanged, kTaskCreated,
                                     kTaskExited, kThreadCountChanged, kRssChanged, kTotalTimeInState,
                                     kProcessTimeInState, kThreadTimeInState, kTotalTimeReset, kProcessTimeReset,
                                     kThreadTimeReset};
constexpr size_t kCommLength = 15;  // what the kernel keeps of a name

void Error(const char* format, ...) __attribute__((__format__(printf, 1, 2)));
void Error(const char* format, ...) {
    va_list args;
    va_start(args, format);
    fputs("kovabpfctl: ", stderr);
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
    va_end(args);
}

const char kMainHelp[] =
        "usage: kovabpfctl [-v] COMMAND [OPTIONS]\n"
        "\n"
        "The command-line client of the Kova BPF service (kovabpfd).\n"
        "\n"
        "Commands:\n"
        "  watch [EVENT...]      print live events, one per line\n"
        "  stats                 event rates, ring buffers and clients at a glance (--csv: the raw counters)\n"
        "  dump-tasks            print the service's task table\n"
        "  top                   a live view: processes by memory or CPU time, the latest events\n"
        "  cpu-time [REPORT]     print CPU time per frequency: total, processes or threads\n"
        "  cpu-time reset WHAT   clear those times, so that the next reports count from now\n"
        "  help [COMMAND]        this text, or a command's\n"
        "\n"
        "  -v, --verbose         also show the client library's informational log lines on stderr\n"
        "\n"
        "Environment: KOVA_SOCKET_NAME (the service's socket), KOVA_PID_FILE (kovabpfd's pid file, default\n"
        "/run/kovabpfd.pid), KOVA_DIAG_DIR (the service's diagnostics directory), KOVA_CPUFREQ_DIR (the\n"
        "cpufreq directory); give them the values the daemon was started with.\n"
        "\n"
        "Rights: kovabpfd serves only root and the members of the group named by the property\n"
        "persist.kova_bpf.client_group (default kovabpf), and closes anyone else's connection at once;\n"
        "stats and dump-tasks need the right to signal kovabpfd (root, or the user it runs as) and to read\n"
        "its pid file and diagnostics directory.\n"
        "\n"
        "Exit status: 0 done; 1 bad usage; 2 no kovabpfd is running (no pid file); 3 the pid file is stale;\n"
        "4 kovabpfd does not take the signal yet (it waits for the BPF loader); 5 the service's socket\n"
        "cannot be reached; 6 the command failed; 7 this user lacks a right the command needs (kovabpfd\n"
        "refused it, or it may not signal kovabpfd or read its files).\n";

const char kWatchHelp[] =
        "usage: kovabpfctl watch [--json] [--pid PID]... [--comm NAME]... [--count N] [--duration SECONDS]\n"
        "                        [--connect-timeout SECONDS] [EVENT...]\n"
        "\n"
        "Subscribes to the events, each given by id or by name (default 50001 50002 50003 50004:\n"
        "task_created, task_exited, thread_count_changed, rss_changed) and prints one line per event on\n"
        "stdout until interrupted. On exit the number of lines printed goes to stderr. If the service\n"
        "restarts, watch reconnects and subscribes again; events of the gap are not shown.\n"
        "\n"
        "  --json                  one JSON object per line instead of text\n"
        "  --pid PID               only events of this process (repeatable)\n"
        "  --comm NAME             only events of processes of this name, at most 15 characters compared\n"
        "                          (repeatable); thread-count and dmabuf events match by the name last seen\n"
        "                          for the pid\n"
        "  --count N               stop after N lines\n"
        "  --duration SECONDS      stop after this long\n"
        "  --connect-timeout SECONDS\n"
        "                          give up when the service cannot be reached within this long (default 10;\n"
        "                          the client retries every 5 seconds)\n"
        "\n"
        "Ids 50005 to 50010 (total_time_in_state to thread_time_reset) are the time-in-state reports. Ids 4\n"
        "to 7 are the kernel's records: dmabuf_size (a process's dmabuf bytes moved by 1 MiB), cgroup_move\n"
        "(a thread was moved into a cgroup; its pid and comm are the thread's), fd_count (a process's open\n"
        "descriptors moved by 64) and dmabuf_update (one dmabuf was exported, released, attached or mapped).\n"
        "Records of other ids are shown as bytes. With --pid or --comm, reports and records of other ids\n"
        "are not shown.\n"
        "\n"
        "A JSON line holds received_ms (arrival, ms since the epoch), id, event (its name, or \"raw\") and the\n"
        "event's fields: pid, ppid, uid, comm; old_threads and threads; file, anon, swap, shmem and their\n"
        "old_ values in bytes; caller_pid, path, level, cgroup_id, root; open_fds, reported_fds; buffers,\n"
        "bytes, reported_bytes; op (export, release, attach, vmap, mmap), inode, size in bytes; for reports\n"
        "the times in ns.\n";

const char kStatsHelp[] =
        "usage: kovabpfctl stats [--csv] [--timeout SECONDS]\n"
        "\n"
        "Sends signal 50 to kovabpfd, waits until it has rewritten bpfservice_state.csv in its diagnostics\n"
        "directory (default 5 seconds), and shows each raw event type's count over the last minute, its\n"
        "rate and its total over the file's window (the last half hour), the ring buffers' size, unread\n"
        "bytes and state, and the clients connected to the service's socket.\n"
        "\n"
        "  --csv               print the file as it is: one line per second, newest first, with the number\n"
        "                      of raw events of each type and the ring-buffer polls\n"
        "  --timeout SECONDS   how long to wait for the file (default 5)\n";

const char kTopHelp[] =
        "usage: kovabpfctl top [--once] [--sort memory|cpu] [--interval SECONDS] [--connect-timeout SECONDS]\n"
        "\n"
        "Shows, refreshed every second in a plain terminal until Ctrl-C, the processes of the service's task\n"
        "table by resident memory with their thread counts (a short task dump, as dump-tasks takes one),\n"
        "or with --sort cpu the ten with the most CPU time (the process CPU time report, which needs the\n"
        "daemon's time-in-state tracking), and below them the latest process births, ends, thread-count\n"
        "and memory events.\n"
        "\n"
        "  --once              print one screen and end, for scripts\n"
        "  --sort memory|cpu   the order of the processes (default memory)\n"
        "  --interval SECONDS  between refreshes (default 1)\n"
        "  --connect-timeout SECONDS\n"
        "                      give up when the service cannot be reached within this long (default 10)\n";

const char kDumpHelp[] =
        "usage: kovabpfctl dump-tasks [--short] [--no-kernel] [--timeout SECONDS]\n"
        "\n"
        "Sends kovabpfd the signal of the asked dump (51 full, 52 full without kernel tasks, 53 short,\n"
        "54 short without kernel tasks), waits until it has rewritten DUMPTASK_INFO in its diagnostics\n"
        "directory (default 5 seconds) and prints the file: every task the service tracks, largest memory\n"
        "users first.\n"
        "\n"
        "  --short       fewer columns: no last-reported values\n"
        "  --no-kernel   leave out tasks without memory counters (kernel threads)\n";

const char kCpuTimeHelp[] =
        "usage: kovabpfctl cpu-time [total|processes|threads] [--json] [--timeout SECONDS]\n"
        "                           [--connect-timeout SECONDS]\n"
        "       kovabpfctl cpu-time reset total|processes|threads|all [--json] [--timeout SECONDS]\n"
        "                           [--connect-timeout SECONDS]\n"
        "\n"
        "Asks the service for a CPU time-in-state report, waits for it and prints it:\n"
        "  total       (the default) how long the CPUs of each frequency policy ran at each frequency\n"
        "  processes   the ten processes with the most CPU time, their share of all processes' time and\n"
        "              the frequencies they ran at\n"
        "  threads     the same for threads\n"
        "Times count from the last reset of their kind. `reset` clears the chosen times (all: the three).\n"
        "\n"
        "Frequencies and CPUs come from the cpufreq directory (/sys/devices/system/cpu/cpufreq, or\n"
        "KOVA_CPUFREQ_DIR); when it cannot be read or does not match the report, frequencies are shown by\n"
        "index, with a note saying why.\n"
        "\n"
        "  --json      one JSON document instead of text: times in ns (time stamps on the boot clock);\n"
        "              \"policies\" with their CPUs and frequencies in kHz (null when shown by index);\n"
        "              per-frequency times in \"times_ns\", in the order of the policies and frequencies\n"
        "  --timeout SECONDS\n"
        "              wait this long for the report once connected (default 5)\n"
        "  --connect-timeout SECONDS\n"
        "              give up when the service cannot be reached within this long (default 10)\n"
        "\n"
        "Exit status 6 when no report comes in time (the daemon serves reports only while its time-in-state\n"
        "tracking runs, which needs cpufreq policies and the pinned KovaBpfTimeInState object; its log says\n"
        "why not), or when the service could not read or reset the times.\n";

bool ParseSeconds(const std::string& text, double* seconds) {
    char* end = nullptr;
    errno = 0;
    const double value = strtod(text.c_str(), &end);
    if (errno != 0 || end == text.c_str() || *end != '\0' || !(value > 0) || value > 1e6) return false;
    *seconds = value;
    return true;
}

std::chrono::milliseconds Milliseconds(double seconds) {
    return std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
}

int64_t WallClockMs() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Takes the value of an option that needs one; false (with a message) when it is missing.
bool OptionValue(const std::vector<std::string>& args, size_t* i, std::string* value) {
    if (*i + 1 >= args.size()) {
        Error("%s needs a value", args[*i].c_str());
        return false;
    }
    *value = args[++*i];
    return true;
}

// Takes the value of an option of seconds (args[*i]); false (with a message naming the option) when it
// is missing or not a positive number.
bool SecondsOption(const std::vector<std::string>& args, size_t* i, double* seconds) {
    const std::string option = args[*i];
    std::string value;
    if (!OptionValue(args, i, &value)) return false;
    if (!ParseSeconds(value, seconds)) {
        Error("%s: '%s' is not a positive number of seconds", option.c_str(), value.c_str());
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------------
// Rights

// When the service has closed a link of `client` before sending anything on it, and this user is
// neither root nor in the service's client group, says so and which right is missing (true). Such a
// link may also be a daemon that went away; then this user is one it serves, and nothing is said.
bool ExplainRefusal(const KovaBpfClient& client) {
    using namespace Kova::Bpf;
    if (client.stats().linksUnanswered == 0) return false;
    const PeerCredentials self = OwnCredentials();
    const std::string group = ClientGroupName();
    const std::optional<gid_t> gid = ResolveGroup(group);
    if (IsClientAdmitted(self, gid)) return false;
    if (gid) {
        Error("kovabpfd refused this user (uid %d): run as root or as a member of group '%s' (property %s)",
              static_cast<int>(self.uid), group.c_str(), KOVA_CLIENT_GROUP_PROPERTY);
    } else {
        Error("kovabpfd refused this user (uid %d): run as root (the client group '%s' of property %s does not exist)",
              static_cast<int>(self.uid), group.c_str(), KOVA_CLIENT_GROUP_PROPERTY);
    }
    return true;
}

// Runs `wait` in short steps until it holds (true), `seconds` pass or it says no before its step is
// over (false), or the service refuses this user (false, *refused set, after saying why): a refused
// client would otherwise only learn it when its wait runs out.
bool WaitUnlessRefused(const KovaBpfClient& client, double seconds,
                       const std::function<bool(std::chrono::milliseconds)>& wait, bool* refused) {
    constexpr auto kStep = std::chrono::milliseconds(50);
    const auto deadline = std::chrono::steady_clock::now() + Milliseconds(seconds);
    while (true) {
        const auto stepStarted = std::chrono::steady_clock::now();
        if (wait(kStep)) return true;
        if (ExplainRefusal(client)) {
            *refused = true;
            return false;
        }
        const auto now = std::chrono::steady_clock::now();
        if (now - stepStarted < kStep || now >= deadline) return false;
    }
}

// Says why `path` could not be read (`action`: "cannot read", "cannot watch"); a missing permission
// names the user that lacks it and is kNoPermission.
int PathError(const char* action, const std::string& path, int error) {
    if (error == EACCES || error == EPERM) {
        Error("%s %s: this user (uid %d) has no permission to read it: run as root or as a user who may", action,
              path.c_str(), static_cast<int>(geteuid()));
        return kNoPermission;
    }
    Error("%s %s: %s", action, path.c_str(), strerror(error));
    return kFailed;
}

// ---------------------------------------------------------------------------------------------------
// watch

struct WatchOptions {
    bool json = false;
    std::set<int32_t> pids;
    std::set<std::string> comms;  // at most kCommLength bytes each
    uint64_t count = 0;            // 0: no limit
    double durationSeconds = 0;    // 0: no limit
    double connectTimeoutSeconds = 10;
    std::vector<uint32_t> ids;
};

// Prints events as they arrive, on the client's IPC thread; the main thread flushes and stops.
class Printer {
  public:
    explicit Printer(const WatchOptions& options) : options_(options) {}

    void onEvent(const ClientEvent& event) {
        std::string error;
        const std::optional<DecodedEvent> decoded = DecodeClientEvent(event.record, &error);
        std::lock_guard<std::mutex> lock(lock_);
        if (finished_ || !matches(decoded)) return;
        const int64_t now = WallClockMs();
        const std::string line = options_.json ? kovabpfctl::FormatJson(event, decoded, error, now)
                                               : kovabpfctl::FormatText(event, decoded, error, now);
        if (fputs(line.c_str(), stdout) == EOF || fputc('\n', stdout) == EOF) {
            writeFailed_ = true;
            finished_ = true;
            return;
        }
        ++lines_;
        if (options_.count != 0 && lines_ >= options_.count) finished_ = true;
    }

    bool finished() const {
        std::lock_guard<std::mutex> lock(lock_);
        return finished_;
    }
    // Flushes what was printed; false when the output is gone.
    bool flush() {
        std::lock_guard<std::mutex> lock(lock_);
        if (fflush(stdout) != 0) writeFailed_ = true;
        return !writeFailed_;
    }
    uint64_t lines() const {
        std::lock_guard<std::mutex> lock(lock_);
        return lines_;
    }

  private:
    // Whether the filters let the event through; keeps the names seen per pid for --comm.
    bool matches(const std::optional<DecodedEvent>& decoded) REQUIRES(lock_) {
        const bool filtered = !options_.pids.empty() || !options_.comms.empty();
        if (!decoded) return !filtered;
        std::optional<int32_t> pid;
        std::optional<std::string> comm;
        if (const auto* created = std::get_if<TaskCreated>(&*decoded)) {
            pid = created->pid;
            comm = names_[created->pid] = created->comm.substr(0, kCommLength);
        } else if (const auto* exited = std::get_if<TaskExited>(&*decoded)) {
            pid = exited->pid;
            comm = exited->comm.substr(0, kCommLength);
            names_.erase(exited->pid);
        } else if (const auto* threads = std::get_if<ThreadCountChanged>(&*decoded)) {
            pid = threads->pid;
            comm = knownName(threads->pid);
        } else if (const auto* rss = std::get_if<RssChanged>(&*decoded)) {
            pid = rss->pid;
            comm = names_[rss->pid] = rss->comm.substr(0, kCommLength);
        } else if (const auto* fds = std::get_if<FdCountChanged>(&*decoded)) {
            pid = fds->pid;
            comm = names_[fds->pid] = fds->comm.substr(0, kCommLength);
        } else if (const auto* moved = std::get_if<CgroupMoved>(&*decoded)) {
            // A thread's id and name: not kept, since only process exits clear the names.
            pid = moved->pid;
            comm = moved->comm.substr(0, kCommLength);
        } else if (const auto* size = std::get_if<DmabufSizeChanged>(&*decoded)) {
            pid = size->pid;
            comm = knownName(size->pid);
        } else if (const auto* dmabuf = std::get_if<DmabufChanged>(&*decoded)) {
            pid = dmabuf->pid;
            comm = knownName(dmabuf->pid);
        }
        if (!filtered) return true;
        if (!pid) return false;
        if (!options_.pids.empty() && options_.pids.count(*pid) == 0) return false;
        if (!options_.comms.empty() && (!comm || options_.comms.count(*comm) == 0)) return false;
        return true;
    }

    std::optional<std::string> knownName(int32_t pid) const REQUIRES(lock_) {
        const auto known = names_.find(pid);
        return known != names_.end() ? std::optional<std::string>(known->second) : std::nullopt;
    }

    const WatchOptions& options_;
    mutable std::mutex lock_;
    uint64_t lines_ GUARDED_BY(lock_) = 0;
    bool finished_ GUARDED_BY(lock_) = false;
    bool writeFailed_ GUARDED_BY(lock_) = false;
    std::map<int32_t, std::string> names_ GUARDED_BY(lock_);  // only needed with --comm, kept small by exits
};

int ParseWatch(const std::vector<std::string>& args, WatchOptions* options) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        std::string value;
        if (arg == "--help" || arg == "-h") {
            fputs(kWatchHelp, stdout);
            return -1;
        } else if (arg == "--json") {
            options->json = true;
        } else if (arg == "--pid") {
            int32_t pid = 0;
            if (!OptionValue(args, &i, &value)) return kUsage;
            if (!android::base::ParseInt(value.c_str(), &pid, 0)) {
                Error("--pid: '%s' is not a process id", value.c_str());
                return kUsage;
            }
            options->pids.insert(pid);
        } else if (arg == "--comm") {
            if (!OptionValue(args, &i, &value)) return kUsage;
            if (value.empty()) {
                Error("--comm needs a name");
                return kUsage;
            }
            options->comms.insert(value.substr(0, kCommLength));
        } else if (arg == "--count") {
            if (!OptionValue(args, &i, &value)) return kUsage;
            if (!android::base::ParseUint(value, &options->count) || options->count == 0) {
                Error("--count: '%s' is not a positive number", value.c_str());
                return kUsage;
            }
        } else if (arg == "--duration" || arg == "--connect-timeout") {
            double* seconds = arg == "--duration" ? &options->durationSeconds : &options->connectTimeoutSeconds;
            if (!SecondsOption(args, &i, seconds)) return kUsage;
        } else if (arg.starts_with("-")) {
            Error("watch: unknown option %s (see kovabpfctl watch --help)", arg.c_str());
            return kUsage;
        } else {
            const auto named = std::find_if(std::begin(kNamedEvents), std::end(kNamedEvents),
                                            [&arg](uint32_t id) { return arg == ClientEventName(id); });
            uint32_t id = 0;
            if (named != std::end(kNamedEvents)) {
                id = *named;
            } else if (!android::base::ParseUint(arg, &id) || id == 0) {
                Error("watch: '%s' is neither an event id nor an event name", arg.c_str());
                return kUsage;
            }
            options->ids.push_back(id);
        }
    }
    if (options->ids.empty()) options->ids.assign(std::begin(kDefaultEvents), std::end(kDefaultEvents));
    return kOk;
}

// Blocks SIGINT, SIGTERM and SIGHUP in the calling thread, and in the threads it starts from then on,
// for a loop that takes them with sigtimedwait; returns that set.
sigset_t BlockStopSignals() {
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    return stopSignals;
}

int Watch(const std::vector<std::string>& args) {
    WatchOptions options;
    if (const int parsed = ParseWatch(args, &options); parsed != kOk) return parsed < 0 ? kOk : parsed;

    // Blocked before the client's thread exists, so that only the loop below takes them.
    const sigset_t stopSignals = BlockStopSignals();
    signal(SIGPIPE, SIG_IGN);  // a closed output ends the watch through a failed write instead

    Printer printer(options);
    std::atomic<bool> everConnected{false};
    // Until the watch begins, a lost link is the waits' to explain (a refused user, for one).
    std::atomic<bool> watching{false};
    ClientOptions clientOptions;
    clientOptions.connectionCallback = [&everConnected, &watching](bool connected) {
        if (!connected) {
            if (watching) Error("the connection to the service was lost; reconnecting");
        } else if (everConnected.exchange(true)) {
            Error("reconnected to the service; subscriptions renewed");
        }
    };
    KovaBpfClient client(std::move(clientOptions));
    for (const uint32_t id : options.ids) {
        client.subscribe(id, [&printer](const ClientEvent& event) { printer.onEvent(event); });
    }
    client.start();
    bool refused = false;
    const auto connected = [&client](std::chrono::milliseconds step) { return client.waitUntilConnected(step); };
    if (!WaitUnlessRefused(client, options.connectTimeoutSeconds, connected, &refused)) {
        client.stop();
        if (refused) return kNoPermission;
        Error("cannot connect to the service at '%s' within %g s (is kovabpfd running?)", client.socketName().c_str(),
              options.connectTimeoutSeconds);
        return kNoSocket;
    }
    const auto subscribed = [&client](std::chrono::milliseconds step) { return client.waitUntilSubscribed(step); };
    if (!WaitUnlessRefused(client, 5, subscribed, &refused)) {
        client.stop();
        if (refused) return kNoPermission;
        Error("the service did not confirm the subscriptions");
        return kFailed;
    }

    std::string ids;
    for (const uint32_t id : options.ids) ids += " " + std::to_string(id);
    Error("watching%s", ids.c_str());
    watching = true;

    const auto started = std::chrono::steady_clock::now();
    const timespec tick{0, 100 * 1000 * 1000};  // flushes a pipe at least this often
    bool outputGone = false;
    while (!printer.finished()) {
        // An interrupted watch is a normal end.
        if (sigtimedwait(&stopSignals, nullptr, &tick) > 0) break;
        if (!printer.flush()) {
            outputGone = true;
            break;
        }
        if (options.durationSeconds > 0 &&
            std::chrono::steady_clock::now() - started >= Milliseconds(options.durationSeconds)) {
            break;
        }
    }
    client.stop();
    if (!printer.flush()) outputGone = true;
    fprintf(stderr, "kovabpfctl: %llu lines printed\n", static_cast<unsigned long long>(printer.lines()));
    return outputGone ? kFailed : kOk;
}

// ---------------------------------------------------------------------------------------------------
// stats and dump-tasks

// Finds the running kovabpfd through its pid file; on failure prints why and returns the exit status.
int FindDaemon(int signo, pid_t* pid) {
    const std::string pidFile = KovaPath(Kova::Bpf::KOVA_PID_FILE);
    std::string content;
    if (!android::base::ReadFileToString(pidFile, &content)) {
        if (errno == ENOENT) {
            Error("no kovabpfd is running: %s does not exist", pidFile.c_str());
            return kNoDaemon;
        }
        return PathError("cannot read", pidFile, errno);
    }
    if (!content.empty() && content.back() == '\n') content.pop_back();
    int32_t number = 0;
    if (!android::base::ParseInt(content.c_str(), &number, 1)) {
        Error("stale pid file %s: '%s' is not a process id", pidFile.c_str(), content.c_str());
        return kStalePidFile;
    }
    // The real /proc, not the service's redirected one: this is about a live process.
    std::string comm;
    if (!android::base::ReadFileToString(StringPrintf("/proc/%d/comm", number), &comm)) {
        Error("stale pid file %s: process %d is not running", pidFile.c_str(), number);
        return kStalePidFile;
    }
    if (!comm.empty() && comm.back() == '\n') comm.pop_back();
    if (comm != "kovabpfd") {
        Error("stale pid file %s: process %d is %s, not kovabpfd", pidFile.c_str(), number, comm.c_str());
        return kStalePidFile;
    }
    // A real-time signal without a handler would end the daemon: it installs them once the BPF loader
    // is ready. SigCgt is the mask of the signals the process catches.
    std::string status;
    android::base::ReadFileToString(StringPrintf("/proc/%d/status", number), &status);
    const size_t at = status.find("\nSigCgt:\t");
    unsigned long long caught = 0;
    if (at == std::string::npos || sscanf(status.c_str() + at, "\nSigCgt:\t%llx", &caught) != 1) {
        Error("cannot read the signal mask of kovabpfd (pid %d)", number);
        return kFailed;
    }
    if ((caught & (1ull << (signo - 1))) == 0) {
        Error("kovabpfd (pid %d) does not take signal %d yet: it is waiting for the BPF loader (sys.kova_bpf_ready)",
              number, signo);
        return kDaemonNotReady;
    }
    *pid = number;
    return kOk;
}

// Signals kovabpfd and reads the file it writes in answer into *content.
int SignalAndRead(int signo, const char* fileName, double timeoutSeconds, std::string* content) {
    pid_t pid = 0;
    if (const int found = FindDaemon(signo, &pid); found != kOk) return found;

    const std::string directory = KovaPath(Kova::Bpf::KOVA_DIAGNOSTICS_DIR);
    const std::string path = directory + "/" + fileName;
    // Watched before the signal goes, so that the write cannot be missed; the service writes a
    // temporary file and renames it over this one, so the rename marks the moment it is complete.
    android::base::unique_fd notify(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!notify.ok() || inotify_add_watch(notify.get(), directory.c_str(), IN_MOVED_TO) < 0) {
        return PathError("cannot watch", directory, errno);
    }
    if (kill(pid, signo) != 0) {
        const int error = errno;
        if (error == EPERM) {
            // Only root and the daemon's own user may signal it.
            const std::optional<Kova::Bpf::ProcStatus> daemon =
                    Kova::Bpf::ReadProcStatus(StringPrintf("/proc/%d/status", pid));
            const std::string owner = !daemon            ? "the user kovabpfd runs as"
                                      : daemon->uid == 0 ? "root"
                                                         : StringPrintf("uid %u", daemon->uid);
            Error("this user (uid %d) may not send signal %d to kovabpfd (pid %d, run by %s): run as %s%s",
                  static_cast<int>(geteuid()), signo, pid, owner.c_str(), owner == "root" ? "" : "root or as ",
                  owner.c_str());
            return kNoPermission;
        }
        Error("cannot send signal %d to kovabpfd (pid %d): %s", signo, pid, strerror(error));
        return error == ESRCH ? kStalePidFile : kFailed;
    }
    const auto deadline = std::chrono::steady_clock::now() + Milliseconds(timeoutSeconds);
    bool written = false;
    while (!written) {
        alignas(inotify_event) char events[4096];
        const ssize_t length = read(notify.get(), events, sizeof(events));
        if (length < 0 && errno != EAGAIN && errno != EINTR) {
            Error("cannot watch %s: %s", directory.c_str(), strerror(errno));
            return kFailed;
        }
        for (ssize_t offset = 0; offset < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(events + offset);
            if (event->len > 0 && strcmp(event->name, fileName) == 0) written = true;
            offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
        if (written) break;
        if (std::chrono::steady_clock::now() >= deadline) {
            Error("kovabpfd (pid %d) did not write %s within %g s", pid, path.c_str(), timeoutSeconds);
            return kFailed;
        }
        usleep(10 * 1000);
    }
    if (!android::base::ReadFileToString(path, content)) return PathError("cannot read", path, errno);
    return kOk;
}

int Print(const std::string& text) {
    return fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0 ? kOk : kFailed;
}

// Signals kovabpfd and prints the file it writes in answer.
int SignalAndPrint(int signo, const char* fileName, double timeoutSeconds) {
    std::string content;
    const int status = SignalAndRead(signo, fileName, timeoutSeconds, &content);
    return status == kOk ? Print(content) : status;
}

int Stats(const std::vector<std::string>& args) {
    double timeout = 5;
    bool csv = false;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--help" || args[i] == "-h") {
            fputs(kStatsHelp, stdout);
            return kOk;
        } else if (args[i] == "--csv") {
            csv = true;
        } else if (args[i] == "--timeout") {
            if (!SecondsOption(args, &i, &timeout)) return kUsage;
        } else {
            Error("stats: unexpected argument %s (see kovabpfctl stats --help)", args[i].c_str());
            return kUsage;
        }
    }
    std::string content;
    const int status = SignalAndRead(Kova::Bpf::KOVA_SIGNAL_STATE, Kova::Bpf::KOVA_STATE_FILE_NAME, timeout, &content);
    if (status != kOk || csv) return status == kOk ? Print(content) : status;
    const std::optional<kovabpfctl::EventCounters> counters = kovabpfctl::ParseEventCounters(content);
    if (!counters) {
        Error("stats: kovabpfd wrote counters this version cannot read; --csv shows them as they are");
        return kFailed;
    }
    const std::string pins = KovaPath(Kova::Bpf::KOVA_PIN_DIR);
    return Print(kovabpfctl::FormatStats(*counters,
                                         {kovabpfctl::ReadRingStatus(pins, "KovaBpfDefineset", "normal"),
                                          kovabpfctl::ReadRingStatus(pins, "KovaBpfGplDefineset", "gpl")},
                                         kovabpfctl::ConnectedClients(KovaPath(Kova::Bpf::KOVA_SOCKET_NAME))));
}

int DumpTasks(const std::vector<std::string>& args) {
    bool shortColumns = false;
    bool noKernel = false;
    double timeout = 5;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--help" || args[i] == "-h") {
            fputs(kDumpHelp, stdout);
            return kOk;
        } else if (args[i] == "--short") {
            shortColumns = true;
        } else if (args[i] == "--no-kernel") {
            noKernel = true;
        } else if (args[i] == "--timeout") {
            if (!SecondsOption(args, &i, &timeout)) return kUsage;
        } else {
            Error("dump-tasks: unexpected argument %s (see kovabpfctl dump-tasks --help)", args[i].c_str());
            return kUsage;
        }
    }
    using namespace Kova::Bpf;
    const int signo = shortColumns ? (noKernel ? KOVA_SIGNAL_DUMP_SHORT_NO_KERNEL : KOVA_SIGNAL_DUMP_SHORT)
                                   : (noKernel ? KOVA_SIGNAL_DUMP_NO_KERNEL : KOVA_SIGNAL_DUMP);
    return SignalAndPrint(signo, KOVA_DUMP_FILE_NAME, timeout);
}

// ---------------------------------------------------------------------------------------------------
// top

// The rows of the current screen: the task table by memory, or the ten processes with the most CPU time.
int TopProcesses(KovaBpfClient& client, bool byCpu, std::vector<kovabpfctl::TopProcess>* processes) {
    std::string dump;
    const int status =
            SignalAndRead(Kova::Bpf::KOVA_SIGNAL_DUMP_SHORT_NO_KERNEL, Kova::Bpf::KOVA_DUMP_FILE_NAME, 5, &dump);
    if (status != kOk) return status;
    *processes = kovabpfctl::ParseShortDump(dump);
    if (!byCpu) {
        std::stable_sort(processes->begin(), processes->end(),
                         [](const auto& a, const auto& b) { return a.rssKb > b.rssKb; });
        return kOk;
    }
    // Shared with the callback, which may still come after this wait has given up.
    struct Wait {
        std::mutex lock;
        std::condition_variable arrived;
        std::optional<std::string> record GUARDED_BY(lock);
    };
    const auto wait = std::make_shared<Wait>();
    client.requestReport(kProcessTimeInState, [wait](RequestStatus done, const ClientEvent& report) {
        std::lock_guard<std::mutex> guard(wait->lock);
        wait->record = done == RequestStatus::kDone ? std::string(report.record) : std::string();
        wait->arrived.notify_all();
    });
    std::optional<ProcessTimeInState> report;
    {
        std::unique_lock<std::mutex> guard(wait->lock);
        Kova::Bpf::AssertHeld(wait->lock);
        wait->arrived.wait_for(guard, std::chrono::seconds(1),
                               [&]() REQUIRES(wait->lock) { return wait->record.has_value(); });
        if (wait->record) report = DecodeProcessTimeInState(*wait->record);
    }
    std::map<int32_t, kovabpfctl::TopProcess> byPid;
    for (const auto& process : *processes) byPid[process.pid] = process;
    processes->clear();
    if (!report) return kOk;
    for (const ProcessTime& time : report->records) {
        const auto known = byPid.find(static_cast<int32_t>(time.tgid));
        kovabpfctl::TopProcess process = known != byPid.end()
                                                 ? known->second
                                                 : kovabpfctl::TopProcess{static_cast<int32_t>(time.tgid), time.name};
        process.cpuTimeNs = time.timeNs;
        processes->push_back(process);
    }
    std::sort(processes->begin(), processes->end(), [](const auto& a, const auto& b) { return a.cpuTimeNs > b.cpuTimeNs; });
    return kOk;
}

int Top(const std::vector<std::string>& args) {
    bool once = false, byCpu = false;
    double interval = 1, connectTimeout = 10;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--help" || args[i] == "-h") {
            fputs(kTopHelp, stdout);
            return kOk;
        } else if (args[i] == "--once") {
            once = true;
        } else if (args[i] == "--sort" && i + 1 < args.size() && (args[i + 1] == "memory" || args[i + 1] == "cpu")) {
            byCpu = args[++i] == "cpu";
        } else if (args[i] == "--interval") {
            if (!SecondsOption(args, &i, &interval)) return kUsage;
        } else if (args[i] == "--connect-timeout") {
            if (!SecondsOption(args, &i, &connectTimeout)) return kUsage;
        } else {
            Error("top: unexpected argument %s (see kovabpfctl top --help)", args[i].c_str());
            return kUsage;
        }
    }
    const sigset_t stopSignals = BlockStopSignals();  // before the client's thread exists

    constexpr size_t kLatest = 6;
    std::mutex lock;
    std::deque<std::string> latest;
    KovaBpfClient client;
    for (const uint32_t id : {kTaskCreated, kTaskExited, kThreadCountChanged, kRssChanged}) {
        client.subscribe(id, [&](const ClientEvent& event) {
            std::string error;
            const std::optional<DecodedEvent> decoded = DecodeClientEvent(event.record, &error);
            std::lock_guard<std::mutex> guard(lock);
            latest.push_back(kovabpfctl::FormatText(event, decoded, error, WallClockMs()));
            if (latest.size() > kLatest) latest.pop_front();
        });
    }
    client.start();
    bool refused = false;
    const auto subscribed = [&client](std::chrono::milliseconds step) { return client.waitUntilSubscribed(step); };
    if (!WaitUnlessRefused(client, connectTimeout, subscribed, &refused)) {
        client.stop();
        if (refused) return kNoPermission;
        Error("cannot reach the service at '%s' within %g s (is kovabpfd running?)", client.socketName().c_str(),
              connectTimeout);
        return kNoSocket;
    }
    while (true) {
        std::vector<kovabpfctl::TopProcess> processes;
        if (const int status = TopProcesses(client, byCpu, &processes); status != kOk) {
            client.stop();
            return status;
        }
        winsize window{};
        const size_t height = !once && ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_row > 0
                                      ? window.ws_row - 1
                                      : processes.size() + kLatest + 6;
        std::vector<std::string> events;
        {
            std::lock_guard<std::mutex> guard(lock);
            events.assign(latest.begin(), latest.end());
        }
        const time_t now = time(nullptr);
        char clock[32];
        strftime(clock, sizeof(clock), "%H:%M:%S", localtime(&now));
        std::string title = StringPrintf("kovabpfctl top - %s - %zu processes, by %s%s", clock, processes.size(),
                                         byCpu ? "CPU time (the ten with the most)" : "resident memory",
                                         once ? "" : " - Ctrl-C ends");
        if (byCpu && processes.empty()) title += "\nno CPU time report came: the daemon's time-in-state tracking may be off";
        // Home and clear: a plain terminal needs nothing more.
        if (Print((once ? "" : "\033[H\033[2J") + kovabpfctl::FormatTop(title, processes, events, byCpu, height)) !=
            kOk) {
            break;
        }
        if (once) break;
        const timespec wait{static_cast<time_t>(interval), static_cast<long>((interval - static_cast<time_t>(interval)) * 1e9)};
        if (sigtimedwait(&stopSignals, nullptr, &wait) > 0) break;
    }
    client.stop();
    return kOk;
}

// ---------------------------------------------------------------------------------------------------
// cpu-time

struct CpuTimeOptions {
    bool json = false;
    double timeoutSeconds = 5;
    double connectTimeoutSeconds = 10;
    std::vector<uint32_t> ids;  // the reports to ask for, in the order they are printed
};

// What the user calls a report, for messages.
const char* ReportName(uint32_t id) {
    switch (id) {
        case kTotalTimeInState: return "total CPU time";
        case kProcessTimeInState: return "process CPU time";
        case kThreadTimeInState: return "thread CPU time";
        case kTotalTimeReset: return "total CPU time reset";
        case kProcessTimeReset: return "process CPU time reset";
        case kThreadTimeReset: return "thread CPU time reset";
        default: return "unknown";
    }
}

int ParseCpuTime(const std::vector<std::string>& args, CpuTimeOptions* options) {
    static const std::map<std::string, uint32_t> kReports{
            {"total", kTotalTimeInState}, {"processes", kProcessTimeInState}, {"threads", kThreadTimeInState}};
    static const std::map<std::string, std::vector<uint32_t>> kResets{
            {"total", {kTotalTimeReset}},
            {"processes", {kProcessTimeReset}},
            {"threads", {kThreadTimeReset}},
            {"all", {kTotalTimeReset, kProcessTimeReset, kThreadTimeReset}}};
    std::vector<std::string> words;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--help" || arg == "-h") {
            fputs(kCpuTimeHelp, stdout);
            return -1;
        } else if (arg == "--json") {
            options->json = true;
        } else if (arg == "--timeout" || arg == "--connect-timeout") {
            double* seconds = arg == "--timeout" ? &options->timeoutSeconds : &options->connectTimeoutSeconds;
            if (!SecondsOption(args, &i, seconds)) return kUsage;
        } else if (arg.starts_with("-")) {
            Error("cpu-time: unknown option %s (see kovabpfctl cpu-time --help)", arg.c_str());
            return kUsage;
        } else {
            words.push_back(arg);
        }
    }
    if (!words.empty() && words[0] == "reset") {
        // A reset loses data: what to reset is never assumed.
        const auto found = words.size() == 2 ? kResets.find(words[1]) : kResets.end();
        if (found == kResets.end()) {
            Error("cpu-time reset: say what to reset: total, processes, threads or all");
            return kUsage;
        }
        options->ids = found->second;
        return kOk;
    }
    if (words.size() > 1) {
        Error("cpu-time: unexpected argument %s (see kovabpfctl cpu-time --help)", words[1].c_str());
        return kUsage;
    }
    const auto found = kReports.find(words.empty() ? "total" : words[0]);
    if (found == kReports.end()) {
        Error("cpu-time: '%s' is not a report: total, processes, threads, or reset (see kovabpfctl cpu-time --help)",
              words[0].c_str());
        return kUsage;
    }
    options->ids = {found->second};
    return kOk;
}

int CpuTime(const std::vector<std::string>& args) {
    CpuTimeOptions options;
    if (const int parsed = ParseCpuTime(args, &options); parsed != kOk) return parsed < 0 ? kOk : parsed;

    struct Outcome {
        RequestStatus status;
        std::string record;
    };
    std::mutex lock;
    std::condition_variable arrived;
    std::map<uint32_t, Outcome> outcomes;  // by report id
    KovaBpfClient client;
    client.start();
    bool refused = false;
    const auto connected = [&client](std::chrono::milliseconds step) { return client.waitUntilConnected(step); };
    if (!WaitUnlessRefused(client, options.connectTimeoutSeconds, connected, &refused)) {
        client.stop();
        if (refused) return kNoPermission;
        Error("cannot connect to the service at '%s' within %g s (is kovabpfd running?)", client.socketName().c_str(),
              options.connectTimeoutSeconds);
        return kNoSocket;
    }
    for (const uint32_t id : options.ids) {
        const bool asked = client.requestReport(id, [&](RequestStatus status, const ClientEvent& report) {
            std::lock_guard<std::mutex> guard(lock);
            outcomes.try_emplace(report.id, Outcome{status, std::string(report.record)});
            arrived.notify_all();
        });
        if (!asked) {
            client.stop();
            if (ExplainRefusal(client)) return kNoPermission;
            Error("the connection to the service was lost");
            return kFailed;
        }
    }
    {
        std::unique_lock<std::mutex> guard(lock);
        arrived.wait_for(guard, Milliseconds(options.timeoutSeconds), [&] { return outcomes.size() == options.ids.size(); });
    }
    // Waits still open end here, with kStopped.
    client.stop();

    std::vector<TimeInStateReset> resets;
    std::optional<DecodedEvent> report;
    for (const uint32_t id : options.ids) {
        const auto found = outcomes.find(id);
        const Outcome outcome = found != outcomes.end() ? found->second : Outcome{RequestStatus::kStopped, ""};
        switch (outcome.status) {
            case RequestStatus::kDone: break;
            case RequestStatus::kStopped:
                Error("no %s report came within %g s: the daemon's time-in-state tracking may not be running (see its "
                      "log)",
                      ReportName(id), options.timeoutSeconds);
                return kFailed;
            case RequestStatus::kRefused:
                Error("the service refused the request for the %s report", ReportName(id));
                return kFailed;
            case RequestStatus::kConnectionLost:
                if (ExplainRefusal(client)) return kNoPermission;
                Error("the connection to the service was lost before the %s report came", ReportName(id));
                return kFailed;
        }
        std::string error;
        std::optional<DecodedEvent> decoded = DecodeClientEvent(outcome.record, &error);
        if (!decoded) {
            Error("the service sent an undecodable %s report: %s", ReportName(id), error.c_str());
            return kFailed;
        }
        if (const auto* reset = std::get_if<TimeInStateReset>(&*decoded)) {
            resets.push_back(*reset);
        } else {
            report = std::move(decoded);
        }
    }

    std::string output;
    if (report) {
        const auto* total = std::get_if<TotalTimeInState>(&*report);
        const auto* processes = std::get_if<ProcessTimeInState>(&*report);
        const auto* threads = std::get_if<ThreadTimeInState>(&*report);
        if ((total && !total->hasData) || (processes && !processes->hasRecords) || (threads && !threads->hasRecords)) {
            Error("the service could not read the times for the %s report (see the daemon's log)",
                  ReportName(options.ids[0]));
            return kFailed;
        }
        output = kovabpfctl::FormatTimeReport(*report, kovabpfctl::LabelReport(*report), options.json);
    } else {
        output = kovabpfctl::FormatResets(resets, options.json);
    }
    if (fwrite(output.data(), 1, output.size(), stdout) != output.size() || fflush(stdout) != 0) return kFailed;
    for (const TimeInStateReset& reset : resets) {
        if (!reset.succeeded()) {
            Error("the service could not carry out the %s (see the daemon's log)", ReportName(reset.id));
            return kFailed;
        }
    }
    return kOk;
}

int Help(const std::vector<std::string>& args) {
    const std::string topic = args.empty() ? "" : args[0];
    if (topic.empty()) {
        fputs(kMainHelp, stdout);
    } else if (topic == "watch") {
        fputs(kWatchHelp, stdout);
    } else if (topic == "stats") {
        fputs(kStatsHelp, stdout);
    } else if (topic == "dump-tasks") {
        fputs(kDumpHelp, stdout);
    } else if (topic == "top") {
        fputs(kTopHelp, stdout);
    } else if (topic == "cpu-time") {
        fputs(kCpuTimeHelp, stdout);
    } else {
        Error("help: unknown command %s", topic.c_str());
        return kUsage;
    }
    return kOk;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    bool verbose = false;
    while (!args.empty() && (args[0] == "-v" || args[0] == "--verbose")) {
        verbose = true;
        args.erase(args.begin());
    }
    // The client library logs every connection step at info level; a terminal needs only the problems.
    if (!verbose) __android_log_set_minimum_priority(ANDROID_LOG_WARN);
    if (args.empty()) {
        fputs(kMainHelp, stderr);
        return kUsage;
    }
    const std::string command = args[0];
    args.erase(args.begin());
    if (command == "--help" || command == "-h" || command == "help") return Help(args);
    if (command == "watch") return Watch(args);
    if (command == "stats") return Stats(args);
    if (command == "dump-tasks") return DumpTasks(args);
    if (command == "top") return Top(args);
    if (command == "cpu-time") return CpuTime(args);
    Error("unknown command %s (see kovabpfctl --help)", command.c_str());
    return kUsage;
}
