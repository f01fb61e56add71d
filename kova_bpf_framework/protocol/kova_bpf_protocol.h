// The service's client protocol, as both ends speak it: the request types a client sends, the size of
// the buffers that bound a frame, and the client event records the service sends to subscribed clients
// as the payload of a type-3 package. Below the service and the client library alike; the package
// format and framing themselves are the IPC library's (ipc/).
//
// A record's first four bytes are always its event id, which is also the subscription key. All
// records are packed and little-endian; every size and offset is checked below, and the service, the
// client library and the tests use these definitions only, never hand-counted offsets.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace Kova::Bpf {

// Each side's read and write buffer: no frame is larger.
inline constexpr int KOVA_IPC_BUFFER_SIZE = 32768;

// The requests of a type-0 package (their data is a list of 32-bit event ids or report types).
enum KovaClientRequestType : int32_t {
    REQ_SUBSCRIBE_EVENT = 51,
    REQ_UNSUBSCRIBE_EVENT = 52,
    REQ_TIME_IN_STATE_A = 53,  // report types 50005 to 50010, queued for the time-in-state worker
    REQ_TIME_IN_STATE_B = 54,  // handled exactly like REQ_TIME_IN_STATE_A
};

enum KovaClientEventId : uint32_t {
    EVENT_TASK_CREATE = 50001,
    EVENT_TASK_EXIT = 50002,
    EVENT_THREAD_COUNT_CHANGE = 50003,
    EVENT_RSS_CHANGE = 50004,
    EVENT_TOTAL_CPU_TIME_IN_STATE = 50005,
    EVENT_PROCESS_CPU_TIME_IN_STATE = 50006,
    EVENT_THREAD_CPU_TIME_IN_STATE = 50007,
    EVENT_TOTAL_CPU_TIME_RESET = 50008,
    EVENT_PROCESS_CPU_TIME_RESET = 50009,
    EVENT_THREAD_CPU_TIME_RESET = 50010,
};

#pragma pack(push, 1)

struct KovaTaskCreateEvent {  // 50001
    uint32_t id;
    int32_t pid;
    int32_t ppid;
    uint32_t uid;
    char comm[16];
};

struct KovaTaskExitEvent {  // 50002
    uint32_t id;
    int32_t pid;
    char comm[16];  // as the kernel recorded it at exit
};

struct KovaThreadCountChangeEvent {  // 50003
    uint32_t id;
    int32_t pid;
    int32_t ppid;
    uint32_t uid;
    int32_t oldThreadNum;  // the count last reported
    int32_t threadNum;     // the count now
};

struct KovaRssChangeEvent {  // 50004; bytes, in the order file, anonymous, swap, shared memory
    uint32_t id;
    int32_t pid;
    int32_t ppid;
    uint32_t uid;
    char comm[16];
    int64_t rssSize[4];
    int64_t rssOldSize[4];  // as last reported
};

// Time-in-state reports (50005 to 50010) are variable in length; these are their fixed parts.
// 50005: header, then when hasData is 1: u32 policy count P and P blocks of (u32 F, F x u64 ns).
struct KovaTotalTimeReportHeader {
    uint32_t id;
    uint64_t timestamp;  // boot-clock ns; 0 when there is no data
    uint8_t hasData;
};

// 50006 and 50007: header, then when hasRecords is 1: u32 count N and N records; then u8 hasFreqData
// and, when 1, u32 entry count E and E entries of (u32 key, u32 P, P blocks of (u32 F, F x u64 ns)).
struct KovaCpuTimeReportHeader {
    uint32_t id;
    uint64_t timestamp;
    uint64_t reportedTimeNs;  // sum over the (up to) ten records
    uint64_t totalTimeNs;     // sum over every entry read
    uint8_t hasRecords;
};

struct KovaProcessTimeRecord {  // in 50006
    uint32_t key;  // tgid
    uint32_t tgid;
    uint64_t timeNs;
    char name[16];
};

struct KovaThreadTimeRecord {  // in 50007
    uint32_t key;  // pid
    uint32_t pid;
    uint32_t tgid;
    char threadName[16];
    uint64_t timeNs;
    char processName[16];
};

// 50008 to 50010. The id is written as a 64-bit value, so it occupies eight bytes here, unlike in every
// other report; receivers depend on that.
struct KovaTimeResetReport {
    uint64_t id;
    uint64_t timestamp;  // boot-clock ns of the reset, 0 when clearing failed
};

#pragma pack(pop)

static_assert(sizeof(KovaTaskCreateEvent) == 32);
static_assert(offsetof(KovaTaskCreateEvent, pid) == 4 && offsetof(KovaTaskCreateEvent, ppid) == 8 &&
              offsetof(KovaTaskCreateEvent, uid) == 12 && offsetof(KovaTaskCreateEvent, comm) == 16);
static_assert(sizeof(KovaTaskExitEvent) == 24);
static_assert(offsetof(KovaTaskExitEvent, pid) == 4 && offsetof(KovaTaskExitEvent, comm) == 8);
static_assert(sizeof(KovaThreadCountChangeEvent) == 24);
static_assert(offsetof(KovaThreadCountChangeEvent, pid) == 4 && offsetof(KovaThreadCountChangeEvent, ppid) == 8 &&
              offsetof(KovaThreadCountChangeEvent, uid) == 12 &&
              offsetof(KovaThreadCountChangeEvent, oldThreadNum) == 16 &&
              offsetof(KovaThreadCountChangeEvent, threadNum) == 20);
static_assert(sizeof(KovaRssChangeEvent) == 96);
static_assert(offsetof(KovaRssChangeEvent, pid) == 4 && offsetof(KovaRssChangeEvent, ppid) == 8 &&
              offsetof(KovaRssChangeEvent, uid) == 12 && offsetof(KovaRssChangeEvent, comm) == 16 &&
              offsetof(KovaRssChangeEvent, rssSize) == 32 && offsetof(KovaRssChangeEvent, rssOldSize) == 64);
static_assert(sizeof(KovaTotalTimeReportHeader) == 13);
static_assert(offsetof(KovaTotalTimeReportHeader, timestamp) == 4 &&
              offsetof(KovaTotalTimeReportHeader, hasData) == 12);
static_assert(sizeof(KovaCpuTimeReportHeader) == 29);
static_assert(offsetof(KovaCpuTimeReportHeader, timestamp) == 4 &&
              offsetof(KovaCpuTimeReportHeader, reportedTimeNs) == 12 &&
              offsetof(KovaCpuTimeReportHeader, totalTimeNs) == 20 && offsetof(KovaCpuTimeReportHeader, hasRecords) == 28);
static_assert(sizeof(KovaProcessTimeRecord) == 32);
static_assert(offsetof(KovaProcessTimeRecord, tgid) == 4 && offsetof(KovaProcessTimeRecord, timeNs) == 8 &&
              offsetof(KovaProcessTimeRecord, name) == 16);
static_assert(sizeof(KovaThreadTimeRecord) == 52);
static_assert(offsetof(KovaThreadTimeRecord, pid) == 4 && offsetof(KovaThreadTimeRecord, tgid) == 8 &&
              offsetof(KovaThreadTimeRecord, threadName) == 12 && offsetof(KovaThreadTimeRecord, timeNs) == 28 &&
              offsetof(KovaThreadTimeRecord, processName) == 36);
static_assert(sizeof(KovaTimeResetReport) == 16);
static_assert(offsetof(KovaTimeResetReport, timestamp) == 8);

}  // namespace Kova::Bpf
