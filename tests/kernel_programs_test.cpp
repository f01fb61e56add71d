// The kernel-side programs on the real kernel: the test loads them with kovabpf-loader, attaches the
// tracepoints itself, sets the status bits, drains the pinned ring buffers and checks the records of
// processes and threads that it creates. The programs see the whole machine, so every check filters
// by the test's own pids.

#include <bpf/bpf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sched.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <thread>
#include <vector>

#include "kova_bpf_fixture.h"
#include "kova_bpf_records.h"
#include "kova_kernel_objects.h"
#include "kova_ringbuf_injector.h"
#include "kova_test_support.h"

namespace kova::test {
namespace {

using namespace std::chrono_literals;

constexpr uint64_t kAllFlowing = KOVA_STATUS_CORE | KOVA_STATUS_NORMAL;
constexpr size_t kMiB = 1024 * 1024;
constexpr uint32_t kProcess = KOVA_TASK_KIND_PROCESS, kThread = KOVA_TASK_KIND_THREAD;

// A pipe whose ends are closed on scope exit; used to hold children and to pass pids back.
struct Pipe {
    Pipe() { EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0); }
    ~Pipe() {
        Release();
        close(fds[0]);
    }
    void WriteInt(int value) const { EXPECT_EQ(write(fds[1], &value, sizeof(value)), (ssize_t)sizeof(value)); }
    int ReadInt() const {
        int value = -1;
        return read(fds[0], &value, sizeof(value)) == (ssize_t)sizeof(value) ? value : -1;
    }
    // Blocks until every write end is closed (Release() here and the exit of the other holders).
    void Hold() {
        Release();
        char byte;
        (void)!read(fds[0], &byte, 1);
    }
    void Release() {
        if (fds[1] >= 0) close(fds[1]);
        fds[1] = -1;
    }
    int fds[2] = {-1, -1};
};

// Forks a child that runs `body` and then ends with status 0; returns its pid.
pid_t Spawn(const std::function<void()>& body) {
    const pid_t pid = fork();
    if (pid == 0) {
        body();
        _exit(0);
    }
    return pid;
}

// A child that exits at once, made with vfork: no page tables are copied, so it is born within
// microseconds even under a sanitizer.
pid_t VforkAndExit() {
    const pid_t pid = vfork();
    if (pid == 0) _exit(0);
    return pid;
}

bool Reap(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void SetComm(const char* name) { prctl(PR_SET_NAME, name); }

std::string Comm(const char (&comm)[KOVA_COMM_LEN]) { return std::string(comm, strnlen(comm, KOVA_COMM_LEN)); }

// Touches `bytes` of fresh anonymous memory (so they count in the RSS).
void TouchAnonymous(size_t bytes) {
    void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory != MAP_FAILED) memset(memory, 0x5a, bytes);
}

class KernelProgramsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
        KOVA_REQUIRE(HaveTracefs(&reason), reason);
        objects_ = std::make_unique<PinnedObjects>();
        ASSERT_TRUE(objects_->ok()) << objects_->message();
        normalRing_ = objects_->Map(kNormalObject, "ringbuf_map");
        gplRing_ = objects_->Map(kGplObject, "ringbuf_map");
        ASSERT_TRUE(normalRing_.ok() && gplRing_.ok());
        normal_ = std::make_unique<RingReader>(normalRing_.get());
        gpl_ = std::make_unique<RingReader>(gplRing_.get());
        ASSERT_TRUE(normal_->ok() && gpl_->ok());
    }

    void Attach(const char* object, const char* program, const char* category, const char* event) {
        ASSERT_TRUE(objects_->AttachTracepoint(object, program, category, event)) << object << " " << program;
    }
    void AttachTaskPrograms() {
        Attach(kNormalObject, "sched_sched_process_fork", "sched", "sched_process_fork");
        Attach(kNormalObject, "sched_sched_process_exit", "sched", "sched_process_exit");
    }
    void SetStatus(const char* object, uint64_t word) { ASSERT_TRUE(objects_->SetStatusWord(object, word)); }

    // The records of `type` in `ring` for which `keep` holds.
    template <typename T>
    static std::vector<T> Where(const RingReader& ring, uint32_t type, const std::function<bool(const T&)>& keep) {
        std::vector<T> out;
        for (const T& r : ring.Of<T>(type))
            if (keep(r)) out.push_back(r);
        return out;
    }
    std::vector<kova_task_create_record> Forks(pid_t pid, uint32_t kind) const {
        return Where<kova_task_create_record>(*normal_, KOVA_RAW_TASK_CREATE,
                                              [&](const auto& r) { return r.pid == pid && r.kind == kind; });
    }
    std::vector<kova_task_exit_record> Exits(pid_t pid, uint32_t kind) const {
        return Where<kova_task_exit_record>(*normal_, KOVA_RAW_TASK_EXIT,
                                            [&](const auto& r) { return r.pid == pid && r.kind == kind; });
    }
    std::vector<kova_rss_record> Rss(pid_t pid) const {
        return Where<kova_rss_record>(*normal_, KOVA_RAW_RSS, [&](const auto& r) { return r.pid == pid; });
    }
    int64_t LargestAnon(pid_t pid) const {
        int64_t largest = -1;
        for (const auto& r : Rss(pid))
            if (r.member == KOVA_RSS_ANON) largest = std::max<int64_t>(largest, r.size);
        return largest;
    }
    bool WaitForProcessExit(pid_t pid) {
        return normal_->DrainUntil([&] { return !Exits(pid, kProcess).empty(); }, 10s);
    }
    bool WaitForAnon(pid_t pid, size_t bytes) {
        return normal_->DrainUntil([&] { return LargestAnon(pid) >= static_cast<int64_t>(bytes); }, 10s);
    }
    bool AnyTaskRecordOf(pid_t pid) const {
        return !Forks(pid, kProcess).empty() || !Exits(pid, kProcess).empty();
    }

    std::unique_ptr<PinnedObjects> objects_;
    android::base::unique_fd normalRing_, gplRing_;
    std::unique_ptr<RingReader> normal_, gpl_;
};

TEST_F(KernelProgramsTest, ForkAndExitRecordsTellProcessesFromThreadsAndNameTheRealParent) {
    AttachTaskPrograms();
    Attach(kGplObject, "sched_sched_process_exit", "sched", "sched_process_exit");
    SetStatus(kNormalObject, kAllFlowing);
    SetStatus(kGplObject, kAllFlowing);

    const std::string parentComm = CurrentThreadComm();
    Pipe pids;
    const pid_t child = Spawn([&] {
        SetComm("kova-threads");
        // Three threads; one forks a process, whose parent is this process, not the thread.
        std::vector<std::thread> threads;
        threads.emplace_back([&] {
            const pid_t grandchild = fork();
            if (grandchild == 0) _exit(0);
            pids.WriteInt(grandchild);
            waitpid(grandchild, nullptr, 0);
        });
        for (int i = 0; i < 2; ++i) threads.emplace_back([] {});
        for (auto& t : threads) t.join();
        // A process created with CLONE_PARENT: a sibling of this process, child of the test.
        const long sibling = syscall(SYS_clone, CLONE_PARENT | SIGCHLD, 0, nullptr, nullptr, 0);
        if (sibling == 0) syscall(SYS_exit_group, 0);
        pids.WriteInt(static_cast<int>(sibling));
    });
    const pid_t grandchild = pids.ReadInt();
    const pid_t sibling = pids.ReadInt();
    ASSERT_GT(sibling, 0);
    ASSERT_TRUE(Reap(child));
    ASSERT_TRUE(Reap(sibling)) << "the CLONE_PARENT child is the test's own";
    for (const pid_t pid : {child, grandchild, sibling}) ASSERT_TRUE(WaitForProcessExit(pid)) << pid;

    const auto processes = Forks(child, kProcess);
    ASSERT_EQ(processes.size(), 1u);
    EXPECT_EQ(processes[0].ppid, getpid());
    EXPECT_EQ(processes[0].uid, getuid());
    EXPECT_EQ(Comm(processes[0].comm), parentComm) << "a new process starts with its parent's name";
    EXPECT_EQ(processes[0].pad, 0u);
    const auto threads = Forks(child, kThread);
    ASSERT_EQ(threads.size(), 3u) << "a thread's record carries the pid of its process";
    for (const auto& t : threads) {
        EXPECT_EQ(t.uid, getuid());
        EXPECT_EQ(Comm(t.comm), "kova-threads");
        EXPECT_GE(t.timestamp_ns, processes[0].timestamp_ns);
    }
    const auto fromThread = Forks(grandchild, kProcess);
    ASSERT_EQ(fromThread.size(), 1u);
    EXPECT_EQ(fromThread[0].ppid, child);
    EXPECT_EQ(Comm(fromThread[0].comm), "kova-threads");
    const auto siblings = Forks(sibling, kProcess);
    ASSERT_EQ(siblings.size(), 1u);
    EXPECT_EQ(siblings[0].ppid, getpid());

    const auto processExits = Exits(child, kProcess);
    ASSERT_EQ(processExits.size(), 1u);
    EXPECT_EQ(Comm(processExits[0].comm), "kova-threads");
    EXPECT_EQ(Exits(child, kThread).size(), 3u);
    for (const pid_t pid : {grandchild, sibling}) EXPECT_EQ(Exits(pid, kProcess).size(), 1u) << pid;

    // Time stamps are CLOCK_MONOTONIC, the clock of the service's own time stamps.
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t nowNs = static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
    EXPECT_LE(processExits[0].timestamp_ns, nowNs);
    EXPECT_GT(processExits[0].timestamp_ns, nowNs - 30000000000ull);

    // The GPL object's exit program keeps its maps and writes no exit record of its own.
    gpl_->Drain();
    EXPECT_TRUE(gpl_->records().empty()) << gpl_->records().size() << " records in the GPL ring";
}

TEST_F(KernelProgramsTest, ProcessExitIsWrittenOnceWhenAllThreadsEndTogether) {
    AttachTaskPrograms();
    SetStatus(kNormalObject, kAllFlowing);

    constexpr int kProcesses = 20, kThreads = 8;
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        children.push_back(Spawn([] {
            // Every thread, the main one included, ends with a plain thread exit at the same moment,
            // so several of them can see the process as dead.
            static pthread_barrier_t barrier;
            pthread_barrier_init(&barrier, nullptr, kThreads + 1);
            for (int t = 0; t < kThreads; ++t) {
                pthread_t thread;
                pthread_create(&thread, nullptr, [](void*) -> void* {
                    pthread_barrier_wait(&barrier);
                    syscall(SYS_exit, 0);
                    return nullptr;
                }, nullptr);
            }
            pthread_barrier_wait(&barrier);
            syscall(SYS_exit, 0);
        }));
    }
    for (const pid_t child : children) ASSERT_TRUE(Reap(child));
    for (const pid_t child : children) ASSERT_TRUE(WaitForProcessExit(child)) << child;
    normal_->Drain();
    for (const pid_t child : children) {
        EXPECT_EQ(Exits(child, kProcess).size(), 1u) << child;
        EXPECT_EQ(Exits(child, kThread).size(), static_cast<size_t>(kThreads)) << child;
    }
}

TEST_F(KernelProgramsTest, RssRecordsNameTheProcessThatOwnsTheMemory) {
    Attach(kNormalObject, "kmem_rss_stat", "kmem", "rss_stat");
    SetStatus(kNormalObject, kAllFlowing);

    Pipe pids;
    const pid_t owner = Spawn([&] {
        // A thread of the process touches 8 MiB.
        std::thread([&] {
            pids.WriteInt(static_cast<int>(syscall(SYS_gettid)));
            TouchAnonymous(8 * kMiB);
        }).join();
        // A process sharing this one's memory (CLONE_VM without CLONE_THREAD) touches 4 MiB more of
        // it: the memory is still this process's.
        static char* shared = static_cast<char*>(
            mmap(nullptr, 4 * kMiB, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        static std::vector<char> stack(256 * 1024);
        const pid_t borrower = clone([](void*) -> int { return memset(shared, 0x33, 4 * kMiB) == nullptr; },
                                     stack.data() + stack.size(), CLONE_VM | SIGCHLD, nullptr);
        pids.WriteInt(borrower);
        waitpid(borrower, nullptr, 0);
        usleep(100 * 1000);  // leaves the counters standing before the exit tears them down
    });
    const pid_t thread = pids.ReadInt();
    const pid_t borrower = pids.ReadInt();
    ASSERT_TRUE(Reap(owner));
    ASSERT_GT(borrower, 0);
    ASSERT_NE(thread, owner);

    ASSERT_TRUE(WaitForAnon(owner, 12 * kMiB)) << "largest anonymous RSS seen: " << LargestAnon(owner);
    EXPECT_TRUE(Rss(thread).empty()) << "records name the process, not the thread";
    EXPECT_TRUE(Rss(borrower).empty()) << "records name the mm's owner, not the task that touched it";
    for (const auto& r : Rss(owner)) {
        EXPECT_TRUE(r.member >= KOVA_RSS_FILE && r.member <= KOVA_RSS_SHMEM && r.size >= 0 && r.pad == 0) << r.member;
    }
}

TEST_F(KernelProgramsTest, StatusBitsGateCoreAndNormalRecords) {
    AttachTaskPrograms();
    Attach(kNormalObject, "kmem_rss_stat", "kmem", "rss_stat");
    const auto runChild = [] {
        const pid_t child = Spawn([] { TouchAnonymous(2 * kMiB); });
        EXPECT_TRUE(Reap(child));
        return child;
    };

    SetStatus(kNormalObject, 0);
    const pid_t silent = runChild();
    std::this_thread::sleep_for(200ms);
    normal_->Drain();
    EXPECT_FALSE(AnyTaskRecordOf(silent) || !Rss(silent).empty()) << "nothing flows before the service sets a bit";

    SetStatus(kNormalObject, KOVA_STATUS_CORE);
    const pid_t coreOnly = runChild();
    ASSERT_TRUE(WaitForProcessExit(coreOnly));
    EXPECT_EQ(Forks(coreOnly, kProcess).size(), 1u);
    EXPECT_TRUE(Rss(coreOnly).empty()) << "RSS records wait for the normal bit";

    SetStatus(kNormalObject, KOVA_STATUS_NORMAL);
    const pid_t normalOnly = runChild();
    ASSERT_TRUE(WaitForAnon(normalOnly, 2 * kMiB));
    EXPECT_FALSE(AnyTaskRecordOf(normalOnly)) << "fork and exit records are core records";
}

// Keys 1, 3 and 4 of the normal status map, read until two readings agree: the programs refresh them
// for every process of the machine, also between the separate reads of one snapshot.
struct RingFigures {
    uint64_t avail, consumer, producer;
    bool operator==(const RingFigures&) const = default;
};

TEST_F(KernelProgramsTest, FullRingSetsTheFullBitAndStatusFiguresFollowTheRing) {
    const auto StableFigures = [this] {
        const auto read = [this] {
            return RingFigures{objects_->Status(kNormalObject, KOVA_STATUS_AVAIL_DATA),
                               objects_->Status(kNormalObject, KOVA_STATUS_CONS_POS),
                               objects_->Status(kNormalObject, KOVA_STATUS_PROD_POS)};
        };
        RingFigures last = read();
        for (int attempt = 0; attempt < 1000; ++attempt) {
            const RingFigures next = read();
            if (next == last) break;
            last = next;
        }
        return last;
    };
    AttachTaskPrograms();
    SetStatus(kNormalObject, kAllFlowing);
    normal_->Drain();

    // Fill the ring to the last byte with injected records.
    RingBufferInjector injector(normalRing_.get());
    ASSERT_TRUE(injector.ok()) << injector.error();
    for (size_t size : {size_t{60000}, size_t{4096}, size_t{256}, size_t{8}}) {
        while (injector.Write(std::string(size, 'f'))) {
        }
        ASSERT_EQ(injector.lastResult(), -EAGAIN);
    }
    const pid_t lost = Spawn([] {});
    ASSERT_TRUE(Reap(lost));

    EXPECT_EQ(objects_->Status(kNormalObject, KOVA_STATUS_WORD), kAllFlowing | KOVA_STATUS_FULL)
            << "the full bit is added without touching bits 1 and 2";
    const auto [avail, consumer, producer] = StableFigures();
    EXPECT_EQ(objects_->Status(kNormalObject, KOVA_STATUS_RING_SIZE), KOVA_RINGBUF_SIZE);
    EXPECT_EQ(producer - consumer, avail);
    EXPECT_GT(avail, KOVA_RINGBUF_SIZE - 64) << "the ring was full when the figures were taken";

    // Once the consumer has read everything, the next record refreshes the figures.
    normal_->Drain();
    EXPECT_FALSE(AnyTaskRecordOf(lost)) << "records that did not fit are lost, not delayed";
    normal_->Clear();
    const pid_t after = Spawn([] {});
    ASSERT_TRUE(Reap(after));
    ASSERT_TRUE(WaitForProcessExit(after));
    const auto [availAfter, consumerAfter, producerAfter] = StableFigures();
    EXPECT_GE(consumerAfter, producer) << "the consumer position moved past the full ring";
    EXPECT_EQ(producerAfter - consumerAfter, availAfter);
    EXPECT_LT(producerAfter - consumerAfter, kMiB);
    EXPECT_EQ(objects_->Status(kNormalObject, KOVA_STATUS_WORD), kAllFlowing | KOVA_STATUS_FULL)
            << "only the service clears the full bit";
}

TEST_F(KernelProgramsTest, WaitingConsumerIsWokenForRecordsAtTheEndOfABurst) {
    AttachTaskPrograms();
    Attach(kNormalObject, "sched_sched_switch", "sched", "sched_switch");
    SetStatus(kNormalObject, kAllFlowing);

    // A burst fast enough for batched wake-ups, then silence from the test: the last records must
    // still reach a consumer that only waits in the ring buffer's poll.
    std::vector<pid_t> burst;
    for (int i = 0; i < 50; ++i) burst.push_back(Spawn([] {}));
    for (const pid_t child : burst) ASSERT_TRUE(Reap(child));
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (Exits(burst.back(), kProcess).empty() && std::chrono::steady_clock::now() < deadline) {
        ASSERT_GE(normal_->Poll(1000ms), 0);
    }
    EXPECT_EQ(Exits(burst.back(), kProcess).size(), 1u);
}

// While wake-ups are batched (the consumer woken a moment ago, sched_switch looking at the ring), the
// birth of a process still wakes a waiting consumer at once: its client learns of it without waiting
// for a context switch after the batching delay. In a storm of births, those right behind such a
// wake-up are batched.
TEST_F(KernelProgramsTest, AProcessBirthWakesTheConsumerWhileWakeUpsAreBatched) {
    AttachTaskPrograms();
    SetStatus(kNormalObject, kAllFlowing);
    normal_->Drain();
    // Batching in force and no sched_switch program to end a wait: woken now, the flusher seen now,
    // and the last urgent wake-up `urgentAgo` ago.
    uint64_t nanos = 0;
    const auto batchNow = [&](uint64_t urgentAgo) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        nanos = static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
        const uint64_t state[3] = {nanos, nanos, nanos - urgentAgo};
        const uint32_t key = 0;
        return bpf_map_update_elem(objects_->Map(kNormalObject, "ringbuf_wakeup").get(), &key, state, BPF_ANY);
    };

    ASSERT_EQ(batchNow(1000000000), 0);
    Pipe hold;
    const pid_t child = Spawn([&] { hold.Hold(); });
    // Within the flusher's 20 ms of freshness, so a batched record would not be woken for at all.
    ASSERT_GE(normal_->Poll(15ms), 0);
    EXPECT_EQ(Forks(child, kProcess).size(), 1u);

    // The programs see the whole machine, and another process's birth or end wakes the consumer as
    // well: an attempt counts only when the ring holds no task record but ours.
    for (int attempt = 0; attempt < 20; ++attempt) {
        // Empty polls take the ring off epoll's ready list, where the last wake-up left it.
        while (normal_->Poll(0ms) > 0) {
        }
        normal_->Clear();
        ASSERT_EQ(batchNow(0), 0);
        const pid_t stormChild = VforkAndExit();
        ASSERT_GE(normal_->Poll(3ms), 0);
        const bool woken = !Forks(stormChild, kProcess).empty();
        ASSERT_TRUE(Reap(stormChild));
        normal_->Drain();
        const auto births = Forks(stormChild, kProcess);
        const auto ends = Exits(stormChild, kProcess);
        // Ours, both within the gap (its end, later, would wake the consumer by right).
        constexpr uint64_t kGapNs = 500000;
        if (normal_->records().size() != births.size() + ends.size() || births.size() != 1 || ends.size() != 1 ||
            ends[0].timestamp_ns - nanos >= kGapNs) {
            continue;
        }
        EXPECT_FALSE(woken) << "a birth right behind another woke the consumer";
        hold.Release();
        ASSERT_TRUE(Reap(child));
        return;
    }
    hold.Release();
    ASSERT_TRUE(Reap(child));
    GTEST_SKIP() << "other processes were born or ended during every attempt";
}

TEST_F(KernelProgramsTest, ExitProgramsDropTheEndingProcessFromTheirOwnMaps) {
    Attach(kNormalObject, "sched_sched_process_exit", "sched", "sched_process_exit");
    Attach(kGplObject, "sched_sched_process_exit", "sched", "sched_process_exit");

    Pipe hold;
    const pid_t child = Spawn([&] {
        hold.Hold();
        std::thread([] {}).join();  // a thread ending first must not drop the process's state
    });
    kova_open_fd_caller caller{};
    caller.open_fds = 5;
    kova_dmabuf_stat stat{};
    stat.bytes = 4096;
    kova_dmabuf_inode_set set{};
    set.count = 1;
    const struct {
        const char* object;
        const char* map;
        const void* value;
        size_t size;
    } maps[] = {
            {kNormalObject, "open_fd_caller_map", &caller, sizeof(caller)},
            {kGplObject, "dmabuf_allocate_map", &stat, sizeof(stat)},
            {kGplObject, "dmabuf_size_map", &stat, sizeof(stat)},
            {kGplObject, "dmabuf_perprocess_size_map", &stat, sizeof(stat)},
            {kGplObject, "process_inode_map", &set, sizeof(set)},
            {kGplObject, "process_mmap_infos", &set, sizeof(set)},
    };
    const uint32_t gone = static_cast<uint32_t>(child), kept = static_cast<uint32_t>(getpid());
    for (const auto& m : maps) {
        for (const uint32_t key : {gone, kept}) {
            ASSERT_EQ(bpf_map_update_elem(objects_->Map(m.object, m.map).get(), &key, m.value, BPF_ANY), 0) << m.map;
        }
    }
    hold.Release();
    ASSERT_TRUE(Reap(child));

    for (const auto& m : maps) {
        std::vector<char> value(m.size);
        const android::base::unique_fd fd = objects_->Map(m.object, m.map);
        EXPECT_NE(bpf_map_lookup_elem(fd.get(), &gone, value.data()), 0) << m.map;
        EXPECT_EQ(bpf_map_lookup_elem(fd.get(), &kept, value.data()), 0) << m.map;
    }
}

TEST_F(KernelProgramsTest, CgroupMoveWritesItsRecordOnceNormalRecordsFlow) {
    TestCgroup cgroup;
    KOVA_REQUIRE(cgroup.ok(), "no cpuset or unified cgroup hierarchy to create a test cgroup in");
    Attach(kGplObject, "cgroup_cgroup_attach_task", "cgroup", "cgroup_attach_task");

    Pipe hold;
    const pid_t child = Spawn([&] {
        SetComm("kova-moved");
        hold.Hold();
    });
    const auto movesOfChild = [&] {
        return Where<kova_cgroup_attach_record>(*gpl_, KOVA_RAW_CGROUP_ATTACH,
                                                [&](const auto& r) { return r.pid == child; });
    };
    std::this_thread::sleep_for(50ms);  // lets the child name itself

    SetStatus(kGplObject, KOVA_STATUS_CORE);
    ASSERT_TRUE(cgroup.Move(child, true));
    ASSERT_TRUE(cgroup.Move(child, false));
    gpl_->Drain();
    EXPECT_TRUE(movesOfChild().empty()) << "cgroup records are normal records";

    SetStatus(kGplObject, kAllFlowing);
    ASSERT_TRUE(cgroup.Move(child, true));
    ASSERT_TRUE(gpl_->DrainUntil([&] { return !movesOfChild().empty(); }, 10s));
    ASSERT_TRUE(cgroup.Move(child, false));
    hold.Release();
    ASSERT_TRUE(Reap(child));
    ASSERT_TRUE(gpl_->DrainUntil([&] { return movesOfChild().size() >= 2; }, 10s));

    const auto moves = movesOfChild();
    ASSERT_EQ(moves.size(), 2u) << "one record per move: into the test cgroup, then back to the root";
    const auto path = [](const kova_cgroup_attach_record& r) {
        return std::string(r.dst_path, strnlen(r.dst_path, sizeof(r.dst_path)));
    };
    EXPECT_EQ(path(moves[0]), "/" + cgroup.name());
    EXPECT_EQ(moves[0].dst_level, 1);
    EXPECT_EQ(path(moves[1]), "/");
    EXPECT_EQ(moves[1].dst_level, 0);
    for (const auto& move : moves) {
        EXPECT_EQ(move.caller_pid, getpid());
        EXPECT_EQ(Comm(move.comm), "kova-moved");
        EXPECT_EQ(move.dst_root, moves[0].dst_root);
    }
    EXPECT_NE(moves[0].dst_id, moves[1].dst_id);
}

}  // namespace
}  // namespace kova::test
