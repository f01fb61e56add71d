// The client library. Its decoders, from records built with the service's and the kernel side's own
// record definitions: every layout 50001 to 50010 and 4 to 7, truncated and over-long records, counts
// that run past the end, and the 8-byte id of the reset reports. Then KovaBpfClient over real sockets,
// against a scripted service of the test's own, which shows exactly what the client sends and lets the
// test send anything back. Delivery from kovabpfd itself is in kovabpfctl_test (whose watch is a
// client), a daemon restart in daemon_rings_test.

#include <android-base/unique_fd.h>
#include <android/log.h>
#include <cutils/sockets.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include <atomic>
#include <optional>

#include "kova/bpf_client.h"
#include "kova/bpf_client_events.h"
#include "kova_bpf_records.h"
#include "kova_event_collector.h"
#include "kova_ipc_test_util.h"
#include "kova_test_client.h"
#include "kova_test_support.h"
#include "protocol/kova_bpf_protocol.h"

namespace kova::test {
namespace {

using namespace Kova::Client;
using namespace std::chrono_literals;
namespace wire = Kova::Bpf;

template <typename T>
std::string Bytes(const T& value) {
    return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}

// A variable-length record, appended field by field.
class Builder {
  public:
    template <typename T>
    Builder& Add(const T& value) {
        bytes_ += Bytes(value);
        return *this;
    }
    // u32 P, then per policy u32 F and F times.
    Builder& Policies(const std::vector<std::vector<uint64_t>>& policies) {
        Add(static_cast<uint32_t>(policies.size()));
        for (const auto& times : policies) {
            Add(static_cast<uint32_t>(times.size()));
            for (const uint64_t time : times) Add(time);
        }
        return *this;
    }
    const std::string& str() const { return bytes_; }

  private:
    std::string bytes_;
};

std::vector<std::vector<uint64_t>> Times(const std::vector<PolicyTimes>& policies) {
    std::vector<std::vector<uint64_t>> times;
    for (const PolicyTimes& policy : policies) times.push_back(policy.timesNs);
    return times;
}

wire::KovaCpuTimeReportHeader CpuHeader(uint32_t id, uint64_t timestamp = 0, uint64_t reported = 0, uint64_t total = 0,
                                        uint8_t hasRecords = 0) {
    return wire::KovaCpuTimeReportHeader{id, timestamp, reported, total, hasRecords};
}

const std::string kCreated = Bytes(wire::KovaTaskCreateEvent{wire::EVENT_TASK_CREATE, 4242, 1, 10123, "worker"});
const std::string kExited = [] {
    wire::KovaTaskExitEvent exited{wire::EVENT_TASK_EXIT, -7, {}};
    memcpy(exited.comm, "0123456789abcdef", 16);  // fills the field: no terminator
    return Bytes(exited);
}();
const std::string kThreads = Bytes(wire::KovaThreadCountChangeEvent{wire::EVENT_THREAD_COUNT_CHANGE, 300, 2, 0, 1, 12});
const std::string kRss =
        Bytes(wire::KovaRssChangeEvent{wire::EVENT_RSS_CHANGE, 501, 500, 1000, "app\0junk", {1, 2, 3, 4}, {-5, 6, 7, 8}});
const std::string kTotal = Builder()
                                   .Add(wire::KovaTotalTimeReportHeader{wire::EVENT_TOTAL_CPU_TIME_IN_STATE, 77, 1})
                                   .Policies({{10, 20, 30}, {40, 50}})
                                   .str();
const std::string kProcess = [] {
    wire::KovaProcessTimeRecord second{200, 200, 100, {}};
    memcpy(second.name, "sixteen-chars-xx", 16);
    return Builder()
            .Add(CpuHeader(wire::EVENT_PROCESS_CPU_TIME_IN_STATE, 5, 1000, 1234, 1))
            .Add(2u)
            .Add(wire::KovaProcessTimeRecord{100, 100, 900, "surfaceflinger"})
            .Add(second)
            .Add(uint8_t{1})
            .Add(1u)
            .Add(100u)
            .Policies({{600}, {200, 100}})
            .str();
}();
const std::string kThread = Builder()
                                    .Add(CpuHeader(wire::EVENT_THREAD_CPU_TIME_IN_STATE, 9, 4000, 4000, 1))
                                    .Add(1u)
                                    .Add(wire::KovaThreadTimeRecord{321, 321, 300, "RenderThread", 4000, "com.example"})
                                    .Add(uint8_t{0})
                                    .str();

const std::string kDmabufSize = Bytes(kova_dmabuf_size_record{KOVA_RAW_DMABUF_SIZE, 0, 11, 600, 3, 5 << 20, 1 << 20});
const std::string kLongPath = "/" + std::string(KOVA_CGROUP_PATH_LEN - 1, 'p');
const std::string kCgroup = [] {
    kova_cgroup_attach_record moved{KOVA_RAW_CGROUP_ATTACH, 0, 12, 0x123456789a, 701, 650, 3, 1, "RenderThread", {}};
    memcpy(moved.dst_path, kLongPath.data(), sizeof(moved.dst_path));  // fills the field: no terminator
    return Bytes(moved);
}();
const std::string kFdCount = Bytes(kova_fd_update_record{KOVA_RAW_FD_UPDATE, 0, 13, 802, 0, 200, 136, "binder"});
const std::string kDmabuf =
        Bytes(kova_dmabuf_update_record{KOVA_RAW_DMABUF_UPDATE, 0, 14, 903, KOVA_DMABUF_OP_MMAP, 4711, 8 << 20});

// Every layout decodes by its id to its own type, and every shorter or longer record is refused.
TEST(ClientEventsTest, EveryLayoutDecodesWholeAndRefusesTruncatedOrOverlongRecords) {
    const std::vector<std::pair<std::string, size_t>> layouts{
            {kCreated, 0}, {kExited, 1}, {kThreads, 2}, {kRss, 3}, {kTotal, 4}, {kProcess, 5}, {kThread, 6},
            {Bytes(wire::KovaTimeResetReport{50008, 1}), 7}, {Bytes(wire::KovaTimeResetReport{50009, 1}), 7},
            {Bytes(wire::KovaTimeResetReport{50010, 1}), 7}, {kDmabufSize, 8}, {kCgroup, 9}, {kFdCount, 10},
            {kDmabuf, 11}};
    for (const auto& [record, alternative] : layouts) {
        const uint32_t id = ClientEventIdOf(record).value_or(0);
        SCOPED_TRACE(id);
        EXPECT_NE(ClientEventName(id), nullptr);
        std::optional<DecodedEvent> event = DecodeClientEvent(record);
        ASSERT_TRUE(event);
        EXPECT_EQ(event->index(), alternative);
        std::string error;
        EXPECT_FALSE(DecodeClientEvent(record + "x", &error));
        EXPECT_NE(error.find("1 bytes after the last field"), std::string::npos) << error;
        for (size_t size = 0; size < record.size(); ++size) {
            error.clear();
            EXPECT_FALSE(DecodeClientEvent(std::string_view(record).substr(0, size), &error)) << "size " << size;
            EXPECT_FALSE(error.empty()) << "size " << size;
        }
    }
    EXPECT_STREQ(ClientEventName(50001), "task_created");
    EXPECT_STREQ(ClientEventName(50010), "thread_time_reset");
    EXPECT_EQ(ClientEventName(50011), nullptr);
    EXPECT_STREQ(ClientEventName(5), "cgroup_move");
    EXPECT_EQ(ClientEventName(3), nullptr);  // the kernel's task records reach clients only as the events above
}

TEST(ClientEventsTest, TaskEventsDecodeEveryField) {
    std::optional<TaskCreated> task = DecodeTaskCreated(kCreated);
    ASSERT_TRUE(task);
    EXPECT_EQ(std::tie(task->pid, task->ppid, task->uid, task->comm), std::make_tuple(4242, 1, 10123u, std::string("worker")));
    std::optional<TaskExited> gone = DecodeTaskExited(kExited);
    ASSERT_TRUE(gone);
    EXPECT_EQ(std::tie(gone->pid, gone->comm), std::make_tuple(-7, std::string("0123456789abcdef")));
    std::optional<ThreadCountChanged> count = DecodeThreadCountChanged(kThreads);
    ASSERT_TRUE(count);
    EXPECT_EQ(std::tie(count->pid, count->ppid, count->oldThreadNum, count->threadNum), std::make_tuple(300, 2, 1, 12));
    std::optional<RssChanged> memory = DecodeRssChanged(kRss);
    ASSERT_TRUE(memory);
    EXPECT_EQ(memory->comm, "app");  // what follows the terminator is not part of the name
    EXPECT_EQ(memory->current, (RssBytes{1, 2, 3, 4}));
    EXPECT_EQ(memory->lastReported, (RssBytes{-5, 6, 7, 8}));
    EXPECT_EQ(memory->uid, 1000u);
}

TEST(ClientEventsTest, KernelRecordsDecodeEveryField) {
    std::optional<DmabufSizeChanged> size = DecodeDmabufSizeChanged(kDmabufSize);
    ASSERT_TRUE(size);
    EXPECT_EQ(std::tie(size->timestampNs, size->pid, size->buffers, size->bytes, size->reportedBytes),
              std::make_tuple(uint64_t{11}, 600, 3u, uint64_t{5 << 20}, uint64_t{1 << 20}));
    std::optional<CgroupMoved> moved = DecodeCgroupMoved(kCgroup);
    ASSERT_TRUE(moved);
    EXPECT_EQ(std::tie(moved->timestampNs, moved->pid, moved->callerPid, moved->comm, moved->path, moved->level,
                       moved->cgroupId, moved->root),
              std::make_tuple(uint64_t{12}, 701, 650, std::string("RenderThread"), kLongPath, 1, uint64_t{0x123456789a}, 3));
    std::optional<FdCountChanged> fds = DecodeFdCountChanged(kFdCount);
    ASSERT_TRUE(fds);
    EXPECT_EQ(std::tie(fds->timestampNs, fds->pid, fds->comm, fds->openFds, fds->reportedFds),
              std::make_tuple(uint64_t{13}, 802, std::string("binder"), int64_t{200}, int64_t{136}));
    std::optional<DmabufChanged> dmabuf = DecodeDmabufChanged(kDmabuf);
    ASSERT_TRUE(dmabuf);
    EXPECT_EQ(std::tie(dmabuf->timestampNs, dmabuf->pid, dmabuf->op, dmabuf->inode, dmabuf->size),
              std::make_tuple(uint64_t{14}, 903, DmabufOp::kMmap, uint64_t{4711}, uint64_t{8 << 20}));
    EXPECT_STREQ(DmabufOpName(dmabuf->op), "mmap");
}

TEST(ClientEventsTest, TimeInStateReportsDecodeRecordsAndPolicies) {
    std::optional<TotalTimeInState> total = DecodeTotalTimeInState(kTotal);
    ASSERT_TRUE(total);
    EXPECT_EQ(total->timestampNs, 77u);
    EXPECT_TRUE(total->hasData);
    EXPECT_EQ(Times(total->policies), (std::vector<std::vector<uint64_t>>{{10, 20, 30}, {40, 50}}));
    total = DecodeTotalTimeInState(Bytes(wire::KovaTotalTimeReportHeader{wire::EVENT_TOTAL_CPU_TIME_IN_STATE, 0, 0}));
    ASSERT_TRUE(total);  // without data the record ends after the flag
    EXPECT_FALSE(total->hasData);

    std::optional<ProcessTimeInState> process = DecodeProcessTimeInState(kProcess);
    ASSERT_TRUE(process);
    EXPECT_EQ(std::tie(process->timestampNs, process->reportedTimeNs, process->totalTimeNs),
              std::make_tuple(uint64_t{5}, uint64_t{1000}, uint64_t{1234}));
    ASSERT_EQ(process->records.size(), 2u);
    EXPECT_EQ(process->records[0].name, "surfaceflinger");
    EXPECT_EQ(process->records[0].timeNs, 900u);
    EXPECT_EQ(process->records[1].tgid, 200u);
    EXPECT_EQ(process->records[1].name, "sixteen-chars-xx");
    ASSERT_TRUE(process->hasFrequencyData);
    ASSERT_EQ(process->frequencies.size(), 1u);
    EXPECT_EQ(process->frequencies[0].key, 100u);
    EXPECT_EQ(Times(process->frequencies[0].policies), (std::vector<std::vector<uint64_t>>{{600}, {200, 100}}));
    // The service's frame without data: the header, has-records 0, has-frequency-data 0.
    process = DecodeProcessTimeInState(Builder().Add(CpuHeader(wire::EVENT_PROCESS_CPU_TIME_IN_STATE)).Add(uint8_t{0}).str());
    ASSERT_TRUE(process);
    EXPECT_FALSE(process->hasRecords || process->hasFrequencyData);

    std::optional<ThreadTimeInState> thread = DecodeThreadTimeInState(kThread);
    ASSERT_TRUE(thread);
    ASSERT_EQ(thread->records.size(), 1u);
    const auto& record = thread->records[0];
    EXPECT_EQ(std::tie(record.pid, record.tgid, record.timeNs), std::make_tuple(321u, 300u, uint64_t{4000}));
    EXPECT_EQ(record.threadName, "RenderThread");
    EXPECT_EQ(record.processName, "com.example");
    EXPECT_FALSE(thread->hasFrequencyData);
}

TEST(ClientEventsTest, ResetReportsHaveAnEightByteId) {
    std::optional<TimeInStateReset> reset = DecodeTimeInStateReset(Bytes(wire::KovaTimeResetReport{50009, 123456789}));
    ASSERT_TRUE(reset);
    EXPECT_EQ(reset->id, 50009u);
    EXPECT_EQ(reset->timestampNs, 123456789u);
    EXPECT_TRUE(reset->succeeded());
    reset = DecodeTimeInStateReset(Bytes(wire::KovaTimeResetReport{50009, 0}));
    ASSERT_TRUE(reset);
    EXPECT_FALSE(reset->succeeded());
}

// What is refused, and the reason given: wrong lengths, ids, flags, and counts that cannot fit (refused
// before anything is allocated).
TEST(ClientEventsTest, RefusedRecordsNameTheirFault) {
    const std::string noTotalData = Bytes(wire::KovaTotalTimeReportHeader{wire::EVENT_TOTAL_CPU_TIME_IN_STATE, 0, 0});
    const std::string noProcessData = Builder().Add(CpuHeader(wire::EVENT_PROCESS_CPU_TIME_IN_STATE)).Add(uint8_t{0}).str();
    const auto withByte = [](std::string record, size_t at, char value) {
        record[at] = value;
        return record;
    };
    const auto totalWith = [](auto... fields) {
        Builder builder;
        builder.Add(wire::KovaTotalTimeReportHeader{wire::EVENT_TOTAL_CPU_TIME_IN_STATE, 1, 1});
        (builder.Add(fields), ...);
        return builder.str();
    };
    const std::vector<std::pair<std::string, std::string>> cases{
            {kCreated.substr(0, 31), "50001: 31 bytes, too short for the task-created event at offset 0 (32 bytes)"},
            {"ab", "2 bytes, too short for an event id"},
            {"", "0 bytes, too short for an event id"},
            {Bytes(uint32_t{3}) + std::string(36, '\0'), "3: not a client event id"},
            {kCgroup.substr(0, 183), "5: 183 bytes, too short for the cgroup-move record at offset 0 (184 bytes)"},
            {withByte(kDmabuf, 20, 6), "7: unknown dmabuf operation 6"},
            {withByte(kDmabuf, 20, 0), "7: unknown dmabuf operation 0"},
            {noTotalData + std::string(4, '\0'), "50005: 4 bytes after the last field at offset 13"},
            {withByte(noTotalData, 12, 2), "50005: has-data flag is 2, not 0 or 1"},
            {totalWith(0xffffffffu), "50005: policy count 4294967295 at offset 13 needs at least 17179869180 bytes, 0 left"},
            {totalWith(1u, 3u, uint64_t{1}, uint64_t{2}), "50005: frequency count 3 at offset 17 needs at least 24 bytes, 16 left"},
            {Builder().Add(CpuHeader(wire::EVENT_PROCESS_CPU_TIME_IN_STATE, 1, 2, 3, 1)).Add(2u).str() + std::string(32, '\0'),
             "50006: record count 2 at offset 29 needs at least 64 bytes, 32 left"},
            {withByte(noProcessData, 29, 7), "50006: has-frequency-data flag at offset 29 is 7, not 0 or 1"},
            // A reader that took the id as four bytes would read the time stamp from offset 4.
            {Bytes(uint32_t{50008}) + Bytes(uint64_t{5}) + Bytes(uint32_t{0}), "50008: the 64-bit id has 0x5 in its upper half, not 0"},
            {Bytes(uint32_t{50008}) + Bytes(uint64_t{1}), "50008: 12 bytes, too short for the reset report at offset 0 (16 bytes)"}};
    for (const auto& [record, expected] : cases) {
        std::string error;
        EXPECT_FALSE(DecodeClientEvent(record, &error)) << expected;
        EXPECT_EQ(error, expected);
    }
    // A decoder of one layout refuses the others.
    std::string error;
    EXPECT_FALSE(DecodeTaskExited(kCreated, &error));
    EXPECT_EQ(error, "50001: expected id 50002");
    EXPECT_FALSE(DecodeThreadTimeInState(noProcessData, &error));
    EXPECT_EQ(error, "50006: expected id 50007");
    EXPECT_FALSE(DecodeTimeInStateReset(Bytes(wire::KovaTimeResetReport{50011, 1}), &error));
    EXPECT_EQ(error, "50011: expected an id from 50008 to 50010");
    // Records 4 and 7 have the same size: only the id tells them apart.
    EXPECT_FALSE(DecodeDmabufChanged(kDmabufSize, &error));
    EXPECT_EQ(error, "4: expected id 7");
}

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

    const std::string created = Bytes(wire::KovaTaskCreateEvent{wire::EVENT_TASK_CREATE, 4242, 1, 0, "kova-child"});
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
    ASSERT_TRUE(service_.Send(EventFrame(Bytes(wire::KovaTaskCreateEvent{wire::EVENT_TASK_CREATE, 9, 1, 0, "after"}))));
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
    ASSERT_TRUE(service_.Send(EventFrame(Bytes(wire::KovaTaskCreateEvent{wire::EVENT_TASK_CREATE, 1, 1, 0, "x"}))));
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
