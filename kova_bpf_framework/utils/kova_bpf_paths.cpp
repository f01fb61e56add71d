#include "utils/kova_bpf_paths.h"

#include <android-base/thread_annotations.h>
#include <stdlib.h>

#include <array>
#include <mutex>

namespace Kova::Bpf {
namespace {

struct Root {
    const char* path;
    const char* environmentVariable;
    std::string replacement;  // empty: not redirected
};

using Roots = std::array<Root, 7>;

std::mutex gRootsLock;
bool gRootsLoaded GUARDED_BY(gRootsLock) = false;

// Longest first, so that "/proc/stat" is matched before "/proc". Guarded by gRootsLock. Never
// destroyed: threads that outlive main (the signal worker) may still resolve paths at exit.
Roots& GetRoots() {
    static Roots* const roots = new Roots{{
            {KOVA_SOCKET_NAME, "KOVA_SOCKET_NAME", {}},
            {KOVA_PID_FILE, "KOVA_PID_FILE", {}},
            {KOVA_CPUFREQ_DIR, "KOVA_CPUFREQ_DIR", {}},
            {KOVA_DIAGNOSTICS_DIR, "KOVA_DIAG_DIR", {}},
            {KOVA_PIN_DIR, "KOVA_PIN_DIR", {}},
            {KOVA_PROC_STAT, "KOVA_PROC_STAT", {}},
            {KOVA_PROC_DIR, "KOVA_PROC_DIR", {}},
    }};
    return *roots;
}

void LoadEnvironmentLocked() REQUIRES(gRootsLock) {
    if (gRootsLoaded) return;
    gRootsLoaded = true;
    for (Root& root : GetRoots()) {
        const char* value = getenv(root.environmentVariable);
        if (value != nullptr) root.replacement = value;
    }
}

bool Matches(const std::string& path, const std::string& root) {
    return path.compare(0, root.size(), root) == 0 && (path.size() == root.size() || path[root.size()] == '/');
}

}  // namespace

std::string KovaPath(const std::string& path) {
    std::lock_guard<std::mutex> lock(gRootsLock);
    LoadEnvironmentLocked();
    for (const Root& root : GetRoots()) {
        const std::string rootPath = root.path;
        if (root.replacement.empty() || !Matches(path, rootPath)) continue;
        return root.replacement + path.substr(rootPath.size());
    }
    return path;
}

bool RedirectKovaRoot(const std::string& root, const std::string& replacement) {
    std::lock_guard<std::mutex> lock(gRootsLock);
    LoadEnvironmentLocked();
    for (Root& candidate : GetRoots()) {
        if (root == candidate.path) {
            candidate.replacement = replacement;
            return true;
        }
    }
    return false;
}

}  // namespace Kova::Bpf
