// The task table's operations, its order, and the four dumps, including dumps asked for by real
// signals while another thread changes the table.

#include <android/log.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <thread>

#include "kova_test_support.h"
#include "service/kova_bpf_task_manager.h"
#include "utils/kova_bpf_paths.h"
#include "utils/kova_bpf_signal_worker.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;
using namespace std::chrono_literals;

// A task with the given RSS values in bytes: file, anonymous, swap, shared memory.
KovaTask Task(int pid, const char* comm, int64_t file = 0, int64_t anon = 0, int64_t swap = 0, int64_t shmem = 0) {
    KovaTask task{};
    task.pid = pid;
    task.ppid = 1;
    task.uid = 1000;
    task.threadNum = 3;
    task.oldThreadNum = 2;
    snprintf(task.comm, sizeof(task.comm), "%s", comm);
    task.mmId = 1000;
    task.rssSize[RSS_FILE] = file;
    task.rssSize[RSS_ANON] = anon;
    task.rssSize[RSS_SWAP] = swap;
    task.rssSize[RSS_SHMEM] = shmem;
    task.initTimeStamp = 1700000000 + pid;
    return task;
}

TEST(TaskTableTest, AddOverwritesInPlaceAndGetNeverInserts) {
    KovaTaskManager* table = KovaTaskManager::GetInstance();
    EXPECT_EQ(table->GetKovaTask(7), nullptr);
    EXPECT_EQ(table->GetKovaTaskCount(), 0u);
    EXPECT_EQ(table->AddKovaTask(7, Task(7, "first")), 0);
    KovaTask* stored = table->GetKovaTask(7);
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(table->AddKovaTask(7, Task(7, "second")), 0);
    EXPECT_EQ(table->GetKovaTaskCount(), 1u);
    EXPECT_EQ(table->GetKovaTask(7), stored);  // the pointer survives an overwrite
    EXPECT_STREQ(stored->comm, "second");
}

TEST(TaskTableTest, DeletesReportAbsentKeysAsTheirOwnRulesSay) {
    KovaTaskManager* table = KovaTaskManager::GetInstance();
    errno = 0;
    EXPECT_EQ(table->DelKovaTask(99), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(table->DelMmidIndex(99), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(table->DelRssTempTask(99), 0);  // absent, yet success
    EXPECT_EQ(errno, ENOENT);

    table->AddKovaTask(5, Task(5, "five"));
    errno = EINVAL;
    EXPECT_EQ(table->DelKovaTask(5), 0);
    EXPECT_EQ(errno, 0);
    table->AddRssTempTask(3, Task(3, "temp"));
    ASSERT_NE(table->GetRssTempTask(3), nullptr);
    EXPECT_STREQ(table->GetRssTempTask(3)->comm, "temp");
    EXPECT_EQ(table->DelRssTempTask(3), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(table->GetRssTempTask(3), nullptr);
}

TEST(TaskTableTest, MmidIndexKeepsItsPointerAfterTheTaskIsDeleted) {
    KovaTaskManager* table = KovaTaskManager::GetInstance();
    table->AddKovaTask(11, Task(11, "indexed"));
    KovaTask* task = table->GetKovaTask(11);
    EXPECT_EQ(table->AddMmidIndex(1000, task), 0);
    EXPECT_EQ(table->GetKovaTaskByMmid(1000), task);
    EXPECT_EQ(table->DelKovaTask(11), 0);
    EXPECT_EQ(table->GetKovaTaskByMmid(1000), task);  // left dangling on purpose; never dereferenced here
    EXPECT_EQ(table->DelMmidIndex(1000), 0);
    EXPECT_EQ(table->GetKovaTaskByMmid(1000), nullptr);
}

TEST(TaskTableTest, CompareOrdersByTotalFootprintDescending) {
    const KovaTask big = Task(1, "big", 4 << 20, 4 << 20, 1 << 20, 1 << 20);  // 10 MiB
    const KovaTask small = Task(2, "small", 5 << 20);                         // 5 MiB
    const KovaTask sameAsSmall = Task(3, "same", 0, 2 << 20, 2 << 20, 1 << 20);
    EXPECT_TRUE(CompareKovaTask(big, small));
    EXPECT_FALSE(CompareKovaTask(small, big));
    EXPECT_FALSE(CompareKovaTask(small, sameAsSmall));
    EXPECT_FALSE(CompareKovaTask(sameAsSmall, small));
}

class TaskDumpTest : public ::testing::Test {
  protected:
    std::string Dump() const { return ReadFile(diag_ / "DUMPTASK_INFO"); }
    // The dump without its title line; checks that the title holds `count` and the current time.
    std::string BodyAfterTitle(const std::string& dump, unsigned count, time_t before) const {
        const size_t newline = dump.find('\n');
        const std::string title = dump.substr(0, newline);
        std::smatch match;
        EXPECT_TRUE(std::regex_match(title, match,
                                     std::regex(R"(============ DUMP ALL KOVA TASKS INFO \(count: (\d+), time: (\d+)\) ============)")))
                << title;
        if (match.size() == 3) {
            EXPECT_EQ(std::stoul(match[1]), count);
            EXPECT_GE(std::stol(match[2]), before);
            EXPECT_LE(std::stol(match[2]), time(nullptr));
        }
        return dump.substr(newline + 1);
    }

    TempDir diag_;
    ScopedRoot root_{KOVA_DIAGNOSTICS_DIR, diag_.path()};
    KovaTaskManager* table_ = KovaTaskManager::GetInstance();
};

const std::string kFullHeader =
        "comm               pid         ppid        threadNum   oldThreadNum mmId        rssAnonSize         "
        "rssAnonOldSize      rssFileSize         rssFileOldSize      rssShmemSize        rssShmemOldSize     "
        "rssSwapSize         rssSwapOldSize      initTimeStamp       \n";
const std::string kShortHeader =
        "comm               pid         ppid        threadNum   mmId        rssAnonSize         rssFileSize         "
        "rssShmemSize        rssSwapSize         initTimeStamp       \n";

TEST_F(TaskDumpTest, EmptyTableGivesTitleAndHeaderOnly) {
    const time_t before = time(nullptr);
    table_->DumpKovaTaskInfo();
    EXPECT_EQ(BodyAfterTitle(Dump(), 0, before), kFullHeader);
    table_->DumpKovaTaskInfoNormal();
    EXPECT_EQ(BodyAfterTitle(Dump(), 0, before), kShortHeader);
}

TEST_F(TaskDumpTest, FullAndShortLinesHaveTheirExactWidths) {
    KovaTask task = Task(4242, "exactly15chars_", 8192, 1023, 4096, 2048);
    task.rssOldSize[RSS_ANON] = 10240;
    task.rssOldSize[RSS_FILE] = -2048;
    table_->AddKovaTask(4242, task);
    const time_t before = time(nullptr);

    table_->DumpKovaTaskInfo();
    EXPECT_EQ(BodyAfterTitle(Dump(), 1, before),
              kFullHeader +
                      "exactly15chars_    4242        1           3           2            1000                 0 KB"
                      "               10 KB                8 KB               -2 KB                2 KB"
                      "                0 KB                4 KB                0 KB          1700004242\n");

    table_->DumpKovaTaskInfoNormal();
    EXPECT_EQ(BodyAfterTitle(Dump(), 1, before),
              kShortHeader +
                      "exactly15chars_    4242        1           3           1000                 0 KB"
                      "                8 KB                2 KB                4 KB          1700004242\n");
}

TEST_F(TaskDumpTest, LargestFootprintComesFirstAndShortCommsArePadded) {
    table_->AddKovaTask(1, Task(1, "init", 1 << 20));
    table_->AddKovaTask(2, Task(2, "big", 8 << 20));
    table_->AddKovaTask(3, Task(3, "mid", 0, 2 << 20));
    table_->DumpKovaTaskInfoNormal();
    const std::string body = BodyAfterTitle(Dump(), 3, time(nullptr) - 1).substr(kShortHeader.size());
    EXPECT_TRUE(body.starts_with("big                " "2 ")) << body;
    EXPECT_LT(body.find("big "), body.find("mid "));
    EXPECT_LT(body.find("mid "), body.find("init "));
}

TEST_F(TaskDumpTest, KernelTaskFilterKeepsTheWholeCountInTheTitle) {
    for (int pid = 100; pid < 110; ++pid) {
        const bool kernel = pid < 104;  // four tasks without any RSS counter
        table_->AddKovaTask(pid, Task(pid, kernel ? "kworker" : "app", kernel ? 0 : 4096 * pid));
    }
    // Plain calls rather than calls through member-function pointers: built with GCC 12 and
    // -fsanitize=undefined, the loop over member-function pointers reported `this` as an object with an
    // invalid vptr on every run, although the fixture is intact.
    const auto checkWithoutKernelTasks = [&](const std::string& header) {
        const std::string body = BodyAfterTitle(Dump(), 10, time(nullptr) - 1);
        ASSERT_TRUE(body.starts_with(header));
        EXPECT_EQ(std::count(body.begin(), body.end(), '\n'), 1 + 6);
        EXPECT_EQ(body.find("kworker"), std::string::npos);
    };
    table_->DumpKovaTaskIgnoreKernelTaskInfo();
    checkWithoutKernelTasks(kFullHeader);
    table_->DumpKovaTaskIgnoreKernelTaskInfoNormal();
    checkWithoutKernelTasks(kShortHeader);
    table_->DumpKovaTaskInfo();
    const std::string body = BodyAfterTitle(Dump(), 10, time(nullptr) - 1);
    EXPECT_EQ(std::count(body.begin(), body.end(), '\n'), 1 + 10);
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
                  task->rssSize[RSS_ANON] = int64_t{4096} * round;  // past 2^19 rounds an int overflows
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

void InstallTaskDumpSignals() {
    ASSERT_TRUE(InstallDeferredSignalHandler(51, HandleDumpSignal));
    ASSERT_TRUE(InstallDeferredSignalHandler(52, HandleNonKernelDumpSignal));
    ASSERT_TRUE(InstallDeferredSignalHandler(53, HandleDumpSignalNormal));
    ASSERT_TRUE(InstallDeferredSignalHandler(54, HandleNonKernelDumpSignalNormal));
}

// Every full dump asked for by signal 51 during the churn is a consistent snapshot: its count matches
// its lines and no record is half-changed.
TEST_F(TaskDumpTest, SignalledDumpsAreConsistentWhileTheTableChanges) {
    InstallTaskDumpSignals();
    TableChurn churn(table_);
    const std::regex line(R"(churn +\d+ +1 +3 +2 +1000 +(-?\d+) KB +(-?\d+) KB.*)");
    int checkedLines = 0;
    for (int i = 0; i < 40; ++i) {
        unlink((diag_ / "DUMPTASK_INFO").c_str());
        ASSERT_EQ(kill(getpid(), 51), 0);
        std::string dump;
        ASSERT_TRUE(WaitUntil([&] { return IsCompleteFullDump(dump = Dump()); }, 5s)) << dump;
        for (size_t start = dump.find('\n', dump.find('\n') + 1) + 1; start < dump.size();) {
            const size_t end = dump.find('\n', start);
            const std::string text = dump.substr(start, end - start);
            std::smatch match;
            ASSERT_TRUE(std::regex_match(text, match, line)) << text;
            ASSERT_EQ(match[1], match[2]) << "a record was copied half-changed: " << text;
            ++checkedLines;
            start = end + 1;
        }
    }
    EXPECT_GT(checkedLines, 100);
}

// A storm of all four dump signals while the table changes: the process survives, and the last dump
// asked for is written whole. The sanitizer builds run this for data races and memory errors.
TEST_F(TaskDumpTest, DumpSignalStormWhileTheTableChanges) {
    InstallTaskDumpSignals();
    {
        TableChurn churn(table_);
        for (int i = 0; i < 2000; ++i) ASSERT_EQ(kill(getpid(), 51 + i % 4), 0);
        std::this_thread::sleep_for(50ms);
    }
    unlink((diag_ / "DUMPTASK_INFO").c_str());
    ASSERT_EQ(kill(getpid(), 51), 0);
    EXPECT_TRUE(WaitUntil([&] { return IsCompleteFullDump(Dump()); }, 5s));
}

}  // namespace
}  // namespace kova::test
