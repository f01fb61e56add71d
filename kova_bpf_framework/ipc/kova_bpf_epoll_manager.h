// EpollManager: one epoll instance and the one thread that waits on it and runs the callbacks
// registered per descriptor. It is the IPC layer's only event loop: the Unix socket manager registers
// its listening socket and every connection here, and threads that queued outgoing data ask it to arm
// a connection's write event. An eventfd (the control descriptor) stops the loop.
//
// Ownership: the manager owns the epoll descriptor, the control descriptor and its thread. It watches
// the registered descriptors but never closes them; their owner does.
//
// Threads: callbacks run on the loop thread, one at a time, except when another thread drives a write
// callback with writeEventNow. notifyWriteEventReady and markWriteEventFinish are safe from any thread.
// addMonitorFd and delMonitorFd are meant for the loop thread (initFunc and callbacks) but are safe from
// any thread.
#pragma once

#include <sched.h>
#include <stdint.h>
#include <sys/epoll.h>

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

// Results a callback gives the loop.
inline constexpr int EPOLL_CALLBACK_SUCCESS = 0;
inline constexpr int EPOLL_CALLBACK_FAILED = -1;
inline constexpr int EPOLL_CALLBACK_CLOSED = -2;   // the callback closed the descriptor
inline constexpr int EPOLL_CALLBACK_NOTHING = -3;  // end of stream (read), nothing left to send (write)

// What the loop does for one descriptor. Any callback may be empty.
struct EpollCallback {
    std::function<int(epoll_event)> readCallback;
    std::function<int(epoll_event)> writeCallback;
    std::function<int(epoll_event)> closeCallback;
    uint32_t events = 0;  // the mask currently registered; kept by the manager
};

class EpollManager {
  public:
    // `initFunc` runs once on the loop thread before the loop (a result of 0 is logged as a failure).
    // `timeoutMs` is the epoll_wait timeout, -1 for none. `tag` is the log tag and the loop thread's
    // name ("BpfUtils" when null). The loop runs on `affinity` (CPU 0 when the set is empty), or without
    // one on the CPUs the creating thread may run on. Null, after logging why, when the epoll instance
    // or the control descriptor cannot be made (a non-positive `epollSize` is refused, as epoll_create
    // refuses it).
    static std::unique_ptr<EpollManager> Create(int epollSize, int maxEvents, std::function<int()> initFunc,
                                                const char* tag, int timeoutMs);
    static std::unique_ptr<EpollManager> Create(int epollSize, int maxEvents, std::function<int()> initFunc,
                                                const char* tag, cpu_set_t affinity, int timeoutMs);
    // Stops the loop, joins its thread and closes the manager's descriptors.
    ~EpollManager();

    EpollManager(const EpollManager&) = delete;
    EpollManager& operator=(const EpollManager&) = delete;

    // Starts the loop thread. Starting a second time terminates the process.
    void start();
    // Asks the loop to end; it leaves when it next sees the control descriptor. Safe from any thread,
    // also before start().
    void stop();
    // Waits until the loop thread has ended; returns at once when it was never started. Call after
    // stop(), and not from the loop thread.
    void join();

    // Registers `fd`: EPOLLIN when there is a read callback, EPOLLRDHUP | EPOLLHUP when there is a close
    // callback, never EPOLLOUT. Replaces an earlier record of `fd`.
    bool addMonitorFd(int fd, EpollCallback callback);
    // Unregisters `fd` and forgets its record; false when the kernel refuses.
    bool delMonitorFd(int fd);
    // Arms EPOLLOUT so the loop calls the write callback when `fd` is writable. Arming an armed
    // descriptor returns true without a system call, so producers may call it for every package.
    bool notifyWriteEventReady(int fd);
    // Disarms EPOLLOUT.
    bool markWriteEventFinish(int fd);
    // Runs the write callback on the calling thread until it reports -3 (true) or -1 (false).
    bool writeEventNow(int fd);
    // How many descriptors are registered (the control descriptor aside). For diagnostics and tests.
    size_t monitoredCount() const EXCLUDES(mutex);

    // One round of the loop: waits up to `timeoutMs` for events and runs their callbacks. Returns the
    // number of events taken (0 when none came or the wait failed), or -1 when the control descriptor
    // asked the loop to end. The loop thread runs exactly these rounds; a caller that never starts the
    // thread may run them itself, one at a time, on its own thread (the service's request fuzzer does).
    int runRound(int timeoutMs);

  private:
    // Logs each system call that fails; ready() says whether all succeeded.
    EpollManager(int epollSize, int maxEvents, std::function<int()> initFunc, const char* tag, cpu_set_t affinity,
                 int timeoutMs);
    bool ready() const { return epollFd.ok() && controlFd.ok() && controlRegistered; }

    struct MonitoredFd : EpollCallback {
        // Set by every notifyWriteEventReady, cleared by the loop before it runs the write callback: a
        // producer that queued and armed while the callback was running (too late for it to see the
        // package) keeps the write event armed when the callback reports nothing left to send.
        bool writeRequested = false;
    };
    using CallbackRecord = std::shared_ptr<MonitoredFd>;

    // Disarms EPOLLOUT after the loop's write callback finished, unless it was armed again meanwhile.
    bool finishWriteEventUnlessRequested(int fd);
    bool markWriteEventFinishLocked(int fd, MonitoredFd* record);

    void mainThread();
    // The record of `fd`, or null. Holding the returned pointer keeps the callbacks alive while one of
    // them unregisters its own descriptor.
    CallbackRecord find(int fd) EXCLUDES(mutex);

    // Constant after construction.
    cpu_set_t affinity;
    const char* tag;
    android::base::unique_fd controlFd;
    android::base::unique_fd epollFd;
    bool controlRegistered = false;
    int timeoutMs;
    std::function<int()> initFunc;

    // Loop thread only (or the one thread that runs the rounds instead).
    int lastEventCount = 0;
    std::vector<epoll_event> eventsBuffer;

    // `running` is read by the loop without the mutex, hence atomic; it is changed under the mutex.
    std::atomic<bool> running{false};
    mutable std::mutex mutex;
    std::thread loopThread;  // started and joined by the owner's thread
    // The `events` and `writeRequested` fields of each record are guarded by `mutex` too. The callbacks
    // of a record never change after addMonitorFd, so the loop may call them without the mutex.
    std::map<int, CallbackRecord> callbacks GUARDED_BY(mutex);
};
