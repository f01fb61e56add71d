// The ring-buffer event pump on real ring buffers: records written by the kernel (the injector)
// reach their handlers and their subscribers; invalid records, failing polls, the status word and its
// overflow report; and a stop that wakes monitors blocked in their polls.

#include <android/log.h>
#include <gtest/gtest.h>

#include "kova_bpf_records.h"
#include "kova_ipc_test_util.h"
#include "kova_service_harness.h"
#include "kova_test_client.h"
#include "service/kova_bpf_task_manager.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;
using namespace std::chrono_literals;
constexpr auto kNormalRing = PinnedRings::kNormalRing;
constexpr auto kGplRing = PinnedRings::kGplRing;

class EventPumpTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
        harness_ = std::make_unique<ServiceHarness>();
        ASSERT_TRUE(harness_->Start()) << log_.Dump();
    }
    // Whether the table holds `pid`, and a copy of its record; read under the table's lock, since the
    // monitor thread writes it.
    static std::optional<KovaTask> Task(int pid) {
        auto lock = KovaTaskManager::Lock();
        const KovaTask* task = KovaTaskManager::GetInstance()->GetKovaTask(pid);
        return task ? std::optional<KovaTask>(*task) : std::nullopt;
    }
    void Inject(PinnedRings::Ring ring, const std::string& record) { ASSERT_TRUE(harness_->Inject(ring, record)); }
    std::unique_ptr<TestClient> Subscribed(int32_t id) {
        auto client = std::make_unique<TestClient>(harness_->socketName());
        EXPECT_EQ(client->Subscribe(id), 0);
        return client;
    }

    LogCapture log_;
    std::unique_ptr<ServiceHarness> harness_;
};

TEST_F(EventPumpTest, HandledTypesReachTheirHandlersWithoutSubscribers) {
    Inject(kNormalRing, ForkRecord(4001, "forked"));
    ASSERT_TRUE(WaitUntil([&] { return Task(4001).has_value(); }, 5s));
    Inject(kNormalRing, RssRecord(4001, KOVA_RSS_ANON, 8192, 1));
    ASSERT_TRUE(WaitUntil([&] { return Task(4001)->rssSize[RSS_ANON] == 8192; }, 5s));
    Inject(kNormalRing, ExitRecord(4001, "forked"));
    ASSERT_TRUE(WaitUntil([&] { return !Task(4001); }, 5s));
    // Either ring dispatches alike.
    kova_task_init_record init{};
    init.type = KOVA_RAW_TASK_INIT;
    init.pid = 4002;
    init.thread_count = 4;
    Inject(kGplRing, RecordBytes(init));
    ASSERT_TRUE(WaitUntil([&] { return Task(4002).has_value(); }, 5s));
    EXPECT_EQ(Task(4002)->threadNum, 4);
}

TEST_F(EventPumpTest, UnhandledTypeIsForwardedUnchangedAsAnEventPackage) {
    auto client = Subscribed(KOVA_RAW_CGROUP_ATTACH);
    const std::string record = EventRecord(KOVA_RAW_CGROUP_ATTACH, 184, 3);
    Inject(kGplRing, record);
    std::optional<ReceivedPackage> package = client->NextPackage(5s);
    ASSERT_TRUE(package);
    EXPECT_EQ(package->type, PACKAGE_TYPE_EVENT);
    EXPECT_EQ(package->payload, record);
}

// A short record of a handled type and a type above 13 are logged and reach neither handler nor
// subscriber; the second fails its poll, which the monitor logs and survives.
TEST_F(EventPumpTest, ShortAndUnknownRecordsAreLoggedAndNotForwarded) {
    auto forks = Subscribed(KOVA_RAW_TASK_CREATE);
    auto unknown = Subscribed(15);
    Inject(kNormalRing, ForkRecord(4003, "short").substr(0, 20));
    EXPECT_TRUE(log_.WaitFor("[KovaBpfService] handleEvent record too short! Type: 2, size: 20", 5s));
    Inject(kNormalRing, EventRecord(15, 16));
    EXPECT_TRUE(log_.WaitFor("[KovaBpfService] handleEvent ERROR!!! Type: 15", 5s));
    EXPECT_TRUE(WaitUntil([&] { return log_.CountContaining("[KovaBpfService][eventMonitor] KOVABPF: ret -1 .Error ring buf poll.") == 1; }, 5s));
    Inject(kNormalRing, ForkRecord(4004, "forked"));
    EXPECT_EQ(forks->NextEvent(5s), ForkRecord(4004, "forked"));
    EXPECT_EQ(unknown->NextEvent(300ms), std::nullopt);
    EXPECT_FALSE(Task(4003));
}

// Each failed poll costs the monitor a second; five in a row are survived, the sixth ends it.
TEST_F(EventPumpTest, SixConsecutiveFailedPollsEndTheMonitorFiveDoNot) {
    auto client = Subscribed(KOVA_RAW_CGROUP_ATTACH);
    const std::string good = EventRecord(KOVA_RAW_CGROUP_ATTACH, 32);
    const auto failedPolls = [&] { return log_.CountContaining("[KovaBpfService][gpleventMonitor] KOVABPF: ret"); };
    for (int i = 0; i < 5; ++i) Inject(kGplRing, EventRecord(20, 8));
    Inject(kGplRing, good);
    ASSERT_EQ(client->NextEvent(30s), good) << log_.Dump();
    EXPECT_EQ(failedPolls(), 5);

    for (int i = 0; i < 6; ++i) Inject(kGplRing, EventRecord(20, 8));
    ASSERT_TRUE(WaitUntil([&] { return failedPolls() == 11; }, 30s)) << log_.Dump();
    std::this_thread::sleep_for(1500ms);  // past the sixth failure's pause
    Inject(kGplRing, good);
    EXPECT_EQ(client->NextEvent(1s), std::nullopt) << "the GPL monitor should have ended\n" << log_.Dump();
    EXPECT_EQ(failedPolls(), 11);
    EXPECT_EQ(log_.CountContaining("Stop GPL Event Produce Thread"), 0);
}

TEST_F(EventPumpTest, MonitorsSetTheCoreAndNormalBitsAndKeepOthers) {
    EXPECT_EQ(harness_->StatusWord(kNormalRing), KOVA_STATUS_CORE | KOVA_STATUS_NORMAL);
    EXPECT_EQ(harness_->StatusWord(kGplRing), KOVA_STATUS_CORE | KOVA_STATUS_NORMAL);
    KovaBpfService* service = harness_->service();
    EXPECT_TRUE(service->enableNormalBpf(0, false));
    EXPECT_EQ(harness_->StatusWord(kNormalRing), KOVA_STATUS_CORE);
    EXPECT_TRUE(service->enableCoreBpf(0, false));
    EXPECT_EQ(harness_->StatusWord(kNormalRing), 0u);
    EXPECT_TRUE(service->enableCoreBpf(0, true));
    EXPECT_EQ(harness_->StatusWord(kNormalRing), KOVA_STATUS_CORE);
    EXPECT_FALSE(service->enableCoreBpf(2, true));
    EXPECT_FALSE(service->enableNormalBpf(-1, true));
}

std::atomic<int64_t> gNow{0};  // read by the monitor thread too
int64_t FakeClock() { return gNow; }

TEST_F(EventPumpTest, FullBitIsReportedAtMostEvery30SecondsAndClearedAlone) {
    KovaBpfService* service = harness_->service();
    gNow = 1000000;
    service->TEST_setStatusCheckClock(FakeClock);
    service->TEST_setLastRingBuffCheckTime(1, gNow);
    const auto ring = kGplRing;
    const uint64_t bits = KOVA_STATUS_FULL | KOVA_STATUS_CORE | KOVA_STATUS_NORMAL;
    ASSERT_TRUE(harness_->SetStatus(ring, KOVA_STATUS_WORD, bits));
    for (uint32_t key = 1; key <= 4; ++key) ASSERT_TRUE(harness_->SetStatus(ring, key, 100 * key));

    gNow += 29;
    EXPECT_EQ(service->checkBpfRingBuffStatus(1, false), 1);  // rate-limited: the map is not read
    EXPECT_EQ(harness_->StatusWord(ring), bits);
    gNow += 1;
    EXPECT_EQ(service->checkBpfRingBuffStatus(1, false), 0);
    EXPECT_EQ(harness_->StatusWord(ring), KOVA_STATUS_CORE | KOVA_STATUS_NORMAL);
    EXPECT_TRUE(log_.Has(ANDROID_LOG_WARN, "BpfService", "[KovaBpfService][checkBpfRingBuffStatus] bpf ringbuff full!"));
    EXPECT_TRUE(log_.Has(ANDROID_LOG_WARN, "BpfService",
                         "[KovaBpfService][checkBpfRingBuffStatus] avail data: 100, ringbuf size: 200, cons pos: 300, "
                         "prod pos: 400"));

    EXPECT_EQ(service->checkBpfRingBuffStatus(1, true), 1);  // forced, but nothing to report
    ASSERT_TRUE(harness_->SetStatus(ring, KOVA_STATUS_WORD, bits));
    EXPECT_EQ(service->checkBpfRingBuffStatus(1, true), 0);  // forced ignores the rate limit
    EXPECT_EQ(service->checkBpfRingBuffStatus(2, true), 0);
}

TEST_F(EventPumpTest, StopWakesBothMonitorsBlockedInTheirPolls) {
    const auto started = std::chrono::steady_clock::now();
    harness_->Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - started, 3s);
    EXPECT_TRUE(log_.Has(ANDROID_LOG_WARN, "BpfService", "[KovaBpfService][eventMonitor] Stop Event Produce Thread..."));
    EXPECT_TRUE(log_.Has(ANDROID_LOG_WARN, "BpfService",
                         "[KovaBpfService][gpleventMonitor] Stop GPL Event Produce Thread..."));
}

}  // namespace
}  // namespace kova::test
