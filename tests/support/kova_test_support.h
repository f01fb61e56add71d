// Shared fixtures and verbs for the test suites: temporary directories, redirected roots and
// properties, log capture, waiting for conditions, running the project's own programs, and the rule
// that kernel-dependent tests skip with a reason, or fail when CI is set.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "host/log_capture.h"
#include "utils/kova_bpf_paths.h"

namespace kova::test {

using kova::host::LogRecord;
using kova::host::SetLogSink;

// Skips the current test with `reason`, or fails it when the environment variable CI is set, so that
// tests needing the real kernel cannot silently vanish in CI. Use as: KOVA_REQUIRE(HaveBpf(), "...").
#define KOVA_REQUIRE(condition, reason)                                          \
    do {                                                                         \
        if (!(condition)) {                                                      \
            if (::kova::test::InCi()) FAIL() << "required in CI: " << (reason);  \
            GTEST_SKIP() << (reason);                                            \
        }                                                                        \
    } while (0)

bool InCi();

// A temporary directory, removed with everything in it on destruction. It is made under /tmp, or under
// the directory named by kTempBaseVariable: a death test that re-runs the test in a child sets it, so
// that the directories of a child that aborts are removed by the parent.
inline constexpr char kTempBaseVariable[] = "KOVA_TEST_TMPDIR";
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

void RemoveTree(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);  // creates parent directories
std::string ReadFile(const std::string& path);                        // "" when missing
bool FileExists(const std::string& path);

// Redirects one of the service's fixed roots for the lifetime of the object.
class ScopedRoot {
  public:
    ScopedRoot(const std::string& root, const std::string& replacement);
    ~ScopedRoot();

  private:
    std::string root_;
};

// An abstract socket name that no other test process uses.
std::string UniqueSocketName();

// Redirects everything a service started in this process touches outside the test: the diagnostics
// directory, the pin directory (so no real pinned object is ever drained) and the socket name.
class ScopedServiceRoots {
  public:
    const std::string& dir() const { return dir_.path(); }
    const std::string& socketName() const { return socketName_; }

  private:
    TempDir dir_;
    std::string socketName_ = UniqueSocketName();
    ScopedRoot diag_{Kova::Bpf::KOVA_DIAGNOSTICS_DIR, dir_ / "diag"};
    ScopedRoot pins_{Kova::Bpf::KOVA_PIN_DIR, dir_ / "pins"};
    ScopedRoot socket_{Kova::Bpf::KOVA_SOCKET_NAME, socketName_};
};

// Points the property store at a temporary directory (KOVA_PROPERTY_DIR) for the lifetime of the object.
class ScopedPropertyStore {
  public:
    ScopedPropertyStore();
    ~ScopedPropertyStore();
    const std::string& path() const { return dir_.path(); }
    void Set(const std::string& name, const std::string& value);

  private:
    TempDir dir_;
};

// Captures every log line of the process while alive.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    std::vector<LogRecord> Records() const;
    // Number of lines with exactly this priority, tag and message.
    int Count(int priority, const std::string& tag, const std::string& message) const;
    bool Has(int priority, const std::string& tag, const std::string& message) const {
        return Count(priority, tag, message) > 0;
    }
    // Number of lines whose message contains `fragment`.
    int CountContaining(const std::string& fragment) const;
    // Waits until a line with this message appears; false after `timeout`.
    bool WaitFor(const std::string& message, std::chrono::milliseconds timeout) const;
    std::string Dump() const;  // every captured line, for failure messages

  private:
    mutable std::mutex lock_;
    std::vector<LogRecord> records_;
};

// Polls `condition` every 10 ms until it holds or `timeout` passes; returns its last value.
bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

// Path of one of the project's executables (kovabpfd, kova-setprop, ...) in this build.
std::string ProjectBinary(const std::string& name);

// Runs a program to completion with extra environment entries ("NAME=value"); returns its exit status
// (or -1) and its standard output in *output when given.
int RunProgram(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {},
               std::string* output = nullptr);

// A program started in the background, with stderr captured to a file (and stdout too when a path is
// given); killed on destruction.
class ChildProcess {
  public:
    ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv,
                 const std::string& stderrPath, const std::string& stdoutPath = "");
    ~ChildProcess();
    pid_t pid() const { return pid_; }
    bool Signal(int signo) const;
    // Waits for the exit; returns the wait status, or -1 after `timeout` (the child keeps running).
    int WaitForExit(std::chrono::milliseconds timeout);
    bool running();

  private:
    pid_t pid_ = -1;
    bool reaped_ = false;
    int status_ = 0;
};

// Ids of the threads of process `pid` (0: this one), the entries of /proc/PID/task; and the names of
// this process's threads (from .../comm).
std::vector<std::string> ThreadIds(pid_t pid = 0);
std::vector<std::string> ThreadNames();

}  // namespace kova::test
