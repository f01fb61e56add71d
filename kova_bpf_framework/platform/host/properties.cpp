// System properties on the host: one file per property whose whole content is the value, so that
// separate processes (the loader, kova-setprop, the daemon) share them. Writes go through a
// temporary file and a rename, so a reader sees either the old or the new value, never a mix.

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

namespace android::base {
namespace {

constexpr size_t kValueMax = 91;  // PROP_VALUE_MAX - 1 on the device; "ro." values may be longer

std::string PropertyDir(const std::string& key) {
    const char* override_dir = getenv("KOVA_PROPERTY_DIR");
    if (override_dir != nullptr && override_dir[0] != '\0') return override_dir;
    return StartsWith(key, "persist.") ? "/var/lib/kovabpf/properties" : "/run/kovabpf/properties";
}

// Names as the device accepts them; on the host a name is also a file name, so it can hold no '/'
// and cannot begin with '.'.
bool IsValidName(const std::string& key) {
    if (key.empty() || key.front() == '.' || key.back() == '.' || key.find("..") != std::string::npos) {
        return false;
    }
    for (const char c : key) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                        c == '.' || c == '-' || c == '_' || c == '@' || c == ':';
        if (!ok) return false;
    }
    return true;
}

bool MakeDirs(const std::string& dir) {
    std::string partial;
    for (const std::string& piece : Split(dir, "/")) {
        if (piece.empty()) continue;
        partial += "/" + piece;
        if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    return true;
}

}  // namespace

std::string GetProperty(const std::string& key, const std::string& default_value) {
    if (!IsValidName(key)) return default_value;
    std::string value;
    if (!ReadFileToString(PropertyDir(key) + "/" + key, &value) || value.empty()) return default_value;
    return value;
}

bool SetProperty(const std::string& key, const std::string& value) {
    if (!IsValidName(key) || (value.size() > kValueMax && !StartsWith(key, "ro."))) {
        errno = EINVAL;
        return false;
    }
    const std::string dir = PropertyDir(key);
    if (!MakeDirs(dir)) return false;
    char suffix[64];
    snprintf(suffix, sizeof(suffix), ".tmp-%d-%d", getpid(), gettid());
    const std::string temp = dir + "/." + key + suffix;
    if (!WriteStringToFile(value, temp)) {
        const int saved_errno = errno;
        unlink(temp.c_str());
        errno = saved_errno;
        return false;
    }
    if (StartsWith(key, "persist.")) {
        unique_fd fd(open(temp.c_str(), O_RDONLY | O_CLOEXEC));
        if (fd.ok()) fsync(fd.get());
    }
    if (rename(temp.c_str(), (dir + "/" + key).c_str()) != 0) {
        const int saved_errno = errno;
        unlink(temp.c_str());
        errno = saved_errno;
        return false;
    }
    return true;
}

}  // namespace android::base
