// Typed decoding of the records the Kova BPF service sends its clients: the task events 50001 to 50004,
// the time-in-state reports 50005 to 50010, and the kernel's dmabuf, cgroup and descriptor records 4 to
// 7, which the service passes on as the kernel wrote them. A record is the payload of one event package,
// exactly as KovaBpfClient hands it to an event callback; its first four bytes are its id.
//
// Every decoder checks the delivered length before it reads a field, and refuses (false or nullopt,
// with the reason in *error when given) a record that is too short, whose id does not match, whose
// counts run past its end or that carries bytes after its last field. Nothing is read through a cast
// pointer, so records need no alignment. The decoders keep no state and are safe from any thread.
//
// Layouts, briefly (all little-endian and packed; the one definition of 50001 to 50010 is the service's
// protocol/kova_bpf_protocol.h, of 4 to 7 the kernel side's kova_bpf_records.h; the kernel records
// carry a 4-byte pad and an 8-byte CLOCK_MONOTONIC time stamp after the id):
//   4     dmabuf size         pid, buffers, bytes held now and at the last report    40 bytes
//   5     cgroup move         cgroup id, pid (a thread), caller pid, hierarchy id,
//                             level, comm, path (128 bytes)                         184 bytes
//   6     descriptor count    pid, open descriptors now and at last report, comm     56 bytes
//   7     dmabuf update       pid, operation, inode, size                            40 bytes
//   50001 task created        pid, ppid, uid, comm                                   32 bytes
//   50002 task exited         pid, comm (as the kernel recorded it at exit)          24 bytes
//   50003 thread count        pid, ppid, uid, last reported count, current count     24 bytes
//   50004 memory changed      pid, ppid, uid, comm, current and last reported RSS    96 bytes
//   50005 total time in state, per CPU frequency policy and frequency
//   50006 / 50007 the top ten processes / threads by CPU time, with their times per policy and frequency
//   50008 / 50009 / 50010 a reset of the total / process / thread times (an 8-byte id, then a time stamp)
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Kova::Client {

enum ClientEventId : uint32_t {
    // The kernel's own records, passed on unchanged.
    kDmabufSizeChanged = 4,
    kCgroupMoved = 5,
    kFdCountChanged = 6,
    kDmabufChanged = 7,
    // The service's events and reports.
    kTaskCreated = 50001,
    kTaskExited = 50002,
    kThreadCountChanged = 50003,
    kRssChanged = 50004,
    kTotalTimeInState = 50005,
    kProcessTimeInState = 50006,
    kThreadTimeInState = 50007,
    kTotalTimeReset = 50008,
    kProcessTimeReset = 50009,
    kThreadTimeReset = 50010,
};

// A short lower-case name for a known id ("task_created", "rss_changed", "total_time_reset", "cgroup_move",
// ...), or nullptr for any other id.
const char* ClientEventName(uint32_t id);

// The id of a record (its first four bytes), or nullopt when it is shorter than four bytes.
std::optional<uint32_t> ClientEventIdOf(std::string_view record);

// RSS byte counts of one process, by kind.
struct RssBytes {
    int64_t file = 0;
    int64_t anon = 0;
    int64_t swap = 0;
    int64_t shmem = 0;
    bool operator==(const RssBytes&) const = default;
};

struct TaskCreated {  // 50001: a new process
    int32_t pid = 0;
    int32_t ppid = 0;  // 0 when neither the kernel nor /proc knew it
    uint32_t uid = 0;
    std::string comm;  // at most 16 bytes, without the terminating NUL
};

struct TaskExited {  // 50002: a process ended
    int32_t pid = 0;
    std::string comm;
};

struct ThreadCountChanged {  // 50003: a process's thread count moved by 11 or more since last reported
    int32_t pid = 0;
    int32_t ppid = 0;
    uint32_t uid = 0;
    int32_t oldThreadNum = 0;  // as last reported
    int32_t threadNum = 0;     // now
};

struct RssChanged {  // 50004: a process's memory moved by 16 KiB or more since last reported
    int32_t pid = 0;
    int32_t ppid = 0;
    uint32_t uid = 0;
    std::string comm;
    RssBytes current;
    RssBytes lastReported;
};

struct DmabufSizeChanged {  // 4: the dmabuf bytes a process holds moved by 1 MiB or more since last reported
    uint64_t timestampNs = 0;  // CLOCK_MONOTONIC, as the kernel took it
    int32_t pid = 0;
    uint32_t buffers = 0;        // held now
    uint64_t bytes = 0;          // held now
    uint64_t reportedBytes = 0;  // at the previous report
};

struct CgroupMoved {  // 5: a task was moved into a cgroup (on a device: a cpuset such as "/top-app")
    uint64_t timestampNs = 0;
    int32_t pid = 0;        // the task moved: a thread id
    int32_t callerPid = 0;  // the process that moved it
    std::string comm;       // the moved task's, at most 16 bytes
    std::string path;       // in its hierarchy, at most 128 bytes (the kernel side truncates longer ones)
    int32_t level = 0;      // depth of the destination, 0 for the root
    uint64_t cgroupId = 0;  // the destination's id
    int32_t root = 0;       // the destination's hierarchy id
};

struct FdCountChanged {  // 6: a process's open descriptors moved by 64 or more since last reported
    uint64_t timestampNs = 0;
    int32_t pid = 0;
    std::string comm;
    int64_t openFds = 0;      // now
    int64_t reportedFds = 0;  // at the previous report
};

enum class DmabufOp : uint32_t {
    kExport = 1,   // allocated; pid is the allocating process
    kRelease = 2,  // freed; pid is its exporter, or a process that held it (0: none known)
    kAttach = 3,   // a device attached to it
    kVmap = 4,     // mapped into kernel address space
    kMmap = 5,     // mapped into a process; pid is that process
};

// "export", "release", "attach", "vmap", "mmap", or nullptr for any other value.
const char* DmabufOpName(DmabufOp op);

struct DmabufChanged {  // 7: one dmabuf changed hands or state
    uint64_t timestampNs = 0;
    int32_t pid = 0;
    DmabufOp op = DmabufOp::kExport;
    uint64_t inode = 0;  // the buffer's
    uint64_t size = 0;   // bytes
};

// CPU time of one frequency policy: nanoseconds per frequency, in ascending frequency order.
struct PolicyTimes {
    std::vector<uint64_t> timesNs;
    bool operator==(const PolicyTimes&) const = default;
};

struct TotalTimeInState {  // 50005
    uint64_t timestampNs = 0;  // boot clock; 0 when the service had no data
    bool hasData = false;
    std::vector<PolicyTimes> policies;  // in policy order; empty without data
};

// Per-frequency times of one process (50006) or thread (50007).
struct FrequencyTimes {
    uint32_t key = 0;  // tgid or pid
    std::vector<PolicyTimes> policies;
};

struct ProcessTime {
    uint32_t key = 0;  // tgid
    uint32_t tgid = 0;
    uint64_t timeNs = 0;
    std::string name;
};

struct ThreadTime {
    uint32_t key = 0;  // pid
    uint32_t pid = 0;
    uint32_t tgid = 0;
    std::string threadName;
    uint64_t timeNs = 0;
    std::string processName;
};

// 50006 and 50007. Records and frequency entries come in no particular order.
template <typename Record>
struct TimeInStateReport {
    uint64_t timestampNs = 0;     // boot clock; 0 when the service had no data
    uint64_t reportedTimeNs = 0;  // sum over `records`
    uint64_t totalTimeNs = 0;     // sum over every process or thread the service read
    bool hasRecords = false;
    std::vector<Record> records;  // at most ten, the largest
    bool hasFrequencyData = false;
    std::vector<FrequencyTimes> frequencies;
};
using ProcessTimeInState = TimeInStateReport<ProcessTime>;
using ThreadTimeInState = TimeInStateReport<ThreadTime>;

struct TimeInStateReset {  // 50008, 50009, 50010
    uint32_t id = 0;           // which of the three
    uint64_t timestampNs = 0;  // boot clock of the reset; 0 when clearing failed
    bool succeeded() const { return timestampNs != 0; }
};

using DecodedEvent = std::variant<TaskCreated, TaskExited, ThreadCountChanged, RssChanged, TotalTimeInState,
                                  ProcessTimeInState, ThreadTimeInState, TimeInStateReset, DmabufSizeChanged,
                                  CgroupMoved, FdCountChanged, DmabufChanged>;

// One decoder per layout. `record` is the whole record, id included.
std::optional<TaskCreated> DecodeTaskCreated(std::string_view record, std::string* error = nullptr);
std::optional<TaskExited> DecodeTaskExited(std::string_view record, std::string* error = nullptr);
std::optional<ThreadCountChanged> DecodeThreadCountChanged(std::string_view record, std::string* error = nullptr);
std::optional<RssChanged> DecodeRssChanged(std::string_view record, std::string* error = nullptr);
std::optional<TotalTimeInState> DecodeTotalTimeInState(std::string_view record, std::string* error = nullptr);
std::optional<ProcessTimeInState> DecodeProcessTimeInState(std::string_view record, std::string* error = nullptr);
std::optional<ThreadTimeInState> DecodeThreadTimeInState(std::string_view record, std::string* error = nullptr);
// Any of 50008, 50009, 50010.
std::optional<TimeInStateReset> DecodeTimeInStateReset(std::string_view record, std::string* error = nullptr);
std::optional<DmabufSizeChanged> DecodeDmabufSizeChanged(std::string_view record, std::string* error = nullptr);
std::optional<CgroupMoved> DecodeCgroupMoved(std::string_view record, std::string* error = nullptr);
std::optional<FdCountChanged> DecodeFdCountChanged(std::string_view record, std::string* error = nullptr);
// Also refuses an operation it does not know.
std::optional<DmabufChanged> DecodeDmabufChanged(std::string_view record, std::string* error = nullptr);

// Decodes a record of any of the ids above, chosen by its id. Records of other ids (a client may
// subscribe to the kernel's other record types too) are refused with a reason.
std::optional<DecodedEvent> DecodeClientEvent(std::string_view record, std::string* error = nullptr);

}  // namespace Kova::Client
