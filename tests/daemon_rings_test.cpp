// kovabpfd on ring buffers of the test's own: a KovaBpfClient receives what the kernel writes into
// either ring, decoded to what was written, and subscribes again after the daemon restarts; signal 51
// dumps the task table that the daemon seeded from the real /proc.

#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>

#include "kova/bpf_client.h"
#include "kova_daemon_fixture.h"
#include "kova_event_collector.h"

namespace kova::test {
namespace {

using namespace Kova::Client;
using namespace std::chrono_literals;

constexpr uint64_t kSecond = 1000000000;

class DaemonRingsTest : public ::testing::Test {
  protected:
    explicit DaemonRingsTest(bool realProc = false) : realProc_(realProc) {}
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
        daemon_ = std::make_unique<DaemonUnderTest>(realProc_);
        ASSERT_TRUE(daemon_->ok());
        ASSERT_TRUE(daemon_->Start()) << daemon_->Stderr();
    }
    void TearDown() override {
        if (daemon_ && daemon_->running()) {
            EXPECT_TRUE(daemon_->Stop()) << daemon_->Stderr();
        }
    }
    // A started client, subscribed to `ids` with the collector's callback.
    std::unique_ptr<KovaBpfClient> Subscribed(const std::vector<uint32_t>& ids) {
        ClientOptions options;
        options.socketName = daemon_->socketName();
        auto client = std::make_unique<KovaBpfClient>(options);
        for (const uint32_t id : ids) client->subscribe(id, collected_.Callback());
        EXPECT_TRUE(client->start());
        EXPECT_TRUE(client->waitUntilSubscribed(5s)) << daemon_->Stderr();
        return client;
    }
    void Inject(PinnedRings::Ring ring, const std::string& record) { ASSERT_TRUE(daemon_->Inject(ring, record)); }

    const bool realProc_;
    EventCollector collected_;
    std::unique_ptr<DaemonUnderTest> daemon_;
};

TEST_F(DaemonRingsTest, RecordsOfBothRingsReachTheClientAsTheRulesSay) {
    constexpr uint64_t kEnabled = KOVA_STATUS_CORE | KOVA_STATUS_NORMAL;
    EXPECT_EQ(daemon_->StatusWord(PinnedRings::kNormalRing) & kEnabled, kEnabled);
    EXPECT_EQ(daemon_->StatusWord(PinnedRings::kGplRing) & kEnabled, kEnabled);
    auto client = Subscribed({kTaskCreated, kTaskExited, kThreadCountChanged, kRssChanged, KOVA_RAW_CGROUP_ATTACH});

    const auto normal = PinnedRings::kNormalRing;
    Inject(normal, ForkRecord(4242, "kova-child", KOVA_TASK_KIND_PROCESS, 1, 77, 10042));
    // Eleven threads, more than 3 s after the process record: one thread-count event, 1 -> 12.
    for (int i = 0; i < 11; ++i) Inject(normal, ForkRecord(4242, "", KOVA_TASK_KIND_THREAD, 4 * kSecond, 0));
    Inject(normal, RssRecord(4242, KOVA_RSS_ANON, 8 << 20, 4 * kSecond));
    Inject(normal, ExitRecord(4242, "kova-exit-name", 9 * kSecond));
    kova_cgroup_attach_record cgroup{};
    cgroup.type = KOVA_RAW_CGROUP_ATTACH;
    cgroup.pid = 4243;
    strcpy(cgroup.dst_path, "/top-app");
    Inject(PinnedRings::kGplRing, RecordBytes(cgroup));
    ASSERT_TRUE(collected_.WaitFor(5)) << daemon_->Stderr();

    EXPECT_EQ(collected_.Records(KOVA_RAW_CGROUP_ATTACH), std::vector<std::string>{RecordBytes(cgroup)});
    std::vector<EventCollector::Received> all = collected_.All();
    std::erase_if(all, [](const auto& event) { return event.id == KOVA_RAW_CGROUP_ATTACH; });
    ASSERT_EQ(all.size(), 4u);
    std::optional<TaskCreated> created = DecodeTaskCreated(all[0].record);
    ASSERT_TRUE(created);
    EXPECT_EQ(std::tie(created->pid, created->ppid, created->uid, created->comm),
              std::make_tuple(4242, 77, 10042u, std::string("kova-child")));
    std::optional<ThreadCountChanged> threads = DecodeThreadCountChanged(all[1].record);
    ASSERT_TRUE(threads);
    EXPECT_EQ(std::tie(threads->oldThreadNum, threads->threadNum, threads->ppid), std::make_tuple(1, 12, 77));
    std::optional<RssChanged> memory = DecodeRssChanged(all[2].record);
    ASSERT_TRUE(memory);
    EXPECT_EQ(memory->current, (RssBytes{0, 8 << 20, 0, 0}));
    EXPECT_EQ(memory->lastReported, RssBytes{});
    EXPECT_EQ(memory->comm, "kova-child");
    std::optional<TaskExited> exited = DecodeTaskExited(all[3].record);
    ASSERT_TRUE(exited);
    EXPECT_EQ(exited->pid, 4242);
    EXPECT_EQ(exited->comm, "kova-exit-name");
}

TEST_F(DaemonRingsTest, AfterTheDaemonRestartsTheClientSubscribesAgain) {
    auto client = Subscribed({kTaskCreated});
    Inject(PinnedRings::kNormalRing, ForkRecord(5001, "first"));
    ASSERT_TRUE(collected_.WaitFor(1));

    ASSERT_TRUE(daemon_->Stop());
    ASSERT_TRUE(WaitUntil([&] { return !client->connected(); }, 5s));
    ASSERT_TRUE(daemon_->Start()) << daemon_->Stderr();
    // The client retries every 5 seconds; the new daemon knows nothing of the old subscriptions.
    ASSERT_TRUE(WaitUntil([&] { return client->connected() && client->waitUntilSubscribed(0ms); }, 12s));
    Inject(PinnedRings::kNormalRing, ForkRecord(5002, "second"));
    ASSERT_TRUE(collected_.WaitFor(2)) << daemon_->Stderr();
    std::optional<TaskCreated> created = DecodeTaskCreated(collected_.Records(kTaskCreated).back());
    ASSERT_TRUE(created);
    EXPECT_EQ(created->pid, 5002);
}

// The real /proc: the start-up scan seeds the table that signal 51 dumps.
class DaemonOnRealProcTest : public DaemonRingsTest {
  protected:
    DaemonOnRealProcTest() : DaemonRingsTest(/*realProc=*/true) {}
};

TEST_F(DaemonOnRealProcTest, Signal51DumpsTheTableSeededFromTheRealProc) {
    ASSERT_EQ(kill(daemon_->pid(), 51), 0);
    std::string dump;
    ASSERT_TRUE(WaitUntil(
            [&] { return (dump = ReadFile(daemon_->diagDir() + "/DUMPTASK_INFO")).find("initTimeStamp") != std::string::npos; },
            5s));
    // A task line starts with the comm padded to 16 characters, three blanks and the pid.
    const auto line = [](std::string comm, int pid) {
        if (!comm.empty() && comm.back() == '\n') comm.pop_back();
        comm.resize(16, ' ');
        return "\n" + comm + "   " + std::to_string(pid) + " ";
    };
    EXPECT_NE(dump.find(line("kovabpfd", daemon_->pid())), std::string::npos) << dump.substr(0, 2000);
    EXPECT_NE(dump.find(line(ReadFile("/proc/1/comm"), 1)), std::string::npos) << dump.substr(0, 2000);
}

}  // namespace
}  // namespace kova::test
