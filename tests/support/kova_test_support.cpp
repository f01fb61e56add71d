#include "kova_test_support.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "utils/kova_bpf_paths.h"

extern char** environ;

namespace kova::test {

bool InCi() {
    const char* ci = getenv("CI");
    return ci != nullptr && ci[0] != '\0' && std::string(ci) != "0" && std::string(ci) != "false";
}

TempDir::TempDir() {
    const char* base = getenv(kTempBaseVariable);
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kova-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) abort();
    path_ = pattern;
}

TempDir::~TempDir() { RemoveTree(path_); }

void RemoveTree(const std::string& path) {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

void WriteFile(const std::string& path, const std::string& content) {
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool FileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

ScopedRoot::ScopedRoot(const std::string& root, const std::string& replacement) : root_(root) {
    if (!Kova::Bpf::RedirectKovaRoot(root, replacement)) abort();
}

ScopedRoot::~ScopedRoot() { Kova::Bpf::RedirectKovaRoot(root_, ""); }

std::string UniqueSocketName() {
    static std::atomic<int> counter{0};
    return "kova-test-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
}

ScopedPropertyStore::ScopedPropertyStore() { setenv("KOVA_PROPERTY_DIR", dir_.path().c_str(), 1); }

ScopedPropertyStore::~ScopedPropertyStore() { unsetenv("KOVA_PROPERTY_DIR"); }

void ScopedPropertyStore::Set(const std::string& name, const std::string& value) {
    WriteFile(dir_ / name, value);
}

LogCapture::LogCapture() {
    SetLogSink([this](const LogRecord& record) {
        std::lock_guard<std::mutex> lock(lock_);
        records_.push_back(record);
    });
}

LogCapture::~LogCapture() { SetLogSink(nullptr); }

std::vector<LogRecord> LogCapture::Records() const {
    std::lock_guard<std::mutex> lock(lock_);
    return records_;
}

int LogCapture::Count(int priority, const std::string& tag, const std::string& message) const {
    const std::vector<LogRecord> records = Records();
    return static_cast<int>(std::count_if(records.begin(), records.end(), [&](const LogRecord& record) {
        return record.priority == priority && record.tag == tag && record.message == message;
    }));
}

int LogCapture::CountContaining(const std::string& fragment) const {
    const std::vector<LogRecord> records = Records();
    return static_cast<int>(std::count_if(records.begin(), records.end(), [&](const LogRecord& record) {
        return record.message.find(fragment) != std::string::npos;
    }));
}

bool LogCapture::WaitFor(const std::string& message, std::chrono::milliseconds timeout) const {
    return WaitUntil(
            [&] {
                const std::vector<LogRecord> records = Records();
                return std::any_of(records.begin(), records.end(),
                                   [&](const LogRecord& record) { return record.message == message; });
            },
            timeout);
}

std::string LogCapture::Dump() const {
    std::string out;
    for (const LogRecord& record : Records()) {
        out += std::to_string(record.priority) + " " + record.tag + ": " + record.message + "\n";
    }
    return out;
}

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

std::string ProjectBinary(const std::string& name) { return std::string(KOVA_BINARY_DIR) + "/" + name; }

namespace {

// Starts `argv` with this process's environment plus `extraEnv`, whose entries replace inherited ones
// of the same name (a child's getenv would find the inherited one first); returns the pid, or -1.
pid_t Spawn(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv,
            const posix_spawn_file_actions_t* actions, const posix_spawnattr_t* attributes) {
    std::vector<std::string> argStorage = argv, envStorage;
    const auto overridden = [&extraEnv](const std::string& entry) {
        const std::string name = entry.substr(0, entry.find('=') + 1);
        for (const std::string& extra : extraEnv) {
            if (extra.compare(0, name.size(), name) == 0) return true;
        }
        return false;
    };
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (!overridden(*entry)) envStorage.emplace_back(*entry);
    }
    envStorage.insert(envStorage.end(), extraEnv.begin(), extraEnv.end());
    const auto pointers = [](std::vector<std::string>& strings) {
        std::vector<char*> result;
        for (std::string& entry : strings) result.push_back(entry.data());
        result.push_back(nullptr);
        return result;
    };
    std::vector<char*> args = pointers(argStorage), env = pointers(envStorage);
    pid_t pid = -1;
    return posix_spawn(&pid, args[0], actions, attributes, args.data(), env.data()) == 0 ? pid : -1;
}

}  // namespace

int RunProgram(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv, std::string* output) {
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    const pid_t pid = Spawn(argv, extraEnv, &actions, nullptr);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    std::string collected;
    char chunk[4096];
    for (ssize_t n; (n = read(pipeFds[0], chunk, sizeof(chunk))) > 0;) collected.append(chunk, static_cast<size_t>(n));
    close(pipeFds[0]);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    if (output != nullptr) *output = collected;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv,
                           const std::string& stderrPath, const std::string& stdoutPath) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (!stdoutPath.empty()) {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
    }
    // The child starts with an empty signal mask and default dispositions whatever the test set.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_ = Spawn(argv, extraEnv, &actions, &attributes);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0 && !reaped_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status_, 0);
    }
}

bool ChildProcess::Signal(int signo) const { return pid_ > 0 && kill(pid_, signo) == 0; }

int ChildProcess::WaitForExit(std::chrono::milliseconds timeout) {
    if (reaped_) return status_;
    const bool exited = WaitUntil([this] { return waitpid(pid_, &status_, WNOHANG) == pid_; }, timeout);
    if (!exited) return -1;
    reaped_ = true;
    return status_;
}

bool ChildProcess::running() { return pid_ > 0 && !reaped_ && WaitForExit(std::chrono::milliseconds(0)) == -1; }

std::vector<std::string> ThreadIds(pid_t pid) {
    std::vector<std::string> ids;
    std::error_code ignored;
    const std::string tasks = pid == 0 ? "/proc/self/task" : "/proc/" + std::to_string(pid) + "/task";
    for (const auto& entry : std::filesystem::directory_iterator(tasks, ignored)) {
        ids.push_back(entry.path().filename());
    }
    return ids;
}

std::vector<std::string> ThreadNames() {
    std::vector<std::string> names;
    for (const std::string& id : ThreadIds()) {
        std::string comm = ReadFile("/proc/self/task/" + id + "/comm");
        if (!comm.empty() && comm.back() == '\n') comm.pop_back();
        names.push_back(comm);
    }
    return names;
}

}  // namespace kova::test
