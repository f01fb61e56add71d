#include "utils/kova_bpf_error_log.h"

#define LOG_TAG "BpfUtils"

#include <android-base/file.h>
#include <errno.h>
#include <log/log.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <mutex>
#include <vector>

#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_paths.h"

namespace Kova::Bpf {
namespace {

constexpr size_t kKeptOldLines = 4999;

std::mutex gErrorLogLock;  // serialises the read-modify-write of "error.log"

std::string ErrorLogPath(const char* name) { return KovaPath(KOVA_DIAGNOSTICS_DIR) + "/" + name; }

std::string FormatEntry(int errorCode, const std::string& error) {
    char stamp[64] = {};
    const time_t now = time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &local);

    std::string cmdline;
    if (android::base::ReadFileToString("/proc/self/cmdline", &cmdline)) {
        std::replace(cmdline.begin(), cmdline.end(), '\0', ' ');
    }
    char comm[17] = {};
    if (prctl(PR_GET_NAME, comm) != 0) comm[0] = '\0';

    return StringPrintf("----------\nTime: %s\nPid: %d\nTid: %d\nCmdline: %s\nComm: %s\nErrorCode: %d\nError: %s\n",
                        stamp, getpid(), gettid(), cmdline.c_str(), comm, errorCode, error.c_str());
}

}  // namespace

int InitBpfServiceErrorLog() {
    MakeDirectories(KovaPath(KOVA_DIAGNOSTICS_DIR), 0775);
    return rename(ErrorLogPath(KOVA_ERROR_LOG_NAME).c_str(), ErrorLogPath(KOVA_ERROR_OLD_LOG_NAME).c_str());
}

void RecordBpfServiceErrorInfo(int errorCode, const std::string& error) {
    std::vector<std::string> lines{FormatEntry(errorCode, error)};
    const std::string path = ErrorLogPath(KOVA_ERROR_LOG_NAME);

    std::lock_guard<std::mutex> lock(gErrorLogLock);
    {
        std::ifstream old(path);
        if (!old.is_open()) {
            ALOGE("failed to read %s, error: %s", path.c_str(), strerror(errno));
        } else {
            std::string line;
            while (lines.size() <= kKeptOldLines && std::getline(old, line)) lines.push_back(line);
        }
    }
    MakeDirectories(KovaPath(KOVA_DIAGNOSTICS_DIR), 0775);
    FILE* out = fopen(path.c_str(), "we");
    if (out == nullptr) {
        ALOGE("failed to write %s, error: %s", path.c_str(), strerror(errno));
        return;
    }
    for (const std::string& line : lines) {
        fputs(line.c_str(), out);
        fputc('\n', out);
        fflush(out);
    }
    fclose(out);
}

}  // namespace Kova::Bpf
