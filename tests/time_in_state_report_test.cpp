// The six time-in-state reports byte for byte, as a subscribed client receives them over the service's
// real socket: the handlers run on maps of the real object that the test writes directly (nothing is
// attached, so nothing else changes them), names come from a generated /proc, and maps whose accesses
// the kernel refuses stand in for failing reads and resets. Then the worker itself, with real tracking:
// it serves queued types in order, drops unknown ones, and warns when the kernel found a map full.

#include <android/log.h>
#include <bpf/bpf.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <thread>

#include "kova_bpf_records.h"
#include "kova_ipc_test_util.h"
#include "kova_test_client.h"
#include "kova_time_in_state_support.h"
#include "service/kova_bpf_cputimeinstate.h"
#include "service/kova_bpf_service.h"
#include "utils/kova_bpf_time.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;
using namespace std::chrono_literals;
using Handler = int (KovaBpfService::*)();

std::string U8(uint8_t value) { return std::string(1, static_cast<char>(value)); }
// A 16-byte name field.
std::string Name16(const std::string& name) { return name + std::string(16 - name.size(), '\0'); }
// u32 F, then F times.
std::string Policy(const std::vector<uint64_t>& times) {
    std::string bytes = U32(static_cast<uint32_t>(times.size()));
    for (const uint64_t time : times) bytes += U64(time);
    return bytes;
}

// Two policies: CPU 0 at 300 and 600 MHz, CPU 1 at 500 and 1000 MHz and a boost of 1500 MHz.
class TimeInStateReportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
        KOVA_REQUIRE(PossibleCpus() >= 2, "needs two CPUs");
        ASSERT_TRUE(pins_.ok()) << pins_.message();
    }
    void TearDown() override {
        if (client_) {
            service()->stop();
            service()->Wait();
        }
    }
    // Starts the service (its IPC server only: readiness stays unset) and subscribes to every report.
    void Serve() {
        ASSERT_TRUE(BpfServiceMain());
        client_ = std::make_unique<TestClient>(roots_.socketName());
        for (int32_t id = 50005; id <= 50010; ++id) {
            ASSERT_EQ(client_->Subscribe(id), 0);
        }
    }
    static KovaBpfService* service() { return KovaBpfService::GetInstance(); }

    // Runs `handler` and returns the report the client received, with its time stamp (at `stampAt`)
    // checked to lie within the call, or to be 0 when `stamped` is false, and then zeroed.
    std::string Report(Handler handler, bool stamped = true, size_t stampAt = 4) {
        const uint64_t before = GetSystemBootNanosencondsTime();
        (service()->*handler)();
        const uint64_t after = GetSystemBootNanosencondsTime();
        std::optional<std::string> report = client_->NextEvent();
        if (!report || report->size() < stampAt + 8) {
            ADD_FAILURE() << "no report";
            return "";
        }
        uint64_t stamp = 0;
        memcpy(&stamp, report->data() + stampAt, sizeof(stamp));
        if (stamped) {
            EXPECT_TRUE(stamp >= before && stamp <= after) << stamp;
        } else {
            EXPECT_EQ(stamp, 0u);
        }
        memset(report->data() + stampAt, 0, sizeof(stamp));
        return *report;
    }

    template <typename Key, typename Value>
    void Put(const std::string& map, const Key& key, const Value& value) {
        ASSERT_TRUE(pins_.Put(map, key, value)) << map << ": " << strerror(errno);
    }
    template <typename Key, typename Value>
    void PutPerCpu(const std::string& map, const Key& key, const std::vector<Value>& copies) {
        ASSERT_TRUE(pins_.PutPerCpu(map, key, copies)) << map << ": " << strerror(errno);
    }
    static kova_tis_pid_time Thread(const std::string& name, uint64_t ns) {
        kova_tis_pid_time thread{};
        memcpy(thread.comm, name.data(), std::min(name.size(), sizeof(thread.comm)));
        thread.time_ns = ns;
        return thread;
    }
    static kova_tis_freq_times Slots(std::initializer_list<uint64_t> ns) {
        kova_tis_freq_times times{};
        std::copy(ns.begin(), ns.end(), times.ns);
        return times;
    }
    void Comm(uint32_t pid, const std::string& name) { WriteFile(proc_ / (std::to_string(pid) + "/comm"), name + "\n"); }

    ScopedPropertyStore properties_;
    ScopedServiceRoots roots_;
    PinnedTimeInState pins_;  // after roots_: its pin directory is the one the service uses
    CpufreqTree tree_{{{0, "0\n", "300000 600000\n", "", "300000\n"},
                       {1, "1\n", "500000 1000000\n", "1500000\n", "1000000\n"}}};
    TempDir proc_;
    ScopedRoot procRoot_{KOVA_PROC_DIR, proc_.path()};
    std::unique_ptr<TestClient> client_;
};

TEST_F(TimeInStateReportTest, TotalReportSumsEachPolicysCpusPerFrequency) {
    PutPerCpu("total_time_in_state_map", uint32_t{0}, std::vector<uint64_t>{10, 20});
    PutPerCpu("total_time_in_state_map", uint32_t{1}, std::vector<uint64_t>{30, 40});
    PutPerCpu("total_time_in_state_map", uint32_t{2}, std::vector<uint64_t>{99, 50});  // CPU 0's policy has 2
    Serve();
    LogCapture log;
    EXPECT_EQ(Report(&KovaBpfService::handleKovaTotalCpuTimeInState),
              U32(50005) + U64(0) + U8(1) + U32(2) + Policy({10, 30}) + Policy({20, 40, 50}));
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "BpfService", "handleKovaTotalCpuTimeInState size:65"));
}

TEST_F(TimeInStateReportTest, ProcessReportNamesTheTopTenInKeyOrderWithTheirFrequencies) {
    // Processes 101 to 111 with 1 to 11 ns: the ten largest are 102 to 111.
    for (uint32_t i = 1; i <= 11; ++i) {
        Put("tgid_delta_time_map", 100 + i, uint64_t{i});
        Comm(100 + i, "p" + std::to_string(100 + i));
    }
    Comm(111, "a-very-long-process-name");  // cut to 15 bytes
    unlink((proc_ / "110/comm").c_str());    // gone before the report: no name
    PutPerCpu("tgid_freq_delta_time_map", uint32_t{110}, std::vector{Slots({7, 8}), Slots({1, 0, 9})});
    PutPerCpu("tgid_freq_delta_time_map", uint32_t{111}, std::vector{Slots({4}), Slots({})});
    PutPerCpu("tgid_freq_delta_time_map", uint32_t{101}, std::vector{Slots({5}), Slots({})});  // not in the ten
    Serve();

    std::string expected = U32(50006) + U64(0) + U64(65) + U64(66) + U8(1) + U32(10);
    for (uint32_t tgid = 102; tgid <= 111; ++tgid) {
        const std::string name = tgid == 111 ? "a-very-long-pro" : tgid == 110 ? "" : "p" + std::to_string(tgid);
        expected += U32(tgid) + U32(tgid) + U64(tgid - 100) + Name16(name);
    }
    expected += U8(1) + U32(2) + U32(110) + U32(2) + Policy({7, 8}) + Policy({1, 0, 9}) + U32(111) + U32(2) +
                Policy({4, 0}) + Policy({0, 0, 0});
    EXPECT_EQ(Report(&KovaBpfService::handleKovaProcessCpuTimeInState), expected);

    // A reset empties both process maps; the next report is present but holds nothing.
    EXPECT_EQ(Report(&KovaBpfService::handleKovaProcessCpuTimeReset, true, 8), U64(50009) + U64(0));
    EXPECT_EQ(Report(&KovaBpfService::handleKovaProcessCpuTimeInState),
              U32(50006) + U64(0) + U64(0) + U64(0) + U8(1) + U32(0) + U8(1) + U32(0));
}

TEST_F(TimeInStateReportTest, ThreadReportCarriesTheKernelsThreadNameAndItsProcesssName) {
    Put("pid_delta_time_map", kova_tis_pid_key{201, 200}, Thread("worker-1", 5));
    Put("pid_delta_time_map", kova_tis_pid_key{202, 200}, Thread("0123456789abcdef", 7));
    Put("pid_delta_time_map", kova_tis_pid_key{300, 300}, Thread("main", 3));
    PutPerCpu("pid_freq_delta_time_map", kova_tis_pid_key{202, 200}, std::vector{Slots({}), Slots({0, 7})});
    Comm(200, "proc-200");
    Comm(300, "proc-300");
    Serve();

    EXPECT_EQ(Report(&KovaBpfService::handleKovaThreadCpuTimeInState),
              U32(50007) + U64(0) + U64(15) + U64(15) + U8(1) + U32(3) +
                      U32(201) + U32(201) + U32(200) + Name16("worker-1") + U64(5) + Name16("proc-200") +
                      U32(202) + U32(202) + U32(200) + "0123456789abcdef" + U64(7) + Name16("proc-200") +
                      U32(300) + U32(300) + U32(300) + Name16("main") + U64(3) + Name16("proc-300") +
                      U8(1) + U32(1) + U32(202) + U32(2) + Policy({0, 0}) + Policy({0, 7, 0}));
    EXPECT_EQ(Report(&KovaBpfService::handleKovaThreadCpuTimeReset, true, 8), U64(50010) + U64(0));
    EXPECT_TRUE(getPidsTimes()->empty());
    EXPECT_TRUE(getPidsCpuFreqTimes()->empty());
}

// Maps that cannot be read (a queue pinned in their place) or written (frozen).
TEST_F(TimeInStateReportTest, ReportsOfMapsThatFailAreEmptyAndResetsThatFailCarryNoTime) {
    ASSERT_TRUE(pins_.ReplaceWithUnreadable("total_time_in_state_map"));
    ASSERT_TRUE(pins_.ReplaceWithUnreadable("tgid_freq_delta_time_map"));
    Put("pid_delta_time_map", kova_tis_pid_key{7, 7}, Thread("kept", 1));
    ASSERT_TRUE(pins_.Freeze("pid_delta_time_map"));
    Put("tgid_delta_time_map", uint32_t{42}, uint64_t{1000});
    Serve();

    EXPECT_EQ(Report(&KovaBpfService::handleKovaTotalCpuTimeInState, false), U32(50005) + U64(0) + U8(0));
    // The process times read, their frequencies do not: the 30-byte empty frame.
    EXPECT_EQ(Report(&KovaBpfService::handleKovaProcessCpuTimeInState, false), U32(50006) + std::string(26, '\0'));
    EXPECT_EQ(Report(&KovaBpfService::handleKovaProcessCpuTimeReset, false, 8), U64(50009) + U64(0));
    EXPECT_EQ(Report(&KovaBpfService::handleKovaThreadCpuTimeReset, false, 8), U64(50010) + U64(0));
    EXPECT_EQ(getPidsTimes()->count(7), 1u) << "a failed reset loses nothing it did not reach";
}

// The worker with real tracking: types are served in queue order, unknown ones vanish, and a map the
// kernel found full is reported once in the log.
TEST_F(TimeInStateReportTest, WorkerServesQueuedTypesInOrderAndWarnsOfAFullMap) {
    properties_.Set("sys.kova_bpf_ready", "1");
    Serve();
    EXPECT_EQ(client_->AwaitResponse(client_->Request(53, U32(50005) + U32(50099) + U32(50008)))->result, 0);
    std::optional<std::string> first = client_->NextEvent(10s);
    std::optional<std::string> second = client_->NextEvent();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->substr(0, 4), U32(50005));
    EXPECT_EQ(second->substr(0, 8), U64(50008));
    EXPECT_EQ(client_->NextEvent(300ms), std::nullopt);

    LogCapture log;
    android::base::unique_fd threads = pins_.TisMap("pid_delta_time_map");
    for (uint32_t fake = 1;; ++fake) {
        const kova_tis_pid_key key{0x7fff0000u + fake, 0x7fff0000u};
        const kova_tis_pid_time value{};
        if (bpf_map_update_elem(threads.get(), &key, &value, BPF_NOEXIST) != 0) break;
    }
    std::thread([] { std::this_thread::sleep_for(10ms); }).join();  // a new thread that finds no room
    EXPECT_EQ(client_->AwaitResponse(client_->Request(54, U32(50007)))->result, 0);
    EXPECT_TRUE(WaitUntil([&] { return log.CountContaining("[KovaBpfService][timeInStateMonitor] time-in-state maps "
                                                           "full: ") == 1; },
                          5s))
            << log.Dump();
}

}  // namespace
}  // namespace kova::test
