#include "service/kova_bpf_event_manager.h"

#include <string.h>

#include <algorithm>
#include <set>
#include <thread>

#include "utils/kova_bpf_time.h"

namespace Kova::Bpf {

std::mutex EventManager::kovaRawEventManagerLock;
std::atomic<EventManager*> EventManager::instance{nullptr};

EventManager* EventManager::GetInstance() {
    if (EventManager* existing = instance.load(std::memory_order_acquire)) return existing;
    std::lock_guard<std::mutex> lock(kovaRawEventManagerLock);
    if (instance.load(std::memory_order_relaxed) == nullptr) {
        instance.store(new EventManager(), std::memory_order_release);
    }
    return instance.load(std::memory_order_relaxed);
}

void EventManager::subscribe(const std::shared_ptr<IpcConnection>& connection, int32_t id) {
    std::lock_guard<std::mutex> lock(kovaRawEventManagerLock);
    std::vector<int32_t>& ids = connection->clientEventIds;
    if (std::find(ids.begin(), ids.end(), id) != ids.end()) return;
    ids.push_back(id);
    eventClientFds[id].push_back(connection);
}

void EventManager::removeSubscriber(const IpcConnection& connection, int32_t id) {
    const auto found = eventClientFds.find(id);
    if (found == eventClientFds.end()) return;
    std::erase_if(found->second, [&](const auto& subscriber) { return subscriber.get() == &connection; });
    if (found->second.empty()) eventClientFds.erase(found);
}

void EventManager::unsubscribe(IpcConnection& connection, int32_t id) {
    std::lock_guard<std::mutex> lock(kovaRawEventManagerLock);
    std::erase(connection.clientEventIds, id);
    removeSubscriber(connection, id);
}

void EventManager::drop(IpcConnection& connection) {
    std::lock_guard<std::mutex> lock(kovaRawEventManagerLock);
    for (const int32_t id : connection.clientEventIds) removeSubscriber(connection, id);
    connection.clientEventIds.clear();
}

std::vector<int> EventManager::subscribers(int32_t id) const {
    std::lock_guard<std::mutex> lock(kovaRawEventManagerLock);
    std::vector<int> fds;
    const auto found = eventClientFds.find(id);
    if (found != eventClientFds.end()) {
        for (const auto& connection : found->second) fds.push_back(connection->fd);
    }
    return fds;
}

size_t EventManager::subscribedConnections() const {
    std::lock_guard<std::mutex> lock(kovaRawEventManagerLock);
    std::set<const IpcConnection*> distinct;
    for (const auto& [id, connections] : eventClientFds) {
        for (const auto& connection : connections) distinct.insert(connection.get());
    }
    return distinct.size();
}

namespace {

// Set by EnablePacingOnThisThread; the crowded subscribers AppendEvent found on this thread.
thread_local bool pacing = false;
thread_local std::vector<std::shared_ptr<IpcConnection>> crowded;
// Set by DeferSendsOnThisThread; the connections whose queue an append on this thread started since
// the last SendDeferred.
thread_local bool deferring = false;
thread_local std::vector<int> deferred;

}  // namespace

void EventManager::EnablePacingOnThisThread() { pacing = true; }

void EventManager::DeferSendsOnThisThread() { deferring = true; }

void EventManager::SendDeferred() {
    if (deferred.empty()) return;
    if (sendClients) sendClients(deferred);
    deferred.clear();
}

// Whether the loop found the peer's socket at most half full at a send within kPeerStallNs.
bool EventManager::PeerKeepsUp(const IpcConnection& connection) {
    const int64_t now = static_cast<int64_t>(GetSystemBootNanosencondsTime());
    return now - connection.lastKeptUpNs.load(std::memory_order_relaxed) < kPeerStallNs;
}

void EventManager::Pace() {
    if (crowded.empty()) return;
    const auto deadline = std::chrono::steady_clock::now() + kPaceLimit;
    for (const auto& connection : crowded) {
        while (connection->ipcPackageManager.getIpcPackageCount() > IpcPackageManager::kTrimTarget &&
               PeerKeepsUp(*connection) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }
    crowded.clear();
}

void EventManager::AppendEvent(const char* data, size_t size) {
    int32_t id = 0;
    if (size < sizeof(id)) return;
    memcpy(&id, data, sizeof(id));
    // Reused per producer thread, so that fan-out does not allocate once warmed up.
    thread_local std::vector<int> subscribers;
    {
        std::lock_guard<std::mutex> lock(kovaRawEventManagerLock);
        const auto found = eventClientFds.find(id);
        if (found == eventClientFds.end()) return;
        subscribers.clear();
        for (const auto& connection : found->second) {
            IpcPackageManager& queue = connection->ipcPackageManager;
            const bool started = queue.appendEvent(data, size);
            const size_t queued = queue.getIpcPackageCount();
            if (!deferring) {
                if (started) subscribers.push_back(connection->fd);
            } else if (started) {
                if (std::find(deferred.begin(), deferred.end(), connection->fd) == deferred.end()) {
                    deferred.push_back(connection->fd);
                }
            } else if (queued % kDeferLimit == 0) {
                subscribers.push_back(connection->fd);
            }
            if (pacing && queued >= kPaceMark && PeerKeepsUp(*connection) &&
                std::find(crowded.begin(), crowded.end(), connection) == crowded.end()) {
                crowded.push_back(connection);
            }
        }
    }
    if (notifyClients && !subscribers.empty()) notifyClients(subscribers);
}

}  // namespace Kova::Bpf
