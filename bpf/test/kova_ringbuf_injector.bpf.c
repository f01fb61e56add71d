/* Test tooling: writes given bytes into a ring buffer on demand.
 *
 * The test replaces `ringbuf_map` with the ring buffer it wants to fill (bpf_map__reuse_fd before
 * load) and runs the program with bpf_prog_test_run_opts, passing a kova_inject_request as ctx_in.
 * Tracepoint programs cannot be test-run; a syscall program can, and its context is a kernel copy of
 * ctx_in. The bytes are copied into a scratch buffer first, because bpf_ringbuf_output does not accept
 * the context itself as its data.
 *
 * Result (the program's return value): 0 when the record was written, -EINVAL for a length of 0 or
 * above KOVA_INJECT_MAX, or the error of bpf_ringbuf_output (-EAGAIN when the ring is full).
 */
#include "vmlinux.h"

#include <bpf/bpf_helpers.h>

#include "kova_inject_request.h"

char LICENSE[] SEC("license") = "GPL";

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, 4096);
} ringbuf_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct kova_inject_request);
} inject_scratch SEC(".maps");

#define KOVA_EINVAL 22

SEC("syscall")
int kova_ringbuf_inject(struct kova_inject_request *request) {
    __u32 zero = 0;
    struct kova_inject_request *scratch = bpf_map_lookup_elem(&inject_scratch, &zero);
    if (!scratch) return -KOVA_EINVAL;
    const __u32 length = request->length;
    if (length == 0 || length > KOVA_INJECT_MAX) return -KOVA_EINVAL;
    if (bpf_probe_read_kernel(scratch->bytes, length, request->bytes) != 0) return -KOVA_EINVAL;
    return bpf_ringbuf_output(&ringbuf_map, scratch->bytes, length, BPF_RB_FORCE_WAKEUP);
}
