#include "utils/kova_bpf_proc_status.h"

#include <android-base/file.h>
#include <dirent.h>
#include <errno.h>
#include <stdlib.h>

#include "utils/kova_bpf_common.h"

namespace Kova::Bpf {

bool ForEachDirEntry(const std::string& dir, const std::function<void(const char* name)>& visit) {
    DIR* entries = opendir(dir.c_str());
    if (entries == nullptr) return false;
    while (dirent* entry = readdir(entries)) {
        if (entry->d_name[0] != '.') visit(entry->d_name);
    }
    closedir(entries);
    return true;
}

bool ForEachProcessDir(const std::string& procDir, const std::function<void(const char* name)>& visit) {
    return ForEachDirEntry(procDir, [&](const char* name) {
        if (IsDigits(name)) visit(name);
    });
}

std::optional<long long> LeadingNumber(std::string_view text) {
    const size_t start = text.find_first_not_of(" \t");
    if (start == std::string_view::npos) return std::nullopt;
    const std::string digits(text.substr(start));
    char* end = nullptr;
    errno = 0;
    const long long value = strtoll(digits.c_str(), &end, 10);
    if (end == digits.c_str() || errno == ERANGE) return std::nullopt;
    return value;
}

ProcStatus ParseProcStatus(std::string_view text, const ProcStatusOptions& options) {
    ProcStatus status;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        std::string_view value;
        const auto has = [&](std::string_view key) {
            const size_t at = line.find(key);
            if (at == std::string_view::npos) return false;
            value = line.substr(std::min(line.size(), (options.valueAtKeyLength ? 0 : at) + key.size()));
            return true;
        };
        const auto number = [&] { return LeadingNumber(value).value_or(0); };
        if (has("Name:\t")) {
            status.name = std::string(value.substr(0, options.nameLength));
        } else if (has("PPid:\t")) {
            status.ppid = static_cast<int32_t>(number());
        } else if (has("RssAnon:\t")) {
            status.rssAnonKb = static_cast<uint64_t>(number());
        } else if (has("RssFile:\t")) {
            status.rssFileKb = static_cast<uint64_t>(number());
        } else if (has("RssShmem:\t")) {
            status.rssShmemKb = static_cast<uint64_t>(number());
        } else if (has("VmSwap:\t")) {
            status.vmSwapKb = static_cast<uint64_t>(number());
        } else if (has("Uid:\t")) {
            status.uid = static_cast<uint32_t>(number());
        }
    }
    return status;
}

std::optional<ProcStatus> ReadProcStatus(const std::string& path, const ProcStatusOptions& options) {
    std::string text;
    if (!android::base::ReadFileToString(path, &text)) return std::nullopt;
    return ParseProcStatus(text, options);
}

}  // namespace Kova::Bpf
