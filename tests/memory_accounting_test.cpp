// Memory accounting on the real kernel: the start-up seeding writes the real objects' pinned maps from
// a generated /proc tree and from the real /proc, and the kernel-side programs continue from what it
// wrote: the dmabuf logic test-run on the seeded maps, the fd program's body attached at dup()'s exit.

#include <gtest/gtest.h>
#include <bpf/bpf.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>

#include "kova/bpf_client_events.h"
#include "kova_bpf_records.h"
#include "kova_kernel_objects.h"
#include "kova_test_client.h"
#include "service/kova_bpf_service.h"
#include "utils/kova_bpf_proc_status.h"

namespace kova::test {
namespace {

using namespace std::chrono_literals;
using Kova::Bpf::KovaBpfService;

constexpr uint64_t kMiB = 1 << 20;

// A generated /proc: processes with a status file, descriptors (links, with or without an fdinfo file)
// and a maps file.
class ProcTree {
  public:
    void Process(int pid, const std::string& name) { WriteFile(Path(pid, "status"), "Name:\t" + name + "\nPid:\t1\n"); }
    void Fd(int pid, int fd, const std::string& target, const std::string& fdinfo) {
        const std::string link = Path(pid, "fd/" + std::to_string(fd));
        WriteFile(link, "");
        unlink(link.c_str());
        EXPECT_EQ(symlink(target.c_str(), link.c_str()), 0);
        if (!fdinfo.empty()) WriteFile(Path(pid, "fdinfo/" + std::to_string(fd)), fdinfo);
    }
    void Maps(int pid, const std::string& text) { WriteFile(Path(pid, "maps"), text); }
    const std::string& path() const { return dir_.path(); }

  private:
    std::string Path(int pid, const std::string& name) const { return dir_ / (std::to_string(pid) + "/" + name); }
    TempDir dir_;
};

std::string Dmabuf(uint64_t bytes, uint64_t inode) {
    return "pos:\t0\nflags:\t02\nmnt_id:\t15\nino:\t" + std::to_string(inode) + "\nsize:\t" + std::to_string(bytes) +
           "\ncount:\t1\nexp_name:\tsystem\n";
}

template <typename Value>
std::optional<Value> Lookup(const PinnedObjects& objects, const char* object, const char* map, uint32_t pid) {
    Value value{};
    if (bpf_map_lookup_elem(objects.Map(object, map).get(), &pid, &value) != 0) return std::nullopt;
    return value;
}

// What the dmabuf maps hold for one process, in a form tests compare whole.
struct Holdings {
    uint64_t fdBytes = 0, heldBytes = 0, reportedBytes = 0;
    uint32_t fdBuffers = 0, heldBuffers = 0;
    std::map<uint64_t, std::pair<uint64_t, int32_t>> fds = {}, mappings = {};  // inode -> (bytes, references)
    bool operator==(const Holdings&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Holdings& h) {
    out << "fd " << h.fdBytes << "/" << h.fdBuffers << " held " << h.heldBytes << "/" << h.heldBuffers << " reported "
        << h.reportedBytes << " fds{";
    for (const auto& [inode, ref] : h.fds) out << inode << ":" << ref.first << "x" << ref.second << " ";
    out << "} mappings{";
    for (const auto& [inode, ref] : h.mappings) out << inode << ":" << ref.first << "x" << ref.second << " ";
    return out << "}";
}

Holdings HoldingsOf(const PinnedObjects& objects, uint32_t pid) {
    Holdings h;
    const auto stat = [&](const char* map, uint64_t* bytes, uint32_t* buffers) {
        const auto value = Lookup<kova_dmabuf_stat>(objects, kGplObject, map, pid);
        if (value) *bytes = value->bytes;
        if (value && buffers != nullptr) *buffers = value->buffers;
    };
    stat("dmabuf_allocate_map", &h.fdBytes, &h.fdBuffers);
    stat("dmabuf_perprocess_size_map", &h.heldBytes, &h.heldBuffers);
    stat("dmabuf_size_map", &h.reportedBytes, nullptr);
    const auto set = [&](const char* map, auto* out) {
        const auto value = Lookup<kova_dmabuf_inode_set>(objects, kGplObject, map, pid);
        for (uint32_t i = 0; value && i < value->count; ++i) {
            (*out)[value->refs[i].inode] = {value->refs[i].bytes, value->refs[i].refs};
        }
    };
    set("process_inode_map", &h.fds);
    set("process_mmap_infos", &h.mappings);
    return h;
}

class MemoryAccountingTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
        ASSERT_TRUE(objects_.ok()) << objects_.message();
    }
    PinnedObjects objects_;
    ScopedRoot pins_{Kova::Bpf::KOVA_PIN_DIR, objects_.pins().path()};
};

// The seeding of a generated tree, and the dmabuf logic of the programs run on what it wrote: a buffer
// seeded at start-up and released later takes its processes back to where they were without it, and
// never below zero.
TEST_F(MemoryAccountingTest, DmabufProgramsContinueFromTheSeededMaps) {
    ProcTree proc;
    proc.Process(100, "composer");
    proc.Fd(100, 3, "/dmabuf:system", Dmabuf(4096, 11));
    proc.Fd(100, 4, "/dmabuf:system", Dmabuf(4096, 11));        // a second descriptor of the same buffer
    proc.Fd(100, 5, "anon_inode:[eventfd]", Dmabuf(999, 99));   // not a dmabuf
    proc.Fd(100, 6, "/dmabuf:", "pos:\t0\nino:\t12\n");          // no size: skipped
    proc.Fd(100, 7, "/dmabuf:", "");                              // no fdinfo: skipped
    proc.Fd(100, 8, "/dmabuf:", "ino:\t13\nsize:\tjunk\n");      // malformed size: skipped
    proc.Maps(100,
              "7f0000000000-7f0000001000 rw-s 00000000 00:0f 11   /dmabuf:\n"
              "7f0000002000-7f0000004000 rw-s 00000000 00:0f 22   /dmabuf:\n"
              "7f0000004000-7f0000005000 rw-s 00000000 /dmabuf:\n"
              "7f0000005000-7f0000006000 rw-s 00000000 00:0f x7   /dmabuf:\n"
              "7f0000006000-7f0000007000 r-xp 00000000 08:01 4242 /usr/lib/libc.so\n");
    proc.Process(200, "allocator");  // its maps file is gone: its descriptors still count
    proc.Fd(200, 9, "/dmabuf:system", Dmabuf(8192, 22));
    proc.Process(300, "viewer");  // maps a buffer no descriptor anywhere names: sized by its mapping
    proc.Maps(300, "7f0000000000-7f0000003000 rw-s 00000000 00:0f 33 /dmabuf:\n");
    proc.Process(400, "gone");  // vanished after its status was listed
    proc.Process(500, "hoarder");
    for (int fd = 0; fd < KOVA_DMABUF_INODES_PER_PROCESS + 8; ++fd) proc.Fd(500, fd, "/dmabuf:", Dmabuf(kMiB, 1000 + fd));
    proc.Maps(500, "");
    ScopedRoot procRoot(Kova::Bpf::KOVA_PROC_DIR, proc.path());
    LogCapture log;

    KovaBpfService* service = KovaBpfService::GetInstance();
    ASSERT_EQ(service->initBpfMap(), 0);
    ASSERT_EQ(service->initDmabufBpfProg(), 0);

    Holdings composer{.fdBytes = 4096, .heldBytes = 4096 + 8192, .reportedBytes = 4096 + 8192, .fdBuffers = 1,
                      .heldBuffers = 2, .fds = {{11, {4096, 2}}}, .mappings = {{11, {4096, 1}}, {22, {8192, 1}}}};
    Holdings allocator{.fdBytes = 8192, .heldBytes = 8192, .reportedBytes = 8192, .fdBuffers = 1, .heldBuffers = 1,
                       .fds = {{22, {8192, 1}}}};
    Holdings viewer{.heldBytes = 0x3000, .reportedBytes = 0x3000, .heldBuffers = 1, .mappings = {{33, {0x3000, 1}}}};
    EXPECT_EQ(HoldingsOf(objects_, 100), composer);
    EXPECT_EQ(HoldingsOf(objects_, 200), allocator);
    EXPECT_EQ(HoldingsOf(objects_, 300), viewer);
    EXPECT_EQ(HoldingsOf(objects_, 400), Holdings{});
    const Holdings hoarder = HoldingsOf(objects_, 500);
    EXPECT_EQ(hoarder.fds.size(), static_cast<size_t>(KOVA_DMABUF_INODES_PER_PROCESS));
    EXPECT_EQ(hoarder.fdBuffers, static_cast<uint32_t>(KOVA_DMABUF_INODES_PER_PROCESS)) << "only followed buffers count";
    EXPECT_EQ(hoarder.fdBytes, KOVA_DMABUF_INODES_PER_PROCESS * kMiB);
    EXPECT_EQ(log.CountContaining("[KovaBpfService][IMIT] Task not exists, so we skip it (200)"), 1);
    EXPECT_EQ(log.CountContaining("pid 500: 8 dmabufs held through descriptors are not followed"), 1);
    EXPECT_EQ(log.CountContaining("pid 100: skipped a dmabuf mapping without an inode"), 2);
    EXPECT_EQ(log.CountContaining("Unable to open"), 2) << "size and inode each, of the missing fdinfo";

    ASSERT_TRUE(objects_.SetStatusWord(kGplObject, KOVA_STATUS_CORE | KOVA_STATUS_NORMAL));  // reports flow
    ObjectOnPins programs(objects_, kGplObject, "kova_dmabuf_test_run");
    ASSERT_TRUE(programs.ok()) << programs.error();
    const auto release = [&](uint64_t inode, uint64_t size) {
        ASSERT_TRUE(programs.Run("kova_test_dmabuf_release", {inode, size}));
    };
    // A new buffer and a new mapping of a seeded one count once each, on top of the seeded state.
    ASSERT_TRUE(programs.Run("kova_test_dmabuf_export", {100, 44, 2 * kMiB}));
    ASSERT_TRUE(programs.Run("kova_test_dmabuf_mmap", {100, 11, 4096}));
    ASSERT_TRUE(programs.Run("kova_test_dmabuf_mmap", {200, 22, 8192}));
    allocator.mappings[22] = {8192, 1};
    EXPECT_EQ(HoldingsOf(objects_, 200), allocator) << "a buffer held through a descriptor counts once";
    Holdings grown = composer;
    grown.fdBytes += 2 * kMiB, grown.fdBuffers += 1, grown.heldBytes += 2 * kMiB, grown.heldBuffers += 1;
    grown.reportedBytes = grown.heldBytes;  // moved by a report's step: reported
    grown.fds[44] = {2 * kMiB, 1}, grown.mappings[11].second = 2;
    EXPECT_EQ(HoldingsOf(objects_, 100), grown);
    release(44, 2 * kMiB);
    grown.fdBytes -= 2 * kMiB, grown.fdBuffers -= 1, grown.heldBytes -= 2 * kMiB, grown.heldBuffers -= 1;
    grown.reportedBytes = grown.heldBytes, grown.fds.erase(44);
    EXPECT_EQ(HoldingsOf(objects_, 100), grown);

    // Seeded buffers: every holder loses them, through descriptors and mappings alike, and once only.
    release(11, 4096);
    Holdings left = grown;
    left.fdBytes = 0, left.fdBuffers = 0, left.heldBytes = 8192, left.heldBuffers = 1;
    left.fds.clear(), left.mappings.erase(11);
    EXPECT_EQ(HoldingsOf(objects_, 100), left);
    release(22, 8192);
    release(33, 0x3000);
    const Holdings empty{.reportedBytes = 4096 + 8192};  // no report: the drop is below a report's step
    EXPECT_EQ(HoldingsOf(objects_, 100), empty);
    EXPECT_EQ(HoldingsOf(objects_, 200), Holdings{.reportedBytes = 8192});
    EXPECT_EQ(HoldingsOf(objects_, 300), Holdings{.reportedBytes = 0x3000});
    release(11, 4096);  // a release nobody holds changes nothing
    EXPECT_EQ(HoldingsOf(objects_, 100), empty);
}

// Each process's seeded descriptor count is the number of entries of its /proc/<pid>/fd, through the
// operator's command on the real /proc. Only processes that did not run while the command ran are
// compared (their threads' run times did not move): one that opens and closes descriptors all the time
// can show the same count before and after by chance.
TEST_F(MemoryAccountingTest, FdSeedingWritesEveryProcessWithTheCountProcShows) {
    struct Seen {
        int64_t fds = 0;
        uint64_t runNs = 0;  // summed over its threads
        bool operator==(const Seen&) const = default;
    };
    const auto look = [] {
        std::map<uint32_t, Seen> seen;
        Kova::Bpf::ForEachProcessDir("/proc", [&](const char* pid) {
            const std::string dir = std::string("/proc/") + pid;
            Seen process;
            if (!Kova::Bpf::ForEachDirEntry(dir + "/fd", [&](const char*) { ++process.fds; })) return;
            Kova::Bpf::ForEachDirEntry(dir + "/task", [&](const char* tid) {
                std::ifstream schedstat(dir + "/task/" + tid + "/schedstat");
                uint64_t runNs = 0;
                schedstat >> runNs;
                process.runNs += runNs;
            });
            seen[static_cast<uint32_t>(atoi(pid))] = process;
        });
        return seen;
    };
    const std::map<uint32_t, Seen> before = look();
    std::string output;
    ASSERT_EQ(RunProgram({ProjectBinary("kovabpf-loader"), "--seed-fd-counts"},
                         {"KOVA_PIN_DIR=" + objects_.pins().path()}, &output),
              0);
    const std::map<uint32_t, Seen> after = look();

    size_t compared = 0;
    for (const auto& [pid, seen] : before) {
        const auto now = after.find(pid);
        if (now == after.end() || now->second != seen) continue;
        const auto caller = Lookup<kova_open_fd_caller>(objects_, kNormalObject, "open_fd_caller_map", pid);
        ASSERT_TRUE(caller) << "pid " << pid;
        EXPECT_EQ(caller->open_fds, seen.fds) << "pid " << pid;
        EXPECT_EQ(caller->reported_fds, seen.fds) << "pid " << pid;
        EXPECT_EQ(caller->pid, pid);
        ++compared;
    }
    EXPECT_GE(compared, before.size() / 2) << "too few processes stayed idle";
    EXPECT_NE(output.find("wrote the open descriptors of"), std::string::npos) << output;
    const auto kthreadd = Lookup<kova_open_fd_caller>(objects_, kNormalObject, "open_fd_caller_map", 2);
    ASSERT_TRUE(kthreadd);
    EXPECT_EQ(kthreadd->open_fds, 0) << "a kernel thread's fd directory is empty";
    EXPECT_STREQ(kthreadd->comm, "kthreadd");
}

// The fd program's body, attached at dup()'s exit (no kprobes here): a child's count moves from its seeded value, and
// crossing the report step reaches a subscribed client through the daemon as a decodable record.
TEST(FdProgramTest, CountsMoveFromTheSeededValueAndEachStepReachesClients) {
    std::string reason;
    KOVA_REQUIRE(HaveBpf(&reason), reason);
    DaemonOnObjects daemon;
    ASSERT_TRUE(daemon.Start(&reason)) << reason;
    ObjectOnPins fdProgram(daemon.objects(), kNormalObject, "kova_fd_install_test");
    ASSERT_TRUE(fdProgram.ok()) << fdProgram.error();
    ASSERT_TRUE(fdProgram.Attach("kova_test_fd_installed")) << fdProgram.error();
    TestClient client(daemon.socketName());
    ASSERT_EQ(client.Subscribe(KOVA_RAW_FD_UPDATE), 0);

    // The child opens or closes descriptors on command: 'o' opens 64 more, 'c' closes 60 and opens one.
    int commands[2], acks[2];
    ASSERT_EQ(pipe(commands), 0);
    ASSERT_EQ(pipe(acks), 0);
    const pid_t child = fork();
    if (child == 0) {
        close(commands[1]);
        close(acks[0]);
        std::vector<int> opened;
        for (char command; read(commands[0], &command, 1) == 1;) {
            if (command == 'c') {
                for (int i = 0; i < 60; ++i) close(opened[opened.size() - 1 - i]);
                opened.resize(opened.size() - 60);
            }
            for (int i = 0; i < (command == 'o' ? 64 : 1); ++i) opened.push_back(dup(0));
            (void)!write(acks[1], &command, 1);
        }
        _exit(0);
    }
    close(commands[0]);
    close(acks[1]);
    const auto command = [&](char c) {
        char ack = 0;
        ASSERT_EQ(write(commands[1], &c, 1), 1);
        ASSERT_EQ(read(acks[0], &ack, 1), 1);
    };
    const auto entry = [&] {
        return Lookup<kova_open_fd_caller>(daemon.objects(), kNormalObject, "open_fd_caller_map", child);
    };
    ASSERT_EQ(RunProgram({ProjectBinary("kovabpf-loader"), "--seed-fd-counts"}, daemon.Environment()), 0);
    ASSERT_TRUE(entry());
    const int64_t seeded = entry()->open_fds;

    command('o');
    std::optional<Kova::Client::FdCountChanged> report;
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!report && std::chrono::steady_clock::now() < deadline) {
        const std::optional<std::string> record = client.NextEvent(1s);
        if (!record) continue;
        std::string error;
        const auto decoded = Kova::Client::DecodeFdCountChanged(*record, &error);
        ASSERT_TRUE(decoded) << error;
        if (decoded->pid == child) report = decoded;
    }
    ASSERT_TRUE(report) << "no fd record for the child";
    EXPECT_EQ(report->reportedFds, seeded);
    EXPECT_EQ(report->openFds, seeded + KOVA_FD_REPORT_STEP);
    EXPECT_EQ(entry()->reported_fds, seeded + KOVA_FD_REPORT_STEP);

    command('c');  // 59 fewer: below a step, so the map follows and no record goes out
    EXPECT_EQ(entry()->open_fds, seeded + KOVA_FD_REPORT_STEP - 59);
    EXPECT_EQ(entry()->reported_fds, seeded + KOVA_FD_REPORT_STEP);
    close(commands[1]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_FALSE(entry()) << "the exit program drops the ended process";
    close(acks[0]);
}

}  // namespace
}  // namespace kova::test
