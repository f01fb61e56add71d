#include "ipc/kova_bpf_ipc_package_manager.h"

#define LOG_TAG "BpfUtils"

#include <log/log.h>

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

template <typename T>
void AppendWire(std::vector<char>* bytes, const T& value) {
    const char* raw = reinterpret_cast<const char*>(&value);
    bytes->insert(bytes->end(), raw, raw + sizeof(value));
}

// A body of type, size and request/response header followed by `dataSize` bytes of `data` (of which
// `available` exist; the rest stay zero).
template <typename Header>
KovaIpcPackage BuildReqOrRespPackage(uint32_t type, const Header& header, const char* data, size_t available) {
    const size_t dataSize = header.dataSize;
    const KovaIpcSecondLevelPackageHeader second{type, static_cast<uint32_t>(sizeof(Header) + dataSize)};
    KovaIpcPackage package;
    package.data.reserve(sizeof(second) + sizeof(Header) + dataSize);
    AppendWire(&package.data, second);
    AppendWire(&package.data, header);
    const size_t copied = std::min(dataSize, available);
    package.data.insert(package.data.end(), data, data + copied);
    package.data.resize(sizeof(second) + sizeof(Header) + dataSize);  // zeros for data the caller did not have
    package.size = package.data.size();
    return package;
}

}  // namespace

void IpcPackageManager::buildAndAppendIpcPackage(const char* data, size_t size) {
    KovaIpcPackage package;
    package.data.assign(data, data + size);
    package.size = size;
    append(std::move(package), kBuildAndAppendQueueFullCode, "[BuildAndAppendIpc] ipc Package Queue too big: %zu");
}

bool IpcPackageManager::buildAndAppendSecondIpcPackage(unsigned type, const char* data, size_t size) {
    if (type > PACKAGE_TYPE_MAX) return false;
    KovaIpcPackage package;
    package.data.reserve(sizeof(KovaIpcSecondLevelPackageHeader) + size);
    AppendWire(&package.data, KovaIpcSecondLevelPackageHeader{type, static_cast<uint32_t>(size)});
    package.data.insert(package.data.end(), data, data + size);
    package.size = package.data.size();
    append(std::move(package), kAppendSecondQueueFullCode, "[AppendSecondIpc] ipc Package Queue too big: %zu");
    return true;
}

void IpcPackageManager::appendReqIpcPackage(const KovaReqIpcPackage* request) {
    const KovaReqIpcPackageHeader header{request->reqId, request->reqType, request->dataSize};
    append(BuildReqOrRespPackage(PACKAGE_TYPE_REQUEST, header, request->data, request->dataSize),
           kAppendReqQueueFullCode, "[AppendReqIpc] ipc Package Queue too big: %zu");
}

void IpcPackageManager::appendRespIpcPackage(const KovaRespIpcPackage* response) {
    const KovaRespIpcPackageHeader header{response->reqId, response->result, response->dataSize};
    append(BuildReqOrRespPackage(PACKAGE_TYPE_RESPONSE, header, response->data.data(), response->data.size()),
           kAppendRespQueueFullCode, "[AppendRespIpc] ipc Package Queue too big: %zu");
}

void IpcPackageManager::append(KovaIpcPackage&& package, int errorCode, const char* message) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (packages.size() > kQueueLimit) {
            RecordBpfServiceErrorInfo(errorCode, StringPrintf("B&A Ipc Package queue full %d", static_cast<int>(kQueueLimit)));
            ALOGE(message, packages.size());
            // All at once rather than one per append: a stalled client then costs a trim every 5000
            // packages, not a log line and an error record for each.
            packages.erase(packages.begin(), packages.end() - static_cast<std::ptrdiff_t>(kTrimTarget));
        }
        packages.push_back(std::move(package));
        packageCount.store(packages.size(), std::memory_order_relaxed);
    }
    packageReady.notify_all();
}

void IpcPackageManager::popFront() {
    packages.pop_front();
    packageCount.store(packages.size(), std::memory_order_relaxed);
}

void IpcPackageManager::writeFront(BufferState* buffer) {
    WriteIpcPackageToBuffer(buffer, packages.front());
    popFront();
}

bool IpcPackageManager::fillNextIpcPackageToBuffer(BufferState* buffer) {
    std::lock_guard<std::mutex> lock(mutex);
    return fillNextLocked(buffer);
}

size_t IpcPackageManager::fillNextIpcPackagesToBuffer(BufferState* buffer) {
    std::lock_guard<std::mutex> lock(mutex);
    size_t written = 0;
    while (fillNextLocked(buffer)) ++written;
    return written;
}

bool IpcPackageManager::fillNextLocked(BufferState* buffer) {
    if (packages.empty()) return false;
    const uint64_t size = packages.front().size;
    if (size >= kDamagedSize) {
        ALOGE("The ipc package is damaged! remove this package");
        popFront();
        return false;
    }
    if (size + ipcPackageHeaderSize > buffer->buffer.size()) {
        RecordBpfServiceErrorInfo(kFillNextTooBigCode, "fillNextIpcPackageToBuffer ipc package damaged");
        ALOGE("The ipc package is too big! remove this package");
        popFront();
        return false;
    }
    if (size + ipcPackageHeaderSize > buffer->freeSpace()) return false;
    writeFront(buffer);
    return true;
}

bool IpcPackageManager::fillIpcPackageToBuffer(BufferState* buffer) {
    std::lock_guard<std::mutex> lock(mutex);
    if (packages.empty()) return false;
    while (true) {
        const uint64_t size = packages.front().size;
        if (size < kDamagedSize && size + ipcPackageHeaderSize <= buffer->freeSpace()) {
            writeFront(buffer);
            if (packages.empty()) return true;
            continue;
        }
        if (size >= kDamagedSize) {
            ALOGE("The ipc package is damaged! remove this package");
            popFront();
            return false;
        }
        if (size + ipcPackageHeaderSize > buffer->buffer.size()) {
            RecordBpfServiceErrorInfo(kFillAllTooBigCode, "fillIpcPackageToBuffer ipc package damaged");
            ALOGE("The ipc package is too big! remove this package");
            popFront();
            return false;
        }
        return true;  // left for the next round, when the buffer has been sent
    }
}

void IpcPackageManager::waitEventReady(int timeoutMs) {
    if (getIpcPackageCount() != 0) return;
    std::unique_lock<std::mutex> lock(mutex);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    packageReady.wait_until(lock, deadline, [this]() REQUIRES(mutex) { return !packages.empty(); });
}

void IpcPackageManager::notifyEventReady() { packageReady.notify_all(); }
