/* Test tooling: the body of KovaBpfTimeInState's power_cpu_frequency in a raw tracepoint program, which
 * the kernel can test-run (a tracepoint program cannot), so that a test can change a policy's frequency
 * on a machine whose cpufreq never does. The test points every map at the real object's pins
 * (bpf_map__reuse_fd before load) and runs the program with the tracepoint's own arguments:
 * ctx[0] the new frequency in kHz, ctx[1] the CPU.
 */
#include "vmlinux.h"

#include <bpf/bpf_helpers.h>

#include "kova_time_in_state.bpf.h"

char LICENSE[] SEC("license") = "Dual BSD/GPL";

SEC("raw_tp/cpu_frequency")
int kova_tis_cpu_frequency(__u64 *ctx) {
    kova_tis_on_frequency((__u32)ctx[0], (__u32)ctx[1]);
    return 0;
}
