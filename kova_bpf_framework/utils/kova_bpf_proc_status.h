// The one reader of /proc/<pid>/status files: the fields the service takes from them, with the quirks
// of the readers that use them as options.
#pragma once

#include <stdint.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Kova::Bpf {

struct ProcStatus {
    std::string name;  // at most ProcStatusOptions::nameLength bytes
    int32_t ppid = 0;
    uint32_t uid = 0;  // the real uid (first of the line)
    uint64_t rssAnonKb = 0;
    uint64_t rssFileKb = 0;
    uint64_t rssShmemKb = 0;
    uint64_t vmSwapKb = 0;
};

struct ProcStatusOptions {
    // Where a value starts: right after its key, wherever the key stands in the line (false); or at the
    // line's character at the key's length, as if every key began its line (true).
    bool valueAtKeyLength = false;
    size_t nameLength = 15;
};

// A line counts for the first of the keys "Name:\t", "PPid:\t", "RssAnon:\t", "RssFile:\t",
// "RssShmem:\t", "VmSwap:\t", "Uid:\t" that it holds anywhere; a number is the leading decimal of its
// value after blanks, 0 when there is none.
ProcStatus ParseProcStatus(std::string_view text, const ProcStatusOptions& options = {});
// The same from a file; nullopt with errno when it cannot be read.
std::optional<ProcStatus> ReadProcStatus(const std::string& path, const ProcStatusOptions& options = {});

// Calls visit(name) for every entry of directory `dir` whose name does not begin with "."; false, with
// errno, when the directory cannot be opened.
bool ForEachDirEntry(const std::string& dir, const std::function<void(const char* name)>& visit);
// Calls visit(name) for every process directory (all-digits entry) of the /proc at `procDir`, in
// directory order; false, with errno, when the directory cannot be opened.
bool ForEachProcessDir(const std::string& procDir, const std::function<void(const char* name)>& visit);

// The leading decimal number of `text` after blanks; nullopt when there is none or it overflows.
std::optional<long long> LeadingNumber(std::string_view text);

}  // namespace Kova::Bpf
