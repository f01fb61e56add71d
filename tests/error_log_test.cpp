// The error log: entry format, newest first, the 4999-line cap and one rotation per start.

#include <android/log.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <thread>

#include "kova_test_support.h"
#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_error_log.h"
#include "utils/kova_bpf_paths.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;

class ErrorLogTest : public ::testing::Test {
  protected:
    std::string LogPath() const { return diag_ / "error.log"; }
    std::string OldLogPath() const { return diag_ / "error.old.log"; }
    std::vector<std::string> LogLines() const {
        std::istringstream text(ReadFile(LogPath()));
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);) lines.push_back(line);
        return lines;
    }

    TempDir diag_;
    ScopedRoot root_{KOVA_DIAGNOSTICS_DIR, diag_.path()};
};

TEST_F(ErrorLogTest, EntryNamesTimeProcessThreadCodeAndText) {
    prctl(PR_SET_NAME, "errlog-test");
    LogCapture capture;
    RecordBpfServiceErrorInfo(2, "Ipc package damage");
    // The first entry reports the missing log and is written all the same.
    EXPECT_TRUE(capture.Has(ANDROID_LOG_ERROR, "BpfUtils",
                            "failed to read " + LogPath() + ", error: No such file or directory"));
    const std::string text = ReadFile(LogPath());
    EXPECT_TRUE(std::regex_match(text, std::regex(R"(----------\nTime: \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\nPid: )" +
                                                  std::to_string(getpid()) + "\nTid: " + std::to_string(gettid()) +
                                                  R"(\nCmdline: [^\n]*error_log_test[^\n]* \nComm: errlog-test\n)"
                                                  R"(ErrorCode: 2\nError: Ipc package damage\n\n)")))
            << text;
}

TEST_F(ErrorLogTest, KeepsTheNewEntryABlankLineAndTheFirst4999OldLines) {
    std::string old;
    for (int i = 0; i < 6000; ++i) old += "old line " + std::to_string(i) + "\n";
    WriteFile(LogPath(), old);
    RecordBpfServiceErrorInfo(7, "capped");
    const std::vector<std::string> lines = LogLines();
    ASSERT_EQ(lines.size(), 8u + 1u + 4999u);
    EXPECT_EQ(lines[7], "Error: capped");
    EXPECT_EQ(lines[8], "");
    EXPECT_EQ(lines[9], "old line 0");
    EXPECT_EQ(lines.back(), "old line 4998");
}

TEST_F(ErrorLogTest, UnwritableLogIsReportedAndLost) {
    ScopedRoot blocked(KOVA_DIAGNOSTICS_DIR, "/proc/self/kova-no-such-dir");
    LogCapture capture;
    RecordBpfServiceErrorInfo(5, "lost");
    EXPECT_EQ(capture.CountContaining("failed to write /proc/self/kova-no-such-dir/error.log, error: "), 1);
}

TEST_F(ErrorLogTest, ConcurrentCallersLoseNoEntry) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 20; ++i) RecordBpfServiceErrorInfo(t, "entry");
        });
    }
    for (std::thread& thread : threads) thread.join();
    const std::vector<std::string> lines = LogLines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "----------"), 160);
}

TEST_F(ErrorLogTest, EachStartKeepsOnlyThePreviousStartsLog) {
    EXPECT_EQ(InitBpfServiceErrorLog(), -1);  // nothing to rotate yet
    RecordBpfServiceErrorInfo(1, "first run");
    EXPECT_EQ(InitBpfServiceErrorLog(), 0);
    EXPECT_FALSE(FileExists(LogPath()));
    EXPECT_NE(ReadFile(OldLogPath()).find("Error: first run"), std::string::npos);
    RecordBpfServiceErrorInfo(1, "second run");
    EXPECT_EQ(InitBpfServiceErrorLog(), 0);
    const std::string old = ReadFile(OldLogPath());
    EXPECT_NE(old.find("Error: second run"), std::string::npos);
    EXPECT_EQ(old.find("first run"), std::string::npos);
}

TEST(ErrorLogDirectoryTest, StartCreatesTheDiagnosticsDirectory) {
    TempDir base;
    ScopedRoot root(KOVA_DIAGNOSTICS_DIR, base / "data/kovalog/stability/kovabpfframework");
    InitBpfServiceErrorLog();
    EXPECT_TRUE(FileExists(base / "data/kovalog/stability/kovabpfframework"));
}

}  // namespace
}  // namespace kova::test
