// Ring-buffer event pump: the two monitors, the dispatch of each record, and the status word shared
// with the kernel programs. The monitors run on "BpfServicePoll" (ring 0) and "BpfServicePGpl" (ring 1);
// the dispatch runs on the monitor that drains the record.

#include "service/kova_bpf_service.h"

#define LOG_TAG "BpfService"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <errno.h>
#include <linux/bpf.h>
#include <log/log.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <memory>

#include "kova_bpf_records.h"
#include "service/kova_bpf_event_manager.h"
#include "service/kova_bpf_state.h"
#include "service/kova_bpf_task_manager.h"
#include "utils/kova_bpf_diagnostics.h"
#include "utils/kova_bpf_paths.h"
#include "utils/kova_bpf_signal_worker.h"
#include "service/kova_bpf_syscall.h"

namespace Kova::Bpf {
namespace {

struct RingMaps {
    const char* ringBuffer;
    const char* status;
    const char* logPrefix;
    const char* stopMessage;
};

constexpr RingMaps kRings[2] = {
        {"/sys/fs/bpf/kova/map_KovaBpfDefineset_ringbuf_map", "/sys/fs/bpf/kova/map_KovaBpfDefineset_ringbuf_status",
         "[KovaBpfService][eventMonitor]", "[KovaBpfService][eventMonitor] Stop Event Produce Thread..."},
        {"/sys/fs/bpf/kova/map_KovaBpfGplDefineset_ringbuf_map",
         "/sys/fs/bpf/kova/map_KovaBpfGplDefineset_ringbuf_status", "[KovaBpfService][gpleventMonitor]",
         "[KovaBpfService][gpleventMonitor] Stop GPL Event Produce Thread..."},
};

constexpr uint32_t kLastDispatchedType = 13;
constexpr int kMaxPollFailuresBeforeExit = 5;  // the sixth consecutive failure ends the monitor
constexpr int64_t kStatusCheckIntervalSeconds = 30;

// The shortest record each handled type may have: its handler reads that many bytes.
size_t MinimumRecordSize(uint32_t type) {
    switch (type) {
        case KOVA_RAW_TASK_INIT: return sizeof(kova_task_init_record);
        case KOVA_RAW_RSS: return sizeof(kova_rss_record);
        case KOVA_RAW_TASK_CREATE: return sizeof(kova_task_create_record);
        case KOVA_RAW_TASK_EXIT: return sizeof(kova_task_exit_record);
        default: return sizeof(uint32_t);
    }
}

int64_t WallSeconds() { return static_cast<int64_t>(time(nullptr)); }

// A failed read leaves the value at 0.
uint64_t ReadStatus(int fd, uint32_t key) {
    uint64_t value = 0;
    if (BpfMapLookupElem(fd, &key, &value) != 0) value = 0;
    return value;
}

bool WriteStatus(int fd, uint32_t key, uint64_t value) { return BpfMapUpdateElem(fd, &key, &value, BPF_ANY) == 0; }

// A pinned map opened with libbpf, or -1 with errno (libbpf itself returns -errno).
int OpenPinnedMap(const char* path) {
    const int fd = bpf_obj_get(KovaPath(path).c_str());
    return fd < 0 ? -1 : fd;
}

using Consumer = std::unique_ptr<ring_buffer, decltype(&ring_buffer__free)>;

// A consumer of the ring buffer `fd`; null, with the failure logged, when it cannot be set up.
Consumer NewConsumer(const RingMaps& maps, int fd, ring_buffer_sample_fn sample, void* context) {
    Consumer consumer(ring_buffer__new(fd, sample, context, nullptr), ring_buffer__free);
    if (consumer == nullptr) {
        ALOGE("%s KOVABPF: Set up ringbuf failed: %s, ringbufMap fd: %d", maps.logPrefix, strerror(errno), fd);
        errno = 0;
    }
    return consumer;
}

int CountRecord(void* counter, void* /*data*/, size_t /*size*/) {
    ++*static_cast<int*>(counter);
    return 0;
}

}  // namespace

void KovaBpfService::installDumpSignalHandlers() {
    InstallDeferredSignalHandler(KOVA_SIGNAL_STATE, DumpState);
    InstallDeferredSignalHandler(KOVA_SIGNAL_DUMP, HandleDumpSignal);
    InstallDeferredSignalHandler(KOVA_SIGNAL_DUMP_NO_KERNEL, HandleNonKernelDumpSignal);
    InstallDeferredSignalHandler(KOVA_SIGNAL_DUMP_SHORT, HandleDumpSignalNormal);
    InstallDeferredSignalHandler(KOVA_SIGNAL_DUMP_SHORT_NO_KERNEL, HandleNonKernelDumpSignalNormal);
}

int KovaBpfService::eventMonitor(const std::function<void()>& attachPrograms) {
    return runMonitor(0, attachPrograms);
}

int KovaBpfService::gpleventMonitor(const std::function<void()>& attachPrograms) {
    return runMonitor(1, attachPrograms);
}

bool KovaBpfService::openRing(int ring) {
    const RingMaps& maps = kRings[ring];
    ringBuffMapFd[ring].reset(OpenPinnedMap(maps.ringBuffer));
    if (ringBuffMapFd[ring].get() < 0) {
        ALOGE("%s KOVABPF: get ringbuf failed: %s, map fd: %d", maps.logPrefix, strerror(errno),
              ringBuffMapFd[ring].get());
        errno = 0;
        return false;
    }
    ringBuffStatusMapFd[ring].reset(OpenPinnedMap(maps.status));
    if (ringBuffStatusMapFd[ring].get() < 0) {
        ALOGE("%s KOVABPF: get ringbuf status map failed: %s, map fd: %d", maps.logPrefix, strerror(errno),
              ringBuffStatusMapFd[ring].get());
        errno = 0;
        return false;
    }
    statusMapFd[ring].store(ringBuffStatusMapFd[ring].get(), std::memory_order_release);
    return true;
}

int KovaBpfService::takeOverRing(int ring) {
    const RingMaps& maps = kRings[ring];
    const int fd = statusMapFd[ring].load(std::memory_order_acquire);
    uint64_t earlierWord = 0;
    {
        // The bits of an instance that ended without clearing them (a killed daemon leaves core and
        // normal set) would let the programs write as soon as they are attached, before this instance
        // consumes or has scanned.
        std::lock_guard<std::mutex> lock(servicelock);
        earlierWord = ReadStatus(fd, KOVA_STATUS_WORD);
        if (!WriteStatus(fd, KOVA_STATUS_WORD, 0)) {
            ALOGE("%s KOVABPF: reset of the status word failed: %s", maps.logPrefix, strerror(errno));
            errno = 0;
            return -1;
        }
    }
    // Records an earlier instance did not consume stay in the pinned ring; the first consumer would read
    // them as new. They describe processes this instance's scan sees as they are now, or not at all.
    int discarded = 0;
    const Consumer drain = NewConsumer(maps, ringBuffMapFd[ring].get(), CountRecord, &discarded);
    if (drain == nullptr) return -1;
    ring_buffer__consume(drain.get());
    ALOGI("%s KOVABPF: ring taken over: %d earlier records discarded, status word was %#llx", maps.logPrefix,
          discarded, static_cast<unsigned long long>(earlierWord));
    return discarded;
}

namespace {

// The monitors' sample callback. A ring that fills as fast as it is drained would keep one poll going
// for ever: a stopping service ends it at the next record.
int ConsumeUnlessStopped(void* ctx, void* data, size_t size) {
    if (!KovaBpfService::GetInstance()->running()) return -ECANCELED;
    const int result = KovaBpfService::handleBpfRingBuffEvent(ctx, data, size);
    EventManager::GetInstance()->Pace();
    return result;
}

}  // namespace

int KovaBpfService::runMonitor(int ring, const std::function<void()>& attachPrograms) {
    const RingMaps& maps = kRings[ring];
    installDumpSignalHandlers();
    const bool usable = openRing(ring) && takeOverRing(ring) >= 0;
    // Attached once the ring is taken over, so that nothing reaches it under an earlier instance's
    // bits; also when the ring is unusable, so that the service runs with whatever it has.
    if (attachPrograms) attachPrograms();
    if (!usable) {
        monitorsStarted.fetch_add(1, std::memory_order_release);
        return -1;
    }
    const Consumer consumer = NewConsumer(maps, ringBuffMapFd[ring].get(), ConsumeUnlessStopped, nullptr);
    if (consumer == nullptr) {
        monitorsStarted.fetch_add(1, std::memory_order_release);
        return -1;
    }
    EventManager::EnablePacingOnThisThread();
    EventManager::DeferSendsOnThisThread();

    // The kernel programs see the core bit as soon as the consumer exists, while the start-up scan runs
    // (the task table's, or the seeding of the dmabuf maps), and the normal bit only once the scan is
    // complete.
    enableCoreBpf(ring, true);
    if (ring == 0) {
        initTaskInfo();
    } else {
        initDmabufBpfProg();
    }
    enableNormalBpf(ring, true);
    monitorsStarted.fetch_add(1, std::memory_order_release);

    int failures = 0;
    while (true) {
        if (!running()) {
            ALOGW("%s", maps.stopMessage);
            return 0;
        }
        // A record that failed ends its poll with the records behind it unread, and the kernel may have
        // skipped their wake-ups while it was pending: they are read at once rather than waited for.
        int result = failures > 0 ? ring_buffer__consume(consumer.get()) : 0;
        if (result == 0) result = ring_buffer__poll(consumer.get(), -1);
        EventManager::GetInstance()->SendDeferred();
        if (result >= 0) {
            KovaBpfDataState::GetInstance()->RecordEvent(KovaBpfDataState::kPollCounter, 1);
            checkBpfRingBuffStatus(ring, false);
            failures = 0;
            continue;
        }
        if (!running()) continue;
        const int pollErrno = errno;  // the status check issues system calls of its own
        checkBpfRingBuffStatus(ring, true);
        if (pollErrno == EINTR) continue;
        ALOGE("%s KOVABPF: ret %d .Error ring buf poll. %s", maps.logPrefix, result, strerror(pollErrno));
        errno = 0;
        sleep(1);
        if (failures++ == kMaxPollFailuresBeforeExit) return -1;
    }
}

int KovaBpfService::handleBpfRingBuffEvent(void* /*ctx*/, void* data, size_t size) {
    return GetInstance()->dispatch(static_cast<char*>(data), size);
}

int KovaBpfService::dispatch(char* data, size_t size) {
    uint32_t type = 0;
    if (size < sizeof(type)) {
        ALOGE("[KovaBpfService] handleEvent record too short for a type: %zu bytes", size);
        return 0;
    }
    memcpy(&type, data, sizeof(type));
    KovaBpfDataState::GetInstance()->RecordEvent(static_cast<int>(type), 1);
    if (type > kLastDispatchedType) {
        ALOGE("[KovaBpfService] handleEvent ERROR!!! Type: %u", type);
        return -1;
    }
    if (size < MinimumRecordSize(type)) {
        ALOGE("[KovaBpfService] handleEvent record too short! Type: %u, size: %zu", type, size);
        return 0;
    }
    EventManager::GetInstance()->AppendEvent(data, size);
    const auto handler = eventHandlerMap.find(static_cast<int32_t>(type));
    if (handler == eventHandlerMap.end() || !handler->second) return 0;
    // No lock is held while a handler runs. Handlers only read the record (a ring buffer's samples are
    // mapped read-only).
    return handler->second(data, static_cast<int64_t>(size));
}

int KovaBpfService::handleBpfPassthrough(char* data, int64_t size) {
    EventManager::GetInstance()->AppendEvent(data, static_cast<size_t>(size));
    return 0;
}

int KovaBpfService::checkBpfRingBuffStatus(int ring, bool force) {
    if (ring < 0 || ring > 1) return 0;
    const auto clock = statusCheckClock.load(std::memory_order_relaxed);
    const int64_t now = clock ? clock() : WallSeconds();
    if (!force && now - lastRingBuffCheckTime[ring].load(std::memory_order_relaxed) < kStatusCheckIntervalSeconds) {
        return 1;
    }
    lastRingBuffCheckTime[ring].store(now, std::memory_order_relaxed);
    const int fd = statusMapFd[ring].load(std::memory_order_acquire);
    const uint64_t available = ReadStatus(fd, KOVA_STATUS_AVAIL_DATA);
    uint64_t word = ReadStatus(fd, KOVA_STATUS_WORD);
    if ((word & KOVA_STATUS_FULL) == 0) return 1;
    ALOGW("[KovaBpfService][checkBpfRingBuffStatus] bpf ringbuff full!");
    word &= ~KOVA_STATUS_FULL;
    ALOGW("[KovaBpfService][checkBpfRingBuffStatus] avail data: %lu, ringbuf size: %lu, cons pos: %lu, prod pos: %lu",
          static_cast<unsigned long>(available), static_cast<unsigned long>(ReadStatus(fd, KOVA_STATUS_RING_SIZE)),
          static_cast<unsigned long>(ReadStatus(fd, KOVA_STATUS_CONS_POS)),
          static_cast<unsigned long>(ReadStatus(fd, KOVA_STATUS_PROD_POS)));
    WriteStatus(fd, KOVA_STATUS_WORD, word);
    return 0;
}

bool KovaBpfService::enableCoreBpf(int ring, bool enable) { return setStatusBit(ring, KOVA_STATUS_CORE, enable); }

bool KovaBpfService::enableNormalBpf(int ring, bool enable) {
    return setStatusBit(ring, KOVA_STATUS_NORMAL, enable);
}

bool KovaBpfService::setStatusBit(int ring, uint64_t bit, bool enable) {
    if (ring < 0 || ring > 1) return false;
    std::lock_guard<std::mutex> lock(servicelock);
    const int fd = statusMapFd[ring].load(std::memory_order_acquire);
    uint64_t word = ReadStatus(fd, KOVA_STATUS_WORD) & ~bit;
    if (enable) word |= bit;
    return WriteStatus(fd, KOVA_STATUS_WORD, word);
}

}  // namespace Kova::Bpf
