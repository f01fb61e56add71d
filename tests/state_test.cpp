// The per-second event counters and their CSV, driven by a fake clock; signal 50 end to end.

#include <android/log.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <memory>
#include <thread>

#include "kova_test_support.h"
#include "service/kova_bpf_state.h"
#include "utils/kova_bpf_paths.h"
#include "utils/kova_bpf_signal_worker.h"

namespace kova::test {
namespace {

using Kova::Bpf::KovaBpfDataState;

std::atomic<uint64_t> gNow{1000};
uint64_t FakeClock() { return gNow.load(); }

const std::string kHeader =
        "EventCount, kova_task_init, kmem_rss_info, sched_task_create, sched_task_exit, dmabuf_size_info, "
        "cgroup_attach_cpuset_info, fd_update_info, dmabuf_update, sched_total_cpu_time, UNKNOW, "
        "sched_process_cpu_time, UNKNOW, sched_thread_cpu_time, UNKNOW, PollCount, ";

// One CSV line with the given {type, count} counters: their sum over types 0 to 13, then all 15 counters.
std::string CsvLine(std::map<int, int> counters = {}) {
    int sum = 0;
    std::string values;
    for (int type = 0; type < 15; ++type) {
        sum += type < 14 ? counters[type] : 0;
        values += std::to_string(counters[type]) + ", ";
    }
    return std::to_string(sum) + ", " + values + "\r\n";
}

// `count` lines of seconds without events.
std::string EmptyLines(int count) {
    std::string lines;
    for (int i = 0; i < count; ++i) lines += CsvLine();
    return lines;
}

class DataStateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        gNow = 1000;
        state_ = std::make_unique<KovaBpfDataState>(FakeClock);
    }
    std::string Csv() {
        state_->DumpState();
        return ReadFile(diag_ / "bpfservice_state.csv");
    }

    TempDir diag_;
    ScopedRoot root_{Kova::Bpf::KOVA_DIAGNOSTICS_DIR, diag_.path()};
    std::unique_ptr<KovaBpfDataState> state_;
};

TEST_F(DataStateTest, SecondsGetTheirOwnSlotsNewestFirst) {
    EXPECT_EQ(Csv(), kHeader + "0, 0 \r\n" + CsvLine());
    state_->RecordEvent(0, 1);
    state_->RecordEvent(0, 1);   // same second, same slot
    state_->RecordEvent(15, 1);  // types above 14 are ignored
    state_->RecordEvent(-1, 1);
    state_->RecordEvent(14, 1);  // polls are counted but stay out of the sum
    gNow = 1005;
    state_->RecordEvent(3, 4);
    EXPECT_EQ(Csv(), kHeader + "5, 0 \r\n" + CsvLine({{3, 4}}) + EmptyLines(4) + CsvLine({{0, 2}, {14, 1}}));
}

TEST_F(DataStateTest, SlotsWrapAfter1800SecondsAndReusedSlotsStartEmpty) {
    std::string olderSeconds;
    for (int second = 0; second < 1800; ++second) {
        gNow = 1000 + second;
        state_->RecordEvent(1, 1);
        if (second > 0) olderSeconds += CsvLine({{1, 1}});
    }
    gNow = 1000 + 1800;  // the 1801st second takes the slot of the first
    state_->RecordEvent(1, 7);
    EXPECT_EQ(Csv(), kHeader + "1800, 1 \r\n" + CsvLine({{1, 7}}) + olderSeconds);
    gNow = 1000 + 1804;
    state_->RecordEvent(1, 7);
    const std::string csv = Csv();
    EXPECT_TRUE(csv.starts_with(kHeader + "1804, 5 \r\n" + CsvLine({{1, 7}}) + EmptyLines(3) + CsvLine({{1, 7}}) +
                                CsvLine({{1, 1}})))
            << csv.substr(0, 2000);
    EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 1 + 1800);

    // A long silence keeps exactly 1800 slots, all empty but the newest.
    gNow = 1000 + 5000;
    state_->RecordEvent(4, 1);
    EXPECT_EQ(Csv(), kHeader + "5000, 3201 \r\n" + CsvLine({{4, 1}}) + EmptyLines(1799));
}

TEST_F(DataStateTest, ClockGoingBackwardsMovesHeadBackAndDumpsOnlyTheHeader) {
    gNow = 1010;
    state_->RecordEvent(5, 1);
    gNow = 1003;  // head moves back from 10 to 3, which is accepted as it stands
    state_->RecordEvent(5, 1);
    EXPECT_EQ(state_->head(), 3);
    gNow = 990;  // head below tail: the CSV has the header only
    state_->RecordEvent(5, 1);
    EXPECT_EQ(state_->head(), -10);
    EXPECT_EQ(Csv(), kHeader + "-10, 0 \r\n");
}

TEST_F(DataStateTest, ConcurrentProducersLoseNoCount) {
    const auto produce = [this] {
        for (int i = 0; i < 200000; ++i) state_->RecordEvent(2, 1);
    };
    std::thread first(produce), second(produce), clock([] {
        for (int i = 0; i < 50; ++i) {
            gNow.fetch_add(1);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    first.join();
    second.join();
    clock.join();
    uint64_t total = 0;
    for (int64_t sequence = state_->tail(); sequence <= state_->head(); ++sequence) total += state_->counter(sequence, 2);
    EXPECT_EQ(total, 400000u);
}

TEST_F(DataStateTest, UnopenableFileIsReported) {
    ScopedRoot blocked(Kova::Bpf::KOVA_DIAGNOSTICS_DIR, "/proc/self/kova-no-such-dir");
    LogCapture capture;
    state_->DumpState();
    EXPECT_TRUE(capture.Has(ANDROID_LOG_ERROR, "BpfUtils", "[KovaBpfDataState][DumpState] open file failed!"));
}

// Signal 50 writes the CSV of the process-wide counters from the signal worker, also while producers
// count and signals arrive in a storm.
TEST(DumpSignalTest, Signal50WritesTheCsvUnderAStorm) {
    TempDir diag;
    ScopedRoot root(Kova::Bpf::KOVA_DIAGNOSTICS_DIR, diag.path());
    ASSERT_TRUE(Kova::Bpf::InstallDeferredSignalHandler(50, Kova::Bpf::DumpState));
    KovaBpfDataState::GetInstance()->RecordEvent(1, 42);
    std::atomic<bool> done{false};
    std::thread producer([&] {
        while (!done) KovaBpfDataState::GetInstance()->RecordEvent(2, 1);
    });
    for (int i = 0; i < 2000; ++i) ASSERT_EQ(kill(getpid(), 50), 0);
    done = true;
    producer.join();
    EXPECT_TRUE(WaitUntil(
            [&] {
                const std::string csv = ReadFile(diag / "bpfservice_state.csv");
                return csv.starts_with(kHeader) && csv.find(", 42, ") != std::string::npos && csv.ends_with("\r\n");
            },
            std::chrono::seconds(5)));
}

}  // namespace
}  // namespace kova::test
