#include "utils/kova_bpf_service_manager.h"

#include <android-base/unique_fd.h>
#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace Kova::Bpf {

bool NotifyServiceManager(const std::string& state) {
    const char* name = getenv("NOTIFY_SOCKET");
    if (name == nullptr || name[0] == '\0') {
        errno = 0;
        return false;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t length = strlen(name);
    if ((name[0] != '/' && name[0] != '@') || length >= sizeof(address.sun_path)) {
        errno = EINVAL;
        return false;
    }
    memcpy(address.sun_path, name, length);
    if (name[0] == '@') address.sun_path[0] = '\0';  // abstract: no terminating NUL counts
    const socklen_t size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length + (name[0] == '/' ? 1 : 0));
    const android::base::unique_fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket.ok()) return false;
    return sendto(socket.get(), state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
                  size) == static_cast<ssize_t>(state.size());
}

}  // namespace Kova::Bpf
