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

// A syscall-type program from one of the build's BPF objects, loaded with the object's "ringbuf_map"
// replaced by the ring buffer `ringBufferFd` (borrowed; the loaded program keeps the map alive by
// itself). Run it with bpf_prog_test_run_opts on fd(). Check ok().
class RingWriterProgram {
  public:
    RingWriterProgram(const std::string& objectFile, const char* programName, int ringBufferFd);
    ~RingWriterProgram();
    RingWriterProgram(const RingWriterProgram&) = delete;
    RingWriterProgram& operator=(const RingWriterProgram&) = delete;

    bool ok() const { return object_ != nullptr; }
    int fd() const { return programFd_; }
    // Why loading failed, for messages.
    const std::string& error() const { return error_; }

  private:
    bpf_object* object_ = nullptr;
    int programFd_ = -1;  // owned by object_
    std::string error_;
};

class RingBufferInjector {
  public:
    // Loads the injector for the ring buffer `ringBufferFd` (a BPF_MAP_TYPE_RINGBUF map; the caller
    // keeps ownership, and the injector keeps the map alive by itself once loaded). Check ok().
    explicit RingBufferInjector(int ringBufferFd);

    bool ok() const { return program_.ok(); }
    // Why loading failed, for test messages.
    const std::string& error() const { return program_.error(); }

    // Writes `size` bytes as one record. False when size is 0 or above KOVA_INJECT_MAX, when the ring has
    // no room for the record (the kernel's -EAGAIN), or when the program cannot run; lastResult() then
    // holds the program's result or the negative errno of the run. Not thread-safe.
    bool Write(const void* data, size_t size);
    bool Write(const std::string& bytes) { return Write(bytes.data(), bytes.size()); }
    int lastResult() const { return lastResult_; }

  private:
    RingWriterProgram program_;
    int lastResult_ = 0;
};

}  // namespace kova::test
