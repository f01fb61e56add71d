// Fork to receipt: how long after fork() a subscriber of kovabpfd reads the child's 50001 event,
// beside the kernel's process-event connector's PROC_EVENT_FORK for the same child. One loop in this
// process polls both sockets, so the two observers wait, wake and read under the same conditions.
//
//   fork_latency_bench [--forks N] [--interval-us U]
//
// Runs as root. The loader pins the real objects into a directory of the benchmark's own and kovabpfd
// runs on them with its own socket. N children are forked one at a time, U microseconds apart, and exit
// at once; each latency runs from just before fork() to the read that brought the child's event.

#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ipc/kova_bpf_ipc_package.h"
#include "kova/bpf_client_events.h"
#include "kova_kernel_objects.h"
#include "kova_proc_connector.h"
#include "kova_test_client.h"
#include "kova_test_support.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    int forks = 2000;
    int intervalUs = 2000;
};

[[noreturn]] void Fail(const std::string& message) {
    fprintf(stderr, "fork_latency_bench: %s\n", message.c_str());
    exit(1);
}

Options ParseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--forks" && i + 1 < argc) {
            options.forks = atoi(argv[++i]);
        } else if (arg == "--interval-us" && i + 1 < argc) {
            options.intervalUs = atoi(argv[++i]);
        } else {
            Fail("usage: fork_latency_bench [--forks N] [--interval-us U]");
        }
    }
    if (options.forks < 1 || options.intervalUs < 0) Fail("--forks must be positive, --interval-us not negative");
    return options;
}

// The pids of the 50001 events in the frames received so far; a frame cut by the read stays for the next.
class TaskCreatedStream {
  public:
    template <typename Visit>
    void Feed(const char* bytes, size_t size, Visit visit) {
        pending_.append(bytes, size);
        size_t at = 0;
        while (pending_.size() - at >= ipcPackageHeaderSize) {
            const uint64_t body = LoadIpcWire<uint64_t>(pending_.data() + at);
            if (pending_.size() - at - ipcPackageHeaderSize < body) break;
            const char* package = pending_.data() + at + ipcPackageHeaderSize;
            const auto header = LoadIpcWire<KovaIpcSecondLevelPackageHeader>(package);
            if (header.type == PACKAGE_TYPE_EVENT) {
                const std::string_view record(package + sizeof(header), body - sizeof(header));
                if (const auto created = Kova::Client::DecodeTaskCreated(record)) visit(created->pid);
            }
            at += ipcPackageHeaderSize + body;
        }
        pending_.erase(0, at);
    }

  private:
    std::string pending_;
};

struct Percentiles {
    double p50, p90, p99, max;
};

Percentiles Summarize(std::vector<double> micros) {
    std::sort(micros.begin(), micros.end());
    const auto at = [&](double q) { return micros[static_cast<size_t>(q * static_cast<double>(micros.size() - 1))]; };
    return {at(0.50), at(0.90), at(0.99), micros.back()};
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = ParseOptions(argc, argv);
    if (geteuid() != 0) Fail("needs root (BPF, netlink connector)");
    std::string error;
    if (!kova::test::HaveBpf(&error)) Fail(error);
    kova::test::DaemonOnObjects daemon;
    if (!daemon.Start(&error)) Fail(error);

    kova::test::TestClient subscriber(daemon.socketName());
    if (subscriber.Subscribe(Kova::Client::kTaskCreated) != 0) Fail("cannot subscribe to 50001:\n" + daemon.Stderr());
    const android::base::unique_fd service = subscriber.Release();
    const android::base::unique_fd connector(kova::bench::OpenProcConnector(4 << 20, &error));
    if (!connector.ok()) Fail(error);
    fcntl(service.get(), F_SETFL, O_NONBLOCK);
    fcntl(connector.get(), F_SETFL, O_NONBLOCK);

    TaskCreatedStream stream;
    std::vector<double> serviceMicros, connectorMicros;
    int serviceMissed = 0, connectorMissed = 0;
    std::vector<char> buffer(1 << 16);
    for (int i = 0; i < options.forks; ++i) {
        const Clock::time_point forked = Clock::now();
        const pid_t child = fork();
        if (child == 0) _exit(0);
        if (child < 0) Fail(std::string("fork: ") + strerror(errno));
        std::optional<Clock::time_point> byService, byConnector;
        const Clock::time_point deadline = forked + std::chrono::seconds(1);
        while ((!byService || !byConnector) && Clock::now() < deadline) {
            pollfd fds[2] = {{service.get(), POLLIN, 0}, {connector.get(), POLLIN, 0}};
            if (poll(fds, 2, 100) <= 0) continue;
            if (fds[0].revents & (POLLHUP | POLLERR)) Fail("kovabpfd closed the connection:\n" + daemon.Stderr());
            if (fds[0].revents & POLLIN) {
                const ssize_t n = recv(service.get(), buffer.data(), buffer.size(), 0);
                const Clock::time_point now = Clock::now();
                if (n > 0) stream.Feed(buffer.data(), static_cast<size_t>(n), [&](int32_t pid) {
                    if (pid == child && !byService) byService = now;
                });
            }
            if (fds[1].revents & POLLIN) {
                ssize_t n;
                while ((n = recv(connector.get(), buffer.data(), buffer.size(), 0)) > 0) {
                    const Clock::time_point now = Clock::now();
                    kova::bench::ForEachProcEvent(buffer.data(), n, [&](const proc_event& event) {
                        if (event.what == proc_event::PROC_EVENT_FORK && event.event_data.fork.child_pid == child &&
                            event.event_data.fork.child_tgid == child && !byConnector) {
                            byConnector = now;
                        }
                    });
                }
            }
        }
        const auto micros = [&](Clock::time_point at) {
            return std::chrono::duration<double, std::micro>(at - forked).count();
        };
        byService ? serviceMicros.push_back(micros(*byService)) : void(++serviceMissed);
        byConnector ? connectorMicros.push_back(micros(*byConnector)) : void(++connectorMissed);
        waitpid(child, nullptr, 0);
        std::this_thread::sleep_for(std::chrono::microseconds(options.intervalUs));
    }
    kova::bench::ProcConnectorControl(connector.get(), PROC_CN_MCAST_IGNORE);
    if (serviceMicros.empty() || connectorMicros.empty()) Fail("an observer saw none of the forks");

    const Percentiles ours = Summarize(serviceMicros), theirs = Summarize(connectorMicros);
    printf("fork to receipt, %d forks %d us apart (microseconds)\n", options.forks, options.intervalUs);
    printf("%-28s %10s %10s %10s %10s %8s\n", "", "p50", "p90", "p99", "max", "missed");
    printf("%-28s %10.1f %10.1f %10.1f %10.1f %8d\n", "kovabpfd 50001", ours.p50, ours.p90, ours.p99, ours.max,
           serviceMissed);
    printf("%-28s %10.1f %10.1f %10.1f %10.1f %8d\n", "process-event connector", theirs.p50, theirs.p90, theirs.p99,
           theirs.max, connectorMissed);
    printf("kovabpfd / connector: p50 %.2f, p99 %.2f\n", ours.p50 / theirs.p50, ours.p99 / theirs.p99);
    return 0;
}
