// IpcReqCallBackManager: the client side of request and response. It hands out request ids and keeps,
// for each request still waiting, the callable that is to receive its response; each callable runs at
// most once.
//
// Threads: safe from any thread. Callbacks run while the manager's mutex is held, so a callback must
// not call back into the same manager.
#pragma once

#include <android-base/thread_annotations.h>
#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <map>
#include <mutex>

class IpcReqCallBackManager {
  public:
    // Gets the response's reqId, result, data and data size.
    using Callback = std::function<int(uint32_t reqId, int32_t result, const char* data, uint32_t dataSize)>;

    // Ids are handed out from `firstReqId` upwards (0 unless a test needs to start near the wrap).
    explicit IpcReqCallBackManager(uint32_t firstReqId = 0) : nextReqId(firstReqId) {}

    // The next request id; after 4294967295 comes 0.
    uint32_t getReqId();
    // Stores `callback` for `reqId`, replacing an earlier one; true when there was none.
    bool addIpcReqCallBack(uint32_t reqId, Callback callback);
    // Forgets `reqId`; the number of entries removed (0 or 1).
    size_t delIpcReq(uint32_t reqId);
    // Gives a received response payload (`size` bytes: the response header and its data) to the
    // callback of its reqId and forgets it. False when no request with that id is waiting (logged), or
    // when the payload is shorter than its header says.
    bool handleReqCallBack(const char* response, size_t size);

  private:
    std::mutex mutex;
    uint32_t nextReqId GUARDED_BY(mutex);
    std::map<uint32_t, Callback> callbacks GUARDED_BY(mutex);
};
