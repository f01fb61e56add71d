// Host subset of bionic's file-descriptor ownership sanitizer. On the host, tags are accepted and
// ignored and a tagged close is a plain close.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum android_fdsan_owner_type {
    ANDROID_FDSAN_OWNER_TYPE_GENERIC_00 = 0,
    ANDROID_FDSAN_OWNER_TYPE_GENERIC_FF = 255,
    ANDROID_FDSAN_OWNER_TYPE_FILE = 1,
    ANDROID_FDSAN_OWNER_TYPE_DIR = 2,
    ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD = 3,
};

uint64_t android_fdsan_create_owner_tag(enum android_fdsan_owner_type type, uint64_t tag);
void android_fdsan_exchange_owner_tag(int fd, uint64_t expected_tag, uint64_t new_tag);
int android_fdsan_close_with_tag(int fd, uint64_t tag);

#ifdef __cplusplus
}
#endif
