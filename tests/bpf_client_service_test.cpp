// KovaBpfClient against kovabpfd running on real ring buffers: records written into both rings from
// the kernel side reach the library's callbacks and decode to what was written, and after the daemon
// restarts the client subscribes again and events flow again.

#include <gtest/gtest.h>
#include <string.h>

#include "kova/bpf_client.h"
#include "kova_bpf_records.h"
#include "kova_daemon_fixture.h"
#include "kova_event_collector.h"

namespace kova::test {
namespace {

using namespace Kova::Client;
using namespace std::chrono_literals;

constexpr uint64_t kSecond = 1000000000;

template <typename Record>
std::string Bytes(const Record& record) {
    return std::string(reinterpret_cast<const char*>(&record), sizeof(record));
}

template <size_t N>
void SetComm(char (&field)[N], const char* comm) {
    memset(field, 0, N);
    memcpy(field, comm, std::min(strlen(comm), N - 1));
}

std::string Fork(int32_t pid, int32_t ppid, uint32_t kind, uint64_t timestamp, const char* comm = "kova-child") {
    kova_task_create_record record{};
    record.type = KOVA_RAW_TASK_CREATE;
    record.timestamp_ns = timestamp;
    record.ppid = ppid;
    record.pid = pid;
    record.uid = 10042;
    SetComm(record.comm, comm);
    record.kind = kind;
    return Bytes(record);
}

std::string Exit(int32_t pid, const char* comm) {
    kova_task_exit_record record{};
    record.type = KOVA_RAW_TASK_EXIT;
    record.timestamp_ns = 9 * kSecond;
    record.pid = pid;
    SetComm(record.comm, comm);
    record.kind = KOVA_TASK_KIND_PROCESS;
    return Bytes(record);
}

class ClientServiceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
        daemon_ = std::make_unique<DaemonUnderTest>();
        ASSERT_TRUE(daemon_->ok());
        ASSERT_TRUE(daemon_->Start()) << daemon_->Stderr();
    }
    ClientOptions Options() const {
        ClientOptions options;
        options.socketName = daemon_->socketName();
        return options;
    }
    void Inject(PinnedRings::Ring ring, const std::string& record) { ASSERT_TRUE(daemon_->Inject(ring, record)); }

    std::unique_ptr<DaemonUnderTest> daemon_;
};

TEST_F(ClientServiceTest, TaskRecordsOfTheNormalRingArriveAsDecodedClientEvents) {
    EventCollector collected;
    KovaBpfClient client(Options());
    for (const uint32_t id : {kTaskCreated, kTaskExited, kThreadCountChanged, kRssChanged}) {
        client.subscribe(id, collected.Callback());
    }
    ASSERT_TRUE(client.start());
    ASSERT_TRUE(client.waitUntilSubscribed(5s));

    const auto normal = PinnedRings::kNormalRing;
    Inject(normal, Fork(4242, 77, KOVA_TASK_KIND_PROCESS, 1));
    // Eleven threads, more than 3 s after the process record: one thread-count event, 1 -> 12.
    for (int i = 0; i < 11; ++i) Inject(normal, Fork(4242, 0, KOVA_TASK_KIND_THREAD, 4 * kSecond));
    kova_rss_record rss{};
    rss.type = KOVA_RAW_RSS;
    rss.timestamp_ns = 4 * kSecond;
    rss.pid = 4242;
    rss.member = KOVA_RSS_ANON;
    rss.size = 8 << 20;
    Inject(normal, Bytes(rss));
    Inject(normal, Exit(4242, "kova-exit-name"));
    ASSERT_TRUE(collected.WaitFor(4)) << daemon_->Stderr();

    const std::vector<EventCollector::Received> all = collected.All();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(all[0].id, kTaskCreated);
    EXPECT_EQ(all[1].id, kThreadCountChanged);
    EXPECT_EQ(all[2].id, kRssChanged);
    EXPECT_EQ(all[3].id, kTaskExited);

    std::optional<TaskCreated> created = DecodeTaskCreated(all[0].record);
    ASSERT_TRUE(created);
    EXPECT_EQ(created->pid, 4242);
    EXPECT_EQ(created->ppid, 77);
    EXPECT_EQ(created->uid, 10042u);
    EXPECT_EQ(created->comm, "kova-child");
    std::optional<ThreadCountChanged> threads = DecodeThreadCountChanged(all[1].record);
    ASSERT_TRUE(threads);
    EXPECT_EQ(threads->oldThreadNum, 1);
    EXPECT_EQ(threads->threadNum, 12);
    EXPECT_EQ(threads->ppid, 77);
    std::optional<RssChanged> memory = DecodeRssChanged(all[2].record);
    ASSERT_TRUE(memory);
    EXPECT_EQ(memory->current, (RssBytes{0, 8 << 20, 0, 0}));
    EXPECT_EQ(memory->lastReported, RssBytes{});
    EXPECT_EQ(memory->comm, "kova-child");
    std::optional<TaskExited> exited = DecodeTaskExited(all[3].record);
    ASSERT_TRUE(exited);
    EXPECT_EQ(exited->pid, 4242);
    EXPECT_EQ(exited->comm, "kova-exit-name");

    const ClientStats stats = client.stats();
    EXPECT_EQ(stats.eventsDelivered, 4u);
    EXPECT_EQ(stats.eventsById.at(kTaskCreated), 1u);
}

TEST_F(ClientServiceTest, RawRecordsOfTheGplRingAreForwardedUnchanged) {
    EventCollector collected;
    KovaBpfClient client(Options());
    client.subscribe(KOVA_RAW_CGROUP_ATTACH, collected.Callback());
    ASSERT_TRUE(client.start());
    ASSERT_TRUE(client.waitUntilSubscribed(5s));
    kova_cgroup_attach_record cgroup{};
    cgroup.type = KOVA_RAW_CGROUP_ATTACH;
    cgroup.pid = 4243;
    SetComm(cgroup.comm, "mover");
    SetComm(cgroup.dst_path, "/top-app");
    Inject(PinnedRings::kGplRing, Bytes(cgroup));
    ASSERT_TRUE(collected.WaitFor(1));
    EXPECT_EQ(collected.Records(KOVA_RAW_CGROUP_ATTACH), std::vector<std::string>{Bytes(cgroup)});
    std::string error;
    EXPECT_FALSE(DecodeClientEvent(Bytes(cgroup), &error));
    EXPECT_EQ(error, "5: not a client event id");
}

TEST_F(ClientServiceTest, AfterTheDaemonRestartsEventsFlowAgain) {
    EventCollector collected;
    KovaBpfClient client(Options());
    client.subscribe(kTaskCreated, collected.Callback());
    ASSERT_TRUE(client.start());
    ASSERT_TRUE(client.waitUntilSubscribed(5s));
    Inject(PinnedRings::kNormalRing, Fork(5001, 1, KOVA_TASK_KIND_PROCESS, 1));
    ASSERT_TRUE(collected.WaitFor(1));

    ASSERT_TRUE(daemon_->Stop());
    ASSERT_TRUE(WaitUntil([&] { return !client.connected(); }, 5s));
    ASSERT_TRUE(daemon_->Start()) << daemon_->Stderr();
    // The client retries every 5 seconds; the new daemon knows nothing of the old subscriptions.
    ASSERT_TRUE(WaitUntil([&] { return client.connected() && client.waitUntilSubscribed(0ms); }, 12s));
    Inject(PinnedRings::kNormalRing, Fork(5002, 1, KOVA_TASK_KIND_PROCESS, 1));
    ASSERT_TRUE(collected.WaitFor(2)) << daemon_->Stderr();
    std::optional<TaskCreated> created = DecodeTaskCreated(collected.Records(kTaskCreated).back());
    ASSERT_TRUE(created);
    EXPECT_EQ(created->pid, 5002);
    EXPECT_GE(client.stats().connections, 2u);
}

}  // namespace
}  // namespace kova::test
