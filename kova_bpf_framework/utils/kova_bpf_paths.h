// The system's fixed locations, and the one seam through which tests and host runs move them.
//
// Every absolute path of the service is written in the code as the system defines it and passed
// through KovaPath() where it is used. By default KovaPath() returns it unchanged. When the path's root
// is redirected, the root is replaced and the rest of the path is kept, so "/proc/%d/status" under a
// redirected "/proc" becomes "<dir>/%d/status", and the pin directory "/sys/fs/bpf/kova/" keeps its
// trailing slash.
//
// Roots are redirected through the environment (read once, at the first call) or, inside a test
// process, through RedirectKovaRoot():
//
//   root                                   environment variable
//   KOVA_DIAGNOSTICS_DIR                   KOVA_DIAG_DIR
//   KOVA_PIN_DIR                           KOVA_PIN_DIR
//   KOVA_PROC_DIR                          KOVA_PROC_DIR
//   KOVA_PROC_STAT                         KOVA_PROC_STAT
//   KOVA_CPUFREQ_DIR                       KOVA_CPUFREQ_DIR
//   KOVA_SOCKET_NAME                       KOVA_SOCKET_NAME
//   KOVA_PID_FILE                          KOVA_PID_FILE
#pragma once

#include <string>

namespace Kova::Bpf {

inline constexpr char KOVA_DIAGNOSTICS_DIR[] = "/data/kovalog/stability/kovabpfframework";
inline constexpr char KOVA_PIN_DIR[] = "/sys/fs/bpf/kova";
inline constexpr char KOVA_PROC_DIR[] = "/proc";
inline constexpr char KOVA_PROC_STAT[] = "/proc/stat";
inline constexpr char KOVA_CPUFREQ_DIR[] = "/sys/devices/system/cpu/cpufreq";
inline constexpr char KOVA_SOCKET_NAME[] = "/mnt/bpfframework/kovabpfdispatcher";
// Written by kovabpfd while it runs, so that tools can find it to send it signals.
inline constexpr char KOVA_PID_FILE[] = "/run/kovabpfd.pid";

// `path` with its root replaced when that root is redirected; `path` itself otherwise. A root matches
// the whole path or a prefix ending at a '/'; the longest redirected root wins, so "/proc/stat" follows
// a redirected "/proc" unless it is redirected itself. Safe to call from any thread.
std::string KovaPath(const std::string& path);

// Redirects `root` (one of the constants above) to `replacement` in this process; an empty replacement
// restores the root. Returns false for a path that is not one of the roots. Meant for tests.
bool RedirectKovaRoot(const std::string& root, const std::string& replacement);

}  // namespace Kova::Bpf
