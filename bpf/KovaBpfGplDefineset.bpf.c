/* KovaBpfGplDefineset: the GPL program set. Cgroup moves and dmabuf (DMA buffer) accounting, written
 * to this object's ring buffer for the service's "BpfServicePGpl" thread, and the per-process dmabuf
 * state in this object's maps (layouts in kova_bpf_records.h).
 *
 * Records and their gate:
 *   cgroup_cgroup_attach_task  type 5  normal
 *   dma_buf_* probes           types 4 and 7  normal; the maps are kept from the moment the probes run,
 *                              so that the service's start-up seeding (while only the core bit is set)
 *                              and the probes overlap instead of leaving a gap
 *   sched_sched_process_exit   no record: the normal set's exit program reports every exit; this one
 *                              only drops the ending process's entries from this object's maps
 */
#include "vmlinux.h"

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

#define KOVA_OBJECT_RINGBUF_SIZE KOVA_GPL_RINGBUF_SIZE
#include "kova_bpf_records.h"
#include "kova_ringbuf.bpf.h"
#include "kova_task.bpf.h"

char LICENSE[] SEC("license") = "GPL";

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

SEC("tracepoint/sched/sched_process_exit")
int sched_sched_process_exit(void *ctx) {
    if (!kova_group_dead((struct task_struct *)bpf_get_current_task())) return 0;
    /* Threads ending together may all get here; a second delete is harmless. */
    const __u32 tgid = bpf_get_current_pid_tgid() >> 32;
    bpf_map_delete_elem(&dmabuf_allocate_map, &tgid);
    bpf_map_delete_elem(&dmabuf_size_map, &tgid);
    bpf_map_delete_elem(&dmabuf_perprocess_size_map, &tgid);
    bpf_map_delete_elem(&process_inode_map, &tgid);
    bpf_map_delete_elem(&process_mmap_infos, &tgid);
    return 0;
}

SEC("tracepoint/cgroup/cgroup_attach_task")
int cgroup_cgroup_attach_task(struct trace_event_raw_cgroup_migrate *ctx) {
    if (!kova_flowing(KOVA_STATUS_NORMAL)) return 0;
    const __u64 now = bpf_ktime_get_ns();
    struct kova_cgroup_attach_record *record = kova_reserve(sizeof(*record));
    if (!record) return 0;
    record->type = KOVA_RAW_CGROUP_ATTACH;
    record->pad = 0;
    record->timestamp_ns = now;
    record->dst_id = ctx->dst_id;
    record->pid = ctx->pid;
    record->caller_pid = (__s32)(bpf_get_current_pid_tgid() >> 32);
    record->dst_root = ctx->dst_root;
    record->dst_level = ctx->dst_level;
    /* __data_loc fields: the low 16 bits are the string's offset from the start of the entry. */
    const __u32 comm_loc = ctx->__data_loc_comm;
    const __u32 path_loc = ctx->__data_loc_dst_path;
    if (bpf_probe_read_kernel_str(record->comm, sizeof(record->comm), (void *)ctx + (comm_loc & 0xffff)) < 0) {
        record->comm[0] = '\0';
    }
    if (bpf_probe_read_kernel_str(record->dst_path, sizeof(record->dst_path), (void *)ctx + (path_loc & 0xffff)) < 0) {
        record->dst_path[0] = '\0';
    }
    kova_submit(record, now);
    return 0;
}

/* ---- dmabuf accounting ---- */

static __always_inline __u64 kova_file_inode(struct file *file) { return BPF_CORE_READ(file, f_inode, i_ino); }

static __always_inline struct kova_dmabuf_inode_set *kova_inode_set(void *map, __u32 tgid) {
    struct kova_dmabuf_inode_set *set = bpf_map_lookup_elem(map, &tgid);
    if (set) return set;
    __u32 zero = 0;
    struct kova_dmabuf_inode_set *empty = bpf_map_lookup_elem(&dmabuf_empty_set, &zero);
    if (!empty) return NULL;
    bpf_map_update_elem(map, &tgid, empty, BPF_NOEXIST);
    return bpf_map_lookup_elem(map, &tgid);
}

static __always_inline bool kova_inode_set_has(struct kova_dmabuf_inode_set *set, __u64 inode) {
    if (!set) return false;
    const __u32 count = set->count;
#pragma unroll
    for (int i = 0; i < KOVA_DMABUF_INODES_PER_PROCESS; i++) {
        if (i < count && set->refs[i].inode == inode) return true;
    }
    return false;
}

/* Adds one reference to `inode` in `set`. */
static __always_inline void kova_inode_set_add(struct kova_dmabuf_inode_set *set, __u64 inode) {
    const __u32 count = set->count;
#pragma unroll
    for (int i = 0; i < KOVA_DMABUF_INODES_PER_PROCESS; i++) {
        if (i < count && set->refs[i].inode == inode) {
            set->refs[i].refs++;
            return;
        }
    }
    if (count >= KOVA_DMABUF_INODES_PER_PROCESS) return;
    set->refs[count & (KOVA_DMABUF_INODES_PER_PROCESS - 1)].inode = inode;
    set->refs[count & (KOVA_DMABUF_INODES_PER_PROCESS - 1)].refs = 1;
    set->count = count + 1;
}

static __always_inline void kova_stat_add(void *map, __u32 tgid, __s64 bytes, __s32 buffers) {
    struct kova_dmabuf_stat *stat = bpf_map_lookup_elem(map, &tgid);
    if (!stat) {
        if (bytes <= 0) return;
        struct kova_dmabuf_stat fresh = {.bytes = (__u64)bytes, .buffers = (__u32)buffers};
        bpf_map_update_elem(map, &tgid, &fresh, BPF_NOEXIST);
        return;
    }
    stat->bytes = ((__s64)stat->bytes + bytes) > 0 ? stat->bytes + bytes : 0;
    stat->buffers = ((__s32)stat->buffers + buffers) > 0 ? stat->buffers + buffers : 0;
}

static __always_inline void kova_write_update(__u32 op, __s32 pid, __u64 inode, __u64 size) {
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

/* The current process gets a reference to a buffer through a descriptor (set == process_inode_map)
 * or a mapping (set == process_mmap_infos); a buffer it did not hold yet adds to its total. */
static __always_inline void kova_hold(void *set_map, __u32 tgid, __u64 inode, __u64 size) {
    const bool held = kova_inode_set_has(bpf_map_lookup_elem(&process_inode_map, &tgid), inode) ||
                      kova_inode_set_has(bpf_map_lookup_elem(&process_mmap_infos, &tgid), inode);
    struct kova_dmabuf_inode_set *set = kova_inode_set(set_map, tgid);
    if (set) kova_inode_set_add(set, inode);
    if (!held) {
        kova_stat_add(&dmabuf_perprocess_size_map, tgid, (__s64)size, 1);
        kova_maybe_report_size(tgid);
    }
}

/* A buffer was exported (allocated); the allocating process holds it through a descriptor. */
SEC("kprobe/dma_buf_stats_setup")
int BPF_KPROBE(dma_buf_stats_setup, struct dma_buf *dmabuf) {
    const __u32 tgid = bpf_get_current_pid_tgid() >> 32;
    const __u64 inode = kova_file_inode(BPF_CORE_READ(dmabuf, file));
    const __u64 size = BPF_CORE_READ(dmabuf, size);
    struct kova_dmabuf_info info = {.size = size, .exporter_pid = (__s32)tgid};
    bpf_map_update_elem(&dmabuf_inode_map, &inode, &info, BPF_ANY);
    kova_stat_add(&dmabuf_allocate_map, tgid, (__s64)size, 1);
    kova_hold(&process_inode_map, tgid, inode, size);
    kova_write_update(KOVA_DMABUF_OP_EXPORT, (__s32)tgid, inode, size);
    return 0;
}

/* The buffer's last file reference went away: it is freed. */
SEC("kprobe/dma_buf_file_release")
int BPF_KPROBE(dma_buf_file_release, struct inode *inode_ptr, struct file *file) {
    __u64 inode = BPF_CORE_READ(inode_ptr, i_ino);
    struct kova_dmabuf_info *info = bpf_map_lookup_elem(&dmabuf_inode_map, &inode);
    if (!info) return 0;
    const __s32 exporter = info->exporter_pid;
    const __u64 size = info->size;
    bpf_map_delete_elem(&dmabuf_inode_map, &inode);
    kova_stat_add(&dmabuf_allocate_map, (__u32)exporter, -(__s64)size, -1);
    kova_write_update(KOVA_DMABUF_OP_RELEASE, exporter, inode, size);
    return 0;
}

SEC("kprobe/dma_buf_dynamic_attach")
int BPF_KPROBE(dma_buf_dynamic_attach, struct dma_buf *dmabuf) {
    kova_write_update(KOVA_DMABUF_OP_ATTACH, (__s32)(bpf_get_current_pid_tgid() >> 32),
                      kova_file_inode(BPF_CORE_READ(dmabuf, file)), BPF_CORE_READ(dmabuf, size));
    return 0;
}

SEC("kprobe/dma_buf_vmap")
int BPF_KPROBE(dma_buf_vmap, struct dma_buf *dmabuf) {
    kova_write_update(KOVA_DMABUF_OP_VMAP, (__s32)(bpf_get_current_pid_tgid() >> 32),
                      kova_file_inode(BPF_CORE_READ(dmabuf, file)), BPF_CORE_READ(dmabuf, size));
    return 0;
}

/* The current process maps a buffer into its memory. */
SEC("kprobe/dma_buf_mmap_internal")
int BPF_KPROBE(dma_buf_mmap_internal, struct file *file) {
    const __u32 tgid = bpf_get_current_pid_tgid() >> 32;
    struct dma_buf *dmabuf = BPF_CORE_READ(file, private_data);
    const __u64 inode = kova_file_inode(file);
    const __u64 size = BPF_CORE_READ(dmabuf, size);
    kova_hold(&process_mmap_infos, tgid, inode, size);
    kova_write_update(KOVA_DMABUF_OP_MMAP, (__s32)tgid, inode, size);
    return 0;
}
