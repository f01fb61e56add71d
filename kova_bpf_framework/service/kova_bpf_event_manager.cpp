#include "service/kova_bpf_event_manager.h"

#include <android-base/logging.h>
#include <string.h>

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
