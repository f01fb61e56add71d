// KovaBpfClient over real sockets, against a scripted service of the test's own, which shows exactly
// what the client sends and lets the test send anything back. Delivery from kovabpfd itself is in
// kovabpfctl_test (whose watch is a client), a daemon restart in daemon_rings_test.

#include <android-base/unique_fd.h>
#include <android/log.h>
#include <cutils/sockets.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <time.h>
#include <sys/socket.h>

#include <atomic>
#include <optional>

#include "kova/bpf_client.h"
#include "kova_event_collector.h"
#include "kova_ipc_test_util.h"
#include "kova_test_client.h"
#include "kova_test_support.h"
#include "protocol/kova_bpf_protocol.h"

namespace kova::test {
namespace {

using namespace Kova::Client;
using namespace std::chrono_literals;

struct Request {
    uint32_t reqId;
    int32_t reqType;
    std::vector<uint32_t> words;
};

// The service's side of the socket, scripted by the test: accepts, reads requests, sends frames.
class ScriptedService {
  public:
    ScriptedService() : listener_(socket_local_server(name_.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM)) {}
    const std::string& name() const { return name_; }

    // Accepts the next connection; false after `timeout`.
    bool Accept(std::chrono::milliseconds timeout = 5s) {
        pollfd ready{listener_.get(), POLLIN, 0};
        if (poll(&ready, 1, static_cast<int>(timeout.count())) != 1) return false;
        link_ = std::make_unique<TestClient>(android::base::unique_fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
        return link_->connected();
    }
    void CloseLink() { link_.reset(); }

    // The next request on the link, or nullopt after `timeout`.
    std::optional<Request> NextRequest(std::chrono::milliseconds timeout = 5s) {
        std::optional<ReceivedPackage> package = link_->NextPackage(timeout);
        if (!package) return std::nullopt;
        EXPECT_EQ(package->type, PACKAGE_TYPE_REQUEST);
        const std::string& body = package->payload;
        const auto header = LoadIpcWire<KovaReqIpcPackageHeader>(body.data());
        Request request{header.reqId, header.reqType, {}};
        for (size_t at = 12; at + 4 <= body.size(); at += 4) request.words.push_back(LoadIpcWire<uint32_t>(body.data() + at));
        return request;
    }
    bool Answer(const Request& request, int32_t result) { return Send(ResponseFrame(request.reqId, result, "")); }
    bool Send(const std::string& bytes) { return link_->Send(bytes); }

  private:
    std::string name_ = UniqueSocketName();
    android::base::unique_fd listener_;
    std::unique_ptr<TestClient> link_;
};

std::string TaskCreatedRecord(int32_t pid, const char* comm) {
    Kova::Bpf::KovaTaskCreateEvent event{Kova::Bpf::EVENT_TASK_CREATE, pid, 1, 0, {}};
    memcpy(event.comm, comm, std::min(strlen(comm), sizeof(event.comm) - 1));
    return std::string(reinterpret_cast<const char*>(&event), sizeof(event));
}

class ClientWithScriptedServiceTest : public ::testing::Test {
  protected:
    ClientOptions Options() {
        ClientOptions options;
        options.socketName = service_.name();
        options.connectionCallback = [this](bool connected) { (connected ? connects_ : disconnects_)++; };
        return options;
    }
    // Answers the next `count` requests, which must be subscriptions, with 0; their ids in order.
    std::vector<uint32_t> Confirm(size_t count) {
        std::vector<uint32_t> ids;
        for (size_t i = 0; i < count; ++i) {
            std::optional<Request> request = service_.NextRequest();
            if (!request || request->reqType != 51) {
                ADD_FAILURE() << "subscription " << i << " missing";
                break;
            }
            ids.insert(ids.end(), request->words.begin(), request->words.end());
            service_.Answer(*request, 0);
        }
        return ids;
    }
    void AcceptAndConfirm(size_t count) {
        ASSERT_TRUE(service_.Accept());
        EXPECT_EQ(Confirm(count).size(), count);
    }

    ScriptedService service_;
    std::atomic<int> connects_{0};
    std::atomic<int> disconnects_{0};
};

TEST_F(ClientWithScriptedServiceTest, EverySubscriptionIsSentOnConnectAndAgainOnEveryNewLink) {
    KovaBpfClient client(Options());
    EXPECT_TRUE(client.subscribe(50002, {}));
    EXPECT_TRUE(client.subscribe(50001, {}));
    EXPECT_FALSE(client.subscribe(50001, {}));  // replaces the callback only
    ASSERT_TRUE(client.start());
    EXPECT_FALSE(client.start());
    ASSERT_TRUE(service_.Accept());
    std::vector<Request> first;
    for (int i = 0; i < 2; ++i) first.push_back(service_.NextRequest().value_or(Request{}));
    EXPECT_EQ(first[0].reqType, 51);
    EXPECT_EQ(first[0].words, std::vector<uint32_t>{50001});
    EXPECT_EQ(first[1].words, std::vector<uint32_t>{50002});
    EXPECT_EQ(service_.NextRequest(200ms), std::nullopt) << "a repeated subscribe sends nothing";
    EXPECT_FALSE(client.waitUntilSubscribed(200ms));
    service_.Answer(first[0], 0);
    service_.Answer(first[1], 0);
    EXPECT_TRUE(client.waitUntilSubscribed(5s));

    EXPECT_TRUE(client.subscribe(50004, {}));  // while connected: sent at once
    EXPECT_EQ(Confirm(1), std::vector<uint32_t>{50004});

    service_.CloseLink();
    ASSERT_TRUE(service_.Accept()) << "the client should connect again at once while the service listens";
    EXPECT_EQ(Confirm(3), (std::vector<uint32_t>{50001, 50002, 50004}));
    EXPECT_TRUE(client.waitUntilSubscribed(5s));
    EXPECT_EQ(client.stats().connections, 2u);
    EXPECT_EQ(connects_, 2);
    EXPECT_EQ(disconnects_, 1);
    EXPECT_EQ(client.subscriptions(), (std::vector<uint32_t>{50001, 50002, 50004}));
}

TEST_F(ClientWithScriptedServiceTest, EventsReachTheCallbackOfTheirIdUntilUnsubscribedAndOthersAreCounted) {
    EventCollector collected;
    KovaBpfClient client(Options());
    client.subscribe(50001, collected.Callback());
    client.subscribe(50004, {});  // counted only
    ASSERT_TRUE(client.start());
    AcceptAndConfirm(2);
    ASSERT_TRUE(client.waitUntilSubscribed(5s));

    const std::string created = TaskCreatedRecord(4242, "kova-child");
    // Several packages in one send, as the service batches them.
    ASSERT_TRUE(service_.Send(EventFrame(created) + EventFrame(EventRecord(50004, 96)) + EventFrame(EventRecord(7, 12)) +
                              EventFrame("ab") + EventFrame(created)));
    ASSERT_TRUE(collected.WaitFor(2, 50001));
    const std::vector<EventCollector::Received> all = collected.All();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].record, created);
    EXPECT_NE(all[0].thread, std::this_thread::get_id());

    ASSERT_TRUE(WaitUntil([&] { return client.stats().eventsReceived == 5; }, 5s));
    ClientStats stats = client.stats();
    EXPECT_EQ(stats.eventsDelivered, 2u);
    EXPECT_EQ(stats.eventsUnclaimed, 2u);  // id 7, and a record too short for an id
    EXPECT_EQ(stats.eventsById, (std::map<uint32_t, uint64_t>{{7, 1}, {50001, 2}, {50004, 1}}));

    // Unsubscribing tells the service and stops delivery at once: an event already on its way when
    // the unsubscription left is counted, not delivered.
    EXPECT_TRUE(client.unsubscribe(50001));
    EXPECT_FALSE(client.unsubscribe(50001));
    std::optional<Request> request = service_.NextRequest();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->reqType, 52);
    EXPECT_EQ(request->words, std::vector<uint32_t>{50001});
    service_.Answer(*request, 0);
    ASSERT_TRUE(service_.Send(EventFrame(created)));
    ASSERT_TRUE(WaitUntil([&] { return client.stats().eventsReceived == 6; }, 5s));
    EXPECT_EQ(collected.Count(), 2u);
    EXPECT_TRUE(client.waitUntilSubscribed(1s)) << "nothing is left to confirm";
}

// How each requestReport() (or requestTimeInState(), without a report) ended, in order, with the
// report's bytes.
class ReportOutcomes {
  public:
    ReportCallback Callback() {
        return [this](RequestStatus status, const ClientEvent& report) {
            std::lock_guard<std::mutex> guard(lock_);
            ended_.emplace_back(status, std::string(report.record));
        };
    }
    RequestCallback StatusCallback() {
        return [this](RequestStatus status) { Callback()(status, ClientEvent{}); };
    }
    std::vector<std::pair<RequestStatus, std::string>> Ended() const {
        std::lock_guard<std::mutex> guard(lock_);
        return ended_;
    }
    bool WaitFor(size_t count) const { return WaitUntil([&] { return Ended().size() >= count; }, 5s); }

  private:
    mutable std::mutex lock_;
    std::vector<std::pair<RequestStatus, std::string>> ended_;
};

uint64_t NowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

// A report of `id` stamped `stampNs`; the client reads nothing else of it. Resets hold their id in
// eight bytes.
std::string StampedReport(uint32_t id, uint64_t stampNs, char filler = 'r') {
    return id >= 50008 ? U64(id) + U64(stampNs) : U32(id) + U64(stampNs) + std::string(17, filler);
}

TEST_F(ClientWithScriptedServiceTest, RequestReportDeliversTheFirstReportNoOlderThanTheRequestThenUnsubscribes) {
    ReportOutcomes outcomes;
    KovaBpfClient client(Options());
    ASSERT_TRUE(client.start());
    ASSERT_TRUE(service_.Accept());
    ASSERT_TRUE(client.waitUntilConnected(5s));
    const uint64_t beforeRequest = NowNs();
    ASSERT_TRUE(client.requestReport(50006, outcomes.Callback()));
    // Subscribed first, so that the service handles the subscription before the request.
    EXPECT_EQ(Confirm(1), std::vector<uint32_t>{50006});
    std::optional<Request> request = service_.NextRequest();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->reqType, 53);
    EXPECT_EQ(request->words, std::vector<uint32_t>{50006});
    EXPECT_TRUE(client.subscriptions().empty()) << "the wait's subscription is not the user's";

    // Built before the request: not this wait's. The one built for it may come ahead of the answer.
    ASSERT_TRUE(service_.Send(EventFrame(StampedReport(50006, beforeRequest, 'a'))));
    const std::string report = StampedReport(50006, NowNs(), 'b');
    ASSERT_TRUE(service_.Send(EventFrame(report) + EventFrame(StampedReport(50006, NowNs(), 'c'))));
    service_.Answer(*request, 0);
    ASSERT_TRUE(outcomes.WaitFor(1));
    request = service_.NextRequest();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->reqType, 52);
    EXPECT_EQ(request->words, std::vector<uint32_t>{50006});
    ASSERT_TRUE(WaitUntil([&] { return client.stats().eventsReceived == 3; }, 5s));
    EXPECT_EQ(outcomes.Ended(), (std::vector<std::pair<RequestStatus, std::string>>{{RequestStatus::kDone, report}}));
    EXPECT_EQ(client.stats().eventsUnclaimed, 2u);

    // With a subscription of the user's, the wait shares it: the user gets the report too and keeps
    // the subscription afterwards. A failed reset carries no time stamp, and counts as current.
    EventCollector collected;
    client.subscribe(50008, collected.Callback());
    EXPECT_EQ(Confirm(1), std::vector<uint32_t>{50008});
    ASSERT_TRUE(client.requestReport(50008, outcomes.Callback()));
    request = service_.NextRequest();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->reqType, 53);
    service_.Answer(*request, 0);
    ASSERT_TRUE(service_.Send(EventFrame(StampedReport(50008, 0))));
    ASSERT_TRUE(outcomes.WaitFor(2));
    EXPECT_EQ(outcomes.Ended().back(), std::make_pair(RequestStatus::kDone, StampedReport(50008, 0)));
    EXPECT_EQ(collected.Count(50008), 1u);
    EXPECT_EQ(service_.NextRequest(200ms), std::nullopt) << "the user's subscription must stay";
    EXPECT_EQ(client.subscriptions(), std::vector<uint32_t>{50008});
}

// Both kinds of request end done, refused, lost with the link, or stopped; the subscription of a
// report's wait ends with the wait.
TEST_F(ClientWithScriptedServiceTest, RequestsEndDoneRefusedLostOrStopped) {
    const std::pair<RequestStatus, std::string> done{RequestStatus::kDone, ""}, refused{RequestStatus::kRefused, ""},
            lost{RequestStatus::kConnectionLost, ""}, stopped{RequestStatus::kStopped, ""};
    using Ended = std::vector<std::pair<RequestStatus, std::string>>;
    ReportOutcomes outcomes;
    KovaBpfClient client(Options());
    EXPECT_FALSE(client.requestTimeInState({50005})) << "no link yet";
    EXPECT_FALSE(client.requestReport(50005, outcomes.Callback())) << "no link yet";
    ASSERT_TRUE(client.start());
    ASSERT_TRUE(service_.Accept());
    ASSERT_TRUE(client.waitUntilConnected(5s));
    // Report ids outside 50005-50010 are refused without sending anything.
    EXPECT_FALSE(client.requestTimeInState({}));
    EXPECT_FALSE(client.requestTimeInState({50004}));
    EXPECT_FALSE(client.requestTimeInState({50005, 50011}));
    EXPECT_FALSE(client.requestReport(50004, outcomes.Callback()));
    EXPECT_FALSE(client.requestReport(50011, outcomes.Callback()));

    ASSERT_TRUE(client.requestTimeInState({50005, 50010}, outcomes.StatusCallback()));
    std::optional<Request> request = service_.NextRequest();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->reqType, 53);
    EXPECT_EQ(request->words, (std::vector<uint32_t>{50005, 50010}));
    service_.Answer(*request, 0);
    ASSERT_TRUE(client.requestTimeInState({50008}, outcomes.StatusCallback()));
    service_.Answer(service_.NextRequest().value_or(Request{}), -1);
    ASSERT_TRUE(client.requestReport(50008, outcomes.Callback()));
    Confirm(1);
    service_.Answer(service_.NextRequest().value_or(Request{}), -1);
    ASSERT_TRUE(outcomes.WaitFor(3));
    EXPECT_EQ(outcomes.Ended(), (Ended{done, refused, refused}));
    EXPECT_EQ(service_.NextRequest().value_or(Request{}).reqType, 52) << "a refused wait ends its subscription";

    ASSERT_TRUE(client.requestTimeInState({50006}, outcomes.StatusCallback()));
    ASSERT_TRUE(service_.NextRequest());  // never answered
    ASSERT_TRUE(client.requestReport(50009, outcomes.Callback()));
    Confirm(1);
    service_.Answer(service_.NextRequest().value_or(Request{}), 0);
    service_.CloseLink();  // accepted, but no report before the link ends
    ASSERT_TRUE(outcomes.WaitFor(5));
    ASSERT_TRUE(service_.Accept());
    EXPECT_EQ(service_.NextRequest(200ms), std::nullopt) << "the ended wait's subscription is not renewed";

    ASSERT_TRUE(client.waitUntilConnected(5s));
    ASSERT_TRUE(client.requestTimeInState({50007}, outcomes.StatusCallback()));
    ASSERT_TRUE(service_.NextRequest());
    ASSERT_TRUE(client.requestReport(50010, outcomes.Callback()));
    EXPECT_TRUE(client.stop());
    EXPECT_EQ(outcomes.Ended(), (Ended{done, refused, refused, lost, lost, stopped, stopped}))
            << "stop() ends open requests and waits before it returns";
    EXPECT_FALSE(client.connected());
}

// A stream that cannot be framed (a frame larger than any buffer, or inner sizes that disagree) costs
// the client its link, never its process; it connects again and subscribes again.
TEST_F(ClientWithScriptedServiceTest, ADamagedStreamClosesTheLinkAndTheClientConnectsAgain) {
    LogCapture log;
    EventCollector collected;
    KovaBpfClient client(Options());
    client.subscribe(50001, collected.Callback());
    ASSERT_TRUE(client.start());
    AcceptAndConfirm(1);
    ASSERT_TRUE(service_.Send(U64(uint64_t{1} << 40)));
    AcceptAndConfirm(1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "KovaBpfClient",
                        "[KovaBpfClient] Damaged package from the service: frame size 1099511627776, buffer 32768"));

    // The second-level header claims 100 payload bytes in a frame that holds 4.
    ASSERT_TRUE(service_.Send(Frame(U32(PACKAGE_TYPE_EVENT) + U32(100) + U32(50001))));
    AcceptAndConfirm(1);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "KovaBpfClient",
                        "[KovaBpfClient] Damaged package from the service: frame size 12 does not match its header"));
    ASSERT_TRUE(client.waitUntilSubscribed(5s));
    ASSERT_TRUE(service_.Send(EventFrame(TaskCreatedRecord(9, "after"))));
    EXPECT_TRUE(collected.WaitFor(1));
    EXPECT_EQ(client.stats().connections, 3u);
    EXPECT_EQ(connects_, 3);
    EXPECT_EQ(disconnects_, 2);  // each damaged link is reported lost, once
}

TEST_F(ClientWithScriptedServiceTest, CallbacksMaySubscribeButNotStop) {
    LogCapture log;
    std::optional<KovaBpfClient> client(std::in_place, Options());
    std::atomic<int> stopResult{-1};
    client->subscribe(50001, [&](const ClientEvent&) {
        stopResult = client->stop() ? 1 : 0;
        client->subscribe(50003, {});
    });
    ASSERT_TRUE(client->start());
    AcceptAndConfirm(1);
    ASSERT_TRUE(service_.Send(EventFrame(TaskCreatedRecord(1, "x"))));
    std::optional<Request> request = service_.NextRequest();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->words, std::vector<uint32_t>{50003});
    EXPECT_EQ(stopResult, 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "KovaBpfClient",
                        "[KovaBpfClient] stop() called from a callback; the client keeps running"));
    EXPECT_TRUE(client->connected());
    client.reset();  // the destructor stops it from here
}

TEST(ClientWithoutServiceTest, StopsPromptlyWhileWaitingToRetryAndCanStartAgain) {
    ClientOptions options;
    options.socketName = UniqueSocketName();
    KovaBpfClient client(options);
    ASSERT_TRUE(client.start());
    EXPECT_FALSE(client.waitUntilConnected(300ms));
    EXPECT_FALSE(client.waitUntilSubscribed(10ms));
    const auto started = std::chrono::steady_clock::now();
    EXPECT_TRUE(client.stop());
    EXPECT_LT(std::chrono::steady_clock::now() - started, 1s);
    EXPECT_TRUE(client.start());
    EXPECT_TRUE(client.stop());
}

TEST(ClientWithoutServiceTest, TheSocketNameFollowsThePathSeam) {
    {
        ScopedRoot socket(Kova::Bpf::KOVA_SOCKET_NAME, "kova-redirected");
        EXPECT_EQ(KovaBpfClient().socketName(), "kova-redirected");
    }
    EXPECT_EQ(KovaBpfClient().socketName(), "/mnt/bpfframework/kovabpfdispatcher");
}

}  // namespace
}  // namespace kova::test
