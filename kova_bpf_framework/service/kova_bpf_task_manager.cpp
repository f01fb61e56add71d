#include "service/kova_bpf_task_manager.h"

#define LOG_TAG "BpfUtils"

#include <errno.h>
#include <log/log.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_diagnostics.h"
#include "utils/kova_bpf_file_writer.h"
#include "utils/kova_bpf_paths.h"

namespace Kova::Bpf {

// The dump's path is a constant of its own; kovabpfctl finds the file by the shared name.
static_assert(std::string_view(KovaTaskManager::KOVATASK_DUMP_TEMPLATE).starts_with(KOVA_DIAGNOSTICS_DIR) &&
              std::string_view(KovaTaskManager::KOVATASK_DUMP_TEMPLATE).ends_with(KOVA_DUMP_FILE_NAME));

std::recursive_mutex KovaTaskManager::kovaTaskManagerLock;

bool CompareKovaTask(const KovaTask& a, const KovaTask& b) {
    uint64_t sum = 0;  // wrapping, as two's complement
    for (int member = 0; member < RSS_MEMBER_COUNT; ++member) {
        sum += static_cast<uint64_t>(a.rssSize[member]) - static_cast<uint64_t>(b.rssSize[member]);
    }
    return static_cast<int64_t>(sum) > 0;
}

KovaTaskManager* KovaTaskManager::GetInstance() {
    static KovaTaskManager* const instance = new KovaTaskManager();
    return instance;
}

int KovaTaskManager::AddKovaTask(int pid, KovaTask task) {
    auto lock = Lock();
    kovaTasks[pid] = task;  // overwriting keeps the node, so earlier pointers stay valid
    return 0;
}

KovaTask* KovaTaskManager::GetKovaTask(int pid) {
    auto lock = Lock();
    const auto found = kovaTasks.find(pid);
    return found == kovaTasks.end() ? nullptr : &found->second;
}

int KovaTaskManager::DelKovaTask(int pid) {
    auto lock = Lock();
    errno = 0;
    if (kovaTasks.erase(pid) == 0) {
        errno = ENOENT;
        return -1;
    }
    return 0;
}

KovaTask* KovaTaskManager::GetKovaTaskByMmid(unsigned int mmid) {
    auto lock = Lock();
    const auto found = mmidIndex.find(mmid);
    return found == mmidIndex.end() ? nullptr : found->second;
}

int KovaTaskManager::AddMmidIndex(unsigned int mmid, KovaTask* task) {
    auto lock = Lock();
    mmidIndex[mmid] = task;
    return 0;
}

int KovaTaskManager::DelMmidIndex(unsigned int mmid) {
    auto lock = Lock();
    errno = 0;
    if (mmidIndex.erase(mmid) == 0) {
        errno = ENOENT;
        return -1;
    }
    return 0;
}

int KovaTaskManager::AddRssTempTask(unsigned int key, KovaTask task) {
    auto lock = Lock();
    rssTempTasks[key] = task;
    return 0;
}

KovaTask* KovaTaskManager::GetRssTempTask(unsigned int key) {
    auto lock = Lock();
    const auto found = rssTempTasks.find(key);
    return found == rssTempTasks.end() ? nullptr : &found->second;
}

int KovaTaskManager::DelRssTempTask(unsigned int key) {
    auto lock = Lock();
    errno = 0;
    if (rssTempTasks.erase(key) == 0) errno = ENOENT;
    return 0;
}

size_t KovaTaskManager::GetKovaTaskCount() {
    auto lock = Lock();
    return kovaTasks.size();
}

void KovaTaskManager::DumpKovaTaskInfo() { dump(true, true); }
void KovaTaskManager::DumpKovaTaskIgnoreKernelTaskInfo() { dump(true, false); }
void KovaTaskManager::DumpKovaTaskInfoNormal() { dump(false, true); }
void KovaTaskManager::DumpKovaTaskIgnoreKernelTaskInfoNormal() { dump(false, false); }

namespace {

bool IsKernelTask(const KovaTask& task) {
    return std::all_of(std::begin(task.rssSize), std::end(task.rssSize), [](int64_t size) { return size == 0; });
}

long Kb(int64_t bytes) { return static_cast<long>(bytes / 1024); }

RewrittenFile gDumpFile([](const std::string&, int error) {
    ALOGE("failed to dump kova task, error: %s", strerror(error));
});

void AppendTaskLine(std::string* out, const KovaTask& task, bool fullColumns) {
    char comm[sizeof(task.comm) + 1] = {};
    memcpy(comm, task.comm, sizeof(task.comm));
    StringAppendF(out, "%-16s", comm);
    if (fullColumns) {
        StringAppendF(out,
                      "   %-12d%-12d%-12d%-13d%-12u%10ld KB%17ld KB%17ld KB%17ld KB%17ld KB%17ld KB%17ld KB%17ld KB%20ld\n",
                      task.pid, task.ppid, task.threadNum, task.oldThreadNum, task.mmId, Kb(task.rssSize[RSS_ANON]),
                      Kb(task.rssOldSize[RSS_ANON]), Kb(task.rssSize[RSS_FILE]), Kb(task.rssOldSize[RSS_FILE]),
                      Kb(task.rssSize[RSS_SHMEM]), Kb(task.rssOldSize[RSS_SHMEM]), Kb(task.rssSize[RSS_SWAP]),
                      Kb(task.rssOldSize[RSS_SWAP]), static_cast<long>(task.initTimeStamp));
    } else {
        StringAppendF(out, "   %-12d%-12d%-12d%-12u%10ld KB%17ld KB%17ld KB%17ld KB%20ld\n", task.pid, task.ppid,
                      task.threadNum, task.mmId, Kb(task.rssSize[RSS_ANON]), Kb(task.rssSize[RSS_FILE]),
                      Kb(task.rssSize[RSS_SHMEM]), Kb(task.rssSize[RSS_SWAP]), static_cast<long>(task.initTimeStamp));
    }
}

}  // namespace

void KovaTaskManager::dump(bool fullColumns, bool includeKernelTasks) {
    std::vector<KovaTask> tasks;
    size_t count = 0;
    {
        auto lock = Lock();  // one consistent copy; the file is written without the lock
        count = kovaTasks.size();
        tasks.reserve(count);
        for (const auto& [pid, task] : kovaTasks) {
            if (includeKernelTasks || !IsKernelTask(task)) tasks.push_back(task);
        }
    }
    std::sort(tasks.begin(), tasks.end(), CompareKovaTask);

    std::string report = StringPrintf("============ DUMP ALL KOVA TASKS INFO (count: %u, time: %lu) ============\n",
                                      static_cast<unsigned>(count), static_cast<unsigned long>(time(nullptr)));
    if (fullColumns) {
        report += "comm               pid         ppid        threadNum   oldThreadNum mmId        rssAnonSize         "
                  "rssAnonOldSize      ";
        report += "rssFileSize         rssFileOldSize      rssShmemSize        rssShmemOldSize     rssSwapSize         "
                  "rssSwapOldSize      ";
    } else {
        report += "comm               pid         ppid        threadNum   mmId        rssAnonSize         ";
        report += "rssFileSize         rssShmemSize        rssSwapSize         ";
    }
    report += "initTimeStamp       \n";
    for (const KovaTask& task : tasks) AppendTaskLine(&report, task, fullColumns);

    MakeDirectories(KovaPath(KOVATASK_DUMP_PATH), 0775);
    gDumpFile.Write(KovaPath(KOVATASK_DUMP_TEMPLATE), report);
}

void HandleDumpSignal(int) { KovaTaskManager::GetInstance()->DumpKovaTaskInfo(); }
void HandleNonKernelDumpSignal(int) { KovaTaskManager::GetInstance()->DumpKovaTaskIgnoreKernelTaskInfo(); }
void HandleDumpSignalNormal(int) { KovaTaskManager::GetInstance()->DumpKovaTaskInfoNormal(); }
void HandleNonKernelDumpSignalNormal(int) { KovaTaskManager::GetInstance()->DumpKovaTaskIgnoreKernelTaskInfoNormal(); }

}  // namespace Kova::Bpf
