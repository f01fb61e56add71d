// Host only: lets a test observe every log line of the process, in process.
#pragma once

#include <functional>
#include <string>

namespace kova::host {

struct LogRecord {
    int priority;         // android_LogPriority
    std::string tag;      // the tag as given, or the program name when none was given
    std::string message;  // the formatted message, without a trailing newline
};

using LogSink = std::function<void(const LogRecord&)>;

// Installs `sink` (or removes the sink when empty). Lines still go to stderr. The sink is called on the
// logging thread, one line at a time; it must not log itself. Safe to call from any thread.
void SetLogSink(LogSink sink);

}  // namespace kova::host
