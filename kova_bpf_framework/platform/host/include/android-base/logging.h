// Host subset of android-base logging: LogMessage with the LOG, PLOG and CHECK macros.
#pragma once

#include <sstream>

namespace android::base {

enum LogSeverity {
    VERBOSE,
    DEBUG,
    INFO,
    WARNING,
    ERROR,
    FATAL_WITHOUT_ABORT,
    FATAL,
};

// Collects one message through stream() and logs it when destroyed. A FATAL message is logged as
// "file:line] message" and then aborts the process. `error` >= 0 appends ": strerror(error)".
class LogMessage {
  public:
    LogMessage(const char* file, unsigned int line, LogSeverity severity, const char* tag, int error);
    ~LogMessage();
    LogMessage(const LogMessage&) = delete;
    LogMessage& operator=(const LogMessage&) = delete;

    std::ostream& stream() { return buffer_; }

  private:
    const char* file_;
    unsigned int line_;
    LogSeverity severity_;
    const char* tag_;
    int error_;
    std::ostringstream buffer_;
};

}  // namespace android::base

#ifdef LOG_TAG
#define KOVA_BASE_LOG_TAG LOG_TAG
#else
#define KOVA_BASE_LOG_TAG nullptr
#endif

#define LOG(severity) \
    ::android::base::LogMessage(__FILE__, __LINE__, ::android::base::severity, KOVA_BASE_LOG_TAG, -1).stream()

#define PLOG(severity) \
    ::android::base::LogMessage(__FILE__, __LINE__, ::android::base::severity, KOVA_BASE_LOG_TAG, errno).stream()

// Logs "Check failed: <expression> " at fatal severity and aborts when the expression is false.
#define CHECK(x)                                                                                        \
    (__builtin_expect(!!(x), 1)) ||                                                                     \
            ::android::base::LogMessage(__FILE__, __LINE__, ::android::base::FATAL, KOVA_BASE_LOG_TAG, -1) \
                            .stream()                                                                   \
                    << "Check failed: " #x << " "
