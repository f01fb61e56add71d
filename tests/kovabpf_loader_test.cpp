// kovabpf-loader as the service's start-up depends on it: every catalogue program and every map pinned
// under its name with the layout the service expects, readiness announced last, stale pins replaced,
// and every failure reported with its status and readiness left clear.

#include <bpf/bpf.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <sys/wait.h>

#include <android-base/unique_fd.h>

#include <set>

#include "kova_bpf_fixture.h"
#include "kova_bpf_records.h"
#include "kova_test_support.h"

namespace kova::test {
namespace {

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
    static bpf_map_info MapInfo(int fd) {
        bpf_map_info info{};
        __u32 length = sizeof(info);
        EXPECT_EQ(bpf_obj_get_info_by_fd(fd, &info, &length), 0);
        return info;
    }
    bpf_map_info PinnedMap(const std::string& name) const {
        android::base::unique_fd fd(bpf_obj_get((pins_ / name).c_str()));
        EXPECT_TRUE(fd.ok()) << name;
        return fd.ok() ? MapInfo(fd.get()) : bpf_map_info{};
    }
    // The object directory of the build, copied so a test can damage or remove files.
    std::string CopyOfObjects(TempDir& dir) const {
        for (const char* name : {"KovaBpfDefineset.o", "KovaBpfGplDefineset.o"}) {
            WriteFile(dir / name, ReadFile(std::string(KOVA_BPF_OBJECT_DIR) + "/" + name));
        }
        return dir.path();
    }

    BpfTestDir pins_;
    TempDir props_;
    std::string stderr_;
};

const std::set<std::string> kExpectedPins = {
    // The programs the service's two catalogues attach.
    "prog_KovaBpfDefineset_tracepoint_sched_sched_switch",
    "prog_KovaBpfDefineset_tracepoint_sched_sched_process_exit",
    "prog_KovaBpfDefineset_tracepoint_sched_sched_process_fork",
    "prog_KovaBpfDefineset_tracepoint_kmem_rss_stat",
    "prog_KovaBpfDefineset_kprobe_enter_fd_install",
    "prog_KovaBpfGplDefineset_tracepoint_sched_sched_process_exit",
    "prog_KovaBpfGplDefineset_tracepoint_cgroup_cgroup_attach_task",
    "prog_KovaBpfGplDefineset_kprobe_dma_buf_file_release",
    "prog_KovaBpfGplDefineset_kprobe_dma_buf_stats_setup",
    "prog_KovaBpfGplDefineset_kprobe_dma_buf_dynamic_attach",
    "prog_KovaBpfGplDefineset_kprobe_dma_buf_vmap",
    "prog_KovaBpfGplDefineset_kprobe_dma_buf_mmap_internal",
    // The maps the service opens.
    "map_KovaBpfDefineset_ringbuf_map",
    "map_KovaBpfDefineset_ringbuf_status",
    "map_KovaBpfDefineset_open_fd_caller_map",
    "map_KovaBpfGplDefineset_ringbuf_map",
    "map_KovaBpfGplDefineset_ringbuf_status",
    "map_KovaBpfGplDefineset_dmabuf_allocate_map",
    "map_KovaBpfGplDefineset_dmabuf_size_map",
    "map_KovaBpfGplDefineset_dmabuf_perprocess_size_map",
    "map_KovaBpfGplDefineset_process_inode_map",
    "map_KovaBpfGplDefineset_process_mmap_infos",
    // The programs' own state.
    "map_KovaBpfDefineset_exited_processes",
    "map_KovaBpfDefineset_fd_scan_scratch",
    "map_KovaBpfDefineset_ringbuf_wakeup",
    "map_KovaBpfDefineset_rss_mm_owner_map",
    "map_KovaBpfGplDefineset_dmabuf_empty_set",
    "map_KovaBpfGplDefineset_dmabuf_inode_map",
};

TEST_F(LoaderTest, PinsEveryProgramAndMapThenAnnouncesKernelVersionAndReadiness) {
    ASSERT_EQ(RunLoader(), 0) << stderr_;
    EXPECT_EQ(Pins(), kExpectedPins);

    utsname host{};
    ASSERT_EQ(uname(&host), 0);
    unsigned major = 0, minor = 0;
    ASSERT_EQ(sscanf(host.release, "%u.%u", &major, &minor), 2);
    EXPECT_EQ(Property("ro.kernel.version"), std::to_string(major) + "." + std::to_string(minor));
    EXPECT_EQ(Property("sys.kova_bpf_ready"), "1");

    // The layouts the service relies on.
    for (const char* object : {"KovaBpfDefineset", "KovaBpfGplDefineset"}) {
        SCOPED_TRACE(object);
        const bpf_map_info ring = PinnedMap(std::string("map_") + object + "_ringbuf_map");
        EXPECT_EQ(ring.type, BPF_MAP_TYPE_RINGBUF);
        EXPECT_EQ(ring.max_entries, std::string(object) == "KovaBpfDefineset" ? KOVA_RINGBUF_SIZE : KOVA_GPL_RINGBUF_SIZE);
        const bpf_map_info status = PinnedMap(std::string("map_") + object + "_ringbuf_status");
        EXPECT_EQ(status.type, BPF_MAP_TYPE_ARRAY);
        EXPECT_EQ(status.key_size, 4u);
        EXPECT_EQ(status.value_size, 8u);
        EXPECT_EQ(status.max_entries, 5u);
    }
    const bpf_map_info fds = PinnedMap("map_KovaBpfDefineset_open_fd_caller_map");
    EXPECT_EQ(fds.key_size, 4u);
    EXPECT_EQ(fds.value_size, sizeof(kova_open_fd_caller));
    for (const char* map : {"dmabuf_allocate_map", "dmabuf_size_map", "dmabuf_perprocess_size_map"}) {
        const bpf_map_info info = PinnedMap(std::string("map_KovaBpfGplDefineset_") + map);
        EXPECT_EQ(info.key_size, 4u) << map;
        EXPECT_EQ(info.value_size, sizeof(kova_dmabuf_stat)) << map;
    }
    for (const char* map : {"process_inode_map", "process_mmap_infos"}) {
        const bpf_map_info info = PinnedMap(std::string("map_KovaBpfGplDefineset_") + map);
        EXPECT_EQ(info.key_size, 4u) << map;
        EXPECT_EQ(info.value_size, sizeof(kova_dmabuf_inode_set)) << map;
    }

    // Programs are pinned, not attached: the service attaches them.
    android::base::unique_fd fork(bpf_obj_get((pins_ / "prog_KovaBpfDefineset_tracepoint_sched_sched_process_fork").c_str()));
    ASSERT_TRUE(fork.ok());
    bpf_prog_info info{};
    __u32 length = sizeof(info);
    ASSERT_EQ(bpf_obj_get_info_by_fd(fork.get(), &info, &length), 0);
    EXPECT_EQ(info.type, BPF_PROG_TYPE_TRACEPOINT);
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
    std::set<std::string> expected = kExpectedPins;
    expected.insert("map_SomebodyElse_ringbuf_map");
    EXPECT_EQ(Pins(), expected);
    EXPECT_EQ(PinnedMap("map_KovaBpfDefineset_ringbuf_map").type, BPF_MAP_TYPE_RINGBUF);

    // A second run over its own pins replaces them with fresh objects.
    const __u32 firstId = PinnedMap("map_KovaBpfDefineset_ringbuf_status").id;
    ASSERT_EQ(RunLoader(), 0) << stderr_;
    EXPECT_EQ(Pins(), expected);
    EXPECT_NE(PinnedMap("map_KovaBpfDefineset_ringbuf_status").id, firstId);
}

TEST_F(LoaderTest, MissingObjectFailsWithoutPinsOrReadiness) {
    WriteFile(props_ / "sys.kova_bpf_ready", "1");  // left by an earlier, successful run
    TempDir objects;
    CopyOfObjects(objects);
    ASSERT_EQ(unlink((objects / "KovaBpfGplDefineset.o").c_str()), 0);

    EXPECT_EQ(RunLoader({"--objects", objects.path()}), 4);
    EXPECT_NE(stderr_.find("kovabpf-loader: error: object file " + objects.path() +
                           "/KovaBpfGplDefineset.o: No such file or directory"),
              std::string::npos)
        << stderr_;
    EXPECT_EQ(Property("sys.kova_bpf_ready"), "0");
    EXPECT_TRUE(Pins().empty());
}

TEST_F(LoaderTest, DamagedObjectFailsWithoutPinsOrReadiness) {
    TempDir objects;
    CopyOfObjects(objects);
    WriteFile(objects / "KovaBpfGplDefineset.o", "\x7f" "ELF but not really");

    EXPECT_EQ(RunLoader({"--objects", objects.path()}), 4);
    EXPECT_NE(stderr_.find("cannot open object file " + objects.path() + "/KovaBpfGplDefineset.o"), std::string::npos)
        << stderr_;
    EXPECT_EQ(Property("sys.kova_bpf_ready"), "0");
    EXPECT_TRUE(Pins().empty()) << "the normal object must not stay pinned alone";
}

TEST_F(LoaderTest, ObjectWithAProgramOfAnotherKindIsRefused) {
    TempDir objects;
    CopyOfObjects(objects);
    // The injector's program is a syscall program: not a kind the service can attach.
    WriteFile(objects / "KovaBpfGplDefineset.o", ReadFile(std::string(KOVA_BPF_OBJECT_DIR) + "/kova_ringbuf_injector.o"));

    EXPECT_EQ(RunLoader({"--objects", objects.path()}), 4);
    EXPECT_NE(stderr_.find("program kova_ringbuf_inject of " + objects.path() +
                           "/KovaBpfGplDefineset.o has section \"syscall\""),
              std::string::npos)
        << stderr_;
    EXPECT_EQ(Property("sys.kova_bpf_ready"), "0");
}

TEST_F(LoaderTest, ObjectBuiltFromAnotherRecordLayoutIsRefused) {
    TempDir objects;
    CopyOfObjects(objects);
    WriteFile(objects / "KovaBpfDefineset.o", ReadFile(std::string(KOVA_BPF_OBJECT_DIR) + "/kova_layout_mismatch.o"));

    EXPECT_EQ(RunLoader({"--objects", objects.path()}), 4);
    EXPECT_NE(stderr_.find("map ringbuf_status of " + objects.path() +
                           "/KovaBpfDefineset.o has type 2, key size 4 and value size 4; expected type 2, key "
                           "size 4 and value size 8"),
              std::string::npos)
        << stderr_;
    EXPECT_EQ(Property("sys.kova_bpf_ready"), "0");
    EXPECT_TRUE(Pins().empty());
}

TEST_F(LoaderTest, ObjectTheVerifierRefusesFailsWithItsReason) {
    TempDir objects;
    CopyOfObjects(objects);
    WriteFile(objects / "KovaBpfDefineset.o", ReadFile(std::string(KOVA_BPF_OBJECT_DIR) + "/kova_verifier_rejects.o"));

    EXPECT_EQ(RunLoader({"--objects", objects.path()}), 5);
    EXPECT_NE(stderr_.find("kovabpf-loader: error: the kernel refused object KovaBpfDefineset"), std::string::npos)
        << stderr_;
    EXPECT_NE(stderr_.find("kovabpf-loader: libbpf: "), std::string::npos) << "the verifier's log is shown";
    EXPECT_EQ(Property("sys.kova_bpf_ready"), "0");
    EXPECT_TRUE(Pins().empty());
}

TEST_F(LoaderTest, PinDirectoryOutsideBpffsIsRefused) {
    TempDir notBpffs;
    EXPECT_EQ(RunLoader({}, notBpffs / "pins"), 3);
    EXPECT_NE(stderr_.find("is not on a BPF file system"), std::string::npos) << stderr_;
    EXPECT_EQ(Property("sys.kova_bpf_ready"), "0");
}

TEST_F(LoaderTest, BadUsageExitsWithStatusOne) {
    EXPECT_EQ(RunLoader({"--no-such-option"}), 1);
    EXPECT_NE(stderr_.find("usage: kovabpf-loader"), std::string::npos);
    EXPECT_EQ(RunLoader({"stray"}), 1);
    EXPECT_NE(stderr_.find("unexpected argument \"stray\""), std::string::npos);
    EXPECT_TRUE(Pins().empty());
}

}  // namespace
}  // namespace kova::test
