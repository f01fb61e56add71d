/* Test tooling: KovaBpfDefineset's fd_install body where a test can attach it on a kernel without
 * kprobes. fentry on fd_install is the closest, but this kernel refuses fentry programs (EPERM at
 * load), so the body runs at the exit of dup(), which has just installed the new descriptor in the
 * calling process: the same task, the same descriptor table. The test points every map at the real
 * object's pins (bpf_map__reuse_fd before load), so the counts and records land where the service
 * reads them.
 */
#include "vmlinux.h"

#include <bpf/bpf_helpers.h>

#define KOVA_OBJECT_RINGBUF_SIZE KOVA_RINGBUF_SIZE
#define KOVA_BATCHED_WAKEUPS
#include "kova_bpf_records.h"
#include "kova_ringbuf.bpf.h"
#include "kova_fd.bpf.h"

char LICENSE[] SEC("license") = "Dual BSD/GPL";

SEC("tracepoint/syscalls/sys_exit_dup")
int kova_test_fd_installed(void *ctx) {
    kova_fd_installed();
    return 0;
}
