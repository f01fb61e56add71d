// Client protocol: who may connect, connections, requests and outgoing queues of the service's
// clients. Runs on the IPC loop thread "BpfServiceTr", except notifyClientEventReady and
// sendClientEventsNow, which the event producers call.

#include "service/kova_bpf_service.h"

#define LOG_TAG "BpfService"

#include <android-base/logging.h>
#include <errno.h>
#include <log/log.h>
#include <string.h>

#include <algorithm>

#include "service/kova_bpf_event_manager.h"
#include "protocol/kova_bpf_protocol.h"
#include "utils/kova_bpf_client_access.h"
#include "utils/kova_bpf_common.h"
#include "ipc/kova_bpf_ipc_helper.h"

namespace Kova::Bpf {
namespace {

// The i-th 32-bit word of a request's data; words beyond the data read as zero bytes.
int32_t DataWord(const char* requestData, uint32_t dataSize, size_t index) {
    int32_t word = 0;
    const size_t offset = index * sizeof(word);
    if (offset < dataSize) memcpy(&word, requestData + offset, std::min<size_t>(sizeof(word), dataSize - offset));
    return word;
}

}  // namespace

int KovaBpfService::onClientLibWriteable(int fd, BufferState* writeBuffer) {
    const std::shared_ptr<IpcConnection> connection = ipcManager->connection(fd);
    if (!connection) return 0;
    IpcPackageManager& queue = connection->ipcPackageManager;
    // A package too large for any buffer is dropped and ends the fill. Had nothing been written, the loop
    // would disarm the write event and the packages behind it would wait for the next one to arrive, so
    // the fill goes on past every package dropped at the head of the queue.
    size_t queued = queue.getIpcPackageCount();
    while (queue.fillNextIpcPackagesToBuffer(writeBuffer) == 0 &&
           writeBuffer->bufferDataCursor == writeBuffer->bufferCursor) {
        const size_t left = queue.getIpcPackageCount();
        if (left == 0 || left >= queued) break;  // nothing was dropped: nothing is waiting
        queued = left;
    }
    return 0;
}

int KovaBpfService::onClientLibReadable(int fd, BufferState* readBufferState) {
    char* body = nullptr;
    size_t packageSize = 0;
    uint64_t frameStart = readBufferState->bufferCursor;
    for (; ReadNextIpcFrame(readBufferState, &body, &packageSize); frameStart = readBufferState->bufferCursor) {
        if (ipcPackageHandler->handleSecondIpcPackage(fd, body, packageSize) == -1) {
            ALOGE("[KovaBpfService] Resv event: bufferCursor (%zd), numSize (%zd), dataSize (%zd), readCount (%zd)",
                  static_cast<ssize_t>(readBufferState->bufferCursor), static_cast<ssize_t>(ipcPackageHeaderSize),
                  static_cast<ssize_t>(packageSize), static_cast<ssize_t>(readBufferState->bufferDataCursor));
            ALOGE("[KovaBpfService] BUFFER HEXDUMP: %s",
                  ConvertToHexString(readBufferState->buffer.data() + frameStart,
                                     static_cast<int>(ipcPackageHeaderSize + packageSize))
                          .c_str());
            return -1;
        }
    }
    return 0;
}

int KovaBpfService::onEventProvideReqCallBack(int fd, char* payload, size_t size) {
    // A request whose dataSize disagrees with its payload is a fatal check, reported here.
    const KovaReqIpcPackageHeader request = ReadReqIpcPackageHeader(payload, size);
    const char* requestData = payload + sizeof(KovaReqIpcPackageHeader);
    // Requests are read on the loop thread from an open connection, so it is in the table.
    const std::shared_ptr<IpcConnection> connection = ipcManager->connection(fd);
    if (!connection) return 0;

    KovaRespIpcPackage response;
    response.reqId = request.reqId;
    response.result = -1;
    switch (request.reqType) {
        case REQ_SUBSCRIBE_EVENT: {
            EventManager::GetInstance()->subscribe(connection, DataWord(requestData, request.dataSize, 0));
            response.result = 0;
            break;
        }
        case REQ_UNSUBSCRIBE_EVENT: {
            EventManager::GetInstance()->unsubscribe(*connection, DataWord(requestData, request.dataSize, 0));
            response.result = 0;
            break;
        }
        case REQ_TIME_IN_STATE_A:
        case REQ_TIME_IN_STATE_B: {
            const size_t count = request.dataSize / sizeof(int32_t);
            {
                std::lock_guard<std::mutex> lock(timeInStateEventIdsLock);
                const size_t room = kMaxQueuedTimeInStateIds - timeInStateEventIds.size();
                timeInStateEventIds.reserve(timeInStateEventIds.size() + std::min(count, room));
                for (size_t i = 0; i < count; ++i) {
                    const int32_t id = DataWord(requestData, request.dataSize, i);
                    ALOGI("[KovaBpfService] eventIds[%zu] = %d", i, id);
                    if (timeInStateEventIds.size() < kMaxQueuedTimeInStateIds) timeInStateEventIds.push_back(id);
                }
                if (count > room && !timeInStateIdsDropped) {
                    timeInStateIdsDropped = true;
                    ALOGW("[KovaBpfService] time-in-state queue full (%zu types): dropping %zu, and more until the "
                          "worker takes the queue",
                          kMaxQueuedTimeInStateIds, count - room);
                }
            }
            notifyTimeInStateMonitor();
            response.result = 0;
            break;
        }
        default:
            break;
    }
    connection->ipcPackageManager.appendRespIpcPackage(&response);
    ipcManager->notifyNeedWriteData(fd);
    return 0;  // a request never closes its connection
}

#ifndef __ANDROID__
bool KovaBpfService::admitClient(int fd) {
    PeerCredentials peer;
    if (!ReadPeerCredentials(fd, &peer)) {
        ALOGW("[KovaBpfService] Refused client: its credentials cannot be read: %d, message: %s", errno,
              strerror(errno));
        return false;
    }
    if (peer.uid == 0) return true;  // without looking the group up
    const std::string group = ClientGroupName();
    const std::optional<gid_t> gid = ResolveGroup(group);
    if (IsClientAdmitted(peer, gid)) return true;
    if (gid) {
        ALOGW("[KovaBpfService] Refused client pid %d uid %d gid %d: not root and not in group %s", peer.pid,
              static_cast<int>(peer.uid), static_cast<int>(peer.gid), group.c_str());
    } else {
        ALOGW("[KovaBpfService] Refused client pid %d uid %d gid %d: not root, and there is no group %s", peer.pid,
              static_cast<int>(peer.uid), static_cast<int>(peer.gid), group.c_str());
    }
    return false;
}
#endif

void KovaBpfService::onClientLibClose(IpcConnection& connection) {
    // The queue goes with the connection, unsent packages and all; no producer finds it after this.
    EventManager::GetInstance()->drop(connection);
}

void KovaBpfService::notifyClientEventReady(const std::vector<int>& fds) {
    if (!ipcManager) return;
    for (const int fd : fds) ipcManager->notifyNeedWriteData(fd);
}

void KovaBpfService::sendClientEventsNow(const std::vector<int>& fds) {
    if (!ipcManager) return;
    for (const int fd : fds) ipcManager->sendNowOrNotify(fd);
}

void KovaBpfService::notifyTimeInStateMonitor() {
    std::lock_guard<std::mutex> lock(timeInStateReadyLock);
    timeInStateReady = true;
    timeInStateReadyCondition.notify_one();
}

}  // namespace Kova::Bpf
