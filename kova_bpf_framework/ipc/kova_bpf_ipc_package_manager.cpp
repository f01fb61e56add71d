#include "ipc/kova_bpf_ipc_package_manager.h"

#define LOG_TAG "BpfUtils"

#include <log/log.h>

#include <string.h>

#include <algorithm>
#include <chrono>

#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_error_log.h"
#include "ipc/kova_bpf_ipc_helper.h"

using Kova::Bpf::RecordBpfServiceErrorInfo;
using Kova::Bpf::StringPrintf;

namespace {

constexpr int kBuildAndAppendQueueFullCode = 3;
constexpr int kAppendSecondQueueFullCode = 4;
constexpr int kAppendReqQueueFullCode = 5;
constexpr int kAppendRespQueueFullCode = 6;
constexpr int kFillAllTooBigCode = 7;
constexpr int kFillNextTooBigCode = 8;

// A first-level size this large would wrap when the frame header is added.
constexpr uint64_t kDamagedSize = UINT64_MAX - ipcPackageHeaderSize + 1;
// The store starts this large, and a queue that empties keeps at most this much of it, so that an idle
// connection holds little after a burst.
constexpr size_t kInitialCapacity = 4096;
constexpr size_t kRetainedCapacity = 64 << 10;

template <typename T>
char* Put(char* at, const T& value) {
    memcpy(at, &value, sizeof(value));
    return at + sizeof(value);
}

// Writes a second-level header, a request or response header and `dataSize` bytes of `data` (of which
// `available` exist; the rest are zeros) at `body`.
template <typename Header>
void PutReqOrResp(char* body, uint32_t type, const Header& header, const char* data, size_t available) {
    const size_t dataSize = header.dataSize;
    body = Put(body, KovaIpcSecondLevelPackageHeader{type, static_cast<uint32_t>(sizeof(Header) + dataSize)});
    body = Put(body, header);
    const size_t copied = std::min(dataSize, available);
    if (copied > 0) memcpy(body, data, copied);
    memset(body + copied, 0, dataSize - copied);
}

}  // namespace

void IpcPackageManager::buildAndAppendIpcPackage(const char* data, size_t size) {
    {
        std::lock_guard<Kova::Bpf::AdaptiveMutex> lock(mutex);
        char* body = reserve(size, kBuildAndAppendQueueFullCode, "[BuildAndAppendIpc] ipc Package Queue too big: %zu");
        if (size > 0) memcpy(body, data, size);
        commit(size);
    }
    wakeWaiters();
}

bool IpcPackageManager::buildAndAppendSecondIpcPackage(unsigned type, const char* data, size_t size) {
    if (type > PACKAGE_TYPE_MAX) return false;
    {
        std::lock_guard<Kova::Bpf::AdaptiveMutex> lock(mutex);
        appendSecondLocked(type, data, size);
    }
    wakeWaiters();
    return true;
}

bool IpcPackageManager::appendEvent(const char* data, size_t size) {
    bool claimed = false;
    {
        std::lock_guard<Kova::Bpf::AdaptiveMutex> lock(mutex);
        appendSecondLocked(PACKAGE_TYPE_EVENT, data, size);
        claimed = !wakeClaimed;
        wakeClaimed = true;
    }
    wakeWaiters();
    return claimed;
}

void IpcPackageManager::appendSecondLocked(unsigned type, const char* data, size_t size) {
    const size_t bodySize = sizeof(KovaIpcSecondLevelPackageHeader) + size;
    char* body = reserve(bodySize, kAppendSecondQueueFullCode, "[AppendSecondIpc] ipc Package Queue too big: %zu");
    body = Put(body, KovaIpcSecondLevelPackageHeader{type, static_cast<uint32_t>(size)});
    if (size > 0) memcpy(body, data, size);
    commit(bodySize);
}

void IpcPackageManager::appendReqIpcPackage(const KovaReqIpcPackage* request) {
    const KovaReqIpcPackageHeader header{request->reqId, request->reqType, request->dataSize};
    const size_t bodySize = sizeof(KovaIpcSecondLevelPackageHeader) + sizeof(header) + header.dataSize;
    {
        std::lock_guard<Kova::Bpf::AdaptiveMutex> lock(mutex);
        char* body = reserve(bodySize, kAppendReqQueueFullCode, "[AppendReqIpc] ipc Package Queue too big: %zu");
        PutReqOrResp(body, PACKAGE_TYPE_REQUEST, header, request->data, request->dataSize);
        commit(bodySize);
    }
    wakeWaiters();
}

void IpcPackageManager::appendRespIpcPackage(const KovaRespIpcPackage* response) {
    const KovaRespIpcPackageHeader header{response->reqId, response->result, response->dataSize};
    const size_t bodySize = sizeof(KovaIpcSecondLevelPackageHeader) + sizeof(header) + header.dataSize;
    {
        std::lock_guard<Kova::Bpf::AdaptiveMutex> lock(mutex);
        char* body = reserve(bodySize, kAppendRespQueueFullCode, "[AppendRespIpc] ipc Package Queue too big: %zu");
        PutReqOrResp(body, PACKAGE_TYPE_RESPONSE, header, response->data.data(), response->data.size());
        commit(bodySize);
    }
    wakeWaiters();
}

char* IpcPackageManager::reserve(uint64_t bodySize, int errorCode, const char* message) {
    if (frames > kQueueLimit) {
        RecordBpfServiceErrorInfo(errorCode, StringPrintf("B&A Ipc Package queue full %d", static_cast<int>(kQueueLimit)));
        ALOGE(message, frames);
        // All at once rather than one per append: a stalled client then costs a trim every 5000
        // packages, not a log line and an error record for each.
        dropFront(frames - kTrimTarget);
    }
    const size_t need = ipcPackageHeaderSize + bodySize;
    if (capacity - tail < need) {
        const size_t live = tail - head;
        if (head >= live && capacity - live >= need) {
            // Sliding the live frames down costs no more than the frames already consumed did.
            memmove(store.get(), store.get() + head, live);
        } else {
            const size_t grown = std::max({kInitialCapacity, 2 * capacity, live + need});
            std::unique_ptr<char[]> larger(new char[grown]);
            if (live > 0) memcpy(larger.get(), store.get() + head, live);
            store = std::move(larger);
            capacity = grown;
        }
        head = 0;
        tail = live;
    }
    return Put(store.get() + tail, bodySize);
}

void IpcPackageManager::commit(uint64_t bodySize) {
    tail += ipcPackageHeaderSize + bodySize;
    packageCount.store(++frames, std::memory_order_relaxed);
}

void IpcPackageManager::wakeWaiters() {
    // Nearly every queue has no waiter: the broadcast is skipped then (it costs more than the append).
    if (waiters.load(std::memory_order_relaxed) != 0) packageReady.notify_all();
}

uint64_t IpcPackageManager::frameSizeAt(size_t offset) const { return LoadIpcWire<uint64_t>(store.get() + offset); }

void IpcPackageManager::popFront(size_t count, size_t bytes) {
    head += bytes;
    frames -= count;
    packageCount.store(frames, std::memory_order_relaxed);
    if (frames > 0) return;
    head = tail = 0;
    if (capacity > kRetainedCapacity) {
        store.reset();
        capacity = 0;
    }
}

void IpcPackageManager::dropFront(size_t count) {
    size_t bytes = 0;
    for (size_t i = 0; i < count; ++i) bytes += ipcPackageHeaderSize + frameSizeAt(head + bytes);
    popFront(count, bytes);
}

size_t IpcPackageManager::moveFittingFront(BufferState* buffer) {
    const size_t room = buffer->freeSpace();
    size_t count = 0, bytes = 0;
    while (count < frames) {
        const uint64_t size = frameSizeAt(head + bytes);
        if (size >= kDamagedSize || size + ipcPackageHeaderSize > room - bytes) break;
        bytes += ipcPackageHeaderSize + size;
        ++count;
    }
    if (count == 0) return 0;
    memcpy(buffer->buffer.data() + buffer->bufferDataCursor, store.get() + head, bytes);
    buffer->bufferDataCursor += bytes;
    popFront(count, bytes);
    return count;
}

bool IpcPackageManager::fillNextIpcPackageToBuffer(BufferState* buffer) {
    std::lock_guard<Kova::Bpf::AdaptiveMutex> lock(mutex);
    wakeClaimed = false;
    return fillNextLocked(buffer);
}

size_t IpcPackageManager::fillNextIpcPackagesToBuffer(BufferState* buffer) {
    std::lock_guard<Kova::Bpf::AdaptiveMutex> lock(mutex);
    wakeClaimed = false;
    const size_t written = moveFittingFront(buffer);
    // The front now does not fit: this drops it when it never can, as a single fill would.
    fillNextLocked(buffer);
    return written;
}

bool IpcPackageManager::fillNextLocked(BufferState* buffer) {
    if (frames == 0 || dropFrontIfItNeverFits(*buffer, kFillNextTooBigCode, "fillNextIpcPackageToBuffer ipc package damaged")) {
        return false;
    }
    const uint64_t bytes = ipcPackageHeaderSize + frameSizeAt(head);
    if (bytes > buffer->freeSpace()) return false;
    memcpy(buffer->buffer.data() + buffer->bufferDataCursor, store.get() + head, bytes);
    buffer->bufferDataCursor += bytes;
    popFront(1, bytes);
    return true;
}

bool IpcPackageManager::fillIpcPackageToBuffer(BufferState* buffer) {
    std::lock_guard<Kova::Bpf::AdaptiveMutex> lock(mutex);
    wakeClaimed = false;
    if (frames == 0) return false;
    moveFittingFront(buffer);
    // What is left waits for the next round, when the buffer has been sent, unless it can never fit.
    return frames == 0 || !dropFrontIfItNeverFits(*buffer, kFillAllTooBigCode, "fillIpcPackageToBuffer ipc package damaged");
}

bool IpcPackageManager::dropFrontIfItNeverFits(const BufferState& buffer, int tooBigCode, const char* tooBigText) {
    const uint64_t size = frameSizeAt(head);
    if (size >= kDamagedSize) {
        ALOGE("The ipc package is damaged! remove this package");
    } else if (size + ipcPackageHeaderSize > buffer.buffer.size()) {
        RecordBpfServiceErrorInfo(tooBigCode, tooBigText);
        ALOGE("The ipc package is too big! remove this package");
    } else {
        return false;
    }
    dropFront(1);
    return true;
}

void IpcPackageManager::waitEventReady(int timeoutMs) {
    if (getIpcPackageCount() != 0) return;
    std::unique_lock<Kova::Bpf::AdaptiveMutex> lock(mutex);
    // Counted under the mutex, which every append holds when it commits: an append either sees this
    // waiter and wakes it, or committed before the waiter looked at `frames`.
    waiters.fetch_add(1, std::memory_order_relaxed);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    packageReady.wait_until(lock, deadline, [this]() REQUIRES(mutex) { return frames != 0; });
    waiters.fetch_sub(1, std::memory_order_relaxed);
}

void IpcPackageManager::notifyEventReady() { packageReady.notify_all(); }
