#include "utils/kova_bpf_file_writer.h"

#define LOG_TAG "BpfUtils"

#include <android-base/unique_fd.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <memory>

#include "utils/kova_bpf_common.h"

namespace Kova::Bpf {
namespace {

constexpr char kTemporaryMark[] = ".tmp-";
constexpr int kNameAttempts = 16;

std::atomic<unsigned> gTemporarySequence{0};

// "<dir>/.<name>.tmp-<pid>-<sequence>": in the target's directory, so that the rename stays within one
// file system, and named after the writing process, so that files a crashed writer left can be found.
std::string TemporaryPathFor(const std::string& path) {
    const size_t slash = path.rfind('/');
    const size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    return StringPrintf("%s.%s%s%d-%u", path.substr(0, nameStart).c_str(), path.c_str() + nameStart,
                        kTemporaryMark, getpid(), gTemporarySequence.fetch_add(1, std::memory_order_relaxed));
}

bool WriteAll(int fd, const std::string& content) {
    const char* next = content.data();
    size_t left = content.size();
    while (left > 0) {
        const ssize_t written = TEMP_FAILURE_RETRY(write(fd, next, left));
        if (written < 0) return false;
        if (written == 0) {  // no progress and no error: give up rather than spin
            errno = EIO;
            return false;
        }
        next += written;
        left -= static_cast<size_t>(written);
    }
    return true;
}

// Removes the temporary file, keeping errno, which tells why the write failed.
void Discard(const std::string& temporary) {
    const int error = errno;
    unlink(temporary.c_str());
    errno = error;
}

// The pid in a name TemporaryPathFor() made, or 0 for any other name.
pid_t WriterOf(const char* name) {
    if (name[0] != '.') return 0;
    const char* mark = strstr(name, kTemporaryMark);
    if (mark == nullptr) return 0;
    int pid = 0;
    unsigned sequence = 0;
    int end = 0;
    if (sscanf(mark + strlen(kTemporaryMark), "%d-%u%n", &pid, &sequence, &end) != 2 ||
        mark[strlen(kTemporaryMark) + end] != '\0') {
        return 0;
    }
    return pid > 0 ? pid : 0;
}

}  // namespace

bool WriteFileAtomically(const std::string& path, const std::string& content) {
    std::string temporary;
    android::base::unique_fd file;
    // O_EXCL never writes into someone else's file; a name left by an earlier process with the same pid
    // only costs the next sequence number.
    for (int attempt = 0; attempt < kNameAttempts && !file.ok(); ++attempt) {
        temporary = TemporaryPathFor(path);
        file.reset(TEMP_FAILURE_RETRY(open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666)));
        if (!file.ok() && errno != EEXIST) return false;
    }
    if (!file.ok()) return false;
    if (!WriteAll(file.get(), content)) {
        Discard(temporary);
        return false;
    }
    // Some file systems (NFS, FUSE) report a lack of space only when the file is closed.
    if (close(file.release()) != 0 || rename(temporary.c_str(), path.c_str()) != 0) {
        Discard(temporary);
        return false;
    }
    return true;
}

void RemoveStaleTemporaryFiles(const std::string& dir) {
    std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(dir.c_str()), closedir);
    if (!entries) return;
    while (const dirent* entry = readdir(entries.get())) {
        const pid_t writer = WriterOf(entry->d_name);
        if (writer == 0 || writer == getpid()) continue;
        if (kill(writer, 0) == 0 || errno != ESRCH) continue;  // its writer may still be at work
        unlinkat(dirfd(entries.get()), entry->d_name, 0);
    }
}

bool RewrittenFile::Write(const std::string& path, const std::string& content) {
    if (WriteFileAtomically(path, content)) {
        const unsigned failed = failedWrites_.exchange(0, std::memory_order_relaxed);
        if (lastError_.exchange(0, std::memory_order_relaxed) != 0) {
            ALOGI("%s is written again after %u failed writes", path.c_str(), failed);
        }
        return true;
    }
    const int error = errno != 0 ? errno : EIO;
    failedWrites_.fetch_add(1, std::memory_order_relaxed);
    if (lastError_.exchange(error, std::memory_order_relaxed) != error) reportFailure_(path, error);
    errno = error;
    return false;
}

}  // namespace Kova::Bpf
