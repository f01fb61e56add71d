/* Test tooling: KovaBpfGplDefineset's dmabuf accounting in raw tracepoint programs, which the kernel
 * can test-run, so that a test can export, map and release buffers on a kernel without kprobes or a
 * dmabuf exporter. The test points every map at the real object's pins (bpf_map__reuse_fd before
 * load) and runs a program with its arguments in ctx: (tgid, inode, size) for export and mapping,
 * (inode, size) for release.
 */
#include "vmlinux.h"

#include <bpf/bpf_helpers.h>

#define KOVA_OBJECT_RINGBUF_SIZE KOVA_GPL_RINGBUF_SIZE
#include "kova_bpf_records.h"
#include "kova_ringbuf.bpf.h"
#include "kova_dmabuf.bpf.h"

char LICENSE[] SEC("license") = "GPL";

SEC("raw_tp/kova_dmabuf_export")
int kova_test_dmabuf_export(__u64 *ctx) {
    kova_dmabuf_exported((__u32)ctx[0], ctx[1], ctx[2]);
    return 0;
}

SEC("raw_tp/kova_dmabuf_mmap")
int kova_test_dmabuf_mmap(__u64 *ctx) {
    kova_dmabuf_mapped((__u32)ctx[0], ctx[1], ctx[2]);
    return 0;
}

SEC("raw_tp/kova_dmabuf_release")
int kova_test_dmabuf_release(__u64 *ctx) {
    kova_dmabuf_released(ctx[0], ctx[1]);
    return 0;
}
