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
#include "kova_dmabuf.bpf.h"

char LICENSE[] SEC("license") = "GPL";

SEC("tracepoint/sched/sched_process_exit")
int sched_sched_process_exit(void *ctx) {
    if (!kova_group_dead((struct task_struct *)bpf_get_current_task())) return 0;
    /* Threads ending together may all get here; a second delete is harmless. */
    kova_dmabuf_process_ended(bpf_get_current_pid_tgid() >> 32);
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

/* ---- dmabuf probes: the accounting itself is in kova_dmabuf.bpf.h ---- */

static __always_inline __u64 kova_file_inode(struct file *file) { return BPF_CORE_READ(file, f_inode, i_ino); }

/* A buffer was exported (allocated); the allocating process holds it through a descriptor. */
SEC("kprobe/dma_buf_stats_setup")
int BPF_KPROBE(dma_buf_stats_setup, struct dma_buf *dmabuf) {
    kova_dmabuf_exported(bpf_get_current_pid_tgid() >> 32, kova_file_inode(BPF_CORE_READ(dmabuf, file)),
                         BPF_CORE_READ(dmabuf, size));
    return 0;
}

/* The buffer's last file reference went away: it is freed. */
SEC("kprobe/dma_buf_file_release")
int BPF_KPROBE(dma_buf_file_release, struct inode *inode, struct file *file) {
    const struct dma_buf *dmabuf = BPF_CORE_READ(file, private_data);
    kova_dmabuf_released(BPF_CORE_READ(inode, i_ino), dmabuf ? BPF_CORE_READ(dmabuf, size) : 0);
    return 0;
}

SEC("kprobe/dma_buf_dynamic_attach")
int BPF_KPROBE(dma_buf_dynamic_attach, struct dma_buf *dmabuf) {
    kova_dmabuf_update_record(KOVA_DMABUF_OP_ATTACH, (__s32)(bpf_get_current_pid_tgid() >> 32),
                              kova_file_inode(BPF_CORE_READ(dmabuf, file)), BPF_CORE_READ(dmabuf, size));
    return 0;
}

SEC("kprobe/dma_buf_vmap")
int BPF_KPROBE(dma_buf_vmap, struct dma_buf *dmabuf) {
    kova_dmabuf_update_record(KOVA_DMABUF_OP_VMAP, (__s32)(bpf_get_current_pid_tgid() >> 32),
                              kova_file_inode(BPF_CORE_READ(dmabuf, file)), BPF_CORE_READ(dmabuf, size));
    return 0;
}

/* The current process maps a buffer into its memory. */
SEC("kprobe/dma_buf_mmap_internal")
int BPF_KPROBE(dma_buf_mmap_internal, struct file *file) {
    const struct dma_buf *dmabuf = BPF_CORE_READ(file, private_data);
    kova_dmabuf_mapped(bpf_get_current_pid_tgid() >> 32, kova_file_inode(file), BPF_CORE_READ(dmabuf, size));
    return 0;
}
