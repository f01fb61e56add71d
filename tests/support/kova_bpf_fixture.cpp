#include "kova_bpf_fixture.h"

#include <bpf/bpf.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <atomic>

#include "kova_test_support.h"

namespace kova::test {
namespace {

constexpr long kBpfFsMagic = 0xcafe4a11;
constexpr long kTracefsMagic = 0x74726163;

bool HasFileSystem(const char* path, long magic) {
    struct statfs fs {};
    return statfs(path, &fs) == 0 && fs.f_type == magic;
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

BpfTestDir::BpfTestDir() {
    static std::atomic<int> counter{0};
    path_ = "/sys/fs/bpf/kova-test-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
    RemoveTree(path_);  // left over by a crashed run of the same pid
    mkdir(path_.c_str(), 0700);
}

BpfTestDir::~BpfTestDir() { RemoveTree(path_); }

bool BpfTestDir::Pin(int fd, const std::string& name) const { return bpf_obj_pin(fd, (*this / name).c_str()) == 0; }

}  // namespace kova::test
