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

class TaskDumpTest : public ::testing::Test {
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
