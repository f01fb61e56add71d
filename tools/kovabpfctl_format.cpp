#include "kovabpfctl_format.h"

#include <inttypes.h>
#include <stdio.h>
#include <time.h>

#include <type_traits>
#include <vector>

#include "utils/kova_bpf_common.h"

namespace kovabpfctl {
namespace {

using namespace Kova::Client;
using Kova::Bpf::StringPrintf;

constexpr size_t kRawBytesShown = 64;

std::string Hex(std::string_view bytes, size_t limit) {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (size_t i = 0; i < bytes.size() && i < limit; ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        hex += kDigits[byte >> 4];
        hex += kDigits[byte & 15];
    }
    return hex;
}

std::string Clock(int64_t receivedMs) {
    const time_t seconds = static_cast<time_t>(receivedMs / 1000);
    struct tm local {};
    localtime_r(&seconds, &local);
    char stamp[16];
    strftime(stamp, sizeof(stamp), "%H:%M:%S", &local);
    return StringPrintf("%s.%03d", stamp, static_cast<int>(receivedMs % 1000));
}

// Kibibytes, for people.
std::string Kib(int64_t bytes) { return StringPrintf("%" PRId64 "K", bytes / 1024); }

std::string RssText(const RssBytes& rss) {
    return "file=" + Kib(rss.file) + " anon=" + Kib(rss.anon) + " swap=" + Kib(rss.swap) + " shmem=" + Kib(rss.shmem);
}

std::string PoliciesText(const std::vector<PolicyTimes>& policies) {
    std::string text;
    for (size_t policy = 0; policy < policies.size(); ++policy) {
        text += policy == 0 ? "[" : " [";
        for (size_t i = 0; i < policies[policy].timesNs.size(); ++i) {
            text += StringPrintf(i == 0 ? "%" PRIu64 : ",%" PRIu64, policies[policy].timesNs[i]);
        }
        text += "]";
    }
    return text;
}

std::string PoliciesJson(const std::vector<PolicyTimes>& policies) {
    std::string json = "[";
    for (size_t policy = 0; policy < policies.size(); ++policy) {
        json += policy == 0 ? "[" : ",[";
        for (size_t i = 0; i < policies[policy].timesNs.size(); ++i) {
            json += StringPrintf(i == 0 ? "%" PRIu64 : ",%" PRIu64, policies[policy].timesNs[i]);
        }
        json += "]";
    }
    return json + "]";
}

std::string RecordText(const ProcessTime& record) {
    return StringPrintf("%u/%s=%" PRIu64 "ns", record.tgid, PrintableText(record.name).c_str(), record.timeNs);
}

std::string RecordText(const ThreadTime& record) {
    return StringPrintf("%u/%u/%s(%s)=%" PRIu64 "ns", record.tgid, record.pid, PrintableText(record.threadName).c_str(),
                  PrintableText(record.processName).c_str(), record.timeNs);
}

std::string RecordJson(const ProcessTime& record) {
    return StringPrintf("{\"tgid\":%u,\"name\":%s,\"time_ns\":%" PRIu64 "}", record.tgid, JsonString(record.name).c_str(),
                  record.timeNs);
}

std::string RecordJson(const ThreadTime& record) {
    return StringPrintf("{\"pid\":%u,\"tgid\":%u,\"thread_name\":%s,\"process_name\":%s,\"time_ns\":%" PRIu64 "}", record.pid,
                  record.tgid, JsonString(record.threadName).c_str(), JsonString(record.processName).c_str(),
                  record.timeNs);
}

template <typename Record>
std::string ReportText(const TimeInStateReport<Record>& report) {
    std::string text = StringPrintf("time=%" PRIu64 " reported=%" PRIu64 "ns total=%" PRIu64 "ns", report.timestampNs,
                              report.reportedTimeNs, report.totalTimeNs);
    for (const Record& record : report.records) text += " " + RecordText(record);
    for (const FrequencyTimes& entry : report.frequencies) {
        text += StringPrintf(" freq[%u]=", entry.key) + PoliciesText(entry.policies);
    }
    return text;
}

template <typename Record>
std::string ReportJson(const TimeInStateReport<Record>& report) {
    std::string json = StringPrintf("\"timestamp_ns\":%" PRIu64 ",\"reported_ns\":%" PRIu64 ",\"total_ns\":%" PRIu64
                              ",\"records\":[",
                              report.timestampNs, report.reportedTimeNs, report.totalTimeNs);
    for (size_t i = 0; i < report.records.size(); ++i) json += (i == 0 ? "" : ",") + RecordJson(report.records[i]);
    json += "],\"frequencies\":[";
    for (size_t i = 0; i < report.frequencies.size(); ++i) {
        json += StringPrintf("%s{\"key\":%u,\"policies\":", i == 0 ? "" : ",", report.frequencies[i].key) +
                PoliciesJson(report.frequencies[i].policies) + "}";
    }
    return json + "]";
}

// The fields of one decoded event, without braces.
std::string FieldsText(const DecodedEvent& decoded) {
    return std::visit(
            [](const auto& event) -> std::string {
                using Event = std::decay_t<decltype(event)>;
                if constexpr (std::is_same_v<Event, TaskCreated>) {
                    return StringPrintf("pid=%d ppid=%d uid=%u comm=%s", event.pid, event.ppid, event.uid,
                                  PrintableText(event.comm).c_str());
                } else if constexpr (std::is_same_v<Event, TaskExited>) {
                    return StringPrintf("pid=%d comm=%s", event.pid, PrintableText(event.comm).c_str());
                } else if constexpr (std::is_same_v<Event, ThreadCountChanged>) {
                    return StringPrintf("pid=%d ppid=%d uid=%u threads=%d->%d", event.pid, event.ppid, event.uid,
                                  event.oldThreadNum, event.threadNum);
                } else if constexpr (std::is_same_v<Event, RssChanged>) {
                    return StringPrintf("pid=%d ppid=%d uid=%u comm=%s ", event.pid, event.ppid, event.uid,
                                  PrintableText(event.comm).c_str()) +
                           RssText(event.current) + " (was " + RssText(event.lastReported) + ")";
                } else if constexpr (std::is_same_v<Event, TotalTimeInState>) {
                    if (!event.hasData) return "no data";
                    return StringPrintf("time=%" PRIu64 " ", event.timestampNs) + PoliciesText(event.policies);
                } else if constexpr (std::is_same_v<Event, TimeInStateReset>) {
                    return event.succeeded() ? StringPrintf("time=%" PRIu64, event.timestampNs) : "failed";
                } else if constexpr (std::is_same_v<Event, DmabufSizeChanged>) {
                    return StringPrintf("pid=%d buffers=%u bytes=", event.pid, event.buffers) +
                           Kib(static_cast<int64_t>(event.reportedBytes)) + "->" + Kib(static_cast<int64_t>(event.bytes));
                } else if constexpr (std::is_same_v<Event, CgroupMoved>) {
                    return StringPrintf("pid=%d comm=%s caller_pid=%d path=%s level=%d cgroup_id=%" PRIu64 " root=%d",
                                        event.pid, PrintableText(event.comm).c_str(), event.callerPid,
                                        PrintableText(event.path).c_str(), event.level, event.cgroupId, event.root);
                } else if constexpr (std::is_same_v<Event, FdCountChanged>) {
                    return StringPrintf("pid=%d comm=%s fds=%" PRId64 "->%" PRId64, event.pid,
                                        PrintableText(event.comm).c_str(), event.reportedFds, event.openFds);
                } else if constexpr (std::is_same_v<Event, DmabufChanged>) {
                    return StringPrintf("pid=%d op=%s inode=%" PRIu64 " size=", event.pid, DmabufOpName(event.op),
                                        event.inode) +
                           Kib(static_cast<int64_t>(event.size));
                } else {
                    return ReportText(event);
                }
            },
            decoded);
}

std::string FieldsJson(const DecodedEvent& decoded) {
    return std::visit(
            [](const auto& event) -> std::string {
                using Event = std::decay_t<decltype(event)>;
                if constexpr (std::is_same_v<Event, TaskCreated>) {
                    return StringPrintf("\"pid\":%d,\"ppid\":%d,\"uid\":%u,\"comm\":%s", event.pid, event.ppid, event.uid,
                                  JsonString(event.comm).c_str());
                } else if constexpr (std::is_same_v<Event, TaskExited>) {
                    return StringPrintf("\"pid\":%d,\"comm\":%s", event.pid, JsonString(event.comm).c_str());
                } else if constexpr (std::is_same_v<Event, ThreadCountChanged>) {
                    return StringPrintf("\"pid\":%d,\"ppid\":%d,\"uid\":%u,\"old_threads\":%d,\"threads\":%d", event.pid,
                                  event.ppid, event.uid, event.oldThreadNum, event.threadNum);
                } else if constexpr (std::is_same_v<Event, RssChanged>) {
                    const RssBytes& now = event.current;
                    const RssBytes& was = event.lastReported;
                    return StringPrintf("\"pid\":%d,\"ppid\":%d,\"uid\":%u,\"comm\":%s,\"file\":%" PRId64 ",\"anon\":%" PRId64
                                  ",\"swap\":%" PRId64 ",\"shmem\":%" PRId64 ",\"old_file\":%" PRId64
                                  ",\"old_anon\":%" PRId64 ",\"old_swap\":%" PRId64 ",\"old_shmem\":%" PRId64,
                                  event.pid, event.ppid, event.uid, JsonString(event.comm).c_str(), now.file, now.anon,
                                  now.swap, now.shmem, was.file, was.anon, was.swap, was.shmem);
                } else if constexpr (std::is_same_v<Event, TotalTimeInState>) {
                    return StringPrintf("\"timestamp_ns\":%" PRIu64 ",\"has_data\":%s,\"policies\":", event.timestampNs,
                                  event.hasData ? "true" : "false") +
                           PoliciesJson(event.policies);
                } else if constexpr (std::is_same_v<Event, TimeInStateReset>) {
                    return StringPrintf("\"timestamp_ns\":%" PRIu64 ",\"succeeded\":%s", event.timestampNs,
                                  event.succeeded() ? "true" : "false");
                } else if constexpr (std::is_same_v<Event, DmabufSizeChanged>) {
                    return StringPrintf("\"pid\":%d,\"buffers\":%u,\"bytes\":%" PRIu64 ",\"reported_bytes\":%" PRIu64,
                                        event.pid, event.buffers, event.bytes, event.reportedBytes);
                } else if constexpr (std::is_same_v<Event, CgroupMoved>) {
                    return StringPrintf("\"pid\":%d,\"comm\":%s,\"caller_pid\":%d,\"path\":%s,\"level\":%d,\"cgroup_id\":%" PRIu64
                                        ",\"root\":%d",
                                        event.pid, JsonString(event.comm).c_str(), event.callerPid,
                                        JsonString(event.path).c_str(), event.level, event.cgroupId, event.root);
                } else if constexpr (std::is_same_v<Event, FdCountChanged>) {
                    return StringPrintf("\"pid\":%d,\"comm\":%s,\"open_fds\":%" PRId64 ",\"reported_fds\":%" PRId64,
                                        event.pid, JsonString(event.comm).c_str(), event.openFds, event.reportedFds);
                } else if constexpr (std::is_same_v<Event, DmabufChanged>) {
                    return StringPrintf("\"pid\":%d,\"op\":\"%s\",\"inode\":%" PRIu64 ",\"size\":%" PRIu64, event.pid,
                                        DmabufOpName(event.op), event.inode, event.size);
                } else {
                    return ReportJson(event);
                }
            },
            decoded);
}

}  // namespace

std::string FormatText(const ClientEvent& event, const std::optional<DecodedEvent>& decoded, const std::string& error,
                       int64_t receivedMs) {
    const char* name = ClientEventName(event.id);
    if (decoded) return StringPrintf("%s %-21s ", Clock(receivedMs).c_str(), name) + FieldsText(*decoded);
    if (name != nullptr) {
        return StringPrintf("%s %-21s undecodable (%zu bytes): %s", Clock(receivedMs).c_str(), name, event.record.size(),
                      error.c_str());
    }
    return StringPrintf("%s event %-15u %zu bytes: %s%s", Clock(receivedMs).c_str(), event.id, event.record.size(),
                  Hex(event.record, kRawBytesShown).c_str(), event.record.size() > kRawBytesShown ? "..." : "");
}

std::string FormatJson(const ClientEvent& event, const std::optional<DecodedEvent>& decoded, const std::string& error,
                       int64_t receivedMs) {
    const char* name = ClientEventName(event.id);
    std::string json = StringPrintf("{\"received_ms\":%" PRId64 ",\"id\":%u,", receivedMs, event.id);
    if (decoded) return json + StringPrintf("\"event\":\"%s\",", name) + FieldsJson(*decoded) + "}";
    if (name != nullptr) {
        return json + StringPrintf("\"event\":\"%s\",\"undecodable\":true,\"size\":%zu,\"error\":%s}", name,
                             event.record.size(), JsonString(error).c_str());
    }
    return json + StringPrintf("\"event\":\"raw\",\"size\":%zu,\"hex\":\"%s\"}", event.record.size(),
                         Hex(event.record, event.record.size()).c_str());
}

std::string JsonString(std::string_view bytes) {
    std::string json = "\"";
    size_t i = 0;
    while (i < bytes.size()) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        if (byte < 0x80) {
            if (byte == '"' || byte == '\\') {
                json += '\\';
                json += static_cast<char>(byte);
            } else if (byte < 0x20 || byte == 0x7f) {
                json += StringPrintf("\\u%04x", byte);
            } else {
                json += static_cast<char>(byte);
            }
            ++i;
            continue;
        }
        // A well-formed UTF-8 sequence passes through whole; anything else is replaced byte by byte.
        size_t length = 0;
        uint32_t minimum = 0;
        if ((byte & 0xe0) == 0xc0) {
            length = 2;
            minimum = 0x80;
        } else if ((byte & 0xf0) == 0xe0) {
            length = 3;
            minimum = 0x800;
        } else if ((byte & 0xf8) == 0xf0) {
            length = 4;
            minimum = 0x10000;
        }
        bool valid = length != 0 && i + length <= bytes.size();
        uint32_t codePoint = length == 0 ? 0 : byte & (0x7f >> length);
        for (size_t k = 1; valid && k < length; ++k) {
            const auto next = static_cast<unsigned char>(bytes[i + k]);
            valid = (next & 0xc0) == 0x80;
            codePoint = (codePoint << 6) | (next & 0x3f);
        }
        valid = valid && codePoint >= minimum && codePoint <= 0x10ffff && (codePoint < 0xd800 || codePoint > 0xdfff);
        if (valid) {
            json.append(bytes.substr(i, length));
            i += length;
        } else {
            json += "\\ufffd";
            ++i;
        }
    }
    return json + "\"";
}

std::string PrintableText(std::string_view bytes) {
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7f && byte != '\\') {
            text += c;
        } else {
            text += StringPrintf("\\x%02x", byte);
        }
    }
    return text;
}

}  // namespace kovabpfctl
