#include "kova_ringbuf_injector.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <string.h>

#include <memory>

#include "test/kova_inject_request.h"  // bpf/test: the request layout shared with the program

namespace kova::test {

RingWriterProgram::RingWriterProgram(const std::string& objectFile, const char* programName, int ringBufferFd) {
    const std::string path = std::string(KOVA_BPF_OBJECT_DIR) + "/" + objectFile;
    bpf_object* object = bpf_object__open_file(path.c_str(), nullptr);
    if (object == nullptr) {
        error_ = "cannot open " + path + ": " + strerror(errno);
        return;
    }
    bpf_map* ring = bpf_object__find_map_by_name(object, "ringbuf_map");
    bpf_program* program = bpf_object__find_program_by_name(object, programName);
    if (ring == nullptr || program == nullptr) {
        error_ = path + " lacks ringbuf_map or " + programName;
    } else if (int err = bpf_map__reuse_fd(ring, ringBufferFd); err != 0) {
        error_ = std::string("cannot reuse the ring buffer: ") + strerror(-err);
    } else if (int err = bpf_object__load(object); err != 0) {
        error_ = std::string("cannot load ") + programName + ": " + strerror(-err);
    } else {
        object_ = object;
        programFd_ = bpf_program__fd(program);
        return;
    }
    bpf_object__close(object);
}

RingWriterProgram::~RingWriterProgram() {
    if (object_ != nullptr) bpf_object__close(object_);
}

RingBufferInjector::RingBufferInjector(int ringBufferFd)
    : program_("kova_ringbuf_injector.o", "kova_ringbuf_inject", ringBufferFd) {}

bool RingBufferInjector::Write(const void* data, size_t size) {
    if (!program_.ok() || size == 0 || size > KOVA_INJECT_MAX) {
        lastResult_ = -EINVAL;
        return false;
    }
    // The context is exactly the length word, its padding and the bytes: the program reads no further.
    const size_t contextSize = offsetof(kova_inject_request, bytes) + size;
    auto request = std::make_unique<unsigned char[]>(contextSize);
    const __u32 length = static_cast<__u32>(size);
    memset(request.get(), 0, offsetof(kova_inject_request, bytes));
    memcpy(request.get() + offsetof(kova_inject_request, length), &length, sizeof(length));
    memcpy(request.get() + offsetof(kova_inject_request, bytes), data, size);

    LIBBPF_OPTS(bpf_test_run_opts, options, .ctx_in = request.get(), .ctx_size_in = static_cast<__u32>(contextSize));
    if (bpf_prog_test_run_opts(program_.fd(), &options) != 0) {
        lastResult_ = -errno;
        return false;
    }
    lastResult_ = static_cast<int>(options.retval);
    return lastResult_ == 0;
}

}  // namespace kova::test
