// Attachment of pinned programs on the real kernel: both catalogues at several kernel versions, each
// retrieval and attach form, the directory scan, and the producers attaching at start-up. Every test
// pins fresh programs in a bpffs directory of its own; each program counts its runs in a map of its
// own, so a test sees a tracepoint really fire it. Attachments end with the test's process.

#include <android/log.h>
#include <bpf/bpf.h>
#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>

#include <map>
#include <memory>
#include <span>
#include <thread>

#include "kova_bpf_fixture.h"
#include "kova_kernel_objects.h"
#include "kova_test_support.h"
#include "service/kova_bpf_helper.h"
#include "service/kova_bpf_service.h"
#include "utils/kova_bpf_paths.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

constexpr char kNormal[] = "KovaBpfDefineset";
constexpr char kGpl[] = "KovaBpfGplDefineset";
constexpr char kTracepoint[] = "tracepoint";
constexpr char kKprobe[] = "kprobe";
constexpr char kKretprobe[] = "kretprobe";

struct PinnedProgram {
    const char* group;
    const char* kind;
    const char* name;
    const char* function;  // of a probe
    int since;             // the row's condition "5.0+" or "6.1+", as convertVersionToInt gives it
};

// What the loader pins for the two objects and the catalogues attach, in catalogue order, written out
// here rather than read from the catalogues, so that a wrong name, attach point or condition in a
// catalogue makes its row fail.
constexpr PinnedProgram kNormalPins[] = {
        {kNormal, kTracepoint, "sched_sched_switch", nullptr, 5000},
        {kNormal, kTracepoint, "sched_sched_process_exit", nullptr, 5000},
        {kNormal, kTracepoint, "sched_sched_process_fork", nullptr, 5000},
        {kNormal, kTracepoint, "kmem_rss_stat", nullptr, 5000},
        {kNormal, kKprobe, "enter_fd_install", "fd_install", 5000},
};
constexpr PinnedProgram kGplPins[] = {
        {kGpl, kTracepoint, "sched_sched_process_exit", nullptr, 5000},
        {kGpl, kTracepoint, "cgroup_cgroup_attach_task", nullptr, 5000},
        {kGpl, kKprobe, "dma_buf_file_release", "dma_buf_file_release", 6001},
        {kGpl, kKprobe, "dma_buf_stats_setup", "dma_buf_stats_setup", 6001},
        {kGpl, kKprobe, "dma_buf_dynamic_attach", "dma_buf_dynamic_attach", 6001},
        {kGpl, kKprobe, "dma_buf_vmap", "dma_buf_vmap", 6001},
        {kGpl, kKprobe, "dma_buf_mmap_internal", "dma_buf_mmap_internal", 6001},
};

const std::span<const PinnedProgram> kBothCatalogues[] = {kNormalPins, kGplPins};

std::string Start(const std::string& group, const std::string& name) {
    return "Attach bpf prog start: " + group + ", progName: " + name;
}

// Runs /bin/true: a fork, an exec that changes RSS, context switches and an exit, which fire the
// sched and kmem tracepoints of the catalogues.
void RunShortLivedProcess() { ASSERT_EQ(RunProgram({"/bin/true"}), 0); }

class AttachTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
        KOVA_REQUIRE(HaveTracefs(&reason), reason);
    }

    // Loads a fresh counting program of the kind's program type and pins it as the loader would.
    void Pin(const std::string& group, const std::string& kind, const std::string& name) {
        PinAs(group, kind, name, PinnedProgramName(group, kind, name));
    }
    void PinAs(const std::string& group, const std::string& kind, const std::string& name,
               const std::string& fileName) {
        auto counter = std::make_unique<BpfCounter>();
        ASSERT_TRUE(counter->ok()) << strerror(errno);
        std::string error;
        const android::base::unique_fd fd = LoadTestProgram(
                kind == kTracepoint ? BPF_PROG_TYPE_TRACEPOINT : BPF_PROG_TYPE_KPROBE, counter.get(), &error);
        ASSERT_TRUE(fd.ok()) << error;
        ASSERT_TRUE(pins_.Pin(fd, fileName)) << fileName << ": " << strerror(errno);
        counters_[group + "/" + name] = std::move(counter);
    }
    void PinAll(std::span<const PinnedProgram> programs) {
        for (const PinnedProgram& program : programs) {
            ASSERT_NO_FATAL_FAILURE(Pin(program.group, program.kind, program.name));
        }
    }
    // How often the program pinned for group/name has run.
    uint64_t Runs(const std::string& group, const std::string& name) const {
        return counters_.at(group + "/" + name)->Value();
    }
    bool EventuallyRan(const std::string& group, const std::string& name) const {
        return WaitUntil([&] { return Runs(group, name) > 0; }, 3s);
    }

    void SetKernel(const std::string& version) { properties_.Set("ro.kernel.version", version); }
    // The pin directory as the producers pass it, with its trailing slash.
    int AttachCatalogue(const ProgramCatalogue& catalogue) {
        return AttachAllKovaBpfProgram(KovaPath("/sys/fs/bpf/kova/"), catalogue);
    }

    // Messages logged at `priority` under "BpfUtils", in order.
    std::vector<std::string> Lines(int priority) const {
        std::vector<std::string> lines;
        for (const LogRecord& record : log_.Records()) {
            if (record.priority == priority && record.tag == "BpfUtils") lines.push_back(record.message);
        }
        return lines;
    }
    // Number of error lines that report a failed probe attach (entry or return).
    int ProbeAttachFailures() const {
        return log_.CountContaining("Attach kprobe prog failed: ") +
               log_.CountContaining("Attach kretprobe prog failed: ");
    }

    ScopedPropertyStore properties_;
    BpfTestDir pins_;
    ScopedRoot pinRoot_{KOVA_PIN_DIR, pins_.path()};
    LogCapture log_;
    std::map<std::string, std::unique_ptr<BpfCounter>> counters_;
};

// Both catalogues at one kernel version: each row either skipped with the warning line, or started
// and attached (probe rows fail, counted, on kernels without kprobes); nothing else is logged (the
// empty return-probe list logs nothing); the attached tracepoints fire and the skipped ones do not.
class CatalogueTest : public AttachTest, public ::testing::WithParamInterface<std::pair<const char*, int>> {};

TEST_P(CatalogueTest, RowsBelowTheirConditionAreSkippedAndTheOthersAttached) {
    const auto [version, kernel] = GetParam();
    TestCgroup cgroup;  // made before the attachments: only the move below may fire the cgroup row
    ASSERT_TRUE(cgroup.ok());
    ASSERT_NO_FATAL_FAILURE(PinAll(kNormalPins));
    ASSERT_NO_FATAL_FAILURE(PinAll(kGplPins));
    SetKernel(version);

    const int failures = AttachCatalogue(KovaBpfService::PROG_EVENT_MAP) +
                         AttachCatalogue(KovaBpfService::PROG_GPL_EVENT_MAP);

    std::vector<std::string> info, warnings;
    std::vector<::testing::Matcher<std::string>> errors;
    for (const std::span<const PinnedProgram> pins : kBothCatalogues) {
        for (const PinnedProgram& row : pins) {
            if (kernel < row.since) {
                warnings.push_back(StringPrintf("Skip bpf prog: %s, progName: %s, kernelCompat: %s", row.group,
                                                row.name, row.since == 5000 ? "5.0+" : "6.1+"));
                continue;
            }
            info.push_back(Start(row.group, row.name));
            if (row.function == nullptr) continue;
            info.push_back(StringPrintf("[AttachKProbeProgram] Attach kprobe prog: enter: progName: %s, "
                                        "functionName: %s", row.name, row.function));
            errors.push_back(StartsWith(StringPrintf("Attach kprobe prog failed: %s, progname: %s, msg: ", row.group,
                                                     row.name)));
        }
    }
    EXPECT_THAT(Lines(ANDROID_LOG_INFO), ElementsAreArray(info));
    EXPECT_THAT(Lines(ANDROID_LOG_WARN), ElementsAreArray(warnings));
    EXPECT_EQ(failures, ProbeAttachFailures()) << log_.Dump();
    if (!HaveKprobes()) {
        EXPECT_THAT(Lines(ANDROID_LOG_ERROR), ElementsAreArray(errors));
        EXPECT_EQ(failures, static_cast<int>(errors.size()));
        EXPECT_EQ(log_.Records().size(), info.size() + warnings.size() + errors.size()) << log_.Dump();
    }

    ASSERT_NO_FATAL_FAILURE(RunShortLivedProcess());
    ChildProcess sleeper({"/bin/sleep", "30"}, {}, "/dev/null");
    ASSERT_TRUE(cgroup.Move(sleeper.pid(), true) && cgroup.Move(sleeper.pid(), false)) << strerror(errno);
    if (kernel < 5000) std::this_thread::sleep_for(50ms);
    for (const std::span<const PinnedProgram> pins : kBothCatalogues) {
        for (const PinnedProgram& row : pins) {
            if (kernel < row.since || (row.function != nullptr && !HaveKprobes())) {
                EXPECT_EQ(Runs(row.group, row.name), 0u) << row.group << " " << row.name;
            } else if (row.function == nullptr) {
                EXPECT_TRUE(EventuallyRan(row.group, row.name)) << row.group << " " << row.name << " never ran";
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Kernels, CatalogueTest,
                         ::testing::Values(std::pair{"6.1", 6001}, std::pair{"5.10", 5010}, std::pair{"4.19", 4019}),
                         [](const auto& info) { return "At" + std::to_string(info.param.second); });

TEST_F(AttachTest, AMissingPinCostsOneMoreFailureAndAttachingAgainCountsEveryTracepoint) {
    for (const PinnedProgram& program : kNormalPins) {
        if (std::string(program.name) != "sched_sched_switch") {
            ASSERT_NO_FATAL_FAILURE(Pin(program.group, program.kind, program.name));
        }
    }
    SetKernel("6.1");

    const int failures = AttachCatalogue(KovaBpfService::PROG_EVENT_MAP);

    const std::vector<std::string> errors = Lines(ANDROID_LOG_ERROR);
    ASSERT_GE(errors.size(), 2u) << log_.Dump();
    EXPECT_EQ(errors[0], "[AttachTracepointProgram] Retrieve tracepoint prog failed: sched_sched_switch");
    EXPECT_EQ(errors[1], std::string("Attach tracepoint prog failed: KovaBpfDefineset, type: sched_sched_switch, msg: ") +
                                 strerror(ENOENT));
    EXPECT_EQ(failures, 1 + ProbeAttachFailures());
    ASSERT_NO_FATAL_FAILURE(RunShortLivedProcess());
    EXPECT_TRUE(EventuallyRan(kNormal, "sched_sched_process_fork"));
    EXPECT_TRUE(EventuallyRan(kNormal, "kmem_rss_stat"));

    // The three tracepoints attached already fail now (EEXIST, or EINVAL when BCC's first perror() in
    // the process could not duplicate stderr), and the catalogue form counts them.
    EXPECT_EQ(AttachCatalogue(KovaBpfService::PROG_EVENT_MAP), failures + 3);
    EXPECT_EQ(log_.CountContaining("Attach tracepoint prog failed: KovaBpfDefineset, type: sched_sched_process_fork, "
                                   "msg: "), 1);
}

TEST_F(AttachTest, MalformedRowsAndUnknownTypesAreLoggedButNotCounted) {
    ASSERT_NO_FATAL_FAILURE(Pin("KovaTestSet", kKretprobe, "exit_fd_install"));
    ASSERT_NO_FATAL_FAILURE(Pin("KovaTestSet", kTracepoint, "sched_sched_process_fork"));
    SetKernel("6.1");
    const ProgramCatalogue catalogue = {
            {"KovaTestSet",
             {
                     {PROGRAM_ATTACH_TRACEPOINT, {{"sched_sched_process_fork", "sched", "sched_process_fork"}}},
                     {PROGRAM_ATTACH_KPROBE, {}},
                     {PROGRAM_ATTACH_KRETPROBE,
                      {{"exit_fd_install", "fd_install", "", "5.0+"}, {"missing_ret", "vfs_read", "", "5.0+"}}},
                     {static_cast<ProgramAttachType>(7), {{"odd", "sched", "sched_switch", "5.0+"}}},
             }},
    };

    const int failures = AttachCatalogue(catalogue);

    std::vector<std::string> lines;
    for (const LogRecord& record : log_.Records()) lines.push_back(record.tag + " " + record.message);
    EXPECT_THAT(lines,
                ElementsAre("BpfUtils Error format!: KovaTestSet", "BpfUtils " + Start("KovaTestSet", "exit_fd_install"),
                            "BpfUtils [AttachKProbeProgram] Attach kretprobe prog: return: progName: exit_fd_install, "
                            "functionName: fd_install",
                            StartsWith("BpfUtils Attach kretprobe prog failed: KovaTestSet, progname: exit_fd_install, "
                                       "msg: "),
                            "BpfUtils " + Start("KovaTestSet", "missing_ret"),
                            "BpfUtils [AttachKProbeProgram] Retrieve kretprobe prog failed: missing_ret, function: "
                            "vfs_read",
                            std::string("BpfUtils Attach kretprobe prog failed: KovaTestSet, progname: missing_ret, "
                                        "msg: ") + strerror(ENOENT),
                            "BpfUtils " + Start("KovaTestSet", "odd"),
                            "BpfUtils (UNKNOW TYPE) attach prog failed: KovaTestSet, type: odd"))
            << log_.Dump();
    // The two return probes; the three-field row and the unknown type do not count.
    EXPECT_EQ(failures, 2);
    EXPECT_EQ(Runs("KovaTestSet", "sched_sched_process_fork"), 0u);
}

TEST_F(AttachTest, RetrievalOpensPinsReadOnlyAndNeverLogs) {
    BpfCounter map;
    ASSERT_TRUE(map.ok());
    ASSERT_TRUE(pins_.Pin(map.fd(), "map_KovaBpfDefineset_counter"));

    const android::base::unique_fd readOnlyMap(RetrieveProgramFd(pins_.path(), "map_KovaBpfDefineset_counter"));
    ASSERT_TRUE(readOnlyMap.ok()) << strerror(errno);
    const uint32_t key = 0;
    uint64_t value = 7;
    EXPECT_EQ(bpf_map_lookup_elem(readOnlyMap, &key, &value), 0);
    EXPECT_NE(bpf_map_update_elem(readOnlyMap, &key, &value, BPF_ANY), 0);
    EXPECT_EQ(errno, EPERM);

    errno = 0;
    EXPECT_EQ(RetrieveProgramFd(pins_.path(), kNormal, kTracepoint, "sched_sched_wakeup"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(log_.Records(), IsEmpty());
}

TEST_F(AttachTest, EveryTracepointFormAttachesAndFires) {
    ASSERT_NO_FATAL_FAILURE(PinAs("ByFile", kTracepoint, "fork", "custom_fork_prog"));
    ASSERT_NO_FATAL_FAILURE(Pin("ByName", kTracepoint, "sched_sched_process_exit"));
    // The name form falls back to a pin named after the group alone.
    ASSERT_NO_FATAL_FAILURE(PinAs("KovaFallback", kTracepoint, "kmem_rss_stat", "KovaFallback"));

    const android::base::unique_fd byFile(
            AttachTracepointProgram(pins_.path(), "custom_fork_prog", "sched", "sched_process_fork"));
    const android::base::unique_fd byName(AttachTracepointProgram(pins_.path(), "ByName", "sched_sched_process_exit"));
    const android::base::unique_fd fallback(AttachTracepointProgram(pins_.path(), "KovaFallback", "kmem_rss_stat"));
    EXPECT_THAT(log_.Records(), IsEmpty()) << log_.Dump();

    ASSERT_NO_FATAL_FAILURE(RunShortLivedProcess());
    EXPECT_TRUE(EventuallyRan("ByFile", "fork"));
    EXPECT_TRUE(EventuallyRan("ByName", "sched_sched_process_exit"));
    EXPECT_TRUE(EventuallyRan("KovaFallback", "kmem_rss_stat"));

    EXPECT_EQ(AttachTracepointProgram(pins_.path(), "missing_prog", "sched", "sched_process_exit"), -1);
    EXPECT_EQ(AttachTracepointProgram(pins_.path(), "Nowhere", "sched_sched_switch"), -1);
    EXPECT_THAT(Lines(ANDROID_LOG_ERROR),
                ElementsAre("[AttachTracepointProgram] Retrieve tracepoint prog failed, subSystem: sched, eventName: "
                            "sched_process_exit",
                            "[AttachTracepointProgram] Retrieve tracepoint prog failed: sched_sched_switch"));
}

TEST_F(AttachTest, ProbeFormsRetrieveThePinAndNameTheProbeEvent) {
    if (HaveKprobes()) GTEST_SKIP() << "expects a kernel without kprobes, where every probe attach fails";
    ASSERT_NO_FATAL_FAILURE(Pin("KovaProbes", kKprobe, "enter_fd_install"));
    ASSERT_NO_FATAL_FAILURE(Pin("KovaProbes", kKprobe, "return_fd_install"));
    ASSERT_NO_FATAL_FAILURE(Pin("KovaProbes", kKprobe, "odd_fd_install"));

    // Each attach is retrieved and tried, and fails in BCC on this kernel; the result is -1.
    EXPECT_EQ(AttachKProbeProgram(pins_.path(), "KovaProbes", "enter_fd_install", "fd_install", true), -1);
    EXPECT_EQ(AttachKProbeProgram(pins_.path(), "KovaProbes", "enter_fd_install"), -1);
    EXPECT_EQ(AttachKProbeProgram(pins_.path(), "KovaProbes", "return_fd_install"), -1);
    EXPECT_EQ(AttachKProbeProgram(pins_.path(), "KovaProbes", "odd_fd_install"), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(AttachKProbeProgram(pins_.path(), "KovaProbes", "enter_vfs_read"), -1);
    EXPECT_EQ(AttachKProbeProgram(pins_.path(), "KovaProbes", "gone", "vfs_read", false), -1);

    EXPECT_THAT(Lines(ANDROID_LOG_INFO),
                ElementsAre("[AttachKProbeProgram] Attach kprobe prog: enter: progName: enter_fd_install, functionName: "
                            "fd_install",
                            "[AttachKProbeProgram] Attach kprobe prog: enter: eventType: enter, eventName: fd_install",
                            "[AttachKProbeProgram] Attach kprobe prog: return: eventType: return, eventName: "
                            "fd_install"));
    EXPECT_THAT(Lines(ANDROID_LOG_ERROR),
                ElementsAre("[AttachKProbeProgram] (UNKNOW TYPE) kprobe prog failed: odd, prog: odd_fd_install",
                            "[AttachKProbeProgram] Retrieve kprobe prog failed: KovaProbes, prog: enter_vfs_read",
                            "[AttachKProbeProgram] Retrieve kretprobe prog failed: gone, function: vfs_read"));
}

TEST_F(AttachTest, DirectoryScanAttachesEveryProgramByItsKindWord) {
    ASSERT_NO_FATAL_FAILURE(Pin("KovaScan", kTracepoint, "sched_sched_process_fork"));
    ASSERT_NO_FATAL_FAILURE(Pin("KovaScan", kKprobe, "enter_fd_install"));
    ASSERT_NO_FATAL_FAILURE(Pin("KovaScan", "uprobe", "x"));
    ASSERT_NO_FATAL_FAILURE(PinAs("Short", kTracepoint, "a", "prog_a_b"));  // fewer than four pieces
    BpfCounter map;
    ASSERT_TRUE(pins_.Pin(map.fd(), "map_KovaScan_counter"));
    SetKernel("4.19");  // the scan makes no version checks

    const int failures = AttachAllKovaBpfProgram(pins_.path());

    EXPECT_THAT(Lines(ANDROID_LOG_INFO),
                UnorderedElementsAre(
                        "Attach bpf prog (prog_KovaScan_tracepoint_sched_sched_process_fork, type: tracepoint) to "
                        "sched_sched_process_fork",
                        "Attach bpf prog (prog_KovaScan_kprobe_enter_fd_install, type: kprobe) to enter_fd_install",
                        "[AttachKProbeProgram] Attach kprobe prog: enter: eventType: enter, eventName: fd_install",
                        "Attach bpf prog (prog_KovaScan_uprobe_x, type: uprobe) to x"));
    std::vector<::testing::Matcher<std::string>> errors = {
            "(UNKNOW TYPE) attach prog failed: prog_KovaScan_uprobe_x, type: uprobe"};
    if (!HaveKprobes()) {
        errors.push_back(StartsWith("Attach kprobe prog failed: prog_KovaScan_kprobe_enter_fd_install, type: kprobe, msg: "));
        EXPECT_EQ(failures, 1);
    }
    EXPECT_THAT(Lines(ANDROID_LOG_ERROR), UnorderedElementsAreArray(errors));
    ASSERT_NO_FATAL_FAILURE(RunShortLivedProcess());
    EXPECT_TRUE(EventuallyRan("KovaScan", "sched_sched_process_fork"));
    EXPECT_EQ(Runs("Short", "a"), 0u);

    // A second scan finds the tracepoint attached already (EEXIST): neither logged nor counted. The rule
    // reads errno after BCC, which its first perror() in a process may turn into EINVAL; here the failed
    // probe attaches of the first scan have printed already.
    if (!HaveKprobes()) {
        const size_t errorsBefore = Lines(ANDROID_LOG_ERROR).size();
        EXPECT_EQ(AttachAllKovaBpfProgram(pins_.path()), failures);
        EXPECT_EQ(Lines(ANDROID_LOG_ERROR).size(), 2 * errorsBefore);
        EXPECT_EQ(log_.CountContaining("Attach tracepoint prog failed"), 0);
    }

    EXPECT_EQ(AttachAllKovaBpfProgram(pins_ / "absent"), -1);
    EXPECT_THAT(Lines(ANDROID_LOG_ERROR).back(), StartsWith("[AttachAllKovaBpfProgram] Open dir failed: "));
}

// The producers attach their catalogues from the pin directory once the loader is ready.
TEST_F(AttachTest, EachProducerAttachesItsCatalogueAndLogsTheFailures) {
    TempDir dir;
    WriteFile(dir / "stat", "cpu 1\nbtime 4242\n");
    const ScopedRoot diag(KOVA_DIAGNOSTICS_DIR, dir / "diag"), stat(KOVA_PROC_STAT, dir / "stat"),
            socket(KOVA_SOCKET_NAME, UniqueSocketName());
    ASSERT_NO_FATAL_FAILURE(PinAll(kNormalPins));
    ASSERT_NO_FATAL_FAILURE(PinAll(kGplPins));
    SetKernel("6.1");
    properties_.Set("sys.kova_bpf_ready", "1");

    ASSERT_TRUE(BpfServiceMain());
    KovaBpfService* service = KovaBpfService::GetInstance();
    // No ring buffer is pinned here: each monitor logs it, its producer still attaches, and both end.
    // The monitors run beside the producers, so their lines say nothing about how far attaching got.
    EXPECT_TRUE(WaitUntil([&] { return log_.CountContaining("KOVABPF: get ringbuf failed") == 2; }, 10s));
    EXPECT_TRUE(WaitUntil([&] { return log_.CountContaining("Attach bpf prog start: ") == 12; }, 10s))
            << log_.Dump();
    if (!HaveKprobes()) {
        const auto logged = [&](const std::string& message) {
            return WaitUntil([&] { return log_.Has(ANDROID_LOG_ERROR, "BpfService", message); }, 10s);
        };
        EXPECT_TRUE(logged("[KovaBpfService][eventProduceThread] Attach all kova bpf error: 1")) << log_.Dump();
        EXPECT_TRUE(logged("[KovaBpfService][gpleventProduceThread] Attach all kova bpf error: 5")) << log_.Dump();
    }
    EXPECT_EQ(log_.CountContaining("Attach bpf prog start: "), 12);
    // The attachments outlive the producers.
    ASSERT_NO_FATAL_FAILURE(RunShortLivedProcess());
    EXPECT_TRUE(EventuallyRan(kNormal, "sched_sched_process_fork"));
    EXPECT_TRUE(EventuallyRan(kGpl, "sched_sched_process_exit"));

    service->stop();
    EXPECT_EQ(service->Wait(), 0);
}

}  // namespace
}  // namespace kova::test
