// The files the service rewrites, as their readers and a failing disk see them: a reader never opens
// half a file, a full or read-only disk (a real tmpfs; needs root) leaves the old file and is told once
// until a write succeeds again, and a start removes what crashed writers left.

#include <android-base/file.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "kova_test_support.h"
#include "service/kova_bpf_state.h"
#include "service/kova_bpf_task_manager.h"
#include "utils/kova_bpf_diagnostics.h"
#include "utils/kova_bpf_error_log.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;

std::atomic<uint64_t> gNow{1000};
uint64_t FakeClock() { return gNow.load(); }

// Whole: the header ends with head and tail, and head - tail + 1 complete lines follow.
bool IsWholeCsv(const std::string& csv) {
    long long head = 0, tail = 0;
    const size_t counts = csv.find("PollCount, ");
    return csv.starts_with("EventCount, ") && counts != std::string::npos && csv.ends_with("\r\n") &&
           sscanf(csv.c_str() + counts, "PollCount, %lld, %lld \r\n", &head, &tail) == 2 &&
           std::count(csv.begin(), csv.end(), '\n') == head - tail + 2;
}

TEST(DiagnosticFileReaderTest, ReaderNeverSeesAHalfWrittenCsv) {
    TempDir diag;
    ScopedRoot root(KOVA_DIAGNOSTICS_DIR, diag.path());
    auto state = std::make_unique<KovaBpfDataState>(FakeClock);
    state->DumpState();
    std::atomic<bool> done{false};
    std::string broken;
    std::thread reader([&] {
        std::string csv;
        while (!done.load() && broken.empty()) {
            if (!android::base::ReadFileToString(diag / KOVA_STATE_FILE_NAME, &csv) || !IsWholeCsv(csv)) {
                broken = csv.empty() ? "(missing or empty)" : csv;
            }
        }
    });
    // The file grows by a few lines per write and falls back to one line with every new instance.
    for (int write = 1; write <= 300; ++write) {
        if (write % 60 == 0) state = std::make_unique<KovaBpfDataState>(FakeClock);
        gNow += 1 + write % 7;
        state->RecordEvent(write % 14, 1);
        state->DumpState();
    }
    done = true;
    reader.join();
    EXPECT_EQ(broken, "");
}

// A diagnostics file: how the service writes it, and a piece of its failure line.
struct DiagnosticFile {
    const char* name;
    void (*write)();
    const char* failure;
};
void PrintTo(const DiagnosticFile& file, std::ostream* out) { *out << file.name; }

class FailingDiskTest : public ::testing::TestWithParam<DiagnosticFile> {
  protected:
    void SetUp() override {
        std::filesystem::create_directory(disk_);
        mounted_ = mount("kova-test", disk_.c_str(), "tmpfs", 0, "size=256k") == 0;
    }
    void TearDown() override {
        if (mounted_) umount2(disk_.c_str(), MNT_DETACH);
    }
    bool Remount(unsigned long flags) const {
        return mount(nullptr, disk_.c_str(), nullptr, MS_REMOUNT | flags, nullptr) == 0;
    }
    bool Fill() const {
        std::ofstream filler(disk_ + "/filler");
        for (int i = 0; i < 1024 && filler; ++i) filler << std::string(4096, 'f') << std::flush;
        return !filler;
    }
    // Writes `times` times: each fails and leaves the file as it was, with nothing else beside it.
    void ExpectFailedWrites(int times) const {
        const std::string before = ReadFile(disk_ + "/" + GetParam().name);
        for (int i = 0; i < times; ++i) GetParam().write();
        EXPECT_EQ(ReadFile(disk_ + "/" + GetParam().name), before);
        using std::filesystem::directory_iterator;
        EXPECT_EQ(std::distance(directory_iterator(disk_), directory_iterator()), 2);  // the file and "filler"
    }

    TempDir dir_;
    const std::string disk_ = dir_ / "disk";
    bool mounted_ = false;
    ScopedRoot root_{KOVA_DIAGNOSTICS_DIR, disk_};
    LogCapture log_;
};

TEST_P(FailingDiskTest, OldFileStaysAndEachRunOfFailuresIsToldOnce) {
    KOVA_REQUIRE(mounted_, "mounting a tmpfs needs root");
    GetParam().write();
    ASSERT_TRUE(Fill());
    ExpectFailedWrites(3);
    EXPECT_EQ(log_.CountContaining(GetParam().failure), 1) << log_.Dump();
    ASSERT_TRUE(Remount(MS_RDONLY));
    ExpectFailedWrites(2);  // another kind of failure is told again
    EXPECT_EQ(log_.CountContaining(GetParam().failure), 2) << log_.Dump();

    ASSERT_TRUE(Remount(0));
    std::filesystem::remove(disk_ + "/filler");
    GetParam().write();
    EXPECT_EQ(log_.CountContaining(disk_ + "/" + GetParam().name + " is written again after 5 failed writes"), 1);
    ASSERT_TRUE(Fill());
    ExpectFailedWrites(1);  // a failure after a recovery is news again
    EXPECT_EQ(log_.CountContaining(GetParam().failure), 3) << log_.Dump();
}

INSTANTIATE_TEST_SUITE_P(
        Files, FailingDiskTest,
        ::testing::Values(
                DiagnosticFile{KOVA_STATE_FILE_NAME, [] { KovaBpfDataState::GetInstance()->DumpState(); },
                               "[KovaBpfDataState][DumpState] open file failed!"},
                DiagnosticFile{KOVA_DUMP_FILE_NAME, [] { KovaTaskManager::GetInstance()->DumpKovaTaskInfo(); },
                               "failed to dump kova task, error: "},
                DiagnosticFile{KOVA_ERROR_LOG_NAME, [] { RecordBpfServiceErrorInfo(3, "an entry"); },
                               "failed to write "}),
        [](const auto& info) { return std::string(std::array{"State", "TaskDump", "ErrorLog"}[info.index]); });

TEST(StaleTemporaryFileTest, StartRemovesOnlyThoseOfEndedWriters) {
    TempDir diag;
    ScopedRoot root(KOVA_DIAGNOSTICS_DIR, diag.path());
    const pid_t ended = fork();
    if (ended == 0) _exit(0);
    ASSERT_EQ(waitpid(ended, nullptr, 0), ended);
    const std::string crashed = diag / ".error.log.tmp-" + std::to_string(ended) + "-0";
    const std::string running = diag / ".DUMPTASK_INFO.tmp-" + std::to_string(getppid()) + "-4";
    for (const std::string& path : {crashed, running}) WriteFile(path, "partial");
    InitBpfServiceErrorLog();
    EXPECT_FALSE(FileExists(crashed));
    EXPECT_TRUE(FileExists(running));
}

}  // namespace
}  // namespace kova::test
