// The client library's decoders, from records built with the service's own record definitions: every
// layout 50001 to 50010, truncated and over-long records, counts that run past the end, and the 8-byte
// id of the reset reports.

#include <gtest/gtest.h>
#include <string.h>

#include "kova/bpf_client_events.h"
#include "service/kova_bpf_client_events.h"

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

void ExpectEveryTruncationRefused(const std::string& record) {
    for (size_t size = 0; size < record.size(); ++size) {
        std::string error;
        EXPECT_FALSE(DecodeClientEvent(std::string_view(record).substr(0, size), &error)) << "size " << size;
        EXPECT_FALSE(error.empty()) << "size " << size;
    }
}

std::vector<std::vector<uint64_t>> Times(const std::vector<PolicyTimes>& policies) {
    std::vector<std::vector<uint64_t>> times;
    for (const PolicyTimes& policy : policies) times.push_back(policy.timesNs);
    return times;
}

TEST(ClientEventsTest, TaskEventsDecodeEveryField) {
    wire::KovaTaskCreateEvent created{wire::EVENT_TASK_CREATE, 4242, 1, 10123, "worker"};
    std::optional<TaskCreated> task = DecodeTaskCreated(Bytes(created));
    ASSERT_TRUE(task);
    EXPECT_EQ(task->pid, 4242);
    EXPECT_EQ(task->ppid, 1);
    EXPECT_EQ(task->uid, 10123u);
    EXPECT_EQ(task->comm, "worker");

    wire::KovaTaskExitEvent exited{wire::EVENT_TASK_EXIT, -7, {}};
    memcpy(exited.comm, "0123456789abcdef", 16);  // fills the field: no terminator
    std::optional<TaskExited> gone = DecodeTaskExited(Bytes(exited));
    ASSERT_TRUE(gone);
    EXPECT_EQ(gone->pid, -7);
    EXPECT_EQ(gone->comm, "0123456789abcdef");

    wire::KovaThreadCountChangeEvent threads{wire::EVENT_THREAD_COUNT_CHANGE, 300, 2, 0, 1, 12};
    std::optional<ThreadCountChanged> count = DecodeThreadCountChanged(Bytes(threads));
    ASSERT_TRUE(count);
    EXPECT_EQ(count->pid, 300);
    EXPECT_EQ(count->ppid, 2);
    EXPECT_EQ(count->oldThreadNum, 1);
    EXPECT_EQ(count->threadNum, 12);

    wire::KovaRssChangeEvent rss{wire::EVENT_RSS_CHANGE, 501, 500, 1000, "app\0junk", {1, 2, 3, 4}, {-5, 6, 7, 8}};
    std::optional<RssChanged> memory = DecodeRssChanged(Bytes(rss));
    ASSERT_TRUE(memory);
    EXPECT_EQ(memory->comm, "app");  // what follows the terminator is not part of the name
    EXPECT_EQ(memory->current, (RssBytes{1, 2, 3, 4}));
    EXPECT_EQ(memory->lastReported, (RssBytes{-5, 6, 7, 8}));
    EXPECT_EQ(memory->uid, 1000u);
}

TEST(ClientEventsTest, FixedRecordsOfTheWrongLengthOrIdAreRefused) {
    wire::KovaTaskCreateEvent created{wire::EVENT_TASK_CREATE, 1, 0, 0, "x"};
    const std::string record = Bytes(created);
    ExpectEveryTruncationRefused(record);
    std::string error;
    EXPECT_FALSE(DecodeTaskCreated(record.substr(0, 31), &error));
    EXPECT_EQ(error, "50001: 31 bytes, too short for the task-created event at offset 0 (32 bytes)");
    EXPECT_FALSE(DecodeTaskCreated(record + "x", &error));
    EXPECT_EQ(error, "50001: 1 bytes after the last field at offset 32");
    EXPECT_FALSE(DecodeTaskExited(record, &error));
    EXPECT_EQ(error, "50001: expected id 50002");
    EXPECT_FALSE(DecodeTaskCreated("ab", &error));
    EXPECT_EQ(error, "50001: 2 bytes, too short for an event id");

    wire::KovaRssChangeEvent rss{};
    rss.id = wire::EVENT_RSS_CHANGE;
    ExpectEveryTruncationRefused(Bytes(rss));
    wire::KovaThreadCountChangeEvent threads{};
    threads.id = wire::EVENT_THREAD_COUNT_CHANGE;
    ExpectEveryTruncationRefused(Bytes(threads));
}

TEST(ClientEventsTest, AnyRecordDecodesByItsIdAndOtherIdsAreNamedAsSuch) {
    wire::KovaTaskExitEvent exited{wire::EVENT_TASK_EXIT, 9, "sleep"};
    std::optional<DecodedEvent> event = DecodeClientEvent(Bytes(exited));
    ASSERT_TRUE(event);
    ASSERT_TRUE(std::holds_alternative<TaskExited>(*event));
    EXPECT_EQ(std::get<TaskExited>(*event).comm, "sleep");

    std::string error;
    const uint32_t cgroupRecordType = 5;
    EXPECT_FALSE(DecodeClientEvent(Bytes(cgroupRecordType) + std::string(60, '\0'), &error));
    EXPECT_EQ(error, "5: not a client event id");
    EXPECT_FALSE(DecodeClientEvent("", &error));
    EXPECT_EQ(error, "0 bytes, too short for an event id");
    EXPECT_EQ(ClientEventIdOf("abc"), std::nullopt);
    EXPECT_EQ(ClientEventIdOf(Bytes(exited)), 50002u);

    EXPECT_STREQ(ClientEventName(50001), "task_created");
    EXPECT_STREQ(ClientEventName(50010), "thread_time_reset");
    EXPECT_EQ(ClientEventName(50011), nullptr);
}

TEST(ClientEventsTest, TotalTimeReportWithAndWithoutData) {
    const std::string withData = Builder()
                                         .Add(wire::KovaTotalTimeReportHeader{wire::EVENT_TOTAL_CPU_TIME_IN_STATE, 77, 1})
                                         .Policies({{10, 20, 30}, {40, 50}})
                                         .str();
    ASSERT_EQ(withData.size(), 17u + (4 + 24) + (4 + 16));
    std::optional<TotalTimeInState> report = DecodeTotalTimeInState(withData);
    ASSERT_TRUE(report);
    EXPECT_EQ(report->timestampNs, 77u);
    EXPECT_TRUE(report->hasData);
    EXPECT_EQ(Times(report->policies), (std::vector<std::vector<uint64_t>>{{10, 20, 30}, {40, 50}}));
    ExpectEveryTruncationRefused(withData);

    const std::string empty = Bytes(wire::KovaTotalTimeReportHeader{wire::EVENT_TOTAL_CPU_TIME_IN_STATE, 0, 0});
    ASSERT_EQ(empty.size(), 13u);
    report = DecodeTotalTimeInState(empty);
    ASSERT_TRUE(report);
    EXPECT_FALSE(report->hasData);
    EXPECT_TRUE(report->policies.empty());

    std::string error;
    EXPECT_FALSE(DecodeTotalTimeInState(empty + std::string(4, '\0'), &error));  // no data means it ends there
    EXPECT_EQ(error, "50005: 4 bytes after the last field at offset 13");
    std::string badFlag = empty;
    badFlag[12] = 2;
    EXPECT_FALSE(DecodeTotalTimeInState(badFlag, &error));
    EXPECT_EQ(error, "50005: has-data flag is 2, not 0 or 1");
}

TEST(ClientEventsTest, CountsThatCannotFitAreRefusedBeforeAnythingIsAllocated) {
    std::string error;
    const std::string manyPolicies =
            Builder().Add(wire::KovaTotalTimeReportHeader{wire::EVENT_TOTAL_CPU_TIME_IN_STATE, 1, 1}).Add(0xffffffffu).str();
    EXPECT_FALSE(DecodeTotalTimeInState(manyPolicies, &error));
    EXPECT_EQ(error, "50005: policy count 4294967295 at offset 13 needs at least 17179869180 bytes, 0 left");

    const std::string manyFrequencies = Builder()
                                                .Add(wire::KovaTotalTimeReportHeader{wire::EVENT_TOTAL_CPU_TIME_IN_STATE, 1, 1})
                                                .Add(1u)
                                                .Add(3u)
                                                .Add(uint64_t{1})
                                                .Add(uint64_t{2})
                                                .str();
    EXPECT_FALSE(DecodeTotalTimeInState(manyFrequencies, &error));
    EXPECT_EQ(error, "50005: frequency count 3 at offset 17 needs at least 24 bytes, 16 left");

    const std::string manyRecords =
            Builder().Add(wire::KovaCpuTimeReportHeader{wire::EVENT_PROCESS_CPU_TIME_IN_STATE, 1, 2, 3, 1}).Add(2u).str() +
            std::string(32, '\0');
    EXPECT_FALSE(DecodeProcessTimeInState(manyRecords, &error));
    EXPECT_EQ(error, "50006: record count 2 at offset 29 needs at least 64 bytes, 32 left");
}

TEST(ClientEventsTest, ProcessReportDecodesRecordsAndFrequencyEntries) {
    wire::KovaProcessTimeRecord first{100, 100, 900, "surfaceflinger"};
    wire::KovaProcessTimeRecord second{200, 200, 100, {}};
    memcpy(second.name, "sixteen-chars-xx", 16);
    const std::string record = Builder()
                                       .Add(wire::KovaCpuTimeReportHeader{wire::EVENT_PROCESS_CPU_TIME_IN_STATE, 5, 1000, 1234, 1})
                                       .Add(2u)
                                       .Add(first)
                                       .Add(second)
                                       .Add(uint8_t{1})
                                       .Add(1u)
                                       .Add(100u)
                                       .Policies({{600}, {200, 100}})
                                       .str();
    std::optional<ProcessTimeInState> report = DecodeProcessTimeInState(record);
    ASSERT_TRUE(report);
    EXPECT_EQ(report->timestampNs, 5u);
    EXPECT_EQ(report->reportedTimeNs, 1000u);
    EXPECT_EQ(report->totalTimeNs, 1234u);
    ASSERT_EQ(report->records.size(), 2u);
    EXPECT_EQ(report->records[0].name, "surfaceflinger");
    EXPECT_EQ(report->records[0].timeNs, 900u);
    EXPECT_EQ(report->records[1].tgid, 200u);
    EXPECT_EQ(report->records[1].name, "sixteen-chars-xx");
    ASSERT_TRUE(report->hasFrequencyData);
    ASSERT_EQ(report->frequencies.size(), 1u);
    EXPECT_EQ(report->frequencies[0].key, 100u);
    EXPECT_EQ(Times(report->frequencies[0].policies), (std::vector<std::vector<uint64_t>>{{600}, {200, 100}}));
    ExpectEveryTruncationRefused(record);

    // The service's frame without data: the header, has-records 0, has-frequency-data 0.
    const std::string empty =
            Builder().Add(wire::KovaCpuTimeReportHeader{wire::EVENT_PROCESS_CPU_TIME_IN_STATE, 0, 0, 0, 0}).Add(uint8_t{0}).str();
    ASSERT_EQ(empty.size(), 30u);
    report = DecodeProcessTimeInState(empty);
    ASSERT_TRUE(report);
    EXPECT_FALSE(report->hasRecords);
    EXPECT_FALSE(report->hasFrequencyData);
    EXPECT_TRUE(report->records.empty());

    std::string error;
    std::string badFlag = empty;
    badFlag[29] = 7;
    EXPECT_FALSE(DecodeProcessTimeInState(badFlag, &error));
    EXPECT_EQ(error, "50006: has-frequency-data flag at offset 29 is 7, not 0 or 1");
    EXPECT_FALSE(DecodeThreadTimeInState(empty, &error));
    EXPECT_EQ(error, "50006: expected id 50007");
}

TEST(ClientEventsTest, ThreadReportCarriesThreadAndProcessNames) {
    wire::KovaThreadTimeRecord thread{321, 321, 300, "RenderThread", 4000, "com.example"};
    const std::string record = Builder()
                                       .Add(wire::KovaCpuTimeReportHeader{wire::EVENT_THREAD_CPU_TIME_IN_STATE, 9, 4000, 4000, 1})
                                       .Add(1u)
                                       .Add(thread)
                                       .Add(uint8_t{0})
                                       .str();
    std::optional<DecodedEvent> event = DecodeClientEvent(record);
    ASSERT_TRUE(event);
    const auto& report = std::get<ThreadTimeInState>(*event);
    ASSERT_EQ(report.records.size(), 1u);
    EXPECT_EQ(report.records[0].pid, 321u);
    EXPECT_EQ(report.records[0].tgid, 300u);
    EXPECT_EQ(report.records[0].threadName, "RenderThread");
    EXPECT_EQ(report.records[0].timeNs, 4000u);
    EXPECT_EQ(report.records[0].processName, "com.example");
    EXPECT_FALSE(report.hasFrequencyData);
    ExpectEveryTruncationRefused(record);
}

TEST(ClientEventsTest, ResetReportsHaveAnEightByteId) {
    for (const uint32_t id : {50008u, 50009u, 50010u}) {
        const std::string record = Bytes(wire::KovaTimeResetReport{id, 123456789});
        ASSERT_EQ(record.size(), 16u);
        std::optional<DecodedEvent> event = DecodeClientEvent(record);
        ASSERT_TRUE(event) << id;
        const auto& reset = std::get<TimeInStateReset>(*event);
        EXPECT_EQ(reset.id, id);
        EXPECT_EQ(reset.timestampNs, 123456789u);
        EXPECT_TRUE(reset.succeeded());
        ExpectEveryTruncationRefused(record);
    }
    std::optional<TimeInStateReset> failed = DecodeTimeInStateReset(Bytes(wire::KovaTimeResetReport{50009, 0}));
    ASSERT_TRUE(failed);
    EXPECT_FALSE(failed->succeeded());

    std::string error;
    // A reader that took the id as four bytes would read the time stamp from offset 4.
    EXPECT_FALSE(DecodeTimeInStateReset(Bytes(uint32_t{50008}) + Bytes(uint64_t{5}) + Bytes(uint32_t{0}), &error));
    EXPECT_EQ(error, "50008: the 64-bit id has 0x5 in its upper half, not 0");
    EXPECT_FALSE(DecodeTimeInStateReset(Bytes(wire::KovaTimeResetReport{50011, 1}), &error));
    EXPECT_EQ(error, "50011: expected an id from 50008 to 50010");
    EXPECT_FALSE(DecodeTimeInStateReset(Bytes(uint32_t{50008}) + Bytes(uint64_t{1}), &error));
    EXPECT_EQ(error, "50008: 12 bytes, too short for the reset report at offset 0 (16 bytes)");
}

}  // namespace
}  // namespace kova::test
