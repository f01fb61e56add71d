/* The request that the ring-buffer injector program takes as its context, shared by the program and
 * the test support that runs it. */
#ifndef KOVA_INJECT_REQUEST_H
#define KOVA_INJECT_REQUEST_H

#if !defined(__bpf__)
#include <linux/types.h>
#endif

/* A test-run context is at most 65535 bytes; the length field takes 8 of them. */
#define KOVA_INJECT_MAX (65535u - 8u)

struct kova_inject_request {
    __u32 length;  /* bytes of `bytes` to write as one record */
    __u32 pad;
    unsigned char bytes[KOVA_INJECT_MAX];
};

#endif /* KOVA_INJECT_REQUEST_H */
