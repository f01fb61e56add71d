/* The flood program's context and the records it writes, shared by the program and the benchmarks
 * that run it. */
#ifndef KOVA_FLOOD_REQUEST_H
#define KOVA_FLOOD_REQUEST_H

#if !defined(__bpf__)
#include <linux/types.h>
#endif

/* Passed as ctx_in; the kernel copies it back after the run, with `written` filled in. */
struct kova_flood_request {
    __u32 count;           /* records to write in this run */
    __u32 type;            /* first word of every record: the event id subscribers select */
    __u64 first_sequence;  /* sequence number of the first record; the others count up from it */
    __u32 written;         /* out: records the ring accepted; the rest found it full */
    __u32 pad;
};

/* 32 bytes: the size of the smallest real records (RSS), so that the figures are per-record costs. */
struct kova_flood_record {
    __u32 type;
    __u32 pad;
    __u64 timestamp_ns; /* bpf_ktime_get_ns() just before the write: CLOCK_MONOTONIC */
    __u64 sequence;
    __u64 spare;
};

#endif /* KOVA_FLOOD_REQUEST_H */
