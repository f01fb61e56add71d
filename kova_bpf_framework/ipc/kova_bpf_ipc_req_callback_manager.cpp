#include "ipc/kova_bpf_ipc_req_callback_manager.h"

#define LOG_TAG "BpfUtils"

#include <log/log.h>

#include "ipc/kova_bpf_ipc_package.h"

uint32_t IpcReqCallBackManager::getReqId() {
    std::lock_guard<std::mutex> lock(mutex);
    return nextReqId++;  // unsigned: wraps to 0
}

bool IpcReqCallBackManager::addIpcReqCallBack(uint32_t reqId, Callback callback) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto [it, inserted] = callbacks.insert_or_assign(reqId, std::move(callback));
    return inserted;
}

size_t IpcReqCallBackManager::delIpcReq(uint32_t reqId) {
    std::lock_guard<std::mutex> lock(mutex);
    return callbacks.erase(reqId);
}

bool IpcReqCallBackManager::handleReqCallBack(const char* response, size_t size) {
    if (size < sizeof(KovaRespIpcPackageHeader)) {
        ALOGE("[IRCB Manager] Response too short: size: %zu", size);
        return false;
    }
    const KovaRespIpcPackageHeader header = LoadIpcWire<KovaRespIpcPackageHeader>(response);
    if (header.dataSize > size - sizeof(header)) {
        ALOGE("[IRCB Manager] Response data beyond the package: reqId: %u, dataSize: %u, size: %zu", header.reqId,
              header.dataSize, size);
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = callbacks.find(header.reqId);
    if (it == callbacks.end()) {
        ALOGE("[IRCB Manager] Unknow request callback functuin: reqId: %u", header.reqId);
        return false;
    }
    if (it->second) it->second(header.reqId, header.result, response + sizeof(header), header.dataSize);
    callbacks.erase(it);
    return true;
}
