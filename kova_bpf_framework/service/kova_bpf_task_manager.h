// The task table: the service's picture of every user-space process it knows of, and its dumps.
//
// Threading: the event handlers change records in place through the pointers the Get operations
// return, on the event producer threads; the dumps read the table on the signal worker thread. Every
// operation takes `kovaTaskManagerLock` (recursive), and a caller that reads or changes a record
// through a returned pointer holds it for that whole sequence (`Lock()`), so a dump never sees a
// half-updated record. Nothing here runs inside a signal handler.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <mutex>

namespace Kova::Bpf {

// Indices of rssSize and rssOldSize: the kernel's RSS member numbers.
enum KovaRssMember : int {
    RSS_FILE = 0,
    RSS_ANON = 1,
    RSS_SWAP = 2,
    RSS_SHMEM = 3,
    RSS_MEMBER_COUNT = 4,
};

// One process. A plain value: a new, not otherwise filled record is all zero.
struct KovaTask {
    int32_t pid;
    int32_t ppid;      // 0 when unknown; 2 marks a kernel thread
    uint32_t uid;      // real uid
    int32_t threadNum;
    int32_t oldThreadNum;  // thread count at the last thread-count report
    char comm[16];         // NUL-terminated, at most 15 characters
    uint32_t mmId;         // 0 when not yet known
    int64_t rssSize[RSS_MEMBER_COUNT];     // bytes, by KovaRssMember
    int64_t rssOldSize[RSS_MEMBER_COUNT];  // bytes as last reported
    int64_t initTimeStamp;   // seconds: process start (scan) or first sight (fork)
    int64_t infoUpdateTime;  // seconds: last refresh of ppid and comm from /proc; 0 = never
    uint64_t createTimeNs;   // boot-clock ns of the event that created the record
};

// True when a's total footprint (file + anonymous + swap + shared memory, summed in wrapping 64-bit
// arithmetic as differences) is larger than b's: the descending order of the dumps.
bool CompareKovaTask(const KovaTask& a, const KovaTask& b);

class KovaTaskManager {
  public:
    static constexpr char KOVATASK_DUMP_PATH[] = "/data/kovalog/stability/kovabpfframework";
    static constexpr char KOVATASK_DUMP_TEMPLATE[] = "/data/kovalog/stability/kovabpfframework/DUMPTASK_INFO";

    static std::recursive_mutex kovaTaskManagerLock;

    // The process-wide table, created on first call and never destroyed.
    static KovaTaskManager* GetInstance();

    // Holds kovaTaskManagerLock for a sequence of operations and in-place changes.
    static std::unique_lock<std::recursive_mutex> Lock() {
        return std::unique_lock<std::recursive_mutex>(kovaTaskManagerLock);
    }

    // Inserts or overwrites every field of the record of `pid`; 0.
    int AddKovaTask(int pid, KovaTask task);
    // The stored record, or null. Never inserts. Valid until deleted; overwriting keeps it.
    KovaTask* GetKovaTask(int pid);
    // 0 with errno 0, or -1 with errno ENOENT when absent. The mmid index is left as it is.
    int DelKovaTask(int pid);

    // The pointer stored for `mmid`, or null. It may dangle after its task was deleted.
    KovaTask* GetKovaTaskByMmid(unsigned int mmid);
    int AddMmidIndex(unsigned int mmid, KovaTask* task);  // stores or replaces; 0
    int DelMmidIndex(unsigned int mmid);                  // 0, or -1 with errno ENOENT

    int AddRssTempTask(unsigned int key, KovaTask task);  // inserts or overwrites; 0
    KovaTask* GetRssTempTask(unsigned int key);
    // Sets errno to ENOENT when absent but still returns 0.
    int DelRssTempTask(unsigned int key);

    size_t GetKovaTaskCount();

    // Dumps to DUMPTASK_INFO: full or short columns, with or without kernel tasks (no RSS counters).
    void DumpKovaTaskInfo();
    void DumpKovaTaskIgnoreKernelTaskInfo();
    void DumpKovaTaskInfoNormal();
    void DumpKovaTaskIgnoreKernelTaskInfoNormal();

  private:
    KovaTaskManager() = default;
    void dump(bool fullColumns, bool includeKernelTasks);

    std::map<int, KovaTask> kovaTasks;           // by pid, ascending: the dumps rely on the order
    std::map<int, KovaTask> idleTasks;           // kept empty; no operation uses it
    std::map<unsigned int, KovaTask*> mmidIndex;  // non-owning, into kovaTasks
    std::map<unsigned int, KovaTask> rssTempTasks;
};

// Signals 51 to 54: one dump variant each. Installed with the signal worker, so they run on its thread.
void HandleDumpSignal(int signo);                 // 51: full, with kernel tasks
void HandleNonKernelDumpSignal(int signo);        // 52: full, without kernel tasks
void HandleDumpSignalNormal(int signo);           // 53: short, with kernel tasks
void HandleNonKernelDumpSignalNormal(int signo);  // 54: short, without kernel tasks

}  // namespace Kova::Bpf
