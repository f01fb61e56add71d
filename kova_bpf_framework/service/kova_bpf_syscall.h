// The raw bpf(2) system call, as the service issues it: every command gets a zeroed 152-byte attribute
// block (whatever the size of union bpf_attr in the installed headers) holding only its own fields.
// Each function returns what the system call returns: 0 or a new descriptor, or -1 with errno.
#pragma once

#include <stdint.h>

namespace Kova::Bpf {

inline constexpr unsigned int KOVA_BPF_ATTR_SIZE = 152;

// BPF_OBJ_GET of the pinned object at `path` with `fileFlags` (0, BPF_F_RDONLY or BPF_F_WRONLY).
int BpfObjGet(const char* path, uint32_t fileFlags);
// BPF_MAP_LOOKUP_ELEM: copies the value of `key` into `value`.
int BpfMapLookupElem(int mapFd, const void* key, void* value);
// BPF_MAP_UPDATE_ELEM with `flags` (BPF_ANY, BPF_NOEXIST or BPF_EXIST).
int BpfMapUpdateElem(int mapFd, const void* key, const void* value, uint64_t flags);
// BPF_MAP_DELETE_ELEM.
int BpfMapDeleteElem(int mapFd, const void* key);
// BPF_MAP_GET_NEXT_KEY: the key after `key`, or the first key when `key` is null.
int BpfMapGetNextKey(int mapFd, const void* key, void* nextKey);

}  // namespace Kova::Bpf
