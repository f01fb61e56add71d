// Decoders of the client event records, on the service's and the kernel side's own record definitions.

#include "kova/bpf_client_events.h"

#include <string.h>

#include "kova_bpf_records.h"
#include "protocol/kova_bpf_protocol.h"
#include "utils/kova_bpf_common.h"

namespace Kova::Client {

// The public header cannot include the protocol's or the kernel side's definitions; these hold them in
// step.
static_assert(uint32_t{kTaskCreated} == Kova::Bpf::EVENT_TASK_CREATE && uint32_t{kTaskExited} == Kova::Bpf::EVENT_TASK_EXIT &&
              uint32_t{kThreadCountChanged} == Kova::Bpf::EVENT_THREAD_COUNT_CHANGE &&
              uint32_t{kRssChanged} == Kova::Bpf::EVENT_RSS_CHANGE &&
              uint32_t{kTotalTimeInState} == Kova::Bpf::EVENT_TOTAL_CPU_TIME_IN_STATE &&
              uint32_t{kProcessTimeInState} == Kova::Bpf::EVENT_PROCESS_CPU_TIME_IN_STATE &&
              uint32_t{kThreadTimeInState} == Kova::Bpf::EVENT_THREAD_CPU_TIME_IN_STATE &&
              uint32_t{kTotalTimeReset} == Kova::Bpf::EVENT_TOTAL_CPU_TIME_RESET &&
              uint32_t{kProcessTimeReset} == Kova::Bpf::EVENT_PROCESS_CPU_TIME_RESET &&
              uint32_t{kThreadTimeReset} == Kova::Bpf::EVENT_THREAD_CPU_TIME_RESET);
static_assert(uint32_t{kDmabufSizeChanged} == KOVA_RAW_DMABUF_SIZE && uint32_t{kCgroupMoved} == KOVA_RAW_CGROUP_ATTACH &&
              uint32_t{kFdCountChanged} == KOVA_RAW_FD_UPDATE && uint32_t{kDmabufChanged} == KOVA_RAW_DMABUF_UPDATE);
static_assert(static_cast<uint32_t>(DmabufOp::kExport) == KOVA_DMABUF_OP_EXPORT &&
              static_cast<uint32_t>(DmabufOp::kRelease) == KOVA_DMABUF_OP_RELEASE &&
              static_cast<uint32_t>(DmabufOp::kAttach) == KOVA_DMABUF_OP_ATTACH &&
              static_cast<uint32_t>(DmabufOp::kVmap) == KOVA_DMABUF_OP_VMAP &&
              static_cast<uint32_t>(DmabufOp::kMmap) == KOVA_DMABUF_OP_MMAP);
// The sizes and field lengths the header documents.
static_assert(sizeof(kova_dmabuf_size_record) == 40 && sizeof(kova_cgroup_attach_record) == 184 &&
              sizeof(kova_fd_update_record) == 56 && sizeof(kova_dmabuf_update_record) == 40);
static_assert(KOVA_COMM_LEN == 16 && KOVA_CGROUP_PATH_LEN == 128);

namespace {

using Kova::Bpf::StringPrintf;

// Reads the fields of one record in order, refusing any read past its end. The first failure is kept
// in *error as "<id>: <reason>"; later reads fail at once.
class RecordReader {
  public:
    RecordReader(std::string_view record, std::string* error) : record_(record), error_(error) {}

    // Starts the record: its id must be `expected` (or, with `last`, within expected..last).
    bool id(uint32_t expected, uint32_t last = 0) {
        if (last == 0) last = expected;
        if (record_.size() < sizeof(uint32_t)) {
            return fail(StringPrintf("%zu bytes, too short for an event id", record_.size()), expected);
        }
        memcpy(&id_, record_.data(), sizeof(id_));
        if (id_ < expected || id_ > last) {
            return fail(expected == last ? StringPrintf("expected id %u", expected)
                                         : StringPrintf("expected an id from %u to %u", expected, last),
                        id_);
        }
        return true;
    }

    // Copies the next sizeof(T) bytes into *out.
    template <typename T>
    bool take(T* out, const char* what) {
        if (failed_) return false;
        if (left() < sizeof(T)) {
            return fail(StringPrintf("%zu bytes, too short for %s at offset %zu (%zu bytes)", record_.size(), what,
                                     offset_, sizeof(T)));
        }
        memcpy(out, record_.data() + offset_, sizeof(T));
        offset_ += sizeof(T);
        return true;
    }

    // A presence flag: one byte that must be 0 or 1.
    bool flag(bool* out, const char* what) {
        uint8_t value = 0;
        if (!take(&value, what)) return false;
        if (value > 1) return fail(StringPrintf("%s at offset %zu is %u, not 0 or 1", what, offset_ - 1, value));
        *out = value == 1;
        return true;
    }

    // A count of items of at least `itemSize` bytes each: refused when they cannot all fit into what is
    // left, before anything is allocated for them.
    bool count(uint32_t* out, size_t itemSize, const char* what) {
        if (!take(out, what)) return false;
        if (*out > left() / itemSize) {
            return fail(StringPrintf("%s %u at offset %zu needs at least %zu bytes, %zu left", what, *out,
                                     offset_ - sizeof(uint32_t), static_cast<size_t>(*out) * itemSize, left()));
        }
        return true;
    }

    // u32 P, then P blocks of (u32 F, F x u64 ns).
    bool policies(std::vector<PolicyTimes>* out) {
        uint32_t policyCount = 0;
        if (!count(&policyCount, sizeof(uint32_t), "policy count")) return false;
        out->resize(policyCount);
        for (PolicyTimes& policy : *out) {
            uint32_t frequencyCount = 0;
            if (!count(&frequencyCount, sizeof(uint64_t), "frequency count")) return false;
            policy.timesNs.resize(frequencyCount);
            for (uint64_t& time : policy.timesNs) {
                if (!take(&time, "a frequency time")) return false;
            }
        }
        return true;
    }

    // The record must end here.
    bool finish() {
        if (failed_) return false;
        if (left() != 0) return fail(StringPrintf("%zu bytes after the last field at offset %zu", left(), offset_));
        return true;
    }

    uint32_t recordId() const { return id_; }

  private:
    size_t left() const { return record_.size() - offset_; }
    bool fail(const std::string& reason, uint32_t id = 0) {
        if (!failed_ && error_ != nullptr) *error_ = StringPrintf("%u: %s", id != 0 ? id : id_, reason.c_str());
        failed_ = true;
        return false;
    }

    std::string_view record_;
    std::string* error_;
    size_t offset_ = 0;
    uint32_t id_ = 0;
    bool failed_ = false;
};

// A fixed-length NUL-terminated name field; a name that fills the field has no terminator.
template <size_t N>
std::string Name(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

// Reads a whole fixed-layout record into *out.
template <typename Wire>
bool ReadFixed(std::string_view record, uint32_t expectedId, Wire* out, const char* what, std::string* error) {
    RecordReader reader(record, error);
    return reader.id(expectedId) && reader.take(out, what) && reader.finish();
}

template <typename Wire, typename Record>
bool ReadTimeRecord(RecordReader* reader, Record* out);

template <>
bool ReadTimeRecord<Kova::Bpf::KovaProcessTimeRecord, ProcessTime>(RecordReader* reader, ProcessTime* out) {
    Kova::Bpf::KovaProcessTimeRecord wire;
    if (!reader->take(&wire, "a process record")) return false;
    *out = ProcessTime{wire.key, wire.tgid, wire.timeNs, Name(wire.name)};
    return true;
}

template <>
bool ReadTimeRecord<Kova::Bpf::KovaThreadTimeRecord, ThreadTime>(RecordReader* reader, ThreadTime* out) {
    Kova::Bpf::KovaThreadTimeRecord wire;
    if (!reader->take(&wire, "a thread record")) return false;
    *out = ThreadTime{wire.key, wire.pid, wire.tgid, Name(wire.threadName), wire.timeNs, Name(wire.processName)};
    return true;
}

// 50006 and 50007: the header up to hasRecords is the record's fixed part, then the optional records
// and the optional frequency entries.
template <typename Wire, typename Record>
std::optional<TimeInStateReport<Record>> DecodeTimeReport(std::string_view record, uint32_t id, std::string* error) {
    RecordReader reader(record, error);
    Kova::Bpf::KovaCpuTimeReportHeader header;
    if (!reader.id(id) || !reader.take(&header, "the report header")) return std::nullopt;
    TimeInStateReport<Record> report;
    report.timestampNs = header.timestamp;
    report.reportedTimeNs = header.reportedTimeNs;
    report.totalTimeNs = header.totalTimeNs;
    if (header.hasRecords > 1) {
        if (error != nullptr) *error = StringPrintf("%u: has-records flag is %u, not 0 or 1", id, header.hasRecords);
        return std::nullopt;
    }
    report.hasRecords = header.hasRecords == 1;
    if (report.hasRecords) {
        uint32_t recordCount = 0;
        if (!reader.count(&recordCount, sizeof(Wire), "record count")) return std::nullopt;
        report.records.resize(recordCount);
        for (Record& entry : report.records) {
            if (!ReadTimeRecord<Wire, Record>(&reader, &entry)) return std::nullopt;
        }
    }
    if (!reader.flag(&report.hasFrequencyData, "has-frequency-data flag")) return std::nullopt;
    if (report.hasFrequencyData) {
        uint32_t entryCount = 0;
        // An entry holds at least its key and its policy count.
        if (!reader.count(&entryCount, 2 * sizeof(uint32_t), "frequency entry count")) return std::nullopt;
        report.frequencies.resize(entryCount);
        for (FrequencyTimes& entry : report.frequencies) {
            if (!reader.take(&entry.key, "a frequency entry key") || !reader.policies(&entry.policies)) {
                return std::nullopt;
            }
        }
    }
    if (!reader.finish()) return std::nullopt;
    return report;
}

}  // namespace

const char* ClientEventName(uint32_t id) {
    switch (id) {
        case kTaskCreated: return "task_created";
        case kTaskExited: return "task_exited";
        case kThreadCountChanged: return "thread_count_changed";
        case kRssChanged: return "rss_changed";
        case kTotalTimeInState: return "total_time_in_state";
        case kProcessTimeInState: return "process_time_in_state";
        case kThreadTimeInState: return "thread_time_in_state";
        case kTotalTimeReset: return "total_time_reset";
        case kProcessTimeReset: return "process_time_reset";
        case kThreadTimeReset: return "thread_time_reset";
        case kDmabufSizeChanged: return "dmabuf_size";
        case kCgroupMoved: return "cgroup_move";
        case kFdCountChanged: return "fd_count";
        case kDmabufChanged: return "dmabuf_update";
        default: return nullptr;
    }
}

const char* DmabufOpName(DmabufOp op) {
    switch (op) {
        case DmabufOp::kExport: return "export";
        case DmabufOp::kRelease: return "release";
        case DmabufOp::kAttach: return "attach";
        case DmabufOp::kVmap: return "vmap";
        case DmabufOp::kMmap: return "mmap";
        default: return nullptr;
    }
}

std::optional<uint32_t> ClientEventIdOf(std::string_view record) {
    if (record.size() < sizeof(uint32_t)) return std::nullopt;
    uint32_t id;
    memcpy(&id, record.data(), sizeof(id));
    return id;
}

std::optional<TaskCreated> DecodeTaskCreated(std::string_view record, std::string* error) {
    Kova::Bpf::KovaTaskCreateEvent wire;
    if (!ReadFixed(record, kTaskCreated, &wire, "the task-created event", error)) return std::nullopt;
    return TaskCreated{wire.pid, wire.ppid, wire.uid, Name(wire.comm)};
}

std::optional<TaskExited> DecodeTaskExited(std::string_view record, std::string* error) {
    Kova::Bpf::KovaTaskExitEvent wire;
    if (!ReadFixed(record, kTaskExited, &wire, "the task-exited event", error)) return std::nullopt;
    return TaskExited{wire.pid, Name(wire.comm)};
}

std::optional<ThreadCountChanged> DecodeThreadCountChanged(std::string_view record, std::string* error) {
    Kova::Bpf::KovaThreadCountChangeEvent wire;
    if (!ReadFixed(record, kThreadCountChanged, &wire, "the thread-count event", error)) return std::nullopt;
    return ThreadCountChanged{wire.pid, wire.ppid, wire.uid, wire.oldThreadNum, wire.threadNum};
}

std::optional<RssChanged> DecodeRssChanged(std::string_view record, std::string* error) {
    Kova::Bpf::KovaRssChangeEvent wire;
    if (!ReadFixed(record, kRssChanged, &wire, "the memory event", error)) return std::nullopt;
    // The service keeps the counters in the order file, anonymous, swap, shared memory.
    const auto bytes = [](const int64_t (&sizes)[4]) { return RssBytes{sizes[0], sizes[1], sizes[2], sizes[3]}; };
    return RssChanged{wire.pid, wire.ppid, wire.uid, Name(wire.comm), bytes(wire.rssSize), bytes(wire.rssOldSize)};
}

std::optional<TotalTimeInState> DecodeTotalTimeInState(std::string_view record, std::string* error) {
    RecordReader reader(record, error);
    Kova::Bpf::KovaTotalTimeReportHeader header;
    if (!reader.id(kTotalTimeInState) || !reader.take(&header, "the report header")) return std::nullopt;
    if (header.hasData > 1) {
        if (error != nullptr) *error = StringPrintf("%u: has-data flag is %u, not 0 or 1", kTotalTimeInState, header.hasData);
        return std::nullopt;
    }
    TotalTimeInState report;
    report.timestampNs = header.timestamp;
    report.hasData = header.hasData == 1;
    if (report.hasData && !reader.policies(&report.policies)) return std::nullopt;
    if (!reader.finish()) return std::nullopt;
    return report;
}

std::optional<ProcessTimeInState> DecodeProcessTimeInState(std::string_view record, std::string* error) {
    return DecodeTimeReport<Kova::Bpf::KovaProcessTimeRecord, ProcessTime>(record, kProcessTimeInState, error);
}

std::optional<ThreadTimeInState> DecodeThreadTimeInState(std::string_view record, std::string* error) {
    return DecodeTimeReport<Kova::Bpf::KovaThreadTimeRecord, ThreadTime>(record, kThreadTimeInState, error);
}

std::optional<TimeInStateReset> DecodeTimeInStateReset(std::string_view record, std::string* error) {
    // The id is written as a 64-bit value here: the four bytes after it must be zero.
    Kova::Bpf::KovaTimeResetReport wire;
    RecordReader reader(record, error);
    if (!reader.id(kTotalTimeReset, kThreadTimeReset) || !reader.take(&wire, "the reset report") || !reader.finish()) {
        return std::nullopt;
    }
    if (wire.id >> 32 != 0) {
        if (error != nullptr) {
            *error = StringPrintf("%u: the 64-bit id has %#x in its upper half, not 0", reader.recordId(),
                                  static_cast<unsigned>(wire.id >> 32));
        }
        return std::nullopt;
    }
    return TimeInStateReset{static_cast<uint32_t>(wire.id), wire.timestamp};
}

std::optional<DmabufSizeChanged> DecodeDmabufSizeChanged(std::string_view record, std::string* error) {
    kova_dmabuf_size_record wire;
    if (!ReadFixed(record, kDmabufSizeChanged, &wire, "the dmabuf-size record", error)) return std::nullopt;
    return DmabufSizeChanged{wire.timestamp_ns, wire.pid, wire.buffers, wire.bytes, wire.reported_bytes};
}

std::optional<CgroupMoved> DecodeCgroupMoved(std::string_view record, std::string* error) {
    kova_cgroup_attach_record wire;
    if (!ReadFixed(record, kCgroupMoved, &wire, "the cgroup-move record", error)) return std::nullopt;
    return CgroupMoved{wire.timestamp_ns, wire.pid, wire.caller_pid, Name(wire.comm), Name(wire.dst_path),
                       wire.dst_level, wire.dst_id, wire.dst_root};
}

std::optional<FdCountChanged> DecodeFdCountChanged(std::string_view record, std::string* error) {
    kova_fd_update_record wire;
    if (!ReadFixed(record, kFdCountChanged, &wire, "the descriptor-count record", error)) return std::nullopt;
    return FdCountChanged{wire.timestamp_ns, wire.pid, Name(wire.comm), wire.open_fds, wire.reported_fds};
}

std::optional<DmabufChanged> DecodeDmabufChanged(std::string_view record, std::string* error) {
    kova_dmabuf_update_record wire;
    if (!ReadFixed(record, kDmabufChanged, &wire, "the dmabuf-update record", error)) return std::nullopt;
    const auto op = static_cast<DmabufOp>(wire.op);
    if (DmabufOpName(op) == nullptr) {
        if (error != nullptr) *error = StringPrintf("%u: unknown dmabuf operation %u", kDmabufChanged, wire.op);
        return std::nullopt;
    }
    return DmabufChanged{wire.timestamp_ns, wire.pid, op, wire.inode, wire.size};
}

std::optional<DecodedEvent> DecodeClientEvent(std::string_view record, std::string* error) {
    const std::optional<uint32_t> id = ClientEventIdOf(record);
    if (!id) {
        if (error != nullptr) *error = StringPrintf("%zu bytes, too short for an event id", record.size());
        return std::nullopt;
    }
    // Each branch converts the typed result into the variant.
    const auto wrap = [](auto decoded) -> std::optional<DecodedEvent> {
        if (!decoded) return std::nullopt;
        return DecodedEvent(std::move(*decoded));
    };
    switch (*id) {
        case kTaskCreated: return wrap(DecodeTaskCreated(record, error));
        case kTaskExited: return wrap(DecodeTaskExited(record, error));
        case kThreadCountChanged: return wrap(DecodeThreadCountChanged(record, error));
        case kRssChanged: return wrap(DecodeRssChanged(record, error));
        case kTotalTimeInState: return wrap(DecodeTotalTimeInState(record, error));
        case kProcessTimeInState: return wrap(DecodeProcessTimeInState(record, error));
        case kThreadTimeInState: return wrap(DecodeThreadTimeInState(record, error));
        case kTotalTimeReset:
        case kProcessTimeReset:
        case kThreadTimeReset: return wrap(DecodeTimeInStateReset(record, error));
        case kDmabufSizeChanged: return wrap(DecodeDmabufSizeChanged(record, error));
        case kCgroupMoved: return wrap(DecodeCgroupMoved(record, error));
        case kFdCountChanged: return wrap(DecodeFdCountChanged(record, error));
        case kDmabufChanged: return wrap(DecodeDmabufChanged(record, error));
        default:
            if (error != nullptr) *error = StringPrintf("%u: not a client event id", *id);
            return std::nullopt;
    }
}

}  // namespace Kova::Client
