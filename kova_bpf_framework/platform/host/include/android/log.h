// Host subset of the Android log interface (liblog).
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,
    ANDROID_LOG_DEFAULT,
    ANDROID_LOG_VERBOSE,
    ANDROID_LOG_DEBUG,
    ANDROID_LOG_INFO,
    ANDROID_LOG_WARN,
    ANDROID_LOG_ERROR,
    ANDROID_LOG_FATAL,
    ANDROID_LOG_SILENT,
} android_LogPriority;

// Writes one message. Returns the number of bytes of the message, or a negative errno.
int __android_log_write(int prio, const char* tag, const char* text);

int __android_log_print(int prio, const char* tag, const char* fmt, ...)
        __attribute__((__format__(printf, 3, 4)));

// Messages below `priority` are dropped from then on, for the whole process (ANDROID_LOG_DEFAULT: none
// are). Returns the previous minimum. Command-line tools use it to keep info lines off the terminal.
int __android_log_set_minimum_priority(int priority);
int __android_log_get_minimum_priority(void);

#ifdef __cplusplus
}
#endif
