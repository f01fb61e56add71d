// Host subset of android-base unique_fd: an owned descriptor, closed when the owner goes away, tagged
// with the platform's fd ownership tags (no-ops on the host).
#pragma once

#include <android/fdsan.h>
#include <errno.h>
#include <stdint.h>
#include <unistd.h>

namespace android::base {

struct DefaultCloser {
    static uint64_t TagFor(const void* owner) {
        return android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD,
                                              reinterpret_cast<uint64_t>(owner));
    }
    static void Tag(int fd, const void* old_owner, const void* new_owner) {
        if (fd >= 0) android_fdsan_exchange_owner_tag(fd, TagFor(old_owner), TagFor(new_owner));
    }
    static void Close(int fd, const void* owner) { android_fdsan_close_with_tag(fd, TagFor(owner)); }
};

// Not thread-safe: one owner at a time. Moving transfers ownership; reset() keeps errno.
template <typename Closer>
class unique_fd_impl final {
  public:
    unique_fd_impl() = default;
    explicit unique_fd_impl(int fd) { reset(fd); }
    ~unique_fd_impl() { reset(); }

    unique_fd_impl(const unique_fd_impl&) = delete;
    unique_fd_impl& operator=(const unique_fd_impl&) = delete;
    unique_fd_impl(unique_fd_impl&& other) noexcept { reset(other.release()); }
    unique_fd_impl& operator=(unique_fd_impl&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }

    void reset(int new_fd = -1) {
        const int saved_errno = errno;
        if (fd_ >= 0) Closer::Close(fd_, this);
        fd_ = new_fd;
        Closer::Tag(fd_, nullptr, this);
        errno = saved_errno;
    }

    [[nodiscard]] int release() {
        Closer::Tag(fd_, this, nullptr);
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

    int get() const { return fd_; }
    operator int() const { return fd_; }  // NOLINT(google-explicit-constructor): as on the device
    bool ok() const { return fd_ >= 0; }
    bool operator!() const = delete;  // catches "!fd" written for "fd == -1"

  private:
    int fd_ = -1;
};

using unique_fd = unique_fd_impl<DefaultCloser>;

}  // namespace android::base
