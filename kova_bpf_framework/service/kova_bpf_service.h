// KovaBpfService: the service singleton and its producer threads.
//
// One class, defined across one source file per concern:
//   kova_bpf_service_lifecycle.cpp   entry, singleton, start/stop/Wait, producer threads
//   kova_bpf_service_catalogue.cpp   the two program catalogues and the build-type values
//   kova_bpf_service_pump.cpp        ring-buffer monitors, dispatch, status word
//   kova_bpf_service_client_protocol.cpp  who may connect, connections, requests, outgoing queues
//   kova_bpf_service_task_events.cpp task handlers, /proc probing and the start-up scan
//   kova_bpf_service_time_in_state.cpp  the time-in-state worker, its handlers and reports
//   kova_bpf_service_memory.cpp      start-up seeding of the fd and dmabuf maps from /proc
//
// Threads:
//   "BpfServicePoll"         event producer (slot 0): waits for the loader's readiness, takes the
//                            normal ring over, attaches PROG_EVENT_MAP, then runs the normal monitor
//   "BpfServicePGpl"         GPL event producer (slot 1): takes the GPL ring over, attaches
//                            PROG_GPL_EVENT_MAP, then runs the GPL monitor
//   "BpfServiceTimeInState"  time-in-state producer (slot 2): seeds and attaches the time-in-state
//                            programs, then serves report requests until the service stops
//   the host's thread        Wait(): supervises the slots until the service stops, then joins them
//   "BpfServiceTr"           the IPC loop (UnixIpcManager): accepts clients, answers requests, writes
// All producers are pinned to CPUs 0, 1 and 2.
//
// Locks, always taken in this order: EventManager::kovaRawEventManagerLock (subscriptions, client
// queues), then a client queue's own mutex; the epoll manager's mutex only after both are released;
// kovaRawEventManagerLock before `servicelock`. `servicelock` guards the singleton's creation, start(),
// stop() and the status-word updates. It is not recursive and GetInstance() may take it, so no caller
// may hold it while calling GetInstance().
#pragma once

#include <android-base/thread_annotations.h>
#include <android-base/unique_fd.h>
#include <stdint.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kova_bpf_records.h"
#include "service/kova_bpf_helper.h"
#include "ipc/kova_bpf_ipc_package.h"
#include "ipc/kova_bpf_ipc_package_handler.h"
#include "ipc/kova_bpf_ipc_package_manager.h"
#include "ipc/kova_bpf_unix_ipc_manager.h"

namespace Kova::Bpf {

// The one entry a host needs. Returns false when "persist.sys.stability.bpfframework.disable" is "1";
// otherwise prepares the diagnostics directory, rotates the error log, creates and starts the service
// and returns true. The host then keeps the process alive, typically in Wait().
bool BpfServiceMain();

// Sent by stop() to the producer threads, to interrupt a monitor blocked in its poll: a real-time signal
// the service uses for nothing else (50 to 54 are the dump signals).
inline constexpr int KOVA_WAKE_SIGNAL = 60;

// What getProcessInfo() reads of a process. Callers zero it before the call.
struct UpdateProcessExdata {
    int32_t pid;
    int32_t ppid;
    char comm[16];  // NUL-terminated
};

class KovaBpfService {
  public:
    static const std::string KOVA_BPF_READY;  // "sys.kova_bpf_ready", set by the BPF loader
    static std::mutex servicelock;
    static const ProgramCatalogue PROG_EVENT_MAP;
    static const ProgramCatalogue PROG_GPL_EVENT_MAP;
    // The service module's build-type values, recorded at library load. Informational only.
    static const PlatformBuildType BUILD_TYPE;

    // Raw event handlers take a record and its delivered length.
    using EventHandler = std::function<int(char* data, int64_t size)>;

    // The singleton, created under `servicelock` on first call and never destroyed.
    static KovaBpfService* GetInstance();

    // ---- Lifecycle (kova_bpf_service_lifecycle.cpp) ----
    // Marks the service running and starts the event producer into slot 0. Always true.
    bool start();
    // Supervises the producer slots every 60 seconds while running (refilling empty ones); once the
    // service is stopped, stops the IPC manager and joins the producers in slot order. Returns 0.
    int Wait();
    // Ends the service: stops the IPC manager, clears the running flag and wakes the producers. Safe
    // from any thread, but not from a signal handler.
    int stop();

    int eventProduceThread();
    int gpleventProduceThread();
    int timeInStateProduceThread();

    bool running() const { return isRunning.load(std::memory_order_acquire); }

    // True once the event producer has started slots 1 and 2, or has ended before doing so. A producer
    // that fills a slot the supervisor already filled terminates the process (that race is part of the
    // system), so a host calls Wait() only after this is true.
    bool hasLaunchedProducers() const { return producersLaunched.load(std::memory_order_acquire); }
    // True once clients can connect and both monitors have finished starting (their scans done and
    // their records flowing, or given up): what a service manager waits for before it calls the
    // service ready.
    bool serving() const {
        return ipcManager && ipcManager->getSocketFd() >= 0 && monitorsStarted.load(std::memory_order_acquire) >= 2;
    }

    // ---- Ring-buffer pump (kova_bpf_service_pump.cpp) ----
    // The monitors of ring 0 (normal) and ring 1 (GPL): 0 when stopped, -1 on a set-up failure or after
    // six consecutive failed polls. Each takes its ring over first (the status word cleared, the
    // records an earlier instance left discarded and counted in one log line), then runs
    // `attachPrograms` (also when the ring cannot be used), then sets the core bit, scans and sets the
    // normal bit.
    int eventMonitor(const std::function<void()>& attachPrograms = {});
    int gpleventMonitor(const std::function<void()>& attachPrograms = {});
    // libbpf's sample callback: counts the record, fans it out to subscribers and runs its handler.
    static int handleBpfRingBuffEvent(void* ctx, void* data, size_t size);
    // Forwards a record to its subscribers, without counting, checks or handler. Any thread.
    int handleBpfPassthrough(char* data, int64_t size);
    // Reports and clears the ring's full bit: at most once per 30 s unless forced. 0 when it reported,
    // 1 when there was nothing to report (or the rate limit held), 0 for a ring index above 1.
    int checkBpfRingBuffStatus(int ring, bool force);
    // Set or clear the core (bit 1) and normal (bit 2) bits of the ring's status word under
    // `servicelock`; true when the write succeeded. Any thread.
    bool enableCoreBpf(int ring, bool enable);
    bool enableNormalBpf(int ring, bool enable);

    // ---- Client protocol (kova_bpf_service_client_protocol.cpp); on the IPC loop thread ----
    // A connection's outgoing queue and subscriptions live in its IpcConnection, so a new connection
    // needs nothing more, and a closed one (whichever way it closed) only leaves the subscriptions.
    int onClientLibReadable(int fd, BufferState* readBuffer);
    int onClientLibWriteable(int fd, BufferState* writeBuffer);
    void onClientLibClose(IpcConnection& connection);
    int onEventProvideReqCallBack(int fd, char* payload, size_t size);
#ifndef __ANDROID__
    // Whether the peer just accepted on `fd` may be served: it runs as root or belongs to the client
    // group ("persist.kova_bpf.client_group", read at each accept of a non-root peer, so a change
    // applies to the next connection). Anyone else is logged once and closed before a byte of theirs
    // is read. Host only: on a device init's permissions on the socket decide who connects.
    bool admitClient(int fd);
#endif
    // Arms the write event of each connection, in order. Any thread.
    void notifyClientEventReady(const std::vector<int>& fds);
    // Sends the queued packages of the connections on the calling thread (the rest goes to the loop).
    void sendClientEventsNow(const std::vector<int>& fds);
    // Wakes the time-in-state worker; requests are queued in timeInStateEventIds first. Any thread.
    void notifyTimeInStateMonitor();

    // ---- Time in state (kova_bpf_service_time_in_state.cpp); on "BpfServiceTimeInState" ----
    // Serves queued report types until the service stops: each type runs its handler, in queue order.
    void timeInStateMonitor();
    // Each builds one report from the time-in-state maps and hands it to the fan-out. Return 0.
    int handleKovaTotalCpuTimeInState();
    int handleKovaProcessCpuTimeInState();
    int handleKovaThreadCpuTimeInState();
    int handleKovaTotalCpuTimeReset();
    int handleKovaProcessCpuTimeReset();
    int handleKovaThreadCpuTimeReset();
    // Report types waiting for the worker are capped at this many; requests beyond it are answered but
    // their types are dropped (with one warning until the worker takes the queue), so the queue stays
    // bounded when the worker has ended or cannot keep up.
    static constexpr size_t kMaxQueuedTimeInStateIds = 1024;

    // ---- Task events (kova_bpf_service_task_events.cpp); on the producer threads ----
    int handleKovaTaskInitEvent(char* data, int64_t size);
    int handleSched_SchedProcessFork(char* data, int64_t size);
    int handleSched_SchedProcessExit(char* data, int64_t size);
    int handleKmem_RssStat(char* data, int64_t size);
    // Fills out->pid, ppid and comm from "/proc/<pid>/status"; -1 when it cannot be opened.
    int getProcessInfo(int pid, UpdateProcessExdata* out);
    // The start-up scan of "/proc": one task-init record per process, through the dispatch. Returns 0.
    int initTaskInfo();

    // ---- Memory accounting (kova_bpf_service_memory.cpp) ----
    // The pinned maps the seeding writes, and the /proc files it reads (all through KovaPath()).
    static constexpr char OPEN_FD_CALLER_MAP_PATH[] = "/sys/fs/bpf/kova/map_KovaBpfDefineset_open_fd_caller_map";
    static constexpr char DMABUF_ALLOCATE_MAP_PATH[] = "/sys/fs/bpf/kova/map_KovaBpfGplDefineset_dmabuf_allocate_map";
    static constexpr char DMABUF_SIZE_MAP_PATH[] = "/sys/fs/bpf/kova/map_KovaBpfGplDefineset_dmabuf_size_map";
    static constexpr char DMABUF_PERPROCESS_SIZE_MAP_PATH[] =
            "/sys/fs/bpf/kova/map_KovaBpfGplDefineset_dmabuf_perprocess_size_map";
    static constexpr char PROCESS_INODE_MAP_PATH[] = "/sys/fs/bpf/kova/map_KovaBpfGplDefineset_process_inode_map";
    static constexpr char PROCESS_MMAP_INFOS_PATH[] = "/sys/fs/bpf/kova/map_KovaBpfGplDefineset_process_mmap_infos";
    static constexpr char PROC_FS_PATH[] = "/proc";
    static constexpr char TASK_STATUS_TEMPLATE[] = "/proc/%s/status";
    static constexpr char TASK_FD_TEMPLATE[] = "/proc/%s/fd";
    static constexpr char TASK_FDINFO_TEMPLATE[] = "/proc/%s/fdinfo/%s";
    static constexpr char TASK_MAPS_TEMPLATE[] = "/proc/%s/maps";

    // Opens processInodeMap and processMmapInfos and keeps them for the service's life. 0, or -1 (errno
    // reset to 0) when one cannot be opened. On the event producer, before anything is attached.
    int initBpfMap();
    // Writes every process's open-descriptor count and name into the open-fd caller map. The service
    // never calls it (the fd program adds the processes it sees); operators run it through
    // `kovabpf-loader --seed-fd-counts`. Returns the number of processes written, -1 when the map
    // cannot be opened.
    static int initFdBpfProg();
    // Seeds the five per-process dmabuf maps with the buffers every process holds through descriptors
    // or mappings (layouts and rules in kova_bpf_records.h). 0, or -1 when a map cannot be opened. On
    // the GPL producer, between its core and normal status bits.
    int initDmabufBpfProg();
    // The "size:\t" (bytes) and "ino:\t" values of an fdinfo file; 0 when unknown, unreadable or negative.
    static long GetFdSize(const std::string& fdinfoPath);
    static long GetFdInode(const std::string& fdinfoPath);

    // Test hooks.
    const UnixIpcManager& TEST_ipcManager() const { return *ipcManager; }
    UnixIpcManager& TEST_ipcManager() { return *ipcManager; }
    void TEST_setStatusCheckClock(int64_t (*clock)()) { statusCheckClock.store(clock); }
    void TEST_setLastRingBuffCheckTime(int ring, int64_t seconds) { lastRingBuffCheckTime[ring] = seconds; }
    // Takes the queued time-in-state ids and the wake flag, as the worker would.
    std::vector<int32_t> TEST_takeTimeInStateRequests(bool* wasWoken) {
        {
            std::lock_guard<std::mutex> lock(timeInStateReadyLock);
            *wasWoken = timeInStateReady;
            timeInStateReady = false;
        }
        return takeTimeInStateEventIds();
    }

  private:
    enum ProducerSlot { kEventProducer = 0, kGplEventProducer = 1, kTimeInStateProducer = 2 };

    KovaBpfService();
    ~KovaBpfService();
    KovaBpfService(const KovaBpfService&) = delete;
    KovaBpfService& operator=(const KovaBpfService&) = delete;

    // Lifecycle helpers (kova_bpf_service_lifecycle.cpp).
    bool waitForBpfReady();
    void launchProducer(ProducerSlot slot);
    void fillEmptyProducerSlots();
    void startProducerLocked(ProducerSlot slot) REQUIRES(produceThreadsLock);
    void joinProducers();
    void wakeProducers();
    int runProducer(ProducerSlot slot);

    // Time-in-state helpers (kova_bpf_service_time_in_state.cpp).
    // Takes every queued report type, leaving the queue empty.
    std::vector<int32_t> takeTimeInStateEventIds();
    // Logs a warning when the programs have lost updates to full maps since the last look.
    void warnOfLostTimeInState();

    // Pump helpers (kova_bpf_service_pump.cpp).
    int runMonitor(int ring, const std::function<void()>& attachPrograms);
    // Opens the ring's two maps into ringBuffMapFd and ringBuffStatusMapFd; false, logged, when one
    // cannot be opened.
    bool openRing(int ring);
    // Clears the status word and discards the ring's records; the number discarded, or -1 (logged).
    int takeOverRing(int ring);
    void installDumpSignalHandlers();
    bool setStatusBit(int ring, uint64_t bit, bool enable);
    int dispatch(char* data, size_t size);

    static KovaBpfService* instance GUARDED_BY(servicelock);  // also published through instanceFast
    static std::atomic<KovaBpfService*> instanceFast;

    // Raw event type -> handler; filled by the constructor, read-only afterwards.
    std::map<int32_t, EventHandler> eventHandlerMap;
    // Read by the producers at each loop turn without a lock.
    std::atomic<bool> isRunning{false};
    // Second of the last unforced status check, per ring.
    std::atomic<int64_t> lastRingBuffCheckTime[2] = {0, 0};
    std::atomic<int64_t (*)()> statusCheckClock{nullptr};  // time(), unless a test sets a clock
    // Ring-buffer and status maps, per ring: normal, then GPL. Set once by the ring's monitor.
    android::base::unique_fd ringBuffMapFd[2];
    android::base::unique_fd ringBuffStatusMapFd[2];
    // The status maps' descriptors as other threads read them (the enable operations may be called from
    // any thread); published by the monitor once the map is open, -1 before.
    std::atomic<int> statusMapFd[2] = {-1, -1};

    // Slot 0 event producer, 1 GPL event producer, 2 time-in-state producer. Filled by start(), the
    // event producer and Wait(); the lock makes those fills race-free without changing their rules.
    std::mutex produceThreadsLock;
    std::array<std::thread, 3> produceThreads GUARDED_BY(produceThreadsLock);
    std::array<std::atomic<bool>, 3> producerEnded = {};
    std::atomic<bool> producersLaunched{false};
    std::atomic<int> monitorsStarted{0};  // monitors past their start, whether it succeeded or not

    // The IPC server ("BpfServiceTr"), which holds every client connection, and the dispatch of
    // received packages by type.
    std::unique_ptr<UnixIpcManager> ipcManager;
    std::unique_ptr<IpcPackageHandler> ipcPackageHandler;

    // Hand-over of time-in-state requests: ids queued under timeInStateEventIdsLock, then the worker
    // woken through timeInStateReady. The two mutexes are never held together.
    std::mutex timeInStateEventIdsLock;
    std::vector<int32_t> timeInStateEventIds GUARDED_BY(timeInStateEventIdsLock);
    bool timeInStateIdsDropped GUARDED_BY(timeInStateEventIdsLock) = false;  // the cap's warning was given
    std::mutex timeInStateReadyLock;
    std::condition_variable timeInStateReadyCondition;
    bool timeInStateReady GUARDED_BY(timeInStateReadyLock) = false;
    // Report type -> handler id, set by the worker; handler id -> handler, filled by the constructor.
    std::map<int32_t, int32_t> timeInStateTypes;
    std::map<int32_t, std::function<void()>> timeInStateHandlers;
    // What "time_in_state_lost_map" held when the worker last looked; the worker's own.
    uint64_t timeInStateLostSeen = 0;

    // Kept by initBpfMap for the service's life.
    android::base::unique_fd processInodeMapFd;
    android::base::unique_fd processMmapInfosFd;
    // initDmabufBpfProg's collections, emptied at its start; pid -> summary, pid -> inode -> references.
    using dmabuf_stat = kova_dmabuf_stat;
    std::map<int32_t, dmabuf_stat> dmabufFdStats;       // held through descriptors: dmabufAllocateMap
    std::map<int32_t, dmabuf_stat> dmabufProcessStats;  // held through either, each buffer once: the
                                                        // size and per-process size maps
    std::map<int32_t, std::map<uint64_t, int32_t>> dmabufFdInodes;    // processInodeMap
    std::map<int32_t, std::map<uint64_t, int32_t>> dmabufMmapInodes;  // processMmapInfos

    // Process names that the kernel reports before a process has its real name; refreshed from /proc.
    std::set<std::string> provisionalNames;

    // Wakes Wait() from its 60-second sleep when the service stops.
    std::mutex supervisorLock;
    std::condition_variable supervisorWake;
};

}  // namespace Kova::Bpf
