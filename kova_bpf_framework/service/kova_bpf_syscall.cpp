#include "service/kova_bpf_syscall.h"

#include <linux/bpf.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Kova::Bpf {
namespace {

union AttrBlock {
    union bpf_attr attr;
    unsigned char bytes[KOVA_BPF_ATTR_SIZE];
};
static_assert(sizeof(AttrBlock) == KOVA_BPF_ATTR_SIZE, "bpf_attr outgrew the service's attribute block");

AttrBlock ZeroedBlock() {
    AttrBlock block;
    memset(&block, 0, sizeof(block));
    return block;
}

int Call(int cmd, AttrBlock* block) {
    return static_cast<int>(syscall(__NR_bpf, cmd, &block->attr, KOVA_BPF_ATTR_SIZE));
}

uint64_t Pointer(const void* p) { return reinterpret_cast<uint64_t>(p); }

int MapElementCall(int cmd, int mapFd, const void* key, uint64_t valueOrNextKey, uint64_t flags) {
    AttrBlock block = ZeroedBlock();
    block.attr.map_fd = static_cast<uint32_t>(mapFd);
    block.attr.key = Pointer(key);
    block.attr.value = valueOrNextKey;  // shares its place with next_key
    block.attr.flags = flags;
    return Call(cmd, &block);
}

}  // namespace

int BpfObjGet(const char* path, uint32_t fileFlags) {
    AttrBlock block = ZeroedBlock();
    block.attr.pathname = Pointer(path);
    block.attr.file_flags = fileFlags;
    return Call(BPF_OBJ_GET, &block);
}

int BpfMapLookupElem(int mapFd, const void* key, void* value) {
    return MapElementCall(BPF_MAP_LOOKUP_ELEM, mapFd, key, Pointer(value), 0);
}

int BpfMapUpdateElem(int mapFd, const void* key, const void* value, uint64_t flags) {
    return MapElementCall(BPF_MAP_UPDATE_ELEM, mapFd, key, Pointer(value), flags);
}

int BpfMapDeleteElem(int mapFd, const void* key) { return MapElementCall(BPF_MAP_DELETE_ELEM, mapFd, key, 0, 0); }

int BpfMapGetNextKey(int mapFd, const void* key, void* nextKey) {
    return MapElementCall(BPF_MAP_GET_NEXT_KEY, mapFd, key, Pointer(nextKey), 0);
}

}  // namespace Kova::Bpf
