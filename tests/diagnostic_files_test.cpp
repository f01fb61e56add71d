// The files the service rewrites, as their readers and a failing disk see them: a reader never opens
// half a file, a full or read-only disk leaves the old file and is told once until a write succeeds
// again, and temporaries a crashed writer left are removed at the next start.

#include <android-base/file.h>
#include <android/log.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <set>
#include <thread>

#include "kova_test_support.h"
#include "service/kova_bpf_state.h"
#include "service/kova_bpf_task_manager.h"
#include "utils/kova_bpf_diagnostics.h"
#include "utils/kova_bpf_error_log.h"
#include "utils/kova_bpf_paths.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;

std::atomic<uint64_t> gNow{1000};
uint64_t FakeClock() { return gNow.load(); }

// A whole CSV: the header ends with head and tail, and head - tail + 1 complete lines of 16 values follow.
bool IsWholeCsv(const std::string& csv) {
    long long head = 0, tail = 0;
    const size_t headerEnd = csv.find("\r\n");
    const size_t counts = csv.find("PollCount, ");
    if (!csv.starts_with("EventCount, ") || counts >= headerEnd || headerEnd == std::string::npos ||
        sscanf(csv.c_str() + counts + strlen("PollCount, "), "%lld, %lld \r\n", &head, &tail) != 2) {
        return false;
    }
    size_t lines = 0;
    for (size_t start = headerEnd + 2; start < csv.size(); ++lines) {
        const size_t end = csv.find("\r\n", start);
        if (end == std::string::npos) return false;  // a cut last line
        const std::string line = csv.substr(start, end - start);
        if (std::count(line.begin(), line.end(), ',') != 16) return false;
        start = end + 2;
    }
    return static_cast<long long>(lines) == head - tail + 1;
}

TEST(DiagnosticFileReaderTest, ReaderNeverSeesAHalfWrittenCsv) {
    TempDir diag;
    ScopedRoot root(KOVA_DIAGNOSTICS_DIR, diag.path());
    const std::string path = diag / KOVA_STATE_FILE_NAME;
    auto state = std::make_unique<KovaBpfDataState>(FakeClock);
    state->DumpState();

    std::atomic<bool> done{false};
    std::atomic<int> reads{0};
    std::string broken;
    std::thread reader([&] {
        std::string csv;
        while (!done.load() && broken.empty()) {
            if (!android::base::ReadFileToString(path, &csv) || !IsWholeCsv(csv)) {
                broken = csv.empty() ? "(missing or empty)" : csv;
            }
            reads.fetch_add(1);
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
    EXPECT_GT(reads.load(), 300);
}

// One diagnostics file: how the service writes it, and the error line of its first failure.
struct DiagnosticFile {
    const char* label;
    const char* name;
    void (*write)();
    std::string (*failureLine)(const std::string& path, const std::string& error);
};

std::string StateFailure(const std::string&, const std::string&) {
    return "[KovaBpfDataState][DumpState] open file failed!";
}
std::string DumpFailure(const std::string&, const std::string& error) {
    return "failed to dump kova task, error: " + error;
}
std::string LogFailure(const std::string& path, const std::string& error) {
    return "failed to write " + path + ", error: " + error;
}

const DiagnosticFile kDiagnosticFiles[] = {
        {"State", KOVA_STATE_FILE_NAME, [] { KovaBpfDataState::GetInstance()->DumpState(); }, StateFailure},
        {"TaskDump", KOVA_DUMP_FILE_NAME, [] { KovaTaskManager::GetInstance()->DumpKovaTaskInfo(); }, DumpFailure},
        {"ErrorLog", KOVA_ERROR_LOG_NAME, [] { RecordBpfServiceErrorInfo(3, "an entry"); }, LogFailure},
};

void PrintTo(const DiagnosticFile& file, std::ostream* out) { *out << file.name; }

class FailingDiskTest : public ::testing::TestWithParam<DiagnosticFile> {
  protected:
    std::string Path() const { return dir_ / "disk/" + GetParam().name; }
    ino_t Inode() const {
        struct stat status {};
        return stat(Path().c_str(), &status) == 0 ? status.st_ino : 0;
    }
    std::set<std::string> Entries() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir_ / "disk")) {
            names.insert(entry.path().filename());
        }
        return names;
    }
    // Writes `times` times; each must fail and leave the file as it was, with no temporary file behind.
    void ExpectFailedWrites(int times) {
        const std::string before = ReadFile(Path());
        const ino_t inode = Inode();
        for (int i = 0; i < times; ++i) GetParam().write();
        EXPECT_EQ(ReadFile(Path()), before);
        EXPECT_EQ(Inode(), inode);
        EXPECT_EQ(Entries(), (std::set<std::string>{GetParam().name, "filler"}));
    }
    // Error lines so far about this file, for either failure (the state file's line names neither).
    int ErrorLines() const {
        const std::string full = GetParam().failureLine(Path(), strerror(ENOSPC));
        const std::string readOnly = GetParam().failureLine(Path(), strerror(EROFS));
        return log_.Count(ANDROID_LOG_ERROR, "BpfUtils", full) +
               (readOnly == full ? 0 : log_.Count(ANDROID_LOG_ERROR, "BpfUtils", readOnly));
    }

    TempDir dir_;
    ScopedTmpfs disk_{dir_ / "disk", 256 * 1024};
    ScopedRoot root_{KOVA_DIAGNOSTICS_DIR, dir_ / "disk"};
    LogCapture log_;
};

TEST_P(FailingDiskTest, OldFileStaysAndEachRunOfFailuresIsToldOnce) {
    KOVA_REQUIRE(disk_.ok(), disk_.error());
    GetParam().write();
    ASSERT_NE(ReadFile(Path()), "");

    ASSERT_TRUE(disk_.Fill());
    ExpectFailedWrites(3);
    EXPECT_EQ(ErrorLines(), 1) << log_.Dump();
    ASSERT_TRUE(disk_.SetReadOnly(true));
    ExpectFailedWrites(2);  // another kind of failure is told again
    EXPECT_EQ(ErrorLines(), 2) << log_.Dump();

    ASSERT_TRUE(disk_.SetReadOnly(false));
    disk_.Free();
    const ino_t old = Inode();
    GetParam().write();
    EXPECT_NE(Inode(), old);
    EXPECT_EQ(log_.Count(ANDROID_LOG_INFO, "BpfUtils", Path() + " is written again after 5 failed writes"), 1);

    ASSERT_TRUE(disk_.Fill());
    ExpectFailedWrites(1);  // a failure after a recovery is news again
    EXPECT_EQ(ErrorLines(), 3) << log_.Dump();
}

INSTANTIATE_TEST_SUITE_P(Files, FailingDiskTest, ::testing::ValuesIn(kDiagnosticFiles),
                         [](const auto& info) { return std::string(info.param.label); });

TEST(StaleTemporaryFileTest, StartRemovesOnlyThoseOfEndedWriters) {
    TempDir diag;
    ScopedRoot root(KOVA_DIAGNOSTICS_DIR, diag.path());
    const pid_t ended = fork();
    if (ended == 0) _exit(0);
    ASSERT_EQ(waitpid(ended, nullptr, 0), ended);
    const std::string crashed = diag / ".error.log.tmp-" + std::to_string(ended) + "-0";
    const std::string running = diag / ".DUMPTASK_INFO.tmp-" + std::to_string(getppid()) + "-4";
    const std::string other = diag / ".error.log.tmp-notes";
    for (const std::string& path : {crashed, running, other}) WriteFile(path, "partial");
    InitBpfServiceErrorLog();
    EXPECT_FALSE(FileExists(crashed));
    EXPECT_TRUE(FileExists(running));
    EXPECT_TRUE(FileExists(other));
}

}  // namespace
}  // namespace kova::test
