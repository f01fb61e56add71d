#include "utils/kova_bpf_cpufreq.h"

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "utils/kova_bpf_common.h"

namespace Kova::Bpf {

std::optional<std::vector<uint32_t>> readNumbersFromFile(const std::string& path) {
    std::string text;
    if (!android::base::ReadFileToString(path, &text)) return std::nullopt;
    std::vector<uint32_t> numbers;
    for (const std::string& piece : android::base::Split(text, " \n")) {
        if (piece.empty()) continue;
        uint32_t number = 0;
        if (!android::base::ParseUint(piece, &number)) return std::nullopt;
        numbers.push_back(number);
    }
    return numbers;
}

bool isPolicyFile(const struct dirent* entry) { return strncmp(entry->d_name, "policy", 6) == 0; }

int comparePolicyFiles(const struct dirent** first, const struct dirent** second) {
    unsigned int a = 0;
    unsigned int b = 0;
    if (sscanf((*first)->d_name, "policy%u", &a) != 1 || sscanf((*second)->d_name, "policy%u", &b) != 1) return 0;
    return static_cast<int>(a - b);
}

std::optional<std::vector<std::string>> listPolicyFiles(const std::string& dir) {
    struct dirent** entries = nullptr;
    const int count = scandir(
            dir.c_str(), &entries, [](const struct dirent* entry) -> int { return isPolicyFile(entry); },
            comparePolicyFiles);
    if (count <= 0) {
        free(entries);
        return std::nullopt;
    }
    std::vector<std::string> policies;
    for (int i = 0; i < count; ++i) {
        policies.emplace_back(entries[i]->d_name);
        free(entries[i]);
    }
    free(entries);
    return policies;
}

std::vector<uint32_t> readPolicyFrequencies(const std::string& dir, const std::string& policy) {
    std::vector<uint32_t> frequencies;
    for (const char* kind : {"available", "boost"}) {
        const std::optional<std::vector<uint32_t>> listed =
                readNumbersFromFile(StringPrintf("%s/%s/scaling_%s_frequencies", dir.c_str(), policy.c_str(), kind));
        if (listed) frequencies.insert(frequencies.end(), listed->begin(), listed->end());
    }
    std::sort(frequencies.begin(), frequencies.end());
    return frequencies;
}

}  // namespace Kova::Bpf
