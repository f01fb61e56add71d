// The utilities: string and file helpers, the path seam, the time base, and the error log (entry
// format, newest first, the 4999-line cap and one rotation per start).

#include <android/log.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <thread>

#include "kova_test_support.h"
#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_error_log.h"
#include "utils/kova_bpf_locking.h"
#include "utils/kova_bpf_paths.h"
#include "utils/kova_bpf_time.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;
using Tokens = std::vector<std::string>;

TEST(CommonTest, StringHelpersHandleTheirEdges) {
    for (const char* notDigits : {"", "12a", "-1", " 1"}) EXPECT_FALSE(IsDigits(notDigits)) << notDigits;
    EXPECT_TRUE(IsDigits("0123"));
    // Split drops empty tokens and matches whole delimiters.
    const struct {
        std::string input, delimiter;
        Tokens expected;
    } cases[] = {{",a,,b,", ",", {"a", "b"}}, {"", ",", {}},          {"5.10", ".", {"5", "10"}},
                 {"x::y:z", "::", {"x", "y:z"}}, {"::", "::", {}}};
    for (const auto& c : cases) EXPECT_EQ(Split(c.input, c.delimiter), c.expected) << c.input;
    const unsigned char bytes[] = {0x0a, 0xff, 0x05, 0x00};
    EXPECT_EQ(ConvertToHexString(bytes, 4), "0a ff 05 00 ");
    EXPECT_EQ(ConvertToHexString(bytes, -3), "");
    const std::string big(100000, 'k');  // no length limit
    EXPECT_EQ(StringPrintf("<%s>%d", big.c_str(), 7), "<" + big + ">7");
    EXPECT_EQ(SubAbs(3, 10), 7u);
    EXPECT_EQ(SubAbs(INT64_MAX, -1), uint64_t{1} << 63);
    EXPECT_EQ(SubAbs(INT64_MIN, 0), uint64_t{1} << 63);
}

TEST(CommonTest, FileHelpersReadLinksAndMakeDirectories) {
    TempDir dir;
    ASSERT_EQ(symlink("/dmabuf:target", (dir / "link").c_str()), 0);
    WriteFile(dir / "plain", "x");
    EXPECT_EQ(ReadSymlink((dir / "link").c_str()), "/dmabuf:target");
    EXPECT_EQ(ReadSymlink((dir / "plain").c_str()), "");
    EXPECT_TRUE(MakeDirectories(dir / "a/b/c", 0775));
    EXPECT_TRUE(MakeDirectories(dir / "a/b/c", 0775));  // existing is fine
    EXPECT_FALSE(MakeDirectories(dir / "plain", 0775));
}

// Every fixed root, a path under it, and the variable that redirects it in a fresh process.
const struct {
    const char* root;
    const char* rest;
    const char* variable;
} kRoots[] = {{KOVA_DIAGNOSTICS_DIR, "/error.log", "KOVA_DIAG_DIR"}, {KOVA_PIN_DIR, "/", "KOVA_PIN_DIR"},
              {KOVA_PROC_DIR, "/12/status", "KOVA_PROC_DIR"},     {KOVA_PROC_STAT, "", "KOVA_PROC_STAT"},
              {KOVA_CPUFREQ_DIR, "/policy0", "KOVA_CPUFREQ_DIR"}, {KOVA_SOCKET_NAME, "", "KOVA_SOCKET_NAME"},
              {KOVA_PID_FILE, "", "KOVA_PID_FILE"}};

TEST(PathSeamTest, EveryRootIsUnchangedUntilRedirected) {
    for (const auto& r : kRoots) {
        const std::string path = std::string(r.root) + r.rest;
        EXPECT_EQ(KovaPath(path), path);
        {
            ScopedRoot moved(r.root, std::string("/tmp/moved-") + r.variable);
            EXPECT_EQ(KovaPath(path), std::string("/tmp/moved-") + r.variable + r.rest);
        }
        EXPECT_EQ(KovaPath(path), path);
    }
    ScopedRoot proc(KOVA_PROC_DIR, "/tmp/fakeproc");
    EXPECT_EQ(KovaPath("/proc/stat"), "/tmp/fakeproc/stat");  // follows "/proc" until redirected itself
    EXPECT_EQ(KovaPath("/procfoo"), "/procfoo");             // roots end at a path separator
    ScopedRoot stat(KOVA_PROC_STAT, "/tmp/stat");
    EXPECT_EQ(KovaPath("/proc/stat"), "/tmp/stat");
    EXPECT_EQ(KovaPath("/run/other"), "/run/other");
    EXPECT_FALSE(RedirectKovaRoot("/not/a/root", "/x"));
}

TEST(PathSeamTest, EnvironmentRedirectsEveryRootOfAFreshProcess) {
    // The environment is read once, at the first call; this test runs in a process of its own.
    for (const auto& r : kRoots) setenv(r.variable, (std::string("/env/") + r.variable).c_str(), 1);
    for (const auto& r : kRoots) {
        EXPECT_EQ(KovaPath(std::string(r.root) + r.rest), std::string("/env/") + r.variable + r.rest) << r.root;
    }
}

class BaseTimeTest : public ::testing::Test {
  protected:
    TempDir dir_;
    ScopedRoot stat_{KOVA_PROC_STAT, dir_ / "stat"};
};

TEST_F(BaseTimeTest, BtimeLineSetsTheBaseTimeAndShiftsEpochClocks) {
    WriteFile(dir_ / "stat", "cpu  1 2 3\nintr 5\nbtime 1700000000\nprocesses 9\n");
    ASSERT_TRUE(InitBasetime());
    EXPECT_EQ(GetBasetime(), 1700000000);
    timespec mono{};
    clock_gettime(CLOCK_MONOTONIC, &mono);
    const uint64_t seconds = GetSystemNanosencondsTime() / 1000000000ULL;
    EXPECT_GE(seconds, 1700000000ULL + mono.tv_sec);
    EXPECT_LE(seconds, 1700000000ULL + mono.tv_sec + 1);
    EXPECT_LE(GetSystemMicrosencondsTime() / 1000 - GetSystemMillisecondsTime(true), 1u);
    EXPECT_LE(GetSystemBootNanosencondsTime() / 1000000000ULL, static_cast<uint64_t>(mono.tv_sec) + 1);
}

TEST_F(BaseTimeTest, NoBtimeLineLeavesTheBaseTimeAtZeroAndNoFileFails) {
    WriteFile(dir_ / "stat", "cpu  1 2 3\nbtim 12345678\nprocesses 9\n");  // a near miss
    EXPECT_TRUE(InitBasetime());
    EXPECT_EQ(GetBasetime(), 0);
    timespec mono{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &mono);
    EXPECT_LE(GetSystemSecondsTime() - static_cast<uint64_t>(mono.tv_sec), 1u);  // counts from boot
    unlink((dir_ / "stat").c_str());
    EXPECT_FALSE(InitBasetime());
}

TEST(RealBaseTimeTest, RealProcStatMatchesTheWallClock) {
    ASSERT_TRUE(InitBasetime());
    // Boot time plus monotonic time tracks the wall clock to within a few seconds of suspend drift.
    const int64_t drift = static_cast<int64_t>(GetSystemSecondsTime()) - static_cast<int64_t>(time(nullptr));
    EXPECT_LT(std::abs(drift), 5);
}

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
                                                  R"(\nCmdline: [^\n]*utils_test[^\n]* \nComm: errlog-test\n)"
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

TEST_F(ErrorLogTest, UnwritableLogIsReportedOnceAndItsEntriesLost) {
    ScopedRoot blocked(KOVA_DIAGNOSTICS_DIR, "/proc/self/kova-no-such-dir");
    LogCapture capture;
    for (int i = 0; i < 3; ++i) RecordBpfServiceErrorInfo(5, "lost");
    EXPECT_EQ(capture.CountContaining("failed to write /proc/self/kova-no-such-dir/error.log, error: "), 1);
    EXPECT_EQ(capture.CountContaining("failed to read /proc/self/kova-no-such-dir/error.log, error: "), 1);
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

// Threads that now and then hold the lock long enough for the others to stop spinning and sleep: no
// increment is lost, and every sleeper is woken (a lost wake-up hangs the test).
TEST(AdaptiveMutexTest, ExcludesAndWakesTheThreadsThatSleptOnIt) {
    Kova::Bpf::AdaptiveMutex mutex;
    int64_t counter = 0;
    constexpr int kThreads = 4, kRounds = 100000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                std::lock_guard<Kova::Bpf::AdaptiveMutex> lock(mutex);
                ++counter;
                if (i % 5000 == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(counter, int64_t{kThreads} * kRounds);
}

}  // namespace
}  // namespace kova::test
