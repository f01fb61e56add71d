// fdsan on the host: ownership tags are accepted and ignored; a tagged close is a plain close.

#include <android/fdsan.h>
#include <unistd.h>

extern "C" uint64_t android_fdsan_create_owner_tag(enum android_fdsan_owner_type type, uint64_t tag) {
    // Same encoding as the device: the type in the top byte, the value below it.
    return (static_cast<uint64_t>(type) << 56) | (tag & ((uint64_t{1} << 56) - 1));
}

extern "C" void android_fdsan_exchange_owner_tag(int, uint64_t, uint64_t) {}

extern "C" int android_fdsan_close_with_tag(int fd, uint64_t) { return close(fd); }
