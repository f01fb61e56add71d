// EventManager: fans client events and raw records out to the connections subscribed to their id.
//
// Producers (the two ring-buffer pumps, the task handlers, the time-in-state reports) call
// AppendEvent() with a record whose first four bytes are its id; the record is copied into the outgoing
// queue of every subscribed connection before AppendEvent() returns, and then each connection's write
// event is armed so the IPC loop sends it (or, on a monitor, the monitor sends it after its batch). The
// client protocol changes the subscriptions on the IPC loop thread, through subscribe(), unsubscribe()
// and drop(); a connection's release drops all of its own.
//
// Locking: the tables are guarded by kovaRawEventManagerLock, which is taken before a client queue's
// mutex; write events are armed only after it is released.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include <android-base/thread_annotations.h>

#include "ipc/kova_bpf_ipc_connection.h"

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
    void AppendEvent(const char* data, size_t size) EXCLUDES(kovaRawEventManagerLock);

    // Pacing, for the ring-buffer monitors. A monitor drains its ring as fast as it can; when the loop
    // sends slower than that, the queue of a client that reads everything would still grow to its bound
    // and be trimmed. A thread that enables pacing notes, in AppendEvent, each subscriber whose queue
    // holds kPaceMark packages or more while its peer keeps up (within kPeerStallNs the loop sent to it
    // and found its socket at most half full); Pace() then waits until those queues are back at
    // kTrimTarget, the peer stops keeping up, or kPaceLimit passes. The ring fills meanwhile, so what
    // is lost is lost where the kernel counts it, and a peer that reads slowly or not at all is
    // trimmed as before, without holding the others back.
    static constexpr size_t kPaceMark = 8000;
    static constexpr int64_t kPeerStallNs = 10'000'000;
    static constexpr std::chrono::milliseconds kPaceLimit{20};
    static void EnablePacingOnThisThread();
    void Pace();

    // Deferred sends, for the ring-buffer monitors: a thread that defers does not arm the write event of
    // a connection whose queue its append started, but notes the connection, and SendDeferred(), after
    // the thread's batch of records, sends to each on the calling thread (sendClients). A record
    // then reaches a client without a hop through the IPC loop, and a burst in one send. Every
    // kDeferLimit packages a queue holds, the write event is armed all the same, so that a long batch
    // does not wait for its end.
    static constexpr size_t kDeferLimit = 256;
    static void DeferSendsOnThisThread();
    void SendDeferred();

    // Subscribes `connection` to `id`, after its earlier subscriptions; subscribing again changes
    // nothing. Takes the lock.
    void subscribe(const std::shared_ptr<IpcConnection>& connection, int32_t id) EXCLUDES(kovaRawEventManagerLock);
    // Ends that subscription, if there is one. Takes the lock.
    void unsubscribe(IpcConnection& connection, int32_t id) EXCLUDES(kovaRawEventManagerLock);
    // Forgets every subscription of `connection`: once it returns, no producer queues anything for it.
    // Takes the lock.
    void drop(IpcConnection& connection) EXCLUDES(kovaRawEventManagerLock);

    // From the table (taking the lock): the descriptors of the connections subscribed to `id` in
    // subscription order, and how many connections have a subscription.
    std::vector<int> subscribers(int32_t id) const EXCLUDES(kovaRawEventManagerLock);
    size_t subscribedConnections() const EXCLUDES(kovaRawEventManagerLock);

    // Set by the service before any client connects; called without the lock. notifyClients arms the
    // write events of the given connections; sendClients sends to them on the calling thread.
    std::function<void(const std::vector<int>&)> notifyClients;
    std::function<void(const std::vector<int>&)> sendClients;

  private:
    EventManager() = default;
    static bool PeerKeepsUp(const IpcConnection& connection);
    // Takes `connection` off the list of `id`, and the list once it is empty.
    void removeSubscriber(const IpcConnection& connection, int32_t id) REQUIRES(kovaRawEventManagerLock);

    // The subscription table: the connections subscribed to each event id, in subscription order; no
    // empty lists. Each connection also lists its own ids (IpcConnection::clientEventIds), under the
    // same lock.
    std::map<int32_t, std::vector<std::shared_ptr<IpcConnection>>> eventClientFds GUARDED_BY(kovaRawEventManagerLock);

    static std::atomic<EventManager*> instance;
};

}  // namespace Kova::Bpf
