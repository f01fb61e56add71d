#include "utils/kova_bpf_client_access.h"

#include <android-base/properties.h>
#include <android-base/strings.h>
#include <errno.h>
#include <grp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace Kova::Bpf {
namespace {

constexpr size_t kInitialGroupBuffer = 1024;
constexpr size_t kMaxGroupBuffer = 1 << 20;  // a group listing more members than this is not believed
constexpr size_t kInitialPeerGroups = 32;

}  // namespace

std::string ClientGroupName() {
    // No group name holds blanks or line ends, so those around the value (`echo name > file` on the
    // host) are not part of it.
    const std::string name = android::base::Trim(android::base::GetProperty(KOVA_CLIENT_GROUP_PROPERTY, ""));
    return name.empty() ? KOVA_DEFAULT_CLIENT_GROUP : name;
}

std::optional<gid_t> ResolveGroup(const std::string& name) {
    std::vector<char> buffer(kInitialGroupBuffer);
    while (true) {
        group entry{};
        group* found = nullptr;
        const int error = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
        if (error == ERANGE && buffer.size() < kMaxGroupBuffer) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (error != 0 || found == nullptr) return std::nullopt;
        return found->gr_gid;
    }
}

bool IsClientAdmitted(const PeerCredentials& peer, std::optional<gid_t> clientGroup) {
    if (peer.uid == 0) return true;
    if (!clientGroup) return false;
    return peer.gid == *clientGroup ||
           std::find(peer.groups.begin(), peer.groups.end(), *clientGroup) != peer.groups.end();
}

bool ReadPeerCredentials(int fd, PeerCredentials* peer) {
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return false;
    std::vector<gid_t> groups(kInitialPeerGroups);
    while (true) {
        socklen_t size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == 0) {
            groups.resize(size / sizeof(gid_t));
            break;
        }
        // Too small: the kernel said how much it needs.
        if (errno != ERANGE || size / sizeof(gid_t) <= groups.size()) return false;
        groups.resize(size / sizeof(gid_t));
    }
    peer->pid = credentials.pid;
    peer->uid = credentials.uid;
    peer->gid = credentials.gid;
    peer->groups = std::move(groups);
    return true;
}

PeerCredentials OwnCredentials() {
    PeerCredentials own;
    own.pid = getpid();
    own.uid = geteuid();
    own.gid = getegid();
    const int count = getgroups(0, nullptr);
    if (count > 0) {
        own.groups.resize(static_cast<size_t>(count));
        own.groups.resize(static_cast<size_t>(std::max(0, getgroups(count, own.groups.data()))));
    }
    return own;
}

}  // namespace Kova::Bpf
