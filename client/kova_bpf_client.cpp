// KovaBpfClient: the client role of the service's socket protocol, on the project's IPC classes. A
// client-role UnixIpcManager owns the link (an IpcConnection, whose queue holds the outgoing requests)
// and the IPC thread; IpcPackageHandler routes received packages; IpcReqCallBackManager matches
// responses to requests by id.

#include "kova/bpf_client.h"

#define LOG_TAG "KovaBpfClient"

#include <android-base/thread_annotations.h>
#include <log/log.h>
#include <stddef.h>
#include <string.h>
#include <time.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include "protocol/kova_bpf_protocol.h"
#include "ipc/kova_bpf_ipc_helper.h"
#include "ipc/kova_bpf_ipc_package_handler.h"
#include "ipc/kova_bpf_ipc_package_manager.h"
#include "ipc/kova_bpf_ipc_req_callback_manager.h"
#include "utils/kova_bpf_paths.h"
#include "ipc/kova_bpf_unix_ipc_manager.h"

namespace Kova::Client {
namespace {

constexpr int kEpollSize = 2;
constexpr int kMaxEvents = 8;
// The wait before a link follows one the service closed unanswered, as between failed connects.
constexpr auto kUnansweredRetryDelay = std::chrono::seconds(5);

using Kova::Bpf::KOVA_IPC_BUFFER_SIZE;
using Kova::Bpf::REQ_SUBSCRIBE_EVENT;
using Kova::Bpf::REQ_TIME_IN_STATE_A;
using Kova::Bpf::REQ_UNSUBSCRIBE_EVENT;

uint64_t MonotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

// The time stamp (CLOCK_MONOTONIC ns) of time-in-state report `id`; 0 when it carries none (the service
// could not read or reset the times) or is too short to hold one.
uint64_t ReportTimestamp(uint32_t id, std::string_view record) {
    using namespace Kova::Bpf;
    static_assert(offsetof(KovaCpuTimeReportHeader, timestamp) == offsetof(KovaTotalTimeReportHeader, timestamp));
    const size_t at = id >= kTotalTimeReset ? offsetof(KovaTimeResetReport, timestamp)
                                            : offsetof(KovaTotalTimeReportHeader, timestamp);
    uint64_t stamp = 0;
    if (record.size() >= at + sizeof(stamp)) memcpy(&stamp, record.data() + at, sizeof(stamp));
    return stamp;
}

}  // namespace

const char* RequestStatusName(RequestStatus status) {
    switch (status) {
        case RequestStatus::kDone: return "done";
        case RequestStatus::kRefused: return "refused";
        case RequestStatus::kConnectionLost: return "connection lost";
        case RequestStatus::kStopped: return "stopped";
    }
    return "unknown";
}

struct KovaBpfClient::Impl {
    enum class SubscriptionState { kWaiting, kActive, kRefused };

    struct Subscription {
        // False while only report waits hold the subscription: it is not the user's, and ends with them.
        bool own = true;
        std::shared_ptr<const EventCallback> callback;  // null: count only
        // The latest request 51 sent for it; only that one's answer counts, since an unsubscribe and a
        // subscribe may have followed an earlier one.
        std::optional<uint32_t> requestId;
        SubscriptionState state = SubscriptionState::kWaiting;
    };

    struct PendingRequest {
        int32_t type = 0;
        uint32_t eventId = 0;         // for 51 and 52
        RequestCallback done;         // for 53 from requestTimeInState()
        std::optional<uint64_t> wait;  // for 53 from requestReport()
    };

    // A requestReport() waiting for its report.
    struct ReportWait {
        uint32_t reportId = 0;
        ReportCallback callback;
        // When the request was made. Reports are told apart by their time stamps rather than by arriving
        // after the answer: the service may send the report built for a request ahead of its answer.
        uint64_t askedNs = 0;
    };

    // A finished request or wait whose callback is still to be called, outside the lock.
    struct Completion {
        RequestCallback done;
        RequestStatus status;
        ReportCallback report;  // instead of `done`, with an empty record
        uint32_t reportId = 0;
    };

    explicit Impl(ClientOptions options)
        : socketName(options.socketName.empty() ? Kova::Bpf::KovaPath(Kova::Bpf::KOVA_SOCKET_NAME)
                                                : std::move(options.socketName)),
          connectionCallback(std::move(options.connectionCallback)),
          packageHandler({{PACKAGE_TYPE_RESPONSE, [this](int, char* payload, size_t size) { return onResponse(payload, size); }},
                          {PACKAGE_TYPE_EVENT, [this](int, char* payload, size_t size) { return onEvent(payload, size); }}}) {}

    // IPC handlers, all on the IPC thread.
    int onConnected(int fd);
    // The link `fd` is gone (or, with nullopt, whatever link there was): ends its requests and tells the
    // user, once per link.
    void linkLost(std::optional<int> fd);
    int onReadable(int fd, BufferState* readBuffer);
    int onWritable(int fd, BufferState* writeBuffer);
    int onResponse(const char* payload, size_t size);
    int onEvent(const char* payload, size_t size);

    // Forgets the link (if `fd` is it): its queue, every request waiting on it and every report wait,
    // whose callbacks are returned, and the subscriptions only the waits held.
    std::vector<Completion> dropLinkLocked(std::optional<int> fd, RequestStatus status) REQUIRES(lock);
    // Queues a request on the current link and arms its write event. REQUIRES: a link.
    uint32_t sendLocked(int32_t type, const std::vector<uint32_t>& words, PendingRequest pending) REQUIRES(lock);
    bool allSubscribedLocked() const REQUIRES(lock);
    // Ends every wait for `reportId` with `status`, adding their callbacks to `completions`.
    void endWaitsLocked(uint32_t reportId, RequestStatus status, std::vector<Completion>* completions)
            REQUIRES(lock);
    // Ends the subscription the waits for `reportId` held, once none is left and the user has none.
    void releaseLocked(uint32_t reportId) REQUIRES(lock);
    static void complete(std::vector<Completion> completions);

    // Constant after construction.
    const std::string socketName;
    const std::function<void(bool)> connectionCallback;
    IpcPackageHandler packageHandler;  // IPC thread only
    IpcReqCallBackManager requestCallbacks;

    // IPC thread only: answers collected by the request-callback manager during one response, handled
    // once that manager's lock is released.
    std::vector<std::pair<uint32_t, int32_t>> answered;
    std::atomic<std::thread::id> ipcThread{};

    // Serialises start() and stop().
    std::mutex lifecycleLock;

    mutable std::mutex lock;
    mutable std::condition_variable changed;  // link made, subscription confirmed or refused
    // `ipc` is null while stopped; set to null before the manager is destroyed, so that a callback still
    // running never reaches a manager being torn down.
    std::unique_ptr<UnixIpcManager> ipc GUARDED_BY(lock);
    std::shared_ptr<IpcConnection> link GUARDED_BY(lock);  // null while there is none
    bool linkAnswered GUARDED_BY(lock) = false;            // bytes came on the current link
    // Set by stop() once the manager knows it stops, so that a wait before reconnecting, once ended,
    // makes no new link.
    bool stopping GUARDED_BY(lock) = false;
    int linkFd() const REQUIRES(lock) { return link ? link->fd : -1; }
    std::map<uint32_t, Subscription> subscriptions GUARDED_BY(lock);
    std::map<uint32_t, PendingRequest> pending GUARDED_BY(lock);  // by request id
    std::map<uint64_t, ReportWait> waits GUARDED_BY(lock);        // by number, in the order asked
    uint64_t nextWait GUARDED_BY(lock) = 0;
    ClientStats stats GUARDED_BY(lock);
};

std::vector<KovaBpfClient::Impl::Completion> KovaBpfClient::Impl::dropLinkLocked(std::optional<int> fd,
                                                                                 RequestStatus status) {
    std::vector<Completion> completions;
    if (fd && *fd != linkFd()) return completions;
    link.reset();
    for (auto& [reqId, request] : pending) {
        requestCallbacks.delIpcReq(reqId);
        if (request.done) completions.push_back({std::move(request.done), status, {}, 0});
    }
    pending.clear();
    for (auto& [number, wait] : waits) {
        completions.push_back({{}, status, std::move(wait.callback), wait.reportId});
    }
    waits.clear();
    // What only the waits held is not renewed on the next link.
    std::erase_if(subscriptions, [](const auto& entry) { return !entry.second.own; });
    for (auto& [id, subscription] : subscriptions) {
        subscription.requestId.reset();
        subscription.state = SubscriptionState::kWaiting;
    }
    return completions;
}

void KovaBpfClient::Impl::complete(std::vector<Completion> completions) {
    for (Completion& completion : completions) {
        if (completion.report) {
            completion.report(completion.status, ClientEvent{completion.reportId, {}});
        } else {
            completion.done(completion.status);
        }
    }
}

void KovaBpfClient::Impl::endWaitsLocked(uint32_t reportId, RequestStatus status, std::vector<Completion>* completions) {
    for (auto wait = waits.begin(); wait != waits.end();) {
        if (wait->second.reportId != reportId) {
            ++wait;
            continue;
        }
        completions->push_back({{}, status, std::move(wait->second.callback), reportId});
        wait = waits.erase(wait);
    }
}

void KovaBpfClient::Impl::releaseLocked(uint32_t reportId) {
    const auto subscription = subscriptions.find(reportId);
    if (subscription == subscriptions.end() || subscription->second.own) return;
    for (const auto& [number, wait] : waits) {
        if (wait.reportId == reportId) return;
    }
    subscriptions.erase(subscription);
    if (linkFd() >= 0) sendLocked(REQ_UNSUBSCRIBE_EVENT, {reportId}, PendingRequest{REQ_UNSUBSCRIBE_EVENT, reportId, {}, {}});
}

uint32_t KovaBpfClient::Impl::sendLocked(int32_t type, const std::vector<uint32_t>& words, PendingRequest request) {
    const uint32_t reqId = requestCallbacks.getReqId();
    // Runs under the manager's own lock, so it only notes the answer; onResponse acts on it.
    requestCallbacks.addIpcReqCallBack(reqId, [this](uint32_t id, int32_t result, const char*, uint32_t) {
        answered.emplace_back(id, result);
        return 0;
    });
    pending[reqId] = std::move(request);
    const KovaReqIpcPackage package{reqId, type, static_cast<uint32_t>(words.size() * sizeof(uint32_t)),
                                    reinterpret_cast<const char*>(words.data())};
    link->ipcPackageManager.appendReqIpcPackage(&package);
    if (ipc) ipc->notifyNeedWriteData(linkFd());
    return reqId;
}

bool KovaBpfClient::Impl::allSubscribedLocked() const {
    if (linkFd() < 0) return false;
    for (const auto& [id, subscription] : subscriptions) {
        if (subscription.own && subscription.state != SubscriptionState::kActive) return false;
    }
    return true;
}

void KovaBpfClient::Impl::linkLost(std::optional<int> fd) {
    std::vector<Completion> lost;
    bool unanswered = false;
    {
        std::lock_guard<std::mutex> guard(lock);
        if (linkFd() < 0 || (fd && *fd != linkFd())) return;
        unanswered = !linkAnswered;
        if (unanswered) ++stats.linksUnanswered;
        lost = dropLinkLocked(fd, RequestStatus::kConnectionLost);
    }
    changed.notify_all();
    if (unanswered) {
        ALOGW("[KovaBpfClient] Connection to %s closed before the service answered, reconnecting in %lld s",
              socketName.c_str(), static_cast<long long>(kUnansweredRetryDelay.count()));
    } else {
        ALOGW("[KovaBpfClient] Connection to %s closed, reconnecting", socketName.c_str());
    }
    complete(std::move(lost));
    if (connectionCallback) connectionCallback(false);
    if (!unanswered) return;
    // The manager connects again as soon as this returns, and a service that refuses this user would be
    // asked again at once, without end. stop() ends the wait.
    std::unique_lock<std::mutex> guard(lock);
    changed.wait_for(guard, kUnansweredRetryDelay, [this]() REQUIRES(lock) { return stopping; });
}

int KovaBpfClient::Impl::onConnected(int fd) {
    ipcThread.store(std::this_thread::get_id());
    {
        std::lock_guard<std::mutex> guard(lock);
        if (!ipc) return 0;  // stopping
        link = ipc->connection(fd);
        linkAnswered = false;
        ++stats.connections;
        for (auto& [id, subscription] : subscriptions) {
            subscription.requestId = sendLocked(REQ_SUBSCRIBE_EVENT, {id}, PendingRequest{REQ_SUBSCRIBE_EVENT, id, {}, {}});
        }
    }
    changed.notify_all();
    ALOGI("[KovaBpfClient] Connected to %s, fd: %d", socketName.c_str(), fd);
    if (connectionCallback) connectionCallback(true);
    return 0;
}

int KovaBpfClient::Impl::onReadable(int fd, BufferState* readBuffer) {
    {
        // The service has sent something on this link: it was not refused.
        std::lock_guard<std::mutex> guard(lock);
        if (fd == linkFd()) linkAnswered = true;
    }
    while (true) {
        const IpcFrame frame = DecodeIpcFrame(readBuffer->buffer.data() + readBuffer->bufferCursor,
                                              readBuffer->bufferDataCursor - readBuffer->bufferCursor,
                                              readBuffer->buffer.size());
        // A frame that could never fit, or inner sizes that disagree, mean the stream is damaged and
        // cannot be resynchronised: give up the link (the manager closes it and connects again) rather
        // than take the client's process down or write to the service's error log.
        if (frame.damage == IpcFrame::kTooLarge) {
            ALOGE("[KovaBpfClient] Damaged package from the service: frame size %llu, buffer %zu",
                  static_cast<unsigned long long>(frame.announced - ipcPackageHeaderSize), readBuffer->buffer.size());
            linkLost(fd);
            return -1;
        }
        if (frame.damage == IpcFrame::kInnerSizeDisagrees) {
            ALOGE("[KovaBpfClient] Damaged package from the service: frame size %zu does not match its header",
                  frame.size);
            linkLost(fd);
            return -1;
        }
        if (frame.status != IpcFrame::kFrame) break;
        char* body = readBuffer->buffer.data() + readBuffer->bufferCursor + frame.offset;
        readBuffer->bufferCursor += frame.offset + frame.size;
        packageHandler.handleSecondIpcPackage(fd, body, frame.size);
    }
    return 0;
}

int KovaBpfClient::Impl::onWritable(int fd, BufferState* writeBuffer) {
    std::lock_guard<std::mutex> guard(lock);
    if (!link || fd != link->fd) return 0;
    while (link->ipcPackageManager.fillNextIpcPackageToBuffer(writeBuffer)) {
    }
    return 0;
}

int KovaBpfClient::Impl::onResponse(const char* payload, size_t size) {
    std::vector<Completion> completions;
    bool subscriptionsChanged = false;
    {
        // Held across the look-up, so that stop() cannot forget the request in between: the answer to
        // a request of a stopped client is dropped quietly instead of logged as unknown.
        std::lock_guard<std::mutex> guard(lock);
        if (linkFd() < 0) return 0;
        answered.clear();
        if (!requestCallbacks.handleReqCallBack(payload, size)) return 0;  // logged by the manager
        for (const auto& [reqId, result] : answered) {
            const auto found = pending.find(reqId);
            if (found == pending.end()) continue;
            PendingRequest request = std::move(found->second);
            pending.erase(found);
            if (request.type == REQ_SUBSCRIBE_EVENT) {
                const auto subscription = subscriptions.find(request.eventId);
                if (subscription == subscriptions.end() || subscription->second.requestId != reqId) continue;
                subscription->second.state = result == 0 ? SubscriptionState::kActive : SubscriptionState::kRefused;
                if (result != 0) {
                    ALOGE("[KovaBpfClient] The service refused a subscription to %u", request.eventId);
                    // No report of the id can reach a wait now.
                    endWaitsLocked(request.eventId, RequestStatus::kRefused, &completions);
                    releaseLocked(request.eventId);
                }
                subscriptionsChanged = true;
            } else if (request.wait) {
                const auto wait = waits.find(*request.wait);
                // Already ended, by its report or by a refused subscription.
                if (wait == waits.end() || result == 0) continue;
                completions.push_back({{}, RequestStatus::kRefused, std::move(wait->second.callback), request.eventId});
                waits.erase(wait);
                releaseLocked(request.eventId);
            } else if (request.done) {
                completions.push_back({std::move(request.done), result == 0 ? RequestStatus::kDone : RequestStatus::kRefused, {}, 0});
            }
        }
    }
    if (subscriptionsChanged) changed.notify_all();
    complete(std::move(completions));
    return 0;
}

int KovaBpfClient::Impl::onEvent(const char* payload, size_t size) {
    const std::optional<uint32_t> id = ClientEventIdOf(std::string_view(payload, size));
    std::shared_ptr<const EventCallback> callback;
    std::vector<ReportCallback> reportCallbacks;
    {
        std::lock_guard<std::mutex> guard(lock);
        ++stats.eventsReceived;
        if (!id) {
            ++stats.eventsUnclaimed;
            return 0;
        }
        ++stats.eventsById[*id];
        const auto subscription = subscriptions.find(*id);
        const bool own = subscription != subscriptions.end() && subscription->second.own;
        if (own) callback = subscription->second.callback;
        const uint64_t stamp = ReportTimestamp(*id, std::string_view(payload, size));
        for (auto wait = waits.begin(); wait != waits.end();) {
            // A report without a time stamp (a failure) cannot be dated, and counts as current.
            if (wait->second.reportId != *id || (stamp != 0 && stamp < wait->second.askedNs)) {
                ++wait;
                continue;
            }
            reportCallbacks.push_back(std::move(wait->second.callback));
            wait = waits.erase(wait);
        }
        if (!reportCallbacks.empty()) releaseLocked(*id);
        if (callback || !reportCallbacks.empty()) ++stats.eventsDelivered;
        if (!own && reportCallbacks.empty()) ++stats.eventsUnclaimed;
    }
    const ClientEvent event{*id, std::string_view(payload, size)};
    if (callback) (*callback)(event);
    for (const ReportCallback& report : reportCallbacks) report(RequestStatus::kDone, event);
    return 0;
}

KovaBpfClient::KovaBpfClient(ClientOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

KovaBpfClient::~KovaBpfClient() { stop(); }

bool KovaBpfClient::start() {
    std::lock_guard<std::mutex> lifecycle(impl_->lifecycleLock);
    std::lock_guard<std::mutex> guard(impl_->lock);
    if (impl_->ipc) return false;
    impl_->stopping = false;
    IpcHandlerState handlers;
    handlers.compactBeforeRead = true;
    handlers.closeOnFailure = true;
    Impl* impl = impl_.get();
    handlers.readHandler = [impl](int fd, BufferState* buffer) { return impl->onReadable(fd, buffer); };
    handlers.writeHandler = [impl](int fd, BufferState* buffer) { return impl->onWritable(fd, buffer); };
    handlers.connectionHandler = [impl](int fd) { return impl->onConnected(fd); };
    // However the link ends (the service hung up, a receive failed, the stream was damaged), before the
    // manager connects again.
    handlers.releaseHandler = [impl](IpcConnection& link) { impl->linkLost(link.fd); };
    impl_->ipc = UnixIpcManager::Create(false, KOVA_IPC_BUFFER_SIZE, impl_->socketName, std::move(handlers),
                                        "KovaBpfClient", std::nullopt, kEpollSize, kMaxEvents);
    return impl_->ipc && impl_->ipc->start();
}

bool KovaBpfClient::stop() {
    if (impl_->ipcThread.load() == std::this_thread::get_id()) {
        ALOGE("[KovaBpfClient] stop() called from a callback; the client keeps running");
        return false;
    }
    std::lock_guard<std::mutex> lifecycle(impl_->lifecycleLock);
    std::unique_ptr<UnixIpcManager> manager;
    std::vector<Impl::Completion> stopped;
    {
        std::lock_guard<std::mutex> guard(impl_->lock);
        manager = std::move(impl_->ipc);
        stopped = impl_->dropLinkLocked(std::nullopt, RequestStatus::kStopped);
    }
    // Before the IPC thread's wait to reconnect ends (linkLost): the manager, stopped first, then makes
    // no new link.
    if (manager) manager->stop();
    {
        std::lock_guard<std::mutex> guard(impl_->lock);
        impl_->stopping = true;
    }
    impl_->changed.notify_all();
    // Outside the lock: a callback still running may need it before the IPC thread can end.
    manager.reset();
    impl_->ipcThread.store(std::thread::id());
    Impl::complete(std::move(stopped));
    return true;
}

bool KovaBpfClient::connected() const {
    std::lock_guard<std::mutex> guard(impl_->lock);
    return impl_->linkFd() >= 0;
}

bool KovaBpfClient::waitUntilConnected(std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> guard(impl_->lock);
    return impl_->changed.wait_for(guard, timeout, [this]() REQUIRES(impl_->lock) { return impl_->linkFd() >= 0; });
}

bool KovaBpfClient::subscribe(uint32_t eventId, EventCallback callback) {
    std::lock_guard<std::mutex> guard(impl_->lock);
    auto [entry, added] = impl_->subscriptions.try_emplace(eventId);
    entry->second.callback = callback ? std::make_shared<const EventCallback>(std::move(callback)) : nullptr;
    if (!entry->second.own) {
        // Held for report waits until now: already asked for on this link.
        entry->second.own = true;
        return true;
    }
    if (added && impl_->linkFd() >= 0) {
        entry->second.requestId = impl_->sendLocked(REQ_SUBSCRIBE_EVENT, {eventId},
                                                    Impl::PendingRequest{REQ_SUBSCRIBE_EVENT, eventId, {}, {}});
    }
    return added;
}

bool KovaBpfClient::unsubscribe(uint32_t eventId) {
    bool confirmedAll = false;
    {
        std::lock_guard<std::mutex> guard(impl_->lock);
        const auto entry = impl_->subscriptions.find(eventId);
        if (entry == impl_->subscriptions.end() || !entry->second.own) return false;
        // Report waits still need it: it becomes theirs and ends with them.
        entry->second.own = false;
        entry->second.callback.reset();
        impl_->releaseLocked(eventId);
        confirmedAll = impl_->allSubscribedLocked();
    }
    if (confirmedAll) impl_->changed.notify_all();
    return true;
}

bool KovaBpfClient::waitUntilSubscribed(std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> guard(impl_->lock);
    bool refused = false;
    const bool done = impl_->changed.wait_for(guard, timeout, [&]() REQUIRES(impl_->lock) {
        for (const auto& [id, subscription] : impl_->subscriptions) {
            if (subscription.own && subscription.state == Impl::SubscriptionState::kRefused) refused = true;
        }
        return refused || impl_->allSubscribedLocked();
    });
    return done && !refused;
}

std::vector<uint32_t> KovaBpfClient::subscriptions() const {
    std::lock_guard<std::mutex> guard(impl_->lock);
    std::vector<uint32_t> ids;
    for (const auto& [id, subscription] : impl_->subscriptions) {
        if (subscription.own) ids.push_back(id);
    }
    return ids;
}

bool KovaBpfClient::requestTimeInState(const std::vector<uint32_t>& reportIds, RequestCallback done) {
    if (reportIds.empty()) return false;
    for (const uint32_t id : reportIds) {
        if (id < kTotalTimeInState || id > kThreadTimeReset) {
            ALOGE("[KovaBpfClient] %u is not a time-in-state report id (50005 to 50010)", id);
            return false;
        }
    }
    std::lock_guard<std::mutex> guard(impl_->lock);
    if (impl_->linkFd() < 0) return false;
    impl_->sendLocked(REQ_TIME_IN_STATE_A, reportIds, Impl::PendingRequest{REQ_TIME_IN_STATE_A, 0, std::move(done), {}});
    return true;
}

bool KovaBpfClient::requestReport(uint32_t reportId, ReportCallback callback) {
    if (reportId < kTotalTimeInState || reportId > kThreadTimeReset) {
        ALOGE("[KovaBpfClient] %u is not a time-in-state report id (50005 to 50010)", reportId);
        return false;
    }
    if (!callback) return false;
    std::lock_guard<std::mutex> guard(impl_->lock);
    if (impl_->linkFd() < 0) return false;
    const uint64_t number = impl_->nextWait++;
    impl_->waits[number] = Impl::ReportWait{reportId, std::move(callback), MonotonicNs()};
    // Sent before the request on the same link, so the service handles the subscription first and the
    // report cannot miss it.
    auto [subscription, added] = impl_->subscriptions.try_emplace(reportId);
    if (added) subscription->second.own = false;
    if (added || subscription->second.state == Impl::SubscriptionState::kRefused) {
        // A refused subscription of the user's is asked for once more: the wait needs it.
        subscription->second.state = Impl::SubscriptionState::kWaiting;
        subscription->second.requestId = impl_->sendLocked(REQ_SUBSCRIBE_EVENT, {reportId},
                                                           Impl::PendingRequest{REQ_SUBSCRIBE_EVENT, reportId, {}, {}});
    }
    impl_->sendLocked(REQ_TIME_IN_STATE_A, {reportId}, Impl::PendingRequest{REQ_TIME_IN_STATE_A, reportId, {}, number});
    return true;
}

ClientStats KovaBpfClient::stats() const {
    std::lock_guard<std::mutex> guard(impl_->lock);
    return impl_->stats;
}

const std::string& KovaBpfClient::socketName() const { return impl_->socketName; }

}  // namespace Kova::Client
