// kovabpfctl as a user runs it: watch against kovabpfd on real ring buffers (JSON parsed back, text,
// filters, the ways it ends), stats and dump-tasks, and an exit status of its own for each failure.

#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>

#include <map>
#include <optional>
#include <regex>
#include <sstream>

#include "kova_bpf_records.h"
#include "kova_daemon_fixture.h"
#include "kova_test_support.h"

namespace kova::test {
namespace {

using namespace std::chrono_literals;

constexpr uint64_t kSecond = 1000000000;

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

// Parses one flat JSON object (strings, numbers, booleans; no nesting), strictly. Values come back as
// text: strings unescaped (\u escapes kept as written), numbers and booleans as written.
std::optional<std::map<std::string, std::string>> ParseFlatJson(const std::string& text) {
    static const std::string kString = R"("(?:[^"\\\x00-\x1f]|\\["\\/nt]|\\u[0-9a-fA-F]{4})*")";
    static const std::regex kMember("(" + kString + "):(" + kString + "|-?[0-9]+|true|false)([,}])");
    const auto unquote = [](const std::string& quoted) {
        std::string out;
        for (size_t at = 1; at + 1 < quoted.size(); ++at) {
            if (quoted[at] != '\\' || quoted[at + 1] == 'u') {
                out += quoted[at];
                continue;
            }
            const char c = quoted[++at];
            out += c == 'n' ? '\n' : c == 't' ? '\t' : c;
        }
        return out;
    };
    std::map<std::string, std::string> fields;
    if (text.size() < 2 || text[0] != '{') return std::nullopt;
    if (text == "{}") return fields;
    std::smatch member;
    for (auto at = text.begin() + 1; at != text.end(); at = member[0].second) {
        if (!std::regex_search(at, text.end(), member, kMember, std::regex_constants::match_continuous)) return std::nullopt;
        const std::string value = member[2].str();
        if (!fields.emplace(unquote(member[1].str()), value[0] == '"' ? unquote(value) : value).second) return std::nullopt;
        if (member[3] == "}" && member[0].second != text.end()) return std::nullopt;
    }
    return text.back() == '}' ? std::optional(fields) : std::nullopt;
}

// Runs kovabpfctl with `env` to its end; its exit status (or -1), with stdout in *out and stderr in *err.
int RunCtl(const std::vector<std::string>& env, const std::vector<std::string>& args, std::string* out,
           std::string* err = nullptr) {
    TempDir dir;
    std::vector<std::string> argv{ProjectBinary("kovabpfctl")};
    argv.insert(argv.end(), args.begin(), args.end());
    ChildProcess process(argv, env, dir / "stderr", dir / "stdout");
    const int status = process.WaitForExit(10s);
    if (out != nullptr) *out = ReadFile(dir / "stdout");
    if (err != nullptr) *err = ReadFile(dir / "stderr");
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class KovabpfctlTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
        daemon_ = std::make_unique<DaemonUnderTest>();
        ASSERT_TRUE(daemon_->ok());
        ASSERT_TRUE(daemon_->Start()) << daemon_->Stderr();
    }

    // Starts `kovabpfctl watch ARGS` and waits until it has subscribed.
    std::unique_ptr<ChildProcess> StartWatch(std::vector<std::string> args) {
        args.insert(args.begin(), {ProjectBinary("kovabpfctl"), "watch"});
        auto watch = std::make_unique<ChildProcess>(args, daemon_->Environment(), dir_ / "watch.stderr",
                                                    dir_ / "watch.stdout");
        EXPECT_TRUE(WaitUntil([&] { return WatchStderr().find("kovabpfctl: watching") != std::string::npos; }, 5s))
                << WatchStderr();
        return watch;
    }
    // Waits for a watch to end by itself; its exit status, or -1.
    static int ExitStatus(ChildProcess* process) {
        const int status = process->WaitForExit(10s);
        return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string WatchStdout() const { return ReadFile(dir_ / "watch.stdout"); }
    std::string WatchStderr() const { return ReadFile(dir_ / "watch.stderr"); }
    int Ctl(const std::vector<std::string>& args, std::string* output) {
        return RunCtl(daemon_->Environment(), args, output);
    }
    void Inject(const std::string& record) { ASSERT_TRUE(daemon_->Inject(PinnedRings::kNormalRing, record)); }

    TempDir dir_;
    std::unique_ptr<DaemonUnderTest> daemon_;
};

TEST_F(KovabpfctlTest, WatchJsonPrintsOneObjectPerEventAndCountsTheLinesOnExit) {
    auto watch = StartWatch({"--json", "--count", "4"});
    Inject(ForkRecord(7001, "json\"child\\"));
    for (int i = 0; i < 11; ++i) Inject(ForkRecord(7001, "", KOVA_TASK_KIND_THREAD, 4 * kSecond));
    Inject(RssRecord(7001, KOVA_RSS_FILE, 1 << 20, 4 * kSecond));
    Inject(ExitRecord(7001, "json-exit"));
    ASSERT_EQ(ExitStatus(watch.get()), 0) << WatchStderr();
    EXPECT_NE(WatchStderr().find("kovabpfctl: 4 lines printed\n"), std::string::npos) << WatchStderr();

    const std::vector<std::string> lines = Lines(WatchStdout());
    ASSERT_EQ(lines.size(), 4u) << WatchStdout();
    const std::vector<std::map<std::string, std::string>> expected{
            {{"event", "task_created"}, {"id", "50001"}, {"pid", "7001"}, {"ppid", "1"}, {"uid", "2000"},
             {"comm", "json\"child\\"}},
            {{"event", "thread_count_changed"}, {"old_threads", "1"}, {"threads", "12"}},
            {{"event", "rss_changed"}, {"file", "1048576"}, {"old_file", "0"}},
            {{"event", "task_exited"}, {"comm", "json-exit"}}};
    for (size_t i = 0; i < lines.size(); ++i) {
        std::optional<std::map<std::string, std::string>> fields = ParseFlatJson(lines[i]);
        ASSERT_TRUE(fields) << "not a flat JSON object: " << lines[i];
        EXPECT_FALSE((*fields)["received_ms"].empty()) << lines[i];
        for (const auto& [key, value] : expected[i]) EXPECT_EQ((*fields)[key], value) << key << " in " << lines[i];
    }
}

TEST_F(KovabpfctlTest, WatchFiltersByPidAndByCommIncludingEventsWithoutAName) {
    auto byPid = StartWatch({"--pid", "7101", "--count", "2", "50001", "50002"});
    Inject(ForkRecord(7100, "other"));
    Inject(ForkRecord(7101, "wanted"));
    Inject(ExitRecord(7100, "other"));
    Inject(ExitRecord(7101, "wanted"));
    ASSERT_EQ(ExitStatus(byPid.get()), 0) << WatchStderr();
    std::vector<std::string> lines = Lines(WatchStdout());
    ASSERT_EQ(lines.size(), 2u) << WatchStdout();
    EXPECT_NE(lines[0].find("task_created          pid=7101 ppid=1 uid=2000 comm=wanted"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find("task_exited           pid=7101 comm=wanted"), std::string::npos) << lines[1];

    // A thread-count event carries no name: it matches by the name last seen for its pid.
    auto byComm = StartWatch({"--comm", "wanted", "--count", "2"});
    Inject(ForkRecord(7201, "wanted"));
    Inject(ForkRecord(7202, "other"));
    for (const int pid : {7202, 7201}) {
        for (int i = 0; i < 11; ++i) Inject(ForkRecord(pid, "", KOVA_TASK_KIND_THREAD, 4 * kSecond));
    }
    ASSERT_EQ(ExitStatus(byComm.get()), 0) << WatchStderr();
    lines = Lines(WatchStdout());
    ASSERT_EQ(lines.size(), 2u) << WatchStdout();
    EXPECT_NE(lines[0].find("pid=7201"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find("thread_count_changed  pid=7201 ppid=1 uid=2000 threads=1->12"), std::string::npos)
            << lines[1];
}

TEST_F(KovabpfctlTest, WatchEndsCleanlyOnSigintAndAfterItsDuration) {
    auto watch = StartWatch({});
    ASSERT_TRUE(watch->Signal(SIGINT));
    EXPECT_EQ(ExitStatus(watch.get()), 0);
    EXPECT_NE(WatchStderr().find("kovabpfctl: 0 lines printed\n"), std::string::npos) << WatchStderr();

    const auto started = std::chrono::steady_clock::now();
    watch = StartWatch({"--duration", "0.5", "50001"});
    Inject(ForkRecord(7301, "during"));
    EXPECT_EQ(ExitStatus(watch.get()), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
    EXPECT_NE(WatchStderr().find("kovabpfctl: 1 lines printed\n"), std::string::npos) << WatchStderr();
}

TEST_F(KovabpfctlTest, StatsAndDumpTasksPrintWhatTheDaemonWrites) {
    std::string output;
    ASSERT_EQ(Ctl({"stats"}, &output), 0);
    EXPECT_TRUE(output.starts_with("EventCount, kova_task_init, kmem_rss_info, sched_task_create, ")) << output;

    Inject(ForkRecord(7401, "dumped"));
    // The task is in the table once the daemon has handled the record.
    ASSERT_TRUE(WaitUntil([&] { return Ctl({"dump-tasks"}, &output) == 0 && output.find("dumped") != std::string::npos; },
                          5s))
            << output;
    EXPECT_TRUE(output.starts_with("============ DUMP ALL KOVA TASKS INFO (count: 1, time: ")) << output;
    EXPECT_NE(output.find("oldThreadNum"), std::string::npos);  // full columns

    ASSERT_EQ(Ctl({"dump-tasks", "--short"}, &output), 0);
    EXPECT_EQ(output.find("oldThreadNum"), std::string::npos) << output;
    EXPECT_NE(output.find("dumped"), std::string::npos);

    // Without memory counters the task counts as a kernel task: still counted in the title.
    ASSERT_EQ(Ctl({"dump-tasks", "--short", "--no-kernel"}, &output), 0);
    EXPECT_TRUE(output.starts_with("============ DUMP ALL KOVA TASKS INFO (count: 1, time: ")) << output;
    EXPECT_EQ(output.find("dumped"), std::string::npos) << output;
}

// Failures that need no BPF: a daemon that waits for the loader serves these cases.
class KovabpfctlErrorsTest : public ::testing::Test {
  protected:
    std::vector<std::string> Environment() const {
        return {"KOVA_PROPERTY_DIR=" + dir_ / "props", "KOVA_DIAG_DIR=" + dir_ / "diag", "KOVA_PIN_DIR=" + dir_ / "pins",
                "KOVA_SOCKET_NAME=" + socketName_,      "KOVA_PID_FILE=" + dir_ / "kovabpfd.pid"};
    }
    int Ctl(const std::vector<std::string>& args, std::string* out = nullptr, std::string* err = nullptr) {
        return RunCtl(Environment(), args, out, err);
    }

    TempDir dir_;
    std::string socketName_ = UniqueSocketName();
};

TEST_F(KovabpfctlErrorsTest, EachWayOfNotFindingTheDaemonHasItsOwnStatus) {
    std::string err;
    EXPECT_EQ(Ctl({"stats"}, nullptr, &err), 2);
    EXPECT_EQ(err, "kovabpfctl: no kovabpfd is running: " + dir_ / "kovabpfd.pid" + " does not exist\n");

    WriteFile(dir_ / "kovabpfd.pid", "not a pid\n");
    EXPECT_EQ(Ctl({"dump-tasks"}, nullptr, &err), 3);
    EXPECT_EQ(err, "kovabpfctl: stale pid file " + dir_ / "kovabpfd.pid" + ": 'not a pid' is not a process id\n");

    // This test's own process is alive but is not kovabpfd.
    WriteFile(dir_ / "kovabpfd.pid", std::to_string(getpid()) + "\n");
    EXPECT_EQ(Ctl({"stats"}, nullptr, &err), 3);
    EXPECT_NE(err.find(": process " + std::to_string(getpid()) + " is kovabpfctl_test, not kovabpfd\n"),
              std::string::npos)
            << err;

    // A daemon waiting for the loader has no handler for the signal yet: sending it would end it.
    ChildProcess daemon({ProjectBinary("kovabpfd")}, Environment(), dir_ / "kovabpfd.stderr");
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(dir_ / "kovabpfd.pid") == std::to_string(daemon.pid()) + "\n"; }, 5s));
    EXPECT_EQ(Ctl({"dump-tasks", "--short"}, nullptr, &err), 4);
    EXPECT_EQ(err, "kovabpfctl: kovabpfd (pid " + std::to_string(daemon.pid()) +
                           ") does not take signal 53 yet: it is waiting for the BPF loader (sys.kova_bpf_ready)\n");
    EXPECT_TRUE(daemon.running());
    ASSERT_TRUE(daemon.Signal(SIGKILL));
    ASSERT_NE(daemon.WaitForExit(5s), -1);

    // Killed: its pid file stays behind, naming a process that is gone.
    EXPECT_EQ(Ctl({"stats"}, nullptr, &err), 3);
    EXPECT_NE(err.find(": process " + std::to_string(daemon.pid()) + " is not running\n"), std::string::npos) << err;

    EXPECT_EQ(Ctl({"watch", "--connect-timeout", "0.5"}, nullptr, &err), 5);
    EXPECT_NE(err.find("kovabpfctl: cannot connect to the service at '" + socketName_ +
                       "' within 0.5 s (is kovabpfd running?)\n"),
              std::string::npos)
            << err;
}

TEST_F(KovabpfctlErrorsTest, BadUsageIsStatusOneAndHelpIsStatusZero) {
    std::string out, err;
    for (const auto& args : std::vector<std::vector<std::string>>{
                 {}, {"frobnicate"}, {"watch", "--count"}, {"watch", "abc"}, {"watch", "--duration", "-1"},
                 {"watch", "--pid", "x"}, {"stats", "extra"}, {"dump-tasks", "--timeout", "0"}, {"help", "nothing"}}) {
        EXPECT_EQ(Ctl(args, &out, &err), 1) << testing::PrintToString(args);
        EXPECT_FALSE(err.empty()) << testing::PrintToString(args);
        EXPECT_TRUE(out.empty()) << testing::PrintToString(args);
    }
    EXPECT_EQ(Ctl({"watch", "--count", "0"}, nullptr, &err), 1);
    EXPECT_EQ(err, "kovabpfctl: --count: '0' is not a positive number\n");

    for (const auto& [args, usage] : std::vector<std::pair<std::vector<std::string>, std::string>>{
                 {{"--help"}, "usage: kovabpfctl [-v] COMMAND"},
                 {{"help", "stats"}, "usage: kovabpfctl stats"},
                 {{"watch", "--help"}, "usage: kovabpfctl watch"},
                 {{"dump-tasks", "-h"}, "usage: kovabpfctl dump-tasks"}}) {
        EXPECT_EQ(Ctl(args, &out, &err), 0) << testing::PrintToString(args);
        EXPECT_TRUE(out.starts_with(usage)) << out;
    }
}

}  // namespace
}  // namespace kova::test
