#include "quiet_log.h"

#include <android/log.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <mutex>

#include "utils/kova_bpf_error_log.h"

namespace {

std::mutex gLock;
std::map<std::string, int> gWatched;  // prefix -> lines seen; guarded by gLock
std::map<int, int> gErrorCodes;        // error log code -> entries; guarded by gLock

}  // namespace

int QuietLogCount(const std::string& prefix) {
    std::lock_guard<std::mutex> lock(gLock);
    return gWatched[prefix];
}

extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
    if (text == nullptr) text = "";
    {
        std::lock_guard<std::mutex> lock(gLock);
        for (auto& [prefix, count] : gWatched) {
            if (strncmp(text, prefix.c_str(), prefix.size()) == 0) ++count;
        }
    }
    if (prio >= ANDROID_LOG_FATAL) {
        const std::string line = std::string("F ") + (tag != nullptr ? tag : "") + ": " + text + "\n";
        (void)!write(STDERR_FILENO, line.data(), line.size());
    }
    return static_cast<int>(strlen(text));
}

namespace {

// Whether a line printed from `fmt` might start with a watched prefix: the format's text before its
// first conversion must agree with the prefix as far as both go. Most lines cannot, and are then not
// formatted at all (the service logs a line per report type requested, thousands per request).
bool MayBeWatched(const char* fmt) {
    const size_t literal = strcspn(fmt, "%");
    std::lock_guard<std::mutex> lock(gLock);
    for (const auto& [prefix, count] : gWatched) {
        if (strncmp(fmt, prefix.c_str(), std::min(literal, prefix.size())) == 0) return true;
    }
    return false;
}

}  // namespace

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    if (prio < ANDROID_LOG_FATAL && !MayBeWatched(fmt)) return 0;
    va_list args;
    va_start(args, fmt);
    char* text = nullptr;
    const int length = vasprintf(&text, fmt, args);
    va_end(args);
    if (length < 0) return length;
    const int result = __android_log_write(prio, tag, text);
    free(text);
    return result;
}

int QuietErrorLogCount(int code) {
    std::lock_guard<std::mutex> lock(gLock);
    return gErrorCodes[code];
}

int Kova::Bpf::InitBpfServiceErrorLog() { return -1; }

void Kova::Bpf::RecordBpfServiceErrorInfo(int errorCode, const std::string&) {
    std::lock_guard<std::mutex> lock(gLock);
    ++gErrorCodes[errorCode];
}
