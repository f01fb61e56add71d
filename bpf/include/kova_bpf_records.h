/* Every record that crosses the boundary between the kernel-side programs (bpf/) and the service:
 * raw ring-buffer records, the status map's keys and bits, and the elements of the maps the service
 * seeds. One definition, included by the BPF C (clang, BPF target) and by the C++ (g++, C++20).
 *
 * Rules for everything in this file:
 *   - fixed-width fields only, little-endian as the kernel writes them;
 *   - no hidden padding: fields are naturally aligned and every gap is an explicit `pad` field;
 *   - packed, with 8-byte record alignment so that the BPF side still emits aligned stores;
 *   - a static assertion on every size and every field offset, checked by both compilers.
 * A record is read on the service side by copying the delivered bytes into the struct after checking
 * the delivered length against the struct's size.
 *
 * Time stamps are nanoseconds of CLOCK_MONOTONIC (bpf_ktime_get_ns), the clock of the service's
 * GetSystemBootNanosencondsTime(), so a kernel time stamp and a service time stamp can be subtracted.
 *
 * The BPF C includes vmlinux.h (which defines __u32 and friends) before this header; the C++ gets the
 * same types from <linux/types.h>.
 */
#ifndef KOVA_BPF_RECORDS_H
#define KOVA_BPF_RECORDS_H

#if defined(__bpf__)
#ifndef __VMLINUX_H__
#error "include vmlinux.h before kova_bpf_records.h"
#endif
#else
#include <linux/types.h>
#endif

#if defined(__cplusplus)
#define KOVA_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define KOVA_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

#define KOVA_RECORD __attribute__((packed, aligned(8)))
#define KOVA_OFFSET(type, field) __builtin_offsetof(type, field)
#define KOVA_CHECK_SIZE(type, size) KOVA_STATIC_ASSERT(sizeof(type) == (size), #type " size")
#define KOVA_CHECK_OFFSET(type, field, offset) \
    KOVA_STATIC_ASSERT(KOVA_OFFSET(type, field) == (offset), #type "." #field " offset")

#define KOVA_COMM_LEN 16

/* ---------------------------------------------------------------------------------------------------
 * Ring buffers
 * ------------------------------------------------------------------------------------------------- */

/* Size of the normal object's ring buffer (fork, exit and RSS records, fd updates). The window it must
 * cover is the service's start-up scan of /proc, during which the consumer does not poll but fork and
 * exit records already flow: a /proc scan of about a thousand processes takes one to two seconds, and a
 * fork storm here produces about 24k forks and as many exits a second, 48 bytes and 40 bytes each plus
 * an 8-byte header, i.e. about 2.5 MB a second. 4 MiB holds more than 1.5 s of that worst case, and
 * also absorbs the RSS burst of a large process start (one 40-byte record per page fault) while the
 * consumer is descheduled. Must be a power of two and a multiple of the page size. */
#define KOVA_RINGBUF_SIZE (4u * 1024u * 1024u)

/* Size of the GPL object's ring buffer: cgroup moves and dmabuf changes are rare (tens a second
 * at an app switch), so 256 KiB holds thousands of them. */
#define KOVA_GPL_RINGBUF_SIZE (256u * 1024u)

/* Keys of a "ringbuf_status" map (u32 key, u64 value). Keys 1 to 4 mirror the ring buffer's own
 * figures (bpf_ringbuf_query) and are refreshed by the programs; key 0 is the status word. */
enum kova_ringbuf_status_key {
    KOVA_STATUS_WORD = 0,
    KOVA_STATUS_AVAIL_DATA = 1,
    KOVA_STATUS_RING_SIZE = 2,
    KOVA_STATUS_CONS_POS = 3,
    KOVA_STATUS_PROD_POS = 4,
    KOVA_STATUS_KEY_COUNT = 5,
};

/* Bits of the status word.
 * FULL:   a program failed to reserve ring-buffer space (a record was lost); the service reports and
 *         clears it.
 * CORE:   set by the service once its consumer exists, before its start-up scan of /proc. Core records
 *         flow from then on: fork and exit records, which keep the task table complete. A process that
 *         starts or ends while the scan runs is seen by the scan, by the record, or by both (the
 *         handlers tolerate both), never by neither.
 * NORMAL: set by the service after its start-up scan. Normal records (RSS, fd, cgroup, dmabuf) only
 *         update tasks that the table already holds, and they are the bulk of the traffic; during the
 *         scan the consumer does not poll, so letting them in would fill the ring and cost core
 *         records. */
#define KOVA_STATUS_FULL (1ull << 0)
#define KOVA_STATUS_CORE (1ull << 1)
#define KOVA_STATUS_NORMAL (1ull << 2)

/* Raw record types: the first four bytes of every record. */
enum kova_raw_event_type {
    KOVA_RAW_TASK_INIT = 0,      /* built by the service from /proc, same family */
    KOVA_RAW_RSS = 1,
    KOVA_RAW_TASK_CREATE = 2,
    KOVA_RAW_TASK_EXIT = 3,
    KOVA_RAW_DMABUF_SIZE = 4,
    KOVA_RAW_CGROUP_ATTACH = 5,
    KOVA_RAW_FD_UPDATE = 6,
    KOVA_RAW_DMABUF_UPDATE = 7,
};

/* Kinds of the fork and exit records. */
#define KOVA_TASK_KIND_PROCESS 1u
#define KOVA_TASK_KIND_THREAD 2u

/* Type 0: the state of one process as the start-up scan found it. 88 bytes. */
struct KOVA_RECORD kova_task_init_record {
    __u32 type;
    __u32 pad;
    __u64 timestamp_ns;
    __s32 pid;
    __s32 ppid;
    __u32 uid;
    __s32 thread_count;
    char comm[KOVA_COMM_LEN];
    __u64 rss_file_bytes;
    __u64 rss_anon_bytes;
    __u64 rss_shmem_bytes;
    __u64 swap_bytes;
    __u64 start_time_s; /* seconds since the epoch */
};
KOVA_CHECK_SIZE(struct kova_task_init_record, 88);
KOVA_CHECK_OFFSET(struct kova_task_init_record, type, 0);
KOVA_CHECK_OFFSET(struct kova_task_init_record, pad, 4);
KOVA_CHECK_OFFSET(struct kova_task_init_record, timestamp_ns, 8);
KOVA_CHECK_OFFSET(struct kova_task_init_record, pid, 16);
KOVA_CHECK_OFFSET(struct kova_task_init_record, ppid, 20);
KOVA_CHECK_OFFSET(struct kova_task_init_record, uid, 24);
KOVA_CHECK_OFFSET(struct kova_task_init_record, thread_count, 28);
KOVA_CHECK_OFFSET(struct kova_task_init_record, comm, 32);
KOVA_CHECK_OFFSET(struct kova_task_init_record, rss_file_bytes, 48);
KOVA_CHECK_OFFSET(struct kova_task_init_record, rss_anon_bytes, 56);
KOVA_CHECK_OFFSET(struct kova_task_init_record, rss_shmem_bytes, 64);
KOVA_CHECK_OFFSET(struct kova_task_init_record, swap_bytes, 72);
KOVA_CHECK_OFFSET(struct kova_task_init_record, start_time_s, 80);

/* RSS counter members, as the kernel numbers them. */
#define KOVA_RSS_FILE 0
#define KOVA_RSS_ANON 1
#define KOVA_RSS_SWAP 2
#define KOVA_RSS_SHMEM 3

/* Type 1: one RSS counter of one process changed. 32 bytes. */
struct KOVA_RECORD kova_rss_record {
    __u32 type;
    __u32 pad;
    __u64 timestamp_ns;
    __s32 pid;     /* the process that owns the mm */
    __s32 member;  /* KOVA_RSS_* */
    __s64 size;    /* new value of the counter, bytes */
};
KOVA_CHECK_SIZE(struct kova_rss_record, 32);
KOVA_CHECK_OFFSET(struct kova_rss_record, type, 0);
KOVA_CHECK_OFFSET(struct kova_rss_record, pad, 4);
KOVA_CHECK_OFFSET(struct kova_rss_record, timestamp_ns, 8);
KOVA_CHECK_OFFSET(struct kova_rss_record, pid, 16);
KOVA_CHECK_OFFSET(struct kova_rss_record, member, 20);
KOVA_CHECK_OFFSET(struct kova_rss_record, size, 24);

/* Type 2: a process or a thread was created. 48 bytes. */
struct KOVA_RECORD kova_task_create_record {
    __u32 type;
    __u32 pad;
    __u64 timestamp_ns;
    __s32 ppid;  /* parent process; 0 when the kernel side could not tell */
    __s32 pid;   /* the new process, or for a new thread the process it belongs to */
    __u32 uid;
    char comm[KOVA_COMM_LEN];
    __u32 kind;  /* KOVA_TASK_KIND_* */
};
KOVA_CHECK_SIZE(struct kova_task_create_record, 48);
KOVA_CHECK_OFFSET(struct kova_task_create_record, type, 0);
KOVA_CHECK_OFFSET(struct kova_task_create_record, pad, 4);
KOVA_CHECK_OFFSET(struct kova_task_create_record, timestamp_ns, 8);
KOVA_CHECK_OFFSET(struct kova_task_create_record, ppid, 16);
KOVA_CHECK_OFFSET(struct kova_task_create_record, pid, 20);
KOVA_CHECK_OFFSET(struct kova_task_create_record, uid, 24);
KOVA_CHECK_OFFSET(struct kova_task_create_record, comm, 28);
KOVA_CHECK_OFFSET(struct kova_task_create_record, kind, 44);

/* Type 3: a process or a thread ended. 40 bytes. */
struct KOVA_RECORD kova_task_exit_record {
    __u32 type;
    __u32 pad;
    __u64 timestamp_ns;
    __s32 pid;   /* the process, also for a thread */
    char comm[KOVA_COMM_LEN];  /* the process's name (its leader's comm) */
    __u32 kind;  /* KOVA_TASK_KIND_* */
};
KOVA_CHECK_SIZE(struct kova_task_exit_record, 40);
KOVA_CHECK_OFFSET(struct kova_task_exit_record, type, 0);
KOVA_CHECK_OFFSET(struct kova_task_exit_record, pad, 4);
KOVA_CHECK_OFFSET(struct kova_task_exit_record, timestamp_ns, 8);
KOVA_CHECK_OFFSET(struct kova_task_exit_record, pid, 16);
KOVA_CHECK_OFFSET(struct kova_task_exit_record, comm, 20);
KOVA_CHECK_OFFSET(struct kova_task_exit_record, kind, 36);

/* Type 4: the dmabuf bytes a process holds moved by at least KOVA_DMABUF_REPORT_BYTES since the last
 * report. 40 bytes. */
struct KOVA_RECORD kova_dmabuf_size_record {
    __u32 type;
    __u32 pad;
    __u64 timestamp_ns;
    __s32 pid;
    __u32 buffers;          /* buffers held now */
    __u64 bytes;            /* bytes held now */
    __u64 reported_bytes;   /* bytes at the previous report */
};
KOVA_CHECK_SIZE(struct kova_dmabuf_size_record, 40);
KOVA_CHECK_OFFSET(struct kova_dmabuf_size_record, type, 0);
KOVA_CHECK_OFFSET(struct kova_dmabuf_size_record, pad, 4);
KOVA_CHECK_OFFSET(struct kova_dmabuf_size_record, timestamp_ns, 8);
KOVA_CHECK_OFFSET(struct kova_dmabuf_size_record, pid, 16);
KOVA_CHECK_OFFSET(struct kova_dmabuf_size_record, buffers, 20);
KOVA_CHECK_OFFSET(struct kova_dmabuf_size_record, bytes, 24);
KOVA_CHECK_OFFSET(struct kova_dmabuf_size_record, reported_bytes, 32);

#define KOVA_DMABUF_REPORT_BYTES (1ull << 20)

/* Type 5: a task was moved into a cgroup (on a device: into a cpuset such as "/top-app" or
 * "/background", hence the counter name "cgroup_attach_cpuset_info"). 184 bytes. */
#define KOVA_CGROUP_PATH_LEN 128
struct KOVA_RECORD kova_cgroup_attach_record {
    __u32 type;
    __u32 pad;
    __u64 timestamp_ns;
    __u64 dst_id;       /* the destination cgroup's id (its kernfs node id) */
    __s32 pid;          /* the task moved: a thread id */
    __s32 caller_pid;   /* the process that moved it */
    __s32 dst_root;     /* hierarchy id of the destination */
    __s32 dst_level;    /* depth of the destination, 0 for the root */
    char comm[KOVA_COMM_LEN];              /* the moved task's comm */
    char dst_path[KOVA_CGROUP_PATH_LEN];   /* destination path in its hierarchy, NUL-terminated,
                                              truncated when longer */
};
KOVA_CHECK_SIZE(struct kova_cgroup_attach_record, 184);
KOVA_CHECK_OFFSET(struct kova_cgroup_attach_record, type, 0);
KOVA_CHECK_OFFSET(struct kova_cgroup_attach_record, pad, 4);
KOVA_CHECK_OFFSET(struct kova_cgroup_attach_record, timestamp_ns, 8);
KOVA_CHECK_OFFSET(struct kova_cgroup_attach_record, dst_id, 16);
KOVA_CHECK_OFFSET(struct kova_cgroup_attach_record, pid, 24);
KOVA_CHECK_OFFSET(struct kova_cgroup_attach_record, caller_pid, 28);
KOVA_CHECK_OFFSET(struct kova_cgroup_attach_record, dst_root, 32);
KOVA_CHECK_OFFSET(struct kova_cgroup_attach_record, dst_level, 36);
KOVA_CHECK_OFFSET(struct kova_cgroup_attach_record, comm, 40);
KOVA_CHECK_OFFSET(struct kova_cgroup_attach_record, dst_path, 56);

/* Type 6: the number of descriptors a process holds open moved by at least KOVA_FD_REPORT_STEP since
 * the last report. 56 bytes. */
struct KOVA_RECORD kova_fd_update_record {
    __u32 type;
    __u32 pad;
    __u64 timestamp_ns;
    __s32 pid;
    __u32 pad2;
    __s64 open_fds;       /* now */
    __s64 reported_fds;   /* at the previous report */
    char comm[KOVA_COMM_LEN];
};
KOVA_CHECK_SIZE(struct kova_fd_update_record, 56);
KOVA_CHECK_OFFSET(struct kova_fd_update_record, type, 0);
KOVA_CHECK_OFFSET(struct kova_fd_update_record, pad, 4);
KOVA_CHECK_OFFSET(struct kova_fd_update_record, timestamp_ns, 8);
KOVA_CHECK_OFFSET(struct kova_fd_update_record, pid, 16);
KOVA_CHECK_OFFSET(struct kova_fd_update_record, pad2, 20);
KOVA_CHECK_OFFSET(struct kova_fd_update_record, open_fds, 24);
KOVA_CHECK_OFFSET(struct kova_fd_update_record, reported_fds, 32);
KOVA_CHECK_OFFSET(struct kova_fd_update_record, comm, 40);

#define KOVA_FD_REPORT_STEP 64

/* Type 7: one dmabuf changed hands or state. 40 bytes. */
enum kova_dmabuf_op {
    KOVA_DMABUF_OP_EXPORT = 1,   /* allocated; pid is the allocating process */
    KOVA_DMABUF_OP_RELEASE = 2,  /* its last file reference went away; pid is its exporter, or for a
                                    buffer older than the programs a process that held it (0: none) */
    KOVA_DMABUF_OP_ATTACH = 3,   /* a device attached to it */
    KOVA_DMABUF_OP_VMAP = 4,     /* mapped into kernel address space */
    KOVA_DMABUF_OP_MMAP = 5,     /* mapped into a process; pid is that process */
};
struct KOVA_RECORD kova_dmabuf_update_record {
    __u32 type;
    __u32 pad;
    __u64 timestamp_ns;
    __s32 pid;
    __u32 op;      /* kova_dmabuf_op */
    __u64 inode;   /* the buffer's inode number */
    __u64 size;    /* bytes */
};
KOVA_CHECK_SIZE(struct kova_dmabuf_update_record, 40);
KOVA_CHECK_OFFSET(struct kova_dmabuf_update_record, type, 0);
KOVA_CHECK_OFFSET(struct kova_dmabuf_update_record, pad, 4);
KOVA_CHECK_OFFSET(struct kova_dmabuf_update_record, timestamp_ns, 8);
KOVA_CHECK_OFFSET(struct kova_dmabuf_update_record, pid, 16);
KOVA_CHECK_OFFSET(struct kova_dmabuf_update_record, op, 20);
KOVA_CHECK_OFFSET(struct kova_dmabuf_update_record, inode, 24);
KOVA_CHECK_OFFSET(struct kova_dmabuf_update_record, size, 32);

/* ---------------------------------------------------------------------------------------------------
 * Elements of the maps that the service seeds at start-up
 * ------------------------------------------------------------------------------------------------- */

/* "open_fd_caller_map" (normal object): key __u32 pid (a process), value below. Written from /proc by
 * the service's fd seeding (on an operator's request: kovabpf-loader --seed-fd-counts) and kept by the
 * fd_install probe, which counts the bits of the process's open-descriptor bitmap, i.e. the entries
 * of /proc/<pid>/fd; the process-exit program deletes it. */
struct KOVA_RECORD kova_open_fd_caller {
    __u32 pid;
    __u32 pad;
    __s64 open_fds;        /* descriptors open now */
    __s64 reported_fds;    /* descriptors open at the last report (the start-up value at first) */
    __u64 last_report_ns;  /* time of the last report; 0 before the first */
    char comm[KOVA_COMM_LEN];
};
KOVA_CHECK_SIZE(struct kova_open_fd_caller, 48);
KOVA_CHECK_OFFSET(struct kova_open_fd_caller, pid, 0);
KOVA_CHECK_OFFSET(struct kova_open_fd_caller, pad, 4);
KOVA_CHECK_OFFSET(struct kova_open_fd_caller, open_fds, 8);
KOVA_CHECK_OFFSET(struct kova_open_fd_caller, reported_fds, 16);
KOVA_CHECK_OFFSET(struct kova_open_fd_caller, last_report_ns, 24);
KOVA_CHECK_OFFSET(struct kova_open_fd_caller, comm, 32);

#define KOVA_OPEN_FD_CALLER_ENTRIES 32768

/* The dmabuf maps of the GPL object.
 *
 *   map                           key          value
 *   "process_inode_map"           __u32 pid    kova_dmabuf_inode_set: the buffers the process holds
 *                                              through descriptors, with how many of its descriptors
 *                                              refer to each
 *   "process_mmap_infos"          __u32 pid    kova_dmabuf_inode_set: the buffers mapped into its
 *                                              memory, with how many of its mappings refer to each
 *   "dmabuf_allocate_map"         __u32 pid    kova_dmabuf_stat: the sum over its "process_inode_map"
 *                                              set (what it holds through descriptors)
 *   "dmabuf_perprocess_size_map"  __u32 pid    kova_dmabuf_stat: the sum over the union of its two sets,
 *                                              each buffer once (what it holds now)
 *   "dmabuf_size_map"             __u32 pid    kova_dmabuf_stat: "dmabuf_perprocess_size_map" as it
 *                                              stood at the last type-4 record
 *   "dmabuf_inode_map"            __u64 inode  kova_dmabuf_info: size and exporter of a buffer exported
 *                                              since the programs were attached (kernel side only)
 *
 * Every sum is over the bytes each set entry carries, so a stat and its sets always agree:
 *   - at start-up the service writes both sets from /proc (descriptors whose link names "/dmabuf", with
 *     the size and inode of their fdinfo; "/dmabuf" lines of the maps file, with the size that any
 *     process's fdinfo gives that inode, or else the bytes the process maps of it), then the three
 *     stats as the sums over those sets; "dmabuf_size_map" gets the same value as
 *     "dmabuf_perprocess_size_map", since nothing has been reported yet;
 *   - an export lists the buffer in the exporter's descriptor set; a mapping in the mapper's mapping
 *     set; each adds to the stats of the set it entered, unless the buffer was already listed there;
 *   - a release (the buffer's last reference is gone, so nobody holds it) takes the buffer out of
 *     every process that lists it, and out of their stats by the bytes it was listed with. A buffer
 *     seeded at start-up and released later brings its process back to where it was without it;
 *     stats are clamped at zero and never go below.
 * A buffer that does not fit in a full set is neither listed nor counted (the service logs it at
 * start-up). Closing a descriptor or unmapping while the buffer lives elsewhere is not seen: the
 * process keeps it until the buffer is released or the process ends. Every per-process entry is keyed
 * by the process id alone, so the process-exit program removes a process's state with one delete per
 * map. */
struct KOVA_RECORD kova_dmabuf_stat {
    __u64 bytes;
    __u32 buffers;
    __u32 pad;
};
KOVA_CHECK_SIZE(struct kova_dmabuf_stat, 16);
KOVA_CHECK_OFFSET(struct kova_dmabuf_stat, bytes, 0);
KOVA_CHECK_OFFSET(struct kova_dmabuf_stat, buffers, 8);
KOVA_CHECK_OFFSET(struct kova_dmabuf_stat, pad, 12);

struct KOVA_RECORD kova_dmabuf_inode_ref {
    __u64 inode;
    __u64 bytes; /* the buffer's size as counted in the process's stats */
    __s32 refs;  /* descriptors (or mappings) of the process that refer to the buffer */
    __u32 pad;
};
KOVA_CHECK_SIZE(struct kova_dmabuf_inode_ref, 24);
KOVA_CHECK_OFFSET(struct kova_dmabuf_inode_ref, inode, 0);
KOVA_CHECK_OFFSET(struct kova_dmabuf_inode_ref, bytes, 8);
KOVA_CHECK_OFFSET(struct kova_dmabuf_inode_ref, refs, 16);
KOVA_CHECK_OFFSET(struct kova_dmabuf_inode_ref, pad, 20);

/* A process's buffers, unordered; entries [0, count) are used. Must be a power of two. */
#define KOVA_DMABUF_INODES_PER_PROCESS 32
struct KOVA_RECORD kova_dmabuf_inode_set {
    __u32 count;
    __u32 pad;
    struct kova_dmabuf_inode_ref refs[KOVA_DMABUF_INODES_PER_PROCESS];
};
KOVA_CHECK_SIZE(struct kova_dmabuf_inode_set, 8 + 24 * KOVA_DMABUF_INODES_PER_PROCESS);
KOVA_CHECK_OFFSET(struct kova_dmabuf_inode_set, count, 0);
KOVA_CHECK_OFFSET(struct kova_dmabuf_inode_set, pad, 4);
KOVA_CHECK_OFFSET(struct kova_dmabuf_inode_set, refs, 8);

struct KOVA_RECORD kova_dmabuf_info {
    __u64 size;
    __s32 exporter_pid;
    __u32 pad;
};
KOVA_CHECK_SIZE(struct kova_dmabuf_info, 16);
KOVA_CHECK_OFFSET(struct kova_dmabuf_info, size, 0);
KOVA_CHECK_OFFSET(struct kova_dmabuf_info, exporter_pid, 8);
KOVA_CHECK_OFFSET(struct kova_dmabuf_info, pad, 12);

#define KOVA_DMABUF_PROCESS_ENTRIES 4096
#define KOVA_DMABUF_BUFFER_ENTRIES 16384

/* ---------------------------------------------------------------------------------------------------
 * CPU time in state (object "KovaBpfTimeInState")
 *
 *   map                             type                     key                   value
 *   "total_time_in_state_map"       per-CPU array            __u32 frequency slot  __u64 ns
 *   "tgid_delta_time_map"           hash                     __u32 tgid            __u64 ns
 *   "tgid_freq_delta_time_map"      per-CPU hash             __u32 tgid            kova_tis_freq_times
 *   "pid_delta_time_map"            hash                     kova_tis_pid_key      kova_tis_pid_time
 *   "pid_freq_delta_time_map"       per-CPU hash             kova_tis_pid_key      kova_tis_freq_times
 *   "pid_last_update_map"           hash                     kova_tis_pid_key      __u64 ns (last switch-out)
 *   "cpu_policy_map"                hash                     __u32 CPU             __u32 policy index
 *   "freq_to_idx_map"               hash                     kova_tis_freq_key     __u32 frequency index, 1-based
 *   "cpu_last_update_map"           per-CPU array, 1 entry   __u32 0               __u64 ns (last switch)
 *   "policy_freq_idx_map"           array                    __u32 policy index    __u32 frequency index, 1-based
 *   "time_in_state_lost_map"        array                    kova_tis_lost_key     __u64 updates not recorded
 *
 * Two index conventions meet here. The lookup maps the service seeds ("freq_to_idx_map",
 * "policy_freq_idx_map") hold 1-based indices, so that 0 always means "not known"; every slot the
 * programs charge ("total_time_in_state_map" keys, kova_tis_freq_times.ns) is that index minus one,
 * the j-th frequency of the policy counted from 0, which is how the service's readers count.
 *
 * Per-task maps are allocated as entries appear (BPF_F_NO_PREALLOC): a per-CPU frequency entry takes
 * 256 bytes per possible CPU, so preallocating room for tens of thousands of threads on an 8-core
 * device would cost tens of megabytes that an idle device never uses. When one is full, or the kernel
 * cannot allocate an entry, the task's time still counts in the CPU totals but not in the task's own
 * entries; the program then adds one to the map's key in "time_in_state_lost_map", which the service
 * logs. The service's reset requests empty the per-task maps.
 * ------------------------------------------------------------------------------------------------- */

#define KOVA_TIS_FREQ_SLOTS 32       /* frequency slots per process and thread entry */
#define KOVA_TIS_TOTAL_SLOTS 64      /* frequency slots in the CPU totals */
#define KOVA_TIS_CPU_ENTRIES 1024    /* CPUs */
#define KOVA_TIS_POLICY_ENTRIES 1024 /* policies */
#define KOVA_TIS_FREQ_ENTRIES 4096   /* (policy, frequency) pairs */
#define KOVA_TIS_TGID_ENTRIES 16384  /* processes with time since the last reset */
#define KOVA_TIS_PID_ENTRIES 65536   /* threads with time since the last reset */

struct KOVA_RECORD kova_tis_pid_key {
    __u32 pid;
    __u32 tgid;
};
KOVA_CHECK_SIZE(struct kova_tis_pid_key, 8);
KOVA_CHECK_OFFSET(struct kova_tis_pid_key, pid, 0);
KOVA_CHECK_OFFSET(struct kova_tis_pid_key, tgid, 4);

struct KOVA_RECORD kova_tis_pid_time {
    char comm[KOVA_COMM_LEN]; /* the thread's name at its last switch-out */
    __u64 time_ns;
};
KOVA_CHECK_SIZE(struct kova_tis_pid_time, 24);
KOVA_CHECK_OFFSET(struct kova_tis_pid_time, comm, 0);
KOVA_CHECK_OFFSET(struct kova_tis_pid_time, time_ns, 16);

struct KOVA_RECORD kova_tis_freq_key {
    __u32 policy;
    __u32 freq_khz;
};
KOVA_CHECK_SIZE(struct kova_tis_freq_key, 8);
KOVA_CHECK_OFFSET(struct kova_tis_freq_key, policy, 0);
KOVA_CHECK_OFFSET(struct kova_tis_freq_key, freq_khz, 4);

/* One CPU's copy of a per-CPU frequency entry: ns[j] is the time at the policy's j-th frequency. */
struct KOVA_RECORD kova_tis_freq_times {
    __u64 ns[KOVA_TIS_FREQ_SLOTS];
};
KOVA_CHECK_SIZE(struct kova_tis_freq_times, 256);
KOVA_CHECK_OFFSET(struct kova_tis_freq_times, ns, 0);

enum kova_tis_lost_key {
    KOVA_TIS_LOST_TGID = 0, /* a switch-out whose process had no entry and got none */
    KOVA_TIS_LOST_PID = 1,  /* a switch-out whose thread had no entry and got none */
    KOVA_TIS_LOST_KEY_COUNT = 2,
};

#endif /* KOVA_BPF_RECORDS_H */
