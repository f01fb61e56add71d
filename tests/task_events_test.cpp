// The task handlers, driven with raw records through the dispatch exactly as the kernel side writes
// them, checked in the task table and in the events a subscribed client receives over the socket;
// the start-up scan against generated /proc trees and the real /proc.

#include <android/log.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include "kova_bpf_records.h"
#include "kova_service_harness.h"
#include "kova_test_client.h"
#include "kova_test_support.h"
#include "protocol/kova_bpf_protocol.h"
#include "service/kova_bpf_service.h"
#include "service/kova_bpf_state.h"
#include "service/kova_bpf_task_manager.h"
#include "utils/kova_bpf_time.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;
using namespace std::chrono_literals;

constexpr uint64_t kSecond = 1000000000ULL;
constexpr uint64_t kT0 = 1000 * kSecond;  // boot-clock time of the records that create tasks
constexpr uint32_t kProcess = KOVA_TASK_KIND_PROCESS, kThread = KOVA_TASK_KIND_THREAD;

// Four RSS counters as "file/anon/swap/shmem".
std::string Sizes(const int64_t (&bytes)[4]) {
    return std::to_string(bytes[0]) + "/" + std::to_string(bytes[1]) + "/" + std::to_string(bytes[2]) + "/" +
           std::to_string(bytes[3]);
}

template <typename Event>
std::string Bytes(const Event& event) {
    return std::string(reinterpret_cast<const char*>(&event), sizeof(event));
}

// The service is running (its IPC server serves), but waits for the loader, so nothing but the test
// feeds the dispatch.
class TaskEventsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(BpfServiceMain());
        client_ = std::make_unique<TestClient>(roots_.socketName());
        for (const int32_t id : {EVENT_TASK_CREATE, EVENT_TASK_EXIT, EVENT_THREAD_COUNT_CHANGE, EVENT_RSS_CHANGE}) {
            ASSERT_EQ(client_->Subscribe(id), 0);
        }
    }
    void TearDown() override {
        service()->stop();
        service()->Wait();
    }
    static KovaBpfService* service() { return KovaBpfService::GetInstance(); }
    static KovaTask* Task(int pid) { return KovaTaskManager::GetInstance()->GetKovaTask(pid); }
    // A task of the table in words, or "none".
    static std::string Describe(int pid) {
        const KovaTask* task = Task(pid);
        if (task == nullptr) return "none";
        return std::string(task->comm) + " ppid " + std::to_string(task->ppid) + " uid " + std::to_string(task->uid) +
               " threads " + std::to_string(task->threadNum) + " rss " + Sizes(task->rssSize) + " start " +
               std::to_string(task->initTimeStamp);
    }
    static void Dispatch(std::string bytes) {
        ASSERT_EQ(KovaBpfService::handleBpfRingBuffEvent(nullptr, bytes.data(), bytes.size()), 0);
    }
    static void Fork(int pid, int ppid, uint64_t ns, uint32_t kind, const char* comm = "forked") {
        Dispatch(ForkRecord(pid, comm, kind, ns, ppid, 10042));
    }
    static void Exit(int pid, uint64_t ns, uint32_t kind, const char* comm = "leaving") {
        Dispatch(ExitRecord(pid, comm, ns, kind));
    }
    static void Rss(int pid, int member, int64_t size, uint64_t ns = kT0 + 4 * kSecond) {
        Dispatch(RssRecord(pid, member, size, ns));
    }
    // A process created at kT0, as a fork record makes it; its creation event is taken off the socket.
    void NewProcess(int pid, const char* comm = "app", int ppid = 1) {
        Fork(pid, ppid, kT0, kProcess, comm);
        ASSERT_NE(NextEvent(), "");
    }
    // The bytes of the next event the client receives, or "" when none comes within 2 s.
    std::string NextEvent() { return client_->NextEvent(2s).value_or(""); }
    void ExpectNoEvent() { EXPECT_EQ(client_->NextEvent(200ms), std::nullopt); }

    ScopedPropertyStore properties_;
    ScopedServiceRoots roots_;
    TempDir proc_;
    ScopedRoot procRoot_{KOVA_PROC_DIR, proc_.path()};  // empty unless a test writes processes into it
    LogCapture log_;
    std::unique_ptr<TestClient> client_;
};

TEST_F(TaskEventsTest, ProcessCreationStoresTheTaskAndEmitsItOnce) {
    const int64_t before = static_cast<int64_t>(GetSystemSecondsTime());
    Fork(700, 650, kT0, kProcess, "app");
    KovaTask* task = Task(700);
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->threadNum, 1);
    EXPECT_EQ(task->createTimeNs, kT0);
    EXPECT_GE(task->initTimeStamp, before);
    EXPECT_EQ(NextEvent(), Bytes(KovaTaskCreateEvent{EVENT_TASK_CREATE, 700, 650, 10042, "app"}));

    // A second creation record for a known pid changes nothing and says nothing.
    task->rssSize[RSS_ANON] = 4096;
    Fork(700, 999, kT0 + kSecond, kProcess, "other");
    EXPECT_EQ(task->ppid, 650);
    EXPECT_STREQ(task->comm, "app");
    EXPECT_EQ(task->rssSize[RSS_ANON], 4096);
    ExpectNoEvent();
}

TEST_F(TaskEventsTest, UnknownParentIsAskedOfProcOrLeftAtZero) {
    WriteFile(proc_ / "701/status", "Name:\tfrom-proc\nUmask:\t0022\nPPid:\t77\n");
    NewProcess(701, "kernel-comm", 0);
    EXPECT_EQ(Task(701)->ppid, 77);
    EXPECT_STREQ(Task(701)->comm, "from-proc");

    Fork(702, 0, kT0, kProcess, "kernel-comm");  // gone from /proc already
    EXPECT_TRUE(log_.Has(ANDROID_LOG_WARN, "BpfService",
                         "[KovaBpfService][GPI] Task not exists, errno info: No such file or directory"));
    EXPECT_EQ(NextEvent(), Bytes(KovaTaskCreateEvent{EVENT_TASK_CREATE, 702, 0, 10042, "kernel-comm"}));
}

TEST_F(TaskEventsTest, EleventhThreadAfterThreeSecondsReportsTheWholeChange) {
    NewProcess(710);
    for (int i = 0; i < 10; ++i) Fork(710, 0, kT0 + 4 * kSecond, kThread);
    EXPECT_EQ(Task(710)->threadNum, 11);
    ExpectNoEvent();
    Fork(710, 0, kT0 + 4 * kSecond, kThread);
    EXPECT_EQ(NextEvent(), Bytes(KovaThreadCountChangeEvent{EVENT_THREAD_COUNT_CHANGE, 710, 1, 10042, 1, 12}));
}

TEST_F(TaskEventsTest, ThreadsOfAYoungProcessAreCountedButNotReported) {
    NewProcess(711);
    for (int i = 0; i < 15; ++i) Fork(711, 0, kT0 + kSecond, kThread);
    EXPECT_EQ(Task(711)->threadNum, 16);
    ExpectNoEvent();
    Fork(711, 0, kT0 + 3 * kSecond, kThread);  // the first one after 3 s reports it all
    EXPECT_EQ(NextEvent(), Bytes(KovaThreadCountChangeEvent{EVENT_THREAD_COUNT_CHANGE, 711, 1, 10042, 1, 17}));
}

TEST_F(TaskEventsTest, ProcessExitIsReportedEvenForAnUnknownPid) {
    NewProcess(720);
    Exit(720, kT0 + kSecond, kProcess);
    EXPECT_EQ(Task(720), nullptr);
    EXPECT_EQ(NextEvent(), Bytes(KovaTaskExitEvent{EVENT_TASK_EXIT, 720, "leaving"}));
    Exit(721, kT0, kProcess, "stranger");
    EXPECT_EQ(NextEvent(), Bytes(KovaTaskExitEvent{EVENT_TASK_EXIT, 721, "stranger"}));
}

TEST_F(TaskEventsTest, RecordsOutOfRangeChangeNothing) {
    NewProcess(740);
    Fork(740, 0, kT0 - kSecond, kThread);  // a thread older than its process
    Fork(799, 0, kT0, kThread);             // a thread of an unknown process
    Fork(730, 1, kT0, 3);                   // unknown kinds
    Exit(730, kT0, 0);
    EXPECT_TRUE(log_.Has(ANDROID_LOG_ERROR, "BpfService", "[KovaBpfService] Task Create raw event (SCHED__TASK_CREATE) error!"));
    EXPECT_TRUE(log_.Has(ANDROID_LOG_ERROR, "BpfService", "[KovaBpfService] Task Exit raw event (SCHED__TASK_EXIT) error!"));
    Rss(740, 4, 1 << 20);
    Rss(740, -1, 1 << 20);
    Rss(740, RSS_ANON, -4096);
    Rss(741, RSS_ANON, 1 << 20);  // unknown process
    EXPECT_EQ(KovaTaskManager::GetInstance()->GetKovaTaskCount(), 1u);
    EXPECT_EQ(Task(740)->threadNum, 1);
    EXPECT_EQ(Task(740)->mmId, 0u);
    for (const int64_t size : Task(740)->rssSize) EXPECT_EQ(size, 0);
    ExpectNoEvent();
}

TEST_F(TaskEventsTest, RssChangesAreReportedOnceTheyAddUpTo16384Bytes) {
    NewProcess(750);
    Rss(750, RSS_ANON, 10000);
    Rss(750, RSS_FILE, 6383);  // 16383 in all
    EXPECT_EQ(Task(750)->mmId, 1000u);
    ExpectNoEvent();
    Rss(750, RSS_SHMEM, 1);  // 16384
    EXPECT_EQ(NextEvent(), Bytes(KovaRssChangeEvent{EVENT_RSS_CHANGE, 750, 1, 10042, "app", {6383, 10000, 0, 1}, {}}));
    Rss(750, RSS_SWAP, 16383);  // measured from what was just reported
    ExpectNoEvent();
}

TEST_F(TaskEventsTest, YoungProcessesLowPidsKernelChildrenAndShellsNeverReportRss) {
    const struct {
        int pid;
        const char* comm;
        int ppid;
    } silent[] = {{250, "low-pid", 1}, {760, "sh", 1}, {761, "shellwatch", 1}, {762, "dumpsys meminfo", 1},
                  {763, "kthreadchild", 2}};
    for (const auto& process : silent) {
        NewProcess(process.pid, process.comm, process.ppid);
        Rss(process.pid, RSS_ANON, 1 << 20);
        EXPECT_EQ(Task(process.pid)->rssSize[RSS_ANON], 1 << 20) << process.comm;  // counted all the same
    }
    NewProcess(764, "young");
    Rss(764, RSS_ANON, 1 << 20, kT0 + 2 * kSecond);
    ExpectNoEvent();

    NewProcess(1, "init", 0);  // init is reported although its pid is low
    Rss(1, RSS_ANON, 1 << 20);
    EXPECT_EQ(NextEvent(), Bytes(KovaRssChangeEvent{EVENT_RSS_CHANGE, 1, 0, 10042, "init", {0, 1 << 20, 0, 0}, {}}));
}

TEST_F(TaskEventsTest, ProvisionalNamesAreRefreshedFromProcAtMostEveryThreeSeconds) {
    WriteFile(proc_ / "770/status", "Name:\tmain\nPPid:\t77\n");
    NewProcess(770, "main", 500);
    Rss(770, RSS_ANON, 4096);
    KovaTask* task = Task(770);
    EXPECT_EQ(task->ppid, 77);
    const int64_t refreshed = task->infoUpdateTime;

    WriteFile(proc_ / "770/status", "Name:\tcom.example.application\nPPid:\t88\n");
    Rss(770, RSS_ANON, 8192);  // within 3 s of the last refresh
    EXPECT_EQ(task->ppid, 77);
    EXPECT_STREQ(task->comm, "main");

    task->infoUpdateTime = refreshed - 3;
    Rss(770, RSS_ANON, 12288);
    EXPECT_EQ(task->ppid, 88);
    EXPECT_STREQ(task->comm, "com.example.app");  // at most 15 characters survive

    // A failed refresh still counts as one.
    NewProcess(771, "re-initialized>");
    Rss(771, RSS_FILE, 4096);
    EXPECT_GT(Task(771)->infoUpdateTime, 0);
    EXPECT_STREQ(Task(771)->comm, "re-initialized>");
}

TEST_F(TaskEventsTest, TaskInitRecordsSeedTheTableSilentlyAndAnyLaterExitRemovesThem) {
    kova_task_init_record record{.type = KOVA_RAW_TASK_INIT, .pad = 0, .timestamp_ns = kT0, .pid = 780, .ppid = 1, .uid = 1000,
                                 .thread_count = 9, .comm = "seeded", .rss_file_bytes = 1, .rss_anon_bytes = 2,
                                 .rss_shmem_bytes = 3, .swap_bytes = 4, .start_time_s = 1700000000};
    Dispatch(RecordBytes(record));
    // The record keeps shared memory before swap; the task keeps swap before shared memory.
    EXPECT_EQ(Describe(780), "seeded ppid 1 uid 1000 threads 9 rss 1/2/4/3 start 1700000000");
    ExpectNoEvent();
    // Ring records are applied after the whole scan: an exit written before the scan read the process
    // (it ended during the scan, not yet reaped) still removes it.
    Exit(780, kT0 - kSecond, kProcess, "seeded");
    EXPECT_EQ(Task(780), nullptr);
}

// A stat line with `state` in field 3, `flags` in field 9, `threads` in field 20 and `startTicks` in
// field 22.
std::string Stat(const std::string& pid, const std::string& comm, int threads, long startTicks,
                 const std::string& state = "S", long flags = 9) {
    std::string line = pid + " (" + comm + ") " + state;
    for (int field = 4; field <= 22; ++field) {
        line += " " + std::to_string(field == 9 ? flags : field == 20 ? threads : field == 22 ? startTicks : field);
    }
    return line + " 23 24\n";
}

uint64_t TaskInitCount() {
    KovaBpfDataState* counters = KovaBpfDataState::GetInstance();
    uint64_t sum = 0;
    for (int64_t second = counters->tail(); second <= counters->head(); ++second) {
        sum += counters->counter(second, KOVA_RAW_TASK_INIT);
    }
    return sum;
}

// The start-up scan over a generated /proc: exact conversions and the awkward cases.
TEST_F(TaskEventsTest, StartupScanSeedsEveryReadableProcessWithExactValues) {
    const auto process = [&](const std::string& pid, const std::string& status, const std::string& stat) {
        if (!status.empty()) WriteFile(proc_ / (pid + "/status"), status);
        if (!stat.empty()) WriteFile(proc_ / (pid + "/stat"), stat);
    };
    process("800",
            "Name:\tsurface flinger\nUmask:\t0077\nState:\tS (sleeping)\nPPid:\t1\nUid:\t1000\t1001\t1002\t1003\n"
            "RssAnon:\t    1234 kB\nRssFile:\t     100 kB\nRssShmem:\t       7 kB\nVmSwap:\t      12 kB\n",
            Stat("800", "surfaceflinger", 21, 1234 * sysconf(_SC_CLK_TCK)));
    process("801", "Name:\tshort\nPPid:\t1\n", "801 (short) S 1 2 3\n");  // fewer than 22 fields
    process("802", "Name:\tno-stat\nPPid:\t1\n", "");                      // status but no stat
    process("803", "", Stat("803", "no-status", 1, 0));                    // stat but no status
    process("804", "Name:\tspaced\nPPid:\t1\n", Stat("804", "my app", 5, 100));
    // Ended: every thread has begun to exit (PF_EXITING, 0x4, in the flags), a zombie or one still
    // tearing down; no exit record may come to remove it. A process whose leader alone exited lives.
    constexpr long kExiting = 0x400004;
    process("805", "Name:\tending\nPPid:\t1\n", Stat("805", "ending (now)", 1, 100, "R", kExiting));
    WriteFile(proc_ / "805/task/805/stat", Stat("805", "ending (now)", 1, 100, "R", kExiting));
    process("806", "Name:\tleader-gone\nPPid:\t1\n", Stat("806", "leader-gone", 2, 100, "Z", kExiting));
    WriteFile(proc_ / "806/task/806/stat", Stat("806", "leader-gone", 2, 100, "Z", kExiting));
    WriteFile(proc_ / "806/task/807/stat", Stat("807", "worker", 2, 100));
    WriteFile(proc_ / "self/status", "Name:\tnot-a-pid\n");
    WriteFile(proc_ / "stat", "btime 1\n");

    const uint64_t countedBefore = TaskInitCount();
    ASSERT_EQ(service()->initTaskInfo(), 0);
    EXPECT_EQ(KovaTaskManager::GetInstance()->GetKovaTaskCount(), 4u);
    // Each record is counted by the dispatch, and the scan adds its total once more.
    EXPECT_EQ(TaskInitCount() - countedBefore, 8u);

    // The real uid, kB as bytes, the start time from boot-time ticks.
    EXPECT_EQ(Describe(800), "surface flinger ppid 1 uid 1000 threads 21 rss 102400/1263616/12288/7168 start " +
                                     std::to_string(GetBasetime() + 1234));
    EXPECT_EQ(Describe(801), "short ppid 1 uid 0 threads 0 rss 0/0/0/0 start 0");
    EXPECT_EQ(Describe(802), "none");
    EXPECT_EQ(Describe(803), "none");
    EXPECT_EQ(Describe(805), "none");
    ASSERT_NE(Task(806), nullptr);
    EXPECT_EQ(Task(806)->threadNum, 2);
    // A command name with a blank shifts the stat fields by one; the scan takes them as they fall.
    EXPECT_EQ(Task(804)->threadNum, 19);
}

TEST(StartupScanLiveTest, FindsThisProcessInTheRealProc) {
    ASSERT_TRUE(InitBasetime());
    ASSERT_EQ(KovaBpfService::GetInstance()->initTaskInfo(), 0);
    const KovaTask* self = KovaTaskManager::GetInstance()->GetKovaTask(getpid());
    ASSERT_NE(self, nullptr);
    EXPECT_EQ(self->ppid, getppid());
    EXPECT_EQ(self->uid, getuid());
    EXPECT_EQ(self->threadNum, 1);  // the service was not started: this test's thread only
    EXPECT_EQ(std::string(self->comm) + "\n", ReadFile("/proc/self/comm"));
    EXPECT_GE(self->initTimeStamp, static_cast<int64_t>(GetSystemSecondsTime()) - 60);  // started within a minute
    EXPECT_LE(self->initTimeStamp, static_cast<int64_t>(GetSystemSecondsTime()));
    EXPECT_GT(self->rssSize[RSS_ANON], 0);
}

}  // namespace
}  // namespace kova::test
