/* KovaBpfTimeInState: CPU time per frequency, per CPU, process and thread, kept in maps that the
 * service seeds (CPU to policy, frequency to index, current index per policy) and reads on request.
 *
 *   sched_sched_switch   charges the time since the CPU's last switch (kova_time_in_state.bpf.h)
 *   power_cpu_frequency  moves its policy's current frequency index
 *
 * Nothing here writes a ring buffer: the service reads the maps when a client asks for a report.
 */
#include "vmlinux.h"

#include <bpf/bpf_helpers.h>

#include "kova_time_in_state.bpf.h"

char LICENSE[] SEC("license") = "Dual BSD/GPL";

SEC("tracepoint/sched/sched_switch")
int sched_sched_switch(struct trace_event_raw_sched_switch *ctx) {
    /* The tracepoint fires before the switch, so the current task is still the outgoing one. Its name
     * is taken from the event, which is cheaper than fetching it again, in two loads at fixed offsets:
     * the verifier allows the context no other reads. */
    const __u64 pid_tgid = bpf_get_current_pid_tgid();
    __u64 comm[KOVA_COMM_LEN / 8];
    comm[0] = *(const __u64 *)&ctx->prev_comm[0];
    comm[1] = *(const __u64 *)&ctx->prev_comm[8];
    kova_tis_on_switch(bpf_get_smp_processor_id(), bpf_ktime_get_ns(), (__u32)pid_tgid, pid_tgid >> 32,
                       (const char *)comm);
    return 0;
}

SEC("tracepoint/power/cpu_frequency")
int power_cpu_frequency(struct trace_event_raw_cpu *ctx) {
    kova_tis_on_frequency(ctx->state, ctx->cpu_id);
    return 0;
}
