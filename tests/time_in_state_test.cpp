// CPU time in state on the real kernel. Setup and readers at their edges: cpufreq trees as the kernel
// lays them out (policy order, boost-only and duplicated frequencies, a current frequency found through
// the policy's first CPU), what startTrackingPidTimes() seeds into the real object's maps, and how the
// readers cut and place per-CPU values. Then the KovaBpfTimeInState programs, pinned by the loader,
// seeded and attached by startTrackingPidTimes() from a generated cpufreq tree with one policy per CPU,
// each at a different current frequency, and charged by real context switches; a frequency change
// through the program's own body, test-run; and what a full map costs. Each case runs in a process of
// its own: the library's state is process-wide.

#include <bpf/bpf.h>
#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <string.h>

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
using Numbers = std::optional<std::vector<uint32_t>>;

// The loader's pins of KovaBpfTimeInState, which the library uses, and a cpufreq tree of the test's.
class TimeInStateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
        ASSERT_TRUE(pins_.ok()) << pins_.message();
    }

    PinnedTimeInState pins_;
    CpufreqTree tree_;
};

TEST(TimeInStateFilesTest, NumbersParseWholeOrNotAtAll) {
    TempDir dir;
    const struct {
        const char* content;
        Numbers expected;
    } cases[] = {
            {"300000 600000\n", std::vector<uint32_t>{300000, 600000}},
            {"0x10\n 7  \n\n", std::vector<uint32_t>{16, 7}},
            {" \n", std::vector<uint32_t>{}},
            {"4294967295", std::vector<uint32_t>{4294967295u}},
            {"1 -1", std::nullopt},
            {"4294967296", std::nullopt},
            {"12kHz", std::nullopt},
    };
    for (const auto& c : cases) {
        WriteFile(dir / "numbers", c.content);
        EXPECT_EQ(readNumbersFromFile(dir / "numbers"), c.expected) << c.content;
    }
    EXPECT_EQ(readNumbersFromFile(dir / "missing"), std::nullopt);
}

TEST(TimeInStateFilesTest, PoliciesSortByTheirNumber) {
    const auto order = [](const char* a, const char* b) {
        dirent first{}, second{};
        strcpy(first.d_name, a);
        strcpy(second.d_name, b);
        const dirent* pa = &first;
        const dirent* pb = &second;
        return comparePolicyFiles(&pa, &pb);
    };
    EXPECT_GT(order("policy10", "policy9"), 0);
    EXPECT_LT(order("policy0", "policy4"), 0);
    EXPECT_EQ(order("policyX", "policy1"), 0);
    dirent entry{};
    strcpy(entry.d_name, "cpufreq-stats");
    EXPECT_FALSE(isPolicyFile(&entry));
}

class TimeInStateSetupTest : public TimeInStateTest {
  protected:
    void SetUp() override {
        TimeInStateTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        KOVA_REQUIRE(PossibleCpus() >= 2, "needs two CPUs");
    }
    template <typename Key>
    uint32_t Seeded(const std::string& map, const Key& key) const {
        uint32_t value = 0;
        return bpf_map_lookup_elem(pins_.TisMap(map).get(), &key, &value) == 0 ? value : ~0u;
    }
    template <typename Key, typename Value>
    void PutPerCpu(const std::string& map, const Key& key, const std::vector<Value>& copies) {
        ASSERT_TRUE(pins_.PutPerCpu(map, key, copies)) << map;
    }
};

// Each tree replaces the one before; the failed initialisations leave partial tables behind, which
// the next one appends to, and the readers must cope with.
TEST_F(TimeInStateSetupTest, TreesThatCannotBeTrackedFailAndLeaveTrackingOff) {
    {
        CpufreqTree none;
        EXPECT_FALSE(startTrackingPidTimes());
        EXPECT_FALSE(isTrackingPidTimesSupported());
    }
    {
        CpufreqTree noFrequencies({{0, "0\n", "", "", "1000\n"}});
        EXPECT_FALSE(startTrackingPidTimes());
    }
    {
        CpufreqTree noSuchCpu({{0, "5000\n", "1000\n", "", "1000\n"}});
        EXPECT_FALSE(startTrackingPidTimes());
        EXPECT_EQ(getTotalCpuFreqTimes(), std::nullopt);
    }
    {
        // Its first policy, CPU 1 included, is kept, though the last tree lists CPU 0 only.
        CpufreqTree secondPolicyEmpty({{0, "1\n", "3000\n", "", ""}, {1, "0\n", "", "", ""}});
        EXPECT_FALSE(startTrackingPidTimes());
    }
    CpufreqTree unlistedCurrent({{0, "0\n", "1000 2000\n", "", "1500\n"}});
    EXPECT_FALSE(startTrackingPidTimes());
    EXPECT_TRUE(isTrackingPidTimesSupported()) << "policies and programs are there; only the current frequency is not";
    // Every call after the CPU failure ran the whole sequence again: two copies of its policy.
    EXPECT_EQ(getCpuFreqs(), (std::vector<std::vector<uint32_t>>{{1000}, {1000}, {3000}, {1000, 2000}}));
    EXPECT_TRUE(getTotalCpuFreqTimes());
}

// policy0 holds CPU 1 and lists 2000 MHz as available and as boost; policy1 holds CPU 0 and has only a
// boost list. Each finds its current frequency in the directory named by its first CPU: the other's.
TEST_F(TimeInStateSetupTest, TrackingSeedsOneBasedIndicesAndFindsTheCurrentFrequencyByTheFirstCpu) {
    tree_.Add({0, "1\n", "1000000 2000000\n", "2000000\n", "1500000\n"});
    tree_.Add({1, "0\n", "", "1500000\n", "2000000\n"});
    ASSERT_TRUE(startTrackingPidTimes());
    EXPECT_TRUE(isTrackingPidTimesSupported());

    EXPECT_EQ(getCpuFreqs(), (std::vector<std::vector<uint32_t>>{{1000000, 2000000, 2000000}, {1500000}}));
    EXPECT_EQ(Seeded("cpu_policy_map", uint32_t{1}), 0u);
    EXPECT_EQ(Seeded("cpu_policy_map", uint32_t{0}), 1u);
    EXPECT_EQ(Seeded("freq_to_idx_map", kova_tis_freq_key{0, 1000000}), 1u);
    EXPECT_EQ(Seeded("freq_to_idx_map", kova_tis_freq_key{0, 2000000}), 3u) << "the second of the twins wins";
    EXPECT_EQ(Seeded("freq_to_idx_map", kova_tis_freq_key{1, 1500000}), 1u);
    EXPECT_EQ(Seeded("policy_freq_idx_map", uint32_t{0}), 2u) << "the current one is the first match";
    EXPECT_EQ(Seeded("policy_freq_idx_map", uint32_t{1}), 1u);
}

// CPU 0 in policy 0 with 70 frequencies, CPU 1 in policy 1 with two.
TEST_F(TimeInStateSetupTest, ReadersReadAtMost64TotalAnd32TaskSlots) {
    std::string seventy;
    for (int i = 1; i <= 70; ++i) seventy += std::to_string(i * 1000) + " ";
    tree_.Add({0, "0\n", seventy, "", ""});
    tree_.Add({1, "1\n", "500 900\n", "", ""});
    for (uint32_t k = 0; k < KOVA_TIS_TOTAL_SLOTS; ++k) PutPerCpu("total_time_in_state_map", k, std::vector<uint64_t>{k + 1, 1});
    kova_tis_freq_times every{};
    for (uint32_t j = 0; j < KOVA_TIS_FREQ_SLOTS; ++j) every.ns[j] = j + 1;
    PutPerCpu("tgid_freq_delta_time_map", uint32_t{5}, std::vector{every, every});

    std::vector<uint64_t> totals(70, 0), process(70, 0);
    std::iota(totals.begin(), totals.begin() + 64, 1);
    std::iota(process.begin(), process.begin() + 32, 1);
    EXPECT_EQ(getTotalCpuFreqTimes(), (PolicyTimes{totals, {1, 1}}));
    EXPECT_EQ(getTgidsCpuFreqTimes()->at(5), (PolicyTimes{process, {1, 2}}));
    EXPECT_TRUE(getTgidsTimes()->empty());
    EXPECT_TRUE(getPidsCpuFreqTimes()->empty());
}

// CPUs 0 and 2 listed: slots 0 and 1. The totals admit a CPU only when its number is among the slot
// values, so CPU 2 adds nothing there, while the task readers take its slot.
TEST_F(TimeInStateSetupTest, TotalsAdmitOnlyCpusFoundAmongTheSlotValues) {
    tree_.Add({0, "0\n", "1000\n", "", ""});
    tree_.Add({1, "2\n", "1000\n", "", ""});
    PutPerCpu("total_time_in_state_map", uint32_t{0}, std::vector<uint64_t>{10, 20});
    PutPerCpu("tgid_freq_delta_time_map", uint32_t{9}, std::vector{kova_tis_freq_times{{3}}, kova_tis_freq_times{{4}}});
    EXPECT_EQ(getTotalCpuFreqTimes(), (PolicyTimes{{10}, {0}}));
    EXPECT_EQ(getTgidsCpuFreqTimes()->at(9), (PolicyTimes{{3}, {4}}));
}

TEST_F(TimeInStateSetupTest, UpdateTimesRaiseTheStampOnlyWhenNewer) {
    tree_.Add({0, "0 1\n", "1000\n", "", ""});
    for (const auto& [pid, stamp] : {std::pair<uint32_t, uint64_t>{1, 100}, {2, 300}}) {
        ASSERT_TRUE(pins_.Put("pid_delta_time_map", kova_tis_pid_key{pid, 1}, kova_tis_pid_time{}));
        ASSERT_TRUE(pins_.Put("pid_last_update_map", kova_tis_pid_key{pid, 1}, stamp));
    }
    uint64_t stamp = 200;
    EXPECT_EQ(getPidsUpdateTimes(&stamp)->size(), 2u);
    EXPECT_EQ(stamp, 300u);
    stamp = 500;
    getPidsUpdateTimes(&stamp);
    EXPECT_EQ(stamp, 500u);
    EXPECT_EQ(getPidsUpdateTimes(nullptr)->size(), 2u);
    EXPECT_EQ(getPidLastUpdateTime(), 300u);
}

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

class TimeInStateProgramsTest : public TimeInStateTest {
  protected:
    // Policy c holds CPU c, at 1000, 2000 and 3000 MHz, and runs at the (c mod 3)-th of them.
    void SetUp() override {
        TimeInStateTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        std::string reason;
        KOVA_REQUIRE(HaveTracefs(&reason), reason);
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
