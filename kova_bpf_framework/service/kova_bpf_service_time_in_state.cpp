// Time-in-state reporting: the worker that serves report requests, its six handlers and the reports
// they build. Runs on "BpfServiceTimeInState"; reports leave through the event fan-out, to the
// connections subscribed to the report's id. Layouts: protocol/kova_bpf_protocol.h.

#include "service/kova_bpf_service.h"

#define LOG_TAG "BpfService"

#include <android-base/logging.h>
#include <log/log.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <type_traits>

#include "protocol/kova_bpf_protocol.h"
#include "service/kova_bpf_cputimeinstate.h"
#include "service/kova_bpf_event_manager.h"
#include "utils/kova_bpf_time.h"
#include "utils/kova_bpf_locking.h"

namespace Kova::Bpf {
namespace {

// A report names at most this many processes or threads, the ones with the most time.
constexpr size_t kTopEntries = 10;

// A report of exactly the size computed for it, written field by field: packed, little-endian.
class ReportWriter {
  public:
    explicit ReportWriter(size_t size) : buffer_(new char[size]), size_(size) {}

    template <typename T>
    void put(const T& value) {
        static_assert(std::is_trivially_copyable_v<T>);
        CHECK(used_ + sizeof(value) <= size_);
        memcpy(buffer_.get() + used_, &value, sizeof(value));
        used_ += sizeof(value);
    }
    // u32 P, then per policy u32 F and F times.
    void putPolicies(const PolicyTimes& policies) {
        put(static_cast<uint32_t>(policies.size()));
        for (const std::vector<uint64_t>& times : policies) {
            put(static_cast<uint32_t>(times.size()));
            for (const uint64_t time : times) put(time);
        }
    }
    // Hands the bytes to the fan-out, which copies them; returns the size.
    size_t publish() {
        CHECK(used_ == size_);
        EventManager::GetInstance()->AppendEvent(buffer_.get(), size_);
        return size_;
    }

  private:
    std::shared_ptr<char[]> buffer_;
    const size_t size_;
    size_t used_ = 0;
};

size_t PoliciesSize(const PolicyTimes& policies) {
    size_t size = sizeof(uint32_t);
    for (const std::vector<uint64_t>& times : policies) size += sizeof(uint32_t) + times.size() * sizeof(uint64_t);
    return size;
}

// The first 15 bytes of the process's name, NUL-terminated.
void CopyProcessName(uint32_t tgid, char (&field)[16]) {
    memset(field, 0, sizeof(field));
    strncpy(field, getProcessName(static_cast<int>(tgid)).c_str(), sizeof(field) - 1);
    field[sizeof(field) - 1] = '\0';
}

KovaProcessTimeRecord ToRecord(uint32_t key, const tgid_data_t& data) {
    KovaProcessTimeRecord record{};
    record.key = key;
    record.tgid = data.tgid;
    record.timeNs = data.time;
    CopyProcessName(data.tgid, record.name);
    return record;
}

KovaThreadTimeRecord ToRecord(uint32_t key, const pid_data_t& data) {
    KovaThreadTimeRecord record{};
    record.key = key;
    record.pid = data.pid;
    record.tgid = data.tgid;
    memcpy(record.threadName, data.thread_name, sizeof(record.threadName));
    record.timeNs = data.time;
    CopyProcessName(data.tgid, record.processName);
    return record;
}

// 50006 or 50007: the ten entries with the most time and their frequency times, or the 30-byte empty
// frame when either map could not be read.
template <typename Data>
size_t PublishCpuTimeReport(uint32_t id, const std::optional<std::unordered_map<uint32_t, Data>>& times,
                            const std::optional<std::unordered_map<uint32_t, PolicyTimes>>& frequencies) {
    KovaCpuTimeReportHeader header{};
    header.id = id;
    if (!times || !frequencies) {
        ReportWriter report(sizeof(header) + sizeof(uint8_t));
        report.put(header);
        report.put(uint8_t{0});
        return report.publish();
    }
    std::vector<std::pair<uint32_t, Data>> sorted(times->begin(), times->end());
    std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.second.time > b.second.time; });

    // Keyed maps, so records leave in key order, not time order: receivers must not rely on either.
    std::map<uint32_t, decltype(ToRecord(0, Data{}))> records;
    std::map<uint32_t, const PolicyTimes*> recordFrequencies;
    for (size_t position = 0; position < sorted.size(); ++position) {
        const auto& [key, data] = sorted[position];
        header.totalTimeNs += data.time;
        if (position >= kTopEntries) continue;
        header.reportedTimeNs += data.time;
        records.emplace(key, ToRecord(key, data));
        if (const auto found = frequencies->find(key); found != frequencies->end()) {
            recordFrequencies.emplace(key, &found->second);
        }
    }
    header.timestamp = GetSystemBootNanosencondsTime();
    header.hasRecords = 1;

    size_t size = sizeof(header) + sizeof(uint32_t) + records.size() * sizeof(records.begin()->second) +
                  sizeof(uint8_t) + sizeof(uint32_t);
    for (const auto& [key, policies] : recordFrequencies) size += sizeof(uint32_t) + PoliciesSize(*policies);

    ReportWriter report(size);
    report.put(header);
    report.put(static_cast<uint32_t>(records.size()));
    for (const auto& [key, record] : records) report.put(record);
    report.put(uint8_t{1});
    report.put(static_cast<uint32_t>(recordFrequencies.size()));
    for (const auto& [key, policies] : recordFrequencies) {
        report.put(key);
        report.putPolicies(*policies);
    }
    return report.publish();
}

// 50008 to 50010: the id as a 64-bit value, then the time of the reset or 0 when clearing failed.
void PublishReset(uint32_t id, bool cleared) {
    ReportWriter report(sizeof(KovaTimeResetReport));
    report.put(KovaTimeResetReport{id, cleared ? GetSystemBootNanosencondsTime() : 0});
    report.publish();
}

}  // namespace

std::vector<int32_t> KovaBpfService::takeTimeInStateEventIds() {
    std::lock_guard<std::mutex> lock(timeInStateEventIdsLock);
    timeInStateIdsDropped = false;
    return std::exchange(timeInStateEventIds, {});
}

void KovaBpfService::timeInStateMonitor() {
    timeInStateTypes = {
            {EVENT_TOTAL_CPU_TIME_IN_STATE, 8}, {EVENT_PROCESS_CPU_TIME_IN_STATE, 10},
            {EVENT_THREAD_CPU_TIME_IN_STATE, 12}, {EVENT_TOTAL_CPU_TIME_RESET, 9},
            {EVENT_PROCESS_CPU_TIME_RESET, 11}, {EVENT_THREAD_CPU_TIME_RESET, 13},
    };
    // Serves until the service stops, so that Wait() can join this thread.
    while (true) {
        {
            std::unique_lock<std::mutex> lock(timeInStateReadyLock);
            AssertHeld(timeInStateReadyLock);
            timeInStateReadyCondition.wait(lock, [this]() REQUIRES(timeInStateReadyLock) {
                return timeInStateReady || !running();
            });
            if (!running()) return;
            timeInStateReady = false;
        }
        // Requests queued while these run set the flag again and are served in the next pass.
        for (const int32_t type : takeTimeInStateEventIds()) {
            const auto handlerId = timeInStateTypes.find(type);
            if (handlerId == timeInStateTypes.end()) continue;
            const auto handler = timeInStateHandlers.find(handlerId->second);
            if (handler != timeInStateHandlers.end()) handler->second();
        }
        warnOfLostTimeInState();
    }
}

void KovaBpfService::warnOfLostTimeInState() {
    const std::optional<tis_lost_counts_t> lost = getLostUpdateCounts();
    if (!lost || lost->tgid + lost->pid == timeInStateLostSeen) return;
    timeInStateLostSeen = lost->tgid + lost->pid;
    ALOGW("[KovaBpfService][timeInStateMonitor] time-in-state maps full: %llu process and %llu thread updates not "
          "recorded since the programs were loaded; a reset makes room",
          static_cast<unsigned long long>(lost->tgid), static_cast<unsigned long long>(lost->pid));
}

int KovaBpfService::handleKovaTotalCpuTimeInState() {
    const std::optional<PolicyTimes> totals = getTotalCpuFreqTimes();
    KovaTotalTimeReportHeader header{};
    header.id = EVENT_TOTAL_CPU_TIME_IN_STATE;
    if (totals) {
        header.timestamp = GetSystemBootNanosencondsTime();
        header.hasData = 1;
    }
    ReportWriter report(sizeof(header) + (totals ? PoliciesSize(*totals) : 0));
    report.put(header);
    if (totals) report.putPolicies(*totals);
    ALOGI("%s size:%zu", "handleKovaTotalCpuTimeInState", report.publish());
    return 0;
}

int KovaBpfService::handleKovaProcessCpuTimeInState() {
    const auto times = getTgidsTimes();
    const auto frequencies = getTgidsCpuFreqTimes();
    ALOGI("%s size:%zu", "handleKovaProcessCpuTimeInState",
          PublishCpuTimeReport(EVENT_PROCESS_CPU_TIME_IN_STATE, times, frequencies));
    return 0;
}

int KovaBpfService::handleKovaThreadCpuTimeInState() {
    const auto times = getPidsTimes();
    const auto frequencies = getPidsCpuFreqTimes();
    ALOGI("%s size:%zu", "handleKovaThreadCpuTimeInState",
          PublishCpuTimeReport(EVENT_THREAD_CPU_TIME_IN_STATE, times, frequencies));
    return 0;
}

int KovaBpfService::handleKovaTotalCpuTimeReset() {
    ALOGI("%s", "handleKovaTotalCpuTimeReset");
    PublishReset(EVENT_TOTAL_CPU_TIME_RESET, clearTotalTimes());
    return 0;
}

int KovaBpfService::handleKovaProcessCpuTimeReset() {
    ALOGI("%s", "handleKovaProcessCpuTimeReset");
    PublishReset(EVENT_PROCESS_CPU_TIME_RESET, clearTgidTimes());
    return 0;
}

int KovaBpfService::handleKovaThreadCpuTimeReset() {
    ALOGI("%s", "handleKovaThreadCpuTimeReset");
    PublishReset(EVENT_THREAD_CPU_TIME_RESET, clearPidTimes());
    return 0;
}

}  // namespace Kova::Bpf
