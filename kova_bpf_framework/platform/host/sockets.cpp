// libcutils local sockets on the host: Unix stream and datagram sockets in the abstract, reserved
// (/dev/socket) and filesystem namespaces.

#include <android-base/parseint.h>
#include <ctype.h>
#include <cutils/sockets.h>
#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

namespace {

constexpr int kListenBacklog = 4;

// Fills *addr for `name` in `namespaceId`; returns the address length, or -1 (errno set).
socklen_t MakeAddress(const char* name, int namespaceId, sockaddr_un* addr) {
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_LOCAL;
    std::string path;
    size_t offset = 0;
    switch (namespaceId) {
        case ANDROID_SOCKET_NAMESPACE_ABSTRACT:
            offset = 1;  // sun_path[0] == '\0' marks an abstract name
            path = name;
            break;
        case ANDROID_SOCKET_NAMESPACE_RESERVED:
            path = std::string(ANDROID_SOCKET_DIR) + "/" + name;
            break;
        case ANDROID_SOCKET_NAMESPACE_FILESYSTEM:
            path = name;
            break;
        default:
            errno = EINVAL;
            return static_cast<socklen_t>(-1);
    }
    if (path.empty() || offset + path.size() > sizeof(addr->sun_path) - 1) {
        errno = ENAMETOOLONG;
        return static_cast<socklen_t>(-1);
    }
    memcpy(addr->sun_path + offset, path.data(), path.size());
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + offset + path.size());
}

}  // namespace

extern "C" int android_get_control_socket(const char* name) {
    std::string key = ANDROID_SOCKET_ENV_PREFIX;
    for (const char* p = name; *p != '\0'; ++p) key += isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
    const char* value = getenv(key.c_str());
    int fd = -1;
    if (value == nullptr || !android::base::ParseInt(value, &fd, 0)) return -1;
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode)) return -1;
    return fd;
}

extern "C" int socket_local_server(const char* name, int namespaceId, int type) {
    sockaddr_un addr;
    const socklen_t length = MakeAddress(name, namespaceId, &addr);
    if (length == static_cast<socklen_t>(-1)) return -1;
    const int fd = socket(AF_LOCAL, type | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (namespaceId != ANDROID_SOCKET_NAMESPACE_ABSTRACT) unlink(addr.sun_path);  // a stale file blocks bind
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), length) != 0 ||
        ((type == SOCK_STREAM || type == SOCK_SEQPACKET) && listen(fd, kListenBacklog) != 0)) {
        const int saved_errno = errno;
        close(fd);
        errno = saved_errno;
        return -1;
    }
    return fd;
}

extern "C" int socket_local_client(const char* name, int namespaceId, int type) {
    sockaddr_un addr;
    const socklen_t length = MakeAddress(name, namespaceId, &addr);
    if (length == static_cast<socklen_t>(-1)) return -1;
    const int fd = socket(AF_LOCAL, type | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    int result;
    do {
        result = connect(fd, reinterpret_cast<sockaddr*>(&addr), length);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        const int saved_errno = errno;
        close(fd);
        errno = saved_errno;
        return -1;
    }
    return fd;
}
