// Load soak suites against the real loader and daemon: a client that never reads, connection churn and
// many subscribers, each while processes are born and die in a storm. The short versions run with the
// suite; KOVA_SOAK=full runs the full ones (tests/README.md).
//
// Every reading client subscribes to every id the service serves and hashes the records it receives
// between two markers: the task-created events of a child forked by a thread named kBeginMark and one
// named kEndMark. The service appends each record to all its subscribers' queues in one step, so the
// streams between the markers are equal unless a client lost something; one client also keeps the pids
// of the storm's children, which the storm reports itself, so equal streams are also complete ones.

#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <set>
#include <thread>

#include "kova_bpf_records.h"
#include "kova_ipc_test_util.h"
#include "kova_kernel_objects.h"
#include "kova_test_client.h"
#include "protocol/kova_bpf_protocol.h"

namespace kova::test {
namespace {

using namespace std::chrono_literals;
using namespace Kova::Bpf;

constexpr char kStormName[] = "kova-soak-storm";
constexpr char kBeginMark[] = "kova-soak-begin";
constexpr char kEndMark[] = "kova-soak-end";

bool Full() {
    const char* scale = getenv("KOVA_SOAK");
    return scale != nullptr && strcmp(scale, "full") == 0;
}

// Every id a client can subscribe to: the raw records and the client events and reports.
std::vector<int32_t> EveryId() {
    std::vector<int32_t> ids;
    for (int32_t id = 0; id <= 14; ++id) ids.push_back(id);
    for (int32_t id = EVENT_TASK_CREATE; id <= static_cast<int32_t>(EVENT_THREAD_CPU_TIME_RESET); ++id) ids.push_back(id);
    return ids;
}

volatile sig_atomic_t gStormStopped = 0;

// A process that forks short-lived children named kStormName until stopped (or `children` of them),
// as fast as it can or `perSecond` a second, reaps them, and writes each child's pid into a pipe that a
// thread of the test drains.
class Storm {
  public:
    explicit Storm(int children = 0, int perSecond = 0) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            close(fds[0]);
            prctl(PR_SET_NAME, kStormName);
            struct sigaction stop = {};
            stop.sa_handler = [](int) { gStormStopped = 1; };
            sigaction(SIGUSR1, &stop, nullptr);
            timespec next;
            clock_gettime(CLOCK_MONOTONIC, &next);
            for (int i = 0; !gStormStopped && (children == 0 || i < children); ++i) {
                if (perSecond > 0) {
                    next.tv_nsec += 1000000000L / perSecond;
                    if (next.tv_nsec >= 1000000000L) ++next.tv_sec, next.tv_nsec -= 1000000000L;
                    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
                }
                const pid_t child = fork();
                if (child == 0) _exit(0);
                if (child < 0 || write(fds[1], &child, sizeof(child)) != sizeof(child)) _exit(1);
                while (waitpid(-1, nullptr, WNOHANG) > 0) {
                }
            }
            while (wait(nullptr) > 0 || errno == EINTR) {
            }
            _exit(0);
        }
        close(fds[1]);
        reader_ = std::thread([this, fd = fds[0]] {
            pid_t child;
            while (read(fd, &child, sizeof(child)) == sizeof(child)) {
                std::lock_guard<std::mutex> lock(lock_);
                pids_.insert(child);
            }
            close(fd);
        });
    }
    ~Storm() { Stop(); }

    // Ends an endless storm, or waits for a counted one to end; returns once its last child has ended.
    void Stop() {
        if (pid_ > 0) {
            kill(pid_, SIGUSR1);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
        if (reader_.joinable()) reader_.join();
    }
    std::set<pid_t> pids() {
        std::lock_guard<std::mutex> lock(lock_);
        return pids_;
    }

  private:
    pid_t pid_ = -1;
    std::thread reader_;
    std::mutex lock_;
    std::set<pid_t> pids_;
};

// Forks a child that exits at once, from a thread named `name`, so that its task-created event names it.
void ForkMark(const char* name) {
    std::thread([name] {
        prctl(PR_SET_NAME, name);
        const pid_t child = fork();
        if (child == 0) _exit(0);
        waitpid(child, nullptr, 0);
    }).join();
}

// What one reading client received between the markers.
struct Received {
    uint64_t records = 0;
    uint64_t hash = 1469598103934665603ull;  // FNV-1a over the records, in order
    bool begun = false, ended = false;
    std::set<pid_t> created, exited;  // storm children, kept by the first client
    std::map<uint32_t, uint64_t> perId;
    pid_t beginPid = 0, endPid = 0;
};

// Reading clients served by one epoll thread of the test: each connects, subscribes to every id and
// reads as fast as it can, cutting its stream into packages.
class Readers {
  public:
    // Each client is read from as soon as it has subscribed, so that none waits for the others.
    Readers(const std::string& socketName, int count) : clients_(count) {
        epoll_.reset(epoll_create1(EPOLL_CLOEXEC));
        thread_ = std::thread([this] { Loop(); });
        for (int i = 0; i < count; ++i) {
            TestClient client(socketName);
            for (int32_t id : EveryId()) {
                if (client.Subscribe(id) != 0) return;
            }
            clients_[i].fd = client.Release();
            epoll_event event{EPOLLIN, {.u32 = static_cast<uint32_t>(i)}};
            epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, clients_[i].fd.get(), &event);
        }
        subscribed_ = true;
    }
    ~Readers() { Join(); }

    bool subscribed() const { return subscribed_; }
    uint64_t records() const { return records_.load(); }
    // Forks begin marks until every client has seen one; false after `timeout`.
    bool AwaitBegin(std::chrono::milliseconds timeout) {
        return WaitUntil(
                [&] {
                    ForkMark(kBeginMark);
                    return WaitUntil([&] { return begun_.load() == static_cast<int>(clients_.size()); }, 500ms);
                },
                timeout);
    }
    // Forks end marks until every client has seen one (a mark the ring buffer had no room for is not
    // the clients' loss), then stops reading; false after `timeout`.
    bool AwaitEnd(std::chrono::milliseconds timeout) {
        const bool ended = WaitUntil(
                [&] {
                    ForkMark(kEndMark);
                    return WaitUntil([&] { return ended_.load() == static_cast<int>(clients_.size()); }, 500ms);
                },
                timeout);
        Join();
        return ended;
    }
    std::string Progress() const {
        return std::to_string(begun_.load()) + " clients saw the begin mark, " + std::to_string(ended_.load()) +
               " the end mark";
    }
    // After AwaitEnd().
    const Received& received(size_t i) const { return clients_[i].received; }
    size_t size() const { return clients_.size(); }

  private:
    struct Client {
        android::base::unique_fd fd;
        std::string buffer;
        Received received;
    };

    void Join() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }

    void Loop() {
        std::vector<epoll_event> events(64);
        std::vector<char> chunk(1 << 16);
        while (!stop_) {
            const int count = epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), 100);
            for (int i = 0; i < count; ++i) {
                const uint32_t index = events[i].data.u32;
                const ssize_t n = read(clients_[index].fd.get(), chunk.data(), chunk.size());
                if (n <= 0) continue;
                clients_[index].buffer.append(chunk.data(), static_cast<size_t>(n));
                Cut(&clients_[index], index == 0);
            }
        }
    }

    // Takes every whole package off the client's buffer.
    void Cut(Client* client, bool keepPids) {
        size_t at = 0;
        const std::string& bytes = client->buffer;
        while (bytes.size() - at >= 16) {
            uint64_t size;
            memcpy(&size, bytes.data() + at, sizeof(size));
            if (bytes.size() - at - 8 < size) break;
            uint32_t type;
            memcpy(&type, bytes.data() + at + 8, sizeof(type));
            if (type == PACKAGE_TYPE_EVENT) Take(&client->received, bytes.data() + at + 16, size - 8, keepPids);
            at += 8 + size;
        }
        client->buffer.erase(0, at);
    }

    void Take(Received* received, const char* record, size_t size, bool keepPids) {
        uint32_t id;
        memcpy(&id, record, sizeof(id));
        if (id == EVENT_TASK_CREATE && size >= sizeof(KovaTaskCreateEvent)) {
            KovaTaskCreateEvent created;
            memcpy(&created, record, sizeof(created));
            const std::string comm(created.comm, strnlen(created.comm, sizeof(created.comm)));
            if (comm == kBeginMark && !received->begun) {
                received->begun = true;
                received->beginPid = created.pid;
                ++begun_;
            }
            if (comm == kEndMark && received->begun && !received->ended) {
                received->ended = true;
                received->endPid = created.pid;
                ++ended_;
            }
            if (keepPids && comm == kStormName) received->created.insert(created.pid);
        }
        if (!received->begun || received->ended) return;
        if (id == EVENT_TASK_EXIT && keepPids && size >= sizeof(KovaTaskExitEvent)) {
            KovaTaskExitEvent exited;
            memcpy(&exited, record, sizeof(exited));
            received->exited.insert(exited.pid);
        }
        ++received->records;
        ++received->perId[id];
        records_.fetch_add(1, std::memory_order_relaxed);
        for (size_t i = 0; i < size; ++i) {
            received->hash = (received->hash ^ static_cast<uint8_t>(record[i])) * 1099511628211ull;
        }
    }

    std::vector<Client> clients_;
    android::base::unique_fd epoll_;
    bool subscribed_ = false;
    std::atomic<bool> stop_{false};
    std::atomic<int> begun_{0}, ended_{0};
    std::atomic<uint64_t> records_{0};
    std::thread thread_;
};

// The daemon's figures that a leak or an unbounded queue would move.
struct DaemonFigures {
    size_t descriptors = 0;
    size_t epollWatches = 0;  // descriptors its epoll instances watch
    long rssKb = 0, peakRssKb = 0;
    long anonKb = 0;  // the heap's share: the ring buffers' mappings fill in as the rings are read
};

long StatusKb(const std::string& status, const std::string& field) {
    const size_t at = status.find("\n" + field + ":");
    return at == std::string::npos ? -1 : atol(status.c_str() + at + field.size() + 2);
}

DaemonFigures Measure(pid_t pid) {
    DaemonFigures figures;
    const std::string proc = "/proc/" + std::to_string(pid);
    const std::string status = ReadFile(proc + "/status");
    figures.rssKb = StatusKb(status, "VmRSS");
    figures.peakRssKb = StatusKb(status, "VmHWM");
    figures.anonKb = StatusKb(status, "RssAnon");
    DIR* dir = opendir((proc + "/fd").c_str());
    if (dir == nullptr) return figures;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        ++figures.descriptors;
        char link[64] = {};
        if (readlink((proc + "/fd/" + entry->d_name).c_str(), link, sizeof(link) - 1) <= 0) continue;
        if (strcmp(link, "anon_inode:[eventpoll]") != 0) continue;
        const std::string info = ReadFile(proc + "/fdinfo/" + entry->d_name);
        for (size_t at = info.find("tfd:"); at != std::string::npos; at = info.find("tfd:", at + 1)) {
            ++figures.epollWatches;
        }
    }
    closedir(dir);
    return figures;
}

int CountLines(const std::string& text, const std::string& fragment) {
    int count = 0;
    for (size_t at = text.find(fragment); at != std::string::npos; at = text.find(fragment, at + 1)) ++count;
    return count;
}

int CountErrorCode(const std::string& diagDir, int code) {
    return CountLines(ReadFile(diagDir + "/error.log"), "\nErrorCode: " + std::to_string(code) + "\n");
}

// Every client received the same records between the markers, and every storm child's creation and end
// reached the first client, unless `ringOverflowed`: records the kernel had no ring space for are lost
// to every client alike, before any queue (the daemon reports them as "bpf ringbuff full!").
void ExpectNothingLost(const Readers& readers, const std::set<pid_t>& storm, bool ringOverflowed = false) {
    const Received& first = readers.received(0);
    size_t missingCreated = 0, missingExited = 0;
    for (pid_t pid : storm) {
        missingCreated += first.created.count(pid) == 0;
        missingExited += first.exited.count(pid) == 0;
    }
    if (ringOverflowed) {
        printf("[ soak     ] the ring buffer overflowed: %zu creations and %zu ends of %zu storm children never "
               "reached the daemon\n", missingCreated, missingExited, storm.size());
        missingCreated = missingExited = 0;
    }
    EXPECT_EQ(missingCreated, 0u) << "of " << storm.size() << " storm children";
    EXPECT_EQ(missingExited, 0u) << "of " << storm.size() << " storm children";
    size_t differing = 0;
    for (size_t i = 1; i < readers.size(); ++i) {
        const Received& other = readers.received(i);
        if (other.records != first.records || other.hash != first.hash) {
            ++differing;
            std::string ids;
            for (const auto& [id, count] : other.perId) {
                const auto found = first.perId.find(id);
                const uint64_t firstCount = found == first.perId.end() ? 0 : found->second;
                if (count != firstCount) ids += " id " + std::to_string(id) + ": " + std::to_string(count) + " vs " + std::to_string(firstCount);
            }
            ADD_FAILURE() << "client " << i << " received " << other.records << " records, client 0 " << first.records
                          << (ids.empty() ? " (the same number of each id)" : ids) << "; marks " << other.beginPid
                          << "-" << other.endPid << " vs " << first.beginPid << "-" << first.endPid;
        }
    }
    printf("[ soak     ] %zu clients, %llu records each between the marks, %zu storm children, %zu lost\n",
           readers.size(), static_cast<unsigned long long>(first.records), storm.size(),
           missingCreated + missingExited + differing);
}

class SoakTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
        KOVA_REQUIRE(HaveTracefs(&reason), reason);
        ASSERT_TRUE(daemon_.Start(&reason)) << reason;
    }

    void Report(const char* when, const DaemonFigures& figures) {
        printf("[ soak     ] %-7s descriptors %zu, epoll watches %zu, RSS %ld KiB (anonymous %ld KiB), peak RSS %ld KiB\n",
               when, figures.descriptors, figures.epollWatches, figures.rssKb, figures.anonKb, figures.peakRssKb);
    }

    // Whether the kernel found the normal ring full since `log` began.
    bool RingOverflowed(const std::string& log) const {
        return CountLines(log, "bpf ringbuff full!") > 0 ||
               (daemon_.objects().Status(kNormalObject, KOVA_STATUS_WORD) & KOVA_STATUS_FULL) != 0;
    }

    DaemonOnObjects daemon_;
};

TEST_F(SoakTest, AClientThatNeverReadsStaysAtItsBoundWhileReadersLoseNothing) {
    const uint64_t target = Full() ? 1000000 : 100000;
    TestClient stalled(daemon_.socketName());
    for (int32_t id : EveryId()) ASSERT_EQ(stalled.Subscribe(id), 0);
    Readers readers(daemon_.socketName(), 2);
    ASSERT_TRUE(readers.subscribed());
    const DaemonFigures before = Measure(daemon_.pid());
    ASSERT_TRUE(readers.AwaitBegin(30s)) << readers.Progress();
    // About 55,000 records a second: the readers' queues hold a fifth of a second of them.
    Storm storm(0, 500);
    ASSERT_TRUE(WaitUntil([&] { return readers.records() >= 2 * target; }, 600s)) << readers.records();
    storm.Stop();
    ASSERT_TRUE(readers.AwaitEnd(30s));
    const DaemonFigures after = Measure(daemon_.pid());
    Report("before", before);
    Report("after", after);

    const std::string log = daemon_.Stderr();
    ExpectNothingLost(readers, storm.pids(), RingOverflowed(log));
    EXPECT_GE(readers.received(0).records, target);
    // The stalled client's queue was trimmed at its bound each time. (Its socket stops polling writable
    // before it is full, so the daemon never tries to send it a batch it would refuse.)
    const int trims = CountLines(log, "[AppendSecondIpc] ipc Package Queue too big: ");
    EXPECT_GT(trims, 0);
    EXPECT_EQ(CountLines(log, "[AppendSecondIpc] ipc Package Queue too big: 10001\n"), trims);
    EXPECT_GT(CountErrorCode(daemon_.diagDir(), 4), 0);
    // 10,000 queued records are about a megabyte; an unbounded queue would hold a hundred.
    EXPECT_LT(after.peakRssKb - before.rssKb, 32 * 1024);
    printf("[ soak     ] stalled client: %d trims to 5000; %d sends found a socket full, %d batches dropped\n", trims,
           CountLines(log, "Socket buffer full"), CountLines(log, "Send data 10 times failed"));
}

TEST_F(SoakTest, ChurnLeavesNoTraceOfClosedConnections) {
    const int cycles = Full() ? 100000 : 5000;
    constexpr int kThreads = 4;
    Readers readers(daemon_.socketName(), 1);
    ASSERT_TRUE(readers.subscribed());
    Storm storm;
    const std::vector<int32_t> ids = EveryId();
    auto churn = [&](int count) {
        std::vector<std::thread> threads;
        std::atomic<int> failed{0};
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                for (int i = t; i < count; i += kThreads) {
                    TestClient client(daemon_.socketName());
                    if (client.Subscribe(ids[static_cast<size_t>(i) % ids.size()]) != 0) ++failed;
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
        return failed.load();
    };
    // The last hang-ups of a round may still be on their way to the daemon's loop.
    auto settle = [&](const DaemonFigures& target) {
        DaemonFigures now;
        WaitUntil([&] {
            now = Measure(daemon_.pid());
            return now.descriptors == target.descriptors && now.epollWatches == target.epollWatches;
        }, 10s);
        return now;
    };
    const DaemonFigures initial = Measure(daemon_.pid());
    ASSERT_EQ(churn(1000), 0);  // the allocator's and the tables' first growth
    const DaemonFigures before = settle(initial);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(churn(cycles), 0);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    storm.Stop();
    const DaemonFigures after = settle(before);
    Report("before", before);
    Report("after", after);
    printf("[ soak     ] %d connect, subscribe, disconnect cycles in %.1f s\n", cycles, seconds);
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.epollWatches, before.epollWatches);
    // Every cycle allocates two 32 KiB buffers and a queue; a subscription left behind keeps a queue
    // that fills with the storm's records.
    EXPECT_LT(after.anonKb - before.anonKb, 2 * 1024);
}

TEST_F(SoakTest, ManySubscribersLoseNothingBelowTheQueueBound) {
    // Each record costs the daemon 256 appends and sends: 25 forks a second (about 2,800 records) keep
    // this 2-core machine below saturation.
    const int stormChildren = Full() ? 3000 : 100;
    Readers readers(daemon_.socketName(), 256);
    ASSERT_TRUE(readers.subscribed());
    ASSERT_TRUE(readers.AwaitBegin(30s)) << readers.Progress();
    const size_t logAtBegin = daemon_.Stderr().size();
    std::set<pid_t> children;
    {
        Storm storm(stormChildren, 25);
        WaitUntil([&] { return storm.pids().size() == static_cast<size_t>(stormChildren); }, 600s);
        storm.Stop();
        children = storm.pids();
    }
    ASSERT_TRUE(readers.AwaitEnd(60s)) << readers.Progress();
    const std::string log = daemon_.Stderr().substr(logAtBegin);
    EXPECT_EQ(CountLines(log, "ipc Package Queue too big"), 0) << "a client's queue passed its bound";
    // Every record costs 256 appends, so other work on the machine that floods the ring (RSS records of
    // every process) can outrun the daemon; that loss is upstream of the clients and counted apart.
    ExpectNothingLost(readers, children, RingOverflowed(log));
}

}  // namespace
}  // namespace kova::test
