// Service entry and lifecycle: the entry, the singleton, start/stop/Wait and the producer threads.
// Runs on the host's thread (entry, Wait) and on the three producer threads.

#include "service/kova_bpf_service.h"

#define LOG_TAG "BpfService"

#include <android-base/properties.h>
#include <errno.h>
#include <log/log.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>

#include "kova_bpf_records.h"
#include "protocol/kova_bpf_protocol.h"
#include "service/kova_bpf_cputimeinstate.h"
#include "service/kova_bpf_event_manager.h"
#include "service/kova_bpf_helper.h"
#include "utils/kova_bpf_error_log.h"
#include "utils/kova_bpf_paths.h"
#include "utils/kova_bpf_time.h"

namespace Kova::Bpf {
namespace {

constexpr char kDisableProperty[] = "persist.sys.stability.bpfframework.disable";
constexpr auto kSupervisionPeriod = std::chrono::seconds(60);
constexpr auto kJoinWakePeriod = std::chrono::milliseconds(50);
constexpr int kIpcEpollSize = 10;
constexpr int kIpcMaxEvents = 32;
// The loader's pin directory, with the trailing slash that makes the pinned paths hold "//prog_".
constexpr char kPinDir[] = "/sys/fs/bpf/kova/";

// Names the calling thread and pins it to CPUs 0, 1 and 2; a failed pin is logged and the thread runs
// unpinned.
void NameAndPinThread(const char* name, const char* affinityError) {
    prctl(PR_SET_NAME, name);
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    for (int cpu = 0; cpu < 3; ++cpu) CPU_SET(cpu, &cpus);
    if (sched_setaffinity(gettid(), sizeof(cpus), &cpus) != 0) ALOGE(affinityError, strerror(errno));
}

// KOVA_WAKE_SIGNAL only interrupts what a producer is blocked in; the handler itself does nothing.
void IgnoreWake(int) {}

void InstallWakeHandler() {
    // Without SA_RESTART, so that a blocked poll or sleep returns and the producer sees the stop.
    struct sigaction wake {};
    wake.sa_handler = IgnoreWake;
    sigemptyset(&wake.sa_mask);
    sigaction(KOVA_WAKE_SIGNAL, &wake, nullptr);
}

// Attaches `catalogue` from the pin directory; the programs that fail are counted and logged under
// `producer`, and the service runs with whatever did attach.
int AttachCatalogue(const ProgramCatalogue& catalogue, const char* producer) {
    const int failures = AttachAllKovaBpfProgram(KovaPath(kPinDir), catalogue);
    if (failures != 0) ALOGE("[KovaBpfService][%s] Attach all kova bpf error: %d", producer, failures);
    return failures;
}

}  // namespace

const std::string KovaBpfService::KOVA_BPF_READY = "sys.kova_bpf_ready";
std::mutex KovaBpfService::servicelock;
KovaBpfService* KovaBpfService::instance = nullptr;
std::atomic<KovaBpfService*> KovaBpfService::instanceFast{nullptr};

bool BpfServiceMain() {
    if (android::base::GetProperty(kDisableProperty, "0") == "1") {
        ALOGI("[BpfServiceMain] Starting KOVA Bpf Service disabled!");
        return false;
    }
    ALOGI("[BpfServiceMain] Starting KOVA Bpf Service");
    // Creates the diagnostics directory and keeps the previous start's error log as the old generation.
    InitBpfServiceErrorLog();
    KovaBpfService::GetInstance()->start();
    return true;
}

KovaBpfService* KovaBpfService::GetInstance() {
    // The dispatch asks for the singleton once per record; once it exists, no lock is needed.
    if (KovaBpfService* existing = instanceFast.load(std::memory_order_acquire)) return existing;
    std::lock_guard<std::mutex> lock(servicelock);
    if (instance == nullptr) {
        instance = new KovaBpfService();
        instanceFast.store(instance, std::memory_order_release);
    }
    return instance;
}

KovaBpfService::KovaBpfService() {
    IpcHandlerState handlers;
    handlers.compactBeforeRead = true;
    handlers.closeOnFailure = true;
    handlers.thirdFlag = true;
    handlers.readHandler = [this](int fd, BufferState* buffer) { return onClientLibReadable(fd, buffer); };
    handlers.writeHandler = [this](int fd, BufferState* buffer) { return onClientLibWriteable(fd, buffer); };
    handlers.releaseHandler = [this](IpcConnection& connection) { onClientLibClose(connection); };
#ifndef __ANDROID__
    // Anyone on the host can reach an abstract socket, and a malformed request ends the service.
    handlers.acceptFilter = [this](int fd) { return admitClient(fd); };
#endif
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    for (int cpu = 0; cpu < 3; ++cpu) CPU_SET(cpu, &cpus);
    // Without it the service still tracks tasks and keeps its diagnostics; it serves no client.
    ipcManager = UnixIpcManager::Create(true, KOVA_IPC_BUFFER_SIZE, KovaPath(KOVA_SOCKET_NAME), handlers, "BpfServiceTr",
                                        cpus, kIpcEpollSize, kIpcMaxEvents);

    const std::map<unsigned, IpcPackageHandler::Handler> packageHandlers = {
            {PACKAGE_TYPE_REQUEST,
             [this](int fd, char* payload, size_t size) { return onEventProvideReqCallBack(fd, payload, size); }},
            // Responses, spare packages and events sent by a client are consumed and ignored.
            {PACKAGE_TYPE_RESPONSE, nullptr},
            {PACKAGE_TYPE_SPARE, nullptr},
            {PACKAGE_TYPE_EVENT, nullptr},
    };
    ipcPackageHandler = std::make_unique<IpcPackageHandler>(packageHandlers);

    eventHandlerMap[KOVA_RAW_TASK_INIT] = [this](char* data, int64_t size) { return handleKovaTaskInitEvent(data, size); };
    eventHandlerMap[KOVA_RAW_TASK_CREATE] = [this](char* data, int64_t size) {
        return handleSched_SchedProcessFork(data, size);
    };
    eventHandlerMap[KOVA_RAW_TASK_EXIT] = [this](char* data, int64_t size) {
        return handleSched_SchedProcessExit(data, size);
    };
    eventHandlerMap[KOVA_RAW_RSS] = [this](char* data, int64_t size) { return handleKmem_RssStat(data, size); };

    EventManager* events = EventManager::GetInstance();
    {
        std::lock_guard<std::mutex> lock(EventManager::kovaRawEventManagerLock);
        events->notifyClients = [this](const std::vector<int>& fds) { notifyClientEventReady(fds); };
        events->sendClients = [this](const std::vector<int>& fds) { sendClientEventsNow(fds); };
    }

    provisionalNames = {"main", "re-initialized>"};

    timeInStateHandlers[8] = [this] { handleKovaTotalCpuTimeInState(); };
    timeInStateHandlers[10] = [this] { handleKovaProcessCpuTimeInState(); };
    timeInStateHandlers[12] = [this] { handleKovaThreadCpuTimeInState(); };
    timeInStateHandlers[9] = [this] { handleKovaTotalCpuTimeReset(); };
    timeInStateHandlers[11] = [this] { handleKovaProcessCpuTimeReset(); };
    timeInStateHandlers[13] = [this] { handleKovaThreadCpuTimeReset(); };
}

KovaBpfService::~KovaBpfService() = default;

bool KovaBpfService::start() {
    InstallWakeHandler();
    std::lock_guard<std::mutex> lock(servicelock);
    isRunning.store(true, std::memory_order_release);
    launchProducer(kEventProducer);
    return true;
}

int KovaBpfService::stop() {
    {
        std::lock_guard<std::mutex> lock(servicelock);
        if (ipcManager) ipcManager->stop();
        isRunning.store(false, std::memory_order_release);
    }
    wakeProducers();
    std::lock_guard<std::mutex> lock(supervisorLock);
    supervisorWake.notify_all();
    return 0;
}

int KovaBpfService::Wait() {
    while (running()) {
        fillEmptyProducerSlots();
        std::unique_lock<std::mutex> lock(supervisorLock);
        supervisorWake.wait_for(lock, kSupervisionPeriod, [this] { return !running(); });
    }
    if (ipcManager) ipcManager->stop();
    joinProducers();
    if (!ipcManager) return 0;
    // After the producers: an event producer stopped before it started the IPC loop may start it
    // late; such a loop reads the pending stop and ends at once. The service outlives its threads, so
    // they all end here.
    ipcManager->join();
    // Clients learn that the service has gone, and no table keeps them.
    ipcManager->closeConnections();
    return 0;
}

void KovaBpfService::launchProducer(ProducerSlot slot) {
    std::lock_guard<std::mutex> lock(produceThreadsLock);
    startProducerLocked(slot);
}

void KovaBpfService::fillEmptyProducerSlots() {
    std::lock_guard<std::mutex> lock(produceThreadsLock);
    for (int slot = kEventProducer; slot <= kTimeInStateProducer; ++slot) {
        if (!produceThreads[slot].joinable()) startProducerLocked(static_cast<ProducerSlot>(slot));
    }
}

void KovaBpfService::startProducerLocked(ProducerSlot slot) {
    producerEnded[slot].store(false, std::memory_order_release);
    // Assigning over a thread that is still held terminates the process, as the system requires.
    produceThreads[slot] = std::thread(&KovaBpfService::runProducer, this, slot);
}

void KovaBpfService::wakeProducers() {
    {
        // The time-in-state worker waits on its condition, which no signal ends.
        std::lock_guard<std::mutex> lock(timeInStateReadyLock);
        timeInStateReadyCondition.notify_all();
    }
    std::lock_guard<std::mutex> lock(produceThreadsLock);
    for (int slot = kEventProducer; slot <= kTimeInStateProducer; ++slot) {
        if (produceThreads[slot].joinable() && !producerEnded[slot].load(std::memory_order_acquire)) {
            pthread_kill(produceThreads[slot].native_handle(), KOVA_WAKE_SIGNAL);
        }
    }
}

void KovaBpfService::joinProducers() {
    // Slot 0 fills slots 1 and 2, so once it is joined they no longer change.
    for (int slot = kEventProducer; slot <= kTimeInStateProducer; ++slot) {
        // A wake-up can arrive just before a monitor enters its poll and be lost, so it is repeated
        // until the producer has ended.
        while (true) {
            {
                std::lock_guard<std::mutex> lock(produceThreadsLock);
                if (!produceThreads[slot].joinable() || producerEnded[slot].load(std::memory_order_acquire)) break;
            }
            wakeProducers();
            std::this_thread::sleep_for(kJoinWakePeriod);
        }
        std::thread producer;
        {
            std::lock_guard<std::mutex> lock(produceThreadsLock);
            producer = std::move(produceThreads[slot]);
        }
        if (producer.joinable()) producer.join();
    }
}

int KovaBpfService::runProducer(ProducerSlot slot) {
    int result = -1;
    switch (slot) {
        case kEventProducer: result = eventProduceThread(); break;
        case kGplEventProducer: result = gpleventProduceThread(); break;
        case kTimeInStateProducer: result = timeInStateProduceThread(); break;
    }
    producerEnded[slot].store(true, std::memory_order_release);
    return result;
}

bool KovaBpfService::waitForBpfReady() {
    while (android::base::GetProperty(KOVA_BPF_READY, "0") == "0") {
        // Not in the loader's protocol, but a service stopped before the loader is ready must not hang
        // its host's shut-down.
        if (!running()) return false;
        sleep(1);
    }
    return true;
}

int KovaBpfService::eventProduceThread() {
    NameAndPinThread("BpfServicePoll", "[KovaBpfService][eventProduceThread] set thread affinity failed. %s");
    struct LaunchedOnExit {
        std::atomic<bool>& flag;
        ~LaunchedOnExit() { flag.store(true, std::memory_order_release); }
    } launchedOnExit{producersLaunched};

    if (ipcManager) ipcManager->start();  // clients may connect while the service waits for the loader
    if (!waitForBpfReady()) {
        ALOGW("[KovaBpfService][eventProduceThread] Service stopped while waiting for %s", KOVA_BPF_READY.c_str());
        return -1;
    }
    if (!InitBasetime()) {
        ALOGE("[KovaBpfService][eventProduceThread] Init base time failed! errMsg: %s", strerror(errno));
    }
    if (initBpfMap() != 0) {
        ALOGE("[KovaBpfService][eventProduceThread] Init bpf map failed");
    }
    launchProducer(kGplEventProducer);
    launchProducer(kTimeInStateProducer);
    producersLaunched.store(true, std::memory_order_release);

    int attachFailures = 0;
    eventMonitor([&] { attachFailures = AttachCatalogue(PROG_EVENT_MAP, "eventProduceThread"); });
    return attachFailures;
}

int KovaBpfService::gpleventProduceThread() {
    NameAndPinThread("BpfServicePGpl", "[KovaBpfService][gpleventProduceThread] set thread affinity failed. %s");
    int attachFailures = 0;
    gpleventMonitor([&] { attachFailures = AttachCatalogue(PROG_GPL_EVENT_MAP, "gpleventProduceThread"); });
    return attachFailures;
}

int KovaBpfService::timeInStateProduceThread() {
    NameAndPinThread("BpfServiceTimeInState",
                     "[KovaBpfService][timeInStateProduceThread] set thread affinity failed. %s");
    if (!startTrackingPidTimes()) {
        ALOGE("[KovaBpfService][timeInStateProduceThread] Start tracking pid times failed.");
        return -1;
    }
    timeInStateMonitor();
    return 0;
}

}  // namespace Kova::Bpf
