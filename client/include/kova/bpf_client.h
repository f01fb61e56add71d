// libkovabpfclient: what a process uses to receive the Kova BPF service's events.
//
//   Kova::Client::KovaBpfClient client;
//   client.subscribe(Kova::Client::kTaskCreated, [](const Kova::Client::ClientEvent& event) {
//       if (auto created = Kova::Client::DecodeTaskCreated(event.record)) { ... created->pid ... }
//   });
//   client.start();                                  // connects in the background
//   client.waitUntilSubscribed(std::chrono::seconds(5));
//   ...
//   client.stop();                                   // or let the destructor do it
//
// Connection. start() connects to the service's local socket on the library's own IPC thread and keeps
// the link: when the service goes away, the client tries again every 5 seconds, for as long as it
// runs. The service forgets a connection's subscriptions when the connection closes, so after every
// reconnect the client subscribes again to everything its user asked for; events the service
// produced while there was no link are not recovered. On a host the service serves only root and the
// members of its client group (property "persist.kova_bpf.client_group", default "kovabpf") and closes
// anyone else's link at once: a link closed before the service sent anything on it counts in
// stats().linksUnanswered, and the next attempt waits 5 seconds, so that a refused client does not spin.
//
// Subscriptions. One callback per event id; subscribing again replaces the callback. An empty
// callback is allowed: the events are then only counted (stats()). Any id can be subscribed: the task
// events and reports of bpf_client_events.h, and also raw kernel record types the service forwards.
//
// Time-in-state reports (50005 to 50010). requestReport() asks for one and hands it to a callback of
// its own, subscribing for the wait when needed. requestTimeInState() only asks: its reports arrive,
// like any event, to the subscribers of the report's id, so subscribe to the ids before asking.
//
// Threads. Every callback (events, request results, connection changes) runs on the library's IPC
// thread, one at a time, in the order the service sent its packages. A callback should return
// quickly: while it runs, nothing else is received. From a callback you may subscribe, unsubscribe
// and request reports; you must not call stop() or destroy the client (it waits for that thread).
// All other member functions are safe from any thread.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kova/bpf_client_events.h"

namespace Kova::Client {

// One event as received: its id and the whole record (id included). The bytes are valid only while
// the callback runs; copy what you keep.
struct ClientEvent {
    uint32_t id = 0;
    std::string_view record;
};

using EventCallback = std::function<void(const ClientEvent& event)>;

// How a request ended.
enum class RequestStatus {
    kDone,            // the service carried it out
    kRefused,         // the service answered that it could not
    kConnectionLost,  // the link closed before the answer came
    kStopped,         // the client was stopped before the answer came
};
const char* RequestStatusName(RequestStatus status);

using RequestCallback = std::function<void(RequestStatus status)>;

// How a report request ended. With kDone, `report` is the report (the bytes valid only while the
// callback runs); otherwise it holds the asked id and an empty record.
using ReportCallback = std::function<void(RequestStatus status, const ClientEvent& report)>;

struct ClientOptions {
    // The service's socket: a file system path, tried first, or an abstract name. Empty: the system's
    // "/mnt/bpfframework/kovabpfdispatcher", which the environment variable KOVA_SOCKET_NAME replaces.
    std::string socketName;
    // Told of every link made (true) and lost (false), on the IPC thread.
    std::function<void(bool connected)> connectionCallback;
};

struct ClientStats {
    uint64_t connections = 0;      // links made; each reconnect adds one
    uint64_t linksUnanswered = 0;  // links the service closed before sending anything on them
    uint64_t eventsReceived = 0;   // event packages received
    uint64_t eventsDelivered = 0;  // events handed to a callback (a subscription's or a report wait's)
    uint64_t eventsUnclaimed = 0;  // events of an id with neither a subscription of the user's (e.g. just
                                   // unsubscribed) nor a report wait to take them, or shorter than an id
    std::map<uint32_t, uint64_t> eventsById;  // received, by id
};

class KovaBpfClient {
  public:
    explicit KovaBpfClient(ClientOptions options = {});
    // Stops the client (see stop()).
    ~KovaBpfClient();
    KovaBpfClient(const KovaBpfClient&) = delete;
    KovaBpfClient& operator=(const KovaBpfClient&) = delete;

    // Starts the IPC thread, which connects and keeps reconnecting. Returns at once; false when the
    // client already runs. A stopped client can be started again.
    bool start();
    // Closes the link and ends the IPC thread; no callback runs after it returns. Requests still
    // waiting for their answer end with kStopped, on the calling thread. Subscriptions are kept for a
    // later start(). False when called from a callback (which must not stop the client).
    bool stop();

    bool connected() const;
    // Waits until a link is up; false after `timeout`.
    bool waitUntilConnected(std::chrono::milliseconds timeout) const;

    // Subscribes to `eventId` with `callback`, now when connected and on every later link. True for a
    // new subscription, false when it only replaced the callback of an existing one.
    bool subscribe(uint32_t eventId, EventCallback callback);
    // Ends the subscription: its callback is not called again from now on. False when there was none.
    bool unsubscribe(uint32_t eventId);
    // Waits until the service has confirmed every subscription on the current link (true), or until
    // `timeout` passes or the service refuses one (false). True at once without subscriptions when
    // connected.
    bool waitUntilSubscribed(std::chrono::milliseconds timeout) const;
    // The ids subscribed to, in ascending order; not those requestReport() subscribed to for its waits.
    std::vector<uint32_t> subscriptions() const;

    // Asks the service for the time-in-state reports `reportIds` (each 50005 to 50010); `done`, when
    // given, learns how the request ended. False, without calling `done`, when an id is out of range,
    // no id is given or there is no link.
    bool requestTimeInState(const std::vector<uint32_t>& reportIds, RequestCallback done = {});

    // Asks the service for the time-in-state report `reportId` (50005 to 50010) and calls `callback`
    // once, on the IPC thread, when the wait ends:
    //   kDone            with the first report of that id, received after this call, that is no older
    //                    than the request: its time stamp (CLOCK_MONOTONIC, the service's "boot clock")
    //                    is not before this call. It may be built for this request or for another
    //                    asker's, and may arrive before the service's answer. A report without a time
    //                    stamp (0: the service could not read or reset the times) counts as current.
    //   kRefused         the service refused the request, or the subscription the wait needs
    //   kConnectionLost  the link closed first (the report is not asked for again on the next link)
    //   kStopped         stop() came first; the callback then runs on the thread calling stop()
    // Without a subscription of your own to the id, the client subscribes for the wait and ends that
    // subscription once no wait needs it; it does not show in subscriptions(). A subscription of your
    // own still receives the report too, before the wait's callback. Several waits for one id may end
    // with the same report. A service that cannot build reports (its time-in-state tracking is not
    // running) accepts the request and never sends one: bound the wait yourself, e.g. by stop().
    // False, without calling `callback`, when the id is out of range, `callback` is empty or there is
    // no link.
    bool requestReport(uint32_t reportId, ReportCallback callback);

    ClientStats stats() const;
    // The socket name in use.
    const std::string& socketName() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Kova::Client
