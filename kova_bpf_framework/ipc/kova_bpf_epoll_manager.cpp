#include "ipc/kova_bpf_epoll_manager.h"

#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "ipc/kova_bpf_ipc_helper.h"

namespace {

constexpr char kDefaultTag[] = "BpfUtils";

#define EPOLL_LOGI(...) __android_log_print(ANDROID_LOG_INFO, tag, __VA_ARGS__)
#define EPOLL_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, tag, __VA_ARGS__)

// The CPUs the calling thread may run on; an empty set when they cannot be read.
cpu_set_t CurrentThreadAffinity(const char* tag) {
    if (tag == nullptr) tag = kDefaultTag;
    cpu_set_t affinity;
    CPU_ZERO(&affinity);
    if (sched_getaffinity(gettid(), sizeof(affinity), &affinity) != 0) {
        EPOLL_LOGE("[EpollManager] init cpu affinity failed! so use default affinity. %s", strerror(errno));
        CPU_ZERO(&affinity);
    }
    return affinity;
}

}  // namespace

std::unique_ptr<EpollManager> EpollManager::Create(int epollSize, int maxEvents, std::function<int()> initFunc,
                                                   const char* tag, int timeoutMs) {
    return Create(epollSize, maxEvents, std::move(initFunc), tag, CurrentThreadAffinity(tag), timeoutMs);
}

std::unique_ptr<EpollManager> EpollManager::Create(int epollSize, int maxEvents, std::function<int()> initFunc,
                                                   const char* tag, cpu_set_t affinity, int timeoutMs) {
    std::unique_ptr<EpollManager> manager(new EpollManager(epollSize, maxEvents, std::move(initFunc),
                                                           tag != nullptr ? tag : kDefaultTag, affinity, timeoutMs));
    return manager->ready() ? std::move(manager) : nullptr;
}

EpollManager::EpollManager(int epollSize, int maxEvents, std::function<int()> initFunc, const char* tag,
                           cpu_set_t affinity, int timeoutMs)
    : affinity(affinity),
      tag(tag != nullptr ? tag : kDefaultTag),
      timeoutMs(timeoutMs),
      initFunc(std::move(initFunc)) {
    if (CPU_COUNT(&this->affinity) == 0) {
        EPOLL_LOGE("[EpollManager] cpu affinity invalid!");
        CPU_SET(0, &this->affinity);
    }
    // Close-on-exec in the same call, so that no exec can inherit it; the size is only a hint, refused
    // when not positive as epoll_create refuses it.
    if (epollSize > 0) {
        epollFd.reset(epoll_create1(EPOLL_CLOEXEC));
    } else {
        errno = EINVAL;
    }
    if (!epollFd.ok()) {
        EPOLL_LOGE("[EpollManager] Create epoll failed: %d, message: %s", errno, strerror(errno));
    }
    eventsBuffer.resize(maxEvents > 0 ? static_cast<size_t>(maxEvents) : 0, epoll_event{});
    controlFd.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!controlFd.ok()) {
        EPOLL_LOGE("[EpollManager] Allocate control fd failed: %d, message: %s", errno, strerror(errno));
    }
    controlRegistered = EpollCtlAdd(epollFd.get(), controlFd.get(), EPOLLIN);
    if (!controlRegistered) {
        EPOLL_LOGE("[EpollManager] Setup control fd failed: %d, message: %s", errno, strerror(errno));
    }
}

EpollManager::~EpollManager() {
    stop();
    join();
    epollFd.reset();
    controlFd.reset();
}

void EpollManager::start() {
    EPOLL_LOGI("[EpollManager] main thread starting...");
    std::lock_guard<std::mutex> lock(mutex);
    running.store(true, std::memory_order_release);
    // Assigning over a running thread terminates the process: starting twice is a programming error.
    loopThread = std::thread(&EpollManager::mainThread, this);
}

void EpollManager::stop() {
    std::lock_guard<std::mutex> lock(mutex);
    running.store(false, std::memory_order_release);
    const uint64_t one = 1;
    (void)!write(controlFd.get(), &one, sizeof(one));
}

void EpollManager::join() {
    if (loopThread.joinable()) loopThread.join();
}

bool EpollManager::addMonitorFd(int fd, EpollCallback callback) {
    uint32_t events = 0;
    if (callback.closeCallback) events |= EPOLLRDHUP | EPOLLHUP;
    if (callback.readCallback) events |= EPOLLIN;
    if (!EpollCtlAdd(epollFd.get(), fd, events)) {
        EPOLL_LOGE("[EpollManager] Epoll add monitor fd failed: %d, message: %s", errno, strerror(errno));
        return false;
    }
    callback.events = events;
    auto record = std::make_shared<MonitoredFd>();
    static_cast<EpollCallback&>(*record) = std::move(callback);
    std::lock_guard<std::mutex> lock(mutex);
    callbacks[fd] = std::move(record);
    return true;
}

bool EpollManager::delMonitorFd(int fd) {
    std::lock_guard<std::mutex> lock(mutex);
    if (epoll_ctl(epollFd.get(), EPOLL_CTL_DEL, fd, nullptr) != 0) {
        EPOLL_LOGE("[EpollManager] Epoll del fd from epoll failed: %d, message: %s", errno, strerror(errno));
        return false;
    }
    callbacks.erase(fd);
    return true;
}

bool EpollManager::notifyWriteEventReady(int fd) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = callbacks.find(fd);
    if (it == callbacks.end()) {
        EPOLL_LOGE("[EpollManager][notifyWriteEventReady] the socket fd does not exist");
        return false;
    }
    MonitoredFd& record = *it->second;
    record.writeRequested = true;
    if (record.events & EPOLLOUT) return true;
    const uint32_t events = record.events | (record.writeCallback ? EPOLLOUT : 0u);
    if (!EpollCtlMod(epollFd.get(), fd, events)) {
        EPOLL_LOGE("[EpollManager][notifyWriteEventReady] Epoll mod monitor failed, fd: %d, message: %s", fd,
                   strerror(errno));
        return false;
    }
    record.events = events;
    return true;
}

bool EpollManager::markWriteEventFinish(int fd) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = callbacks.find(fd);
    if (it == callbacks.end()) {
        EPOLL_LOGE("[EpollManager][markWriteEventFinish] the socket fd does not exist");
        return false;
    }
    return markWriteEventFinishLocked(fd, it->second.get());
}

bool EpollManager::markWriteEventFinishLocked(int fd, MonitoredFd* record) {
    const uint32_t events = record->events & ~static_cast<uint32_t>(EPOLLOUT);
    if (!EpollCtlMod(epollFd.get(), fd, events)) {
        EPOLL_LOGE("[EpollManager][markWriteEventFinish] Epoll mod monitor failed, fd: %d, message: %s", fd,
                   strerror(errno));
        return false;
    }
    record->events = events;
    return true;
}

bool EpollManager::finishWriteEventUnlessRequested(int fd) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = callbacks.find(fd);
    if (it == callbacks.end()) {
        EPOLL_LOGE("[EpollManager][markWriteEventFinish] the socket fd does not exist");
        return false;
    }
    if (it->second->writeRequested) return true;
    return markWriteEventFinishLocked(fd, it->second.get());
}

bool EpollManager::writeEventNow(int fd) {
    const CallbackRecord record = find(fd);
    if (!record) {
        // The arming operation's text, shared on purpose.
        EPOLL_LOGE("[EpollManager][notifyWriteEventReady] the socket fd does not exist");
        return false;
    }
    if (!record->writeCallback) return false;
    epoll_event event{};
    event.events = 0;
    event.data.fd = fd;
    while (true) {
        const int result = record->writeCallback(event);
        if (result == EPOLL_CALLBACK_NOTHING) return true;
        if (result == EPOLL_CALLBACK_FAILED) return false;
    }
}

size_t EpollManager::monitoredCount() const {
    std::lock_guard<std::mutex> lock(mutex);
    return callbacks.size();
}

EpollManager::CallbackRecord EpollManager::find(int fd) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = callbacks.find(fd);
    return it == callbacks.end() ? nullptr : it->second;
}

void EpollManager::mainThread() {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
    prctl(PR_SET_NAME, tag);
    if (sched_setaffinity(gettid(), sizeof(affinity), &affinity) != 0) {
        EPOLL_LOGE("[EpollManager][mainThread] init epoll manager thread affinity failed! %s", strerror(errno));
    }
    if (initFunc && initFunc() == 0) EPOLL_LOGE("[EpollManager][mainThread] initFunc failed");

    // stop() clears `running` and writes the control descriptor, which ends the round it wakes.
    while (running.load(std::memory_order_acquire) && runRound(timeoutMs) >= 0) {
    }
}

int EpollManager::runRound(int timeoutMs) {
    const int controlDescriptor = controlFd.get();
    const int count = epoll_wait(epollFd.get(), eventsBuffer.data(), static_cast<int>(eventsBuffer.size()), timeoutMs);
    lastEventCount = count;
    if (count < 1) return 0;
    for (int i = 0; i < count; ++i) {
        const epoll_event event = eventsBuffer[i];
        const int fd = event.data.fd;
        if (fd == controlDescriptor) {
            uint64_t value = 0;
            (void)!read(fd, &value, sizeof(value));
            return -1;
        }
        // A descriptor a callback of this round unregistered has nothing left to run.
        const CallbackRecord record = find(fd);
        if (!record) continue;
        if ((event.events & (EPOLLRDHUP | EPOLLHUP)) && record->closeCallback) {
            record->closeCallback(event);
            continue;
        }
        if ((event.events & EPOLLIN) && record->readCallback) {
            const int result = record->readCallback(event);
            if (result == EPOLL_CALLBACK_NOTHING || result == EPOLL_CALLBACK_CLOSED ||
                result == EPOLL_CALLBACK_FAILED || result == 1) {
                continue;
            }
        }
        if ((event.events & EPOLLOUT) && record->writeCallback) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                record->writeRequested = false;
            }
            const int result = record->writeCallback(event);
            if ((result == EPOLL_CALLBACK_FAILED || result == EPOLL_CALLBACK_NOTHING) &&
                !finishWriteEventUnlessRequested(fd)) {
                EPOLL_LOGE("[EpollManager][mainThread] mark write event finish failed!");
            }
        }
    }
    return count;
}
