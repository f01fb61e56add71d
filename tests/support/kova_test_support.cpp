#include "kova_test_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_paths.h"

extern char** environ;

namespace kova::test {

bool InCi() {
    const char* ci = getenv("CI");
    return ci != nullptr && ci[0] != '\0' && std::string(ci) != "0" && std::string(ci) != "false";
}

TempDir::TempDir() {
    char pattern[] = "/tmp/kova-test-XXXXXX";
    const char* made = mkdtemp(pattern);
    if (made == nullptr) abort();
    path_ = made;
}

TempDir::~TempDir() { RemoveTree(path_); }

void RemoveTree(const std::string& path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) return;
    if (S_ISDIR(st.st_mode)) {
        if (DIR* dir = opendir(path.c_str())) {
            while (dirent* entry = readdir(dir)) {
                const std::string name = entry->d_name;
                if (name != "." && name != "..") RemoveTree(path + "/" + name);
            }
            closedir(dir);
        }
        rmdir(path.c_str());
    } else {
        unlink(path.c_str());
    }
}

void WriteFile(const std::string& path, const std::string& content) {
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) Kova::Bpf::MakeDirectories(path.substr(0, slash), 0755);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
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

ScopedServiceRoots::ScopedServiceRoots() = default;

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
    std::lock_guard<std::mutex> lock(lock_);
    int count = 0;
    for (const LogRecord& record : records_) {
        if (record.priority == priority && record.tag == tag && record.message == message) ++count;
    }
    return count;
}

int LogCapture::CountContaining(const std::string& fragment) const {
    std::lock_guard<std::mutex> lock(lock_);
    int count = 0;
    for (const LogRecord& record : records_) {
        if (record.message.find(fragment) != std::string::npos) ++count;
    }
    return count;
}

bool LogCapture::WaitFor(const std::string& message, std::chrono::milliseconds timeout) const {
    return WaitUntil(
            [&] {
                std::lock_guard<std::mutex> lock(lock_);
                for (const LogRecord& record : records_) {
                    if (record.message == message) return true;
                }
                return false;
            },
            timeout);
}

std::string LogCapture::Dump() const {
    std::lock_guard<std::mutex> lock(lock_);
    std::string out;
    for (const LogRecord& record : records_) {
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

std::vector<char*> BuildEnvironment(const std::vector<std::string>& extraEnv, std::vector<std::string>* storage) {
    for (char** entry = environ; *entry != nullptr; ++entry) storage->push_back(*entry);
    for (const std::string& extra : extraEnv) storage->push_back(extra);
    std::vector<char*> pointers;
    for (std::string& entry : *storage) pointers.push_back(entry.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<char*> BuildArgv(const std::vector<std::string>& argv, std::vector<std::string>* storage) {
    *storage = argv;
    std::vector<char*> pointers;
    for (std::string& arg : *storage) pointers.push_back(arg.data());
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

int RunProgram(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv, std::string* output) {
    std::vector<std::string> argStorage, envStorage;
    std::vector<char*> args = BuildArgv(argv, &argStorage);
    std::vector<char*> env = BuildEnvironment(extraEnv, &envStorage);
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), env.data());
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    std::string collected;
    char chunk[4096];
    ssize_t n;
    while ((n = read(pipeFds[0], chunk, sizeof(chunk))) > 0) collected.append(chunk, static_cast<size_t>(n));
    close(pipeFds[0]);
    if (spawned != 0) return -1;
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    if (output != nullptr) *output = collected;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv,
                           const std::string& stderrPath, const std::string& stdoutPath) {
    std::vector<std::string> argStorage, envStorage;
    std::vector<char*> args = BuildArgv(argv, &argStorage);
    std::vector<char*> env = BuildEnvironment(extraEnv, &envStorage);
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
    if (posix_spawn(&pid_, args[0], &actions, &attributes, args.data(), env.data()) != 0) pid_ = -1;
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

std::vector<std::string> ThreadIds() {
    std::vector<std::string> ids;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') ids.push_back(entry->d_name);
        }
        closedir(dir);
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
