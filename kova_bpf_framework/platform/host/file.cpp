#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace android::base {

bool ReadFileToString(const std::string& path, std::string* content, bool follow_symlinks) {
    content->clear();
    const int flags = O_RDONLY | O_CLOEXEC | (follow_symlinks ? 0 : O_NOFOLLOW);
    unique_fd fd(TEMP_FAILURE_RETRY(open(path.c_str(), flags)));
    if (!fd.ok()) return false;
    char chunk[4096];
    while (true) {
        const ssize_t n = TEMP_FAILURE_RETRY(read(fd.get(), chunk, sizeof(chunk)));
        if (n < 0) {
            content->clear();
            return false;
        }
        if (n == 0) return true;
        content->append(chunk, static_cast<size_t>(n));
    }
}

bool WriteStringToFile(const std::string& content, const std::string& path, bool follow_symlinks) {
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | (follow_symlinks ? 0 : O_NOFOLLOW);
    unique_fd fd(TEMP_FAILURE_RETRY(open(path.c_str(), flags, 0644)));
    if (!fd.ok()) return false;
    const char* p = content.data();
    size_t left = content.size();
    while (left > 0) {
        const ssize_t n = TEMP_FAILURE_RETRY(write(fd.get(), p, left));
        if (n < 0) return false;
        p += n;
        left -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace android::base
