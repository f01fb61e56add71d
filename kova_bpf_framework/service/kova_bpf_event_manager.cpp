#include "service/kova_bpf_event_manager.h"

#include <android-base/logging.h>
#include <string.h>

#include <algorithm>

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

namespace {

// Removes `value` from the list under `key`, and the list once it is empty.
template <typename Key, typename Value>
void EraseFrom(std::map<Key, std::vector<Value>>* table, Key key, Value value) {
    const auto found = table->find(key);
    if (found == table->end()) return;
    std::erase(found->second, value);
    if (found->second.empty()) table->erase(found);
}

}  // namespace

void EventManager::subscribe(int fd, int32_t id) {
    std::lock_guard<std::mutex> lock(kovaRawEventManagerLock);
    std::vector<int32_t>& ids = clientEventIds[fd];
    if (std::find(ids.begin(), ids.end(), id) != ids.end()) return;
    ids.push_back(id);
    eventClientFds[id].push_back(fd);
}

void EventManager::unsubscribe(int fd, int32_t id) {
    std::lock_guard<std::mutex> lock(kovaRawEventManagerLock);
    EraseFrom(&eventClientFds, id, fd);
    EraseFrom(&clientEventIds, fd, id);
}

void EventManager::dropLocked(int fd) {
    const auto found = clientEventIds.find(fd);
    if (found == clientEventIds.end()) return;
    for (const int32_t id : found->second) EraseFrom(&eventClientFds, id, fd);
    clientEventIds.erase(found);
}

std::vector<int> EventManager::subscribers(int32_t id) const {
    std::lock_guard<std::mutex> lock(kovaRawEventManagerLock);
    const auto found = eventClientFds.find(id);
    return found == eventClientFds.end() ? std::vector<int>{} : found->second;
}

size_t EventManager::subscribedConnections() const {
    std::lock_guard<std::mutex> lock(kovaRawEventManagerLock);
    return clientEventIds.size();
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
        if (found == eventClientFds.end() || found->second.empty()) return;
        for (const int fd : found->second) {
            const auto queue = clientIpcPackageManagers->find(fd);
            if (queue == clientIpcPackageManagers->end()) LOG(FATAL) << "map::at:  key not found";
            queue->second.buildAndAppendSecondIpcPackage(PACKAGE_TYPE_EVENT, data, size);
        }
        subscribers.assign(found->second.begin(), found->second.end());
    }
    if (notifyClients) notifyClients(subscribers);
}

}  // namespace Kova::Bpf
