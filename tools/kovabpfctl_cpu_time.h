// What `kovabpfctl cpu-time` prints: the time-in-state reports labelled with the machine's cpufreq
// policies (their CPUs, their frequencies), as text for people or as one JSON document for scripts.
//
// The reports carry times only, per policy in the service's policy order and per frequency in
// ascending order. The labels come from the same cpufreq directory the service reads (KOVA_CPUFREQ_DIR
// moves it), ordered by the service library's own functions, so that both sides agree on the order.
#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

#include "kova/bpf_client_events.h"

namespace kovabpfctl {

struct CpufreqPolicy {
    uint32_t number = 0;                   // the directory is "policy<number>"
    std::vector<uint32_t> cpus;            // related_cpus
    std::vector<uint32_t> frequenciesKhz;  // available and boost frequencies, ascending
};

// The policies of the cpufreq directory in the service's order; nullopt, with the reason in *error,
// when the directory has none or one of them cannot be read.
std::optional<std::vector<CpufreqPolicy>> ReadCpufreqPolicies(std::string* error);

// How a report's policies and frequencies are named: with the cpufreq tree when its shape (number of
// policies, number of frequencies of each) is the report's; by index otherwise, with a note saying why.
struct FrequencyLabels {
    std::vector<CpufreqPolicy> policies;  // empty when not known
    std::string note;                      // empty when known
    bool known() const { return note.empty(); }
};

// Reads the tree and matches it against every set of policy times in `report` (50005 to 50007).
FrequencyLabels LabelReport(const Kova::Client::DecodedEvent& report);
// The same for a tree already read (nullopt: unreadable for `treeError`).
FrequencyLabels MatchLabels(const std::optional<std::vector<CpufreqPolicy>>& tree, const std::string& treeError,
                            const Kova::Client::DecodedEvent& report);

// A total (50005), process (50006) or thread (50007) report with data, as text lines ending in a
// newline, or as one JSON document on one line (times in ns, frequencies in kHz).
std::string FormatTimeReport(const Kova::Client::DecodedEvent& report, const FrequencyLabels& labels, bool json);

// Reset reports (50008 to 50010), in the order given: one text line each, or one JSON document.
std::string FormatResets(const std::vector<Kova::Client::TimeInStateReset>& resets, bool json);

}  // namespace kovabpfctl
