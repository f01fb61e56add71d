// The per-second event counters and their CSV, driven by a fake clock; signal 50 end to end.

#include <android/log.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
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

// One CSV line: the sum of counters 0 to 13, then the 15 counters.
std::string CsvLine(const std::vector<int>& counters) {
    std::vector<int> all(15, 0);
    for (size_t i = 0; i < counters.size(); ++i) all[i] = counters[i];
    int sum = 0;
    for (int i = 0; i < 14; ++i) sum += all[i];
    std::string line = std::to_string(sum) + ", ";
    for (int value : all) line += std::to_string(value) + ", ";
    return line + "\r\n";
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

TEST_F(DataStateTest, FreshCountersDumpAHeaderAndSlotZero) {
    EXPECT_EQ(Csv(), kHeader + "0, 0 \r\n" + CsvLine({}));
}

TEST_F(DataStateTest, TypesAbove14AreIgnoredAndPollsStayOutOfTheSum) {
    state_->RecordEvent(15, 1);
    state_->RecordEvent(-1, 1);
    state_->RecordEvent(14, 1);
    state_->RecordEvent(2, 3);
    std::vector<int> expected(15, 0);
    expected[2] = 3;
    expected[14] = 1;
    EXPECT_EQ(Csv(), kHeader + "0, 0 \r\n" + CsvLine(expected));
}

TEST_F(DataStateTest, SecondsGetTheirOwnSlotsNewestFirst) {
    state_->RecordEvent(0, 1);
    state_->RecordEvent(0, 1);  // same second, same slot
    gNow = 1005;
    state_->RecordEvent(3, 1);
    EXPECT_EQ(state_->head(), 5);
    EXPECT_EQ(state_->tail(), 0);
    std::string expected = kHeader + "5, 0 \r\n" + CsvLine({0, 0, 0, 1});
    for (int i = 0; i < 4; ++i) expected += CsvLine({});  // the empty seconds in between
    expected += CsvLine({2});
    EXPECT_EQ(Csv(), expected);
}

TEST_F(DataStateTest, ReusedSlotsAreZeroedForSecondsWithoutEvents) {
    for (int second = 0; second < 1800; ++second) {
        gNow = 1000 + second;
        state_->RecordEvent(1, 1);
    }
    gNow = 1000 + 1799 + 5;
    state_->RecordEvent(1, 7);
    EXPECT_EQ(state_->head(), 1804);
    EXPECT_EQ(state_->head() - state_->tail(), 1799);
    for (int64_t sequence = 1800; sequence < 1804; ++sequence) EXPECT_EQ(state_->counter(sequence, 1), 0u);
    EXPECT_EQ(state_->counter(1804, 1), 7u);
    EXPECT_EQ(state_->counter(1799, 1), 1u);
}

TEST_F(DataStateTest, LongSilenceKeepsExactly1800Slots) {
    state_->RecordEvent(4, 2);
    gNow = 1000 + 5000;
    state_->RecordEvent(4, 1);
    EXPECT_EQ(state_->head(), 5000);
    EXPECT_EQ(state_->tail(), 5000 - 1799);
    for (int64_t sequence = state_->tail(); sequence < state_->head(); ++sequence) {
        ASSERT_EQ(state_->counter(sequence, 4), 0u) << sequence;
    }
    const std::string csv = Csv();
    EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 1 + 1800);
    EXPECT_TRUE(csv.starts_with(kHeader + "5000, 3201 \r\n" + CsvLine({0, 0, 0, 0, 1})));
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
    std::vector<std::thread> producers;
    for (int t = 0; t < 2; ++t) {
        producers.emplace_back([this] {
            for (int i = 0; i < 200000; ++i) state_->RecordEvent(2, 1);
        });
    }
    std::thread clock([] {
        for (int i = 0; i < 50; ++i) {
            gNow.fetch_add(1);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    for (std::thread& producer : producers) producer.join();
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
    ASSERT_EQ(kill(getpid(), 50), 0);
    const std::string path = diag / "bpfservice_state.csv";
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(path).find(", 42, ") != std::string::npos; }, std::chrono::seconds(5)));

    std::atomic<bool> done{false};
    std::thread producer([&] {
        while (!done) KovaBpfDataState::GetInstance()->RecordEvent(2, 1);
    });
    for (int i = 0; i < 2000; ++i) kill(getpid(), 50);
    done = true;
    producer.join();
    ASSERT_TRUE(WaitUntil(
            [&] {
                const std::string csv = ReadFile(path);
                return csv.starts_with(kHeader) && csv.ends_with("\r\n");
            },
            std::chrono::seconds(5)));
}

}  // namespace
}  // namespace kova::test
