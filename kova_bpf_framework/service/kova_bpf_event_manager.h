// EventManager: fans client events and raw records out to the connections subscribed to their id.
//
// Producers (the two ring-buffer pumps, the task handlers, the time-in-state reports) call
// AppendEvent() with a record whose first four bytes are its id; the record is copied into the outgoing
// queue of every subscribed connection before AppendEvent() returns, and then each connection's write
// event is armed so the IPC loop sends it. The client protocol changes the subscriptions on the IPC loop
// thread, through subscribe(), unsubscribe() and dropLocked().
//
// Locking: the tables are guarded by kovaRawEventManagerLock, which is taken before a client queue's
// mutex; write events are armed only after it is released.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include "ipc/kova_bpf_ipc_package_manager.h"

namespace Kova::Bpf {

class EventManager {
  public:
    static std::mutex kovaRawEventManagerLock;

    // The singleton, created under kovaRawEventManagerLock when absent and never destroyed. Does not
    // take the lock once the singleton exists.
    static EventManager* GetInstance();

    // Queues a copy of `data` as a type-3 package for every connection subscribed to its id (its first
    // signed 32-bit word), in subscription order, then arms their write events. Records shorter than
    // an id go nowhere. Safe from any thread; must not be called with kovaRawEventManagerLock held.
    void AppendEvent(const char* data, size_t size);

    // Subscribes connection `fd` to `id`, after its earlier subscriptions; subscribing again changes
    // nothing. Takes the lock.
    void subscribe(int fd, int32_t id);
    // Ends that subscription, if there is one. Takes the lock.
    void unsubscribe(int fd, int32_t id);
    // Forgets every subscription of `fd`. REQUIRES: kovaRawEventManagerLock held, so that the caller
    // drops the connection's queue in the same step and no producer finds one without the other.
    void dropLocked(int fd);

    // From the tables (taking the lock): the connections subscribed to `id` in subscription order, and
    // how many connections have a subscription.
    std::vector<int> subscribers(int32_t id) const;
    size_t subscribedConnections() const;

    // The service's table of client queues by socket fd. A subscriber without a queue is a fatal error.
    std::map<int, IpcPackageManager>* clientIpcPackageManagers = nullptr;
    // Arms the write events of the given connections; set by the service. Called without the lock.
    std::function<void(const std::vector<int>&)> notifyClients;

  private:
    EventManager() = default;

    // Event ids by client fd, in subscription order, without duplicates; no empty lists.
    std::map<int, std::vector<int32_t>> clientEventIds;
    // Client fds by event id, in subscription order; no empty lists.
    std::map<int32_t, std::vector<int>> eventClientFds;

    static std::atomic<EventManager*> instance;
};

}  // namespace Kova::Bpf
