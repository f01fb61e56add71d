// Service entry and lifecycle: the entry, the singleton, start/stop/Wait and the producer threads.
// Runs on the host's thread (entry, Wait) and on the three producer threads.

#include "service/kova_bpf_service.h"

#define LOG_TAG "BpfService"

#include <android-base/properties.h>
#include <errno.h>
#include <log/log.h>
#include <sched.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>

#include "service/kova_bpf_helper.h"
#include "service/kova_bpf_state.h"
#include "service/kova_bpf_task_manager.h"
#include "utils/kova_bpf_error_log.h"
#include "utils/kova_bpf_paths.h"
#include "utils/kova_bpf_signal_worker.h"
#include "utils/kova_bpf_time.h"

namespace Kova::Bpf {
namespace {

constexpr char kDisableProperty[] = "persist.sys.stability.bpfframework.disable";
constexpr auto kSupervisionPeriod = std::chrono::seconds(60);
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

}  // namespace

const std::string KovaBpfService::KOVA_BPF_READY = "sys.kova_bpf_ready";
std::mutex KovaBpfService::servicelock;
KovaBpfService* KovaBpfService::instance = nullptr;

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
    std::lock_guard<std::mutex> lock(servicelock);
    if (instance == nullptr) instance = new KovaBpfService();
    return instance;
}

KovaBpfService::KovaBpfService() = default;

KovaBpfService::~KovaBpfService() = default;

bool KovaBpfService::start() {
    std::lock_guard<std::mutex> lock(servicelock);
    isRunning.store(true, std::memory_order_release);
    launchProducer(kEventProducer);
    return true;
}

int KovaBpfService::stop() {
    {
        std::lock_guard<std::mutex> lock(servicelock);
        isRunning.store(false, std::memory_order_release);
    }
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
    joinProducers();
    return 0;
}

void KovaBpfService::launchProducer(ProducerSlot slot) {
    std::lock_guard<std::mutex> lock(produceThreadsLock);
    // Assigning over a thread that is still held terminates the process, as the system requires.
    produceThreads[slot] = std::thread(&KovaBpfService::runProducer, this, slot);
}

void KovaBpfService::fillEmptyProducerSlots() {
    std::lock_guard<std::mutex> lock(produceThreadsLock);
    for (int slot = kEventProducer; slot <= kTimeInStateProducer; ++slot) {
        if (!produceThreads[slot].joinable()) {
            produceThreads[slot] = std::thread(&KovaBpfService::runProducer, this, static_cast<ProducerSlot>(slot));
        }
    }
}

void KovaBpfService::joinProducers() {
    // Slot 0 fills slots 1 and 2, so once it is joined they no longer change.
    for (int slot = kEventProducer; slot <= kTimeInStateProducer; ++slot) {
        std::thread producer;
        {
            std::lock_guard<std::mutex> lock(produceThreadsLock);
            producer = std::move(produceThreads[slot]);
        }
        if (producer.joinable()) producer.join();
    }
}

int KovaBpfService::runProducer(ProducerSlot slot) {
    switch (slot) {
        case kEventProducer: return eventProduceThread();
        case kGplEventProducer: return gpleventProduceThread();
        case kTimeInStateProducer: return timeInStateProduceThread();
    }
    return -1;
}

void KovaBpfService::installDumpSignalHandlers() {
    InstallDeferredSignalHandler(50, DumpState);
    InstallDeferredSignalHandler(51, HandleDumpSignal);
    InstallDeferredSignalHandler(52, HandleNonKernelDumpSignal);
    InstallDeferredSignalHandler(53, HandleDumpSignalNormal);
    InstallDeferredSignalHandler(54, HandleNonKernelDumpSignalNormal);
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

    if (!waitForBpfReady()) {
        ALOGW("[KovaBpfService][eventProduceThread] Service stopped while waiting for %s", KOVA_BPF_READY.c_str());
        return -1;
    }
    if (!InitBasetime()) {
        ALOGE("[KovaBpfService][eventProduceThread] Init base time failed! errMsg: %s", strerror(errno));
    }
    launchProducer(kGplEventProducer);
    launchProducer(kTimeInStateProducer);
    producersLaunched.store(true, std::memory_order_release);

    // Failed programs are counted and logged; the service runs with whatever did attach.
    const int attachFailures = AttachAllKovaBpfProgram(KovaPath(kPinDir), PROG_EVENT_MAP);
    if (attachFailures != 0) {
        ALOGE("[KovaBpfService][eventProduceThread] Attach all kova bpf error: %d", attachFailures);
    }
    installDumpSignalHandlers();
    ALOGW("[KovaBpfService][eventProduceThread] ring-buffer monitor is not part of this build; producer ends");
    return attachFailures;
}

int KovaBpfService::gpleventProduceThread() {
    NameAndPinThread("BpfServicePGpl", "[KovaBpfService][gpleventProduceThread] set thread affinity failed. %s");
    const int attachFailures = AttachAllKovaBpfProgram(KovaPath(kPinDir), PROG_GPL_EVENT_MAP);
    if (attachFailures != 0) {
        ALOGE("[KovaBpfService][gpleventProduceThread] Attach all kova bpf error: %d", attachFailures);
    }
    ALOGW("[KovaBpfService][gpleventProduceThread] GPL ring-buffer monitor is not part of this build; producer ends");
    return attachFailures;
}

int KovaBpfService::timeInStateProduceThread() {
    NameAndPinThread("BpfServiceTimeInState",
                     "[KovaBpfService][timeInStateProduceThread] set thread affinity failed. %s");
    ALOGW("[KovaBpfService][timeInStateProduceThread] time-in-state tracking is not part of this build");
    ALOGE("[KovaBpfService][timeInStateProduceThread] Start tracking pid times failed.");
    return -1;
}

}  // namespace Kova::Bpf
