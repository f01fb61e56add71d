#include "service/kova_bpf_state.h"

#define LOG_TAG "BpfUtils"

#include <log/log.h>

#include <algorithm>

#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_diagnostics.h"
#include "utils/kova_bpf_file_writer.h"
#include "utils/kova_bpf_paths.h"
#include "utils/kova_bpf_time.h"

namespace Kova::Bpf {
namespace {

// CSV names of the raw event types; every type from 13 up without a name prints "UNKNOW".
constexpr const char* kEventNames[] = {
        "kova_task_init",    "kmem_rss_info",        "sched_task_create",      "sched_task_exit",
        "dmabuf_size_info",  "cgroup_attach_cpuset_info", "fd_update_info",   "dmabuf_update",
        "sched_total_cpu_time", "UNKNOW",            "sched_process_cpu_time", "UNKNOW",
        "sched_thread_cpu_time",
};

const char* EventName(int type) {
    return type < static_cast<int>(std::size(kEventNames)) ? kEventNames[type] : "UNKNOW";
}

RewrittenFile gStateFile([](const std::string&, int) { ALOGE("[KovaBpfDataState][DumpState] open file failed!"); });

}  // namespace

KovaBpfDataState* KovaBpfDataState::GetInstance() {
    static KovaBpfDataState* const instance = new KovaBpfDataState(GetSystemSecondsTime);
    return instance;
}

KovaBpfDataState::KovaBpfDataState(SecondsClock clock) : clock_(clock), lastTime_(clock()) {}

void KovaBpfDataState::RecordEvent(int type, unsigned int count) {
    const uint64_t now = clock_();
    if (type < 0 || type >= kCounterCount) return;
    if (now != lastTime_.load(std::memory_order_acquire)) AdvanceSecond();
    slots_[SlotOf(head())][type].fetch_add(count, std::memory_order_relaxed);
}

void KovaBpfDataState::AdvanceSecond() {
    std::lock_guard<std::mutex> lock(advanceLock_);
    // Read under the lock: a reading taken before another producer advanced would look like a clock
    // going backwards and move head back over counted slots.
    const uint64_t now = clock_();
    const uint64_t last = lastTime_.load(std::memory_order_relaxed);
    if (now == last) return;  // another producer moved to this second first
    const int32_t delta = static_cast<int32_t>(now - last);
    lastTime_.store(clock_(), std::memory_order_release);
    const int64_t head = head_.load(std::memory_order_relaxed);
    const int64_t tail = tail_.load(std::memory_order_relaxed);
    const int64_t span = head + delta - tail;
    if (span >= kSlotCount) tail_.store(tail + span - (kSlotCount - 1), std::memory_order_release);
    // Seconds that passed without events get zeroed slots; past a whole ring, every slot is zeroed once.
    const int64_t first = head + 1 + std::max<int64_t>(0, delta - kSlotCount);
    for (int64_t sequence = first; sequence <= head + delta; ++sequence) {
        for (auto& counter : slots_[SlotOf(sequence)]) counter.store(0, std::memory_order_relaxed);
    }
    head_.store(head + delta, std::memory_order_release);
}

void KovaBpfDataState::DumpState() {
    const std::string dir = KovaPath(KOVA_DIAGNOSTICS_DIR);
    MakeDirectories(dir, 0775);
    gStateFile.Write(dir + "/" + KOVA_STATE_FILE_NAME, Csv());
}

std::string KovaBpfDataState::Csv() const {
    const int64_t head = this->head();
    const int64_t tail = this->tail();
    std::string csv = "EventCount, ";
    for (int type = 0; type < kPollCounter; ++type) StringAppendF(&csv, "%s, ", EventName(type));
    csv += "PollCount, ";
    StringAppendF(&csv, "%lld, %lld \r\n", static_cast<long long>(head), static_cast<long long>(tail));
    for (int64_t sequence = head; head >= tail && sequence >= tail; --sequence) {
        uint32_t sum = 0;
        for (int type = 0; type < kPollCounter; ++type) sum += counter(sequence, type);
        StringAppendF(&csv, "%d, ", static_cast<int>(sum));
        for (int type = 0; type < kCounterCount; ++type) {
            StringAppendF(&csv, "%d, ", static_cast<int>(counter(sequence, type)));
        }
        csv += "\r\n";
    }
    return csv;
}

void DumpState(int /*signo*/) { KovaBpfDataState::GetInstance()->DumpState(); }

}  // namespace Kova::Bpf
