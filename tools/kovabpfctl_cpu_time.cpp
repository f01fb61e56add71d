#include "kovabpfctl_cpu_time.h"

#include <android-base/parseint.h>
#include <inttypes.h>
#include <string.h>

#include <algorithm>
#include <type_traits>

#include "kovabpfctl_format.h"
#include "utils/kova_bpf_cpufreq.h"
#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_paths.h"

namespace kovabpfctl {
namespace {

using namespace Kova::Client;
using Kova::Bpf::StringPrintf;

// ---- Numbers for people ----

std::string Seconds(uint64_t ns) { return StringPrintf("%.3f", static_cast<double>(ns) / 1e9); }

std::string Share(uint64_t part, uint64_t whole) {
    if (whole == 0) return "-";
    return StringPrintf("%.1f%%", 100.0 * static_cast<double>(part) / static_cast<double>(whole));
}

// 1200000 kHz is "1200 MHz", 998400 kHz "998.4 MHz".
std::string Mhz(uint32_t khz) {
    std::string text = StringPrintf("%.3f", khz / 1000.0);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    return text + " MHz";
}

// "CPU 3", "CPUs 0-3", "CPUs 0 2 4-7".
std::string CpuList(std::vector<uint32_t> cpus) {
    std::sort(cpus.begin(), cpus.end());
    std::string text;
    for (size_t i = 0; i < cpus.size();) {
        size_t last = i;
        while (last + 1 < cpus.size() && cpus[last + 1] == cpus[last] + 1) ++last;
        text += StringPrintf(text.empty() ? "%u" : " %u", cpus[i]);
        if (last > i) text += StringPrintf("-%u", cpus[last]);
        i = last + 1;
    }
    return (cpus.size() == 1 ? "CPU " : "CPUs ") + text;
}

std::string Stamp(uint64_t timestampNs) { return "taken at boot clock " + Seconds(timestampNs) + " s"; }

uint64_t Sum(const std::vector<uint64_t>& times) {
    uint64_t sum = 0;
    for (const uint64_t time : times) sum += time;
    return sum;
}

std::string PolicyName(const FrequencyLabels& labels, size_t policy) {
    if (!labels.known()) return StringPrintf("policy #%zu", policy);
    return StringPrintf("policy%u", labels.policies[policy].number);
}

std::string FrequencyName(const FrequencyLabels& labels, size_t policy, size_t index) {
    if (!labels.known()) return StringPrintf("#%zu", index);
    return Mhz(labels.policies[policy].frequenciesKhz[index]);
}

std::string NoteLine(const FrequencyLabels& labels) {
    return labels.known() ? "" : "note: frequencies are shown by index: " + labels.note + "\n";
}

// ---- Text ----

std::string TotalText(const TotalTimeInState& report, const FrequencyLabels& labels) {
    std::string text = "CPU time per frequency since the last reset, " + Stamp(report.timestampNs) + "\n" +
                       NoteLine(labels);
    for (size_t policy = 0; policy < report.policies.size(); ++policy) {
        const std::vector<uint64_t>& times = report.policies[policy].timesNs;
        const uint64_t total = Sum(times);
        text += "\n" + PolicyName(labels, policy);
        if (labels.known()) text += " (" + CpuList(labels.policies[policy].cpus) + ")";
        text += StringPrintf("\n  %12s %12s %7s\n", "FREQUENCY", "TIME (s)", "SHARE");
        for (size_t i = 0; i < times.size(); ++i) {
            text += StringPrintf("  %12s %12s %7s\n", FrequencyName(labels, policy, i).c_str(), Seconds(times[i]).c_str(),
                                 Share(times[i], total).c_str());
        }
        text += StringPrintf("  %12s %12s\n", "total", Seconds(total).c_str());
    }
    return text;
}

// The frequencies a process or thread ran at, one line per policy with time: "policy0: 1200 MHz 3.000 s".
std::string FrequencyLines(const std::vector<PolicyTimes>* policies, const FrequencyLabels& labels, int indent) {
    if (policies == nullptr) return "";
    std::string text;
    for (size_t policy = 0; policy < policies->size(); ++policy) {
        const std::vector<uint64_t>& times = (*policies)[policy].timesNs;
        std::string line;
        for (size_t i = 0; i < times.size(); ++i) {
            if (times[i] < 500000) continue;  // would read "0.000 s"
            line += (line.empty() ? "" : ", ") + FrequencyName(labels, policy, i) + " " + Seconds(times[i]) + " s";
        }
        if (!line.empty()) text += std::string(indent, ' ') + PolicyName(labels, policy) + ": " + line + "\n";
    }
    return text;
}

// The service names a process that has gone with "".
std::string ProcessName(const std::string& name) { return name.empty() ? "(exited)" : PrintableText(name); }

std::string RowText(const ProcessTime& record, uint64_t totalNs) {
    return StringPrintf("  %7u  %-16s %12s %7s\n", record.tgid, ProcessName(record.name).c_str(),
                        Seconds(record.timeNs).c_str(), Share(record.timeNs, totalNs).c_str());
}

std::string RowText(const ThreadTime& record, uint64_t totalNs) {
    return StringPrintf("  %7u %7u  %-16s %-16s %12s %7s\n", record.pid, record.tgid,
                        PrintableText(record.threadName).c_str(), ProcessName(record.processName).c_str(),
                        Seconds(record.timeNs).c_str(), Share(record.timeNs, totalNs).c_str());
}

// The records by time, most first; ties by key, so the order is the same every time.
template <typename Record>
std::vector<const Record*> ByTime(const std::vector<Record>& records) {
    std::vector<const Record*> sorted;
    for (const Record& record : records) sorted.push_back(&record);
    std::sort(sorted.begin(), sorted.end(), [](const Record* a, const Record* b) {
        return a->timeNs != b->timeNs ? a->timeNs > b->timeNs : a->key < b->key;
    });
    return sorted;
}

template <typename Record>
const std::vector<PolicyTimes>* FrequenciesOf(const TimeInStateReport<Record>& report, uint32_t key) {
    for (const FrequencyTimes& entry : report.frequencies) {
        if (entry.key == key) return &entry.policies;
    }
    return nullptr;
}

template <typename Record>
std::string TopText(const TimeInStateReport<Record>& report, const FrequencyLabels& labels) {
    constexpr bool kThreads = std::is_same_v<Record, ThreadTime>;
    const char* kind = kThreads ? "threads" : "processes";
    std::string text = StringPrintf("Top %zu %s by CPU time since the last reset, ", report.records.size(), kind) +
                       Stamp(report.timestampNs) + "\n" + NoteLine(labels);
    if (report.records.empty()) return text + StringPrintf("No %s ran since the last reset.\n", kind);
    text += StringPrintf("All %s ran %s s; these %zu ran %s s of it (%s).\n\n", kind, Seconds(report.totalTimeNs).c_str(),
                         report.records.size(), Seconds(report.reportedTimeNs).c_str(),
                         Share(report.reportedTimeNs, report.totalTimeNs).c_str());
    text += kThreads ? StringPrintf("  %7s %7s  %-16s %-16s %12s %7s\n", "TID", "PID", "THREAD", "PROCESS", "TIME (s)",
                                    "SHARE")
                     : StringPrintf("  %7s  %-16s %12s %7s\n", "PID", "NAME", "TIME (s)", "SHARE");
    for (const Record* record : ByTime(report.records)) {
        text += RowText(*record, report.totalTimeNs);
        text += FrequencyLines(FrequenciesOf(report, record->key), labels, kThreads ? 19 : 11);
    }
    return text;
}

// ---- JSON ----

template <typename Number>
std::string JsonArray(const std::vector<Number>& numbers) {
    std::string json = "[";
    for (size_t i = 0; i < numbers.size(); ++i) json += (i == 0 ? "" : ",") + std::to_string(numbers[i]);
    return json + "]";
}

std::string TimesJson(const std::vector<PolicyTimes>* policies) {
    if (policies == nullptr) return "null";
    std::string json = "[";
    for (size_t i = 0; i < policies->size(); ++i) json += (i == 0 ? "" : ",") + JsonArray((*policies)[i].timesNs);
    return json + "]";
}

// The members every time report shares: what the labels are.
std::string LabelsJson(const FrequencyLabels& labels) {
    if (!labels.known()) return "\"frequencies_known\":false,\"note\":" + JsonString(labels.note) + ",\"policies\":null";
    std::string json = "\"frequencies_known\":true,\"policies\":[";
    for (size_t i = 0; i < labels.policies.size(); ++i) {
        const CpufreqPolicy& policy = labels.policies[i];
        json += StringPrintf("%s{\"policy\":%u,\"cpus\":", i == 0 ? "" : ",", policy.number) + JsonArray(policy.cpus) +
                ",\"khz\":" + JsonArray(policy.frequenciesKhz) + "}";
    }
    return json + "]";
}

std::string TotalJson(const TotalTimeInState& report, const FrequencyLabels& labels) {
    return StringPrintf("{\"report\":\"total\",\"id\":%u,\"timestamp_ns\":%" PRIu64 ",", kTotalTimeInState,
                        report.timestampNs) +
           LabelsJson(labels) + ",\"times_ns\":" + TimesJson(&report.policies) + "}";
}

std::string RecordJson(const ProcessTime& record) {
    return StringPrintf("{\"tgid\":%u,\"name\":%s,\"time_ns\":%" PRIu64, record.tgid, JsonString(record.name).c_str(),
                        record.timeNs);
}

std::string RecordJson(const ThreadTime& record) {
    return StringPrintf("{\"pid\":%u,\"tgid\":%u,\"thread_name\":%s,\"process_name\":%s,\"time_ns\":%" PRIu64,
                        record.pid, record.tgid, JsonString(record.threadName).c_str(),
                        JsonString(record.processName).c_str(), record.timeNs);
}

template <typename Record>
std::string TopJson(const TimeInStateReport<Record>& report, const FrequencyLabels& labels) {
    constexpr bool kThreads = std::is_same_v<Record, ThreadTime>;
    const char* kind = kThreads ? "threads" : "processes";
    std::string json = StringPrintf("{\"report\":\"%s\",\"id\":%u,\"timestamp_ns\":%" PRIu64 ",\"total_ns\":%" PRIu64
                                    ",\"reported_ns\":%" PRIu64 ",",
                                    kind, kThreads ? kThreadTimeInState : kProcessTimeInState, report.timestampNs,
                                    report.totalTimeNs, report.reportedTimeNs) +
                       LabelsJson(labels) + ",\"" + kind + "\":[";
    bool first = true;
    for (const Record* record : ByTime(report.records)) {
        json += (first ? "" : ",") + RecordJson(*record) + ",\"times_ns\":" +
                TimesJson(FrequenciesOf(report, record->key)) + "}";
        first = false;
    }
    return json + "]}";
}

const char* ResetTarget(uint32_t id) {
    switch (id) {
        case kTotalTimeReset: return "total";
        case kProcessTimeReset: return "processes";
        case kThreadTimeReset: return "threads";
        default: return "unknown";
    }
}

// ---- Matching the tree ----

// Why the tree does not fit `policies`, or "" when it does.
std::string Mismatch(const std::vector<CpufreqPolicy>& tree, const std::vector<PolicyTimes>& policies,
                     const std::string& dir) {
    if (tree.size() != policies.size()) {
        return StringPrintf("%s has %zu policies, the report %zu", dir.c_str(), tree.size(), policies.size());
    }
    for (size_t i = 0; i < tree.size(); ++i) {
        if (tree[i].frequenciesKhz.size() != policies[i].timesNs.size()) {
            return StringPrintf("policy%u in %s has %zu frequencies, the report %zu", tree[i].number, dir.c_str(),
                                tree[i].frequenciesKhz.size(), policies[i].timesNs.size());
        }
    }
    return "";
}

// Every set of policy times in the report.
std::vector<const std::vector<PolicyTimes>*> Shapes(const DecodedEvent& report) {
    std::vector<const std::vector<PolicyTimes>*> shapes;
    if (const auto* total = std::get_if<TotalTimeInState>(&report)) {
        shapes.push_back(&total->policies);
    } else if (const auto* processes = std::get_if<ProcessTimeInState>(&report)) {
        for (const FrequencyTimes& entry : processes->frequencies) shapes.push_back(&entry.policies);
    } else if (const auto* threads = std::get_if<ThreadTimeInState>(&report)) {
        for (const FrequencyTimes& entry : threads->frequencies) shapes.push_back(&entry.policies);
    }
    return shapes;
}

}  // namespace

std::optional<std::vector<CpufreqPolicy>> ReadCpufreqPolicies(std::string* error) {
    const std::string dir = Kova::Bpf::KovaPath(Kova::Bpf::KOVA_CPUFREQ_DIR);
    const std::optional<std::vector<std::string>> names = Kova::Bpf::listPolicyFiles(dir);
    if (!names) {
        *error = dir + " has no readable cpufreq policies";
        return std::nullopt;
    }
    std::vector<CpufreqPolicy> policies;
    for (const std::string& name : *names) {
        CpufreqPolicy policy;
        if (!android::base::ParseUint(name.substr(strlen("policy")), &policy.number)) {
            *error = dir + "/" + name + " is not a policy directory";
            return std::nullopt;
        }
        // As the service reads them, so that both sides agree on the table.
        policy.frequenciesKhz = Kova::Bpf::readPolicyFrequencies(dir, name);
        const auto cpus = Kova::Bpf::readNumbersFromFile(dir + "/" + name + "/related_cpus");
        if (policy.frequenciesKhz.empty() || !cpus) {
            *error = "cannot read the " + std::string(policy.frequenciesKhz.empty() ? "frequencies" : "CPUs") + " of " +
                     dir + "/" + name;
            return std::nullopt;
        }
        policy.cpus = *cpus;
        policies.push_back(std::move(policy));
    }
    return policies;
}

FrequencyLabels MatchLabels(const std::optional<std::vector<CpufreqPolicy>>& tree, const std::string& treeError,
                            const DecodedEvent& report) {
    FrequencyLabels labels;
    if (!tree) {
        labels.note = treeError;
        return labels;
    }
    const std::string dir = Kova::Bpf::KovaPath(Kova::Bpf::KOVA_CPUFREQ_DIR);
    for (const std::vector<PolicyTimes>* shape : Shapes(report)) {
        labels.note = Mismatch(*tree, *shape, dir);
        if (!labels.known()) return labels;
    }
    labels.policies = *tree;
    return labels;
}

FrequencyLabels LabelReport(const DecodedEvent& report) {
    std::string error;
    const std::optional<std::vector<CpufreqPolicy>> tree = ReadCpufreqPolicies(&error);
    return MatchLabels(tree, error, report);
}

std::string FormatTimeReport(const DecodedEvent& report, const FrequencyLabels& labels, bool json) {
    if (const auto* total = std::get_if<TotalTimeInState>(&report)) {
        return json ? TotalJson(*total, labels) + "\n" : TotalText(*total, labels);
    }
    if (const auto* processes = std::get_if<ProcessTimeInState>(&report)) {
        return json ? TopJson(*processes, labels) + "\n" : TopText(*processes, labels);
    }
    if (const auto* threads = std::get_if<ThreadTimeInState>(&report)) {
        return json ? TopJson(*threads, labels) + "\n" : TopText(*threads, labels);
    }
    return "";
}

std::string FormatResets(const std::vector<TimeInStateReset>& resets, bool json) {
    std::string out = json ? "{\"report\":\"reset\",\"resets\":[" : "";
    for (size_t i = 0; i < resets.size(); ++i) {
        const TimeInStateReset& reset = resets[i];
        if (json) {
            out += StringPrintf("%s{\"target\":\"%s\",\"id\":%u,\"timestamp_ns\":%" PRIu64 ",\"succeeded\":%s}",
                                i == 0 ? "" : ",", ResetTarget(reset.id), reset.id, reset.timestampNs,
                                reset.succeeded() ? "true" : "false");
        } else if (reset.succeeded()) {
            const char* what = reset.id == kTotalTimeReset ? "total" : reset.id == kProcessTimeReset ? "process" : "thread";
            out += StringPrintf("Reset the %s CPU times at boot clock %s s.\n", what, Seconds(reset.timestampNs).c_str());
        }
    }
    return json ? out + "]}\n" : out;
}

}  // namespace kovabpfctl
