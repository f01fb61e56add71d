// Files that other processes read while the service rewrites them (the diagnostics, the daemon's pid
// file): each write replaces the file whole, so a reader opens the old version or the new one, never a
// part of either; and a file whose writes keep failing (a full or read-only disk) says so once, not at
// every attempt.
#pragma once

#include <atomic>
#include <string>

namespace Kova::Bpf {

// Replaces `path` with a file holding exactly `content`: writes a temporary file beside it (a hidden,
// unique name; created close-on-exec with mode 0666 less the umask, as fopen() creates files), checks
// every write and the close, and renames it over `path`. Returns true; or false with errno set, the
// temporary file removed and `path` as it was (or still missing).
//
// Not synced to the device: readers need a whole file, not one that survives a power cut, and an
// fsync per write would stall the thread that writes (the IPC thread writes the error log) for as long
// as the device takes. Safe to call from any thread; of concurrent writers of one path, the last rename
// wins.
bool WriteFileAtomically(const std::string& path, const std::string& content);

// Removes the temporary files that WriteFileAtomically() of a process no longer running left in `dir`
// (a crash between creating and renaming one). Those of running processes are left alone.
void RemoveStaleTemporaryFiles(const std::string& dir);

// One file that the service rewrites again and again. Each Write() replaces it whole, and a run of
// failed writes is told once: the first failure, and a failure with another error than the one before,
// go to the reporter; the first successful write after failures logs once, at info level,
// "<path> is written again after <n> failed writes". Nothing of a failed write's content is kept, so a
// full disk costs no memory. The reporter must not write this file itself (the error log reports its
// own failures). Safe to call from any thread.
class RewrittenFile {
  public:
    // Logs a failed write of `path` with `error` (an errno value), in the caller's words.
    using FailureReporter = void (*)(const std::string& path, int error);

    constexpr explicit RewrittenFile(FailureReporter reportFailure) : reportFailure_(reportFailure) {}
    RewrittenFile(const RewrittenFile&) = delete;
    RewrittenFile& operator=(const RewrittenFile&) = delete;

    // Replaces `path` with `content` (WriteFileAtomically()); false, with errno set and `path` left
    // as it was, when that fails.
    bool Write(const std::string& path, const std::string& content);

    // True while the last write failed.
    bool failing() const { return lastError_.load(std::memory_order_relaxed) != 0; }

  private:
    const FailureReporter reportFailure_;
    std::atomic<int> lastError_{0};          // errno of the last write's failure; 0 after a success
    std::atomic<unsigned> failedWrites_{0};  // since the last successful write
};

}  // namespace Kova::Bpf
