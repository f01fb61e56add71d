// kovabpf-loader as the service's start-up depends on it: every catalogue program and every map pinned
// under its name, the kernel version and readiness announced last, stale pins replaced, and every
// failure reported with its status and readiness left clear.

#include <bpf/bpf.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>

#include <android-base/unique_fd.h>

#include <functional>
#include <set>

#include "kova_bpf_fixture.h"
#include "kova_test_support.h"

namespace kova::test {
namespace {

constexpr char kReady[] = "sys.kova_bpf_ready";

class LoaderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
    }

    // Runs the loader into pins_ (or `pinDir`); returns its exit status, stderr in stderr_.
    int RunLoader(const std::vector<std::string>& args = {}, const std::string& pinDir = "") {
        std::vector<std::string> argv{ProjectBinary("kovabpf-loader")};
        argv.insert(argv.end(), args.begin(), args.end());
        ChildProcess loader(argv,
                            {"KOVA_PIN_DIR=" + (pinDir.empty() ? pins_.path() : pinDir),
                             "KOVA_PROPERTY_DIR=" + props_.path()},
                            props_ / "loader.stderr");
        const int status = loader.WaitForExit(std::chrono::seconds(60));
        stderr_ = ReadFile(props_ / "loader.stderr");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string Property(const std::string& name) const { return ReadFile(props_ / name); }
    std::set<std::string> Pins() const {
        std::set<std::string> names;
        if (DIR* dir = opendir(pins_.path().c_str())) {
            while (dirent* entry = readdir(dir)) {
                if (entry->d_name[0] != '.') names.insert(entry->d_name);
            }
            closedir(dir);
        }
        return names;
    }
    bpf_map_info PinnedMap(const std::string& name) const {
        android::base::unique_fd fd(bpf_obj_get((pins_ / name).c_str()));
        bpf_map_info info{};
        __u32 length = sizeof(info);
        EXPECT_TRUE(fd.ok() && bpf_obj_get_info_by_fd(fd.get(), &info, &length) == 0) << name;
        return info;
    }

    BpfTestDir pins_;
    TempDir props_;
    std::string stderr_;
};

std::set<std::string> ExpectedPins() {
    std::set<std::string> pins;
    const auto add = [&](const std::string& prefix, std::initializer_list<const char*> names) {
        for (const char* name : names) pins.insert(prefix + name);
    };
    // The programs the service's two catalogues attach.
    add("prog_KovaBpfDefineset_tracepoint_",
        {"sched_sched_switch", "sched_sched_process_exit", "sched_sched_process_fork", "kmem_rss_stat"});
    add("prog_KovaBpfDefineset_kprobe_", {"enter_fd_install"});
    add("prog_KovaBpfGplDefineset_tracepoint_", {"sched_sched_process_exit", "cgroup_cgroup_attach_task"});
    add("prog_KovaBpfGplDefineset_kprobe_", {"dma_buf_file_release", "dma_buf_stats_setup", "dma_buf_dynamic_attach",
                                             "dma_buf_vmap", "dma_buf_mmap_internal"});
    // The time-in-state programs, which the service attaches by name.
    add("prog_KovaBpfTimeInState_tracepoint_", {"sched_sched_switch", "power_cpu_frequency"});
    // The maps the service opens, then the programs' own state.
    add("map_KovaBpfDefineset_", {"ringbuf_map", "ringbuf_status", "open_fd_caller_map", "exited_processes",
                                  "fd_scan_scratch", "ringbuf_wakeup", "rss_mm_owner_map", "rss_owner_mm_map",
                                  "rss_held"});
    add("map_KovaBpfGplDefineset_", {"ringbuf_map", "ringbuf_status", "dmabuf_allocate_map", "dmabuf_size_map",
                                     "dmabuf_perprocess_size_map", "process_inode_map", "process_mmap_infos",
                                     "dmabuf_empty_set", "dmabuf_inode_map"});
    add("map_KovaBpfTimeInState_", {"total_time_in_state_map", "tgid_delta_time_map", "tgid_freq_delta_time_map",
                                    "pid_delta_time_map", "pid_freq_delta_time_map", "pid_last_update_map",
                                    "cpu_policy_map", "freq_to_idx_map", "cpu_last_update_map", "policy_freq_idx_map",
                                    "time_in_state_lost_map"});
    return pins;
}

TEST_F(LoaderTest, PinsEveryProgramAndMapThenAnnouncesKernelVersionAndReadiness) {
    ASSERT_EQ(RunLoader(), 0) << stderr_;
    EXPECT_EQ(Pins(), ExpectedPins());

    utsname host{};
    ASSERT_EQ(uname(&host), 0);
    unsigned major = 0, minor = 0;
    ASSERT_EQ(sscanf(host.release, "%u.%u", &major, &minor), 2);
    EXPECT_EQ(Property("ro.kernel.version"), std::to_string(major) + "." + std::to_string(minor));
    EXPECT_EQ(Property(kReady), "1");
}

TEST_F(LoaderTest, ReadinessWaitsForEveryPinAndForTheKernelVersion) {
    // A directory takes the name of a program of the second object, pinned after every map.
    const std::string taken = "prog_KovaBpfGplDefineset_tracepoint_cgroup_cgroup_attach_task";
    ASSERT_EQ(mkdir((pins_ / taken).c_str(), 0700), 0);
    EXPECT_EQ(RunLoader(), 6);
    EXPECT_NE(stderr_.find("cannot pin " + pins_ / taken), std::string::npos) << stderr_;
    EXPECT_EQ(Property(kReady), "0");
    EXPECT_EQ(Pins(), std::set<std::string>{taken}) << "what was pinned is removed again";

    // Then a directory takes the kernel version's property file.
    ASSERT_EQ(rmdir((pins_ / taken).c_str()), 0);
    ASSERT_EQ(mkdir((props_ / "ro.kernel.version").c_str(), 0700), 0);
    EXPECT_EQ(RunLoader(), 2);
    EXPECT_NE(stderr_.find("cannot set ro.kernel.version"), std::string::npos) << stderr_;
    EXPECT_EQ(Property(kReady), "0");
}

TEST_F(LoaderTest, ReplacesStalePinsAndLeavesOtherObjectsAlone) {
    // A pin under a real name that holds the wrong thing, one under a name the objects no longer
    // define, and one of somebody else.
    android::base::unique_fd array(bpf_map_create(BPF_MAP_TYPE_ARRAY, "kova_stale", 4, 8, 1, nullptr));
    ASSERT_TRUE(array.ok());
    ASSERT_TRUE(pins_.Pin(array.get(), "map_KovaBpfDefineset_ringbuf_map"));
    ASSERT_TRUE(pins_.Pin(array.get(), "prog_KovaBpfDefineset_tracepoint_sched_retired_program"));
    ASSERT_TRUE(pins_.Pin(array.get(), "map_SomebodyElse_ringbuf_map"));

    ASSERT_EQ(RunLoader(), 0) << stderr_;
    std::set<std::string> expected = ExpectedPins();
    expected.insert("map_SomebodyElse_ringbuf_map");
    EXPECT_EQ(Pins(), expected);
    EXPECT_EQ(PinnedMap("map_KovaBpfDefineset_ringbuf_map").type, BPF_MAP_TYPE_RINGBUF);

    // A second run over its own pins replaces them with fresh objects.
    const __u32 firstId = PinnedMap("map_KovaBpfDefineset_ringbuf_status").id;
    ASSERT_EQ(RunLoader(), 0) << stderr_;
    EXPECT_EQ(Pins(), expected);
    EXPECT_NE(PinnedMap("map_KovaBpfDefineset_ringbuf_status").id, firstId);
}

TEST_F(LoaderTest, EveryFailureHasItsStatusAndReasonAndLeavesNoPinsNorReadiness) {
    const std::string built = KOVA_BPF_OBJECT_DIR;
    const auto replaceWith = [&](const char* object, const std::string& source) {
        return [=](const TempDir& dir) { WriteFile(dir / object, ReadFile(built + "/" + source)); };
    };
    const struct {
        const char* what;
        std::function<void(const TempDir&)> damage;  // applied to a copy of the built objects
        std::vector<std::string> args;               // "--objects <copy>" is added when empty
        int status;
        std::string message;  // "@" stands for the copy's path
    } cases[] = {
            {"missing object", [](const TempDir& dir) { unlink((dir / "KovaBpfGplDefineset.o").c_str()); }, {}, 4,
             "kovabpf-loader: error: object file @/KovaBpfGplDefineset.o: No such file or directory"},
            {"damaged object", [](const TempDir& dir) { WriteFile(dir / "KovaBpfGplDefineset.o", "\x7f" "ELF not"); },
             {}, 4, "cannot open object file @/KovaBpfGplDefineset.o"},
            // The injector's program is a syscall program: not a kind the service can attach.
            {"program of another kind", replaceWith("KovaBpfGplDefineset.o", "kova_ringbuf_injector.o"), {}, 4,
             "program kova_ringbuf_inject of @/KovaBpfGplDefineset.o has section \"syscall\""},
            {"another record layout", replaceWith("KovaBpfDefineset.o", "kova_layout_mismatch.o"), {}, 4,
             "map ringbuf_status of @/KovaBpfDefineset.o has type 2, key size 4 and value size 4; expected type 2, "
             "key size 4 and value size 8"},
            {"refused by the verifier", replaceWith("KovaBpfDefineset.o", "kova_verifier_rejects.o"), {}, 5,
             "kovabpf-loader: error: the kernel refused object KovaBpfDefineset"},
            {"bad option", nullptr, {"--no-such-option"}, 1, "usage: kovabpf-loader"},
            {"stray argument", nullptr, {"stray"}, 1, "unexpected argument \"stray\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir objects;
        for (const char* name : {"KovaBpfDefineset.o", "KovaBpfGplDefineset.o", "KovaBpfTimeInState.o"}) {
            WriteFile(objects / name, ReadFile(built + "/" + name));
        }
        if (c.damage) c.damage(objects);
        WriteFile(props_ / kReady, "1");  // left by an earlier, successful run
        std::string message = c.message;
        if (const size_t at = message.find('@'); at != std::string::npos) message.replace(at, 1, objects.path());

        EXPECT_EQ(RunLoader(c.args.empty() ? std::vector<std::string>{"--objects", objects.path()} : c.args), c.status);
        EXPECT_NE(stderr_.find(message), std::string::npos) << stderr_;
        if (c.status == 5) {
            EXPECT_NE(stderr_.find("kovabpf-loader: libbpf: "), std::string::npos) << "the verifier's log is shown";
        }
        if (c.status != 1) {
            EXPECT_EQ(Property(kReady), "0");
        }
        EXPECT_TRUE(Pins().empty()) << "no object may stay pinned alone";
    }

    TempDir notBpffs;
    EXPECT_EQ(RunLoader({}, notBpffs / "pins"), 3);
    EXPECT_NE(stderr_.find("is not on a BPF file system"), std::string::npos) << stderr_;
    EXPECT_EQ(Property(kReady), "0");
}

}  // namespace
}  // namespace kova::test
