// Pieces the event-pump benchmarks share: a kernel-side producer that floods a ring buffer with
// stamped records, a reader of the service's package stream, and a tally of what a reader received
// (count, sequence gaps, latency from the kernel's write to the read).
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <time.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "bench/kova_flood_request.h"  // bpf/bench: the program's context and record layout
#include "kova_ringbuf_injector.h"

namespace kova::bench {

// CLOCK_MONOTONIC in nanoseconds: the clock of bpf_ktime_get_ns().
inline uint64_t MonotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

// CPU time of the whole process (every thread, user and system) in seconds: with the producer, the
// pump, the IPC thread and the reader all in one process, CPU per record is the pipeline's cost even
// when other work on the machine makes wall-clock rates noisy.
double ProcessCpuSeconds();

// The flood program (bpf/bench/kova_ringbuf_flood.bpf.c) loaded against one ring buffer. Each Write()
// is one run of the program, which writes `count` records back to back inside the kernel.
class FloodProducer {
  public:
    // `ringBufferFd` is borrowed; the loaded program keeps the map alive by itself. Check ok().
    explicit FloodProducer(int ringBufferFd);

    bool ok() const { return program_.ok(); }
    const std::string& error() const { return program_.error(); }

    // Writes `count` records of event id `type`, numbered on from the last call. Returns how many the
    // ring accepted (the others found it full); -1 when the program could not run.
    int64_t Write(uint32_t count, uint32_t type);
    // Sequence number the next record will carry.
    uint64_t nextSequence() const { return nextSequence_; }

  private:
    test::RingWriterProgram program_;
    uint64_t nextSequence_ = 0;
};

// What one reader received. The reader thread calls Add() once per read; the benchmark thread waits
// and reads the figures. Records are expected in sequence order: a jump counts the skipped ones as lost.
class Tally {
  public:
    static constexpr size_t kMaxLatencies = 1 << 21;

    // Forgets everything and expects `firstSequence` next; keeps latencies when `keepLatencies` (of
    // the first kMaxLatencies records, so that a long run does not time the reader's allocations).
    void Reset(uint64_t firstSequence, bool keepLatencies);
    // Takes the records of one read, made at `readNs`.
    void Add(const kova_flood_record* records, size_t count, uint64_t readNs);
    // Waits until at least `count` records have arrived; false after `timeoutMs`.
    bool WaitFor(uint64_t count, int timeoutMs);

    uint64_t received();
    uint64_t lost();
    uint64_t lastReadNs();
    // Latency percentile (0 to 100) in microseconds over the kept latencies; 0 without any.
    double PercentileUs(double percentile);

  private:
    std::mutex lock_;
    std::condition_variable arrived_;
    uint64_t received_ = 0;
    uint64_t expected_ = 0;  // next sequence number
    uint64_t lost_ = 0;
    uint64_t lastReadNs_ = 0;
    uint64_t awaited_ = UINT64_MAX;  // what WaitFor waits for: the reader wakes it only then
    bool keepLatencies_ = false;
    std::vector<uint64_t> latenciesNs_;
};

// Reads the service's package stream from a socket and cuts it into packages.
class PackageStream {
  public:
    explicit PackageStream(int fd) : fd_(fd), buffer_(1 << 16) {}
    // One blocking read; false at end of stream or on an error.
    bool Fill();
    // Calls `package(type, payload, payloadSize)` for every whole package buffered, and keeps the rest.
    template <typename Callback>
    void Drain(Callback&& package);

  private:
    int fd_;
    std::vector<char> buffer_;
    size_t begin_ = 0;
    size_t end_ = 0;
};

template <typename Callback>
void PackageStream::Drain(Callback&& package) {
    while (end_ - begin_ >= 16) {
        uint64_t size = 0;
        memcpy(&size, buffer_.data() + begin_, sizeof(size));
        if (end_ - begin_ < 8 + size) break;
        uint32_t type = 0;
        memcpy(&type, buffer_.data() + begin_ + 8, sizeof(type));
        package(type, buffer_.data() + begin_ + 16, static_cast<size_t>(size - 8));
        begin_ += 8 + size;
    }
}

// Connects to the service's abstract socket and subscribes to `eventId`, waiting for the answer.
// Returns the connected descriptor, or -1.
int ConnectAndSubscribe(const std::string& socketName, int32_t eventId);

}  // namespace kova::bench
