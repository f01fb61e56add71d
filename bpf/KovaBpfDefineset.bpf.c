/* KovaBpfDefineset: the normal program set. Process and thread creation and exit, RSS changes and
 * descriptor counts, written to this object's ring buffer for the service's "BpfServicePoll" thread.
 *
 * Records and their gate (see kova_bpf_records.h for the why):
 *   sched_sched_process_fork  type 2  core
 *   sched_sched_process_exit  type 3  core
 *   kmem_rss_stat             type 1  normal; a task's changes held until it leaves the CPU (kova_rss.bpf.h)
 *   enter_fd_install          type 6  normal
 *   sched_sched_switch        writes the held RSS values, keeps the status figures current and bounds
 *                             the delay of batched wake-ups (kova_ringbuf.bpf.h)
 *
 * The licence string is GPL-compatible because reading task structures needs bpf_probe_read_kernel,
 * a GPL-only helper; "normal" names the program group, not the licence.
 */
#include "vmlinux.h"

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

#define KOVA_OBJECT_RINGBUF_SIZE KOVA_RINGBUF_SIZE
#define KOVA_BATCHED_WAKEUPS
#include "kova_bpf_records.h"
#include "kova_ringbuf.bpf.h"
#include "kova_task.bpf.h"
#include "kova_fd.bpf.h"
#include "kova_rss.bpf.h"

char LICENSE[] SEC("license") = "Dual BSD/GPL";

/* Processes whose exit record was written, so that threads exiting together write it once. Entries
 * only matter for the microseconds in which a process's last threads exit; the LRU forgets them. */
struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, 4096);
    __type(key, struct kova_process_key);
    __type(value, __u8);
} exited_processes SEC(".maps");

/* Writes the process-exit record at most once per process: the first of the threads that see the
 * group dead wins. */
static __always_inline bool kova_process_exit_once(struct task_struct *current, __u32 tgid) {
    struct kova_process_key key = {
        .tgid = tgid,
        .leader_start_ns = BPF_CORE_READ(current, group_leader, start_time),
    };
    __u8 one = 1;
    return bpf_map_update_elem(&exited_processes, &key, &one, BPF_NOEXIST) == 0;
}

SEC("tracepoint/sched/sched_process_fork")
int sched_sched_process_fork(struct trace_event_raw_sched_process_fork *ctx) {
    if (!kova_flowing(KOVA_STATUS_CORE)) return 0;
    struct task_struct *current = (struct task_struct *)bpf_get_current_task();
    const pid_t child = ctx->child_pid;
    __s32 ppid = 0;
    const enum kova_new_task kind = kova_classify_new_task(current, child, &ppid);

    const __u64 now = bpf_ktime_get_ns();
    struct kova_task_create_record *record = kova_reserve(sizeof(*record));
    if (!record) return 0;
    record->type = KOVA_RAW_TASK_CREATE;
    record->pad = 0;
    record->timestamp_ns = now;
    record->ppid = ppid;
    record->uid = (__u32)bpf_get_current_uid_gid();
    if (kind == KOVA_NEW_PROCESS) {
        record->kind = KOVA_TASK_KIND_PROCESS;
        record->pid = child;
        /* The child's comm is a copy of the forking task's. */
        bpf_get_current_comm(record->comm, sizeof(record->comm));
    } else {
        /* A thread, or a task the list walks could not place: threads are created in bursts far more
         * often than processes with CLONE_PARENT, so an unplaced task is counted as a thread. */
        record->kind = KOVA_TASK_KIND_THREAD;
        record->pid = (__s32)kova_tgid_of(current);
        KOVA_READ_COMM(record->comm, BPF_CORE_READ(current, group_leader));
    }
    if (kind == KOVA_NEW_PROCESS) {
        kova_submit_urgent(record, now);
    } else {
        kova_submit(record, now);
    }
    return 0;
}

SEC("tracepoint/sched/sched_process_exit")
int sched_sched_process_exit(void *ctx) {
    struct task_struct *current = (struct task_struct *)bpf_get_current_task();
    const __u32 tgid = bpf_get_current_pid_tgid() >> 32;
    const bool group_dead = kova_group_dead(current);
    if (group_dead) {
        bpf_map_delete_elem(&open_fd_caller_map, &tgid);
        kova_rss_owner_ended((__s32)tgid);
    }
    if (!kova_flowing(KOVA_STATUS_CORE)) return 0;

    const bool process_exit = group_dead && kova_process_exit_once(current, tgid);
    const __u64 now = bpf_ktime_get_ns();
    struct kova_task_exit_record *record = kova_reserve(sizeof(*record));
    if (!record) return 0;
    record->type = KOVA_RAW_TASK_EXIT;
    record->pad = 0;
    record->timestamp_ns = now;
    record->pid = (__s32)tgid;
    KOVA_READ_COMM(record->comm, BPF_CORE_READ(current, group_leader));
    record->kind = process_exit ? KOVA_TASK_KIND_PROCESS : KOVA_TASK_KIND_THREAD;
    if (process_exit) {
        kova_submit_urgent(record, now);
    } else {
        kova_submit(record, now);
    }
    return 0;
}

SEC("tracepoint/kmem/rss_stat")
int kmem_rss_stat(struct trace_event_raw_rss_stat *ctx) {
    __u32 mm_id = ctx->mm_id;
    __s32 owner;
    if (ctx->curr) {
        owner = kova_mm_owner((struct task_struct *)bpf_get_current_task());
        kova_learn_mm_owner(mm_id, owner);
    } else {
        __s32 *known = bpf_map_lookup_elem(&rss_mm_owner_map, &mm_id);
        if (!known) return 0;
        owner = *known;
    }
    if (!kova_flowing(KOVA_STATUS_NORMAL)) return 0;
    kova_rss_changed(owner, ctx->member, ctx->size, ctx->curr);
    return 0;
}

SEC("tracepoint/sched/sched_switch")
int sched_sched_switch(void *ctx) {
    /* The tracepoint runs before the switch: what the slot holds belongs to the task leaving. */
    kova_write_held_rss_on_switch();
    kova_wakeup_tick();
    return 0;
}

SEC("kprobe/fd_install")
int BPF_KPROBE(enter_fd_install, unsigned int fd, struct file *file) {
    kova_fd_installed();
    return 0;
}
