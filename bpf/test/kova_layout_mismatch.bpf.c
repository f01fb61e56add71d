/* Test tooling: an object shaped like KovaBpfDefineset whose status map has 32-bit values, i.e. one
 * built from a different record header. The loader must refuse it. */
#include "vmlinux.h"

#include <bpf/bpf_helpers.h>

#include "kova_bpf_records.h"

char LICENSE[] SEC("license") = "GPL";

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, 4096);
} ringbuf_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, KOVA_STATUS_KEY_COUNT);
    __type(key, __u32);
    __type(value, __u32);
} ringbuf_status SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, 16);
    __type(key, __u32);
    __type(value, struct kova_open_fd_caller);
} open_fd_caller_map SEC(".maps");

SEC("tracepoint/sched/sched_switch")
int sched_sched_switch(void *ctx) {
    __u32 key = 0;
    __u32 *word = bpf_map_lookup_elem(&ringbuf_status, &key);
    if (word) *word = 0;
    return 0;
}
