/* The ring buffer and status map that each object owns, and the helpers every program uses to write a
 * record: the status-word gate, the full bit on a failed reserve, and keys 1 to 4 kept current.
 *
 * The including object defines KOVA_OBJECT_RINGBUF_SIZE first. An object that defines
 * KOVA_BATCHED_WAKEUPS also gets the bounded wake-up batching described below; its sched_switch
 * program must call kova_wakeup_tick().
 */
#ifndef KOVA_RINGBUF_BPF_H
#define KOVA_RINGBUF_BPF_H

#include "vmlinux.h"

#include <bpf/bpf_helpers.h>

#include "kova_bpf_records.h"

#ifndef KOVA_OBJECT_RINGBUF_SIZE
#error "define KOVA_OBJECT_RINGBUF_SIZE before including kova_ringbuf.bpf.h"
#endif

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, KOVA_OBJECT_RINGBUF_SIZE);
} ringbuf_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, KOVA_STATUS_KEY_COUNT);
    __type(key, __u32);
    __type(value, __u64);
} ringbuf_status SEC(".maps");

static __always_inline __u64 *kova_status_slot(__u32 key) {
    return bpf_map_lookup_elem(&ringbuf_status, &key);
}

/* True when the service has set `bit` (KOVA_STATUS_CORE or KOVA_STATUS_NORMAL) in the status word. */
static __always_inline bool kova_flowing(__u64 bit) {
    __u64 *word = kova_status_slot(KOVA_STATUS_WORD);
    return word && (*word & bit);
}

/* Copies the ring buffer's own figures into keys 1 to 4. */
static __always_inline void kova_refresh_status(void) {
    __u64 *slot;
    if ((slot = kova_status_slot(KOVA_STATUS_AVAIL_DATA))) *slot = bpf_ringbuf_query(&ringbuf_map, BPF_RB_AVAIL_DATA);
    if ((slot = kova_status_slot(KOVA_STATUS_RING_SIZE))) *slot = bpf_ringbuf_query(&ringbuf_map, BPF_RB_RING_SIZE);
    if ((slot = kova_status_slot(KOVA_STATUS_CONS_POS))) *slot = bpf_ringbuf_query(&ringbuf_map, BPF_RB_CONS_POS);
    if ((slot = kova_status_slot(KOVA_STATUS_PROD_POS))) *slot = bpf_ringbuf_query(&ringbuf_map, BPF_RB_PROD_POS);
}

/* A record was lost: set the full bit. The OR is atomic because the service rewrites bits 1 and 2 of
 * the same word at any time; a plain read-modify-write here could undo an enable. */
static __always_inline void kova_mark_full(void) {
    __u64 *word = kova_status_slot(KOVA_STATUS_WORD);
    if (word && !(*word & KOVA_STATUS_FULL)) __sync_fetch_and_or(word, KOVA_STATUS_FULL);
    kova_refresh_status();
}

/* Reserves `size` bytes for a record; on failure marks the ring full and returns NULL. */
static __always_inline void *kova_reserve(__u64 size) {
    void *record = bpf_ringbuf_reserve(&ringbuf_map, size, 0);
    if (!record) kova_mark_full();
    return record;
}

#ifdef KOVA_BATCHED_WAKEUPS
/* Bounded wake-up batching.
 *
 * Waking the consumer for every record costs the writing task about a third of its fork rate in a
 * storm, and the consumer a wake-up per record. So while records come fast, a writer commits without a
 * wake-up when the consumer was woken less than KOVA_WAKEUP_DELAY_NS ago. The delay stays bounded
 * because the sched_switch program (kova_wakeup_tick) wakes the consumer for records left waiting
 * longer than that: context switches happen on every CPU many times a second, and the writer of a
 * record (a forking parent, an exiting task) switches out soon after writing it.
 *
 * Batching is only used while sched_switch is known to run: it stamps flusher_seen_ns, and without a
 * stamp in the last KOVA_FLUSHER_STALE_NS writers wake the consumer as libbpf would by default. */
#define KOVA_WAKEUP_DELAY_NS 1000000ull     /* 1 ms */
#define KOVA_FLUSH_PERIOD_NS 500000ull      /* how often sched_switch looks (rate limit) */
#define KOVA_FLUSHER_STALE_NS 20000000ull   /* 20 ms */
#define KOVA_URGENT_GAP_NS 500000ull        /* 0.5 ms */

struct kova_wakeup_state {
    __u64 last_wakeup_ns;   /* last forced wake-up of the consumer */
    __u64 flusher_seen_ns;  /* last time sched_switch looked at the ring */
    __u64 last_urgent_ns;   /* last wake-up for an urgent record */
};

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct kova_wakeup_state);
} ringbuf_wakeup SEC(".maps");

static __always_inline struct kova_wakeup_state *kova_wakeup_state(void) {
    __u32 key = 0;
    return bpf_map_lookup_elem(&ringbuf_wakeup, &key);
}

static __always_inline __u64 kova_submit_flags(__u64 now) {
    struct kova_wakeup_state *state = kova_wakeup_state();
    if (!state || now - state->flusher_seen_ns > KOVA_FLUSHER_STALE_NS) return 0;
    if (now - state->last_wakeup_ns < KOVA_WAKEUP_DELAY_NS) return BPF_RB_NO_WAKEUP;
    state->last_wakeup_ns = now;
    return BPF_RB_FORCE_WAKEUP;
}

/* Called from sched_switch: refreshes keys 1 to 4 (so they follow the consumer even when nothing is
 * written) and wakes the consumer for records that waited longer than the delay. A wake-up without a
 * record is a discarded reservation committed with BPF_RB_FORCE_WAKEUP; the consumer skips it. */
static __always_inline void kova_wakeup_tick(void) {
    struct kova_wakeup_state *state = kova_wakeup_state();
    if (!state) return;
    __u64 now = bpf_ktime_get_ns();
    if (now - state->flusher_seen_ns < KOVA_FLUSH_PERIOD_NS) return;
    state->flusher_seen_ns = now;
    kova_refresh_status();
    if (bpf_ringbuf_query(&ringbuf_map, BPF_RB_AVAIL_DATA) == 0) return;
    if (now - state->last_wakeup_ns < KOVA_WAKEUP_DELAY_NS) return;
    state->last_wakeup_ns = now;
    void *nudge = bpf_ringbuf_reserve(&ringbuf_map, 8, 0);
    if (nudge) bpf_ringbuf_discard(nudge, BPF_RB_FORCE_WAKEUP);
}
#else
static __always_inline __u64 kova_submit_flags(__u64 now) { return 0; }
#endif

/* Commits a reserved record written at `now` and refreshes keys 1 to 4. */
static __always_inline void kova_submit(void *record, __u64 now) {
    bpf_ringbuf_submit(record, kova_submit_flags(now));
    kova_refresh_status();
}

/* Commits a record that a client waits for (a process born or ended) and wakes the consumer at once, as
 * the kernel's process-event connector wakes its listener; batching would hold it until a context
 * switch after the delay, milliseconds on an idle machine. The batching's clock restarts, so that the
 * records right behind it do not wake the consumer again. In a storm, where such records come faster
 * than one per KOVA_URGENT_GAP_NS, the ones within the gap are batched: a wake-up per record would
 * cost the consumer more than the kernel's connector costs its listener per message. */
static __always_inline void kova_submit_urgent(void *record, __u64 now) {
    __u64 flags = BPF_RB_FORCE_WAKEUP;
#ifdef KOVA_BATCHED_WAKEUPS
    struct kova_wakeup_state *state = kova_wakeup_state();
    if (state && now - state->last_urgent_ns < KOVA_URGENT_GAP_NS &&
        now - state->flusher_seen_ns <= KOVA_FLUSHER_STALE_NS) {
        flags = BPF_RB_NO_WAKEUP;
    } else if (state) {
        state->last_wakeup_ns = now;
        state->last_urgent_ns = now;
    }
#endif
    bpf_ringbuf_submit(record, flags);
    kova_refresh_status();
}

/* Copies the comm of `task` (CO-RE) into `dst`. */
#define KOVA_READ_COMM(dst, task) bpf_probe_read_kernel_str((dst), KOVA_COMM_LEN, &(task)->comm)

#endif /* KOVA_RINGBUF_BPF_H */
