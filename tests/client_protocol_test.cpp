// The service's side of the client protocol, over its real socket: subscriptions, responses, the
// time-in-state hand-over, closed clients and slow clients. The service waits for the loader here, so
// only the IPC server runs; events are handed to the fan-out as the pump would hand them.

#include <android/log.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "kova_ipc_test_util.h"
#include "kova_test_client.h"
#include "kova_test_support.h"
#include "protocol/kova_bpf_protocol.h"
#include "service/kova_bpf_event_manager.h"
#include "service/kova_bpf_service.h"
#include "utils/kova_bpf_client_access.h"
#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_time.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;
using namespace std::chrono_literals;

class ClientProtocolTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(BpfServiceMain()); }
    void TearDown() override {
        service()->stop();
        service()->Wait();
    }
    static KovaBpfService* service() { return KovaBpfService::GetInstance(); }
    static void Publish(const std::string& record) { EventManager::GetInstance()->AppendEvent(record.data(), record.size()); }
    std::unique_ptr<TestClient> Connect() {
        auto client = std::make_unique<TestClient>(roots_.socketName());
        EXPECT_TRUE(client->connected());
        return client;
    }
    // Subscriptions as the fan-out sees them.
    static std::vector<int> SubscribersOf(int32_t id) { return EventManager::GetInstance()->subscribers(id); }

    ScopedPropertyStore properties_;  // readiness unset: the producers wait, the server serves
    ScopedServiceRoots roots_;
};

// Subscribing twice delivers once; unsubscribing stops delivery; a never-subscribed id answers 0.
TEST_F(ClientProtocolTest, SubscribeAndUnsubscribe) {
    auto client = Connect();
    EXPECT_EQ(client->Unsubscribe(50003), 0);
    EXPECT_EQ(client->Subscribe(50001), 0);
    EXPECT_EQ(client->Subscribe(50001), 0);
    EXPECT_EQ(SubscribersOf(50001).size(), 1u);
    Publish(EventRecord(50001, 32, 1));
    Publish(EventRecord(50002, 24, 2));  // not subscribed
    EXPECT_EQ(client->NextEvent(), EventRecord(50001, 32, 1));
    ASSERT_EQ(client->Unsubscribe(50001), 0);
    Publish(EventRecord(50001, 32, 3));
    EXPECT_EQ(client->NextEvent(300ms), std::nullopt);
}

TEST_F(ClientProtocolTest, TwoRequestsInOneBatchAreAnsweredInOrder) {
    auto client = Connect();
    ASSERT_TRUE(client->Send(RequestFrame(7, 51, U32(50001)) + RequestFrame(8, 99, "")));
    std::optional<ReceivedPackage> first = client->NextPackage(5s);
    std::optional<ReceivedPackage> second = client->NextPackage(5s);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->type, PACKAGE_TYPE_RESPONSE);
    EXPECT_EQ(first->payload, ReqPayload(7, 0, ""));
    EXPECT_EQ(second->payload, ReqPayload(8, -1, ""));  // an unknown request type
}

TEST_F(ClientProtocolTest, TimeInStateRequestsAreQueuedAndWakeTheWorker) {
    LogCapture log;
    auto client = Connect();
    EXPECT_EQ(client->AwaitResponse(client->Request(53, U32(50005) + U32(50007)))->result, 0);
    EXPECT_EQ(client->AwaitResponse(client->Request(54, U32(50008)))->result, 0);
    bool woken = false;
    EXPECT_EQ(service()->TEST_takeTimeInStateRequests(&woken), (std::vector<int32_t>{50005, 50007, 50008}));
    EXPECT_TRUE(woken);
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "BpfService", "[KovaBpfService] eventIds[1] = 50007"));

    EXPECT_EQ(client->AwaitResponse(client->Request(53, ""))->result, 0);  // no ids still wakes the worker
    EXPECT_TRUE(service()->TEST_takeTimeInStateRequests(&woken).empty());
    EXPECT_TRUE(woken);

    // With no worker taking them (it waits for the loader here), ids beyond the bound are answered but
    // dropped, with one warning until the queue is taken.
    std::string many;
    for (int i = 0; i < 600; ++i) many += U32(50006);
    const std::string warning = "[KovaBpfService] time-in-state queue full (1024 types)";
    for (int round = 0; round < 2; ++round) {
        for (int request = 0; request < 3; ++request) {
            EXPECT_EQ(client->AwaitResponse(client->Request(53, many))->result, 0);
        }
        EXPECT_EQ(log.CountContaining(warning), round + 1);
        EXPECT_EQ(service()->TEST_takeTimeInStateRequests(&woken).size(), KovaBpfService::kMaxQueuedTimeInStateIds);
    }
}

// However a client's connection ends (it hangs up, it goes while the service is still sending to it,
// the service stops), neither the subscriptions nor the IPC server keep a trace of it; a descriptor
// number used again starts clean.
TEST_F(ClientProtocolTest, AClosedClientLeavesNothingBehind) {
    const UnixIpcManager& server = service()->TEST_ipcManager();
    auto forgotten = [&](size_t listening = 1) {
        return WaitUntil([&] {
            return EventManager::GetInstance()->subscribedConnections() == 0 && server.connectionCount() == 0 &&
                   server.monitoredCount() == listening;
        }, 5s);
    };
    auto gone = Connect();
    ASSERT_EQ(gone->Subscribe(50002), 0);
    ASSERT_EQ(gone->Subscribe(50004), 0);
    gone->Close();
    ASSERT_TRUE(forgotten());
    EXPECT_TRUE(SubscribersOf(50002).empty() && SubscribersOf(50004).empty());

    auto leaving = Connect();
    ASSERT_EQ(leaving->Subscribe(50002), 0);
    for (int i = 0; i < 3000; ++i) Publish(EventRecord(50002, 24));
    leaving->Close();
    ASSERT_TRUE(forgotten());

    // The next connection most likely reuses the descriptor number.
    auto next = Connect();
    Publish(EventRecord(50002, 24));
    EXPECT_EQ(next->NextEvent(300ms), std::nullopt);
    ASSERT_EQ(next->Subscribe(50002), 0);
    Publish(EventRecord(50002, 24, 9));
    EXPECT_EQ(next->NextEvent(), EventRecord(50002, 24, 9));

    service()->stop();
    service()->Wait();
    EXPECT_TRUE(forgotten(0));
}

uint32_t Sequence(const std::string& event) { return LoadIpcWire<uint32_t>(event.data() + 4); }

// A client that stops reading loses its own oldest events once more than 10000 wait; a client that
// keeps reading gets every event.
TEST_F(ClientProtocolTest, ASlowClientLosesOnlyItsOwnOldestEvents) {
    ErrorLogDir errors;
    auto slow = Connect();
    auto fast = Connect();
    ASSERT_EQ(slow->Subscribe(50001), 0);
    ASSERT_EQ(fast->Subscribe(50001), 0);
    constexpr int kEvents = 30000;
    constexpr int kBatch = 1000;  // the publisher waits for the reading client after each batch
    std::atomic<int> read{0};
    std::thread reader([&] {
        for (int i = 0; i < kEvents; ++i, ++read) {
            std::optional<std::string> event = fast->NextEvent(10s);
            ASSERT_TRUE(event) << "lost at " << i;
            ASSERT_EQ(Sequence(*event), static_cast<uint32_t>(i));
        }
    });
    for (int i = 0; i < kEvents; ++i) {
        Publish(U32(50001) + U32(static_cast<uint32_t>(i)) + std::string(24, 'x'));
        if ((i + 1) % kBatch == 0) {
            ASSERT_TRUE(WaitUntil([&] { return read >= i + 1; }, 10s));
        }
    }
    reader.join();
    EXPECT_TRUE(errors.HasEntry(4, "B&A Ipc Package queue full 10000"));

    // The slow client now reads what it still has: whole events, in order, ending with the newest. What
    // reached its socket before it stalled comes first; then a gap where its queue dropped the oldest.
    std::vector<uint32_t> kept;
    while (std::optional<std::string> event = slow->NextEvent(1s)) kept.push_back(Sequence(*event));
    ASSERT_FALSE(kept.empty());
    int gaps = 0;
    for (size_t i = 1; i < kept.size(); ++i) {
        ASSERT_GT(kept[i], kept[i - 1]) << "out of order";
        gaps += kept[i] != kept[i - 1] + 1;
    }
    EXPECT_EQ(kept.back(), static_cast<uint32_t>(kEvents - 1));
    EXPECT_EQ(gaps, 1);
}

// The server's loop run a round at a time on the test's thread (the service's threads never start), so
// that both events are queued before the loop sends anything: the one no frame holds is at the head.
TEST(ClientProtocolRoundsTest, AnEventNoFrameHoldsDoesNotHoldUpTheEventsBehindIt) {
    ScopedPropertyStore properties;
    ScopedServiceRoots roots;
    ErrorLogDir errors;
    UnixIpcManager& server = KovaBpfService::GetInstance()->TEST_ipcManager();
    ASSERT_TRUE(server.createServer());
    auto settle = [&] {
        while (server.TEST_runLoopRound(0) > 0) {
        }
    };
    TestClient client(roots.socketName());
    ASSERT_TRUE(client.connected());
    settle();
    ASSERT_TRUE(client.Send(RequestFrame(1, REQ_SUBSCRIBE_EVENT, U32(50006))));
    settle();
    ASSERT_EQ(client.AwaitResponse(1, 1s)->result, 0);

    const std::string tooLarge = EventRecord(50006, KOVA_IPC_BUFFER_SIZE - 15);  // with its 16 header bytes
    const std::string next = EventRecord(50006, 40, 1);
    EventManager::GetInstance()->AppendEvent(tooLarge.data(), tooLarge.size());
    EventManager::GetInstance()->AppendEvent(next.data(), next.size());
    settle();
    EXPECT_EQ(client.NextEvent(1s), next);
    EXPECT_TRUE(errors.HasEntry(8, "fillNextIpcPackageToBuffer ipc package damaged"));
}

// A producer that paces itself waits while the queue of a client that keeps up is crowded, and not for
// one that stopped keeping up. The test holds the connection's write lock, so nothing drains.
TEST_F(ClientProtocolTest, APacedProducerWaitsOnlyForAClientThatKeepsUp) {
    auto client = Connect();
    ASSERT_EQ(client->Subscribe(50001), 0);
    const std::vector<int> fds = SubscribersOf(50001);
    ASSERT_EQ(fds.size(), 1u);
    const std::shared_ptr<IpcConnection> connection = service()->TEST_ipcManager().connection(fds[0]);
    ASSERT_TRUE(connection);
    const std::string record = EventRecord(50001, 32, 1);
    const auto pacedFlood = [&] {
        std::chrono::steady_clock::duration paced{};
        std::thread producer([&] {
            EventManager::EnablePacingOnThisThread();
            for (size_t i = 0; i < EventManager::kPaceMark; ++i) Publish(record);
            const auto start = std::chrono::steady_clock::now();
            EventManager::GetInstance()->Pace();
            paced = std::chrono::steady_clock::now() - start;
        });
        producer.join();
        return paced;
    };

    std::unique_lock<std::mutex> holdWrites(connection->writeLock);
    // Keeps up, for the next hour.
    connection->lastKeptUpNs = static_cast<int64_t>(GetSystemBootNanosencondsTime()) + 3'600'000'000'000;
    EXPECT_GE(pacedFlood(), EventManager::kPaceLimit);
    connection->lastKeptUpNs = 0;  // fell behind: its queue is trimmed, nobody waits for it
    EXPECT_LT(pacedFlood(), EventManager::kPaceLimit);
    holdWrites.unlock();
}

TEST_F(ClientProtocolTest, InconsistentRequestSizeEndsTheService) {
    // The child runs the test again from the start, so that it has a server thread of its own.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TempDir childDirs;  // the child's fixture directories, which its abort leaves behind
    setenv(kTempBaseVariable, childDirs.path().c_str(), 1);
    EXPECT_DEATH(
            {
                TestClient client(roots_.socketName());
                // dataSize says 8, but only 4 data bytes follow.
                client.Send(PackageFrame(PACKAGE_TYPE_REQUEST, U32(1) + U32(51) + U32(8) + U32(50001)));
                std::this_thread::sleep_for(5s);
            },
            "kova_bpf_framework/service/kova_bpf_service_client_protocol.cpp:[0-9]+\\] Check failed: "
            "\\(\\(KovaReqIpcPackageHeader\\*\\)data\\)->dataSize == size - sizeof\\(KovaReqIpcPackageHeader\\) ");
    unsetenv(kTempBaseVariable);
}

// On a host only root and the client group are served: here the system's own group "users" (gid 100).
// Others connect as uid 65534, from a thread that drops to it.
TEST_F(ClientProtocolTest, OnlyRootAndTheClientGroupAreServed) {
    KOVA_REQUIRE(geteuid() == 0 && ResolveGroup("users") == 100u, "needs root and the system group users (gid 100)");
    constexpr uid_t kNobody = 65534;
    properties_.Set(KOVA_CLIENT_GROUP_PROPERTY, "users");
    LogCapture log;
    auto root = Connect();
    ASSERT_EQ(root->Subscribe(50001), 0);
    TestClient outsider = ConnectAs(roots_.socketName(), kNobody, kNobody, {kNobody});
    Publish(EventRecord(50001, 32, 1));
    EXPECT_EQ(NextRead(outsider.fd()), 0);  // the end of the stream, before any byte
    EXPECT_EQ(log.Count(ANDROID_LOG_WARN, "BpfService",
                        StringPrintf("[KovaBpfService] Refused client pid %d uid 65534 gid 65534: not root and not in "
                                     "group users", getpid())),
              1)
            << log.Dump();
    EXPECT_EQ(service()->TEST_ipcManager().connectionCount(), 1u);
    EXPECT_EQ(EventManager::GetInstance()->subscribedConnections(), 1u);
    EXPECT_EQ(root->NextEvent(), EventRecord(50001, 32, 1));

    // The group counts as a supplementary one and as the primary one.
    for (const auto& [gid, groups] : std::vector<std::pair<gid_t, std::vector<gid_t>>>{{kNobody, {kNobody, 100}},
                                                                                        {100, {}}}) {
        TestClient member = ConnectAs(roots_.socketName(), kNobody, gid, groups);
        ASSERT_EQ(member.Subscribe(50002), 0) << "gid " << gid;
        Publish(EventRecord(50002, 24, static_cast<uint8_t>(gid)));
        EXPECT_EQ(member.NextEvent(), EventRecord(50002, 24, static_cast<uint8_t>(gid))) << "gid " << gid;
    }

    // A group that does not exist leaves root alone.
    properties_.Set(KOVA_CLIENT_GROUP_PROPERTY, "kova-no-such-group");
    outsider = ConnectAs(roots_.socketName(), kNobody, 100, {100});
    EXPECT_EQ(NextRead(outsider.fd()), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_WARN, "BpfService",
                        StringPrintf("[KovaBpfService] Refused client pid %d uid 65534 gid 100: not root, and there is "
                                     "no group kova-no-such-group", getpid())))
            << log.Dump();
}

}  // namespace
}  // namespace kova::test
