// The KovaBpfTimeInState programs on the real kernel: pinned by the loader, seeded and attached by
// startTrackingPidTimes() from a generated cpufreq tree with one policy per CPU, each at a different
// current frequency, and charged by real context switches; a frequency change through the program's
// own body, test-run; and what a full map costs.

#include <bpf/bpf.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <numeric>
#include <thread>

#include "kova_bpf_records.h"
#include "kova_time_in_state_support.h"
#include "service/kova_bpf_cputimeinstate.h"
#include "utils/kova_bpf_time.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;
using namespace std::chrono_literals;

// What the programs charged agrees with what the scheduler counted within 2 %, beside the time the
// hypervisor took from the CPU meanwhile (one tick more for its granularity): the scheduler leaves
// stolen time out, while a switch-to-switch time cannot.
void ExpectAgreesWithScheduler(uint64_t charged, uint64_t scheduled, uint64_t stolenNs) {
    const double slack = 0.02 * scheduled + (stolenNs > 0 ? stolenNs + 10'000'000 : 0);
    EXPECT_NEAR(static_cast<double>(charged), static_cast<double>(scheduled), slack) << "stolen: " << stolenNs << " ns";
}

uint64_t Sum(const PolicyTimes& times) {
    uint64_t sum = 0;
    for (const auto& policy : times) sum = std::accumulate(policy.begin(), policy.end(), sum);
    return sum;
}

class TimeInStateProgramsTest : public ::testing::Test {
  protected:
    // Policy c holds CPU c, at 1000, 2000 and 3000 MHz, and runs at the (c mod 3)-th of them.
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
        KOVA_REQUIRE(HaveTracefs(&reason), reason);
        ASSERT_TRUE(pins_.ok()) << pins_.message();
        cpus_ = PossibleCpus();
        for (int cpu = 0; cpu < cpus_; ++cpu) {
            tree_.Add({static_cast<unsigned>(cpu), std::to_string(cpu) + "\n", "1000000 2000000 3000000\n", "",
                       std::to_string((cpu % 3 + 1) * 1000000) + "\n"});
        }
        ASSERT_TRUE(startTrackingPidTimes());
    }
    // The CPU a busy child runs on: the last one, whose policy runs at its second frequency when there
    // are two CPUs or more.
    int BusyCpu() const { return cpus_ - 1; }
    size_t CurrentSlot(int cpu) const { return cpu % 3; }

    PinnedTimeInState pins_;
    CpufreqTree tree_;
    int cpus_ = 0;
};

TEST_F(TimeInStateProgramsTest, BusyChildGainsTimeOnlyInItsPolicysSlotAsTheSchedulerCountsIt) {
    const uint64_t stealBefore = CpuStealNs(BusyCpu());
    BusyChild child(BusyCpu(), "kova-busy");
    std::this_thread::sleep_for(500ms);
    ASSERT_TRUE(child.Stop());
    const uint64_t stolen = CpuStealNs(BusyCpu()) - stealBefore;

    const auto frequencies = getTgidsCpuFreqTimes();
    ASSERT_TRUE(frequencies && frequencies->count(child.pid()));
    const PolicyTimes& times = frequencies->at(child.pid());
    ASSERT_EQ(times.size(), static_cast<size_t>(cpus_));
    for (int policy = 0; policy < cpus_; ++policy) {
        for (size_t slot = 0; slot < 3; ++slot) {
            const bool charged = policy == BusyCpu() && slot == CurrentSlot(BusyCpu());
            EXPECT_EQ(times[policy][slot] > 0, charged) << "policy " << policy << " slot " << slot;
        }
    }
    const uint64_t scheduled = child.ScheduledNs();
    const auto processes = getTgidsTimes();
    ASSERT_TRUE(processes && processes->count(child.pid()));
    const uint64_t charged = processes->at(child.pid()).time;
    ExpectAgreesWithScheduler(charged, scheduled, stolen);
    EXPECT_EQ(charged, Sum(times));

    uint64_t lastUpdate = 0;
    const auto threads = getPidsUpdateTimes(&lastUpdate);
    ASSERT_TRUE(threads && threads->count(child.pid()));
    const pid_data_t& thread = threads->at(child.pid());
    EXPECT_EQ(std::string(thread.thread_name), "kova-busy");
    EXPECT_EQ(thread.tgid, static_cast<uint32_t>(child.pid()));
    EXPECT_EQ(thread.time, charged);
    EXPECT_GT(lastUpdate, GetSystemBootNanosencondsTime() - 5'000'000'000ull);
}

TEST_F(TimeInStateProgramsTest, TotalsGrowWithWallTimeTimesTheCpus) {
    // A thread per CPU that sleeps a millisecond at a time keeps every CPU switching, so no CPU's idle
    // time waits long for the switch that charges it.
    std::atomic<bool> done{false};
    std::vector<std::thread> tickers;
    for (int cpu = 0; cpu < cpus_; ++cpu) {
        tickers.emplace_back([cpu, &done] {
            cpu_set_t set;
            CPU_ZERO(&set);
            CPU_SET(cpu, &set);
            sched_setaffinity(0, sizeof(set), &set);
            while (!done) std::this_thread::sleep_for(1ms);
        });
    }
    std::this_thread::sleep_for(100ms);
    const auto before = getTotalCpuFreqTimes();
    const uint64_t start = GetSystemBootNanosencondsTime();
    std::this_thread::sleep_for(1s);
    const auto after = getTotalCpuFreqTimes();
    const uint64_t wall = GetSystemBootNanosencondsTime() - start;
    done = true;
    for (std::thread& ticker : tickers) ticker.join();

    ASSERT_TRUE(before && after);
    EXPECT_EQ(getTgidsTimes()->count(0), 0u) << "the idle task's time counts only in the totals";
    const double expected = static_cast<double>(wall) * cpus_;
    EXPECT_NEAR(static_cast<double>(Sum(*after) - Sum(*before)), expected, 0.03 * expected);
    for (int policy = 0; policy < cpus_; ++policy) {
        for (size_t slot = 0; slot < 3; ++slot) {
            EXPECT_EQ((*after)[policy][slot] > (*before)[policy][slot], slot == CurrentSlot(policy)) << policy;
        }
    }
}

TEST_F(TimeInStateProgramsTest, AFrequencyChangeMovesLaterTimeToTheNewSlot) {
    FrequencyChanger changer(pins_);
    ASSERT_TRUE(changer.ok()) << changer.error();
    android::base::unique_fd current = pins_.TisMap("policy_freq_idx_map");
    const auto index = [&] {
        const uint32_t policy = BusyCpu();
        uint32_t value = 0;
        bpf_map_lookup_elem(current.get(), &policy, &value);
        return value;
    };
    const size_t before = CurrentSlot(BusyCpu());
    const size_t after = (before + 1) % 3;
    const uint64_t stealBefore = CpuStealNs(BusyCpu());
    BusyChild child(BusyCpu(), "kova-freq");
    std::this_thread::sleep_for(200ms);

    ASSERT_TRUE(changer.Change(static_cast<uint32_t>(after + 1) * 1000000, BusyCpu()));
    EXPECT_EQ(index(), after + 1);  // 1-based
    ASSERT_TRUE(changer.Change(1234567, BusyCpu()));  // not in the policy's table: no change
    EXPECT_EQ(index(), after + 1);
    ASSERT_TRUE(changer.Change(2000000, 4096));       // no policy holds that CPU
    EXPECT_EQ(index(), after + 1);
    // Every switch from now on charges the new slot.
    const uint64_t oldSlotAtChange = getTgidsCpuFreqTimes()->at(child.pid())[BusyCpu()][before];
    std::this_thread::sleep_for(200ms);
    ASSERT_TRUE(child.Stop());

    const PolicyTimes times = getTgidsCpuFreqTimes()->at(child.pid());
    EXPECT_GT(oldSlotAtChange, 0u);
    EXPECT_EQ(times[BusyCpu()][before], oldSlotAtChange);
    ExpectAgreesWithScheduler(oldSlotAtChange + times[BusyCpu()][after], child.ScheduledNs(),
                              CpuStealNs(BusyCpu()) - stealBefore);
}

// A full thread map costs the threads that have no entry their own time, never the CPU totals, and
// every switch-out that found no room is counted where the service looks.
TEST_F(TimeInStateProgramsTest, AFullThreadMapIsCountedAndTheTotalsStillGrow) {
    android::base::unique_fd threads = pins_.TisMap("pid_delta_time_map");
    const kova_tis_pid_time value{};
    for (uint32_t fake = 1;; ++fake) {
        const kova_tis_pid_key key{0x7fff0000u + fake, 0x7fff0000u};  // no real thread has these ids
        if (bpf_map_update_elem(threads.get(), &key, &value, BPF_NOEXIST) != 0) {
            ASSERT_EQ(errno, E2BIG);
            break;
        }
    }
    const uint64_t lostBefore = getLostUpdateCounts()->pid;
    const uint64_t totalBefore = Sum(*getTotalCpuFreqTimes());
    BusyChild child(BusyCpu(), "kova-full");
    std::this_thread::sleep_for(300ms);
    ASSERT_TRUE(child.Stop());

    EXPECT_GT(getLostUpdateCounts()->pid, lostBefore);
    EXPECT_GT(Sum(*getTotalCpuFreqTimes()), totalBefore + 250'000'000u);
    EXPECT_EQ(getPidsTimes()->count(child.pid()), 0u);
    EXPECT_GT(getTgidsTimes()->count(child.pid()), 0u) << "the process map still had room";
}

}  // namespace
}  // namespace kova::test
