// Task events: the handlers that keep the task table from raw records and turn its changes into client
// events 50001 to 50004, the /proc probe of one process and the start-up scan of every process. Runs on
// the event producer "BpfServicePoll".

#include "service/kova_bpf_service.h"

#define LOG_TAG "BpfService"

#include <dirent.h>
#include <errno.h>
#include <log/log.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <string_view>

#include "kova_bpf_records.h"
#include "protocol/kova_bpf_protocol.h"
#include "service/kova_bpf_event_manager.h"
#include "service/kova_bpf_state.h"
#include "service/kova_bpf_task_manager.h"
#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_paths.h"
#include "utils/kova_bpf_proc_status.h"
#include "utils/kova_bpf_time.h"

namespace Kova::Bpf {
namespace {

constexpr char TASK_STATUS_PATTERN[] = "/proc/%d/status";
constexpr char TASK_STAT_TEMPLATE[] = "/proc/%s/stat";

constexpr int64_t kYoungProcessNs = 3000000000LL;  // no reports in a process's first 3 s
constexpr uint64_t kThreadCountReportDelta = 11;
constexpr uint64_t kRssReportDelta = 16384;         // bytes, summed over the four kinds
constexpr int64_t kProcRefreshSeconds = 3;
constexpr int32_t kLowestReportedPid = 301;          // apart from init
constexpr int32_t kKernelThreadDaemonPid = 2;
constexpr uint32_t kRssMmId = 1000;

template <typename Record>
Record LoadRecord(const char* data) {
    Record record;
    memcpy(&record, data, sizeof(record));
    return record;
}

void CopyComm(char (&to)[16], const char* from) {
    memcpy(to, from, sizeof(to));
    to[sizeof(to) - 1] = '\0';
}

void Emit(const void* event, size_t size) {
    EventManager::GetInstance()->AppendEvent(static_cast<const char*>(event), size);
}

// Thread count and start time (seconds since the epoch) from a /proc/<pid>/stat line; both 0 when the
// line has fewer than 22 fields. A command name with blanks shifts the fields and is not corrected.
void ReadStat(const std::string& line, kova_task_init_record* record) {
    const std::vector<std::string> fields = Split(line, " ");
    if (fields.size() < 22) return;
    record->thread_count = static_cast<int32_t>(LeadingNumber(fields[19]).value_or(0));
    const long ticksPerSecond = sysconf(_SC_CLK_TCK);
    const long long startTicks = LeadingNumber(fields[21]).value_or(0);
    record->start_time_s =
            static_cast<uint64_t>(GetBasetime() + (ticksPerSecond > 0 ? startTicks / ticksPerSecond : 0));
}

// PF_EXITING in the flags of a /proc stat line (field 9): the task has begun to exit. The kernel sets it
// first thing in do_exit(), before the exit tracepoint, and it stays on a zombie.
constexpr unsigned long long kTaskExiting = 0x4;

bool IsExiting(const std::string& statLine) {
    const size_t nameEnd = statLine.rfind(')');
    if (nameEnd == std::string::npos) return false;
    const std::vector<std::string> fields = Split(statLine.substr(nameEnd + 1), " ");
    constexpr size_t kFlags = 6;  // fields counted from the state, field 3
    return fields.size() > kFlags && (LeadingNumber(fields[kFlags]).value_or(0) & kTaskExiting) != 0;
}

std::vector<std::string> ThreadIds(const std::string& taskDir) {
    std::vector<std::string> ids;
    ForEachProcessDir(taskDir, [&ids](const char* id) { ids.emplace_back(id); });
    return ids;
}

// True for a process that has ended: every thread of it has begun to exit (a zombie among them). It
// may still look alive in /proc for a long time (unmapping a large process, closing its files), and
// its exit record, if it came before the core bit, will never come. `leaderStat` is its stat line.
bool HasEnded(const std::string& processDir, const std::string& leaderStat) {
    if (!IsExiting(leaderStat)) return false;  // the common case: one read
    const std::string taskDir = processDir + "/task";
    const std::vector<std::string> threads = ThreadIds(taskDir);
    for (const std::string& thread : threads) {
        std::ifstream stat(taskDir + "/" + thread + "/stat");
        std::string line;
        // A thread that is gone has ended.
        if (std::getline(stat, line) && !IsExiting(line)) return false;
    }
    // A thread started meanwhile by one that has since begun to exit is alive.
    return ThreadIds(taskDir) == threads;
}

// Fills the identity and memory of one process from its status file; false when it cannot be read.
bool ReadStatus(const std::string& path, kova_task_init_record* record) {
    const std::optional<ProcStatus> status = ReadProcStatus(path, {.nameLength = KOVA_COMM_LEN - 1});
    if (!status) return false;
    memset(record->comm, 0, sizeof(record->comm));
    memcpy(record->comm, status->name.data(), status->name.size());
    record->ppid = status->ppid;
    record->uid = status->uid;
    record->rss_anon_bytes = status->rssAnonKb << 10;
    record->rss_file_bytes = status->rssFileKb << 10;
    record->rss_shmem_bytes = status->rssShmemKb << 10;
    record->swap_bytes = status->vmSwapKb << 10;
    return true;
}

// Applies a thread's creation (+1) or exit (-1) to its process and builds a thread-count event when the
// change since the last report is large enough in a process old enough. False when nothing is reported.
bool ApplyThreadChange(int32_t pid, uint64_t timestampNs, int delta, KovaThreadCountChangeEvent* event) {
    KovaTaskManager* table = KovaTaskManager::GetInstance();
    auto lock = KovaTaskManager::Lock();
    KovaTask* task = table->GetKovaTask(pid);
    if (task == nullptr) return false;  // a thread of a process the table does not know
    if (task->createTimeNs < timestampNs) task->threadNum += delta;
    if (static_cast<int64_t>(timestampNs - task->createTimeNs) < kYoungProcessNs ||
        SubAbs(task->threadNum, task->oldThreadNum) < kThreadCountReportDelta) {
        return false;
    }
    *event = {EVENT_THREAD_COUNT_CHANGE, task->pid, task->ppid, task->uid, task->oldThreadNum, task->threadNum};
    task->oldThreadNum = task->threadNum;
    return true;
}

}  // namespace

int KovaBpfService::handleKovaTaskInitEvent(char* data, int64_t /*size*/) {
    const auto record = LoadRecord<kova_task_init_record>(data);
    KovaTask task{};
    task.pid = record.pid;
    task.ppid = record.ppid;
    task.uid = record.uid;
    task.threadNum = record.thread_count;
    task.oldThreadNum = record.thread_count;
    CopyComm(task.comm, record.comm);
    // The record holds shared memory before swap; the task keeps swap before shared memory.
    task.rssSize[RSS_FILE] = static_cast<int64_t>(record.rss_file_bytes);
    task.rssSize[RSS_ANON] = static_cast<int64_t>(record.rss_anon_bytes);
    task.rssSize[RSS_SWAP] = static_cast<int64_t>(record.swap_bytes);
    task.rssSize[RSS_SHMEM] = static_cast<int64_t>(record.rss_shmem_bytes);
    memcpy(task.rssOldSize, task.rssSize, sizeof(task.rssOldSize));
    task.initTimeStamp = static_cast<int64_t>(record.start_time_s);
    task.createTimeNs = record.timestamp_ns;
    KovaTaskManager::GetInstance()->AddKovaTask(task.pid, task);
    return 0;
}

int KovaBpfService::handleSched_SchedProcessFork(char* data, int64_t /*size*/) {
    const auto record = LoadRecord<kova_task_create_record>(data);
    if (record.kind == KOVA_TASK_KIND_THREAD) {
        KovaThreadCountChangeEvent event;
        if (ApplyThreadChange(record.pid, record.timestamp_ns, +1, &event)) Emit(&event, sizeof(event));
        return 0;
    }
    if (record.kind != KOVA_TASK_KIND_PROCESS) {
        ALOGE("[KovaBpfService] Task Create raw event (SCHED__TASK_CREATE) error!");
        return 0;
    }
    KovaTaskManager* table = KovaTaskManager::GetInstance();
    // Already known: the start-up scan read it after this fork (see initTaskInfo); nothing changes.
    if (table->GetKovaTask(record.pid) != nullptr) return 0;
    KovaTask task{};
    task.pid = record.pid;
    task.ppid = record.ppid;
    task.uid = record.uid;
    CopyComm(task.comm, record.comm);
    task.initTimeStamp = static_cast<int64_t>(GetSystemSecondsTime());
    if (task.ppid == 0) {
        // The kernel side could not name the parent; /proc may, while the process still exists.
        UpdateProcessExdata info{};
        if (getProcessInfo(record.pid, &info) == 0) {
            task.ppid = info.ppid;
            CopyComm(task.comm, info.comm);
        }
    }
    task.threadNum = 1;
    task.oldThreadNum = 1;
    task.createTimeNs = record.timestamp_ns;
    table->AddKovaTask(task.pid, task);

    KovaTaskCreateEvent event{EVENT_TASK_CREATE, task.pid, task.ppid, task.uid, {}};
    memcpy(event.comm, task.comm, sizeof(event.comm));
    Emit(&event, sizeof(event));
    return 0;
}

int KovaBpfService::handleSched_SchedProcessExit(char* data, int64_t /*size*/) {
    const auto record = LoadRecord<kova_task_exit_record>(data);
    if (record.kind == KOVA_TASK_KIND_THREAD) {
        KovaThreadCountChangeEvent event;
        if (ApplyThreadChange(record.pid, record.timestamp_ns, -1, &event)) Emit(&event, sizeof(event));
        return 0;
    }
    if (record.kind != KOVA_TASK_KIND_PROCESS) {
        ALOGE("[KovaBpfService] Task Exit raw event (SCHED__TASK_EXIT) error!");
        return 0;
    }
    KovaTaskManager::GetInstance()->DelKovaTask(record.pid);  // also reported when it was not known
    KovaTaskExitEvent event{EVENT_TASK_EXIT, record.pid, {}};
    CopyComm(event.comm, record.comm);
    Emit(&event, sizeof(event));
    return 0;
}

int KovaBpfService::handleKmem_RssStat(char* data, int64_t /*size*/) {
    const auto record = LoadRecord<kova_rss_record>(data);
    if (record.size < 0 || record.member < 0 || record.member >= RSS_MEMBER_COUNT) return 0;
    KovaRssChangeEvent event;
    {
        KovaTaskManager* table = KovaTaskManager::GetInstance();
        auto lock = KovaTaskManager::Lock();
        KovaTask* task = table->GetKovaTask(record.pid);
        if (task == nullptr) return 0;
        if (provisionalNames.count(task->comm) != 0 &&
            static_cast<int64_t>(GetSystemSecondsTime()) - task->infoUpdateTime >= kProcRefreshSeconds) {
            UpdateProcessExdata info{};
            if (getProcessInfo(record.pid, &info) == 0) {
                task->ppid = info.ppid;
                CopyComm(task->comm, info.comm);
            }
            task->infoUpdateTime = static_cast<int64_t>(GetSystemSecondsTime());
        }
        task->mmId = kRssMmId;
        task->rssSize[record.member] = record.size;

        if (!(task->pid == 1 || task->pid >= kLowestReportedPid) || task->ppid == kKernelThreadDaemonPid) return 0;
        // Every name that starts with "sh" is left out, not only the shell.
        if (strncmp(task->comm, "dumpsys", 7) == 0 || strncmp(task->comm, "sh", 2) == 0) return 0;
        uint64_t change = 0;
        for (int member = 0; member < RSS_MEMBER_COUNT; ++member) {
            change += SubAbs(task->rssSize[member], task->rssOldSize[member]);
        }
        if (static_cast<int64_t>(record.timestamp_ns - task->createTimeNs) < kYoungProcessNs ||
            change < kRssReportDelta) {
            return 0;
        }
        event = {EVENT_RSS_CHANGE, task->pid, task->ppid, task->uid, {}, {}, {}};
        memcpy(event.comm, task->comm, sizeof(event.comm));
        memcpy(event.rssSize, task->rssSize, sizeof(event.rssSize));
        memcpy(event.rssOldSize, task->rssOldSize, sizeof(event.rssOldSize));
        memcpy(task->rssOldSize, task->rssSize, sizeof(task->rssOldSize));
    }
    Emit(&event, sizeof(event));
    return 0;
}

int KovaBpfService::getProcessInfo(int pid, UpdateProcessExdata* out) {
    // The key may stand anywhere in the line; the value is always taken from the seventh character.
    const std::optional<ProcStatus> status =
            ReadProcStatus(KovaPath(StringPrintf(TASK_STATUS_PATTERN, pid)), {.valueAtKeyLength = true});
    if (!status) {
        ALOGW("[KovaBpfService][GPI] Task not exists, errno info: %s", strerror(errno));
        return -1;
    }
    memset(out->comm, 0, sizeof(out->comm));
    memcpy(out->comm, status->name.data(), std::min(status->name.size(), sizeof(out->comm) - 1));
    out->ppid = status->ppid;
    out->pid = pid;
    return 0;
}

// The scan and the ring may both report a process; their order settles it. The scan dispatches its
// records before the monitor first polls, so every fork and exit record written since the core bit was
// set is applied after the whole scan, in the order the kernel wrote them:
//   - an exit removes whatever the scan found under its pid: the scan may read a process after its
//     exit record was written (it ended during the scan and is not reaped yet);
//   - a fork of a pid the table holds keeps the scan's record: that fork came before the scan read the
//     process, or the exit of the pid's earlier process, written between them, would have removed it;
//   - a process that has ended (every thread has begun to exit) is left out: if its exit record came
//     before the core bit, none will ever remove it, and if after, the record would only remove it again.
int KovaBpfService::initTaskInfo() {
    const std::string procDir = KovaPath(KOVA_PROC_DIR);
    unsigned int count = 0;
    const bool listed = ForEachProcessDir(procDir, [&](const char* name) {
        kova_task_init_record record{};
        record.type = KOVA_RAW_TASK_INIT;
        record.timestamp_ns = GetSystemBootNanosencondsTime();
        record.pid = static_cast<int32_t>(strtol(name, nullptr, 10));
        if (!ReadStatus(KovaPath(StringPrintf(TASK_STATUS_TEMPLATE, name)), &record)) return;
        std::ifstream stat(KovaPath(StringPrintf(TASK_STAT_TEMPLATE, name)));
        if (!stat.is_open()) return;  // vanished between the two reads: not dispatched
        std::string line;
        std::getline(stat, line);
        if (HasEnded(procDir + "/" + name, line)) return;
        ReadStat(line, &record);
        ++count;
        handleBpfRingBuffEvent(nullptr, &record, sizeof(record));
    });
    if (!listed) {
        ALOGE("[KovaBpfService][initTaskInfo] open %s failed: %s", procDir.c_str(), strerror(errno));
        return 0;
    }
    KovaBpfDataState::GetInstance()->RecordEvent(KOVA_RAW_TASK_INIT, count);
    return 0;
}

}  // namespace Kova::Bpf
