// Makes the kernel write chosen bytes into a chosen BPF ring buffer, on demand, so that a test can
// feed a consumer exactly the records it wants through the real ring-buffer path.
//
// The injector is a small syscall-type BPF program (bpf/test/kova_ringbuf_injector.bpf.c) whose ring
// buffer is replaced, before it is loaded, by the ring buffer the test names; Write() runs it once with
// the bytes as its context, which writes them as one record.
#pragma once

#include <stddef.h>

#include <string>

#include <android-base/unique_fd.h>

struct bpf_object;

namespace kova::test {

class RingBufferInjector {
  public:
    // Loads the injector for the ring buffer `ringBufferFd` (a BPF_MAP_TYPE_RINGBUF map; the caller
    // keeps ownership, and the injector keeps the map alive by itself once loaded). Check ok().
    explicit RingBufferInjector(int ringBufferFd);
    ~RingBufferInjector();
    RingBufferInjector(const RingBufferInjector&) = delete;
    RingBufferInjector& operator=(const RingBufferInjector&) = delete;

    bool ok() const { return object_ != nullptr; }
    // Why loading failed, for test messages.
    const std::string& error() const { return error_; }

    // Writes `size` bytes as one record. False when size is 0 or above MaxRecord(), when the ring has
    // no room for the record (the kernel's -EAGAIN), or when the program cannot run; lastResult() then
    // holds the program's result or the negative errno of the run. Not thread-safe.
    bool Write(const void* data, size_t size);
    bool Write(const std::string& bytes) { return Write(bytes.data(), bytes.size()); }
    int lastResult() const { return lastResult_; }

    static size_t MaxRecord();

  private:
    bpf_object* object_ = nullptr;
    int programFd_ = -1;  // owned by object_
    int lastResult_ = 0;
    std::string error_;
};

}  // namespace kova::test
