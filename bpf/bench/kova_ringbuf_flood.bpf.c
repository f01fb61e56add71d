/* Benchmark tooling: writes records into a ring buffer as fast as the kernel can, each stamped with
 * bpf_ktime_get_ns() and a sequence number, so that a reader can measure rate, loss and latency.
 *
 * The benchmark replaces `ringbuf_map` with the ring buffer to fill (bpf_map__reuse_fd before load) and
 * runs the program with bpf_prog_test_run_opts, passing a kova_flood_request as ctx_in. Records are
 * committed without waking the consumer, except the last of each run, which forces one wake-up: the
 * batching that the service's own programs do while records come fast. The writer's cost per record
 * then does not depend on how quickly the consumer keeps up, so two consumers can be compared. A record
 * that finds the ring full is not retried.
 *
 * Result: the number of records written, also stored in the request's `written`.
 */
#include "vmlinux.h"

#include <bpf/bpf_helpers.h>

#include "kova_flood_request.h"

char LICENSE[] SEC("license") = "GPL";

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, 4096);
} ringbuf_map SEC(".maps");

struct flood_state {
    __u32 type;
    __u32 written;
    __u64 first_sequence;
    __u64 last_index;
};

static long write_one(__u64 index, void *context) {
    struct flood_state *state = context;
    struct kova_flood_record record = {};
    record.type = state->type;
    record.sequence = state->first_sequence + index;
    record.timestamp_ns = bpf_ktime_get_ns();
    const __u64 flags = index == state->last_index ? BPF_RB_FORCE_WAKEUP : BPF_RB_NO_WAKEUP;
    if (bpf_ringbuf_output(&ringbuf_map, &record, sizeof(record), flags) == 0) state->written++;
    return 0;
}

SEC("syscall")
int kova_ringbuf_flood(struct kova_flood_request *request) {
    struct flood_state state = {};
    state.type = request->type;
    state.first_sequence = request->first_sequence;
    state.last_index = request->count - 1;
    bpf_loop(request->count, write_one, &state, 0);
    request->written = state.written;
    return state.written;
}
