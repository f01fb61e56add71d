// The client library's decoders, from records built with the service's and the kernel side's own record
// definitions: every layout 50001 to 50010 and 4 to 7, truncated and over-long records, counts that run
// past the end, and the 8-byte id of the reset reports.

#include <gtest/gtest.h>
#include <string.h>

#include "kova/bpf_client_events.h"
#include "kova_bpf_records.h"
#include "protocol/kova_bpf_protocol.h"

namespace kova::test {
namespace {

using namespace Kova::Client;
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

}  // namespace
}  // namespace kova::test
