// IpcPackageManager: the outgoing package queue of one connection. Any thread builds packages into it;
// the connection's write handler drains them, whole, into the write buffer.
//
// The queue is bounded: appending to a queue that already holds more than 10000 packages first drops
// the oldest ones down to 5000 (and says so in the error log), so a client that stops reading cannot
// make the service grow without limit. Each body is copied once into the queue and once into the
// write buffer.
//
// Packages are kept as the frames they become on the stream, back to back in one byte store: queueing
// costs a copy and no allocation once the store has grown, and a drain moves a run of whole frames with
// one copy.
//
// Threads: every operation is safe from any thread. getIpcPackageCount reads without the lock, so its
// answer may be stale by the time it is used.
#pragma once

#include <android-base/thread_annotations.h>
#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "ipc/kova_bpf_ipc_package.h"
#include "utils/kova_bpf_locking.h"

class IpcPackageManager {
  public:
    static constexpr size_t kQueueLimit = 10000;
    static constexpr size_t kTrimTarget = 5000;

    // Queues `size` raw bytes as one frame body, without a second-level header.
    void buildAndAppendIpcPackage(const char* data, size_t size);
    // Queues a second-level package of `type` around `size` bytes. False, queueing nothing, when `type`
    // is above PACKAGE_TYPE_EVENT. The header's size field holds `size` truncated to 32 bits.
    bool buildAndAppendSecondIpcPackage(unsigned type, const char* data, size_t size);
    // Queues an event (a type-3 package around `size` bytes) and says whether the caller must arm the
    // connection's write event: false when an earlier append has asked for it and no fill has begun
    // since, for the drain it wakes takes this package too. A producer that fans records out to
    // many connections thus arms each once per drain rather than once per record.
    bool appendEvent(const char* data, size_t size);
    // Queues a request (type 0). REQUIRES: package->data holds package->dataSize bytes.
    void appendReqIpcPackage(const KovaReqIpcPackage* package);
    // Queues a response (type 1) carrying package->dataSize bytes (zeros beyond package->data's end).
    void appendRespIpcPackage(const KovaRespIpcPackage* package);

    // Each fill begins a drain: the next appendEvent asks to arm the write event again.
    //
    // Moves the oldest package into `buffer` when it fits into the free space. False when the queue is
    // empty, when the package does not fit now (it stays queued), or when it can never fit into this
    // buffer (it is dropped, with error log code 8).
    bool fillNextIpcPackageToBuffer(BufferState* buffer);
    // Exactly what calling fillNextIpcPackageToBuffer until it returns false does, but under one
    // acquisition of the lock: a producer appending meanwhile waits at most once per buffer instead of
    // contending with the writer once per package. Returns the number of packages written.
    size_t fillNextIpcPackagesToBuffer(BufferState* buffer);
    // Moves as many packages as fit, oldest first. True unless a package had to be dropped because it
    // can never fit (error log code 7), or the queue was empty; true therefore does not mean that
    // anything was written.
    bool fillIpcPackageToBuffer(BufferState* buffer);

    // Returns once the queue is not empty or `timeoutMs` milliseconds have passed.
    void waitEventReady(int timeoutMs);
    // Wakes every waitEventReady.
    void notifyEventReady();
    size_t getIpcPackageCount() const { return packageCount.load(std::memory_order_relaxed); }

  private:
    // Room for a frame with a `bodySize` body at the back of the store, after trimming an overfull queue
    // (reporting `errorCode` and `message`): writes the frame's size and returns where its body goes. The
    // caller writes the body, then commit()s it.
    char* reserve(uint64_t bodySize, int errorCode, const char* message) REQUIRES(mutex);
    void commit(uint64_t bodySize) REQUIRES(mutex);
    void appendSecondLocked(unsigned type, const char* data, size_t size) REQUIRES(mutex);
    // Broadcasts packageReady when someone waits in waitEventReady. Called after the mutex is released.
    void wakeWaiters();
    uint64_t frameSizeAt(size_t offset) const REQUIRES(mutex);
    // Moves the run of front frames that fits into the buffer's free space with one copy; the count.
    size_t moveFittingFront(BufferState* buffer) REQUIRES(mutex);
    // One step of fillNextIpcPackageToBuffer.
    bool fillNextLocked(BufferState* buffer) REQUIRES(mutex);
    // Drops the front package when it can never fit into `buffer`: a damaged size, or one larger than
    // the whole buffer (recorded under `tooBigCode`). True when it did. REQUIRES: a package is queued.
    bool dropFrontIfItNeverFits(const BufferState& buffer, int tooBigCode, const char* tooBigText) REQUIRES(mutex);
    void dropFront(size_t count) REQUIRES(mutex);
    // Forgets the `count` front frames, `bytes` long together.
    void popFront(size_t count, size_t bytes) REQUIRES(mutex);

    Kova::Bpf::AdaptiveMutex mutex;
    // The queued frames (u64 size, then body) from store[head] to store[tail]; `capacity` bytes in all.
    std::unique_ptr<char[]> store GUARDED_BY(mutex);
    size_t capacity GUARDED_BY(mutex) = 0;
    size_t head GUARDED_BY(mutex) = 0;
    size_t tail GUARDED_BY(mutex) = 0;
    size_t frames GUARDED_BY(mutex) = 0;
    bool wakeClaimed GUARDED_BY(mutex) = false;  // an appendEvent asked to arm since the last fill began
    std::condition_variable_any packageReady;
    std::atomic<int> waiters{0};          // threads in waitEventReady; changed under the mutex
    std::atomic<size_t> packageCount{0};  // `frames`, readable without the mutex
};
