// The host's Android log: one logcat-like line per message on stderr, and an optional in-process sink.

#include <android-base/thread_annotations.h>
#include <android/log.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "host/log_capture.h"

extern "C" char* program_invocation_short_name;

namespace {

std::atomic<int> gMinimumPriority{ANDROID_LOG_DEFAULT};
std::mutex gSinkLock;
std::shared_ptr<kova::host::LogSink> gSink GUARDED_BY(gSinkLock);  // copied out before calling

char PriorityLetter(int prio) {
    switch (prio) {
        case ANDROID_LOG_VERBOSE: return 'V';
        case ANDROID_LOG_DEBUG: return 'D';
        case ANDROID_LOG_INFO: return 'I';
        case ANDROID_LOG_WARN: return 'W';
        case ANDROID_LOG_ERROR: return 'E';
        case ANDROID_LOG_FATAL: return 'F';
        default: return 'D';
    }
}

// "MM-DD HH:MM:SS.mmm  PID  TID P ", the head of a line as logcat's threadtime format shows it.
std::string LogcatHead(int prio) {
    struct timeval now {};
    gettimeofday(&now, nullptr);
    struct tm local {};
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", &local);
    std::string line = stamp;
    char head[96];
    snprintf(head, sizeof(head), ".%03ld %5d %5d %c ", static_cast<long>(now.tv_usec / 1000), getpid(),
             gettid(), PriorityLetter(prio));
    return line + head;
}

// The syslog priority of a log priority, for the journal.
int SyslogPriority(int prio) {
    switch (prio) {
        case ANDROID_LOG_FATAL: return 2;  // LOG_CRIT
        case ANDROID_LOG_ERROR: return 3;
        case ANDROID_LOG_WARN: return 4;
        case ANDROID_LOG_INFO: return 6;
        default: return 7;
    }
}

// Whether stderr is the journal's stream (systemd sets JOURNAL_STREAM to its "device:inode"). Looked at
// for every line: a process's stderr may be redirected after it started.
bool StderrIsJournal() {
    const char* stream = getenv("JOURNAL_STREAM");
    if (stream == nullptr) return false;
    unsigned long long device = 0, inode = 0;
    struct stat status {};
    return sscanf(stream, "%llu:%llu", &device, &inode) == 2 && fstat(STDERR_FILENO, &status) == 0 &&
           status.st_dev == device && status.st_ino == inode;
}

// "HEAD TAG: message"; for the journal, which stamps lines with the time and the process itself,
// "<N>TAG: message" with the syslog priority N in front (sd-daemon's convention), so that each line
// keeps its priority there.
void WriteToStderr(int prio, const char* tag, const char* text) {
    std::string line;
    if (StderrIsJournal()) {
        line = "<" + std::to_string(SyslogPriority(prio)) + ">";
    } else {
        line = LogcatHead(prio);
    }
    line += tag;
    line += ": ";
    line += text;
    line += '\n';
    // One write per line keeps lines of concurrent threads whole.
    const char* p = line.data();
    size_t left = line.size();
    while (left > 0) {
        const ssize_t n = write(STDERR_FILENO, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        p += n;
        left -= static_cast<size_t>(n);
    }
}


}  // namespace

namespace kova::host {

void SetLogSink(LogSink sink) {
    std::lock_guard<std::mutex> lock(gSinkLock);
    gSink = sink ? std::make_shared<LogSink>(std::move(sink)) : nullptr;
}

}  // namespace kova::host

extern "C" int __android_log_set_minimum_priority(int priority) { return gMinimumPriority.exchange(priority); }

extern "C" int __android_log_get_minimum_priority() { return gMinimumPriority.load(); }

extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
    const int minimum = gMinimumPriority.load(std::memory_order_relaxed);
    if (minimum != ANDROID_LOG_DEFAULT && prio < minimum) return 0;
    const int saved_errno = errno;
    if (tag == nullptr) tag = program_invocation_short_name;
    if (text == nullptr) text = "";
    WriteToStderr(prio, tag, text);
    std::shared_ptr<kova::host::LogSink> sink;
    {
        std::lock_guard<std::mutex> lock(gSinkLock);
        sink = gSink;
    }
    if (sink) (*sink)(kova::host::LogRecord{prio, tag, text});
    errno = saved_errno;
    return static_cast<int>(strlen(text));
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    const int saved_errno = errno;
    va_list args;
    va_start(args, fmt);
    va_list measure;
    va_copy(measure, args);
    const int length = vsnprintf(nullptr, 0, fmt, measure);
    va_end(measure);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) vsnprintf(text.data(), text.size() + 1, fmt, args);
    va_end(args);
    errno = saved_errno;
    return __android_log_write(prio, tag, text.c_str());
}
