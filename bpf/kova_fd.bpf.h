/* Descriptor counts per process: the open-fd caller map, which the service seeds from /proc, and the
 * body of the fd_install probe that keeps it. Shared by KovaBpfDefineset (a kprobe) and by test tooling
 * that runs the same body as fentry, where kprobes are not compiled in.
 *
 * The including object includes kova_bpf_records.h and kova_ringbuf.bpf.h first.
 */
#ifndef KOVA_FD_BPF_H
#define KOVA_FD_BPF_H

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>

/* Descriptor counts per process, seeded by the service and kept by kova_fd_installed(); the process
 * exit program deletes a process's entry. */
struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, KOVA_OPEN_FD_CALLER_ENTRIES);
    __type(key, __u32);
    __type(value, struct kova_open_fd_caller);
} open_fd_caller_map SEC(".maps");

/* Number of set bits of a 64-bit word (BPF has no popcount instruction). */
static __always_inline __u64 kova_popcount(__u64 x) {
    x = x - ((x >> 1) & 0x5555555555555555ull);
    x = (x & 0x3333333333333333ull) + ((x >> 2) & 0x3333333333333333ull);
    x = (x + (x >> 4)) & 0x0f0f0f0f0f0f0f0full;
    return (x * 0x0101010101010101ull) >> 56;
}

/* The descriptors open in a process: the set bits of its descriptor table's open_fds, read
 * KOVA_FD_SCAN_WORDS words at a time. Exact up to KOVA_FD_SCAN_CHUNKS * KOVA_FD_SCAN_WORDS * 64 (65536)
 * descriptors; a table larger than that is counted up to there. */
#define KOVA_FD_SCAN_WORDS 32
#define KOVA_FD_SCAN_CHUNKS 32
struct kova_fd_scan {
    __u64 words[KOVA_FD_SCAN_WORDS];
};

/* Room for the bitmap copy, which does not fit beside the rest on the BPF stack. */
struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct kova_fd_scan);
} fd_scan_scratch SEC(".maps");

static __always_inline __s64 kova_open_fds(struct task_struct *task) {
    __u32 zero = 0;
    struct kova_fd_scan *scan = bpf_map_lookup_elem(&fd_scan_scratch, &zero);
    struct fdtable *fdt = BPF_CORE_READ(task, files, fdt);
    if (!scan || !fdt) return -1;
    const unsigned long *bits = BPF_CORE_READ(fdt, open_fds);
    const __u32 words = BPF_CORE_READ(fdt, max_fds) / 64;
    if (words == 0) return -1;
    __s64 count = 0;
    for (__u32 chunk = 0; chunk < KOVA_FD_SCAN_CHUNKS; chunk++) {
        const __u32 first = chunk * KOVA_FD_SCAN_WORDS;
        if (first >= words) break;
        __u32 n = words - first;
        if (n > KOVA_FD_SCAN_WORDS) n = KOVA_FD_SCAN_WORDS;
        /* Zero-filled and summed whole, so that the sum has no branches for the verifier to follow. */
        __builtin_memset(scan->words, 0, sizeof(scan->words));
        if (bpf_probe_read_kernel(scan->words, n * 8, bits + first) != 0) return -1;
#pragma unroll
        for (int i = 0; i < KOVA_FD_SCAN_WORDS; i++) count += kova_popcount(scan->words[i]);
    }
    return count;
}

/* A descriptor was installed in the current process. The bitmap holds the new descriptor already, so
 * the count is what /proc/<pid>/fd lists; closes show at the next install. A process the map does not
 * know yet starts from its count now, without a record. */
static __always_inline void kova_fd_installed(void) {
    const __u32 tgid = bpf_get_current_pid_tgid() >> 32;
    struct task_struct *current = (struct task_struct *)bpf_get_current_task();
    const __s64 open = kova_open_fds(current);
    if (open < 0) return;

    struct kova_open_fd_caller *caller = bpf_map_lookup_elem(&open_fd_caller_map, &tgid);
    if (!caller) {
        struct kova_open_fd_caller fresh = {.pid = tgid, .open_fds = open, .reported_fds = open};
        KOVA_READ_COMM(fresh.comm, BPF_CORE_READ(current, group_leader));
        bpf_map_update_elem(&open_fd_caller_map, &tgid, &fresh, BPF_NOEXIST);
        return;
    }
    caller->open_fds = open;
    const __s64 moved = open - caller->reported_fds;
    if ((moved < 0 ? -moved : moved) < KOVA_FD_REPORT_STEP) return;
    if (!kova_flowing(KOVA_STATUS_NORMAL)) return;

    const __u64 now = bpf_ktime_get_ns();
    struct kova_fd_update_record *record = kova_reserve(sizeof(*record));
    if (!record) return;
    record->type = KOVA_RAW_FD_UPDATE;
    record->pad = 0;
    record->timestamp_ns = now;
    record->pid = (__s32)tgid;
    record->pad2 = 0;
    record->open_fds = open;
    record->reported_fds = caller->reported_fds;
    KOVA_READ_COMM(record->comm, BPF_CORE_READ(current, group_leader));
    caller->reported_fds = open;
    caller->last_report_ns = now;
    kova_submit(record, now);
}

#endif /* KOVA_FD_BPF_H */
