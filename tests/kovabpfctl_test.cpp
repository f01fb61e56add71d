// kovabpfctl as a user runs it: watch against kovabpfd on real ring buffers (JSON parsed back, text,
// filters, the ways it ends), stats and dump-tasks, cpu-time against a kovabpfd whose time-in-state
// tracking runs on the real programs, and an exit status of its own for each failure, a missing right
// among them.

#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>

#include "kova/bpf_client_events.h"
#include "kova_bpf_records.h"
#include "kova_daemon_fixture.h"
#include "kova_test_client.h"
#include "kova_test_support.h"
#include "kova_time_in_state_support.h"

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

// A JSON value, parsed strictly. `text` holds a string unescaped (\u escapes kept as written), a number
// as written, or "true"/"false".
struct Json {
    enum Kind { kNull, kBool, kNumber, kString, kArray, kObject } kind = kNull;
    std::string text;
    std::vector<Json> items;
    std::map<std::string, Json> members;

    // A missing member or item reads as null.
    const Json& operator[](const std::string& key) const {
        const auto found = members.find(key);
        return found == members.end() ? Null() : found->second;
    }
    const Json& operator[](size_t index) const { return index < items.size() ? items[index] : Null(); }
    uint64_t U64() const { return std::stoull(text); }
    static const Json& Null() {
        static const Json null;
        return null;
    }
};

class JsonParser {
  public:
    // The one value `text` holds, or nullopt when it is not exactly one valid JSON value.
    static std::optional<Json> Parse(const std::string& text) {
        JsonParser parser(text);
        std::optional<Json> value = parser.Value();
        return value && parser.Skip() == text.size() ? value : std::nullopt;
    }

  private:
    explicit JsonParser(const std::string& text) : text_(text) {}
    size_t Skip() {
        while (at_ < text_.size() && isspace(static_cast<unsigned char>(text_[at_]))) ++at_;
        return at_;
    }
    bool Eat(char c) { return Skip() < text_.size() && text_[at_] == c && ++at_; }
    std::optional<std::string> String() {
        static const std::regex kString(R"re("((?:[^"\\\x00-\x1f]|\\["\\/nt]|\\u[0-9a-fA-F]{4})*)")re");
        std::smatch match;
        Skip();
        if (!std::regex_search(text_.cbegin() + at_, text_.cend(), match, kString, std::regex_constants::match_continuous)) {
            return std::nullopt;
        }
        at_ += match.length(0);
        std::string out;
        const std::string quoted = match[1];
        for (size_t i = 0; i < quoted.size(); ++i) {
            if (quoted[i] != '\\' || quoted[i + 1] == 'u') {
                out += quoted[i];
                continue;
            }
            const char c = quoted[++i];
            out += c == 'n' ? '\n' : c == 't' ? '\t' : c;
        }
        return out;
    }
    std::optional<Json> Value() {
        static const std::regex kScalar("-?(0|[1-9][0-9]*)(\\.[0-9]+)?([eE][-+]?[0-9]+)?|true|false|null");
        Json value;
        if (Eat('[') || Eat('{')) {
            const bool object = text_[at_ - 1] == '{';
            value.kind = object ? Json::kObject : Json::kArray;
            if (Eat(object ? '}' : ']')) return value;
            do {
                std::optional<std::string> key;
                if (object && (!(key = String()) || !Eat(':'))) return std::nullopt;
                std::optional<Json> item = Value();
                if (!item) return std::nullopt;
                if (!object) {
                    value.items.push_back(std::move(*item));
                } else if (!value.members.emplace(*key, std::move(*item)).second) {
                    return std::nullopt;
                }
            } while (Eat(','));
            return Eat(object ? '}' : ']') ? std::optional(value) : std::nullopt;
        }
        if (std::optional<std::string> string = String()) {
            value.kind = Json::kString;
            value.text = *string;
            return value;
        }
        std::smatch match;
        if (!std::regex_search(text_.cbegin() + at_, text_.cend(), match, kScalar, std::regex_constants::match_continuous)) {
            return std::nullopt;
        }
        at_ += match.length(0);
        value.text = match[0];
        value.kind = value.text == "null" ? Json::kNull : isalpha(value.text[0]) ? Json::kBool : Json::kNumber;
        return value;
    }

    const std::string& text_;
    size_t at_ = 0;
};

// Runs kovabpfctl with `env` to its end, through `runner` when given (a command that runs another);
// its exit status (or -1), with stdout in *out and stderr in *err.
int RunCtl(const std::vector<std::string>& env, const std::vector<std::string>& args, std::string* out,
           std::string* err = nullptr, const std::vector<std::string>& runner = {}) {
    TempDir dir;
    std::vector<std::string> argv = runner;
    argv.push_back(ProjectBinary("kovabpfctl"));
    argv.insert(argv.end(), args.begin(), args.end());
    ChildProcess process(argv, env, dir / "stderr", dir / "stdout");
    const int status = process.WaitForExit(10s);
    if (out != nullptr) *out = ReadFile(dir / "stdout");
    if (err != nullptr) *err = ReadFile(dir / "stderr");
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// kovabpfctl against kovabpfd on rings of the test's own, with an empty /proc; or, for cpu-time, with
// real time-in-state tracking and the real /proc (for process names).
class KovabpfctlTest : public ::testing::Test {
  protected:
    explicit KovabpfctlTest(bool timeInState = false) : timeInState_(timeInState) {}
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
        KOVA_REQUIRE(!timeInState_ || HaveTracefs(&reason), reason);
        daemon_ = std::make_unique<DaemonUnderTest>(/*realProc=*/timeInState_);
        ASSERT_TRUE(daemon_->ok());
        ASSERT_TRUE(!timeInState_ || daemon_->EnableTimeInState(&reason)) << reason;
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
    int Ctl(const std::vector<std::string>& args, std::string* out, std::string* err = nullptr) {
        return RunCtl(daemon_->Environment(), args, out, err);
    }
    Json CtlJson(const std::vector<std::string>& args) {
        std::string out, err;
        EXPECT_EQ(Ctl(args, &out, &err), 0) << err;
        std::optional<Json> json = JsonParser::Parse(out);
        EXPECT_TRUE(json && json->kind == Json::kObject) << out;
        return json.value_or(Json());
    }
    void Inject(const std::string& record) { ASSERT_TRUE(daemon_->Inject(PinnedRings::kNormalRing, record)); }

    const bool timeInState_;
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
        std::optional<Json> fields = JsonParser::Parse(lines[i]);
        ASSERT_TRUE(fields && fields->kind == Json::kObject) << "not a JSON object: " << lines[i];
        EXPECT_EQ((*fields)["received_ms"].kind, Json::kNumber) << lines[i];
        for (const auto& [key, value] : expected[i]) EXPECT_EQ((*fields)[key].text, value) << key << " in " << lines[i];
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
    ASSERT_EQ(Ctl({"stats", "--csv"}, &output), 0);
    EXPECT_TRUE(output.starts_with("EventCount, kova_task_init, kmem_rss_info, sched_task_create, ")) << output;
    // At a glance: the births counted this minute, the rings' state, the one client connected.
    Inject(ForkRecord(7402, "counted"));
    TestClient client(daemon_->socketName());
    ASSERT_TRUE(client.connected());
    ASSERT_TRUE(WaitUntil(
            [&] {
                return Ctl({"stats"}, &output) == 0 &&
                       std::regex_search(output, std::regex(R"(\nsched_task_create +1 +[0-9.]+ +1\n)"));
            },
            5s))
            << output;
    EXPECT_TRUE(std::regex_search(output, std::regex(R"(\n  normal  [^\n]*, all records flowing\n)"))) << output;
    EXPECT_NE(output.find("\nclients connected: 1\n"), std::string::npos) << output;

    Inject(ForkRecord(7401, "dumped"));
    // The task is in the table once the daemon has handled the record.
    ASSERT_TRUE(WaitUntil([&] { return Ctl({"dump-tasks"}, &output) == 0 && output.find("dumped") != std::string::npos; },
                          5s))
            << output;
    EXPECT_TRUE(output.starts_with("============ DUMP ALL KOVA TASKS INFO (count: 2, time: ")) << output;
    EXPECT_NE(output.find("oldThreadNum"), std::string::npos);  // full columns

    ASSERT_EQ(Ctl({"dump-tasks", "--short"}, &output), 0);
    EXPECT_EQ(output.find("oldThreadNum"), std::string::npos) << output;
    EXPECT_NE(output.find("dumped"), std::string::npos);

    // Without memory counters the task counts as a kernel task: still counted in the title.
    ASSERT_EQ(Ctl({"dump-tasks", "--short", "--no-kernel"}, &output), 0);
    EXPECT_TRUE(output.starts_with("============ DUMP ALL KOVA TASKS INFO (count: 2, time: ")) << output;
    EXPECT_EQ(output.find("dumped"), std::string::npos) << output;
}

// top in a real terminal (tmux): the processes by memory, the latest events as they come, and Ctrl-C
// ends it; --once prints one screen for scripts.
TEST_F(KovabpfctlTest, TopShowsProcessesByMemoryAndTheLatestEventsInATerminal) {
    KOVA_REQUIRE(access("/usr/bin/tmux", X_OK) == 0, "no tmux (package tmux)");
    Inject(ForkRecord(7501, "small-one"));
    Inject(RssRecord(7501, KOVA_RSS_ANON, 1 << 20, kSecond));
    Inject(ForkRecord(7502, "big-one"));
    Inject(RssRecord(7502, KOVA_RSS_ANON, 64 << 20, kSecond));
    std::string out;
    ASSERT_TRUE(WaitUntil([&] { return Ctl({"top", "--once"}, &out) == 0 && out.find("small-one") != std::string::npos; }, 5s))
            << out;
    EXPECT_TRUE(std::regex_search(out, std::regex(R"(\n +7502  big-one +1 +64\.0\n +7501  small-one +1 +1\.0\n)"))) << out;

    const std::string server = "kova-top-" + std::to_string(getpid());
    std::string command = "exec env";
    for (const std::string& entry : daemon_->Environment()) command += " '" + entry + "'";
    command += " " + ProjectBinary("kovabpfctl") + " top";
    const auto tmux = [&](std::vector<std::string> args, std::string* output = nullptr) {
        args.insert(args.begin(), {"/usr/bin/tmux", "-L", server});
        return RunProgram(args, {}, output);
    };
    ASSERT_EQ(tmux({"new-session", "-d", "-s", "top", "-x", "120", "-y", "30", command}), 0);
    const auto screen = [&] {
        std::string text;
        tmux({"capture-pane", "-p", "-t", "top"}, &text);
        return text;
    };
    EXPECT_TRUE(WaitUntil([&] { return screen().find("7502  big-one") != std::string::npos; }, 10s)) << screen();
    Inject(ForkRecord(7503, "newcomer"));
    EXPECT_TRUE(WaitUntil([&] { return screen().find("task_created") != std::string::npos &&
                                       screen().find("pid=7503") != std::string::npos; },
                          10s))
            << screen();
    tmux({"send-keys", "-t", "top", "C-c"});
    EXPECT_TRUE(WaitUntil([&] { return tmux({"has-session", "-t", "top"}) != 0; }, 10s)) << screen();
    tmux({"kill-server"});
}

TEST_F(KovabpfctlTest, CpuTimeWithoutTrackingEndsAfterItsTimeoutWithItsOwnMessage) {
    std::string out, err;
    EXPECT_EQ(Ctl({"cpu-time", "threads", "--timeout", "0.5"}, &out, &err), 6);
    EXPECT_EQ(err, "kovabpfctl: no thread CPU time report came within 0.5 s: the daemon's time-in-state tracking may "
                   "not be running (see its log)\n");
    EXPECT_TRUE(out.empty()) << out;
}

// The texts of an array's items.
std::vector<std::string> Texts(const Json& array) {
    std::vector<std::string> texts;
    for (const Json& item : array.items) texts.push_back(item.text);
    return texts;
}

// kovabpfd with real tracking and the real /proc: each CPU is a policy of its own, at 1200 MHz, the
// second of its frequencies (DaemonUnderTest::EnableTimeInState).
class KovabpfctlCpuTimeTest : public KovabpfctlTest {
  protected:
    KovabpfctlCpuTimeTest() : KovabpfctlTest(/*timeInState=*/true) {}
};

TEST_F(KovabpfctlCpuTimeTest, TotalProcessesAndThreadsAsTextAndJson) {
    constexpr uint64_t kBusyNs = 300'000'000;
    const int cpu = PossibleCpus() - 1;
    const std::string c = std::to_string(cpu);
    BusyChild child(cpu, "kova-ctl-busy");
    // Run for as long as the scheduler counts, whatever else shares the CPU.
    ASSERT_TRUE(WaitUntil([&] { return child.ScheduledNs() >= kBusyNs; }, 10s));
    ASSERT_TRUE(child.Stop());
    const std::string pid = std::to_string(child.pid());

    std::string out;
    ASSERT_EQ(Ctl({"cpu-time"}, &out), 0);
    EXPECT_TRUE(out.starts_with("CPU time per frequency since the last reset, taken at boot clock ")) << out;
    for (int policy = 0; policy < PossibleCpus(); ++policy) {
        const std::string p = std::to_string(policy);
        EXPECT_TRUE(std::regex_search(out, std::regex("\npolicy" + p + " \\(CPU " + p + "\\)\n +FREQUENCY +TIME \\(s\\) +SHARE\n"
                                                      " +300 MHz +0\\.000 +0\\.0%\n +1200 MHz +[0-9]+\\.[0-9]{3} +100\\.0%\n"
                                                      " +2400 MHz +0\\.000 +0\\.0%\n +total +[0-9]+\\.[0-9]{3}\n")))
                << out;
    }
    const Json total = CtlJson({"cpu-time", "--json"});
    EXPECT_EQ(total["report"].text, "total");
    EXPECT_EQ(total["frequencies_known"].text, "true");
    ASSERT_EQ(total["policies"].items.size(), static_cast<size_t>(PossibleCpus()));
    EXPECT_EQ(total["policies"][cpu]["policy"].text, c);
    EXPECT_EQ(Texts(total["policies"][cpu]["cpus"]), std::vector<std::string>{c});
    EXPECT_EQ(Texts(total["policies"][cpu]["khz"]), (std::vector<std::string>{"300000", "1200000", "2400000"}));
    EXPECT_EQ(total["times_ns"][cpu][0].text, "0");
    EXPECT_GE(total["times_ns"][cpu][1].U64(), kBusyNs * 9 / 10) << "the busy child alone ran this long there";
    EXPECT_EQ(total["times_ns"][cpu][2].text, "0");

    // The child, by name, with all its time at its policy's 1200 MHz.
    ASSERT_EQ(Ctl({"cpu-time", "processes"}, &out), 0);
    std::smatch all, row;
    ASSERT_TRUE(std::regex_search(out, all, std::regex("^Top 10 processes by CPU time since the last reset, taken at .*\n"
                                                       "All processes ran ([0-9.]+) s; these 10 ran [0-9.]+ s of it "
                                                       "\\([0-9.]+%\\)\\.\n")))
            << out;
    ASSERT_TRUE(std::regex_search(out, row, std::regex("\n +" + pid + "  kova-ctl-busy +([0-9]+\\.[0-9]{3}) +([0-9.]+)%\n"
                                                       " +policy" + c + ": 1200 MHz [0-9]+\\.[0-9]{3} s\n")))
            << out;
    // Within what rounding both times to the millisecond, and the share to 0.1 %, allows.
    const double time = std::stod(row[1]), allTime = std::stod(all[1]);
    EXPECT_NEAR(std::stod(row[2]), 100 * time / allTime, 0.05 + 0.05 * (1 / allTime + time / (allTime * allTime)))
            << "the share of all processes' time";
    const Json processes = CtlJson({"cpu-time", "processes", "--json"});
    EXPECT_EQ(processes["report"].text, "processes");
    const Json* busy = nullptr;
    for (const Json& process : processes["processes"].items) {
        if (process["tgid"].text == pid) busy = &process;
    }
    ASSERT_NE(busy, nullptr) << "the busy child is not among the top ten";
    EXPECT_EQ((*busy)["name"].text, "kova-ctl-busy");
    EXPECT_GE((*busy)["time_ns"].U64(), kBusyNs * 9 / 10);
    EXPECT_GE(processes["total_ns"].U64(), processes["reported_ns"].U64());
    EXPECT_GE(processes["reported_ns"].U64(), (*busy)["time_ns"].U64());
    for (int policy = 0; policy < PossibleCpus(); ++policy) {
        const std::string atCurrent = policy == cpu ? (*busy)["time_ns"].text : "0";
        EXPECT_EQ(Texts((*busy)["times_ns"][policy]), (std::vector<std::string>{"0", atCurrent, "0"})) << policy;
    }

    ASSERT_EQ(Ctl({"cpu-time", "threads"}, &out), 0);
    EXPECT_TRUE(std::regex_search(out, std::regex("\n +" + pid + " +" + pid + "  kova-ctl-busy +kova-ctl-busy +[0-9.]+ +[0-9.]+%\n +policy" +
                                                  c + ": 1200 MHz")))
            << out;
}

TEST_F(KovabpfctlCpuTimeTest, ResetsAndFrequenciesByIndexWhenTheTreeDoesNotMatch) {
    std::string out, err;
    ASSERT_EQ(Ctl({"cpu-time", "reset", "all"}, &out), 0);
    EXPECT_TRUE(std::regex_match(out, std::regex("Reset the total CPU times at boot clock [0-9]+\\.[0-9]{3} s\\.\n"
                                                 "Reset the process CPU times at boot clock [0-9]+\\.[0-9]{3} s\\.\n"
                                                 "Reset the thread CPU times at boot clock [0-9]+\\.[0-9]{3} s\\.\n")))
            << out;
    const Json reset = CtlJson({"cpu-time", "reset", "threads", "--json"});
    ASSERT_EQ(reset["resets"].items.size(), 1u);
    EXPECT_EQ(reset["resets"][0]["target"].text, "threads");
    EXPECT_EQ(reset["resets"][0]["id"].text, "50010");
    EXPECT_EQ(reset["resets"][0]["succeeded"].text, "true");
    EXPECT_GT(reset["resets"][0]["timestamp_ns"].U64(), 0u);

    // Without the boost frequency, the tree no longer matches the report.
    CpufreqTree other;
    for (int cpu = 0; cpu < PossibleCpus(); ++cpu) {
        other.Add({static_cast<unsigned>(cpu), std::to_string(cpu) + "\n", DaemonUnderTest::kTisAvailableKhz, "", ""});
    }
    std::vector<std::string> environment = daemon_->Environment();
    for (std::string& entry : environment) {
        if (entry.starts_with("KOVA_CPUFREQ_DIR=")) entry = "KOVA_CPUFREQ_DIR=" + other.path();
    }
    ASSERT_EQ(RunCtl(environment, {"cpu-time"}, &out), 0);
    EXPECT_NE(out.find("\nnote: frequencies are shown by index: policy0 in " + other.path() +
                       " has 2 frequencies, the report 3\n\npolicy #0\n"),
              std::string::npos)
            << out;
    EXPECT_TRUE(std::regex_search(out, std::regex("\n +#1 +[0-9]+\\.[0-9]{3} +100\\.0%\n"))) << out;

    // Frozen, the process map refuses the deletes of a reset.
    ASSERT_TRUE(daemon_->timeInState().Freeze("tgid_delta_time_map"));
    EXPECT_EQ(Ctl({"cpu-time", "reset", "processes"}, &out, &err), 6);
    EXPECT_EQ(err, "kovabpfctl: the service could not carry out the process CPU time reset (see the daemon's log)\n");
}

// At start-up the daemon seeds its task table from the real /proc; dump-tasks (signal 51) shows it.
TEST_F(KovabpfctlCpuTimeTest, DumpTasksShowsTheTableSeededFromTheRealProc) {
    std::string out;
    ASSERT_EQ(Ctl({"dump-tasks"}, &out), 0);
    // A task line starts with the comm padded to 16 characters, three blanks and the pid.
    const auto line = [](std::string comm, int pid) {
        if (!comm.empty() && comm.back() == '\n') comm.pop_back();
        comm.resize(16, ' ');
        return "\n" + comm + "   " + std::to_string(pid) + " ";
    };
    EXPECT_NE(out.find(line("kovabpfd", daemon_->pid())), std::string::npos) << out.substr(0, 2000);
    EXPECT_NE(out.find(line(ReadFile("/proc/1/comm"), 1)), std::string::npos) << out.substr(0, 2000);
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

// As uid 65534 (nobody), in no group: kovabpfd, whose client group is "users", refuses it once, and
// it may not signal kovabpfd.
TEST_F(KovabpfctlErrorsTest, AUserWithoutTheRightsIsToldWhichOneItLacks) {
    constexpr char kSetpriv[] = "/usr/bin/setpriv";
    KOVA_REQUIRE(geteuid() == 0 && access(kSetpriv, X_OK) == 0, "running as another user needs root and setpriv");
    ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);  // for the properties and the pid file
    WriteFile(dir_ / "props/persist.kova_bpf.client_group", "users");
    WriteFile(dir_ / "props/sys.kova_bpf_ready", "1");
    ChildProcess daemon({ProjectBinary("kovabpfd")}, Environment(), dir_ / "kovabpfd.stderr");
    const auto daemonLog = [&] { return ReadFile(dir_ / "kovabpfd.stderr"); };
    // It takes the signals from here on, and finds no ring buffer.
    ASSERT_TRUE(WaitUntil([&] { return daemonLog().find("KOVABPF: get ringbuf failed") != std::string::npos; }, 5s))
            << daemonLog();
    const std::vector<std::string> nobody{kSetpriv, "--reuid=65534", "--regid=65534", "--clear-groups"};

    std::string out, err;
    EXPECT_EQ(RunCtl(Environment(), {"watch"}, &out, &err, nobody), 7);
    EXPECT_TRUE(err.ends_with("kovabpfctl: kovabpfd refused this user (uid 65534): run as root or as a member of group "
                              "'users' (property persist.kova_bpf.client_group)\n"))
            << err;
    // One link: a refused client waits before it tries again, and makes no link once it stops.
    size_t refusals = 0;
    for (size_t at = 0; (at = daemonLog().find("Refused client pid ", at)) != std::string::npos; ++at) ++refusals;
    EXPECT_EQ(refusals, 1u) << daemonLog();

    EXPECT_EQ(RunCtl(Environment(), {"stats"}, &out, &err, nobody), 7);
    EXPECT_EQ(err, "kovabpfctl: this user (uid 65534) may not send signal 50 to kovabpfd (pid " +
                           std::to_string(daemon.pid()) + ", run by root): run as root\n");
}

TEST_F(KovabpfctlErrorsTest, BadUsageIsStatusOneAndHelpIsStatusZero) {
    std::string out, err;
    for (const auto& args : std::vector<std::vector<std::string>>{
                 {}, {"frobnicate"}, {"watch", "--count"}, {"watch", "abc"}, {"watch", "--duration", "-1"},
                 {"watch", "--pid", "x"}, {"stats", "extra"}, {"dump-tasks", "--timeout", "0"}, {"help", "nothing"},
                 {"cpu-time", "weekly"}, {"cpu-time", "reset"}, {"cpu-time", "reset", "everything"},
                 {"cpu-time", "threads", "--connect-timeout", "x"}}) {
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
                 {{"dump-tasks", "-h"}, "usage: kovabpfctl dump-tasks"},
                 {{"help", "cpu-time"}, "usage: kovabpfctl cpu-time"}}) {
        EXPECT_EQ(Ctl(args, &out, &err), 0) << testing::PrintToString(args);
        EXPECT_TRUE(out.starts_with(usage)) << out;
    }
}

// Bash completion offers each command's own options, as its help lists them, and watch's event names.
TEST(KovabpfctlCompletionTest, OffersTheCommandsTheirOptionsAndTheEventNames) {
    const auto complete = [](const std::string& line) {
        std::string out;
        const std::string script = std::string("source ") + KOVA_COMPLETION + "; COMP_WORDS=(" + line +
                                   "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _kovabpfctl; printf '%s\\n' \"${COMPREPLY[@]}\"";
        EXPECT_EQ(RunProgram({"/bin/bash", "-c", script}, {}, &out), 0) << line;
        std::set<std::string> words;
        std::istringstream lines(out);
        for (std::string word; std::getline(lines, word);) words.insert(word);
        return words;
    };
    const auto optionsInHelp = [](const std::vector<std::string>& args) {
        std::string help;
        std::vector<std::string> argv{ProjectBinary("kovabpfctl")};
        argv.insert(argv.end(), args.begin(), args.end());
        EXPECT_EQ(RunProgram(argv, {}, &help), 0);
        std::set<std::string> options{"--help"};
        const std::regex option("--[a-z-]+");
        for (auto it = std::sregex_iterator(help.begin(), help.end(), option); it != std::sregex_iterator(); ++it) {
            options.insert(it->str());
        }
        return options;
    };
    const auto only = [](const std::set<std::string>& words, bool options) {
        std::set<std::string> kept;
        for (const std::string& word : words) {
            if (word.starts_with("--") == options) kept.insert(word);
        }
        return kept;
    };

    EXPECT_EQ(complete("kovabpfctl ''"),
              (std::set<std::string>{"watch", "stats", "dump-tasks", "top", "cpu-time", "help", "-v", "--verbose", "--help"}));
    for (const std::string command : {"watch", "stats", "dump-tasks", "top", "cpu-time"}) {
        EXPECT_EQ(only(complete("kovabpfctl " + command + " --"), true), optionsInHelp({"help", command})) << command;
    }
    std::set<std::string> names;
    for (uint32_t id = 0; id < 60000; ++id) {
        if (const char* name = Kova::Client::ClientEventName(id)) names.insert(name);
    }
    EXPECT_EQ(only(complete("kovabpfctl watch ''"), false), names);
    EXPECT_EQ(only(complete("kovabpfctl cpu-time reset ''"), false),
              (std::set<std::string>{"total", "processes", "threads", "all"}));
}

}  // namespace
}  // namespace kova::test
