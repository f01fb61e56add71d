/* RSS records: whose counter changed, and how often to say so.
 *
 * rss_stat names the mm by an opaque id (a hash of its address, so a freed mm's id comes back with the
 * next mm allocated at that address). Events for the current task's mm give its owner directly; the
 * others (reclaim, the copy of a parent's pages into a new child's mm) are resolved through the owners
 * learned from the former. An id never seen with its owner is dropped: its counter's absolute value
 * arrives with the owner's next own event. An owner's id is forgotten when its process ends or takes
 * another mm (exec), so that a new mm at the same address is not taken for the old owner's.
 *
 * Counters change by the page, and a fork storm makes a hundred changes per short-lived child. The
 * service only needs each counter's latest value within a short delay, so a process's own changes are
 * held in a slot per CPU, the latest value of each counter, and written when the CPU switches tasks,
 * when another process's change takes the slot, or with a change KOVA_RSS_HOLD_NS after the first one
 * held. Tracepoint programs never nest on a CPU, so the slot needs no lock. A process that ends drops
 * what its CPU holds: its exit record follows. Changes are held only while sched_switch is known to run
 * (see kova_ringbuf.bpf.h), and the ones made from another task's context are written at once.
 *
 * Needs kova_ringbuf.bpf.h with KOVA_BATCHED_WAKEUPS and kova_task.bpf.h. */
#ifndef KOVA_RSS_BPF_H
#define KOVA_RSS_BPF_H

#define KOVA_RSS_HOLD_NS 10000000ull /* 10 ms */
#define KOVA_RSS_MEMBERS 4

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, 16384);
    __type(key, __u32);   /* mm_id */
    __type(value, __s32); /* tgid of the mm's owner */
} rss_mm_owner_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, 16384);
    __type(key, __s32);   /* tgid */
    __type(value, __u32); /* mm_id of its mm, as last learned */
} rss_owner_mm_map SEC(".maps");

struct kova_rss_slot {
    __s32 pid;      /* the owner of the held values */
    __u32 held;     /* a bit per counter whose latest value in size[] is not written yet */
    __u64 since_ns; /* the first change held */
    __s64 size[KOVA_RSS_MEMBERS];
};

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct kova_rss_slot);
} rss_held SEC(".maps");

static __always_inline struct kova_rss_slot *kova_rss_slot(void) {
    __u32 key = 0;
    return bpf_map_lookup_elem(&rss_held, &key);
}

/* The process that owns `task`'s mm: mm->owner where the kernel keeps it (memory cgroups), so that a
 * vfork child or a kernel thread working on a process's mm is not taken for its owner. */
static __always_inline __s32 kova_mm_owner(struct task_struct *task) {
    if (bpf_core_field_exists(((struct mm_struct *)0)->owner)) {
        struct task_struct *owner = BPF_CORE_READ(task, mm, owner);
        if (owner) return (__s32)kova_tgid_of(owner);
    }
    return (__s32)kova_tgid_of(task);
}

/* Notes that `mm_id` belongs to `owner`, forgetting the id the owner had before. */
static __always_inline void kova_learn_mm_owner(__u32 mm_id, __s32 owner) {
    __s32 *known = bpf_map_lookup_elem(&rss_mm_owner_map, &mm_id);
    if (known && *known == owner) return;
    __u32 *previous = bpf_map_lookup_elem(&rss_owner_mm_map, &owner);
    if (previous && *previous != mm_id) {
        const __u32 old_id = *previous;
        __s32 *old_owner = bpf_map_lookup_elem(&rss_mm_owner_map, &old_id);
        if (old_owner && *old_owner == owner) bpf_map_delete_elem(&rss_mm_owner_map, &old_id);
    }
    bpf_map_update_elem(&rss_mm_owner_map, &mm_id, &owner, BPF_ANY);
    bpf_map_update_elem(&rss_owner_mm_map, &owner, &mm_id, BPF_ANY);
}

static __always_inline void kova_write_rss(__s32 pid, __s32 member, __s64 size, __u64 now) {
    struct kova_rss_record *record = kova_reserve(sizeof(*record));
    if (!record) return;
    record->type = KOVA_RAW_RSS;
    record->pad = 0;
    record->timestamp_ns = now;
    record->pid = pid;
    record->member = member;
    record->size = size;
    kova_submit(record, now);
}

/* Writes what `slot` holds and empties it. */
static __always_inline void kova_write_held_rss(struct kova_rss_slot *slot, __u64 now) {
    for (__s32 member = 0; member < KOVA_RSS_MEMBERS; ++member) {
        if (slot->held & (1u << member)) kova_write_rss(slot->pid, member, slot->size[member], now);
    }
    slot->held = 0;
}

/* A change of `owner`'s counter `member` to `size` bytes, made by the owner itself when `own`. */
static __always_inline void kova_rss_changed(__s32 owner, __s32 member, __s64 size, bool own) {
    const __u64 now = bpf_ktime_get_ns();
    struct kova_wakeup_state *wakeup = kova_wakeup_state();
    struct kova_rss_slot *slot = kova_rss_slot();
    if (!own || !slot || !wakeup || now - wakeup->flusher_seen_ns > KOVA_FLUSHER_STALE_NS || member < 0 ||
        member >= KOVA_RSS_MEMBERS) {
        kova_write_rss(owner, member, size, now);
        return;
    }
    if (slot->held && slot->pid != owner) kova_write_held_rss(slot, now);
    if (!slot->held) {
        slot->pid = owner;
        slot->since_ns = now;
    }
    slot->size[member & (KOVA_RSS_MEMBERS - 1)] = size;
    slot->held |= 1u << member;
    if (now - slot->since_ns >= KOVA_RSS_HOLD_NS) kova_write_held_rss(slot, now);
}

/* Called from sched_switch: the task leaving the CPU may leave no held value behind. */
static __always_inline void kova_write_held_rss_on_switch(void) {
    struct kova_rss_slot *slot = kova_rss_slot();
    if (!slot || !slot->held) return;
    if (kova_flowing(KOVA_STATUS_NORMAL)) {
        kova_write_held_rss(slot, bpf_ktime_get_ns());
    } else {
        slot->held = 0;
    }
}

/* Called when the last thread of process `tgid` exits: forgets its mm and what its CPU holds. */
static __always_inline void kova_rss_owner_ended(__s32 tgid) {
    struct kova_rss_slot *slot = kova_rss_slot();
    if (slot && slot->pid == tgid) slot->held = 0;
    __u32 *mm_id = bpf_map_lookup_elem(&rss_owner_mm_map, &tgid);
    if (!mm_id) return;
    const __u32 id = *mm_id;
    __s32 *owner = bpf_map_lookup_elem(&rss_mm_owner_map, &id);
    if (owner && *owner == tgid) bpf_map_delete_elem(&rss_mm_owner_map, &id);
    bpf_map_delete_elem(&rss_owner_mm_map, &tgid);
}

#endif /* KOVA_RSS_BPF_H */
