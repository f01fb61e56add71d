// KovaBpfService: the service singleton and its producer threads.
//
// One class, defined across one source file per concern:
//   kova_bpf_service_lifecycle.cpp   entry, singleton, start/stop/Wait, producer threads
//   kova_bpf_service_catalogue.cpp   the two program catalogues and the build-type values
//
// Threads:
//   "BpfServicePoll"         event producer (slot 0): waits for the loader's readiness, attaches
//                            PROG_EVENT_MAP, then runs the normal ring-buffer monitor
//   "BpfServicePGpl"         GPL event producer (slot 1): attaches PROG_GPL_EVENT_MAP, then runs the
//                            GPL ring-buffer monitor
//   "BpfServiceTimeInState"  time-in-state producer (slot 2)
//   the host's thread        Wait(): supervises the slots until the service stops, then joins them
// All producers are pinned to CPUs 0, 1 and 2.
//
// Locks: `servicelock` guards the singleton, start() and stop(). It is not recursive and GetInstance()
// takes it, so no caller may hold it while calling GetInstance().
#pragma once

#include <stdint.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "service/kova_bpf_helper.h"

namespace Kova::Bpf {

// The one entry a host needs. Returns false when "persist.sys.stability.bpfframework.disable" is "1";
// otherwise prepares the diagnostics directory, rotates the error log, creates and starts the service
// and returns true. The host then keeps the process alive, typically in Wait().
bool BpfServiceMain();

class KovaBpfService {
  public:
    static const std::string KOVA_BPF_READY;  // "sys.kova_bpf_ready", set by the BPF loader
    static std::mutex servicelock;
    // What the event producers attach, from the pins of the "KovaBpfDefineset" and
    // "KovaBpfGplDefineset" objects. Built at library load and only read afterwards.
    static const ProgramCatalogue PROG_EVENT_MAP;
    static const ProgramCatalogue PROG_GPL_EVENT_MAP;
    // The service module's build-type values, recorded at library load. Informational only.
    static const PlatformBuildType BUILD_TYPE;

    // The singleton, created under `servicelock` on first call and never destroyed.
    static KovaBpfService* GetInstance();

    // Marks the service running and starts the event producer into slot 0. Always true.
    bool start();
    // Supervises the producer slots every 60 seconds while running (refilling empty ones); once the
    // service is stopped, stops the IPC manager and joins the producers in slot order. Returns 0.
    int Wait();
    // Ends the service: stops the IPC manager and clears the running flag. Safe from any thread, but not
    // from a signal handler.
    int stop();

    int eventProduceThread();
    int gpleventProduceThread();
    int timeInStateProduceThread();

    bool running() const { return isRunning.load(std::memory_order_acquire); }

    // True once the event producer has started slots 1 and 2, or has ended before doing so. A producer
    // that fills a slot the supervisor already filled terminates the process (that race is part of the
    // system), so a host calls Wait() only after this is true.
    bool hasLaunchedProducers() const { return producersLaunched.load(std::memory_order_acquire); }

  private:
    enum ProducerSlot { kEventProducer = 0, kGplEventProducer = 1, kTimeInStateProducer = 2 };

    KovaBpfService();
    ~KovaBpfService();
    KovaBpfService(const KovaBpfService&) = delete;
    KovaBpfService& operator=(const KovaBpfService&) = delete;

    // Lifecycle helpers (kova_bpf_service_lifecycle.cpp).
    bool waitForBpfReady();
    void installDumpSignalHandlers();
    void launchProducer(ProducerSlot slot);
    void fillEmptyProducerSlots();
    void joinProducers();
    int runProducer(ProducerSlot slot);

    static KovaBpfService* instance;  // guarded by servicelock

    // Read by the producers at each loop turn without a lock.
    std::atomic<bool> isRunning{false};

    // Slot 0 event producer, 1 GPL event producer, 2 time-in-state producer. Filled by start(), the
    // event producer and Wait(); the lock makes those fills race-free without changing their rules.
    std::array<std::thread, 3> produceThreads;
    std::mutex produceThreadsLock;
    std::atomic<bool> producersLaunched{false};

    // Wakes Wait() from its 60-second sleep when the service stops.
    std::mutex supervisorLock;
    std::condition_variable supervisorWake;
};

}  // namespace Kova::Bpf
