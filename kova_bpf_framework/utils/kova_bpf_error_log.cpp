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

#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_file_writer.h"
#include "utils/kova_bpf_paths.h"

namespace Kova::Bpf {
namespace {

constexpr size_t kKeptOldLines = 4999;

std::mutex gErrorLogLock;  // serialises the read-modify-write of "error.log"

// Its failures go to the platform log only: the error log cannot record that it cannot be written.
RewrittenFile gErrorLog([](const std::string& path, int error) {
    ALOGE("failed to write %s, error: %s", path.c_str(), strerror(error));
});

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
    const std::string dir = KovaPath(KOVA_DIAGNOSTICS_DIR);
    MakeDirectories(dir, 0775);
    RemoveStaleTemporaryFiles(dir);
    return rename(ErrorLogPath(KOVA_ERROR_LOG_NAME).c_str(), ErrorLogPath(KOVA_ERROR_OLD_LOG_NAME).c_str());
}

void RecordBpfServiceErrorInfo(int errorCode, const std::string& error) {
    std::string content = FormatEntry(errorCode, error) + "\n";
    const std::string path = ErrorLogPath(KOVA_ERROR_LOG_NAME);

    std::lock_guard<std::mutex> lock(gErrorLogLock);
    {
        std::ifstream old(path);
        if (!old.is_open()) {
            // While writes fail, the log is usually missing too; that was told with the first failure.
            if (!gErrorLog.failing()) ALOGE("failed to read %s, error: %s", path.c_str(), strerror(errno));
        } else {
            std::string line;
            for (size_t kept = 0; kept < kKeptOldLines && std::getline(old, line); ++kept) content += line + "\n";
        }
    }
    MakeDirectories(KovaPath(KOVA_DIAGNOSTICS_DIR), 0775);
    gErrorLog.Write(path, content);
}

}  // namespace Kova::Bpf
