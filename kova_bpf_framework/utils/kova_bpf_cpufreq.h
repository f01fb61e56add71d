// The cpufreq policy tree as the kernel writes it ("/sys/devices/system/cpu/cpufreq/policyN/..."): read
// by the service's time-in-state set-up and by kovabpfctl, which names the frequencies of a report.
#pragma once

#include <dirent.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

namespace Kova::Bpf {

// The unsigned 32-bit numbers of a file separated by blanks and newlines (decimal, or hexadecimal with
// "0x"); empty when the file cannot be read or any piece is not such a number.
std::optional<std::vector<uint32_t>> readNumbersFromFile(const std::string& path);
// scandir's filter and order for the cpufreq directory: names starting with "policy", sorted by the
// number after it ("policy10" after "policy9"; names that do not parse compare equal).
bool isPolicyFile(const struct dirent* entry);
int comparePolicyFiles(const struct dirent** first, const struct dirent** second);
// The policy directories of cpufreq directory `dir` in that order; empty when it has none or cannot
// be read.
std::optional<std::vector<std::string>> listPolicyFiles(const std::string& dir);
// A policy's frequency table: its available and (optional) boost frequencies together, ascending,
// duplicates kept; empty when neither list reads.
std::vector<uint32_t> readPolicyFrequencies(const std::string& dir, const std::string& policy);

}  // namespace Kova::Bpf
