// The service's state and its dumps: the per-second event counters and their CSV, driven by a fake
// clock, and signal 50 end to end; the task table's operations, its order, and the four dumps,
// including dumps asked for by real signals while another thread changes the table.

#include <android/log.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <regex>
#include <thread>

#include "kova_test_support.h"
#include "service/kova_bpf_state.h"
#include "service/kova_bpf_task_manager.h"
#include "utils/kova_bpf_paths.h"
#include "utils/kova_bpf_signal_worker.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;
using namespace std::chrono_literals;

// Dumps go to a diagnostics directory of the test's own.
class DiagnosticsTest : public ::testing::Test {
  protected:
    TempDir diag_;
    ScopedRoot root_{KOVA_DIAGNOSTICS_DIR, diag_.path()};
};

std::atomic<uint64_t> gNow{1000};
uint64_t FakeClock() { return gNow.load(); }

const std::string kHeader =
        "EventCount, kova_task_init, kmem_rss_info, sched_task_create, sched_task_exit, dmabuf_size_info, "
        "cgroup_attach_cpuset_info, fd_update_info, dmabuf_update, sched_total_cpu_time, UNKNOW, "
        "sched_process_cpu_time, UNKNOW, sched_thread_cpu_time, UNKNOW, PollCount, ";

// One CSV line with the given {type, count} counters: their sum over types 0 to 13, then all 15 counters.
std::string CsvLine(std::map<int, int> counters = {}) {
    int sum = 0;
    std::string values;
    for (int type = 0; type < 15; ++type) {
        sum += type < 14 ? counters[type] : 0;
        values += std::to_string(counters[type]) + ", ";
    }
    return std::to_string(sum) + ", " + values + "\r\n";
}

// `count` lines of seconds without events.
std::string EmptyLines(int count) {
    std::string lines;
    for (int i = 0; i < count; ++i) lines += CsvLine();
    return lines;
}

class DataStateTest : public DiagnosticsTest {
  protected:
    void SetUp() override {
        gNow = 1000;
        state_ = std::make_unique<KovaBpfDataState>(FakeClock);
    }
    std::string Csv() {
        state_->DumpState();
        return ReadFile(diag_ / "bpfservice_state.csv");
    }

    std::unique_ptr<KovaBpfDataState> state_;
};

TEST_F(DataStateTest, SecondsGetTheirOwnSlotsNewestFirst) {
    EXPECT_EQ(Csv(), kHeader + "0, 0 \r\n" + CsvLine());
    state_->RecordEvent(0, 1);
    state_->RecordEvent(0, 1);   // same second, same slot
    state_->RecordEvent(15, 1);  // types above 14 are ignored
    state_->RecordEvent(-1, 1);
    state_->RecordEvent(14, 1);  // polls are counted but stay out of the sum
    gNow = 1005;
    state_->RecordEvent(3, 4);
    EXPECT_EQ(Csv(), kHeader + "5, 0 \r\n" + CsvLine({{3, 4}}) + EmptyLines(4) + CsvLine({{0, 2}, {14, 1}}));
}

TEST_F(DataStateTest, SlotsWrapAfter1800SecondsAndReusedSlotsStartEmpty) {
    std::string olderSeconds;
    for (int second = 0; second < 1800; ++second) {
        gNow = 1000 + second;
        state_->RecordEvent(1, 1);
        if (second > 0) olderSeconds += CsvLine({{1, 1}});
    }
    gNow = 1000 + 1800;  // the 1801st second takes the slot of the first
    state_->RecordEvent(1, 7);
    EXPECT_EQ(Csv(), kHeader + "1800, 1 \r\n" + CsvLine({{1, 7}}) + olderSeconds);
    gNow = 1000 + 1804;
    state_->RecordEvent(1, 7);
    const std::string csv = Csv();
    EXPECT_TRUE(csv.starts_with(kHeader + "1804, 5 \r\n" + CsvLine({{1, 7}}) + EmptyLines(3) + CsvLine({{1, 7}}) +
                                CsvLine({{1, 1}})))
            << csv.substr(0, 2000);
    EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 1 + 1800);

    // A long silence keeps exactly 1800 slots, all empty but the newest.
    gNow = 1000 + 5000;
    state_->RecordEvent(4, 1);
    EXPECT_EQ(Csv(), kHeader + "5000, 3201 \r\n" + CsvLine({{4, 1}}) + EmptyLines(1799));
}

TEST_F(DataStateTest, ClockGoingBackwardsMovesHeadBackAndDumpsOnlyTheHeader) {
    gNow = 1010;
    state_->RecordEvent(5, 1);
    gNow = 1003;  // head moves back from 10 to 3, which is accepted as it stands
    state_->RecordEvent(5, 1);
    EXPECT_EQ(state_->head(), 3);
    gNow = 990;  // head below tail: the CSV has the header only
    state_->RecordEvent(5, 1);
    EXPECT_EQ(state_->head(), -10);
    EXPECT_EQ(Csv(), kHeader + "-10, 0 \r\n");
}

TEST_F(DataStateTest, ConcurrentProducersLoseNoCount) {
    const auto produce = [this] {
        for (int i = 0; i < 200000; ++i) state_->RecordEvent(2, 1);
    };
    std::thread first(produce), second(produce), clock([] {
        for (int i = 0; i < 50; ++i) {
            gNow.fetch_add(1);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    first.join();
    second.join();
    clock.join();
    uint64_t total = 0;
    for (int64_t sequence = state_->tail(); sequence <= state_->head(); ++sequence) total += state_->counter(sequence, 2);
    EXPECT_EQ(total, 400000u);
}

TEST_F(DataStateTest, UnopenableFileIsReported) {
    ScopedRoot blocked(KOVA_DIAGNOSTICS_DIR, "/proc/self/kova-no-such-dir");
    LogCapture capture;
    state_->DumpState();
    EXPECT_TRUE(capture.Has(ANDROID_LOG_ERROR, "BpfUtils", "[KovaBpfDataState][DumpState] open file failed!"));
}

// Signal 50 writes the CSV of the process-wide counters from the signal worker, also while producers
// count and signals arrive in a storm.
using DumpSignalTest = DiagnosticsTest;

TEST_F(DumpSignalTest, Signal50WritesTheCsvUnderAStorm) {
    ASSERT_TRUE(InstallDeferredSignalHandler(50, DumpState));
    KovaBpfDataState::GetInstance()->RecordEvent(1, 42);
    std::atomic<bool> done{false};
    std::thread producer([&] {
        while (!done) KovaBpfDataState::GetInstance()->RecordEvent(2, 1);
    });
    for (int i = 0; i < 2000; ++i) ASSERT_EQ(kill(getpid(), 50), 0);
    done = true;
    producer.join();
    EXPECT_TRUE(WaitUntil(
            [&] {
                const std::string csv = ReadFile(diag_ / "bpfservice_state.csv");
                return csv.starts_with(kHeader) && csv.find(", 42, ") != std::string::npos && csv.ends_with("\r\n");
            },
            std::chrono::seconds(5)));
}

// A task with the given RSS values in bytes: file, anonymous, swap, shared memory.
KovaTask Task(int pid, const char* comm, int64_t file = 0, int64_t anon = 0, int64_t swap = 0, int64_t shmem = 0) {
    KovaTask task{.pid = pid, .ppid = 1, .uid = 1000, .threadNum = 3, .oldThreadNum = 2, .comm = {}, .mmId = 1000,
                  .rssSize = {file, anon, swap, shmem}, .rssOldSize = {}, .initTimeStamp = 1700000000 + pid,
                  .infoUpdateTime = 0, .createTimeNs = 0};
    snprintf(task.comm, sizeof(task.comm), "%s", comm);
    return task;
}

// Add overwrites in place; each delete has its own rule for an absent key; the mmid index keeps its
// pointer after the task is deleted.
TEST(TaskTableTest, AddOverwritesInPlaceAndDeletesFollowTheirOwnRules) {
    KovaTaskManager* table = KovaTaskManager::GetInstance();
    EXPECT_EQ(table->AddKovaTask(7, Task(7, "first")), 0);
    KovaTask* stored = table->GetKovaTask(7);
    EXPECT_EQ(table->AddKovaTask(7, Task(7, "second")), 0);
    EXPECT_EQ(table->GetKovaTaskCount(), 1u);
    EXPECT_EQ(table->GetKovaTask(7), stored);  // the pointer survives an overwrite
    EXPECT_STREQ(stored->comm, "second");
    EXPECT_EQ(table->GetKovaTask(8), nullptr);

    errno = 0;
    EXPECT_EQ(table->DelKovaTask(99), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(table->DelMmidIndex(99), -1);
    EXPECT_EQ(table->DelRssTempTask(99), 0);  // absent, yet success
    EXPECT_EQ(errno, ENOENT);
    table->AddRssTempTask(3, Task(3, "temp"));
    EXPECT_STREQ(table->GetRssTempTask(3)->comm, "temp");
    EXPECT_EQ(table->DelRssTempTask(3), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(table->GetRssTempTask(3), nullptr);

    EXPECT_EQ(table->AddMmidIndex(1000, stored), 0);
    EXPECT_EQ(table->DelKovaTask(7), 0);
    EXPECT_EQ(table->GetKovaTaskByMmid(1000), stored);  // left dangling on purpose; never dereferenced here
    EXPECT_EQ(table->DelMmidIndex(1000), 0);
    EXPECT_EQ(table->GetKovaTaskByMmid(1000), nullptr);
}

class TaskDumpTest : public DiagnosticsTest {
  protected:
    std::string Dump() const { return ReadFile(diag_ / "DUMPTASK_INFO"); }
    // Runs the dump that signal `signo` asks for through its handler; checks that the title holds `count`
    // and the current time, and returns the rest. (Plain function pointers: UBSan's vptr check reports
    // calls through member pointers on this compiler.)
    std::string Body(void (*handler)(int), int signo, unsigned count) {
        handler(signo);
        const std::string dump = Dump();
        const size_t newline = dump.find('\n');
        const std::string title = dump.substr(0, newline);
        std::smatch match;
        EXPECT_TRUE(std::regex_match(title, match,
                                     std::regex(R"(============ DUMP ALL KOVA TASKS INFO \(count: )" + std::to_string(count) +
                                                R"(, time: (\d+)\) ============)")))
                << title;
        if (match.size() == 2) {
            EXPECT_NEAR(std::stol(match[1]), time(nullptr), 2);
        }
        return dump.substr(newline + 1);
    }

    KovaTaskManager* table_ = KovaTaskManager::GetInstance();
};

const std::string kFullHeader =
        "comm               pid         ppid        threadNum   oldThreadNum mmId        rssAnonSize         "
        "rssAnonOldSize      rssFileSize         rssFileOldSize      rssShmemSize        rssShmemOldSize     "
        "rssSwapSize         rssSwapOldSize      initTimeStamp       \n";
const std::string kShortHeader =
        "comm               pid         ppid        threadNum   mmId        rssAnonSize         rssFileSize         "
        "rssShmemSize        rssSwapSize         initTimeStamp       \n";

TEST_F(TaskDumpTest, FullAndShortLinesHaveTheirExactWidths) {
    KovaTask task = Task(4242, "exactly15chars_", 8192, 1023, 4096, 2048);
    task.rssOldSize[RSS_ANON] = 10240;
    task.rssOldSize[RSS_FILE] = -2048;
    table_->AddKovaTask(4242, task);
    EXPECT_EQ(Body(HandleDumpSignal, 51, 1),
              kFullHeader +
                      "exactly15chars_    4242        1           3           2            1000                 0 KB"
                      "               10 KB                8 KB               -2 KB                2 KB"
                      "                0 KB                4 KB                0 KB          1700004242\n");
    EXPECT_EQ(Body(HandleDumpSignalNormal, 53, 1),
              kShortHeader +
                      "exactly15chars_    4242        1           3           1000                 0 KB"
                      "                8 KB                2 KB                4 KB          1700004242\n");
}

TEST_F(TaskDumpTest, LargestFootprintComesFirstAndShortCommsArePadded) {
    table_->AddKovaTask(1, Task(1, "init", 1 << 20));
    table_->AddKovaTask(2, Task(2, "big", 8 << 20));
    table_->AddKovaTask(3, Task(3, "mid", 0, 1 << 20, 1 << 20, 1 << 20));  // 3 MiB in three counters
    const std::string body = Body(HandleDumpSignalNormal, 53, 3).substr(kShortHeader.size());
    EXPECT_TRUE(body.starts_with("big                " "2 ")) << body;
    EXPECT_LT(body.find("big "), body.find("mid "));
    EXPECT_LT(body.find("mid "), body.find("init "));
}

TEST_F(TaskDumpTest, KernelTaskFilterKeepsTheWholeCountInTheTitle) {
    for (int pid = 100; pid < 110; ++pid) {
        const bool kernel = pid < 104;  // four tasks without any RSS counter
        table_->AddKovaTask(pid, Task(pid, kernel ? "kworker" : "app", kernel ? 0 : 4096 * pid));
    }
    const struct {
        void (*handler)(int);
        int signo;
        const std::string& header;
        long lines;
    } variants[] = {{HandleNonKernelDumpSignal, 52, kFullHeader, 6},
                    {HandleNonKernelDumpSignalNormal, 54, kShortHeader, 6},
                    {HandleDumpSignal, 51, kFullHeader, 10}};
    for (const auto& v : variants) {
        const std::string body = Body(v.handler, v.signo, 10);
        EXPECT_TRUE(body.starts_with(v.header));
        EXPECT_EQ(std::count(body.begin(), body.end(), '\n'), 1 + v.lines);
    }
}

TEST_F(TaskDumpTest, UnwritableDumpIsReported) {
    ScopedRoot blocked(KOVA_DIAGNOSTICS_DIR, "/proc/self/kova-no-such-dir");
    LogCapture capture;
    table_->DumpKovaTaskInfo();
    EXPECT_EQ(capture.CountContaining("failed to dump kova task, error: "), 1);
}

// A dump of the full variant is complete when it holds as many task lines as its title counts.
bool IsCompleteFullDump(const std::string& dump) {
    std::smatch match;
    if (!std::regex_search(dump, match, std::regex(R"(\(count: (\d+),)"))) return false;
    const long lines = std::count(dump.begin(), dump.end(), '\n');
    return dump.find("oldThreadNum") != std::string::npos && dump.back() == '\n' && lines == 2 + std::stol(match[1]);
}

// Keeps changing the table the way the event handlers do until destroyed: records come and go, and
// both halves of each change are made under the table's lock, so a dump sees both or neither.
class TableChurn {
  public:
    explicit TableChurn(KovaTaskManager* table)
        : thread_([this, table] {
              for (int round = 1; !done_; ++round) {
                  const int pid = 1000 + round % 50;
                  if (round % 7 == 0) {
                      table->DelKovaTask(pid);
                      continue;
                  }
                  table->AddKovaTask(pid, Task(pid, "churn", 4096));
                  auto lock = KovaTaskManager::Lock();
                  KovaTask* task = table->GetKovaTask(pid);
                  task->rssSize[RSS_ANON] = int64_t{4096} * round;
                  task->rssOldSize[RSS_ANON] = int64_t{4096} * round;
              }
          }) {}
    ~TableChurn() {
        done_ = true;
        thread_.join();
    }

  private:
    std::atomic<bool> done_{false};
    std::thread thread_;
};

// A storm of all four dump signals while the table changes: the process survives (the sanitizer
// builds run this for data races and memory errors). Then every full dump asked for by signal 51
// during the churn is a consistent snapshot: its count matches its lines and no record is half-changed.
TEST_F(TaskDumpTest, SignalledDumpsAreConsistentWhileTheTableChanges) {
    ASSERT_TRUE(InstallDeferredSignalHandler(51, HandleDumpSignal));
    ASSERT_TRUE(InstallDeferredSignalHandler(52, HandleNonKernelDumpSignal));
    ASSERT_TRUE(InstallDeferredSignalHandler(53, HandleDumpSignalNormal));
    ASSERT_TRUE(InstallDeferredSignalHandler(54, HandleNonKernelDumpSignalNormal));
    TableChurn churn(table_);
    for (int i = 0; i < 2000; ++i) ASSERT_EQ(kill(getpid(), 51 + i % 4), 0);
    std::this_thread::sleep_for(50ms);
    // Every task line shows the same anonymous size now and as last reported: no record is half-changed.
    const std::regex line(R"(\nchurn +\d+ +1 +3 +2 +1000 +(-?\d+) KB +(-?\d+) KB)");
    long checkedLines = 0;
    for (int i = 0; i < 40; ++i) {
        unlink((diag_ / "DUMPTASK_INFO").c_str());
        ASSERT_EQ(kill(getpid(), 51), 0);
        std::string dump;
        ASSERT_TRUE(WaitUntil([&] { return IsCompleteFullDump(dump = Dump()); }, 5s)) << dump;
        long lines = 0;
        for (std::sregex_iterator match(dump.begin(), dump.end(), line), end; match != end; ++match, ++lines) {
            ASSERT_EQ((*match)[1], (*match)[2]) << "a record was copied half-changed: " << match->str();
        }
        ASSERT_EQ(lines, std::count(dump.begin(), dump.end(), '\n') - 2) << dump;
        checkedLines += lines;
    }
    EXPECT_GT(checkedLines, 100);
}

}  // namespace
}  // namespace kova::test
