// android-base LogMessage on the host: formats through the Android log and aborts on FATAL.

#include <android-base/logging.h>
#include <android/log.h>
#include <stdlib.h>
#include <string.h>

namespace android::base {
namespace {

int ToPriority(LogSeverity severity) {
    switch (severity) {
        case VERBOSE: return ANDROID_LOG_VERBOSE;
        case DEBUG: return ANDROID_LOG_DEBUG;
        case INFO: return ANDROID_LOG_INFO;
        case WARNING: return ANDROID_LOG_WARN;
        case ERROR: return ANDROID_LOG_ERROR;
        case FATAL_WITHOUT_ABORT:
        case FATAL: return ANDROID_LOG_FATAL;
    }
    return ANDROID_LOG_DEFAULT;
}

}  // namespace

LogMessage::LogMessage(const char* file, unsigned int line, LogSeverity severity, const char* tag, int error)
    : file_(file), line_(line), severity_(severity), tag_(tag), error_(error) {}

LogMessage::~LogMessage() {
    if (error_ >= 0) buffer_ << ": " << strerror(error_);
    const std::string message = buffer_.str();
    if (severity_ == FATAL || severity_ == FATAL_WITHOUT_ABORT) {
        __android_log_print(ToPriority(severity_), tag_, "%s:%u] %s", file_, line_, message.c_str());
    } else {
        __android_log_write(ToPriority(severity_), tag_, message.c_str());
    }
    if (severity_ == FATAL) abort();
}

}  // namespace android::base
