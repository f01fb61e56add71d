#include "kova_bpf_fixture.h"

#include <bpf/bpf.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#include "kova_test_support.h"

namespace kova::test {
namespace {

constexpr long kBpfFsMagic = 0xcafe4a11;
constexpr long kTracefsMagic = 0x74726163;

bool HasFileSystem(const char* path, long magic) {
    struct statfs fs {};
    return statfs(path, &fs) == 0 && fs.f_type == magic;
}

bpf_insn Insn(uint8_t code, uint8_t dst, uint8_t src, int16_t off, int32_t imm) {
    bpf_insn insn {};
    insn.code = code;
    insn.dst_reg = dst & 0xf;
    insn.src_reg = src & 0xf;
    insn.off = off;
    insn.imm = imm;
    return insn;
}

// r0 = 0; exit, preceded when `counterFd` >= 0 by: key = 0; value = lookup(counter, &key); if value:
// atomically *value += 1.
std::vector<bpf_insn> TestProgram(int counterFd) {
    std::vector<bpf_insn> insns;
    if (counterFd >= 0) {
        insns = {
                Insn(BPF_ST | BPF_MEM | BPF_W, BPF_REG_10, 0, -4, 0),
                Insn(BPF_LD | BPF_DW | BPF_IMM, BPF_REG_1, BPF_PSEUDO_MAP_FD, 0, counterFd),
                Insn(0, 0, 0, 0, 0),  // upper half of the 64-bit immediate
                Insn(BPF_ALU64 | BPF_MOV | BPF_X, BPF_REG_2, BPF_REG_10, 0, 0),
                Insn(BPF_ALU64 | BPF_ADD | BPF_K, BPF_REG_2, 0, 0, -4),
                Insn(BPF_JMP | BPF_CALL, 0, 0, 0, BPF_FUNC_map_lookup_elem),
                Insn(BPF_JMP | BPF_JEQ | BPF_K, BPF_REG_0, 0, 2, 0),
                Insn(BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_1, 0, 0, 1),
                Insn(BPF_STX | BPF_ATOMIC | BPF_DW, BPF_REG_0, BPF_REG_1, 0, BPF_ADD),
        };
    }
    insns.push_back(Insn(BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, 0));
    insns.push_back(Insn(BPF_JMP | BPF_EXIT, 0, 0, 0, 0));
    return insns;
}

}  // namespace

bool HaveBpf(std::string* reason) {
    if (geteuid() != 0) {
        *reason = "needs root for BPF";
        return false;
    }
    if (!HasFileSystem("/sys/fs/bpf", kBpfFsMagic)) {
        *reason = "bpffs is not mounted at /sys/fs/bpf (scripts/test mounts it)";
        return false;
    }
    const int fd = bpf_map_create(BPF_MAP_TYPE_ARRAY, "kova_probe", 4, 8, 1, nullptr);
    if (fd < 0) {
        *reason = std::string("this kernel cannot create BPF maps: ") + strerror(errno);
        return false;
    }
    close(fd);
    return true;
}

bool HaveTracefs(std::string* reason) {
    if (HasFileSystem("/sys/kernel/tracing", kTracefsMagic)) return true;
    *reason = "tracefs is not mounted at /sys/kernel/tracing (scripts/test mounts it)";
    return false;
}

bool HaveKprobes() {
    struct stat st {};
    return stat("/sys/bus/event_source/devices/kprobe", &st) == 0 ||
           stat("/sys/kernel/tracing/kprobe_events", &st) == 0;
}

std::string PinnedProgramName(const std::string& group, const std::string& kind, const std::string& name) {
    return "prog_" + group + "_" + kind + "_" + name;
}

BpfTestDir::BpfTestDir() {
    static std::atomic<int> counter{0};
    path_ = "/sys/fs/bpf/kova-test-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
    RemoveTree(path_);  // left over by a crashed run of the same pid
    mkdir(path_.c_str(), 0700);
}

BpfTestDir::~BpfTestDir() { RemoveTree(path_); }

bool BpfTestDir::Pin(int fd, const std::string& name) const { return bpf_obj_pin(fd, (*this / name).c_str()) == 0; }

BpfCounter::BpfCounter() : fd_(bpf_map_create(BPF_MAP_TYPE_ARRAY, "kova_counter", 4, 8, 1, nullptr)) {}

uint64_t BpfCounter::Value() const {
    const uint32_t key = 0;
    uint64_t value = 0;
    if (bpf_map_lookup_elem(fd_.get(), &key, &value) != 0) return 0;
    return value;
}

android::base::unique_fd LoadTestProgram(bpf_prog_type type, const BpfCounter* counter, std::string* error) {
    const std::vector<bpf_insn> insns = TestProgram(counter != nullptr ? counter->fd() : -1);
    android::base::unique_fd fd(bpf_prog_load(type, "kova_test", "GPL", insns.data(), insns.size(), nullptr));
    if (!fd.ok() && error != nullptr) *error = strerror(errno);
    return fd;
}

}  // namespace kova::test
