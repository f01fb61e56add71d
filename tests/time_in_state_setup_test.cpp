// Time-in-state setup and readers at their edges: cpufreq trees as the kernel lays them out (policy
// order, boost-only and duplicated frequencies, a current frequency found through the policy's first
// CPU), what startTrackingPidTimes() seeds into the real object's maps, and how the readers cut and
// place per-CPU values. Each case runs in a process of its own: the library's state is process-wide.

#include <bpf/bpf.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <string.h>

#include <numeric>

#include "kova_bpf_records.h"
#include "kova_time_in_state_support.h"
#include "service/kova_bpf_cputimeinstate.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;
using Numbers = std::optional<std::vector<uint32_t>>;

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

class TimeInStateSetupTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
        KOVA_REQUIRE(PossibleCpus() >= 2, "needs two CPUs");
        ASSERT_TRUE(pins_.ok()) << pins_.message();
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

    PinnedTimeInState pins_;
    CpufreqTree tree_;
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

}  // namespace
}  // namespace kova::test
