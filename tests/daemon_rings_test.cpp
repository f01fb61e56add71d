// kovabpfd on ring buffers of the test's own: a KovaBpfClient subscribes again after the daemon
// restarts. What the daemon makes of each record is in kovabpfctl_test (through the client library)
// and task_events_test.

#include <gtest/gtest.h>

#include "kova/bpf_client.h"
#include "kova_daemon_fixture.h"
#include "kova_event_collector.h"

namespace kova::test {
namespace {

using namespace Kova::Client;
using namespace std::chrono_literals;

TEST(DaemonRingsTest, AfterTheDaemonRestartsTheClientSubscribesAgain) {
    std::string reason;
    KOVA_REQUIRE(HaveBpf(&reason), reason);
    DaemonUnderTest daemon;
    ASSERT_TRUE(daemon.ok());
    ASSERT_TRUE(daemon.Start()) << daemon.Stderr();
    EventCollector collected;
    ClientOptions options;
    options.socketName = daemon.socketName();
    KovaBpfClient client(options);
    client.subscribe(kTaskCreated, collected.Callback());
    ASSERT_TRUE(client.start());
    ASSERT_TRUE(client.waitUntilSubscribed(5s)) << daemon.Stderr();
    ASSERT_TRUE(daemon.Inject(PinnedRings::kNormalRing, ForkRecord(5001, "first")));
    ASSERT_TRUE(collected.WaitFor(1));

    ASSERT_TRUE(daemon.Stop());
    ASSERT_TRUE(WaitUntil([&] { return !client.connected(); }, 5s));
    EXPECT_EQ(client.stats().linksUnanswered, 0u);  // a link that was served is not taken for a refusal
    ASSERT_TRUE(daemon.Start()) << daemon.Stderr();
    // The client retries every 5 seconds; the new daemon knows nothing of the old subscriptions.
    ASSERT_TRUE(WaitUntil([&] { return client.connected() && client.waitUntilSubscribed(0ms); }, 12s));
    ASSERT_TRUE(daemon.Inject(PinnedRings::kNormalRing, ForkRecord(5002, "second")));
    ASSERT_TRUE(collected.WaitFor(2)) << daemon.Stderr();
    std::optional<TaskCreated> created = DecodeTaskCreated(collected.Records(kTaskCreated).back());
    ASSERT_TRUE(created);
    EXPECT_EQ(created->pid, 5002);
    EXPECT_TRUE(daemon.Stop()) << daemon.Stderr();
}

}  // namespace
}  // namespace kova::test
