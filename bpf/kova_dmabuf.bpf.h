/* dmabuf (DMA buffer) accounting: the per-process maps of KovaBpfGplDefineset, which the service seeds
 * from /proc at start-up, and the logic that keeps them from the export, mapping and release of
 * buffers. Layouts and what each map holds are in kova_bpf_records.h. The kprobes of the GPL object
 * and test tooling (which test-runs the same logic where kprobes are not compiled in) both call the
 * kova_dmabuf_* functions below with the process, the buffer's inode and its size.
 *
 * The including object includes kova_bpf_records.h and kova_ringbuf.bpf.h first.
 */
#ifndef KOVA_DMABUF_BPF_H
#define KOVA_DMABUF_BPF_H

#include <bpf/bpf_helpers.h>

#define KOVA_PER_PROCESS_MAP(name, value_type)            \
    struct {                                              \
        __uint(type, BPF_MAP_TYPE_HASH);                  \
        __uint(max_entries, KOVA_DMABUF_PROCESS_ENTRIES); \
        __type(key, __u32);                               \
        __type(value, value_type);                        \
    } name SEC(".maps")

KOVA_PER_PROCESS_MAP(dmabuf_allocate_map, struct kova_dmabuf_stat);
KOVA_PER_PROCESS_MAP(dmabuf_size_map, struct kova_dmabuf_stat);
KOVA_PER_PROCESS_MAP(dmabuf_perprocess_size_map, struct kova_dmabuf_stat);
KOVA_PER_PROCESS_MAP(process_inode_map, struct kova_dmabuf_inode_set);
KOVA_PER_PROCESS_MAP(process_mmap_infos, struct kova_dmabuf_inode_set);

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, KOVA_DMABUF_BUFFER_ENTRIES);
    __type(key, __u64);  /* inode */
    __type(value, struct kova_dmabuf_info);
} dmabuf_inode_map SEC(".maps");

/* Never written: its one element is an all-zero inode set, the initial value of a new entry (too
 * large for the BPF stack). */
struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct kova_dmabuf_inode_set);
} dmabuf_empty_set SEC(".maps");

#define KOVA_INODE_SLOT(i) ((i) & (KOVA_DMABUF_INODES_PER_PROCESS - 1))

/* The process's set in `map`, created empty when it has none; NULL when the map is full. */
static __always_inline struct kova_dmabuf_inode_set *kova_inode_set(void *map, __u32 tgid) {
    struct kova_dmabuf_inode_set *set = bpf_map_lookup_elem(map, &tgid);
    if (set) return set;
    __u32 zero = 0;
    struct kova_dmabuf_inode_set *empty = bpf_map_lookup_elem(&dmabuf_empty_set, &zero);
    if (!empty) return NULL;
    bpf_map_update_elem(map, &tgid, empty, BPF_NOEXIST);
    return bpf_map_lookup_elem(map, &tgid);
}

/* Index of `inode` in `set`, or -1. */
static __always_inline int kova_inode_find(const struct kova_dmabuf_inode_set *set, __u64 inode) {
    if (!set) return -1;
    const __u32 count = set->count;
#pragma unroll
    for (int i = 0; i < KOVA_DMABUF_INODES_PER_PROCESS; i++) {
        if (i < count && set->refs[i].inode == inode) return i;
    }
    return -1;
}

/* Drops entry `index` of `set`; the last entry takes its place. */
static __always_inline void kova_inode_remove(struct kova_dmabuf_inode_set *set, int index) {
    const __u32 count = set->count;
    if (count == 0) return;
    const __u32 last = KOVA_INODE_SLOT(count - 1);
    set->refs[KOVA_INODE_SLOT(index)] = set->refs[last];
    set->count = count - 1;
}

enum kova_hold_result {
    KOVA_HOLD_UNTRACKED = 0,  /* no room: the buffer is neither listed nor counted for the process */
    KOVA_HOLD_NEW = 1,        /* listed now */
    KOVA_HOLD_AGAIN = 2,      /* was listed; one more reference */
};

static __always_inline enum kova_hold_result kova_inode_add(struct kova_dmabuf_inode_set *set, __u64 inode,
                                                            __u64 bytes) {
    const int index = kova_inode_find(set, inode);
    if (index >= 0) {
        set->refs[KOVA_INODE_SLOT(index)].refs++;
        return KOVA_HOLD_AGAIN;
    }
    const __u32 count = set->count;
    if (count >= KOVA_DMABUF_INODES_PER_PROCESS) return KOVA_HOLD_UNTRACKED;
    set->refs[KOVA_INODE_SLOT(count)].inode = inode;
    set->refs[KOVA_INODE_SLOT(count)].bytes = bytes;
    set->refs[KOVA_INODE_SLOT(count)].refs = 1;
    set->count = count + 1;
    return KOVA_HOLD_NEW;
}

/* Adds `bytes` and `buffers` (either may be negative) to the process's stat; never below zero. */
static __always_inline void kova_stat_add(void *map, __u32 tgid, __s64 bytes, __s32 buffers) {
    struct kova_dmabuf_stat *stat = bpf_map_lookup_elem(map, &tgid);
    if (!stat) {
        if (bytes <= 0) return;
        struct kova_dmabuf_stat fresh = {.bytes = (__u64)bytes, .buffers = (__u32)buffers};
        bpf_map_update_elem(map, &tgid, &fresh, BPF_NOEXIST);
        return;
    }
    const __s64 total = (__s64)stat->bytes + bytes;
    const __s32 count = (__s32)stat->buffers + buffers;
    stat->bytes = total > 0 ? (__u64)total : 0;
    stat->buffers = count > 0 ? (__u32)count : 0;
}

static __always_inline void kova_dmabuf_update_record(__u32 op, __s32 pid, __u64 inode, __u64 size) {
    if (!kova_flowing(KOVA_STATUS_NORMAL)) return;
    const __u64 now = bpf_ktime_get_ns();
    struct kova_dmabuf_update_record *record = kova_reserve(sizeof(*record));
    if (!record) return;
    record->type = KOVA_RAW_DMABUF_UPDATE;
    record->pad = 0;
    record->timestamp_ns = now;
    record->pid = pid;
    record->op = op;
    record->inode = inode;
    record->size = size;
    kova_submit(record, now);
}

/* Compares what the process holds now with its last report and writes a type-4 record when it moved
 * by KOVA_DMABUF_REPORT_BYTES or more. */
static __always_inline void kova_maybe_report_size(__u32 tgid) {
    struct kova_dmabuf_stat *now_stat = bpf_map_lookup_elem(&dmabuf_perprocess_size_map, &tgid);
    if (!now_stat) return;
    struct kova_dmabuf_stat *reported = bpf_map_lookup_elem(&dmabuf_size_map, &tgid);
    const __u64 before = reported ? reported->bytes : 0;
    const __u64 bytes = now_stat->bytes;
    const __u64 moved = bytes > before ? bytes - before : before - bytes;
    if (moved < KOVA_DMABUF_REPORT_BYTES || !kova_flowing(KOVA_STATUS_NORMAL)) return;
    const __u64 now = bpf_ktime_get_ns();
    struct kova_dmabuf_size_record *record = kova_reserve(sizeof(*record));
    if (!record) return;
    record->type = KOVA_RAW_DMABUF_SIZE;
    record->pad = 0;
    record->timestamp_ns = now;
    record->pid = (__s32)tgid;
    record->buffers = now_stat->buffers;
    record->bytes = bytes;
    record->reported_bytes = before;
    struct kova_dmabuf_stat copy = *now_stat;
    bpf_map_update_elem(&dmabuf_size_map, &tgid, &copy, BPF_ANY);
    kova_submit(record, now);
}

/* The process gets a reference to a buffer through a descriptor (set_map == process_inode_map) or a
 * mapping (set_map == process_mmap_infos). A buffer it held through neither adds to what it holds. */
static __always_inline enum kova_hold_result kova_hold(void *set_map, void *other_map, __u32 tgid, __u64 inode,
                                                       __u64 bytes) {
    struct kova_dmabuf_inode_set *set = kova_inode_set(set_map, tgid);
    if (!set) return KOVA_HOLD_UNTRACKED;
    const bool held = kova_inode_find(bpf_map_lookup_elem(other_map, &tgid), inode) >= 0;
    const enum kova_hold_result result = kova_inode_add(set, inode, bytes);
    if (result == KOVA_HOLD_NEW && !held) {
        kova_stat_add(&dmabuf_perprocess_size_map, tgid, (__s64)bytes, 1);
        kova_maybe_report_size(tgid);
    }
    return result;
}

/* `tgid` exported (allocated) a buffer, which it holds through a descriptor. */
static __always_inline void kova_dmabuf_exported(__u32 tgid, __u64 inode, __u64 size) {
    struct kova_dmabuf_info info = {.size = size, .exporter_pid = (__s32)tgid};
    bpf_map_update_elem(&dmabuf_inode_map, &inode, &info, BPF_ANY);
    if (kova_hold(&process_inode_map, &process_mmap_infos, tgid, inode, size) == KOVA_HOLD_NEW) {
        kova_stat_add(&dmabuf_allocate_map, tgid, (__s64)size, 1);
    }
    kova_dmabuf_update_record(KOVA_DMABUF_OP_EXPORT, (__s32)tgid, inode, size);
}

/* `tgid` mapped a buffer into its memory. */
static __always_inline void kova_dmabuf_mapped(__u32 tgid, __u64 inode, __u64 size) {
    kova_hold(&process_mmap_infos, &process_inode_map, tgid, inode, size);
    kova_dmabuf_update_record(KOVA_DMABUF_OP_MMAP, (__s32)tgid, inode, size);
}

struct kova_release_walk {
    __u64 inode;
    __s32 holder;  /* the first process found holding the buffer; 0 while none */
};

/* Takes `inode` out of `set` when it is listed there, with the bytes it was listed with. */
static __always_inline bool kova_take_out(struct kova_dmabuf_inode_set *set, __u64 inode, __u64 *bytes) {
    const int index = kova_inode_find(set, inode);
    if (index < 0) return false;
    *bytes = set->refs[KOVA_INODE_SLOT(index)].bytes;
    kova_inode_remove(set, index);
    return true;
}

/* The process no longer holds `bytes` of a buffer it was counted with. */
static __always_inline void kova_let_go(__u32 pid, __u64 bytes, struct kova_release_walk *walk) {
    kova_stat_add(&dmabuf_perprocess_size_map, pid, -(__s64)bytes, -1);
    kova_maybe_report_size(pid);
    if (walk->holder == 0) walk->holder = (__s32)pid;
}

/* For each process listing the released buffer among its descriptors: takes it out of both its sets
 * and out of its stats, by the bytes it was listed with, which are the bytes it was counted with. */
static long kova_release_from_descriptors(void *map, __u32 *tgid, struct kova_dmabuf_inode_set *set,
                                          struct kova_release_walk *walk) {
    __u64 bytes = 0, mapped = 0;
    if (!kova_take_out(set, walk->inode, &bytes)) return 0;
    struct kova_dmabuf_inode_set *mappings = bpf_map_lookup_elem(&process_mmap_infos, tgid);
    if (mappings) kova_take_out(mappings, walk->inode, &mapped);
    kova_stat_add(&dmabuf_allocate_map, *tgid, -(__s64)bytes, -1);
    kova_let_go(*tgid, bytes, walk);
    return 0;
}

/* The same for processes that only map the buffer (those that also hold a descriptor are done). */
static long kova_release_from_mappings(void *map, __u32 *tgid, struct kova_dmabuf_inode_set *set,
                                       struct kova_release_walk *walk) {
    __u64 bytes = 0;
    if (kova_take_out(set, walk->inode, &bytes)) kova_let_go(*tgid, bytes, walk);
    return 0;
}

/* A buffer's last file reference went away: it is freed, so nobody holds it any more. Every process
 * that lists it loses it, whether the probes saw it arrive or the service seeded it. `size` is the
 * buffer's own size, for the record. */
static __always_inline void kova_dmabuf_released(__u64 inode, __u64 size) {
    struct kova_release_walk walk = {.inode = inode, .holder = 0};
    struct kova_dmabuf_info *info = bpf_map_lookup_elem(&dmabuf_inode_map, &inode);
    if (info) {
        walk.holder = info->exporter_pid;
        size = info->size;
        bpf_map_delete_elem(&dmabuf_inode_map, &inode);
    }
    bpf_for_each_map_elem(&process_inode_map, kova_release_from_descriptors, &walk, 0);
    bpf_for_each_map_elem(&process_mmap_infos, kova_release_from_mappings, &walk, 0);
    kova_dmabuf_update_record(KOVA_DMABUF_OP_RELEASE, walk.holder, inode, size);
}

/* A process ended: its entries go, whatever it held. */
static __always_inline void kova_dmabuf_process_ended(__u32 tgid) {
    bpf_map_delete_elem(&dmabuf_allocate_map, &tgid);
    bpf_map_delete_elem(&dmabuf_size_map, &tgid);
    bpf_map_delete_elem(&dmabuf_perprocess_size_map, &tgid);
    bpf_map_delete_elem(&process_inode_map, &tgid);
    bpf_map_delete_elem(&process_mmap_infos, &tgid);
}

#endif /* KOVA_DMABUF_BPF_H */
