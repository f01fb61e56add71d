/* The time-in-state maps and the bodies of the two programs, shared by the object KovaBpfTimeInState
 * and by the test tooling that runs the same bodies in a program the kernel can test-run (tracepoint
 * programs cannot be). Layouts and the reasons behind them: kova_bpf_records.h.
 *
 * At every context switch the time since the CPU's last switch is charged at the current frequency of
 * the CPU's policy: to the CPU's total and, unless the outgoing task is the idle task, to the outgoing
 * task's process and thread. A frequency change only moves the policy's current index; the time
 * before it is charged at the next switch, which on a busy CPU is a few milliseconds away.
 */
#ifndef KOVA_TIME_IN_STATE_BPF_H
#define KOVA_TIME_IN_STATE_BPF_H

#include "vmlinux.h"

#include <bpf/bpf_helpers.h>

#include "kova_bpf_records.h"

#define KOVA_EEXIST 17

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, KOVA_TIS_TOTAL_SLOTS);
    __type(key, __u32);
    __type(value, __u64);
} total_time_in_state_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, KOVA_TIS_TGID_ENTRIES);
    __type(key, __u32);
    __type(value, __u64);
} tgid_delta_time_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, KOVA_TIS_TGID_ENTRIES);
    __type(key, __u32);
    __type(value, struct kova_tis_freq_times);
} tgid_freq_delta_time_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, KOVA_TIS_PID_ENTRIES);
    __type(key, struct kova_tis_pid_key);
    __type(value, struct kova_tis_pid_time);
} pid_delta_time_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, KOVA_TIS_PID_ENTRIES);
    __type(key, struct kova_tis_pid_key);
    __type(value, struct kova_tis_freq_times);
} pid_freq_delta_time_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, KOVA_TIS_PID_ENTRIES);
    __type(key, struct kova_tis_pid_key);
    __type(value, __u64);
} pid_last_update_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, KOVA_TIS_CPU_ENTRIES);
    __type(key, __u32);
    __type(value, __u32);
} cpu_policy_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, KOVA_TIS_FREQ_ENTRIES);
    __type(key, struct kova_tis_freq_key);
    __type(value, __u32);
} freq_to_idx_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, __u64);
} cpu_last_update_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, KOVA_TIS_POLICY_ENTRIES);
    __type(key, __u32);
    __type(value, __u32);
} policy_freq_idx_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, KOVA_TIS_LOST_KEY_COUNT);
    __type(key, __u32);
    __type(value, __u64);
} time_in_state_lost_map SEC(".maps");

/* The value a new per-CPU frequency entry starts from: too large for the BPF stack beside the rest. */
static const struct kova_tis_freq_times kova_tis_zero_times;

static __always_inline void kova_tis_lost(__u32 key) {
    __u64 *count = bpf_map_lookup_elem(&time_in_state_lost_map, &key);
    if (count) __sync_fetch_and_add(count, 1);
}

/* Adds `delta` to a __u64 entry, creating it when absent. Entries are shared by all CPUs (a process's
 * threads switch out on several at once), hence the atomic add. */
static __always_inline void kova_tis_add_time(void *map, const void *key, __u64 delta, __u32 lost_key) {
    __u64 *time = bpf_map_lookup_elem(map, key);
    if (!time) {
        const long err = bpf_map_update_elem(map, key, &delta, BPF_NOEXIST);
        if (err == 0) return;
        /* Another CPU created it meanwhile. */
        if (err == -KOVA_EEXIST) time = bpf_map_lookup_elem(map, key);
        if (!time) {
            kova_tis_lost(lost_key);
            return;
        }
    }
    __sync_fetch_and_add(time, delta);
}

/* Adds `delta` to slot `slot` of this CPU's copy of a per-CPU frequency entry, creating it when absent.
 * Only this CPU writes its copy, so no atomic is needed. */
static __always_inline void kova_tis_add_slot(void *map, const void *key, __u32 slot, __u64 delta, __u32 lost_key) {
    struct kova_tis_freq_times *times = bpf_map_lookup_elem(map, key);
    if (!times) {
        bpf_map_update_elem(map, key, &kova_tis_zero_times, BPF_NOEXIST);
        times = bpf_map_lookup_elem(map, key);
        if (!times) {
            kova_tis_lost(lost_key);
            return;
        }
    }
    if (slot < KOVA_TIS_FREQ_SLOTS) times->ns[slot] += delta;
}

static __always_inline void kova_tis_add_thread_time(const struct kova_tis_pid_key *key, const char *comm,
                                                     __u64 delta) {
    struct kova_tis_pid_time *entry = bpf_map_lookup_elem(&pid_delta_time_map, key);
    if (!entry) {
        struct kova_tis_pid_time fresh = {.time_ns = delta};
        __builtin_memcpy(fresh.comm, comm, KOVA_COMM_LEN);
        const long err = bpf_map_update_elem(&pid_delta_time_map, key, &fresh, BPF_NOEXIST);
        if (err == 0) return;
        if (err == -KOVA_EEXIST) entry = bpf_map_lookup_elem(&pid_delta_time_map, key);
        if (!entry) {
            kova_tis_lost(KOVA_TIS_LOST_PID);
            return;
        }
    }
    /* A thread switches out on one CPU at a time, but a reset may run meanwhile. */
    __sync_fetch_and_add(&entry->time_ns, delta);
    __builtin_memcpy(entry->comm, comm, KOVA_COMM_LEN);
}

/* The outgoing task `pid` of process `tgid`, named `comm` (16 bytes), switches out on `cpu` at `now`. */
static __always_inline void kova_tis_on_switch(__u32 cpu, __u64 now, __u32 pid, __u32 tgid, const char *comm) {
    __u32 zero = 0;
    __u64 *last = bpf_map_lookup_elem(&cpu_last_update_map, &zero);
    if (!last) return;
    const __u64 since = *last;
    *last = now;
    /* The first switch after the service zeroed the stamps only starts the clock. */
    if (since == 0 || now <= since) return;
    const __u64 delta = now - since;

    __u32 *policy = bpf_map_lookup_elem(&cpu_policy_map, &cpu);
    if (!policy) return;
    __u32 *index = bpf_map_lookup_elem(&policy_freq_idx_map, policy);
    if (!index || *index == 0) return;
    __u32 slot = *index - 1;

    __u64 *total = bpf_map_lookup_elem(&total_time_in_state_map, &slot);
    if (total) *total += delta;
    if (pid == 0) return; /* the idle task */

    kova_tis_add_time(&tgid_delta_time_map, &tgid, delta, KOVA_TIS_LOST_TGID);
    kova_tis_add_slot(&tgid_freq_delta_time_map, &tgid, slot, delta, KOVA_TIS_LOST_TGID);
    const struct kova_tis_pid_key key = {.pid = pid, .tgid = tgid};
    kova_tis_add_thread_time(&key, comm, delta);
    kova_tis_add_slot(&pid_freq_delta_time_map, &key, slot, delta, KOVA_TIS_LOST_PID);
    /* Stamped in place: updating an existing hash entry allocates a new element each time. */
    __u64 *stamp = bpf_map_lookup_elem(&pid_last_update_map, &key);
    if (stamp)
        *stamp = now;
    else
        bpf_map_update_elem(&pid_last_update_map, &key, &now, BPF_NOEXIST);
}

/* The CPU `cpu` now runs at `freq_khz`: its policy's current index follows. A frequency the service did
 * not list for the policy leaves the index as it was. */
static __always_inline void kova_tis_on_frequency(__u32 freq_khz, __u32 cpu) {
    __u32 *policy = bpf_map_lookup_elem(&cpu_policy_map, &cpu);
    if (!policy) return;
    const struct kova_tis_freq_key key = {.policy = *policy, .freq_khz = freq_khz};
    __u32 *index = bpf_map_lookup_elem(&freq_to_idx_map, &key);
    if (!index) return;
    const __u32 value = *index;
    bpf_map_update_elem(&policy_freq_idx_map, policy, &value, BPF_ANY);
}

#endif /* KOVA_TIME_IN_STATE_BPF_H */
